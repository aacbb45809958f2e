// UnfinishedFile — a file that is removed unless the work on it comes to its end.
#pragma once

#include <string>

#include "tools/files/FileDescriptor.h"

namespace mlnn {

// Removes the file that it holds when it goes, and when an interrupt (SIGINT, SIGTERM, SIGHUP)
// ends the process. At most one object holds a file at a time.
class UnfinishedFile {
 public:
  UnfinishedFile() = default;
  ~UnfinishedFile();
  UnfinishedFile(const UnfinishedFile&) = delete;
  UnfinishedFile& operator=(const UnfinishedFile&) = delete;

  // From now on signals are not handled: for a process that is not ours.
  static void leaveSignalsAlone();

  // Makes an empty file of a new name in the folder, and holds it: no signal comes between.
  // Returns: its descriptor; one that is not open where that cannot be, which errno tells.
  FileDescriptor makeIn(const std::string& folder);

  // Lets the file be.
  void release();

  // That of the file which is held, or "".
  const std::string& path() const { return path_; }

  // Removes the file that any object holds. Signal handlers may call it.
  static void removeAny() noexcept;

 private:
  std::string path_;
};

}  // namespace mlnn
