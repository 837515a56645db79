// What the tool is set to: by an option, else by the environment, else by the user's file, else by
// the machine's file. A context is a named group of settings in a file; one that is chosen by an
// option goes before the environment.
//
//     registry = lmdb:/var/lib/keyview
//     [context.test]
//     registry = lmdb:/tmp/keyview
//
// A line that begins with # or ; is a remark, as is what follows a blank and one of them. A value may
// be in quotes. Any other line is an error, and so is a setting that is there twice.
#pragma once

#include <string>
#include <vector>

namespace keyview::ctl {

struct setting {
    const char *name;
    const char *variable;
    const char *fallback;
    std::string option = {};  // as given on the command line; "" for not at all
    std::string value = {};
    std::string origin = {};  // "option", "KEYVIEW_REGISTRY", a file's name, "default"
};

struct settings {
    setting context = {"context", "KEYVIEW_CONTEXT", ""};
    setting registry = {"registry", "KEYVIEW_REGISTRY", ""};
    setting output = {"output", "KEYVIEW_OUTPUT", "table"};
    setting color = {"color", "KEYVIEW_COLOR", "auto"};
    setting lock_wait = {"lock_wait", "KEYVIEW_LOCK_WAIT", "60"};
    setting history = {"history", "KEYVIEW_HISTORY", "1048576"};

    std::vector<setting *> all() {
        return {&context, &registry, &output, &color, &lock_wait, &history};
    }

    // Finds all values. Throws a tool_error for a file that cannot be understood and, unless one may be
    // chosen that is not there, for a context that no file has.
    void resolve(bool any_context = false);
};

struct known_context {
    std::string name, registry, file;
};

// The contexts of the settings files, by their names; of two with one name, the user's.
std::vector<known_context> known_contexts();

// Makes a context the usual one, by a line of the user's file. All other lines stay as they are.
void set_usual_context(const std::string &name);

// The settings file of the user.
std::string user_settings_file();

}  // namespace keyview::ctl
