// The .npy file format: a header that describes an array, and its values.
#pragma once

#include <Eigen/Core>
#include <iosfwd>
#include <string>

namespace mlnn {

// Whether the bytes begin as a .npy file does.
bool isNpy(const std::string& bytes);

// Parses an array of frames x values: versions 1.0, 2.0 and 3.0, little-endian float32 or
// float64, either memory order. One dimension means one frame. Values are rounded to single
// precision. Nothing is allocated before the sizes are known to agree with the bytes.
// Returns: values x frames.
// Throws: Failure that begins with `what`.
Eigen::MatrixXf parseNpy(const std::string& bytes, const std::string& what);

// Writes values x frames as an array of frames x values: version 1.0, float32, C order.
void writeNpy(const Eigen::MatrixXf& frames, std::ostream& out);

}  // namespace mlnn
