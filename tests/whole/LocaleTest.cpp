// A process whose locale writes 1.234,5 for 1234.5, in C++ and in C: files are read and written
// as in the classic locale. The training-comment values and note options alone follow the C
// locale, by rule.
#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <locale>
#include <sstream>
#include <string>

#include "model/ModelFile.h"
#include "model/MultiLayerNNModel.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/CommaLocale.h"
#include "tests/support/ModelDifference.h"
#include "tests/support/TempFolder.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::test::firstDifference;
using mlnn::test::kCommaLocale;
using mlnn::test::makeCommaLocale;
using mlnn::test::stderrOf;
using mlnn::test::TempFolder;

class CommaNumbers : public std::numpunct<char> {
 protected:
  char do_decimal_point() const override { return ','; }
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

// A model with counts, sizes and values that a comma locale would write otherwise.
MultiLayerNNModel largeModel() {
  MultiLayerNNModel model = mlnn::test::modelOf({mlnn::test::plainLayer(2, 1200)});
  model.loss.assign(1500, 1234.5f);
  model.deltasNorm.allocIfNeeded();
  return model;
}

// Streams take the global locale when they are made, as a program's own streams do.
std::string textOf(const MultiLayerNNModel& model, const std::locale& locale) {
  std::ostringstream out;
  out.imbue(locale);
  out.precision(9);
  model.serializeAscii(out);
  return out.str();
}

class CommaLocale : public testing::Test {
 protected:
  CommaLocale()
      : before_(std::locale::global(std::locale(std::locale::classic(), new CommaNumbers))) {}
  ~CommaLocale() override { std::locale::global(before_); }

 private:
  std::locale before_;
};

TEST_F(CommaLocale, aTextOfTheClassicLocaleIsReadFromAFile) {
  const MultiLayerNNModel model = largeModel();
  const TempFolder folder;
  const std::string path = folder.write("model.txt", textOf(model, std::locale::classic()));
  MultiLayerNNModel again;
  std::string messages;
  int result = -1;
  messages = stderrOf([&] { result = again.deserialize(path.c_str()); });
  EXPECT_EQ(messages, "");
  EXPECT_EQ(result, 0);
  again.deltasNorm = model.deltasNorm;
  again.featureDesc = model.featureDesc;
  EXPECT_EQ(firstDifference(again, model), "");
}

TEST_F(CommaLocale, aTextOfTheClassicLocaleIsOpenedFromAFileAndFromMemory) {
  const std::string text = textOf(largeModel(), std::locale::classic());
  const TempFolder folder;
  const std::string path = folder.write("model.txt", text);
  mlnn::ModelFile fromFile, fromMemory;
  EXPECT_EQ(stderrOf([&] {
              EXPECT_EQ(mlnn::openModel(path, fromFile), 0);
              EXPECT_EQ(mlnn::openModel(text.data(), text.size(), fromMemory), 0);
            }),
            "");
  EXPECT_EQ(textOf(fromFile.model, std::locale::classic()), text);
  EXPECT_EQ(textOf(fromMemory.model, std::locale::classic()), text);
}

TEST_F(CommaLocale, aStreamWithTheClassicLocaleWritesTheSameText) {
  const MultiLayerNNModel model = largeModel();
  const std::string text = textOf(model, std::locale::classic());
  EXPECT_NE(text.find("loss 1500\n1234.5\t"), std::string::npos);
  EXPECT_NE(text.find("\nlayer 1 size 1200 3\n"), std::string::npos);
}

// The text format follows the stream's locale in values, and in values alone.
TEST_F(CommaLocale, aStreamWithThatLocaleWritesCountsAsEver) {
  const std::string text = textOf(largeModel(), std::locale());
  EXPECT_NE(text.find("loss 1500\n1.234,5\t"), std::string::npos);
  EXPECT_NE(text.find("\nlayer 1 size 1200 3\n"), std::string::npos);
}

TEST_F(CommaLocale, messagesAndDescriptionsDoNotGroup) {
  EXPECT_EQ(largeModel().description(), "2,1200");
  MultiLayerNNModel model;
  std::istringstream in("MultiLayerNNModel\nnum_layers 1\nlayer 12345 size 1 2\n1 2\n");
  in.imbue(std::locale::classic());
  EXPECT_EQ(stderrOf([&] { model.deserializeAscii(in); }),
            "ERROR: MultiLayerNNModel::deserializeAscii: expected layer 1 but found 12345\n");
}

TEST_F(CommaLocale, anImageIsTheSameBytes) {
  const MultiLayerNNModel model = largeModel();
  std::string image(static_cast<std::size_t>(model.binarySerializedLength()), '\0');
  model.serializeBinary(image.data());
  MultiLayerNNModel again;
  std::istringstream in(image);
  std::string messages;
  EXPECT_EQ((messages = stderrOf([&] { again.deserialize(in); })),
            "info: deserializeBinary: feature desc: "
            "mel_deltas:bands=0,left=0,right=0,deltas=0,line_kernels=0,line_kernel_width=0\n");
  EXPECT_EQ(again.checksum(), model.checksum());
}

TEST_F(CommaLocale, notesAndFeatureTextsAreTheSame) {
  TrainingNotes notes;
  notes.addRndLayer(1234, 1234.5f);
  EXPECT_EQ(notes.lines[0], "added randomly initialised layer 1234, initScale 1234.5");
  DbnFeatureDescription desc(DbnFeatureDescription::MelDeltas);
  desc.winSizeLeft = 1234567;
  std::string text;
  desc.serialize(text);
  EXPECT_NE(text.find("left=1234567,"), std::string::npos);
  EXPECT_EQ(desc.deserialize(text), 0);
}

// The process has a C locale with a decimal comma.
class CommaCLocale : public testing::Test {
 protected:
  void SetUp() override {
    if (!makeCommaLocale(folder_.path())) GTEST_SKIP() << "no localedef, or no sources for it";
    setenv("LOCPATH", folder_.path().c_str(), 1);
    ASSERT_NE(std::setlocale(LC_ALL, kCommaLocale), nullptr);
    ASSERT_STREQ(std::localeconv()->decimal_point, ",");
  }
  void TearDown() override {
    std::setlocale(LC_ALL, "C");
    unsetenv("LOCPATH");
  }

 private:
  TempFolder folder_;
};

TEST_F(CommaCLocale, changesTrainingCommentValuesAlone) {
  const MultiLayerNNModel model = largeModel();
  const std::string text = textOf(model, std::locale::classic());
  EXPECT_NE(text.find("loss 1500\n1234.5\t"), std::string::npos);
  MultiLayerNNModel again;
  std::istringstream in(text);
  in.imbue(std::locale::classic());
  ASSERT_EQ(again.deserializeAscii(in), 0);
  EXPECT_EQ(textOf(again, std::locale::classic()), text);

  std::string line = "# TRAIN rbm_train a b deltas_norm_minvals 1.5";
  for (int i = 1; i < 120; ++i) line += ",0";
  MultiLayerNNModel trained;
  std::istringstream comment("MultiLayerNNModel\n" + line + "\nnum_layers 0\n");
  comment.imbue(std::locale::classic());
  ASSERT_EQ(trained.deserializeAscii(comment), 0);
  EXPECT_EQ(trained.deltasNorm.minvals[0], 1.0f);  // the number ends at the point
}

}  // namespace
