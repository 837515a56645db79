// create, and the removal by name: databases with their services and instances.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>

#include "admin/change/keys.h"
#include "admin/document/document.h"
#include "admin/document/meanings.h"
#include "ctl/change_view.h"
#include "ctl/command.h"
#include "ctl/output.h"
#include "ctl/suggest.h"
#include "model/folding.h"
#include "model/text.h"
#include "model/words.h"

namespace keyview::ctl {

using nlohmann::ordered_json;

namespace {
struct record_kind {
    const char *word;
    const char *arguments;
    const list_row *list;  // of the document, or of the database that has it
    bool below;            // a database
    const char *needed;    // the key of a field without which readers fail, or null
};
}  // namespace

static constexpr const list_row &DATABASES = SECTIONS.first[0];
static constexpr const list_row &INSTANCES = DATABASE_LISTS[0], &SERVICES = DATABASE_LISTS[1];
static_assert(DATABASES.record == &DATABASE && INSTANCES.record == &INSTANCE &&
              SERVICES.record == &SERVICE);

static constexpr record_kind KINDS[] = {
    {"database", "DB", &DATABASES, false, nullptr},
    {"service", "DB SERVICE", &SERVICES, true, nullptr},
    {"instance", "DB INSTANCE", &INSTANCES, true, KEY_NODE},
};

static std::string record_key(const record_kind &kind, const std::string &database,
                              const std::string &name) {
    if (!kind.below) return database_key(name);
    return database_key(database) + "." + kind.list->key + "." +
           element_of(name, kind.list->record->dotted_name);
}

// As document_fields() has it, such as "databases[].services[]".
static std::string record_path(const record_kind &kind) {
    const std::string top = std::string(DATABASES.field) + "[]";
    return kind.below ? top + "." + kind.list->field + "[]" : top;
}

// The field of a document whose value is that of a key, which the record has.
static const char *field_of(const record_table &table, std::string_view key) {
    return std::find_if(table.fields.begin(), table.fields.end(),
                        [&](const field_row &row) { return row.key == key; })
        ->field;
}

// With what the commands need to work on it.
static ordered_json new_record(const record_table &table, const std::string &name) {
    ordered_json out = {{"name", name}, {field_of(table, KEY_ENABLED), true}};
    for (const list_row &list : table.lists)
        out[list.field] = ordered_json::array();
    return out;
}

// ---- create -------------------------------------------------------------------------------------

[[noreturn]] static void refuse(const std::string &why, const std::string &todo) {
    throw tool_error{EXIT_USAGE, "nothing is created", "", why, todo};
}

static ordered_json flag_of(const std::string &field, const std::string &value) {
    const std::string word = element_of(value);
    if (word == "true" || word == "false") return word == "true";
    refuse(field + " is true or false, not " + value, "correct it");
}

// "Sales1,Sales2": records of a service, enabled.
static ordered_json instances_in(const std::string &names) {
    ordered_json out = ordered_json::array();
    for (const std::string &name : CLI::detail::split(names, ','))
        out.push_back(new_record(SERVICE_INSTANCE, name));
    return out;
}

// given: the fields that have their value already.
static void set_field(const record_kind &kind, const std::string &assignment, ordered_json *record,
                      std::set<std::string> *given) {
    const size_t equals = assignment.find('=');
    const std::string field = assignment.substr(0, equals);
    std::vector<std::string> known;
    for (const admin::document_field &row : admin::document_fields()) {
        bool nested = row.type == "records" && !kind.below;
        if (row.record != record_path(kind) || row.type == "name" || nested) continue;
        known.push_back(row.field);
        if (row.field != field || equals == assignment.npos) continue;
        const std::string value = assignment.substr(equals + 1);
        const bool once = given->insert(field).second || row.type == "list of texts";
        if (!once) refuse(field + " is given twice", "give it once");
        if (!valid_utf8(value)) refuse("the value of " + field + " is no UTF-8", "use \"set\"");
        ordered_json &at = (*record)[field];
        if (row.type == "flag") {
            at = flag_of(field, value);
        } else if (row.type == "records") {
            at = instances_in(value);
        } else if (row.type == "list of texts") {
            at.push_back(value);
        } else {
            at = value;
        }
        return;
    }
    const std::string meant = nearest(field, known);
    refuse(assignment + " is no FIELD=VALUE of a " + kind.word,
           (meant.empty() ? "" : "did you mean " + meant + "=? ") +
               "\"keyviewctl explain --fields\" lists the fields");
}

// The name under which a database is registered.
static std::string registered_name(const tool &shared, const std::string &database) {
    const std::string key = database_key(database);
    const std::string value = attempt("nothing is created", shared.registry, [&] {
        return admin::read_keys(key, reach::key_alone).keys.begin()->second;
    });
    return value.empty() ? std::string(last_element(key)) : value.substr(0, value.find('\0'));
}

static exit_code run_create(const tool &shared, const record_kind &kind, const given_names &names,
                            const std::vector<std::string> &fields) {
    const record_table &table = *kind.list->record;
    const std::string &name = names[kind.below ? 1 : 0];
    ordered_json record = new_record(table, name);
    if (!kind.below) record[field_of(table, KEY_ROLE)] = ROLES[0];
    std::set<std::string> given;
    for (const std::string &assignment : fields)
        set_field(kind, assignment, &record, &given);
    const std::string needed = kind.needed == nullptr ? "" : field_of(table, kind.needed);
    if (!needed.empty() && record.value(needed, "").empty())
        refuse("readers need its " + needed, "give " + needed + "=VALUE");
    if (kind.below) {
        record = {{"name", registered_name(shared, names[0])},
                  {kind.list->field, ordered_json::array({record})}};
    }
    ordered_json document = {{"format", FORMAT}, {"version", VERSION}};
    document[DATABASES.field] = ordered_json::array({record});
    const std::string text = document.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
    return carry_out(shared, {std::string(kind.word) + " " + name + " is not created"},
                     [&](admin::change_options options) {
                         if (kind.below) options.present = {database_key(names[0])};
                         options.absent = {record_key(kind, names[0], name)};
                         return admin::apply_document(text, options);
                     });
}

// ---- rm -----------------------------------------------------------------------------------------

// The entries of an instance in the services of its database.
static void add_service_entries(const std::string &database, const std::string &instance,
                                std::set<std::string> *paths) {
    const std::string services = database_key(database) + "." + KEY_SERVICE;
    for (const auto &[service, value] : readable_children(services)) {
        const std::string entry = service + "." + KEY_INSTANCES + "." + element_of(instance);
        if (service != services && key_exists(entry)) paths->insert(entry);
    }
}

static exit_code run_rm(const tool &shared, const record_kind &kind, const given_names &names,
                        const std::vector<std::string> &more) {
    std::vector<std::string> all = {names[kind.below ? 1 : 0]};
    all.insert(all.end(), more.begin(), more.end());
    std::set<std::string> paths;
    std::string what = kind.word;
    for (const std::string &name : all) {
        what += " " + name;
        paths.insert(record_key(kind, names[0], name));
        if (kind.list == &INSTANCES) add_service_entries(names[0], name, &paths);
    }
    return carry_out(shared, {what + " is not removed", "", true},
                     [&](const admin::change_options &options) {
                         return admin::remove_keys({paths.begin(), paths.end()}, options);
                     });
}

// ---- The commands -------------------------------------------------------------------------------

using record_run = exit_code (*)(const tool &, const record_kind &, const given_names &,
                                 const std::vector<std::string> &);

static void add_kinds(CLI::App *group, tool *shared, const char *does, const char *option,
                      const char *more, record_run run) {
    for (const record_kind &kind : KINDS) {
        auto names = std::make_shared<given_names>();
        auto rest = std::make_shared<std::vector<std::string>>();
        CLI::App *one =
            add_command(group, shared, kind.word,
                        std::string(does) + (kind.word[0] == 'i' ? " an " : " a ") + kind.word,
                        [=, &kind] { return run(*shared, kind, *names, *rest); });
        add_arguments(one, shared,
                      (kind.arguments + std::string(" --dry-run --if-revision --yes")).c_str(),
                      names);
        one->add_option(option, *rest, more);
    }
}

void add_create_commands(CLI::App *app, tool *shared) {
    CLI::App *create = app->add_subcommand("create", "Create a database, a service or an instance");
    create->require_subcommand(1);
    create->fallthrough();
    add_kinds(create, shared, "Create", "FIELD",
              "FIELD=VALUE, as \"explain --fields\" lists them; instances are joined by commas",
              run_create);
}

void add_removal_commands(CLI::App *app, tool *shared) {
    add_kinds(app->get_subcommand("rm"), shared, "Remove, by its name,", "MORE",
              "The names of more, removed with it", run_rm);
}

}  // namespace keyview::ctl
