#include "model/FormatFit.h"

#include <locale>
#include <ostream>

#include "layers/NNLayer.h"
#include "model/FormatLoss.h"
#include "model/FormatPreparation.h"
#include "model/ModelImage.h"
#include "model/ModelSkeleton.h"
#include "model/TextNumbers.h"
#include "text/Escape.h"

namespace mlnn {
namespace {

// A batch-norm block without inputs would write a value in each row that readers do not expect.
std::string whyUnreadableShape(const MultiLayerNNModel& model) {
  for (std::size_t i = 0; i < model.layers.size(); ++i) {
    const NNLayer& layer = *model.layers[i];
    if (!layer.isBatchNorm || layer.weights.cols() > 0 || layer.weights.rows() == 0) continue;
    return "the text format has no way to write batch-norm layer " + std::to_string(i + 1) +
           ", which has outputs but no inputs";
  }
  return "";
}

}  // namespace

std::string describe(ModelFormat format) {
  return format == ModelFormat::kText ? "the text format" : "a binary image";
}

std::optional<Fit> fitToFormat(MultiLayerNNModel& model, ModelFormat format, int precision,
                               std::string& whyNot, const Watch& watch) {
  Fit fit;
  MultiLayerNNModel wanted = skeletonOf(model);
  const bool isText = format == ModelFormat::kText;
  if (isText) {
    whyNot = whyUnreadableShape(model);
    if (!whyNot.empty()) return std::nullopt;
    prepareForText(model, fit.done);
    wanted.props = model.props;
  } else {
    prepareForImage(model, fit.done);
  }
  std::string messages;
  const MultiLayerNNModel present = readBack(skeletonOf(model), format, messages);
  if (!messages.empty()) {
    whyNot = describe(format) +
             " has no way to write this model so that it can be read: " + escaped(messages);
    return std::nullopt;
  }
  fit.lost = lossesBetween(wanted, present);
  if (isText) {
    whyNot = findLostNumbers(model, precision, watch, fit.lost);
    if (!whyNot.empty()) return std::nullopt;
  }
  return fit;
}

void writeText(const MultiLayerNNModel& model, int precision, std::ostream& out) {
  out.imbue(std::locale::classic());
  out.precision(precision);
  model.serializeAscii(out);
}

std::optional<std::vector<char>> imageOf(const MultiLayerNNModel& model, std::string& whyNot) {
  return imageOf(model, whyNot, Watch());
}

std::optional<std::vector<char>> imageOf(const MultiLayerNNModel& model, std::string& whyNot,
                                         const Watch& watch) {
  std::optional<std::vector<char>> image = imageOf(model, watch);
  if (!image) whyNot = "the model cannot be written as a binary image";
  return image;
}

}  // namespace mlnn
