#include <gtest/gtest.h>

#include <memory>

#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"
#include "tools/Failure.h"
#include "tools/commands/NetworkOptions.h"
#include "tools/shell/Tool.h"

namespace {

using mlnn::test::stderrOf;

// What the options of a command that has all of them give.
struct Given {
  mlnn::RandomInit init;
  std::string actFn;
  std::optional<bool> softmax;
  int status = -1;
  std::string said;
};

Given parsed(std::vector<const char*> words) {
  Given given;
  mlnn::Tool tool;
  mlnn::CommandHelp help;
  help.name = "make";
  mlnn::CommandLine command = tool.addCommand(help, [] { return 0; });
  mlnn::addScaleOption(command, "--scale", given.init);
  mlnn::addSeedOption(command, given.init);
  mlnn::addActFnOption(command, "--act-fn", given.actFn, "Activation");
  mlnn::addOnOffOption(command, "--softmax", given.softmax, "Softmax");
  words.insert(words.begin(), {"mlnn", "make"});
  given.said =
      stderrOf([&] { given.status = tool.run(static_cast<int>(words.size()), words.data()); });
  return given;
}

TEST(NetworkOptions, haveTheirDefaultsWhenNotGiven) {
  const Given given = parsed({});
  EXPECT_EQ(given.status, 0);
  EXPECT_EQ(given.init.scale, 0.1f);
  EXPECT_FALSE(given.init.seed || given.softmax);
  EXPECT_EQ(given.actFn, "");
}

TEST(NetworkOptions, takeTheirValues) {
  const Given given =
      parsed({"--scale", "0.5", "--seed", "7", "--act-fn", "tanh", "--softmax", "off"});
  EXPECT_EQ(given.status, 0) << given.said;
  EXPECT_EQ(given.init.scale, 0.5f);
  EXPECT_EQ(given.init.seed, 7u);
  EXPECT_EQ(given.actFn, "tanh");
  EXPECT_EQ(given.softmax, false);
  EXPECT_EQ(parsed({"--softmax", "on"}).softmax, true);
}

TEST(NetworkOptions, refuseOtherValues) {
  for (const char* scale : {"0", "-1", "inf", "nan", "x"}) {
    const Given given = parsed({"--scale", scale});
    EXPECT_EQ(given.status, 2) << scale;
    EXPECT_NE(given.said.find("expected a number above 0 but found '" + std::string(scale) + "'"),
              std::string::npos)
        << given.said;
  }
  for (const std::vector<const char*>& words :
       std::vector<std::vector<const char*>>{{"--seed", "-1"},
                                             {"--seed", "4294967296"},
                                             {"--act-fn", "none"},
                                             {"--softmax", "yes"}}) {
    EXPECT_EQ(parsed(words).status, 2) << words[0] << " " << words[1];
  }
}

TEST(NetworkOptions, drawTheSameWeightsFromTheSameSeed) {
  const auto drawn = [](uint32_t seed) {
    mlnn::applySeed({0.1f, seed});
    return NNLayer(3, 3, 0.1f, false).weights;
  };
  EXPECT_EQ(drawn(5), drawn(5));
  EXPECT_NE(drawn(5), drawn(6));
}

TEST(NetworkOptions, setTheActivationOfHiddenLayers) {
  using mlnn::test::plainLayer;
  MultiLayerNNModel model =
      mlnn::test::modelOf({plainLayer(2, 2), plainLayer(2, 2), plainLayer(2, 2)});
  mlnn::setActFnOfHiddenLayers(model, mlnn::actFnOf("relu"));
  EXPECT_EQ(model.layers[0]->actFn, ActFn::relu);
  EXPECT_EQ(model.layers[1]->actFn, ActFn::relu);
  EXPECT_EQ(model.layers[2]->actFn, ActFn::sigmoid);
  EXPECT_THROW(mlnn::actFnOf("none"), mlnn::UsageError);
}

}  // namespace
