#include "model/TextNumbers.h"

#include <cmath>
#include <cstddef>

#include "layers/LayerArrays.h"
#include "text/DecimalConversion.h"
#include "text/Numbers.h"

namespace mlnn {
namespace {

using Lines = std::vector<std::string>;

// Counts the numbers that a text of some precision does not give back, or not even lets be read.
class NumberCount {
 public:
  NumberCount(int precision, const Watch& watch) : precision_(precision), watch_(watch) {}

  template <typename Values>
  void add(const Values& values) {
    constexpr std::size_t kValuesBetweenCalls = std::size_t{1} << 16;
    const auto count = static_cast<std::size_t>(values.size());
    for (std::size_t i = 0; i < count; ++i) {
      if ((i + 1) % kValuesBetweenCalls == 0) tell(watch_, kValuesBetweenCalls);
      add(values.data()[i]);
    }
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
      const bool isRead = readDecimal(text.data(), text.data() + text.size(), read);
      const bool isInRange = isRead || std::abs(value) < 1;
      if (!isInRange) ++tooLarge_;
      if (read != value) ++rounded_;
    }
  }

  int precision_;
  const Watch& watch_;
  std::size_t notFinite_ = 0;
  std::size_t tooLarge_ = 0;
  std::size_t rounded_ = 0;
};

bool hasValues(const Eigen::VectorXf& values) { return (values.array() != 0).any(); }

// A layer block has no place for what its kind of layer does not use.
void reportUnused(const NNLayer& layer, std::size_t number, Lines& lost) {
  bool isLost = false;
  for (const LayerVector& vector : kLayerVectors) {
    isLost = isLost || (!vector.isUsedBy(layer) && hasValues(vector.of(layer)));
  }
  if (!isLost) return;
  const std::string name = std::to_string(number);
  lost.push_back(layer.isBatchNorm
                     ? "the unused bias of batch-norm layer " + name
                     : "the batch-norm vectors that plain layer " + name + " was folded from");
}

// Why numbers in `where` let a text be written, but not read; "" where they do not.
std::string whyUnreadable(const NumberCount& count, const std::string& where, int precision) {
  if (count.notFinite() > 0) {
    return "the text format cannot hold values that are not finite: there " +
           std::string(count.notFinite() == 1 ? "is " : "are ") +
           std::to_string(count.notFinite()) + " in " + where;
  }
  if (count.tooLarge() > 0) {
    return "with " + counted(std::size_t(precision), "digit") +
           " the text could not be read again: " + counted(count.tooLarge(), "value") + " in " +
           where + " would be rounded beyond single precision";
  }
  return "";
}

}  // namespace

std::string findLostNumbers(const MultiLayerNNModel& model, int precision, const Watch& watch,
                            Lines& lost) {
  NumberCount curves(precision, watch);
  curves.add(model.loss);
  curves.add(model.accuracy);
  std::string why = whyUnreadable(curves, "the training curves", precision);
  std::size_t rounded = curves.rounded();
  for (std::size_t i = 0; i < model.layers.size() && why.empty(); ++i) {
    NumberCount count(precision, watch);
    forEachUsedArray(*model.layers[i],
                     [&count](const char*, const auto& values) { count.add(values); });
    rounded += count.rounded();
    why = whyUnreadable(count, "layer " + std::to_string(i + 1), precision);
    reportUnused(*model.layers[i], i + 1, lost);
  }
  if (!why.empty() || rounded == 0) return why;
  lost.push_back(counted(rounded, "number") + " exactly, with " +
                 counted(std::size_t(precision), "digit"));
  return "";
}

}  // namespace mlnn
