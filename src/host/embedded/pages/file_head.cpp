// The head of an LMDB data file.
#include "host/embedded/pages/file_head.h"

#include <lmdb.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "host/support/deadline.h"

namespace keyview::host {

static constexpr uint32_t MAGIC = 0xBEEFC0DE;
static constexpr uint32_t VERSION = 1;
static constexpr int LMDB_MAJOR = 0;
static constexpr int LMDB_MINOR = 9;
static constexpr size_t SMALLEST_PAGE = 512;
// Writers that follow each other without a pause could change the head between any two reads.
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

// ---- Format -------------------------------------------------------------------------------------

// The version in a meta; the known one unless it is a meta.
static uint32_t version_at(int fd, size_t at) {
    meta found = {};
    bool any = read_bytes(fd, &found, sizeof(found), at + sizeof(page_head));
    return any && found.magic == MAGIC ? found.version : VERSION;
}

// One meta alone with another version is damaged.
std::string foreign_format(int fd) {
    int major = 0;
    int minor = 0;
    const char *release = mdb_version(&major, &minor, nullptr);
    if (major != LMDB_MAJOR || minor != LMDB_MINOR)
        return std::string(release) + " is in use, whose file format is not known";
    meta first = {};
    if (!read_bytes(fd, &first, sizeof(first), sizeof(page_head))) return "";
    uint32_t version = version_at(fd, 0);
    bool foreign = version != VERSION && version_at(fd, first.page_size()) == version;
    return foreign
               ? "its format has version " + std::to_string(version) + ", of which nothing is known"
               : "";
}

// ---- One meta -----------------------------------------------------------------------------------

// What is wrong with a meta by itself; empty if nothing is. An index of 0 or 1.
static std::string fault_of(const page_head &page, const meta &one, size_t index) {
    size_t size = one.page_size();
    if (page.kind != META_PAGE || page.number != index) return "is no meta page";
    if (one.magic != MAGIC || one.version != VERSION) return "is not of a known kind of file";
    if (size < SMALLEST_PAGE || size > LARGEST_PAGE || (size & (size - 1)) != 0) {
        return "states a page size of " + std::to_string(size);
    }
    // The upper bits are the flags with which the file was first opened.
    if ((one.free_list.flags & 0xFF) != MDB_INTEGERKEY || one.keys.flags != 0 ||
        one.keys.page_size != 0) {
        return "states another order of the keys than the registry's";
    }
    if (one.map_size % size != 0) return "states a map that is no number of pages";
    if (one.last_page < 1 || one.last_page >= one.map_size / size) {
        return "states a last page that is outside the map";
    }
    return "";
}

static bool read_meta(int fd, size_t index, size_t page_size, meta *out, std::string *fault) {
    meta_page whole;
    if (!read_bytes(fd, &whole, sizeof(whole), index * page_size)) {
        *fault = "cannot be read";
        return false;
    }
    *out = whole.content;
    *fault = fault_of(whole.head, whole.content, index);
    return fault->empty();
}

// ---- Marks of a commit --------------------------------------------------------------------------

// Reads the key of the last row of the free list.
static bool read_mark(int fd, const meta &state, size_t *mark) {
    std::vector<char> bytes(state.page_size());
    page_number next = state.free_list.root;
    for (unsigned level = 0; level < MOST_LEVELS; ++level) {
        if (next > state.last_page) return false;
        if (!read_bytes(fd, bytes.data(), bytes.size(), next * bytes.size())) return false;
        std::string_view text(bytes.data(), bytes.size());
        auto page = value_at<page_head>(text, 0);
        size_t lower = page.nodes.lower;
        if (page.number != next || lower <= sizeof(page) || lower > text.size()) return false;
        size_t offset = value_at<uint16_t>(text, lower - sizeof(uint16_t));
        if (offset + sizeof(node_head) + sizeof(*mark) > text.size()) return false;
        if (page.kind == LEAF_PAGE) {
            *mark = value_at<size_t>(text, offset + sizeof(node_head));
            return true;
        }
        if (page.kind != BRANCH_PAGE) return false;
        next = value_at<node_head>(text, offset).child();
    }
    return false;
}

static bool has_its_mark(int fd, const meta &state) {
    size_t mark = 0;
    if (state.commit < 2) return true;
    return read_mark(fd, state, &mark) && (mark == state.commit || mark == state.commit - 1);
}

// ---- Both metas ---------------------------------------------------------------------------------

static constexpr const char *HEAD = "the head of data.mdb";

static bool follow_each_other(const file_head &head) {
    size_t even = head.metas[0].commit;
    size_t odd = head.metas[1].commit;
    if (even == 0 && odd == 0) return true;
    return even % 2 == 0 && odd % 2 == 1 && (even + 1 == odd || odd + 1 == even);
}

// Reads the size after the metas: a writer lengthens the file before a commit states it. Whatever
// has only the pages in use is a copy that mdb_copy made, and without a commit it is unfinished.
static std::string fault_of_size(int fd, const meta &newest) {
    struct stat found = {};
    if (fstat(fd, &found) != 0) return std::string("has no size: ") + strerror(errno);
    auto size = static_cast<size_t>(found.st_size);
    bool unfinished = newest.commit == 0 && newest.last_page == 1;
    if (size >= newest.map_size || size == newest.bytes_in_use() || unfinished) return "";
    return "belongs to a longer file: it was cut short, to " + std::to_string(size) + " bytes of " +
           std::to_string(newest.map_size);
}

static std::string fault_of_pair(int fd, const file_head &head) {
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
    if (has_its_mark(fd, newest) && has_its_mark(fd, older)) return "";
    return "has a meta whose commit left other marks: the latest commit may be lost";
}

// Empty if the head is sound.
static std::string inspect_head(int fd, file_head *out) {
    struct stat found = {};
    if (fstat(fd, &found) == 0 && found.st_size == 0) return "is missing: the file is empty";
    std::string fault;
    for (size_t index = 0; index < 2; ++index) {
        if (read_meta(fd, index, out->metas[0].page_size(), &out->metas[index], &fault)) continue;
        return "has meta " + std::to_string(index) + ", which " + fault;
    }
    return fault_of_pair(fd, *out);
}

// ---- A commit that failed -----------------------------------------------------------------------

replaced_meta::replaced_meta(int fd, size_t commit) : fd_(fd), known_(read(&before_)) {
    if (commit % 2 == 0 || !known_) return;
    at_ = before_.content.page_size();
    known_ = read(&before_);
}

bool replaced_meta::read(meta_page *out) const {
    return read_bytes(fd_, out, sizeof(*out), at_);
}

void replaced_meta::restore() const {
    meta_page now{};
    if (!known_ || !foreign_format(fd_).empty()) return;
    if (!read(&now) || now.content.commit != before_.content.commit) return;
    if (memcmp(&now, &before_, sizeof(now)) == 0) return;
    // If this fails, too, the head is refused as damaged.
    (void)!pwrite(fd_, &before_, sizeof(before_), static_cast<off_t>(at_));
}

// ---- The head -----------------------------------------------------------------------------------

bool read_head(int fd, file_head *out, const damage_sink &damage) {
    *out = {};
    std::string fault = inspect_head(fd, out);
    deadline wait(HEAD_WAIT_MS);
    // Only a head that does not change is damaged.
    for (bool still = false; !fault.empty() && !still && wait.pause();) {
        file_head before = *out;
        fault = inspect_head(fd, out);
        still = memcmp(&before, out, sizeof(before)) == 0;
    }
    if (!fault.empty()) damage(HEAD, fault);
    return fault.empty();
}

}  // namespace keyview::host
