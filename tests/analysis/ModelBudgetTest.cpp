#include <gtest/gtest.h>

#include <memory>
#include <sstream>

#include "analysis/ModelBudget.h"
#include "inference/IntegerFwdPass.h"
#include "model/FormatFit.h"
#include "model/RowQuantization.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"
#include "text/Numbers.h"

#if defined(__GLIBC__) && !defined(__SANITIZE_ADDRESS__)
#include <malloc.h>
#define MLNN_HEAP_IS_COUNTED 1
#endif

namespace {

using mlnn::budgetOf;
using mlnn::FileSizes;
using mlnn::fileSizesOf;
using mlnn::ModelBudget;
using mlnn::ModelFormat;
using mlnn::test::batchNormLayer;
using mlnn::test::foldedLayer;
using mlnn::test::fullModel;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;
using mlnn::test::stderrOf;

TEST(ModelBudget, ofPlainLayers) {
  MultiLayerNNModel model = modelOf({plainLayer(5, 4), plainLayer(4, 2)});
  model.layers[1]->actFn = ActFn::linear;
  const ModelBudget budget = budgetOf(model);
  EXPECT_EQ(budget.parameterBytes, 4u * (5 * 4 + 4 + 4 * 2 + 2));
  EXPECT_EQ(budget.readBytes, budget.parameterBytes);
  EXPECT_EQ(budget.multiplyAdds, 5u * 4 + 4 * 2);
  EXPECT_EQ(budget.activations, 4u + 2u);  // sigmoid, softmax
  model.useSoftmax = false;
  EXPECT_EQ(budgetOf(model).activations, 4u);
}

TEST(ModelBudget, ofBatchNormAndFoldedLayersCountsWhatIsNotRead) {
  NNLayer batchNorm = batchNormLayer(5, 4);
  batchNorm.bias.resize(0);
  ModelBudget budget = budgetOf(modelOf({batchNorm}));
  EXPECT_EQ(budget.parameterBytes, 4u * (5 * 4 + 4 * 4));
  EXPECT_EQ(budget.readBytes, 4u * (5 * 4 + 2 * 4));
  EXPECT_EQ(budget.multiplyAdds, 5u * 4 + 4);

  budget = budgetOf(modelOf({foldedLayer(5, 4)}));
  EXPECT_EQ(budget.parameterBytes, 4u * (5 * 4 + 5 * 4));
  EXPECT_EQ(budget.readBytes, 4u * (5 * 4 + 4));
  EXPECT_EQ(budget.multiplyAdds, 5u * 4);
}

TEST(ModelBudget, ofAnEmptyModelIsNothing) {
  const ModelBudget budget = budgetOf(MultiLayerNNModel());
  EXPECT_EQ(budget.parameterBytes, 0u);
  EXPECT_EQ(budget.multiplyAdds, 0u);
  EXPECT_EQ(budget.activations, 0u);
}

#ifdef MLNN_HEAP_IS_COUNTED
// The working memory is what the heap has really given out, to within what the heap adds to each
// of a few blocks, and small blocks that it may have kept in stock.
TEST(ModelBudget, knowsWhatAForwardPassKeeps) {
  MultiLayerNNModel model = modelOf({plainLayer(700, 900), plainLayer(900, 800)});
  const Eigen::MatrixXf input = Eigen::MatrixXf::Zero(700, 1);
  Eigen::MatrixXf outputs(800, 1);
  const std::size_t before = mallinfo2().uordblks;
  const std::unique_ptr<NNFwdPassFromFile> pass(model.createFwdPass());
  ASSERT_EQ(pass->evaluate(input, outputs), 0);
  const std::size_t kept = mallinfo2().uordblks - before;
  constexpr double kUncertainty = 300;
  EXPECT_NEAR(static_cast<double>(kept), static_cast<double>(budgetOf(model).workingBytes),
              kUncertainty);
}
#endif

// Writes the model as `mlnn convert` does.
std::size_t writtenSize(ModelFormat format) {
  MultiLayerNNModel model = fullModel();
  std::string whyNot;
  mlnn::fitToFormat(model, format, mlnn::kExactDigits, whyNot);
  if (format == ModelFormat::kBinary) return mlnn::imageOf(model, whyNot).value().size();
  std::ostringstream out;
  mlnn::writeText(model, mlnn::kExactDigits, out);
  return out.str().size();
}

TEST(FileSizes, areThoseOfTheFiles) {
  const FileSizes sizes = fileSizesOf(fullModel());
  EXPECT_EQ(sizes.image, writtenSize(ModelFormat::kBinary));
  EXPECT_EQ(sizes.text, writtenSize(ModelFormat::kText));
}

TEST(FileSizes, leaveTheModelAlone) {
  const MultiLayerNNModel model = modelOf({plainLayer(5, 4)});
  fileSizesOf(model);
  EXPECT_TRUE(model.notes.lines.empty());
  EXPECT_EQ(model.deltasNorm.minvals.size(), 0);
}

TEST(FileSizes, ofWhatCannotBeWrittenAreMissing) {
  const FileSizes sizes = fileSizesOf(modelOf({batchNormLayer(0, 2)}));
  EXPECT_TRUE(sizes.image.has_value());
  EXPECT_FALSE(sizes.text.has_value());
}

TEST(ModelBudget, ofAnIntegerPassIsWhatThePassSays) {
  MultiLayerNNModel model = modelOf({plainLayer(50, 16), plainLayer(16, 5)});
  mlnn::RowQuantization options;
  ASSERT_EQ(quantizeRows(model, options), 0);
  model.layers[1]->weights(0, 0) = 0.123456f;  // no whole multiple of its row's scale
  const auto size = mlnn::integerSizeOf(model);
  const auto pass = mlnn::IntegerFwdPass::create(model);
  ASSERT_TRUE(size);
  EXPECT_EQ(size->bytes, pass->weightBytes());
  EXPECT_EQ(size->workingBytes, pass->workingBytes(1));
  EXPECT_EQ(size->integerLayers, 1u);
  EXPECT_EQ(budgetOf(model).quantized,
            "8 bits a weight in layer 1, and a scale a row: 896 bytes in place of 3200, 28 %");
  EXPECT_EQ(stderrOf([] { EXPECT_FALSE(mlnn::integerSizeOf(MultiLayerNNModel())); }),
            "ERROR: IntegerFwdPass::create: model has no layers\n");
}

}  // namespace
