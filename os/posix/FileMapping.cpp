#include "os/FileMapping.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <limits>
#include <utility>

namespace mlnn {
namespace {

// Returns 0 for a regular file that memory could hold, with its length in `length`; else an errno.
int lengthOf(int descriptor, std::size_t& length) {
  struct stat status;
  if (fstat(descriptor, &status) != 0) return errno;
  if (S_ISDIR(status.st_mode)) return EISDIR;
  if (!S_ISREG(status.st_mode)) return ENODEV;
  if (static_cast<uint64_t>(status.st_size) > std::numeric_limits<std::size_t>::max()) return EFBIG;
  length = static_cast<std::size_t>(status.st_size);
  return 0;
}

}  // namespace

FileMapping::FileMapping(int descriptor, std::size_t length) { map(descriptor, length); }

FileMapping::FileMapping(const char* fileName) {
  // Without O_NONBLOCK, a pipe that nobody writes to would keep the caller waiting.
  const int descriptor = open(fileName, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor < 0) return;
  std::size_t length = 0;
  int error = lengthOf(descriptor, length);
  if (error == 0) {
    map(descriptor, length);
    error = data_ == nullptr ? errno : 0;
  }
  close(descriptor);
  errno = error;
}

void FileMapping::map(int descriptor, std::size_t length) {
  void* const data = mmap(nullptr, length, PROT_READ, MAP_PRIVATE, descriptor, 0);
  if (data == MAP_FAILED) return;
  data_ = data;
  length_ = length;
}

FileMapping::FileMapping(FileMapping&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)), length_(std::exchange(other.length_, 0)) {}

FileMapping& FileMapping::operator=(FileMapping&& other) noexcept {
  std::swap(data_, other.data_);
  std::swap(length_, other.length_);
  return *this;
}

FileMapping::~FileMapping() {
  if (data_ != nullptr) munmap(data_, length_);
}

}  // namespace mlnn
