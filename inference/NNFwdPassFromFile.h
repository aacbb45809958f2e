// NNFwdPassFromFile — the forward pass of a MultiLayerNNModel.
#pragma once

#include <Eigen/Core>
#include <cstddef>
#include <memory>
#include <vector>

#include "features/Export.h"
#include "inference/FwdPass.h"
#include "inference/LayerResult.h"
#include "inference/PassMemory.h"
#include "layers/NNLayer.h"

class MultiLayerNNModel;

// Reads the model's own arrays at every call, so an edit of the model shows in the next
// one. Keeps only scratch memory of its own: what two layers as wide as the widest hold for up
// to 256 frames at a time; for one frame as much as the widest layer again, for more 64 KiB or
// the widest layer, whatever is more; and, where the memory of the outputs is among that of the
// inputs, the results. Inputs whose values lie apart, or whose frames run backwards, count as a
// layer: they are gathered for up to 256 frames at a time.
//
// Lifetime: the model must outlive the forward pass, unless that shares it.
// Thread-safety: one object serves one thread at a time; several objects over one model
// that does not change may run in several threads.
class MLNN_EXPORT NNFwdPassFromFile : public FwdPass {
 public:
  // Keeps a reference to the model and allocates nothing: that is left to the first evaluation.
  explicit NNFwdPassFromFile(const MultiLayerNNModel& model);
  explicit NNFwdPassFromFile(const MultiLayerNNModel&& model) = delete;  // it would be gone

  // Shares the model and so keeps it. A null pointer counts as a model without layers, and so does
  // what a pass has whose contents were moved to another.
  explicit NNFwdPassFromFile(std::shared_ptr<const MultiLayerNNModel> model);

  int numInputs() const override;
  int numOutputs() const override;

  // A plain layer computes actFn(weights * x + bias), a batch-norm layer
  // actFn(gamma_inf .* (weights * x) + beta_inf); then, if the model says so, a softmax
  // over the last layer's results. The result for a frame depends on the model and that
  // frame alone, not on its neighbours or its position.
  // Refuses: a model without layers, a layer that does not fit its arrays or the layer
  // before it, inputs of another width (tested in this order).
  // After a call with as many frames, or more, it allocates nothing but the memory of `outputs`,
  // where their shape changes; into the caller's memory, nothing at all.
  int evaluate(const Eigen::Ref<const Eigen::MatrixXf>& inputs, Eigen::MatrixXf& outputs) override;
  using FwdPass::evaluate;
  void setThreads(std::shared_ptr<mlnn::Threads> threads) override;

  // The same, and hands out what every layer computed, in stack order: for whoever looks
  // for the place where results part from another engine's.
  // On failure: `outputs` and `layers` are unchanged.
  int evaluateLayers(const Eigen::Ref<const Eigen::MatrixXf>& inputs, Eigen::MatrixXf& outputs,
                     std::vector<mlnn::LayerResult>& layers);

  // Returns the bytes that a forward pass over such a model keeps once it has evaluated up to
  // `frames` frames a call, itself included, into outputs that are apart from the inputs.
  // REQUIRES: no layer is missing.
  static std::size_t workingBytes(const MultiLayerNNModel& model, Eigen::Index frames);

 private:
  int evaluateFrames(const mlnn::InputFrames& inputs, const mlnn::OutputFrames& outputs) override;
  int run(const Eigen::Ref<const Eigen::MatrixXf>& inputs, Eigen::MatrixXf& outputs,
          std::vector<mlnn::LayerResult>* trace);

  std::shared_ptr<const MultiLayerNNModel> model_;  // keeps nothing where somebody else does
  mlnn::PassMemory memory_;
};
