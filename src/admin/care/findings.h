// What can be wrong in a registry: one table of findings, and the inspection of a tree that makes
// them. "check" reports those that keep readers from reading, "lint" also what is out of their sight,
// and "export" stops at those that no document can express.
#pragma once

#include <string>
#include <vector>

#include "admin/error.h"
#include "admin/key_map.h"
#include "model/records.h"

namespace keyview::admin {

struct finding_row {
    const char *name, *severity;  // "error": readers fail or differ; "warning": anything else
    const char *meaning;
    const char *remedy;  // the command that lint proposes, or what a person has to decide
    bool by_check, by_lint, by_export;
};
rows<finding_row> finding_rows();

// One finding. It has a remedy where there is one way to mend it, else the decision that a person
// has to make.
struct finding {
    const finding_row *row;
    std::string path;    // of the key; of damage it may be an offset or a page of the file
    std::string reason;  // a sentence without its subject
    std::string readers_see;
    std::vector<std::string> remedy = {};  // the arguments of keyviewctl that mend it
    std::string decision = {};             // such as "which of PRIMARY, ... it is"
};

// Inspects the sound keys of a tree. damage is what was found in the rest, and comes first; repairable
// is whether the registry can be opened, so that keys can be set and removed.
std::vector<finding> findings_of(const key_map &keys, const std::vector<problem> &damage = {},
                                 bool repairable = true);

// Whether a finding is about a record's own value, which is its registered name.
bool is_about_name(const finding &found);

// What "export --salvage" does about a finding.
void leave_out(const finding &found, key_map *keys);

}  // namespace keyview::admin
