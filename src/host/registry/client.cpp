// The registry client over a store.
#include "host/registry/client.h"

#include <array>
#include <cstring>
#include <utility>

#include "host/registry/handles.h"
#include "host/registry/held_locks.h"
#include "host/support/last_error.h"
#include "model/path.h"
#include "platform/kvtc.h"

namespace keyview::host {

// The failures stay apart from the calls that succeed, which need no array on their stack for them.
[[gnu::noinline]] static int32_t no_such_key(std::string_view what, std::string_view path,
                                             std::string_view why) {
    return fail(KVTC_ERR_KEY_NOT_FOUND, {"cannot ", what, " '", path, "': ", why});
}

[[gnu::noinline]] static int32_t not_open() {
    return fail(BAD_ARGUMENT,
                {"the key is not open: it was closed, or never opened by this handle"});
}

static int32_t too_small(int32_t code, std::string_view what, std::string_view path, size_t size,
                         std::string_view unit, uint32_t capacity) {
    return fail(code, {"the ", what, path, "' has ", std::to_string(size), unit, ", the buffer ",
                       std::to_string(capacity)});
}

// ---- Handles of keys ----------------------------------------------------------------------------

registry_client::open_key *registry_client::find(const void *handle) {
    auto wanted = reinterpret_cast<uint64_t>(handle);
    uint64_t slot = wanted & FREE;
    if (slot >= slots_) return nullptr;
    open_key *key = open_[slot].get();
    return key->token == wanted ? key : nullptr;
}

registry_client::open_key *registry_client::free_slot() {
    if (first_free_ == nullptr) {
        if (slots_ == FREE) throw host_error(failure::usage, "too many keys are open");
        open_.push_back(std::make_unique<open_key>());
        const uint64_t of_client = (token * 0x9E3779B97F4A7C15U) >> 48 | 1;
        open_.back()->latest_token = of_client << 24 | slots_++;
        first_free_ = open_.back().get();
    }
    return first_free_;
}

void *registry_client::begin_use(open_key *key) {
    first_free_ = key->next_free;
    key->latest_token += ONE_USE;
    key->token = key->latest_token;
    return handle_of(key->token);
}

void registry_client::end_use(open_key *key) {
    key->token = FREE;
    key->next_free = std::exchange(first_free_, key);
    if (key->of != nullptr) --key->of->keys;
}

int32_t registry_client::close(void *handle) {
    open_key *key = find(handle);
    if (key == nullptr) return not_open();
    end_use(key);
    if (key->listed) {
        if (key->list_of != nullptr) --key->list_of->keys;
        key->own_list.reset();
        key->listed = false;
    }
    return KVTC_SUCCESS;
}

// ---- Texts to the caller ------------------------------------------------------------------------

// Most values and names are no longer.
static constexpr uint32_t SHORT = byte_block::READABLE;

// Delivers the first size bytes of a text in a byte_block, and zeros up to SHORT bytes, in one piece: the
// caller reads it at once, and would wait if what it reads lay across two pieces, as those of memcpy.
static void deliver_short(void *to, const char *text, uint32_t size) {
    using piece = unsigned char __attribute__((vector_size(SHORT)));
    static constexpr auto KEPT = [] {
        std::array<unsigned char, SHORT + SHORT> bytes = {};
        for (size_t i = 0; i < SHORT; ++i)
            bytes[i] = 0xFF;
        return bytes;
    }();
    piece all;
    piece kept;
    memcpy(&all, text, SHORT);
    memcpy(&kept, &KEPT[SHORT - size], SHORT);
    all &= kept;
    memcpy(to, &all, SHORT);
}

// ---- Opening and values -------------------------------------------------------------------------

// From the view of a held lock, else from the store.
bool registry_client::read(const char *path, open_key *key) {
    held_locks &mine = held_locks::of_thread();
    held_entry *only = held_locks::only_one();
    found_key found;
    if ((only != nullptr && only->keys == keys_ && only->view.find_predicted(path, &found)) ||
        mine.find(reader(), path, &found)) {
        if (found.part == nullptr) return false;
        key->of = kept_.known(found.of);
        key->copied = found;
        ++key->of->keys;
        return true;
    }
    if (!keys_->now()->read(path, &key->value)) return false;
    key->path = path;
    key->of = nullptr;
    key->copied = {};
    return true;
}

// Opens the key that is expected next, and only then looks whether it is the one that is wanted.
int32_t registry_client::open(const char *path, void **handle) {
    open_key *key = first_free_;
    held_entry *only = held_locks::only_one();
    if (key == nullptr || only == nullptr || !only->view.is_of(token)) {
        return search_and_open(path, handle);
    }
    const copied_key *expected = only->view.pass_expected();
    if (expected == nullptr) return search_and_open(path, handle);
    key->of = only->view.known();
    ++key->of->keys;
    key->copied = *expected;
    void *opened = begin_use(key);
    if (!expected->part->has_path(expected->key, path)) {
        return open_instead(key, path, handle);
    }
    *handle = opened;
    return KVTC_SUCCESS;
}

[[gnu::noinline]] int32_t registry_client::open_instead(open_key *of, const char *path,
                                                        void **handle) {
    end_use(of);
    held_locks::only_one()->view.step_back();
    return search_and_open(path, handle);
}

// Apart from the usual case, which saves no registers for it.
[[gnu::noinline]] int32_t registry_client::search_and_open(const char *path, void **handle) {
    open_key *key = free_slot();
    if (!read(path, key)) {
        const char *fault = path_fault(path);
        return no_such_key("open", path, fault == nullptr ? "there is no such key" : fault);
    }
    *handle = begin_use(key);
    return KVTC_SUCCESS;
}

std::string_view registry_client::path_of(const open_key &key) {
    return key.copied.part != nullptr ? key.copied.part->path(key.copied.key) : key.path;
}

std::string_view registry_client::value_of(const open_key &key) {
    return key.copied.part != nullptr ? key.copied.part->value(key.copied.key) : key.value;
}

[[gnu::noinline]] int32_t registry_client::value_too_long(const open_key &key, uint32_t capacity) {
    return too_small(KVTC_ERR_MORE_DATA, "value of '", path_of(key), value_of(key).size(), " bytes",
                     capacity);
}

int32_t registry_client::get_value(void *handle, void *value, uint32_t *size) {
    open_key *key = find(handle);
    if (key == nullptr) return not_open();
    std::string_view stored = value_of(*key);
    const uint32_t capacity = *size, length = static_cast<uint32_t>(stored.size());
    *size = length;
    if (length > capacity) return value_too_long(*key, capacity);
    if (length == 0) return KVTC_SUCCESS;
    if (length <= SHORT && capacity >= SHORT && key->copied.part != nullptr) {
        deliver_short(value, stored.data(), length);
    } else {
        memcpy(value, stored.data(), length);
    }
    return KVTC_SUCCESS;
}

namespace {
struct set_observer {
    keyview_change_callback callback = nullptr;
    void *arg = nullptr;

    void report(std::string_view path, std::string_view before, std::string_view after) const {
        keyview_bytes old = {before.data(), before.size()}, fresh = {after.data(), after.size()};
        callback(arg, 0, {path.data(), path.size()}, &old, &fresh);
    }
};
}  // namespace

static thread_local set_observer observer;

void observe_sets(keyview_change_callback callback, void *arg) noexcept {
    observer = {callback, arg};
}

int32_t registry_client::set_value(void *handle, std::string_view value) {
    open_key *key = find(handle);
    if (key == nullptr) return not_open();
    held_locks &mine = held_locks::of_thread();
    std::string path(path_of(*key));
    std::string replaced(value_of(*key));
    if (!keys_->set(path, value, mine.fence(keys_.get(), path), &replaced)) {
        return no_such_key("set", path, "there is no such key any more");
    }
    if (observer.callback != nullptr) observer.report(path, replaced, value);
    mine.update_value(keys_.get(), path, value);
    snapshot *part = key->copied.part;
    if (part == nullptr) {
        key->value = value;
    } else if (value_of(*key) != value) {  // the copy belongs to a released lock
        part->set_value(part->number(key->copied.key), value);
    }
    return KVTC_SUCCESS;
}

// ---- Enumeration --------------------------------------------------------------------------------

[[gnu::noinline]] int32_t registry_client::list_children(open_key *key) {
    found_key list = {key->copied, key->of == nullptr ? nullptr : key->of->of.get()};
    if (list.part == nullptr || !list.part->covers_children(list.part->number(list.key))) {
        std::string_view path = path_of(*key);
        list = {};
        if (!held_locks::of_thread().find_list(reader(), path, &list)) {
            auto own = std::make_unique<snapshot>(path, reach::children);
            if (keys_->now()->copy(path, reach::children, own.get())) {
                list.part = own.get();
                list.key = own->at(snapshot::TOP);
                key->own_list = std::move(own);
            }
        }
        if (list.key == nullptr) {
            return no_such_key("enumerate", path, "there is no such key any more");
        }
    }
    key->list_of = list.of == nullptr ? nullptr : kept_.known(list.of);
    if (key->list_of != nullptr) ++key->list_of->keys;
    key->list = list.part;
    const snapshot::range children = snapshot::children(list.key);
    key->left = children.count;
    key->childless = children.count == 0;
    key->next_child = key->childless ? nullptr : list.part->at(children.first);
    key->listed = true;
    return KVTC_SUCCESS;
}

[[gnu::noinline]] int32_t registry_client::name_too_long(const open_key &key, uint32_t name_size,
                                                         uint32_t capacity) {
    return too_small(NAME_TOO_LONG, "name of a subkey of '", path_of(key), name_size,
                     " bytes and a zero byte", capacity);
}

[[gnu::noinline]] int32_t registry_client::no_more_keys(const open_key &key) {
    return fail(KVTC_ERR_NO_MORE_KEYS, {"'", path_of(key), "' has no further subkey"});
}

int32_t registry_client::next_subkey(void *handle, char *name, uint32_t *size, int32_t *last) {
    open_key *key = find(handle);
    if (key == nullptr) return not_open();
    int32_t rc = key->listed ? KVTC_SUCCESS : list_children(key);
    if (rc != KVTC_SUCCESS) return rc;
    if (key->left == 0) {
        *last = key->childless ? -1 : 0;
        return no_more_keys(*key);
    }
    std::string_view next = key->list->name(key->next_child);
    uint32_t capacity = *size;
    *size = static_cast<uint32_t>(next.size());
    if (next.size() >= capacity) return name_too_long(*key, *size, capacity);
    if (next.size() < SHORT && capacity >= SHORT) {
        deliver_short(name, next.data(), *size);
    } else {
        memcpy(name, next.data(), next.size());
        name[next.size()] = '\0';
    }
    ++key->next_child;
    *last = static_cast<int32_t>(--key->left);
    return KVTC_SUCCESS;
}

}  // namespace keyview::host
