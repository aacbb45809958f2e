#include "tools/files/OutputBatch.h"

#include <algorithm>
#include <set>

#include "os/Names.h"
#include "os/Replacing.h"

namespace mlnn {
namespace {

bool areOnDiskTogether(const std::vector<OutputFile::Whole>& files) {
  std::set<std::string> folders;
  for (const OutputFile::Whole& file : files) {
    if (file.hasNoName()) folders.insert(nameOf(pathOf(file.path()).parent_path()));
  }
  return folders.empty() || reachDiskTogether({folders.begin(), folders.end()});
}

// A quarter of the descriptors that the process may have, and no more than half of what a signal
// can remove.
std::size_t mostFiles() {
  constexpr long kMost = UnfinishedFile::kMost / 2;
  return static_cast<std::size_t>(std::clamp(mostDescriptors() / 4, 1L, kMost));
}

}  // namespace

bool OutputBatch::isFull() const { return files_.size() >= mostFiles(); }

void OutputBatch::add(OutputFile& file) { files_.push_back(file.whole()); }

// One file waits for itself as ever; and where waiting together fails, each does, which tells the
// one that failed.
OutputBatch::Failures OutputBatch::commit() {
  Failures failures;
  const bool areOnDisk = files_.size() > 1 && areOnDiskTogether(files_);
  for (std::size_t i = 0; i < files_.size(); ++i) {
    try {
      if (!areOnDisk) files_[i].waitForDisk();
      files_[i].takeName();
    } catch (const WriteFailure& failure) {
      failures.emplace_back(i, failure);
    }
  }
  files_.clear();
  return failures;
}

}  // namespace mlnn
