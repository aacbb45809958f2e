// DbnFeatureDescription — what the input features of a model are: mel bands with
// or without deltas, and the context window that is put around each frame.
//
// A plain value of five 32-bit words, whose bytes go into a binary model image in
// this order. Its text form is one word without blanks:
//   mel_deltas:bands=40,left=7,right=7,deltas=1,line_kernels=0,line_kernel_width=0
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

#include "features/Export.h"

class MLNN_EXPORT DbnFeatureDescription {
 public:
  // What the frames are made of.
  enum FeatType : uint8_t { MelDeltas = 0 };

  int32_t winSizeLeft;      // frames of context before the current one
  int32_t winSizeRight;     // frames of context after it
  int32_t lineKernelWidth;  // width of the line kernels
  uint8_t featType;         // a FeatType; an image can bring other values
  uint8_t reserved;         // kept as an image brought it
  bool useDeltas;           // a frame holds deltas and delta-deltas after the bands
  bool useLineKernels;      // line kernels are applied; they do not change the length
  int32_t numBands;         // mel bands of one frame, 0 when not stated

  // Every field is 0 but the type. Not explicit: a type stands for its plain description.
  DbnFeatureDescription(FeatType type);

  // Number of values in one frame: numBands, or three times that with deltas.
  // 0 when the bands are not stated or the product is not a positive int.
  int frameLen() const;

  // Number of values in one input vector: the width of a frame times
  // (winSizeLeft + 1 + winSizeRight). 0, which means unknown, when the bands are not
  // stated or the product is not a positive int.
  int featLen() const;

  // Puts the text form into `out`, replacing what it held. A type other than
  // MelDeltas is written as type_N.
  void serialize(std::string& out) const;

  // Parses the text form. It must be exactly as serialize writes it for MelDeltas:
  // the keys in that order, decimal ints (an optional minus and digits), flags 0 or 1.
  // Returns: 0 done, `reserved` is 0; 1 refused, and the value is unchanged.
  int deserialize(const std::string& text);
};

namespace mlnn {

// Makes a description from the 20 bytes that an image holds. A flag byte that is neither 0
// nor 1 counts as true; all other bytes are taken as they are.
// REQUIRES: 20 readable bytes at `bytes`, which need not be aligned.
MLNN_EXPORT DbnFeatureDescription featureDescriptionFromBytes(const char* bytes);

}  // namespace mlnn

// The binary image stores the value as raw memory, so its layout is part of the format.
static_assert(sizeof(DbnFeatureDescription) == 20);
static_assert(std::is_trivially_copyable_v<DbnFeatureDescription>);
static_assert(std::is_standard_layout_v<DbnFeatureDescription>);
static_assert(offsetof(DbnFeatureDescription, winSizeLeft) == 0);
static_assert(offsetof(DbnFeatureDescription, winSizeRight) == 4);
static_assert(offsetof(DbnFeatureDescription, lineKernelWidth) == 8);
static_assert(offsetof(DbnFeatureDescription, featType) == 12);
static_assert(offsetof(DbnFeatureDescription, reserved) == 13);
static_assert(offsetof(DbnFeatureDescription, useDeltas) == 14);
static_assert(offsetof(DbnFeatureDescription, useLineKernels) == 15);
static_assert(offsetof(DbnFeatureDescription, numBands) == 16);
