// Runs a network from an array that is linked into the program: no file system, no copy of the
// weights. See README.md beside this file.
#include <cstddef>
#include <cstdint>
#include <iostream>

#include "inference/ImageFwdPass.h"

// Defined in digits.c, which `mlnn convert` writes.
extern "C" const uint32_t digits_image[];
extern "C" const std::size_t digits_image_length;

int main() {
  mlnn::ImageFwdPass pass;
  if (pass.open(digits_image, digits_image_length) != 0) return 1;  // the reason is on stderr
  const Eigen::MatrixXf inputs = Eigen::MatrixXf::Zero(pass.numInputs(), 1);  // a frame a column
  Eigen::MatrixXf outputs;
  if (pass.evaluate(inputs, outputs) != 0) return 1;
  std::cout << outputs.transpose() << "\n";
}
