// keyview: a typed view of the database configuration of a cluster. The one header a caller
// includes; usable from C99 and C++17.
//
// Rules for all operations, unless an operation documents an exception:
//
// status   The caller's status block. The library never reads, writes or tests it; it only hands it
//          to the lock service. An operation that takes no lock ignores it.
// ctx      From prsr_init or prsr_init_ext. Null, or a record that is no live context, gives
//          PRSR_ERR_CONTEXT before any other check, and nothing is logged. Calls on one context are
//          not synchronized: each thread has its own, or the caller serializes them.
// names    Zero-terminated, never null, in any case, never changed. A "." in a service name is part
//          of the name; in any other name it leads one level deeper into the tree. A name whose
//          path would exceed 2,047 bytes gives PRSR_ERR_ARGUMENT where the operation works with
//          paths of fixed size.
// buf      A caller's buffer of bufsize bytes, at least 1. It receives a text whole, its zero byte
//          included, or not at all: with fewer than length + 1 bytes buf holds "" and the result is
//          PRSR_ERR_ARGUMENT.
// results  Records, lists and strings are snapshots from the context's memory. They belong to the
//          caller until the matching release operation, called with the same context before
//          prsr_terminate. An out-argument is never null.
// enabled  In: 0 disables, anything else enables. Out: 1 or 0, written on PRSR_SUCCESS only.
// failures A failed registry call writes three lines to the trace at level 0, a failed allocation
//          one. No operation retries.
//
// The configuration is read afresh by each call: the library keeps nothing but the context.
#ifndef KEYVIEW_PRSR_H
#define KEYVIEW_PRSR_H

#include <stdint.h>

#define PRSR_API __attribute__((visibility("default")))
#ifdef __cplusplus
#define PRSR_NOEXCEPT noexcept
extern "C" {
#else
#define PRSR_NOEXCEPT
#endif

// Result codes.
enum {
    PRSR_SUCCESS = 0,
    PRSR_ERR_ARGUMENT = 1,      // an argument cannot be used
    PRSR_ERR_MEMORY = 2,        // no memory
    PRSR_ERR_REGISTRY = 3,      // the registry client failed
    PRSR_ERR_CONTEXT = 4,       // ctx is no live context
    PRSR_ERR_LOCK = 5,          // the lock service refused
    PRSR_ERR_THREADS = 6,       // no thread support
    PRSR_ERR_NO_DATABASE = 7,   // no key has the requested name
    PRSR_ERR_NO_STG = 8,        // the storage manager entry does not exist
    PRSR_ERR_ROLE = 9,          // no such role
    PRSR_ERR_NO_NODEAPPS = 10,  // the node has no entry
};

// Roles of a database.
enum {
    PRSR_ROLE_PRIMARY = 0,
    PRSR_ROLE_PHYSICAL_STANDBY = 1,
    PRSR_ROLE_LOGICAL_STANDBY = 2,
    PRSR_ROLE_SNAPSHOT_STANDBY = 3,
};

// Failover policies of a service.
enum {
    PRSR_RCN_NONE = 1,
    PRSR_RCN_BASIC = 2,
    PRSR_RCN_PRECONNECT = 3,
};

// A context; opaque.
typedef struct prsr_ctx prsr_ctx;

// One instance of a database.
typedef struct prsr_inst_cfg {
    char *node;         // the node that runs it; null if unknown
    char *name;         // in its registered case; never null
    char **env;         // environment strings; null if there are none
    uint32_t env_n;     // slots of env; a slot may be null
    int32_t enabled;    // 0 if the flag is FALSE or cannot be read, else 1
    uint64_t reserved;  // 0
} prsr_inst_cfg;

// One service of a database with the instances that may run it. A service that names no instance
// has its name only: everything else is null or 0.
typedef struct prsr_srv_cfg {
    char *name;                  // in its registered case; never null
    char **available;            // instances that take over, by their registered names
    int32_t *available_enabled;  // 1 or 0 for the instance in the same position
    uint32_t available_count;    // entries of available and available_enabled
    char **preferred;            // instances that run the service by preference
    int32_t *preferred_enabled;  // 1 or 0 for the instance in the same position
    uint32_t preferred_count;    // entries of preferred and preferred_enabled
    int32_t rcn_policy;  // PRSR_RCN_*; 0 if the policy cannot be read, a missing one included
    char **env;          // environment strings; null if there are none
    uint32_t env_n;      // slots of env; a slot may be null
    int32_t enabled;     // 0 if the flag is FALSE or cannot be read, else 1
    uint64_t reserved;   // 0
} prsr_srv_cfg;

// One database. Strings but sp_name are null if the key is missing or does not open, and "" if its
// value cannot be read (alias_ip: null then too); a value of more than 1,024 bytes cannot be read.
typedef struct prsr_cfg {
    char tag[16];               // "PRSRCFGB"
    char *sp_name;              // the name in its registered case; never null
    char *alias_ip;             // address of the cluster alias
    char *home;                 // software home
    char *spfile;               // parameter file
    char *db_name;              // the database's own name
    char *role;                 // the role word as stored
    char *start_options;        // options for a start
    prsr_inst_cfg **instances;  // null if there are none
    uint32_t instance_count;    // slots of instances
    prsr_srv_cfg **services;    // null if there are none
    uint32_t service_count;     // slots of services
    char *domain;               // domain; null as well if memory ran out for it
    int32_t enabled;            // 0 if the flag is FALSE or cannot be read, else 1
    char **env;                 // environment strings; null if there are none or memory ran out
    uint32_t env_n;             // slots of env; a slot may be null
    int32_t constant_one;       // 1
    char *policy;               // management policy; "AUTOMATIC" if none is stored
} prsr_cfg;

// One storage manager entry. Its strings are "" if they cannot be read, and null only if memory ran
// out for them.
typedef struct prsr_stg_cfg {
    char tag[16];         // "PRSRCFGA"
    char *spfile;         // parameter file
    char *home;           // software home
    char *start_options;  // options for a start
    char *version;        // software version
    char **env;           // environment strings; null if there are none
    uint32_t env_n;       // slots of env; a slot may be null
    uint32_t enabled;     // 1 if the flag is TRUE, else 0
    uint64_t reserved;    // 0
} prsr_stg_cfg;

// The applications of one node. Strings but name are null if the key does not open, and "" if its
// value cannot be read; a value of more than 1,024 bytes cannot be read.
typedef struct prsr_nodeapps_cfg {
    uint32_t constant_one;  // 1
    char tag[12];           // "PRSRCFGC"
    char *name;             // the node's name in its registered case; never null
    char **env;             // environment strings; null if there are none
    uint32_t env_n;         // slots of env; a slot may be null
    char *home;             // software home
    char *vip;              // network address, from VIP or, where that is empty, from VIP.IP; "" if
                            // neither holds one
    char *interfaces;       // its network interfaces
    char *netmask;          // its netmask
    uint64_t reserved;      // 0
} prsr_nodeapps_cfg;

// ---- Context ------------------------------------------------------------------------------------

// Makes a context over a lock service of its own: prsr_init_ext with lk null.
PRSR_API int32_t prsr_init(void *status, prsr_ctx **ctx_out) PRSR_NOEXCEPT;

// Makes a context.
//
// ctx_out  out, the context; null after a failure
// lk       a lock service handle, which the caller still owns, or null: then the context makes one
//          and ends it. With a handle given, status is not used.
//
// A trace that cannot be registered is no failure: the context works without one.
// Returns PRSR_ERR_MEMORY; PRSR_ERR_REGISTRY if the registry client does not start;
// PRSR_ERR_THREADS; PRSR_ERR_LOCK if the lock service does not start.
PRSR_API int32_t prsr_init_ext(void *status, prsr_ctx **ctx_out, void *lk) PRSR_NOEXCEPT;

// Ends a context. Records that came from it must have been released before.
PRSR_API int32_t prsr_terminate(void *status, prsr_ctx *ctx) PRSR_NOEXCEPT;

// ---- Flags of databases and instances -----------------------------------------------------------

// Enables or disables a database.
//
// Takes the database's lock, exclusive.
// Returns the lock's code, PRSR_ERR_LOCK or PRSR_ERR_MEMORY, if the lock is refused;
// PRSR_ERR_REGISTRY if the flag cannot be written, a missing key included; PRSR_ERR_MEMORY.
PRSR_API int32_t prsr_set_db_enabled(void *status, prsr_ctx *ctx, const char *dbname,
                                     int32_t enabled) PRSR_NOEXCEPT;

// Reports whether a database is enabled: 1 if the stored word is TRUE in any case, else 0.
//
// Takes no lock.
// Returns PRSR_ERR_NO_DATABASE if the flag, or the database, is missing; PRSR_ERR_REGISTRY if it
// cannot be read; PRSR_ERR_MEMORY.
PRSR_API int32_t prsr_get_db_enabled(void *status, prsr_ctx *ctx, const char *dbname,
                                     int32_t *enabled) PRSR_NOEXCEPT;

// Enables or disables an instance. Locks and codes as for prsr_set_db_enabled: the lock is that of
// the database.
PRSR_API int32_t prsr_set_instance_enabled(void *status, prsr_ctx *ctx, const char *dbname,
                                           const char *instname, int32_t enabled) PRSR_NOEXCEPT;

// Reports whether an instance is enabled. Locks and codes as for prsr_get_db_enabled.
PRSR_API int32_t prsr_get_instance_enabled(void *status, prsr_ctx *ctx, const char *dbname,
                                           const char *instname, int32_t *enabled) PRSR_NOEXCEPT;

// ---- Flags of services and their instances ------------------------------------------------------

// Enables or disables a service and, with the same value, every instance that it names.
//
// Nothing is undone: where it stops, the flags before it are written and those after it are not. If
// only the service's own flag cannot be written, its instances are written all the same.
// Takes the database's lock, exclusive, from the first write to the last.
// Returns the lock's code; PRSR_ERR_REGISTRY if a flag cannot be written or the instances cannot be
// enumerated, a missing service included; PRSR_ERR_MEMORY.
PRSR_API int32_t prsr_set_service_enabled(void *status, prsr_ctx *ctx, const char *dbname,
                                          const char *srvname, int32_t enabled) PRSR_NOEXCEPT;

// Reports whether a service itself is enabled; its instances are not read. Locks and codes as
// for prsr_get_db_enabled.
PRSR_API int32_t prsr_get_service_enabled(void *status, prsr_ctx *ctx, const char *dbname,
                                          const char *srvname, int32_t *enabled) PRSR_NOEXCEPT;

// Enables or disables one instance of a service.
//
// Takes the database's lock, shared: readers, and other writers of this kind, run beside it.
// Returns the lock's code; PRSR_ERR_REGISTRY if the flag cannot be written, a missing key included;
// PRSR_ERR_MEMORY.
PRSR_API int32_t prsr_set_service_instance_enabled(void *status, prsr_ctx *ctx, const char *dbname,
                                                   const char *srvname, const char *instname,
                                                   int32_t enabled) PRSR_NOEXCEPT;

// Reports whether one instance of a service is enabled. Locks and codes as for prsr_get_db_enabled.
PRSR_API int32_t prsr_get_service_instance_enabled(void *status, prsr_ctx *ctx, const char *dbname,
                                                   const char *srvname, const char *instname,
                                                   int32_t *enabled) PRSR_NOEXCEPT;

// Reports whether an instance of a service is supported: preferred or available, and enabled.
//
// supported  out, 1 or 0; 0 after every failure, a bad context included
//
// Takes no lock, so a writer may run between its two reads.
// Returns PRSR_ERR_REGISTRY if the type, or else the flag, cannot be read, a missing type included;
// PRSR_ERR_NO_DATABASE if only the flag is missing; PRSR_ERR_ARGUMENT if a path does not fit;
// PRSR_ERR_MEMORY.
PRSR_API int32_t prsr_get_service_instance_supported(void *status, prsr_ctx *ctx,
                                                     const char *dbname, const char *srvname,
                                                     const char *instname,
                                                     int32_t *supported) PRSR_NOEXCEPT;

// ---- Databases ----------------------------------------------------------------------------------

// Lists the databases by their registered names, in the order of the registry.
//
// db_list   out, *db_count strings; never null on PRSR_SUCCESS, with no databases neither
// db_count  out
//
// Both stay untouched if the context is bad or the lock is refused. If a name cannot be read, both
// are set and hold the names before it, then null slots: release them as after a success.
// Takes the lock of all databases, shared.
// Returns the lock's code; PRSR_ERR_ARGUMENT if the list cannot be allocated: there is nothing to
// release then; PRSR_ERR_REGISTRY or PRSR_ERR_MEMORY if a name cannot be read. A registry that
// cannot be enumerated lists no databases; the trace has the reason.
PRSR_API int32_t prsr_list_db(void *status, prsr_ctx *ctx, char ***db_list,
                              uint32_t *db_count) PRSR_NOEXCEPT;

// Releases a list, null slots allowed. db_list may be null if db_count is 0.
PRSR_API int32_t prsr_release_db_list(void *status, prsr_ctx *ctx, char **db_list,
                                      uint32_t db_count) PRSR_NOEXCEPT;

// Loads the whole configuration of a database.
//
// cfg  out, the record; null after a failure
//
// Only the database and its own name are mandatory, and the names of its instances and services.
// All else may be missing, which leaves lines in the trace and empty fields.
// Takes the database's lock, shared, for the whole load.
// Returns the lock's code; PRSR_ERR_NO_DATABASE if there is none of this name; PRSR_ERR_REGISTRY if
// a mandatory name cannot be read, an instance or service went away meanwhile, or a service
// instance's type cannot be read; PRSR_ERR_ARGUMENT if a path does not fit; PRSR_ERR_MEMORY.
PRSR_API int32_t prsr_fetch_db_config(void *status, prsr_ctx *ctx, const char *dbname,
                                      prsr_cfg **cfg) PRSR_NOEXCEPT;

// Releases a record. Null, or a block that is no such record, is ignored: PRSR_SUCCESS.
PRSR_API int32_t prsr_release_db_config(void *status, prsr_ctx *ctx, prsr_cfg *cfg) PRSR_NOEXCEPT;

// ---- Roster -------------------------------------------------------------------------------------

// Lists the instances on which a service runs, and their nodes: three arrays of *inst_count
// entries, in the order of the registry. All or nothing: unlike in a record, every key must be
// there.
//
// dbname, srvname  may be null, which gives PRSR_ERR_ARGUMENT
// inst_names       out, registered names of the instances
// node_names       out, their nodes
// avail            out, 1 for an instance that takes over (AVAILABLE), else 0
// inst_count       out; 0 after a failure and for a service without instances: the arrays then mean
//                  nothing
//
// Takes the database's lock, shared.
// Returns PRSR_ERR_REGISTRY if the lock is refused for any reason or a key cannot be read, a
// missing one included; PRSR_ERR_ARGUMENT also if a path does not fit; PRSR_ERR_MEMORY.
PRSR_API int32_t prsr_get_srv_instances(void *status, prsr_ctx *ctx, const char *dbname,
                                        const char *srvname, char ***inst_names, char ***node_names,
                                        int32_t **avail, uint32_t *inst_count) PRSR_NOEXCEPT;

// Releases a roster. With inst_count 0 the pointers are not read; else any may be null.
PRSR_API int32_t prsr_release_srv_instances(void *status, prsr_ctx *ctx, char **inst_names,
                                            char **node_names, int32_t *avail,
                                            uint32_t inst_count) PRSR_NOEXCEPT;

// ---- Role ---------------------------------------------------------------------------------------

// Changes the role of a database.
//
// role  one of PRSR_ROLE_*
//
// Takes the database's lock, shared: readers, and other writers of this kind, run beside it.
// Returns PRSR_ERR_ROLE for any other role, before anything is touched; the lock's code;
// PRSR_ERR_REGISTRY if the role cannot be written, a missing key included; PRSR_ERR_MEMORY.
PRSR_API int32_t prsr_set_db_role(void *status, prsr_ctx *ctx, const char *dbname,
                                  int32_t role) PRSR_NOEXCEPT;

// Reads the role of a database.
//
// role  out, one of PRSR_ROLE_*; written on PRSR_SUCCESS only
//
// Takes no lock.
// Returns PRSR_ERR_REGISTRY if the role cannot be read, a missing key included; PRSR_ERR_ROLE if
// the stored word, in any case, is no role; PRSR_ERR_MEMORY.
PRSR_API int32_t prsr_get_db_role(void *status, prsr_ctx *ctx, const char *dbname,
                                  int32_t *role) PRSR_NOEXCEPT;

// ---- Names --------------------------------------------------------------------------------------

// Returns the registered name of a database.
//
// buf  untouched if memory ran out before the read or the database is missing or does not open
//
// Takes no lock.
// Returns PRSR_ERR_NO_DATABASE; PRSR_ERR_REGISTRY if the name cannot be read; PRSR_ERR_ARGUMENT if
// it does not fit, or its path does not; PRSR_ERR_MEMORY.
PRSR_API int32_t prsr_get_spname(void *status, prsr_ctx *ctx, const char *dbname, uint32_t bufsize,
                                 char *buf) PRSR_NOEXCEPT;

// Returns the registered name of an instance. As prsr_get_spname; PRSR_ERR_NO_DATABASE covers both
// a missing database and a missing instance.
PRSR_API int32_t prsr_get_instance_name(void *status, prsr_ctx *ctx, const char *dbname,
                                        const char *instname, uint32_t bufsize,
                                        char *buf) PRSR_NOEXCEPT;

// Returns the registered name of the instance of a database on a node: of the first one whose
// stored node equals the folded nodename.
//
// bufsize  must also hold every instance's key name that is met before
// buf      "" on PRSR_SUCCESS if no instance is on the node, and after a failed read; untouched if
//          memory ran out before the walk, the lock is refused or the instances do not open
//
// Takes the database's lock, shared.
// Returns the lock's code; PRSR_ERR_REGISTRY if the instances cannot be walked, a missing database
// or an instance without a node included, or if an instance's key name does not fit into buf;
// PRSR_ERR_ARGUMENT if the name does not fit, or a path does not; PRSR_ERR_MEMORY.
PRSR_API int32_t prsr_get_node_instance_name(void *status, prsr_ctx *ctx, const char *dbname,
                                             const char *nodename, uint32_t bufsize,
                                             char *buf) PRSR_NOEXCEPT;

// ---- Policy and domain --------------------------------------------------------------------------

// Reads the failover policy of a service.
//
// policy  out, PRSR_RCN_*; PRSR_RCN_NONE as well if nothing can be read: only the trace
//         distinguishes a missing service, a missing database and a failing registry
//
// Takes no lock.
// Returns PRSR_ERR_MEMORY; policy is then untouched.
PRSR_API int32_t prsr_get_service_rcn_policy(void *status, prsr_ctx *ctx, const char *dbname,
                                             const char *srvname, int32_t *policy) PRSR_NOEXCEPT;

// Reads the domain of a database.
//
// dbname  may be null, which gives PRSR_ERR_CONTEXT
// domain  out, a string for prsr_free_domain; null if the read failed, untouched if memory ran out
//         before the read or the context is bad
//
// Takes no lock.
// Returns PRSR_ERR_REGISTRY if the domain cannot be read, a missing key or database included;
// PRSR_ERR_MEMORY.
PRSR_API int32_t prsr_get_domain(void *status, prsr_ctx *ctx, const char *dbname,
                                 char **domain) PRSR_NOEXCEPT;

// Releases a domain. Null for either argument gives PRSR_ERR_CONTEXT.
PRSR_API int32_t prsr_free_domain(prsr_ctx *ctx, char *domain) PRSR_NOEXCEPT;

// ---- Storage managers ---------------------------------------------------------------------------

// Loads the configuration of a storage manager entry.
//
// cfg  out, the record; null after a failure
//
// Only the entry's key is mandatory.
// Takes the entry's lock, shared, after it was found to exist.
// Returns PRSR_ERR_NO_STG if there is none; PRSR_ERR_LOCK if the lock is refused, or its release
// after an otherwise good load; PRSR_ERR_REGISTRY if the entry does not open; PRSR_ERR_ARGUMENT if
// a path does not fit; PRSR_ERR_MEMORY.
PRSR_API int32_t prsr_fetch_stg_config(void *status, prsr_ctx *ctx, const char *stg_scope,
                                       const char *stg_name, prsr_stg_cfg **cfg) PRSR_NOEXCEPT;

// Releases a record. Null, or a block that is no such record, is ignored: PRSR_SUCCESS.
PRSR_API int32_t prsr_release_stg_config(void *status, prsr_ctx *ctx,
                                         prsr_stg_cfg *cfg) PRSR_NOEXCEPT;

// Returns the registered name of a storage manager entry. As prsr_get_spname, with PRSR_ERR_NO_STG
// for a missing entry.
PRSR_API int32_t prsr_get_stg_name(void *status, prsr_ctx *ctx, const char *stg_scope,
                                   const char *stg_name, uint32_t bufsize, char *buf) PRSR_NOEXCEPT;

// Reports whether a storage manager entry is enabled.
//
// Takes no lock.
// Returns PRSR_ERR_NO_STG if the entry or its flag is missing; PRSR_ERR_REGISTRY if it cannot be
// read; PRSR_ERR_ARGUMENT if the path does not fit; PRSR_ERR_MEMORY.
PRSR_API int32_t prsr_get_stg_enabled(void *status, prsr_ctx *ctx, const char *stg_scope,
                                      const char *stg_name, int32_t *enabled) PRSR_NOEXCEPT;

// ---- Node applications --------------------------------------------------------------------------

// Loads the configuration of a node's applications.
//
// nodename  null or empty gives PRSR_ERR_ARGUMENT
// cfg       out, the record; null after a failure
//
// Only the node's key and its own name are mandatory.
// Takes the node's lock, shared, for the whole load.
// Returns the lock's code; PRSR_ERR_NO_NODEAPPS if the node has no entry; PRSR_ERR_REGISTRY if its
// name cannot be read; PRSR_ERR_ARGUMENT also if a path does not fit; PRSR_ERR_MEMORY.
PRSR_API int32_t prsr_fetch_nodeapps_config(void *status, prsr_ctx *ctx, const char *nodename,
                                            prsr_nodeapps_cfg **cfg) PRSR_NOEXCEPT;

// Releases a record. Null, or a block that is no such record, is ignored: PRSR_SUCCESS.
PRSR_API int32_t prsr_release_nodeapps_config(void *status, prsr_ctx *ctx,
                                              prsr_nodeapps_cfg *cfg) PRSR_NOEXCEPT;

#ifdef __cplusplus
}
#endif
#endif
