// Frames that are read some at a time, against those that are read at once: the same frames, or the
// same reason against them, of a file and of a pipe.
#include "tools/files/FrameSource.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "fuzz/Support.h"
#include "tools/Failure.h"
#include "tools/files/Frames.h"

namespace {

using Eigen::MatrixXf;
using mlnn::fuzz::require;

struct Read {
  MatrixXf frames;
  std::string failure;
};

Read atOnce(const std::string& name) {
  Read read;
  try {
    read.frames = mlnn::readFrames(name);
  } catch (const mlnn::Failure& failure) {
    read.failure = failure.what();
  }
  return read;
}

Read inPieces(const std::string& name, Eigen::Index most) {
  Read read;
  try {
    const auto source = mlnn::FrameSource::open(name);
    read.frames.resize(static_cast<Eigen::Index>(source->width()), 0);
    MatrixXf piece;
    while (source->next(most, piece)) {
      require(piece.cols() > 0 && piece.cols() <= most, "more frames than were asked for, or none");
      require(piece.rows() == read.frames.rows(), "frames of another width than was told");
      read.frames.conservativeResize(Eigen::NoChange, read.frames.cols() + piece.cols());
      read.frames.rightCols(piece.cols()) = piece;
    }
    const auto count = source->count();
    require(!count || *count == static_cast<std::uint64_t>(read.frames.cols()),
            "another number of frames than was told");
  } catch (const mlnn::Failure& failure) {
    read.failure = failure.what();
  }
  return read;
}

bool sameBits(const MatrixXf& a, const MatrixXf& b) {
  return a.rows() == b.rows() && a.cols() == b.cols() &&
         (a.size() == 0 ||
          std::memcmp(a.data(), b.data(), static_cast<std::size_t>(a.size()) * sizeof(float)) == 0);
}

// A file of these bytes that has a name of its own descriptor alone.
class File {
 public:
  File(const uint8_t* data, std::size_t size) : descriptor_(memfd_create("frames", MFD_CLOEXEC)) {
    require(write(descriptor_, data, size) == static_cast<ssize_t>(size), "no file");
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File() { close(descriptor_); }

  std::string name() const { return "/proc/self/fd/" + std::to_string(descriptor_); }

 private:
  int descriptor_;
};

// The reading end of a pipe that holds these bytes, and has no writer any more.
class Pipe {
 public:
  Pipe(const uint8_t* data, std::size_t size) {
    require(pipe(ends_) == 0 && write(ends_[1], data, size) == static_cast<ssize_t>(size),
            "no pipe");
    close(ends_[1]);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
  ~Pipe() { close(ends_[0]); }

  std::string name() const { return "/proc/self/fd/" + std::to_string(ends_[0]); }

 private:
  int ends_[2] = {};
};

// Failures name the file, which is another one.
std::string withoutName(const Read& read, const std::string& name) {
  const std::size_t at = read.failure.find(name);
  require(read.failure.empty() || at != std::string::npos, "refused without a name");
  return read.failure.empty() ? "" : read.failure.substr(at + name.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  constexpr std::size_t kMostOfAPipe = 4096;  // that no write waits for
  const mlnn::fuzz::Limits limits(size, 64, std::size_t{4} << 20);
  const File file(data, size);
  const Read whole = atOnce(file.name());
  const std::string why = withoutName(whole, file.name());
  const auto most = static_cast<Eigen::Index>(1 + size % 5);
  const Read pieces = inPieces(file.name(), most);
  require(withoutName(pieces, file.name()) == why, "another reason in pieces");
  require(!why.empty() || sameBits(whole.frames, pieces.frames), "other frames in pieces");
  if (size <= kMostOfAPipe) {
    const Pipe piped(data, size);
    const Read arrived = inPieces(piped.name(), most);
    require(withoutName(arrived, piped.name()) == why, "another reason out of a pipe");
    require(!why.empty() || sameBits(whole.frames, arrived.frames), "other frames out of a pipe");
  }
  limits.check();
  return 0;
}
