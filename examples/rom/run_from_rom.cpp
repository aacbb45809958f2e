// Runs a network from an array that is linked into the program: no file system, no copy of the
// weights, no iostreams. See README.md beside this file.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <vector>

#include "inference/ImageFwdPass.h"

// Defined in digits.c, which `mlnn convert` writes.
extern "C" const uint32_t digits_image[];
extern "C" const std::size_t digits_image_length;

// Takes the place of what prints the type of an exception that nobody catches: 47 KB of code.
#ifdef __GLIBCXX__
void __gnu_cxx::__verbose_terminate_handler() { std::abort(); }
#endif

int main() {
  mlnn::ImageFwdPass pass;
  if (pass.open(digits_image, digits_image_length) != 0) return 1;  // the reason is on stderr
  const std::vector<float> frame(static_cast<std::size_t>(pass.numInputs()));  // of zeros
  std::vector<float> posteriors(static_cast<std::size_t>(pass.numOutputs()));
  const mlnn::InputFrames inputs(frame.data(), pass.numInputs(), 1);
  const mlnn::OutputFrames outputs(posteriors.data(), pass.numOutputs(), 1);
  if (pass.evaluate(inputs, outputs) != 0) return 1;
  for (const float posterior : posteriors) std::printf("%g ", double{posterior});
  std::printf("\n");
}
