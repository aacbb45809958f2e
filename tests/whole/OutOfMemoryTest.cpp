// Every public operation of the library while memory runs out: its n-th allocation fails, for
// n = 1, 2, ... until the operation passes; once alone, and then with every one after it too.
// std::bad_alloc must come out, nothing leak, and the model be fit to be destroyed, copied,
// assigned to and loaded again.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <new>
#include <optional>
#include <sstream>
#include <streambuf>
#include <string>
#include <utility>
#include <vector>

#include "features/ContextWindow.h"
#include "features/string_split.h"
#include "inference/CodedFwdPass.h"
#include "inference/ImageFwdPass.h"
#include "model/MultiLayerNNModel.h"
#include "tests/support/AllocationWatch.h"
#include "tests/support/ByteImage.h"
#include "tests/support/ModelDifference.h"
#include "tests/support/SourceTree.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::test::AllocationWatch;
using mlnn::test::Failing;
using mlnn::test::FailingAllocation;
using mlnn::test::firstDifference;
using mlnn::test::kCanFailAllocations;

// Long enough to need memory of their own.
const std::string kKey = "a_property_with_a_long_name_beyond_any_small_buffer";
const std::string kNote = "a note that is too long for the small buffer of any string";
const std::string kDescription =
    "mel_deltas:bands=40,left=7,right=7,deltas=1,line_kernels=0,line_kernel_width=0";

// A normalisation line, with which the reader makes arrays.
std::string trainingLine() {
  std::string line = "# TRAIN rbm_train a b deltas_norm_minvals 0";
  for (int i = 1; i < 120; ++i) line += "," + std::to_string(i);
  return line;
}

MultiLayerNNModel richModel() {
  MultiLayerNNModel model = mlnn::test::fullModel();
  model.props[kKey] = kNote;
  model.notes.lines.push_back(kNote);
  return model;
}

std::string textOfRichModel() {
  MultiLayerNNModel model = richModel();
  model.notes.lines.push_back(trainingLine().substr(2));
  std::ostringstream out;
  model.serializeAscii(out);
  return out.str();
}

// A buffer that takes everything without allocating.
class Nowhere : public std::streambuf {
 protected:
  int_type overflow(int_type c) override { return traits_type::not_eof(c); }
  std::streamsize xsputn(const char*, std::streamsize count) override { return count; }
};

// An image that can be read again, which takes a normalisation.
std::string imageOf(MultiLayerNNModel model) {
  model.deltasNorm.allocIfNeeded();
  return mlnn::test::ByteImage::of(model).bytes();
}

mlnn::ImageFwdPass passOver(const std::string& image) {
  mlnn::ImageFwdPass pass;
  if (pass.open(image.data(), image.size()) != 0) throw std::logic_error("the image is refused");
  return pass;
}

// What operations work on, made anew for each try.
struct Subject {
  MultiLayerNNModel model = richModel();
  MultiLayerNNModel other = richModel();
  MultiLayerNNModel empty;
  NNLayer layer = mlnn::test::batchNormLayer(4, 3);
  NNLayer sameShape = mlnn::test::batchNormLayer(4, 3, 2);
  NNLayer otherShape = mlnn::test::foldedLayer(2, 5);
  NNLayer fewValues{20, 30, false};
  MelDeltasNorm norm;
  TrainingNotes notes;
  DbnFeatureDescription description{DbnFeatureDescription::MelDeltas};
  std::string text = textOfRichModel();
  std::istringstream textStream{text};
  std::string image = mlnn::test::ByteImage::of(model).bytes();
  std::istringstream imageStream{image};
  std::string record = mlnn::test::ByteImage::of(layer).bytes();
  std::string recordOfFewValues = mlnn::test::ByteImage::of(fewValues).bytes();
  std::string room = std::string(image.size(), '\0');
  std::string file = mlnn::test::sourcePath("tests/golden/version2.txt");
  Nowhere nowhere;
  std::ostream out{&nowhere};
  MultiLayerNNModel runnable =
      mlnn::test::modelOf({mlnn::test::plainLayer(4, 3), mlnn::test::batchNormLayer(3, 5)});
  NNFwdPassFromFile pass{runnable};
  std::string runnableImage = imageOf(runnable);
  mlnn::ImageFwdPass imagePass;
  MultiLayerNNModel ofFewValues = mlnn::test::modelOf(
      {mlnn::test::fewValuesLayer(4, 30, 3), mlnn::test::batchNormLayer(30, 5)});
  std::string imageOfCodes = imageOf(ofFewValues);
  mlnn::ImageFwdPass openPass = passOver(imageOfCodes);
  std::unique_ptr<FwdPass> codedPass =
      mlnn::CodedFwdPass::create(ofFewValues, 4, mlnn::CodesFor::kMemory);
  Eigen::MatrixXf inputs = mlnn::test::someValues(4, 3, 1);
  Eigen::MatrixXf outputs;
  std::vector<mlnn::LayerResult> results;
  Eigen::MatrixXf frames = mlnn::test::someValues(4, 6, 2);
  std::vector<std::string> pieces;
  std::string string;
};

// Returns whether the operation did what it is for.
using Action = std::function<bool(Subject&)>;

struct Operation {
  const char* name;
  Action action;
  bool allocates = true;
  // The standard's streams keep an exception that comes up inside them and fail instead, unless
  // their caller asked them not to. Then the reader refuses.
  bool mayRefuse = false;
  // What holds besides after std::bad_alloc.
  std::function<void(Subject&)> expectAfterFailure = nullptr;
};

// That a pass whose image was to be replaced has none: it must not use either one in part.
void expectNoImage(Subject& s) {
  EXPECT_EQ(s.openPass.numInputs(), 0);
  EXPECT_EQ(s.openPass.numOutputs(), 0);
  EXPECT_TRUE(s.openPass.widths().empty());
  EXPECT_EQ(s.openPass.evaluate(s.inputs, s.outputs), 1);
}

// Makes an action of something that returns nothing.
template <typename Act>
Action does(Act act) {
  return [act](Subject& s) {
    act(s);
    return true;
  };
}

template <typename Act>
Operation quiet(const char* name, Act act) {
  return {name, does(act), false, false};
}

mlnn::ContextWindow windowFor(Subject& s) {
  DbnFeatureDescription desc(DbnFeatureDescription::MelDeltas);
  desc.winSizeLeft = 2;
  desc.winSizeRight = 1;
  std::optional<mlnn::ContextWindow> window =
      mlnn::ContextWindow::create(desc, s.model.deltasNorm, 4, s.string);
  if (!window) throw std::logic_error(s.string);
  return *window;
}

std::vector<Operation> modelOperations() {
  return {
      {"default constructor", does([](Subject&) { const MultiLayerNNModel made; }), false},
      {"constructor from sizes", does([](Subject&) {
         int sizes[] = {4, 3, 2};
         const MultiLayerNNModel made(sizes, 3);
       })},
      {"copy constructor", does([](Subject& s) { const MultiLayerNNModel copy(s.model); })},
      {"move constructor",
       does([](Subject& s) { const MultiLayerNNModel moved(std::move(s.other)); }), false},
      {"copy assignment", does([](Subject& s) { s.empty = s.model; })},
      {"copy assignment, other way", does([](Subject& s) { s.model = s.empty; }), false},
      {"move assignment", does([](Subject& s) { s.model = std::move(s.other); }), false},
      {"createFirstLayer", [](Subject& s) { return s.empty.createFirstLayer(4, 3, 1, true) == 0; }},
      {"addLayerRndInit", [](Subject& s) { return s.model.addLayerRndInit(3, 1, true) == 0; }},
      {"deleteLayers", [](Subject& s) { return s.model.deleteLayers(2) == 0; }, false},
      {"createFwdPass",
       does([](Subject& s) { const std::unique_ptr<FwdPass> made(s.model.createFwdPass()); })},
      quiet("operator+=", [](Subject& s) { s.model += s.other; }),
      quiet("operator*=", [](Subject& s) { s.model *= 2; }),
      quiet("zeros", [](Subject& s) { s.model.zeros(); }),
      quiet("setActFn", [](Subject& s) { s.model.setActFn(ActFn::relu); }),
      quiet("setSoftmax", [](Subject& s) { s.model.setSoftmax(true); }),
      {"getProp", does([](Subject& s) { s.model.getProp(kKey); })},
      {"setProp", does([](Subject& s) { s.empty.setProp(kKey, kNote); })},
      {"setProp, replacing", does([](Subject& s) { s.model.setProp("beta", kNote); })},
      {"convBatchNorm", [](Subject& s) { return s.model.convBatchNorm() == 0; }, false},
      {"retainPrecisionBits", does([](Subject& s) { s.model.retainPrecisionBits(8); }), false},
      {"debug_description", does([](Subject& s) { s.string = s.model.debug_description(); })},
      {"description", does([](Subject& s) {
         for (int i = 0; i < 9; ++i) s.model.addLayerRndInit(10, 0, false);
         s.string = s.model.description();
       })},
      {"serializeAscii", [](Subject& s) { return s.model.serializeAscii(s.out) == 0; }, false},
      {"deserializeAscii", [](Subject& s) { return s.model.deserializeAscii(s.textStream) == 0; },
       true, true},
      {"binarySerializedLength", does([](Subject& s) { s.model.binarySerializedLength(); })},
      quiet("checksum", [](Subject& s) { s.model.checksum(); }),
      {"serializeBinary", does([](Subject& s) { s.model.serializeBinary(s.room.data()); })},
      {"deserializeBinary",
       [](Subject& s) {
         return s.empty.deserializeBinary(s.image.data(),
                                          static_cast<unsigned int>(s.image.size())) > 0;
       }},
      {"deserialize, text", [](Subject& s) { return s.model.deserialize(s.textStream) == 0; }, true,
       true},
      {"deserialize, image", [](Subject& s) { return s.model.deserialize(s.imageStream) == 0; }},
      {"deserialize, file", [](Subject& s) { return s.model.deserialize(s.file.c_str()) == 0; },
       true, true},
  };
}

std::vector<Operation> layerOperations() {
  return {
      {"layer constructor", does([](Subject&) { const NNLayer made(4, 3, true); })},
      {"layer, random", does([](Subject&) { const NNLayer made(4, 3, 1.0f, true); })},
      {"layer, copy constructor", does([](Subject& s) { const NNLayer copy(s.layer); })},
      {"layer, move constructor", does([](Subject& s) { const NNLayer moved(std::move(s.layer)); }),
       false},
      {"layer, copy assignment", does([](Subject& s) { s.layer = s.otherShape; })},
      quiet("layer, same shape", [](Subject& s) { s.layer = s.sameShape; }),
      quiet("layer, operator+=", [](Subject& s) { s.layer += s.layer; }),
      quiet("layer, operator+= of another shape", [](Subject& s) { s.layer += s.otherShape; }),
      quiet("layer, operator*=", [](Subject& s) { s.layer *= 2; }),
      quiet("layer, zeros", [](Subject& s) { s.layer.zeros(); }),
      quiet("layer, checksum", [](Subject& s) { s.layer.checksum(); }),
      quiet("layer, serializeBinary", [](Subject& s) { s.layer.serializeBinary(s.room.data()); }),
      {"layer of few values, binarySerializedLength",
       does([](Subject& s) { s.fewValues.binarySerializedLength(); })},
      {"layer of few values, checksum", does([](Subject& s) { s.fewValues.checksum(); })},
      {"layer of few values, serializeBinary",
       does([](Subject& s) { s.fewValues.serializeBinary(s.room.data()); })},
      {"layer of few values, deserializeBinary",
       [](Subject& s) {
         const int size = static_cast<int>(s.recordOfFewValues.size());
         return s.otherShape.deserializeBinary(s.recordOfFewValues.data(), size) > 0;
       }},
      {"layer, deserializeBinary",
       [](Subject& s) {
         return s.otherShape.deserializeBinary(s.record.data(), static_cast<int>(s.record.size())) >
                0;
       }},
  };
}

std::vector<Operation> featureOperations() {
  return {
      {"norm, allocIfNeeded", does([](Subject& s) { s.norm.allocIfNeeded(); })},
      {"norm, copy assignment", does([](Subject& s) { s.norm = s.model.deltasNorm; })},
      {"norm, copy constructor",
       does([](Subject& s) { const MelDeltasNorm copy(s.model.deltasNorm); })},
      {"notes, addString", does([](Subject& s) { s.notes.addString("# " + kNote); })},
      {"notes, addRndLayer", does([](Subject& s) { s.notes.addRndLayer(12, 0.1f); })},
      {"notes, copy assignment", does([](Subject& s) { s.notes = s.model.notes; })},
      {"notes, copy constructor",
       does([](Subject& s) { const TrainingNotes copy(s.model.notes); })},
      {"description, serialize", does([](Subject& s) { s.description.serialize(s.string); })},
      {"description, deserialize",
       [](Subject& s) { return s.description.deserialize(kDescription) == 0; }, false},
      {"string_split", does([](Subject& s) { string_split(s.pieces, s.text, " \t\n"); })},
      {"actFnToString", does([](Subject& s) { s.string = ActFn::actFnToString(ActFn::relu); }),
       false},
      {"window, create", does([](Subject& s) { windowFor(s); })},
      {"window, stack", does([](Subject& s) {
         const mlnn::ContextWindow window = windowFor(s);
         window.stack(s.frames, s.outputs);
       })},
      {"window, push and finish", does([](Subject& s) {
         mlnn::ContextWindow window = windowFor(s);
         s.outputs = Eigen::MatrixXf::Zero(window.inputLen(), 1);
         for (int i = 0; i < 4; ++i) window.push(s.frames.col(i).data(), s.outputs.data());
         while (window.finish(s.outputs.data())) continue;
       })},
  };
}

std::vector<Operation> passOperations() {
  return {
      {"evaluate", [](Subject& s) { return s.pass.evaluate(s.inputs, s.outputs) == 0; }},
      {"evaluateLayers",
       [](Subject& s) { return s.pass.evaluateLayers(s.inputs, s.outputs, s.results) == 0; }},
      {"evaluate, apart",
       [](Subject& s) {
         using Strides = Eigen::Stride<Eigen::Dynamic, Eigen::Dynamic>;
         const Eigen::Map<const Eigen::MatrixXf, 0, Strides> rows(s.inputs.data(), 4, 3, {1, 3});
         return s.pass.evaluate(rows, s.outputs) == 0;
       }},
      {"coded, another",
       [](Subject& s) {
         const auto pass = mlnn::CodedFwdPass::create(s.runnable, 8, mlnn::CodesFor::kMemory);
         return pass->another()->evaluate(s.inputs, s.outputs) == 0;
       }},
      {"coded, create",
       [](Subject& s) {
         return mlnn::CodedFwdPass::create(s.runnable, 8, mlnn::CodesFor::kMemory) != nullptr;
       }},
      {"coded, evaluate",
       [](Subject& s) {
         const std::unique_ptr<FwdPass> pass =
             mlnn::CodedFwdPass::create(s.runnable, 4, mlnn::CodesFor::kMemory);
         return pass->evaluate(s.inputs, s.outputs) == 0;
       }},
      {"image, open",
       [](Subject& s) {
         mlnn::ImageFwdPass pass;
         return pass.open(s.runnableImage.data(), s.runnableImage.size()) == 0;
       }},
      {"image, evaluate",
       [](Subject& s) {
         mlnn::ImageFwdPass pass;
         pass.open(s.runnableImage.data(), s.runnableImage.size());
         return pass.evaluate(s.inputs, s.outputs) == 0;
       }},
      {"coded, create for speed",
       [](Subject& s) {
         return mlnn::CodedFwdPass::create(s.runnable, 8, mlnn::CodesFor::kSpeed) != nullptr;
       }},
      {"coded, evaluate alone",
       [](Subject& s) { return s.codedPass->evaluate(s.inputs, s.outputs) == 0; }},
      {"image, open with the checksum declined",
       [](Subject& s) {
         const std::string& image = s.runnableImage;
         mlnn::ImageFwdPass pass;
         return pass.open(image.data(), image.size(), mlnn::ImageChecksum::kDeclined) == 0;
       }},
      {"image, evaluateLayers",
       [](Subject& s) {
         mlnn::ImageFwdPass pass;
         pass.open(s.runnableImage.data(), s.runnableImage.size());
         return pass.evaluateLayers(s.inputs, s.outputs, s.results) == 0;
       }},
      {"image of codes, evaluate",
       [](Subject& s) { return s.openPass.evaluate(s.inputs, s.outputs) == 0; }},
      {"image of codes, evaluateLayers",
       [](Subject& s) { return s.openPass.evaluateLayers(s.inputs, s.outputs, s.results) == 0; }},
      {"image, open another",
       [](Subject& s) {
         return s.openPass.open(s.runnableImage.data(), s.runnableImage.size()) == 0;
       },
       true, false, expectNoImage},
      {"image, open again",
       [](Subject& s) {
         return s.imagePass.open(s.runnableImage.data(), s.runnableImage.size()) == 0;
       }},
  };
}

// Whatever happened, the passes must serve again, with the results of new ones.
void expectPassesServe(Subject& s) {
  Eigen::MatrixXf wanted;
  EXPECT_EQ(s.pass.evaluate(s.inputs, s.outputs), 0);
  EXPECT_EQ(NNFwdPassFromFile(s.runnable).evaluate(s.inputs, wanted), 0);
  EXPECT_TRUE(mlnn::test::sameBits(s.outputs, wanted));
  EXPECT_EQ(s.imagePass.open(s.runnableImage.data(), s.runnableImage.size()), 0);
  EXPECT_EQ(s.imagePass.evaluate(s.inputs, s.outputs), 0);
  EXPECT_TRUE(mlnn::test::sameBits(s.outputs, wanted));

  if (s.openPass.numInputs() == 0) s.openPass = passOver(s.imageOfCodes);
  const bool isOther = s.openPass.widths() == s.imagePass.widths();
  mlnn::ImageFwdPass fresh = passOver(isOther ? s.runnableImage : s.imageOfCodes);
  EXPECT_EQ(s.openPass.evaluate(s.inputs, s.outputs), 0);
  EXPECT_EQ(fresh.evaluate(s.inputs, wanted), 0);
  EXPECT_TRUE(mlnn::test::sameBits(s.outputs, wanted));
  const std::unique_ptr<FwdPass> freshCoded =
      mlnn::CodedFwdPass::create(s.ofFewValues, 4, mlnn::CodesFor::kMemory);
  EXPECT_EQ(s.codedPass->evaluate(s.inputs, s.outputs), 0);
  EXPECT_EQ(freshCoded->evaluate(s.inputs, wanted), 0);
  EXPECT_TRUE(mlnn::test::sameBits(s.outputs, wanted));
}

// Whatever happened, the models must serve again.
void expectServes(Subject& s) {
  for (MultiLayerNNModel* model : {&s.model, &s.other, &s.empty}) {
    const MultiLayerNNModel copy(*model);
    *model = s.runnable;
    EXPECT_EQ(model->debug_description(), s.runnable.debug_description());
    std::istringstream text(s.text);
    MultiLayerNNModel fresh;
    EXPECT_EQ(model->deserializeAscii(text), 0);
    std::istringstream image(s.image);
    EXPECT_EQ(model->deserialize(image), 0);
    image.seekg(0);
    EXPECT_EQ(fresh.deserialize(image), 0);
    EXPECT_TRUE(mlnn::test::sameLayers(*model, fresh));
  }
  s.layer = s.otherShape;
  EXPECT_TRUE(mlnn::test::sameLayer(s.layer, s.otherShape));
  s.norm.allocIfNeeded();
  EXPECT_EQ(s.norm.normvals.size(), MelDeltasNorm::kLength);
  expectPassesServe(s);
}

enum class Outcome { kPassed, kThrew, kRefused };

// Tries the operation with its allocation number `successes` failing; returns whether one failed.
bool tryOnce(const Operation& operation, std::size_t successes, Failing mode) {
  const AllocationWatch watch;
  bool happened = false;
  {
    Subject subject;
    Outcome outcome = Outcome::kPassed;
    {
      const FailingAllocation failing(successes, mode);
      try {
        outcome = operation.action(subject) ? Outcome::kPassed : Outcome::kRefused;
      } catch (const std::bad_alloc&) {
        outcome = Outcome::kThrew;
      }
      happened = failing.happened();
    }
    const bool isRight = !happened ? outcome == Outcome::kPassed
                                   : outcome == Outcome::kThrew ||
                                         (operation.mayRefuse && outcome == Outcome::kRefused);
    EXPECT_TRUE(isRight) << "allocation " << successes + 1;
    if (outcome == Outcome::kThrew && operation.expectAfterFailure) {
      operation.expectAfterFailure(subject);
    }
    expectServes(subject);
  }
  EXPECT_EQ(watch.live(), 0) << "allocation " << successes + 1;
  return happened;
}

class Operations : public testing::TestWithParam<Operation> {
 protected:
  void SetUp() override {
    if (!kCanFailAllocations) GTEST_SKIP() << "the sanitizer owns the heap";
    shown_ = std::cerr.rdbuf(&nowhere_);
    shownFile_ = stderr;
    stderr = file_;
    // What is made on first use stays, the list of what is to be destroyed at exit included.
    Subject subject;
    EXPECT_TRUE(GetParam().action(subject));
    expectServes(subject);
  }
  void TearDown() override {
    if (shown_ == nullptr) return;
    std::cerr.rdbuf(shown_);
    stderr = shownFile_;
  }

  // Fails one allocation after the other; returns how many there are.
  std::size_t failEach(Failing mode) const {
    std::size_t successes = 0;
    while (tryOnce(GetParam(), successes, mode)) ++successes;
    return successes;
  }

 private:
  static std::FILE* const file_;
  Nowhere nowhere_;
  std::streambuf* shown_ = nullptr;
  std::FILE* shownFile_ = nullptr;
};

// Unbuffered, since a buffer is memory that stays.
std::FILE* const Operations::file_ = [] {
  std::FILE* file = std::fopen("/dev/null", "w");
  if (file != nullptr) std::setvbuf(file, nullptr, _IONBF, 0);
  return file;
}();

TEST_P(Operations, surviveAnAllocationThatFails) {
  const std::size_t allocations = failEach(Failing::kOnce);
  EXPECT_EQ(allocations > 0, GetParam().allocates) << allocations;
}

TEST_P(Operations, surviveWhenAllAllocationsFailFromThenOn) {
  const std::size_t allocations = failEach(Failing::kFromThenOn);
  EXPECT_EQ(allocations > 0, GetParam().allocates) << allocations;
}

std::string testName(const testing::TestParamInfo<Operation>& instance) {
  std::string name;
  for (const char c : std::string(instance.param.name)) {
    if (c == '+') name += "Plus";
    if (c == '*') name += "Times";
    name += std::isalnum(static_cast<unsigned char>(c)) ? std::string(1, c) : "_";
  }
  return name;
}

void PrintTo(const Operation& operation, std::ostream* out) { *out << operation.name; }

INSTANTIATE_TEST_SUITE_P(Model, Operations, testing::ValuesIn(modelOperations()), testName);
INSTANTIATE_TEST_SUITE_P(Layer, Operations, testing::ValuesIn(layerOperations()), testName);
INSTANTIATE_TEST_SUITE_P(Pass, Operations, testing::ValuesIn(passOperations()), testName);
INSTANTIATE_TEST_SUITE_P(Features, Operations, testing::ValuesIn(featureOperations()), testName);

}  // namespace
