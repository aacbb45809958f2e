// xmlText — text for XML and HTML, in an element or in an attribute between double quotes.
#pragma once

#include <string>
#include <string_view>

namespace mlnn {

// Returns the text with everything that is markup as a reference, and with what could hide in it,
// or what XML cannot hold, made visible as `escaped` (text/Escape.h) does.
std::string xmlText(std::string_view text);

}  // namespace mlnn
