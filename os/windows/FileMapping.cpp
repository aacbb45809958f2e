#include "os/FileMapping.h"

#include <io.h>

#include <cerrno>
#include <cstdint>
#include <limits>
#include <utility>

#include "os/windows/Errors.h"
#include "os/windows/Handle.h"
#include "os/windows/WideText.h"

namespace mlnn {
namespace {

// Returns 0 for a regular file that memory could hold, with its length in `length`; else an errno.
int lengthOf(HANDLE file, std::size_t& length) {
  BY_HANDLE_FILE_INFORMATION information;
  if (GetFileType(file) != FILE_TYPE_DISK) return ENODEV;
  if (GetFileInformationByHandle(file, &information) == 0) return errnoOf(GetLastError());
  if ((information.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) return EISDIR;
  const uint64_t bytes = uint64_t{information.nFileSizeHigh} << 32 | information.nFileSizeLow;
  if (bytes > std::numeric_limits<std::size_t>::max()) return EFBIG;
  length = static_cast<std::size_t>(bytes);
  return length == 0 ? EINVAL : 0;
}

// Returns null where it cannot be mapped, which errno tells.
void* mapped(HANDLE file, std::size_t length) {
  const Handle mapping(CreateFileMappingW(file, nullptr, PAGE_READONLY, 0, 0, nullptr));
  void* const data =
      mapping.isOpen() ? MapViewOfFile(mapping.get(), FILE_MAP_READ, 0, 0, length) : nullptr;
  if (data == nullptr) errno = errnoOf(GetLastError());
  return data;
}

}  // namespace

FileMapping::FileMapping(int descriptor, std::size_t length) { map(descriptor, length); }

FileMapping::FileMapping(const char* fileName) {
  const Handle file(CreateFileW(wideOf(fileName).c_str(), GENERIC_READ, kShareAll, nullptr,
                                OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
  std::size_t length = 0;
  const int error = file.isOpen() ? lengthOf(file.get(), length) : errnoOf(GetLastError());
  if (error != 0) {
    errno = error;
    return;
  }
  data_ = mapped(file.get(), length);
  if (data_ != nullptr) length_ = length;
}

void FileMapping::map(int descriptor, std::size_t length) {
  data_ = mapped(reinterpret_cast<HANDLE>(_get_osfhandle(descriptor)), length);
  if (data_ != nullptr) length_ = length;
}

FileMapping::FileMapping(FileMapping&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)), length_(std::exchange(other.length_, 0)) {}

FileMapping& FileMapping::operator=(FileMapping&& other) noexcept {
  std::swap(data_, other.data_);
  std::swap(length_, other.length_);
  return *this;
}

FileMapping::~FileMapping() {
  if (data_ != nullptr) UnmapViewOfFile(data_);
}

}  // namespace mlnn
