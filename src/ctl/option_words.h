// The words that options and arguments accept, each list once: the check of the command line, the
// help and the completion read them here.
#pragma once

#include <string>
#include <vector>

#include "ctl/terminal.h"
#include "ctl/view.h"
#include "model/records.h"

namespace keyview::ctl {

struct output_word {
    const char *word;
    output_format means;
    bool whole = false;              // a table for people in which nothing is wrapped or shortened
    const char *only_for = nullptr;  // the command that has it, if not most do
};
rows<output_word> output_words();

struct color_word {
    const char *word;
    color_mode means;
};
rows<color_word> color_words();

// The words of an option, such as "--output", or of an argument, such as "SHELL"; none where any
// text is accepted.
std::vector<std::string> words_of(const std::string &argument);

}  // namespace keyview::ctl
