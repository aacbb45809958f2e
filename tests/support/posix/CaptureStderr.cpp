#include "tests/support/CaptureStderr.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <system_error>

namespace mlnn::test {
namespace {

int check(int result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

// A file without a name, which goes away with its descriptor.
int openUnnamedFile() {
  std::string path = std::filesystem::temp_directory_path() / "capture-XXXXXX";
  const int file = check(mkstemp(path.data()), "mkstemp");
  unlink(path.c_str());
  return file;
}

void flushStderr() {
  std::cerr.flush();
  std::fflush(stderr);
}

}  // namespace

CaptureStderr::CaptureStderr() : file_(openUnnamedFile()), saved_(dup(STDERR_FILENO)) {
  flushStderr();
  if (saved_ < 0 || dup2(file_, STDERR_FILENO) < 0) {
    const int cause = errno;
    close(file_);
    if (saved_ >= 0) close(saved_);
    throw std::system_error(cause, std::generic_category(), "redirecting standard error");
  }
}

CaptureStderr::~CaptureStderr() {
  restore();
  close(file_);
}

std::string CaptureStderr::text() {
  restore();
  std::string captured;
  char block[4096];
  for (off_t offset = 0;;) {
    const auto count = check(static_cast<int>(pread(file_, block, sizeof block, offset)), "pread");
    if (count == 0) return captured;
    captured.append(block, static_cast<std::size_t>(count));
    offset += count;
  }
}

void CaptureStderr::restore() noexcept {
  if (saved_ < 0) return;
  flushStderr();
  dup2(saved_, STDERR_FILENO);
  close(saved_);
  saved_ = -1;
}

}  // namespace mlnn::test
