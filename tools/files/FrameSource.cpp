#include "tools/files/FrameSource.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "tools/Failure.h"
#include "tools/files/FrameText.h"
#include "tools/files/Frames.h"
#include "tools/files/InputFile.h"
#include "tools/files/Npy.h"

namespace mlnn {
namespace {

using Eigen::Index;
using Eigen::MatrixXf;

constexpr std::size_t kChunk = std::size_t{1} << 17;

// All frames, in memory.
class WholeSource : public FrameSource {
 public:
  explicit WholeSource(MatrixXf frames) : frames_(std::move(frames)) {
    width_ = static_cast<uint64_t>(frames_.rows());
    count_ = static_cast<uint64_t>(frames_.cols());
  }

  bool next(Index most, MatrixXf& frames) override {
    const Index length = std::min(most, frames_.cols() - given_);
    if (length == 0) return false;
    frames = frames_.middleCols(given_, length);
    given_ += length;
    return true;
  }

 private:
  MatrixXf frames_;
  Index given_ = 0;
};

class TextSource : public FrameSource {
 public:
  // `bytes` are the first ones.
  TextSource(InputStream input, std::string bytes, const std::string& what)
      : input_(std::move(input)), bytes_(std::move(bytes)), text_(what) {
    arrives_ = !input_.length();
    parse(1);
    if (failure_) throw *failure_;
    text_.finish();
    width_ = text_.width();
    if (!arrives_) expected_ = 1 + *input_.length() / (1 + begin_);
  }

  bool next(Index most, MatrixXf& frames) override {
    parse(static_cast<std::size_t>(most));
    if (text_.count() == 0 && failure_) throw *failure_;
    if (text_.count() == 0) return false;
    frames = text_.take();
    return true;
  }

 private:
  // Until there are frames, no more than `most`, or the text ends.
  void parse(std::size_t most) {
    while (text_.count() < most && !failure_) {
      if (parseLine()) continue;
      if (isOver_ || (text_.count() > 0 && !input_.isReady())) return;
      readOn();
    }
  }

  // Returns false where there is no whole line.
  bool parseLine() {
    const std::size_t end = bytes_.find('\n', std::max(begin_, seen_));
    seen_ = bytes_.size();
    const bool isLast = end == std::string::npos;
    if (isLast && (!isOver_ || begin_ == bytes_.size())) return false;
    const std::size_t length = std::min(end, bytes_.size()) - begin_;
    try {
      text_.addLine(std::string_view(bytes_).substr(begin_, length));
    } catch (const Failure& failure) {
      failure_ = failure;
    }
    begin_ += length + (isLast ? 0 : 1);
    seen_ = begin_;
    return true;
  }

  void readOn() {
    bytes_.erase(0, begin_);
    begin_ = 0;
    seen_ = bytes_.size();
    if (bytes_.size() > input_.most()) input_.failWithoutEnd();
    isOver_ = input_.append(bytes_, std::max(kChunk, bytes_.size())) == 0;
  }

  InputStream input_;
  std::string bytes_;      // of lines that were not parsed, from begin_ on
  std::size_t begin_ = 0;  // of the next line
  std::size_t seen_ = 0;   // no line feed stands between begin_ and here
  bool isOver_ = false;
  FrameTextParser text_;
  std::optional<Failure> failure_;  // behind the frames that it holds
};

// What arrays have in common.
class ArraySource : public FrameSource {
 public:
  ArraySource(InputStream input, NpyArray array, std::string what)
      : input_(std::move(input)), array_(std::move(array)), what_(std::move(what)) {
    width_ = array_.values;
    count_ = array_.frames;
  }

 protected:
  Index lengthOfNext(Index most) const {
    return static_cast<Index>(std::min(static_cast<uint64_t>(most), array_.frames - given_));
  }

  InputStream input_;
  NpyArray array_;
  std::string what_;
  uint64_t given_ = 0;
};

// An array, frame by frame.
class RowsSource : public ArraySource {
 public:
  // `bytes` are what was read of the values.
  RowsSource(InputStream input, const NpyArray& array, std::string bytes, const std::string& what)
      : ArraySource(std::move(input), array, what), bytes_(std::move(bytes)), had_(bytes_.size()) {
    arrives_ = !input_.length();
  }

  bool next(Index most, MatrixXf& frames) override {
    const Index wanted = lengthOfNext(most);
    if (wanted == 0) {
      expectEnd();
      return false;
    }
    const std::size_t frame = static_cast<std::size_t>(width_) * array_.valueLength();
    while (bytes_.size() / frame < static_cast<std::size_t>(wanted)) {
      if (bytes_.size() >= frame && !input_.isReady()) break;
      if (readOn(static_cast<std::size_t>(wanted) * frame - bytes_.size())) continue;
      if (bytes_.size() < frame) failByLength();
      break;
    }
    const auto length = std::min(wanted, static_cast<Index>(bytes_.size() / frame));
    frames.resize(static_cast<Index>(width_), length);
    copyNpyValues(array_, bytes_.data(), static_cast<std::size_t>(frames.size()), frames.data());
    bytes_.erase(0, static_cast<std::size_t>(length) * frame);
    given_ += static_cast<uint64_t>(length);
    return true;
  }

 private:
  // Returns false at the end.
  bool readOn(std::size_t missing) {
    const std::size_t count = input_.append(bytes_, std::min(missing, kChunk));
    had_ += count;
    return count > 0;
  }

  // What stands behind the values counts, too.
  void expectEnd() {
    const uint64_t before = had_;
    while (const std::size_t count = input_.append(bytes_, kChunk)) {
      had_ += count;
      bytes_.clear();
      if (had_ - before > input_.most()) input_.failWithoutEnd();
    }
    if (!bytes_.empty() || had_ != before) failByLength();
  }

  [[noreturn]] void failByLength() const {
    checkNpyLength(array_, had_, what_);
    throw Failure(what_ + ": its length is not what it was");
  }

  std::string bytes_;  // of values that were not given
  uint64_t had_;       // of all values
};

// An array in a file, value by value.
class ColumnsSource : public ArraySource {
 public:
  using ArraySource::ArraySource;

  bool next(Index most, MatrixXf& frames) override {
    const Index length = lengthOfNext(most);
    if (length == 0) return false;
    const std::size_t bytes = static_cast<std::size_t>(length) * array_.valueLength();
    std::string read(bytes, '\0');
    Eigen::VectorXf ofFrames(length);
    frames.resize(static_cast<Index>(width_), length);
    for (uint64_t v = 0; v < width_; ++v) {
      const uint64_t place = array_.begin + (v * array_.frames + given_) * array_.valueLength();
      const std::size_t count = input_.readAt(place, read.data(), bytes);
      if (count < bytes) checkNpyLength(array_, place - array_.begin + count, what_);
      copyNpyValues(array_, read.data(), static_cast<std::size_t>(length), ofFrames.data());
      frames.row(static_cast<Index>(v)) = ofFrames.transpose();
    }
    given_ += static_cast<uint64_t>(length);
    return true;
  }
};

// What was read of an array: its header and some values.
std::unique_ptr<FrameSource> openArray(InputStream input, std::string bytes,
                                       const std::string& what) {
  std::size_t wanted = 0;
  std::optional<NpyArray> array;
  while (!(array = parseNpyHeader(bytes, what, wanted))) {
    const std::size_t missing = wanted - bytes.size();
    if (bytes.size() > input.most()) input.failWithoutEnd();
    if (input.append(bytes, std::min(missing, kChunk)) == 0) failInNpyHeader(bytes, what);
  }
  const uint64_t present = input.length().value_or(bytes.size());
  constexpr auto kWidest = static_cast<uint64_t>(std::numeric_limits<Index>::max());
  if (input.length() || array->values > kWidest) {
    checkNpyLength(*array, std::max<uint64_t>(present, array->begin) - array->begin, what);
  }
  if (input.length()) {
    if (array->fortranOrder) return std::make_unique<ColumnsSource>(std::move(input), *array, what);
  } else if (array->fortranOrder) {
    return std::make_unique<WholeSource>(parseFrames(readRest(input, std::move(bytes)), what));
  }
  bytes.erase(0, array->begin);
  return std::make_unique<RowsSource>(std::move(input), *array, std::move(bytes), what);
}

// Reads until it can be told whether an array begins here.
bool beginsAsNpy(InputStream& input, std::string& bytes) {
  while (couldBeNpy(bytes)) {
    if (isNpy(bytes)) return true;
    if (input.append(bytes, kChunk) == 0) return false;
  }
  return false;
}

}  // namespace

std::unique_ptr<FrameSource> FrameSource::open(const std::string& name) {
  InputStream input(name);
  const std::string what = inputName(name);
  std::string bytes;
  if (input.isDevice()) {
    return std::make_unique<WholeSource>(parseFrames(readRest(input, std::move(bytes)), what));
  }
  if (beginsAsNpy(input, bytes)) return openArray(std::move(input), std::move(bytes), what);
  return std::make_unique<TextSource>(std::move(input), std::move(bytes), what);
}

}  // namespace mlnn
