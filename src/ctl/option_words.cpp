// See option_words.h.
#include "ctl/option_words.h"

#include <iterator>

#include "ctl/exit_codes.h"
#include "model/words.h"

namespace keyview::ctl {

static constexpr output_word OUTPUTS[] = {
    {"table", output_format::table},
    {"wide", output_format::table, true},
    {"json", output_format::json},
    {"jsonl", output_format::jsonl},
    {"yaml", output_format::yaml},
    {"tsv", output_format::tsv},
    {"raw", output_format::raw},
    {"cmd", output_format::cmd},
    {"html", output_format::html, false, "report"},
    {"svg", output_format::svg, false, "graph"},
    {"dot", output_format::dot, false, "graph"},
};

static constexpr color_word COLORS[] = {
    {"auto", color_mode::automatic},
    {"always", color_mode::always},
    {"never", color_mode::never},
};

rows<output_word> output_words() {
    return OUTPUTS;
}

rows<color_word> color_words() {
    return COLORS;
}

template <typename row, size_t count>
static std::vector<std::string> words_in(const row (&table)[count]) {
    std::vector<std::string> out;
    for (const row &one : table)
        out.push_back(one.word);
    return out;
}

// The code's word, which its number stands for as well.
static std::vector<std::string> exit_words() {
    std::vector<std::string> out;
    for (const exit_row &row : exit_rows())
        out.push_back(row.word);
    return out;
}

std::vector<std::string> words_of(const std::string &argument) {
    if (argument == "--output") return words_in(OUTPUTS);
    if (argument == "--color") return words_in(COLORS);
    if (argument == "--as") return {"text", "list", "base64"};
    if (argument == "ROLE") return {std::begin(ROLES), std::end(ROLES)};
    if (argument == "KIND") return {"databases", "nodes", "storage-managers"};
    if (argument == "SHELL") return {"bash", "zsh", "fish"};
    if (argument == "PAGE") return {"keyviewctl", "keyview-document", "keyview-keys"};
    if (argument == "CODE") return exit_words();
    return {};
}

}  // namespace keyview::ctl
