// RecordingInputs — how the frames of a recording become the input vectors of a model.
#pragma once

#include <Eigen/Core>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "features/ContextWindow.h"
#include "features/Export.h"
#include "model/MultiLayerNNModel.h"

namespace mlnn {

// What a network asks of its inputs, loaded or not.
struct MLNN_EXPORT InputSide {
  const DbnFeatureDescription& featureDesc;  // of the model
  const MelDeltasNorm& deltasNorm;           // of the model
  int numInputs;                             // values in an input vector
  bool hasOutputs;                           // in its first layer, and in its last

  // That of a loaded model, which must outlive it.
  static InputSide of(const MultiLayerNNModel& model);
};

// Returns the width of a single frame that the model's feature description states. Where that
// states no bands: the 120 values of the normalisation, if they times the window give the
// model's inputs. 0 where neither tells.
MLNN_EXPORT int frameWidth(const MultiLayerNNModel& model);

class MLNN_EXPORT RecordingInputs {
 public:
  // Decides by the width of a recording's frames what they are: single frames, which are
  // normalised and stacked as the model says, or input vectors already. Where both fit they are
  // single frames unless `stacked` says otherwise.
  // Returns: nothing when neither fits, or the frames cannot be stacked. `whyNot` then has a text
  // that tells what would fit; `what` names the frames in it.
  static std::optional<RecordingInputs> forFrames(const InputSide& network, Eigen::Index width,
                                                  bool stacked, const std::string& what,
                                                  std::string& whyNot);
  static std::optional<RecordingInputs> forFrames(const MultiLayerNNModel& model,
                                                  Eigen::Index width, bool stacked,
                                                  const std::string& what, std::string& whyNot) {
    return forFrames(InputSide::of(model), width, stacked, what, whyNot);
  }

  // Whether the frames are input vectors already.
  bool areStacked() const { return !window_; }

  // Whether the description asks for line kernels, which are not applied to these frames.
  bool leavesOutLineKernels() const { return leavesOutLineKernels_; }

  // Hands the input vectors of a recording to `use` in order, in blocks of some hundred, so
  // that a long recording is never stacked as a whole. Each column is one vector.
  // REQUIRES: frames as wide as was said to forFrames.
  void forEachBlock(const Eigen::Ref<const Eigen::MatrixXf>& frames,
                    const std::function<void(const Eigen::Ref<const Eigen::MatrixXf>&)>& use) const;

  // The same blocks, one at a time when asked for, so that several models can be run over one
  // recording in step.
  class MLNN_EXPORT Blocks {
   public:
    // REQUIRES: frames as wide as was said to forFrames. `frames` must outlive this object.
    Blocks(const RecordingInputs& inputs, const Eigen::Ref<const Eigen::MatrixXf>& frames);

    // How many vectors a block has at most.
    Eigen::Index maxLength() const;

    // Returns the next block, of at most `most` vectors if that is less; nothing after the last.
    // The block lasts until the next call.
    // REQUIRES: most > 0
    std::optional<Eigen::Ref<const Eigen::MatrixXf>> next(Eigen::Index most);

   private:
    bool nextVector(float* vector);

    const Eigen::Ref<const Eigen::MatrixXf> frames_;
    std::optional<ContextWindow> window_;
    Eigen::MatrixXf block_;  // where vectors are stacked
    Eigen::Index done_ = 0;  // frames that were taken
  };

  // The same vectors for frames that come some at a time.
  class MLNN_EXPORT Arriving {
   public:
    // For one recording, of which no frame has come yet. The inputs need not outlive it.
    explicit Arriving(const RecordingInputs& inputs);

    // How many vectors a block has at most.
    Eigen::Index maxLength() const { return maxLength_; }

    // Takes the frames that come next.
    // REQUIRES: frames as wide as was said to forFrames; next() has returned nothing since the last
    // ones; no call of end() before.
    void take(Eigen::MatrixXf frames);

    // There are no further frames.
    void end() { isOver_ = true; }

    // Returns the next block, of at most `most` vectors if that is less, that the frames so far
    // complete; nothing where they complete none. The block lasts until the next call.
    // REQUIRES: most > 0
    std::optional<Eigen::Ref<const Eigen::MatrixXf>> next(Eigen::Index most);

   private:
    bool nextVector(float* vector);

    std::optional<ContextWindow> window_;
    Eigen::Index maxLength_;
    Eigen::MatrixXf frames_;  // that were taken last
    Eigen::Index done_ = 0;   // of these
    Eigen::MatrixXf block_;   // where vectors are stacked
    bool isOver_ = false;
  };

 private:
  RecordingInputs(std::optional<ContextWindow> window, bool leavesOutLineKernels)
      : window_(std::move(window)), leavesOutLineKernels_(leavesOutLineKernels) {}

  std::optional<ContextWindow> window_;  // nothing for input vectors
  bool leavesOutLineKernels_;
};

}  // namespace mlnn
