// What the holder of a lock sees.
#include "host/registry/locked_view.h"

#include <algorithm>

namespace keyview::host {

// Whoever looks up more keys than this one by one is on the way to read everything.
static constexpr size_t MOST_SINGLE_KEYS = 32;

// What a registry handle keeps.
static constexpr size_t MOST_KEPT = 8;
static constexpr size_t MOST_KEPT_BYTES = size_t{16} << 20;

// ---- Copies that outlive a lock -----------------------------------------------------------------

size_t copies::bytes() const {
    size_t sum = asked.capacity() * sizeof(asked.front());
    for (const auto &part : parts)
        sum += part->bytes();
    return sum;
}

std::shared_ptr<copies> kept_copies::take(std::string_view top, const revision &as_of) {
    auto known = std::find_if(all_.begin(), all_.end(),
                              [&](const std::shared_ptr<copies> &one) { return one->top == top; });
    std::shared_ptr<copies> taken;
    if (known != all_.end()) {
        if ((*known)->as_of.same_as(as_of)) taken = std::move(*known);
        all_.erase(known);
    }
    if (taken == nullptr) {
        taken = std::make_shared<copies>(copies{std::string(top), as_of, {}, 0, {}});
    }
    all_.push_back(taken);
    drop_oldest();
    return taken;
}

// The latest ones stay, as far as there is room for them.
void kept_copies::drop_oldest() {
    size_t kept = 0;
    for (size_t bytes = 0; kept < std::min(all_.size(), MOST_KEPT); ++kept) {
        bytes += all_[all_.size() - 1 - kept]->bytes();
        if (bytes > MOST_KEPT_BYTES) break;
    }
    all_.erase(all_.begin(), all_.end() - static_cast<ptrdiff_t>(kept));
}

// ---- The view -----------------------------------------------------------------------------------

bool locked_view::tells(const lock_cover &cover, std::string_view path) {
    return !cover.path.empty() && path_within(path, cover.path, cover.depth);
}

bool locked_view::tells_children(const lock_cover &cover, std::string_view path) {
    return tells(cover, path) && (cover.depth == reach::all_below || path == cover.path);
}

void locked_view::look(const tree_reader &reader, const lock_cover &cover) {
    if (copies_ != nullptr) return;
    if (moment_ == nullptr) moment_ = reader.keys->now(cover.path);
    copies_ = reader.kept->take(cover.path, moment_->current());
    latest_ = 0;
    if (!copies_->parts.empty()) return;
    try {
        (void)copy(cover.path, reach::children);
    } catch (...) {
        copies_.reset();
        throw;
    }
}

void locked_view::bring(snapshot *part, std::string_view path, std::string_view value) {
    uint32_t key = part->tells(path) ? part->find(path) : snapshot::NONE;
    if (key != snapshot::NONE) part->set_value(key, value);
}

// Makes a part, empty if the key is not there.
copied_key locked_view::copy(std::string_view path, reach which) {
    auto part = std::make_shared<snapshot>(path, which);
    bool there = moment_->copy(path, which, part.get());
    add_part(part);
    return {std::move(part), there ? snapshot::TOP : snapshot::NONE};
}

// With what the holder changed since the moment.
void locked_view::add_part(const std::shared_ptr<snapshot> &part) {
    for (const auto &[changed, value] : changes_)
        bring(part.get(), changed, value);
    latest_ = copies_->parts.size();
    copies_->parts.push_back(part);
}

// From the latest part that tells about the key, which becomes latest_; false if none does.
bool locked_view::find_copy(std::string_view path, uint32_t *key) {
    const auto &parts = copies_->parts;
    for (size_t i = parts.size(); i-- > 0;) {
        if (!parts[i]->tells(path)) continue;
        latest_ = i;
        *key = parts[i]->find(path);
        return true;
    }
    return false;
}

// For a key of the latest part.
void locked_view::note_asked(uint32_t key, copied_key *found) {
    auto &asked = copies_->asked;
    if (next_ < asked.size()) asked.resize(next_);
    asked.emplace_back(latest_, key);
    next_ = asked.size();
    *found = {copies_->parts[latest_], key};
}

// The key alone, as a part.
uint32_t locked_view::look_up(const lock_cover &cover, std::string_view path) {
    uint32_t key = snapshot::NONE;
    std::string value;
    if (moment_ == nullptr || !moment_->read(path, &value)) return key;
    if (copies_->single_keys == MOST_SINGLE_KEYS) {
        copy_out(cover);
        (void)find_copy(path, &key);  // a part tells about everything now
        return key;
    }
    auto part = std::make_shared<snapshot>(path, reach::key_alone);
    part->add_top(value, 0);
    add_part(part);
    ++copies_->single_keys;
    return snapshot::TOP;
}

void locked_view::find(const tree_reader &reader, const lock_cover &cover, std::string_view path,
                       copied_key *found) {
    look(reader, cover);
    if (find_again(path, found)) return;
    uint32_t key = snapshot::NONE;
    if (!find_copy(path, &key)) key = look_up(cover, path);
    if (key == snapshot::NONE) {
        *found = {};
    } else {
        note_asked(key, found);
    }
}

copied_key locked_view::find_list(const tree_reader &reader, const lock_cover &cover,
                                  std::string_view path) {
    look(reader, cover);
    const auto &parts = copies_->parts;
    for (size_t i = parts.size(); i-- > 0;) {
        if (!parts[i]->tells(path)) continue;
        uint32_t key = parts[i]->find(path);
        if (key == snapshot::NONE || !parts[i]->tells_children(key)) continue;
        latest_ = i;
        return {parts[i], key};
    }
    return moment_ == nullptr ? copied_key() : copy(path, reach::all_below);
}

void locked_view::note_value(std::string_view path, std::string_view value) {
    if (copies_ == nullptr) {
        moment_.reset();  // of the grant, before the change: the first look is at the store
        return;
    }
    copies_->as_of = {};  // nobody else may go on with them
    for (const auto &part : copies_->parts)
        bring(part.get(), path, value);
    if (moment_ != nullptr) changes_.emplace_back(path, value);
}

void locked_view::copy_out(const lock_cover &cover) {
    if (moment_ == nullptr || copies_ == nullptr) return;
    bool whole = cover.depth == reach::children;
    for (const auto &part : copies_->parts)
        whole = whole || (part->tells_all() && part->top() == cover.path);
    if (!whole) (void)copy(cover.path, reach::all_below);
    moment_.reset();
    changes_.clear();
}

}  // namespace keyview::host
