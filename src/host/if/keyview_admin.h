// Filling and saving the key tree: a JSON cluster document goes into the registry in one
// transaction and comes out of it again. The library only reads the tree and changes single values;
// whatever creates keys stands here. docs/keyview-document.md describes the document.
//
// C++17, for programs built with the same toolchain as the host kit. The registry is the one in
// force for the process (keyview_host.h). No function throws; the result tells everything.
#ifndef KEYVIEW_HOST_ADMIN_H
#define KEYVIEW_HOST_ADMIN_H

#include <cstdint>
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

struct apply_result : result {
    uint64_t created = 0;   // keys that did not exist, parents included
    uint64_t replaced = 0;  // keys whose value changed
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

// Puts a cluster document into the registry: creates and changes keys, removes none. A registry
// that does not exist yet is created.
//
// All of the document goes in or nothing does. The exclusive locks of every database, storage
// manager entry and node of the document are held meanwhile; all of them together are waited for as
// long as one lock may be (keyview_host.h). Applying a document twice changes nothing the second
// time: created and replaced are 0.
//
// status::content if the document, or its meeting with the registry, is invalid.
KEYVIEW_ADMIN_API apply_result apply_document(std::string_view document) noexcept;

// Tells what apply_document would refuse, as far as the document alone shows it.
KEYVIEW_ADMIN_API result check_document(std::string_view document) noexcept;

// Writes the whole tree, as of one moment, as a cluster document. Applied to an empty registry it
// gives the same keys and values byte for byte. Takes no lock.
//
// status::content if the tree holds something that a document cannot say; nothing is left out
// silently.
KEYVIEW_ADMIN_API export_result export_document() noexcept;

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
