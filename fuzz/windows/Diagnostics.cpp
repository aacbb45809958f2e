// Both streams go to one descriptor, which is a file meanwhile: stdio's cannot be replaced.
#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <random>

#include "fuzz/Support.h"

namespace mlnn::fuzz {
namespace {

constexpr int kStandardErrorStream = 2;

// Where findings are told; the descriptor itself may be the file.
int shownDescriptor() {
  static const int descriptor = _dup(kStandardErrorStream);
  return descriptor;
}

int openTemporaryFile() {
  const std::filesystem::path path = std::filesystem::temp_directory_path() /
                                     ("diagnostics-" + std::to_string(std::random_device()()));
  const int file =
      _wopen(path.c_str(), _O_RDWR | _O_CREAT | _O_EXCL | _O_BINARY | _O_TEMPORARY | _O_APPEND,
             _S_IREAD | _S_IWRITE);
  require(file >= 0, "there is no temporary file");
  return file;
}

int gatheringFile() {
  shownDescriptor();
  static const int file = openTemporaryFile();
  return file;
}

}  // namespace

void report(const std::string& finding) {
  const std::string line = "FINDING: " + finding + "\n";
  _write(shownDescriptor(), line.data(), static_cast<unsigned>(line.size()));
  std::abort();
}

Diagnostics::Diagnostics() : shown_{nullptr, nullptr, -1} {
  const int file = gatheringFile();
  shown_.descriptor = _dup(kStandardErrorStream);
  require(_dup2(file, kStandardErrorStream) == 0, "_dup2 failed");
  _setmode(kStandardErrorStream, _O_BINARY);
  clear();
}

Diagnostics::~Diagnostics() {
  std::fflush(stderr);
  _dup2(shown_.descriptor, kStandardErrorStream);
  _close(shown_.descriptor);
}

std::string_view Diagnostics::text() const {
  static std::array<char, std::size_t{1} << 20> memory;
  std::fflush(stderr);
  _lseek(gatheringFile(), 0, SEEK_SET);
  const int length = _read(gatheringFile(), memory.data(), static_cast<unsigned>(memory.size()));
  return {memory.data(), length > 0 ? static_cast<std::size_t>(length) : 0};
}

void Diagnostics::clear() {
  std::fflush(stderr);
  _chsize(gatheringFile(), 0);
  _lseek(gatheringFile(), 0, SEEK_SET);
}

}  // namespace mlnn::fuzz
