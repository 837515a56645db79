// A kind of registry, as a row of functions for the choice by URL. The embedded kind is part of the
// kit; the one for clusters comes from a module that is loaded at its first use.
#pragma once

#include <string>

#include "host/registry/backend.h"
#include "host/registry/diagnosis.h"

namespace keyview::host {

// Each takes the whole URL.
struct backend_kind {
    void (*check_url)(const std::string &url);  // throws failure::usage
    backend (*open)(const std::string &url, open_mode mode);
    check_counts (*check)(const std::string &url, const damage_sink &damage, const row_sink &sink);
    void (*diagnose)(const std::string &url, const diagnosis_sink &sink);
};

// A module exports its row under this name; the number is the version of the row.
#define KEYVIEW_BACKEND_KIND keyview_backend_kind_3

}  // namespace keyview::host
