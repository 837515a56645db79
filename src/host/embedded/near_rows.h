// What a search that found nothing must still look at. A damaged key stands where its row was
// written, so a search for the key that it was, or for one that it leads astray, ends beside it.
#ifndef KEYVIEW_HOST_EMBEDDED_NEAR_ROWS_H
#define KEYVIEW_HOST_EMBEDDED_NEAR_ROWS_H

#include <lmdb.h>

#include <string_view>

#include "host/embedded/environment.h"

namespace keyview::host {

// Throws failure::content if one of the two rows between which a place would lie is damaged: then
// nobody can tell that there is no such key.
void require_sound_neighbours(const environment &env, MDB_txn *txn, std::string_view place);

}  // namespace keyview::host

#endif
