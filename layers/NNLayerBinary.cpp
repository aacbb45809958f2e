// The binary record of NNLayer: its length, checksum, writer and reader.
#include <boost/crc.hpp>
#include <limits>

#include "layers/ByteIo.h"
#include "layers/NNLayer.h"
#include "layers/NNLayerRecord.h"

namespace {

using mlnn::LayerRecordHead;

// CRC-32C (Castagnoli): finds every run of up to 32 changed bits.
using Crc32c = boost::crc_optimal<32, 0x1EDC6F41, 0xFFFFFFFF, 0xFFFFFFFF, true, true>;

LayerRecordHead headOf(const NNLayer& layer) {
  LayerRecordHead head;
  head.form = mlnn::kPlainFloats;
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

// Hands the record's bytes piece by piece to `take(address, length)`.
template <typename Take>
void forEachPiece(const NNLayer& layer, Take take) {
  const LayerRecordHead head = headOf(layer);
  take(&head, sizeof head);
  const auto takeFloats = [&take](const auto& values) {
    take(values.data(), static_cast<std::size_t>(values.size()) * sizeof(float));
  };
  takeFloats(layer.weights);
  takeFloats(layer.bias);
  takeFloats(layer.gamma);
  takeFloats(layer.beta);
  takeFloats(layer.gamma_inf);
  takeFloats(layer.beta_inf);
}

bool isEmptyOr(int32_t length, int32_t rows) { return length == 0 || length == rows; }

// Whether the head is one of a layer that keeps the invariants of its kind.
bool isWellFormed(const LayerRecordHead& head) {
  if (head.form != mlnn::kPlainFloats) return false;
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

// Whether `available` bytes hold all the arrays that a well-formed head announces.
bool arraysFit(const LayerRecordHead& head, std::size_t available) {
  const uint64_t floatsAvailable = available / sizeof(float);
  const uint64_t weights = uint64_t(head.rows) * uint64_t(head.cols);  // below 2^62
  const uint64_t vectors = uint64_t(head.biasLength) + uint64_t(head.gammaLength) +
                           uint64_t(head.betaLength) + uint64_t(head.gammaInfLength) +
                           uint64_t(head.betaInfLength);
  return weights + vectors <= floatsAvailable;
}

template <typename Dense>
Dense readArray(mlnn::ByteReader& reader, int32_t rows, int32_t cols = 1) {
  Dense values(rows, cols);
  reader.floats(values.data(), static_cast<std::size_t>(values.size()));
  return values;
}

}  // namespace

int NNLayer::binarySerializedLength() const {
  uint64_t length = 0;
  forEachPiece(*this, [&length](const void*, std::size_t count) { length += count; });
  constexpr uint64_t kMaxInt = std::numeric_limits<int>::max();
  return length <= kMaxInt ? static_cast<int>(length) : -1;
}

uint32_t NNLayer::checksum() const {
  Crc32c crc;
  forEachPiece(*this,
               [&crc](const void* bytes, std::size_t count) { crc.process_bytes(bytes, count); });
  return crc.checksum();
}

int NNLayer::serializeBinary(char* dst) const {
  mlnn::ByteWriter writer(dst);
  forEachPiece(*this,
               [&writer](const void* bytes, std::size_t count) { writer.bytes(bytes, count); });
  return static_cast<int>(writer.length());
}

int NNLayer::deserializeBinary(const char* src, int available) {
  if (available < mlnn::kMinLayerRecordLength) return -1;
  mlnn::ByteReader reader(src, static_cast<std::size_t>(available));
  LayerRecordHead head;
  reader.bytes(&head, sizeof head);
  if (!isWellFormed(head) || !arraysFit(head, reader.remaining())) return -1;

  NNLayer fresh;
  fresh.weights = readArray<Eigen::MatrixXf>(reader, head.rows, head.cols);
  fresh.bias = readArray<Eigen::VectorXf>(reader, head.biasLength);
  fresh.gamma = readArray<Eigen::VectorXf>(reader, head.gammaLength);
  fresh.beta = readArray<Eigen::VectorXf>(reader, head.betaLength);
  fresh.gamma_inf = readArray<Eigen::VectorXf>(reader, head.gammaInfLength);
  fresh.beta_inf = readArray<Eigen::VectorXf>(reader, head.betaInfLength);
  fresh.actFn = static_cast<ActFn::ActFn>(head.actFn);
  fresh.isBatchNorm = head.isBatchNorm == 1;
  *this = std::move(fresh);
  return static_cast<int>(reader.consumed());
}
