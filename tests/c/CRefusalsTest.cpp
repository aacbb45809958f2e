// Every parameter of every function of the C interface, as the headers list them, with a wrong
// value.
#include <gtest/gtest.h>
#include <mlnn.h>
#include <mlnn_analysis.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "layers/Messages.h"
#include "tests/support/ByteImage.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/DigitsFolder.h"
#include "tests/support/SourceTree.h"
#include "tests/support/TempFolder.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::test::plainLayer;
using mlnn::test::stderrOf;
using mlnn::test::TempFolder;

// What a function of the header takes and gives.
struct Declaration {
  std::string result;
  std::string name;
  std::vector<std::string> parameters;
};

std::vector<std::string> parametersIn(const std::string& list) {
  static const std::regex kParameter(R"((\w+)\s*(?:,|$))");
  std::vector<std::string> names;
  for (std::sregex_iterator it(list.begin(), list.end(), kParameter), end; it != end; ++it) {
    if ((*it)[1] != "void") names.push_back((*it)[1]);
  }
  return names;
}

std::string headers() {
  using mlnn::test::contentOf;
  using mlnn::test::sourcePath;
  return contentOf(sourcePath("c/mlnn.h")) + contentOf(sourcePath("c/mlnn_analysis.h"));
}

std::vector<Declaration> declarationsOfTheHeader() {
  static const std::regex kFunction(R"(MLNN_API ([\w ]+[ *]+)(mlnn_\w+)\(([^)]*)\);)");
  const std::string header = headers();
  std::vector<Declaration> found;
  for (std::sregex_iterator it(header.begin(), header.end(), kFunction), end; it != end; ++it) {
    found.push_back({(*it)[1], (*it)[2], parametersIn((*it)[3])});
  }
  return found;
}

// These return no status: they cannot refuse.
const std::set<std::string> kNeverRefuse = {"mlnn_last_error", "mlnn_status_name", "mlnn_version",
                                            "mlnn_print_problems"};
// These take any value.
const std::set<std::string> kTakeAll = {"mlnn_set_message_function function",
                                        "mlnn_model_fit file",
                                        "mlnn_model_trace stacked",
                                        "mlnn_compare_traces stages",
                                        "mlnn_compare_traces other_stages",
                                        "mlnn_compare_digests count",
                                        "mlnn_model_prove_quantization count",
                                        "mlnn_model_prove_quantization stacked",
                                        "mlnn_model_prove_quantization widths",
                                        "mlnn_compare_digests earlier_count",
                                        "mlnn_pass_prepare most_bytes",
                                        "mlnn_model_compare_behaviour count",
                                        "mlnn_model_compare_behaviour stacked",
                                        "mlnn_model_sweep count",
                                        "mlnn_model_sweep stacked",
                                        "mlnn_model_sweep widths"};

bool takesAll(const std::string& function, const std::string& parameter) {
  if (parameter == "watch" || parameter == "data") return true;
  return kTakeAll.count(function + " " + parameter) != 0;
}

// Whatever functions fill.
struct Results {
  mlnn_model model = {1};
  mlnn_pass pass = {2};
  mlnn_stream stream = {3};
  mlnn_features features = {4, 4, 4, 4, 4, 4, 4};
  mlnn_budget budget = {5, 5, 5, 5, 5, 5, 5, 5};
  mlnn_frame_time time = {5, 5, 5, 5};
  mlnn_quantization_proof proof = {5, 5, 5, 5};
  mlnn_histogram histogram = {5, 5, 5};
  uint64_t numbers[2] = {5, 5};
  size_t count = 5;
  int flag = 6;
  const char* text = nullptr;
  const char* other = nullptr;
  float outputs[8] = {7, 7, 7, 7, 7, 7, 7, 7};
};

bool areSame(const Results& a, const Results& b) {
  return a.model.id == b.model.id && a.pass.id == b.pass.id && a.stream.id == b.stream.id &&
         std::memcmp(&a.features, &b.features, sizeof a.features) == 0 && a.count == b.count &&
         std::memcmp(&a.budget, &b.budget, sizeof a.budget) == 0 && a.flag == b.flag &&
         std::memcmp(&a.proof, &b.proof, sizeof a.proof) == 0 &&
         std::memcmp(&a.time, &b.time, sizeof a.time) == 0 &&
         std::memcmp(&a.histogram, &b.histogram, sizeof a.histogram) == 0 &&
         std::memcmp(a.numbers, b.numbers, sizeof a.numbers) == 0 && a.text == b.text &&
         a.other == b.other && std::memcmp(a.outputs, b.outputs, sizeof a.outputs) == 0;
}

std::string imageOfANetwork() {
  MultiLayerNNModel model = mlnn::test::modelOf({plainLayer(4, 2)});
  model.deltasNorm.allocIfNeeded();
  return mlnn::test::ByteImage::of(model).bytes();
}

class CRefusals : public testing::Test {
 protected:
  CRefusals() : image_(imageOfANetwork()), path_(folder_.write("image", image_)) {
    stderrOf([&] {
      mlnn_model_open(path_.c_str(), nullptr, &model_);
      mlnn_pass_create(model_, &pass_);
      mlnn_stream_create(model_, 4, &stream_);
      mlnn_model closed;
      mlnn_model_open(path_.c_str(), nullptr, &closed);
      mlnn_model_close(closed);
      closed_ = closed.id;
    });
  }

  ~CRefusals() override {
    mlnn_stream_close(stream_);
    mlnn_pass_close(pass_);
    mlnn_model_close(model_);
  }

  // Makes a call with one wrong value, and looks at all that it leaves behind.
  void expect(mlnn_status status, const std::string& function, const std::string& parameter,
              const std::function<mlnn_status()>& call) {
    SCOPED_TRACE(function + " " + parameter);
    tried_.insert(function + " " + parameter);
    const Results before = results_;
    mlnn::clearLastError();
    const std::string said = stderrOf([&] { EXPECT_EQ(call(), status); });
    const std::string why = mlnn_last_error();
    const bool isOwn = status != MLNN_ERROR_MODEL;
    EXPECT_EQ(why.find(isOwn ? "ERROR: " + function + ": " : "ERROR: "), 0u) << why;
    EXPECT_EQ(said.substr(said.size() - std::min(said.size(), why.size() + 1)), why + "\n");
    EXPECT_TRUE(areSame(results_, before));
  }

  // The same with every kind of wrong handle. `notOne` is of another kind.
  template <typename Handle>
  void expectNoHandle(const std::string& function, const std::string& parameter, uint64_t notOne,
                      const std::function<mlnn_status(Handle)>& call) {
    for (const uint64_t id : {uint64_t{0}, uint64_t{1}, closed_, notOne, UINT64_MAX}) {
      expect(MLNN_ERROR_HANDLE, function, parameter, [&] { return call(Handle{id}); });
    }
  }
  void expectNoModel(const std::string& function,
                     const std::function<mlnn_status(mlnn_model)>& call) {
    expectNoHandle<mlnn_model>(function, "model", pass_.id, call);
  }
  void expectNoStream(const std::string& function,
                      const std::function<mlnn_status(mlnn_stream)>& call) {
    expectNoHandle<mlnn_stream>(function, "stream", model_.id, call);
  }

  void tryOpening();
  void tryConverting();
  void tryQuestions();
  void tryProperties();
  void tryPasses();
  void tryStreams();
  void tryAnalyses();
  void tryDifferences();
  void tryRecordings();
  void tryProofs();
  void tryTraces();
  void tryAverages();

  TempFolder folder_;
  std::string image_;
  std::string path_;
  mlnn_model model_ = {0};
  mlnn_pass pass_ = {0};
  mlnn_stream stream_ = {0};
  uint64_t closed_ = 0;
  const float inputs_[8] = {};
  Results results_;
  std::set<std::string> tried_;  // as "function parameter"
};

void CRefusals::tryOpening() {
  const char* const path = path_.c_str();
  const void* const bytes = image_.data();
  Results& r = results_;
  std::string name = "mlnn_model_open";
  expect(MLNN_ERROR_ARGUMENT, name, "path",
         [&] { return mlnn_model_open(nullptr, nullptr, &r.model); });
  expect(MLNN_ERROR_MODEL, name, "path",
         [&] { return mlnn_model_open("no/such/file", nullptr, &r.model); });
  expect(MLNN_ERROR_MODEL, name, "path", [&] { return mlnn_model_open("", nullptr, &r.model); });
  expect(MLNN_ERROR_MODEL, name, "path",
         [&] { return mlnn_model_open(folder_.path().c_str(), nullptr, &r.model); });
  expect(MLNN_ERROR_ARGUMENT, name, "hidden_act_fn",
         [&] { return mlnn_model_open(path, "", &r.model); });
  expect(MLNN_ERROR_ARGUMENT, name, "model",
         [&] { return mlnn_model_open(path, nullptr, nullptr); });

  name = "mlnn_model_open_memory";
  const auto openMemory = [&](const void* where, size_t length) {
    return [&r, where, length] { return mlnn_model_open_memory(where, length, nullptr, &r.model); };
  };
  expect(MLNN_ERROR_ARGUMENT, name, "bytes", openMemory(nullptr, image_.size()));
  for (const size_t length : {size_t{0}, size_t{4}, size_t{7}, size_t{8}, image_.size() - 1}) {
    expect(MLNN_ERROR_MODEL, name, "length", openMemory(bytes, length));
  }
  expect(MLNN_ERROR_ARGUMENT, name, "hidden_act_fn",
         [&] { return mlnn_model_open_memory(bytes, image_.size(), "none", &r.model); });
  expect(MLNN_ERROR_ARGUMENT, name, "model",
         [&] { return mlnn_model_open_memory(bytes, image_.size(), nullptr, nullptr); });

  name = "mlnn_model_open_image";
  const auto openImage = [&](const void* where, size_t length) {
    return [&r, where, length] { return mlnn_model_open_image(where, length, &r.model); };
  };
  expect(MLNN_ERROR_ARGUMENT, name, "image", openImage(nullptr, image_.size()));
  for (const size_t length : {size_t{0}, size_t{4}, size_t{7}, size_t{8}, image_.size() - 1}) {
    expect(MLNN_ERROR_MODEL, name, "length", openImage(bytes, length));
  }
  expect(MLNN_ERROR_ARGUMENT, name, "model",
         [&] { return mlnn_model_open_image(bytes, image_.size(), nullptr); });

  name = "mlnn_model_map_image";
  expect(MLNN_ERROR_ARGUMENT, name, "path",
         [&] { return mlnn_model_map_image(nullptr, &r.model); });
  expect(MLNN_ERROR_MODEL, name, "path",
         [&] { return mlnn_model_map_image("no/such/file", &r.model); });
  expect(MLNN_ERROR_MODEL, name, "path",
         [&] { return mlnn_model_map_image(folder_.path().c_str(), &r.model); });
  expect(MLNN_ERROR_ARGUMENT, name, "model", [&] { return mlnn_model_map_image(path, nullptr); });
  expectNoModel("mlnn_model_close", [&](mlnn_model m) { return mlnn_model_close(m); });
}

void CRefusals::tryConverting() {
  Results& r = results_;
  std::string name = "mlnn_model_to_codes";
  const auto toCodes = [&](int32_t bits, int32_t codesFor) {
    return [this, &r, bits, codesFor] {
      return mlnn_model_to_codes(model_, bits, codesFor, &r.model);
    };
  };
  expectNoModel(name, [&](mlnn_model m) { return mlnn_model_to_codes(m, 8, 0, &r.model); });
  for (const int32_t bits : {0, 9, -1, INT32_MIN}) {
    expect(MLNN_ERROR_ARGUMENT, name, "bits", toCodes(bits, MLNN_CODES_FOR_SPEED));
  }
  for (const int32_t codesFor : {-1, 2}) {
    expect(MLNN_ERROR_ARGUMENT, name, "codes_for", toCodes(8, codesFor));
  }
  expect(MLNN_ERROR_ARGUMENT, name, "codes",
         [&] { return mlnn_model_to_codes(model_, 8, 0, nullptr); });

  name = "mlnn_model_to_integers";
  expectNoModel(name, [&](mlnn_model m) { return mlnn_model_to_integers(m, 0, &r.model); });
  for (const int32_t wide : {-1, 3}) {
    expect(MLNN_ERROR_ARGUMENT, name, "wide_inputs",
           [&] { return mlnn_model_to_integers(model_, wide, &r.model); });
  }
  expect(MLNN_ERROR_ARGUMENT, name, "integers",
         [&] { return mlnn_model_to_integers(model_, 0, nullptr); });
}

void CRefusals::tryQuestions() {
  Results& r = results_;
  expectNoModel("mlnn_model_inputs", [&](mlnn_model m) { return mlnn_model_inputs(m, &r.count); });
  expect(MLNN_ERROR_ARGUMENT, "mlnn_model_inputs", "inputs",
         [&] { return mlnn_model_inputs(model_, nullptr); });
  expectNoModel("mlnn_model_outputs",
                [&](mlnn_model m) { return mlnn_model_outputs(m, &r.count); });
  expect(MLNN_ERROR_ARGUMENT, "mlnn_model_outputs", "outputs",
         [&] { return mlnn_model_outputs(model_, nullptr); });
  expectNoModel("mlnn_model_layers", [&](mlnn_model m) { return mlnn_model_layers(m, &r.count); });
  expect(MLNN_ERROR_ARGUMENT, "mlnn_model_layers", "layers",
         [&] { return mlnn_model_layers(model_, nullptr); });
  expectNoModel("mlnn_model_softmax", [&](mlnn_model m) { return mlnn_model_softmax(m, &r.flag); });
  expect(MLNN_ERROR_ARGUMENT, "mlnn_model_softmax", "softmax",
         [&] { return mlnn_model_softmax(model_, nullptr); });
  expectNoModel("mlnn_model_features",
                [&](mlnn_model m) { return mlnn_model_features(m, &r.features); });
  expect(MLNN_ERROR_ARGUMENT, "mlnn_model_features", "features",
         [&] { return mlnn_model_features(model_, nullptr); });
  expectNoModel("mlnn_model_feature_text",
                [&](mlnn_model m) { return mlnn_model_feature_text(m, &r.text); });
  expect(MLNN_ERROR_ARGUMENT, "mlnn_model_feature_text", "text",
         [&] { return mlnn_model_feature_text(model_, nullptr); });

  std::string name = "mlnn_model_layer_outputs";
  expectNoModel(name, [&](mlnn_model m) { return mlnn_model_layer_outputs(m, 0, &r.count); });
  for (const size_t layer : {size_t{1}, SIZE_MAX}) {
    expect(MLNN_ERROR_ARGUMENT, name, "layer",
           [&] { return mlnn_model_layer_outputs(model_, layer, &r.count); });
  }
  expect(MLNN_ERROR_ARGUMENT, name, "outputs",
         [&] { return mlnn_model_layer_outputs(model_, 0, nullptr); });

  name = "mlnn_model_label";
  expectNoModel(name, [&](mlnn_model m) { return mlnn_model_label(m, 0, &r.text); });
  for (const size_t output : {size_t{2}, SIZE_MAX}) {
    expect(MLNN_ERROR_ARGUMENT, name, "output",
           [&] { return mlnn_model_label(model_, output, &r.text); });
  }
  expect(MLNN_ERROR_ARGUMENT, name, "label", [&] { return mlnn_model_label(model_, 0, nullptr); });
}

void CRefusals::tryProperties() {
  Results& r = results_;
  expectNoModel("mlnn_model_properties",
                [&](mlnn_model m) { return mlnn_model_properties(m, &r.count); });
  expect(MLNN_ERROR_ARGUMENT, "mlnn_model_properties", "properties",
         [&] { return mlnn_model_properties(model_, nullptr); });

  std::string name = "mlnn_model_property";
  expectNoModel(name, [&](mlnn_model m) { return mlnn_model_property(m, "labels", &r.text); });
  expect(MLNN_ERROR_ARGUMENT, name, "name",
         [&] { return mlnn_model_property(model_, nullptr, &r.text); });
  expect(MLNN_ERROR_ARGUMENT, name, "value",
         [&] { return mlnn_model_property(model_, "labels", nullptr); });

  name = "mlnn_model_property_at";
  expectNoModel(name,
                [&](mlnn_model m) { return mlnn_model_property_at(m, 0, &r.text, &r.other); });
  for (const size_t index : {size_t{0}, SIZE_MAX}) {  // an image has none
    expect(MLNN_ERROR_ARGUMENT, name, "index",
           [&] { return mlnn_model_property_at(model_, index, &r.text, &r.other); });
  }
  expect(MLNN_ERROR_ARGUMENT, name, "name",
         [&] { return mlnn_model_property_at(model_, 0, nullptr, &r.other); });
  expect(MLNN_ERROR_ARGUMENT, name, "value",
         [&] { return mlnn_model_property_at(model_, 0, &r.text, nullptr); });
}

void CRefusals::tryPasses() {
  Results& r = results_;
  expectNoModel("mlnn_pass_create", [&](mlnn_model m) { return mlnn_pass_create(m, &r.pass); });
  expect(MLNN_ERROR_ARGUMENT, "mlnn_pass_create", "pass",
         [&] { return mlnn_pass_create(model_, nullptr); });
  expectNoHandle<mlnn_pass>("mlnn_pass_close", "pass", stream_.id,
                            [&](mlnn_pass p) { return mlnn_pass_close(p); });

  std::string name = "mlnn_pass_set_threads";
  expectNoHandle<mlnn_pass>(name, "pass", stream_.id,
                            [](mlnn_pass p) { return mlnn_pass_set_threads(p, 1); });
  for (const int32_t threads : {0, -1, MLNN_MOST_THREADS + 1, INT32_MAX, INT32_MIN}) {
    expect(MLNN_ERROR_ARGUMENT, name, "threads",
           [&] { return mlnn_pass_set_threads(pass_, threads); });
  }

  name = "mlnn_pass_prepare";
  expectNoHandle<mlnn_pass>(name, "pass", stream_.id,
                            [&](mlnn_pass p) { return mlnn_pass_prepare(p, 0, &r.count); });
  expect(MLNN_ERROR_ARGUMENT, name, "bytes", [&] { return mlnn_pass_prepare(pass_, 0, nullptr); });

  name = "mlnn_pass_run";
  float* const to = r.outputs;
  expectNoHandle<mlnn_pass>(name, "pass", stream_.id, [&](mlnn_pass p) {
    return mlnn_pass_run(p, 1, inputs_, 4, 4, to, 2, 2);
  });
  expect(MLNN_ERROR_SIZE, name, "frames",
         [&] { return mlnn_pass_run(pass_, SIZE_MAX, inputs_, 4, 4, to, 2, 2); });
  expect(MLNN_ERROR_ARGUMENT, name, "inputs",
         [&] { return mlnn_pass_run(pass_, 1, nullptr, 4, 4, to, 2, 2); });
  for (const size_t width : {size_t{0}, size_t{3}, size_t{5}, SIZE_MAX}) {
    expect(MLNN_ERROR_SIZE, name, "input_width",
           [&] { return mlnn_pass_run(pass_, 1, inputs_, width, 4, to, 2, 2); });
    expect(MLNN_ERROR_SIZE, name, "output_width",
           [&] { return mlnn_pass_run(pass_, 1, inputs_, 4, 4, to, width, 2); });
  }
  for (const size_t stride : {size_t{0}, size_t{1}, SIZE_MAX}) {
    expect(MLNN_ERROR_SIZE, name, "input_stride",
           [&] { return mlnn_pass_run(pass_, 2, inputs_, 4, stride, to, 2, 2); });
    expect(MLNN_ERROR_SIZE, name, "output_stride",
           [&] { return mlnn_pass_run(pass_, 2, inputs_, 4, 4, to, 2, stride); });
  }
  expect(MLNN_ERROR_ARGUMENT, name, "outputs",
         [&] { return mlnn_pass_run(pass_, 1, inputs_, 4, 4, nullptr, 2, 2); });
}

void CRefusals::tryStreams() {
  Results& r = results_;
  std::string name = "mlnn_stream_create";
  expectNoModel(name, [&](mlnn_model m) { return mlnn_stream_create(m, 4, &r.stream); });
  for (const size_t width : {size_t{3}, SIZE_MAX}) {
    expect(MLNN_ERROR_SIZE, name, "frame_width",
           [&] { return mlnn_stream_create(model_, width, &r.stream); });
  }
  expect(MLNN_ERROR_ARGUMENT, name, "stream",
         [&] { return mlnn_stream_create(model_, 4, nullptr); });
  expectNoStream("mlnn_stream_close", [&](mlnn_stream s) { return mlnn_stream_close(s); });
  expectNoStream("mlnn_stream_reset", [&](mlnn_stream s) { return mlnn_stream_reset(s); });
  expectNoStream("mlnn_stream_delay",
                 [&](mlnn_stream s) { return mlnn_stream_delay(s, &r.count); });
  expect(MLNN_ERROR_ARGUMENT, "mlnn_stream_delay", "frames",
         [&] { return mlnn_stream_delay(stream_, nullptr); });
  name = "mlnn_stream_frame_width";
  expectNoStream(name, [&](mlnn_stream s) { return mlnn_stream_frame_width(s, &r.count); });
  expect(MLNN_ERROR_ARGUMENT, name, "frame_width",
         [&] { return mlnn_stream_frame_width(stream_, nullptr); });

  name = "mlnn_stream_push";
  float* const to = r.outputs;
  expectNoStream(name,
                 [&](mlnn_stream s) { return mlnn_stream_push(s, inputs_, 4, to, 2, &r.flag); });
  expect(MLNN_ERROR_ARGUMENT, name, "frame",
         [&] { return mlnn_stream_push(stream_, nullptr, 4, to, 2, &r.flag); });
  expect(MLNN_ERROR_ARGUMENT, name, "outputs",
         [&] { return mlnn_stream_push(stream_, inputs_, 4, nullptr, 2, &r.flag); });
  expect(MLNN_ERROR_ARGUMENT, name, "has_outputs",
         [&] { return mlnn_stream_push(stream_, inputs_, 4, to, 2, nullptr); });
  for (const size_t width : {size_t{0}, size_t{3}, SIZE_MAX}) {
    expect(MLNN_ERROR_SIZE, name, "frame_width",
           [&] { return mlnn_stream_push(stream_, inputs_, width, to, 2, &r.flag); });
    expect(MLNN_ERROR_SIZE, name, "output_width",
           [&] { return mlnn_stream_push(stream_, inputs_, 4, to, width, &r.flag); });
    expect(MLNN_ERROR_SIZE, "mlnn_stream_finish", "output_width",
           [&] { return mlnn_stream_finish(stream_, to, width, &r.flag); });
  }
  name = "mlnn_stream_finish";
  expectNoStream(name, [&](mlnn_stream s) { return mlnn_stream_finish(s, to, 2, &r.flag); });
  expect(MLNN_ERROR_ARGUMENT, name, "outputs",
         [&] { return mlnn_stream_finish(stream_, nullptr, 2, &r.flag); });
  expect(MLNN_ERROR_ARGUMENT, name, "has_outputs",
         [&] { return mlnn_stream_finish(stream_, to, 2, nullptr); });
}

// Nothing is found where a call is refused.
void noFinding(mlnn_severity, const char*, void*) { ADD_FAILURE() << "found"; }
void noLayer(size_t, const mlnn_layer_summary*, void*) { ADD_FAILURE() << "found"; }
void noSection(const char*, const char*, void*) { ADD_FAILURE() << "found"; }
void noArray(size_t, const char*, const mlnn_difference*, void*) { ADD_FAILURE() << "found"; }
void noStatement(const char*, const char*, const char*, void*) { ADD_FAILURE() << "found"; }
void noStage(const char*, const mlnn_frames*, void*) { ADD_FAILURE() << "found"; }
void noComparison(const char*, const mlnn_frames*, const mlnn_frames*, const mlnn_difference*,
                  void*) {
  ADD_FAILURE() << "found";
}
void noBehaviour(const char*, const mlnn_stage_difference*, void*) { ADD_FAILURE() << "found"; }
void noLoss(const mlnn_precision_loss*, void*) { ADD_FAILURE() << "found"; }
void noProof(const mlnn_quantization_loss*, void*) { ADD_FAILURE() << "found"; }
void noQuantization(size_t, const mlnn_layer_quantization*, void*) { ADD_FAILURE() << "found"; }

void CRefusals::tryAnalyses() {
  std::string name = "mlnn_check_memory";
  const auto check = [&](const void* bytes, size_t length, const char* actFn,
                         mlnn_message_function found) {
    return [=] { return mlnn_check_memory(bytes, length, actFn, found, nullptr, nullptr); };
  };
  const auto ignored = [](mlnn_severity, const char*, void*) {};
  const size_t length = image_.size();
  expect(MLNN_ERROR_ARGUMENT, name, "bytes", check(nullptr, length, nullptr, noFinding));
  for (const size_t shorter : {size_t{0}, size_t{4}, size_t{7}, size_t{8}, length - 1}) {
    expect(MLNN_ERROR_MODEL, name, "length", check(image_.data(), shorter, nullptr, ignored));
  }
  expect(MLNN_ERROR_ARGUMENT, name, "hidden_act_fn",
         check(image_.data(), length, "none", noFinding));
  expect(MLNN_ERROR_ARGUMENT, name, "found", check(image_.data(), length, nullptr, nullptr));

  name = "mlnn_model_check";
  expectNoModel(name,
                [](mlnn_model m) { return mlnn_model_check(m, noFinding, nullptr, nullptr); });
  expect(MLNN_ERROR_ARGUMENT, name, "found",
         [&] { return mlnn_model_check(model_, nullptr, nullptr, nullptr); });
  name = "mlnn_model_summary";
  expectNoModel(name,
                [](mlnn_model m) { return mlnn_model_summary(m, noLayer, nullptr, nullptr); });
  expect(MLNN_ERROR_ARGUMENT, name, "found",
         [&] { return mlnn_model_summary(model_, nullptr, nullptr, nullptr); });
  name = "mlnn_model_budget";
  mlnn_budget* const budget = &results_.budget;
  expectNoModel(name, [&](mlnn_model m) { return mlnn_model_budget(m, nullptr, nullptr, budget); });
  expect(MLNN_ERROR_ARGUMENT, name, "budget",
         [&] { return mlnn_model_budget(model_, nullptr, nullptr, nullptr); });
  name = "mlnn_model_digest";
  expectNoModel(name,
                [](mlnn_model m) { return mlnn_model_digest(m, noSection, nullptr, nullptr); });
  expect(MLNN_ERROR_ARGUMENT, name, "found",
         [&] { return mlnn_model_digest(model_, nullptr, nullptr, nullptr); });
  name = "mlnn_compare_digests";
  const mlnn_section good = {"layer 1", "0123456789abcdef0123456789abcdef"};
  const auto compare = [](int32_t format, const mlnn_section* now, int32_t earlier,
                          const mlnn_section* before, mlnn_section_function found) {
    return [=] { return mlnn_compare_digests(format, now, 1, earlier, before, 1, found, nullptr); };
  };
  for (const int32_t wrong : {-1, 2, INT32_MAX}) {
    expect(MLNN_ERROR_ARGUMENT, name, "format", compare(wrong, &good, 0, &good, noSection));
    expect(MLNN_ERROR_ARGUMENT, name, "earlier_format", compare(0, &good, wrong, &good, noSection));
  }
  const mlnn_section noName = {nullptr, good.digest};
  const mlnn_section noDigest = {good.name, nullptr};
  for (const mlnn_section* wrong :
       {static_cast<const mlnn_section*>(nullptr), &noName, &noDigest}) {
    expect(MLNN_ERROR_ARGUMENT, name, "sections", compare(0, wrong, 0, &good, noSection));
    expect(MLNN_ERROR_ARGUMENT, name, "earlier_sections", compare(0, &good, 0, wrong, noSection));
  }
  expect(MLNN_ERROR_ARGUMENT, name, "found", compare(0, &good, 0, &good, nullptr));

  name = "mlnn_model_time";
  mlnn_frame_time* const time = &results_.time;
  expectNoModel(name, [&](mlnn_model m) { return mlnn_model_time(m, 1, nullptr, nullptr, time); });
  for (const double seconds : {0.0, -1.0, 3601.0, HUGE_VAL, std::nan("")}) {
    expect(MLNN_ERROR_ARGUMENT, name, "seconds",
           [&] { return mlnn_model_time(model_, seconds, nullptr, nullptr, time); });
  }
  expect(MLNN_ERROR_ARGUMENT, name, "time",
         [&] { return mlnn_model_time(model_, 1, nullptr, nullptr, nullptr); });

  name = "mlnn_model_fit";
  const auto fit = [](mlnn_model model, int32_t format, int32_t precision,
                      mlnn_message_function found) {
    return mlnn_model_fit(model, format, precision, found, nullptr, nullptr, nullptr);
  };
  expectNoModel(name, [&](mlnn_model m) { return fit(m, MLNN_FORMAT_TEXT, 9, noFinding); });
  for (const int32_t format : {-1, 2, INT32_MAX}) {
    expect(MLNN_ERROR_ARGUMENT, name, "format", [&] { return fit(model_, format, 9, noFinding); });
  }
  for (const int32_t precision : {0, 18, -1, INT32_MAX, INT32_MIN}) {
    expect(MLNN_ERROR_ARGUMENT, name, "precision",
           [&] { return fit(model_, MLNN_FORMAT_IMAGE, precision, noFinding); });
  }
  expect(MLNN_ERROR_ARGUMENT, name, "found",
         [&] { return fit(model_, MLNN_FORMAT_TEXT, 9, nullptr); });

  name = "mlnn_count_values";
  const auto countValues = [&](const float* values, size_t count, size_t bins, uint64_t* counts,
                               mlnn_histogram* histogram) {
    return
        [=] { return mlnn_count_values(values, count, bins, nullptr, nullptr, counts, histogram); };
  };
  uint64_t* const counts = results_.numbers;
  mlnn_histogram* const histogram = &results_.histogram;
  expect(MLNN_ERROR_ARGUMENT, name, "values", countValues(nullptr, 1, 2, counts, histogram));
  expect(MLNN_ERROR_SIZE, name, "count", countValues(inputs_, SIZE_MAX, 2, counts, histogram));
  expect(MLNN_ERROR_ARGUMENT, name, "bins", countValues(inputs_, 8, 0, counts, histogram));
  expect(MLNN_ERROR_SIZE, name, "bins", countValues(inputs_, 8, SIZE_MAX, counts, histogram));
  expect(MLNN_ERROR_ARGUMENT, name, "counts", countValues(inputs_, 8, 2, nullptr, histogram));
  expect(MLNN_ERROR_ARGUMENT, name, "histogram", countValues(inputs_, 8, 2, counts, nullptr));
}

void CRefusals::tryDifferences() {
  std::string name = "mlnn_model_compare";
  expectNoModel(
      name, [&](mlnn_model m) { return mlnn_model_compare(m, model_, noArray, nullptr, nullptr); });
  expectNoHandle<mlnn_model>(name, "other", pass_.id, [&](mlnn_model m) {
    return mlnn_model_compare(model_, m, noArray, nullptr, nullptr);
  });
  expect(MLNN_ERROR_ARGUMENT, name, "found",
         [&] { return mlnn_model_compare(model_, model_, nullptr, nullptr, nullptr); });

  name = "mlnn_model_find_quantization";
  expectNoModel(name, [&](mlnn_model m) {
    return mlnn_model_find_quantization(m, model_, noQuantization, nullptr, nullptr);
  });
  expectNoHandle<mlnn_model>(name, "other", pass_.id, [&](mlnn_model m) {
    return mlnn_model_find_quantization(model_, m, noQuantization, nullptr, nullptr);
  });
  expect(MLNN_ERROR_ARGUMENT, name, "found",
         [&] { return mlnn_model_find_quantization(model_, model_, nullptr, nullptr, nullptr); });

  name = "mlnn_model_compare_statements";
  expectNoModel(name, [&](mlnn_model m) {
    return mlnn_model_compare_statements(m, model_, noStatement, nullptr);
  });
  expectNoHandle<mlnn_model>(name, "other", pass_.id, [&](mlnn_model m) {
    return mlnn_model_compare_statements(model_, m, noStatement, nullptr);
  });
  expect(MLNN_ERROR_ARGUMENT, name, "found",
         [&] { return mlnn_model_compare_statements(model_, model_, nullptr, nullptr); });
}

// Frames that are no good to a model of four inputs, and why.
struct WrongFrames {
  mlnn_status status;
  mlnn_frames frames;
};

std::vector<WrongFrames> wrongFrames(const float* values) {
  return {{MLNN_ERROR_ARGUMENT, {nullptr, 1, 4, 4}},   {MLNN_ERROR_SIZE, {values, 1, 3, 4}},
          {MLNN_ERROR_SIZE, {values, 1, 0, 4}},        {MLNN_ERROR_SIZE, {values, 1, SIZE_MAX, 4}},
          {MLNN_ERROR_SIZE, {values, SIZE_MAX, 4, 4}}, {MLNN_ERROR_SIZE, {values, 2, 4, 3}},
          {MLNN_ERROR_SIZE, {values, 2, 4, SIZE_MAX}}};
}

void CRefusals::tryRecordings() {
  const mlnn_frames frames = {inputs_, 2, 4, 4};
  std::string name = "mlnn_model_trace";
  const auto trace = [](mlnn_model model, const mlnn_frames* recording, mlnn_stage_function found) {
    return mlnn_model_trace(model, recording, 0, found, nullptr, nullptr);
  };
  expectNoModel(name, [&](mlnn_model m) { return trace(m, &frames, noStage); });
  expect(MLNN_ERROR_ARGUMENT, name, "recording", [&] { return trace(model_, nullptr, noStage); });
  for (const WrongFrames& wrong : wrongFrames(inputs_)) {
    expect(wrong.status, name, "recording", [&] { return trace(model_, &wrong.frames, noStage); });
  }
  expect(MLNN_ERROR_ARGUMENT, name, "found", [&] { return trace(model_, &frames, nullptr); });

  name = "mlnn_model_compare_behaviour";
  uint64_t* const number = results_.numbers;
  const auto compare = [&](mlnn_model a, mlnn_model b, const mlnn_frames* recording,
                           mlnn_behaviour_function found, uint64_t* same) {
    return mlnn_model_compare_behaviour(a, b, recording, 1, 0, found, nullptr, nullptr, same);
  };
  expectNoModel(name,
                [&](mlnn_model m) { return compare(m, model_, &frames, noBehaviour, number); });
  expectNoHandle<mlnn_model>(name, "other", pass_.id, [&](mlnn_model m) {
    return compare(model_, m, &frames, noBehaviour, number);
  });
  expect(MLNN_ERROR_ARGUMENT, name, "recordings",
         [&] { return compare(model_, model_, nullptr, noBehaviour, number); });
  for (const WrongFrames& wrong : wrongFrames(inputs_)) {
    expect(wrong.status, name, "recordings",
           [&] { return compare(model_, model_, &wrong.frames, noBehaviour, number); });
  }
  expect(MLNN_ERROR_ARGUMENT, name, "found",
         [&] { return compare(model_, model_, &frames, nullptr, number); });
  expect(MLNN_ERROR_ARGUMENT, name, "same_decisions",
         [&] { return compare(model_, model_, &frames, noBehaviour, nullptr); });

  name = "mlnn_model_sweep";
  const int32_t known = 1;
  const int32_t four = 4;
  const auto sweep = [&](mlnn_model model, const mlnn_frames* recording, const int32_t* classes,
                         const int32_t* bits, mlnn_precision_function found, uint64_t* right) {
    return mlnn_model_sweep(model, recording, 1, classes, 0, bits, 1, found, nullptr, nullptr,
                            right);
  };
  expectNoModel(name,
                [&](mlnn_model m) { return sweep(m, &frames, nullptr, &four, noLoss, number); });
  expect(MLNN_ERROR_ARGUMENT, name, "recordings",
         [&] { return sweep(model_, nullptr, &known, &four, noLoss, number); });
  for (const WrongFrames& wrong : wrongFrames(inputs_)) {
    expect(wrong.status, name, "recordings",
           [&] { return sweep(model_, &wrong.frames, &known, &four, noLoss, number); });
  }
  for (const int32_t wrong : {2, -2, INT32_MAX, INT32_MIN}) {
    expect(MLNN_ERROR_ARGUMENT, name, "classes",
           [&] { return sweep(model_, &frames, &wrong, &four, noLoss, number); });
  }
  expect(MLNN_ERROR_ARGUMENT, name, "bits",
         [&] { return sweep(model_, &frames, &known, nullptr, noLoss, number); });
  for (const int32_t wrong : {-1, 32, INT32_MAX, INT32_MIN}) {
    expect(MLNN_ERROR_ARGUMENT, name, "bits",
           [&] { return sweep(model_, &frames, &known, &wrong, noLoss, number); });
  }
  expect(MLNN_ERROR_ARGUMENT, name, "found",
         [&] { return sweep(model_, &frames, &known, &four, nullptr, number); });
  expect(MLNN_ERROR_ARGUMENT, name, "right_recordings",
         [&] { return sweep(model_, &frames, &known, &four, noLoss, nullptr); });
}

void CRefusals::tryProofs() {
  const std::string name = "mlnn_model_prove_quantization";
  const mlnn_frames frames = {inputs_, 2, 4, 4};
  const mlnn_quantization_options good = {MLNN_ROW_SCALE_LARGEST, HUGE_VAL, 1, {nullptr, 0, 0, 0}};
  const int32_t known = 1;
  const int32_t four = 4;
  mlnn_quantization_proof* const proof = &results_.proof;
  const auto prove = [&](mlnn_model model, const mlnn_frames* recording, const int32_t* classes,
                         const mlnn_quantization_options* options, const int32_t* bits,
                         mlnn_quantization_loss_function found, mlnn_quantization_proof* made) {
    return mlnn_model_prove_quantization(model, recording, 1, classes, 0, options, bits, 1, found,
                                         nullptr, nullptr, made);
  };
  expectNoModel(
      name, [&](mlnn_model m) { return prove(m, &frames, nullptr, &good, &four, noProof, proof); });
  expect(MLNN_ERROR_ARGUMENT, name, "recordings",
         [&] { return prove(model_, nullptr, &known, &good, &four, noProof, proof); });
  for (const WrongFrames& wrong : wrongFrames(inputs_)) {
    expect(wrong.status, name, "recordings",
           [&] { return prove(model_, &wrong.frames, &known, &good, &four, noProof, proof); });
    mlnn_quantization_options options = good;
    options.corrections = wrong.frames;
    expect(wrong.status, name, "options",
           [&] { return prove(model_, &frames, &known, &options, &four, noProof, proof); });
  }
  for (const int32_t wrong : {2, -2, INT32_MAX, INT32_MIN}) {
    expect(MLNN_ERROR_ARGUMENT, name, "classes",
           [&] { return prove(model_, &frames, &wrong, &good, &four, noProof, proof); });
    mlnn_quantization_options options = good;
    options.scale = wrong;
    expect(MLNN_ERROR_ARGUMENT, name, "options",
           [&] { return prove(model_, &frames, &known, &options, &four, noProof, proof); });
  }
  expect(MLNN_ERROR_ARGUMENT, name, "options",
         [&] { return prove(model_, &frames, &known, nullptr, &four, noProof, proof); });
  for (const double wrong : {-1.0, -HUGE_VAL, std::nan("")}) {
    mlnn_quantization_options error = good;
    error.largest_error = wrong;
    mlnn_quantization_options keep = good;
    keep.keep = wrong;
    for (const auto* options : {&error, &keep}) {
      expect(MLNN_ERROR_ARGUMENT, name, "options",
             [&] { return prove(model_, &frames, &known, options, &four, noProof, proof); });
    }
  }
  expect(MLNN_ERROR_ARGUMENT, name, "bits",
         [&] { return prove(model_, &frames, &known, &good, nullptr, noProof, proof); });
  for (const int32_t wrong : {-1, 1, 9, INT32_MAX, INT32_MIN}) {
    expect(MLNN_ERROR_ARGUMENT, name, "bits",
           [&] { return prove(model_, &frames, &known, &good, &wrong, noProof, proof); });
  }
  expect(MLNN_ERROR_ARGUMENT, name, "found",
         [&] { return prove(model_, &frames, &known, &good, &four, nullptr, proof); });
  expect(MLNN_ERROR_ARGUMENT, name, "proof",
         [&] { return prove(model_, &frames, &known, &good, &four, noProof, nullptr); });
}

void CRefusals::tryTraces() {
  const std::string name = "mlnn_compare_traces";
  const mlnn_stage good = {"inputs", {inputs_, 2, 4, 4}};
  const auto compare = [](const mlnn_stage* a, const mlnn_stage* b, mlnn_trace_function found) {
    return [=] { return mlnn_compare_traces(a, 1, b, 1, found, nullptr, nullptr); };
  };
  expect(MLNN_ERROR_ARGUMENT, name, "trace", compare(nullptr, &good, noComparison));
  expect(MLNN_ERROR_ARGUMENT, name, "other_trace", compare(&good, nullptr, noComparison));
  expect(MLNN_ERROR_ARGUMENT, name, "found", compare(&good, &good, nullptr));
  for (const char* wrong : {static_cast<const char*>(nullptr), "", "layer-0", "input", "layer-x"}) {
    const mlnn_stage stage = {wrong, good.values};
    expect(MLNN_ERROR_ARGUMENT, name, "trace", compare(&stage, &good, noComparison));
    expect(MLNN_ERROR_ARGUMENT, name, "other_trace", compare(&good, &stage, noComparison));
  }
  for (const WrongFrames& wrong : wrongFrames(inputs_)) {
    if (wrong.frames.width < 4) continue;  // here any width will do
    const mlnn_stage stage = {"inputs", wrong.frames};
    expect(wrong.status, name, "trace", compare(&stage, &good, noComparison));
    expect(wrong.status, name, "other_trace", compare(&good, &stage, noComparison));
  }
}

void CRefusals::tryAverages() {
  const std::string name = "mlnn_model_average";
  mlnn_model* const mean = &results_.model;
  const auto average = [](const mlnn_model* models, size_t count, const double* weights,
                          mlnn_model* made) {
    return mlnn_model_average(models, count, weights, nullptr, nullptr, made);
  };
  expectNoHandle<mlnn_model>(name, "models", pass_.id,
                             [&](mlnn_model m) { return average(&m, 1, nullptr, mean); });
  expect(MLNN_ERROR_ARGUMENT, name, "models", [&] { return average(nullptr, 1, nullptr, mean); });
  for (const size_t count : {size_t{0}, SIZE_MAX}) {
    expect(MLNN_ERROR_ARGUMENT, name, "count",
           [&] { return average(&model_, count, nullptr, mean); });
  }
  for (const double wrong : {0.0, -1.0, HUGE_VAL, std::nan("")}) {
    expect(MLNN_ERROR_ARGUMENT, name, "weights", [&] { return average(&model_, 1, &wrong, mean); });
  }
  expect(MLNN_ERROR_ARGUMENT, name, "average",
         [&] { return average(&model_, 1, nullptr, nullptr); });
}

TEST_F(CRefusals, haveACodeAndATextForEveryParameterOfTheHeader) {
  tryOpening();
  tryConverting();
  tryQuestions();
  tryProperties();
  tryPasses();
  tryStreams();
  tryAnalyses();
  tryDifferences();
  tryRecordings();
  tryProofs();
  tryTraces();
  tryAverages();
  const std::vector<Declaration> declarations = declarationsOfTheHeader();
  EXPECT_GT(declarations.size(), 30u);
  std::set<std::string> expected;
  for (const Declaration& declaration : declarations) {
    if (kNeverRefuse.count(declaration.name) != 0) continue;
    EXPECT_EQ(declaration.result, "mlnn_status ") << declaration.name;
    for (const std::string& parameter : declaration.parameters) {
      if (takesAll(declaration.name, parameter)) continue;
      expected.insert(declaration.name + " " + parameter);
    }
  }
  EXPECT_EQ(tried_, expected);
}

// Each function that the library shows to C is one that the header declares.
TEST_F(CRefusals, knowEveryFunctionOfTheHeader) {
  const std::string header = headers();
  std::size_t exported = 0;
  for (std::size_t at = 0; (at = header.find("MLNN_API ", at)) != std::string::npos; ++at)
    ++exported;
  // Beside the functions of both headers it is defined, once empty.
  EXPECT_EQ(declarationsOfTheHeader().size(), exported - 1);
}

}  // namespace
