// The analyses for C: each gives what the C++ ones do, and hands all of it over.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "analysis/ModelBudget.h"
#include "analysis/ModelDigest.h"
#include "analysis/ModelSuspicions.h"
#include "c/mlnn_analysis.h"
#include "model/RowQuantization.h"
#include "tests/c/from_c.h"
#include "tests/support/ByteImage.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::test::batchNormLayer;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;
using mlnn::test::stderrOf;
using Lines = std::vector<std::string>;

constexpr char kText[] =
    "MultiLayerNNModel_v2\n"
    "softmax 1\n"
    "num_layers 2\n"
    "layer 1 size 2 3\n"
    "act_fn relu\n"
    "1 2 3\n"
    "0 0 6\n"
    "layer 2 size 1 3\n"
    "act_fn linear\n"
    "7 8 9\n";

// Puts what is found into the lines that `data` points to.
void addFinding(mlnn_severity severity, const char* text, void* data) {
  static_cast<Lines*>(data)->push_back(std::to_string(severity) + " " + text);
}

void addDigest(const char* section, const char* digest, void* data) {
  static_cast<Lines*>(data)->push_back(std::string(section) + " " + digest);
}

void addLayer(size_t layer, const mlnn_layer_summary* s, void* data) {
  std::ostringstream line;
  line << layer << ": " << s->inputs << " x " << s->outputs << " " << s->batch_norm << " "
       << s->act_fn << " " << s->parameters << "; " << s->image_weights << " "
       << s->image_weight_bytes << " " << s->row_bits;
  static_cast<Lines*>(data)->push_back(line.str());
}

void addDifference(size_t layer, const char* array, const mlnn_difference* d, void* data) {
  std::ostringstream line;
  line << layer << ": ";
  if (array == nullptr) {
    EXPECT_EQ(d, nullptr);
    line << "other shape";
  } else {
    line << array << " " << d->differing << " of " << d->values << ", " << d->largest << " at "
         << d->row << "," << d->column << ", " << d->mean << ", " << d->root_mean_square << ", "
         << d->cosine << ", " << d->largest_ulps;
  }
  static_cast<Lines*>(data)->push_back(line.str());
}

int goOn(size_t, void*) { return 0; }
int stop(size_t, void*) { return 1; }

mlnn_status check(const std::string& file, Lines& found, mlnn_watch_function watch = nullptr) {
  return mlnn_check_memory(file.data(), file.size(), nullptr, addFinding, watch, &found);
}

// A model that is open while the object lives.
class Opened {
 public:
  explicit Opened(MultiLayerNNModel model) {
    model.deltasNorm.allocIfNeeded();  // as every image has it
    image_ = mlnn::test::ByteImage::of(model).bytes();
    const void* const bytes = image_.data();
    stderrOf([&] {
      EXPECT_EQ(mlnn_model_open_memory(bytes, image_.size(), nullptr, &handle_), MLNN_OK);
    });
  }
  Opened(const Opened&) = delete;
  Opened& operator=(const Opened&) = delete;
  ~Opened() { mlnn_model_close(handle_); }

  operator mlnn_model() const { return handle_; }
  const std::string& image() const { return image_; }

 private:
  std::string image_;
  mlnn_model handle_ = {0};
};

MultiLayerNNModel someModel() {
  MultiLayerNNModel model = modelOf({batchNormLayer(8, 5), plainLayer(5, 3)});
  model.deltasNorm.allocIfNeeded();
  return model;
}

TEST(CAnalysis, tellsWhereAFileDoesNotLoad) {
  Lines found;
  std::string text = kText;
  text.replace(text.find("0 0 6"), 5, "0 x 6");
  const std::string said = stderrOf([&] { EXPECT_EQ(check(text, found), MLNN_ERROR_MODEL); });
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0].rfind("0 line 7, column 3: layer 1, row 2", 0), 0u) << found[0];
  EXPECT_EQ(said, std::string(mlnn_last_error()) + "\n");
}

TEST(CAnalysis, tellsWhatIsOddInAFileThatLoads) {
  Lines found;
  const std::string said = stderrOf([&] { EXPECT_EQ(check(kText, found, goOn), MLNN_OK); });
  EXPECT_EQ(said, "");
  EXPECT_THAT(
      found, testing::ElementsAre("1 the feature description states no number of bands, and its 15 "
                                  "frames do not share the 2 "
                                  "inputs evenly",
                                  "1 there is no normalisation: frames go in as they are",
                                  "1 layer 2: the only output is always 1, since a softmax is on"));
}

TEST(CAnalysis, checksAModelAsCxxDoes) {
  MultiLayerNNModel model = someModel();
  model.layers[1]->weights.row(1).setZero();
  const Opened opened(model);
  mlnn::ModelFile file;
  mlnn::readModel(opened.image().data(), opened.image().size(), file);
  Lines expected;
  for (const auto& suspicion : mlnn::suspicionsOf(file)) expected.push_back("1 " + suspicion.text);
  Lines found;
  EXPECT_EQ(mlnn_model_check(opened, addFinding, nullptr, &found), MLNN_OK);
  EXPECT_EQ(found, expected);
  EXPECT_GE(found.size(), 2u);
}

TEST(CAnalysis, summarisesLayers) {
  MultiLayerNNModel model = modelOf({batchNormLayer(8, 5), plainLayer(5, 16)});
  model.layers[0]->actFn = ActFn::relu;
  mlnn::RowQuantization options;
  options.bits = 4;
  MultiLayerNNModel second = modelOf({plainLayer(64, 32)});
  ASSERT_EQ(mlnn::quantizeRows(second, options), 0);
  Lines found;
  EXPECT_EQ(mlnn_model_summary(Opened(model), addLayer, goOn, &found), MLNN_OK);
  EXPECT_EQ(mlnn_model_summary(Opened(second), addLayer, nullptr, &found), MLNN_OK);
  EXPECT_THAT(found, testing::ElementsAre("0: 8 x 5 1 relu 60; floats 160 0",
                                          "1: 5 x 16 0 sigmoid 96; floats 320 0",
                                          "0: 64 x 32 0 sigmoid 2080; half bytes by rows 1152 4"));
}

TEST(CAnalysis, givesTheBudgetOfCxx) {
  const MultiLayerNNModel model = someModel();
  const mlnn::ModelBudget expected = mlnn::budgetOf(model);
  const mlnn::FileSizes sizes = mlnn::fileSizesOf(model);
  mlnn_budget budget = {};
  EXPECT_EQ(mlnn_model_budget(Opened(model), nullptr, nullptr, &budget), MLNN_OK);
  EXPECT_EQ(budget.parameter_bytes, expected.parameterBytes);
  EXPECT_EQ(budget.read_bytes, expected.readBytes);
  EXPECT_EQ(budget.working_bytes, expected.workingBytes);
  EXPECT_EQ(budget.multiply_adds, 8u * 5 + 5 + 5 * 3);
  EXPECT_EQ(budget.activations, expected.activations);
  EXPECT_EQ(budget.image_bytes, sizes.image.value());
  EXPECT_EQ(budget.image_bytes, Opened(model).image().size());
  EXPECT_EQ(budget.text_bytes, sizes.text.value());
}

TEST(CAnalysis, givesTheDigestsOfCxx) {
  const Opened opened(someModel());
  mlnn::ModelFile file;
  mlnn::readModel(opened.image().data(), opened.image().size(), file);
  Lines expected;
  for (const auto& part : mlnn::digestOf(file).sections) {
    expected.push_back(part.name + " " + part.digest);
  }
  Lines found;
  EXPECT_EQ(mlnn_model_digest(opened, addDigest, goOn, &found), MLNN_OK);
  EXPECT_EQ(found, expected);
  EXPECT_GE(found.size(), 5u);
}

TEST(CAnalysis, comparesTwoModels) {
  MultiLayerNNModel a = modelOf({plainLayer(2, 2), plainLayer(2, 3)});
  a.layers[0]->weights << 1, 0, 0, 1;
  a.layers[0]->bias << 0, 0;
  MultiLayerNNModel b = modelOf({plainLayer(2, 2), plainLayer(2, 4)});
  b.layers[0]->weights << 1, 0, 0, 4;
  b.layers[0]->bias << 0, 0;
  Lines found;
  EXPECT_EQ(mlnn_model_compare(Opened(a), Opened(b), addDifference, nullptr, &found), MLNN_OK);
  EXPECT_THAT(found,
              testing::ElementsAre("0: weights 1 of 4, 3 at 1,1, 0.75, 1.5, 0.857493, 16777216",
                                   "0: bias 0 of 2, 0 at 0,0, 0, 0, 1, 0", "1: other shape"));
}

TEST(CAnalysis, asksAnImageThatIsRunWhereItLies) {
  const Opened opened(someModel());
  mlnn_model inPlace = {0};
  ASSERT_EQ(mlnn_model_open_image(opened.image().data(), opened.image().size(), &inPlace), MLNN_OK);
  Lines found;
  Lines expected;
  EXPECT_EQ(mlnn_model_digest(inPlace, addDigest, nullptr, &found), MLNN_OK);
  EXPECT_EQ(mlnn_model_digest(opened, addDigest, nullptr, &expected), MLNN_OK);
  EXPECT_EQ(found, expected);
  mlnn_model_close(inPlace);
}

TEST(CAnalysis, asksNoModelThatWasConverted) {
  const Opened opened(someModel());
  mlnn_model codes = {0};
  ASSERT_EQ(mlnn_model_to_codes(opened, 8, MLNN_CODES_FOR_MEMORY, &codes), MLNN_OK);
  Lines found;
  const std::string said = stderrOf(
      [&] { EXPECT_EQ(mlnn_model_digest(codes, addDigest, nullptr, &found), MLNN_ERROR_MODEL); });
  EXPECT_EQ(said,
            "ERROR: mlnn_model_digest: the model was converted: ask the one that it was made "
            "from\n");
  EXPECT_TRUE(found.empty());
  mlnn_model_close(codes);
}

TEST(CAnalysis, isStoppedByItsWatchWithoutAMessage) {
  const Opened model(someModel());
  mlnn_budget budget = {1, 2, 3, 4, 5, 6, 7};
  Lines found;
  const std::string said = stderrOf([&] {
    EXPECT_EQ(check(kText, found, stop), MLNN_STOPPED);
    EXPECT_EQ(mlnn_model_check(model, addFinding, stop, &found), MLNN_STOPPED);
    EXPECT_EQ(mlnn_model_summary(model, addLayer, stop, &found), MLNN_STOPPED);
    EXPECT_EQ(mlnn_model_budget(model, stop, nullptr, &budget), MLNN_STOPPED);
    EXPECT_EQ(mlnn_model_digest(model, addDigest, stop, &found), MLNN_STOPPED);
    EXPECT_EQ(mlnn_model_compare(model, model, addDifference, stop, &found), MLNN_STOPPED);
  });
  EXPECT_EQ(said, "");
  EXPECT_TRUE(found.empty());
  EXPECT_EQ(budget.parameter_bytes, 1u);
  EXPECT_EQ(budget.text_bytes, 7u);
}

TEST(CAnalysis, serveACProgram) {
  const Opened opened(someModel());
  EXPECT_STREQ(from_c_analyse(opened.image().data(), opened.image().size()), nullptr);
}

}  // namespace
