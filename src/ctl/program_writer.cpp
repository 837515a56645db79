// See program_writer.h.
#include "ctl/program_writer.h"

#include <algorithm>

#include "admin/document/base64.h"
#include "ctl/text.h"
#include "model/text.h"

namespace keyview::ctl {

using nlohmann::ordered_json;

// ---- JSON ---------------------------------------------------------------------------------------

static ordered_json json_of(const view &shown);

static bool is_raw(const view &shown) {
    const auto *text = std::get_if<std::string>(&shown.value);
    return text != nullptr && !valid_utf8(*text);
}

static ordered_json base64_of(const view &shown) {
    return is_raw(shown) ? ordered_json(admin::to_base64(std::get<std::string>(shown.value)))
                         : nullptr;
}

static void add_field(const std::string &name, const view &shown, ordered_json *out) {
    (*out)[name] = json_of(shown);
    const view_list *list = list_in(shown);
    if (is_raw(shown)) (*out)[name + "_base64"] = base64_of(shown);
    if (list != nullptr && std::any_of(list->begin(), list->end(), is_raw)) {
        ordered_json &raw = (*out)[name + "_base64"] = ordered_json::array();
        for (const view &item : *list)
            raw.push_back(base64_of(item));
    }
}

// Adds the fields to an object.
static ordered_json object_of(const view_fields &fields,
                              ordered_json out = ordered_json::object()) {
    for (const auto &[name, field] : fields)
        add_field(name, field, &out);
    return out;
}

static ordered_json json_of(const view &shown) {
    if (const auto *text = std::get_if<std::string>(&shown.value)) {
        return is_raw(shown) ? ordered_json(nullptr) : ordered_json(*text);
    }
    if (const auto *number = std::get_if<coded>(&shown.value)) return number->code;
    if (const view_list *list = list_in(shown)) {
        ordered_json out = ordered_json::array();
        for (const view &item : *list)
            out.push_back(json_of(item));
        return out;
    }
    const auto *fields = std::get_if<view_fields>(&shown.value);
    return fields == nullptr ? ordered_json(nullptr) : object_of(*fields);
}

static ordered_json head_of(const char *kind) {
    return {{"kind", kind}, {"version", 1}};
}

ordered_json document_of(const char *kind, const view_fields &fields) {
    return object_of(fields, head_of(kind));
}

std::string lines_of(const char *kind, const view_fields &fields) {
    const view_list *list = list_in(fields.back().second);
    if (list == nullptr) return document_of(kind, fields).dump() + "\n";
    ordered_json head = object_of({fields.begin(), fields.end() - 1}, head_of(kind));
    std::string out;
    for (const view &item : *list) {
        ordered_json line = head;
        add_field("item", item, &line);
        out += line.dump() + "\n";
    }
    return out;
}

// ---- Cells --------------------------------------------------------------------------------------

static std::string cell_of(const view &shown) {
    if (const auto *text = std::get_if<std::string>(&shown.value)) return escaped(*text);
    if (const auto *number = std::get_if<coded>(&shown.value)) return std::to_string(number->code);
    if (std::holds_alternative<std::monostate>(shown.value)) return "\\N";
    return json_of(shown).dump();  // a list within a row
}

static std::string row_of(const view_fields &fields, bool heading) {
    std::string out;
    for (const auto &[name, field] : fields)
        out.append(out.empty() ? "" : "\t").append(heading ? name : cell_of(field));
    return out.append("\n");
}

static std::string label_below(const std::string &name, const std::string &below) {
    return name.empty() ? below : name + "." + below;
}

// Lists with records in them go on as "services.0.name".
static void add_cells(const std::string &name, const view &shown, std::string *out) {
    const view_list *list = list_in(shown);
    if (const auto *fields = std::get_if<view_fields>(&shown.value)) {
        for (const auto &[below, field] : *fields)
            add_cells(label_below(name, below), field, out);
    } else if (list != nullptr && std::any_of(list->begin(), list->end(), is_record)) {
        for (size_t n = 0; n < list->size(); ++n)
            add_cells(label_below(name, std::to_string(n)), (*list)[n], out);
    } else {
        *out += name + "\t" + cell_of(shown) + "\n";
    }
}

std::string cells_of(const view &shown) {
    std::string out;
    const view_list *list = list_in(shown);
    if (list == nullptr && !is_record(shown)) return cell_of(shown) + "\n";
    if (list == nullptr) add_cells("", shown, &out);
    for (size_t n = 0; list != nullptr && n < list->size(); ++n) {
        const view &item = (*list)[n];
        const auto *fields = std::get_if<view_fields>(&item.value);
        if (fields != nullptr && out.empty()) out = row_of(*fields, true);
        out += fields == nullptr ? cell_of(item) + "\n" : row_of(*fields, false);
    }
    return out;
}

// ---- Bare text ----------------------------------------------------------------------------------

bool bare_text_of(const view &shown, std::string *text) {
    if (const view_list *list = list_in(shown)) {
        return std::all_of(list->begin(), list->end(),
                           [&](const view &item) { return bare_text_of(item, text); });
    }
    if (is_record(shown)) return false;
    if (const auto *bytes = std::get_if<std::string>(&shown.value)) *text += *bytes + "\n";
    if (const auto *number = std::get_if<coded>(&shown.value)) *text += number->word + "\n";
    return true;
}

}  // namespace keyview::ctl
