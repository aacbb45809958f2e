// Handle — owns a handle of the system, and closes it. For the sources of this folder alone.
#pragma once

#include "os/windows/Windows.h"

namespace mlnn {

// Others may do with the file what they like meanwhile, as elsewhere.
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

class Handle {
 public:
  explicit Handle(HANDLE handle) : handle_(handle) {}
  ~Handle() {
    if (isOpen()) CloseHandle(handle_);
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  HANDLE get() const { return handle_; }
  bool isOpen() const { return handle_ != nullptr && handle_ != INVALID_HANDLE_VALUE; }

  // Returns the handle, which is the caller's from then on.
  HANDLE release() {
    HANDLE const handle = handle_;
    handle_ = nullptr;
    return handle;
  }

 private:
  HANDLE handle_;
};

}  // namespace mlnn
