#include <gtest/gtest.h>

#include <functional>

#include "tests/support/CaptureStderr.h"
#include "tests/support/TempFolder.h"
#include "tests/support/TestModels.h"
#include "tools/Failure.h"
#include "tools/files/ModelSaving.h"

namespace {

using mlnn::ModelFormat;
using mlnn::SaveOptions;
using mlnn::test::contentOf;
using mlnn::test::stderrOf;
using mlnn::test::TempFolder;

std::string refusalOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const mlnn::Failure& failure) {
    return failure.what();
  }
  return "";
}

SaveOptions to(const std::string& format) {
  SaveOptions options;
  options.format = format;
  return options;
}

TEST(ModelSaving, takesTheFormatFromTheOptionsOrTheName) {
  for (const ModelFormat otherwise : {ModelFormat::kText, ModelFormat::kBinary}) {
    EXPECT_EQ(mlnn::formatToSave("a.mlnn", to("ascii"), otherwise), ModelFormat::kText);
    EXPECT_EQ(mlnn::formatToSave("a.txt", to("binary"), otherwise), ModelFormat::kBinary);
    EXPECT_EQ(mlnn::formatToSave("a.txt", to("c-array"), otherwise), ModelFormat::kBinary);
    EXPECT_EQ(mlnn::formatToSave("a.txt", {}, otherwise), ModelFormat::kText);
    EXPECT_EQ(mlnn::formatToSave("a.mlnn", {}, otherwise), ModelFormat::kBinary);
    EXPECT_EQ(mlnn::formatToSave("a.bin", {}, otherwise), ModelFormat::kBinary);
    EXPECT_EQ(mlnn::formatToSave("\xE8\xAA\x9E.c", {}, otherwise), ModelFormat::kBinary);
    EXPECT_EQ(mlnn::formatToSave("-", {}, otherwise), otherwise);
    EXPECT_EQ(mlnn::formatToSave("a", {}, otherwise), otherwise);
  }
}

TEST(ModelSaving, refusesEndingsThatNameNoFormat) {
  for (const char* name : {"a.txt", "a.mlnn", "a.bin", "a.c", "a", "-", ".onnx"}) {
    EXPECT_EQ(refusalOf([&] { mlnn::refuseUnknownEnding(name, {}); }), "") << name;
  }
  for (const char* ending : {".onnx", ".h", ".json", ".TXT", "."}) {
    const std::string name = std::string("a") + ending;
    EXPECT_EQ(refusalOf([&] { mlnn::refuseUnknownEnding(name, {}); }),
              "no format is known by the ending '" + std::string(ending) + "' of '" + name +
                  "'; name it: --to ascii, --to binary or --to c-array");
    EXPECT_EQ(refusalOf([&] { mlnn::refuseUnknownEnding(name, to("binary")); }), "");
  }
}

TEST(ModelSaving, takesSymbolsThatCTakes) {
  const auto refusal = [](const std::string& name, const std::string& symbol) {
    SaveOptions options;
    options.symbol = symbol;
    return refusalOf([&] { mlnn::refuseStrangeSymbol(name, options); });
  };
  EXPECT_EQ(refusal("a.c", "net"), "");
  EXPECT_EQ(refusal("a.txt", ""), "");
  EXPECT_EQ(refusal("a.c", "1a"), "--symbol: '1a' is no name that C and C++ take");
  EXPECT_EQ(refusal("a.txt", "net"), "--symbol names the array of a C source, and OUT is none");
}

TEST(ModelSaving, saysWhatIsLost) {
  const TempFolder folder;
  MultiLayerNNModel model = mlnn::test::modelOf({mlnn::test::plainLayer(2, 2)});
  model.useSoftmax = true;
  model.notes.lines = {"by hand"};
  const std::string image = folder.path("a.mlnn");
  SaveOptions strict;
  strict.strict = true;
  const std::string said = stderrOf([&] {
    EXPECT_EQ(refusalOf([&] { mlnn::saveModel(model, image, ModelFormat::kBinary, strict); }),
              "nothing written: 1 thing would be lost, and --strict forbids it");
  });
  EXPECT_EQ(said, "Warning: a binary image does not hold 1 note line\n");
  EXPECT_TRUE(folder.names().empty());
  EXPECT_EQ(stderrOf([&] { mlnn::saveModel(model, image, ModelFormat::kBinary, {}); }), said);
  EXPECT_EQ(contentOf(image).substr(0, 4), "MLNN");
}

TEST(ModelSaving, givesACSourceItsSymbol) {
  const TempFolder folder;
  MultiLayerNNModel model = mlnn::test::modelOf({mlnn::test::plainLayer(2, 2)});
  model.useSoftmax = true;
  model.deltasNorm.allocIfNeeded();
  const std::string name = folder.path("\xE8\xAA\x9E.c");
  mlnn::saveModel(model, name, ModelFormat::kBinary, {});
  EXPECT_NE(contentOf(name).find("uint32_t model_image["), std::string::npos);
  SaveOptions options;
  options.symbol = "net";
  mlnn::saveModel(model, name, ModelFormat::kBinary, options);
  EXPECT_NE(contentOf(name).find("uint32_t net["), std::string::npos);
}

}  // namespace
