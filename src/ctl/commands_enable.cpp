// enable, disable, enabled and supported: the flags of databases, instances, services and the
// instances of services.
#include "admin/change/keys.h"
#include "ctl/change_view.h"
#include "ctl/command.h"
#include "ctl/output.h"
#include "ctl/session.h"
#include "model/folding.h"
#include "model/locks.h"
#include "model/words.h"

namespace keyview::ctl {

namespace {
// What carries a flag: a database or, where the names are not empty, what is in it.
struct flag_holder {
    explicit flag_holder(const given_names &names)
        : dbname(names[0]), srvname(names[1]), instname(names[2]) {}

    std::string dbname, srvname, instname;
};
}  // namespace

static int32_t set_flag(const session &library, const flag_holder &holder, int32_t enabled) {
    const char *db = holder.dbname.c_str(), *srv = holder.srvname.c_str(),
               *inst = holder.instname.c_str();
    if (holder.srvname.empty() && holder.instname.empty()) {
        return prsr_set_db_enabled(library.status, library.ctx, db, enabled);
    }
    if (holder.srvname.empty()) {
        return prsr_set_instance_enabled(library.status, library.ctx, db, inst, enabled);
    }
    if (holder.instname.empty()) {
        return prsr_set_service_enabled(library.status, library.ctx, db, srv, enabled);
    }
    return prsr_set_service_instance_enabled(library.status, library.ctx, db, srv, inst, enabled);
}

static int32_t get_flag(const session &library, const flag_holder &holder, int32_t *enabled) {
    const char *db = holder.dbname.c_str(), *srv = holder.srvname.c_str(),
               *inst = holder.instname.c_str();
    if (holder.srvname.empty() && holder.instname.empty()) {
        return prsr_get_db_enabled(library.status, library.ctx, db, enabled);
    }
    if (holder.srvname.empty()) {
        return prsr_get_instance_enabled(library.status, library.ctx, db, inst, enabled);
    }
    if (holder.instname.empty()) {
        return prsr_get_service_enabled(library.status, library.ctx, db, srv, enabled);
    }
    return prsr_get_service_instance_enabled(library.status, library.ctx, db, srv, inst, enabled);
}

// "instance Sales1 of service audit of database Sales".
static std::string words_for(const flag_holder &holder) {
    std::string out;
    if (!holder.instname.empty()) out += "instance " + holder.instname + " of ";
    if (!holder.srvname.empty()) out += "service " + holder.srvname + " of ";
    return out + "database " + holder.dbname;
}

static void show_answer_for(const tool &shared, const flag_holder &holder, const char *question,
                            view answer) {
    show_answer(shared.format, question,
                {{"dbname", {holder.dbname}},
                 {"srvname", optional_view(holder.srvname)},
                 {"instname", optional_view(holder.instname)},
                 {question, std::move(answer)}});
}

// The key of a holder's flag.
static std::string flag_key(const flag_holder &holder) {
    std::string record = database_key(holder.dbname);
    auto append = [&](const char *list, const std::string &element) {
        if (!element.empty()) record += std::string(".") + list + "." + element;
    };
    append(KEY_SERVICE, element_of(holder.srvname, true));
    append(holder.srvname.empty() ? KEY_INSTANCE : KEY_INSTANCES, element_of(holder.instname));
    return record + "." + KEY_ENABLED;
}

// What would be set: for a service, the flags of all its instances, too.
static admin::change_result planned_changes(const flag_holder &holder, int32_t enabled) {
    std::string own = flag_key(holder);
    bool cascade = !holder.srvname.empty() && holder.instname.empty();
    admin::read_keys_result found =
        cascade ? admin::read_keys(std::string(parent_path(own)), reach::all_below)
                : admin::read_keys(own, reach::key_alone);
    admin::change_result planned = {{}, {lock_of(own)}, found.revision};
    const std::string stored = element_of(enabled != 0 ? FLAG_TRUE : FLAG_FALSE) + '\0';
    for (const auto &[path, value] : found.keys)
        if (last_element(path) == KEY_ENABLED && value != stored)
            planned.changes.push_back({path, value, stored});
    return planned;
}

static exit_code change_flag(const tool &shared, const given_names &names, int32_t enabled) {
    session library(shared);
    flag_holder holder(names);
    const std::string what =
        words_for(holder) + " cannot be " + (enabled != 0 ? "enabled" : "disabled");
    int32_t present = 0;
    library.check(get_flag(library, holder, &present), what);
    admin::change_result changed =
        attempt(what, shared.registry, [&] { return planned_changes(holder, enabled); });
    shared.told->step("works under the lock " + changed.locks.front());
    if (!shared.dry_run) {
        admin::set_recorder recorder;
        library.check(set_flag(library, holder, enabled), what);
        changed.changes = recorder.changes();
    }
    show_changes(shared, changed);
    return EXIT_DONE;
}

static exit_code run_enable(const tool &shared, const given_names &names) {
    return change_flag(shared, names, 1);
}

static exit_code run_disable(const tool &shared, const given_names &names) {
    return change_flag(shared, names, 0);
}

static exit_code run_enabled(const tool &shared, const given_names &names) {
    session library(shared);
    flag_holder holder(names);
    int32_t enabled = 0;
    library.check(get_flag(library, holder, &enabled),
                  "whether " + words_for(holder) + " is enabled cannot be read");
    show_answer_for(shared, holder, "enabled", enabled_view(enabled));
    return exit_of_answer(enabled);
}

static exit_code run_supported(const tool &shared, const given_names &names) {
    session library(shared);
    flag_holder holder(names);
    int32_t supported = 0;
    int32_t rc = prsr_get_service_instance_supported(library.status, library.ctx,
                                                     holder.dbname.c_str(), holder.srvname.c_str(),
                                                     holder.instname.c_str(), &supported);
    rc = tell_missing(rc, [&] {
        int32_t ignored = 0;
        return get_flag(library, holder, &ignored);
    });
    library.check(rc, "whether " + words_for(holder) + " is supported cannot be read");
    show_answer_for(shared, holder, "supported", flag_view(supported));
    return exit_of_answer(supported);
}

static constexpr name_command COMMANDS[] = {
    {"enable",
     "Enable a database, an instance, a service with all its instances, or one instance of it",
     "DB --service --instance", run_enable, true},
    {"disable",
     "Disable a database, an instance, a service with all its instances, or one instance of it",
     "DB --service --instance", run_disable, true},
    {"enabled", "Report whether one of these is enabled: exit code 0, or disabled: 1",
     "DB --service --instance", run_enabled},
    {"supported",
     "Report whether an instance of a service is preferred or available, and enabled: exit code 0, "
     "or not: 1",
     "DB SERVICE INSTANCE", run_supported},
};

void add_enable_commands(CLI::App *app, tool *shared) {
    add_name_commands(app, shared, COMMANDS);
}

}  // namespace keyview::ctl
