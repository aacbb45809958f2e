// IntegerStackPass — takes frames through a stack of layers whose weights are codes by rows, in
// integers; layers that have no codes are computed in floats. docs/integer-pass.md fixes every
// rounding. Internal: not installed.
#pragma once

#include <Eigen/Core>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "inference/Frames.h"
#include "inference/Threads.h"
#include "inference/kernels/LayerView.h"
#include "inference/kernels/UnfusedKernels.h"
#include "inference/kernels/integers/IntegerDots.h"
#include "layers/RowCodes.h"

namespace mlnn {

// A layer as the integer pass reads it.
struct IntegerLayerView {
  LayerView layer;     // its weights are null where there are codes
  RowCodesView codes;  // of at most kMostDotInputs columns; its codes are null where it is floats
  const float* rowScales;  // those of the codes
  bool takesWords;         // inputs become integers of 16 bits, not of 8
};

// Layers of which each takes the outputs of the one before it; at least one.
class IntegerSource {
 public:
  virtual ~IntegerSource() = default;

  virtual std::size_t count() const = 0;
  virtual IntegerLayerView layer(std::size_t index) const = 0;
  virtual bool endsInSoftmax() const = 0;

  // Returns the bytes of weights, scales and shifts.
  virtual std::size_t bytes() const = 0;

  // Writes the weights of `rows` outputs, from the output `first` on, of a layer whose view has
  // neither weights nor codes: rows x columns, without gaps.
  virtual void unpack(std::size_t index, std::size_t first, std::size_t rows, float* weights) const;

 protected:
  IntegerSource() = default;
  IntegerSource(const IntegerSource&) = default;
  IntegerSource& operator=(const IntegerSource&) = default;
};

// What a pass keeps from call to call, so that it allocates nothing anew.
struct IntegerMemory {
  Eigen::VectorXf between;                         // what goes from layer to layer
  Eigen::Matrix<int8_t, Eigen::Dynamic, 1> bytes;  // a layer's inputs as integers
  Eigen::VectorXi sums;                            // those of each frame's integers
  Eigen::VectorXf scales;                          // of each frame
  Eigen::VectorXf unpacked;                        // rows of weights that are no floats in memory
  Eigen::VectorXf gathered;                        // inputs that cannot be read as they lie
  Eigen::VectorXf results;                         // where outputs overlap the inputs
  std::vector<IntegerMemory> further;              // that of each further thread
  std::shared_ptr<Threads> threads;                // which share the work; null for none
};

// The kernels of a pass.
struct IntegerKernels {
  const DotKernels& dots;
  const UnfusedKernels& unfused;
};

// Computes the outputs for each frame of `inputs`, which may share memory with `outputs`; with
// `threads`, unless that is null.
// Inputs that the kernels cannot read as they lie are gathered some frames at a time.
// After a call with as many frames, or more, it allocates nothing.
// REQUIRES: framesFit.
// On std::bad_alloc: `outputs` is unchanged.
void evaluateIntegers(const IntegerSource& stack, const IntegerKernels& kernels,
                      const InputFrames& inputs, const OutputFrames& outputs, IntegerMemory& memory,
                      Threads* threads = nullptr);

// The same into a matrix, which takes the shape that it needs.
// REQUIRES: inputs.rows() is what the first layer takes.
void evaluateIntegers(const IntegerSource& stack, const IntegerKernels& kernels,
                      const Eigen::Ref<const Eigen::MatrixXf>& inputs, Eigen::MatrixXf& outputs,
                      IntegerMemory& memory, Threads* threads = nullptr);

// Returns the bytes of `memory` after evaluateIntegers with `frames` frames, where the inputs were
// apart from the outputs and could be read as they lay.
std::size_t integerMemoryBytes(const IntegerSource& stack, const IntegerKernels& kernels,
                               Eigen::Index frames);

// --- What a thread does of it (StackThreads.h) ---

// Makes room for evaluateIntegerPart with so many of the frames of `inputs`.
void prepareIntegerPart(const IntegerSource& stack, const IntegerKernels& kernels,
                        const InputFrames& inputs, Eigen::Index frames, IntegerMemory& memory);

// Takes all of `inputs` through the stack, some at a time. They do not overlap `outputs`.
// REQUIRES: prepareIntegerPart with as many frames.
void evaluateIntegerPart(const IntegerSource& stack, const IntegerKernels& kernels,
                         const InputFrames& inputs, const OutputFrames& outputs,
                         IntegerMemory& memory);

}  // namespace mlnn
