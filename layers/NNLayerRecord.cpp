#include "layers/NNLayerRecord.h"

#include <algorithm>
#include <istream>
#include <memory>

#include "layers/ByteIo.h"
#include "layers/Crc32c.h"
#include "layers/LayerArrays.h"
#include "os/FreshMemory.h"

namespace mlnn {
namespace {

// --- The head ---

bool isEmptyOr(int32_t length, int32_t rows) { return length == 0 || length == rows; }

// Whether the head is one of a layer that keeps the invariants of its kind.
bool isWellFormed(const LayerRecordHead& head) {
  if (head.form >= kNumWeightForms) return false;
  if (head.rows < 0 || head.cols < 0) return false;
  if (head.actFn < 0 || head.actFn >= ActFn::kCount) return false;
  if (head.isBatchNorm > 1) return false;
  const auto fits = [&head](bool isUsed, int32_t length) {
    return isUsed ? length == head.rows : isEmptyOr(length, head.rows);
  };
  const bool isBatchNorm = head.isBatchNorm == 1;
  return fits(!isBatchNorm, head.biasLength) && fits(isBatchNorm, head.gammaLength) &&
         fits(isBatchNorm, head.betaLength) && fits(isBatchNorm, head.gammaInfLength) &&
         fits(isBatchNorm, head.betaInfLength);
}

uint64_t numWeights(const LayerRecordHead& head) {
  return uint64_t(head.rows) * uint64_t(head.cols);  // below 2^62
}

// Bytes of the vectors behind the weights.
uint64_t vectorsLength(const LayerRecordHead& head) {
  return sizeof(float) *
         (uint64_t(head.biasLength) + uint64_t(head.gammaLength) + uint64_t(head.betaLength) +
          uint64_t(head.gammaInfLength) + uint64_t(head.betaInfLength));
}

bool plainArraysFit(const LayerRecordHead& head, std::size_t available) {
  return vectorsLength(head) <= available &&
         numWeights(head) <= (available - vectorsLength(head)) / sizeof(float);
}

// --- Reading ---

template <typename Dense>
std::size_t bytesOf(const Dense& values) {
  return static_cast<std::size_t>(values.size()) * sizeof(float);
}

// Gives the layer's arrays the sizes that the head states.
void shape(NNLayer& layer, const LayerRecordHead& head) {
  layer.weights.resize(head.rows, head.cols);
  adviseHugePages(layer.weights.data(), bytesOf(layer.weights));
  layer.bias.resize(head.biasLength);
  layer.gamma.resize(head.gammaLength);
  layer.beta.resize(head.betaLength);
  layer.gamma_inf.resize(head.gammaInfLength);
  layer.beta_inf.resize(head.betaInfLength);
  layer.actFn = static_cast<ActFn::ActFn>(head.actFn);
  layer.isBatchNorm = head.isBatchNorm == 1;
}

// Takes bytes from a stream, and their checksum in pieces that stay in the caches.
class StreamBytes {
 public:
  explicit StreamBytes(std::istream& in) : in_(in) {}

  // Returns whether the stream had so many.
  bool take(void* target, std::size_t count) {
    constexpr std::size_t kPiece = std::size_t{128} << 10;
    auto* to = static_cast<char*>(target);
    while (count > 0) {
      const std::size_t piece = std::min(count, kPiece);
      supplyPages(to, piece);
      const bool isWhole = static_cast<bool>(in_.read(to, static_cast<std::streamsize>(piece)));
      taken_ += static_cast<std::size_t>(in_.gcount());
      if (!isWhole) return false;
      crc_.add(to, piece);
      to += piece;
      count -= piece;
    }
    return true;
  }

  std::size_t taken() const { return taken_; }
  uint32_t checksum() const { return crc_.value(); }

 private:
  std::istream& in_;
  Crc32c crc_;
  std::size_t taken_ = 0;
};

bool readPlain(NNLayer& layer, const LayerRecordHead& head, StreamBytes& bytes) {
  NNLayer fresh;
  shape(fresh, head);
  if (!bytes.take(fresh.weights.data(), bytesOf(fresh.weights))) return false;
  for (const LayerVector& vector : kLayerVectors) {
    Eigen::VectorXf& values = vector.of(fresh);
    if (!bytes.take(values.data(), bytesOf(values))) return false;
  }
  if (!arePlainWithoutRowScales(fresh.weights.data(), numWeights(head))) return false;
  layer = std::move(fresh);
  return true;
}

// Reads the rest of the record into memory, behind what `start` holds already.
bool readRest(NNLayer& layer, const char* start, std::size_t startLength, std::size_t length,
              StreamBytes& bytes) {
  const std::unique_ptr<char[]> record(new char[length]);
  std::memcpy(record.get(), start, startLength);
  return bytes.take(record.get() + startLength, length - startLength) &&
         readRecord(layer, record.get(), length).length > 0;
}

bool expandOver(const LayerRecordHead& head, const char* codes, std::size_t length,
                float* weights) {
  if (hasTable(head.form)) {
    CodedWeights view;
    if (!view.view(head.form, numWeights(head), codes, length)) return false;
    view.expandOver(weights);
    return true;
  }
  RowCodesView view;
  const auto rows = uint64_t(head.rows);
  const auto cols = uint64_t(head.cols);
  if (!viewRowCodes(head.form, rows, cols, codes, length, view)) return false;
  view.unpackOver(weights);
  return true;
}

// Reads codes, of `length` bytes, to the end of the memory of the weights that they stand for. So
// both take no more than the weights alone, which is eight times as much as codes of half a byte.
bool readOverCodes(NNLayer& layer, const LayerRecordHead& head, const char* prefix,
                   std::size_t length, StreamBytes& bytes) {
  NNLayer fresh;
  shape(fresh, head);
  supplyPages(fresh.weights.data(), bytesOf(fresh.weights));
  char* const codes = reinterpret_cast<char*>(fresh.weights.data() + fresh.weights.size()) - length;
  std::memcpy(codes, prefix, kCodedPrefixLength);
  if (!bytes.take(codes + kCodedPrefixLength, length - kCodedPrefixLength)) return false;
  for (const LayerVector& vector : kLayerVectors) {
    Eigen::VectorXf& values = vector.of(fresh);
    if (!bytes.take(values.data(), bytesOf(values))) return false;
  }
  if (!expandOver(head, codes, length, fresh.weights.data())) return false;
  layer = std::move(fresh);
  return true;
}

// Whether weights with the codes beside them take more than eight times what the codes do.
bool areCodesShort(const LayerRecordHead& head, uint64_t length) {
  return numWeights(head) * sizeof(float) > 7 * length;
}

// Reads the record into memory first where that takes little beside the weights, as codes of a byte
// do, or where what fills up the blocks of row codes counts.
bool readCoded(NNLayer& layer, const LayerRecordHead& head, StreamBytes& bytes,
               std::size_t available) {
  constexpr std::size_t kStart = sizeof head + kCodedPrefixLength;
  if (available < kStart + vectorsLength(head)) return false;
  char start[kStart];
  std::memcpy(start, &head, sizeof head);
  char* const prefix = start + sizeof head;
  if (!bytes.take(prefix, kCodedPrefixLength)) return false;
  const auto vectors = static_cast<std::size_t>(vectorsLength(head));
  const std::size_t left = available - sizeof head - vectors;
  uint64_t weights = 0;
  if (hasTable(head.form)) {
    weights = codedLength(head.form, numWeights(head), prefix, left);
  } else {
    weights = rowScaledLength(head.form, uint64_t(head.rows), uint64_t(head.cols));
  }
  if (weights < kCodedPrefixLength || weights > left) return false;
  if (areCodesShort(head, weights)) {
    return readOverCodes(layer, head, prefix, static_cast<std::size_t>(weights), bytes);
  }
  return readRest(layer, start, kStart, sizeof head + static_cast<std::size_t>(weights) + vectors,
                  bytes);
}

// --- Writing ---

LayerRecordHead headOf(const NNLayer& layer, const WeightsPlan& plan) {
  LayerRecordHead head;
  head.form = plan.form;
  head.rows = static_cast<int32_t>(layer.weights.rows());
  head.cols = static_cast<int32_t>(layer.weights.cols());
  head.actFn = static_cast<int32_t>(layer.actFn);
  head.isBatchNorm = layer.isBatchNorm ? 1 : 0;
  head.biasLength = static_cast<int32_t>(layer.bias.size());
  head.gammaLength = static_cast<int32_t>(layer.gamma.size());
  head.betaLength = static_cast<int32_t>(layer.beta.size());
  head.gammaInfLength = static_cast<int32_t>(layer.gamma_inf.size());
  head.betaInfLength = static_cast<int32_t>(layer.beta_inf.size());
  return head;
}

// Puts the record into memory, and takes its checksum.
class RecordWriter final : public ByteSink {
 public:
  explicit RecordWriter(char* target) : target_(target) {}

  void take(const void* bytes, std::size_t count) override {
    crc_.copy(target_ + length_, bytes, count);
    length_ += count;
  }
  RecordResult result() const { return {static_cast<int>(length_), crc_.value(), 0}; }

 private:
  char* target_;
  std::size_t length_ = 0;
  Crc32c crc_;
};

}  // namespace

namespace {

// Places the vectors, which follow the weights.
void viewVectors(const char* src, const char* behindWeights, LayerRecordView& view) {
  const char* behind = behindWeights;
  const auto take = [&behind](int32_t length) {
    const char* const values = behind;
    behind += static_cast<std::size_t>(length) * sizeof(float);
    return values;
  };
  view.bias = take(view.head.biasLength);
  view.gamma = take(view.head.gammaLength);
  view.beta = take(view.head.betaLength);
  view.gammaInf = take(view.head.gammaInfLength);
  view.betaInf = take(view.head.betaInfLength);
  view.length = static_cast<std::size_t>(behind - src);
}

}  // namespace

bool viewRecord(const char* src, std::size_t available, LayerRecordView& view) {
  if (available < sizeof view.head) return false;
  ByteReader reader(src, available);
  reader.bytes(&view.head, sizeof view.head);
  const LayerRecordHead& head = view.head;
  if (!isWellFormed(head)) return false;
  const char* const weights = src + sizeof head;
  std::size_t left = available - sizeof head;
  if (vectorsLength(head) > left) return false;
  left -= static_cast<std::size_t>(vectorsLength(head));
  const char* behind = weights;
  view.plainWeights = nullptr;
  if (head.form == kPlainFloats) {
    if (!plainArraysFit(head, available - sizeof head)) return false;
    if (!arePlainWithoutRowScales(weights, numWeights(head))) return false;
    view.plainWeights = weights;
    behind += numWeights(head) * sizeof(float);
  } else if (hasTable(head.form)) {
    if (!view.codedWeights.view(head.form, numWeights(head), weights, left)) return false;
    behind += view.codedWeights.length();
  } else {
    const auto rows = uint64_t(head.rows);
    const auto cols = uint64_t(head.cols);
    if (!viewRowCodes(head.form, rows, cols, weights, left, view.rowCodes)) return false;
    behind += rowScaledLength(head.form, rows, cols);
  }
  viewVectors(src, behind, view);
  return true;
}

bool viewLayout(const char* src, std::size_t available, LayerRecordView& view) {
  if (available < sizeof view.head) return false;
  ByteReader(src, available).bytes(&view.head, sizeof view.head);
  const LayerRecordHead& head = view.head;
  if (!isWellFormed(head) || hasTable(head.form)) return false;
  const char* const weights = src + sizeof head;
  const std::size_t left = available - sizeof head;
  view.plainWeights = head.form == kPlainFloats ? weights : nullptr;
  if (head.form == kPlainFloats) {
    if (!plainArraysFit(head, left)) return false;
    viewVectors(src, weights + numWeights(head) * sizeof(float), view);
    return true;
  }
  const auto rows = uint64_t(head.rows);
  const auto cols = uint64_t(head.cols);
  const uint64_t length = rowScaledLength(head.form, rows, cols);
  if (rows == 0 || cols == 0 || vectorsLength(head) > left) return false;
  if (length > left - vectorsLength(head)) return false;
  view.rowCodes = rowCodesAt(head.form, rows, cols, weights);
  viewVectors(src, weights + length, view);
  return true;
}

void unpackFloats(const LayerRecordView& view, std::size_t first, std::size_t rows,
                  float* weights) {
  const auto allRows = static_cast<std::size_t>(view.head.rows);
  const auto cols = static_cast<std::size_t>(view.head.cols);
  for (std::size_t column = 0; column < cols; ++column) {
    const char* const from = view.plainWeights + (column * allRows + first) * sizeof(float);
    std::memcpy(weights + column * rows, from, rows * sizeof(float));
  }
}

void unpackWeights(const LayerRecordView& view, std::size_t first, std::size_t rows,
                   float* weights) {
  const auto allRows = static_cast<std::size_t>(view.head.rows);
  const auto cols = static_cast<std::size_t>(view.head.cols);
  if (hasRowScales(view.head.form)) return view.rowCodes.unpack(first, rows, 0, cols, weights);
  if (hasTable(view.head.form)) {
    return view.codedWeights.expandBlock(first, rows, allRows, cols, weights);
  }
  unpackFloats(view, first, rows, weights);
}

RecordResult readRecord(NNLayer& layer, const char* src, std::size_t available) {
  LayerRecordView view;
  if (!viewRecord(src, available, view)) return {};
  NNLayer fresh;
  shape(fresh, view.head);
  supplyPages(fresh.weights.data(), bytesOf(fresh.weights));
  Crc32c crc;
  crc.add(src, sizeof view.head);
  if (view.plainWeights != nullptr) {
    crc.copy(fresh.weights.data(), view.plainWeights, bytesOf(fresh.weights));
  } else {
    crc.add(src + sizeof view.head, static_cast<std::size_t>(view.bias - src) - sizeof view.head);
    unpackWeights(view, 0, static_cast<std::size_t>(view.head.rows), fresh.weights.data());
  }
  crc.copy(fresh.bias.data(), view.bias, bytesOf(fresh.bias));
  crc.copy(fresh.gamma.data(), view.gamma, bytesOf(fresh.gamma));
  crc.copy(fresh.beta.data(), view.beta, bytesOf(fresh.beta));
  crc.copy(fresh.gamma_inf.data(), view.gammaInf, bytesOf(fresh.gamma_inf));
  crc.copy(fresh.beta_inf.data(), view.betaInf, bytesOf(fresh.beta_inf));
  layer = std::move(fresh);
  return {static_cast<int>(view.length), crc.value(), 0};
}

RecordResult readRecord(NNLayer& layer, std::istream& in, std::size_t available) {
  LayerRecordHead head;
  if (available < sizeof head) return {};
  StreamBytes bytes(in);
  bool isRead = bytes.take(&head, sizeof head) && isWellFormed(head);
  if (isRead && head.form == kPlainFloats) {
    isRead = plainArraysFit(head, available - sizeof head) && readPlain(layer, head, bytes);
  } else if (isRead) {
    isRead = readCoded(layer, head, bytes, available);
  }
  RecordResult result;
  result.taken = bytes.taken();
  if (!isRead) return result;
  result.length = static_cast<int>(bytes.taken());
  result.checksum = bytes.checksum();
  return result;
}

WeightsRef weightsOf(const NNLayer& layer) {
  return {layer.weights.data(), static_cast<std::size_t>(layer.weights.rows()),
          static_cast<std::size_t>(layer.weights.cols())};
}

WeightsPlan planRecord(const NNLayer& layer, const Watch& watch) {
  return planWeights(weightsOf(layer), watch);
}

uint64_t recordLength(const NNLayer& layer, const WeightsPlan& plan) {
  uint64_t length = sizeof(LayerRecordHead) + weightsLength(plan, weightsOf(layer));
  for (const LayerVector& vector : kLayerVectors) length += bytesOf(vector.of(layer));
  return length;
}

void writeRecord(const NNLayer& layer, const WeightsPlan& plan, ByteSink& sink) {
  const LayerRecordHead head = headOf(layer, plan);
  sink.take(&head, sizeof head);
  if (plan.form == kPlainFloats) {
    sink.take(layer.weights.data(), bytesOf(layer.weights));
  } else {
    writeCoded(plan, weightsOf(layer), sink);
  }
  for (const LayerVector& vector : kLayerVectors) {
    const Eigen::VectorXf& values = vector.of(layer);
    sink.take(values.data(), bytesOf(values));
  }
}

RecordResult writeRecord(const NNLayer& layer, const WeightsPlan& plan, char* dst) {
  RecordWriter writer(dst);
  writeRecord(layer, plan, writer);
  return writer.result();
}

uint32_t emptyRecordChecksum() {
  const LayerRecordHead head = headOf(NNLayer(), WeightsPlan());
  Crc32c crc;
  crc.add(&head, sizeof head);
  return crc.value();
}

}  // namespace mlnn
