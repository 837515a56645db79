// The states of a directory behind a power failure.
#include "crash_states.h"

#include <algorithm>

namespace keyview::test {

using kind = file_event::kind;

constexpr size_t SECTOR = 512;

void crash_states::write(std::string *content, const file_event &event, share part) {
    if (event.what == kind::resize) {
        content->resize(event.offset);
        return;
    }
    if (part.from >= part.to) return;
    content->resize(std::max(content->size(), event.offset + part.to));
    content->replace(event.offset + part.from, part.to - part.from, event.data, part.from,
                     part.to - part.from);
}

static void apply_name(std::map<std::string, size_t> *names, const file_event &event) {
    if (event.what == kind::make) (*names)[event.name] = event.file;
    if (event.what == kind::rename && names->count(event.name) == 1) {
        (*names)[event.other] = (*names)[event.name];
        names->erase(event.name);
    }
    if (event.what == kind::remove) names->erase(event.name);
}

// A sync of a file makes no name durable; one of the directory no content.
void crash_states::happen(const file_event &event) {
    switch (event.what) {
        case kind::make_directory:
            directory_ = true;
            break;
        case kind::make:
        case kind::rename:
        case kind::remove:
            pending_names_.push_back(&event);
            break;
        case kind::note:
            ++notes_;
            break;
        case kind::sync_names:
            for (const file_event *name : pending_names_)
                apply_name(&names_, *name);
            pending_names_.clear();
            break;
        case kind::write:
        case kind::resize:
            pending_.push_back(&event);
            if (!event.durable) break;
            [[fallthrough]];
        case kind::sync: {
            // A durable write takes along what is pending of its pages, and no other.
            auto ends = [&](const file_event *one) {
                bool same = one->file == event.file;
                bool overlaps = one->offset / 4096 == event.offset / 4096;
                return same && (event.what == kind::sync || one == &event || overlaps);
            };
            for (const file_event *one : pending_)
                if (ends(one)) write(&durable_[one->file], *one, {0, one->data.size()});
            pending_.erase(std::remove_if(pending_.begin(), pending_.end(), ends), pending_.end());
            break;
        }
    }
}

// The first or the last sectors of a write, or all but one.
crash_states::share crash_states::torn(const file_event &event) {
    size_t size = event.data.size();
    size_t cut = std::min(size, random_() % (size / SECTOR + 1) * SECTOR);
    return random_() % 2 == 0 ? share{0, cut} : share{cut, size};
}

crash_state crash_states::state(const std::vector<share> &shares, size_t names,
                                const char *how) const {
    crash_state out;
    out.directory = directory_;
    out.notes = notes_;
    out.how = how;
    std::map<size_t, std::string> contents = durable_;
    for (size_t n = 0; n < pending_.size(); ++n) {
        bool there = shares[n].to > 0 || pending_[n]->what == kind::resize;
        if (there) write(&contents[pending_[n]->file], *pending_[n], shares[n]);
    }
    std::map<std::string, size_t> known = names_;
    for (size_t n = 0; n < names; ++n)
        apply_name(&known, *pending_names_[n]);
    for (const auto &[name, file] : known)
        out.files[name] = std::move(contents[file]);
    return out;
}

}  // namespace keyview::test
