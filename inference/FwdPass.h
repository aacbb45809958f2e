// FwdPass — runs a model over input vectors.
#pragma once

#include <Eigen/Core>

#include "features/EigenBorder.h"
#include "features/Export.h"

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
  virtual int evaluate(const Eigen::Ref<const Eigen::MatrixXf>& inputs,
                       Eigen::MatrixXf& outputs) = 0;

 protected:
  FwdPass() = default;
  FwdPass(const FwdPass&) = default;
  FwdPass& operator=(const FwdPass&) = default;
};
