// UnfinishedFile — a file that is removed unless the work on it comes to its end.
#pragma once

#include <string>

namespace mlnn {

// Removes the file that it holds when it goes, and when an interrupt (SIGINT, SIGTERM, SIGHUP)
// ends the process. At most one object holds a file at a time.
class UnfinishedFile {
 public:
  UnfinishedFile() = default;
  ~UnfinishedFile();
  UnfinishedFile(const UnfinishedFile&) = delete;
  UnfinishedFile& operator=(const UnfinishedFile&) = delete;

  void hold(const std::string& path);

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
