// The bytes of an entry: format 1, then numbers of 7 bits a byte, the lowest first, and texts behind
// their length.
//
//     place, time, user, program, host, process, keys left out, keys
//     for each key: 1 with a value before, + 2 with one after; path; value before; value after
//
// Sealed entries: format 2, then the revision and the bytes of each.
#include "host/registry/history.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "host/support/environment.h"
#include "host/support/process.h"
#include "model/roots.h"

namespace keyview::host {

static constexpr char ENTRY_FORMAT = 1, SEALED_FORMAT = 2;
static constexpr size_t USUAL_HEAD = 128;  // bytes of an entry before its keys
static constexpr uint32_t USUAL_LIMIT = 1 << 20, HIGHEST_LIMIT = 1 << 30;

std::string history_digits(uint64_t number) {
    std::string out(HISTORY_DIGITS, '0');
    for (auto at = out.rbegin(); number != 0; ++at, number >>= 4)
        *at = "0123456789abcdef"[number & 0xF];
    return out;
}

uint64_t history_limit() {
    return environment_number("KEYVIEW_HISTORY", USUAL_LIMIT, HIGHEST_LIMIT);
}

// ---- Bytes --------------------------------------------------------------------------------------

static void add_number(std::string *out, uint64_t number) {
    for (; number >= 0x80; number >>= 7)
        *out += static_cast<char>(number | 0x80);
    *out += static_cast<char>(number);
}

static void add_text(std::string *out, std::string_view text) {
    add_number(out, text.size());
    *out += text;
}

namespace {

struct entry_reader {
    std::string_view rest;
    bool sound = true;

    uint64_t number() {
        uint64_t out = 0;
        for (unsigned shift = 0; shift < 64 && !rest.empty(); shift += 7) {
            auto byte = static_cast<unsigned char>(rest.front());
            rest.remove_prefix(1);
            out |= uint64_t{byte & 0x7FU} << shift;
            if (byte < 0x80) return out;
        }
        sound = false;
        return 0;
    }

    std::string_view bytes() {
        const uint64_t size = number();
        sound = sound && size <= rest.size();
        if (!sound) return {};
        const std::string_view out = rest.substr(0, size);
        rest.remove_prefix(size);
        return out;
    }

    std::string text() { return std::string(bytes()); }
};

}  // namespace

bool entry_place(std::string_view bytes, uint64_t *place) {
    if (bytes.empty() || bytes.front() != ENTRY_FORMAT) return false;
    entry_reader in{bytes.substr(1)};
    *place = in.number();
    return in.sound;
}

bool read_entry(std::string_view bytes, history_entry *out) {
    if (bytes.empty() || bytes.front() != ENTRY_FORMAT) return false;
    entry_reader in{bytes.substr(1)};
    out->place = in.number();
    out->time_us = static_cast<int64_t>(in.number());
    out->user = in.text();
    out->program = in.text();
    out->host = in.text();
    out->process = in.number();
    out->left_out = in.number();
    out->changes.clear();
    for (uint64_t left = in.number(); left > 0 && in.sound; --left) {
        const uint64_t has = in.number();
        tree_change one;
        one.revision = out->revision;
        one.path = in.text();
        if ((has & 1) != 0) one.before = in.text();
        if ((has & 2) != 0) one.after = in.text();
        out->changes.push_back(std::move(one));
    }
    return in.sound && in.rest.empty();
}

std::string sealed_entries(const std::vector<numbered_entry> &entries) {
    std::string out(1, SEALED_FORMAT);
    for (const numbered_entry &one : entries) {
        add_number(&out, one.revision);
        add_text(&out, one.bytes);
    }
    return out;
}

bool read_sealed(std::string_view bytes, std::vector<numbered_entry> *out) {
    out->clear();
    if (bytes.empty() || bytes.front() != SEALED_FORMAT) return false;
    entry_reader in{bytes.substr(1)};
    while (in.sound && !in.rest.empty()) {
        const uint64_t revision = in.number();
        out->push_back({revision, in.bytes()});
    }
    return in.sound && !out->empty();
}

// ---- What changes -------------------------------------------------------------------------------

void change_recorder::note(std::string_view path, std::optional<std::string_view> before,
                           std::optional<std::string_view> after) {
    if (is_history(path)) return;
    // A key that is not there is known only if the change removed it before.
    auto known = before || removes_ ? keys_.find(path) : keys_.end();
    removes_ = removes_ || !after;
    const size_t value = after.value_or("").size();
    if (known == keys_.end()) {
        constexpr size_t NUMBERS = 12;
        const size_t key = path.size() + before.value_or("").size() + NUMBERS;
        if (left_out_ > 0 || used_ + key + value > most_) {
            ++left_out_;
            return;
        }
        known = keys_.emplace(path, key_values{}).first;
        if (before) known->second.before = *before;
        used_ += key;
    }
    used_ += value;
    known->second.after.reset();
    if (after) known->second.after = *after;
    if (used_ <= most_) return;
    keys_.erase(known);
    ++left_out_;
}

void change_recorder::note_unknown(std::string_view path) {
    if (!is_history(path)) ++left_out_;
}

// The user's name needs a look into files of the system, once.
static const std::string &user_name() {
    static const auto &name = *new std::string([] {
        char text[1024];
        passwd found = {}, *known = nullptr;
        const uid_t user = geteuid();
        if (getpwuid_r(user, &found, text, sizeof text, &known) == 0 && known != nullptr)
            return std::string(found.pw_name);
        return std::to_string(user);
    }());
    return name;
}

std::string change_recorder::entry(uint64_t place) const {
    const auto changed =
        static_cast<uint64_t>(std::count_if(keys_.begin(), keys_.end(), [](const auto &one) {
            return one.second.before != one.second.after;
        }));
    if (changed + left_out_ == 0) return "";
    using namespace std::chrono;
    const auto now = duration_cast<microseconds>(system_clock::now().time_since_epoch());
    std::string out(1, ENTRY_FORMAT);
    out.reserve(USUAL_HEAD + used_);
    add_number(&out, place);
    add_number(&out, static_cast<uint64_t>(now.count()));
    add_text(&out, user_name());
    add_text(&out, program_invocation_short_name);
    add_text(&out, host_name());
    add_number(&out, static_cast<uint64_t>(getpid()));
    add_number(&out, left_out_);
    add_number(&out, changed);
    for (const auto &[path, values] : keys_) {
        if (values.before == values.after) continue;
        add_number(&out, (values.before ? 1U : 0U) + (values.after ? 2U : 0U));
        add_text(&out, path);
        if (values.before) add_text(&out, *values.before);
        if (values.after) add_text(&out, *values.after);
    }
    return out;
}

}  // namespace keyview::host
