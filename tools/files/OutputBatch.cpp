#include "tools/files/OutputBatch.h"

#include <fcntl.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <set>

#include "tools/files/FileDescriptor.h"

namespace mlnn {
namespace {

// Whether syncfs tells that something did not reach the disk: Linux does since 5.8.
bool tellsFailures() {
  utsname system;
  if (uname(&system) != 0) return false;
  char* rest = nullptr;
  const long major = std::strtol(system.release, &rest, 10);
  const long minor = *rest == '.' ? std::strtol(rest + 1, nullptr, 10) : 0;
  return major > 5 || (major == 5 && minor >= 8);
}

// Waits until all that was written to the file system of the folder is on the disk.
bool syncAround(const std::string& folder) {
  const FileDescriptor descriptor(
      open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return descriptor.isOpen() && syncfs(descriptor.get()) == 0;
}

bool reachDiskTogether(const std::vector<OutputFile::Whole>& files) {
  std::set<std::string> folders;
  for (const OutputFile::Whole& file : files) {
    if (file.hasNoName()) folders.insert(std::filesystem::path(file.path()).parent_path().string());
  }
  if (folders.empty()) return true;
  return tellsFailures() && std::all_of(folders.begin(), folders.end(), syncAround);
}

// A quarter of the descriptors that the process may have, and no more than half of what a signal
// can remove.
std::size_t mostFiles() {
  constexpr long kMost = UnfinishedFile::kMost / 2;
  return static_cast<std::size_t>(std::clamp(sysconf(_SC_OPEN_MAX) / 4, 1L, kMost));
}

}  // namespace

bool OutputBatch::isFull() const { return files_.size() >= mostFiles(); }

void OutputBatch::add(OutputFile& file) { files_.push_back(file.whole()); }

// One file waits for itself as ever; and where waiting together fails, each does, which tells the
// one that failed.
OutputBatch::Failures OutputBatch::commit() {
  Failures failures;
  const bool areOnDisk = files_.size() > 1 && reachDiskTogether(files_);
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
