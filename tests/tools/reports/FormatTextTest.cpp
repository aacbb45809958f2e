#include <gtest/gtest.h>

#include "tools/reports/FormatText.h"

namespace {

TEST(FormatText, callsFormatsForPeopleAndForPrograms) {
  mlnn::ModelFile file;
  file.textVersion = 1;
  EXPECT_EQ(mlnn::formatText(file), "text, version 1");
  EXPECT_STREQ(mlnn::formatWord(file.format), "ascii");
  file.format = mlnn::ModelFormat::kBinary;
  file.textVersion = 0;
  EXPECT_EQ(mlnn::formatText(file), "binary image");
  EXPECT_STREQ(mlnn::formatWord(file.format), "binary");
}

}  // namespace
