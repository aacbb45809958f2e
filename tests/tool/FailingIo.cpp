// A library to be loaded before the C library, whose functions of one kind it lets fail once, as
// the environment variable MLNN_FAIL says: "write 3" is the third write to a file. Other calls,
// and those of descriptors below 3, go through; "shrink 1" cuts the first file that is read to
// half of what it said to hold.
#include <dlfcn.h>
#include <fcntl.h>
#include <stdarg.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// Whether this call of a kind is the one that is to fail.
bool mustFail(const char* kind) {
  static int calls = 0;
  const char* wanted = std::getenv("MLNN_FAIL");
  const std::size_t length = std::strlen(kind);
  if (wanted == nullptr || std::strncmp(wanted, kind, length) != 0 || wanted[length] != ' ') {
    return false;
  }
  return ++calls == std::atoi(wanted + length + 1);
}

template <typename Function>
Function next(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

int fail(int error) {
  errno = error;
  return -1;
}

// Files of the system are none of the tool's.
bool isOurs(const char* path) {
  return std::strncmp(path, "/proc", 5) != 0 && std::strncmp(path, "/etc", 4) != 0 &&
         std::strncmp(path, "/lib", 4) != 0 && std::strncmp(path, "/usr", 4) != 0 &&
         std::strncmp(path, "/sys", 4) != 0 && std::strncmp(path, "/dev", 4) != 0;
}

}  // namespace

extern "C" {

ssize_t read(int descriptor, void* bytes, size_t count) {
  if (descriptor > 2 && mustFail("read")) return fail(EIO);
  struct stat status;
  if (descriptor > 2 && fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) &&
      mustFail("shrink")) {
    const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
    if (truncate(path.c_str(), status.st_size / 2) != 0) return fail(EIO);
  }
  return next<ssize_t (*)(int, void*, size_t)>("read")(descriptor, bytes, count);
}

ssize_t write(int descriptor, const void* bytes, size_t count) {
  if (descriptor > 2 && mustFail("write")) return fail(ENOSPC);
  return next<ssize_t (*)(int, const void*, size_t)>("write")(descriptor, bytes, count);
}

ssize_t writev(int descriptor, const struct iovec* pieces, int count) {
  if (descriptor > 2 && mustFail("write")) return fail(ENOSPC);
  return next<ssize_t (*)(int, const struct iovec*, int)>("writev")(descriptor, pieces, count);
}

int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  if (isOurs(path) && mustFail("open")) return fail(EMFILE);
  return next<int (*)(const char*, int, ...)>("open")(path, flags, mode);
}

int mkostemp(char* path, int flags) {
  if (mustFail("open")) return fail(EMFILE);
  return next<int (*)(char*, int)>("mkostemp")(path, flags);
}

int close(int descriptor) {
  const int result = next<int (*)(int)>("close")(descriptor);
  if (descriptor > 2 && mustFail("close")) return fail(EIO);
  return result;
}

int rename(const char* from, const char* to) noexcept {
  if (mustFail("rename")) return fail(EPERM);
  return next<int (*)(const char*, const char*)>("rename")(from, to);
}

}  // extern "C"
