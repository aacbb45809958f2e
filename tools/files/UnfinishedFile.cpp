#include "tools/files/UnfinishedFile.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <memory>
#include <utility>

#include "os/EndingSignals.h"
#include "os/Names.h"
#include "os/Replacing.h"

namespace mlnn {
namespace {

// What a signal handler removes, null where there is nothing; handlers reach nothing but globals.
std::array<std::atomic<const char*>, UnfinishedFile::kMost> filesToRemove{};
std::size_t filesHeld = 0;

std::atomic<bool> areSignalsHandled{true};

void handleSignals(void (*clean)()) {
  if (areSignalsHandled) callBeforeEnd(clean);
}

}  // namespace

UnfinishedFile::UnfinishedFile(UnfinishedFile&& other) noexcept
    : path_(std::move(other.path_)), place_(other.place_) {}

UnfinishedFile::~UnfinishedFile() {
  if (path_ == nullptr) return;
  removeFile(path_->c_str());
  release();
}

void UnfinishedFile::leaveSignalsAlone() { areSignalsHandled = false; }

const std::string& UnfinishedFile::path() const {
  static const std::string none;
  return path_ != nullptr ? *path_ : none;
}

// Nothing that takes memory stands behind the making of the file.
FileDescriptor UnfinishedFile::makeIn(const std::string& folder) {
  const auto free = std::find(filesToRemove.begin(), filesToRemove.end(), nullptr);
  if (free == filesToRemove.end()) {
    errno = EMFILE;
    return FileDescriptor();
  }
  auto path = std::make_unique<std::string>(nameOf(pathOf(folder) / ".mlnn-"));
  path->reserve(path->size() + kEndingOfNewFile);
  const EndingSignalsWait wait;
  FileDescriptor descriptor(makeNewFile(*path));
  if (!descriptor.isOpen()) return descriptor;
  path_ = std::move(path);
  place_ = static_cast<std::size_t>(free - filesToRemove.begin());
  *free = path_->c_str();
  if (filesHeld++ == 0) handleSignals(removeAny);
  return descriptor;
}

void UnfinishedFile::release() {
  const EndingSignalsWait wait;  // for a moment, ignored ones are not
  filesToRemove[place_] = nullptr;
  if (--filesHeld == 0) handleSignals(nullptr);
  path_.reset();
}

void UnfinishedFile::removeAny() noexcept {
  for (const std::atomic<const char*>& file : filesToRemove) {
    if (const char* path = file.load()) removeFile(path);
  }
}

}  // namespace mlnn
