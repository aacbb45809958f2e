// misfitOfRowCodes — why a reader refuses weights that are a scale a row and codes.
#pragma once

#include <cstddef>
#include <string>

#include "layers/RowCodes.h"

namespace mlnn {

// What does not fit, and where.
struct RowCodesMisfit {
  const void* place;  // within the scales or codes; null where it is the form itself
  std::string field;
  std::string expected;
  std::string found;
};

// Looks at the scales, then at the codes, then at how they go together, each row by row.
// REQUIRES: all scales and codes are there, and a reader refuses them. There are rows and columns.
RowCodesMisfit misfitOfRowCodes(const RowCodesView& view);

}  // namespace mlnn
