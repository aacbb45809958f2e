// OpenedModel — a model that C programs hold, loaded or run from where its image lies, with what
// they may ask of it.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "features/DbnFeatureDescription.h"
#include "features/MelDeltasNorm.h"
#include "inference/CodedFwdPass.h"
#include "inference/FwdPass.h"
#include "inference/IntegerFwdPass.h"
#include "model/ModelFile.h"
#include "os/FileMapping.h"

namespace mlnn {

// Does not change once it is made.
// Thread-safety: all members from any thread at any time.
class OpenedModel {
 public:
  using Property = std::pair<std::string, std::string>;

  virtual ~OpenedModel() = default;
  OpenedModel& operator=(const OpenedModel&) = delete;

  // Returns a new pass over the model, which must outlive it.
  virtual std::unique_ptr<FwdPass> makePass() const = 0;

  // Does for a pass that this model made what ImageFwdPass::prepare says; 0 where it is no such
  // pass.
  virtual std::size_t prepare(FwdPass&, std::size_t /*mostBytes*/) const { return 0; }

  // The model with what its file says besides; null where there is none, because the weights were
  // converted. An image that is run from where it lies is read for each call.
  virtual std::shared_ptr<const ModelFile> file() const { return nullptr; }

  // Make a model whose passes are CodedFwdPasses over one set of codes, or IntegerFwdPasses.
  // Return: null where that cannot be done, after an error line.
  virtual std::shared_ptr<OpenedModel> toCodes(int bits, CodesFor codesFor) const;
  virtual std::shared_ptr<OpenedModel> toIntegers(WideInputs wideInputs) const;

  // The inputs, and the outputs of each layer; none without layers.
  const std::vector<std::size_t>& widths() const { return widths_; }
  std::size_t inputs() const { return widths_.empty() ? 0 : widths_.front(); }
  std::size_t outputs() const { return widths_.empty() ? 0 : widths_.back(); }

  const DbnFeatureDescription& featureDesc() const { return featureDesc_; }
  const MelDeltasNorm& deltasNorm() const { return deltasNorm_; }
  const std::string& featureText() const { return featureText_; }
  const std::vector<Property>& properties() const { return properties_; }  // by their names
  const std::vector<std::string>& labels() const { return labels_; }
  bool hasSoftmax() const { return hasSoftmax_; }

 protected:
  OpenedModel(const DbnFeatureDescription& featureDesc, MelDeltasNorm deltasNorm,
              const std::vector<int>& widths);
  OpenedModel(const OpenedModel&) = default;

  std::vector<Property> properties_;
  std::vector<std::string> labels_;
  bool hasSoftmax_ = true;

 private:
  DbnFeatureDescription featureDesc_;
  MelDeltasNorm deltasNorm_;
  std::string featureText_;
  std::vector<std::size_t> widths_;
};

// Makes one of a model that was loaded.
std::shared_ptr<OpenedModel> openedModelOf(ModelFile file);

// Makes one of an image, which must stay where it is.
// Returns: null when the image is refused, after an error line.
std::shared_ptr<OpenedModel> openedModelOf(const void* image, std::size_t length);

// The same of a file's image, which it keeps; null for null.
std::shared_ptr<OpenedModel> openedModelOf(std::shared_ptr<const FileMapping> file);

}  // namespace mlnn
