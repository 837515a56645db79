// From a cluster document to what must happen in the registry. Reads no registry.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "admin/key_list.h"
#include "admin/registry.h"

namespace keyview::admin {

// Something that only the registry can tell: a path, and the place in the document that asks.
struct question {
    std::string place;
    std::string path;
    std::string asker;  // the key whose record names it
    std::string name;   // as the document spells it
};

struct document_plan {
    key_list changes;                 // each a put
    std::vector<question> instances;  // named by a service only: the key must exist
    std::vector<question> services;   // the key may hold another service's name
};

// What a document asks for; of no use if there are problems.
document_plan read_document(std::string_view text, problem_list *problems);

}  // namespace keyview::admin
