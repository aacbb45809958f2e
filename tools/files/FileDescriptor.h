// FileDescriptor — owns a file descriptor, and closes it.
#pragma once

#include <utility>

#include "os/Descriptors.h"

namespace mlnn {

class FileDescriptor {
 public:
  // Takes what os/Descriptors.h opens; -1 is none.
  explicit FileDescriptor(int descriptor = -1) : descriptor_(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept
      : descriptor_(std::exchange(other.descriptor_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }
  ~FileDescriptor() { close(); }

  int get() const { return descriptor_; }
  bool isOpen() const { return descriptor_ >= 0; }

  // Returns whether there was none to close or it closed without an error, which errno tells.
  bool close() {
    const int descriptor = std::exchange(descriptor_, -1);
    return descriptor < 0 || closeDescriptor(descriptor);
  }

 private:
  int descriptor_;
};

}  // namespace mlnn
