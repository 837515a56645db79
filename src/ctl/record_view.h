// The library's records as views, field by field under the records' own names. The tag and the
// reserved field are left out: they carry no information.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>

#include "ctl/view.h"
#include "keyview/if/prsr.hpp"

namespace keyview::ctl {

// For people the enabled flags of a service's instances follow the instances' names, and the
// counts and constants, which the lists show anyway, are left out.
view view_of(const prsr::database &record, output_format format);

view view_of(const prsr::storage_manager &record, output_format format);
view view_of(const prsr::node_applications &record, output_format format);

// A failover policy with its word.
view policy_view(prsr::failover policy);

// How many records of a list are enabled; for people "2 of 3".
template <typename records>
int64_t enabled_of(const records &listed) {
    return std::count_if(listed.begin(), listed.end(),
                         [](const auto &one) { return one.enabled(); });
}

template <typename records>
std::string enabled_share(const records &listed) {
    return std::to_string(enabled_of(listed)) + " of " + std::to_string(listed.size());
}

// A list of the library: of returns the view of each entry; a null list is null.
template <typename entries, typename entry_view>
view list_view(const entries &listed, const entry_view &of) {
    if (listed.is_null()) return {};
    view_list list;
    list.reserve(static_cast<size_t>(listed.size()));
    for (const auto &entry : listed)
        list.push_back(of(entry));
    return {std::move(list)};
}

}  // namespace keyview::ctl
