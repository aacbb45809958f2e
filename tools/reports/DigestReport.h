// DigestReport — the digests of a model's parts as text and as JSON, and read back.
#pragma once

#include <iosfwd>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "analysis/ModelDigest.h"

namespace mlnn {

// Prints the digests, one a line.
void printDigest(const ModelDigest& digest, std::ostream& out);
nlohmann::ordered_json jsonOf(const ModelDigest& digest);

// Reads what printDigest printed, or JSON that has what jsonOf makes as its "digest".
// Throws: Failure that names the file where it is neither.
ModelDigest parseDigest(const std::string& text, const std::string& fileName);

}  // namespace mlnn
