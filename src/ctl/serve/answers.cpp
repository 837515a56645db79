// See answers.h.
#include "ctl/serve/answers.h"

#include <algorithm>
#include <functional>
#include <nlohmann/json.hpp>
#include <utility>

#include "ctl/page.h"
#include "ctl/program_writer.h"
#include "model/folding.h"

namespace keyview::ctl {

static constexpr std::string_view DATABASES = "/v1/databases", NODES = "/v1/nodeapps",
                                  STG = "/v1/stg";

answer answer_of(const char *type, std::string body, unsigned status) {
    return {status, type, std::make_shared<const std::string>(std::move(body)), ""};
}

static unsigned status_of(exit_code code) {
    switch (code) {
        case EXIT_NOT_FOUND:
            return 404;
        case EXIT_USAGE:
            return 400;
        case EXIT_DENIED:
            return 403;
        case EXIT_REGISTRY:
        case EXIT_LOCK:
            return 503;
        default:
            return 500;
    }
}

answer error_answer(const tool_error &error) {
    return answer_of(JSON, error_document(error), status_of(error.code));
}

answer error_answer(unsigned status, exit_code code, const std::string &why) {
    return answer_of(JSON,
                     error_document({code, "the request is not answered", "", why,
                                     exit_rows().first[code].todo}),
                     status);
}

namespace {

// Adds answers with the tag of a revision and their content.
struct answer_maker {
    answer_map answers;
    uint64_t revision;

    void add(const std::string &path, answer made) {
        char tag[64];
        (void)snprintf(tag, sizeof tag, "\"%llu-%zx\"", static_cast<unsigned long long>(revision),
                       std::hash<std::string>()(*made.body));  // it fits
        made.etag = tag;
        answers.emplace(path, std::move(made));
    }

    // As the command prints it with -o json.
    void add_document(const std::string &path, const char *kind, const view_fields &fields) {
        add(path, answer_of(JSON, document_of(kind, fields).dump(2) + "\n"));
    }
};

// The records of nodes or storage managers, under the elements of their keys.
static void add_entries(const std::vector<entry_overview::record> &records, std::string_view head,
                        const char *kind, answer_maker *out, std::vector<listed_entry> *listed) {
    for (const entry_overview::record &one : records) {
        listed->push_back(one.of);
        std::string path = std::string(head) + "/";
        if (!one.of.scope.empty()) path += one.of.scope + "/";
        path += one.of.element;
        if (one.error) {
            out->add(path, error_answer(*one.error));
        } else {
            out->add_document(path, kind, {{"record", one.fields}});
        }
    }
}

}  // namespace

answer_map answers_of(const overview &cluster, const entry_overview &entries,
                      const std::string &registry_url) {
    answer_maker out = {{}, cluster.revision};
    const std::string data = page_data_of(cluster, registry_url);
    out.add("/page.json", answer_of(JSON, data));
    out.add("/", answer_of("text/html; charset=utf-8", page_of(data, true)));
    view_list names, rows;
    for (const overview::database &one : cluster.databases) {
        names.push_back({one.name});
        rows.push_back(one.row);
        const std::string path = std::string(DATABASES) + "/" + one.element;
        if (one.record.value.index() != 0) {
            out.add_document(path, "prsr_cfg", {{"record", one.record}});
        } else {
            out.add(path, error_answer({one.code, "database " + one.name + " cannot be shown", "",
                                        one.why, exit_rows().first[one.code].todo}));
        }
    }
    out.add_document(std::string(DATABASES), "db_list", {{"db_list", {std::move(names)}}});
    std::vector<listed_entry> nodes, storage_managers;
    add_entries(entries.nodes, NODES, "prsr_nodeapps_cfg", &out, &nodes);
    out.add_document(std::string(NODES), "node_list", {{"nodes", names_view(nodes)}});
    add_entries(entries.storage_managers, STG, "prsr_stg_cfg", &out, &storage_managers);
    out.add_document(std::string(STG), "stg_list",
                     {{"storage_managers", scopes_view(storage_managers)}});
    out.add_document("/v1/status", "cluster_status", {{"databases", {std::move(rows)}}});
    out.add_document("/v1/lint", "lint", lint_view(cluster.lint));
    out.add_document("/v1/version", "version", {{"release", {std::string(KEYVIEW_VERSION)}}});
    return std::move(out.answers);
}

static bool names_record(const std::string &path) {
    constexpr std::string_view HEADS[] = {DATABASES, NODES, STG};
    return std::any_of(std::begin(HEADS), std::end(HEADS), [&](std::string_view head) {
        return path.size() > head.size() && path.compare(0, head.size(), head) == 0 &&
               path[head.size()] == '/';
    });
}

answer find_answer(const answer_map &answers, const std::string &path) {
    auto found = answers.find(path);
    if (found == answers.end() && names_record(path))  // in any case, as everywhere
        found = answers.find(element_of(path));
    if (found != answers.end()) return found->second;
    return error_answer(404, EXIT_NOT_FOUND, "there is nothing under this path");
}

}  // namespace keyview::ctl
