#include <gtest/gtest.h>

#include <set>
#include <utility>

#include "analysis/ModelDigest.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::DigestComparison;
using mlnn::digestOf;
using mlnn::DigestSection;
using mlnn::ModelDigest;
using mlnn::ModelFile;
using mlnn::ModelFormat;

ModelFile fileOf(MultiLayerNNModel model, ModelFormat format = ModelFormat::kText) {
  ModelFile file;
  file.format = format;
  file.model = std::move(model);
  return file;
}

ModelFile textFile() { return fileOf(mlnn::test::fullModel()); }
ModelFile imageFile() { return fileOf(mlnn::test::fullModel(), ModelFormat::kBinary); }

std::string printed(const ModelDigest& digest) {
  std::string lines;
  for (const DigestSection& section : digest.sections) {
    lines += section.name + " " + section.digest + "\n";
  }
  return lines;
}

std::string differences(const ModelDigest& now, const ModelDigest& before) {
  std::string lines;
  for (const auto& difference : compareDigests(now, before).differences) {
    lines += difference.text + "\n";
  }
  return lines;
}

// What differs after `change(model)`.
template <typename Change>
std::string changed(ModelFile file, Change change) {
  const ModelDigest before = digestOf(file);
  change(file.model);
  return differences(digestOf(file), before);
}

std::vector<std::string> names(const ModelDigest& digest) {
  std::vector<std::string> names;
  for (const DigestSection& section : digest.sections) names.push_back(section.name);
  return names;
}

TEST(ModelDigest, hasTheSectionsOfItsFormat) {
  EXPECT_EQ(
      names(digestOf(textFile())),
      (std::vector<std::string>{"features", "minvals", "normvals", "softmax", "properties", "notes",
                                "loss", "accuracy", "layers", "layer 1", "layer 2", "layer 3"}));
  EXPECT_EQ(names(digestOf(imageFile())),
            (std::vector<std::string>{"features", "minvals", "normvals", "layers", "layer 1",
                                      "layer 2", "layer 3", "unused arrays"}));
}

// A digest that changes with the compiler, the word size or the library would tell every file
// different from its earlier print.
TEST(ModelDigest, isTheSameEverywhere) {
  MultiLayerNNModel model;
  model.layers.push_back(new NNLayer(2, 1, false));
  model.layers[0]->weights << 1, 2;
  EXPECT_EQ(printed(digestOf(fileOf(std::move(model), ModelFormat::kBinary))),
            "features 9098098c9951f3d716773ceb7fe497b1\n"
            "minvals 41227d9f8ed463acaeaf584342eadf7a\n"
            "normvals 1ac0aa635b9ff0dd2da28795df4fe92c\n"
            "layers 7bb13ba283028a4c21f612d1cebed50f\n"
            "layer 1 9ec63a601ab4404797cb8cf3ebda1999\n"
            "unused arrays 9a026d96b3c0f0fca057271c9071c99d\n");
}

TEST(ModelDigest, tellsTheSectionThatChanged) {
  const auto text = [](auto change) { return changed(textFile(), change); };
  EXPECT_EQ(text([](MultiLayerNNModel&) {}), "");
  EXPECT_EQ(text([](MultiLayerNNModel& m) { m.featureDesc.reserved ^= 1; }), "features: changed\n");
  EXPECT_EQ(text([](MultiLayerNNModel& m) { m.deltasNorm.minvals[119] += 1; }),
            "minvals: changed\n");
  EXPECT_EQ(text([](MultiLayerNNModel& m) { m.deltasNorm.normvals[0] += 1; }),
            "normvals: changed\n");
  EXPECT_EQ(text([](MultiLayerNNModel& m) { m.useSoftmax = true; }), "softmax: changed\n");
  EXPECT_EQ(text([](MultiLayerNNModel& m) { m.props["alpha"] = "1"; }), "properties: changed\n");
  EXPECT_EQ(text([](MultiLayerNNModel& m) { m.notes.lines[1] += "."; }), "notes: changed\n");
  EXPECT_EQ(text([](MultiLayerNNModel& m) { m.loss.pop_back(); }), "loss: changed\n");
  EXPECT_EQ(text([](MultiLayerNNModel& m) { m.accuracy[0] = 0; }), "accuracy: changed\n");
}

TEST(ModelDigest, tellsChangesOfALayer) {
  const auto layer2 = [](auto change) {
    return changed(imageFile(), [&change](MultiLayerNNModel& m) { change(*m.layers[1]); });
  };
  const std::string differs = "layers: changed\nlayer 2: changed\n";
  EXPECT_EQ(layer2([](NNLayer& layer) { layer.weights(4, 2) += 1; }), differs);
  EXPECT_EQ(layer2([](NNLayer& layer) { layer.gamma[0] += 1; }), differs);
  EXPECT_EQ(layer2([](NNLayer& layer) { layer.beta[0] += 1; }), differs);
  EXPECT_EQ(layer2([](NNLayer& layer) { layer.gamma_inf[0] += 1; }), differs);
  EXPECT_EQ(layer2([](NNLayer& layer) { layer.beta_inf[4] += 1; }), differs);
  EXPECT_EQ(layer2([](NNLayer& layer) { layer.actFn = ActFn::relu; }), differs);
  EXPECT_EQ(layer2([](NNLayer& layer) { layer.weights = layer.weights.reshaped(3, 5).eval(); }),
            differs);
  EXPECT_EQ(layer2([](NNLayer& layer) { layer.bias[0] += 1; }), "unused arrays: changed\n");
  EXPECT_EQ(layer2([](NNLayer& layer) { layer.isBatchNorm = false; }),
            "layers: changed\nlayer 2: changed\nunused arrays: changed\n");
}

TEST(ModelDigest, tellsLayersThatChangedPlaces) {
  MultiLayerNNModel model =
      mlnn::test::modelOf({mlnn::test::plainLayer(3, 3, 1), mlnn::test::plainLayer(3, 3, 2)});
  const uint32_t checksum = model.checksum();
  EXPECT_EQ(changed(fileOf(std::move(model), ModelFormat::kBinary),
                    [checksum](MultiLayerNNModel& m) {
                      std::swap(m.layers[0], m.layers[1]);
                      EXPECT_EQ(m.checksum(), checksum);
                    }),
            "layers: changed\nlayer 1: is what layer 2 was\nlayer 2: is what layer 1 was\n");
}

TEST(ModelDigest, tellsLayersThatCameOrWent) {
  EXPECT_EQ(changed(textFile(), [](MultiLayerNNModel& m) { m.deleteLayers(1); }),
            "layers: changed\nlayer 3: gone\n");
  EXPECT_EQ(changed(textFile(),
                    [](MultiLayerNNModel& m) { m.layers.push_back(new NNLayer(2, 2, false)); }),
            "layers: changed\nlayer 4: new\n");
}

// Texts that only their boundaries tell apart.
TEST(ModelDigest, keepsEntriesApart) {
  std::set<std::string> digests;
  for (const std::vector<std::string>& lines :
       {std::vector<std::string>{"ab"}, {"a", "b"}, {"b", "a"}, {"ab", ""}, {"", "ab"}, {}}) {
    MultiLayerNNModel model;
    model.notes.lines = lines;
    digests.insert(printed(digestOf(fileOf(std::move(model)))));
  }
  EXPECT_EQ(digests.size(), 6u);
}

TEST(ModelDigest, isTheSameInEitherFormatWhereBothHoldTheSection) {
  const DigestComparison comparison = compareDigests(digestOf(imageFile()), digestOf(textFile()));
  EXPECT_TRUE(comparison.differences.empty());
  EXPECT_EQ(comparison.notCompared,
            (std::vector<std::string>{"unused arrays", "softmax", "properties", "notes", "loss",
                                      "accuracy"}));
}

// An image always has a normalisation; a text without one means the same as one that is idle.
TEST(ModelDigest, takesAnAbsentNormalisationAsOneThatChangesNothing) {
  EXPECT_EQ(changed(fileOf(MultiLayerNNModel()),
                    [](MultiLayerNNModel& m) { m.deltasNorm.allocIfNeeded(); }),
            "");
}

}  // namespace
