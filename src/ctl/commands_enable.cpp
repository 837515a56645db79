// enable, disable, enabled and supported: the flags of databases, instances, services and the
// instances of services.
#include "ctl/change_view.h"
#include "ctl/command.h"
#include "ctl/output.h"
#include "ctl/session.h"
#include "model/folding.h"
#include "model/words.h"

namespace keyview::ctl {

// What has a flag: a database or, where the other names are not empty, what is in it.
enum { DB, SERVICE, INSTANCE };

static prsr::result<bool> read_flag(const session &library, const given_names &of) {
    bool database = of[SERVICE].empty(), whole = of[INSTANCE].empty();
    if (database && whole) return library->get_db_enabled(of[DB]);
    if (database) return library->get_instance_enabled(of[DB], of[INSTANCE]);
    if (whole) return library->get_service_enabled(of[DB], of[SERVICE]);
    return library->get_service_instance_enabled(of[DB], of[SERVICE], of[INSTANCE]);
}

static prsr::result<void> write_flag(const session &library, const given_names &of, bool enabled) {
    bool database = of[SERVICE].empty(), whole = of[INSTANCE].empty();
    if (database && whole) return library->set_db_enabled(of[DB], enabled);
    if (database) return library->set_instance_enabled(of[DB], of[INSTANCE], enabled);
    if (whole) return library->set_service_enabled(of[DB], of[SERVICE], enabled);
    return library->set_service_instance_enabled(of[DB], of[SERVICE], of[INSTANCE], enabled);
}

// "instance Sales1 of service audit of database Sales".
static std::string subject_of(const given_names &of) {
    return (of[INSTANCE].empty() ? "" : "instance " + of[INSTANCE] + " of ") +
           (of[SERVICE].empty() ? "" : "service " + of[SERVICE] + " of ") + "database " + of[DB];
}

static exit_code show_answer_for(const session &library, const given_names &of,
                                 const char *question, bool flag, const view &answer) {
    show_answer(library.shared.format, question,
                {{"dbname", {of[DB]}},
                 {"srvname", optional_view(of[SERVICE])},
                 {"instname", optional_view(of[INSTANCE])},
                 {question, answer}});
    return exit_of_answer(flag);
}

static std::string flag_key(const given_names &of) {
    std::string record = database_key(of[DB]);
    auto append = [&](const char *list, const std::string &element) {
        if (!element.empty()) record += std::string(".") + list + "." + element;
    };
    append(KEY_SERVICE, element_of(of[SERVICE], true));
    append(of[SERVICE].empty() ? KEY_INSTANCE : KEY_INSTANCES, element_of(of[INSTANCE]));
    return record + "." + KEY_ENABLED;
}

// A service is set with all its instances.
static exit_code change_flag(const session &library, const given_names &of, bool enabled) {
    const std::string what = subject_of(of) + " cannot be " + (enabled ? "enabled" : "disabled");
    library.check(read_flag(library, of).code(), what);
    bool cascade = !of[SERVICE].empty() && of[INSTANCE].empty();
    return change_words(library, what,
                        {flag_key(of), cascade, element_of(enabled ? FLAG_TRUE : FLAG_FALSE)},
                        [&] { return write_flag(library, of, enabled).code(); });
}

template <bool ENABLED>
static exit_code run_change(const session &library, const given_names &names) {
    return change_flag(library, names, ENABLED);
}

static exit_code run_enabled(const session &library, const given_names &names) {
    const auto enabled = read_flag(library, names);
    library.check(enabled.code(), "whether " + subject_of(names) + " is enabled cannot be read");
    return show_answer_for(library, names, "enabled", *enabled, enabled_view(*enabled));
}

static exit_code run_supported(const session &library, const given_names &names) {
    const auto supported =
        library->get_service_instance_supported(names[DB], names[SERVICE], names[INSTANCE]);
    library.check(refined(supported.code(), [&] { return read_flag(library, names).code(); }),
                  "whether " + subject_of(names) + " is supported cannot be read");
    return show_answer_for(library, names, "supported", *supported, flag_view(*supported));
}

void add_enable_commands(CLI::App *app, tool *shared) {
    static constexpr command_row COMMANDS[] = {
        {"enable",
         "Enable a database, an instance, a service with all its instances, or one instance of it",
         "DB --service --instance --dry-run", with_library<run_change<true>>},
        {"disable",
         "Disable a database, an instance, a service with all its instances, or one instance of it",
         "DB --service --instance --dry-run", with_library<run_change<false>>},
        {"enabled", "Report whether one of these is enabled: exit code 0, or disabled: 1",
         "DB --service --instance", with_library<run_enabled>},
        {"supported",
         "Report whether an instance of a service is preferred or available, and enabled: exit code 0, "
         "or not: 1",
         "DB SERVICE INSTANCE", with_library<run_supported>},
    };
    add_commands(app, shared, COMMANDS);
}

}  // namespace keyview::ctl
