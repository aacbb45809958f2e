// What there is to draw of a model: its training curves and a histogram of each layer's weights.
#pragma once

#include <string>
#include <vector>

#include "model/MultiLayerNNModel.h"

namespace mlnn {

// A row of numbers over an axis, drawn as columns or as a line; or rows of them, drawn as a map.
struct Chart {
  enum class Kind { kCurve, kHistogram, kMap };

  Kind kind = Kind::kCurve;
  std::string title;
  std::string remark;  // figures that the picture does not show, such as values left out
  std::string xLabel;
  std::string yLabel;
  double xLow = 0;  // position of the first value (curve), left edge of the first bin
  double xHigh = 0;
  // One for each point or bin, of a magnitude that floats have; NaN where there is nothing to draw.
  std::vector<double> values;

  // Of a map, whose values are not negative and stand row by row from the top.
  std::vector<std::string> rowNames;
  std::vector<std::string> columnNames;  // of a table of counts, which are shown as numbers too
  std::size_t columns = 0;
  // For each column the row that is right there, and another number where none is; empty where
  // there is no right and wrong.
  std::vector<std::size_t> rightRows;
};

// The charts of a model, `bins` bins in each histogram: loss and accuracy where it has them,
// then one for each layer that has weights. Values that are not finite are counted in the remark.
std::vector<Chart> chartsOf(const MultiLayerNNModel& model, std::size_t bins);

// The same, taken apart: the curves alone, and the weights of one layer that has some, which is
// counted from 1.
std::vector<Chart> curvesOf(const MultiLayerNNModel& model);
Chart weightsChart(const NNLayer& layer, std::size_t number, std::size_t bins);

}  // namespace mlnn
