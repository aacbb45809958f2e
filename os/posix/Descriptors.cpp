#include "os/Descriptors.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace mlnn {
namespace {

constexpr unsigned kPermissions = 0777;

FileKind kindOf(const struct stat& file) {
  if (S_ISREG(file.st_mode)) return FileKind::kRegular;
  return S_ISCHR(file.st_mode) ? FileKind::kCharacterDevice : FileKind::kOther;
}

FileStatus statusOf(const struct stat& file) {
  return {kindOf(file),
          static_cast<uint64_t>(file.st_size),
          FileIdentity(file.st_dev, file.st_ino),
          {file.st_uid, file.st_gid, file.st_mode & kPermissions}};
}

}  // namespace

bool readStatus(int descriptor, FileStatus& status) {
  struct stat file;
  if (fstat(descriptor, &file) != 0) return false;
  status = statusOf(file);
  return true;
}

bool readStatus(const char* name, FileStatus& status) {
  struct stat file;
  if (stat(name, &file) != 0) return false;
  status = statusOf(file);
  return true;
}

int openForReading(const char* name) { return open(name, O_RDONLY | O_CLOEXEC); }

int openForWriting(const char* name) { return open(name, O_WRONLY | O_CLOEXEC); }

int duplicated(int descriptor) { return fcntl(descriptor, F_DUPFD_CLOEXEC, 0); }

std::ptrdiff_t readBytes(int descriptor, void* bytes, std::size_t most) {
  return read(descriptor, bytes, most);
}

std::ptrdiff_t writeBytes(int descriptor, const void* bytes, std::size_t count) {
  return write(descriptor, bytes, count);
}

std::ptrdiff_t readBytesAt(int descriptor, uint64_t place, void* bytes, std::size_t most) {
  return pread(descriptor, bytes, most, static_cast<off_t>(place));
}

bool hasBytesReady(int descriptor) {
  pollfd asked{descriptor, POLLIN, 0};
  return poll(&asked, 1, 0) != 0;
}

int64_t placeIn(int descriptor) { return lseek(descriptor, 0, SEEK_CUR); }

bool moveTo(int descriptor, uint64_t place) {
  return lseek(descriptor, static_cast<off_t>(place), SEEK_SET) >= 0;
}

bool closeDescriptor(int descriptor) { return close(descriptor) == 0; }

bool isTerminal(int descriptor) { return isatty(descriptor) != 0; }

}  // namespace mlnn
