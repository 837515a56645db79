// A document in YAML becomes JSON or is refused; what it became is the same again behind a writer.
#include "ctl/yaml_text.h"

#include <stdexcept>
#include <string>

#include "admin/error.h"
#include "target.h"

using nlohmann::ordered_json;

static ordered_json value_of(std::string_view yaml) {
    return ordered_json::parse(keyview::ctl::json_text_of("input.yaml", std::string(yaml)), nullptr,
                               false);
}

void keyview::test::one_input(std::string_view input) {
    ordered_json value;
    try {
        value = value_of(input);
    } catch (const admin::error &) {
        return;
    }
    if (value.is_discarded())
        return;  // bytes that are no UTF-8: the reader of documents refuses them
    planted_fault(value.is_object() && value.begin().value().is_number_float());
    for (bool ascii : {false, true}) {
        if (value_of(ctl::yaml_of(value, ascii)) != value)
            throw std::runtime_error("YAML that was written means something else");
    }
}
