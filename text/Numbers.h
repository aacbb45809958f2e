// Numbers as text, the same in every locale.
#pragma once

#include <string>

namespace mlnn {

// With `digits` significant digits, as printf's %g: "0.5", "1e-07", "nan".
std::string generalNumber(double value, int digits);

// With `digits` digits after the point, as printf's %f.
std::string fixedNumber(double value, int digits);

// As many significant digits as always give a 32-bit float back exactly.
inline constexpr int kExactDigits = 9;

// "1 layer", "2 layers".
std::string counted(std::size_t number, const std::string& what);

}  // namespace mlnn
