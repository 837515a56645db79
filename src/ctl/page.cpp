// See page.h.
#include "ctl/page.h"

#include <algorithm>
#include <ctime>
#include <iterator>
#include <utility>

#include "ctl/program_writer.h"
#include "ctl/record_view.h"
#include "ctl/text.h"
#include "model/folding.h"
#include "model/words.h"

namespace keyview::ctl {

static constexpr std::string_view PAGE =
#include "page.inc"
    ;

// ---- Data ---------------------------------------------------------------------------------------

// With all texts as people see them, so that no reader of the data has to know what is harmful.
static view made_plain(view shown) {
    if (auto *text = std::get_if<std::string>(&shown.value)) *text = escaped(*text);
    if (auto *list = std::get_if<view_list>(&shown.value))
        for (view &item : *list)
            item = made_plain(std::move(item));
    if (auto *fields = std::get_if<view_fields>(&shown.value))
        for (auto &[name, field] : *fields)
            field = made_plain(std::move(field));
    return shown;
}

static std::string time_now() {
    const time_t now = time(nullptr);
    tm parts = {};
    char text[32];
    (void)strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", gmtime_r(&now, &parts));  // it fits
    return text;
}

// The words of the failover policies by their codes.
static view failover_words() {
    view_fields words;
    for (int32_t code = 0; code <= *std::max_element(RCN_CODES, std::end(RCN_CODES)); ++code) {
        const view policy = policy_view(static_cast<prsr::failover>(code));
        words.push_back({std::to_string(code), {std::get<coded>(policy.value).word}});
    }
    return {std::move(words)};
}

static view_list database_rows(const overview &cluster) {
    view_list rows;
    for (const overview::database &one : cluster.databases) {
        view row = one.row;
        auto &fields = std::get<view_fields>(row.value);
        fields.push_back({"key", {database_key(one.element)}});
        fields.push_back({"record", one.record});
        rows.push_back(std::move(row));
    }
    return rows;
}

// JSON has "<" within strings only.
static std::string without_tags(const std::string &json) {
    std::string out;
    for (char byte : json)
        out += byte == '<' ? std::string("\\u003c") : std::string(1, byte);
    return out;
}

std::string page_data_of(const overview &cluster, const std::string &registry_url) {
    view_fields fields = {{"made", {time_now()}},
                          {"tool", {std::string("keyviewctl ") + KEYVIEW_VERSION}},
                          {"registry", {shown_url(registry_url)}},
                          {"revision", count_view(cluster.revision)},
                          {"failover", failover_words()},
                          {"databases", {database_rows(cluster)}}};
    fields.push_back(lint_view(cluster.lint).back());
    const view plain = made_plain({std::move(fields)});
    return without_tags(document_of("report", std::get<view_fields>(plain.value)).dump());
}

// ---- The page -----------------------------------------------------------------------------------

std::string page_of(const std::string &data, bool live) {
    const std::pair<std::string_view, std::string_view> parts[] = {
        {"{{connect}}", live ? "'self'" : "'none'"},
        {"{{live}}", live ? "yes" : "no"},
        {"{{data}}", data}};
    std::string out;
    std::string_view rest = PAGE;
    for (const auto &[mark, text] : parts) {  // in the order of the marks
        const size_t at = rest.find(mark);
        out.append(rest.substr(0, at)).append(text);
        rest.remove_prefix(at + mark.size());
    }
    return out.append(rest);
}

}  // namespace keyview::ctl
