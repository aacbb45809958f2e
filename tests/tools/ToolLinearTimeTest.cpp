// What the tool reads besides models takes time in proportion to its length too, and so does
// finding what is wrong with a text model.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "analysis/diagnosis/TextDiagnosis.h"
#include "tests/support/LinearTime.h"
#include "tests/support/TestModels.h"
#include "tools/Failure.h"
#include "tools/files/Frames.h"
#include "tools/files/Npy.h"

namespace {

using mlnn::test::InputOfLength;
using mlnn::test::takesLinearTime;

struct Input {
  const char* name;
  InputOfLength ofLength;
};

void PrintTo(const Input& input, std::ostream* out) { *out << input.name; }

std::string nameOf(const testing::TestParamInfo<Input>& instance) { return instance.param.name; }

Input input(const char* name, const std::string& begin, const std::string& part,
            const std::string& end) {
  const auto ofLength = [=](std::size_t length) {
    std::string text = begin;
    while (text.size() < length) text += part;
    return text + end;
  };
  return {name, ofLength};
}

// A .npy file of frames of this many values.
Input npy(const char* name, int values) {
  const auto ofLength = [=](std::size_t length) {
    const auto frames = static_cast<int>(length / sizeof(float)) / values;
    std::ostringstream out;
    mlnn::writeNpy(mlnn::test::someValues(values, frames, 1), out);
    return out.str();
  };
  return {name, ofLength};
}

// A .npy file with a header of nothing but blanks.
Input blankHeader(const char* name) {
  const auto ofLength = [](std::size_t length) {
    std::string bytes("\x93NUMPY\x02\0", 8);
    for (int shift = 0; shift < 32; shift += 8) bytes += static_cast<char>(length >> shift & 0xff);
    return bytes + std::string(length, ' ');
  };
  return {name, ofLength};
}

class FramesLinearTime : public testing::TestWithParam<Input> {};

TEST_P(FramesLinearTime, isParsedOrRefused) {
  EXPECT_TRUE(takesLinearTime(GetParam().ofLength, [](const std::string& bytes) {
    try {
      EXPECT_GT(mlnn::parseFrames(bytes, "input").size(), 0);
    } catch (const mlnn::Failure&) {
    }
  }));
}

INSTANTIATE_TEST_SUITE_P(
    Tool, FramesLinearTime,
    testing::Values(
        npy("NpyOfShortFrames", 1), npy("NpyOfLongFrames", 40), blankHeader("BlanksInAHeader"),
        input("ShortFrames", "", "1\n", ""), input("OneLongFrame", "", "0.5 ", "\n"),
        input("CommasInAFrame", "1", ",0.5", "\n"), input("BlanksInAFrame", "1", " ", "2\n"),
        input("BlankLines", "", "\n", "1\n"), input("Comments", "", "#\n", "1\n"),
        input("OneLongComment", "#", " comment", "\n1\n"), input("DigitsOfAValue", "1.", "3", "\n"),
        input("DigitsOfAnExponent", "1e", "9", "\n"), input("OneLongWord", "1 ", "word", "\n"),
        input("CarriageReturns", "1", "\r", "\n"), input("RaggedAtTheEnd", "", "1 2\n", "1\n")),
    nameOf);

class DiagnosisLinearTime : public testing::TestWithParam<Input> {};

TEST_P(DiagnosisLinearTime, isFound) {
  EXPECT_TRUE(takesLinearTime(GetParam().ofLength, [](const std::string& text) {
    EXPECT_TRUE(mlnn::diagnoseText(text, {}).has_value());
    mlnn::suspiciousLines(text);
  }));
}

const std::string kHead = "MultiLayerNNModel_v2\nsoftmax 1\n";
const std::string kLayer = "num_layers 1\nlayer 1 size ";

INSTANTIATE_TEST_SUITE_P(
    Tool, DiagnosisLinearTime,
    testing::Values(
        input("Notes", kHead, "# note\n", "misfit\n"),
        input("EmptyNotes", kHead, "#\n", "misfit\n"),
        input("OneLongNote", kHead + "#", " note", "\nmisfit\n"),
        input("Properties", kHead, "# NVP key value\n", "misfit\n"),
        input("TrainingComments", kHead, "# TRAIN deltas_norm_minvals 1,2\n", "misfit\n"),
        input("TuneComments", kHead, "# nn_tune comment -deltas 1\n", "misfit\n"),
        input("FeatureDescriptions", kHead, "# nn_tune feat_desc mel\n", "misfit\n"),
        input("BlankLines", kHead, "\n", "misfit\n"),
        input("Loss", kHead + "loss 2147483647\n", "1\t", "\nmisfit\n"),
        input("Digits", kHead + "loss 1\n", "9", "\nmisfit\n"),
        input("OneLongWord", kHead, "word", "\n"),
        input("RowsOfALayer", kHead + kLayer + "2147483647 2\nact_fn relu\n", "1 2\n", "misfit\n"),
        input("OneLongRow", kHead + kLayer + "1 2147483647\nact_fn relu\n", "1\t", "misfit\n")),
    nameOf);

}  // namespace
