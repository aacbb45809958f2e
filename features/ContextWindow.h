// ContextWindow — turns frames of features into the input vectors of a model: each frame is
// normalised, and stacked with the frames around it.
#pragma once

#include <Eigen/Core>
#include <cstdint>
#include <optional>
#include <string>

#include "features/DbnFeatureDescription.h"
#include "features/EigenBorder.h"
#include "features/Export.h"
#include "features/MelDeltasNorm.h"

namespace mlnn {

// The input vector of frame t is the normalised frames t - winSizeLeft to t + winSizeRight,
// oldest first; frames before the first or after the last of a recording repeat it. A frame
// is normalised in single precision as (x - minvals) * normvals, two roundings a value; a
// narrower frame uses the first values of both arrays.
//
// A whole recording (stack) and frames as they arrive (push, finish) give the same bits.
// Copies what it needs of the description and the normalisation.
// Thread-safety: one object serves one thread at a time.
class MLNN_EXPORT ContextWindow {
 public:
  // Makes a window for frames of `frameLen` values.
  // Takes memory for all frames of a window at once, so for a description that is not trusted
  // compare its featLen() with the model's inputs before.
  // Returns: nothing when that cannot be done, with the reason in `whyNot`: a frame length
  // that is not positive, a negative window size, an input vector longer than an int tells,
  // or frames longer than a normalisation that changes values.
  static std::optional<ContextWindow> create(const DbnFeatureDescription& desc,
                                             const MelDeltasNorm& norm, int frameLen,
                                             std::string& whyNot);

  int frameLen() const { return frameLen_; }  // values in a frame
  int inputLen() const { return inputLen_; }  // values in an input vector
  int delay() const { return right_; }        // frames that an input vector waits for

  // Makes the input vectors of a whole recording.
  // Shapes:   frames: frameLen x n; inputs becomes inputLen x n. It may be the matrix behind
  // `frames`. Returns:  true; false where the frames are of another length, with `inputs`
  // unchanged. Does not touch what push has gathered.
  bool stack(const Eigen::Ref<const Eigen::MatrixXf>& frames, Eigen::MatrixXf& inputs) const;

  // Takes the next frame (frameLen values). Once delay() further frames have come after a
  // frame, puts its input vector (inputLen values) into `input` and returns true; else
  // returns false and leaves `input` alone. Allocates nothing.
  bool push(const float* frame, float* input);

  // After the last frame: puts the next of the input vectors that are still due into `input`
  // and returns true; returns false when none is left, and then starts over for another
  // recording. Allocates nothing.
  // REQUIRES: no push follows before finish has returned false, or reset was called.
  bool finish(float* input);

  // Forgets the frames so far and starts another recording.
  void reset();

 private:
  ContextWindow(int left, int right, int frameLen, Eigen::VectorXf minvals,
                Eigen::VectorXf normvals);

  void normalise(const float* frame, float* out) const;
  void emit(float* input);
  float* slot(int64_t frame);  // where the ring keeps a frame

  int left_;
  int right_;
  int frameLen_;
  int inputLen_;
  Eigen::VectorXf minvals_;  // frameLen values each, or none where nothing is normalised
  Eigen::VectorXf normvals_;
  Eigen::MatrixXf ring_;  // the last left + 1 + right normalised frames, one a column
  int64_t received_ = 0;  // frames pushed
  int64_t emitted_ = 0;   // input vectors given out
};

}  // namespace mlnn
