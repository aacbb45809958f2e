// Looks at every activation of every float, on the best instruction set of this processor.
// Usage: ActivationSweep [STRIDE]        every STRIDEth float only
//
// Prints the largest error of each activation, and fails where it is above 4 units in the last
// place, or the vectors differ from the single values.
#include <cstdlib>
#include <iostream>

#include "tests/support/ActivationError.h"

int main(int argc, char** argv) {
  constexpr double kUnitsAllowed = 4;
  const uint64_t stride = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1;
  if (stride == 0) {
    std::cerr << "ActivationSweep: expected a stride of 1 or more\n";
    return 2;
  }
  bool good = true;
  for (int32_t code = 0; code < ActFn::kCount; ++code) {
    const auto fn = static_cast<ActFn::ActFn>(code);
    const auto error = mlnn::test::worstError(mlnn::bestKernels(), fn, 0, stride);
    std::cout << ActFn::actFnToString(fn) << ": " << error.units << " units at " << error.at << ", "
              << error.disagreements << " values differ from the single ones\n";
    const bool agrees = !mlnn::bestKernels().fuses || error.disagreements == 0;
    good = good && agrees && error.units <= kUnitsAllowed && error.lostNaNs == 0;
  }
  return good ? 0 : 1;
}
