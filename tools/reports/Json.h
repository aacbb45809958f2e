// JSON as the tool's commands print it.
#pragma once

#include <nlohmann/json.hpp>

namespace mlnn {

// Keys stay in the order in which they were set.
using Json = nlohmann::ordered_json;

// Prints JSON on the standard output, in ASCII. What it cannot hold is replaced: bytes that are
// not UTF-8 become U+FFFD, numbers that are not finite null.
void printJson(const Json& json);

// The same on one line, which leaves the process at once.
void printJsonLine(const Json& json);

}  // namespace mlnn
