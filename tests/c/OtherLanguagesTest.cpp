// The C interface as programs in other languages use it: the examples in C and in Rust, and
// Python's ctypes, against the shared library.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "features/ContextWindow.h"
#include "features/Version.h"
#include "model/ModelFile.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/DigitsFolder.h"
#include "tests/support/SourceTree.h"
#include "tests/support/TempFolder.h"

namespace {

using Eigen::MatrixXf;
using mlnn::test::sourcePath;
using mlnn::test::stderrOf;
using mlnn::test::TempFolder;

struct Ran {
  int status = -1;
  std::string out;
};

// Runs a shell command in the source tree, where the shared library is found.
Ran run(const std::string& command) {
  Ran ran;
  const std::string whole =
      "cd '" + sourcePath(".") + "' && LD_LIBRARY_PATH='" MLNN_SHARED_DIR "' " + command;
  std::FILE* const pipe = popen(whole.c_str(), "r");
  if (pipe == nullptr) return ran;
  char piece[4096];
  for (std::size_t length; (length = std::fread(piece, 1, sizeof piece, pipe)) > 0;) {
    ran.out.append(piece, length);
  }
  const int status = pclose(pipe);
  if (WIFEXITED(status)) ran.status = WEXITSTATUS(status);
  return ran;
}

bool isThere(const std::string& program) {
  return run("command -v " + program + " > /dev/null").status == 0;
}

// The lines that name the words which synth-bn is known to name.
std::string namedWords() {
  std::istringstream labels(mlnn::test::contentOf(sourcePath("examples/digits/labels.csv")));
  std::string line, expected;
  std::getline(labels, line);
  while (std::getline(labels, line)) {
    expected += "examples/digits/frames/" + line.substr(0, line.find(',')) + " " +
                line.substr(line.rfind(',') + 1) + "\n";
  }
  return expected;
}

void expectNamesWords(const std::string& program) {
  const Ran ran = run(program + " examples/digits/synth-bn.txt examples/digits/frames/*.npy");
  EXPECT_EQ(ran.status, 0);
  EXPECT_EQ(ran.out, namedWords());
  const Ran refused = run(program + " no/such/model examples/digits/frames/*.npy 2>&1");
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.out.find("could not read file: no/such/model"), std::string::npos)
      << refused.out;
}

TEST(OtherLanguages, cNamesWords) { expectNamesWords("'" MLNN_NAME_WORDS_PATH "'"); }

// What the page shows as a program is one, and prints the first of ten posteriors.
TEST(OtherLanguages, theProgramOnThePageWorks) {
  const std::string page = mlnn::test::contentOf(sourcePath("docs/c.md"));
  const std::size_t begin = page.find("```c\n") + 5;
  const TempFolder folder;
  const std::string source =
      folder.write("program.c", page.substr(begin, page.find("```", begin) - begin));
  const std::string program = folder.path("program");
  const Ran made = run("cc -std=c99 -pedantic -Wall -Wextra -Werror -I . -I c -o '" + program +
                       "' '" + source + "' -L '" MLNN_SHARED_DIR "' -lmlnn 2>&1");
  ASSERT_EQ(made.status, 0) << made.out;
  const Ran ran = run("sh -c 'cd examples/digits && \"$1\"' - '" + program + "' 2> /dev/null");
  EXPECT_EQ(ran.status, 0);
  const double posterior = std::stod(ran.out);
  EXPECT_TRUE(posterior > 0 && posterior < 1) << ran.out;
}

TEST(OtherLanguages, rustNamesWords) {
  if (!isThere("rustc")) GTEST_SKIP() << "no rustc";
  const TempFolder folder;
  const std::string program = folder.path("name_words");
  const Ran made =
      run("rustc --edition 2021 -D warnings -O -L native='" MLNN_SHARED_DIR "' -l mlnn -o '" +
          program + "' examples/rust/name_words.rs 2>&1");
  ASSERT_EQ(made.status, 0) << made.out;
  expectNamesWords("'" + program + "'");
}

TEST(OtherLanguages, pythonsCtypesGetsTheBitsOfTheLibrary) {
  if (!isThere("python3")) GTEST_SKIP() << "no python3";
  const std::string path = sourcePath("examples/digits/synth-bn.txt");
  const MatrixXf frames =
      mlnn::test::readNpyFloats(sourcePath("examples/digits/frames/3_en-us_f4.npy"));
  std::unique_ptr<MultiLayerNNModel> model;
  stderrOf([&] { model = mlnn::openModel(path); });
  ASSERT_NE(model, nullptr);
  std::string whyNot;
  MatrixXf inputs, expected;
  mlnn::ContextWindow::create(model->featureDesc, model->deltasNorm, 120, whyNot)
      ->stack(frames, inputs);
  ASSERT_EQ(NNFwdPassFromFile(*model).evaluate(inputs, expected), 0);

  const TempFolder folder;
  const auto bytesOf = [](const MatrixXf& matrix) {
    return std::string(reinterpret_cast<const char*>(matrix.data()),
                       static_cast<std::size_t>(matrix.size()) * sizeof(float));
  };
  const Ran ran =
      run("python3 tests/c/from_ctypes.py '" MLNN_SHARED_PATH "' '" + path + "' '" +
          folder.write("frames", bytesOf(frames)) + "' '" + folder.path("outputs") + "'");
  ASSERT_EQ(ran.status, 0);
  EXPECT_EQ(mlnn::test::contentOf(folder.path("outputs")), bytesOf(expected));
  EXPECT_EQ(ran.out,
            "version " MLNN_VERSION_STRING
            "\nlabel 3\nlast message 2 info: activation of 2 hidden layers set to relu (property "
            "hidden_act_fn)\nMLNN_ERROR_HANDLE: ERROR: mlnn_stream_close: the handle is closed, "
            "or is not one\n");
}

}  // namespace
