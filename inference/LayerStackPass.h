// LayerStackPass — takes frames through a stack of layers, whatever holds their weights.
// Internal: not installed.
#pragma once

#include <Eigen/Core>
#include <cstddef>
#include <vector>

#include "inference/Frames.h"
#include "inference/NNFwdPassFromFile.h"
#include "inference/PassMemory.h"
#include "inference/Threads.h"
#include "inference/kernels/LayerView.h"

namespace mlnn {

// Layers of which each takes the outputs of the one before it; at least one.
class LayerSource {
 public:
  virtual ~LayerSource() = default;

  virtual std::size_t count() const = 0;
  virtual LayerView layer(std::size_t index) const = 0;
  virtual bool endsInSoftmax() const = 0;

  // Writes the weights of `rows` outputs, from the output `first` on, of a layer whose view has
  // no weights because they do not lie in memory as floats: rows x columns, without gaps.
  virtual void unpack(std::size_t index, std::size_t first, std::size_t rows, float* weights) const;

 protected:
  LayerSource() = default;
  LayerSource(const LayerSource&) = default;
  LayerSource& operator=(const LayerSource&) = default;
};

// Computes the outputs for each frame of `inputs`, which may share memory with `outputs`; with
// `threads`, unless that is null.
// Inputs that the kernels cannot read as they lie are gathered some frames at a time.
// After a call with as many frames, or more, it allocates nothing.
// REQUIRES: framesFit.
// On std::bad_alloc: `outputs` is unchanged.
void evaluateStack(const LayerSource& stack, const InputFrames& inputs, const OutputFrames& outputs,
                   PassMemory& memory, Threads* threads = nullptr);

// The same into a matrix, which takes the shape that it needs. Puts what every layer computed into
// `trace`, unless that is null; for that it takes no threads.
// REQUIRES: inputs.rows() is what the first layer takes.
void evaluateStack(const LayerSource& stack, const Eigen::Ref<const Eigen::MatrixXf>& inputs,
                   Eigen::MatrixXf& outputs, PassMemory& memory, std::vector<LayerResult>* trace,
                   Threads* threads = nullptr);

// Returns the bytes of `memory` after evaluateStack with `frames` frames, where the inputs were
// apart from the outputs and could be read as they lay.
std::size_t passMemoryBytes(const LayerSource& stack, Eigen::Index frames);

// --- What a thread does of it (StackThreads.h) ---

class StackThreads;

// Makes room for evaluatePart with so many of the frames of `inputs`.
void preparePart(const LayerSource& stack, const InputFrames& inputs, Eigen::Index frames,
                 PassMemory& memory);

// Takes all of `inputs` through the stack, some at a time; with `byRows`, unless that is null, for
// each layer. They do not overlap `outputs`.
// REQUIRES: preparePart with as many frames.
void evaluatePart(const LayerSource& stack, const InputFrames& inputs, const OutputFrames& outputs,
                  PassMemory& memory, StackThreads* byRows);

// Some frames in memory, one behind the other.
struct StackFrames {
  float* first;
  Eigen::Index stride;
  Eigen::Index count;
};

// A layer of a stack, and the frames that go through it.
struct LayerCall {
  const LayerSource& stack;
  std::size_t index;
  const float* x;
  Eigen::Index xStride;
  StackFrames y;
};

// Computes some outputs of a layer: `layer` is a view of them, the first of which is `row`.
// REQUIRES: they are all of the layer, or more than kFewRows.
void evaluateRows(const LayerCall& call, const LayerView& layer, std::size_t row,
                  PassMemory& memory);

}  // namespace mlnn
