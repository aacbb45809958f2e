#include "tests/support/Extent.h"

#include <cstdlib>

namespace mlnn::test {

bool triesEverything() { return std::getenv("MLNN_EXHAUSTIVE") != nullptr; }

bool triesSample() { return MLNN_TEST_SAMPLE && !triesEverything(); }

}  // namespace mlnn::test
