// The view of the holder of a lock.
#include "host/registry/locked_view.h"

#include <algorithm>
#include <iterator>

namespace keyview::host {

// A reader that looks up more single keys than this is assumed to read everything.
static constexpr size_t MAX_SINGLE_KEYS = 32;

// The bounds of the cache of a registry handle.
static constexpr size_t MAX_KEPT_USED_ONCE = 2;
static constexpr size_t MAX_KEPT_SINGLE_KEYS = MAX_SINGLE_KEYS / 2;  // at another revision
static constexpr size_t MAX_COPIED_BYTES = size_t{16} << 20;

// A guess is copied, whether it is used or not.
static constexpr size_t MAX_GUESSED = 4096;

// ---- Copies that outlive a lock -----------------------------------------------------------------

size_t copies::bytes() const {
    size_t sum =
        order.capacity() * sizeof(order.front()) + expected.capacity() * sizeof(expected.front());
    for (const auto &part : parts)
        sum += part->bytes();
    return sum;
}

void copies::become_stale(const revision &now) {
    as_of = now;
    for (const auto &part : parts)
        part->stale = true;
}

void copies::guess_order(const copies &other) {
    const size_t count = std::min(other.order.size(), MAX_GUESSED);
    order.assign(other.order.begin(), other.order.begin() + static_cast<ptrdiff_t>(count));
    order_is_guess = true;
}

void copies::add_part(std::unique_ptr<snapshot> part) {
    parts.push_back(std::move(part));
    expect_more();
}

void copies::expect_more() {
    expected.reserve(order.size());
    while (expected.size() < order.size()) {
        const read_key &next = order[expected.size()];
        if (next.part >= parts.size() || next.key >= parts[next.part]->size()) return;
        expected.push_back({parts[next.part].get(), parts[next.part]->at(next.key)});
    }
}

void copies::end_order(size_t count) {
    order.resize(count);
    expected.resize(std::min(expected.size(), count));
    order_is_guess = false;
}

void copies::replace_order(order_of_reads *by) {
    order.swap(*by);
    expected.clear();
}

kept_copies::kept_copies(std::shared_ptr<store> keys)
    : keys_(std::move(keys)), cached_(keys_->take_copies()) {}

kept_copies::~kept_copies() {
    for (const auto &one : cached_)
        one->keys = 0;
    auto is_in_use = [](const auto &one) { return one->in_use(); };
    cached_.erase(std::remove_if(cached_.begin(), cached_.end(), is_in_use), cached_.end());
    if (!cached_.empty()) keys_->keep_copies(std::move(cached_));
}

// Whether the copies serve for a revision; they are stale then if they are of another one.
static bool bring_to(const revision &as_of, const known_copies &known) {
    if (known.of->as_of.same_as(as_of)) return true;
    if (known.in_use() || known.of->single_keys > MAX_KEPT_SINGLE_KEYS) return false;
    known.of->become_stale(as_of);
    return true;
}

known_copies *kept_copies::take(std::string_view top, const revision &as_of,
                                std::shared_ptr<copies> *taken) {
    drop_unused();
    cached_.reserve(cached_.size() + 1);  // so that nothing that is in use is lost on the way
    others_.reserve(others_.size() + cached_.size() + 1);
    if (!cached_.empty()) cached_.back()->bytes = cached_.back()->of->bytes();
    auto same = std::find_if(cached_.rbegin(), cached_.rend(),
                             [&](const auto &one) { return one->of->top == top; });
    const bool found = same != cached_.rend();
    if (found) std::rotate(same.base() - 1, same.base(), cached_.end());
    if (!found || !bring_to(as_of, *cached_.back())) {
        auto fresh = std::make_shared<copies>(top, as_of);
        if (!cached_.empty()) fresh->guess_order(*cached_.back()->of);
        auto entry = std::make_shared<known_copies>(known_copies{std::move(fresh)});
        if (found) {
            others_.push_back(std::move(cached_.back()));
            cached_.pop_back();
        }
        cached_.push_back(std::move(entry));
    }
    known_copies *latest = cached_.back().get();
    if (found || left_of_late(top)) latest->used_again = true;
    *taken = latest->of;
    drop_oldest();
    return latest;
}

// Keeps the latest ones within the bounds.
void kept_copies::drop_oldest() {
    size_t kept = 0, bytes = 0, used_once = 0;
    for (size_t number = cached_.size(); number-- > 0;) {
        std::shared_ptr<known_copies> &one = cached_[number];
        bytes += one->bytes;
        if (!one->used_again) ++used_once;
        const bool is_kept = one->used_again || used_once <= MAX_KEPT_USED_ONCE;
        if (is_kept && bytes <= MAX_COPIED_BYTES && kept < MAX_KEPT) {
            ++kept;
            continue;
        }
        left_[next_left_++ % MAX_KEPT] = std::hash<std::string_view>()(one->of->top);
        others_.push_back(std::move(one));
        cached_.erase(cached_.begin() + static_cast<ptrdiff_t>(number));
    }
    drop_unused();
}

bool kept_copies::left_of_late(std::string_view top) const {
    const size_t wanted = std::hash<std::string_view>()(top);
    return std::find(left_.begin(), left_.end(), wanted) != left_.end();
}

void kept_copies::drop_unused() {
    auto is_unused = [](const auto &one) { return !one->in_use(); };
    others_.erase(std::remove_if(others_.begin(), others_.end(), is_unused), others_.end());
}

known_copies *kept_copies::known(copies *wanted) {
    for (const auto *list : {&cached_, &others_})
        for (const auto &one : *list)
            if (one->of.get() == wanted) return one.get();
    drop_unused();
    others_.push_back(std::make_shared<known_copies>(known_copies{wanted->shared_from_this()}));
    return others_.back().get();
}

// ---- The view -----------------------------------------------------------------------------------

bool locked_view::covers(const lock_cover &cover, std::string_view path) {
    return !cover.path.empty() && path_within(path, cover.path, cover.depth);
}

bool locked_view::covers_children(const lock_cover &cover, std::string_view path) {
    return covers(cover, path) && (cover.depth == reach::all_below || path == cover.path);
}

void locked_view::begin(const tree_reader &reader, const lock_cover &cover) {
    if (copies_ != nullptr) return;
    if (moment_ == nullptr) moment_ = reader.keys->now(cover.path, cover.depth);
    known_ = reader.kept->take(cover.path, moment_->current(), &copies_);
    latest_ = 0;
    try {
        if (copies_->parts.empty()) (void)copy(cover.path, reach::children);
        copies_->expect_more();
    } catch (...) {
        copies_.reset();
        throw;
    }
    handle_ = reader.handle;
}

void locked_view::update(snapshot *part, std::string_view path, std::string_view value) {
    uint32_t key = part->covers(path) ? part->find(path) : snapshot::NONE;
    if (key != snapshot::NONE) part->set_value(key, value);
}

// Makes a part, empty if the key is not there.
found_key locked_view::copy(std::string_view path, reach which) {
    auto part = std::make_unique<snapshot>(path, which);
    bool there = fill(part.get());
    snapshot *added = add_part(std::move(part));
    return {{added, there ? added->at(snapshot::TOP) : nullptr}, copies_.get()};
}

snapshot *locked_view::add_part(std::unique_ptr<snapshot> part) {
    copies_->add_part(std::move(part));
    latest_ = static_cast<uint32_t>(copies_->parts.size() - 1);
    return copies_->parts.back().get();
}

bool locked_view::read_alone(snapshot *part) {
    std::string value;
    if (!moment_->read(part->top(), &value)) return false;
    part->add_top(value, 0);
    return true;
}

// Copies what the part is for, with the changes that the holder made since the moment; false, with
// an empty part, if the key is not there. Only the order of reads refers to the rows of a part that
// is filled again.
bool locked_view::fill(snapshot *part) {
    uint64_t shape = part->shape();
    bool there = false;
    try {
        there = part->depth() == reach::key_alone ? read_alone(part)
                                                  : moment_->copy(part->top(), part->depth(), part);
        for (const auto &[changed, value] : changes_)
            update(part, changed, value);
    } catch (...) {
        part->clear();
        forget_order();
        throw;
    }
    if (!there) part->clear();
    if (part->stale && part->shape() != shape) forget_order();
    part->stale = false;
    return there;
}

void locked_view::forget_order() {
    copies_->end_order(0);
    next_ = 0;
}

bool locked_view::find_predicted(const char *path, found_key *found) {
    if (copies_ == nullptr) return false;
    snapshot *part = copies_->parts[latest_].get();
    uint32_t key = part->stale ? snapshot::NONE : part->find_predicted(path);
    if (key == snapshot::NONE) return false;
    record_order(key, found);
    return true;
}

// Whether the reader before read this key and no other one, as a set of a flag does.
bool locked_view::is_read_alone(std::string_view path) const {
    const order_of_reads &order = copies_->order;
    if (order.size() != 1 || copies_->order_is_guess) return false;
    return copies_->parts[order.front().part]->path(order.front().key) == path;
}

// Searches the latest part that covers the key, which becomes latest_; false if none does, or if it is
// not worth while to fill it again.
bool locked_view::find_copy(std::string_view path, uint32_t *key) {
    const auto &parts = copies_->parts;
    for (auto i = static_cast<uint32_t>(parts.size()); i-- > 0;) {
        if (!parts[i]->covers(path)) continue;
        const bool single = parts[i]->depth() == reach::key_alone;
        if (parts[i]->stale && !single && is_read_alone(path)) return false;
        if (parts[i]->stale) (void)fill(parts[i].get());
        latest_ = i;
        *key = parts[i]->find(path);
        return true;
    }
    return false;
}

// Makes a key of the latest part the next one in the order of reads. A reader with another order
// than the one before replaces that one when it has read more keys: a short visit in between, as a
// set of a flag, leaves it as it is.
void locked_view::record_order(uint32_t key, found_key *found) {
    order_of_reads &order = copies_->order;
    const read_key read = {latest_, key};
    snapshot *part = copies_->parts[latest_].get();
    *found = {{part, part->at(key)}, copies_.get()};
    if (next_ < order.size() && order[next_] == read) {
        ++next_;
        return;
    }
    if (next_ < order.size() && copies_->order_is_guess) copies_->end_order(next_);
    if (next_ == order.size()) {
        order.push_back(read);
        ++next_;
        return;
    }
    if (next_ < order.size()) {
        own_order_.assign(order.begin(), order.begin() + static_cast<ptrdiff_t>(next_));
        next_ = SIZE_MAX;
    }
    own_order_.push_back(read);
    if (own_order_.size() <= order.size()) return;
    copies_->replace_order(&own_order_);
    next_ = order.size();
}

// Adds a part with this key alone.
uint32_t locked_view::look_up(const lock_cover &cover, std::string_view path) {
    uint32_t key = snapshot::NONE;
    auto part = std::make_unique<snapshot>(path, reach::key_alone);
    if (moment_ == nullptr || !fill(part.get())) return key;
    if (copies_->single_keys == MAX_SINGLE_KEYS) {
        detach(cover);
        (void)find_copy(path, &key);  // one part covers everything now
        return key;
    }
    (void)add_part(std::move(part));
    ++copies_->single_keys;
    return snapshot::TOP;
}

void locked_view::find(const tree_reader &reader, const lock_cover &cover, const char *path,
                       found_key *found) {
    begin(reader, cover);
    if (const copied_key *expected = pass_expected(); expected != nullptr) {
        *found = {*expected, copies_.get()};
        if (expected->part->has_path(expected->key, path)) return;
        step_back();
    }
    uint32_t key = snapshot::NONE;
    if (!find_copy(path, &key)) key = look_up(cover, path);
    if (key == snapshot::NONE) {
        *found = {};
    } else {
        record_order(key, found);
    }
}

found_key locked_view::find_list(const tree_reader &reader, const lock_cover &cover,
                                 std::string_view path) {
    begin(reader, cover);
    const auto &parts = copies_->parts;
    for (auto i = static_cast<uint32_t>(parts.size()); i-- > 0;) {
        if (!parts[i]->covers(path)) continue;
        if (parts[i]->stale) (void)fill(parts[i].get());
        uint32_t key = parts[i]->find(path);
        if (key == snapshot::NONE || !parts[i]->covers_children(key)) continue;
        latest_ = i;
        return {{parts[i].get(), parts[i]->at(key)}, copies_.get()};
    }
    return moment_ == nullptr ? found_key() : copy(path, reach::all_below);
}

void locked_view::update_value(std::string_view path, std::string_view value) {
    if (copies_ == nullptr) {
        moment_.reset();  // as of the grant, before the change: the first read uses the store
        return;
    }
    copies_->as_of = {};  // not to be used under a later lock
    for (const auto &part : copies_->parts)
        update(part.get(), path, value);
    if (moment_ != nullptr) changes_.emplace_back(path, value);
}

void locked_view::detach(const lock_cover &cover) {
    if (moment_ == nullptr || copies_ == nullptr) return;
    bool whole = cover.depth == reach::children;
    for (const auto &part : copies_->parts) {
        if (part->stale) (void)fill(part.get());
        whole = whole || (part->depth() == reach::all_below && part->top() == cover.path);
    }
    if (!whole) (void)copy(cover.path, reach::all_below);
    moment_.reset();
    changes_.clear();
}

}  // namespace keyview::host
