// create, and the removal by name: databases with their services and instances.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>

#include "admin/change/keys.h"
#include "admin/document/document.h"
#include "admin/document/meanings.h"
#include "ctl/change_view.h"
#include "ctl/command.h"
#include "ctl/output.h"
#include "ctl/suggest.h"
#include "model/folding.h"
#include "model/text.h"
#include "model/words.h"

namespace keyview::ctl {

using nlohmann::ordered_json;

namespace {
struct record_kind {
    const char *word;
    const char *arguments;
    const char *list;      // of the database that has it; null for a database itself
    const char *key;       // of that list
    const char *record;    // as document_fields() has it
    const char *defaults;  // JSON: what the commands need to work on it
    const char *needed;    // a field without which readers fail, or null
    bool dotted;
};
}  // namespace

static constexpr record_kind KINDS[] = {
    {"database", "DB", nullptr, nullptr, "databases[]",
     R"({"enabled": true, "instances": [], "services": []})", nullptr, false},
    {"service", "DB SERVICE", "services", KEY_SERVICE, "databases[].services[]",
     R"({"enabled": true, "preferred": [], "available": []})", nullptr, true},
    {"instance", "DB INSTANCE", "instances", KEY_INSTANCE, "databases[].instances[]",
     R"({"enabled": true})", "node", false},
};

static std::string record_key(const record_kind &kind, const std::string &database,
                              const std::string &name) {
    if (kind.list == nullptr) return database_key(name);
    return database_key(database) + "." + kind.key + "." + element_of(name, kind.dotted);
}

// ---- create -------------------------------------------------------------------------------------

[[noreturn]] static void refuse(const std::string &why, const std::string &todo) {
    throw tool_error{EXIT_USAGE, "nothing is created", "", why, todo};
}

static ordered_json flag_of(const std::string &field, const std::string &value) {
    const std::string word = element_of(value);
    if (word == "true" || word == "false") return word == "true";
    refuse(field + " is true or false, not " + value, "correct it");
}

// "Sales1,Sales2": records of a service, enabled.
static ordered_json instances_in(const std::string &names) {
    ordered_json out = ordered_json::array();
    for (const std::string &name : CLI::detail::split(names, ','))
        out.push_back({{"name", name}, {"enabled", true}});
    return out;
}

// given: the fields that have their value already.
static void set_field(const record_kind &kind, const std::string &assignment, ordered_json *record,
                      std::set<std::string> *given) {
    const size_t equals = assignment.find('=');
    const std::string field = assignment.substr(0, equals);
    std::vector<std::string> known;
    for (const admin::document_field &row : admin::document_fields()) {
        bool nested = row.type == "records" && kind.list == nullptr;
        if (row.record != kind.record || row.type == "name" || nested) continue;
        known.push_back(row.field);
        if (row.field != field || equals == assignment.npos) continue;
        const std::string value = assignment.substr(equals + 1);
        const bool once = given->insert(field).second || row.type == "list of texts";
        if (!once) refuse(field + " is given twice", "give it once");
        if (!valid_utf8(value)) refuse("the value of " + field + " is no UTF-8", "use \"set\"");
        ordered_json &at = (*record)[field];
        if (row.type == "flag") {
            at = flag_of(field, value);
        } else if (row.type == "records") {
            at = instances_in(value);
        } else if (row.type == "list of texts") {
            at.push_back(value);
        } else {
            at = value;
        }
        return;
    }
    const std::string meant = nearest(field, known);
    refuse(assignment + " is no FIELD=VALUE of a " + kind.word,
           (meant.empty() ? "" : "did you mean " + meant + "=? ") +
               "\"keyviewctl explain --fields\" lists the fields");
}

// The name under which a database is registered.
static std::string registered_name(const tool &shared, const std::string &database) {
    const std::string key = database_key(database);
    const std::string value = attempt("nothing is created", shared.registry, [&] {
        return admin::read_keys(key, reach::key_alone).keys.begin()->second;
    });
    return value.empty() ? std::string(last_element(key)) : value.substr(0, value.find('\0'));
}

static exit_code run_create(const tool &shared, const record_kind &kind, const given_names &names,
                            const std::vector<std::string> &fields) {
    const bool below = kind.list != nullptr;
    const std::string &name = names[below ? 1 : 0];
    ordered_json record = ordered_json::parse(kind.defaults);
    record["name"] = name;
    if (!below) record["role"] = ROLES[0];
    std::set<std::string> given;
    for (const std::string &assignment : fields)
        set_field(kind, assignment, &record, &given);
    if (kind.needed != nullptr && record.value(kind.needed, "").empty())
        refuse(std::string("readers need its ") + kind.needed,
               std::string("give ") + kind.needed + "=VALUE");
    if (below) {
        record = {{"name", registered_name(shared, names[0])},
                  {kind.list, ordered_json::array({record})}};
    }
    ordered_json document = {{"format", FORMAT}, {"version", VERSION}};
    document["databases"] = ordered_json::array({record});
    const std::string text = document.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
    return carry_out(shared, {std::string(kind.word) + " " + name + " is not created"},
                     [&](admin::change_options options) {
                         if (below) options.present = {database_key(names[0])};
                         options.absent = {record_key(kind, names[0], name)};
                         return admin::apply_document(text, options);
                     });
}

// ---- rm -----------------------------------------------------------------------------------------

// The entries of an instance in the services of its database.
static void add_service_entries(const std::string &database, const std::string &instance,
                                std::set<std::string> *paths) {
    const std::string services = database_key(database) + "." + KEY_SERVICE;
    for (const auto &[service, value] : readable_children(services)) {
        const std::string entry = service + "." + KEY_INSTANCES + "." + element_of(instance);
        if (service != services && key_exists(entry)) paths->insert(entry);
    }
}

static exit_code run_rm(const tool &shared, const record_kind &kind, const given_names &names,
                        const std::vector<std::string> &more) {
    std::vector<std::string> all = {names[kind.list != nullptr ? 1 : 0]};
    all.insert(all.end(), more.begin(), more.end());
    std::set<std::string> paths;
    std::string what = kind.word;
    for (const std::string &name : all) {
        what += " " + name;
        paths.insert(record_key(kind, names[0], name));
        if (kind.key == KEY_INSTANCE) add_service_entries(names[0], name, &paths);
    }
    return carry_out(shared, {what + " is not removed", "", true},
                     [&](const admin::change_options &options) {
                         return admin::remove_keys({paths.begin(), paths.end()}, options);
                     });
}

// ---- The commands -------------------------------------------------------------------------------

using record_run = exit_code (*)(const tool &, const record_kind &, const given_names &,
                                 const std::vector<std::string> &);

static void add_kinds(CLI::App *group, tool *shared, const char *does, const char *option,
                      const char *more, record_run run) {
    for (const record_kind &kind : KINDS) {
        auto names = std::make_shared<given_names>();
        auto rest = std::make_shared<std::vector<std::string>>();
        CLI::App *one =
            add_command(group, shared, kind.word,
                        std::string(does) + (kind.word[0] == 'i' ? " an " : " a ") + kind.word,
                        [=, &kind] { return run(*shared, kind, *names, *rest); });
        add_arguments(one, shared,
                      (kind.arguments + std::string(" --dry-run --if-revision --yes")).c_str(),
                      names);
        one->add_option(option, *rest, more);
    }
}

void add_create_commands(CLI::App *app, tool *shared) {
    CLI::App *create = app->add_subcommand("create", "Create a database, a service or an instance");
    create->require_subcommand(1);
    create->fallthrough();
    add_kinds(create, shared, "Create", "FIELD",
              "FIELD=VALUE, as \"explain --fields\" lists them; instances are joined by commas",
              run_create);
}

void add_removal_commands(CLI::App *app, tool *shared) {
    add_kinds(app->get_subcommand("rm"), shared, "Remove, by its name,", "MORE",
              "The names of more, removed with it", run_rm);
}

}  // namespace keyview::ctl
