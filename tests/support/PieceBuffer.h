// PieceBuffer — a source that hands out a text in pieces of a given number of characters, as files
// and pipes do.
#pragma once

#include <algorithm>
#include <cstddef>
#include <streambuf>
#include <string>

namespace mlnn::test {

class PieceBuffer : public std::streambuf {
 public:
  PieceBuffer(const std::string& text, std::size_t pieceLength)
      : text_(text), pieceLength_(pieceLength) {}

 protected:
  int_type underflow() override {
    if (position_ == text_.size()) return traits_type::eof();
    const std::size_t length = std::min(pieceLength_, text_.size() - position_);
    char* const begin = text_.data() + position_;
    setg(begin, begin, begin + length);
    position_ += length;
    return traits_type::to_int_type(*begin);
  }

 private:
  std::string text_;
  std::size_t pieceLength_;
  std::size_t position_ = 0;
};

}  // namespace mlnn::test
