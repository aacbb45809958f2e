#include "tests/support/SourceTree.h"

namespace mlnn::test {

std::string sourcePath(const std::string& relative) {
  return std::string(MLNN_SOURCE_DIR "/") + relative;
}

}  // namespace mlnn::test
