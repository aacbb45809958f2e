#include "inference/ImageFwdPass.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <utility>

#include "inference/ImageLayers.h"
#include "inference/ModelLayers.h"
#include "inference/kernels/KernelChoice.h"
#include "layers/BuiltForSize.h"
#include "layers/Crc32c.h"
#include "layers/NNLayerRecord.h"
#include "layers/Report.h"
#include "model/ImageHeadReader.h"
#include "model/ModelFormat.h"

namespace mlnn {
namespace {

using Eigen::Index;

constexpr char kEvaluate[] = "ImageFwdPass::evaluate";

}  // namespace

const float* FloatsInPlace::at(const char* values, std::size_t count) {
  if (isAligned(values)) return reinterpret_cast<const float*>(values);
  copies_.emplace_back(new float[count]);
  std::memcpy(copies_.back().get(), values, count * sizeof(float));
  return copies_.back().get();
}

float* FloatsInPlace::make(std::size_t count) {
  constexpr std::size_t kFloatsInCacheLine = 16;
  copies_.emplace_back(new float[count + kFloatsInCacheLine]);
  float* const first = copies_.back().get();
  const auto place = reinterpret_cast<std::uintptr_t>(first) / sizeof(float) % kFloatsInCacheLine;
  return first + (kFloatsInCacheLine - place) % kFloatsInCacheLine;
}

void ImageFwdPass::Layers::prepare() {
  views_.reserve(records_.size());
  for (const LayerRecordView& record : records_) {
    const LayerRecordHead& head = record.head;
    const bool isBatchNorm = head.isBatchNorm == 1;
    LayerView view;
    view.rows = static_cast<std::size_t>(head.rows);
    view.cols = static_cast<std::size_t>(head.cols);
    view.actFn = static_cast<ActFn::ActFn>(head.actFn);
    const bool inPlace = record.plainWeights != nullptr && isAligned(record.plainWeights);
    view.weights = inPlace ? reinterpret_cast<const float*>(record.plainWeights) : nullptr;
    view.scale = isBatchNorm ? vectors_.at(record.gammaInf, view.rows) : nullptr;
    view.shift = vectors_.at(isBatchNorm ? record.betaInf : record.bias, view.rows);
    if (hasRowScales(head.form)) view.rowCodes = &record.rowCodes;
    if (hasTable(head.form)) view.tableCodes = &record.codedWeights.codes();
    views_.push_back(view);
  }
}

std::size_t ImageFwdPass::Layers::makeFloats(std::size_t mostBytes) {
  for (std::size_t i = 0; i < records_.size(); ++i) {
    LayerView& view = views_[i];
    const bool pays =
        floatsPay(view.tableCodes != nullptr, view.rowCodes != nullptr, view, kernelShape());
    const std::size_t bytes = bytesOfFloats(view);
    if (!pays || madeBytes_ > mostBytes || bytes > mostBytes - madeBytes_) continue;
    float* const floats = vectors_.make(view.rows * view.cols);
    unpackWeights(records_[i], 0, view.rows, floats);
    view.weights = floats;
    view.rowCodes = nullptr;
    view.tableCodes = nullptr;
    madeBytes_ += bytes;
  }
  return madeBytes_;
}

bool ImageFwdPass::Layers::fit(const char* operation) const {
  for (std::size_t i = 1; i < records_.size(); ++i) {
    if (records_[i].head.cols == records_[i - 1].head.rows) continue;
    report({"ERROR: ", operation, ": layer ", i + 1, " does not fit the model"});
    return false;
  }
  return true;
}

void ImageFwdPass::Layers::unpack(std::size_t index, std::size_t first, std::size_t rows,
                                  float* weights) const {
  if constexpr (kBuiltForSize) return unpackFloats(records_[index], first, rows, weights);
  unpackWeights(records_[index], first, rows, weights);
}

namespace {

// Reads the records where they lie.
template <typename Layers>
class InPlaceReader final : public ImageHeadReader {
 public:
  InPlaceReader(const char* image, std::size_t length, DbnFeatureDescription& featureDesc,
                MelDeltasNorm& deltasNorm, Layers& layers, ImageChecksum checksum)
      : ImageHeadReader(image, length, featureDesc, deltasNorm),
        image_(image),
        layers_(layers),
        isVerified_(checksum == ImageChecksum::kVerified) {
    checkSum(isVerified_);
  }

 private:
  void prepareLayers(std::size_t count) override { layers_.resize(count); }

  RecordResult readLayer(std::size_t index, std::size_t position, std::size_t available) override {
    LayerRecordView& record = layers_.record(index);
    if (!viewRecord(image_ + position, available, record)) return {};
    RecordResult result;
    result.length = static_cast<int>(record.length);
    if (!isVerified_) return result;
    Crc32c crc;
    crc.add(image_ + position, record.length);
    result.checksum = crc.value();
    return result;
  }

  uint32_t checksumOfUnread(std::size_t) override { return emptyRecordChecksum(); }

  const char* image_;
  Layers& layers_;
  bool isVerified_;
};

}  // namespace

ImageFwdPass::ImageFwdPass() : featureDesc_(DbnFeatureDescription::FeatType::MelDeltas) {}
ImageFwdPass::~ImageFwdPass() = default;
ImageFwdPass::ImageFwdPass(ImageFwdPass&& other) noexcept = default;
ImageFwdPass& ImageFwdPass::operator=(ImageFwdPass&& other) noexcept = default;

void ImageFwdPass::close() {
  layers_.reset();
  file_.reset();
  featureDesc_ = DbnFeatureDescription(DbnFeatureDescription::FeatType::MelDeltas);
  deltasNorm_ = MelDeltasNorm();
}

int ImageFwdPass::open(const void* image, std::size_t length, ImageChecksum checksum) {
  close();
  if (length < kMinImageLength) {
    report({"ERROR: ImageFwdPass: ", shorterThanHead(length)});
    return 1;
  }
  if (length > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
    report({"ERROR: MultiLayerNNModel: model is too large for a binary image"});
    return 1;
  }
  DbnFeatureDescription featureDesc = featureDesc_;
  MelDeltasNorm deltasNorm;
  auto layers = std::make_unique<Layers>();
  InPlaceReader<Layers> reader(static_cast<const char*>(image), length, featureDesc, deltasNorm,
                               *layers, checksum);
  if (reader.read() != static_cast<int>(length)) return 1;
  layers->prepare();
  layers->setSoftmax(endsInSoftmax_);
  featureDesc_ = featureDesc;
  deltasNorm_ = std::move(deltasNorm);
  layers_ = std::move(layers);
  return 0;
}

std::size_t ImageFwdPass::prepare(std::size_t mostBytes) {
  return layers_ ? layers_->makeFloats(mostBytes) : 0;
}

void ImageFwdPass::setSoftmax(bool on) {
  endsInSoftmax_ = on;
  if (layers_) layers_->setSoftmax(on);
}

const DbnFeatureDescription& ImageFwdPass::featureDesc() const { return featureDesc_; }

const MelDeltasNorm& ImageFwdPass::deltasNorm() const { return deltasNorm_; }

std::vector<int> ImageFwdPass::widths() const {
  std::vector<int> widths;
  if (!layers_ || layers_->count() == 0) return widths;
  widths.push_back(numInputs());
  for (std::size_t i = 0; i < layers_->count(); ++i) widths.push_back(layers_->record(i).head.rows);
  return widths;
}

void ImageFwdPass::setThreads(std::shared_ptr<Threads> threads) {
  memory_.threads = std::move(threads);
}

int ImageFwdPass::numInputs() const { return layers_ ? layers_->numInputs() : 0; }

int ImageFwdPass::numOutputs() const { return layers_ ? layers_->numOutputs() : 0; }

int ImageFwdPass::evaluate(const Eigen::Ref<const Eigen::MatrixXf>& inputs,
                           Eigen::MatrixXf& outputs) {
  return run(inputs, outputs, nullptr);
}

int ImageFwdPass::evaluateLayers(const Eigen::Ref<const Eigen::MatrixXf>& inputs,
                                 Eigen::MatrixXf& outputs, std::vector<LayerResult>& layers) {
  std::vector<LayerResult> trace;
  if (run(inputs, outputs, &trace) != 0) return 1;
  layers.swap(trace);
  return 0;
}

// Whether there are layers that take what those before them give; else prints an error line.
bool ImageFwdPass::canEvaluate(const char* operation) const {
  if (layers_ != nullptr && layers_->count() > 0) return layers_->fit(operation);
  report({"ERROR: ", operation, ": model has no layers"});
  return false;
}

int ImageFwdPass::evaluateFrames(const InputFrames& inputs, const OutputFrames& outputs) {
  if (!canEvaluate(kEvaluate)) return 1;
  if (!framesFit(inputs, outputs, numInputs(), numOutputs(), kEvaluate)) return 1;
  evaluateStack(*layers_, inputs, outputs, memory_, memory_.threads.get());
  return 0;
}

int ImageFwdPass::run(const Eigen::Ref<const Eigen::MatrixXf>& inputs, Eigen::MatrixXf& outputs,
                      std::vector<LayerResult>* trace) {
  if (!canEvaluate(kEvaluate) || !inputsFit(inputs.rows(), numInputs(), kEvaluate)) return 1;
  evaluateStack(*layers_, inputs, outputs, memory_, trace, memory_.threads.get());
  return 0;
}

}  // namespace mlnn
