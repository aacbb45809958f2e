// The analyses for C: each gives what the C++ ones do, and hands all of it over.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "analysis/ModelBudget.h"
#include "analysis/ModelDigest.h"
#include "analysis/ModelSuspicions.h"
#include "c/mlnn_analysis.h"
#include "inference/PreparedFloats.h"
#include "model/FormatFit.h"
#include "model/RowQuantization.h"
#include "tests/c/OpenedFile.h"
#include "tests/c/from_c.h"
#include "tests/support/AllocationWatch.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::test::batchNormLayer;
using mlnn::test::expectOutOfMemoryIsTold;
using mlnn::test::modelOf;
using mlnn::test::OpenedFile;
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

void addStatement(const char* what, const char* a, const char* b, void* data) {
  const auto shown = [](const char* text) { return text == nullptr ? "nothing" : text; };
  static_cast<Lines*>(data)->push_back(std::string(what) + ": " + shown(a) + " / " + shown(b));
}

// Behind the findings that are there.
void addFile(const void* bytes, size_t length, void* data) {
  static_cast<Lines*>(data)->emplace_back(static_cast<const char*>(bytes), length);
}

void ignoreFile(const void*, size_t, void*) {}

int goOn(size_t, void*) { return 0; }
int stop(size_t, void*) { return 1; }

mlnn_status check(const std::string& file, Lines& found, mlnn_watch_function watch = nullptr) {
  return mlnn_check_memory(file.data(), file.size(), nullptr, addFinding, watch, &found);
}

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
  const OpenedFile opened(model);
  mlnn::ModelFile file;
  mlnn::readModel(opened.bytes().data(), opened.bytes().size(), file);
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
  EXPECT_EQ(mlnn_model_summary(OpenedFile(model), addLayer, goOn, &found), MLNN_OK);
  EXPECT_EQ(mlnn_model_summary(OpenedFile(second), addLayer, nullptr, &found), MLNN_OK);
  EXPECT_THAT(found, testing::ElementsAre("0: 8 x 5 1 relu 60; floats 160 0",
                                          "1: 5 x 16 0 sigmoid 96; floats 320 0",
                                          "0: 64 x 32 0 sigmoid 2080; half bytes by rows 1152 4"));
}

TEST(CAnalysis, givesTheBudgetOfCxx) {
  const MultiLayerNNModel model = someModel();
  const mlnn::ModelBudget expected = mlnn::budgetOf(model);
  const mlnn::FileSizes sizes = mlnn::fileSizesOf(model);
  mlnn_budget budget = {};
  EXPECT_EQ(mlnn_model_budget(OpenedFile(model), nullptr, nullptr, &budget), MLNN_OK);
  EXPECT_EQ(budget.parameter_bytes, expected.parameterBytes);
  EXPECT_EQ(budget.read_bytes, expected.readBytes);
  EXPECT_EQ(budget.working_bytes, expected.workingBytes);
  EXPECT_EQ(budget.multiply_adds, 8u * 5 + 5 + 5 * 3);
  EXPECT_EQ(budget.activations, expected.activations);
  EXPECT_EQ(budget.image_bytes, sizes.image.value());
  EXPECT_EQ(budget.image_bytes, OpenedFile(model).bytes().size());
  EXPECT_EQ(budget.text_bytes, sizes.text.value());
  EXPECT_EQ(budget.prepared_bytes, 0u);
  MultiLayerNNModel codes = modelOf({plainLayer(64, 32)});
  ASSERT_EQ(mlnn::quantizeRows(codes, {}), 0);
  codes.deltasNorm.allocIfNeeded();
  EXPECT_EQ(mlnn_model_budget(OpenedFile(codes), nullptr, nullptr, &budget), MLNN_OK);
  EXPECT_EQ(budget.prepared_bytes, 64u * 32 * sizeof(float));
  EXPECT_EQ(budget.prepared_bytes, mlnn::preparedBytesOf(codes));
}

// --- The time of a frame ---

// What is measured may be anything; that it is measured is certain.
void expectIsMeasured(mlnn_model model) {
  mlnn_frame_time time = {};
  size_t steps = 0;
  const auto count = [](size_t further, void* data) {
    *static_cast<size_t*>(data) += further;
    return 0;
  };
  EXPECT_EQ(mlnn_model_time(model, 1e-3, count, &steps, &time), MLNN_OK);
  EXPECT_GT(time.frames, 0u);
  EXPECT_GE(time.median, time.fastest);
  EXPECT_GE(time.slowest, time.median);
  EXPECT_LE(steps, 100u);
  EXPECT_EQ(mlnn_model_time(model, 1e-3, nullptr, nullptr, &time), MLNN_OK);
}

TEST(CAnalysis, measuresModelsImagesCodesAndIntegers) {
  const OpenedFile opened(someModel());
  expectIsMeasured(opened);
  mlnn_model made = {0};
  ASSERT_EQ(mlnn_model_open_image(opened.bytes().data(), opened.bytes().size(), &made), MLNN_OK);
  expectIsMeasured(made);
  mlnn_model_close(made);
  ASSERT_EQ(mlnn_model_to_codes(opened, 8, MLNN_CODES_FOR_MEMORY, &made), MLNN_OK);
  expectIsMeasured(made);
  mlnn_model_close(made);
  ASSERT_EQ(mlnn_model_to_integers(opened, MLNN_WIDE_INPUTS_NONE, &made), MLNN_OK);
  expectIsMeasured(made);
  mlnn_model_close(made);
}

void expectIsNotMeasured(const MultiLayerNNModel& model, const std::string& message) {
  const OpenedFile opened(model);
  mlnn_frame_time time = {1, 2, 3, 4};
  EXPECT_EQ(stderrOf([&] {
              EXPECT_EQ(mlnn_model_time(opened, 1, nullptr, nullptr, &time), MLNN_ERROR_MODEL);
            }),
            message);
  EXPECT_EQ(time.median, 1);
  EXPECT_EQ(time.frames, 4u);
}

TEST(CAnalysis, measuresNoModelsThatCannotBeRun) {
  MultiLayerNNModel broken = modelOf({plainLayer(8, 5), plainLayer(4, 3)});
  broken.deltasNorm.allocIfNeeded();
  expectIsNotMeasured(broken,
                      "ERROR: NNFwdPassFromFile::evaluate: layer 2 does not fit the model\n"
                      "ERROR: mlnn_model_time: the model cannot be run\n");
  MultiLayerNNModel none = modelOf({plainLayer(8, 0)});
  none.deltasNorm.allocIfNeeded();
  expectIsNotMeasured(none, "ERROR: mlnn_model_time: the model has no outputs\n");
}

// --- How one is the other, quantised ---

void addQuantization(size_t layer, const mlnn_layer_quantization* q, void* data) {
  std::ostringstream line;
  line << layer << ": " << q->bits << " bits, scale " << q->scale << ", folded " << q->folded
       << ", shifted " << q->shifted;
  static_cast<Lines*>(data)->push_back(line.str());
}

TEST(CAnalysis, findsHowOneModelIsTheOtherQuantised) {
  MultiLayerNNModel model = modelOf({plainLayer(64, 32), batchNormLayer(32, 9), plainLayer(9, 3)});
  model.deltasNorm.allocIfNeeded();
  model.layers[1]->gamma_inf.setConstant(2);
  MultiLayerNNModel changed(model);
  mlnn::RowQuantization options;
  options.bits = 5;
  ASSERT_EQ(mlnn::quantizeRows(changed, options), 0);
  changed.layers[0]->bias[3] += 1;
  Lines found;
  EXPECT_EQ(mlnn_model_find_quantization(OpenedFile(model), OpenedFile(changed), addQuantization,
                                         goOn, &found),
            MLNN_OK);
  EXPECT_THAT(found, testing::ElementsAre("0: 5 bits, scale 0, folded 0, shifted 1",
                                          "1: 5 bits, scale 0, folded 1, shifted 0",
                                          "2: 5 bits, scale 0, folded 0, shifted 0"));
  found.clear();
  MultiLayerNNModel squares(model);
  options.scale = mlnn::RowScale::kLeastSquares;
  ASSERT_EQ(mlnn::quantizeRows(squares, options), 0);
  EXPECT_EQ(mlnn_model_find_quantization(OpenedFile(model), OpenedFile(squares), addQuantization,
                                         nullptr, &found),
            MLNN_OK);
  ASSERT_EQ(found.size(), 3u);
  EXPECT_EQ(found[0], "0: 5 bits, scale 1, folded 0, shifted 0");
}

TEST(CAnalysis, findsNothingWhereAModelIsNotTheOtherQuantised) {
  MultiLayerNNModel model = someModel();
  MultiLayerNNModel changed(model);
  changed.layers[0]->weights(0, 0) += 1;
  const OpenedFile opened(model);
  Lines found;
  EXPECT_EQ(
      mlnn_model_find_quantization(opened, OpenedFile(changed), addQuantization, nullptr, &found),
      MLNN_OK);
  EXPECT_EQ(mlnn_model_find_quantization(opened, opened, addQuantization, nullptr, &found),
            MLNN_OK);
  EXPECT_TRUE(found.empty());
}

// --- Digests, and earlier ones ---

void addSectionChange(const char* section, const char* text, void* data) {
  static_cast<Lines*>(data)->push_back(std::string(section) + ", " +
                                       (text == nullptr ? "not compared" : text));
}

TEST(CAnalysis, comparesDigestsWithEarlierOnes) {
  const mlnn_section before[] = {{"softmax", "a"}, {"layer 1", "b"}, {"layer 2", "c"}, {"x", "d"}};
  const mlnn_section now[] = {{"layer 1", "c"}, {"layer 2", "e"}, {"layer 3", "f"}};
  Lines found;
  EXPECT_EQ(mlnn_compare_digests(MLNN_FORMAT_IMAGE, now, 3, MLNN_FORMAT_TEXT, before, 4,
                                 addSectionChange, &found),
            MLNN_OK);
  EXPECT_THAT(found, testing::ElementsAre("layer 1, layer 1: is what layer 2 was",
                                          "layer 2, layer 2: changed", "layer 3, layer 3: new",
                                          "x, x: gone", "softmax, not compared"));
  found.clear();
  EXPECT_EQ(mlnn_compare_digests(MLNN_FORMAT_TEXT, before, 4, MLNN_FORMAT_TEXT, before, 4,
                                 addSectionChange, &found),
            MLNN_OK);
  EXPECT_EQ(mlnn_compare_digests(MLNN_FORMAT_TEXT, nullptr, 0, MLNN_FORMAT_TEXT, nullptr, 0,
                                 addSectionChange, &found),
            MLNN_OK);
  EXPECT_TRUE(found.empty());
}

TEST(CAnalysis, givesTheDigestsOfCxx) {
  const OpenedFile opened(someModel());
  mlnn::ModelFile file;
  mlnn::readModel(opened.bytes().data(), opened.bytes().size(), file);
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
  EXPECT_EQ(mlnn_model_compare(OpenedFile(a), OpenedFile(b), addDifference, nullptr, &found),
            MLNN_OK);
  EXPECT_THAT(found,
              testing::ElementsAre("0: weights 1 of 4, 3 at 1,1, 0.75, 1.5, 0.857493, 16777216",
                                   "0: bias 0 of 2, 0 at 0,0, 0, 0, 1, 0", "1: other shape"));
}

TEST(CAnalysis, asksAnImageThatIsRunWhereItLies) {
  const OpenedFile opened(someModel());
  mlnn_model inPlace = {0};
  ASSERT_EQ(mlnn_model_open_image(opened.bytes().data(), opened.bytes().size(), &inPlace), MLNN_OK);
  Lines found;
  Lines expected;
  EXPECT_EQ(mlnn_model_digest(inPlace, addDigest, nullptr, &found), MLNN_OK);
  EXPECT_EQ(mlnn_model_digest(opened, addDigest, nullptr, &expected), MLNN_OK);
  EXPECT_EQ(found, expected);
  mlnn_model_close(inPlace);
}

TEST(CAnalysis, asksNoModelThatWasConverted) {
  const OpenedFile opened(someModel());
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
  const OpenedFile model(someModel());
  mlnn_budget budget = {1, 2, 3, 4, 5, 6, 7, 8};
  mlnn_frame_time time = {1, 2, 3, 4};
  mlnn_model mean = {8};
  Lines found;
  const std::string said = stderrOf([&] {
    EXPECT_EQ(check(kText, found, stop), MLNN_STOPPED);
    EXPECT_EQ(mlnn_model_check(model, addFinding, stop, &found), MLNN_STOPPED);
    EXPECT_EQ(mlnn_model_summary(model, addLayer, stop, &found), MLNN_STOPPED);
    EXPECT_EQ(mlnn_model_budget(model, stop, nullptr, &budget), MLNN_STOPPED);
    EXPECT_EQ(mlnn_model_digest(model, addDigest, stop, &found), MLNN_STOPPED);
    EXPECT_EQ(mlnn_model_compare(model, model, addDifference, stop, &found), MLNN_STOPPED);
    EXPECT_EQ(mlnn_model_find_quantization(model, model, addQuantization, stop, &found),
              MLNN_STOPPED);
    EXPECT_EQ(mlnn_model_time(model, 1, stop, nullptr, &time), MLNN_STOPPED);
    EXPECT_EQ(mlnn_model_fit(model, MLNN_FORMAT_TEXT, 9, addFinding, addFile, stop, &found),
              MLNN_STOPPED);
    const mlnn_model handle = model;
    EXPECT_EQ(mlnn_model_average(&handle, 1, nullptr, stop, nullptr, &mean), MLNN_STOPPED);
  });
  EXPECT_EQ(said, "");
  EXPECT_TRUE(found.empty());
  EXPECT_EQ(budget.parameter_bytes, 1u);
  EXPECT_EQ(budget.text_bytes, 7u);
  EXPECT_EQ(mean.id, 8u);
  EXPECT_EQ(time.frames, 4u);
}

TEST(CAnalysis, tellsWhereTwoModelsSayOtherThings) {
  std::string other = kText;
  other.replace(other.find("softmax 1"), 9, "softmax 0\n# NVP labels left,right");
  other.replace(other.find("relu"), 4, "tanh");
  Lines found;
  EXPECT_EQ(mlnn_model_compare_statements(OpenedFile(std::string(kText)), OpenedFile(other),
                                          addStatement, &found),
            MLNN_OK);
  EXPECT_THAT(found,
              testing::ElementsAre(
                  "softmax: on / off", "property labels: nothing / left,right",
                  "layer 1: 2 inputs, 2 outputs, plain, relu / 2 inputs, 2 outputs, plain, tanh"));
  found.clear();
  EXPECT_EQ(
      mlnn_model_compare_statements(OpenedFile(other), OpenedFile(other), addStatement, &found),
      MLNN_OK);
  EXPECT_TRUE(found.empty());
}

TEST(CAnalysis, countsValuesIntoBins) {
  const float values[] = {0, 1, 1, 2, 9, 10, INFINITY, NAN};
  uint64_t counts[5] = {};
  mlnn_histogram histogram = {};
  EXPECT_EQ(mlnn_count_values(values, 8, 5, goOn, nullptr, counts, &histogram), MLNN_OK);
  EXPECT_THAT(counts, testing::ElementsAre(3, 1, 0, 0, 2));
  EXPECT_EQ(histogram.low, 0);
  EXPECT_EQ(histogram.high, 10);
  EXPECT_EQ(histogram.not_finite, 2u);
  EXPECT_EQ(mlnn_count_values(nullptr, 0, 1, nullptr, nullptr, counts, &histogram), MLNN_OK);
  EXPECT_THAT(counts, testing::ElementsAre(0, 1, 0, 0, 2));
  EXPECT_EQ(mlnn_count_values(values, 8, 5, stop, nullptr, counts, &histogram), MLNN_STOPPED);
  EXPECT_THAT(counts, testing::ElementsAre(0, 1, 0, 0, 2));
}

TEST(CAnalysis, makesTheFilesThatCxxMakes) {
  std::string given = kText;
  given.replace(given.find("num_layers"), 10, "# NVP labels one\nnum_layers");
  const OpenedFile opened(given);
  mlnn::ModelFile file;
  mlnn::readModel(given.data(), given.size(), file);
  std::ostringstream text;
  mlnn::writeText(file.model, 9, text);

  Lines found;
  EXPECT_EQ(mlnn_model_fit(opened, MLNN_FORMAT_TEXT, 9, addFinding, addFile, goOn, &found),
            MLNN_OK);
  EXPECT_THAT(found, testing::ElementsAre(text.str()));
  found.clear();
  EXPECT_EQ(mlnn_model_fit(opened, MLNN_FORMAT_IMAGE, 9, addFinding, addFile, goOn, &found),
            MLNN_OK);
  ASSERT_EQ(found.size(), 3u);
  EXPECT_EQ(found[0], "1 a binary image does not hold 1 property (labels)");
  EXPECT_EQ(found[1].substr(0, 2), "2 ");
  file.model.deltasNorm.allocIfNeeded();
  EXPECT_EQ(found[2], mlnn::test::ByteImage::of(file.model).bytes());
  Lines alone;
  EXPECT_EQ(mlnn_model_fit(opened, MLNN_FORMAT_IMAGE, 9, addFinding, nullptr, nullptr, &alone),
            MLNN_OK);
  found.pop_back();
  EXPECT_EQ(alone, found);
}

TEST(CAnalysis, writesOneToSeventeenDigits) {
  std::string given = kText;
  const OpenedFile opened(given);
  mlnn::ModelFile file;
  mlnn::readModel(given.data(), given.size(), file);
  for (const int precision : {1, 17}) {
    std::ostringstream text;
    mlnn::writeText(file.model, precision, text);
    Lines found;
    EXPECT_EQ(
        mlnn_model_fit(opened, MLNN_FORMAT_TEXT, precision, addFinding, addFile, nullptr, &found),
        MLNN_OK);
    ASSERT_FALSE(found.empty());
    EXPECT_EQ(found.back(), text.str());
  }
  for (const int precision : {0, 18}) {
    Lines found;
    EXPECT_EQ(stderrOf([&] {
                EXPECT_EQ(mlnn_model_fit(opened, MLNN_FORMAT_TEXT, precision, addFinding, addFile,
                                         nullptr, &found),
                          MLNN_ERROR_ARGUMENT);
              }),
              "ERROR: mlnn_model_fit: precision must be 1 to 17\n");
    EXPECT_TRUE(found.empty());
  }
}

TEST(CAnalysis, refusesToWriteWhatCannotBeReadAgain) {
  MultiLayerNNModel model = someModel();
  model.layers[1]->weights(0, 0) = NAN;
  Lines found;
  const OpenedFile opened(model);
  const std::string said = stderrOf([&] {
    EXPECT_EQ(mlnn_model_fit(opened, MLNN_FORMAT_TEXT, 9, addFinding, addFile, nullptr, &found),
              MLNN_ERROR_MODEL);
  });
  EXPECT_EQ(said.rfind("ERROR: mlnn_model_fit: ", 0), 0u) << said;
  EXPECT_TRUE(found.empty());
}

float weightOf(mlnn_model model) {
  const auto keep = [](const void* bytes, size_t length, void* data) {
    mlnn::ModelFile file;
    mlnn::readModel(bytes, length, file);
    *static_cast<float*>(data) = file.model.layers[0]->weights(0, 0);
  };
  const auto ignore = [](mlnn_severity, const char*, void*) {};
  float weight = 0;
  EXPECT_EQ(mlnn_model_fit(model, MLNN_FORMAT_IMAGE, 9, ignore, keep, nullptr, &weight), MLNN_OK);
  return weight;
}

TEST(CAnalysis, averagesModels) {
  MultiLayerNNModel model = someModel();
  model.layers[0]->weights(0, 0) = 1;
  const OpenedFile a(model);
  model.layers[0]->weights(0, 0) = 5;
  const OpenedFile b(model);
  const mlnn_model models[] = {a, b};
  const double weights[] = {3, 1};
  mlnn_model alike = {0};
  mlnn_model mean = {0};
  const std::string said = stderrOf([&] {
    EXPECT_EQ(mlnn_model_average(models, 2, nullptr, goOn, nullptr, &alike), MLNN_OK);
    EXPECT_EQ(mlnn_model_average(models, 2, weights, nullptr, nullptr, &mean), MLNN_OK);
  });
  EXPECT_EQ(said, "");
  stderrOf([&] {
    EXPECT_EQ(weightOf(alike), 3);
    EXPECT_EQ(weightOf(mean), 2);
    EXPECT_EQ(weightOf(a), 1);
  });
  EXPECT_EQ(mlnn_model_close(alike), MLNN_OK);
  Lines digest;
  EXPECT_EQ(mlnn_model_digest(mean, addDigest, nullptr, &digest), MLNN_OK);
  Lines first;
  EXPECT_EQ(mlnn_model_digest(a, addDigest, nullptr, &first), MLNN_OK);
  EXPECT_EQ(digest.size(), first.size());  // of an image too
  mlnn_model_close(mean);
}

TEST(CAnalysis, averagesNoModelsOfOtherShapes) {
  const OpenedFile a(someModel());
  const OpenedFile b(modelOf({plainLayer(8, 5), plainLayer(5, 3)}));
  const mlnn_model models[] = {a, b};
  mlnn_model mean = {77};
  const std::string said = stderrOf([&] {
    EXPECT_EQ(mlnn_model_average(models, 2, nullptr, nullptr, nullptr, &mean), MLNN_ERROR_MODEL);
  });
  EXPECT_EQ(
      said,
      "ERROR: mlnn_model_average: model 1 has another shape: its layer 1 is a plain layer of 8 "
      "x 5, sigmoid instead of a batch-norm layer of 8 x 5, sigmoid\n");
  EXPECT_EQ(mean.id, 77u);
}

// Whatever allocation fails, the call says so and nothing else has happened.
TEST(CAnalysis, tellsThatMemoryRanOut) {
  if (!mlnn::test::kCanFailAllocations) GTEST_SKIP() << "the sanitizer's heap is not replaced";
  const OpenedFile opened(someModel());
  const auto ignoreText = [](mlnn_severity, const char*, void*) {};
  const auto ignoreLayer = [](size_t, const mlnn_layer_summary*, void*) {};
  const auto ignoreDigest = [](const char*, const char*, void*) {};
  const auto ignoreArray = [](size_t, const char*, const mlnn_difference*, void*) {};
  const auto ignoreStatement = [](const char*, const char*, const char*, void*) {};
  const float values[] = {1, 2, 3};
  uint64_t counts[4];
  mlnn_histogram histogram;
  const auto ignoreQuantization = [](size_t, const mlnn_layer_quantization*, void*) {};
  const mlnn_section section = {"layer 1", "0123456789abcdef0123456789abcdef"};
  mlnn_budget budget;
  mlnn_frame_time time;
  mlnn_model mean = {0};
  const mlnn_model models[] = {opened, opened};
  const std::string& bytes = opened.bytes();
  const std::vector<std::function<mlnn_status()>> calls = {
      [&] {
        return mlnn_check_memory(bytes.data(), bytes.size(), nullptr, ignoreText, goOn, nullptr);
      },
      [&] {
        return mlnn_check_memory(kText, sizeof kText - 1, nullptr, ignoreText, goOn, nullptr);
      },
      [&] { return mlnn_model_check(opened, ignoreText, goOn, nullptr); },
      [&] { return mlnn_model_summary(opened, ignoreLayer, goOn, nullptr); },
      [&] { return mlnn_model_budget(opened, goOn, nullptr, &budget); },
      [&] { return mlnn_model_digest(opened, ignoreDigest, goOn, nullptr); },
      [&] { return mlnn_count_values(values, 3, 4, goOn, nullptr, counts, &histogram); },
      [&] {
        return mlnn_model_fit(opened, MLNN_FORMAT_TEXT, 9, ignoreText, ignoreFile, goOn, nullptr);
      },
      [&] {
        return mlnn_model_fit(opened, MLNN_FORMAT_IMAGE, 9, ignoreText, ignoreFile, goOn, nullptr);
      },
      [&] { return mlnn_model_compare(opened, opened, ignoreArray, goOn, nullptr); },
      [&] {
        return mlnn_model_find_quantization(opened, opened, ignoreQuantization, goOn, nullptr);
      },
      [&] {
        return mlnn_compare_digests(MLNN_FORMAT_TEXT, &section, 1, MLNN_FORMAT_TEXT, &section, 1,
                                    ignoreDigest, nullptr);
      },
      [&] { return mlnn_model_time(opened, 1e-6, goOn, nullptr, &time); },
      [&] { return mlnn_model_compare_statements(opened, opened, ignoreStatement, nullptr); },
      [&] { return mlnn_model_average(models, 2, nullptr, goOn, nullptr, &mean); },
  };
  stderrOf([&] {
    for (std::size_t call = 0; call < calls.size(); ++call) {
      expectOutOfMemoryIsTold(calls[call], "call " + std::to_string(call));
      if (mean.id != 0) mlnn_model_close(mean);
      mean.id = 0;
    }
  });
}

TEST(CAnalysis, serveACProgram) {
  const OpenedFile opened(someModel());
  EXPECT_STREQ(from_c_analyse(opened.bytes().data(), opened.bytes().size()), nullptr);
}

}  // namespace
