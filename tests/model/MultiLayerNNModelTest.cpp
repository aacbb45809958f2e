// The model object: lifetime, layer stack, arithmetic, activations, properties, descriptions.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <memory>
#include <sstream>
#include <type_traits>
#include <utility>

#include "model/MultiLayerNNModel.h"
#include "tests/support/AllocationWatch.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::test::batchNormLayer;
using mlnn::test::fullModel;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;
using mlnn::test::sameBits;
using mlnn::test::sameButProps;
using mlnn::test::sameLayer;
using mlnn::test::sameLayers;
using mlnn::test::sameModel;
using mlnn::test::stderrOf;
using Lines = std::vector<std::string>;
using Texts = std::pair<std::string, std::string>;
using Props = std::map<std::string, std::string>;

// A model in whose stack the second of three layers is missing.
MultiLayerNNModel modelWithMissingLayer() {
  MultiLayerNNModel model =
      modelOf({plainLayer(4, 3, 1), plainLayer(3, 3, 2), batchNormLayer(3, 2, 3)});
  delete std::exchange(model.layers[1], nullptr);
  return model;
}

// What a refused text leaves: three missing layers.
MultiLayerNNModel modelAfterFailedLoad() {
  MultiLayerNNModel model;
  std::istringstream text("MultiLayerNNModel_v2\nsoftmax 1\nnum_layers 3\nlayer 2 size 1 2\n");
  int result = 0;
  stderrOf([&] { result = model.deserializeAscii(text); });
  EXPECT_EQ(result, 1);
  EXPECT_EQ(model.layers, (std::vector<NNLayer*>{nullptr, nullptr, nullptr}));
  return model;
}

// --- Interface ---

TEST(MultiLayerNNModelInterface, isAnInferenceModel) {
  static_assert(std::is_base_of_v<InferenceModel, MultiLayerNNModel>);
  static_assert(std::is_abstract_v<InferenceModel>);
  static_assert(std::has_virtual_destructor_v<InferenceModel>);
  MultiLayerNNModel model(std::array{4, 3, 2}.data(), 3);
  InferenceModel& base = model;
  EXPECT_EQ(base.type(), 0);
  EXPECT_EQ(base.numOutputs(), 2);
  EXPECT_EQ(base.debug_description(), "inputs 4 x 3 x 2 output classes");
}

TEST(MultiLayerNNModelInterface, operatorsReturnNothing) {
  using Model = MultiLayerNNModel;
  static_assert(std::is_void_v<decltype(std::declval<Model&>() = std::declval<const Model&>())>);
  static_assert(std::is_void_v<decltype(std::declval<Model&>() += std::declval<const Model&>())>);
  static_assert(std::is_void_v<decltype(std::declval<Model&>() *= 1.0f)>);
}

TEST(MultiLayerNNModelInterface, membersStandInTheStatedOrder) {
  const MultiLayerNNModel model;
  const void* const members[] = {&model.featureDesc, &model.layers,    &model.loss,
                                 &model.accuracy,    &model.props,     &model.notes,
                                 &model.deltasNorm,  &model.useSoftmax};
  EXPECT_TRUE(std::is_sorted(std::begin(members), std::end(members), std::less<>()));
}

TEST(MultiLayerNNModelInterface, featureDescriptionIsHandedOutByReference) {
  MultiLayerNNModel model;
  InferenceModel& base = model;
  EXPECT_EQ(&base.getFeatureDesc(), &model.featureDesc);
  EXPECT_EQ(&std::as_const(base).getFeatureDesc(), &model.featureDesc);
  base.getFeatureDesc().numBands = 40;
  EXPECT_EQ(model.featureDesc.numBands, 40);
}

class OtherModel : public InferenceModel {
  FwdPass* createFwdPass() override { return nullptr; }
  int type() const override { return 7; }
  int numOutputs() const override { return 0; }
};

TEST(MultiLayerNNModelInterface, baseHasAnEmptyDescription) {
  EXPECT_EQ(OtherModel().debug_description(), "");
}

TEST(MultiLayerNNModelInterface, forwardPassIsNewEachTimeAndReadsThisModel) {
  MultiLayerNNModel model(std::array{4, 2}.data(), 2);
  const std::unique_ptr<NNFwdPassFromFile> first(model.createFwdPass());
  const std::unique_ptr<FwdPass> second(static_cast<InferenceModel&>(model).createFwdPass());
  EXPECT_NE(first.get(), second.get());
  EXPECT_EQ(second->numInputs(), 4);
  EXPECT_EQ(second->numOutputs(), 2);
  ASSERT_EQ(model.addLayerRndInit(7, 1.0f, false), 0);
  EXPECT_EQ(first->numOutputs(), 7);
}

// --- Construction ---

void expectNew(const MultiLayerNNModel& model) {
  EXPECT_TRUE(sameModel(model, MultiLayerNNModel()));
  const char zeros[sizeof(DbnFeatureDescription)] = {};
  EXPECT_EQ(std::memcmp(&model.featureDesc, zeros, sizeof zeros), 0);
  EXPECT_TRUE(model.layers.empty());
  EXPECT_TRUE(model.loss.empty());
  EXPECT_TRUE(model.accuracy.empty());
  EXPECT_TRUE(model.props.empty());
  EXPECT_TRUE(model.notes.lines.empty());
  EXPECT_EQ(model.deltasNorm.minvals.size(), 0);
  EXPECT_EQ(model.deltasNorm.normvals.size(), 0);
  EXPECT_TRUE(model.useSoftmax);
}

TEST(MultiLayerNNModelConstruction, newModelIsEmptyWithSoftmax) {
  const MultiLayerNNModel model;
  expectNew(model);
  EXPECT_EQ(model.numInputs(), 0);
  EXPECT_EQ(model.numOutputs(), 0);
  EXPECT_EQ(model.type(), 0);
}

TEST(MultiLayerNNModelConstruction, sizesMakePlainLayersOfZeros) {
  int sizes[] = {40, 256, 10};
  MultiLayerNNModel model(sizes, 3);
  EXPECT_TRUE(sameLayers(model, modelOf({NNLayer(40, 256, false), NNLayer(256, 10, false)})));
  EXPECT_EQ(model.numInputs(), 40);
  EXPECT_EQ(model.numOutputs(), 10);
  EXPECT_EQ(model.deleteLayers(2), 0);
  expectNew(model);
}

TEST(MultiLayerNNModelConstruction, fewerThanTwoSizesMakeNoLayers) {
  int sizes[] = {40, 256, 10};
  for (const int count : {1, 0, -1, -1000}) expectNew(MultiLayerNNModel(sizes, count));
  expectNew(MultiLayerNNModel(nullptr, 0));
}

TEST(MultiLayerNNModelConstruction, sizesMayBeZero) {
  int sizes[] = {0, 3, 0};
  const MultiLayerNNModel model(sizes, 3);
  EXPECT_EQ(model.layers.size(), 2u);
  EXPECT_EQ(model.numInputs(), 0);
  EXPECT_EQ(model.numOutputs(), 0);
  EXPECT_EQ(model.description(), "0,3,0");
}

// --- The layer stack ---

TEST(MultiLayerNNModelStack, firstLayerIsInitialisedAtRandomWithoutANote) {
  for (const bool batchNorm : {false, true}) {
    MultiLayerNNModel model;
    NNLayer::seedRandom(5);
    int result = 1;
    EXPECT_EQ(stderrOf([&] { result = model.createFirstLayer(4, 3, 0.5f, batchNorm); }), "");
    EXPECT_EQ(result, 0);
    NNLayer::seedRandom(5);
    EXPECT_TRUE(sameLayers(model, modelOf({NNLayer(4, 3, 0.5f, batchNorm)})));
    EXPECT_EQ(model.deleteLayers(1), 0);
    expectNew(model);
  }
}

TEST(MultiLayerNNModelStack, firstLayerIsRefusedOnTopOfOthers) {
  MultiLayerNNModel model = fullModel();
  int result = 0;
  EXPECT_EQ(stderrOf([&] { result = model.createFirstLayer(4, 3, 0.5f, false); }),
            "ERROR: NN Model: cannot createFirstLayer if already have layers\n");
  EXPECT_EQ(result, 1);
  EXPECT_TRUE(sameModel(model, fullModel()));
}

TEST(MultiLayerNNModelStack, addedLayerFitsTheLastOneAndIsNoted) {
  MultiLayerNNModel model(std::array{4, 3}.data(), 2);
  model.notes.lines = {"before"};
  NNLayer::seedRandom(6);
  std::string text = stderrOf([&] {
    EXPECT_EQ(model.addLayerRndInit(5, 0.5f, true), 0);
    EXPECT_EQ(model.addLayerRndInit(2, 0.25f, false), 0);
  });
  EXPECT_EQ(text, "");
  NNLayer::seedRandom(6);
  const NNLayer second(3, 5, 0.5f, true);
  const NNLayer third(5, 2, 0.25f, false);
  EXPECT_TRUE(sameLayers(model, modelOf({NNLayer(4, 3, false), second, third})));
  EXPECT_EQ(model.notes.lines, (Lines{"before", "added randomly initialised layer 2, initScale 0.5",
                                      "added randomly initialised layer 3, initScale 0.25"}));
}

TEST(MultiLayerNNModelStack, addedLayerIsRefusedWithoutOneBefore) {
  MultiLayerNNModel model;
  int result = 0;
  EXPECT_EQ(stderrOf([&] { result = model.addLayerRndInit(3, 0.5f, false); }),
            "ERROR: NN Model: cannot addLayerRndInit without previous hidden layers\n");
  EXPECT_EQ(result, 1);
  expectNew(model);
}

// deleteLayers(count) on fullModel: the result, and how many layers are left.
void expectDeletion(unsigned int count, int result, std::size_t left) {
  MultiLayerNNModel model = fullModel();
  const std::vector<NNLayer*> before = model.layers;
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(model.deleteLayers(count), result); }), "");
  EXPECT_EQ(model.layers, std::vector<NNLayer*>(before.begin(), before.begin() + long(left)));
  MultiLayerNNModel expected = fullModel();
  while (expected.layers.size() > left) {
    delete expected.layers.back();
    expected.layers.pop_back();
  }
  EXPECT_TRUE(sameModel(model, expected));
}

TEST(MultiLayerNNModelStack, deletionTakesLayersFromTheOutputEnd) {
  expectDeletion(1, 0, 2);
  expectDeletion(2, 0, 1);
}

TEST(MultiLayerNNModelStack, deletionOfAllLayersLeavesNone) { expectDeletion(3, 0, 0); }

TEST(MultiLayerNNModelStack, deletionOfNoneIsDone) {
  expectDeletion(0, 0, 3);
  EXPECT_EQ(MultiLayerNNModel().deleteLayers(0), 0);
}

TEST(MultiLayerNNModelStack, deletionOfTooManyIsRefusedWithoutAWord) {
  expectDeletion(4, 1, 3);
  expectDeletion(4294967295u, 1, 3);
  EXPECT_EQ(MultiLayerNNModel().deleteLayers(1), 1);
}

TEST(MultiLayerNNModelStack, deletionFreesTheLayers) {
  MultiLayerNNModel model;
  model.layers.reserve(3);
  const mlnn::test::AllocationWatch watch;
  model.layers = {new NNLayer(3, 2, true), new NNLayer(2, 2, false), nullptr};
  EXPECT_GT(watch.live(), 0);
  EXPECT_EQ(model.deleteLayers(3), 0);
  EXPECT_EQ(watch.live(), 0);
}

// --- Copy assignment ---

TEST(MultiLayerNNModelAssignment, copiesEverythingButTheProperties) {
  const MultiLayerNNModel source = fullModel();
  MultiLayerNNModel target;
  EXPECT_EQ(stderrOf([&] { target = source; }), "");
  EXPECT_TRUE(sameButProps(target, source));
  EXPECT_TRUE(target.props.empty());
}

TEST(MultiLayerNNModelAssignment, keepsThePropertiesOfTheTarget) {
  const MultiLayerNNModel source = fullModel();
  MultiLayerNNModel target;
  target.props = {{"alpha", "own"}, {"gamma", "kept"}};
  target = source;
  EXPECT_EQ(target.props, (Props{{"alpha", "own"}, {"gamma", "kept"}}));
  EXPECT_EQ(target.getProp("alpha"), "own");
  EXPECT_EQ(target.getProp("beta"), "");
}

// Changes every member of a fullModel.
void changeAll(MultiLayerNNModel& model) {
  for (NNLayer* layer : model.layers) {
    *layer *= 2;
    layer->actFn = ActFn::silu;
    layer->isBatchNorm = !layer->isBatchNorm;
  }
  model.featureDesc.numBands += 1;
  model.loss[0] += 1;
  model.accuracy[0] += 1;
  model.props["alpha"] += "x";
  model.notes.lines[0] += "x";
  model.deltasNorm.minvals[0] += 1;
  model.deltasNorm.normvals[0] += 1;
  model.useSoftmax = !model.useSoftmax;
}

TEST(MultiLayerNNModelClone, copiesEverythingAndSharesNothing) {
  const MultiLayerNNModel source = fullModel();
  ASSERT_FALSE(source.props.empty());
  MultiLayerNNModel copy;
  copy.props = {{"gamma", "gone"}};
  EXPECT_EQ(stderrOf([&] { copy = source.clone(); }), "");
  EXPECT_TRUE(sameModel(copy, source));
  changeAll(copy);
  EXPECT_TRUE(sameModel(source, fullModel()));
}

TEST(MultiLayerNNModelAssignment, isDeep) {
  const MultiLayerNNModel source = fullModel();
  MultiLayerNNModel assigned;
  assigned = source;
  MultiLayerNNModel constructed(source);
  for (MultiLayerNNModel* copy : {&assigned, &constructed}) {
    for (std::size_t i = 0; i < 3; ++i) EXPECT_NE(copy->layers[i], source.layers[i]);
    changeAll(*copy);
    EXPECT_TRUE(sameModel(source, fullModel()));
  }
}

TEST(MultiLayerNNModelAssignment, copiesIntoTheLayerObjectsThatAreThere) {
  const MultiLayerNNModel source = fullModel();
  for (const std::size_t count : {0u, 1u, 2u, 3u, 5u}) {
    MultiLayerNNModel target = modelOf(std::vector<NNLayer>(count, batchNormLayer(7, 6, 8)));
    const std::vector<NNLayer*> before = target.layers;
    target = source;
    EXPECT_TRUE(sameButProps(target, source)) << count;
    for (std::size_t i = 0; i < std::min<std::size_t>(count, 3); ++i) {
      EXPECT_EQ(target.layers[i], before[i]) << count;
    }
  }
}

TEST(MultiLayerNNModelAssignment, freesSurplusLayers) {
  const MultiLayerNNModel one = modelOf({plainLayer(4, 3)});
  MultiLayerNNModel target(one);
  target.layers.reserve(3);
  const mlnn::test::AllocationWatch watch;
  target.layers.push_back(new NNLayer(3, 2, true));
  target.layers.push_back(new NNLayer(2, 2, false));
  target = one;
  EXPECT_EQ(watch.live(), 0);
  EXPECT_EQ(target.layers.size(), 1u);
}

TEST(MultiLayerNNModelAssignment, ontoItselfChangesNothing) {
  MultiLayerNNModel model = fullModel();
  const std::vector<NNLayer*> before = model.layers;
  const MultiLayerNNModel& same = model;
  model = same;
  EXPECT_EQ(model.layers, before);
  EXPECT_TRUE(sameModel(model, fullModel()));
}

TEST(MultiLayerNNModelAssignment, ofAnEmptyModelEmptiesAllButTheProperties) {
  MultiLayerNNModel target = fullModel();
  const MultiLayerNNModel empty;
  target = empty;
  EXPECT_TRUE(sameButProps(target, empty));
  EXPECT_EQ(target.props, fullModel().props);
}

TEST(MultiLayerNNModelCopyConstruction, startsWithoutProperties) {
  const MultiLayerNNModel source = fullModel();
  const MultiLayerNNModel copy(source);
  EXPECT_TRUE(sameButProps(copy, source));
  EXPECT_TRUE(copy.props.empty());
}

// --- Moving ---

TEST(MultiLayerNNModelMove, constructionTakesEverythingAlong) {
  MultiLayerNNModel source = fullModel();
  const std::vector<NNLayer*> layers = source.layers;
  const float* minvals = source.deltasNorm.minvals.data();
  const MultiLayerNNModel target(std::move(source));
  EXPECT_TRUE(sameModel(target, fullModel()));
  EXPECT_EQ(target.layers, layers);
  EXPECT_EQ(target.deltasNorm.minvals.data(), minvals);
  expectNew(source);  // NOLINT(bugprone-use-after-move): a moved-from model is a new one
}

TEST(MultiLayerNNModelMove, assignmentTakesEverythingAlongAndDropsTheOld) {
  MultiLayerNNModel source = fullModel();
  const std::vector<NNLayer*> layers = source.layers;
  MultiLayerNNModel target = modelOf({plainLayer(9, 9), plainLayer(9, 9)});
  target.props = {{"gone", "1"}};
  target = std::move(source);
  EXPECT_TRUE(sameModel(target, fullModel()));
  EXPECT_EQ(target.layers, layers);
  expectNew(source);  // NOLINT(bugprone-use-after-move)
}

TEST(MultiLayerNNModelMove, ontoItselfChangesNothing) {
  MultiLayerNNModel model = fullModel();
  MultiLayerNNModel& same = model;
  model = std::move(same);
  EXPECT_TRUE(sameModel(model, fullModel()));
}

TEST(MultiLayerNNModelMove, allocatesNothingAndCannotThrow) {
  static_assert(std::is_nothrow_move_constructible_v<MultiLayerNNModel>);
  static_assert(std::is_nothrow_move_assignable_v<MultiLayerNNModel>);
  MultiLayerNNModel source = fullModel();
  const mlnn::test::AllocationWatch watch;
  MultiLayerNNModel target(std::move(source));
  source = std::move(target);
  EXPECT_EQ(watch.allocations(), 0u);
}

// --- Missing layers ---

TEST(MultiLayerNNModelMissingLayers, copiesKeepThemMissing) {
  for (const MultiLayerNNModel& source : {modelWithMissingLayer(), modelAfterFailedLoad()}) {
    const MultiLayerNNModel constructed(source);
    EXPECT_TRUE(sameLayers(constructed, source));
    MultiLayerNNModel assigned = fullModel();
    assigned = source;
    EXPECT_TRUE(sameLayers(assigned, source));
    const MultiLayerNNModel moved(std::move(assigned));
    EXPECT_TRUE(sameLayers(moved, source));
  }
}

TEST(MultiLayerNNModelMissingLayers, assignmentFillsThemAgain) {
  MultiLayerNNModel target = modelWithMissingLayer();
  const MultiLayerNNModel source = fullModel();
  target = source;
  EXPECT_TRUE(sameButProps(target, source));
}

TEST(MultiLayerNNModelMissingLayers, assignmentToItselfKeepsThem) {
  MultiLayerNNModel model = modelWithMissingLayer();
  const MultiLayerNNModel& same = model;
  model = same;
  EXPECT_TRUE(sameLayers(model, modelWithMissingLayer()));
}

TEST(MultiLayerNNModelMissingLayers, noOperationTouchesThem) {
  for (const bool all : {false, true}) {
    MultiLayerNNModel model = all ? modelAfterFailedLoad() : modelWithMissingLayer();
    model += MultiLayerNNModel(model);
    model *= 2;
    model.setActFn(ActFn::tanh);
    model.setSoftmax(true);
    model.zeros();
    EXPECT_EQ(model.layers[1], nullptr);
    std::ostringstream text;
    EXPECT_EQ(model.serializeAscii(text), 0);
    std::string image(static_cast<std::size_t>(model.binarySerializedLength()), '\0');
    EXPECT_EQ(model.serializeBinary(image.data()), model.binarySerializedLength());
    EXPECT_EQ(model.numInputs(), all ? 0 : 4);
    EXPECT_EQ(model.numOutputs(), all ? 0 : 2);
    EXPECT_EQ(model.debug_description(),
              all ? "inputs 0 x 0 x 0 x 0 output classes" : "inputs 4 x 0 x 3 bn 2 output classes");
    EXPECT_EQ(model.description(), all ? "0,0,0,0" : "4,0,3,2");
  }
}

TEST(MultiLayerNNModelMissingLayers, canBeGrownAndDeleted) {
  MultiLayerNNModel model = modelAfterFailedLoad();
  EXPECT_EQ(model.addLayerRndInit(2, 1.0f, false), 0);
  EXPECT_TRUE(sameLayer(*model.layers[3], NNLayer(0, 2, false)));
  EXPECT_EQ(model.deleteLayers(4), 0);
  EXPECT_TRUE(model.layers.empty());
}

// --- Out of memory ---

// Runs `action` with the first, then the second and so on allocation failing, until none
// does. Every failure must come out as std::bad_alloc and leak nothing.
template <typename Action>
std::size_t failEachAllocation(Action action) {
  action();  // what is made once and for all, such as a registration for the end, is made here
  for (std::size_t successes = 0;; ++successes) {
    const mlnn::test::AllocationWatch watch;
    bool threw = false;
    bool happened = false;
    {
      const mlnn::test::FailingAllocation failure(successes);
      try {
        action();
      } catch (const std::bad_alloc&) {
        threw = true;
      }
      happened = failure.happened();
    }
    EXPECT_EQ(watch.live(), 0) << successes;
    EXPECT_EQ(threw, happened) << successes;
    if (!happened) return successes;
  }
}

TEST(MultiLayerNNModelOutOfMemory, constructorsFreeWhatTheyMade) {
  if (!mlnn::test::kCanFailAllocations) GTEST_SKIP() << "the sanitizer owns the heap";
  const MultiLayerNNModel source = fullModel();
  int sizes[] = {4, 3, 2};
  EXPECT_GE(failEachAllocation([&] { const MultiLayerNNModel model(sizes, 3); }), 6u);
  EXPECT_GE(failEachAllocation([&] { const MultiLayerNNModel model(source); }), 20u);
}

TEST(MultiLayerNNModelOutOfMemory, growingFreesTheLayerThatFoundNoPlace) {
  if (!mlnn::test::kCanFailAllocations) GTEST_SKIP() << "the sanitizer owns the heap";
  EXPECT_GE(failEachAllocation([] {
              MultiLayerNNModel model;
              model.createFirstLayer(4, 3, 1.0f, true);
              model.addLayerRndInit(2, 1.0f, false);
            }),
            11u);
}

TEST(MultiLayerNNModelOutOfMemory, assignmentLeavesAModelThatCanBeAssignedAgain) {
  if (!mlnn::test::kCanFailAllocations) GTEST_SKIP() << "the sanitizer owns the heap";
  const MultiLayerNNModel source = fullModel();
  const MultiLayerNNModel before = modelOf({plainLayer(9, 8)});
  EXPECT_GE(failEachAllocation([&] {
              MultiLayerNNModel target(before);
              try {
                target = source;
              } catch (const std::bad_alloc&) {
                target = source;  // the one failure is over
                EXPECT_TRUE(sameButProps(target, source));
                throw;
              }
            }),
            20u);
}

// --- Arithmetic ---

TEST(MultiLayerNNModelArithmetic, sumAddsLayerByLayerAndNothingElse) {
  const MultiLayerNNModel a = fullModel();
  MultiLayerNNModel b = fullModel();
  changeAll(b);
  for (std::size_t i = 0; i < 3; ++i) b.layers[i]->isBatchNorm = a.layers[i]->isBatchNorm;

  MultiLayerNNModel sum = fullModel();
  EXPECT_EQ(stderrOf([&] { sum += b; }), "");
  MultiLayerNNModel expected = fullModel();
  for (std::size_t i = 0; i < 3; ++i) *expected.layers[i] += *b.layers[i];
  EXPECT_TRUE(sameModel(sum, expected));
  EXPECT_TRUE(sameBits(sum.layers[0]->weights, 3 * a.layers[0]->weights));
}

TEST(MultiLayerNNModelArithmetic, sumOfAModelWithItselfDoublesIt) {
  MultiLayerNNModel model = fullModel();
  EXPECT_EQ(stderrOf([&] { model += model; }), "");
  EXPECT_TRUE(sameBits(model.layers[1]->gamma, 2 * fullModel().layers[1]->gamma));
}

TEST(MultiLayerNNModelArithmetic, sumWithAnotherNumberOfLayersIsRefused) {
  const MultiLayerNNModel three = fullModel();
  MultiLayerNNModel two = modelOf({plainLayer(4, 3), plainLayer(3, 2)});
  const MultiLayerNNModel twoBefore(two);
  EXPECT_EQ(stderrOf([&] { two += three; }),
            "ERROR: MultiLayerNNModel::operator+=: model adding has wrong number of layers "
            "(2 != 3)\n");
  EXPECT_TRUE(sameModel(two, twoBefore));
  EXPECT_TRUE(sameModel(three, fullModel()));

  MultiLayerNNModel empty;
  EXPECT_EQ(stderrOf([&] { empty += three; }),
            "ERROR: MultiLayerNNModel::operator+=: model adding has wrong number of layers "
            "(0 != 3)\n");
  expectNew(empty);
}

TEST(MultiLayerNNModelArithmetic, sumOfEmptyModelsDoesNothing) {
  MultiLayerNNModel model;
  EXPECT_EQ(stderrOf([&] { model += MultiLayerNNModel(); }), "");
  expectNew(model);
}

TEST(MultiLayerNNModelArithmetic, layerThatDoesNotFitIsLeftOutAndTheOthersAreAdded) {
  MultiLayerNNModel sum = modelOf({plainLayer(4, 3, 1), plainLayer(3, 2, 2), plainLayer(2, 2, 3)});
  const MultiLayerNNModel other =
      modelOf({plainLayer(4, 4, 4), batchNormLayer(3, 2, 5), plainLayer(2, 2, 6)});
  EXPECT_EQ(stderrOf([&] { sum += other; }),
            "ERROR: NNLayer::operator+=: layer shapes differ (3x4 != 4x4)\n"
            "ERROR: NNLayer::operator+=: cannot add a batch-norm layer to a plain layer\n");
  NNLayer third = plainLayer(2, 2, 3);
  third += plainLayer(2, 2, 6);
  EXPECT_TRUE(sameLayers(sum, modelOf({plainLayer(4, 3, 1), plainLayer(3, 2, 2), third})));
}

TEST(MultiLayerNNModelArithmetic, scalingMultipliesEveryLayerAndNothingElse) {
  MultiLayerNNModel model = fullModel();
  EXPECT_EQ(stderrOf([&] { model *= 0.1f; }), "");
  MultiLayerNNModel expected = fullModel();
  for (NNLayer* layer : expected.layers) *layer *= 0.1f;
  EXPECT_TRUE(sameModel(model, expected));
  MultiLayerNNModel empty;
  empty *= 2;
  expectNew(empty);
}

TEST(MultiLayerNNModelArithmetic, zerosClearsEveryLayerAndNothingElse) {
  MultiLayerNNModel model = fullModel();
  EXPECT_EQ(stderrOf([&] { model.zeros(); }), "");
  MultiLayerNNModel expected = fullModel();
  for (NNLayer* layer : expected.layers) layer->zeros();
  EXPECT_TRUE(sameModel(model, expected));
  EXPECT_TRUE((model.layers[2]->beta_inf.array() == 0).all());
  MultiLayerNNModel empty;
  empty.zeros();
  expectNew(empty);
}

// --- Activation and softmax ---

std::vector<int> activations(const MultiLayerNNModel& model) {
  std::vector<int> codes;
  for (const NNLayer* layer : model.layers) codes.push_back(layer->actFn);
  return codes;
}

TEST(MultiLayerNNModelActivation, underSoftmaxTheOutputLayerStaysLinear) {
  MultiLayerNNModel model = fullModel();
  model.useSoftmax = true;
  EXPECT_EQ(stderrOf([&] { model.setActFn(ActFn::relu); }), "");
  EXPECT_EQ(activations(model), (std::vector<int>{3, 3, 0}));
  EXPECT_TRUE(model.useSoftmax);
}

TEST(MultiLayerNNModelActivation, withoutSoftmaxAllLayersGetIt) {
  MultiLayerNNModel model = fullModel();
  model.useSoftmax = false;
  EXPECT_EQ(stderrOf([&] { model.setActFn(ActFn::relu); }), "");
  EXPECT_EQ(activations(model), (std::vector<int>{3, 3, 3}));
  EXPECT_FALSE(model.useSoftmax);
}

TEST(MultiLayerNNModelActivation, changesNothingElse) {
  MultiLayerNNModel model = fullModel();
  model.setActFn(ActFn::sigmoid);  // what fullModel's layers have
  EXPECT_TRUE(sameModel(model, fullModel()));
}

TEST(MultiLayerNNModelActivation, ofOneLayerUnderSoftmaxStaysLinear) {
  MultiLayerNNModel model(std::array{3, 2}.data(), 2);
  model.setActFn(ActFn::tanh);
  EXPECT_EQ(activations(model), std::vector<int>{0});
}

TEST(MultiLayerNNModelActivation, switchingSoftmaxOnMakesTheOutputLayerLinear) {
  MultiLayerNNModel model = fullModel();
  EXPECT_EQ(stderrOf([&] { model.setSoftmax(true); }), "");
  EXPECT_TRUE(model.useSoftmax);
  EXPECT_EQ(activations(model), (std::vector<int>{1, 1, 0}));
}

TEST(MultiLayerNNModelActivation, switchingSoftmaxOffChangesOnlyTheFlag) {
  MultiLayerNNModel model = fullModel();
  model.setSoftmax(true);
  model.setSoftmax(false);
  EXPECT_FALSE(model.useSoftmax);
  EXPECT_EQ(activations(model), (std::vector<int>{1, 1, 0}));
  model.setActFn(ActFn::elu);
  EXPECT_EQ(activations(model), (std::vector<int>{5, 5, 5}));
}

TEST(MultiLayerNNModelActivation, emptyModelTakesTheFlagAlone) {
  MultiLayerNNModel model;
  model.setActFn(ActFn::relu);
  model.setSoftmax(false);
  EXPECT_FALSE(model.useSoftmax);
  model.setSoftmax(true);
  expectNew(model);
}

// --- Properties ---

TEST(MultiLayerNNModelProperties, absentKeyAnswersEmptyAndStaysAbsent) {
  const MultiLayerNNModel model;
  EXPECT_EQ(model.getProp("absent"), "");
  EXPECT_EQ(model.getProp("absent"), "");
  EXPECT_EQ(model.props.size(), 0u);
  static_assert(std::is_same_v<decltype(model.getProp("")), std::string>);
}

TEST(MultiLayerNNModelProperties, settingAddsThenReplacesAndSaysSoEachTime) {
  MultiLayerNNModel model;
  EXPECT_EQ(stderrOf([&] { model.setProp("rate", "8000"); }), "info: setting 'rate' = '8000'\n");
  EXPECT_EQ(model.getProp("rate"), "8000");
  EXPECT_EQ(stderrOf([&] { model.setProp("rate", "16000"); }), "info: setting 'rate' = '16000'\n");
  EXPECT_EQ(stderrOf([&] { model.setProp("rate", "16000"); }), "info: setting 'rate' = '16000'\n");
  EXPECT_EQ(model.props, (Props{{"rate", "16000"}}));
}

TEST(MultiLayerNNModelProperties, anyTextIsAcceptedAsKeyAndValue) {
  const std::string nulKey("nul\0key", 7);
  MultiLayerNNModel model;
  EXPECT_EQ(stderrOf([&] {
              model.setProp("", "");
              model.setProp("two words", " 'quoted' \t");
              model.setProp(nulKey, "line\nfeed");
            }),
            "info: setting '' = ''\n"
            "info: setting 'two words' = ' 'quoted' \t'\n"
            "info: setting '" +
                nulKey + "' = 'line\nfeed'\n");
  EXPECT_EQ(model.props, (Props{{"", ""}, {nulKey, "line\nfeed"}, {"two words", " 'quoted' \t"}}));
  EXPECT_EQ(model.getProp(nulKey), "line\nfeed");
  EXPECT_EQ(model.getProp("nul"), "");
}

TEST(MultiLayerNNModelProperties, keysAreOrderedByTheirBytes) {
  MultiLayerNNModel model;
  stderrOf([&] {
    for (const char* key : {"b", "\xC3\xA4", "ab", "B", "a", "10", "9", ""}) model.setProp(key, "");
  });
  Lines keys;
  for (const auto& [key, value] : model.props) keys.push_back(key);
  EXPECT_EQ(keys, (Lines{"", "10", "9", "B", "a", "ab", "b", "\xC3\xA4"}));
}

TEST(MultiLayerNNModelProperties, keyAndValueMayBeThePropertysOwn) {
  MultiLayerNNModel model;
  stderrOf([&] { model.setProp("a", "value"); });
  const auto& entry = *model.props.find("a");
  EXPECT_EQ(stderrOf([&] { model.setProp(entry.first, entry.second); }),
            "info: setting 'a' = 'value'\n");
  EXPECT_EQ(model.props, (Props{{"a", "value"}}));
}

// --- Descriptions ---

// Both descriptions of a model, and that making them says nothing.
Texts descriptions(const MultiLayerNNModel& model) {
  Texts result;
  EXPECT_EQ(stderrOf([&] { result = {model.debug_description(), model.description()}; }), "");
  return result;
}

TEST(MultiLayerNNModelDescription, plainLayers) {
  const MultiLayerNNModel model(std::array{360, 512, 512, 40}.data(), 4);
  EXPECT_EQ(descriptions(model),
            Texts("inputs 360 x 512 x 512 x 40 output classes", "360,512,512,40"));
}

TEST(MultiLayerNNModelDescription, batchNormLayersAreMarkedInTheReadableForm) {
  MultiLayerNNModel model =
      modelOf({NNLayer(360, 512, false), NNLayer(512, 512, true), NNLayer(512, 40, false)});
  EXPECT_EQ(descriptions(model),
            Texts("inputs 360 x 512 bn 512 x 40 output classes", "360,512,512,40"));
  model.layers[1]->gamma_inf.setOnes();
  stderrOf([&] { model.convBatchNorm(); });
  EXPECT_EQ(model.debug_description(), "inputs 360 x 512 x 512 x 40 output classes");
}

TEST(MultiLayerNNModelDescription, oneLayer) {
  EXPECT_EQ(descriptions(modelOf({NNLayer(13, 2, false)})),
            Texts("inputs 13 x 2 output classes", "13,2"));
  EXPECT_EQ(descriptions(modelOf({NNLayer(13, 2, true)})),
            Texts("inputs 13 bn 2 output classes", "13,2"));
}

TEST(MultiLayerNNModelDescription, inconsistentStackShowsEveryInputAndTheLastOutput) {
  EXPECT_EQ(descriptions(modelOf({NNLayer(10, 25, false), NNLayer(20, 30, false)})),
            Texts("inputs 10 x 20 x 30 output classes", "10,20,30"));
}

TEST(MultiLayerNNModelDescription, emptyDimensionsShowAsZero) {
  EXPECT_EQ(descriptions(modelOf({NNLayer(0, 3, false), NNLayer(3, 0, true)})),
            Texts("inputs 0 x 3 bn 0 output classes", "0,3,0"));
}

TEST(MultiLayerNNModelDescription, modelWithoutLayers) {
  EXPECT_EQ(descriptions(MultiLayerNNModel()), Texts("inputs 0 output classes", ""));
}

TEST(MultiLayerNNModelDescription, dependsOnTheLayersAlone) {
  MultiLayerNNModel model = fullModel();
  const auto before = descriptions(model);
  model.useSoftmax = !model.useSoftmax;
  model.props.clear();
  model.notes.lines.clear();
  model.featureDesc = DbnFeatureDescription(DbnFeatureDescription::MelDeltas);
  EXPECT_EQ(descriptions(model), before);
  EXPECT_EQ(before, Texts("inputs 4 x 3 bn 5 x 2 output classes", "4,3,5,2"));
}

}  // namespace
