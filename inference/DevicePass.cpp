#include "inference/DevicePass.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

#include "features/FrameRing.h"
#include "features/FrameWidth.h"
#include "features/MelDeltasNorm.h"
#include "inference/DeviceLayer.h"
#include "inference/kernels/Kernels.h"
#include "layers/Crc32c.h"
#include "layers/NNLayerRecord.h"
#include "layers/Report.h"
#include "model/ImageReader.h"
#include "model/ModelFormat.h"

namespace mlnn {
namespace {

constexpr char kOpen[] = "DevicePass::open";

bool isAlignedTo(const void* address, std::size_t bytes) {
  return reinterpret_cast<std::uintptr_t>(address) % bytes == 0;
}

// Whether all `count` values are `value`.
bool areAll(const float* values, std::size_t count, float value) {
  return std::all_of(values, values + count, [value](float each) { return each == value; });
}

bool refused(const char* whyNot) {
  report({"ERROR: ", kOpen, ": ", whyNot});
  return false;
}

}  // namespace

// Walks through the image once, and keeps what the pass must know of it.
class DevicePass::Reader final : public ImageReader {
 public:
  Reader(DevicePass& pass, const char* image, std::size_t length, ImageChecksum checksum)
      : ImageReader(image, length),
        pass_(pass),
        image_(image),
        length_(length),
        isVerified_(checksum == ImageChecksum::kVerified) {
    checkSum(isVerified_);
  }

  // Returns whether the pass can run the image; else prints why not.
  bool readAll() {
    if (length_ < kMinImageLength) return refused("the image has no head");
    if (length_ > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
      return refused("the image is too large");
    }
    if (!isAlignedTo(image_, alignof(float))) return refused("the image is not aligned");
    if (read() != static_cast<int>(length_)) return false;
    return hasAllLayers() && findFrames();
  }

 private:
  void takeFeatureDescription(const DbnFeatureDescription& featureDesc) override {
    featureDesc_ = featureDesc;
  }
  void takeMinvals(const char* values) override { pass_.minvals_ = floatsAt(values); }
  void takeNormvals(const char* values) override { pass_.normvals_ = floatsAt(values); }
  void prepareLayers(std::size_t count) override { announced_ = count; }

  RecordResult readLayer(std::size_t index, std::size_t position, std::size_t available) override {
    const char* const src = image_ + position;
    uint32_t form = kNumWeightForms;
    if (available >= sizeof form) std::memcpy(&form, src, sizeof form);
    if (hasTable(form)) {
      report({"ERROR: ", kOpen, ": layer ", index + 1, " has weights as codes of a table"});
      return {};
    }
    LayerRecordView record;
    if (!viewLayout(src, available, record)) return {};
    fits_ = fits_ && record.head.cols > 0 && record.head.rows > 0;
    fits_ = fits_ && (index == 0 || record.head.cols == pass_.numOutputs_);
    if (index == 0) pass_.numInputs_ = record.head.cols;
    pass_.numOutputs_ = record.head.rows;
    pass_.widest_ = std::max<int>(pass_.widest_, record.head.rows);
    ++pass_.numLayers_;
    return {static_cast<int>(record.length), checksumOf(src, record.length), 0};
  }

  // A pass that lacks layers is refused, whatever the checksum of them would be.
  uint32_t checksumOfUnread(std::size_t) override { return 0; }

  uint32_t checksumOf(const char* bytes, std::size_t count) const {
    if (!isVerified_) return 0;
    Crc32c crc;
    crc.add(bytes, count);
    return crc.value();
  }

  bool hasAllLayers() const {
    if (pass_.numLayers_ == 0) return refused("model has no layers");
    const bool areThere = static_cast<std::size_t>(pass_.numLayers_) == announced_;
    return (areThere && fits_) || refused("the layers do not fit each other");
  }

  // Finds how wide frames are, and whether they are normalised.
  bool findFrames() {
    const int64_t window = windowLength(featureDesc_);
    const bool isPossible = featureDesc_.winSizeLeft >= 0 && featureDesc_.winSizeRight >= 0;
    if (!isPossible || pass_.numInputs_ % window != 0) {
      return refused("the inputs are no whole frames of the window");
    }
    pass_.frameLen_ = static_cast<int>(pass_.numInputs_ / window);
    pass_.left_ = featureDesc_.winSizeLeft;
    pass_.right_ = featureDesc_.winSizeRight;
    if (areAll(pass_.minvals_, kDeltasNormLength, 0) &&
        areAll(pass_.normvals_, kDeltasNormLength, 1)) {
      pass_.minvals_ = nullptr;
    }
    return pass_.minvals_ == nullptr || pass_.frameLen_ <= kDeltasNormLength ||
           refused("the normalisation has fewer values than a frame");
  }

  DevicePass& pass_;
  const char* image_;
  std::size_t length_;
  bool isVerified_;
  DbnFeatureDescription featureDesc_ = DbnFeatureDescription::FeatType::MelDeltas;
  std::size_t announced_ = 0;  // layers
  bool fits_ = true;           // each layer takes what the one before it gives
};

uint64_t DevicePass::memoryBytes(const void* image, std::size_t length) {
  DevicePass pass(nullptr);
  if (!Reader(pass, static_cast<const char*>(image), length, ImageChecksum::kVerified).readAll()) {
    return 0;
  }
  return deviceMemoryBytes(pass.numInputs_, pass.widest_);
}

int DevicePass::open(const void* image, std::size_t length, void* memory, std::size_t memoryLength,
                     ImageChecksum checksum) {
  DevicePass pass(run_);
  pass.endsInSoftmax_ = endsInSoftmax_;
  pass.wideInputs_ = wideInputs_;
  *this = pass;
  if (!Reader(pass, static_cast<const char*>(image), length, checksum).readAll()) return 1;
  const uint64_t needed = deviceMemoryBytes(pass.numInputs_, pass.widest_);
  if (memoryLength < needed) {
    report({"ERROR: ", kOpen, ": expected ", needed, " bytes of memory but got ", memoryLength});
    return 1;
  }
  if (!isAlignedTo(memory, kDeviceAlignment)) {
    refused("the memory is not aligned");
    return 1;
  }
  pass.image_ = static_cast<const char*>(image);
  pass.end_ = pass.image_ + length;
  pass.place(memory);
  *this = pass;
  return 0;
}

// Gives each array its part of the memory.
void DevicePass::place(void* memory) {
  auto* next = static_cast<char*>(memory);
  const auto take = [&next](int floats) {
    auto* const values = reinterpret_cast<float*>(next);
    next += deviceArrayBytes(static_cast<uint64_t>(floats));
    return values;
  };
  ring_ = take(numInputs_);
  input_ = take(numInputs_);
  between_[0] = take(widest_);
  between_[1] = take(widest_);
  scratch_ = take(widest_);
}

const float* DevicePass::push(const float* frame) {
  float* const slot = FrameRing{ring_, left_, right_, frameLen_}.slot(received_);
  normaliseFrame(frame, static_cast<std::size_t>(frameLen_), minvals_, normvals_, slot);
  ++received_;
  return received_ - emitted_ <= right_ ? nullptr : emit();
}

const float* DevicePass::finish() {
  if (emitted_ < received_) return emit();
  reset();
  return nullptr;
}

const float* DevicePass::emit() {
  FrameRing{ring_, left_, right_, frameLen_}.copyWindow(emitted_, received_ - 1, input_);
  ++emitted_;
  return evaluate(input_);
}

const float* DevicePass::evaluate(const float* inputs) { return (this->*run_)(inputs); }

const float* DevicePass::runFloats(const float* inputs) {
  const Kernels& kernels = bestKernels();
  float* next = between_[0];
  float* spare = between_[1];
  const char* record = image_ + kHeadLength;
  for (int i = 0; i < numLayers_; ++i) {
    LayerRecordView view{};
    viewLayout(record, static_cast<std::size_t>(end_ - record), view);  // as open saw it
    const LayerView layer = deviceLayer(view);
    if (layer.rowCodes != nullptr) {
      kernels.rowCodesVector(layer, inputs, next);
    } else {
      kernels.matrixVector(layer, inputs, next, scratch_);
    }
    inputs = next;
    std::swap(next, spare);
    record += view.length;
  }
  if (endsInSoftmax_) kernels.softmax(spare, static_cast<std::size_t>(numOutputs_));
  return spare;
}

}  // namespace mlnn
