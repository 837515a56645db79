// The head of an LMDB data file.
#include "host/embedded/data_file.h"

#include <fcntl.h>
#include <lmdb.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "host/support/deadline.h"
#include "host/support/fd.h"

namespace keyview::host {

static constexpr size_t FIRST_MAP_SIZE = 64 << 10;
static constexpr uint32_t MAGIC = 0xBEEFC0DE;
static constexpr uint32_t VERSION = 1;
static constexpr size_t SMALLEST_PAGE = 512;
static constexpr size_t LARGEST_PAGE = 32 << 10;
static constexpr int MOST_LEVELS = 32;
// Writers that follow each other without a pause could change the head between two looks each time.
static constexpr uint32_t HEAD_WAIT_MS = 5000;

bool read_bytes(int fd, void *into, size_t size, size_t at) {
    auto *to = static_cast<char *>(into);
    while (size > 0) {
        ssize_t got = pread(fd, to, size, static_cast<off_t>(at));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        to += got;
        at += static_cast<size_t>(got);
        size -= static_cast<size_t>(got);
    }
    return true;
}

// ---- One meta -----------------------------------------------------------------------------------

// What is wrong with a meta by itself; empty if nothing is. An index of 0 or 1.
static std::string fault_of(const page_head &page, const meta &one, size_t index) {
    size_t size = one.page_size();
    if (page.kind != META_PAGE || page.number != index) return "is no meta page";
    if (one.magic != MAGIC || one.version != VERSION) return "is not of a known kind of file";
    if (size < SMALLEST_PAGE || size > LARGEST_PAGE || (size & (size - 1)) != 0) {
        return "tells a page size of " + std::to_string(size);
    }
    // The upper bits tell how the file was first opened.
    if ((one.free_list.flags & 0xFF) != MDB_INTEGERKEY || one.keys.flags != 0 ||
        one.keys.page_size != 0) {
        return "tells another order of the keys than the registry's";
    }
    if (one.map_size % size != 0) return "tells a map that is no number of pages";
    if (one.last_page < 1 || one.last_page >= one.map_size / size) {
        return "tells a last page that is outside the map";
    }
    return "";
}

static bool read_meta(int fd, size_t index, size_t page_size, meta *out, std::string *fault) {
    struct {
        page_head page;
        meta content;
    } whole;
    if (!read_bytes(fd, &whole, sizeof(whole), index * page_size)) {
        *fault = "cannot be read";
        return false;
    }
    *out = whole.content;
    *fault = fault_of(whole.page, whole.content, index);
    return fault->empty();
}

// ---- Marks of a commit --------------------------------------------------------------------------

// Each commit enters what it freed into the free list under its own number, as the last row. Only
// one that begins with no keys at all may have freed nothing.
static bool read_mark(int fd, const meta &state, size_t *mark) {
    std::vector<char> bytes(state.page_size());
    page_number next = state.free_list.root;
    for (int level = 0; level < MOST_LEVELS; ++level) {
        page_head page;
        if (next > state.last_page) return false;
        if (!read_bytes(fd, bytes.data(), bytes.size(), next * bytes.size())) return false;
        memcpy(&page, bytes.data(), sizeof(page));
        size_t lower = page.nodes.lower;
        if (page.number != next || lower <= sizeof(page) || lower > bytes.size()) return false;
        uint16_t offset = 0;
        memcpy(&offset, bytes.data() + lower - sizeof(offset), sizeof(offset));
        uint16_t node[4];
        if (offset + sizeof(node) + sizeof(*mark) > bytes.size()) return false;
        memcpy(node, bytes.data() + offset, sizeof(node));
        if (page.kind == LEAF_PAGE) {
            memcpy(mark, bytes.data() + offset + sizeof(node), sizeof(*mark));
            return true;
        }
        if (page.kind != BRANCH_PAGE) return false;
        next = node[0] | page_number{node[1]} << 16 | page_number{node[2]} << 32;
    }
    return false;
}

static bool bears_its_mark(int fd, const meta &state) {
    size_t mark = 0;
    if (state.commit < 2) return true;
    return read_mark(fd, state, &mark) && (mark == state.commit || mark == state.commit - 1);
}

// ---- Both metas ---------------------------------------------------------------------------------

static constexpr const char *PLACE = "the head of data.mdb";

static bool follow_each_other(const data_head &head) {
    size_t even = head.metas[0].commit;
    size_t odd = head.metas[1].commit;
    if (even == 0 && odd == 0) return true;
    return even % 2 == 0 && odd % 2 == 1 && (even + 1 == odd || odd + 1 == even);
}

// The size is looked up after the metas, so that a writer that lengthens the file is not in the
// way.
static std::string fault_of_size(int fd, const meta &newest) {
    struct stat found = {};
    if (fstat(fd, &found) != 0) return std::string("cannot be looked at: ") + strerror(errno);
    auto size = static_cast<size_t>(found.st_size);
    if (size >= newest.map_size) return "";
    // Without a commit it is not yet finished. Unlike ftruncate this never shortens what another
    // one has made longer meanwhile.
    bool unfinished = newest.commit == 0 && newest.last_page == 1;
    if (unfinished && fallocate(fd, 0, 0, static_cast<off_t>(newest.map_size)) == 0) return "";
    return "tells of a longer file: it was cut short, to " + std::to_string(size) + " bytes of " +
           std::to_string(newest.map_size);
}

static std::string fault_of_pair(int fd, const data_head &head) {
    const meta &newest = head.newest();
    const meta &older = head.metas[&newest == &head.metas[0] ? 1 : 0];
    bool alike = newest.page_size() == older.page_size() &&
                 newest.free_list.flags == older.free_list.flags &&
                 newest.address == older.address && newest.map_size >= older.map_size;
    if (!alike) {
        return "has two metas that contradict each other";
    }
    if (!follow_each_other(head)) {
        return "has metas of commits that do not follow each other, " +
               std::to_string(older.commit) + " and " + std::to_string(newest.commit) +
               ": the latest commit may be lost";
    }
    std::string fault = fault_of_size(fd, newest);
    if (!fault.empty()) return fault;
    if (bears_its_mark(fd, newest) && bears_its_mark(fd, older)) return "";
    return "has a meta whose commit left other marks: the latest commit may be lost";
}

// Empty if all is well.
static std::string look_at_head(int fd, data_head *out) {
    struct stat found = {};
    if (fstat(fd, &found) == 0 && found.st_size == 0) return "is missing: the file is empty";
    std::string fault;
    for (size_t index = 0; index < 2; ++index) {
        if (read_meta(fd, index, out->metas[0].page_size(), &out->metas[index], &fault)) continue;
        return "has meta " + std::to_string(index) + ", which " + fault;
    }
    return fault_of_pair(fd, *out);
}

bool read_head(int fd, data_head *out, const damage_sink &damage) {
    *out = {};
    std::string fault = look_at_head(fd, out);
    deadline wait(HEAD_WAIT_MS);
    // Only a head that stays as it is tells of damage.
    for (bool still = false; !fault.empty() && !still && wait.pause();) {
        data_head before = *out;
        fault = look_at_head(fd, out);
        still = memcmp(&before, out, sizeof(before)) == 0;
    }
    if (!fault.empty()) damage(PLACE, fault);
    return fault.empty();
}

// ---- Making a file ------------------------------------------------------------------------------

int lengthen(int fd, size_t size) {
    static constexpr char ZEROS[64 << 10] = {};
    struct stat found = {};
    if (fstat(fd, &found) != 0) return errno;
    auto at = static_cast<size_t>(found.st_size);
    if (at >= size) return 0;
    while (at < size) {
        ssize_t wrote =
            pwrite(fd, ZEROS, std::min(sizeof(ZEROS), size - at), static_cast<off_t>(at));
        if (wrote < 0 && errno == EINTR) continue;
        if (wrote < 0) return errno;
        at += static_cast<size_t>(wrote);
    }
    // The length must be on the disk before a commit tells of it.
    return fsync(fd) == 0 ? 0 : errno;
}

int make_data_file(const std::string &path) {
    MDB_env *made = nullptr;
    int rc = mdb_env_create(&made);
    if (rc != 0) return rc;
    std::unique_ptr<MDB_env, decltype(&mdb_env_close)> env(made, &mdb_env_close);
    int fd = -1;
    rc = mdb_env_set_mapsize(made, FIRST_MAP_SIZE);
    // Nobody else knows the file yet, so it needs no lock file.
    if (rc == 0) rc = mdb_env_open(made, path.c_str(), MDB_NOSUBDIR | MDB_NOLOCK, 0600);
    if (rc == 0) rc = mdb_env_get_fd(made, &fd);
    return rc == 0 ? lengthen(fd, FIRST_MAP_SIZE) : rc;
}

}  // namespace keyview::host
