// MemoryStream — reads bytes that lie in memory as a stream that can seek, in the classic locale.
#pragma once

#include <cstddef>
#include <istream>
#include <locale>
#include <streambuf>

namespace mlnn {

class MemoryBuffer : public std::streambuf {
 public:
  MemoryBuffer(const void* bytes, std::size_t length) {
    // The area of a stream is not const, but nothing writes to one that is only read.
    char* const begin = const_cast<char*>(static_cast<const char*>(bytes));
    setg(begin, begin, begin + length);
  }

 protected:
  pos_type seekoff(off_type offset, std::ios_base::seekdir from, std::ios_base::openmode) override {
    const off_type length = egptr() - eback();
    const off_type base = from == std::ios_base::beg   ? 0
                          : from == std::ios_base::end ? length
                                                       : off_type(gptr() - eback());
    if (offset < -base || offset > length - base) return pos_type(off_type(-1));
    setg(eback(), eback() + base + offset, egptr());
    return pos_type(base + offset);
  }

  pos_type seekpos(pos_type position, std::ios_base::openmode which) override {
    return seekoff(off_type(position), std::ios_base::beg, which);
  }
};

// The bytes must stay where they are while the stream is in use.
class MemoryStream : public std::istream {
 public:
  MemoryStream(const void* bytes, std::size_t length)
      : std::istream(nullptr), buffer_(bytes, length) {
    rdbuf(&buffer_);
    imbue(std::locale::classic());
  }

 private:
  MemoryBuffer buffer_;
};

}  // namespace mlnn
