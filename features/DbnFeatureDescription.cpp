#include "features/DbnFeatureDescription.h"

#include <charconv>
#include <cstring>
#include <limits>
#include <string_view>

namespace {

// The text form's keys, each with the separator before it, shared by both directions.
constexpr std::string_view kMelDeltas = "mel_deltas";
constexpr std::string_view kBands = ":bands=";
constexpr std::string_view kLeft = ",left=";
constexpr std::string_view kRight = ",right=";
constexpr std::string_view kDeltas = ",deltas=";
constexpr std::string_view kLineKernels = ",line_kernels=";
constexpr std::string_view kLineKernelWidth = ",line_kernel_width=";

constexpr int64_t kMaxInt = std::numeric_limits<int>::max();

// a * b where that is a positive int, else 0.
int positiveProduct(int64_t a, int64_t b) {
  if (a < -kMaxInt || a > kMaxInt || b < -kMaxInt || b > kMaxInt) return 0;
  const int64_t product = a * b;
  return product > 0 && product <= kMaxInt ? static_cast<int>(product) : 0;
}

int64_t frameWidth(const DbnFeatureDescription& desc) {
  return int64_t{desc.numBands} * (desc.useDeltas ? 3 : 1);
}

// Reads the text form from left to right; every step says whether it found its part.
class TextCursor {
 public:
  explicit TextCursor(const std::string& text)
      : position_(text.data()), end_(text.data() + text.size()) {}

  bool word(std::string_view expected) {
    const std::string_view rest(position_, static_cast<std::size_t>(end_ - position_));
    if (rest.substr(0, expected.size()) != expected) return false;
    position_ += expected.size();
    return true;
  }

  bool number(int32_t& value) {
    const std::from_chars_result result = std::from_chars(position_, end_, value);
    position_ = result.ptr;
    return result.ec == std::errc();
  }

  bool flag(bool& value) {
    if (position_ == end_ || (*position_ != '0' && *position_ != '1')) return false;
    value = *position_++ == '1';
    return true;
  }

  bool atEnd() const { return position_ == end_; }

 private:
  const char* position_;
  const char* end_;
};

}  // namespace

DbnFeatureDescription::DbnFeatureDescription(FeatType type)
    : winSizeLeft(0),
      winSizeRight(0),
      lineKernelWidth(0),
      featType(type),
      reserved(0),
      useDeltas(false),
      useLineKernels(false),
      numBands(0) {}

int DbnFeatureDescription::frameLen() const { return positiveProduct(frameWidth(*this), 1); }

int DbnFeatureDescription::featLen() const {
  return positiveProduct(frameWidth(*this), int64_t{winSizeLeft} + 1 + winSizeRight);
}

void DbnFeatureDescription::serialize(std::string& out) const {
  std::string text;
  if (featType == MelDeltas) {
    text += kMelDeltas;
  } else {
    text += "type_" + std::to_string(int{featType});
  }
  text.append(kBands).append(std::to_string(numBands));
  text.append(kLeft).append(std::to_string(winSizeLeft));
  text.append(kRight).append(std::to_string(winSizeRight));
  text.append(kDeltas).append(useDeltas ? "1" : "0");
  text.append(kLineKernels).append(useLineKernels ? "1" : "0");
  text.append(kLineKernelWidth).append(std::to_string(lineKernelWidth));
  out.swap(text);
}

int DbnFeatureDescription::deserialize(const std::string& text) {
  DbnFeatureDescription parsed(MelDeltas);
  TextCursor cursor(text);
  const bool matches = cursor.word(kMelDeltas) &&                                          //
                       cursor.word(kBands) && cursor.number(parsed.numBands) &&            //
                       cursor.word(kLeft) && cursor.number(parsed.winSizeLeft) &&          //
                       cursor.word(kRight) && cursor.number(parsed.winSizeRight) &&        //
                       cursor.word(kDeltas) && cursor.flag(parsed.useDeltas) &&            //
                       cursor.word(kLineKernels) && cursor.flag(parsed.useLineKernels) &&  //
                       cursor.word(kLineKernelWidth) && cursor.number(parsed.lineKernelWidth) &&
                       cursor.atEnd();
  if (!matches) return 1;
  *this = parsed;
  return 0;
}

DbnFeatureDescription mlnn::featureDescriptionFromBytes(const char* bytes) {
  // A bool must never take another byte than 0 or 1, so the flags are set first.
  char canonical[sizeof(DbnFeatureDescription)];
  std::memcpy(canonical, bytes, sizeof canonical);
  for (const std::size_t flag : {offsetof(DbnFeatureDescription, useDeltas),
                                 offsetof(DbnFeatureDescription, useLineKernels)}) {
    canonical[flag] = canonical[flag] != 0 ? 1 : 0;
  }
  DbnFeatureDescription desc(DbnFeatureDescription::MelDeltas);
  std::memcpy(&desc, canonical, sizeof desc);
  return desc;
}
