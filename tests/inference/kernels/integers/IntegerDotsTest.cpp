// Every instruction set's products against the plain loop, for all that a layer, an image and a
// pass can ask for.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "inference/kernels/integers/IntegerDots.h"
#include "tests/support/ByteImage.h"

namespace {

using mlnn::ByteFrames;
using mlnn::DotKernels;
using mlnn::RowCodesView;
using mlnn::test::GuardedBytes;

// Codes of a layer, the last of which is the last byte that can be read.
class Codes {
 public:
  Codes(std::size_t rows, std::size_t cols, unsigned bits, std::mt19937& random)
      : bytes_(bytesOf(rows, cols, bits, random)),
        view_{rows, cols, bits, nullptr, reinterpret_cast<const uint8_t*>(bytes_.data())} {}

  const RowCodesView& view() const { return view_; }

 private:
  static std::string bytesOf(std::size_t rows, std::size_t cols, unsigned bits,
                             std::mt19937& random) {
    std::string bytes(
        static_cast<std::size_t>(mlnn::rowCodePanels(rows) * mlnn::rowCodeGroups(cols)) *
            mlnn::rowCodeBlockBytes(bits),
        '\0');
    for (char& byte : bytes) {
      const auto code = static_cast<unsigned char>(random() % 256);
      byte = static_cast<char>(bits == 8 ? std::max<unsigned char>(code, 1) : code);
    }
    return bytes;
  }

  GuardedBytes bytes_;
  RowCodesView view_;
};

// Inputs of some frames, of which the last ones are as large as they may be.
class Inputs {
 public:
  // From `least`, -128 or 0, to 127.
  Inputs(std::size_t cols, std::size_t frames, int least, std::mt19937& random)
      : width_(static_cast<std::size_t>(mlnn::rowCodeGroups(cols)) * mlnn::kRowCodeGroup),
        frames_(frames),
        areNonNegative_(least == 0),
        values_(width_ * frames),
        sums_(frames) {
    const auto count = static_cast<unsigned>(128 - least);
    for (std::size_t f = 0; f < frames; ++f) {
      for (std::size_t i = 0; i < cols; ++i) {
        int value = static_cast<int>(random() % count) + least;
        if (f > 0 && f + 1 == frames) value = random() % 2 == 0 ? least : 127;
        values_[f * width_ + i] = static_cast<int8_t>(value);
        sums_[f] += value;
      }
    }
  }

  // The sums of the panels, as the kernels give them.
  std::vector<int32_t> sums(const DotKernels& kernels, const RowCodesView& codes, std::size_t first,
                            std::size_t panels, bool stream) const {
    const std::size_t stride = width_ * kernels.bytesPerInput + 3;
    std::vector<int8_t> bytes(stride * frames_);
    for (std::size_t f = 0; f < frames_; ++f) {
      std::copy_n(values_.data() + f * width_, width_, bytes.data() + f * stride);
      kernels.arrange(bytes.data() + f * stride, width_);
    }
    std::vector<int32_t> sums(frames_ * panels * mlnn::kRowCodePanel);
    const ByteFrames x{bytes.data(), stride, sums_.data(), frames_, areNonNegative_};
    kernels.dots(codes, first, panels, x, {stream, first + panels, 0}, sums.data());
    return sums;
  }

 private:
  std::size_t width_;
  std::size_t frames_;
  bool areNonNegative_;
  std::vector<int8_t> values_;
  std::vector<int32_t> sums_;
};

void expectPlainSums(const Codes& codes, std::size_t first, std::size_t panels, std::size_t frames,
                     int least, std::mt19937& random) {
  const Inputs inputs(codes.view().cols, frames, least, random);
  const DotKernels& plain = *mlnn::runnableDots().back();
  const std::vector<int32_t> expected = inputs.sums(plain, codes.view(), first, panels, false);
  for (const DotKernels* kernels : mlnn::runnableDots()) {
    if (frames > std::max(kernels->few.frames, kernels->many.frames)) continue;
    for (const bool stream : {false, true}) {
      ASSERT_EQ(inputs.sums(*kernels, codes.view(), first, panels, stream), expected)
          << kernels->name << ", " << codes.view().bits << " bits, " << codes.view().cols
          << " inputs, " << panels << " panels from " << first << " on, " << frames
          << " frames, from " << least << " on";
    }
  }
}

TEST(IntegerDots, areThoseOfThePlainLoopForLayersOfAllShapes) {
  std::mt19937 random(1);
  for (const unsigned bits : {8U, 4U}) {
    for (std::size_t cols = 1; cols < 90; cols += 1 + cols / 12) {
      for (const std::size_t panels : std::vector<std::size_t>{1, 2, 3, 5, 9}) {
        const Codes codes(16 * panels, cols, bits, random);
        for (const std::size_t frames : std::vector<std::size_t>{1, 2, 3, 4, 5, 6, 7, 8}) {
          expectPlainSums(codes, 0, panels, frames, -128, random);
          expectPlainSums(codes, 0, panels, frames, 0, random);
        }
      }
    }
  }
}

TEST(IntegerDots, takeSomePanelsOfALayer) {
  std::mt19937 random(2);
  const Codes codes(16 * 12, 300, 8, random);
  for (const std::size_t first : std::vector<std::size_t>{1, 4, 7}) {
    for (const std::size_t panels : std::vector<std::size_t>{1, 4, 5})
      expectPlainSums(codes, first, panels, 1, -128, random);
  }
}

// Codes of an image begin at any place of a cache line.
TEST(IntegerDots, areThoseOfThePlainLoopAtEveryAddress) {
  std::mt19937 random(3);
  constexpr std::size_t kCols = 70;
  constexpr std::size_t kPanels = 6;
  std::string bytes(kPanels * 18 * 64 + 64, '\0');
  for (char& byte : bytes) byte = static_cast<char>(1 + random() % 255);
  const GuardedBytes memory(bytes);
  const Inputs inputs(kCols, 1, -128, random);
  for (std::size_t past = 0; past < 64; ++past) {
    const auto* const at = reinterpret_cast<const uint8_t*>(memory.data()) + past;
    const RowCodesView codes{16 * kPanels, kCols, 8, nullptr, at};
    const auto expected = inputs.sums(*mlnn::runnableDots().back(), codes, 0, kPanels, false);
    for (const DotKernels* kernels : mlnn::runnableDots()) {
      ASSERT_EQ(inputs.sums(*kernels, codes, 0, kPanels, false), expected)
          << kernels->name << " " << past;
    }
  }
}

TEST(IntegerDots, endWithThePlainLoopAndBeginWithTheBestOne) {
  const std::vector<const DotKernels*> runnable = mlnn::runnableDots();
  ASSERT_FALSE(runnable.empty());
  EXPECT_EQ(runnable.back()->name, std::string("plain"));
  EXPECT_EQ(runnable.front(), &mlnn::bestDots());
}

}  // namespace
