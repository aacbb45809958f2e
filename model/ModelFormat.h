// The fixed facts of both model file formats: keywords, magic, counts and offsets.
// The formats are described in docs/text-format.md and docs/binary-format.md.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "features/DbnFeatureDescription.h"
#include "features/MelDeltasNorm.h"

namespace mlnn {

// Text format: header lines and keywords.
inline constexpr char kHeaderVersion1[] = "MultiLayerNNModel";
inline constexpr char kHeaderVersion2[] = "MultiLayerNNModel_v2";
inline constexpr char kSoftmaxKeyword[] = "softmax";
inline constexpr char kLossKeyword[] = "loss";
inline constexpr char kAccuracyKeyword[] = "accuracy";
inline constexpr char kNumLayersKeyword[] = "num_layers";
inline constexpr char kLayerKeyword[] = "layer";
inline constexpr char kBatchNormLayerKeyword[] = "batch_norm_layer";
inline constexpr char kSizeKeyword[] = "size";
inline constexpr char kActFnKeyword[] = "act_fn";
inline constexpr char kGammaBetaKeyword[] = "gamma_beta";

// Text format: what a reader looks for in the note lines before the curves.
inline constexpr char kMinvalsMarker[] = "deltas_norm_minvals";
inline constexpr char kNormvalsMarker[] = "deltas_norm_normvals";
inline constexpr char kOptionMarker[] = "nn_tune comment";
inline constexpr char kDeltasOption[] = "-deltas";
inline constexpr char kWinSizeLeftOption[] = "-win_size_left";
inline constexpr char kWinSizeRightOption[] = "-win_size_right";
inline constexpr char kLineKernelsOption[] = "-linekernels";
inline constexpr char kFeatDescMarker[] = "feat_desc";
inline constexpr char kFeatDescToolMarker[] = "nn_tune";

// Binary format: the head of an image, all fields at fixed offsets.
inline constexpr char kMagic[] = "MLNN";
inline constexpr std::size_t kMagicLength = 4;

// Whether a file that begins so is an image.
inline bool isImage(std::string_view bytes) { return bytes.substr(0, kMagicLength) == kMagic; }

inline constexpr int kFeatureDescLength = sizeof(DbnFeatureDescription);
inline constexpr int kDeltasNormLength = static_cast<int>(MelDeltasNorm::kLength);
inline constexpr std::size_t kDeltasNormBytes = kDeltasNormLength * sizeof(float);

inline constexpr std::size_t kChecksumOffset = 4;
inline constexpr std::size_t kMinImageLength = 8;  // anything shorter is refused without a word
inline constexpr std::size_t kFeatureDescLengthOffset = 8;
inline constexpr std::size_t kFeatureDescOffset = 12;
inline constexpr std::size_t kMinvalsLengthOffset = kFeatureDescOffset + kFeatureDescLength;
inline constexpr std::size_t kMinvalsOffset = kMinvalsLengthOffset + 4;
inline constexpr std::size_t kNormvalsLengthOffset = kMinvalsOffset + kDeltasNormBytes;
inline constexpr std::size_t kNormvalsOffset = kNormvalsLengthOffset + 4;
inline constexpr std::size_t kLayerCountOffset = kNormvalsOffset + kDeltasNormBytes;
inline constexpr std::size_t kHeadLength = kLayerCountOffset + 4;
static_assert(kMinvalsLengthOffset == 32 && kNormvalsLengthOffset == 516);
static_assert(kLayerCountOffset == 1000 && kHeadLength == 1004);

// An image may announce this many layers more than it has room for; what is missing at its end
// is left to the checksum.
inline constexpr int64_t kMissingLayersAllowed = 1023;

// What the head takes beside the values of the two normalisation arrays.
inline constexpr std::size_t kHeadLengthWithoutNorm = kHeadLength - 2 * kDeltasNormBytes;
static_assert(kHeadLengthWithoutNorm == 44);

}  // namespace mlnn
