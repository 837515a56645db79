// The tag of a database's record, which the fetch sets and the release checks.
#pragma once

#define PRSR_CFG_TAG "PRSRCFGB"
