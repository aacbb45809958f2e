// Where the text of a feature description stops being one.
#pragma once

#include <cstddef>
#include <string>

namespace mlnn {

// Returns a well-formed description, to show what one looks like.
std::string descriptionForm();

// Returns the offset of the first part of the text that does not fit the form of a feature
// description; the text's length where something is missing at its end.
std::size_t misfitOfDescription(const std::string& text);

}  // namespace mlnn
