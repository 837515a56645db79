// The names of locks: a head and the path of the part of the tree that the lock covers.
#ifndef MODEL_LOCKS_H
#define MODEL_LOCKS_H

namespace model {

// "LKRT.DATABASE.DATABASES.<db>" covers a database, "LKRT.DATABASE.NODEAPPS.<node>" the
// applications of a node. "LKRT.DATABASE.DATABASES" covers the listing: the root and its children,
// no deeper.
inline constexpr char LOCK_HEAD[] = "LKRT.";

// "LKRT.STG.DATABASE.STG.<scope>.<name>" covers a storage manager entry.
inline constexpr char STG_LOCK_HEAD[] = "LKRT.STG.";

}  // namespace model

#endif
