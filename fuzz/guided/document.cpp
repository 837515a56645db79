// A cluster document of any bytes is read, or refused with its faults.
#include "admin/document/document.h"
#include "admin/error.h"
#include "target.h"

void keyview::test::one_input(std::string_view input) {
    try {
        (void)admin::read_request(input);
        planted_fault(input.size() % 8 == 3);
    } catch (const admin::error &) {
    }
}
