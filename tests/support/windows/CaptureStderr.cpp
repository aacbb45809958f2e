#include "tests/support/CaptureStderr.h"

#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <random>
#include <system_error>

namespace mlnn::test {
namespace {

constexpr int kStandardErrorStream = 2;

int check(int result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

// A file that goes away with its descriptor.
int openTemporaryFile() {
  const std::filesystem::path path = std::filesystem::temp_directory_path() /
                                     ("capture-" + std::to_string(std::random_device()()));
  return check(_wopen(path.c_str(), _O_RDWR | _O_CREAT | _O_EXCL | _O_BINARY | _O_TEMPORARY,
                      _S_IREAD | _S_IWRITE),
               "_wopen");
}

void flushStderr() {
  std::cerr.flush();
  std::fflush(stderr);
}

}  // namespace

CaptureStderr::CaptureStderr() : file_(openTemporaryFile()), saved_(_dup(kStandardErrorStream)) {
  flushStderr();
  check(saved_, "_dup");
  check(_dup2(file_, kStandardErrorStream), "_dup2");
  _setmode(kStandardErrorStream, _O_BINARY);
}

CaptureStderr::~CaptureStderr() {
  restore();
  _close(file_);
}

std::string CaptureStderr::text() {
  restore();
  std::string captured;
  char block[4096];
  _lseek(file_, 0, SEEK_SET);
  for (;;) {
    const int count = check(_read(file_, block, sizeof block), "_read");
    if (count == 0) return captured;
    captured.append(block, static_cast<std::size_t>(count));
  }
}

void CaptureStderr::restore() noexcept {
  if (saved_ < 0) return;
  flushStderr();
  _dup2(saved_, kStandardErrorStream);
  _close(saved_);
  saved_ = -1;
}

}  // namespace mlnn::test
