// Where a file that does not load is said to be wrong, held against the library's reader.
#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <stdexcept>

#include "analysis/diagnosis/Diagnosis.h"
#include "analysis/diagnosis/TextDiagnosis.h"
#include "layers/Messages.h"
#include "model/ModelFormat.h"
#include "tests/support/ByteImage.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::diagnose;
using mlnn::Misfit;
using mlnn::test::ByteImage;

// A text of each version that loads. Every kind of line is there.
constexpr char kVersion2[] =
    "MultiLayerNNModel_v2\n"
    "softmax 1\n"
    "# first note\n"
    "# NVP hidden_act_fn relu\n"
    "# nn_tune feat_desc "
    "mel_deltas:bands=2,left=0,right=0,deltas=0,line_kernels=0,line_kernel_width=0\n"
    "loss 2\n"
    "0.5\t0.25\n"
    "accuracy 1\n"
    "0.75\n"
    "num_layers 2\n"
    "layer 1 size 3 3\n"
    "act_fn relu\n"
    "0.1\t0.2\t0.3\n"
    "-0.1\t-0.2\t-0.3\n"
    "1\t2\t3\n"
    "batch_norm_layer 2 size 2 3\n"
    "1\t2\t3\n"
    "4\t5\t6\n"
    "gamma_beta\n"
    "1\t0\t1\t0\n"
    "1\t0\t1\t0\n";

constexpr char kVersion1[] =
    "MultiLayerNNModel\n"
    "# a note\n"
    "# nn_tune comment -win_size_left 1\n"
    "num_layers 2\n"
    "layer 1 size 2 3\n"
    "0.1 0.2 0.3\n"
    "0.4 0.5 0.6\n"
    "layer 2 size 1 3\n"
    "1e-3 2 3\n";

bool loads(const std::string& file) {
  const mlnn::CollectedMessages captured;
  std::istringstream in(file);
  MultiLayerNNModel model;
  return model.deserialize(in) == 0;
}

// The text with its first `part` replaced.
std::string with(std::string text, const std::string& part, const std::string& replacement) {
  const std::size_t at = text.find(part);
  if (at == std::string::npos) throw std::invalid_argument("no '" + part + "' in the text");
  return text.replace(at, part.size(), replacement);
}

// What is said of a file, and the hint on a line of its own. It must not load.
std::string saidOf(const std::string& file) {
  EXPECT_FALSE(loads(file)) << file;
  const std::optional<Misfit> misfit = diagnose(file);
  if (!misfit) return "nothing";
  return describe(*misfit) + (misfit->hint.empty() ? "" : "\n" + misfit->hint);
}

std::string saidOf(const char* part, const char* replacement) {
  return saidOf(with(kVersion2, part, replacement));
}

TEST(Diagnosis, findsNothingInFilesThatLoad) {
  for (const std::string& file : {std::string(kVersion2), std::string(kVersion1),
                                  ByteImage::of(mlnn::test::imageModel()).bytes()}) {
    ASSERT_TRUE(loads(file));
    EXPECT_FALSE(diagnose(file));
  }
}

TEST(Diagnosis, saysHowShortAFileIs) {
  EXPECT_EQ(saidOf(""),
            "line 1, column 1: header: expected 4 bytes or more, found the end of the file after 0 "
            "bytes");
  EXPECT_EQ(saidOf("a\nb"),
            "line 2, column 2: header: expected 4 bytes or more, found the end of the file after 3 "
            "bytes");
}

TEST(TextDiagnosis, placesTheHeader) {
  EXPECT_EQ(saidOf("Model_v2", "Model_v3"),
            "line 1, column 1: header: expected 'MultiLayerNNModel_v2' or 'MultiLayerNNModel', "
            "found 'MultiLayerNNModel_v3'");
  EXPECT_EQ(saidOf("v2\n", "v2\r\n"),
            "line 1, column 1: header: expected 'MultiLayerNNModel_v2' or 'MultiLayerNNModel', "
            "found 'MultiLayerNNModel_v2\\r'\n"
            "the line ends in a carriage return; lines end in a line feed alone");
  EXPECT_EQ(saidOf("Multi", "\xef\xbb\xbfMulti"),
            "line 1, column 1: header: expected 'MultiLayerNNModel_v2' or 'MultiLayerNNModel', "
            "found '\\u{feff}MultiLayerNNModel_v2'\n"
            "the file begins with a byte order mark");
  EXPECT_EQ(saidOf("\x1f\x8b\x08\x08"),
            "line 1, column 1: header: expected 'MultiLayerNNModel_v2' or 'MultiLayerNNModel', "
            "found '\\x1f\\x8b\\x08\\x08'\n"
            "the file is compressed (gzip)");
}

TEST(TextDiagnosis, placesTheSoftmaxLine) {
  EXPECT_EQ(saidOf("softmax 1", "  sofmax 1"),
            "line 2, column 3: softmax line: expected 'softmax', found 'sofmax'");
  EXPECT_EQ(saidOf("MultiLayerNNModel_v2\n"),
            "line 2, column 1: softmax line: expected 'softmax', found the end of the file");
}

TEST(TextDiagnosis, placesTheWrongPartOfAFeatureDescription) {
  const std::string form =
      "a description of the form "
      "'mel_deltas:bands=0,left=0,right=0,deltas=0,line_kernels=0,line_kernel_width=0'";
  EXPECT_EQ(
      saidOf("bands=2", "bands=two"),
      "line 5, column 38: feature description: expected " + form +
          ", found 'two,left=0,right=0,deltas=0,line_kernels=0,line_kernel_width' and more in "
          "'mel_deltas:bands=two,left=0,right=0,deltas=0,line_kernels=0,' and more");
  EXPECT_EQ(saidOf("deltas=0", "deltas=2").substr(0, 17), "line 5, column 62");
  EXPECT_EQ(saidOf("kernels=0,line_kernel_width=0", "kernels=0").substr(0, 18),
            "line 5, column 78:");
  EXPECT_EQ(saidOf("width=0\n", "width=0x\n").substr(0, 18), "line 5, column 98:");
  EXPECT_EQ(saidOf("left=0", "left=99999999999").substr(0, 18), "line 5, column 45:");
  EXPECT_EQ(saidOf("# nn_tune feat_desc mel_deltas", "#nn_tunefeat_descmel_deltas"),
            "line 5, column 1: feature description: expected a blank and a description at the end "
            "of the line, found '#nn_tunefeat_descmel_deltas:bands=2,left=0,right=0,deltas=0,' and "
            "more");
}

TEST(TextDiagnosis, placesADescriptionThatDoesNotFitTheInputs) {
  EXPECT_EQ(saidOf("left=0", "left=1"),
            "line 5, column 21: feature description: expected one of 2 values, the inputs of layer "
            "1, found 'mel_deltas:bands=2,left=1,right=0,deltas=0,line_kernels=0,li' and more, "
            "which has 4");
}

TEST(TextDiagnosis, placesCurvesAndCounts) {
  EXPECT_EQ(saidOf("0.25\n", "x\n"),
            "line 7, column 5: loss, value 2: expected a number, found 'x'");
  EXPECT_EQ(saidOf("loss 2", "loss 3"),
            "line 8, column 1: loss, value 3: expected a number, found 'accuracy'");
  EXPECT_EQ(saidOf("loss 2", "loss two"),
            "line 6, column 6: count after 'loss': expected a whole number, found 'two'");
  EXPECT_EQ(saidOf("accuracy 1", "accuracy -1"),
            "line 8, column 10: count after 'accuracy': expected 0 or more, found '-1'");
  EXPECT_EQ(saidOf("num_layers 2", "num_layers 2147483648"),
            "line 10, column 12: count after 'num_layers': expected a whole number, found "
            "'2147483648'");
  EXPECT_EQ(saidOf("num_layers", "layers"),
            "line 10, column 1: keyword: expected 'num_layers', found 'layers'");
  EXPECT_EQ(saidOf("accuracy 1", "loss 1"),
            "line 8, column 1: keyword: expected 'num_layers', found 'loss'\n"
            "each curve stands at most once, and 'loss' before 'accuracy'");
  EXPECT_EQ(saidOf("accuracy 1", " # note\naccuracy 1"),
            "line 8, column 2: keyword: expected 'num_layers', found '#'\n"
            "note lines stand before the curves, with '#' as the first character of the line");
}

TEST(TextDiagnosis, placesEveryPartOfASizeLine) {
  EXPECT_EQ(saidOf("batch_norm_layer 2", "bn_layer 2"),
            "line 16, column 1: layer 2: expected 'layer' or 'batch_norm_layer', found 'bn_layer'");
  EXPECT_EQ(saidOf("batch_norm_layer 2", "# note\nbatch_norm_layer 2"),
            "line 16, column 1: layer 2: expected 'layer' or 'batch_norm_layer', found '#'\n"
            "note lines stand before the curves and the layers");
  EXPECT_EQ(saidOf("layer 1 size", "layer one size"),
            "line 11, column 7: layer 1, number: expected a whole number, found 'one'");
  EXPECT_EQ(saidOf("layer 1 size", "layer 2 size"),
            "line 11, column 7: layer 1, number: expected 1, found '2'");
  EXPECT_EQ(saidOf("layer 1 size", "layer 1 sizes"),
            "line 11, column 9: layer 1: expected 'size', found 'sizes'");
  EXPECT_EQ(
      saidOf("size 3 3", "size 2.5 3"),
      "line 11, column 15: layer 1, number of columns: expected a whole number, found '.5' in "
      "'2.5'");
  EXPECT_EQ(saidOf("size 3 3", "size -3 3"),
            "line 11, column 14: layer 1, number of rows: expected 0 or more, found '-3'");
  EXPECT_EQ(saidOf("size 3 3", "size 3 0"),
            "line 11, column 16: layer 1, number of columns: expected 1 or more, found '0'\n"
            "the bias of a plain layer takes the first column");
}

TEST(TextDiagnosis, placesTheActivation) {
  EXPECT_EQ(saidOf("act_fn relu\n0", "act_fun relu\n0"),
            "line 12, column 1: layer 1, activation: expected 'act_fn', found 'act_fun'");
  EXPECT_EQ(saidOf("act_fn relu\n0", "act_fn  ReLU\n0"),
            "line 12, column 9: layer 1, activation: expected one of linear, sigmoid, tanh, relu, "
            "leaky_relu, elu, softplus, silu, found 'ReLU'");
  EXPECT_EQ(saidOf("act_fn relu\n0", "act_fn\n0"),
            "line 12, column 7: layer 1, activation: expected one of linear, sigmoid, tanh, relu, "
            "leaky_relu, elu, softplus, silu, found the end of the line");
  EXPECT_EQ(saidOf("size 3 3\n", "size 3 3 \n"),
            "line 11, column 17: layer 1, activation: expected 'act_fn', found ' '\n"
            "the size line ends in white space; the activation is then looked for behind it");
  EXPECT_EQ(saidOf("size 3 3\n", "size 3 3\r\n"),
            "line 11, column 17: layer 1, activation: expected 'act_fn', found '\\r'\n"
            "the line ends in a carriage return; lines end in a line feed alone");
}

TEST(TextDiagnosis, placesValues) {
  EXPECT_EQ(saidOf("-0.1\t", "abc\t"),
            "line 14, column 1: layer 1, row 2, bias: expected a number, found 'abc'");
  EXPECT_EQ(
      saidOf("-0.3", "-0,3"),
      "line 14, column 13: layer 1, row 2, weight 2: expected a number, found ',3' in '-0,3'\n"
      "numbers have a decimal point, and stand between blanks, tabs or line feeds");
  EXPECT_EQ(saidOf("4\t5", "nan\t5"),
            "line 18, column 1: layer 2, row 2, weight 1: expected a number, found 'nan'\n"
            "the text format cannot hold values that are not finite");
  EXPECT_EQ(saidOf("4\t5", "-Inf\t5"),
            "line 18, column 1: layer 2, row 2, weight 1: expected a number, found '-Inf'\n"
            "the text format cannot hold values that are not finite");
  EXPECT_EQ(saidOf("4\t5", "4e38\t5"),
            "line 18, column 1: layer 2, row 2, weight 1: expected a number, found '4e38'\n"
            "the number is too large for a 32-bit float");
  EXPECT_EQ(saidOf("1\t0\t1\t0\n", "1\t0\tone\t0\n"),
            "line 20, column 5: layer 2, row 1, gamma_inf: expected a number, found 'one'");
  EXPECT_EQ(saidOf(with(kVersion1, "0.5", "0.5\x1b[31m")),
            "line 7, column 8: layer 1, row 2, weight 1: expected a number, found '\\x1b[31m' in "
            "'0.5\\x1b[31m'");
}

// The reader goes on over line ends, and stumbles far from the cause.
TEST(TextDiagnosis, namesTheRowThatIsTooShortOrTooLong) {
  EXPECT_EQ(saidOf("-0.1\t-0.2\t-0.3\n", "-0.1\t-0.2\n"),
            "line 16, column 1: layer 1, row 3, weight 2: expected a number, found "
            "'batch_norm_layer'\n"
            "line 14 holds 2 values, and a row of layer 1 has 3");
  EXPECT_EQ(saidOf("-0.1\t-0.2\t-0.3\n", "-0.1\t-0.2\t-0.3\t-0.4\n"),
            "line 15, column 5: layer 2: expected 'layer' or 'batch_norm_layer', found '3'\n"
            "line 14 holds 4 values, and a row of layer 1 has 3");
  EXPECT_EQ(saidOf("1\t0\t1\t0\n", "1\t0\t1\n"),
            "line 22, column 1: layer 2, row 2, beta_inf: expected a number, found the end of the "
            "file\n"
            "line 20 holds 3 values, and a row of layer 2 has 4");
}

TEST(TextDiagnosis, placesTheMarkerAfterTheWeights) {
  EXPECT_EQ(saidOf("gamma_beta\n", "gamma_beta \n"),
            "line 19, column 1: layer 2, line after the weights: expected 'gamma_beta', found "
            "'gamma_beta '");
}

TEST(TextDiagnosis, placesTheEnd) {
  const std::string whole = kVersion2;
  EXPECT_EQ(saidOf(whole.substr(0, whole.size() - 1)),
            "line 21, column 8: end of the file: expected white space after the last value, found "
            "the end of the file\n"
            "the last line needs a line feed");
  EXPECT_EQ(saidOf(whole + "layer 3\n"),
            "line 22, column 1: end of the file: expected the end of the file after 2 layers, "
            "found 'layer'");
  EXPECT_EQ(saidOf(whole.substr(0, whole.find("batch_norm"))),
            "line 16, column 1: layer 2: expected 'layer' or 'batch_norm_layer', found the end of "
            "the file");
  EXPECT_EQ(saidOf(whole.substr(0, whole.find("\nbatch_norm"))),
            "line 15, column 6: layer 2: expected 'layer' or 'batch_norm_layer', found the end of "
            "the file");
}

// Sizes that no file could hold cost nothing: the first value that is missing ends the walk.
TEST(TextDiagnosis, doesNotTrustSizes) {
  EXPECT_EQ(saidOf("layer 1 size 3 3", "layer 1 size 2147483647 2147483647").substr(0, 17),
            "line 16, column 1");
  EXPECT_EQ(saidOf("num_layers 2", "num_layers 2147483647"),
            "line 22, column 1: layer 3: expected 'layer' or 'batch_norm_layer', found the end of "
            "the file");
}

// --- Images ---

ByteImage image() { return ByteImage::of(mlnn::test::imageModel()); }

// Records of imageModel: 4 -> 3 plain, 3 -> 5 batch norm, 5 -> 2 folded.
constexpr std::size_t kLayer1 = mlnn::kHeadLength;
constexpr std::size_t kLayer2 = kLayer1 + 40 + 4 * (12 + 3);
constexpr std::size_t kLayer3 = kLayer2 + 40 + 4 * (15 + 5 * 5);

TEST(ImageDiagnosis, placesTheHead) {
  EXPECT_EQ(saidOf("MLNN"),
            "byte 4: checksum: expected 4 bytes, found the end of the file after 4 bytes\n"
            "the head of an image takes 1004 bytes");
  EXPECT_EQ(saidOf(image().truncateTo(600).bytes()),
            "byte 520: normvals: expected 480 bytes, found the end of the file after 600 bytes\n"
            "the head of an image takes 1004 bytes");
  EXPECT_EQ(saidOf(image().setInt32At(8, 24).bytes()),
            "byte 8: length of the feature description: expected 20, found 24");
  EXPECT_EQ(saidOf(image().setInt32At(32, 0).bytes()),
            "byte 32: number of minvals: expected 120, found 0");
  EXPECT_EQ(saidOf(image().setInt32At(516, -1).bytes()),
            "byte 516: number of normvals: expected 120, found -1");
  EXPECT_EQ(saidOf(image().setInt32At(1000, -1).bytes()),
            "byte 1000: number of layers: expected 0 or more, found -1");
  EXPECT_EQ(saidOf(image().setInt32At(1000, 1 << 20).bytes()),
            "byte 1000: number of layers: expected at most 10, found 1048576\n"
            "the image has 420 bytes for layer records, and none is shorter than 40 bytes");
}

TEST(ImageDiagnosis, placesEveryWordOfARecordHead) {
  EXPECT_EQ(saidOf(image().setInt32At(kLayer2, 7).bytes()),
            "byte 1104: layer 2, form of the weights: expected 0 to 4, found 7");
  EXPECT_EQ(saidOf(image().setInt32At(kLayer2 + 4, -5).bytes()),
            "byte 1108: layer 2, number of outputs: expected 0 or more, found -5");
  EXPECT_EQ(saidOf(image().setInt32At(kLayer2 + 8, -5).bytes()),
            "byte 1112: layer 2, number of inputs: expected 0 or more, found -5");
  EXPECT_EQ(saidOf(image().setInt32At(kLayer2 + 12, 8).bytes()),
            "byte 1116: layer 2, activation: expected a code from 0 to 7, found 8");
  EXPECT_EQ(saidOf(image().setInt32At(kLayer2 + 16, 2).bytes()),
            "byte 1120: layer 2, batch-norm flag: expected 0 or 1, found 2");
  EXPECT_EQ(saidOf(image().setInt32At(kLayer2 + 20, 4).bytes()),
            "byte 1124: layer 2, length of bias: expected 0 or 5, the number of outputs, found 4");
  EXPECT_EQ(saidOf(image().setInt32At(kLayer2 + 32, 0).bytes()),
            "byte 1136: layer 2, length of gamma_inf: expected 5, the number of outputs, found 0");
  EXPECT_EQ(saidOf(image().setInt32At(kLayer1 + 20, 0).bytes()),
            "byte 1024: layer 1, length of bias: expected 3, the number of outputs, found 0");
}

TEST(ImageDiagnosis, placesWhereAnImageIsCutShort) {
  EXPECT_EQ(
      saidOf(image().truncateTo(kLayer3 + 12).bytes()),
      "byte 1304: layer 3, record head: expected 40 bytes, found the end of the file after 12 "
      "bytes");
  EXPECT_EQ(saidOf(image().truncateTo(kLayer3 + 60).bytes()),
            "byte 1344: layer 3, weights (2 x 5): expected 40 bytes, found the end of the file "
            "after 20 bytes\n"
            "the image is cut short, or the sizes at byte 1308 are wrong");
  EXPECT_EQ(saidOf(image().truncateTo(image().size() - 1).bytes()),
            "byte 1416: layer 3, beta_inf: expected 8 bytes, found the end of the file after 7 "
            "bytes\n"
            "the image is cut short, or the sizes at byte 1308 are wrong");
  EXPECT_EQ(saidOf(image().truncateTo(kLayer3).bytes()),
            "byte 1304: layer 3: expected a layer record, found the end of the file\n"
            "the head announces 3 layers (byte 1000), the image holds 2");
}

TEST(ImageDiagnosis, placesWhatIsWrongWithCodedWeights) {
  MultiLayerNNModel model = mlnn::test::modelOf({mlnn::test::fewValuesLayer(12, 2, 3)});
  model.deltasNorm.allocIfNeeded();
  const ByteImage coded = ByteImage::of(model);  // head, 8 + 12 + 12 bytes of weights, bias
  const auto changed = [&coded](std::size_t offset, int32_t value) {
    return saidOf(ByteImage(coded).setInt32At(offset, value).bytes());
  };
  EXPECT_EQ(changed(kLayer1 + 40, 17),
            "byte 1044: layer 1, number of values in the table: expected 1 to 16, found 17");
  EXPECT_EQ(changed(kLayer1, 1),
            "byte 1044: layer 1, coded weights and vectors: expected codes for 2 x 12 weights, "
            "and 8 bytes of vectors, found the end of the file after 40 bytes\n"
            "the image is cut short, or the sizes at byte 1008 are wrong");
  EXPECT_EQ(changed(kLayer1, 0),
            "byte 1044: layer 1, weights (2 x 12): expected 96 bytes, found the end of the file "
            "after 40 bytes\n"
            "the image is cut short, or the sizes at byte 1008 are wrong");
  EXPECT_EQ(changed(kLayer1 + 48, -1),
            "byte 1044: layer 1, coded weights: expected a table of ascending values, codes that "
            "use each of them, and no shorter form, found another one");
  EXPECT_EQ(saidOf(ByteImage(coded).truncateTo(kLayer1 + 44).bytes()),
            "byte 1044: layer 1, coded weights: expected 8 bytes, found the end of the file after "
            "4 bytes");
  EXPECT_EQ(saidOf(ByteImage(coded).truncateTo(kLayer1 + 70).bytes()),
            "byte 1044: layer 1, coded weights and vectors: expected codes for 2 x 12 weights, "
            "and 8 bytes of vectors, found the end of the file after 30 bytes\n"
            "the image is cut short, or the sizes at byte 1008 are wrong");
}

// An image of one layer with 18 rows of 5 weights by rows: the codes 1, -3, 2, 0 and `largest`
// times 0.5. So 18 scales stand at byte 1044, and blocks of `largest` > 7 ? 64 : 32 bytes at byte
// 1116.
ByteImage rowCodes(int largest) {
  NNLayer layer = mlnn::test::plainLayer(5, 18);
  for (Eigen::Index r = 0; r < 18; ++r) layer.weights.row(r) << 1, -3, 2, 0, float(largest);
  layer.weights *= 0.5f;
  for (Eigen::Index r = 0; r < 18; ++r) {
    layer.weights.row(r) *= 1 + float(r) / 64;  // so that a table would be longer
  }
  MultiLayerNNModel model = mlnn::test::modelOf({layer});
  model.deltasNorm.allocIfNeeded();
  const ByteImage image = ByteImage::of(model);
  EXPECT_EQ(image.int32At(kLayer1), largest > 7 ? 3 : 4);
  return image;
}

constexpr std::size_t kScales = kLayer1 + 40;
constexpr std::size_t kCodes = kScales + 4 * 18;

// What is said of the image with another byte.
std::string saidWith(ByteImage image, std::size_t offset, unsigned char byte) {
  return saidOf(image.setByteAt(offset, byte).bytes());
}

TEST(ImageDiagnosis, placesScalesThatAreNone) {
  const std::string expected = "expected a number greater than 0, or 0 for a row of zeros, found ";
  for (const auto& [bits, found] :
       {std::pair(0x7FC00000, "nan"), std::pair(0x7F800000, "inf"),
        std::pair(int32_t(0x80000000u), "-0"), std::pair(int32_t(0xBF000000u), "-0.5")}) {
    for (const int largest : {7, 100}) {
      EXPECT_EQ(saidOf(rowCodes(largest).setInt32At(kScales + 8, bits).bytes()),
                "byte 1052: layer 1, scale of row 3: " + expected + found);
    }
  }
}

TEST(ImageDiagnosis, placesScalesThatDoNotFitTheirCodes) {
  EXPECT_EQ(saidOf(rowCodes(100).setInt32At(kScales, 0).bytes()),
            "byte 1044: layer 1, scale of row 1: expected a number greater than 0, since not all "
            "codes of the row are 0, found 0");
  EXPECT_EQ(saidOf(rowCodes(100).setInt32At(kScales, 0x3F000001).bytes()),
            "byte 1044: layer 1, scale of row 1: expected one that gives a float with each code of "
            "the row, found 0.50000006");
  EXPECT_EQ(saidOf(rowCodes(100).setInt32At(kScales, 0x7F7FFF80).bytes()),
            "byte 1044: layer 1, scale of row 1: expected one that gives a float with each code of "
            "the row, found 3.40279771e+38");
  // The first row's codes all 0, and then twice as large.
  ByteImage image = rowCodes(100);
  const unsigned char zeros[] = {128, 128, 128, 128};
  const unsigned char doubled[] = {130, 122, 132, 128};
  for (std::size_t i = 0; i < 4; ++i) image.setByteAt(kCodes + i, zeros[i]);
  image.setByteAt(kCodes + 64, 128);
  EXPECT_EQ(saidOf(image.bytes()),
            "byte 1044: layer 1, scale of row 1: expected 0, since all codes of the row are 0, "
            "found 0.5");
  for (std::size_t i = 0; i < 4; ++i) image.setByteAt(kCodes + i, doubled[i]);
  EXPECT_EQ(saidOf(image.bytes()),
            "byte 1044: layer 1, scale of row 1: expected the largest one that the row can have, "
            "found 0.5, where all codes are multiples of 2");
}

TEST(ImageDiagnosis, placesCodesBeyondTheirRange) {
  EXPECT_EQ(saidWith(rowCodes(100), kCodes + 4 + 1, 0),
            "byte 1121: layer 1, code of row 2, column 2: expected -127 to 127, found -128");
  EXPECT_EQ(saidWith(rowCodes(7), kCodes + 4 + 1, 0x80),
            "byte 1121: layer 1, code of row 2, column 2: expected -7 to 7, found -8");
  EXPECT_EQ(saidWith(rowCodes(7), kCodes + 4 + 1, 0x08),
            "byte 1121: layer 1, code of row 10, column 2: expected -7 to 7, found -8");
}

TEST(ImageDiagnosis, placesCodesThatOnlyFillUp) {
  EXPECT_EQ(saidWith(rowCodes(100), kCodes + 64 + 3, 129),
            "byte 1183: layer 1, code of row 1, column 8: expected 0, behind the last row or "
            "column, found 1");
  EXPECT_EQ(saidWith(rowCodes(7), kCodes + 2 * 32 + 8, 0x80 | 0x9),
            "byte 1188: layer 1, code of row 19, column 1: expected 0, behind the last row or "
            "column, found 1");
}

TEST(ImageDiagnosis, placesRowCodesWhereAnotherFormIsShorter) {
  ByteImage image = rowCodes(100);
  for (std::size_t row = 0; row < 18; ++row) {
    const std::size_t panel = row / 16 * 2 * 64;
    image.setByteAt(kCodes + panel + 64 + 4 * (row % 16), 128 + 7);
  }
  EXPECT_EQ(saidOf(image.bytes()),
            "byte 1004: layer 1, form of the weights: expected the one that takes the fewest bytes "
            "for these weights, found a longer one");
  EXPECT_EQ(saidOf(rowCodes(7).setInt32At(kLayer1 + 8, 0).bytes()),
            "byte 1004: layer 1, form of the weights: expected 0, since there are no weights, "
            "found 4");
}

TEST(ImageDiagnosis, placesRowCodesThatAreCutShort) {
  const ByteImage whole = rowCodes(100);
  EXPECT_EQ(saidOf(ByteImage(whole).truncateTo(kCodes + 10).bytes()),
            "byte 1044: layer 1, coded weights and vectors: expected codes for 18 x 5 weights, and "
            "72 bytes of vectors, found the end of the file after 82 bytes\n"
            "the image is cut short, or the sizes at byte 1008 are wrong");
}

TEST(ImageDiagnosis, placesFloatsWhereCodesWouldDo) {
  ByteImage floats = image();  // the first layer, 12 weights
  for (std::size_t i = 0; i < 12; ++i) floats.setInt32At(kLayer1 + 40 + 4 * i, 0);
  EXPECT_EQ(saidOf(floats.bytes()),
            "byte 1004: layer 1, form of the weights: expected codes, which take fewer bytes for "
            "weights of so few different values, found floats");
}

TEST(ImageDiagnosis, placesWhatIsLeftOver) {
  EXPECT_EQ(saidOf(image().append("xyz").bytes()),
            "byte 1424: end of the image: expected the end of the file after 3 layers, found 3 "
            "bytes more");
  EXPECT_EQ(
      saidOf(image().setInt32At(1000, 2).bytes()),
      "byte 1304: end of the image: expected the end of the file after 2 layers, found 120 "
      "bytes more\n"
      "these bytes begin with a further layer record: the number of layers (byte 1000) may be "
      "too small");
}

TEST(ImageDiagnosis, placesAChecksumThatDoesNotMatch) {
  ByteImage changed = image();
  const uint32_t right = changed.uint32At(4);
  changed.setInt32At(4, 77);
  EXPECT_EQ(saidOf(changed.bytes()),
            "byte 4: checksum: expected " + std::to_string(right) +
                ", the sum over the layers, found 77\n"
                "some byte of a layer record, or of the checksum itself, was changed");
}

// An image may announce up to 1023 layers more than it has room for, which are then empty; only
// the checksum says that this was not meant.
TEST(ImageDiagnosis, agreesWithTheReaderOnMissingLayers) {
  constexpr int kMost = 1023;
  ByteImage empty = ByteImage(image().bytes()).truncateTo(mlnn::kHeadLength);
  for (const int layers : {kMost, kMost + 1}) {
    const uint32_t checksum = static_cast<uint32_t>(layers) * (1 + NNLayer().checksum());
    empty.setInt32At(1000, layers).setInt32At(4, static_cast<int32_t>(checksum));
    EXPECT_EQ(loads(empty.bytes()), layers == kMost);
    EXPECT_EQ(diagnose(empty.bytes()).has_value(), layers != kMost);
  }
}

// --- All that can happen to a file ---

// Damages files in the ways in which files are damaged, and in some that nobody thought of.
class Mutation {
 public:
  explicit Mutation(uint32_t seed) : random_(seed) {}

  std::string of(std::string file) {
    for (std::size_t n = 1 + below(3); n > 0; --n) once(file);
    return file;
  }

 private:
  std::size_t below(std::size_t limit) { return limit == 0 ? 0 : random_() % limit; }

  void once(std::string& file) {
    const std::size_t at = below(file.size() + 1);
    switch (below(7)) {
      case 0:
        file.resize(at);
        break;
      case 1:
        if (at < file.size()) file[at] = static_cast<char>(random_());
        break;
      case 2:
        if (at < file.size()) file[at] = static_cast<char>(file[at] ^ (1 << below(8)));
        break;
      case 3:
        file.erase(at, 1 + below(8));
        break;
      case 4:
        file.insert(at, kPieces[below(std::size(kPieces))]);
        break;
      case 5:
        replaceWord(file, at, kPieces[below(std::size(kPieces))]);
        break;
      default:
        file.insert(below(file.size() + 1), file.substr(at, 1 + below(40)));
        break;
    }
  }

  static void replaceWord(std::string& file, std::size_t at, const std::string& word) {
    const std::size_t begin = std::min(file.find_first_not_of(" \t\n", at), file.size());
    const std::size_t end = std::min(file.find_first_of(" \t\n", begin), file.size());
    file.replace(begin, end - begin, word);
  }

  static constexpr const char* kPieces[] = {
      " ",     "\n",   "\t",        "\r",        "#",         "# ",         "-",
      ".",     ",",    "0",         "1",         "-1",        "2147483648", "1e39",
      "1e-50", "nan",  "inf",       "0x10",      "1.5.2",     "1e",         "layer",
      "size",  "loss", "accuracy",  "softmax",   "act_fn",    "gamma_beta", "num_layers",
      "relu",  "\xff", "# NVP a b", "feat_desc", "# nn_tune", "\v",         "batch_norm_layer"};

  std::mt19937 random_;
};

// Line, column and offset must say the same, and must lie in the file.
void expectPlaceInside(const std::string& file, const Misfit& misfit) {
  ASSERT_LE(misfit.offset, file.size());
  EXPECT_FALSE(misfit.field.empty());
  EXPECT_FALSE(misfit.expected.empty());
  EXPECT_FALSE(misfit.found.empty());
  if (misfit.line == 0) return;
  std::size_t begin = 0;
  for (std::size_t line = 1; line < misfit.line; ++line) begin = file.find('\n', begin) + 1;
  EXPECT_EQ(begin + misfit.column - 1, misfit.offset);
}

// Returns how many of the mutated files load.
int expectAgreement(const std::string& file, uint32_t firstSeed, int times) {
  int loaded = 0;
  for (int i = 0; i < times; ++i) {
    const std::string mutated = Mutation(firstSeed + static_cast<uint32_t>(i)).of(file);
    const bool accepted = loads(mutated);
    const std::optional<Misfit> misfit = diagnose(mutated);
    loaded += accepted ? 1 : 0;
    EXPECT_EQ(accepted, !misfit) << (misfit ? describe(*misfit) : "") << "\n" << mutated;
    if (misfit) expectPlaceInside(mutated, *misfit);
    if (::testing::Test::HasFailure()) break;
  }
  return loaded;
}

TEST(Diagnosis, namesAPlaceExactlyWhereTheReaderRefuses) {
  constexpr int kTimes = 6000;
  // Some mutations are harmless, most are not: both sides are exercised.
  for (const char* text : {kVersion1, kVersion2}) {
    const int loaded = expectAgreement(text, 1, kTimes);
    EXPECT_GT(loaded, kTimes / 50);
    EXPECT_LT(loaded, kTimes / 2);
  }
  const int loaded = expectAgreement(image().bytes(), 1, kTimes);
  EXPECT_GT(loaded, kTimes / 50);
  EXPECT_LT(loaded, kTimes / 2);
}

// Puts the checksum right where the records can be read.
void fixChecksumIfPossible(ByteImage& image) {
  try {
    image.fixChecksum();
  } catch (const std::invalid_argument&) {
  }
}

// Behind a checksum that was put right, the structure alone decides.
TEST(Diagnosis, namesAPlaceInImagesWithARightChecksum) {
  std::mt19937 random(5);
  int loaded = 0;
  for (int i = 0; i < 3000; ++i) {
    ByteImage mutated = image();
    const std::size_t word = mlnn::kLayerCountOffset / 4 + random() % 60;
    mutated.setInt32At(4 * word, static_cast<int32_t>(random() % 6) - 1);
    fixChecksumIfPossible(mutated);
    const bool accepted = loads(mutated.bytes());
    loaded += accepted ? 1 : 0;
    const std::optional<Misfit> misfit = diagnose(mutated.bytes());
    ASSERT_EQ(accepted, !misfit) << "word " << word;
    if (misfit) expectPlaceInside(mutated.bytes(), *misfit);
  }
  EXPECT_GT(loaded, 100);
}

}  // namespace
