// FloatReader — takes floats from a stream exactly as `in >> value` does, but faster.
#pragma once

#include <cstddef>
#include <istream>

namespace mlnn {

// Looks at the characters that the stream has in its buffer. A number in plain decimal form
// that ends there is converted on the spot; everything else (a number at the buffer's end or
// the file's, an overflow, anything that is no number, a stream with a locale of its own) is
// left to the stream's own extraction. So values, stream state, position and what a failure
// leaves in its target are those of the stream.
//
// Lifetime: the stream must outlive the reader. Nothing is kept between calls, so other reads
// of the stream may come between them.
class FloatReader {
 public:
  // REQUIRES: the stream's locale and flags stay as they are.
  explicit FloatReader(std::istream& in);

  // Reads up to `count` floats; stops behind the first that fails.
  // Returns: how many targets were reached, the failed one included; whether the last of them
  // was read is in the stream's state. A failed extraction leaves its target as the stream
  // does: 0, the largest float on overflow, or untouched when the stream had failed before.
  std::size_t read(float* values, std::size_t count);

 private:
  std::size_t readBuffered(float* values, std::size_t count);

  std::istream& in_;
  bool isPlain_;  // the stream reads numbers as the classic locale does
};

// Converts the number at `text`, in the plain form [-]digits[.digits][e[+-]digits].
// Returns: the position behind it with `value` set to the nearest float; nullptr, and `value`
// unchanged, when there is no number of that form, when it reaches `end`, or when its value
// overflows or underflows.
const char* parsePlainFloat(const char* text, const char* end, float& value);

}  // namespace mlnn
