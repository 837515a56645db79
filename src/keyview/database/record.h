// The tag of a database's record, which the fetch sets and the release checks.
#ifndef KEYVIEW_DATABASE_RECORD_H
#define KEYVIEW_DATABASE_RECORD_H

#define PRSR_CFG_TAG "PRSRCFGB"

#endif
