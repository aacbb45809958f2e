// RunnableModel — what runs recordings: an image from where it lies, or a model that was loaded.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "inference/FwdPass.h"
#include "inference/IntegerFwdPass.h"
#include "inference/RecordingInputs.h"
#include "tools/files/ImageFile.h"
#include "tools/files/ModelLoading.h"
#include "tools/reports/RunReport.h"

namespace mlnn {

class RunnableModel {
 public:
  // Takes an image file as it is, unless `needsModel` is set or the options give an activation;
  // loads anything else.
  // `softmax`, where given, counts instead of what the model says.
  // Throws: Failure when the model cannot be read.
  RunnableModel(const std::string& name, const LoadOptions& options, bool needsModel,
                std::optional<bool> softmax = std::nullopt);

  // What it takes, valid as long as this object; and what it gives.
  InputSide inputSide() const;
  OutputSide outputSide() const;

  FwdPass& pass() { return image_ ? static_cast<FwdPass&>(image_->pass()) : *loadedPass_; }

  // Makes a further pass like that, for another thread. Prints nothing.
  // Returns: null where the image is refused by now.
  std::unique_ptr<FwdPass> anotherPass();

  // Makes a pass in integers over what it runs; an image is read where it lies.
  // Returns: null, after an error line, where that cannot be run.
  std::unique_ptr<IntegerFwdPass> integerPass(WideInputs wideInputs) const;

  // REQUIRES: it was made for one who needs the model.
  MultiLayerNNModel& model() { return file_.model; }

 private:
  std::optional<ImageFile> image_;
  bool imageHasSoftmax_ = true;
  ModelFile file_;  // where there is no image
  std::unique_ptr<FwdPass> loadedPass_;
};

}  // namespace mlnn
