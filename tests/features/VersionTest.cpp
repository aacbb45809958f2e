#include <gtest/gtest.h>

#include <string>

#include "features/Version.h"

namespace {

TEST(Version, isThatOfTheProject) {
  EXPECT_STREQ(mlnn::version(), MLNN_PROJECT_VERSION);
  EXPECT_STREQ(MLNN_VERSION_STRING, MLNN_PROJECT_VERSION);
}

TEST(Version, isMadeOfItsNumbers) {
  EXPECT_EQ(std::to_string(MLNN_VERSION_MAJOR) + "." + std::to_string(MLNN_VERSION_MINOR) + "." +
                std::to_string(MLNN_VERSION_PATCH),
            MLNN_VERSION_STRING);
}

}  // namespace
