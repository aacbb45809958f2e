// formatFloat — the decimal text of a float, as a stream or printf's %g would write it.
#pragma once

namespace mlnn {

// More digits than this take the standard library's own conversion.
inline constexpr int kMaxFastDigits = 9;

// The room that formatFloat takes for a precision: more than the text, since it stores several
// digits at once.
constexpr int floatTextLength(int precision) {
  return (precision < kMaxFastDigits ? kMaxFastDigits : precision) + 12;
}

// Writes `value` as printf's "%.*g" with this precision does in the classic locale.
// Returns: the position behind the text; no NUL is written.
// REQUIRES: precision is at least 1, and `out` has room for floatTextLength(precision).
// `scripts/check-all float-text` compares it with the standard library's on all 2^32 floats.
char* formatFloat(char* out, float value, int precision);

}  // namespace mlnn
