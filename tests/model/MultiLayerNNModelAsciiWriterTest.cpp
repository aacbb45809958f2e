#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iomanip>
#include <locale>
#include <random>
#include <sstream>
#include <streambuf>
#include <string>
#include <utility>
#include <vector>

#include "model/MultiLayerNNModel.h"
#include "tests/support/AllocationWatch.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/ModelDifference.h"

namespace {

using mlnn::test::AllocationWatch;
using mlnn::test::firstDifference;
using mlnn::test::stderrOf;

using Prepare = std::function<void(std::ostream&)>;

// What the model is written as, to a stream that `prepare` has set up. The writer prints
// nothing and always returns 0.
std::string written(
    const MultiLayerNNModel& model, const Prepare& prepare = [](std::ostream&) {}) {
  std::ostringstream out;
  prepare(out);
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(model.serializeAscii(out), 0); }), "");
  return out.str();
}

NNLayer* plainLayer(const Eigen::VectorXf& bias, const Eigen::MatrixXf& weights,
                    ActFn::ActFn actFn = ActFn::linear) {
  auto* layer = new NNLayer();
  layer->bias = bias;
  layer->weights = weights;
  layer->actFn = actFn;
  return layer;
}

NNLayer* plainLayer(float bias) {
  return plainLayer(Eigen::VectorXf::Constant(1, bias), Eigen::MatrixXf(1, 0));
}

NNLayer* batchNormLayer() {
  auto* layer = new NNLayer(2, 2, true);
  layer->weights << 1, 2, 3, 4;
  layer->gamma << 5, 9;
  layer->beta << 6, 10;
  layer->gamma_inf << 7, 11;
  layer->beta_inf << 8, 12;
  layer->bias << 98, 99;
  layer->actFn = ActFn::relu;
  return layer;
}

const std::string kHead = "MultiLayerNNModel_v2\nsoftmax 1\n";

TEST(MultiLayerNNModelAsciiWriter, writesThreeLinesForANewModel) {
  MultiLayerNNModel model;
  EXPECT_EQ(written(model), "MultiLayerNNModel_v2\nsoftmax 1\nnum_layers 0\n");
  model.useSoftmax = false;
  EXPECT_EQ(written(model), "MultiLayerNNModel_v2\nsoftmax 0\nnum_layers 0\n");
}

TEST(MultiLayerNNModelAsciiWriter, writesNotesAsTheyAreStored) {
  MultiLayerNNModel model;
  model.notes.lines = {"b", "", "#a", "# sign", "nn_tune feat_desc x", " blanks \t"};
  EXPECT_EQ(
      written(model),
      kHead + "# b\n# \n# #a\n# # sign\n# nn_tune feat_desc x\n#  blanks \t\n" + "num_layers 0\n");
}

TEST(MultiLayerNNModelAsciiWriter, writesNotesOfAnyLength) {
  MultiLayerNNModel model;
  for (const std::size_t length : {8191u, 8192u, 8193u, 100000u}) {
    const std::string note(length, 'n');
    model.notes.lines = {"before", note, "behind"};
    EXPECT_EQ(written(model), kHead + "# before\n# " + note + "\n# behind\nnum_layers 0\n");
  }
}

TEST(MultiLayerNNModelAsciiWriter, widthIsForTheFirstWordAsStreamsHaveIt) {
  MultiLayerNNModel model;
  model.loss = {0.5f};
  EXPECT_EQ(written(model, [](std::ostream& out) { out.width(25); }),
            "     " + kHead + "loss 1\n0.5\nnum_layers 0\n");
}

TEST(MultiLayerNNModelAsciiWriter, writesPropertiesAfterTheNotesInKeyOrder) {
  MultiLayerNNModel model;
  model.notes.lines = {"note"};
  stderrOf([&] {
    for (const char* key : {"b", "a", "B", "ab", "", "\xff"}) model.setProp(key, "one two");
    model.setProp("c", "");
  });
  EXPECT_EQ(written(model), kHead + "# note\n# NVP  one two\n# NVP B one two\n# NVP a one two\n" +
                                "# NVP ab one two\n# NVP b one two\n# NVP c \n" +
                                "# NVP \xff one two\nnum_layers 0\n");
}

TEST(MultiLayerNNModelAsciiWriter, writesCurves) {
  MultiLayerNNModel model;
  model.loss = {0.5f};
  EXPECT_EQ(written(model), kHead + "loss 1\n0.5\nnum_layers 0\n");
  model.loss = {0.5f, 1.5f, -2.0f};
  model.accuracy = {0.25f, 1.0f};
  EXPECT_EQ(written(model), kHead + "loss 3\n0.5\t1.5\t-2\naccuracy 2\n0.25\t1\nnum_layers 0\n");
  model.loss.clear();
  EXPECT_EQ(written(model), kHead + "accuracy 2\n0.25\t1\nnum_layers 0\n");
}

TEST(MultiLayerNNModelAsciiWriter, writesPlainLayersWithTheBiasFirst) {
  MultiLayerNNModel model;
  Eigen::MatrixXf weights(2, 3);
  weights << 2, 3, 4, 6, 7, 8;
  model.layers = {plainLayer(Eigen::Vector2f(1, 5), weights, ActFn::leaky_relu)};
  EXPECT_EQ(written(model), kHead + "num_layers 1\nlayer 1 size 2 4\nact_fn leaky_relu\n" +
                                "1\t2\t3\t4\n5\t6\t7\t8\n");
}

TEST(MultiLayerNNModelAsciiWriter, writesEveryActivationByItsKeyword) {
  const std::vector<std::pair<ActFn::ActFn, std::string>> keywords = {
      {ActFn::linear, "linear"},
      {ActFn::sigmoid, "sigmoid"},
      {ActFn::tanh, "tanh"},
      {ActFn::relu, "relu"},
      {ActFn::leaky_relu, "leaky_relu"},
      {ActFn::elu, "elu"},
      {ActFn::softplus, "softplus"},
      {ActFn::silu, "silu"}};
  for (const auto& [actFn, keyword] : keywords) {
    MultiLayerNNModel model;
    model.layers = {plainLayer(1.0f)};
    model.layers[0]->actFn = actFn;
    EXPECT_EQ(written(model),
              kHead + "num_layers 1\nlayer 1 size 1 1\nact_fn " + keyword + "\n1\n");
  }
}

TEST(MultiLayerNNModelAsciiWriter, writesBatchNormLayersAndCountsAllLayersAlike) {
  MultiLayerNNModel model;
  model.layers = {plainLayer(1.0f), plainLayer(2.0f), batchNormLayer()};
  EXPECT_EQ(written(model), kHead + "num_layers 3\nlayer 1 size 1 1\nact_fn linear\n1\n" +
                                "layer 2 size 1 1\nact_fn linear\n2\n" +
                                "batch_norm_layer 3 size 2 2\n1\t2\n3\t4\ngamma_beta\n" +
                                "5\t6\t7\t8\n9\t10\t11\t12\n");
}

TEST(MultiLayerNNModelAsciiWriter, writesAFoldedLayerAsAPlainOne) {
  MultiLayerNNModel model;
  model.layers = {batchNormLayer()};
  model.layers[0]->isBatchNorm = false;
  EXPECT_EQ(written(model),
            kHead + "num_layers 1\nlayer 1 size 2 3\nact_fn relu\n98\t1\t2\n99\t3\t4\n");
}

TEST(MultiLayerNNModelAsciiWriter, writesEmptyDimensions) {
  MultiLayerNNModel model;
  model.layers = {new NNLayer(0, 2, false), new NNLayer(3, 0, false), new NNLayer(0, 2, true),
                  new NNLayer(3, 0, true), new NNLayer()};
  EXPECT_EQ(written(model),
            kHead + "num_layers 5\nlayer 1 size 2 1\nact_fn linear\n0\n0\n" +
                "layer 2 size 0 4\nact_fn linear\n" +
                "batch_norm_layer 3 size 2 0\n0\n0\ngamma_beta\n" + "0\t0\t0\t0\n0\t0\t0\t0\n" +
                "batch_norm_layer 4 size 0 3\ngamma_beta\n" + "layer 5 size 0 1\nact_fn linear\n");
}

TEST(MultiLayerNNModelAsciiWriter, writesAMissingLayerAsAnEmptyOne) {
  MultiLayerNNModel model;
  model.layers = {nullptr, plainLayer(1.0f)};
  EXPECT_EQ(written(model), kHead + "num_layers 2\nlayer 1 size 0 1\nact_fn linear\n" +
                                "layer 2 size 1 1\nact_fn linear\n1\n");
}

TEST(MultiLayerNNModelAsciiWriter, writesSixDigitsUnlessTold) {
  const std::vector<std::pair<float, std::string>> values = {
      {0.5f, "0.5"},          {1e-7f, "1e-07"},       {123456789.0f, "1.23457e+08"},
      {0.1f, "0.1"},          {1.0f / 3, "0.333333"}, {-0.0f, "-0"},
      {1e30f, "1e+30"},       {999999.5f, "1e+06"},   {100000.0f, "100000"},
      {std::nanf(""), "nan"}, {INFINITY, "inf"},      {-INFINITY, "-inf"}};
  for (const auto& [value, digits] : values) {
    MultiLayerNNModel model;
    model.layers = {plainLayer(value)};
    model.loss = {value, value};
    EXPECT_EQ(written(model), kHead + "loss 2\n" + digits + "\t" + digits +
                                  "\nnum_layers 1\nlayer 1 size 1 1\nact_fn linear\n" + digits +
                                  "\n");
  }
}

// The text of a model that holds the same value everywhere, which is written as `value`.
std::string allOf(const std::string& value) {
  std::string curve = value;
  for (int i = 1; i < 12; ++i) curve += "\t" + value;
  const std::string four = value + "\t" + value + "\t" + value + "\t" + value;
  return kHead + "loss 12\n" + curve + "\nnum_layers 1\nbatch_norm_layer 1 size 1 1\n" + value +
         "\ngamma_beta\n" + four + "\n";
}

class CommaNumbers : public std::numpunct<char> {
 protected:
  char do_decimal_point() const override { return ','; }
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

TEST(MultiLayerNNModelAsciiWriter, valuesFollowTheStreamAndIntegersDoNot) {
  const std::vector<std::pair<Prepare, std::string>> cases = {
      {[](std::ostream&) {}, "1234.57"},
      {[](std::ostream& out) { out.precision(9); }, "1234.56702"},
      {[](std::ostream& out) { out << std::scientific << std::setprecision(2); }, "1.23e+03"},
      {[](std::ostream& out) { out << std::fixed << std::setprecision(1); }, "1234.6"},
      {[](std::ostream& out) { out << std::hexfloat; }, "0x1.34a44ap+10"},
      {[](std::ostream& out) { out << std::showpos; }, "+1234.57"},
      {[](std::ostream& out) { out << std::showpoint << std::setprecision(8); }, "1234.5670"},
      {[](std::ostream& out) { out << std::hex << std::showbase; }, "1234.57"},
      {[](std::ostream& out) { out << std::oct << std::boolalpha; }, "1234.57"},
      {[](std::ostream& out) { out << std::uppercase << std::scientific; }, "1.234567E+03"},
      {[](std::ostream& out) { out.imbue(std::locale(out.getloc(), new CommaNumbers)); },
       "1.234,57"},
  };
  MultiLayerNNModel model;
  model.loss.assign(12, 1234.567f);
  model.layers = {new NNLayer(1, 1, true)};
  NNLayer& layer = *model.layers[0];
  for (auto* values : {&layer.gamma, &layer.beta, &layer.gamma_inf, &layer.beta_inf}) {
    values->setConstant(1234.567f);
  }
  layer.weights.setConstant(1234.567f);
  for (const auto& [prepare, value] : cases) EXPECT_EQ(written(model, prepare), allOf(value));
}

// Floats of any bits, and those whose text is decided by rounding or carries into a new digit.
std::vector<float> assortedFloats() {
  std::vector<float> values = {0.0f,      -0.0f,    FLT_MAX,   -FLT_MAX,       FLT_MIN,
                               1e-45f,    INFINITY, -INFINITY, 9.9999995f,     99999.95f,
                               999999.5f, 0.00001f, 0.0001f,   0.00009999995f, 0.5f,
                               1.5f,      2.5f,     1e9f,      123456792.0f,   std::nanf("")};
  std::mt19937 source(11);
  for (int i = 0; i < 3000; ++i) {
    const auto bits = static_cast<uint32_t>(source());
    float value;
    std::memcpy(&value, &bits, sizeof value);
    values.push_back(value);
    values.push_back(static_cast<float>(static_cast<int>(bits % 20000001) - 10000000) / 1000.0f);
  }
  return values;
}

std::vector<Prepare> assortedFormats() {
  std::vector<Prepare> formats;
  std::vector<int> precisions = {64, 65, 100};
  for (int precision = -1; precision <= 20; ++precision) precisions.push_back(precision);
  for (const int precision : precisions) {
    formats.push_back([precision](std::ostream& out) { out.precision(precision); });
  }
  const std::vector<Prepare> manipulations = {
      [](std::ostream& out) { out << std::fixed; },
      [](std::ostream& out) { out << std::scientific; },
      [](std::ostream& out) { out << std::hexfloat; },
      [](std::ostream& out) { out << std::showpos; },
      [](std::ostream& out) { out << std::showpoint; },
      [](std::ostream& out) { out << std::uppercase; },
      [](std::ostream& out) { out << std::hex << std::showbase << std::internal << std::left; },
      [](std::ostream& out) { out << std::unitbuf; },
      [](std::ostream& out) { out.imbue(std::locale(out.getloc(), new CommaNumbers)); },
  };
  for (const int precision : {0, 6, 9}) {
    for (const Prepare& manipulation : manipulations) {
      formats.push_back([precision, manipulation](std::ostream& out) {
        out.precision(precision);
        manipulation(out);
      });
    }
  }
  return formats;
}

// The C library behind a stream may lose the sign of what is no number.
bool streamHasItsSign(float value) {
  if (!std::isnan(value) || !std::signbit(value)) return true;
  std::ostringstream text;
  text << value;
  return text.str() == "-nan";
}

TEST(MultiLayerNNModelAsciiWriter, everyValueIsWhatTheStreamMakesOfIt) {
  MultiLayerNNModel model;
  for (const float value : assortedFloats()) {
    if (streamHasItsSign(value)) model.loss.push_back(value);
  }
  ASSERT_GT(model.loss.size(), 6000u);
  for (const Prepare& prepare : assortedFormats()) {
    std::ostringstream expected;
    prepare(expected);
    const char* separator = "";
    for (const float value : model.loss) {
      expected << separator << static_cast<double>(value);
      separator = "\t";
    }
    const std::string head = kHead + "loss " + std::to_string(model.loss.size()) + "\n";
    EXPECT_EQ(written(model, prepare), head + expected.str() + "\nnum_layers 0\n");
  }
}

TEST(MultiLayerNNModelAsciiWriter, groupsNoIntegerOfFourDigitsOrMore) {
  MultiLayerNNModel model;
  model.layers = {new NNLayer(1233, 0, false), new NNLayer(1234567, 0, true)};
  const std::string text = written(model, [](std::ostream& out) {
    out.imbue(std::locale(out.getloc(), new CommaNumbers));
    out << std::showpos << std::hex;
  });
  EXPECT_EQ(text, kHead + "num_layers 2\nlayer 1 size 0 1234\nact_fn linear\n" +
                      "batch_norm_layer 2 size 0 1234567\ngamma_beta\n");
}

TEST(MultiLayerNNModelAsciiWriter, leavesTheStreamsFormattingAsItIs) {
  MultiLayerNNModel model;
  model.layers = {batchNormLayer(), plainLayer(1.0f)};
  std::ostringstream out;
  out << std::scientific << std::showpos << std::hex << std::setprecision(3) << std::setfill('*');
  const std::ios::fmtflags flags = out.flags();
  model.serializeAscii(out);
  EXPECT_EQ(out.flags(), flags);
  EXPECT_EQ(out.precision(), 3);
  EXPECT_EQ(out.fill(), '*');
}

TEST(MultiLayerNNModelAsciiWriter, changesNothingInTheModel) {
  MultiLayerNNModel model;
  model.layers = {batchNormLayer(), nullptr, plainLayer(1.0f)};
  model.loss = {1};
  model.notes.lines = {"note"};
  model.props = {{"a", "b"}};
  MultiLayerNNModel before(model);
  delete before.layers[1];
  before.layers[1] = nullptr;
  before.props = model.props;
  written(model);
  EXPECT_EQ(firstDifference(model, before), "");
}

TEST(MultiLayerNNModelAsciiWriter, leavesWriteErrorsToTheCaller) {
  MultiLayerNNModel model;
  std::ostringstream out;
  out.setstate(std::ios::badbit);
  EXPECT_EQ(model.serializeAscii(out), 0);
  EXPECT_EQ(out.str(), "");
  EXPECT_TRUE(out.bad());
}

TEST(MultiLayerNNModelAsciiWriter, writesDescriptionAndNormalisationOnlyAsNotes) {
  MultiLayerNNModel model;
  model.featureDesc.winSizeLeft = 5;
  model.featureDesc.numBands = 40;
  model.deltasNorm.allocIfNeeded();
  EXPECT_EQ(written(model), kHead + "num_layers 0\n");
}

// Takes what is written and keeps none of it.
class NullBuffer : public std::streambuf {
 protected:
  int_type overflow(int_type c) override { return traits_type::not_eof(c); }
  std::streamsize xsputn(const char*, std::streamsize count) override { return count; }
};

TEST(MultiLayerNNModelAsciiWriter, memoryDoesNotGrowWithTheModel) {
  MultiLayerNNModel model;
  model.layers = {new NNLayer(500, 400, false), new NNLayer(400, 300, true)};
  NullBuffer buffer;
  std::ostream out(&buffer);
  const AllocationWatch watch;
  EXPECT_EQ(model.serializeAscii(out), 0);
  EXPECT_LE(watch.largest(), 1024u);
  EXPECT_EQ(watch.live(), 0);
}

}  // namespace
