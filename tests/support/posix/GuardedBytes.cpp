#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "tests/support/ByteImage.h"

namespace mlnn::test {

GuardedBytes::GuardedBytes(const std::string& bytes) {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  const std::size_t readable = (bytes.size() + page - 1) / page * page;
  mappingLength_ = readable + page;
  void* mapping =
      mmap(nullptr, mappingLength_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapping == MAP_FAILED) throw std::system_error(errno, std::generic_category(), "mmap");
  mapping_ = static_cast<char*>(mapping);
  if (mprotect(mapping_ + readable, page, PROT_NONE) != 0) {
    throw std::system_error(errno, std::generic_category(), "mprotect");
  }
  data_ = mapping_ + readable - bytes.size();
  std::memcpy(data_, bytes.data(), bytes.size());
}

GuardedBytes::~GuardedBytes() { munmap(mapping_, mappingLength_); }

}  // namespace mlnn::test
