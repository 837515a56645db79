// The registry client over a store.
#include "host/registry/client.h"

#include <cstring>

#include "host/registry/handles.h"
#include "host/registry/held_locks.h"
#include "host/registry/path.h"
#include "host/support/last_error.h"
#include "platform/kvtc.h"

namespace keyview::host {

static int32_t no_such_key(std::string_view what, std::string_view path, std::string_view why) {
    return fail(KVTC_ERR_KEY_NOT_FOUND, {"cannot ", what, " '", path, "': ", why});
}

static int32_t not_open() {
    return fail(BAD_ARGUMENT,
                {"the key is not open: it was closed, or never opened by this handle"});
}

// ---- Handles of keys ----------------------------------------------------------------------------

static constexpr uint64_t LOW_24 = 0xFFFFFF;

// 16 bits tell the client, 24 the use, 24 the slot; never 0.
uint64_t registry_client::key_token(const open_key &key) const {
    return (token * 0x9E3779B97F4A7C15U) >> 48 << 48 | (key.uses & LOW_24) << 24 |
           (key.slot + uint64_t{1});
}

registry_client::open_key *registry_client::find(const void *handle) {
    auto wanted = reinterpret_cast<uint64_t>(handle);
    uint64_t slot = (wanted & LOW_24) - 1;
    if (slot >= open_.size()) return nullptr;
    open_key &key = open_[slot];
    return key.uses % 2 == 1 && key_token(key) == wanted ? &key : nullptr;
}

registry_client::open_key *registry_client::free_slot() {
    if (free_.empty()) {
        if (open_.size() == LOW_24) throw host_error(failure::usage, "too many keys are open");
        free_.reserve(open_.size() + 1);  // so that closing needs no memory
        open_.emplace_back();
        open_.back().slot = static_cast<uint32_t>(open_.size() - 1);
        free_.push_back(open_.back().slot);
    }
    return &open_[free_.back()];
}

void *registry_client::begin_use(open_key *key) {
    free_.pop_back();
    ++key->uses;
    key->listed = false;
    return handle_of(key_token(*key));
}

int32_t registry_client::close(void *handle) {
    open_key *key = find(handle);
    if (key == nullptr) return not_open();
    ++key->uses;
    key->view.reset();
    key->list.reset();
    free_.push_back(key->slot);
    return KVTC_SUCCESS;
}

// ---- Opening and values -------------------------------------------------------------------------

int32_t registry_client::open(std::string_view path, void **handle) {
    const char *fault = path_fault(path);
    if (fault != nullptr) return no_such_key("open", path, fault);
    open_key *key = free_slot();
    key->view = held_locks::of_thread().view_of(keys_.get(), path);
    bool found = false;
    if (key->view != nullptr) {
        key->index = key->view->find(path);
        found = key->index != snapshot::NONE;
    } else {
        key->path = path;
        found = keys_->read(path, &key->value);
    }
    if (!found) {
        key->view.reset();
        return no_such_key("open", path, "there is no such key");
    }
    *handle = begin_use(key);
    return KVTC_SUCCESS;
}

std::string registry_client::path_of(const open_key &key) {
    return key.view != nullptr ? key.view->path(key.index) : key.path;
}

int32_t registry_client::get_value(void *handle, void *value, uint32_t *size) {
    open_key *key = find(handle);
    if (key == nullptr) return not_open();
    std::string_view stored = key->view != nullptr ? key->view->value(key->index) : key->value;
    uint32_t capacity = *size;
    *size = static_cast<uint32_t>(stored.size());
    if (stored.size() > capacity) {
        return fail(KVTC_ERR_MORE_DATA,
                    {"the value of '", path_of(*key), "' has ", std::to_string(stored.size()),
                     " bytes, the buffer ", std::to_string(capacity)});
    }
    if (!stored.empty()) memcpy(value, stored.data(), stored.size());
    return KVTC_SUCCESS;
}

int32_t registry_client::set_value(void *handle, std::string_view value) {
    open_key *key = find(handle);
    if (key == nullptr) return not_open();
    held_locks &mine = held_locks::of_thread();
    std::string path = path_of(*key);
    if (!keys_->set(path, value, mine.covering(keys_.get(), path))) {
        return no_such_key("set", path, "there is no such key any more");
    }
    mine.note_value(keys_.get(), path, value);
    if (key->view == nullptr) {
        key->value = value;
    } else if (key->view->value(key->index) != value) {
        key->view->set_value(key->index, value);  // of a lock that was released
    }
    return KVTC_SUCCESS;
}

// ---- Enumeration --------------------------------------------------------------------------------

int32_t registry_client::list_children(open_key *key) {
    std::string path = path_of(*key);
    key->passed = 0;
    key->list = key->view;
    uint32_t index = key->index;
    if (key->list == nullptr) {
        key->list = held_locks::of_thread().view_of(keys_.get(), path);
        if (key->list != nullptr) index = key->list->find(path);
        if (index == snapshot::NONE) key->list.reset();
    }
    if (key->list != nullptr && key->list->tells_children(index)) {
        snapshot::range children = key->list->children(index);
        key->first = children.first;
        key->count = children.count;
    } else {
        key->list.reset();
        key->names.clear();
        auto take = [&](std::string_view child, std::string_view) {
            key->names.emplace_back(child.substr(path.size() + 1));
        };
        if (!keys_->read_children(
                path, [&](uint32_t n) { key->names.reserve(n); }, take)) {
            return no_such_key("enumerate", path, "there is no such key any more");
        }
        key->count = static_cast<uint32_t>(key->names.size());
    }
    key->listed = true;
    return KVTC_SUCCESS;
}

std::string_view registry_client::name_of(const open_key &key) {
    if (key.list != nullptr) return key.list->name(key.first + key.passed);
    return key.names[key.passed];
}

int32_t registry_client::next_subkey(void *handle, char *name, uint32_t *size, int32_t *last) {
    open_key *key = find(handle);
    if (key == nullptr) return not_open();
    int32_t rc = key->listed ? KVTC_SUCCESS : list_children(key);
    if (rc != KVTC_SUCCESS) return rc;
    if (key->passed == key->count) {
        *last = key->count == 0 ? -1 : 0;
        return fail(KVTC_ERR_NO_MORE_KEYS, {"'", path_of(*key), "' has no further subkey"});
    }
    std::string_view next = name_of(*key);
    uint32_t capacity = *size;
    *size = static_cast<uint32_t>(next.size());
    if (next.size() >= capacity) {
        return fail(
            NAME_TOO_LONG,
            {"the name of a subkey of '", path_of(*key), "' has ", std::to_string(next.size()),
             " bytes and a zero byte, the buffer ", std::to_string(capacity)});
    }
    memcpy(name, next.data(), next.size());
    name[next.size()] = '\0';
    ++key->passed;
    *last = static_cast<int32_t>(key->count - key->passed);
    return KVTC_SUCCESS;
}

}  // namespace keyview::host
