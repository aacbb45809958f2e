// InferenceModel — what an inference engine asks of a model: its shape, the features
// that it expects, and an object that runs it.
#pragma once

#include <string>

#include "features/DbnFeatureDescription.h"
#include "features/Export.h"

class FwdPass;

class MLNN_EXPORT InferenceModel {
 public:
  // The features that the model expects on its input. New models: feature type 0, all
  // other fields 0.
  DbnFeatureDescription featureDesc{DbnFeatureDescription::MelDeltas};

  virtual ~InferenceModel() = default;

  // Returns a new forward pass over this model. The caller owns it; the model must
  // outlive it.
  virtual FwdPass* createFwdPass() = 0;

  // Returns the code of the model's type.
  virtual int type() const = 0;

  // Returns the number of output units.
  virtual int numOutputs() const = 0;

  // Return what the model expects of its inputs.
  virtual DbnFeatureDescription& getFeatureDesc() { return featureDesc; }
  virtual const DbnFeatureDescription& getFeatureDesc() const { return featureDesc; }

  // Returns a description in one line; empty unless a model type has one.
  virtual std::string debug_description() const { return std::string(); }

 protected:
  InferenceModel() = default;
  InferenceModel(const InferenceModel&) = default;
  InferenceModel& operator=(const InferenceModel&) = default;
};
