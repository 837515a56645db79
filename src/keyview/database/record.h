// What the fetch of a database's record and its release share.
#ifndef KEYVIEW_DATABASE_RECORD_H
#define KEYVIEW_DATABASE_RECORD_H

#define PRSR_CFG_TAG "PRSRCFGB"

#endif
