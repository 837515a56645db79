// See completion.h.
#include "ctl/completion.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <set>

#include "ctl/option_words.h"
#include "ctl/settings.h"
#include "ctl/suggest.h"
#include "ctl/terminal.h"
#include "ctl/text.h"
#include "model/folding.h"
#include "model/locks.h"
#include "model/path.h"

namespace keyview::ctl {

using word_list = std::vector<std::string>;

namespace {

// The command line as far as it is complete.
struct walked {
    const CLI::App *command;
    word_list arguments = {};
    const CLI::Option *open = nullptr;  // waits for its value
    bool options_ended = false;         // by "--"
};

}  // namespace

static const CLI::Option *option_of(const CLI::App *command, const std::string &word) {
    for (; command != nullptr; command = command->get_parent())
        for (const CLI::Option *option : command->get_options())
            if (!option->get_positional() && option->check_name(word)) return option;
    return nullptr;
}

static walked walk(const CLI::App &app, const word_list &line) {
    walked at = {&app};
    for (const std::string &word : line) {
        if (at.open != nullptr) {
            at.open = nullptr;
            continue;
        }
        if (word == "--") {
            at.options_ended = true;
            continue;
        }
        if (!at.options_ended && word.size() > 1 && word[0] == '-') {
            const CLI::Option *option = option_of(at.command, word);
            if (option != nullptr && option->get_items_expected_max() > 0) at.open = option;
            continue;
        }
        const CLI::App *below = nullptr;
        for (const CLI::App *one : at.command->get_subcommands(nullptr))
            if (one->get_name() == word) below = one;
        if (below != nullptr && at.arguments.empty()) {
            at.command = below;
        } else {
            at.arguments.push_back(word);
        }
    }
    return at;
}

word_list line_to_complete(const word_list &request) {
    auto at = std::find(request.begin(), request.end(), COMPLETE);
    if (at != request.end()) ++at;
    if (at != request.end() && *at == "--") ++at;
    return at == request.end() ? word_list() : word_list(at, request.end() - 1);
}

std::string first_argument(const CLI::App &app, const word_list &line) {
    const walked at = walk(app, line);
    return at.arguments.empty() ? "" : at.arguments.front();
}

// Keys one level below what is written of a path.
static word_list keys_like(const std::string &path) {
    std::string_view parent = parent_path(path);
    std::string top(parent.empty() ? ROOT : parent);
    word_list out;
    for (const auto &[key, value] : readable_children(top))
        if (escaped(key) == key && (key != top || parent.empty())) out.push_back(key);
    return out;
}

static word_list children_of(const std::string &path) {
    word_list out;
    for (const auto &[key, value] : readable_children(path))
        if (key != path && escaped(key) == key) out.push_back(key);
    return out;
}

// The locks of the listing, and of all databases, nodes and storage manager entries.
static word_list lock_names() {
    word_list out = {lock_of(DB_ROOT)};
    auto add = [&](const std::string &parent) {
        for (const std::string &path : children_of(parent))
            out.push_back(lock_of(path));
    };
    add(DB_ROOT);
    add(NODEAPPS_ROOT);
    for (const std::string &scope : children_of(STG_ROOT))
        add(scope);
    return out;
}

// Programs in the directories of PATH.
static word_list programs_like(const std::string &begun) {
    std::set<std::string> out;
    for (const std::string &folder : CLI::detail::split(environment("PATH"), ':')) {
        std::error_code failed;
        for (const auto &file : std::filesystem::directory_iterator(folder, failed)) {
            std::string name = file.path().filename();
            if (!begun.empty() && name.rfind(begun, 0) == 0 && escaped(name) == name)
                out.insert(name);
        }
    }
    return {out.begin(), out.end()};
}

static word_list command_names(const CLI::App &app) {
    word_list out;
    for (const CLI::App *one : app.get_subcommands(nullptr))
        if (!one->get_group().empty()) out.push_back(one->get_name());
    return out;
}

static word_list context_names() {
    word_list out;
    for (const known_context &one : known_contexts())
        out.push_back(one.name);
    return out;
}

static word_list values_for(const std::string &name, const walked &at, const std::string &begun) {
    const std::string first = at.arguments.empty() ? "" : at.arguments[0];
    if (name == "LOCK") return lock_names();
    if (name == "CMD") return programs_like(begun);
    if (name == "COMMAND") return command_names(*at.command->get_parent());
    if (name == "CONTEXT" || name == "--context") return context_names();
    if (name == "KEY") return keys_like(begun);
    word_list names = names_for(name, first);
    return names.empty() ? words_of(name) : names;
}

static word_list option_names(const CLI::App *command) {
    word_list out;
    for (; command != nullptr; command = command->get_parent())
        for (const CLI::Option *option : command->get_options())
            for (const std::string &name : option->get_lnames())
                out.push_back("--" + name);
    return out;
}

static word_list next_words(const walked &at, const std::string &begun) {
    if (at.open != nullptr) return values_for("--" + at.open->get_lnames().front(), at, begun);
    if (!at.options_ended && !begun.empty() && begun[0] == '-') return option_names(at.command);
    word_list out = command_names(*at.command);
    size_t left = at.arguments.size();
    for (const CLI::Option *option : at.command->get_options()) {
        if (!option->get_positional() || left-- > 0) continue;
        return values_for(option->get_name(), at, begun);
    }
    return out;
}

std::string candidates_for(const CLI::App &app, word_list line) {
    std::string begun;
    if (!line.empty()) {
        begun = line.back();
        line.pop_back();
    }
    std::string out;
    for (const std::string &word : next_words(walk(app, line), begun))
        if (element_of(word).rfind(element_of(begun), 0) == 0) out += word + "\n";
    return out;
}

static constexpr struct {
    const char *shell, *script;
} SCRIPTS[] = {
    // COMP_WORDS would split words at ":", which every registry's URL contains.
    {"bash", R"(_keyviewctl() {
    local line=${COMP_LINE:0:COMP_POINT} words n
    IFS=$' \t' read -ra words <<< "$line"
    [[ $line == *[[:blank:]] ]] && words+=("")
    mapfile -t COMPREPLY < <(keyviewctl __complete -- "${words[@]:1}" 2>/dev/null)
    for n in "${!COMPREPLY[@]}"; do printf -v "COMPREPLY[n]" %q "${COMPREPLY[n]}"; done
    [ ${#COMPREPLY[@]} -gt 0 ] || compopt -o default 2>/dev/null
}
complete -F _keyviewctl keyviewctl
)"},
    {"zsh", R"(#compdef keyviewctl
_keyviewctl() {
    local -a found
    found=("${(@f)$(keyviewctl __complete -- "${(@)words[2,CURRENT]}" 2>/dev/null)}")
    if [[ -n "$found" ]]; then compadd -U -a found; else _files; fi
}
compdef _keyviewctl keyviewctl
)"},
    {"fish", R"(function __keyviewctl
    set -l found (keyviewctl __complete -- (commandline -opc)[2..-1] (commandline -ct) 2>/dev/null)
    if set -q found[1]
        printf '%s\n' $found
    else
        __fish_complete_path (commandline -ct)
    end
end
complete -c keyviewctl -f -a '(__keyviewctl)'
)"},
};

std::string completion_script(const std::string &shell) {
    for (const auto &row : SCRIPTS)
        if (shell == row.shell) return row.script;
    return "";
}

}  // namespace keyview::ctl
