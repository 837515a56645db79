// The C++ layer beside the operations that it wraps: the same calls of the host in the same order,
// the same codes and values, whichever call fails. The host ends with nothing outstanding, so an
// owner that does not release, or does so twice, fails the test.
#include "keyview/if/prsr.hpp"

#include <set>
#include <tuple>

#include <gtest/gtest.h>

#include "operations.h"

// ---- Values as text, in the words of operations.cpp ---------------------------------------------

static std::string shown(std::string_view text) {
    return text.data() == nullptr ? "null" : std::string(text);
}

static std::string shown(const prsr::string_list &list) {
    if (list.is_null()) return "null";
    std::string out;
    for (std::string_view text : list)
        out += (out.empty() ? "" : ",") + (text.data() == nullptr ? "-" : std::string(text));
    return out;
}

static std::string shown(const prsr::service_instance_list &list) {
    if (list.is_null()) return "null";
    std::string out;
    for (auto [name, enabled] : list)
        out += (out.empty() ? "" : ",") + shown(name) + (enabled ? ":1" : ":0");
    return out;
}

static std::string flag(bool enabled) {
    return enabled ? "1" : "0";
}

static std::string key_of(const char *list, std::string_view name) {
    std::string key = list;
    for (char letter : name)
        key += char(tolower(letter));
    return key;
}

static fields shown(const prsr::database &db) {
    fields out = {{"sp", shown(db.sp_name())},
                  {"DB_CLU_ALIAS.IP", shown(db.alias_ip())},
                  {"TALVEN_HOME", shown(db.home())},
                  {"SPFILE", shown(db.spfile())},
                  {"DB_NAME", shown(db.db_name())},
                  {"ROLE", shown(db.role())},
                  {"START_OPTIONS", shown(db.start_options())},
                  {"POLICY", shown(db.policy())},
                  {"DOMAIN", shown(db.domain())},
                  {"ENVIRONMENT", shown(db.env())},
                  {"ENABLED", flag(db.enabled())}};
    out["INSTANCE"] = db.instances().is_null() ? "null" : std::to_string(db.instances().size());
    out["SERVICE"] = db.services().is_null() ? "null" : std::to_string(db.services().size());
    for (prsr::instance one : db.instances()) {
        std::string at = key_of("INSTANCE.", one.name());
        out[at] = shown(one.name());
        out[at + ".NODE"] = shown(one.node());
        out[at + ".ENVIRONMENT"] = shown(one.env());
        out[at + ".ENABLED"] = flag(one.enabled());
    }
    for (prsr::service one : db.services()) {
        std::string at = key_of("SERVICE.", one.name());
        out[at] = shown(one.name());
        out[at + ".available"] = shown(one.available());
        out[at + ".preferred"] = shown(one.preferred());
        out[at + ".RCNPOLICY"] = std::to_string(static_cast<int32_t>(one.rcn_policy()));
        out[at + ".ENVIRONMENT"] = shown(one.env());
        out[at + ".ENABLED"] = flag(one.enabled());
    }
    return out;
}

static fields shown(const prsr::storage_manager &stg) {
    return {{"SPFILE", shown(stg.spfile())},   {"TALVEN_HOME", shown(stg.home())},
            {"VERSION", shown(stg.version())}, {"START_OPTIONS", shown(stg.start_options())},
            {"ENVIRONMENT", shown(stg.env())}, {"ENABLED", flag(stg.enabled())}};
}

static fields shown(const prsr::node_applications &node) {
    return {{"name", shown(node.name())},       {"TALVEN_HOME", shown(node.home())},
            {"VIP", shown(node.vip())},         {"VIP.INTERFACES", shown(node.interfaces())},
            {"ENVIRONMENT", shown(node.env())}, {"VIP.NETMASK", shown(node.netmask())}};
}

// ---- The operations through the layer -----------------------------------------------------------

static outcome given(const prsr::result<void> &done) {
    return {done.code(), {}};
}

template <class NUMBER>
static outcome given(const prsr::result<NUMBER> &read) {
    return {read.code(), {{"answer", std::to_string(static_cast<int32_t>(*read))}}};
}

static outcome given(const prsr::result<std::string> &name) {
    return {name.code(), {{"buf", *name}}};
}

template <class RECORD>
static outcome given(const prsr::result<prsr::owned<RECORD>> &cfg) {
    return {cfg.code(), *cfg ? shown(*cfg) : fields{{"cfg", "null"}}};
}

static outcome given(const prsr::result<prsr::owned<prsr::domain>> &domain) {
    return {domain.code(), {{"domain", shown(domain->text())}}};
}

static outcome given(const prsr::result<prsr::owned<prsr::name_list>> &list) {
    return {list.code(), {{"list", shown(*list)}, {"count", std::to_string(list->size())}}};
}

static outcome given(const prsr::result<prsr::owned<prsr::roster>> &roster) {
    std::string lines;
    for (auto [instance, node, available] : *roster)
        lines += shown(instance) + "/" + shown(node) + (available ? ":1;" : ":0;");
    return {roster.code(), {{"count", std::to_string(roster->size())}, {"roster", lines}}};
}

using run_in_layer = outcome (*)(prsr::context &, const caller &);

#define CALL(...) \
    [](prsr::context &kv, [[maybe_unused]] const caller &by) { return given(kv.__VA_ARGS__); }
static const std::map<std::string, run_in_layer> LAYER = {
    {"prsr_init",
     [](prsr::context &, const caller &by) {
         auto made = prsr::context::init(by.host.status);
         return outcome{made.code(), {{"ctx", made->get() == nullptr ? "null" : "made"}}};
     }},
    {"prsr_terminate", CALL(terminate())},
    {"prsr_set_db_enabled", CALL(set_db_enabled(by.db, by.value != 0))},
    {"prsr_get_db_enabled", CALL(get_db_enabled(by.db))},
    {"prsr_set_instance_enabled", CALL(set_instance_enabled(by.db, by.inst, by.value != 0))},
    {"prsr_get_instance_enabled", CALL(get_instance_enabled(by.db, by.inst))},
    {"prsr_set_service_enabled", CALL(set_service_enabled(by.db, by.srv, by.value != 0))},
    {"prsr_get_service_enabled", CALL(get_service_enabled(by.db, by.srv))},
    {"prsr_set_service_instance_enabled",
     CALL(set_service_instance_enabled(by.db, by.srv, by.inst, by.value != 0))},
    {"prsr_get_service_instance_enabled",
     CALL(get_service_instance_enabled(by.db, by.srv, by.inst))},
    {"prsr_get_service_instance_supported",
     CALL(get_service_instance_supported(by.db, by.srv, by.inst))},
    {"prsr_list_db", CALL(list_db())},
    {"prsr_fetch_db_config", CALL(fetch_db_config(by.db))},
    {"prsr_get_srv_instances", CALL(get_srv_instances(by.db, by.srv))},
    {"prsr_set_db_role", CALL(set_db_role(by.db, static_cast<prsr::role>(by.value)))},
    {"prsr_get_db_role", CALL(get_db_role(by.db))},
    {"prsr_get_spname", CALL(get_spname(by.db))},
    {"prsr_get_instance_name", CALL(get_instance_name(by.db, by.inst))},
    {"prsr_get_node_instance_name", CALL(get_node_instance_name(by.db, by.node))},
    {"prsr_get_service_rcn_policy", CALL(get_service_rcn_policy(by.db, by.srv))},
    {"prsr_get_domain", CALL(get_domain(by.db))},
    {"prsr_fetch_stg_config", CALL(fetch_stg_config(by.scope, by.stg))},
    {"prsr_get_stg_name", CALL(get_stg_name(by.scope, by.stg))},
    {"prsr_get_stg_enabled", CALL(get_stg_enabled(by.scope, by.stg))},
    {"prsr_fetch_nodeapps_config", CALL(fetch_nodeapps_config(by.node))},
};
#undef CALL

// ---- Beside each other --------------------------------------------------------------------------

namespace {
struct observed {
    outcome got;
    std::string calls;
    std::map<std::string, std::string> tree;
    bool fired;
};
}  // namespace

// Runs an operation whose nth call fails (none with 0), as the library has it or through the layer.
static observed observe(const operation &op, run_in_layer layer, bool enabled, int nth) {
    test_host host(CLUSTER);
    auto kv = prsr::context::init(host.status).value();
    host.forget();
    if (nth != 0) host.fail("", "", nth, 1);
    caller by(host);
    by.value = enabled ? 1 : 0;
    by.bufsize = 4096;  // the first that the layer uses
    observed seen = {layer != nullptr ? layer(kv, by) : op.run(by), "", host.values, host.fired()};
    for (const fake_event &event : host.events)
        seen.calls += event.text + "\n";
    return seen;
}

static void expect_same(const observed &layer, const observed &plain) {
    EXPECT_EQ(layer.got.rc, plain.got.rc);
    EXPECT_EQ(layer.calls, plain.calls);
    EXPECT_EQ(layer.tree, plain.tree);
    EXPECT_EQ(layer.fired, plain.fired);
    for (auto &[name, value] : plain.got.out) {
        // What an operation leaves untouched, or counts in a null array, has no counterpart.
        if (value == "77" || value == "untouched") continue;
        if (name == "roster" && plain.got.out.at("count") == "0") continue;
        if (name == "count" && plain.got.out.count("list") && layer.got.out.at("list") == "null")
            continue;
        EXPECT_EQ(layer.got.out.at(name), value.substr(0, value.find("null:") == 0 ? 4 : 9999))
            << name;
    }
}

TEST(Layer, DoesWhatTheOperationDoesWhicheverCallFails) {
    std::set<std::string> covered;
    for (const operation &op : OPERATIONS) {
        auto row = LAYER.find(op.name);
        if (row == LAYER.end()) {
            EXPECT_EQ(std::string(op.name).find("prsr_release_"), 0u) << op.name;
            continue;
        }
        covered.insert(op.name);
        for (int nth = 0;; nth += nth < 60 ? 1 : 5) {
            SCOPED_TRACE(std::string(op.name) + ": call " + std::to_string(nth) + " fails");
            bool enabled = nth % 2 != 0;
            observed plain = observe(op, nullptr, enabled, nth);
            expect_same(observe(op, row->second, enabled, nth), plain);
            if (nth != 0 && !plain.fired) break;
        }
    }
    EXPECT_EQ(covered.size(), LAYER.size());
}

template <class OWNER, class = void>
constexpr bool gives_views_of_a_temporary = false;
template <class OWNER>
constexpr bool gives_views_of_a_temporary<OWNER, std::void_t<decltype(*std::declval<OWNER>())>> =
    true;

template <class... OWNERS>
constexpr bool move_only() {
    return ((!std::is_copy_constructible_v<OWNERS> && !std::is_copy_assignable_v<OWNERS> &&
             std::is_nothrow_move_constructible_v<OWNERS> &&
             std::is_nothrow_move_assignable_v<OWNERS>)&&...);
}
using sales_owner = prsr::owned<prsr::database>;
static_assert(move_only<prsr::context, sales_owner, prsr::result<sales_owner>>());
static_assert(gives_views_of_a_temporary<sales_owner &>);
static_assert(!gives_views_of_a_temporary<sales_owner>);
static_assert(gives_views_of_a_temporary<prsr::result<sales_owner> &>);
static_assert(!gives_views_of_a_temporary<prsr::result<sales_owner>>);

TEST(Layer, OwnersMoveAndReleaseOnce) {
    test_host host(CLUSTER);
    auto first = prsr::context::init(host.status).value();
    prsr::owned<prsr::database> sales = first.fetch_db_config("SALES").value();
    prsr::context kv = std::move(first);  // what came from it stays valid
    EXPECT_EQ(first.get_db_enabled("sales").code(), PRSR_ERR_CONTEXT);
    prsr::owned<prsr::database> other(std::move(sales));
    EXPECT_FALSE(sales);
    other = kv.fetch_db_config(std::string("hr")).value();  // releases the first record
    EXPECT_EQ(other->sp_name(), "HR");
    prsr::owned<prsr::database> &same = other;
    other = std::move(same);
    EXPECT_TRUE(other);
    EXPECT_EQ(other.reset(), PRSR_SUCCESS);
    EXPECT_EQ(other.reset(), PRSR_SUCCESS);
    EXPECT_FALSE(other);

    void *lk = host.make_lock_service();
    auto with_lk = prsr::context::init_ext(lk, host.status).value();
    EXPECT_TRUE(with_lk.set_db_enabled("sales", false));
    kv = std::move(with_lk);  // ends the context that kv had, and the lock service of that
    EXPECT_FALSE(kv.get_db_enabled("sales").value());
    EXPECT_TRUE(kv.terminate());
    EXPECT_EQ(host.lock_services.erase(lk), 1u);
}

TEST(Layer, NamesOfAnyLengthFit) {
    test_host host(CLUSTER);
    auto kv = prsr::context::init(host.status).value();
    for (size_t length : {4095u, 4096u, 70000u}) {
        host.store("$ROOT.hr", std::string(length, 'n') + '\0');
        EXPECT_EQ(kv.get_spname("hr").value().size(), length);
    }
    host.store("$ROOT.hr", std::string(size_t(1) << 20, 'n') + '\0');
    EXPECT_EQ(kv.get_spname("hr").error(), prsr::errc::argument);
}

TEST(Layer, CodesAreErrorCodes) {
    using prsr::errc;
    constexpr auto NO_SUCH = std::errc::no_such_file_or_directory;
    const std::tuple<errc, std::string, std::errc> ROWS[] = {
        {errc::argument, "an argument cannot be used", std::errc::invalid_argument},
        {errc::memory, "no memory", std::errc::not_enough_memory},
        {errc::registry, "the registry failed", std::errc::io_error},
        {errc::context, "no live context", {}},
        {errc::lock, "the lock was not granted", std::errc::resource_unavailable_try_again},
        {errc::threads, "no thread support", {}},
        {errc::no_database, "no key has the requested name", NO_SUCH},
        {errc::no_stg, "no such storage manager entry", NO_SUCH},
        {errc::role, "no such role", {}},
        {errc::no_nodeapps, "the node has no entry", NO_SUCH},
        {errc(-1), "unknown code", {}},
        {errc(11), "unknown code", {}},
    };
    for (const auto &[code, message, same] : ROWS) {
        const std::error_code error = code;
        EXPECT_EQ(error.message(), message);
        EXPECT_EQ(error == same, same != std::errc()) << message;
        EXPECT_STREQ(error.category().name(), "keyview");
        const prsr::result<bool> failed(true, error.value());
        EXPECT_EQ(failed.error(), code);
        try {
            (void)failed.value();
            ADD_FAILURE() << "no exception for " << message;
        } catch (const std::system_error &thrown) {
            EXPECT_EQ(thrown.code(), error);
        }
    }
    EXPECT_FALSE(prsr::result<void>(PRSR_SUCCESS).error());
}
