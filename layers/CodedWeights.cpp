#include "layers/CodedWeights.h"

#include <algorithm>
#include <cstring>

#include "os/Builtins.h"

namespace mlnn {
namespace {

constexpr std::size_t kWord = sizeof(uint32_t);

// One value may have no code: b bits are enough for a grid of 2^b steps, which has 2^b + 1
// values. The one that has none must be the rarest, so its positions take little.
constexpr std::size_t kMaxDistinct = maxTableLength(kByteCodes) + 1;

uint32_t wordAt(const void* array, std::size_t index) {
  uint32_t word;
  std::memcpy(&word, static_cast<const char*>(array) + index * kWord, kWord);
  return word;
}

// Numbers different values in the order in which they come.
class ValueNumbers {
 public:
  static constexpr std::size_t kNone = ~std::size_t{0};

  std::size_t size() const { return size_; }
  uint32_t value(std::size_t number) const { return values_[number]; }

  // Returns the number of the value, which is given one if it has none; kNone when there are
  // kMaxDistinct already.
  std::size_t add(uint32_t value) {
    for (std::size_t i = value * 0x9E3779B1u >> (32 - kSlotBits);; i = (i + 1) % slots_.size()) {
      Slot& slot = slots_[i];
      if (slot.value == value && slot.count != 0) return slot.count - 1;
      if (slot.count != 0) continue;
      if (size_ == kMaxDistinct) return kNone;
      values_[size_++] = value;
      slot = {value, static_cast<uint32_t>(size_)};
      return size_ - 1;
    }
  }

 private:
  static constexpr unsigned kSlotBits = 11;  // eight times as many slots as values
  struct Slot {
    uint32_t value;
    uint32_t count;  // of the values up to this one: its number + 1; 0 is free
  };

  std::array<Slot, std::size_t{1} << kSlotBits> slots_{};
  std::array<uint32_t, kMaxDistinct> values_;
  std::size_t size_ = 0;
};

struct ValueCount {
  uint32_t value;
  uint64_t count;
};

// Of two values that are equally rare the one with the larger pattern goes without a code.
bool isRarer(const ValueCount& a, const ValueCount& b) {
  return a.count != b.count ? a.count < b.count : a.value > b.value;
}

uint64_t codedWeightsLength(uint32_t form, uint64_t count, uint64_t tableLength,
                            uint64_t rareCount) {
  const uint64_t codeWords = (count * codeBits(form) + 31) / 32;
  const uint64_t rareWords = rareCount == 0 ? 0 : 1 + rareCount;
  return kCodedPrefixLength + kWord * (tableLength + rareWords + codeWords);
}

// A form, and the bytes that weights take in it.
struct SizedForm {
  uint32_t form;
  uint64_t length;
};

// Returns the shortest form without row scales for weights with so many different values, the
// rarest of which occurs so often.
SizedForm shortestForm(uint64_t count, std::size_t distinct, uint64_t rarest) {
  SizedForm best{kPlainFloats, kWord * count};
  for (const uint32_t form : {kByteCodes, kHalfByteCodes}) {
    const std::size_t room = maxTableLength(form);
    if (distinct > room + 1) continue;
    const bool isOneTooMany = distinct == room + 1;
    const uint64_t length =
        codedWeightsLength(form, count, isOneTooMany ? room : distinct, isOneTooMany ? rarest : 0);
    if (length < best.length) best = {form, length};
  }
  return best;
}

// How often each value occurs, in the order in which they come; none for too many values.
class ValueCounts {
 public:
  bool take(const void* weights, uint64_t count, const Watch& watch = {}) {
    constexpr uint64_t kSome = uint64_t{1} << 20;
    for (uint64_t first = 0; first < count; first += kSome) {
      if (!takeSome(weights, first, std::min(first + kSome, count))) return false;
      tell(watch, 0);
    }
    return true;
  }
  std::size_t size() const { return numbers_.size(); }
  ValueCount operator[](std::size_t number) const {
    return {numbers_.value(number), counts_[0][number] + counts_[1][number]};
  }
  std::size_t rarest() const {
    std::size_t best = 0;
    for (std::size_t i = 1; i < size(); ++i) {
      if (isRarer((*this)[i], (*this)[best])) best = i;
    }
    return best;
  }

 private:
  bool takeSome(const void* weights, uint64_t first, uint64_t end) {
    for (auto i = static_cast<std::size_t>(first); i < end; ++i) {
      const std::size_t number = numbers_.add(wordAt(weights, i));
      if (number == ValueNumbers::kNone) return false;
      ++counts_[i % 2][number];  // two, so that equal weights in a row do not wait for each other
    }
    return true;
  }

  ValueNumbers numbers_;
  std::array<std::array<uint64_t, kMaxDistinct>, 2> counts_{};
};

}  // namespace

namespace {

// The plan among the forms without row scales.
WeightsPlan planTable(const void* weights, uint64_t count, const Watch& watch = {}) {
  WeightsPlan plan;
  ValueCounts counts;
  if (count == 0 || !counts.take(weights, count, watch)) return plan;
  const std::size_t rarest = counts.rarest();
  plan.form = shortestForm(count, counts.size(), counts[rarest].count).form;
  if (plan.form == kPlainFloats) return plan;
  const bool leavesOut = counts.size() > maxTableLength(plan.form);
  plan.table.reserve(counts.size());
  for (std::size_t i = 0; i < counts.size(); ++i) {
    if (leavesOut && i == rarest) continue;
    plan.table.push_back(counts[i].value);
  }
  std::sort(plan.table.begin(), plan.table.end());
  if (!leavesOut) return plan;
  plan.rareCount = static_cast<uint32_t>(counts[rarest].count);
  plan.rareValue = counts[rarest].value;
  return plan;
}

}  // namespace

WeightsPlan planWeights(const WeightsRef& weights, const Watch& watch) {
  WeightsPlan plan = planTable(weights.values, weights.count(), watch);
  const uint64_t least = rowScaledLength(kHalfByteRowCodes, weights.rows, weights.cols);
  if (least >= weightsLength(plan, weights)) return plan;
  std::optional<RowScales> scales =
      findRowScales(weights.values, weights.rows, weights.cols, watch);
  if (!scales) return plan;
  const uint32_t form = scales->bits == 8 ? kByteRowCodes : kHalfByteRowCodes;
  if (rowScaledLength(form, weights.rows, weights.cols) >= weightsLength(plan, weights)) {
    return plan;
  }
  WeightsPlan byRows;
  byRows.form = form;
  byRows.rowScales = std::move(*scales);
  return byRows;
}

bool arePlainWithoutRowScales(const void* weights, uint64_t count) {
  return planTable(weights, count).form == kPlainFloats;
}

uint64_t weightsLength(const WeightsPlan& plan, const WeightsRef& weights) {
  const uint64_t count = weights.count();
  if (plan.form == kPlainFloats) return kWord * count;
  if (hasRowScales(plan.form)) return rowScaledLength(plan.form, weights.rows, weights.cols);
  return codedWeightsLength(plan.form, count, plan.table.size(), plan.rareCount);
}

namespace {

// Numbers the values of the table by their codes, and the rare one by the next number.
ValueNumbers codesOf(const WeightsPlan& plan) {
  ValueNumbers codes;
  for (const uint32_t value : plan.table) codes.add(value);
  if (plan.rareCount > 0) codes.add(plan.rareValue);
  return codes;
}

void writeWord(uint32_t word, ByteSink& sink) { sink.take(&word, kWord); }

void writeRarePositions(const WeightsPlan& plan, const void* weights, uint64_t count,
                        ByteSink& sink) {
  for (std::size_t i = 0; i < count; ++i) {
    if (wordAt(weights, i) == plan.rareValue) writeWord(static_cast<uint32_t>(i), sink);
  }
}

void writeCodes(const WeightsPlan& plan, const void* weights, uint64_t count, ByteSink& sink) {
  ValueNumbers codes = codesOf(plan);
  const auto codeOf = [&](std::size_t i) {
    const std::size_t code = codes.add(wordAt(weights, i));
    return static_cast<unsigned char>(code < plan.table.size() ? code : 0);
  };
  const auto pairAt = [&](std::size_t i) {
    const int second = i + 1 < count ? codeOf(i + 1) : 0;
    return static_cast<unsigned char>(codeOf(i) | second << 4);
  };
  std::array<unsigned char, 4096> piece;
  for (std::size_t i = 0; i < count;) {
    std::size_t length = 0;
    if (plan.form == kByteCodes) {
      while (length < piece.size() && i < count) piece[length++] = codeOf(i++);
    } else {
      for (; length < piece.size() && i < count; i += 2) piece[length++] = pairAt(i);
    }
    while (length % kWord != 0) piece[length++] = 0;  // only behind the last code
    sink.take(piece.data(), length);
  }
}

}  // namespace

void writeCoded(const WeightsPlan& plan, const WeightsRef& weights, ByteSink& sink) {
  if (hasRowScales(plan.form)) {
    sink.take(plan.rowScales.values.data(), plan.rowScales.values.size() * kWord);
    return writeRowCodes(plan.rowScales, weights.values, weights.rows, weights.cols, sink);
  }
  writeWord(static_cast<uint32_t>(plan.table.size()), sink);
  writeWord(plan.rareCount, sink);
  sink.take(plan.table.data(), plan.table.size() * kWord);
  if (plan.rareCount > 0) {
    writeWord(plan.rareValue, sink);
    writeRarePositions(plan, weights.values, weights.count(), sink);
  }
  writeCodes(plan, weights.values, weights.count(), sink);
}

namespace {

// Returns the bytes of the shortest form without row scales for what these codes stand for.
uint64_t lengthWithoutRowScales(const RowCodesView& view) {
  constexpr std::size_t kCols = 64;
  const uint64_t count = uint64_t{view.rows} * view.cols;
  std::array<float, kRowCodePanel * kCols> weights;
  ValueCounts counts;
  for (std::size_t row = 0; row < view.rows; row += kRowCodePanel) {
    const std::size_t rows = std::min(kRowCodePanel, view.rows - row);
    for (std::size_t col = 0; col < view.cols; col += kCols) {
      const std::size_t cols = std::min(kCols, view.cols - col);
      view.unpack(row, rows, col, cols, weights.data());
      if (!counts.take(weights.data(), rows * cols)) return kWord * count;
    }
  }
  return shortestForm(count, counts.size(), counts[counts.rarest()].count).length;
}

}  // namespace

RowCodesView rowCodesAt(uint32_t form, uint64_t rows, uint64_t cols, const char* src) {
  RowCodesView view;
  view.rows = static_cast<std::size_t>(rows);  // each takes a byte at least, and so on
  view.cols = static_cast<std::size_t>(cols);
  view.bits = codeBits(form);
  view.scales = src;
  view.codes = reinterpret_cast<const unsigned char*>(src) + view.rows * sizeof(float);
  return view;
}

bool viewRowCodes(uint32_t form, uint64_t rows, uint64_t cols, const char* src,
                  std::size_t available, RowCodesView& view) {
  const uint64_t length = rowScaledLength(form, rows, cols);
  if (rows == 0 || cols == 0 || length > available) return false;
  view = rowCodesAt(form, rows, cols, src);
  return view.isCanonical() && length < lengthWithoutRowScales(view);
}

std::size_t codedLength(uint32_t form, uint64_t count, const char* prefix, std::size_t available) {
  if (count / 2 > available) return 0;  // so that no product below overflows
  const uint32_t tableLength = wordAt(prefix, 0);
  const uint32_t rareCount = wordAt(prefix, 1);
  const std::size_t room = maxTableLength(form);
  if (tableLength == 0 || tableLength > room || rareCount > count) return 0;
  if (rareCount > 0 && tableLength < room) return 0;
  const uint64_t length = codedWeightsLength(form, count, tableLength, rareCount);
  return length <= available ? static_cast<std::size_t>(length) : 0;
}

namespace {

// --- Expanding codes ---

// The values of byte codes.
class Table {
 public:
  Table(const char* values, std::size_t length) {
    if (length > 0) std::memcpy(values_.data(), values, length * kWord);
  }
  uint32_t operator[](std::size_t code) const { return values_[code]; }

 private:
  std::array<uint32_t, 256> values_;
};

// The values of two half-byte codes in a byte, one behind the other.
class PairTable {
 public:
  // REQUIRES: length is at most 16.
  PairTable(const char* values, std::size_t length) {
    for (std::size_t high = 0; high < length; ++high) {
      for (std::size_t low = 0; low < length; ++low) {
        pairs_[high << 4 | low] = uint64_t{wordAt(values, high)} << 32 | wordAt(values, low);
      }
    }
  }
  uint64_t operator[](unsigned char codes) const { return pairs_[codes]; }

 private:
  std::array<uint64_t, 256> pairs_;
};

void expandBytes(const unsigned char* codes, std::size_t count, const Table& table, char* out) {
  std::size_t i = 0;
  for (; i + 8 <= count; i += 8) {
    uint64_t eight;
    std::memcpy(&eight, codes + i, sizeof eight);
    for (int pair = 0; pair < 4; ++pair, eight >>= 16, out += 2 * kWord) {
      const uint64_t two = uint64_t{table[eight >> 8 & 0xFF]} << 32 | table[eight & 0xFF];
      std::memcpy(out, &two, sizeof two);
    }
  }
  for (; i < count; ++i, out += kWord) {
    const uint32_t value = table[codes[i]];
    std::memcpy(out, &value, kWord);
  }
}

// Expands the codes from the half byte `first` on.
void expandHalfBytes(const unsigned char* codes, std::size_t first, std::size_t count,
                     const PairTable& pairs, char* out) {
  const auto putOne = [&](std::size_t position) {
    const auto code = static_cast<unsigned char>(codes[position / 2] >> 4 * (position % 2) & 0xF);
    const uint64_t pair = pairs[code];  // with code 0 behind it, which every table has
    std::memcpy(out, &pair, kWord);
    out += kWord;
  };
  const std::size_t end = first + count;
  if (first < end && first % 2 == 1) putOne(first++);
  for (; first + 2 <= end; first += 2, out += 2 * kWord) {
    const uint64_t pair = pairs[codes[first / 2]];
    std::memcpy(out, &pair, sizeof pair);
  }
  if (first < end) putOne(first);
}

}  // namespace

// --- CodedWeights ---

bool CodedWeights::view(uint32_t form, uint64_t count, const char* src, std::size_t available) {
  if (available < kCodedPrefixLength) return false;
  std::array<char, kCodedPrefixLength> prefix;  // read once, whoever else may write there
  std::memcpy(prefix.data(), src, prefix.size());
  length_ = codedLength(form, count, prefix.data(), available);
  if (length_ == 0) return false;
  form_ = form;
  view_ = TableCodesView();
  view_.bits = codeBits(form);
  count_ = static_cast<std::size_t>(count);  // each takes half a byte at least
  view_.tableLength = wordAt(prefix.data(), 0);
  view_.rareCount = wordAt(prefix.data(), 1);
  view_.table = src + kCodedPrefixLength;
  const char* behind = view_.table + view_.tableLength * kWord;
  if (view_.rareCount > 0) {
    rareValue_ = wordAt(behind, 0);
    std::memcpy(&view_.rareValue, &rareValue_, sizeof view_.rareValue);
    view_.rarePositions = behind + kWord;
    behind = view_.rarePositions + view_.rareCount * kWord;
  }
  view_.codes = reinterpret_cast<const unsigned char*>(behind);
  Counts counts{};
  return tableAscends() && paddingIsZero() && countCodes(counts) && rarePositionsFit() &&
         isWhatTheWriterChooses(counts);
}

bool CodedWeights::tableAscends() const {
  for (std::size_t i = 1; i < view_.tableLength; ++i) {
    if (wordAt(view_.table, i - 1) >= wordAt(view_.table, i)) return false;
  }
  return true;
}

// The bits behind the last code, up to the end of its word.
bool CodedWeights::paddingIsZero() const {
  const auto* const end =
      reinterpret_cast<const unsigned char*>(view_.table - kCodedPrefixLength) + length_;
  const std::size_t bits = count_ % (8 / codeBits(form_)) * codeBits(form_);
  const unsigned char* last = view_.codes + (count_ * codeBits(form_) - bits) / 8;
  if (bits != 0 && *last++ >> bits != 0) return false;
  return std::all_of(last, end, [](unsigned char byte) { return byte == 0; });
}

unsigned CodedWeights::codeAt(std::size_t position) const {
  if (form_ == kByteCodes) return view_.codes[position];
  return view_.codes[position / 2] >> 4 * (position % 2) & 0xF;
}

// Counts how often each code occurs; false when one of them is not in the table.
bool CodedWeights::countCodes(Counts& counts) const {
  // Four counters for each byte, so that equal bytes in a row need not wait for each other.
  std::array<Counts, 4> bytes{};
  const std::size_t numBytes = count_ / (8 / codeBits(form_));
  for (std::size_t i = 0; i < numBytes; ++i) ++bytes[i % 4][view_.codes[i]];
  for (std::size_t byte = 0; byte < 256; ++byte) {
    const uint64_t count = bytes[0][byte] + bytes[1][byte] + bytes[2][byte] + bytes[3][byte];
    if (form_ == kByteCodes) {
      counts[byte] = count;
    } else {
      counts[byte & 0xF] += count;
      counts[byte >> 4] += count;
    }
  }
  if (form_ == kHalfByteCodes && count_ % 2 == 1) ++counts[codeAt(count_ - 1)];
  return std::all_of(counts.begin() + static_cast<std::ptrdiff_t>(view_.tableLength), counts.end(),
                     [](uint64_t count) { return count == 0; });
}

bool CodedWeights::rarePositionsFit() const {
  for (std::size_t i = 0; i < view_.rareCount; ++i) {
    const uint32_t position = wordAt(view_.rarePositions, i);
    if (position >= count_ || codeAt(position) != 0) return false;
    if (i > 0 && position <= wordAt(view_.rarePositions, i - 1)) return false;
  }
  return true;
}

// REQUIRES: the positions of the rare value fit.
bool CodedWeights::isWhatTheWriterChooses(Counts& counts) const {
  counts[0] -= view_.rareCount;  // the code at their positions
  const bool hasRareValue = view_.rareCount > 0;
  ValueCount rarest{wordAt(view_.table, 0), counts[0]};
  for (std::size_t code = 0; code < view_.tableLength; ++code) {
    const ValueCount entry{wordAt(view_.table, code), counts[code]};
    if (entry.count == 0 || (hasRareValue && entry.value == rareValue_)) return false;
    if (isRarer(entry, rarest)) rarest = entry;
  }
  if (hasRareValue) {
    const ValueCount rare{rareValue_, view_.rareCount};
    if (!isRarer(rare, rarest)) return false;
    rarest = rare;
  }
  const std::size_t distinct = view_.tableLength + (hasRareValue ? 1 : 0);
  return shortestForm(count_, distinct, rarest.count).form == form_;
}

void CodedWeights::expandBlock(std::size_t first, std::size_t rows, std::size_t stride,
                               std::size_t columns, void* floats) const {
  auto* out = static_cast<char*>(floats);
  const bool areBytes = form_ == kByteCodes;
  const std::size_t inByte = 8 / codeBits(form_);
  constexpr std::size_t kAhead = 16;  // columns that are fetched before they are used
  const Table table(view_.table, areBytes ? view_.tableLength : 0);
  const PairTable pairs(view_.table, areBytes ? 0 : view_.tableLength);
  for (std::size_t column = 0; column < columns; ++column, out += rows * kWord) {
    const std::size_t begin = first + column * stride;
    if (column + kAhead < columns) {
      const std::size_t ahead = (begin + kAhead * stride) / inByte;
      prefetch(view_.codes + ahead);
      prefetch(view_.codes + ahead + 64);
    }
    if (areBytes) {
      expandBytes(view_.codes + begin, rows, table, out);
    } else {
      expandHalfBytes(view_.codes, begin, rows, pairs, out);
    }
    if (view_.rareCount > 0) putRareValues(begin, rows, out);
  }
}

// From the first weight on, each is written where no code stands that comes after its own: codes
// are no longer than weights, and end where these do. What is before the codes is kept.
void CodedWeights::expandOver(void* floats) const {
  const std::vector<char> positions(view_.rarePositions,
                                    view_.rarePositions + view_.rareCount * kWord);
  CodedWeights kept = *this;
  kept.view_.rarePositions = positions.data();
  kept.expand(0, count_, floats);
}

void CodedWeights::putRareValues(std::size_t first, std::size_t count, char* floats) const {
  std::size_t low = 0;  // the first of the positions from `first` on
  for (std::size_t high = view_.rareCount; low < high;) {
    const std::size_t middle = low + (high - low) / 2;
    if (wordAt(view_.rarePositions, middle) < first) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  for (; low < view_.rareCount; ++low) {
    // One before `first` is far behind: positions ascend, but the bytes may have changed since.
    const std::size_t offset = wordAt(view_.rarePositions, low) - first;
    if (offset >= count) return;
    std::memcpy(floats + offset * kWord, &rareValue_, kWord);
  }
}

}  // namespace mlnn
