// keyview for C++17: an inline layer over the operations of prsr.h, which documents them. It adds
// owners that release what an operation returned, error codes of <system_error>, and ranges over
// lists. Each operation has its name without "prsr_"; arguments, locks, order and codes are those
// of prsr.h, and its rules hold here as well.
//
// There is nothing to link but the library, and nothing of this header appears in a binary
// interface: a program may be built with another version of it than its libraries.
//
//     auto cluster = prsr::context::init().value();     // throws std::system_error
//     auto sales = cluster.fetch_db_config("sales");    // never throws
//     if (!sales) return sales.error();                 // a std::error_code
//     for (prsr::service service : sales->services())
//         std::cout << service.name() << '\n';
//
// text     A null string of a record is a string_view without data(); both null and "" are empty().
//          The text ends with a zero byte, behind size(). It lives as long as the owner.
// views    prsr::database and the like are pointers into a record: cheap to copy, valid as long as
//          the owner of the record. An empty view, of a failed or moved owner, has no fields.
// owners   Released at the end of the scope, before the context ends. Movable, not copyable.
// threads  As in prsr.h: calls on one context are not synchronized, and so are releases.
#ifndef KEYVIEW_PRSR_HPP
#define KEYVIEW_PRSR_HPP

#include "prsr.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>

namespace prsr {

// ---- Codes --------------------------------------------------------------------------------------

// PRSR_ERR_*, comparable with a std::error_code.
enum class errc : int32_t {
    argument = PRSR_ERR_ARGUMENT,
    memory = PRSR_ERR_MEMORY,
    registry = PRSR_ERR_REGISTRY,
    context = PRSR_ERR_CONTEXT,
    lock = PRSR_ERR_LOCK,
    threads = PRSR_ERR_THREADS,
    no_database = PRSR_ERR_NO_DATABASE,
    no_stg = PRSR_ERR_NO_STG,
    role = PRSR_ERR_ROLE,
    no_nodeapps = PRSR_ERR_NO_NODEAPPS,
};

// The role of a database.
enum class role : int32_t {
    primary = PRSR_ROLE_PRIMARY,
    physical_standby = PRSR_ROLE_PHYSICAL_STANDBY,
    logical_standby = PRSR_ROLE_LOGICAL_STANDBY,
    snapshot_standby = PRSR_ROLE_SNAPSHOT_STANDBY,
};

// The failover policy of a service.
enum class failover : int32_t {
    unreadable = 0,  // in a record only
    none = PRSR_RCN_NONE,
    basic = PRSR_RCN_BASIC,
    preconnect = PRSR_RCN_PRECONNECT,
};

// The category of the library's codes, by the name "keyview".
class error_category final : public std::error_category {
  public:
    const char *name() const noexcept override { return "keyview"; }
    std::string message(int code) const override { return row_of(code).message; }

    // A code with a std::errc of the same meaning compares equal to it.
    std::error_condition default_error_condition(int code) const noexcept override {
        const std::errc same = row_of(code).same;
        return same == std::errc() ? std::error_condition(code, *this) : make_error_condition(same);
    }

  private:
    struct row {
        const char *message;
        std::errc same;
    };
    static const row &row_of(int code) noexcept {
        static constexpr row ROWS[] = {
            {"success", {}},
            {"an argument cannot be used", std::errc::invalid_argument},
            {"no memory", std::errc::not_enough_memory},
            {"the registry failed", std::errc::io_error},
            {"no live context", {}},
            {"the lock was not granted", std::errc::resource_unavailable_try_again},
            {"no thread support", {}},
            {"no key has the requested name", std::errc::no_such_file_or_directory},
            {"no such storage manager entry", std::errc::no_such_file_or_directory},
            {"no such role", {}},
            {"the node has no entry", std::errc::no_such_file_or_directory},
            {"unknown code", {}},
        };
        static_assert(std::size(ROWS) == PRSR_ERR_NO_NODEAPPS + 2, "a row for each code");
        const bool known = code >= PRSR_SUCCESS && code <= PRSR_ERR_NO_NODEAPPS;
        return ROWS[known ? code : PRSR_ERR_NO_NODEAPPS + 1];
    }
};

// The one object of the category.
inline const error_category &category() noexcept {
    static const error_category ONE;
    return ONE;
}

// Found by std::error_code for an errc.
inline std::error_code make_error_code(errc code) noexcept {
    return {static_cast<int>(code), category()};
}

}  // namespace prsr

template <>
struct std::is_error_code_enum<prsr::errc> : std::true_type {};

namespace prsr {

// ---- Results ------------------------------------------------------------------------------------

template <class VIEW>
class owned;

namespace detail {

[[noreturn]] inline void fail(int32_t code) {
#ifdef __cpp_exceptions
    throw std::system_error(code, category());
#else
    (void)code;
    std::abort();
#endif
}

template <class VALUE>
const VALUE &viewed(const VALUE &value) noexcept {
    return value;
}
template <class VIEW>
const VIEW &viewed(const owned<VIEW> &owner) noexcept {
    return *owner;
}

}  // namespace detail

// What an operation without a value returns.
template <class VALUE>
class [[nodiscard]] result;
template <>
class [[nodiscard]] result<void> {
  public:
    explicit result(int32_t code) noexcept : code_(code) {}

    explicit operator bool() const noexcept { return code_ == PRSR_SUCCESS; }
    int32_t code() const noexcept { return code_; }  // PRSR_*
    std::error_code error() const noexcept { return {code_, category()}; }

    // Throws std::system_error after a failure. Without exceptions it ends the program.
    void value() const {
        if (code_ != PRSR_SUCCESS) detail::fail(code_);
    }

  private:
    int32_t code_;
};

// What an operation with a value returns. "*" and "->" do not check; they give the view of an
// owner. After a failure they give an empty or zero value, if not stated otherwise.
template <class VALUE>
class [[nodiscard]] result {
  public:
    result(VALUE value, int32_t code) noexcept : value_(std::move(value)), code_(code) {}

    explicit operator bool() const noexcept { return code_ == PRSR_SUCCESS; }
    int32_t code() const noexcept { return code_; }  // PRSR_*
    std::error_code error() const noexcept { return {code_, category()}; }

    const auto &operator*() const &noexcept { return detail::viewed(value_); }
    const auto *operator->() const &noexcept { return &detail::viewed(value_); }
    // Not of a temporary result: nothing would own the value.
    void operator*() const && = delete;
    void operator->() const && = delete;

    // The value, or its owner. Throws std::system_error after a failure. Without exceptions it ends
    // the program.
    const VALUE &value() const & {
        if (code_ != PRSR_SUCCESS) detail::fail(code_);
        return value_;
    }
    VALUE value() && {
        if (code_ != PRSR_SUCCESS) detail::fail(code_);
        return std::move(value_);
    }

  private:
    VALUE value_;
    int32_t code_;
};

// Owns what an operation returned and releases it with the context that it came from, which ends
// later.
template <class VIEW>
class owned {
  public:
    owned() noexcept = default;
    owned(prsr_ctx *ctx, VIEW view) noexcept : ctx_(ctx), view_(view) {}
    owned(owned &&from) noexcept
        : ctx_(std::exchange(from.ctx_, nullptr)), view_(std::exchange(from.view_, VIEW())) {}
    owned &operator=(owned &&from) noexcept {
        if (this != &from) {
            (void)reset();
            ctx_ = std::exchange(from.ctx_, nullptr);
            view_ = std::exchange(from.view_, VIEW());
        }
        return *this;
    }
    ~owned() { (void)reset(); }  // a block that is not the library's is the only failure

    explicit operator bool() const noexcept { return static_cast<bool>(view_); }

    const VIEW &operator*() const &noexcept { return view_; }
    const VIEW *operator->() const &noexcept { return &view_; }
    // Not of a temporary owner: the view would outlive it.
    void operator*() const && = delete;
    void operator->() const && = delete;

    // Releases now and leaves the owner empty. The code of the release, which is ignored elsewhere.
    int32_t reset() noexcept {
        const VIEW view = std::exchange(view_, VIEW());
        return view ? view.release(std::exchange(ctx_, nullptr)) : PRSR_SUCCESS;
    }

  private:
    prsr_ctx *ctx_ = nullptr;
    VIEW view_ = {};
};

// ---- Lists --------------------------------------------------------------------------------------

namespace detail {

inline std::string_view text(const char *text) noexcept {
    return text == nullptr ? std::string_view() : std::string_view(text);
}

}  // namespace detail

// A range over the arrays of a record. ENTRIES makes the view of an entry from its position.
template <class ENTRIES>
class list {
  public:
    using value_type = decltype(std::declval<const ENTRIES &>()[0]);

    class iterator {
      public:
        using iterator_category = std::input_iterator_tag;  // "*" makes a view
        using value_type = list::value_type;
        using difference_type = std::ptrdiff_t;
        using pointer = void;
        using reference = value_type;

        iterator() noexcept = default;
        iterator(ENTRIES of, uint32_t at) noexcept : of_(of), at_(at) {}
        value_type operator*() const noexcept { return of_[at_]; }
        iterator &operator++() noexcept {
            ++at_;
            return *this;
        }
        iterator operator++(int) noexcept {  // NOLINT: const would be no iterator of C++20
            return {of_, at_++};
        }
        bool operator==(const iterator &other) const noexcept { return at_ == other.at_; }
        bool operator!=(const iterator &other) const noexcept { return at_ != other.at_; }

      private:
        ENTRIES of_ = {};
        uint32_t at_ = 0;
    };

    list() noexcept = default;
    list(ENTRIES entries, uint32_t count) noexcept : entries_(entries), count_(count) {}

    iterator begin() const noexcept { return {entries_, 0}; }
    iterator end() const noexcept { return {entries_, size()}; }
    bool empty() const noexcept { return size() == 0; }
    value_type operator[](uint32_t at) const noexcept { return entries_[at]; }

    // 0 for a null array, whatever its count is.
    uint32_t size() const noexcept { return is_null() ? 0 : count_; }

    // Whether the record has no array, as opposed to an empty one.
    bool is_null() const noexcept { return entries_.first() == nullptr; }

  protected:
    ENTRIES entries_ = {};
    uint32_t count_ = 0;
};

// One instance of a service: its registered name, and whether it is enabled for the service.
struct service_instance {
    std::string_view name;
    bool enabled;
};

// One line of a roster: an instance, its node, and whether it takes over instead of running the
// service by preference.
struct roster_entry {
    std::string_view instance;
    std::string_view node;
    bool available;
};

namespace detail {

struct string_entries {
    char **texts;
    const void *first() const noexcept { return texts; }
    std::string_view operator[](uint32_t at) const noexcept { return text(texts[at]); }
};

struct service_instance_entries {
    char **names;
    const int32_t *enabled;
    const void *first() const noexcept { return names; }
    service_instance operator[](uint32_t at) const noexcept {
        return {text(names[at]), enabled[at] != 0};
    }
};

struct roster_entries {
    char **instances;
    char **nodes;
    int32_t *available;
    const void *first() const noexcept { return instances; }
    roster_entry operator[](uint32_t at) const noexcept {
        return {text(instances[at]), text(nodes[at]), available[at] != 0};
    }
};

template <class VIEW>
struct record_entries {
    typename VIEW::record_type **records;
    const void *first() const noexcept { return records; }
    VIEW operator[](uint32_t at) const noexcept { return VIEW(records[at]); }
};

}  // namespace detail

// Texts; a null slot is a string_view without data().
using string_list = list<detail::string_entries>;

// The instances of a service, by preference or for a takeover.
using service_instance_list = list<detail::service_instance_entries>;

// Names of databases, from list_db.
class name_list : public string_list {
  public:
    using string_list::string_list;
    explicit operator bool() const noexcept { return !is_null(); }

  private:
    template <class VIEW>
    friend class owned;
    int32_t release(prsr_ctx *ctx) const noexcept {
        return prsr_release_db_list(nullptr, ctx, entries_.texts, count_);
    }
};

// The instances on which a service runs, from get_srv_instances.
class roster : public list<detail::roster_entries> {
  public:
    using list::list;
    explicit operator bool() const noexcept { return !empty(); }

  private:
    template <class VIEW>
    friend class owned;
    int32_t release(prsr_ctx *ctx) const noexcept {
        return prsr_release_srv_instances(nullptr, ctx, entries_.instances, entries_.nodes,
                                          entries_.available, count_);
    }
};

// The domain of a database, from get_domain.
class domain {
  public:
    domain() noexcept = default;
    explicit domain(char *text) noexcept : text_(text) {}
    explicit operator bool() const noexcept { return text_ != nullptr; }
    std::string_view text() const noexcept { return detail::text(text_); }

  private:
    template <class VIEW>
    friend class owned;
    int32_t release(prsr_ctx *ctx) const noexcept { return prsr_free_domain(ctx, text_); }

    char *text_ = nullptr;
};

// ---- Records ------------------------------------------------------------------------------------

namespace detail {

// What the views of records have in common. RELEASE is null for a part of another record.
template <class RECORD, auto RELEASE>
class view {
  public:
    using record_type = RECORD;

    view() noexcept = default;
    explicit view(RECORD *record) noexcept : record_(record) {}
    explicit operator bool() const noexcept { return record_ != nullptr; }

    // The record itself; null for an empty view.
    const RECORD *get() const noexcept { return record_; }

    // Environment strings.
    string_list env() const noexcept { return {{record_->env}, record_->env_n}; }

  protected:
    RECORD *record_ = nullptr;

  private:
    template <class VIEW>
    friend class prsr::owned;
    int32_t release(prsr_ctx *ctx) const noexcept { return RELEASE(nullptr, ctx, record_); }
};

}  // namespace detail

// One instance of a database: prsr_inst_cfg.
class instance : public detail::view<prsr_inst_cfg, nullptr> {
  public:
    using view::view;
    std::string_view node() const noexcept { return detail::text(record_->node); }
    std::string_view name() const noexcept { return detail::text(record_->name); }
    bool enabled() const noexcept { return record_->enabled != 0; }
};

// One service of a database: prsr_srv_cfg.
class service : public detail::view<prsr_srv_cfg, nullptr> {
  public:
    using view::view;
    std::string_view name() const noexcept { return detail::text(record_->name); }
    failover rcn_policy() const noexcept { return static_cast<failover>(record_->rcn_policy); }
    bool enabled() const noexcept { return record_->enabled != 0; }

    // The instances that run the service by preference.
    service_instance_list preferred() const noexcept {
        return {{record_->preferred, record_->preferred_enabled}, record_->preferred_count};
    }
    // The instances that take over.
    service_instance_list available() const noexcept {
        return {{record_->available, record_->available_enabled}, record_->available_count};
    }
};

using instance_list = list<detail::record_entries<instance>>;
using service_list = list<detail::record_entries<service>>;

// One database: prsr_cfg.
class database : public detail::view<prsr_cfg, &prsr_release_db_config> {
  public:
    using view::view;
    std::string_view sp_name() const noexcept { return detail::text(record_->sp_name); }
    std::string_view alias_ip() const noexcept { return detail::text(record_->alias_ip); }
    std::string_view home() const noexcept { return detail::text(record_->home); }
    std::string_view spfile() const noexcept { return detail::text(record_->spfile); }
    std::string_view db_name() const noexcept { return detail::text(record_->db_name); }
    std::string_view role() const noexcept { return detail::text(record_->role); }
    std::string_view start_options() const noexcept { return detail::text(record_->start_options); }
    std::string_view domain() const noexcept { return detail::text(record_->domain); }
    std::string_view policy() const noexcept { return detail::text(record_->policy); }
    bool enabled() const noexcept { return record_->enabled != 0; }
    instance_list instances() const noexcept {
        return {{record_->instances}, record_->instance_count};
    }
    service_list services() const noexcept { return {{record_->services}, record_->service_count}; }
};

// One storage manager entry: prsr_stg_cfg.
class storage_manager : public detail::view<prsr_stg_cfg, &prsr_release_stg_config> {
  public:
    using view::view;
    std::string_view spfile() const noexcept { return detail::text(record_->spfile); }
    std::string_view home() const noexcept { return detail::text(record_->home); }
    std::string_view start_options() const noexcept { return detail::text(record_->start_options); }
    std::string_view version() const noexcept { return detail::text(record_->version); }
    bool enabled() const noexcept { return record_->enabled != 0; }
};

// The applications of one node: prsr_nodeapps_cfg.
class node_applications : public detail::view<prsr_nodeapps_cfg, &prsr_release_nodeapps_config> {
  public:
    using view::view;
    std::string_view name() const noexcept { return detail::text(record_->name); }
    std::string_view home() const noexcept { return detail::text(record_->home); }
    std::string_view vip() const noexcept { return detail::text(record_->vip); }
    std::string_view interfaces() const noexcept { return detail::text(record_->interfaces); }
    std::string_view netmask() const noexcept { return detail::text(record_->netmask); }
};

// ---- Context ------------------------------------------------------------------------------------

// A zero-terminated argument: a C string, null where the operation allows it, or a std::string.
class zstring {
  public:
    zstring(const char *text) noexcept : text_(text) {}                 // NOLINT: an argument
    zstring(const std::string &text) noexcept : text_(text.c_str()) {}  // NOLINT: an argument
    operator const char *() const noexcept { return text_; }            // NOLINT: an argument

  private:
    const char *text_;
};

// A context with the operations. Movable; what came from it stays valid.
class context {
  public:
    // status is the block for the lock service, which outlives the context; null: the context has
    // one of 224 bytes, what the host kit and other lock services expect.
    static result<context> init(void *status = nullptr) noexcept {
        context made(status);
        const int32_t code = prsr_init(made.status(), &made.ctx_);
        return {std::move(made), code};
    }
    static result<context> init_ext(void *lk, void *status = nullptr) noexcept {
        context made(status);
        const int32_t code = prsr_init_ext(made.status(), &made.ctx_, lk);
        return {std::move(made), code};
    }

    context() noexcept = default;  // empty: each operation returns PRSR_ERR_CONTEXT
    context(context &&from) noexcept { take(&from); }
    context &operator=(context &&from) noexcept {
        if (this != &from) {
            (void)terminate();
            take(&from);
        }
        return *this;
    }
    ~context() { (void)terminate(); }

    // Ends the context, which is empty then.
    result<void> terminate() noexcept {
        prsr_ctx *const ctx = std::exchange(ctx_, nullptr);
        return result<void>(ctx == nullptr ? PRSR_SUCCESS : prsr_terminate(status(), ctx));
    }

    prsr_ctx *get() const noexcept { return ctx_; }  // null if the context is empty
    void *status() noexcept { return given_status_ == nullptr ? own_status_ : given_status_; }

    // ---- Flags ----
    result<void> set_db_enabled(zstring dbname, bool enabled) noexcept {
        return set(prsr_set_db_enabled, dbname, enabled ? 1 : 0);
    }
    result<bool> get_db_enabled(zstring dbname) noexcept {
        return read<bool>(prsr_get_db_enabled, dbname);
    }
    result<void> set_instance_enabled(zstring dbname, zstring instname, bool enabled) noexcept {
        return set(prsr_set_instance_enabled, dbname, instname, enabled ? 1 : 0);
    }
    result<bool> get_instance_enabled(zstring dbname, zstring instname) noexcept {
        return read<bool>(prsr_get_instance_enabled, dbname, instname);
    }
    result<void> set_service_enabled(zstring dbname, zstring srvname, bool enabled) noexcept {
        return set(prsr_set_service_enabled, dbname, srvname, enabled ? 1 : 0);
    }
    result<bool> get_service_enabled(zstring dbname, zstring srvname) noexcept {
        return read<bool>(prsr_get_service_enabled, dbname, srvname);
    }
    result<void> set_service_instance_enabled(zstring dbname, zstring srvname, zstring instname,
                                              bool enabled) noexcept {
        return set(prsr_set_service_instance_enabled, dbname, srvname, instname, enabled ? 1 : 0);
    }
    result<bool> get_service_instance_enabled(zstring dbname, zstring srvname,
                                              zstring instname) noexcept {
        return read<bool>(prsr_get_service_instance_enabled, dbname, srvname, instname);
    }
    result<bool> get_service_instance_supported(zstring dbname, zstring srvname,
                                                zstring instname) noexcept {
        return read<bool>(prsr_get_service_instance_supported, dbname, srvname, instname);
    }

    // ---- Databases ----

    // After a failure the value may hold the names before the one that failed.
    result<owned<name_list>> list_db() noexcept {
        char **names = nullptr;
        uint32_t count = 0;
        const int32_t code = call(prsr_list_db, &names, &count);
        return {{ctx_, {{names}, count}}, code};
    }
    result<owned<database>> fetch_db_config(zstring dbname) noexcept {
        return fetch<database>(prsr_fetch_db_config, dbname);
    }
    result<owned<roster>> get_srv_instances(zstring dbname, zstring srvname) noexcept {
        detail::roster_entries entries = {};
        uint32_t count = 0;
        const int32_t code = call(prsr_get_srv_instances, dbname, srvname, &entries.instances,
                                  &entries.nodes, &entries.available, &count);
        return {{ctx_, {entries, count}}, code};
    }
    result<void> set_db_role(zstring dbname, role role) noexcept {
        return set(prsr_set_db_role, dbname, static_cast<int32_t>(role));
    }
    result<role> get_db_role(zstring dbname) noexcept {
        return read<role>(prsr_get_db_role, dbname);
    }
    result<failover> get_service_rcn_policy(zstring dbname, zstring srvname) noexcept {
        return read<failover>(prsr_get_service_rcn_policy, dbname, srvname);
    }
    result<owned<domain>> get_domain(zstring dbname) noexcept {
        char *text = nullptr;
        const int32_t code = call(prsr_get_domain, dbname, &text);
        return {{ctx_, domain(text)}, code};
    }

    // ---- Names ----

    // The buffer grows to 1 MiB while the name does not fit. These may throw std::bad_alloc.
    result<std::string> get_spname(zstring dbname) { return read_name(prsr_get_spname, dbname); }
    result<std::string> get_instance_name(zstring dbname, zstring instname) {
        return read_name(prsr_get_instance_name, dbname, instname);
    }
    result<std::string> get_node_instance_name(zstring dbname, zstring nodename) {
        return read_name(prsr_get_node_instance_name, dbname, nodename);
    }
    result<std::string> get_stg_name(zstring stg_scope, zstring stg_name) {
        return read_name(prsr_get_stg_name, stg_scope, stg_name);
    }

    // ---- Storage managers and node applications ----
    result<owned<storage_manager>> fetch_stg_config(zstring stg_scope, zstring stg_name) noexcept {
        return fetch<storage_manager>(prsr_fetch_stg_config, stg_scope, stg_name);
    }
    result<bool> get_stg_enabled(zstring stg_scope, zstring stg_name) noexcept {
        return read<bool>(prsr_get_stg_enabled, stg_scope, stg_name);
    }
    result<owned<node_applications>> fetch_nodeapps_config(zstring nodename) noexcept {
        return fetch<node_applications>(prsr_fetch_nodeapps_config, nodename);
    }

  private:
    explicit context(void *status) noexcept : given_status_(status) {}

    void take(context *from) noexcept {
        ctx_ = std::exchange(from->ctx_, nullptr);
        given_status_ = from->given_status_;
        std::memcpy(own_status_, from->own_status_, sizeof own_status_);
    }

    template <class OPERATION, class... ARGUMENTS>
    int32_t call(OPERATION *run, ARGUMENTS... arguments) noexcept {
        return run(status(), ctx_, arguments...);
    }

    template <class OPERATION, class... ARGUMENTS>
    result<void> set(OPERATION *run, ARGUMENTS... arguments) noexcept {
        return result<void>(call(run, arguments...));
    }

    template <class VALUE, class OPERATION, class... NAMES>
    result<VALUE> read(OPERATION *run, NAMES... names) noexcept {
        int32_t value = 0;
        const int32_t code = call(run, names..., &value);
        return {static_cast<VALUE>(value), code};
    }

    template <class VIEW, class OPERATION, class... NAMES>
    result<owned<VIEW>> fetch(OPERATION *run, NAMES... names) noexcept {
        typename VIEW::record_type *record = nullptr;
        const int32_t code = call(run, names..., &record);
        return {{ctx_, VIEW(record)}, code};
    }

    template <class OPERATION, class... NAMES>
    result<std::string> read_name(OPERATION *run, NAMES... names) {
        constexpr uint32_t FIRST_SIZE = 4096, GROWTH = 16, LAST_SIZE = 1 << 20;
        std::string name;
        int32_t code = PRSR_ERR_ARGUMENT;
        for (uint32_t size = FIRST_SIZE; code == PRSR_ERR_ARGUMENT && size <= LAST_SIZE;
             size *= GROWTH) {
            name.assign(size, '\0');
            code = call(run, names..., size, name.data());
        }
        name.resize(std::strlen(name.c_str()));
        return {std::move(name), code};
    }

    prsr_ctx *ctx_ = nullptr;
    void *given_status_ = nullptr;
    uint64_t own_status_[28] = {};
};

}  // namespace prsr

#endif
