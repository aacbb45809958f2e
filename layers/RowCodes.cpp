#include "layers/RowCodes.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <numeric>

namespace mlnn {
namespace {

constexpr double kLargestCode = largestRowCode(8);

float floatAt(const void* array, std::size_t index) {
  float value;
  std::memcpy(&value, static_cast<const char*>(array) + index * sizeof value, sizeof value);
  return value;
}

bool isNegativeZero(float value) {
  uint32_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  return bits == 0x80000000u;
}

// Returns the nearest whole number. No call: this is the inner loop of what every writer does.
double nearest(double value) {
  constexpr double kShift = 6755399441055744.0;  // 1.5 * 2^52, where the distance of doubles is 1
  return value + kShift - kShift;
}

// --- Finding scales ---

// Some rows as far as they have been seen. Floats are whole multiples of a power of two, so the
// doubles here are exact, remainders too.
class RowsSoFar {
 public:
  static constexpr std::size_t kMost = 64;

  explicit RowsSoFar(std::size_t rows) : rows_(rows) {}

  // Takes in some columns of weights, which are `stride` weights apart. Returns whether the rows
  // still have a form.
  bool take(const char* columns, std::size_t count, std::size_t stride) {
    return have(columns, count, stride) || takeOneByOne(columns, count, stride);
  }

  // Takes in the next weight of a row. Returns whether it still has a form.
  bool takeWeight(std::size_t row, float weight);

  // Returns what has been found.
  float scale(std::size_t row) const { return static_cast<float>(scales_[row]); }
  bool needsBytes(std::size_t row) const {
    return largest_[row] > largestRowCode(4) * scales_[row];
  }

 private:
  using Values = std::array<double, kMost>;

  bool have(const char* columns, std::size_t count, std::size_t stride);
  bool takeOneByOne(const char* columns, std::size_t count, std::size_t stride);

  std::size_t rows_;
  Values scales_{};    // greatest common divisors of the weights; 0 while all are 0
  Values inverses_{};  // about 1 / scale, or 0
  Values largest_{};   // of the absolute weights
};

// Whether all weights are codes times the scales so far, which no other weights are. Loops that a
// compiler makes vectors of: this is what every writer does with every weight.
bool RowsSoFar::have(const char* columns, std::size_t count, std::size_t stride) {
  std::array<float, kMost> column{};
  std::array<uint32_t, kMost> negativeZeros{};
  Values largestCodes{};
  Values errors{};
  for (std::size_t c = 0; c < count; ++c) {
    const char* const from = columns + c * stride * sizeof(float);
    std::memcpy(column.data(), from, rows_ * sizeof(float));
    std::array<uint32_t, kMost> bits;
    std::memcpy(bits.data(), column.data(), sizeof bits);
    for (std::size_t r = 0; r < kMost; ++r) negativeZeros[r] |= bits[r] == 0x80000000u ? 1 : 0;
    for (std::size_t r = 0; r < kMost; ++r) {
      const double weight = double{column[r]};
      const double code = nearest(weight * inverses_[r]);
      errors[r] += std::fabs(code * scales_[r] - weight);
      largestCodes[r] = std::max(largestCodes[r], std::fabs(code));
      largest_[r] = std::max(largest_[r], std::fabs(weight));
    }
  }
  bool fits = true;
  for (std::size_t r = 0; r < kMost; ++r) {
    fits &= negativeZeros[r] == 0 && errors[r] == 0 && largestCodes[r] <= kLargestCode;
  }
  return fits;
}

bool RowsSoFar::takeOneByOne(const char* columns, std::size_t count, std::size_t stride) {
  for (std::size_t c = 0; c < count; ++c) {
    for (std::size_t r = 0; r < rows_; ++r) {
      if (!takeWeight(r, floatAt(columns, c * stride + r))) return false;
    }
  }
  return true;
}

bool RowsSoFar::takeWeight(std::size_t row, float weight) {
  if (!std::isfinite(weight) || isNegativeZero(weight)) return false;
  const double size = std::fabs(weight);
  if (size == 0) return true;
  double divisor = scales_[row] == 0 ? size : scales_[row];
  const double largest = std::max(largest_[row], size);
  largest_[row] = largest;
  if (largest > kLargestCode * std::min(divisor, size)) return false;
  for (double rest = std::fmod(size, divisor); rest != 0;) {
    if (largest > kLargestCode * rest) return false;
    const double next = std::fmod(divisor, rest);
    divisor = rest;
    rest = next;
  }
  scales_[row] = divisor;
  inverses_[row] = 1 / divisor;
  return true;
}

// Takes the rows of all columns in. Returns whether they have a form.
bool takeAll(RowsSoFar& found, const char* weights, std::size_t rows, std::size_t cols) {
  std::size_t some = 2;  // at first, to look at few weights of a layer that has no form
  for (std::size_t col = 0; col < cols; col += some) {
    if (col > 2) some = 16;
    const std::size_t count = std::min(some, cols - col);
    if (!found.take(weights + col * rows * sizeof(float), count, rows)) return false;
  }
  return true;
}

// --- Writing codes ---

// The codes of one block, each plus the bias.
using Block = std::array<unsigned char, kRowCodeBlock>;

// Weights with their scales.
struct ScaledWeights {
  const char* weights;
  std::size_t rows;
  std::size_t cols;
  const RowScales& scales;

  Block block(std::size_t panel, std::size_t group) const {
    Block codes;
    const int bias = rowCodeBias(scales.bits);
    codes.fill(static_cast<unsigned char>(bias));
    const std::size_t firstRow = panel * kRowCodePanel;
    const std::size_t lanes = std::min(kRowCodePanel, rows - firstRow);
    for (std::size_t k = 0; k < kRowCodeGroup; ++k) {
      const std::size_t col = group * kRowCodeGroup + k;
      if (col >= cols) break;
      for (std::size_t lane = 0; lane < lanes; ++lane) {
        const std::size_t row = firstRow + lane;
        const double scale = double{scales.values[row]};
        const double weight = double{floatAt(weights, col * rows + row)};
        const double code = scale == 0 ? 0 : nearest(weight / scale);
        codes[lane * kRowCodeGroup + k] = static_cast<unsigned char>(static_cast<int>(code) + bias);
      }
    }
    return codes;
  }
};

// Puts a block into its bytes. Returns how many these are.
std::size_t pack(const Block& codes, unsigned bits, unsigned char* bytes) {
  const std::size_t length = rowCodeBlockBytes(bits);
  std::memcpy(bytes, codes.data(), length);
  if (bits == 8) return length;
  for (std::size_t j = 0; j < length; ++j) {
    bytes[j] = static_cast<unsigned char>(codes[j] | codes[j + length] << 4);
  }
  return length;
}

// --- Reading codes ---

Block blockAt(const RowCodesView& view, std::size_t panel, std::size_t group) {
  Block codes;
  const std::size_t length = rowCodeBlockBytes(view.bits);
  const std::size_t index = panel * static_cast<std::size_t>(rowCodeGroups(view.cols)) + group;
  const unsigned char* const bytes = view.codes + index * length;
  if (view.bits == 8) {
    std::memcpy(codes.data(), bytes, codes.size());
    return codes;
  }
  constexpr std::size_t kHalf = kRowCodeBlock / 2;
  for (std::size_t j = 0; j < kHalf; ++j) {
    codes[j] = bytes[j] & 0xF;
    codes[j + kHalf] = bytes[j] >> 4;
  }
  return codes;
}

// Some rows of one panel.
struct PanelPart {
  std::size_t panel;
  std::size_t firstLane;
  std::size_t lanes;
};

// Writes the weights of these rows, whose columns are `stride` floats apart.
void unpackPart(const RowCodesView& view, const PanelPart& part, std::size_t firstCol,
                std::size_t cols, std::size_t stride, float* weights) {
  std::array<float, kRowCodePanel> scales{};
  const std::size_t firstRow = part.panel * kRowCodePanel + part.firstLane;
  std::memcpy(scales.data(), view.scales + firstRow * sizeof(float), part.lanes * sizeof(float));
  const int bias = rowCodeBias(view.bits);
  for (std::size_t col = firstCol; col < firstCol + cols;) {
    const Block codes = blockAt(view, part.panel, col / kRowCodeGroup);
    std::array<uint32_t, kRowCodePanel> rows;
    std::memcpy(rows.data(), codes.data(), sizeof rows);
    const std::size_t end = std::min(firstCol + cols, (col / kRowCodeGroup + 1) * kRowCodeGroup);
    for (; col < end; ++col, weights += stride) {
      const std::size_t shift = 8 * (col % kRowCodeGroup);
      for (std::size_t i = 0; i < part.lanes; ++i) {
        const int code = static_cast<int>(rows[part.firstLane + i] >> shift & 0xFF) - bias;
        weights[i] = static_cast<float>(code) * scales[i];
      }
    }
  }
}

// --- Checking codes ---

// The smallest and the largest code plus bias at each place of a panel's blocks.
struct Extremes {
  Block smallest;
  Block largest;

  Extremes(const RowCodesView& view, std::size_t panel) {
    smallest.fill(0xFF);
    largest.fill(0);
    const auto groups = static_cast<std::size_t>(rowCodeGroups(view.cols));
    for (std::size_t group = 0; group < groups; ++group) {
      const Block codes = blockAt(view, panel, group);
      for (std::size_t j = 0; j < codes.size(); ++j) {
        smallest[j] = std::min(smallest[j], codes[j]);
        largest[j] = std::max(largest[j], codes[j]);
      }
    }
  }

  // Returns the largest absolute code of a row; more than any has where a code is out of range.
  int sizeOf(std::size_t lane, unsigned bits) const {
    int size = 0;
    for (std::size_t j = lane * kRowCodeGroup; j < (lane + 1) * kRowCodeGroup; ++j) {
      size = std::max({size, rowCodeBias(bits) - smallest[j], largest[j] - rowCodeBias(bits)});
    }
    return size;
  }
};

// Whether the columns behind the last one have the code 0.
bool columnsEndInZeros(const RowCodesView& view, std::size_t panel) {
  const Block codes = blockAt(view, panel, static_cast<std::size_t>(rowCodeGroups(view.cols)) - 1);
  const std::size_t used = (view.cols - 1) % kRowCodeGroup + 1;
  for (std::size_t j = 0; j < codes.size(); ++j) {
    if (j % kRowCodeGroup >= used && codes[j] != rowCodeBias(view.bits)) return false;
  }
  return true;
}

// Whether the scale is not a divisor of the row's weights alone, but the greatest one.
bool isGreatestDivisor(const RowCodesView& view, std::size_t row) {
  int divisor = 0;
  for (std::size_t col = 0; col < view.cols; ++col) {
    divisor = std::gcd(divisor, view.code(row, col));
    if (divisor == 1) return true;
  }
  return false;
}

// Whether each code times the scale is a float.
bool productsAreExact(const RowCodesView& view, std::size_t row, int size) {
  const float scale = view.scale(row);
  if (size * double{scale} > double{std::numeric_limits<float>::max()}) return false;
  constexpr uint32_t kBitsOfCode = (uint32_t{1} << 7) - 1;  // a code has no more than these
  uint32_t bits;
  std::memcpy(&bits, &scale, sizeof bits);
  if ((bits & kBitsOfCode) == 0) return true;
  for (std::size_t col = 0; col < view.cols; ++col) {
    const double product = view.code(row, col) * double{scale};
    if (double{static_cast<float>(product)} != product) return false;
  }
  return true;
}

// Whether a row's scale is the canonical one; `size` is its largest absolute code.
bool isRowCanonical(const RowCodesView& view, std::size_t row, int size) {
  const float scale = view.scale(row);
  if (size == 0) return scale == 0 && !std::signbit(scale);
  if (!std::isfinite(scale) || !(scale > 0)) return false;
  return isGreatestDivisor(view, row) && productsAreExact(view, row, size);
}

}  // namespace

float rowScale(const void* weights, std::size_t rows, std::size_t cols, std::size_t row) {
  RowsSoFar found(1);
  for (std::size_t col = 0; col < cols; ++col) {
    if (!found.takeWeight(0, floatAt(weights, col * rows + row))) return -1;
  }
  return found.scale(0);
}

std::optional<RowScales> findRowScales(const void* weights, std::size_t rows, std::size_t cols,
                                       const Watch& watch) {
  if (rows == 0 || cols == 0) return std::nullopt;
  RowScales scales{4, {}};
  for (std::size_t first = 0; first < rows; first += RowsSoFar::kMost) {
    const std::size_t count = std::min(RowsSoFar::kMost, rows - first);
    RowsSoFar found(count);
    const char* const begin = static_cast<const char*>(weights) + first * sizeof(float);
    if (!takeAll(found, begin, rows, cols)) return std::nullopt;
    scales.values.reserve(rows);
    for (std::size_t row = 0; row < count; ++row) {
      scales.values.push_back(found.scale(row));
      if (found.needsBytes(row)) scales.bits = 8;
    }
    tell(watch, 0);
  }
  return scales;
}

void writeRowCodes(const RowScales& scales, const void* weights, std::size_t rows, std::size_t cols,
                   ByteSink& sink, const Watch& watch) {
  const ScaledWeights source{static_cast<const char*>(weights), rows, cols, scales};
  const auto panels = static_cast<std::size_t>(rowCodePanels(rows));
  const auto groups = static_cast<std::size_t>(rowCodeGroups(cols));
  std::array<unsigned char, 4096> piece;
  std::size_t length = 0;
  for (std::size_t panel = 0; panel < panels; ++panel) {
    for (std::size_t group = 0; group < groups; ++group) {
      length += pack(source.block(panel, group), scales.bits, piece.data() + length);
      if (length < piece.size()) continue;
      sink.take(piece.data(), length);
      length = 0;
    }
    tell(watch, 0);
  }
  sink.take(piece.data(), length);
}

// --- RowCodesView ---

float RowCodesView::scale(std::size_t row) const { return floatAt(scales, row); }

int RowCodesView::code(std::size_t row, std::size_t col) const {
  const std::size_t panel = row / kRowCodePanel;
  const std::size_t group = col / kRowCodeGroup;
  const std::size_t block = panel * static_cast<std::size_t>(rowCodeGroups(cols)) + group;
  const std::size_t place = row % kRowCodePanel * kRowCodeGroup + col % kRowCodeGroup;
  const unsigned char* const bytes = codes + block * rowCodeBlockBytes(bits);
  if (bits == 8) return bytes[place] - rowCodeBias(8);
  const unsigned byte = bytes[place % rowCodeBlockBytes(4)];
  const unsigned code = place < rowCodeBlockBytes(4) ? byte & 0xF : byte >> 4;
  return static_cast<int>(code) - rowCodeBias(4);
}

void RowCodesView::unpack(std::size_t row, std::size_t rowCount, std::size_t col,
                          std::size_t colCount, float* weights) const {
  constexpr std::size_t kCols = 64;  // at a time, so that few pages are written together
  for (std::size_t done = 0; done < colCount; done += kCols) {
    const std::size_t some = std::min(kCols, colCount - done);
    float* const to = weights + done * rowCount;
    for (std::size_t at = row; at < row + rowCount;) {
      const std::size_t lane = at % kRowCodePanel;
      const std::size_t lanes = std::min(kRowCodePanel - lane, row + rowCount - at);
      unpackPart(*this, {at / kRowCodePanel, lane, lanes}, col + done, some, rowCount,
                 to + (at - row));
      at += lanes;
    }
  }
}

namespace {

std::size_t codesLengthOf(const RowCodesView& view) {
  return static_cast<std::size_t>(rowCodesLength(view.rows, view.cols, view.bits));
}

// Leaves the first columns out, whole blocks of them, and moves the codes of the others to the end
// of where the codes are: from the last panel on, so that none is overwritten before it is moved.
void dropColumns(RowCodesView& view, std::size_t cols) {
  const std::size_t before = codesLengthOf(view);
  const std::size_t panels = static_cast<std::size_t>(rowCodePanels(view.rows));
  auto* const end = const_cast<unsigned char*>(view.codes) + before;
  view.cols -= cols;
  const std::size_t after = codesLengthOf(view);
  for (std::size_t behind = 0; behind < panels; ++behind) {
    const std::size_t length = after / panels;
    std::memmove(end - (behind + 1) * length, end - behind * (before / panels) - length, length);
  }
  view.codes = end - after;
}

}  // namespace

// What fits before the codes is written there, again and again. Of a few columns at last, the codes
// are copied.
void RowCodesView::unpackOver(float* weights) const {
  const std::vector<char> keptScales(scales, scales + rows * sizeof(float));
  RowCodesView left = *this;
  left.scales = keptScales.data();
  for (;;) {
    const std::size_t room =
        static_cast<std::size_t>(left.codes - reinterpret_cast<const unsigned char*>(weights));
    const std::size_t some =
        room / (rows * sizeof(float)) / kRowCodeGroup * kRowCodeGroup;  // columns
    if (some == 0) break;
    left.unpack(0, rows, 0, some, weights);
    weights += some * rows;
    dropColumns(left, some);
  }
  const std::vector<unsigned char> rest(left.codes, left.codes + codesLengthOf(left));
  left.codes = rest.data();
  left.unpack(0, rows, 0, left.cols, weights);
}

bool RowCodesView::isCanonical() const {
  if (rows == 0 || cols == 0) return false;
  int largest = 0;
  for (std::size_t panel = 0; panel < rowCodePanels(rows); ++panel) {
    const Extremes extremes(*this, panel);
    if (!columnsEndInZeros(*this, panel)) return false;
    for (std::size_t lane = 0; lane < kRowCodePanel; ++lane) {
      const int size = extremes.sizeOf(lane, bits);
      if (size > largestRowCode(bits)) return false;
      const std::size_t row = panel * kRowCodePanel + lane;
      if (row < rows ? !isRowCanonical(*this, row, size) : size > 0) return false;
      largest = std::max(largest, size);
    }
  }
  return bits == 4 || largest > largestRowCode(4);
}

// --- RowCodes ---

namespace {

class CodesSink final : public ByteSink {
 public:
  explicit CodesSink(std::vector<unsigned char>& codes) : codes_(codes) {}
  void take(const void* bytes, std::size_t count) override {
    const auto* const begin = static_cast<const unsigned char*>(bytes);
    codes_.insert(codes_.end(), begin, begin + count);
  }

 private:
  std::vector<unsigned char>& codes_;
};

}  // namespace

std::optional<RowCodes> RowCodes::find(const float* weights, std::size_t rows, std::size_t cols,
                                       const Watch& watch) {
  std::optional<RowScales> scales = findRowScales(weights, rows, cols, watch);
  if (!scales) return std::nullopt;
  RowCodes found{rows, cols, scales->bits, {}, {}};
  found.codes.reserve(static_cast<std::size_t>(rowCodesLength(rows, cols, scales->bits)));
  CodesSink sink(found.codes);
  writeRowCodes(*scales, weights, rows, cols, sink, watch);
  found.scales = std::move(scales->values);
  return found;
}

RowCodesView RowCodes::view() const {
  return {rows, cols, bits, reinterpret_cast<const char*>(scales.data()), codes.data()};
}

}  // namespace mlnn
