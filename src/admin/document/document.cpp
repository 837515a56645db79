// See document.h.
#include "admin/document/document.h"

#include <utility>

#include "admin/document/reader.h"
#include "model/folding.h"

namespace keyview::admin {

// What only the registry shows about the document. What is pruned cannot be relied on.
static void check_against(const key_list &present, const document_plan &plan, bool prune,
                          problem_list *problems) {
    for (const question &asked : plan.instances) {
        if (!prune && present.find(asked.path) != key_list::NONE) continue;
        problems->add(asked.place,
                      "names an instance that neither the document nor the registry has");
    }
    for (const question &asked : plan.services) {
        // "a.b" and "a*b" share a key; to store one over the other would lose a service.
        size_t at = present.find(asked.path);
        if (at == key_list::NONE || *present[at].value == DAMAGED_VALUE) continue;
        const std::string_view stored = *present[at].value;
        std::string name(stored.substr(0, stored.find('\0')));
        if (!name.empty() && element_of(name) != element_of(asked.name)) {
            problems->add(asked.place,
                          "stands for a key at which the registry has another service: " + name);
        }
    }
}

change_result apply_document(std::string_view document, const change_options &options) {
    static constexpr const char *INVALID = "the document is invalid; nothing was written";
    problem_list faults;
    document_plan plan = read_document(document, &faults);
    faults.throw_if_any(INVALID);
    change_request request = {std::move(plan.changes), std::move(plan.locks)};
    for (const auto *questions : {&plan.instances, &plan.services})
        for (const question &asked : *questions)
            request.examines.push_back(asked.path);
    request.check = [&](const key_list &present) {
        problem_list problems;
        check_against(present, plan, options.prune, &problems);
        problems.throw_if_any(INVALID);
    };
    return change_registry("", std::move(request), options);
}

}  // namespace keyview::admin
