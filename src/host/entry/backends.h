// Which registry this process uses, and the choice of its kind by its URL.
#pragma once

#include <string>

#include "host/registry/backend.h"
#include "host/registry/diagnosis.h"

namespace keyview::host {

// The registry's URL: the program's choice, else KEYVIEW_REGISTRY. Throws failure::usage if neither
// is set.
std::string registry_url();

// Sets the program's choice; an empty URL returns to the environment.
void choose_registry(const std::string &url);

// Throws failure::usage if the URL is of no known kind.
void check_registry_url(const std::string &url);

// Opens the registry of a URL; with open_mode::existing, one that does not exist is
// failure::not_found. Backends of one registry are shared within the process.
backend open_backend(const std::string &url, open_mode mode);

// Inspects all of a registry, also one that is too damaged to be opened, and delivers its sound
// keys, in no order. Writers wait meanwhile.
check_counts check_backend(const std::string &url, const damage_sink &damage, const row_sink &sink);

// Inspects how a registry is configured and reached.
void diagnose_backend(const std::string &url, const diagnosis_sink &sink);

}  // namespace keyview::host
