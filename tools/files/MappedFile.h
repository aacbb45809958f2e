// MappedFile — the bytes of a file where the system keeps them, read only.
#pragma once

#include <cstddef>
#include <string>

#include "os/FileMapping.h"

namespace mlnn {

// What the file holds when it is read is what other processes leave in it. Where one of them cuts
// it short, the bytes behind its new end cannot be had any more, and whoever reads them, the
// library as well as the tool, cannot go on: the process then says so on the standard error
// stream, removes the file that it was writing (UnfinishedFile), and ends with the failure status.
// At most one object has a file at a time.
class MappedFile {
 public:
  MappedFile() = default;

  // `descriptor` is that of a regular file of `length` bytes, and may be closed afterwards; `name`
  // is what messages call it. When the file cannot be mapped, data() is null.
  MappedFile(int descriptor, std::size_t length, const std::string& name);
  MappedFile(MappedFile&& other) noexcept = default;
  MappedFile& operator=(MappedFile&& other) noexcept = default;
  ~MappedFile();

  const void* data() const { return mapping_.data(); }
  std::size_t length() const { return mapping_.length(); }

 private:
  FileMapping mapping_;
};

}  // namespace mlnn
