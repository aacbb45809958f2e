#include "tools/files/DescriptorBuffer.h"

#include <cerrno>

#include "os/Descriptors.h"

namespace mlnn {

DescriptorBuffer::DescriptorBuffer(int descriptor) : descriptor_(descriptor) {
  setp(bytes_.data(), bytes_.data() + bytes_.size());
}

int DescriptorBuffer::sync() {
  const char* next = pbase();
  while (error_ == 0 && next < pptr()) {
    const std::ptrdiff_t count =
        writeBytes(descriptor_, next, static_cast<std::size_t>(pptr() - next));
    if (count >= 0) {
      next += count;
    } else if (errno != EINTR) {
      error_ = errno;
    }
  }
  setp(bytes_.data(), bytes_.data() + bytes_.size());
  return error_ == 0 ? 0 : -1;
}

DescriptorBuffer::int_type DescriptorBuffer::overflow(int_type c) {
  if (sync() != 0) return traits_type::eof();
  if (!traits_type::eq_int_type(c, traits_type::eof())) sputc(traits_type::to_char_type(c));
  return traits_type::not_eof(c);
}

}  // namespace mlnn
