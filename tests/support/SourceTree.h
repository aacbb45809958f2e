// sourcePath — where the tests find files of the source tree.
#pragma once

#include <string>

namespace mlnn::test {

// Returns the path of a file or folder, given relative to the root of the source tree,
// wherever the test is started.
std::string sourcePath(const std::string& relative);

}  // namespace mlnn::test
