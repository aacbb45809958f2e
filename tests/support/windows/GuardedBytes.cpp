#include <cstring>
#include <new>

#include "os/windows/Windows.h"
#include "tests/support/ByteImage.h"

namespace mlnn::test {

GuardedBytes::GuardedBytes(const std::string& bytes) {
  constexpr std::size_t kPage = 4096;
  const std::size_t readable = (bytes.size() + kPage - 1) / kPage * kPage;
  mappingLength_ = readable + kPage;
  mapping_ = static_cast<char*>(
      VirtualAlloc(nullptr, mappingLength_, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
  DWORD before = 0;
  if (mapping_ == nullptr ||
      VirtualProtect(mapping_ + readable, kPage, PAGE_NOACCESS, &before) == 0) {
    throw std::bad_alloc();
  }
  data_ = mapping_ + readable - bytes.size();
  std::memcpy(data_, bytes.data(), bytes.size());
}

GuardedBytes::~GuardedBytes() { VirtualFree(mapping_, 0, MEM_RELEASE); }

}  // namespace mlnn::test
