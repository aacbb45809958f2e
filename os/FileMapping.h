// FileMapping — the bytes of a file where the system keeps them, read only.
#pragma once

#include <cstddef>

namespace mlnn {

// What the file holds when it is read is what other processes leave in it; where one of them cuts
// it short, whoever reads the bytes behind its new end gets SIGBUS from the system. Windows lets
// nobody cut it short meanwhile.
class FileMapping {
 public:
  FileMapping() = default;

  // `descriptor` is that of a regular file of `length` bytes, and may be closed afterwards. When
  // the file cannot be mapped, data() is null.
  FileMapping(int descriptor, std::size_t length);

  // Maps the whole of a regular file, whose name is UTF-8 on Windows. When that cannot be done,
  // data() is null and errno tells why; an empty file cannot be mapped.
  explicit FileMapping(const char* fileName);

  FileMapping(FileMapping&& other) noexcept;
  FileMapping& operator=(FileMapping&& other) noexcept;
  ~FileMapping();

  const void* data() const { return data_; }
  std::size_t length() const { return length_; }

 private:
  void map(int descriptor, std::size_t length);

  void* data_ = nullptr;
  std::size_t length_ = 0;
};

}  // namespace mlnn
