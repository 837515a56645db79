// The library's records as views, field by field under the records' own names. The tag and the
// reserved field are left out: they carry no information.
#pragma once

#include "ctl/view.h"
#include "keyview/if/prsr.h"

namespace keyview::ctl {

// For people the enabled flags of a service's instances follow the instances' names, and the
// counts and constants, which the lists show anyway, are left out.
view view_of(const prsr_cfg &record, output_format format);

view view_of(const prsr_stg_cfg &record, output_format format);
view view_of(const prsr_nodeapps_cfg &record, output_format format);

// A PRSR_RCN_* code with its word.
view policy_view(int32_t policy);

// An array of the library as a list: of returns the view of each entry; null stays null.
template <typename entry, typename entry_view>
view list_view(entry *entries, uint32_t count, const entry_view &of) {
    if (entries == nullptr) return {};
    view_list list;
    for (uint32_t n = 0; n < count; ++n)
        list.push_back(of(entries[n]));
    return {std::move(list)};
}

}  // namespace keyview::ctl
