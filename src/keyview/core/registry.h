// All registry access of the library stands on these pieces: the report of a failed call, the guard
// of an open key, and the two ways to read a value: into a buffer that is reused, or into a block
// that grows once.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "keyview/core/context.h"
#include "platform/kvtc.h"

constexpr uint32_t VALUE_CAPACITY = 1024;  // of a value buffer, the zero byte included
constexpr uint32_t NAME_CAPACITY = 2048;   // of a subkey name buffer, the zero byte included

// An open key, closed at the end of the scope. Closed at first.
struct prsr_key {
    explicit prsr_key(void *client) : reg(client) {}
    ~prsr_key() { close(); }
    prsr_key(const prsr_key &) = delete;
    prsr_key &operator=(const prsr_key &) = delete;

    [[nodiscard]] int32_t open(const char *path) {
        const int32_t kv = kvtc_open_key(reg, &handle, path);
        is_open = kv == KVTC_SUCCESS;
        return kv;
    }
    void close() {
        if (!is_open) return;
        is_open = false;
        (void)kvtc_close_key(reg, handle);  // a failure to close has no consequence
    }

    void *reg;
    void *handle = nullptr;
    bool is_open = false;
};

// A value in a buffer that is reused. size is the one that the registry reported last, and is not
// trusted.
struct prsr_value {
    // The bytes of the value: never more than the registry was offered.
    [[nodiscard]] uint32_t length() const { return size < VALUE_CAPACITY ? size : VALUE_CAPACITY; }

    // The value as a string. One that fills a block of VALUE_CAPACITY without a zero byte loses its
    // last character: no word that is compared with has that length.
    [[nodiscard]] const char *text() const {
        buffer[length() < room ? length() : room - 1] = '\0';
        return buffer;
    }

    // Whether that string is this word.
    template <size_t WORD_SIZE>
    [[nodiscard]] bool is(const char (&word)[WORD_SIZE]) const {
        constexpr uint32_t WORD_LENGTH = WORD_SIZE - 1;
        if (length() < WORD_LENGTH || memcmp(buffer, word, WORD_LENGTH) != 0) return false;
        return length() == WORD_LENGTH || text()[WORD_LENGTH] == '\0';
    }

    char *buffer = nullptr;
    uint32_t room = VALUE_CAPACITY;  // bytes of buffer; VALUE_CAPACITY of them are offered
    uint32_t size = 0;
};

// Reads an open key's value. Reports nothing.
[[nodiscard]] int32_t prsr_read_value(const prsr_key &key, prsr_value *value);

// Delivers the next subkey name into name of capacity bytes, terminated whatever the registry did.
// length is its reported length, cut to what the buffer holds. Reports nothing.
[[nodiscard]] int32_t prsr_next_subkey(const prsr_key &key, char *name, uint32_t capacity,
                                       uint32_t *length, int32_t *last);

// The same for the first subkey, into NAME_CAPACITY bytes, by the strict rule: count is the number
// of subkeys, and 0 with KVTC_SUCCESS for a key without any, with either code that the
// registry may return for it. "No more keys" together with a positive count is a failure.
[[nodiscard]] int32_t prsr_first_subkey(const prsr_key &key, char *name, uint32_t *length,
                                        uint32_t *count);

// The context of a read, and the function whose name its reports bear.
struct prsr_reader {
    prsr_reader(const prsr_ctx *owner, const char *name) : ctx(owner), function(name) {}

    // Writes the three lines that every failed registry call leads to: kv is the call's result, and
    // the registry adds its own code and text. Changes nothing.
    void report(const char *operation, const char *path, int32_t kv) const;

    const prsr_ctx *ctx;
    const char *function;
};

// Opens a key; a failure is reported.
[[nodiscard]] int32_t prsr_open_reported(const prsr_reader &reader, const char *path,
                                         prsr_key *key);

// Reads the value of the open key of path; a failure is reported. The key stays open.
[[nodiscard]] int32_t prsr_read_reported(const prsr_reader &reader, const char *path,
                                         const prsr_key &key, prsr_value *value);

// Reads the open key's own value, a name in its registered case, into length + 1 bytes; a failure
// is reported. The key stays open. An own value is no longer than its element: one that fills the
// block without a zero byte is cut to it.
[[nodiscard]] int32_t prsr_read_name_reported(const prsr_reader &reader, const char *path,
                                              const prsr_key &key, char *name, size_t length);

// Reads one value of any length into a block of its own.
//
// value  out, a string. The caller owns it on failure as well, unless it is null: a key that cannot
//        be opened or read leaves an empty string behind, a lack of memory null.
//
// Failures are reported under this function's name; a missing key is no special case. Takes no
// lock.
// Returns PRSR_ERR_REGISTRY, PRSR_ERR_MEMORY.
[[nodiscard]] int32_t prsr_open_get_value(prsr_ctx *ctx, const char *key_name, char **value);
