// Whether the readers of the tree can make sense of its names and values. What a document cannot
// say may still be well readable; keys that no field stands for belong to others and are left
// alone.
#pragma once

#include "admin/document/key_tree.h"
#include "admin/error.h"

namespace keyview::admin {

// The node stands above the roots. Only nodes that are told are looked at.
void check_tree(key_node *tree, problem_list *problems);

}  // namespace keyview::admin
