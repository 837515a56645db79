// Looking after the key tree: what creates, changes, removes, saves and judges keys. The library
// only reads the tree and changes single values; whatever creates keys stands here.
// docs/keyview-document.md describes the JSON cluster document.
//
// C++17, for programs built with the same toolchain as the host kit. The registry is the one in
// force for the process (keyview_host.h). No function throws; the result tells everything.
#ifndef KEYVIEW_ADMIN_ADMIN_H
#define KEYVIEW_ADMIN_ADMIN_H

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#define KEYVIEW_ADMIN_API __attribute__((visibility("default")))

namespace keyview::admin {

enum class status {
    done,
    usage,      // no registry is chosen, or its URL cannot be used
    not_found,  // what was asked for does not exist
    registry,   // the registry is not there, cannot be reached or failed
    lock,       // a lock was refused, lost or not granted in time
    changed,    // the tree changed meanwhile
    denied,     // not permitted
    content,    // the document, or the tree, is invalid: problems tells where
    internal,   // memory, or a mistake of ours
};

// One thing that is wrong.
struct problem {
    std::string place;   // in a document a JSON pointer, or line and column; in the tree a key path
    std::string reason;  // a sentence without its subject, such as "must be a string"
};

struct result {
    status code = status::done;
    std::string text;               // the cause of a failure; empty if all went well
    std::vector<problem> problems;  // for status::content: the first ones, in their order
    uint64_t more_problems = 0;     // how many more there are
};

// A key and its value, as stored: a text carries its zero byte.
struct key_row {
    std::string path;
    std::string value;
};

// What happened, or would happen, to one key; no value means that there is no key.
struct key_change {
    std::string path;
    std::optional<std::string> before, after;
};

struct change_options {
    bool dry_run = false;      // tell what would change, write nothing, take no lock
    bool prune = false;        // remove what is not wanted
    uint64_t if_revision = 0;  // the tree must be at this revision, else status::changed; 0 for any
    // Told, on the calling thread, what is done or waited for, such as "writes 17 changes".
    std::function<void(const std::string &)> step = {};
};

struct change_result : result {
    std::vector<key_change> changes;  // in the order of the paths, parents before their children
    std::vector<std::string> locks;   // exclusive ones, taken for it
    uint64_t revision = 0;            // the tree's, before the change
};

struct keys_result : result {
    std::vector<key_row> keys;  // in the order of the paths, parents before their children
    uint64_t revision = 0;      // the tree's
};

struct export_result : result {
    std::string document;  // ends with a newline; empty after a failure
};

struct check_report : result {
    uint64_t keys = 0;   // that were looked at
    uint64_t pages = 0;  // of the registry's file
};

// One thing that a look at the registry and its surroundings found.
struct symptom {
    enum class state { good, doubtful, bad };
    std::string subject;  // such as "member 10.0.0.1:2379"
    state health = state::good;
    std::string text;
};

struct doctor_report : result {
    std::vector<symptom> symptoms;
};

// What to do with a change set that stopped half-way.
enum class recovery { resume, undo };

// ---- Keys ---------------------------------------------------------------------------------------

enum class depth { key, children, all };

// Reads a key, with its children or all below it, as of one moment. Takes no lock.
KEYVIEW_ADMIN_API keys_result read_keys(std::string_view path, depth how_far) noexcept;

// The tree's revision: it moves when the tree changes, not when a lock is taken. In keys_result, as
// of now; keys stays empty.
KEYVIEW_ADMIN_API keys_result read_revision() noexcept;

// What changed in a key and below it after a revision: the next changes, in their order, which are
// waited for, or none when the time is over. status::changed if the registry has forgotten that
// revision.
struct noted_change {
    uint64_t revision = 0;  // that the tree had with it
    key_change change;
};
struct changes_result : result {
    bool keeps_history = false;  // else there never is a change
    std::vector<noted_change> changes;
    uint64_t up_to = 0;  // the revision to go on from
};
KEYVIEW_ADMIN_API changes_result read_changes(std::string_view path, uint64_t since,
                                              uint32_t wait_ms) noexcept;

// How two readings differ, in the order of the paths.
KEYVIEW_ADMIN_API std::vector<key_change> compare_keys(const std::vector<key_row> &before,
                                                       const std::vector<key_row> &after);

// The stored form of what a person writes for a key: as the key's readers expect it (as_meant), or
// a text with its zero byte, or a list of strings.
enum class encoding { as_meant, text, list };
struct encoded_result : result {
    std::string value;
};
KEYVIEW_ADMIN_API encoded_result encode_for(std::string_view path, encoding how,
                                            const std::vector<std::string> &values) noexcept;

// What a person reads for a stored value: a text without its zero byte, a list in brackets; what
// is neither comes as it is stored, with a remark.
KEYVIEW_ADMIN_API std::string value_for_people(std::string_view value);

// Any bytes as text, and back; false if the text is none.
KEYVIEW_ADMIN_API std::string base64_of(std::string_view bytes);
KEYVIEW_ADMIN_API bool bytes_of_base64(std::string_view text, std::string *bytes);

// Creates a key or replaces its value; removes a key with all that is below it (not_found if there
// is none). Under the lock of the database, entry or node that the key belongs to. What is so
// already is not written.
KEYVIEW_ADMIN_API change_result set_key(std::string_view path, std::string_view value,
                                        const change_options &options) noexcept;
KEYVIEW_ADMIN_API change_result remove_key(std::string_view path,
                                           const change_options &options) noexcept;

// What a key means, who uses it, how it is stored. path has names in <>, such as
// "DATABASE.DATABASES.<db>.ENABLED".
struct key_meaning {
    const char *path, *meaning, *written_by, *read_by, *encoding, *absence;
};
KEYVIEW_ADMIN_API std::vector<key_meaning> key_meanings();
// Those of one key, by its path or by a path with <>; empty if it belongs to others.
KEYVIEW_ADMIN_API std::optional<key_meaning> meaning_of(std::string_view path);

// ---- Documents ----------------------------------------------------------------------------------

// Puts a cluster document into the registry: creates and changes keys and, with prune, removes what
// the document does not hold. A registry that does not exist yet is created.
//
// All of the document goes in or nothing does. The exclusive locks of every database, storage
// manager entry and node of the document, and of what is removed, are held meanwhile; all of them
// together are waited for as long as one lock may be (keyview_host.h). Applying a document twice
// changes nothing the second time.
//
// status::content if the document, or its meeting with the registry, is invalid.
KEYVIEW_ADMIN_API change_result apply_document(std::string_view document,
                                               const change_options &options = {}) noexcept;

// A field of a document, in the order in which documents are written: the record that has it, such
// as "databases[].instances[]", its type in a word, the key below the record's own, and how many
// bytes are stored at most, or 0 where the key has a value of another kind.
struct document_field {
    std::string record, field, type, key;
    uint32_t limit = 0;
};
KEYVIEW_ADMIN_API std::vector<document_field> document_fields();

// Tells what apply_document would refuse, as far as the document alone shows it.
KEYVIEW_ADMIN_API result check_document(std::string_view document) noexcept;

// Writes the whole tree, as of one moment, as a cluster document. Applied to an empty registry it
// gives the same keys and values byte for byte. Takes no lock.
//
// status::content if the tree holds something that a document cannot say; nothing is left out
// silently.
KEYVIEW_ADMIN_API export_result export_document() noexcept;

// ---- Saved trees --------------------------------------------------------------------------------

// The whole tree as of one moment, byte for byte, with its revision and a checksum; as text.
struct backup_result : result {
    std::string content;
    uint64_t keys = 0;
    uint64_t revision = 0;
};
KEYVIEW_ADMIN_API backup_result backup_registry() noexcept;

KEYVIEW_ADMIN_API bool is_backup(std::string_view content);

// Brings the tree to what a backup holds, in one transaction, after it was verified as a whole. A
// registry that does not exist yet is created; one that holds keys is refused (status::usage)
// without force. copy_registry does the same from the registry in force to the one of a URL.
KEYVIEW_ADMIN_API change_result restore_registry(std::string_view backup, bool force,
                                                 const change_options &options) noexcept;
KEYVIEW_ADMIN_API change_result copy_registry(const std::string &to_url, bool force,
                                              const change_options &options) noexcept;

// ---- Judgement ----------------------------------------------------------------------------------

struct finding {
    const char *rule;
    const char *severity;  // "error": readers fail or part; "warning": something is out of sight
    std::string path;
    std::string readers_see;
    std::vector<std::string> mend;  // the arguments of keyviewctl that mend it
};
struct lint_result : result {
    std::vector<finding> findings;
    uint64_t keys = 0;  // that were looked at
};

// Looks for what readers misread, in a sound registry.
KEYVIEW_ADMIN_API lint_result lint_registry() noexcept;

struct lint_rule {
    const char *rule, *severity, *meaning;
};
KEYVIEW_ADMIN_API std::vector<lint_rule> lint_rules();

// ---- Locks --------------------------------------------------------------------------------------

class KEYVIEW_ADMIN_API lock_hold {
  public:
    lock_hold() = default;
    lock_hold(const lock_hold &) = delete;
    lock_hold &operator=(const lock_hold &) = delete;
    virtual ~lock_hold() = default;
    virtual bool still_held() const = 0;
};

struct lock_result : result {
    std::unique_ptr<lock_hold> lock;
};
// Without wait_ms it is waited for as long as any lock (keyview_host.h).
KEYVIEW_ADMIN_API lock_result take_lock(const std::string &name, bool shared,
                                        std::optional<uint32_t> wait_ms) noexcept;

// The lock under which a key is changed.
KEYVIEW_ADMIN_API std::string lock_of_key(std::string_view path);

struct lock_user {
    std::string name;
    bool shared = false;
    bool waits = false;
    std::string holder;  // as far as the registry can tell, such as a process; "" if it cannot
};
struct locks_result : result {
    std::vector<lock_user> users;
};
KEYVIEW_ADMIN_API locks_result list_locks() noexcept;

// ---- Damage -------------------------------------------------------------------------------------

// Looks for damage in all of the registry: its pages, its rows and their checksums, keys that are
// missing or stand alone, names and values that readers cannot read. Works on a registry that is
// too damaged to be used, and changes nothing; writers wait meanwhile.
//
// status::content if there is any: problems names the first places, which are key paths or places
// in the registry's file.
KEYVIEW_ADMIN_API check_report check_registry() noexcept;

// Looks at how the registry is configured and reached, at each member of a cluster, and takes a
// lock. status::done whatever it found; findings tell.
KEYVIEW_ADMIN_API doctor_report examine_registry() noexcept;

// Finishes, or takes back, a large change set whose program ended while a cluster carried it out.
// status::not_found if there is none.
KEYVIEW_ADMIN_API result recover_registry(recovery how) noexcept;

// Tells why the databases cannot be enumerated, if they cannot: prsr_list_db then lists none.
KEYVIEW_ADMIN_API result check_listing() noexcept;

}  // namespace keyview::admin

#endif
