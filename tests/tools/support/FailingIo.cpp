// A library to be loaded before the C library, whose functions of one kind it lets fail once, as
// the environment variable MLNN_FAIL says: "write 3" is the third write to a file. Other calls,
// and those of descriptors below 3, go through; "shrink 1" cuts the first file that is read to
// half of what it said to hold. Of "malloc" those calls count that come after the first of signal,
// which is one of the first things that the tool's main does; of "early" those before. "behind 1"
// is the first malloc behind the making of an unfinished file. "terminate 3" sends SIGTERM behind
// the third call of any kind but malloc.
//
// Each of two names is called: where lengths and dates of files take 64 bits, the one that ends
// in 64.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
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

// What a call has come to, behind which a signal may come.
template <typename Result>
Result done(Result result) {
  const int error = errno;
  if (mustFail("terminate")) raise(SIGTERM);
  errno = error;
  return result;
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

bool mainRuns = false;
bool fileIsMade = false;

int openNext(const char* name, const char* path, int flags, mode_t mode) {
  if (isOurs(path) && mustFail("open")) return fail(EMFILE);
  const int descriptor = next<int (*)(const char*, int, ...)>(name)(path, flags, mode);
  return isOurs(path) ? done(descriptor) : descriptor;
}

int makeNext(const char* name, char* path, int flags) {
  if (mustFail("open")) return fail(EMFILE);
  const int descriptor = next<int (*)(char*, int)>(name)(path, flags);
  fileIsMade = true;
  return done(descriptor);
}

template <typename Entry>
Entry* readNext(const char* name, DIR* folder) {
  if (mustFail("readdir")) return fail(EIO), nullptr;
  return next<Entry* (*)(DIR*)>(name)(folder);
}

// The argument after `flags`, which is there for new files only.
mode_t modeAfter(int flags, va_list rest) {
  return (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
}

}  // namespace

extern "C" {

// What malloc is in the C library: looking it up by dlsym could call malloc.
void* __libc_malloc(size_t count) noexcept;

void* malloc(size_t count) noexcept {
  const bool fails = (mainRuns && mustFail("malloc")) || (!mainRuns && mustFail("early")) ||
                     (fileIsMade && mustFail("behind"));
  if (fails) return fail(ENOMEM), nullptr;
  return __libc_malloc(count);
}

sighandler_t signal(int number, sighandler_t handler) noexcept {
  mainRuns = true;
  return next<sighandler_t (*)(int, sighandler_t)>("signal")(number, handler);
}

ssize_t read(int descriptor, void* bytes, size_t count) {
  if (descriptor > 2 && mustFail("read")) return fail(EIO);
  struct stat status;
  if (descriptor > 2 && fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) &&
      mustFail("shrink")) {
    const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
    if (truncate(path.c_str(), status.st_size / 2) != 0) return fail(EIO);
  }
  return done(next<ssize_t (*)(int, void*, size_t)>("read")(descriptor, bytes, count));
}

ssize_t write(int descriptor, const void* bytes, size_t count) {
  if (descriptor > 2 && mustFail("write")) return fail(ENOSPC);
  return done(next<ssize_t (*)(int, const void*, size_t)>("write")(descriptor, bytes, count));
}

ssize_t writev(int descriptor, const struct iovec* pieces, int count) {
  if (descriptor > 2 && mustFail("write")) return fail(ENOSPC);
  return done(
      next<ssize_t (*)(int, const struct iovec*, int)>("writev")(descriptor, pieces, count));
}

int open(const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = modeAfter(flags, rest);
  va_end(rest);
  return openNext("open", path, flags, mode);
}

int open64(const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = modeAfter(flags, rest);
  va_end(rest);
  return openNext("open64", path, flags, mode);
}

int mkostemp(char* path, int flags) { return makeNext("mkostemp", path, flags); }
int mkostemp64(char* path, int flags) { return makeNext("mkostemp64", path, flags); }

DIR* fdopendir(int descriptor) {
  if (mustFail("opendir")) return fail(ENOMEM), nullptr;
  return next<DIR* (*)(int)>("fdopendir")(descriptor);
}

struct dirent* readdir(DIR* folder) {
  return readNext<struct dirent>("readdir", folder);
}
struct dirent64* readdir64(DIR* folder) {
  return readNext<struct dirent64>("readdir64", folder);
}

int close(int descriptor) {
  const int result = next<int (*)(int)>("close")(descriptor);
  if (descriptor > 2 && mustFail("close")) return fail(EIO);
  return done(result);
}

int fsync(int descriptor) {
  if (mustFail("fsync")) return fail(EIO);
  return done(next<int (*)(int)>("fsync")(descriptor));
}

int syncfs(int descriptor) {
  if (mustFail("syncfs")) return fail(EIO);
  return done(next<int (*)(int)>("syncfs")(descriptor));
}

int rename(const char* from, const char* to) noexcept {
  if (mustFail("rename")) return fail(EPERM);
  return done(next<int (*)(const char*, const char*)>("rename")(from, to));
}

}  // extern "C"
