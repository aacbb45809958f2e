#include "model/FileStream.h"

#include <locale>

#include "layers/Report.h"
#include "os/Names.h"

namespace mlnn {
namespace {

// Large enough for the calls of the system not to count, small enough to stay in a cache.
constexpr std::streamsize kFileBuffer = 64 << 10;

}  // namespace

FileStream::FileStream() : buffer_(new char[kFileBuffer]) {}

bool FileStream::open(const char* fileName) {
  in_.rdbuf()->pubsetbuf(buffer_.get(), kFileBuffer);
  if (fileName != nullptr) openToRead(in_, fileName);
  if (fileName == nullptr || !in_) {
    report({"ERROR: MultiLayerNNModel: could not read file: ", fileName});
    return false;
  }
  in_.imbue(std::locale::classic());
  return true;
}

std::streamoff lengthOf(std::istream& in) {
  in.seekg(0, std::ios::end);
  return in ? std::streamoff(in.tellg()) : std::streamoff(-1);
}

}  // namespace mlnn
