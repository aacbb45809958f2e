// The words of examples/digits.
#pragma once

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/SourceTree.h"

namespace mlnn::test {

// The names of the 30 recordings, without their suffix, sorted.
inline std::vector<std::string> recordings() {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(sourcePath("examples/digits/wav"))) {
    names.push_back(entry.path().stem().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

inline std::string wavPath(const std::string& name) {
  return sourcePath("examples/digits/wav/" + name + ".wav");
}

}  // namespace mlnn::test
