// Keys of the cluster from paths and names, and back.
#include "cluster/layout.h"

#include <algorithm>
#include <charconv>

#include "host/registry/history.h"
#include "host/support/error.h"
#include "model/path.h"

namespace keyview::host {

static constexpr std::string_view FORMAT = "keyview 1 ";

key_range beginning_with(std::string bytes) {
    key_range range{bytes, std::move(bytes)};
    ++range.end.back();
    return range;
}

uint32_t elements_of(std::string_view path) {
    return path.empty() ? 0 : static_cast<uint32_t>(std::count(path.begin(), path.end(), '.')) + 1;
}

std::string layout::row(uint32_t elements, std::string_view path) const {
    std::string made = kv_;
    made += static_cast<char>(elements);
    for (char c : path)
        made += c == '.' ? SEPARATOR : c;
    return made + SEPARATOR;
}

std::optional<std::string_view> layout::elements(std::string_view key) const {
    size_t head = kv_.size() + 1;
    if (key.size() < head + 2 || key.substr(0, kv_.size()) != kv_ || key.back() != SEPARATOR)
        return {};
    auto depth = static_cast<uint8_t>(key[kv_.size()]);
    std::string_view elements = key.substr(head, key.size() - head - 1);
    std::string path = path_of_elements(elements);
    if (elements.find('.') != elements.npos || path_fault(path) != nullptr) return {};
    if (elements_of(path) != depth) return {};
    return elements;
}

std::string path_of_elements(std::string_view elements) {
    std::string path(elements);
    std::replace(path.begin(), path.end(), SEPARATOR, '.');
    return path;
}

std::string layout::journal(std::string_view id, uint32_t piece, bool undo) const {
    return prefix_ + "/journal/" + std::string(id) + "/" + std::to_string(piece) +
           (undo ? "/undo" : "/do");
}

std::string layout::journal_entry(std::string_view id) const {
    return prefix_ + "/journal/" + std::string(id) + "/history";
}

// Keys of one element, without the separator behind it.
key_range layout::history() const {
    return beginning_with(kv_ + '\x01' + std::string(HISTORY_HEAD));
}

std::string layout::history_entry(uint64_t number, std::string_view id) const {
    return history().begin + history_digits(number) + "-" + std::string(id) + SEPARATOR;
}

key_range layout::history_before(uint64_t number) const {
    const std::string all = history().begin;
    return {all, all + history_digits(number)};
}

static std::string queue_of(const std::string &prefix, std::string_view name) {
    return prefix + "/lk/" + std::string(name) + '\0';
}

std::string layout::lock_entry(std::string_view name, lock_mode mode, std::string_view id) const {
    return queue_of(prefix_, name) + (mode == lock_mode::shared ? "r/" : "w/") + std::string(id);
}

key_range layout::lock_queue(std::string_view name) const {
    return beginning_with(queue_of(prefix_, name));
}

key_range layout::lock_writers(std::string_view name) const {
    return beginning_with(queue_of(prefix_, name) + "w/");
}

bool layout::lock_of_entry(std::string_view key, std::string *name, lock_mode *mode) const {
    size_t head = prefix_.size() + 4;
    size_t end = key.find('\0', std::min(head, key.size()));
    if (end == key.npos || end + 1 == key.size()) return false;
    *name = key.substr(head, end - head);
    *mode = key[end + 1] == 'r' ? lock_mode::shared : lock_mode::exclusive;
    return true;
}

std::string tree_facts::text() const {
    return std::string(FORMAT) + std::to_string(deepest) + " " + writer;
}

tree_facts tree_facts::parse(std::string_view text) {
    tree_facts facts;
    std::string_view rest = text.substr(std::min(FORMAT.size(), text.size()));
    auto [stop, error] = std::from_chars(rest.data(), rest.data() + rest.size(), facts.deepest);
    bool sound = text.substr(0, FORMAT.size()) == FORMAT && error == std::errc() &&
                 facts.deepest <= MOST_ELEMENTS;
    if (!sound) {
        throw host_error(failure::content,
                         "the cluster holds a registry of another format, or something else: '" +
                             std::string(text.substr(0, 64)) + "'");
    }
    size_t used = static_cast<size_t>(stop - rest.data());
    facts.writer = rest.substr(std::min(used + 1, rest.size()));
    return facts;
}

}  // namespace keyview::host
