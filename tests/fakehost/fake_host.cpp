// The script and the record of the fake host; the outside operations over it are in
// fake_registry.cpp and fake_services.cpp.
#include "fake_host.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

#include <gtest/gtest.h>

fake_host *fake_current = nullptr;

static std::string unescaped(const std::string &text) {
    std::string bytes;
    for (size_t i = 0; i < text.size(); ++i) {
        bool zero = text.compare(i, 2, "\\0") == 0;
        bytes += zero ? '\0' : text[i];
        i += zero;
    }
    return bytes + '\0';
}

std::string fake_escaped(const std::string &bytes) {
    std::string text;
    for (char c : bytes) {
        const char *written = c == '\0' ? "\\0" : c == '\n' ? "\\n" : c == '\t' ? "\\t" : nullptr;
        text += written != nullptr ? written : std::string(1, c);
    }
    return text;
}

fake_host::fake_host(const std::string &tree_text) : outer_(fake_current) {
    fake_current = this;
    std::vector<std::string> parents;
    std::istringstream text(tree_text);
    for (std::string line; std::getline(text, line);) {
        size_t depth = line.find_first_not_of(' ');
        if (depth == std::string::npos) continue;
        size_t equals = std::min(line.find('='), line.size());
        parents.resize(depth);
        std::string above = depth == 0 ? "" : parents.back() + ".";
        parents.push_back(above + line.substr(depth, equals - depth));
        put(parents.back(), equals == line.size() ? "" : unescaped(line.substr(equals + 1)));
    }
}

fake_host::~fake_host() {
    EXPECT_EQ(outstanding(), "");
    for (auto &block : blocks)
        free(block.first);
    fake_current = outer_;
}

void fake_host::put(const std::string &path, const std::string &bytes) {
    size_t dot = path.rfind('.');
    std::string parent = dot == std::string::npos ? "" : path.substr(0, dot);
    if (values.count(path) == 0) children[parent].push_back(path.substr(dot + 1));
    values[path] = bytes;
}

void fake_host::remove(const std::string &path) {
    std::vector<std::string> &names = children[path.substr(0, path.rfind('.'))];
    auto found = std::find(names.begin(), names.end(), path.substr(path.rfind('.') + 1));
    if (found != names.end()) names.erase(found);
    for (const std::string &name : std::vector<std::string>(children[path]))
        remove(path + "." + name);
    values.erase(path);
}

void fake_host::fail(const std::string &call, const std::string &subject, int nth, int32_t code) {
    faults_.push_back({call, subject, nth, code});
}

bool fake_host::fired() const {
    for (const fake_fault &fault : faults_) {
        if (!fault.fired) return false;
    }
    return true;
}

void *fake_host::make_lock_service() {
    return *lock_services.insert(&handles.emplace_back()).first;
}

void fake_host::forget() {
    events.clear();
    seen_.clear();
}

std::string fake_host::outstanding() const {
    size_t open = 0;
    for (const fake_key &key : keys)
        open += key.open;
    size_t handles_left = registries.size() + lock_services.size();
    if (blocks.size() + open + locks.size() + handles_left == 0) return "";
    return std::to_string(blocks.size()) + " blocks, " + std::to_string(open) + " keys, " +
           std::to_string(locks.size()) + " locks, " + std::to_string(handles_left) + " handles";
}

std::vector<std::string> fake_host::lines(const std::string &call, const std::string &start) const {
    std::vector<std::string> found;
    for (const fake_event &event : events) {
        bool fits = event.call == call && event.text.compare(0, start.size(), start) == 0;
        if (fits) found.push_back(event.text);
    }
    return found;
}

// Notes a call. The result is what the script makes it fail with, else 0.
int32_t fake_host::enter(const char *call, const std::string &subject, const std::string &text) {
    events.push_back({call, subject, text, ++seen_[call + (" " + subject)]});
    for (fake_fault &fault : faults_) {
        bool fits = (fault.call.empty() ? fake_can_fail(call) : fault.call == call) &&
                    (fault.subject.empty() || fault.subject == subject);
        if (!fits || (++fault.met != fault.nth && fault.nth != 0)) continue;
        fault.fired = true;
        return fault.code;
    }
    return 0;
}

// Completes the note of a call whose result is not 0.
int32_t fake_host::answered(int32_t result) {
    if (result != 0) events.back().text += " -> " + std::to_string(result);
    return result;
}

// The open key behind a handle, or null after a failure of the test.
fake_key *fake_host::key_of(void *reg, void *key) {
    EXPECT_EQ(registries.count(reg), 1u) << "not a registry handle";
    for (fake_key &candidate : keys) {
        if (&candidate == key && candidate.open) return &candidate;
    }
    ADD_FAILURE() << "a key that is not open, after " << events.back().text;
    return nullptr;
}

// How a transcript names a key: not at all if it is the one opened last.
std::string fake_host::named(const fake_key *key) const {
    for (auto other = keys.rbegin(); other != keys.rend() && &*other != key; ++other) {
        if (other->open) return " " + key->path;
    }
    return "";
}

bool fake_can_fail(const std::string &call) {
    static const std::set<std::string> NEVER = {"free",    "log",      "text",
                                                "pgcinit", "fill_tag", "last_error"};
    return NEVER.count(call) == 0;
}
