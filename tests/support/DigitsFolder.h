// DigitsFolder — trained networks, recorded frames and what they must give, kept outside the
// source tree. Tests that want them are skipped where the folder is absent.
#pragma once

#include <Eigen/Core>
#include <string>

namespace mlnn::test {

// Returns the folder that the environment variable MLNN_DIGITS_DIR names, or else
// ../shared/digits beside the source tree; "" when there is no such folder.
std::string digitsFolder();

// What a test says when it is skipped for want of that folder.
extern const char kNoDigits[];

// Reads a .npy file of format 1.0 that holds 32-bit floats in C order, rows x values, as a
// matrix of values x rows. Throws std::runtime_error when it is anything else.
Eigen::MatrixXf readNpyFloats(const std::string& path);

}  // namespace mlnn::test
