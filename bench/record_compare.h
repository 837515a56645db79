// Whether two records say the same, field by field: nothing is timed before that was seen.
#pragma once

#include "keyview/if/prsr.h"

namespace keyview::bench {

bool same_record(const prsr_cfg &a, const prsr_cfg &b);

bool same_list(char *const *a, uint32_t a_count, char *const *b, uint32_t b_count);

}  // namespace keyview::bench
