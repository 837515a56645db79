/* A host in one file: every outside operation that libkeyview12 needs, over a tree in memory. Copy
 * it and replace the tree, the locks, the memory and the trace by those of your program, one part
 * after the other; keyview-hosttest names the rule that a change breaks. keyview-host(7) explains
 * each part.
 *
 * As a library:     cc -shared -fPIC -pthread -o host.so host.c && keyview-hosttest ./host.so
 * In your program:  cc -pthread -o program program.c host.c -lkeyview12
 */
#define _POSIX_C_SOURCE 200809L
#include <keyview/platform/kvtc.h>
#include <keyview/platform/lksv.h>
#include <keyview/platform/tmem.h>
#include <keyview/platform/trcd.h>
#include <keyview/platform/txt.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

/* ---- The tree: the value of a record's key is its name in registered case -------------------- */

static const struct {
    const char *path, *value;
} TREE[] = {
    {"DATABASE.DATABASES.sales", "Sales"},
    {"DATABASE.DATABASES.sales.DB_NAME", "sales"},
    {"DATABASE.DATABASES.sales.DOMAIN", "example.com"},
    {"DATABASE.DATABASES.sales.ENABLED", "TRUE"},
    {"DATABASE.DATABASES.sales.ROLE", "PRIMARY"},
    {"DATABASE.DATABASES.sales.SPFILE", "/shared/sales/params.conf"},
    {"DATABASE.DATABASES.sales.START_OPTIONS", "wait=yes"},
    {"DATABASE.DATABASES.sales.TALVEN_HOME", "/opt/talven/4.2"},
    {"DATABASE.DATABASES.sales.INSTANCE.sales1", "Sales1"},
    {"DATABASE.DATABASES.sales.INSTANCE.sales1.ENABLED", "TRUE"},
    {"DATABASE.DATABASES.sales.INSTANCE.sales1.NODE", "node1"},
    {"DATABASE.DATABASES.sales.INSTANCE.sales2", "Sales2"},
    {"DATABASE.DATABASES.sales.INSTANCE.sales2.ENABLED", "TRUE"},
    {"DATABASE.DATABASES.sales.INSTANCE.sales2.NODE", "node2"},
    {"DATABASE.DATABASES.sales.SERVICE.reporting", "reporting"},
    {"DATABASE.DATABASES.sales.SERVICE.reporting.ENABLED", "TRUE"},
    {"DATABASE.DATABASES.sales.SERVICE.reporting.RCNPOLICY", "BASIC"},
    {"DATABASE.DATABASES.sales.SERVICE.reporting.INSTANCES.sales1", "Sales1"},
    {"DATABASE.DATABASES.sales.SERVICE.reporting.INSTANCES.sales1.ENABLED", "TRUE"},
    {"DATABASE.DATABASES.sales.SERVICE.reporting.INSTANCES.sales1.TYPE", "PREFERRED"},
};

typedef struct node {
    char *name;
    char *value;
    uint32_t size; /* with the zero byte; 0 for an empty value */
    struct node *first, *next;
} node;

static node root;
static pthread_once_t root_filled = PTHREAD_ONCE_INIT;
static pthread_mutex_t tree_mutex = PTHREAD_MUTEX_INITIALIZER;

static char *copy_of(const char *bytes, size_t size) {
    char *copy = calloc(1, size + 1);
    if (copy != NULL && size > 0) memcpy(copy, bytes, size);
    return copy;
}

/* Where the child of that name is, or where it would be. */
static node **slot_of(node *parent, const char *name, size_t length) {
    node **slot = &parent->first;
    while (*slot != NULL &&
           (strncmp((*slot)->name, name, length) != 0 || (*slot)->name[length] != '\0'))
        slot = &(*slot)->next;
    return slot;
}

/* The node of a path; null if there is none and none is to be made. */
static node *node_of(const char *path, int make) {
    node *at = &root;
    while (at != NULL && *path != '\0') {
        size_t length = strcspn(path, ".");
        node **slot = slot_of(at, path, length);
        if (*slot == NULL && make) {
            *slot = calloc(1, sizeof(node));
            if (*slot == NULL || ((*slot)->name = copy_of(path, length)) == NULL) abort();
        }
        at = *slot;
        path += length + (path[length] == '.');
    }
    return at;
}

static int set_value(node *at, const char *value, uint32_t size) {
    char *copy = copy_of(value, size);
    if (copy == NULL) return 0;
    free(at->value);
    at->value = copy;
    at->size = size;
    return 1;
}

static void fill_tree(void) {
    for (size_t n = 0; n < sizeof TREE / sizeof *TREE; ++n) {
        node *at = node_of(TREE[n].path, 1);
        if (!set_value(at, TREE[n].value, (uint32_t)strlen(TREE[n].value) + 1)) abort();
    }
}

/* ---- The registry client --------------------------------------------------------------------- */

enum { FAILED = 1 };

typedef struct open_key {
    node *at;
    node *cursor; /* the next subkey to deliver; the key's own, so no other key moves it */
    struct open_key *next;
} open_key;

typedef struct registry {
    open_key *keys;
    int32_t code; /* of the latest failure */
    const char *text;
} registry;

static int32_t fail(registry *reg, int32_t code, const char *text) {
    reg->code = code;
    reg->text = text;
    return code;
}

int32_t kvtc_init_ext(void **reg, int32_t mode, char *error_text, uint64_t *error_size,
                      int32_t flags) {
    (void)mode, (void)flags;
    registry *made = calloc(1, sizeof *made);
    if (made == NULL) {
        (void)snprintf(error_text, *error_size, "out of memory");
        return FAILED;
    }
    (void)pthread_once(&root_filled, fill_tree);
    made->text = "";
    *reg = made;
    return KVTC_SUCCESS;
}

int32_t kvtc_close_key(void *reg, void *key) {
    for (open_key **slot = &((registry *)reg)->keys; *slot != NULL; slot = &(*slot)->next) {
        if (*slot != key) continue;
        *slot = (*slot)->next;
        free(key);
        return KVTC_SUCCESS;
    }
    return fail(reg, FAILED, "the key is not open");
}

int32_t kvtc_terminate(void *reg) {
    registry *ended = reg;
    while (ended->keys != NULL)
        (void)kvtc_close_key(ended, ended->keys);
    free(ended);
    return KVTC_SUCCESS;
}

/* Nodes never go away, so a key may keep the address of its node. */
int32_t kvtc_open_key(void *reg, void **key, const char *path) {
    registry *owner = reg;
    (void)pthread_mutex_lock(&tree_mutex);
    node *at = node_of(path, 0);
    (void)pthread_mutex_unlock(&tree_mutex);
    if (at == NULL) return fail(owner, KVTC_ERR_KEY_NOT_FOUND, "there is no such key");

    open_key *opened = calloc(1, sizeof *opened);
    if (opened == NULL) return fail(owner, FAILED, "out of memory");
    opened->at = at;
    opened->cursor = at->first;
    opened->next = owner->keys;
    owner->keys = opened;
    *key = opened;
    return KVTC_SUCCESS;
}

int32_t kvtc_get_value(void *reg, void *key, uint32_t *type, void *value, uint32_t *size) {
    const node *at = ((open_key *)key)->at;
    uint32_t capacity = *size;
    *type = KVTC_TYPE_STRING;
    (void)pthread_mutex_lock(&tree_mutex);
    *size = at->size;
    int fits = at->size <= capacity;
    if (fits && at->size > 0) memcpy(value, at->value, at->size);
    (void)pthread_mutex_unlock(&tree_mutex);
    return fits ? KVTC_SUCCESS : fail(reg, KVTC_ERR_MORE_DATA, "the value is longer");
}

int32_t kvtc_set_value(void *reg, void *key, uint32_t type, const void *value, uint32_t size) {
    if (type != KVTC_TYPE_STRING) return fail(reg, FAILED, "no such type");
    (void)pthread_mutex_lock(&tree_mutex);
    int done = set_value(((open_key *)key)->at, value, size);
    (void)pthread_mutex_unlock(&tree_mutex);
    return done ? KVTC_SUCCESS : fail(reg, FAILED, "out of memory");
}

int32_t kvtc_enum_subkey(void *reg, void *key, char *name, uint32_t *size, int32_t *last) {
    open_key *walked = key;
    const node *next = walked->cursor;
    if (walked->at->first == NULL) *last = -1;
    if (next == NULL) return fail(reg, KVTC_ERR_NO_MORE_KEYS, "there are no more subkeys");

    size_t length = strlen(next->name);
    if (length >= *size) return fail(reg, FAILED, "the name does not fit");
    memcpy(name, next->name, length + 1);
    *size = (uint32_t)length;
    walked->cursor = next->next;
    *last = 0;
    for (const node *one = next->next; one != NULL; one = one->next)
        ++*last;
    return KVTC_SUCCESS;
}

int32_t kvtc_get_last_error(void *reg, int32_t *code, char *message, uint32_t *size) {
    const registry *owner = reg;
    *code = owner->code;
    (void)snprintf(message, *size, "%s", owner->text);
    *size = (uint32_t)strlen(message);
    return KVTC_SUCCESS;
}

/* ---- Locks between the threads of this process; a cluster needs a lock service --------------- */

enum { LONGEST_WAIT_S = 60 };

typedef struct named_lock {
    char *name;
    int readers, writers;
    struct named_lock *next;
} named_lock;

static named_lock *locks;
static pthread_mutex_t locks_mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t lock_released = PTHREAD_COND_INITIALIZER;

void *thrsini(void) {
    return &locks_mutex;
}

int32_t lksvsinit(void *status, void **lk, const uint16_t *version, const uint64_t *block,
                  uint64_t size) {
    (void)status, (void)version, (void)block, (void)size;
    *lk = &locks;
    return 0;
}

int32_t lksvsterm(void *status, void *lk) {
    (void)status, (void)lk;
    return 0;
}

static named_lock *lock_named(const char *name) {
    named_lock *lock = locks;
    while (lock != NULL && strcmp(lock->name, name) != 0)
        lock = lock->next;
    if (lock != NULL) return lock;
    lock = calloc(1, sizeof *lock);
    if (lock == NULL || (lock->name = copy_of(name, strlen(name))) == NULL) abort();
    lock->next = locks;
    return locks = lock;
}

static int32_t take(const char *name, int exclusive) {
    struct timespec end;
    (void)clock_gettime(CLOCK_REALTIME, &end);
    end.tv_sec += LONGEST_WAIT_S;

    int late = 0;
    (void)pthread_mutex_lock(&locks_mutex);
    named_lock *lock = lock_named(name);
    while (!late && (lock->writers > 0 || (exclusive && lock->readers > 0)))
        late = pthread_cond_timedwait(&lock_released, &locks_mutex, &end);
    if (!late) *(exclusive ? &lock->writers : &lock->readers) += 1;
    (void)pthread_mutex_unlock(&locks_mutex);
    return late ? FAILED : 0;
}

int32_t lksvlsshrlock(void *status, void *lk, const char *name) {
    (void)status, (void)lk;
    return take(name, 0);
}

int32_t lksvlsmutexlock(void *status, void *lk, const char *name) {
    (void)status, (void)lk;
    return take(name, 1);
}

int32_t lksvlsunlock(void *status, void *lk, const char *name) {
    (void)status, (void)lk;
    (void)pthread_mutex_lock(&locks_mutex);
    named_lock *lock = lock_named(name);
    int held = lock->writers + lock->readers > 0;
    if (held) *(lock->writers > 0 ? &lock->writers : &lock->readers) -= 1;
    (void)pthread_cond_broadcast(&lock_released);
    (void)pthread_mutex_unlock(&locks_mutex);
    return held ? 0 : FAILED;
}

/* ---- Memory and tags ------------------------------------------------------------------------- */

void *pgcinit(int32_t mode) {
    (void)mode;
    return &root;
}

void *tmem_allocm(void *mem, uint64_t size) {
    (void)mem;
    return calloc(1, size == 0 ? 1 : size);
}

void tmem_freem(void *mem, void *block) {
    (void)mem;
    free(block);
}

void tmem_fill_tag(void *address, const char *tag) {
    memcpy(address, tag, 8);
}

int32_t tmem_check_tag(const void *address, const char *tag) {
    return memcmp(address, tag, 8) == 0;
}

/* ---- Trace: failures go to stderr ------------------------------------------------------------ */

static void write_line(const char *component, int32_t level, const char *format, va_list values) {
    char line[2048];
    if (level > TRCD_FAILURE) return;
    (void)vsnprintf(line, sizeof line, format, values);
    for (char *c = line; *c != '\0'; ++c)
        if ((unsigned char)*c < ' ') *c = '?'; /* a value cannot forge a line */
    (void)fprintf(stderr, "%s %d: %s\n", component == NULL ? "-" : component, (int)level, line);
}

void *trcdcompreg(const char *description, const char *name, int32_t limit, uint64_t zero_1,
                  uint64_t zero_2, uint64_t zero_3, uint64_t zero_4) {
    (void)description, (void)limit, (void)zero_1, (void)zero_2, (void)zero_3, (void)zero_4;
    return (void *)(uintptr_t)name; /* a literal of the library, which stays loaded */
}

void trcdprintf(void *trc, int32_t level, const char *format, ...) {
    va_list values;
    va_start(values, format);
    write_line(trc, level, format, values);
    va_end(values);
}

void trcdprintft(void *trc, int32_t level, const char *format, ...) {
    va_list values;
    va_start(values, format);
    write_line(trc, level, format, values);
    va_end(values);
}

/* ---- Text: only letters of ASCII have a case ------------------------------------------------- */

static char lower(char c) {
    return c >= 'A' && c <= 'Z' ? (char)(c + 32) : c;
}

static char upper(char c) {
    return c >= 'a' && c <= 'z' ? (char)(c - 32) : c;
}

void txtmlo(char *target, const char *source, uint64_t n) {
    for (uint64_t i = 0; i < n; ++i)
        target[i] = lower(source[i]);
}

void txtmup(char *target, const char *source, uint64_t n) {
    for (uint64_t i = 0; i < n; ++i)
        target[i] = upper(source[i]);
}

void txtlo(char *target, const char *source) {
    txtmlo(target, source, strlen(source) + 1);
}

int32_t txtclo(const char *a, const char *b) {
    while (*a != '\0' && lower(*a) == lower(*b))
        ++a, ++b;
    return (unsigned char)lower(*a) - (unsigned char)lower(*b);
}

int32_t txtrep(char *text, uint64_t length, uint64_t capacity, const char *from,
               uint64_t from_length, const char *to, uint64_t to_length, uint64_t *new_length) {
    uint64_t at = 0;
    while (from_length > 0 && at + from_length <= length) {
        if (memcmp(text + at, from, from_length) != 0) {
            ++at;
            continue;
        }
        if (length - from_length + to_length >= capacity) return FAILED;
        memmove(text + at + to_length, text + at + from_length, length - at - from_length + 1);
        memcpy(text + at, to, to_length);
        length += to_length - from_length;
        at += to_length;
    }
    if (new_length != NULL) *new_length = length;
    return 0;
}
