#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "inference/kernels/Kernels.h"
#include "inference/kernels/TableKernels.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::Kernels;
using mlnn::LayerView;
using mlnn::TableCodesView;
using mlnn::TableKernels;
using mlnn::test::someValues;

constexpr float kMarker = 12345.0f;

// A layer of codes in arrays that end where the codes end, and what they stand for.
class TableLayer {
 public:
  TableLayer(std::size_t rows, std::size_t cols, unsigned bits, std::size_t rareEvery)
      : bits_(bits),
        table_(someValues(1, 1 << bits, 1)),
        codes_((rows * cols * bits + 7) / 8),
        weights_(rows * cols),
        scale_(someValues(static_cast<int>(rows), 1, 2)),
        shift_(someValues(static_cast<int>(rows), 1, 3)) {
    uint32_t random = 1;
    for (std::size_t i = 0; i < weights_.size(); ++i) {
      random = random * 1664525u + 1013904223u;
      const bool isRare = rareEvery > 0 && i % rareEvery == rareEvery / 2;
      const unsigned code = isRare ? 0 : random >> (32 - bits);
      setCode(i, code);
      weights_[i] = isRare ? kRare : table_(static_cast<Eigen::Index>(code));
      if (isRare) positions_.push_back(static_cast<uint32_t>(i));
    }
    view_ = {weights_.data(), rows, cols, nullptr, shift_.data(), ActFn::linear};
  }

  void useBatchNorm() { view_.scale = scale_.data(); }
  void setCode(std::size_t i, unsigned code) {
    unsigned char& byte = codes_[i * bits_ / 8];
    byte = static_cast<unsigned char>(bits_ == 8 ? code : byte | code << i % 2 * 4);
  }

  const LayerView& floats() const { return view_; }
  std::vector<uint32_t>& positions() { return positions_; }

  TableCodesView codes() const {
    TableCodesView view;
    view.bits = bits_;
    view.table = reinterpret_cast<const char*>(table_.data());
    view.tableLength = static_cast<std::size_t>(table_.size());
    view.codes = codes_.data();
    view.rarePositions = reinterpret_cast<const char*>(positions_.data());
    view.rareCount = positions_.size();
    view.rareValue = kRare;
    return view;
  }

 private:
  static constexpr float kRare = -0.8125f;

  unsigned bits_;
  Eigen::MatrixXf table_;
  std::vector<unsigned char> codes_;
  std::vector<float> weights_;
  std::vector<uint32_t> positions_;
  Eigen::MatrixXf scale_;
  Eigen::MatrixXf shift_;
  LayerView view_{};
};

LayerView withCodes(LayerView layer, const TableCodesView& codes) {
  layer.weights = nullptr;
  layer.tableCodes = &codes;
  return layer;
}

// The kernels of floats with the same vectors.
const Kernels& floatKernels(const TableKernels& kernels) {
  for (const Kernels* each : mlnn::runnableKernels()) {
    if (each->lanes == kernels.lanes && each->fuses == kernels.fuses) return *each;
  }
  return mlnn::bestKernels();
}

std::vector<float> resultsOfFloats(const TableKernels& kernels, const LayerView& layer,
                                   const float* x) {
  std::vector<float> scratch(layer.rows + 16);
  std::vector<float> y(layer.rows);
  floatKernels(kernels).matrixVector(layer, x, y.data(), scratch.data());
  return y;
}

void expectBits(const std::vector<float>& expected, const float* found) {
  for (std::size_t i = 0; i < expected.size(); ++i) {
    ASSERT_EQ(std::memcmp(&expected[i], found + i, sizeof(float)), 0)
        << i << ": " << expected[i] << " and " << found[i];
  }
}

void expectCodes(const TableKernels& kernels, const TableLayer& layer) {
  const LayerView& floats = layer.floats();
  const Eigen::MatrixXf x = someValues(static_cast<int>(floats.cols), 1, 4);
  const TableCodesView codes = layer.codes();
  std::vector<float> found(floats.rows + 1, kMarker);
  kernels.multiply(withCodes(floats, codes), x.data(), found.data());
  ASSERT_NO_FATAL_FAILURE(expectBits(resultsOfFloats(kernels, floats, x.data()), found.data()));
  ASSERT_EQ(found.back(), kMarker);
}

TEST(TableKernels, bestIsTheFirstRunnableOne) {
  ASSERT_FALSE(mlnn::runnableTableKernels().empty());
  EXPECT_EQ(mlnn::runnableTableKernels().front(), &mlnn::bestTableKernels());
}

TEST(TableKernels, giveTheBitsThatTheWeightsGive) {
  for (const TableKernels* kernels : mlnn::runnableTableKernels()) {
    for (const unsigned bits : {8u, 4u}) {
      for (const std::size_t rows :
           {1u, 2u, 3u, 7u, 8u, 9u, 15u, 16u, 17u, 31u, 33u, 64u, 65u, 130u}) {
        for (const std::size_t cols : {1u, 2u, 15u, 16u, 17u, 127u, 129u, 260u}) {
          for (const std::size_t rareEvery : {0u, 1u, 5u, 1000u}) {
            SCOPED_TRACE(testing::Message() << kernels->lanes << " lanes, " << bits << " bits, "
                                            << rows << "x" << cols << ", one in " << rareEvery);
            TableLayer layer(rows, cols, bits, rareEvery);
            if (cols % 2 == 0) layer.useBatchNorm();
            ASSERT_NO_FATAL_FAILURE(expectCodes(*kernels, layer));
          }
        }
      }
    }
  }
}

TEST(TableKernels, computeSomeRowsOfALayerAsTheWholeDoes) {
  constexpr std::size_t kFirst = 64;
  for (const TableKernels* kernels : mlnn::runnableTableKernels()) {
    for (const unsigned bits : {8u, 4u}) {
      for (const std::size_t rows : {128u, 131u}) {
        SCOPED_TRACE(testing::Message()
                     << kernels->lanes << " lanes, " << bits << " bits, " << rows);
        const TableLayer layer(rows, 140, bits, 37);
        const Eigen::MatrixXf x = someValues(140, 1, 4);
        TableCodesView codes = layer.codes();
        codes.first = kFirst;
        LayerView some = withCodes(layer.floats(), codes);
        some.rows -= kFirst;
        some.shift += kFirst;
        some.ofRows = rows;
        std::vector<float> found(some.rows);
        kernels->multiply(some, x.data(), found.data());
        std::vector<float> expected = resultsOfFloats(*kernels, layer.floats(), x.data());
        expected.erase(expected.begin(), expected.begin() + kFirst);
        ASSERT_NO_FATAL_FAILURE(expectBits(expected, found.data()));
      }
    }
  }
}

// An image's bytes may change behind its check: results are any then, but nothing else is read.
TEST(TableKernels, readNothingElseWhereTheBytesAreNotAsTheyWereChecked) {
  for (const TableKernels* kernels : mlnn::runnableTableKernels()) {
    for (const unsigned bits : {8u, 4u}) {
      TableLayer layer(40, 20, bits, 9);
      layer.positions()[3] = 0xFFFFFFFFu;
      layer.positions()[5] = 0;
      std::reverse(layer.positions().begin() + 20, layer.positions().end());
      TableCodesView codes = layer.codes();
      codes.tableLength = 3;
      const Eigen::MatrixXf x = someValues(20, 1, 4);
      std::vector<float> found(41, kMarker);
      kernels->multiply(withCodes(layer.floats(), codes), x.data(), found.data());
      EXPECT_EQ(found.back(), kMarker);
    }
  }
}

}  // namespace
