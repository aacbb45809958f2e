// UnfinishedFile — a file that is removed unless the work on it comes to its end.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "tools/files/FileDescriptor.h"

namespace mlnn {

// Removes the file that it holds when it goes, and when a signal from outside ends the process
// (SIGINT, SIGTERM, SIGXCPU and such; not SIGKILL). One thread has all these objects.
class UnfinishedFile {
 public:
  static constexpr std::size_t kMost = 512;  // that hold a file at a time

  UnfinishedFile() = default;
  ~UnfinishedFile();
  UnfinishedFile(UnfinishedFile&& other) noexcept;  // takes what the other one holds
  UnfinishedFile& operator=(UnfinishedFile&&) = delete;

  // From now on signals are not handled: for a process that is not ours.
  static void leaveSignalsAlone();

  // Makes an empty file of a new name in the folder, and holds it: no signal comes between.
  // Returns: its descriptor; one that is not open where that cannot be, which errno tells (EMFILE
  // where kMost objects hold a file).
  FileDescriptor makeIn(const std::string& folder);

  // Lets the file be.
  void release();

  // That of the file which is held, or "".
  const std::string& path() const;

  // Removes the files that objects hold. Signal handlers may call it.
  static void removeAny() noexcept;

 private:
  // The path is on the heap, where a signal handler finds it however the object moves.
  std::unique_ptr<const std::string> path_;
  std::size_t place_ = 0;  // among those that a handler removes
};

}  // namespace mlnn
