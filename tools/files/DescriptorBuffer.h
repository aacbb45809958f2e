// DescriptorBuffer — a stream buffer that writes to a file descriptor and remembers why it
// could not. The standard library's file buffers do not tell.
#pragma once

#include <array>
#include <streambuf>

namespace mlnn {

class DescriptorBuffer : public std::streambuf {
 public:
  // Does not own the descriptor.
  explicit DescriptorBuffer(int descriptor);

  // The errno of the first write that failed, 0 when none did. After it nothing more is
  // written, and the stream over this buffer is bad.
  int error() const { return error_; }

 protected:
  int_type overflow(int_type c) override;
  int sync() override;

 private:
  std::array<char, 65536> bytes_;
  int descriptor_;
  int error_ = 0;
};

}  // namespace mlnn
