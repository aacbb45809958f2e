#include <gtest/gtest.h>

#include "layers/MessageText.h"

namespace {

using mlnn::Severity;
using mlnn::severityOf;

TEST(MessageText, hasTheSeverityThatItBeginsWith) {
  EXPECT_EQ(severityOf("ERROR: no"), Severity::kError);
  EXPECT_EQ(severityOf("ERRROR: no"), Severity::kError);
  EXPECT_EQ(severityOf("Warning: so so"), Severity::kWarning);
  EXPECT_EQ(severityOf("info: yes"), Severity::kInfo);
  EXPECT_EQ(severityOf("v_range 1"), Severity::kInfo);
}

TEST(MessageText, isForInformationWhereTheBeginningIsNotWhole) {
  for (const char* text : {"", "ERROR", "ERROR:", "error: no", "Warning", "warning: no",
                           " ERROR: no", "an ERROR: no"}) {
    EXPECT_EQ(severityOf(text), Severity::kInfo) << text;
  }
}

}  // namespace
