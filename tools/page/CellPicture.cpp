#include "tools/page/CellPicture.h"

#include <algorithm>
#include <cmath>

#include "text/Numbers.h"
#include "tools/page/Png.h"

namespace mlnn {
namespace {

using Eigen::Index;

constexpr int kSteps = 254;                  // colours are 0 to kSteps
constexpr int kNotANumber = kSteps + 1;      // a colour of its own
constexpr Colour kBlue = {32, 110, 214, 0};  // of so many alphas
constexpr Colour kOrange = {224, 98, 12, 0};
constexpr Colour kMagenta = {214, 0, 180, 255};

constexpr double kTop = 6;
constexpr double kBottom = 34;
constexpr double kRight = 12;
constexpr double kPerLetter = 7.2;  // pixels, about
constexpr std::size_t kLongestName = 24;

std::uint8_t alphaOf(double share) {
  return static_cast<std::uint8_t>(std::lround(255 * std::min(share, 1.0)));
}

Colour colourOf(Shades shades, int step) {
  const double share = static_cast<double>(step) / kSteps;
  const double sign = shades == Shades::kPositive ? -share : 2 * share - 1;
  Colour colour = sign < 0 ? kBlue : kOrange;
  colour.alpha = alphaOf(std::fabs(sign));
  return colour;
}

std::vector<Colour> coloursOf(Shades shades) {
  std::vector<Colour> colours;
  for (int step = 0; step <= kSteps; ++step) colours.push_back(colourOf(shades, step));
  colours.push_back(kMagenta);
  return colours;
}

std::uint8_t stepOf(float value, Shades shades, double limit) {
  if (std::isnan(value)) return kNotANumber;
  const double low = shades == Shades::kPositive ? 0 : -1;
  const double share = std::clamp(static_cast<double>(value) / limit, low, 1.0);
  return static_cast<std::uint8_t>(std::lround(kSteps * (share - low) / (1 - low)));
}

std::string imageOf(const CellMap& cells, Shades shades, double limit) {
  IndexedImage image;
  image.width = static_cast<std::size_t>(cells.values.cols());
  image.height = static_cast<std::size_t>(cells.values.rows());
  for (Index r = 0; r < cells.values.rows(); ++r) {
    for (Index c = 0; c < cells.values.cols(); ++c) {
      image.pixels.push_back(stepOf(cells.values(r, c), shades, limit));
    }
  }
  return dataUriOf(pngOf(image, coloursOf(shades)));
}

std::string length(double value) { return fixedNumber(value, 1); }

// Names may be of any length.
std::string nameText(const std::string& name) {
  if (name.size() <= kLongestName) return name;
  std::size_t end = kLongestName - 1;
  while (end > 0 && (name[end] & 0xC0) == 0x80) --end;  // not inside a UTF-8 character
  return name.substr(0, end) + "~";
}

class Picture {
 public:
  Picture(Markup& page, const CellMap& cells, const CellPicture& picture)
      : page_(page),
        cells_(cells),
        picture_(picture),
        width_(static_cast<double>(cells.values.cols()) * picture.xScale),
        height_(static_cast<double>(cells.values.rows()) * picture.yScale) {
    std::size_t longest = std::to_string(picture.rows).size();
    for (const std::string& name : picture.rowNames) {
      longest = std::max(longest, nameText(name).size());
    }
    left_ = 30 + kPerLetter * static_cast<double>(longest);
  }

  void write() {
    const double width = std::max(left_ + width_ + kRight, left_ + 150);
    const double height = kTop + height_ + kBottom;
    const auto svg = page_.open("svg", {{"xmlns", "http://www.w3.org/2000/svg"},
                                        {"class", "cells"},
                                        {"width", length(width)},
                                        {"height", length(height)},
                                        {"viewBox", "0 0 " + length(width) + " " + length(height)},
                                        {"role", "img"},
                                        {"aria-label", picture_.description}});
    page_.empty("image", {{"x", length(left_)},
                          {"y", length(kTop)},
                          {"width", length(width_)},
                          {"height", length(height_)},
                          {"preserveAspectRatio", "none"},
                          {"href", imageOf(cells_, picture_.shades, picture_.limit)}});
    page_.empty("rect", {{"class", "frame"},
                         {"x", length(left_)},
                         {"y", length(kTop)},
                         {"width", length(width_)},
                         {"height", length(height_)}});
    writeRows();
    writeColumns();
  }

 private:
  void text(double x, double y, const char* anchor, const char* style, const std::string& text) {
    page_.element("text",
                  {{"x", length(x)}, {"y", length(y)}, {"text-anchor", anchor}, {"class", style}},
                  text);
  }

  std::string number(Index index) const { return std::to_string(picture_.first + index); }

  void writeRows() {
    for (std::size_t i = 0; i < picture_.rowNames.size(); ++i) {
      const bool isMarked = static_cast<Index>(i) == picture_.markedRow;
      const double middle = kTop + (static_cast<double>(i) + 0.5) * picture_.yScale;
      text(left_ - 6, middle + 4, "end", isMarked ? "marked" : "name",
           nameText(picture_.rowNames[i]));
    }
    if (picture_.rowNames.empty()) {
      text(left_ - 6, kTop + 10, "end", "name", number(0));
      if (height_ >= 26) {
        text(left_ - 6, kTop + height_, "end", "name", number(picture_.rows - 1));
      }
    }
    const double middle = kTop + height_ / 2;
    page_.element("text",
                  {{"transform", "translate(14 " + length(middle) + ") rotate(-90)"},
                   {"text-anchor", "middle"},
                   {"class", "label"}},
                  height_ >= 50 ? picture_.yLabel : "");
  }

  void writeColumns() {
    const double y = kTop + height_ + 14;
    text(left_, y, "start", "name", number(0));
    if (width_ >= 60) text(left_ + width_, y, "end", "name", number(picture_.columns - 1));
    text(left_, y + 14, "start", "label", picture_.xLabel);
  }

  Markup& page_;
  const CellMap& cells_;
  const CellPicture& picture_;
  double width_;
  double height_;
  double left_;
};

}  // namespace

void writeCells(Markup& page, const CellMap& cells, const CellPicture& picture) {
  Picture(page, cells, picture).write();
}

void writeShades(Markup& page, Shades shades, double limit) {
  CellMap ramp;
  ramp.values.resize(1, kSteps / 2 + 1);
  const bool isPositive = shades == Shades::kPositive;
  for (Index i = 0; i < ramp.values.cols(); ++i) {
    const auto share = static_cast<float>(i) / static_cast<float>(ramp.values.cols() - 1);
    ramp.values(0, i) = isPositive ? share : 2 * share - 1;
  }
  const std::string high = generalNumber(limit, 3);
  const std::string low = isPositive ? "0" : "-" + high;
  const auto svg = page.open("svg", {{"xmlns", "http://www.w3.org/2000/svg"},
                                     {"class", "cells"},
                                     {"width", "220"},
                                     {"height", "30"},
                                     {"viewBox", "0 0 220 30"},
                                     {"role", "img"},
                                     {"aria-label", "colours from " + low + " to " + high}});
  page.empty("image", {{"x", "10"},
                       {"y", "1"},
                       {"width", "200"},
                       {"height", "11"},
                       {"preserveAspectRatio", "none"},
                       {"href", imageOf(ramp, shades, 1)}});
  page.empty("rect",
             {{"class", "frame"}, {"x", "10"}, {"y", "1"}, {"width", "200"}, {"height", "11"}});
  const auto text = [&page](const char* x, const char* anchor, const std::string& said) {
    page.element("text", {{"x", x}, {"y", "26"}, {"text-anchor", anchor}, {"class", "name"}}, said);
  };
  text("10", "start", low);
  if (!isPositive) text("110", "middle", "0");
  text("210", "end", high);
}

}  // namespace mlnn
