// IntegerFwdPass — the forward pass of a model whose weights were quantised by rows, in integers:
// the same bits on every processor, for a quarter or an eighth of the memory, and faster.
#pragma once

#include <Eigen/Core>
#include <cstddef>
#include <memory>

#include "features/Export.h"
#include "features/Watch.h"
#include "inference/FwdPass.h"
#include "inference/WideInputs.h"

class MultiLayerNNModel;

namespace mlnn {

class ImageFwdPass;
class IntegerSource;
struct IntegerMemory;

// A layer whose weights are whole numbers of -127 to 127 times a scale for each output, exactly, is
// computed with 8-bit products and exact sums. Its inputs are rounded to integers, by one scale for
// each frame, so results differ from those of NNFwdPassFromFile by a bound that
// docs/integer-pass.md states. Any other layer is computed in floats, in one order and without
// fused arithmetic; so are layers of more than 132,104 inputs, whose sums might overflow.
//
// The result for a frame is the same to the bit on every processor, with every number of frames and
// threads. A frame with an input that is infinite or not a number gives NaN.
//
// Of a model it holds its own copy of what it needs; it does not follow later changes of the model,
// which may even be gone. Weights take one byte each, or half a byte where all are within -7 to 7.
//
// Thread-safety: one object serves one thread at a time; `another` makes one for another thread.
class MLNN_EXPORT IntegerFwdPass : public FwdPass {
 public:
  // Makes a forward pass. The model stays as it is.
  // Returns: null, after an error line, when the model has no layers or has one that does not fit.
  static std::unique_ptr<IntegerFwdPass> create(const MultiLayerNNModel& model,
                                                WideInputs wideInputs = WideInputs::kNone);

  // The same, which a watch can stop: it is called with 0 steps.
  static std::unique_ptr<IntegerFwdPass> create(const MultiLayerNNModel& model,
                                                WideInputs wideInputs, const Watch& watch);

  // The same from an open image, whose codes and floats stay where they lie; layers that are codes
  // by rows, but stand in another form there, are copied. Gives the bits of the image's model.
  // Whether a softmax ends it is what `image` says now; later calls of `image` change nothing here.
  // Lifetime: the image must stay where it is, and unchanged, while the pass or another one made
  // from it is in use; where openFile mapped it, they keep the mapping. `image` itself may go.
  static std::unique_ptr<IntegerFwdPass> create(const ImageFwdPass& image,
                                                WideInputs wideInputs = WideInputs::kNone);

  // Makes a forward pass over the same weights, of which there is no copy.
  std::unique_ptr<IntegerFwdPass> another() const;

  ~IntegerFwdPass() override;

  int numInputs() const override;
  int numOutputs() const override;

  // Refuses inputs of another width.
  // After a call with as many frames, or more, it allocates nothing but the memory of `outputs`,
  // where their shape changes; into the caller's memory, nothing at all.
  int evaluate(const Eigen::Ref<const Eigen::MatrixXf>& inputs, Eigen::MatrixXf& outputs) override;
  using FwdPass::evaluate;
  void setThreads(std::shared_ptr<Threads> threads) override;

  // Returns the layers that are computed in integers.
  std::size_t numIntegerLayers() const;

  // Returns the bytes of weights, scales and shifts that passes of one origin share; of an image,
  // those of its records.
  std::size_t weightBytes() const;

  // Returns the bytes that it keeps besides them once it has evaluated up to `frames` frames a
  // call, itself included, into outputs that are apart from the inputs.
  std::size_t workingBytes(Eigen::Index frames) const;

 private:
  int evaluateFrames(const InputFrames& inputs, const OutputFrames& outputs) override;

  explicit IntegerFwdPass(std::shared_ptr<const IntegerSource> layers);

  std::shared_ptr<const IntegerSource> layers_;
  std::unique_ptr<IntegerMemory> memory_;
};

}  // namespace mlnn
