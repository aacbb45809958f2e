#include "os/Descriptors.h"

#include <fcntl.h>
#include <io.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string_view>

#include "os/windows/Errors.h"
#include "os/windows/Handle.h"
#include "os/windows/WideText.h"

namespace mlnn {
namespace {

constexpr std::size_t kMostAtOnce = std::size_t{1} << 30;  // the calls count in 32 bits

bool statusOf(HANDLE file, FileStatus& status) {
  status = FileStatus();
  const DWORD type = GetFileType(file);
  if (type == FILE_TYPE_CHAR) status.kind = FileKind::kCharacterDevice;
  if (type != FILE_TYPE_DISK) return type != FILE_TYPE_UNKNOWN;
  BY_HANDLE_FILE_INFORMATION known;
  if (GetFileInformationByHandle(file, &known) == 0) {
    errno = errnoOf(GetLastError());
    return false;
  }
  if ((known.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) status.kind = FileKind::kRegular;
  status.length = uint64_t{known.nFileSizeHigh} << 32 | known.nFileSizeLow;
  status.identity = {known.dwVolumeSerialNumber,
                     uint64_t{known.nFileIndexHigh} << 32 | known.nFileIndexLow};
  return true;
}

// The names of pipes, which count those who open them.
bool isPipe(const std::wstring& name) {
  const std::wstring_view begin = std::wstring_view(name).substr(0, 9);
  return begin == LR"(\\.\pipe\)" || begin == L"//./pipe/";
}

HANDLE opened(const std::wstring& name, DWORD access) {
  HANDLE const file = CreateFileW(name.c_str(), access, kShareAll, nullptr, OPEN_EXISTING,
                                  FILE_FLAG_BACKUP_SEMANTICS, nullptr);  // folders as well
  if (file == INVALID_HANDLE_VALUE) errno = errnoOf(GetLastError());
  return file;
}

// Folders are opened for their status alone.
bool isFolder(HANDLE file) {
  BY_HANDLE_FILE_INFORMATION known;
  return GetFileType(file) == FILE_TYPE_DISK && GetFileInformationByHandle(file, &known) != 0 &&
         (known.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

int descriptorOf(const char* name, DWORD access, int flags) {
  Handle file(opened(wideOf(name), access));
  if (!file.isOpen()) return -1;
  if (isFolder(file.get())) {
    errno = EISDIR;
    return -1;
  }
  const int descriptor =
      _open_osfhandle(reinterpret_cast<intptr_t>(file.get()), flags | _O_BINARY | _O_NOINHERIT);
  if (descriptor >= 0) file.release();
  return descriptor;
}

}  // namespace

bool readStatus(int descriptor, FileStatus& status) {
  const intptr_t file = _get_osfhandle(descriptor);
  return file != -1 && statusOf(reinterpret_cast<HANDLE>(file), status);
}

bool readStatus(const char* name, FileStatus& status) {
  const std::wstring wide = wideOf(name);
  if (isPipe(wide)) {
    status = FileStatus();
    return true;
  }
  const Handle file(opened(wide, FILE_READ_ATTRIBUTES));
  return file.isOpen() && statusOf(file.get(), status);
}

int openForReading(const char* name) { return descriptorOf(name, GENERIC_READ, _O_RDONLY); }

int openForWriting(const char* name) { return descriptorOf(name, GENERIC_WRITE, _O_WRONLY); }

int duplicated(int descriptor) {
  const int copy = _dup(descriptor);
  if (copy >= 0) _setmode(copy, _O_BINARY);
  return copy;
}

// A pipe whose writers have gone has come to its end, which the library of C tells as that.
std::ptrdiff_t readBytes(int descriptor, void* bytes, std::size_t most) {
  return _read(descriptor, bytes, static_cast<unsigned>(std::min(most, kMostAtOnce)));
}

std::ptrdiff_t writeBytes(int descriptor, const void* bytes, std::size_t count) {
  return _write(descriptor, bytes, static_cast<unsigned>(std::min(count, kMostAtOnce)));
}

std::ptrdiff_t readBytesAt(int descriptor, uint64_t place, void* bytes, std::size_t most) {
  return moveTo(descriptor, place) ? readBytes(descriptor, bytes, most) : -1;
}

// A pipe whose writers have gone cannot be asked, and tells its end at once.
bool hasBytesReady(int descriptor) {
  const intptr_t file = _get_osfhandle(descriptor);
  if (file == -1) return true;
  HANDLE const handle = reinterpret_cast<HANDLE>(file);
  DWORD present = 0;
  if (GetFileType(handle) == FILE_TYPE_PIPE) {
    return PeekNamedPipe(handle, nullptr, 0, nullptr, &present, nullptr) == 0 || present > 0;
  }
  return !isTerminal(descriptor);
}

int64_t placeIn(int descriptor) { return _lseeki64(descriptor, 0, SEEK_CUR); }

bool moveTo(int descriptor, uint64_t place) {
  return _lseeki64(descriptor, static_cast<int64_t>(place), SEEK_SET) >= 0;
}

bool closeDescriptor(int descriptor) { return _close(descriptor) == 0; }

// The null device counts as one for the library of C, so the console itself is asked.
bool isTerminal(int descriptor) {
  DWORD mode = 0;
  const intptr_t file = _get_osfhandle(descriptor);
  return file != -1 && GetConsoleMode(reinterpret_cast<HANDLE>(file), &mode) != 0;
}

}  // namespace mlnn
