// Two renderers of a view, and the two streams.
#include "ctl/output.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>

#include "ctl/text.h"

namespace keyview::ctl {

using nlohmann::ordered_json;

// ---- Streams ------------------------------------------------------------------------------------

static bool write_all(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t done = write(fd, bytes.data(), bytes.size());
        if (done < 0 && errno == EINTR) continue;
        if (done < 0) return false;
        bytes.remove_prefix(static_cast<size_t>(done));
    }
    return true;
}

void write_result(std::string_view bytes) {
    if (write_all(STDOUT_FILENO, bytes)) return;
    throw tool_error{EXIT_INTERNAL, "the result could not be written", "standard output",
                     strerror(errno), "direct the output to where there is room for it"};
}

// ---- For programs -------------------------------------------------------------------------------

static ordered_json json_of(const view &shown);

static bool is_raw(const view &shown) {
    const auto *text = std::get_if<std::string>(&shown.value);
    return text != nullptr && !valid_utf8(*text);
}

static ordered_json base64_of(const view &shown) {
    return is_raw(shown) ? ordered_json(base64(std::get<std::string>(shown.value))) : nullptr;
}

// Bytes that are no text stay null in the field itself and come again beside it.
static void add_field(const std::string &name, const view &shown, ordered_json *out) {
    (*out)[name] = json_of(shown);
    const auto *list = std::get_if<view_list>(&shown.value);
    if (is_raw(shown)) (*out)[name + "_base64"] = base64_of(shown);
    if (list != nullptr && std::any_of(list->begin(), list->end(), is_raw)) {
        ordered_json &raw = (*out)[name + "_base64"] = ordered_json::array();
        for (const view &item : *list)
            raw.push_back(base64_of(item));
    }
}

static ordered_json json_of(const view &shown) {
    if (const auto *text = std::get_if<std::string>(&shown.value)) {
        return is_raw(shown) ? ordered_json(nullptr) : ordered_json(*text);
    }
    if (const auto *number = std::get_if<coded>(&shown.value)) return number->code;
    if (const auto *list = std::get_if<view_list>(&shown.value)) {
        ordered_json out = ordered_json::array();
        for (const view &item : *list)
            out.push_back(json_of(item));
        return out;
    }
    if (const auto *fields = std::get_if<view_fields>(&shown.value)) {
        ordered_json out = ordered_json::object();
        for (const auto &[name, field] : *fields)
            add_field(name, field, &out);
        return out;
    }
    return nullptr;
}

// ---- For people ---------------------------------------------------------------------------------

// Texts that could be taken for something else stand in quotes.
static std::string shown_text(const std::string &text) {
    bool quote = text.empty() || text == "-" || text.front() == ' ' || text.back() == ' ' ||
                 text.front() == '"';
    return quote ? "\"" + escaped(text) + "\"" : escaped(text);
}

static std::string scalar_of(const view &shown) {
    if (const auto *text = std::get_if<std::string>(&shown.value)) return shown_text(*text);
    if (const auto *number = std::get_if<coded>(&shown.value)) return escaped(number->word);
    return "-";
}

static bool is_record(const view &shown) {
    return std::holds_alternative<view_fields>(shown.value);
}

static void add_fields(const view_fields &fields, size_t indent, bool first_is_begun,
                       std::string *out);

// One item a line, the first one behind its label.
static void add_list(const view_list &list, size_t label_width, std::string *out) {
    for (size_t n = 0; n < list.size(); ++n) {
        if (n > 0) *out += std::string(label_width, ' ');
        *out += scalar_of(list[n]) + "\n";
    }
    if (list.empty()) *out += "-\n";
}

static void add_records(const view_list &list, size_t indent, std::string *out) {
    *out += "\n";
    for (const view &item : list) {
        *out += std::string(indent, ' ') + "- ";
        if (is_record(item)) {
            add_fields(std::get<view_fields>(item.value), indent + 2, true, out);
        } else {
            *out += scalar_of(item) + "\n";
        }
    }
}

// first_is_begun: the first line's indentation is there already.
static void add_fields(const view_fields &fields, size_t indent, bool first_is_begun,
                       std::string *out) {
    size_t width = 0;
    for (const auto &[name, field] : fields)
        width = std::max(width, name.size());
    for (const auto &[name, field] : fields) {
        if (!first_is_begun) *out += std::string(indent, ' ');
        first_is_begun = false;
        const auto *list = std::get_if<view_list>(&field.value);
        bool records = list != nullptr && std::any_of(list->begin(), list->end(), is_record);
        *out += name + std::string(records ? 0 : width - name.size() + 2, ' ');
        if (records) {
            add_records(*list, indent + 2, out);
        } else if (list != nullptr) {
            add_list(*list, indent + width + 2, out);
        } else {
            *out += scalar_of(field) + "\n";
        }
    }
}

// A heading, then a line for each record; all of them have the first one's fields.
static std::string grid_of(const view_list &records) {
    std::vector<std::vector<std::string>> lines(1);
    for (const auto &[name, field] : std::get<view_fields>(records.front().value))
        lines[0].push_back(name);
    for (const view &record : records) {
        lines.emplace_back();
        for (const auto &[name, field] : std::get<view_fields>(record.value))
            lines.back().push_back(scalar_of(field));
    }
    std::vector<size_t> widths(lines[0].size());
    for (const auto &line : lines) {
        for (size_t n = 0; n < line.size(); ++n)
            widths[n] = std::max(widths[n], line[n].size());
    }
    std::string out;
    for (const auto &line : lines) {
        for (size_t n = 0; n + 1 < line.size(); ++n)
            out += line[n] + std::string(widths[n] - line[n].size() + 2, ' ');
        out += line.back() + "\n";
    }
    return out;
}

static std::string tree_of(const view &shown) {
    std::string out;
    if (const auto *fields = std::get_if<view_fields>(&shown.value)) {
        add_fields(*fields, 0, false, &out);
    } else if (const auto *list = std::get_if<view_list>(&shown.value)) {
        if (!list->empty() && is_record(list->front())) return grid_of(*list);
        for (const view &item : *list)
            out += scalar_of(item) + "\n";
    } else {
        out = scalar_of(shown) + "\n";
    }
    return out;
}

void show_answer(output_format format, const char *kind, const view_fields &fields) {
    if (format == output_format::table) return write_result(tree_of(fields.back().second));
    ordered_json out = {{"kind", kind}, {"version", 1}};
    for (const auto &[name, field] : fields)
        add_field(name, field, &out);
    write_result(out.dump(2) + "\n");
}

void show_result(output_format format, const char *kind, const char *value_name,
                 const view &value) {
    show_answer(format, kind, {{value_name, value}});
}

// ---- Errors -------------------------------------------------------------------------------------

void check_result(const admin::result &result, const std::string &what, const std::string &where) {
    if (result.code == admin::status::done) return;
    const admin_failure &failure = admin_failure_of(result.code);
    throw tool_error{failure.code,        what, where, result.text, failure.todo, result.problems,
                     result.more_problems};
}

static std::string error_text(const tool_error &error) {
    std::string out = "keyviewctl: " + escaped(error.what);
    if (!error.where.empty()) out += "\n  where: " + escaped(error.where);
    if (!error.why.empty()) out += "\n  why:   " + escaped(error.why);
    for (const admin::problem &wrong : error.problems) {
        out += "\n    " + escaped(wrong.place.empty() ? "the whole" : wrong.place) + ": " +
               escaped(wrong.reason);
    }
    if (error.more_problems > 0)
        out += "\n    and " + std::to_string(error.more_problems) + " more";
    if (!error.todo.empty()) out += "\n  do:    " + escaped(error.todo);
    return out + "\n";
}

static std::string utf8_text(const std::string &text) {
    return valid_utf8(text) ? text : escaped(text);
}

static ordered_json error_json(const tool_error &error) {
    ordered_json problems = ordered_json::array();
    for (const admin::problem &wrong : error.problems) {
        problems.push_back(
            {{"place", utf8_text(wrong.place)}, {"reason", utf8_text(wrong.reason)}});
    }
    return {{"kind", "error"},
            {"version", 1},
            {"exit_code", error.code},
            {"error", exit_word(error.code)},
            {"what", utf8_text(error.what)},
            {"where", utf8_text(error.where)},
            {"why", utf8_text(error.why)},
            {"do", utf8_text(error.todo)},
            {"problems", problems},
            {"more_problems", error.more_problems}};
}

void report_error(output_format format, const tool_error &error) {
    std::string text =
        format == output_format::json ? error_json(error).dump() + "\n" : error_text(error);
    (void)write_all(STDERR_FILENO, text);  // there is nowhere left to tell it
}

}  // namespace keyview::ctl
