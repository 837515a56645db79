// A typical fetch (8 instances, 20 services on all 8: 626 keys) over a host that costs nothing: a
// sorted table in memory, a block from the top of a stack, a trace that is off. The host is in this
// program and calls no libc, so that whatever callgrind counts in the library and in libc is the
// library's own. Run by bench/library-cost.
//
// library_cost N [Small|Large] prints the mean microseconds of N fetches with their release, of the typical
// record or of another one. Then the host returns what it returned before, from a tape of all answers in
// their order, and only compares the path: what remains is the library, the calls that it has to make, and
// their arguments read.
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "bench/workload.h"
#include "keyview/if/prsr.h"
#include "platform/kvtc.h"
#include "platform/lksv.h"
#include "platform/tmem.h"
#include "platform/trcd.h"
#include "platform/txt.h"

namespace {
using keyview::bench::record_size;

struct tree_key {
    std::string path;
    std::string value;
    std::vector<size_t> children;
};

struct open_key {
    const tree_key *key;
    size_t cursor;
};

std::vector<tree_key> tree;
open_key open_keys[16];
size_t open_count;
alignas(16) char arena[1 << 26];
size_t used;

// Which paths were opened, with their keys, and null for a key that is not there.
bool recording;
std::vector<std::pair<std::string, const tree_key *>> opened;

// A key on the tape. Before each name of a subkey stands its length in two bytes.
struct taped_key {
    const char *path;
    const char *value;  // null for a key that is not there
    uint32_t value_size;
    int32_t children;
    const char *names;
};

struct open_taped_key {
    const taped_key *key;
    int32_t left;
    const char *next;
};

bool timed;
std::vector<taped_key> tape;
std::string taped_bytes;
const taped_key *next_taped;
open_taped_key open_taped[16];

// Blocks that were freed, by their size in units. A block has one unit before it that holds its size.
constexpr size_t UNIT = 16;
char *freed[8192 / UNIT];

void *reused_block(size_t size) {
    const size_t units = (size + UNIT - 1) / UNIT;
    if (units >= std::size(freed)) return nullptr;
    char *block = freed[units];
    if (block != nullptr) {
        memcpy(&freed[units], block, sizeof freed[units]);
    } else {
        if (used + UNIT * (units + 1) > sizeof arena) return nullptr;
        memcpy(arena + used, &units, sizeof units);
        block = arena + used + UNIT;
        used += UNIT * (units + 1);
    }
    memset(block, 0, size);  // as a host's blocks are
    return block;
}

void keep_block(void *block) {
    if (block == nullptr) return;
    size_t units = 0;
    memcpy(&units, static_cast<char *>(block) - UNIT, sizeof units);
    memcpy(block, &freed[units], sizeof freed[units]);
    freed[units] = static_cast<char *>(block);
}

void copy(char *to, const char *from, size_t n) {
    if (timed) {
        memcpy(to, from, n);
        return;
    }
    for (size_t i = 0; i < n; ++i) {
        to[i] = from[i];
        asm volatile("");  // or the compiler makes it a call of memcpy
    }
}

char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
}

int compare(const char *a, const std::string &b) {
    size_t i = 0;
    while (a[i] != '\0' && a[i] == b[i])
        ++i;
    return a[i] - b[i];
}

const tree_key *find(const char *path) {
    size_t low = 0;
    size_t high = tree.size();
    while (low < high) {
        const size_t middle = (low + high) / 2;
        const int order = compare(path, tree[middle].path);
        if (order == 0) return &tree[middle];
        if (order < 0) {
            high = middle;
        } else {
            low = middle + 1;
        }
    }
    return nullptr;
}

std::string_view name_of(size_t child) {
    const std::string_view path = tree[child].path;
    return path.substr(path.rfind('.') + 1);
}

// Appends to what was reserved for it.
const char *taped(std::string_view bytes) {
    const char *at = taped_bytes.data() + taped_bytes.size();
    taped_bytes.append(bytes);
    return at;
}

void make_tape() {
    size_t size = 0;
    for (const auto &[path, key] : opened) {
        size += path.size() + 1;
        if (key == nullptr) continue;
        size += key->value.size();
        for (size_t child : key->children)
            size += name_of(child).size() + 3;
    }
    taped_bytes.reserve(size);
    for (const auto &[path, key] : opened) {
        taped_key one = {taped({path.c_str(), path.size() + 1}), nullptr, 0, 0, nullptr};
        if (key != nullptr) {
            one.value = taped(key->value);
            one.value_size = static_cast<uint32_t>(key->value.size());
            one.children = static_cast<int32_t>(key->children.size());
            one.names = taped({});
            for (size_t child : key->children) {
                const std::string name(name_of(child));
                const auto length = static_cast<uint16_t>(name.size());
                (void)taped({reinterpret_cast<const char *>(&length), sizeof length});
                (void)taped({name.c_str(), name.size() + 1});
            }
        }
        tape.push_back(one);
    }
}

int32_t open_next(const char *path, void **key) {
    const taped_key *next = next_taped++;
    if (strcmp(next->path, path) != 0) return KVTC_ERR_MORE_DATA;  // ends the fetch
    if (next->value == nullptr) return KVTC_ERR_KEY_NOT_FOUND;
    open_taped[open_count] = {next, next->children, next->names};
    *key = &open_taped[open_count++];
    return 0;
}

int32_t next_name(open_taped_key *open, char *name, uint32_t *size, int32_t *last) {
    *last = open->left - 1;
    if (open->left == 0) return KVTC_ERR_NO_MORE_KEYS;
    uint16_t length = 0;
    memcpy(&length, open->next, sizeof length);
    memcpy(name, open->next + sizeof length, length + size_t{1});
    open->next += sizeof length + length + 1;
    --open->left;
    *size = length;
    return 0;
}

void fill_tree(const record_size &size) {
    for (const auto &key : keyview::bench::record_keys(size))
        tree.push_back({key.path, key.value, {}});
    std::sort(tree.begin(), tree.end(),
              [](const tree_key &a, const tree_key &b) { return a.path < b.path; });
    for (size_t i = 0; i < tree.size(); ++i) {
        const size_t dot = tree[i].path.rfind('.');
        const auto *parent = find(tree[i].path.substr(0, dot).c_str());
        if (parent != nullptr) const_cast<tree_key *>(parent)->children.push_back(i);
    }
}
}  // namespace

// ---- The host -----------------------------------------------------------------------------------

int32_t kvtc_init_ext(void **reg, int32_t, char *, uint64_t *, int32_t) {
    *reg = &tree;
    return 0;
}
int32_t kvtc_terminate(void *) {
    return 0;
}

int32_t kvtc_open_key(void *, void **key, const char *path) {
    if (timed) return open_next(path, key);
    const tree_key *found = find(path);
    if (recording) opened.emplace_back(path, found);
    if (found == nullptr) return KVTC_ERR_KEY_NOT_FOUND;
    open_keys[open_count] = {found, 0};
    *key = &open_keys[open_count++];
    return 0;
}
int32_t kvtc_close_key(void *, void *) {
    --open_count;  // keys are closed in the reverse order of their opening
    return 0;
}

int32_t kvtc_get_value(void *, void *key, uint32_t *, void *value, uint32_t *size) {
    std::string_view stored;
    if (timed) {
        const taped_key *of = static_cast<open_taped_key *>(key)->key;
        stored = {of->value, of->value_size};
    } else {
        stored = static_cast<open_key *>(key)->key->value;
    }
    const auto needed = static_cast<uint32_t>(stored.size());
    const uint32_t capacity = *size;
    *size = needed;
    if (needed > capacity) return KVTC_ERR_MORE_DATA;
    copy(static_cast<char *>(value), stored.data(), needed);
    return 0;
}
int32_t kvtc_set_value(void *, void *, uint32_t, const void *, uint32_t) {
    return 1;
}

int32_t kvtc_enum_subkey(void *, void *key, char *name, uint32_t *size, int32_t *last) {
    if (timed) return next_name(static_cast<open_taped_key *>(key), name, size, last);
    auto *open = static_cast<open_key *>(key);
    const auto &children = open->key->children;
    *last = static_cast<int32_t>(children.size()) - 1 - static_cast<int32_t>(open->cursor);
    if (open->cursor == children.size()) return KVTC_ERR_NO_MORE_KEYS;
    const std::string &path = tree[children[open->cursor++]].path;
    const size_t start = open->key->path.size() + 1;
    copy(name, path.data() + start, path.size() - start + 1);
    *size = static_cast<uint32_t>(path.size() - start);
    return 0;
}
int32_t kvtc_get_last_error(void *, int32_t *, char *, uint32_t *) {
    return 0;
}

void *pgcinit(int32_t) {
    return arena;
}
void *tmem_allocm(void *, uint64_t size) {
    if (timed) return reused_block(size);
    void *block = arena + used;
    used += (size + 16) & ~uint64_t{15};
    return used <= sizeof arena ? block : nullptr;
}
void tmem_freem(void *, void *block) {
    if (timed) keep_block(block);
}
void tmem_fill_tag(void *address, const char *tag) {
    copy(static_cast<char *>(address), tag, 8);
}
int32_t tmem_check_tag(const void *address, const char *tag) {
    const auto *stored = static_cast<const char *>(address);
    for (size_t i = 0; i < 8; ++i) {
        if (stored[i] != tag[i]) return 0;
    }
    return 1;
}

void *trcdcompreg(const char *, const char *, int32_t, uint64_t, uint64_t, uint64_t, uint64_t) {
    return arena;
}
void trcdprintf(void *, int32_t, const char *, ...) {}
void trcdprintft(void *, int32_t, const char *, ...) {}

void *thrsini() {
    return arena;
}
int32_t lksvsinit(void *, void **lk, const uint16_t *, const uint64_t *, uint64_t) {
    *lk = arena;
    return 0;
}
int32_t lksvsterm(void *, void *) {
    return 0;
}
int32_t lksvlsshrlock(void *, void *, const char *) {
    return 0;
}
int32_t lksvlsmutexlock(void *, void *, const char *) {
    return 0;
}
int32_t lksvlsunlock(void *, void *, const char *) {
    return 0;
}

void txtmlo(char *target, const char *source, uint64_t n) {
    for (uint64_t i = 0; i < n; ++i)
        target[i] = lower(source[i]);
}
void txtmup(char *, const char *, uint64_t) {}
void txtlo(char *, const char *) {}
int32_t txtclo(const char *a, const char *b) {
    size_t i = 0;
    while (a[i] != '\0' && lower(a[i]) == lower(b[i]))
        ++i;
    return lower(a[i]) - lower(b[i]);
}
int32_t txtrep(char *, uint64_t, uint64_t, const char *, uint64_t, const char *, uint64_t,
               uint64_t *) {
    return 0;
}

// ---- The run ------------------------------------------------------------------------------------

int32_t fetch(prsr_ctx *ctx, const record_size &size, prsr_cfg **cfg) {
    return prsr_fetch_db_config(nullptr, ctx, size.database, cfg);
}

double mean_us(prsr_ctx *ctx, const record_size &size, int fetches) {
    using namespace std::chrono;
    steady_clock::time_point start;
    for (int i = -2; i < fetches; ++i) {
        recording = i == -2;
        timed = !recording;
        if (i == -1) make_tape();
        if (i == 0) start = steady_clock::now();
        prsr_cfg *cfg = nullptr;
        next_taped = tape.data();
        if (fetch(ctx, size, &cfg) != PRSR_SUCCESS) return -1;
        (void)prsr_release_db_config(nullptr, ctx, cfg);
    }
    return duration<double, std::micro>(steady_clock::now() - start).count() / fetches;
}

int main(int argc, char **argv) {
    using namespace keyview::bench;
    record_size size = TYPICAL;
    for (const record_size &other : {SMALL, LARGE})
        if (argc > 2 && std::string_view(argv[2]) == other.database) size = other;
    fill_tree(size);
    prsr_ctx *ctx = nullptr;
    prsr_cfg *cfg = nullptr;
    int32_t rc = prsr_init(nullptr, &ctx);
    if (rc == PRSR_SUCCESS) rc = fetch(ctx, size, &cfg);
    const auto instances = static_cast<uint32_t>(size.instances);
    const auto services = static_cast<uint32_t>(size.services);
    const uint32_t half = instances / 2;  // preferred, and as many available
    if (rc != PRSR_SUCCESS || cfg->instance_count != instances || cfg->service_count != services ||
        cfg->services[services - 1]->preferred_count != half ||
        cfg->services[0]->available_enabled[half - 1] != 1) {
        std::fprintf(stderr, "library_cost: the fetch went wrong, code %d\n", rc);
        return 1;
    }
    if (argc > 1) {
        std::printf("%f\n", mean_us(ctx, size, atoi(argv[1])));
        return 0;
    }
    std::printf("%zu\n", tree.size());
    return 0;
}
