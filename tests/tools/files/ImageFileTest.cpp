#include <gtest/gtest.h>

#include <cstring>

#include "tests/support/ByteImage.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TempFolder.h"
#include "tests/support/TestModels.h"
#include "tools/Failure.h"
#include "tools/files/ImageFile.h"

namespace {

using mlnn::ImageFile;
using mlnn::test::stderrOf;
using mlnn::test::TempFolder;

std::string someImage() {
  MultiLayerNNModel model = mlnn::test::modelOf({mlnn::test::plainLayer(3, 2)});
  model.deltasNorm.allocIfNeeded();
  return mlnn::test::ByteImage::of(model).bytes();
}

TEST(ImageFile, isRunFromWhereItLies) {
  const TempFolder folder;
  const std::string name = folder.write("image", someImage());
  stderrOf([&] {
    const auto image = ImageFile::open(name, false);
    ASSERT_TRUE(image);
    EXPECT_EQ(image->pass().numInputs(), 3);
    const auto another = image->anotherPass();
    ASSERT_NE(another, nullptr);
    EXPECT_EQ(another->numOutputs(), 2);
  });
}

TEST(ImageFile, isNoneWhereThereIsNoImage) {
  const TempFolder folder;
  EXPECT_EQ(stderrOf([&] {
              for (const std::string& name :
                   {folder.write("text", "MultiLayerNNModel_v2\n"), folder.write("short", "MLNN"),
                    folder.write("empty", ""), folder.path(), folder.path("missing"),
                    std::string("/dev/null"), std::string("-")}) {
                EXPECT_FALSE(ImageFile::open(name, true)) << name;
              }
            }),
            "");
}

TEST(ImageFile, isRefusedAfterTheReadersOwnWords) {
  const TempFolder folder;
  std::string image = someImage();
  image.back() = static_cast<char>(image.back() ^ 1);
  const std::string name = folder.write("image", image);
  const std::string said = stderrOf([&] {
    try {
      ImageFile::open(name, false);
      ADD_FAILURE() << "it is taken";
    } catch (const mlnn::Failure& failure) {
      EXPECT_EQ(failure.what(), "could not load the model '" + name + "'");
    }
  });
  EXPECT_NE(said.find("ERR"), std::string::npos) << said;
}

}  // namespace
