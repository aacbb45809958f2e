// The binary record of a layer, described in docs/binary-format.md: a head of ten 32-bit words,
// the weights in one of five forms, then the layer's vectors as raw floats.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>

#include "layers/CodedWeights.h"
#include "layers/NNLayer.h"

namespace mlnn {

// The head, word by word as it stands in the record.
struct LayerRecordHead {
  uint32_t form;         // of the weights: kPlainFloats and so on
  int32_t rows;          // outputs
  int32_t cols;          // inputs
  int32_t actFn;         // an ActFn::ActFn code
  uint32_t isBatchNorm;  // 0 or 1
  int32_t biasLength;    // lengths of the vectors that follow the weights
  int32_t gammaLength;
  int32_t betaLength;
  int32_t gammaInfLength;
  int32_t betaInfLength;
};
static_assert(sizeof(LayerRecordHead) == 40);

// No record is shorter than its head.
inline constexpr int kMinLayerRecordLength = sizeof(LayerRecordHead);

// A record as it lies in memory: nothing is copied but the head. Addresses need not be aligned.
struct LayerRecordView {
  LayerRecordHead head;
  const char* plainWeights;   // null where the weights are codes
  CodedWeights codedWeights;  // where hasTable(head.form)
  RowCodesView rowCodes;      // where hasRowScales(head.form)
  const char* bias;
  const char* gamma;
  const char* beta;
  const char* gammaInf;
  const char* betaInf;
  std::size_t length;  // bytes of the record
};

// Writes the weights of `rows` outputs, from the output `first` on, to an array of floats:
// rows x inputs, without gaps.
void unpackWeights(const LayerRecordView& view, std::size_t first, std::size_t rows,
                   float* weights);

// The same where the record has plain weights.
void unpackFloats(const LayerRecordView& view, std::size_t first, std::size_t rows, float* weights);

// Looks at the record of at most `available` bytes at `src`.
// Returns: whether it is whole and one that the writer writes; else `view` is unspecified.
bool viewRecord(const char* src, std::size_t available, LayerRecordView& view);

// Looks at the lengths of a record alone, and takes no memory.
// Returns: whether it is whole and its weights are no codes of a table. They may be in another form
// than the writer's. Else `view` is unspecified.
bool viewLayout(const char* src, std::size_t available, LayerRecordView& view);

// What became of a record that was read or written.
struct RecordResult {
  int length = -1;        // bytes; -1 when the record was refused
  uint32_t checksum = 0;  // of those bytes
  std::size_t taken = 0;  // bytes that were taken from a stream, refused or not
};

WeightsRef weightsOf(const NNLayer& layer);

// Returns how the layer's record stores its weights, for the functions below. `watch` is called
// with 0 steps.
WeightsPlan planRecord(const NNLayer& layer, const Watch& watch = {});

// Returns the length of the layer's record in bytes.
uint64_t recordLength(const NNLayer& layer, const WeightsPlan& plan);

// Hands the record to the sink piece by piece.
void writeRecord(const NNLayer& layer, const WeightsPlan& plan, ByteSink& sink);

// Writes the record to `dst`, and takes its checksum on the way.
// REQUIRES: recordLength() fits an int, and `dst` has room for as many bytes.
RecordResult writeRecord(const NNLayer& layer, const WeightsPlan& plan, char* dst);

// Returns the checksum of the record of a layer without inputs and outputs, as NNLayer::checksum
// does of a new layer; what calls this takes none of the writer along.
uint32_t emptyRecordChecksum();

// Reads one record of at most `available` bytes into the layer, and takes its checksum on the
// way. From a stream, plain weights are read straight into the layer's array.
// On failure, and on std::bad_alloc: the layer is unchanged; the stream stands somewhere in the
// record, or has failed where it was shorter than it should be.
RecordResult readRecord(NNLayer& layer, const char* src, std::size_t available);
RecordResult readRecord(NNLayer& layer, std::istream& in, std::size_t available);

}  // namespace mlnn
