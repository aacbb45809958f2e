// OutputBatch — files that reach the disk together, and then take their names.
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "tools/files/OutputFile.h"
#include "tools/files/UnfinishedFile.h"

namespace mlnn {

// Waiting for the disk once for many files takes little more time than for one. Until then, and
// after an interrupt, whatever had their names is untouched.
class OutputBatch {
 public:
  // Which file, in the order of their coming since the last commit, has failed, and how.
  using Failures = std::vector<std::pair<std::size_t, WriteFailure>>;

  // Takes a file that is whole, but for its name. What was written directly, and so has one
  // already, counts in the order as well.
  // REQUIRES: !isFull()
  // Throws: WriteFailure when it is not; then it does not count.
  void add(OutputFile& file);

  // Whether it holds so many files that commit must come before the next one: each takes a
  // descriptor until then.
  bool isFull() const;

  // Waits until all are on the disk and gives them their names. Files that fail are removed.
  Failures commit();

 private:
  std::vector<OutputFile::Whole> files_;
};

}  // namespace mlnn
