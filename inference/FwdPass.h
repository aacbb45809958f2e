// FwdPass — runs a model over input vectors.
#pragma once

#include <Eigen/Core>
#include <memory>
#include <type_traits>

#include "features/EigenBorder.h"
#include "features/Export.h"
#include "inference/Frames.h"
#include "inference/Threads.h"

class MLNN_EXPORT FwdPass {
 public:
  virtual ~FwdPass() = default;

  // Widths of the vectors that go in and come out.
  virtual int numInputs() const = 0;
  virtual int numOutputs() const = 0;

  // Computes the model's outputs for each column of `inputs`.
  // Shapes:   inputs: numInputs x frames; outputs becomes numOutputs x frames.
  // Returns:  0 done; 1 refused, after an error line.
  // On failure: `outputs` is unchanged.
  // A matrix whose shape changes is given new memory, as Eigen's arrays are; frames in the caller's
  // memory (below) have none to be given.
  virtual int evaluate(const Eigen::Ref<const Eigen::MatrixXf>& inputs,
                       Eigen::MatrixXf& outputs) = 0;

  // The same bits, from the caller's memory into the caller's memory: plain pointers with strides,
  // or anything that Eigen keeps there, of fixed size or not.
  // Shapes:   inputs: numInputs values a frame; outputs: numOutputs, and as many frames.
  // Refuses, beside what the above does: fewer than no frames; outputs of another width or number;
  // outputs whose frames overlap each other; a null pointer where there is something to read or
  // write.
  // REQUIRES: the memory is there, at addresses where a float may be. Inputs and outputs may share
  // some.
  // On failure: the outputs are unchanged.
  int evaluate(const mlnn::InputFrames& inputs, const mlnn::OutputFrames& outputs) {
    return evaluateFrames(inputs, outputs);
  }

  // The first of them for inputs whose columns do not lie in memory in one piece, as those of a
  // row-major matrix: they are read where they are.
  template <typename Matrix,
            std::enable_if_t<mlnn::kAreFloatsInMemory<Matrix> && !mlnn::kHasWholeColumns<Matrix>,
                             int> = 0>
  int evaluate(const Eigen::DenseBase<Matrix>& inputs, Eigen::MatrixXf& outputs) {
    return evaluateInto(inputs, outputs);
  }

  // Has `evaluate` share its work with these threads from now on, unless it is too little for that;
  // null, as at first, leaves all of it to the calling thread. The bits are the same with any
  // number of threads. Each further thread keeps memory of its own in the pass, at most as much as
  // the pass keeps without. A pass that is not of this library may take no notice.
  // Lifetime: the pass keeps the threads until it is given others, and so do copies of it. They end
  // with their last owner.
  virtual void setThreads(std::shared_ptr<mlnn::Threads> threads);

 protected:
  FwdPass() = default;
  FwdPass(const FwdPass&) = default;
  FwdPass& operator=(const FwdPass&) = default;

  // What evaluate does with frames in the caller's memory. A pass that does not override it works
  // through matrices of its own.
  virtual int evaluateFrames(const mlnn::InputFrames& inputs, const mlnn::OutputFrames& outputs);

 private:
  int evaluateInto(const mlnn::InputFrames& inputs, Eigen::MatrixXf& outputs);
};
