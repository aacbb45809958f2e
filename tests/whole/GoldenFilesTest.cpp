// The small model of tests/golden, whose files are made without the library, and the example of
// the document about the text format.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "layers/CodedWeights.h"
#include "model/ModelFormat.h"
#include "model/MultiLayerNNModel.h"
#include "tests/support/ByteImage.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/ModelDifference.h"
#include "tests/support/SourceTree.h"

namespace {

using mlnn::test::ByteImage;
using mlnn::test::firstDifference;
using mlnn::test::sourcePath;
using mlnn::test::stderrOf;

const std::string kDescription =
    "mel_deltas:bands=1,left=1,right=1,deltas=0,line_kernels=0,line_kernel_width=0";
const std::string kTextMessages = "info: NNModel::deserialize: feat_desc " + kDescription +
                                  "\ninfo: setting 'hidden_act_fn' = 'sigmoid'\n"
                                  "info: setting 'labels' = 'no yes'\n";

std::string golden(const std::string& name) { return sourcePath("tests/golden/" + name); }

std::string bytesOf(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  EXPECT_TRUE(in) << path;
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Loads a golden file, and expects it to succeed with these messages.
MultiLayerNNModel loaded(const std::string& name, const std::string& messages) {
  MultiLayerNNModel model;
  int result = -1;
  EXPECT_EQ(stderrOf([&] { result = model.deserialize(golden(name).c_str()); }), messages);
  EXPECT_EQ(result, 0) << name;
  return model;
}

std::string textOf(const MultiLayerNNModel& model) {
  std::ostringstream out;
  out.precision(9);
  model.serializeAscii(out);
  return out.str();
}

std::string imageOf(const MultiLayerNNModel& model) {
  std::string image(static_cast<std::size_t>(model.binarySerializedLength()), '\0');
  EXPECT_EQ(model.serializeBinary(image.data()), static_cast<int>(image.size()));
  return image;
}

TEST(GoldenFiles, version2ReadsAndWritesTheSameBytes) {
  const MultiLayerNNModel model = loaded("version2.txt", kTextMessages);
  EXPECT_EQ(textOf(model), bytesOf(golden("version2.txt")));
}

TEST(GoldenFiles, version2HoldsWhatItSays) {
  const MultiLayerNNModel model = loaded("version2.txt", kTextMessages);
  EXPECT_TRUE(model.useSoftmax);
  EXPECT_EQ(model.featureDesc.featLen(), 3);
  EXPECT_EQ(model.debug_description(), "inputs 3 x 2 bn 2 x 2 output classes");
  EXPECT_EQ(model.deltasNorm.minvals[119], 29.75f);
  EXPECT_EQ(model.deltasNorm.normvals[119], 15.875f);
  EXPECT_EQ(model.props.size(), 2u);
  EXPECT_EQ(model.notes.lines.size(), 4u);
  EXPECT_EQ(model.loss, (std::vector<float>{2.5f, 1.25f, 0.1f}));
  EXPECT_EQ(model.accuracy, (std::vector<float>{0.5f, 0.75f}));
  EXPECT_EQ(model.layers[0]->weights(1, 2), 3.40282347e+38f);
  EXPECT_EQ(model.layers[1]->gamma_inf[1], 8.0f);
  EXPECT_EQ(model.layers[2]->weights(1, 1), 123456792.0f);
}

TEST(GoldenFiles, version1HoldsTheSameButTheActivations) {
  MultiLayerNNModel model = loaded("version1.txt", kTextMessages);
  EXPECT_EQ(model.layers[0]->actFn, ActFn::linear);
  model.layers[0]->actFn = ActFn::sigmoid;
  EXPECT_EQ(firstDifference(model, loaded("version2.txt", kTextMessages)), "");
}

TEST(GoldenFiles, imageReadsAndWritesTheSameBytes) {
  const MultiLayerNNModel model =
      loaded("image.mlnn", "info: deserializeBinary: feature desc: " + kDescription + "\n");
  EXPECT_EQ(imageOf(model), bytesOf(golden("image.mlnn")));
}

TEST(GoldenFiles, imageHoldsWhatItCanOfTheTextModel) {
  MultiLayerNNModel model = loaded("version2.txt", kTextMessages);
  EXPECT_EQ(imageOf(model), bytesOf(golden("image.mlnn")));
  model.loss.clear();
  model.accuracy.clear();
  model.props.clear();
  model.notes.lines.clear();
  EXPECT_EQ(firstDifference(model, loaded("image.mlnn", "info: deserializeBinary: feature desc: " +
                                                            kDescription + "\n")),
            "");
}

TEST(GoldenFiles, codedImageReadsAndWritesTheSameBytes) {
  const std::string messages = "info: deserializeBinary: feature desc: " + kDescription + "\n";
  const MultiLayerNNModel model = loaded("coded.mlnn", messages);
  EXPECT_EQ(imageOf(model), bytesOf(golden("coded.mlnn")));
}

TEST(GoldenFiles, codedImageHoldsWhatItSays) {
  const MultiLayerNNModel model =
      loaded("coded.mlnn", "info: deserializeBinary: feature desc: " + kDescription + "\n");
  EXPECT_EQ(model.debug_description(), "inputs 3 x 8 bn 4 x 88 output classes");
  const ByteImage image(bytesOf(golden("coded.mlnn")));
  std::size_t record = mlnn::kHeadLength;
  // form, and of its codes: values in the table, weights with the rare value
  for (const std::array<uint32_t, 3>& wanted :
       {std::array<uint32_t, 3>{mlnn::kHalfByteCodes, 16, 1},
        {mlnn::kByteCodes, 18, 0},
        {mlnn::kByteCodes, 256, 1}}) {
    EXPECT_EQ(image.uint32At(record), wanted[0]);
    EXPECT_EQ(image.uint32At(record + 40), wanted[1]);
    EXPECT_EQ(image.uint32At(record + 44), wanted[2]);
    NNLayer layer;
    record += static_cast<std::size_t>(ByteImage(image.bytes().substr(record)).readInto(layer));
  }
  EXPECT_EQ(record, image.size());

  const Eigen::MatrixXf& first = model.layers[0]->weights;
  EXPECT_EQ(first(2, 1), -1.75f);  // the rare one
  EXPECT_EQ(first(0, 0), -2.0f);
  EXPECT_TRUE(first(1, 2) == 0 && std::signbit(first(1, 2)));
  EXPECT_EQ((first.array() == -1.75f).count(), 1);
  const Eigen::MatrixXf& last = model.layers[2]->weights;
  EXPECT_EQ(last(43, 0), -0.984375f);
  EXPECT_EQ(last(87, 3), 3 * (4 * 87 + 3) % 257 / 128.0f - 1);
  EXPECT_EQ(model.layers[1]->gamma_inf[3], 4.0f);
}

TEST(GoldenFiles, imageWithRowScalesReadsAndWritesTheSameBytes) {
  const std::string messages = "info: deserializeBinary: feature desc: " + kDescription + "\n";
  const MultiLayerNNModel model = loaded("rows.mlnn", messages);
  EXPECT_EQ(imageOf(model), bytesOf(golden("rows.mlnn")));
}

TEST(GoldenFiles, imageWithRowScalesHoldsWhatItSays) {
  const MultiLayerNNModel model =
      loaded("rows.mlnn", "info: deserializeBinary: feature desc: " + kDescription + "\n");
  EXPECT_EQ(model.debug_description(), "inputs 3 x 16 bn 20 x 18 output classes");
  const ByteImage image(bytesOf(golden("rows.mlnn")));
  std::size_t record = mlnn::kHeadLength;
  for (const uint32_t form : {mlnn::kByteRowCodes, mlnn::kHalfByteRowCodes, mlnn::kByteRowCodes}) {
    EXPECT_EQ(image.uint32At(record), form);
    NNLayer layer;
    record += static_cast<std::size_t>(ByteImage(image.bytes().substr(record)).readInto(layer));
  }
  EXPECT_EQ(record, image.size());

  for (Eigen::Index r = 0; r < 16; ++r) {
    for (Eigen::Index c = 0; c < 3; ++c) {
      const auto k = 5 * (3 * r + c) % 255 - 127;
      EXPECT_EQ(model.layers[0]->weights(r, c), static_cast<float>(k * (r + 1)) / 64);
    }
  }
  for (Eigen::Index r = 0; r < 20; ++r) {
    for (Eigen::Index c = 0; c < 16; ++c) {
      const auto k = 3 * (16 * r + c) % 15 - 7;
      EXPECT_EQ(model.layers[1]->weights(r, c), static_cast<float>(k * (2 * r + 1)) / 32);
    }
  }
  EXPECT_EQ(model.layers[1]->gamma_inf[3], 0.6875f);
  const Eigen::MatrixXf& last = model.layers[2]->weights;
  EXPECT_TRUE((last.row(4).array() == 0).all());
  EXPECT_EQ(last(5, 0), -1 - 0x1p-23f);
  EXPECT_EQ(last(5, 1), 0.0f);
  EXPECT_EQ(last(5, 2), 1 + 0x1p-23f);
  EXPECT_EQ(last(17, 19), (7 * 359 % 201 - 100) * 35 * 0x1p-20f);
}

// The block of text that follows a heading of a document.
std::string blockAfter(const std::string& heading, const std::string& document) {
  const std::string text = bytesOf(sourcePath(document));
  const std::string fence = "\n```\n";
  const std::size_t begin = text.find(fence, text.find("\n" + heading + "\n"));
  const std::size_t end = text.find(fence, begin + 1);
  EXPECT_NE(end, std::string::npos) << heading;
  return text.substr(begin + fence.size(), end + 1 - begin - fence.size());
}

TEST(TextFormatDocument, exampleReadsAndWritesTheSameBytes) {
  const std::string example = blockAfter("## Example", "docs/text-format.md");
  MultiLayerNNModel model;
  std::istringstream in(example);
  int result = -1;
  EXPECT_EQ(stderrOf([&] { result = model.deserializeAscii(in); }),
            "info: setting 'sample_rate' = '8000'\n");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(textOf(model), example);
  EXPECT_EQ(model.description(), "2,2,1");
}

}  // namespace
