// Lines of a text that the reader takes, but not as they seem to be meant.
#include <gtest/gtest.h>

#include <sstream>

#include "analysis/diagnosis/NoteRemarks.h"
#include "analysis/diagnosis/TextDiagnosis.h"
#include "model/MultiLayerNNModel.h"
#include "tests/support/CaptureStderr.h"

namespace {

using mlnn::remarkOnNote;
using mlnn::Suspicion;

std::string values(int count, const std::string& last) {
  std::string text;
  for (int i = 1; i < count; ++i) text += "0.5,";
  return text + last;
}

std::string trainingLine(const std::string& values) {
  return "# TRAIN rbm_train a b -deltas_norm_minvals " + values;
}

// What is said of a text, which must load.
std::string said(const std::string& text) {
  MultiLayerNNModel model;
  std::istringstream in(text);
  mlnn::test::stderrOf([&] { EXPECT_EQ(model.deserialize(in), 0) << text; });
  std::string lines;
  for (const Suspicion& suspicion : mlnn::suspiciousLines(text)) {
    EXPECT_EQ(suspicion.text.find("line " + std::to_string(suspicion.line) + " "), 0u);
    lines += suspicion.kind + ": " + suspicion.text + "\n";
  }
  return lines;
}

TEST(NoteRemarks, areNoneOnOrdinaryLines) {
  for (const std::string& line :
       {std::string("# a note"), std::string("#"), std::string("# NVP key value"),
        std::string("# NVP key "), trainingLine(values(120, "1e-3")),
        std::string("# nn_tune comment -win_size_left 5"),
        std::string("# nn_tune comment of another kind"),
        std::string("# NVP note deltas_norm_minvals")}) {
    EXPECT_EQ(remarkOnNote(line), "") << line;
  }
}

TEST(NoteRemarks, nameNormalisationThatIsNotTaken) {
  EXPECT_EQ(remarkOnNote(trainingLine(values(119, "1"))),
            "names deltas_norm_minvals but sets nothing: ERROR: extract_norm_params: did not find "
            "120 values, found 119 instead");
  EXPECT_EQ(remarkOnNote("# see deltas_norm_normvals"),
            "names deltas_norm_normvals but sets nothing: ERROR: extract_norm_params: could not "
            "parse line");
  EXPECT_EQ(remarkOnNote(trainingLine(values(120, "1.5x"))),
            "value 120 of deltas_norm_minvals, '1.5x', is no number; it counts as far as it reads "
            "as one, or as 0");
}

TEST(NoteRemarks, nameOptionsThatDoNotCount) {
  EXPECT_EQ(remarkOnNote("# nn_tune comment -win_size_left 5 -deltas 0"),
            "has several options, of which only -deltas counts, with the line's last word");
  EXPECT_EQ(remarkOnNote("# nn_tune comment -win_size_right five"),
            "the value 'five' of -win_size_right is no number; it counts as far as it reads as "
            "one, or as 0");
  EXPECT_EQ(remarkOnNote("# nn_tune comment -linekernels 3 "),
            "the value '' of -linekernels is no number; it counts as far as it reads as one, or as "
            "0");
}

TEST(NoteRemarks, nameAPropertyWithoutAValue) {
  EXPECT_EQ(remarkOnNote("# NVP al\x1bpha"),
            "gives the property 'al\\x1bpha' no value; the whole line becomes its value");
}

TEST(SuspiciousLines, areNoneInAnOrdinaryText) {
  EXPECT_EQ(said("MultiLayerNNModel_v2\nsoftmax 1\n# note\nnum_layers 1\nlayer 1 size 1 2\n"
                 "act_fn relu\n1 2\n"),
            "");
}

TEST(SuspiciousLines, nameASoftmaxWithoutANumber) {
  EXPECT_EQ(said("MultiLayerNNModel_v2\nsoftmax\nnum_layers 0\n"),
            "softmax_without_number: line 2 has no number after 'softmax', which means off\n");
  EXPECT_EQ(said("MultiLayerNNModel_v2\nsoftmax on\nnum_layers 0\n").substr(0, 60),
            "softmax_without_number: line 2 has no number after 'softmax'");
  EXPECT_EQ(said("MultiLayerNNModel_v2\nsoftmax 1 or 0\nnum_layers 0\n"),
            "text_left_out: line 2 holds 'or 0', which is not read\n");
}

TEST(SuspiciousLines, nameTextThatIsLeftOut) {
  EXPECT_EQ(said("MultiLayerNNModel_v2\nsoftmax 1\nnum_layers 2\nlayer 1 size 1 2\n"
                 "act_fn relu tanh\n1 2\nbatch_norm_layer 2 size 1 1\n1 7 8\ngamma_beta\n"
                 "1 2 3 4\nmore"),
            "text_left_out: line 5 holds 'tanh', which is not read\n"
            "text_left_out: line 8 holds '7 8', which is not read\n"
            "text_left_out: line 11 holds 'more', which is not read\n");
}

TEST(SuspiciousLines, haveTheirLineNumbers) {
  EXPECT_EQ(said("MultiLayerNNModel\n# note\n# NVP a\n# NVP b\nnum_layers 0\n"),
            "note_line: line 3 gives the property 'a' no value; the whole line becomes its value\n"
            "note_line: line 4 gives the property 'b' no value; the whole line becomes its "
            "value\n");
}

}  // namespace
