// CellPicture — a map of cells (analysis/CellMap.h) as a picture with names and a scale.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "analysis/CellMap.h"
#include "tools/page/Markup.h"

namespace mlnn {

// How numbers become colours. A value of 0 shows what is behind the picture, so one picture serves
// light and dark pages. What is not a number has a colour of its own.
enum class Shades {
  kSigned,   // from minus the limit, blue, over 0 to the limit, orange
  kPositive  // from 0 to the limit, blue
};

struct CellPicture {
  std::string description;  // for those who do not see it
  std::string xLabel;       // what columns are
  std::string yLabel;       // what rows are
  Eigen::Index rows = 0;    // of what the cells stand for
  Eigen::Index columns = 0;
  Eigen::Index first = 1;  // number of the first row and of the first column
  double xScale = 1;       // pixels a cell
  double yScale = 1;
  Shades shades = Shades::kSigned;
  double limit = 1;                   // values beyond have the colour of the end
  std::vector<std::string> rowNames;  // one for each row of cells, or none
  Eigen::Index markedRow = -1;        // whose name is to stand out
};

// Writes it as an `svg` element with the picture in it.
// REQUIRES: there are cells, and the limit is positive.
void writeCells(Markup& page, const CellMap& cells, const CellPicture& picture);

// Writes the colours with the values at the ends, as an `svg` element.
void writeShades(Markup& page, Shades shades, double limit);

}  // namespace mlnn
