// See document.h.
#include "admin/document/document.h"

#include <utility>

#include "admin/document/reader.h"
#include "model/folding.h"

namespace keyview::admin {

// What only the registry shows about the document. What is pruned cannot be relied on.
static void check_instances(const key_list &present, const std::vector<question> &instances,
                            problem_list *problems) {
    for (const question &asked : instances) {
        if (present.find(asked.path) != key_list::NONE) continue;
        problems->add(asked.place,
                      "names an instance that neither the document nor the registry has");
    }
}

static void check_services(const key_list &present, const std::vector<question> &services,
                           problem_list *problems) {
    for (const question &asked : services) {
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

ready_request read_request(std::string_view document) {
    static constexpr const char *INVALID = "the document is invalid; nothing was written";
    problem_list faults;
    document_plan plan = read_document(document, &faults);
    faults.throw_if_any(INVALID);
    change_request request;
    request.changes = std::move(plan.changes);
    request.locks = further_locks::of_records;
    for (const auto *questions : {&plan.instances, &plan.services})
        for (const question &asked : *questions)
            request.examines.push_back(asked.path);
    request.check = [instances = std::move(plan.instances), services = std::move(plan.services)](
                        const key_list &present, bool prunes) {
        problem_list problems;
        if (prunes) check_instances(key_list(), instances, &problems);
        if (!prunes) check_instances(present, instances, &problems);
        check_services(present, services, &problems);
        problems.throw_if_any(INVALID);
    };
    return ready(std::move(request));
}

change_result apply_document(std::string_view document, const change_options &options) {
    return change_registry("", read_request(document), options);
}

}  // namespace keyview::admin
