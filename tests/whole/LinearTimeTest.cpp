// Time grows no faster than the input, whatever part of an input there is much of: each kind of
// line, word, number and record by itself, accepted or refused.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <iostream>
#include <memory>
#include <sstream>
#include <streambuf>
#include <string>
#include <utility>
#include <vector>

#include "features/DbnFeatureDescription.h"
#include "features/string_split.h"
#include "inference/ImageFwdPass.h"
#include "model/MultiLayerNNModel.h"
#include "tests/support/ByteImage.h"
#include "tests/support/LinearTime.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::test::ByteImage;
using mlnn::test::InputOfLength;
using mlnn::test::takesLinearTime;

class Nowhere : public std::streambuf {
 protected:
  int_type overflow(int_type c) override { return traits_type::not_eof(c); }
  std::streamsize xsputn(const char*, std::streamsize count) override { return count; }
};

struct Input {
  const char* name;
  InputOfLength ofLength;
  int result = 0;  // of loading it
};

void PrintTo(const Input& input, std::ostream* out) { *out << input.name; }

std::string nameOf(const testing::TestParamInfo<Input>& instance) { return instance.param.name; }

// Messages cost time as well, but are not to be seen.
class LinearTime : public testing::TestWithParam<Input> {
 protected:
  LinearTime() : shown_(std::cerr.rdbuf(&nowhere_)) {}
  ~LinearTime() override { std::cerr.rdbuf(shown_); }

  Nowhere nowhere_;

 private:
  std::streambuf* shown_;
};

std::string repeated(const std::string& part, std::size_t length) {
  std::string text;
  text.reserve(length + part.size());
  while (text.size() < length) text += part;
  return text;
}

// An input that repeats something between a beginning and an end.
Input input(const char* name, const std::string& begin, const std::string& part,
            const std::string& end, int result = 0) {
  const auto ofLength = [=](std::size_t length) { return begin + repeated(part, length) + end; };
  return {name, ofLength, result};
}

// The same where the number of repetitions stands behind the beginning.
Input counted(const char* name, const std::string& begin, const std::string& behindCount,
              const std::string& part, const std::string& end) {
  const auto ofLength = [=](std::size_t length) {
    const std::size_t count = length / part.size() + 1;
    return begin + std::to_string(count) + behindCount + repeated(part, count * part.size()) + end;
  };
  return {name, ofLength};
}

std::string trainingLine() {
  std::string line = "# TRAIN rbm_train a b -deltas_norm_minvals 0";
  for (int i = 1; i < 120; ++i) line += ",0.5";
  return line + "\n";
}

// An input of numbered parts; the number of them stands behind the beginning unless another does.
Input numbered(const char* name, const std::string& begin, const std::string& before,
               const std::string& after, const std::string& end = "",
               const std::string& otherCount = "", int result = 0) {
  const auto ofLength = [=](std::size_t length) {
    std::string parts;
    int count = 0;
    while (parts.size() < length) parts += before + std::to_string(++count) + after;
    return begin + (otherCount.empty() ? std::to_string(count) : otherCount) + "\n" + parts + end;
  };
  return {name, ofLength, result};
}

std::vector<Input> texts() {
  const std::string head = "MultiLayerNNModel_v2\nsoftmax 1\n";
  const std::string end = "num_layers 0\n";
  const std::string layers = head + "num_layers ";
  const std::string row = head + "num_layers 1\nlayer 1 size 1 2147483647\nact_fn relu\n";
  const std::string value = head + "loss 1\n";
  const std::string feat = "mel_deltas:bands=0,left=1,right=1,deltas=0,line_kernels=0,";
  return {
      input("Notes", head, "# note\n", end),
      input("EmptyNotes", head, "#\n", end),
      input("OneLongNote", head + "# ", "note ", "\n" + end),
      numbered("Properties", head + "# ", "# NVP key", " value\n", end),
      input("OneProperty", head, "# NVP k v\n", end),
      input("OneLongProperty", head + "# NVP key ", "value ", "\n" + end),
      input("OneLongKey", head + "# NVP ", "key", " value\n" + end),
      input("TrainingComments", head, trainingLine(), end),
      input("OneLongTrainingComment", head + "# TRAIN rbm_train a b -deltas_norm_minvals ", "0,",
            "\n" + end),
      input("FieldsOfATrainingComment", head + "# TRAIN rbm_train deltas_norm_minvals", " a",
            "\n" + end),
      input("RefusedTrainingComments", head, "# deltas_norm_minvals\n", end),
      input("TuneComments", head, "# nn_tune comment -win_size_left 3\n", end),
      input("OneLongTuneComment", head + "# nn_tune comment -deltas", " 1", "\n" + end),
      input("BlanksOfATuneComment", head + "# nn_tune comment -deltas", " ", "1\n" + end),
      input("FeatureDescriptions", head, "# nn_tune feat_desc " + feat + "line_kernel_width=0\n",
            end),
      input("OneLongFeatureDescription",
            head + "# nn_tune feat_desc " + feat + "line_kernel_width=", "0", "\n" + end),
      counted("Loss", head + "loss ", "\n", "1.5\t", "\n" + end),
      counted("Accuracy", head + "accuracy ", "\n", "0.5\n", end),
      input("FewerValuesThanTheyCount", head + "loss 2147483647\n", "1.5\t", "\n" + end, 1),
      input("BlankLines", head, "\n", end),
      input("BlankLinesBeforeAValue", value, "\n", "1\n" + end),
      input("BlanksBeforeAValue", value, " ", "1\n" + end),
      input("DigitsOfAnInteger", value, "9", "\n" + end, 1),
      input("DigitsOfAFraction", value + "0.", "3", "\n" + end),
      input("ZerosOfAFraction", value + "0.", "0", "1\n" + end),
      input("ZerosBeforeAValue", value, "0", "1\n" + end),
      input("DigitsOfAnExponent", value + "1e-", "9", "\n" + end),
      input("DigitsOfACount", head + "num_layers ", "9", "\n", 1),
      input("ZerosBeforeACount", head + "num_layers ", "0", "\n"),
      input("OneLongWord", head, "word", "\n" + end, 1),
      input("OneLongFirstLine", "MultiLayerNNModel_v2", "2", "\n" + end, 1),
      numbered("Layers", layers, "layer ", " size 1 2\nact_fn relu\n0.5 1\n"),
      numbered("EmptyLayers", layers, "layer ", " size 0 1\nact_fn relu\n"),
      numbered("BatchNormLayers", layers, "batch_norm_layer ",
               " size 1 1\n1\ngamma_beta\n1 2 3 4\n"),
      input("NotesBehindALayer", layers + "2\nlayer 1 size 1 1\nact_fn relu\n1", "# note\n",
            "layer 2 size 1 2\nact_fn relu\n1 1\n"),
      numbered("FewerLayersThanTheyCount", layers, "layer ", " size 0 1\nact_fn relu\n", "",
               "2147483647", 1),
      input("FewerValuesThanARowHas", row, "0.25\t", "\n", 1),
      input("BlanksInsteadOfARow", row, " ", "\n", 1),
      counted("ValuesOfARow", head + "num_layers 1\nlayer 1 size 1 ", "\nact_fn relu\n",
              "0.123456789\t", "\n"),
      counted("RowsOfALayer", head + "num_layers 1\nlayer 1 size ", " 2\nact_fn relu\n", "0.5 1\n",
              ""),
  };
}

std::string imageOf(const std::vector<NNLayer>& layers) {
  MultiLayerNNModel model = mlnn::test::modelOf(layers);
  model.deltasNorm.allocIfNeeded();
  return ByteImage::of(model).bytes();
}

// An image of many equal layers, made of one image of a single layer.
Input equalLayers(const char* name, const NNLayer& layer) {
  const auto ofLength = [=](std::size_t length) {
    const std::string one = imageOf({layer});
    const std::size_t headLength = 1004;
    const std::string record = one.substr(headLength);
    const std::size_t count = length / record.size() + 1;
    ByteImage image(one.substr(0, headLength) + repeated(record, count * record.size()));
    image.setInt32At(1000, static_cast<int32_t>(count));
    image.setInt32At(
        4, static_cast<int32_t>(static_cast<uint32_t>(count) * (mlnn::test::crc32c(record) + 1)));
    return image.bytes();
  };
  return {name, ofLength};
}

// An image of one layer with so many weights that it has about this length.
template <typename MakesLayer>
Input oneLayer(const char* name, std::size_t bitsPerWeight, MakesLayer makesLayer) {
  const auto ofLength = [=](std::size_t length) {
    const auto weights = static_cast<int>(8 * length / bitsPerWeight);
    return imageOf({makesLayer(weights)});
  };
  return {name, ofLength};
}

NNLayer layerOf257Values(int weights) {
  NNLayer layer = mlnn::test::fewValuesLayer(weights / 8, 8, 257);
  return layer;
}

std::vector<Input> images() {
  Input tooMany = equalLayers("FewerRecordsThanTheyCount", NNLayer(0, 0, false));
  const InputOfLength complete = tooMany.ofLength;
  tooMany.ofLength = [complete](std::size_t length) {
    ByteImage image(complete(length));
    return image.setInt32At(1000, image.int32At(1000) + 1000).bytes();
  };
  tooMany.result = 1;
  Input leftOver = input("BytesLeftOver", imageOf({}), std::string(1, '\0'), "", 1);
  return {
      equalLayers("EmptyRecords", NNLayer(0, 0, false)),
      equalLayers("SmallRecords", mlnn::test::batchNormLayer(2, 3)),
      equalLayers("CodedRecords", mlnn::test::fewValuesLayer(16, 4, 3)),
      equalLayers("CodedRecordsWithARareValue", layerOf257Values(257 * 16)),
      tooMany,
      leftOver,
      oneLayer("OneLayerOfFloats", 32,
               [](int weights) { return mlnn::test::plainLayer(weights / 16, 16); }),
      oneLayer("OneLayerOfBytes", 8,
               [](int weights) { return mlnn::test::fewValuesLayer(weights / 16, 16, 200); }),
      oneLayer("OneLayerOfHalfBytes", 4,
               [](int weights) { return mlnn::test::fewValuesLayer(weights / 16, 16, 9); }),
      oneLayer("OneLayerOf257Values", 8, layerOf257Values),
  };
}

int load(const std::string& bytes) {
  MultiLayerNNModel model;
  std::istringstream in(bytes);
  return model.deserialize(in);
}

TEST_P(LinearTime, loads) {
  const int result = GetParam().result;
  EXPECT_TRUE(takesLinearTime(
      GetParam().ofLength, [result](const std::string& bytes) { EXPECT_EQ(load(bytes), result); }));
}

// A stream that hands out a byte at a time, as far as the loader lets it.
class ByteByByte : public std::streambuf {
 public:
  explicit ByteByByte(std::string bytes) : bytes_(std::move(bytes)) { seekpos(0, std::ios::in); }

 protected:
  int_type underflow() override {
    if (egptr() == bytes_.data() + bytes_.size()) return traits_type::eof();
    setg(eback(), egptr(), egptr() + 1);
    return traits_type::to_int_type(*gptr());
  }
  pos_type seekoff(off_type offset, std::ios::seekdir from, std::ios::openmode mode) override {
    const off_type base = from == std::ios::beg   ? 0
                          : from == std::ios::cur ? gptr() - eback()
                                                  : static_cast<off_type>(bytes_.size());
    return seekpos(pos_type(base + offset), mode);
  }
  pos_type seekpos(pos_type position, std::ios::openmode) override {
    char* const at = bytes_.data() + static_cast<off_type>(position);
    setg(bytes_.data(), at, at);
    return position;
  }

 private:
  std::string bytes_;
};

TEST_P(LinearTime, loadsByteByByte) {
  const int result = GetParam().result;
  EXPECT_TRUE(takesLinearTime(GetParam().ofLength, [result](const std::string& bytes) {
    MultiLayerNNModel model;
    ByteByByte buffer(bytes);
    std::istream in(&buffer);
    EXPECT_EQ(model.deserialize(in), result);
  }));
}

INSTANTIATE_TEST_SUITE_P(Texts, LinearTime, testing::ValuesIn(texts()), nameOf);
INSTANTIATE_TEST_SUITE_P(Images, LinearTime, testing::ValuesIn(images()), nameOf);

// What is made of an accepted input.
class LinearTimeAfterwards : public LinearTime {};

TEST_P(LinearTimeAfterwards, describesAndWrites) {
  std::ostream out(&nowhere_);
  EXPECT_TRUE(takesLinearTime(GetParam().ofLength, [&out](const std::string& bytes) {
    MultiLayerNNModel model;
    std::istringstream in(bytes);
    ASSERT_EQ(model.deserialize(in), 0);
    model.serializeAscii(out);
    model.description();
    model.debug_description();
    std::vector<char> image(static_cast<std::size_t>(model.binarySerializedLength()));
    model.serializeBinary(image.data());
  }));
}

std::vector<Input> accepted(const std::vector<Input>& inputs) {
  std::vector<Input> those;
  for (const Input& one : inputs) {
    if (one.result == 0) those.push_back(one);
  }
  return those;
}

INSTANTIATE_TEST_SUITE_P(Texts, LinearTimeAfterwards, testing::ValuesIn(accepted(texts())), nameOf);
INSTANTIATE_TEST_SUITE_P(Images, LinearTimeAfterwards, testing::ValuesIn(accepted(images())),
                         nameOf);

class LinearTimeInPlace : public LinearTime {};

TEST_P(LinearTimeInPlace, opens) {
  const int result = GetParam().result;
  EXPECT_TRUE(takesLinearTime(GetParam().ofLength, [result](const std::string& image) {
    mlnn::ImageFwdPass pass;
    EXPECT_EQ(pass.open(image.data(), image.size()), result);
  }));
}

INSTANTIATE_TEST_SUITE_P(Images, LinearTimeInPlace, testing::ValuesIn(images()), nameOf);

TEST(LinearTimeOfParts, featureDescription) {
  const Input digits = input("digits", "mel_deltas:bands=", "0", "1,left=1");
  EXPECT_TRUE(takesLinearTime(digits.ofLength, [](const std::string& text) {
    DbnFeatureDescription desc(DbnFeatureDescription::MelDeltas);
    EXPECT_EQ(desc.deserialize(text), 1);
  }));
}

TEST(LinearTimeOfParts, stringSplit) {
  const Input pieces = input("pieces", "", "a b\t\t", "");
  EXPECT_TRUE(takesLinearTime(pieces.ofLength, [](const std::string& text) {
    std::vector<std::string> out;
    string_split(out, text, " \t");
    EXPECT_EQ(out.size(), 2 * text.size() / 5);
  }));
}

// The measurement itself: it must tell quadratic time.
TEST(TakesLinearTime, findsQuadraticTime) {
  const Input any = input("any", "", "x", "");
  const auto quadratic = [](const std::string& text) {
    std::string reversed;  // all that is there moves at each step
    for (std::size_t i = 0; i < text.size(); i += 256) reversed.insert(0, text, i, 256);
    ASSERT_EQ(reversed.size(), text.size() / 256 * 256);
  };
  EXPECT_FALSE(takesLinearTime(any.ofLength, quadratic));
}

}  // namespace
