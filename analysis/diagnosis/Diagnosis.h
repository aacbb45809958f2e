// diagnose — finds the first place of a model file that does not fit its format.
//
// A walk over the bytes beside the library's reader: it finds a place exactly where the reader
// refuses a file that it reads into a new model, and says more about it. Memory stays in
// proportion to the file's length, time to its length.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "analysis/Suspicion.h"
#include "features/Export.h"
#include "features/Watch.h"

namespace mlnn {

// A place and what is wrong there. Text from the file is escaped.
struct Misfit {
  std::size_t offset = 0;  // of the first byte that does not fit; the length at the file's end
  std::size_t line = 0;    // of a text file, from 1; 0 in an image
  std::size_t column = 0;  // in bytes, from 1; 0 in an image
  std::string field;       // what stands there, as in "layer 2, row 3, weight 7"
  std::string expected;    // what the format asks for there
  std::string found;       // what is there instead
  std::string hint;        // what may be the reason; may be empty
};

// Returns the first misfit of a file of either format, nothing when there is none.
// `watch` is told of bytes.
MLNN_EXPORT std::optional<Misfit> diagnose(std::string_view file, const Watch& watch = {});

// Returns "line 31, column 5: layer 2, row 3, weight 7: expected a number, found 'abc'", with
// "byte 1000" in place of line and column for an image.
MLNN_EXPORT std::string describe(const Misfit& misfit);

// Returns the lines of a text model file that the reader takes, but not as they seem to be
// meant: text that it leaves out, and note lines that do not set what they mean to. `watch` is told
// of bytes.
MLNN_EXPORT std::vector<Suspicion> suspiciousLines(std::string_view text, const Watch& watch = {});

// What is found where a file is over.
inline constexpr char kEndOfFile[] = "the end of the file";

}  // namespace mlnn
