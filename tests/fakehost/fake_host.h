// A scripted host in memory: every outside operation that the library calls, over a tree given as
// text. It notes each call in order, fails calls on demand, bends answers, and fails the running
// test if a call breaks a contract or something is still outstanding at the end.
//
// Blocks come from calloc in exactly the size asked for, so that a sanitizer sees every overrun; without
// one there is a mark behind each, which is compared when it is freed.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

// One call as it was made. subject is the key's path or the lock's name; nth counts the calls of
// this kind on this subject. text is the line of a transcript, such as "get 1024 -> 9" or
// "4 prsr_list_db: Listing the databases". The key is named in it unless it is the one opened last.
struct fake_event {
    std::string call;
    std::string subject;
    std::string text;
    int nth;
};

// What kvtc_get_value or kvtc_enum_subkey is about to answer.
struct fake_answer {
    uint32_t capacity;  // of the caller's buffer
    int32_t result;
    std::string bytes;  // written as far as there is room
    uint32_t size;      // reported with the results 0 and 9
    int32_t last;       // reported by an enumeration
};

// Fails the nth matching call with a code; with nth 0 all of them. Empty means any.
struct fake_fault {
    std::string call;
    std::string subject;
    int nth;
    int32_t code;
    int met = 0;
    bool fired = false;
};

struct fake_key {
    std::string path;
    size_t cursor = 0;
    bool open = true;
};

class fake_host {
  public:
    // One key a line, a blank more than its parent, then "=" and its value unless it is empty. A
    // value gets a zero byte at its end; \0 stands for further ones.
    explicit fake_host(const std::string &tree_text);
    ~fake_host();
    fake_host(const fake_host &) = delete;
    fake_host &operator=(const fake_host &) = delete;

    // Script.
    void put(const std::string &path, const std::string &bytes);  // creates or replaces
    void remove(const std::string &path);                         // with all below it
    void fail(const std::string &call, const std::string &subject, int nth, int32_t code);
    bool fired() const;  // whether each fault was met
    std::function<void(const fake_event &, fake_answer *)> bend;
    void *make_lock_service();  // a handle of the caller's own
    void forget();              // the calls so far

    // What happened, and what there is.
    std::vector<fake_event> events;
    std::map<std::string, std::string> values;
    std::string outstanding() const;  // empty if nothing is
    std::vector<std::string> lines(const std::string &call, const std::string &start) const;

    // An address that nobody may touch: the library only hands it on.
    void *const status = reinterpret_cast<void *>(0x5A5A);

    // The state of the outside operations.
    int32_t enter(const char *call, const std::string &subject, const std::string &text);
    int32_t answered(int32_t result);
    fake_key *key_of(void *reg, void *key);
    std::string named(const fake_key *key) const;

    std::map<std::string, std::vector<std::string>> children;
    std::map<void *, uint64_t> blocks;
    std::deque<fake_key> keys;
    std::deque<char> handles;  // one address each
    std::set<void *> registries, lock_services, traces;
    std::set<std::string> locks;
    void *threads = nullptr;
    std::string failure_text;
    int32_t failure_code = 0;

  private:
    std::map<std::string, int> seen_;
    std::vector<fake_fault> faults_;
    fake_host *outer_;
};

// The host that the outside operations work on: the one made last.
extern fake_host *fake_current;

// Whether a call can fail: a fault for any call applies to it.
bool fake_can_fail(const std::string &call);

// The bytes with \0, \n and \t written out.
std::string fake_escaped(const std::string &bytes);
