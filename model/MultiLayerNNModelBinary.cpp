// The writer and reader of the binary image (docs/binary-format.md).
#include <algorithm>
#include <deque>
#include <istream>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

#include "layers/ByteIo.h"
#include "layers/NNLayerRecord.h"
#include "layers/Report.h"
#include "model/ImageHeadReader.h"
#include "model/LayerStack.h"
#include "model/ModelFormat.h"
#include "model/ModelImage.h"
#include "model/MultiLayerNNModel.h"
#include "os/FreshMemory.h"

namespace {

constexpr int64_t kMaxImageLength = std::numeric_limits<int>::max();

// How the layers' records store their weights, in stack order.
using Plans = std::vector<mlnn::WeightsPlan>;

Plans plansOf(const MultiLayerNNModel& model, const mlnn::Watch& watch = {}) {
  Plans plans;
  plans.reserve(model.layers.size());
  for (const NNLayer* layer : model.layers) {
    plans.push_back(mlnn::planRecord(mlnn::layerOrEmpty(layer), watch));
  }
  return plans;
}

// Returns the length of the model's image; -1, after an error line, when an int cannot hold it.
int imageLength(const MultiLayerNNModel& model, const Plans& plans) {
  auto length = uint64_t{mlnn::kHeadLengthWithoutNorm};
  length +=
      sizeof(float) * uint64_t(model.deltasNorm.minvals.size() + model.deltasNorm.normvals.size());
  for (std::size_t i = 0; i < plans.size(); ++i) {
    length += mlnn::recordLength(mlnn::layerOrEmpty(model.layers[i]), plans[i]);
  }
  if (length <= uint64_t{kMaxImageLength}) return static_cast<int>(length);
  mlnn::report({"ERROR: MultiLayerNNModel: model is too large for a binary image"});
  return -1;
}

void writeArray(mlnn::ByteWriter& writer, const Eigen::VectorXf& values) {
  writer.int32(static_cast<int32_t>(values.size()));
  writer.floats(values.data(), static_cast<std::size_t>(values.size()));
}

// Writes the image, and returns its length. REQUIRES: there is room for it.
int writeImage(const MultiLayerNNModel& model, const Plans& plans, char* buf,
               const mlnn::Watch& watch) {
  mlnn::ByteWriter writer(buf);
  writer.bytes(mlnn::kMagic, mlnn::kMagicLength);
  writer.uint32(0);  // the checksum: known when the records are written
  writer.int32(mlnn::kFeatureDescLength);
  writer.bytes(&model.featureDesc, sizeof model.featureDesc);
  writeArray(writer, model.deltasNorm.minvals);
  writeArray(writer, model.deltasNorm.normvals);
  writer.int32(static_cast<int32_t>(model.layers.size()));
  auto length = static_cast<int>(writer.length());
  auto sum = static_cast<uint32_t>(model.layers.size());
  for (std::size_t i = 0; i < plans.size(); ++i) {
    const mlnn::RecordResult record =
        mlnn::writeRecord(mlnn::layerOrEmpty(model.layers[i]), plans[i], buf + length);
    length += record.length;
    sum += record.checksum;
    mlnn::tell(watch, 0);
  }
  mlnn::ByteWriter(buf + mlnn::kChecksumOffset).uint32(sum);
  return length;
}

// What both ways of reading an image do with the model.
class ModelReader : public mlnn::ImageHeadReader {
 public:
  ModelReader(const char* head, std::size_t length, MultiLayerNNModel& model)
      : ImageHeadReader(head, length, model.featureDesc, model.deltasNorm), model_(model) {}

 protected:
  ~ModelReader() = default;

  std::vector<NNLayer*>& layers() { return model_.layers; }

 private:
  uint32_t checksumOfUnread(std::size_t index) override {
    return mlnn::layerOrEmpty(layers()[index]).checksum();
  }

  MultiLayerNNModel& model_;
};

// Reads the records from memory.
class MemoryReader final : public ModelReader {
 public:
  MemoryReader(const char* image, std::size_t length, MultiLayerNNModel& model)
      : ModelReader(image, length, model), image_(image) {}

 private:
  void prepareLayers(std::size_t count) override {
    mlnn::resizeStack(layers(), count);
    mlnn::fillMissingLayers(layers());
  }
  mlnn::RecordResult readLayer(std::size_t index, std::size_t position,
                               std::size_t available) override {
    return mlnn::readRecord(*layers()[index], image_ + position, available);
  }

  const char* image_;
};

// An image as it came from a stream. Records can be so short that what is kept of each counts.
struct LoadedImage {
  struct Record {
    std::unique_ptr<NNLayer> layer;
    mlnn::RecordResult result;
  };

  char head[mlnn::kHeadLength];
  std::deque<Record> records;  // up to the first that was refused
};

// Loads an image whose layers are not the model's yet: only when the stream has had them all may
// the model change.
class ImageLoader {
 public:
  ImageLoader(std::istream& in, std::size_t length) : in_(in), length_(length) {}

  // Returns whether the stream had as many bytes as the image takes.
  bool load(LoadedImage& image) {
    const std::size_t head = std::min(length_, mlnn::kHeadLength);
    in_.read(image.head, static_cast<std::streamsize>(head));
    position_ = static_cast<std::size_t>(in_.gcount());
    if (position_ == mlnn::kHeadLength) loadRecords(image);
    skipRest();
    return position_ == length_;
  }

  // Returns how many bytes the stream had.
  std::size_t position() const { return position_; }

 private:
  void loadRecords(LoadedImage& image) {
    const char* const count = image.head + mlnn::kLayerCountOffset;
    const int32_t numLayers = mlnn::ByteReader(count, sizeof(int32_t)).int32();
    while (position_ < length_ && static_cast<int64_t>(image.records.size()) < numLayers) {
      LoadedImage::Record record{std::make_unique<NNLayer>(), {}};
      record.result = mlnn::readRecord(*record.layer, in_, length_ - position_);
      position_ += record.result.taken;
      if (record.result.length < 0) return;
      image.records.push_back(std::move(record));
    }
  }

  void skipRest() {
    char piece[4096];
    while (in_ && position_ < length_) {
      const std::size_t count = std::min(length_ - position_, sizeof piece);
      in_.read(piece, static_cast<std::streamsize>(count));
      position_ += static_cast<std::size_t>(in_.gcount());
    }
  }

  std::istream& in_;
  std::size_t length_;
  std::size_t position_ = 0;
};

// Takes the records from a loaded image. Layers that the model has stay in their places; those that
// it does not have yet are missing until they are read.
class LoadedImageReader final : public ModelReader {
 public:
  LoadedImageReader(LoadedImage& image, std::size_t length, MultiLayerNNModel& model)
      : ModelReader(image.head, length, model), records_(image.records) {}

  // As read() has it.
  int readAll() {
    const int consumed = read();
    if (isPrepared_) mlnn::fillMissingLayers(layers());
    return consumed;
  }

 private:
  void prepareLayers(std::size_t count) override {
    mlnn::resizeStack(layers(), count);
    isPrepared_ = true;
  }
  mlnn::RecordResult readLayer(std::size_t index, std::size_t, std::size_t) override {
    if (index >= records_.size()) return {};
    LoadedImage::Record& record = records_[index];
    NNLayer*& layer = layers()[index];
    if (layer == nullptr) {
      layer = record.layer.release();
    } else {
      *layer = std::move(*record.layer);
    }
    return record.result;
  }

  std::deque<LoadedImage::Record>& records_;
  bool isPrepared_ = false;
};

}  // namespace

int MultiLayerNNModel::binarySerializedLength() const { return imageLength(*this, plansOf(*this)); }

int mlnn::imageLength(const MultiLayerNNModel& model, const Watch& watch) {
  return ::imageLength(model, plansOf(model, watch));
}

uint32_t MultiLayerNNModel::checksum() const {
  auto sum = static_cast<uint32_t>(layers.size());
  for (const NNLayer* layer : layers) sum += mlnn::layerOrEmpty(layer).checksum();
  return sum;
}

int MultiLayerNNModel::serializeBinary(char* buf) const {
  const Plans plans = plansOf(*this);
  const int expected = imageLength(*this, plans);
  if (expected < 0) return -1;
  mlnn::adviseHugePages(buf, static_cast<std::size_t>(expected));
  mlnn::supplyPages(buf, static_cast<std::size_t>(expected));
  return writeImage(*this, plans, buf, {});
}

std::optional<std::vector<char>> mlnn::imageOf(const MultiLayerNNModel& model, const Watch& watch) {
  const Plans plans = plansOf(model, watch);
  const int expected = ::imageLength(model, plans);
  if (expected < 0) return std::nullopt;
  std::vector<char> image(static_cast<std::size_t>(expected));
  writeImage(model, plans, image.data(), watch);
  return image;
}

int MultiLayerNNModel::deserializeBinary(const char* buf, unsigned int len) {
  return MemoryReader(buf, len, *this).read();
}

int mlnn::readImage(MultiLayerNNModel& model, std::istream& in, std::size_t length) {
  LoadedImage image;
  ImageLoader loader(in, length);
  if (!loader.load(image)) {
    mlnn::report({"ERROR: MultiLayerNNModel: stream ended after ", loader.position(), " of ",
                  length, " bytes"});
    return -1;
  }
  return LoadedImageReader(image, length, model).readAll();
}
