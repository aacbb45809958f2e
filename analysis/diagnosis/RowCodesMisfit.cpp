#include "analysis/diagnosis/RowCodesMisfit.h"

#include <cmath>
#include <cstdlib>
#include <limits>
#include <numeric>
#include <optional>

#include "text/Numbers.h"

namespace mlnn {
namespace {

using Found = std::optional<RowCodesMisfit>;

std::string text(float number) { return generalNumber(static_cast<double>(number), kExactDigits); }

// The byte that holds a code, or half of which does.
const unsigned char* placeOf(const RowCodesView& view, std::size_t row, std::size_t col) {
  const auto groups = static_cast<std::size_t>(rowCodeGroups(view.cols));
  const std::size_t block = row / kRowCodePanel * groups + col / kRowCodeGroup;
  const std::size_t length = rowCodeBlockBytes(view.bits);
  const std::size_t place = row % kRowCodePanel * kRowCodeGroup + col % kRowCodeGroup;
  return view.codes + block * length + place % length;
}

class Search {
 public:
  explicit Search(const RowCodesView& view) : view_(view), largest_(largestRowCode(view.bits)) {}

  RowCodesMisfit run() {
    if (const Found found = inScales()) return *found;
    if (const Found found = inCodes()) return *found;
    for (std::size_t row = 0; row < view_.rows; ++row) {
      if (const Found found = inRow(row)) return *found;
    }
    return inForm();
  }

 private:
  const char* scaleAt(std::size_t row) const { return view_.scales + row * sizeof(float); }

  RowCodesMisfit refuseScale(std::size_t row, const std::string& expected,
                             const std::string& found) const {
    return {scaleAt(row), "scale of row " + std::to_string(row + 1), expected, found};
  }

  Found inScales() const {
    for (std::size_t row = 0; row < view_.rows; ++row) {
      const float scale = view_.scale(row);
      if (std::isfinite(scale) && !std::signbit(scale)) continue;
      return refuseScale(row, "a number greater than 0, or 0 for a row of zeros", text(scale));
    }
    return std::nullopt;
  }

  // Those that only fill blocks up, too.
  Found inCodes() const {
    const auto rows = static_cast<std::size_t>(rowCodePanels(view_.rows)) * kRowCodePanel;
    const auto cols = static_cast<std::size_t>(rowCodeGroups(view_.cols)) * kRowCodeGroup;
    for (std::size_t row = 0; row < rows; ++row) {
      for (std::size_t col = 0; col < cols; ++col) {
        if (const Found found = atCode(row, col)) return found;
      }
    }
    return std::nullopt;
  }

  Found atCode(std::size_t row, std::size_t col) const {
    const int code = view_.code(row, col);
    const bool isFilling = row >= view_.rows || col >= view_.cols;
    if (isFilling ? code == 0 : std::abs(code) <= largest_) return std::nullopt;
    const std::string place =
        "row " + std::to_string(row + 1) + ", column " + std::to_string(col + 1);
    const std::string most = std::to_string(largest_);
    return RowCodesMisfit{
        placeOf(view_, row, col), "code of " + place,
        isFilling ? "0, behind the last row or column" : "-" + most + " to " + most,
        std::to_string(code)};
  }

  // How a scale and its codes go together. REQUIRES: each is one for itself.
  Found inRow(std::size_t row) const {
    const float scale = view_.scale(row);
    const int divisor = commonDivisor(row);
    if (divisor == 0 && scale == 0) return std::nullopt;
    if (divisor == 0) return refuseScale(row, "0, since all codes of the row are 0", text(scale));
    if (scale == 0) {
      return refuseScale(row, "a number greater than 0, since not all codes of the row are 0", "0");
    }
    if (divisor > 1) {
      return refuseScale(
          row, "the largest one that the row can have",
          text(scale) + ", where all codes are multiples of " + std::to_string(divisor));
    }
    if (isExact(row)) return std::nullopt;
    return refuseScale(row, "one that gives a float with each code of the row", text(scale));
  }

  int commonDivisor(std::size_t row) const {
    int divisor = 0;
    for (std::size_t col = 0; col < view_.cols; ++col) {
      divisor = std::gcd(divisor, view_.code(row, col));
    }
    return divisor;
  }

  bool isExact(std::size_t row) const {
    for (std::size_t col = 0; col < view_.cols; ++col) {
      const double product = view_.code(row, col) * double{view_.scale(row)};
      if (std::fabs(product) > double{std::numeric_limits<float>::max()}) return false;
      if (double{static_cast<float>(product)} != product) return false;
    }
    return true;
  }

  RowCodesMisfit inForm() const {
    return {nullptr, "form of the weights", "the one that takes the fewest bytes for these weights",
            "a longer one"};
  }

  const RowCodesView& view_;
  int largest_;
};

}  // namespace

RowCodesMisfit misfitOfRowCodes(const RowCodesView& view) { return Search(view).run(); }

}  // namespace mlnn
