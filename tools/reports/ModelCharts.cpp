#include "tools/reports/ModelCharts.h"

#include <cmath>
#include <limits>

#include "analysis/Histogram.h"
#include "text/Numbers.h"

namespace mlnn {
namespace {

constexpr int kDigits = 4;

std::string leftOut(std::size_t notFinite) {
  return notFinite == 0 ? "" : ", " + counted(notFinite, "value") + " not finite, not drawn";
}

void addCurve(std::vector<Chart>& charts, const std::string& name,
              const std::vector<float>& values) {
  if (values.empty()) return;
  Chart chart;
  chart.title = name;
  chart.xLabel = "epoch";
  chart.yLabel = name;
  chart.xLow = 1;
  chart.xHigh = static_cast<double>(values.size());
  std::size_t notFinite = 0;
  for (const float value : values) {
    const bool isFinite = std::isfinite(value);
    if (!isFinite) ++notFinite;
    chart.values.push_back(isFinite ? double{value} : std::numeric_limits<double>::quiet_NaN());
  }
  chart.remark = counted(values.size(), "value") + ", first " +
                 generalNumber(double{values.front()}, kDigits) + ", last " +
                 generalNumber(double{values.back()}, kDigits) + leftOut(notFinite);
  charts.push_back(std::move(chart));
}

}  // namespace

Chart weightsChart(const NNLayer& layer, std::size_t number, std::size_t bins) {
  const auto count = static_cast<std::size_t>(layer.weights.size());
  const Histogram histogram = histogramOf(layer.weights.data(), count, bins);
  Chart chart;
  chart.kind = Chart::Kind::kHistogram;
  chart.title = "weights of layer " + std::to_string(number);
  chart.xLabel = "weight";
  chart.yLabel = "count";
  chart.xLow = histogram.low;
  chart.xHigh = histogram.high;
  chart.values.assign(histogram.counts.begin(), histogram.counts.end());
  chart.remark = counted(count, "weight") + " of " + (layer.isBatchNorm ? "batch-norm" : "plain") +
                 " layer, " + std::to_string(layer.weights.cols()) + " to " +
                 std::to_string(layer.weights.rows()) + leftOut(histogram.notFinite);
  return chart;
}

std::vector<Chart> curvesOf(const MultiLayerNNModel& model) {
  std::vector<Chart> charts;
  addCurve(charts, "loss", model.loss);
  addCurve(charts, "accuracy", model.accuracy);
  return charts;
}

std::vector<Chart> chartsOf(const MultiLayerNNModel& model, std::size_t bins) {
  std::vector<Chart> charts = curvesOf(model);
  for (std::size_t i = 0; i < model.layers.size(); ++i) {
    const NNLayer& layer = *model.layers[i];
    if (layer.weights.size() > 0) charts.push_back(weightsChart(layer, i + 1, bins));
  }
  return charts;
}

}  // namespace mlnn
