#include "model/FormatPreparation.h"

#include <algorithm>

#include "model/FormatLoss.h"
#include "model/ModelFormat.h"
#include "model/ModelSkeleton.h"
#include "text/Numbers.h"
#include "text/TextParts.h"

namespace mlnn {
namespace {

using Lines = std::vector<std::string>;

// The nearest to the model's feature description that a text can say: it has no word for
// other types than one, and states bands only where the length fits the inputs.
DbnFeatureDescription sayableDescription(const MultiLayerNNModel& model) {
  DbnFeatureDescription desc = model.featureDesc;
  desc.featType = DbnFeatureDescription::MelDeltas;
  desc.reserved = 0;
  if (desc.featLen() != 0 && desc.featLen() != model.numInputs()) desc.numBands = 0;
  return desc;
}

bool carriesMinvals(const std::string& note) { return contains(note, kMinvalsMarker); }

bool carriesNormvals(const std::string& note) {
  return !carriesMinvals(note) && contains(note, kNormvalsMarker);
}

bool carriesDescription(const std::string& note) {
  return !contains(note, kMinvalsMarker) && !contains(note, kNormvalsMarker) &&
         contains(note, kFeatDescMarker) && contains(note, kFeatDescToolMarker);
}

std::string normalisationNote(const char* marker, const Eigen::VectorXf& values) {
  std::string note = std::string("TRAIN rbm_train mlnn convert -") + marker + " ";
  for (Eigen::Index i = 0; i < values.size(); ++i) {
    if (i > 0) note += ",";
    note += generalNumber(static_cast<double>(values[i]), kExactDigits);
  }
  return note;
}

// Puts `note` in the place of the first line that `isOld` accepts, or at the end.
void replaceFirst(Lines& notes, bool (*isOld)(const std::string&), const std::string& note) {
  const auto old = std::find_if(notes.begin(), notes.end(), isOld);
  if (old == notes.end()) {
    notes.push_back(note);
  } else {
    *old = note;
  }
}

// Later lines win over earlier ones, so all old ones go. An empty array gets no line.
void replaceAll(Lines& notes, bool (*isOld)(const std::string&), const char* marker,
                const Eigen::VectorXf& values) {
  notes.erase(std::remove_if(notes.begin(), notes.end(), isOld), notes.end());
  if (values.size() > 0) notes.push_back(normalisationNote(marker, values));
}

// Makes the notes say the feature description that a reader is to take from them.
void putDescriptionIntoNotes(MultiLayerNNModel& model, Lines& done) {
  const DbnFeatureDescription desc = sayableDescription(model);
  std::string messages;
  const MultiLayerNNModel read = readBack(skeletonOf(model), ModelFormat::kText, messages);
  if (messages.empty() && textOf(read.featureDesc) == textOf(desc)) return;
  replaceFirst(model.notes.lines, carriesDescription,
               std::string(kFeatDescToolMarker) + " " + kFeatDescMarker + " " + textOf(desc));
  done.push_back("the feature description is written as a note line");
}

// The same for the normalisation.
void putNormalisationIntoNotes(MultiLayerNNModel& model, Lines& done) {
  std::string messages;
  const MultiLayerNNModel read = readBack(skeletonOf(model), ModelFormat::kText, messages);
  const MelDeltasNorm& norm = model.deltasNorm;
  const bool minvalsFit = sameValues(read.deltasNorm.minvals, norm.minvals);
  const bool normvalsFit = sameValues(read.deltasNorm.normvals, norm.normvals);
  if (minvalsFit && normvalsFit) return;
  if (!minvalsFit) replaceAll(model.notes.lines, carriesMinvals, kMinvalsMarker, norm.minvals);
  if (!normvalsFit) replaceAll(model.notes.lines, carriesNormvals, kNormvalsMarker, norm.normvals);
  done.push_back("the normalisation is written as note lines");
}

// The batch-norm layers but the last: those whose activation loadModel takes from the property.
std::vector<const NNLayer*> hiddenBatchNormLayers(const MultiLayerNNModel& model) {
  std::vector<const NNLayer*> found;
  for (std::size_t i = 0; i + 1 < model.layers.size(); ++i) {
    if (model.layers[i]->isBatchNorm) found.push_back(model.layers[i]);
  }
  return found;
}

void putActivationIntoProperty(MultiLayerNNModel& model, Lines& done) {
  const std::vector<const NNLayer*> layers = hiddenBatchNormLayers(model);
  if (layers.empty()) return;
  const ActFn::ActFn actFn = layers.front()->actFn;
  const auto differs = [actFn](const NNLayer* layer) { return layer->actFn != actFn; };
  if (std::any_of(layers.begin(), layers.end(), differs)) return;
  const std::string name = ActFn::actFnToString(actFn);
  const auto present = model.props.find(kHiddenActFnProperty);
  // Without the property they read back as linear. It is not made to say so, since whoever
  // reads them should go on being told that the file itself does not.
  if (present == model.props.end() ? actFn == ActFn::linear : present->second == name) return;
  model.props[kHiddenActFnProperty] = name;
  done.push_back("the activation of the hidden batch-norm layers is written as the property " +
                 std::string(kHiddenActFnProperty) + " (" + name + ")");
}

}  // namespace

void prepareForText(MultiLayerNNModel& model, Lines& done) {
  putActivationIntoProperty(model, done);
  putDescriptionIntoNotes(model, done);
  putNormalisationIntoNotes(model, done);
}

void prepareForImage(MultiLayerNNModel& model, Lines& done) {
  const MelDeltasNorm& norm = model.deltasNorm;
  if (norm.minvals.size() == kDeltasNormLength && norm.normvals.size() == kDeltasNormLength) return;
  model.deltasNorm.allocIfNeeded();
  done.push_back("a normalisation that changes nothing is added, since an image needs one");
}

}  // namespace mlnn
