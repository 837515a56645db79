// See settings.h.
#include "ctl/settings.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fstream>
#include <map>

#include "ctl/output.h"
#include "ctl/terminal.h"

namespace keyview::ctl {

static constexpr const char *MACHINE_FILE = "/etc/keyview/config";

namespace {

struct settings_file {
    std::string name;
    std::map<std::string, std::string> values;  // by "registry" or "context.test.registry"
};

}  // namespace

static std::string user_file() {
    std::string folder = environment("XDG_CONFIG_HOME");
    if (folder.empty()) folder = environment("HOME") + "/.config";
    return folder + "/keyview/config";
}

static settings_file read_settings(const std::string &name) {
    settings_file file = {name, {}};
    std::ifstream text(name);
    if (!text) return file;
    try {
        for (const CLI::ConfigItem &item : CLI::ConfigINI().from_config(text)) {
            if (item.name == "++" || item.name == "--") continue;  // where a section begins or ends
            file.values[item.fullname()] = item.inputs.empty() ? "" : item.inputs.back();
        }
    } catch (const CLI::Error &error) {
        throw tool_error{EXIT_USAGE, "the settings cannot be read", name, error.what(),
                         "write lines of \"name = value\""};
    }
    return file;
}

namespace {

class search {
  public:
    search() : files_{read_settings(user_file()), read_settings(MACHINE_FILE)} {}

    void find(setting *wanted, const setting &context) const {
        std::string below = "context." + context.value + ".";
        bool named = !context.value.empty(), first = named && context.origin == "option";
        bool found = set(wanted, wanted->option, "option") ||
                     (first && find_in_files(wanted, below)) ||
                     set(wanted, environment(wanted->variable), wanted->variable) ||
                     (named && find_in_files(wanted, below)) || find_in_files(wanted, "");
        if (!found) (void)set(wanted, wanted->fallback, "default");
    }

    bool has_context(const std::string &name) const {
        const std::string head = "context." + name + ".";
        return std::any_of(std::begin(files_), std::end(files_), [&](const settings_file &file) {
            auto at = file.values.lower_bound(head);
            return at != file.values.end() && at->first.rfind(head, 0) == 0;
        });
    }

  private:
    static bool set(setting *wanted, const std::string &value, const std::string &origin) {
        wanted->value = value;
        wanted->origin = origin;
        return !value.empty();
    }

    bool find_in_files(setting *wanted, const std::string &head) const {
        for (const settings_file &file : files_) {
            auto found = file.values.find(head + wanted->name);
            if (found != file.values.end() && set(wanted, found->second, file.name)) return true;
        }
        return false;
    }

    settings_file files_[2];
};

}  // namespace

void settings::resolve() {
    search files;
    files.find(&context, {"", "", ""});
    if (!context.value.empty() && !files.has_context(context.value)) {
        throw tool_error{EXIT_USAGE, "there is no context " + context.value, user_file(),
                         "no settings file has a section [context." + context.value + "]",
                         "\"keyviewctl config\" shows where settings come from"};
    }
    for (setting *one : all())
        if (one != &context) files.find(one, context);
}

}  // namespace keyview::ctl
