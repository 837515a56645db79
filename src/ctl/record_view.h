// The library's records as views, field by field under the records' own names. The tag and the
// reserved field are left out: they say nothing.
#ifndef KEYVIEW_CTL_RECORD_VIEW_H
#define KEYVIEW_CTL_RECORD_VIEW_H

#include "ctl/view.h"
#include "keyview/if/prsr.h"

namespace keyview::ctl {

// For people the enabled flags of a service's instances stand with the instances' names, and the
// counts and constants, which the lists show anyway, are left out.
view view_of(const prsr_cfg &record, output_format format);

view view_of(const prsr_stg_cfg &record, output_format format);
view view_of(const prsr_nodeapps_cfg &record, output_format format);

// A PRSR_RCN_* code with its word.
view policy_view(int32_t policy);

// count strings as they are; null stays null.
view strings_view(char *const *strings, uint32_t count);

}  // namespace keyview::ctl

#endif
