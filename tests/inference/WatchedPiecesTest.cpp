#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "inference/WatchedPieces.h"

namespace {

constexpr std::size_t kPiece = std::size_t{1} << 20;

TEST(WatchedPieces, makeTheWhole) {
  std::vector<std::pair<std::size_t, std::size_t>> pieces;
  std::vector<std::size_t> steps;
  mlnn::inPieces(
      2 * kPiece + 3, [&](std::size_t further) { steps.push_back(further); },
      [&](std::size_t first, std::size_t count) { pieces.emplace_back(first, count); });
  const std::vector<std::pair<std::size_t, std::size_t>> expected = {
      {0, kPiece}, {kPiece, kPiece}, {2 * kPiece, 3}};
  EXPECT_EQ(pieces, expected);
  EXPECT_EQ(steps, std::vector<std::size_t>(3, 0));
}

TEST(WatchedPieces, areNoneOfNothing) {
  mlnn::inPieces(0, {}, [](std::size_t, std::size_t) { FAIL(); });
  EXPECT_TRUE(mlnn::copyInPieces(nullptr, 0, {}).empty());
}

TEST(WatchedPieces, copyAllValues) {
  std::vector<float> values(kPiece + 5);
  for (std::size_t i = 0; i < values.size(); ++i) values[i] = static_cast<float>(i);
  EXPECT_EQ(mlnn::copyInPieces(values.data(), values.size(), {}), values);
}

}  // namespace
