// A result as a command passes it to the output: fields by name, lists, texts, numbers. Built once,
// shown by one of several writers.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace keyview::ctl {

// table is for people, the others are for programs; cmd are commands that rebuild what is shown. html,
// svg and dot are for the few commands that draw.
enum class output_format { table, json, jsonl, tsv, raw, cmd, yaml, html, svg, dot };

// Whether stderr is for programs as well.
inline bool for_programs(output_format format) {
    return format == output_format::json || format == output_format::jsonl ||
           format == output_format::yaml;
}

// How a word is coloured, where colour is wanted. The word carries the same information.
enum class tone { plain, good, bad };

// A number that has a word for people.
struct coded {
    int64_t code;
    std::string word;
    tone colour = tone::plain;
};

struct view;
using view_list = std::vector<view>;
using view_fields = std::vector<std::pair<std::string, view>>;

// The text is raw bytes, as the registry has them. std::monostate is null.
struct view {
    std::variant<std::monostate, std::string, coded, view_list, view_fields> value;
};

inline bool is_record(const view &shown) {
    return std::holds_alternative<view_fields>(shown.value);
}

// Null for a view that is no list.
inline const view_list *list_in(const view &shown) {
    return std::get_if<view_list>(&shown.value);
}

// A string of the library's; one without data is null.
inline view text_view(std::string_view text) {
    if (text.data() == nullptr) return {};
    return {std::string(text)};
}

// A text that was not given is null.
inline view optional_view(const std::string &text) {
    return text.empty() ? view{} : view{text};
}

inline view number_view(int64_t number) {
    return {coded{number, std::to_string(number)}};
}

inline view count_view(uint64_t number) {
    return number_view(static_cast<int64_t>(number));
}

inline view flag_view(int64_t flag) {
    return {coded{flag, flag == 0 ? "no" : "yes"}};
}

inline view enabled_view(int64_t flag) {
    return {coded{flag, flag == 0 ? "disabled" : "enabled", flag == 0 ? tone::bad : tone::good}};
}

}  // namespace keyview::ctl
