// The map of one database as a picture: nodes across, services down.
#pragma once

#include <string>

#include "keyview/if/prsr.hpp"

namespace keyview::ctl {

// An SVG image, readable in light and dark and by a screen reader.
std::string svg_of(const prsr::database &record);

// A graph in the language of Graphviz.
std::string dot_of(const prsr::database &record);

}  // namespace keyview::ctl
