// remarkOnNote — what is odd about a note line that the text reader looks into.
#pragma once

#include <string>

namespace mlnn {

// Returns what is wrong with a note line as a file has it ("# ..."): a line that means to set
// the normalisation, an option or a property, but does not do so, or not as it seems to.
// Returns "" for all other lines. The reader takes them all.
std::string remarkOnNote(const std::string& line);

}  // namespace mlnn
