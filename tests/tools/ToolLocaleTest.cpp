// The tool where people write 1.234,5 for 1234.5: it reads and writes the same as everywhere, be
// it files, reports or the numbers on its command line. It sets no locale, so that holds; neither
// may a library that it uses.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/CommaLocale.h"
#include "tests/support/SourceTree.h"
#include "tests/tools/support/ToolProcess.h"

namespace {

using mlnn::test::contentOf;
using mlnn::test::kCommaLocale;
using mlnn::test::makeCommaLocale;
using mlnn::test::runShell;
using mlnn::test::sourcePath;
using mlnn::test::TempFolder;
using mlnn::test::ToolResult;

const char* const kLines[] = {
    "mlnn info model.txt",
    "mlnn info --json model.txt",
    "mlnn check --digest model.txt",
    "mlnn convert model.txt - --to ascii",
    "mlnn convert model.txt - --to binary",
    "mlnn convert image.mlnn - --to c-array",
    "mlnn fold model.txt - --to ascii",
    "mlnn reduce model.txt - --bits 4 --to ascii",
    "mlnn average model.txt other.txt - --weights 0.25,1.5 --to ascii",
    "mlnn edit model.txt - --scale 1.25 --note 1,5 --to ascii",
    "mlnn new 1200,2 - --scale 0.5",
    "mlnn run model.txt frames.txt",
    "mlnn run --json model.txt frames.txt",
    "mlnn run model.txt frames.txt --out -",
    "mlnn diff model.txt other.txt --frames frames.txt --tolerance 0.5",
    "mlnn diff --json model.txt other.txt --frames frames.txt",
    "mlnn plot --ascii model.txt",
    "mlnn plot --json model.txt",
    "mlnn plot model.txt --out -",
    "mlnn report model.txt --against other.txt --frames frames.txt",
    "mlnn info model.txt --act-fn 1,5",
};

void makeInputs(const TempFolder& folder) {
  const std::string golden = sourcePath("tests/golden/");
  folder.write("model.txt", contentOf(golden + "version2.txt"));
  folder.write("image.mlnn", contentOf(golden + "image.mlnn"));
  folder.write("frames.txt", "1000.5\n-0.125\n2e-3\n");
  const ToolResult made = runShell("mlnn edit model.txt other.txt --scale 0.75", folder.path());
  ASSERT_EQ(made.status, 0) << made.err;
}

TEST(ToolLocale, changesNothing) {
  const TempFolder locale;
  if (!makeCommaLocale(locale.path())) GTEST_SKIP() << "no localedef, or no sources for it";
  const std::string there = "export LOCPATH='" + locale.path() + "' LC_ALL=" + kCommaLocale + "; ";
  ASSERT_EQ(runShell(there + "env printf %.2f 1,5").out, "1,50");

  const TempFolder folder;
  makeInputs(folder);
  for (const std::string line : kLines) {
    SCOPED_TRACE(line);
    const ToolResult expected = runShell("export LC_ALL=C; " + line, folder.path());
    const ToolResult result = runShell(there + line, folder.path());
    EXPECT_EQ(result.status, expected.status);
    EXPECT_EQ(result.out, expected.out);
    EXPECT_EQ(result.err, expected.err);
  }
}

}  // namespace
