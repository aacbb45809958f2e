// Mutations of binary images and layer records, which are laid out by hand here: the library's
// own writer has no part in it.
#include <algorithm>
#include <cstring>
#include <map>
#include <vector>

#include "fuzz/Support.h"
#include "fuzz/mutators/Mutation.h"

namespace mlnn::fuzz {
namespace {

constexpr std::size_t kHeadLength = 1004;
constexpr std::size_t kCountOffset = 1000;
constexpr std::size_t kRecordHeadLength = 40;

void put(std::string& bytes, std::size_t offset, uint32_t value) {
  for (std::size_t i = 0; i < 4; ++i) bytes[offset + i] = static_cast<char>(value >> 8 * i & 0xFF);
}

void append(std::string& bytes, uint32_t value) {
  bytes.append(4, '\0');
  put(bytes, bytes.size() - 4, value);
}

uint32_t wordAt(const char* bytes, std::size_t offset) {
  uint32_t value = 0;
  for (std::size_t i = 4; i-- > 0;) value = value << 8 | static_cast<uint8_t>(bytes[offset + i]);
  return value;
}

constexpr uint32_t kInteresting[] = {0,          1,          2,          3,          7,
                                     120,        0xFFFFFFFF, 0x7FFFFFFF, 0x80000000, 0x40000000,
                                     0x10000,    0x10001,    1023,       1024,       0x3F800000,
                                     0x7F800000, 0x7FC00001, 0x00000001, 20,         0x01000000};

uint32_t anyWord(Random& random) {
  return random.oneIn(2) ? random.of(kInteresting) : static_cast<uint32_t>(random.below(9));
}

// --- Weights, plain or as codes of a table (docs/binary-format.md) ---

constexpr uint32_t kPlain = 0;
constexpr uint32_t kByteCodes = 1;
constexpr uint32_t kHalfByteCodes = 2;
constexpr uint32_t kByteRowCodes = 3;
constexpr uint32_t kHalfByteRowCodes = 4;

// Scales, and blocks of 16 rows x 4 columns.
uint64_t rowCodeWords(uint32_t form, uint64_t rows, uint64_t cols) {
  const uint64_t blocks = (rows + 15) / 16 * ((cols + 3) / 4);
  return rows + blocks * (form == kByteRowCodes ? 16 : 8);
}

uint64_t codedWords(uint32_t form, uint64_t count, uint64_t table, uint64_t rare) {
  const uint64_t bits = form == kByteCodes ? 8 : 4;
  return 2 + table + (rare == 0 ? 0 : 1 + rare) + (bits * count + 31) / 32;
}

using Occurrences = std::map<uint32_t, std::size_t>;

Occurrences occurrencesOf(const std::vector<uint32_t>& weights) {
  Occurrences occurrences;
  for (const uint32_t weight : weights) ++occurrences[weight];
  return occurrences;
}

// The value that fewest weights have, of several the largest.
Occurrences::value_type rarestOf(const Occurrences& occurrences) {
  return *std::min_element(occurrences.rbegin(), occurrences.rend(),
                           [](const auto& a, const auto& b) { return a.second < b.second; });
}

uint32_t formFor(const std::vector<uint32_t>& weights) {
  const Occurrences occurrences = occurrencesOf(weights);
  uint32_t best = kPlain;
  uint64_t bestWords = weights.size();
  for (const uint32_t form : {kByteCodes, kHalfByteCodes}) {
    const std::size_t room = form == kByteCodes ? 256 : 16;
    if (weights.empty() || occurrences.size() > room + 1) continue;
    const bool leavesOut = occurrences.size() > room;
    const uint64_t words = codedWords(form, weights.size(), std::min(room, occurrences.size()),
                                      leavesOut ? rarestOf(occurrences).second : 0);
    if (words >= bestWords) continue;
    best = form;
    bestWords = words;
  }
  return best;
}

void appendCoded(std::string& record, uint32_t form, const std::vector<uint32_t>& weights) {
  Occurrences occurrences = occurrencesOf(weights);
  const std::size_t room = form == kByteCodes ? 256 : 16;
  const bool leavesOut = occurrences.size() > room;
  const uint32_t rare = leavesOut ? rarestOf(occurrences).first : 0;
  if (leavesOut) occurrences.erase(rare);
  append(record, static_cast<uint32_t>(occurrences.size()));
  const auto isRare = [&](uint32_t weight) { return leavesOut && weight == rare; };
  append(record, static_cast<uint32_t>(std::count_if(weights.begin(), weights.end(), isRare)));
  std::map<uint32_t, unsigned> codes;
  for (const auto& [value, count] : occurrences) {
    codes.emplace(value, static_cast<unsigned>(codes.size()));
    append(record, value);
  }
  if (leavesOut) append(record, rare);
  for (uint32_t i = 0; leavesOut && i < weights.size(); ++i) {
    if (isRare(weights[i])) append(record, i);
  }
  const std::size_t inByte = form == kByteCodes ? 1 : 2;
  std::string bytes((weights.size() + inByte - 1) / inByte, '\0');
  for (std::size_t i = 0; i < weights.size(); ++i) {
    const unsigned code = isRare(weights[i]) ? 0 : codes[weights[i]];
    char& byte = bytes[i / inByte];
    byte = static_cast<char>(byte | static_cast<char>(code << 4 * (i % inByte)));
  }
  bytes.resize((bytes.size() + 3) / 4 * 4);
  record += bytes;
}

void appendWeights(std::string& record, uint32_t form, const std::vector<uint32_t>& weights) {
  if (form == kByteCodes || form == kHalfByteCodes) return appendCoded(record, form, weights);
  for (const uint32_t weight : weights) append(record, weight);
}

// Weights of any bits, or of a few different values.
std::vector<uint32_t> makeWeights(std::size_t count, Random& random) {
  constexpr std::size_t kDistinct[] = {1, 2, 3, 15, 16, 17, 18, 256, 257, 258};
  const std::size_t distinct = random.of(kDistinct);
  const bool isAny = random.oneIn(2);
  std::vector<uint32_t> weights(count);
  for (uint32_t& weight : weights) {
    weight = isAny ? random.word() : 0x3F000000 + static_cast<uint32_t>(random.below(distinct));
  }
  return weights;
}

// The scales and codes of a layer. Every row has a code of 1, so that its scale is the canonical
// one.
struct MadeRowCodes {
  std::size_t rows;
  std::size_t cols;
  uint32_t form;
  std::vector<uint32_t> scales;
  std::vector<int> codes;  // row by row

  MadeRowCodes(std::size_t rowCount, std::size_t colCount, Random& random)
      : rows(rowCount),
        cols(colCount),
        form(random.oneIn(2) ? kByteRowCodes : kHalfByteRowCodes),
        codes(rowCount * colCount) {
    const int largest = form == kByteRowCodes ? 127 : 7;
    for (std::size_t r = 0; r < rows; ++r) {
      scales.push_back((0x20000000 + random.word() % 0x20000000) & ~uint32_t{0x7F});
      for (std::size_t c = 0; c < cols; ++c) {
        const auto code = static_cast<int>(random.below(static_cast<std::size_t>(2 * largest + 1)));
        codes[r * cols + c] = code - largest;
      }
      if (cols > 0) codes[r * cols] = 1;
    }
    if (cols > 1 && rows > 0) codes[1] = -largest;
  }

  void appendTo(std::string& record) const {
    for (const uint32_t scale : scales) append(record, scale);
    for (std::size_t panel = 0; panel < rows; panel += 16) {
      for (std::size_t group = 0; group < cols; group += 4) appendBlock(record, panel, group);
    }
  }

 private:
  unsigned codeAt(std::size_t row, std::size_t col) const {
    const int code = row < rows && col < cols ? codes[row * cols + col] : 0;
    return static_cast<unsigned>(code + (form == kByteRowCodes ? 128 : 8));
  }

  void appendBlock(std::string& record, std::size_t panel, std::size_t group) const {
    const auto at = [&](std::size_t i) { return codeAt(panel + i / 4, group + i % 4); };
    for (std::size_t i = 0; i < (form == kByteRowCodes ? 64 : 32); ++i) {
      record += static_cast<char>(form == kByteRowCodes ? at(i) : at(i) | at(i + 32) << 4);
    }
  }
};

// Where the records of an image begin; the last entry is where they end.
std::vector<std::size_t> recordOffsets(const std::string& image) {
  std::vector<std::size_t> offsets;
  std::size_t position = std::min(kHeadLength, image.size());
  while (position < image.size()) {
    const std::size_t length = recordLength(image.data() + position, image.size() - position);
    if (length == 0) break;
    offsets.push_back(position);
    position += length;
  }
  offsets.push_back(position);
  return offsets;
}

void changeCount(std::string& image, uint32_t change) {
  put(image, kCountOffset, wordAt(image.data(), kCountOffset) + change);
}

// Drops, doubles or replaces a record, and counts it.
void changeRecords(std::string& image, Random& random) {
  const std::vector<std::size_t> offsets = recordOffsets(image);
  const std::size_t records = offsets.size() - 1;
  const std::size_t chosen = random.below(records + 1);
  const bool isThere = chosen < records;
  const std::size_t length = isThere ? offsets[chosen + 1] - offsets[chosen] : 0;
  switch (random.below(4)) {
    case 0:
      if (!isThere) return;
      image.erase(offsets[chosen], length);
      return changeCount(image, 0xFFFFFFFF);
    case 1:
      if (!isThere) return;
      image.insert(offsets[chosen], image.substr(offsets[chosen], length));
      return changeCount(image, 1);
    case 2:
      image.insert(offsets[chosen], makeRecord(random));
      return changeCount(image, 1);
    default:
      image.replace(offsets[chosen], length, makeRecord(random));
      if (!isThere) changeCount(image, 1);
      return;
  }
}

}  // namespace

std::size_t recordLength(const char* bytes, std::size_t available) {
  if (available < kRecordHeadLength) return 0;
  const uint32_t form = wordAt(bytes, 0);
  const uint64_t rows = wordAt(bytes, 4);
  const uint64_t cols = wordAt(bytes, 8);
  if (rows > available || cols > available || rows * cols > 2 * available) return 0;
  uint64_t words = kRecordHeadLength / 4;
  for (std::size_t word = 5; word < 10; ++word) words += wordAt(bytes, 4 * word);
  if (form == kByteCodes || form == kHalfByteCodes) {
    if (available < kRecordHeadLength + 8) return 0;
    const uint64_t rare = wordAt(bytes, kRecordHeadLength + 4);
    words += codedWords(form, rows * cols, wordAt(bytes, kRecordHeadLength), rare);
  } else if (form == kByteRowCodes || form == kHalfByteRowCodes) {
    words += rowCodeWords(form, rows, cols);
  } else {
    words += rows * cols;
  }
  return words <= available / 4 ? static_cast<std::size_t>(4 * words) : 0;
}

std::string makeRecord(Random& random) {
  const bool byRows = random.oneIn(4);
  const auto rows = static_cast<uint32_t>(random.below(byRows ? 36 : 6));
  const auto cols = static_cast<uint32_t>(random.below(byRows || random.oneIn(8) ? 60 : 6));
  const bool isBatchNorm = random.oneIn(2);
  const std::vector<uint32_t> weights = makeWeights(std::size_t{rows} * cols, random);
  const MadeRowCodes rowCodes(rows, cols, random);
  const uint32_t form = byRows             ? rowCodes.form
                        : random.oneIn(16) ? static_cast<uint32_t>(random.below(6))
                                           : formFor(weights);
  std::string record;
  append(record, form);
  append(record, rows);
  append(record, cols);
  append(record, static_cast<uint32_t>(random.below(8)));
  append(record, isBatchNorm ? 1 : 0);
  uint32_t floats = 0;
  for (int vector = 0; vector < 5; ++vector) {
    const bool isUsed = isBatchNorm == (vector > 0);
    const uint32_t length = isUsed || random.oneIn(2) ? rows : 0;
    append(record, length);
    floats += length;
  }
  if (byRows) {
    rowCodes.appendTo(record);
  } else {
    appendWeights(record, form, weights);
  }
  for (; floats > 0; --floats) append(record, random.oneIn(4) ? random.word() : 0x3F000000);
  return record;
}

namespace {

// Layers that an image announces but does not hold are read as empty ones, up to 1024 of them.
// A thousand are tried now and then only, since they take a thousand times as long as one.
void announceFew(std::string& image, Random& random) {
  constexpr uint32_t kFew = 8;
  const auto records = static_cast<uint32_t>(recordOffsets(image).size() - 1);
  const uint32_t layers = wordAt(image.data(), kCountOffset);
  if (layers <= records + kFew || layers > records + 1024 || random.oneIn(256)) return;
  put(image, kCountOffset, records + static_cast<uint32_t>(random.below(kFew)));
}

}  // namespace

std::string makeImage(Random& random) {
  std::string image(kHeadLength, '\0');
  const auto layers = static_cast<uint32_t>(random.below(4));
  put(image, kCountOffset, layers);
  for (uint32_t i = 0; i < layers; ++i) image += makeRecord(random);
  repairImage(image);
  return image;
}

void repairImage(std::string& image) {
  if (image.size() < kHeadLength) return;
  std::memcpy(image.data(), "MLNN", 4);
  put(image, 8, 20);
  put(image, 32, 120);
  put(image, 516, 120);
  const uint32_t layers = wordAt(image.data(), kCountOffset);
  const std::vector<std::size_t> offsets = recordOffsets(image);
  uint32_t sum = layers;
  uint32_t read = 0;
  for (; read < layers && read + 1 < offsets.size(); ++read) {
    const auto* record = reinterpret_cast<const uint8_t*>(image.data() + offsets[read]);
    sum += crc32c(record, offsets[read + 1] - offsets[read]);
  }
  const uint8_t emptyRecord[kRecordHeadLength] = {};
  if (layers - read <= 1024) sum += (layers - read) * crc32c(emptyRecord, sizeof emptyRecord);
  put(image, 4, sum);
}

void mutateRecord(std::string& record, Random& random) {
  if (record.size() < kRecordHeadLength || random.oneIn(64)) {
    record = makeRecord(random);
    return;
  }
  switch (random.below(4)) {
    case 0:
      put(record, 4 * random.below(kRecordHeadLength / 4), anyWord(random));
      break;
    case 1:
      put(record, 4 * random.below(record.size() / 4), anyWord(random));
      break;
    case 2:
      record.resize(record.size() + 4 * random.below(5));
      break;
    default:
      mutateBytes(record, 16);
      break;
  }
}

void mutateImage(std::string& image, Random& random) {
  if (image.size() < kHeadLength || random.oneIn(64)) {
    image = makeImage(random);
    return;
  }
  constexpr std::size_t kHeadWords[] = {0, 4, 8, 12, 16, 20, 24, 28, 32, 36, 516, 520, 1000};
  switch (random.below(6)) {
    case 0:
      put(image, random.of(kHeadWords), anyWord(random));
      break;
    case 1:
      changeRecords(image, random);
      break;
    case 2:
      mutateBytes(image, 16);
      break;
    case 3:
      image[12 + random.below(20)] = static_cast<char>(random.word());
      break;
    default: {
      const std::vector<std::size_t> offsets = recordOffsets(image);
      const std::size_t begin = offsets[random.below(offsets.size())];
      std::string rest = image.substr(begin);
      mutateRecord(rest, random);
      image.replace(begin, std::string::npos, rest);
      break;
    }
  }
  if (image.size() >= kHeadLength) announceFew(image, random);
  if (!random.oneIn(16)) repairImage(image);
}

}  // namespace mlnn::fuzz
