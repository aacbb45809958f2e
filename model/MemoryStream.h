// MemoryStream — reads bytes that lie in memory as a stream that can seek, in the classic locale.
#pragma once

#include <algorithm>
#include <cstddef>
#include <exception>
#include <istream>
#include <locale>
#include <streambuf>
#include <utility>

#include "features/Watch.h"

namespace mlnn {

// `watch` is called with the bytes that were read. Where it throws, the bytes end, since those who
// read take what a buffer throws for bytes that cannot be read; thrown() has it then.
class MemoryBuffer : public std::streambuf {
 public:
  MemoryBuffer(const void* bytes, std::size_t length, Watch watch = {}) : watch_(std::move(watch)) {
    // The area of a stream is not const, but nothing writes to one that is only read.
    char* const begin = const_cast<char*>(static_cast<const char*>(bytes));
    end_ = begin + length;
    show(begin);
  }

  std::exception_ptr thrown() const { return thrown_; }

 protected:
  int_type underflow() override {
    if (egptr() == end_ || thrown_) return traits_type::eof();
    try {
      tell(watch_, kPiece);
    } catch (...) {
      thrown_ = std::current_exception();
      return traits_type::eof();
    }
    setg(eback(), egptr(), pieceEnd(egptr()));
    return traits_type::to_int_type(*gptr());
  }

  pos_type seekoff(off_type offset, std::ios_base::seekdir from, std::ios_base::openmode) override {
    const off_type length = end_ - eback();
    const off_type base = from == std::ios_base::beg   ? 0
                          : from == std::ios_base::end ? length
                                                       : off_type(gptr() - eback());
    if (offset < -base || offset > length - base) return pos_type(off_type(-1));
    show(eback() + base + offset);
    return pos_type(base + offset);
  }

  pos_type seekpos(pos_type position, std::ios_base::openmode which) override {
    return seekoff(off_type(position), std::ios_base::beg, which);
  }

 private:
  static constexpr std::size_t kPiece = std::size_t{1} << 18;  // bytes between looks

  // Where what is shown from here on ends: at once all, where nobody watches.
  char* pieceEnd(char* from) const {
    const auto left = static_cast<std::size_t>(end_ - from);
    return from + (watch_ ? std::min(left, kPiece) : left);
  }

  void show(char* from) {
    char* const begin = eback() == nullptr ? from : eback();
    setg(begin, from, pieceEnd(from));
  }

  Watch watch_;
  std::exception_ptr thrown_;
  char* end_ = nullptr;
};

// The bytes must stay where they are while the stream is in use.
class MemoryStream : public std::istream {
 public:
  MemoryStream(const void* bytes, std::size_t length, Watch watch = {})
      : std::istream(nullptr), buffer_(bytes, length, std::move(watch)) {
    rdbuf(&buffer_);
    imbue(std::locale::classic());
  }

  // Throws: what the watch threw, if it did; the bytes ended there.
  void rethrow() const {
    if (buffer_.thrown()) std::rethrow_exception(buffer_.thrown());
  }

 private:
  MemoryBuffer buffer_;
};

}  // namespace mlnn
