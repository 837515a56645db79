// Memory, trace, locks and text of the fake host.
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>

#include "fake_host.h"
#include "platform/lksv.h"
#include "platform/tmem.h"
#include "platform/trcd.h"
#include "platform/txt.h"

// ---- Memory and tags ----------------------------------------------------------------------------

static const uint64_t LARGEST_BLOCK = 64 << 20;

void *pgcinit(int32_t mode) {
    EXPECT_EQ(mode, 0);
    fake_current->enter("pgcinit", "", "pgcinit");
    return fake_current;
}

// Bytes behind each block, which nobody may change. A sanitizer has its own there.
#ifdef KEYVIEW_SANITIZED
constexpr char BEHIND[1] = {};
constexpr size_t BEHIND_SIZE = 0;
#else
constexpr char BEHIND[] = "behind";
constexpr size_t BEHIND_SIZE = sizeof BEHIND;
#endif

void *tmem_allocm(void *mem, uint64_t size) {
    EXPECT_EQ(mem, fake_current);
    int32_t code = fake_current->enter("alloc", "", "alloc " + std::to_string(size));
    if (fake_current->answered(code) != 0 || size > LARGEST_BLOCK) return nullptr;
    void *block = calloc(1, size + BEHIND_SIZE);
    memcpy(static_cast<char *>(block) + size, BEHIND, BEHIND_SIZE);
    fake_current->blocks[block] = size;
    return block;
}

void tmem_freem(void *mem, void *block) {
    EXPECT_EQ(mem, fake_current);
    if (block == nullptr) return;
    auto found = fake_current->blocks.find(block);
    if (found == fake_current->blocks.end()) {
        ADD_FAILURE() << "freed twice, or never allocated";
        return;
    }
    fake_current->enter("free", "", "free " + std::to_string(found->second));
    EXPECT_EQ(memcmp(static_cast<char *>(block) + found->second, BEHIND, BEHIND_SIZE), 0)
        << "written behind the end";
    fake_current->blocks.erase(found);
    free(block);
}

void tmem_fill_tag(void *address, const char *tag) {
    fake_current->enter("fill_tag", "", std::string("fill_tag ") + tag);
    memset(address, 'Z', 12);
    memcpy(address, tag, 8);
}

int32_t tmem_check_tag(const void *address, const char *tag) {
    return memcmp(address, tag, 8) == 0;
}

// ---- Trace --------------------------------------------------------------------------------------

void *trcdcompreg(const char *description, const char *name, int32_t limit, uint64_t zero_1,
                  uint64_t zero_2, uint64_t zero_3, uint64_t zero_4) {
    EXPECT_STREQ(description, "PRSR component");
    EXPECT_STREQ(name, "PRSR");
    EXPECT_TRUE(limit == 1024 && (zero_1 | zero_2 | zero_3 | zero_4) == 0);
    int32_t code = fake_current->answered(fake_current->enter("register", "", "trcdcompreg"));
    void *trc = code == 0 ? &fake_current->handles.emplace_back() : nullptr;
    return *fake_current->traces.insert(trc).first;
}

static void log_line(const std::string &start, void *trc, int32_t level, const char *format,
                     va_list args) {
    EXPECT_EQ(fake_current->traces.count(trc), 1u) << "not a trace handle";
    char *line = nullptr;
    ASSERT_GE(vasprintf(&line, format, args), 0);
    fake_current->enter("log", "", start + std::to_string(level) + " " + fake_escaped(line));
    free(line);
}

void trcdprintf(void *trc, int32_t level, const char *format, ...) {
    va_list args;
    va_start(args, format);
    log_line("", trc, level, format, args);
    va_end(args);
}

void trcdprintft(void *trc, int32_t level, const char *format, ...) {
    EXPECT_EQ(trc, nullptr);
    va_list args;
    va_start(args, format);
    log_line("unregistered ", trc, level, format, args);
    va_end(args);
}

// ---- Locks --------------------------------------------------------------------------------------

void *thrsini(void) {
    int32_t code = fake_current->answered(fake_current->enter("thread", "", "thrsini"));
    return fake_current->threads = code == 0 ? &fake_current->handles.emplace_back() : nullptr;
}

static uint64_t word(const void *pointer) {
    return reinterpret_cast<uintptr_t>(pointer);
}

int32_t lksvsinit(void *status, void **lk, const uint16_t *version, const uint64_t *block,
                  uint64_t size) {
    EXPECT_EQ(status, fake_current->status);
    EXPECT_EQ(*lk, nullptr);
    EXPECT_TRUE(version[0] == 2 && version[1] == 1 && size == 272);
    EXPECT_TRUE(block[0] == word(fake_current) && block[3] == word(fake_current->threads));
    EXPECT_EQ(block[1], word(reinterpret_cast<void *>(&tmem_allocm)));
    EXPECT_EQ(block[2], word(reinterpret_cast<void *>(&tmem_freem)));
    EXPECT_TRUE(block[4] == 0 && block[5] == 208 && block[6] == 0 && block[7] == 0);
    int32_t code = fake_current->enter("lksvsinit", "", "lksvsinit");
    if (code == 0) *lk = fake_current->make_lock_service();
    return fake_current->answered(code);
}

int32_t lksvsterm(void *status, void *lk) {
    EXPECT_EQ(status, fake_current->status);
    EXPECT_EQ(fake_current->lock_services.erase(lk), 1u) << "not a lock service handle";
    return fake_current->answered(fake_current->enter("lksvsterm", "", "lksvsterm"));
}

static int32_t take(void *status, void *lk, const char *mode, const char *name) {
    EXPECT_EQ(status, fake_current->status);
    EXPECT_EQ(fake_current->lock_services.count(lk), 1u) << "not a lock service handle";
    EXPECT_TRUE(fake_current->locks.empty()) << "a second lock";
    int32_t code = fake_current->enter("lock", name, std::string("lock ") + mode + " " + name);
    if (code == 0) fake_current->locks.insert(name);
    return fake_current->answered(code);
}

int32_t lksvlsshrlock(void *status, void *lk, const char *name) {
    return take(status, lk, "shared", name);
}

int32_t lksvlsmutexlock(void *status, void *lk, const char *name) {
    return take(status, lk, "exclusive", name);
}

int32_t lksvlsunlock(void *status, void *lk, const char *name) {
    const char *bytes = static_cast<const char *>(status);
    bool callers = strncmp(name, "LKRT.STG.", 9) == 0;  // the one unlock with the caller's block
    EXPECT_EQ(status == fake_current->status, callers);
    EXPECT_TRUE(callers || std::count(bytes, bytes + 224, '\0') == 224);
    EXPECT_EQ(fake_current->lock_services.count(lk), 1u) << "not a lock service handle";
    EXPECT_EQ(fake_current->locks.erase(name), 1u) << "not held: " << name;
    return fake_current->answered(
        fake_current->enter("unlock", name, std::string("unlock ") + name));
}

// ---- Text ---------------------------------------------------------------------------------------

static void fold(const char *call, char *target, const char *source, uint64_t n, int (*to)(int)) {
    EXPECT_EQ(uint64_t(std::count(target, target + n + 1, '\0')), n + 1) << "target is not zeroed";
    EXPECT_TRUE(fake_current->blocks.count(target) == 0 || fake_current->blocks[target] > n);
    fake_current->enter("text", "", call + (" " + std::string(source, n)));
    std::transform(source, source + n, target,
                   [&](char c) { return char(to(static_cast<unsigned char>(c))); });
}

void txtmlo(char *target, const char *source, uint64_t n) {
    fold("txtmlo", target, source, n, tolower);
}

void txtmup(char *target, const char *source, uint64_t n) {
    fold("txtmup", target, source, n, toupper);
}

void txtlo(char *target, const char *source) {
    fake_current->enter("text", "", std::string("txtlo ") + source);
    std::transform(source, source + strlen(source) + 1, target,
                   [](char c) { return char(tolower(static_cast<unsigned char>(c))); });
}

int32_t txtclo(const char *a, const char *b) {
    return strcasecmp(a, b);
}

int32_t txtrep(char *text, uint64_t length, uint64_t capacity, const char *from,
               uint64_t from_length, const char *to, uint64_t to_length, uint64_t *new_length) {
    EXPECT_TRUE(length == strlen(text) && capacity == length + 2 && text[length + 1] == '\0');
    EXPECT_TRUE(from_length == 1 && *from == '.' && to_length == 1 && *to == '*');
    EXPECT_EQ(*new_length, 0u);
    fake_current->enter("text", "", std::string("txtrep ") + text);
    std::replace(text, text + length, '.', '*');
    *new_length = length;
    return 0;
}
