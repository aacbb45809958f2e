#include "tools/ModelFit.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <memory>
#include <sstream>

#include "model/ModelFormat.h"
#include "text/Escape.h"
#include "text/Numbers.h"
#include "tools/CapturedDiagnostics.h"
#include "tools/Failure.h"
#include "tools/files/ModelSaving.h"

namespace mlnn {
namespace {

using Lines = std::vector<std::string>;

bool contains(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

// --- The skeleton: everything of a model but its parameters ---

std::vector<float> finiteOnly(std::vector<float> values) {
  for (float& value : values) value = std::isfinite(value) ? value : 0.0f;
  return values;
}

// A model that is like the given one in all but its parameters: its layers have the same
// kinds, inputs and activations, but no outputs. It is cheap to write and read back, which
// shows what a format does to the rest. Curve values that no text could hold are 0.
MultiLayerNNModel skeletonOf(const MultiLayerNNModel& model) {
  MultiLayerNNModel skeleton;
  for (const NNLayer* layer : model.layers) {
    const auto inputs = static_cast<int>(layer->weights.cols());
    auto copy = std::make_unique<NNLayer>(inputs, 0, layer->isBatchNorm);
    copy->actFn = layer->actFn;
    skeleton.layers.push_back(copy.get());
    copy.release();
  }
  skeleton.featureDesc = model.featureDesc;
  skeleton.deltasNorm = model.deltasNorm;
  skeleton.props = model.props;
  skeleton.notes = model.notes;
  skeleton.loss = finiteOnly(model.loss);
  skeleton.accuracy = finiteOnly(model.accuracy);
  skeleton.useSoftmax = model.useSoftmax;
  return skeleton;
}

// Writes and reads a skeleton, as loadModel would read it. The result holds whatever could be
// read; `messages` is empty when that was all.
MultiLayerNNModel readBack(const MultiLayerNNModel& skeleton, ModelFormat format,
                           std::string& messages) {
  std::ostringstream out;
  writeModel(skeleton, format, kExactDigits, out);
  ModelFile file;
  if (!parseModel(out.str(), file, messages)) return std::move(file.model);
  messages.clear();
  const CapturedDiagnostics silence;
  setHiddenActivations(file, "");
  return std::move(file.model);
}

// --- Getting ready for a text ---

std::string textOf(const DbnFeatureDescription& desc) {
  std::string text;
  desc.serialize(text);
  return text;
}

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

bool sameValues(const Eigen::VectorXf& a, const Eigen::VectorXf& b) {
  if (a.size() != b.size()) return false;
  for (Eigen::Index i = 0; i < a.size(); ++i) {
    const bool bothNaN = std::isnan(a[i]) && std::isnan(b[i]);
    const bool same = a[i] == b[i] && std::signbit(a[i]) == std::signbit(b[i]);
    if (!bothNaN && !same) return false;
  }
  return true;
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

// --- Getting ready for an image ---

void completeNormalisation(MultiLayerNNModel& model, Lines& done) {
  const MelDeltasNorm& norm = model.deltasNorm;
  if (norm.minvals.size() == kDeltasNormLength && norm.normvals.size() == kDeltasNormLength) return;
  model.deltasNorm.allocIfNeeded();
  done.push_back("a normalisation that changes nothing is added, since an image needs one");
}

// --- What is lost ---

std::size_t linesMissing(const Lines& wanted, const Lines& present) {
  std::size_t missing = 0;
  auto next = present.begin();
  for (const std::string& line : wanted) {
    const auto found = std::find(next, present.end(), line);
    if (found == present.end()) {
      ++missing;
    } else {
      next = found + 1;
    }
  }
  return missing;
}

void compareProperties(const MultiLayerNNModel& wanted, const MultiLayerNNModel& present,
                       Lines& lost) {
  std::string names;
  std::size_t number = 0;
  for (const auto& [key, value] : wanted.props) {
    const auto found = present.props.find(key);
    if (found != present.props.end() && found->second == value) continue;
    names += (number++ == 0 ? "" : ", ") + escaped(key);
  }
  if (number == 0) return;
  lost.push_back(std::to_string(number) + (number == 1 ? " property (" : " properties (") + names +
                 ")");
}

void compareCurves(const MultiLayerNNModel& wanted, const MultiLayerNNModel& present, Lines& lost) {
  if (wanted.loss != present.loss) {
    lost.push_back("the loss curve (" + counted(wanted.loss.size(), "value") + ")");
  }
  if (wanted.accuracy != present.accuracy) {
    lost.push_back("the accuracy curve (" + counted(wanted.accuracy.size(), "value") + ")");
  }
}

void compareFeatures(const MultiLayerNNModel& wanted, const MultiLayerNNModel& present,
                     Lines& lost) {
  const std::string text = textOf(wanted.featureDesc);
  const std::string presentText = textOf(present.featureDesc);
  if (text != presentText) {
    lost.push_back("the feature description " + text + ", which becomes " + presentText);
  }
  if (wanted.featureDesc.reserved != present.featureDesc.reserved) {
    lost.push_back("the reserved byte of the feature description (" +
                   std::to_string(int{wanted.featureDesc.reserved}) + ")");
  }
  MelDeltasNorm norm = wanted.deltasNorm;
  MelDeltasNorm presentNorm = present.deltasNorm;
  norm.allocIfNeeded();  // no arrays and arrays that change nothing mean the same
  presentNorm.allocIfNeeded();
  if (!sameValues(norm.minvals, presentNorm.minvals) ||
      !sameValues(norm.normvals, presentNorm.normvals)) {
    lost.push_back("the normalisation");
  }
}

// "batch-norm layer 3 (relu)": layers count from 1, as in the text format.
void compareActivations(const MultiLayerNNModel& wanted, const MultiLayerNNModel& present,
                        Lines& lost) {
  for (std::size_t i = 0; i < wanted.layers.size(); ++i) {
    const ActFn::ActFn actFn = wanted.layers[i]->actFn;
    if (actFn == present.layers[i]->actFn) continue;
    lost.push_back("the activation of batch-norm layer " + std::to_string(i + 1) + " (" +
                   ActFn::actFnToString(actFn) + ")");
  }
}

Lines differences(const MultiLayerNNModel& wanted, const MultiLayerNNModel& present) {
  Lines lost;
  if (wanted.useSoftmax != present.useSoftmax) lost.push_back("that the softmax is off");
  const std::size_t notes = linesMissing(wanted.notes.lines, present.notes.lines);
  if (notes > 0) lost.push_back(counted(notes, "note line"));
  compareProperties(wanted, present, lost);
  compareCurves(wanted, present, lost);
  compareFeatures(wanted, present, lost);
  compareActivations(wanted, present, lost);
  return lost;
}

// --- Numbers in a text ---

// Counts the numbers that a text of some precision does not give back, or not even lets be read.
class NumberCount {
 public:
  explicit NumberCount(int precision) : precision_(precision) {}

  template <typename Values>
  void add(const Values& values) {
    for (const float value : values) add(value);
  }
  void add(const Eigen::MatrixXf& values) {
    for (Eigen::Index i = 0; i < values.size(); ++i) add(values.data()[i]);
  }
  void add(const Eigen::VectorXf& values) {
    for (Eigen::Index i = 0; i < values.size(); ++i) add(values[i]);
  }

  std::size_t notFinite() const { return notFinite_; }
  std::size_t tooLarge() const { return tooLarge_; }  // rounded up beyond single precision
  std::size_t rounded() const { return rounded_; }

 private:
  void add(float value) {
    if (!std::isfinite(value)) {
      ++notFinite_;
    } else if (precision_ < kExactDigits) {
      const std::string text = generalNumber(static_cast<double>(value), precision_);
      float read = 0;
      const std::from_chars_result result =
          std::from_chars(text.data(), text.data() + text.size(), read);
      const bool isInRange = result.ec == std::errc() || std::abs(value) < 1;
      if (!isInRange) ++tooLarge_;
      if (read != value) ++rounded_;
    }
  }

  int precision_;
  std::size_t notFinite_ = 0;
  std::size_t tooLarge_ = 0;
  std::size_t rounded_ = 0;
};

void countUsed(const NNLayer& layer, NumberCount& count) {
  count.add(layer.weights);
  if (!layer.isBatchNorm) return count.add(layer.bias);
  for (const Eigen::VectorXf* values :
       {&layer.gamma, &layer.beta, &layer.gamma_inf, &layer.beta_inf}) {
    count.add(*values);
  }
}

bool hasValues(const Eigen::VectorXf& values) { return (values.array() != 0).any(); }

// A layer block has no place for what its kind of layer does not use.
void reportUnused(const NNLayer& layer, std::size_t number, Lines& lost) {
  const std::string name = std::to_string(number);
  if (layer.isBatchNorm) {
    if (hasValues(layer.bias)) lost.push_back("the unused bias of batch-norm layer " + name);
  } else if (hasValues(layer.gamma) || hasValues(layer.beta) || hasValues(layer.gamma_inf) ||
             hasValues(layer.beta_inf)) {
    lost.push_back("the batch-norm vectors that plain layer " + name + " was folded from");
  }
}

// Numbers in `where` with which a text could be written, but not read.
void refuseUnreadable(const NumberCount& count, const std::string& where, int precision) {
  if (count.notFinite() > 0) {
    throw Failure("the text format cannot hold values that are not finite: there " +
                  std::string(count.notFinite() == 1 ? "is " : "are ") +
                  std::to_string(count.notFinite()) + " in " + where);
  }
  if (count.tooLarge() > 0) {
    throw Failure("with " + counted(std::size_t(precision), "digit") +
                  " the text could not be read again: " + counted(count.tooLarge(), "value") +
                  " in " + where + " would be rounded beyond single precision");
  }
}

void reportNumbers(const MultiLayerNNModel& model, int precision, Lines& lost) {
  NumberCount curves(precision);
  curves.add(model.loss);
  curves.add(model.accuracy);
  refuseUnreadable(curves, "the training curves", precision);
  std::size_t rounded = curves.rounded();
  for (std::size_t i = 0; i < model.layers.size(); ++i) {
    NumberCount count(precision);
    countUsed(*model.layers[i], count);
    rounded += count.rounded();
    refuseUnreadable(count, "layer " + std::to_string(i + 1), precision);
    reportUnused(*model.layers[i], i + 1, lost);
  }
  if (rounded == 0) return;
  lost.push_back(counted(rounded, "number") + " exactly, with " +
                 counted(std::size_t(precision), "digit"));
}

// A batch-norm block without inputs would write a value in each row that readers do not expect.
void refuseUnreadableShapes(const MultiLayerNNModel& model) {
  for (std::size_t i = 0; i < model.layers.size(); ++i) {
    const NNLayer& layer = *model.layers[i];
    if (!layer.isBatchNorm || layer.weights.cols() > 0 || layer.weights.rows() == 0) continue;
    throw Failure("the text format has no way to write batch-norm layer " + std::to_string(i + 1) +
                  ", which has outputs but no inputs");
  }
}

}  // namespace

std::string describe(ModelFormat format) {
  return format == ModelFormat::kText ? "the text format" : "a binary image";
}

Fit fitToFormat(MultiLayerNNModel& model, ModelFormat format, int precision) {
  Fit fit;
  MultiLayerNNModel wanted = skeletonOf(model);
  if (format == ModelFormat::kText) {
    refuseUnreadableShapes(model);
    putActivationIntoProperty(model, fit.done);
    putDescriptionIntoNotes(model, fit.done);
    putNormalisationIntoNotes(model, fit.done);
    wanted.props = model.props;
  } else {
    completeNormalisation(model, fit.done);
  }
  std::string messages;
  const MultiLayerNNModel present = readBack(skeletonOf(model), format, messages);
  if (!messages.empty()) {
    throw Failure(describe(format) +
                  " has no way to write this model so that it can be read: " + escaped(messages));
  }
  fit.lost = differences(wanted, present);
  if (format == ModelFormat::kText) reportNumbers(model, precision, fit.lost);
  return fit;
}

}  // namespace mlnn
