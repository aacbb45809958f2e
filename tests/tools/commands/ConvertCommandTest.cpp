#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/ByteImage.h"
#include "tests/support/SourceTree.h"
#include "tests/support/TestModels.h"
#include "tests/tools/support/ToolProcess.h"
#include "tools/files/CArray.h"

namespace {

using mlnn::test::ByteImage;
using mlnn::test::contentOf;
using mlnn::test::runTool;
using mlnn::test::sourcePath;
using mlnn::test::TempFolder;
using mlnn::test::ToolResult;
using Names = std::vector<std::string>;

std::string sample(const std::string& name) { return sourcePath("examples/digits/" + name); }

constexpr char kSampleLosses[] =
    "Warning: a binary image does not hold 12 note lines\n"
    "Warning: a binary image does not hold 8 properties (frame_length_ms, frame_shift_ms, "
    "hidden_act_fn, label_words, labels, mel_bands, name, sample_rate)\n"
    "Warning: a binary image does not hold the loss curve (60 values)\n"
    "Warning: a binary image does not hold the accuracy curve (60 values)\n";

TEST(ConvertCommandTest, toBinaryNamesWhatIsLost) {
  const TempFolder folder;
  const ToolResult result = runTool({"convert", sample("synth.txt"), folder.path("out.mlnn")});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, kSampleLosses);
  EXPECT_EQ(contentOf(folder.path("out.mlnn")).substr(0, 4), "MLNN");
}

TEST(ConvertCommandTest, strictRefusesALoss) {
  const TempFolder folder;
  folder.write("out.mlnn", "old");
  const ToolResult result =
      runTool({"convert", "--strict", sample("synth.txt"), folder.path("out.mlnn")});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, kSampleLosses + std::string("ERROR: nothing written: 4 things would be "
                                                    "lost, and --strict forbids it\n"));
  EXPECT_EQ(folder.names(), Names{"out.mlnn"});
  EXPECT_EQ(contentOf(folder.path("out.mlnn")), "old");
}

TEST(ConvertCommandTest, textToTextIsTheSameBytes) {
  for (const std::string name : {"synth.txt", "synth-bn.txt"}) {
    const TempFolder folder;
    const std::string out = folder.path("out.txt");
    EXPECT_EQ(runTool({"convert", "--strict", sample(name), out}).status, 0);
    EXPECT_EQ(contentOf(out), contentOf(sample(name)));
  }
}

// What an image holds survives a text, so the image of that text is the same again.
TEST(ConvertCommandTest, imageToTextToImageIsTheSameBytes) {
  for (const std::string name : {"synth.txt", "synth-bn.txt"}) {
    const TempFolder folder;
    const std::string image = folder.path("image.mlnn");
    const std::string text = folder.path("text.txt");
    const std::string again = folder.path("again.mlnn");
    EXPECT_EQ(runTool({"convert", sample(name), image}).status, 0);
    const ToolResult result = runTool({"convert", "--strict", image, text});
    EXPECT_EQ(result.status, 0);
    const std::string activation = name == "synth.txt"
                                       ? ""
                                       : "info: the activation of the hidden batch-norm layers is "
                                         "written as the property hidden_act_fn (relu)\n";
    EXPECT_EQ(result.err, activation +
                              "info: the feature description is written as a note line\n"
                              "info: the normalisation is written as note lines\n");
    EXPECT_EQ(runTool({"convert", text, again}).status, 0);
    EXPECT_EQ(contentOf(again), contentOf(image));
  }
}

TEST(ConvertCommandTest, theFormatIsGivenOrTakenFromTheNameOrTheOther) {
  const TempFolder folder;
  const auto startOf = [&folder](const std::vector<std::string>& arguments) {
    const std::string out = folder.path(arguments.back());
    std::vector<std::string> command = {"convert"};
    command.insert(command.end(), arguments.begin(), arguments.end() - 1);
    command.push_back(out);
    EXPECT_EQ(runTool(command).status, 0);
    return contentOf(out).substr(0, 4);
  };
  const std::string text = sample("synth.txt");
  EXPECT_EQ(startOf({"--to", "binary", text, "a.txt"}), "MLNN");
  EXPECT_EQ(startOf({"--to", "ascii", text, "a.mlnn"}), "Mult");
  EXPECT_EQ(startOf({text, "b.mlnn"}), "MLNN");
  EXPECT_EQ(startOf({text, "b.bin"}), "MLNN");
  EXPECT_EQ(startOf({text, "b.txt"}), "Mult");
  EXPECT_EQ(startOf({text, "b.c"}), "/* T");
  EXPECT_EQ(startOf({"--to", "c-array", text, "b.txt"}), "/* T");
  EXPECT_EQ(startOf({"--to", "binary", text, "b.c"}), "MLNN");
  EXPECT_EQ(startOf({text, "image"}), "MLNN");
  EXPECT_EQ(startOf({folder.path("image"), "text"}), "Mult");
}

TEST(ConvertCommandTest, standardInputAndOutputAreDashes) {
  const ToolResult image = runTool({"convert", "-", "-"}, contentOf(sample("synth.txt")));
  EXPECT_EQ(image.status, 0);
  EXPECT_EQ(image.err, kSampleLosses);
  const ToolResult text = runTool({"convert", "-", "-"}, image.out);
  EXPECT_EQ(text.status, 0);
  EXPECT_EQ(text.out.substr(0, 31), "MultiLayerNNModel_v2\nsoftmax 1\n");
}

TEST(ConvertCommandTest, aModelCanReplaceItself) {
  const TempFolder folder;
  const std::string path = folder.write("model", contentOf(sample("synth.txt")));
  EXPECT_EQ(runTool({"convert", path, path}).status, 0);
  EXPECT_EQ(contentOf(path).substr(0, 4), "MLNN");
  EXPECT_EQ(folder.names(), Names{"model"});
}

TEST(ConvertCommandTest, fewerDigitsAreALoss) {
  const TempFolder folder;
  const std::string model =
      "MultiLayerNNModel_v2\nsoftmax 1\nnum_layers 1\nlayer 1 size 1 3\nact_fn linear\n"
      "0.5\t0.123456791\t1\n";
  const std::string in = folder.write("in.txt", model);
  const ToolResult result = runTool({"convert", "--precision", "4", in, "-", "--to", "ascii"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "Warning: the text format does not hold 1 number exactly, with 4 digits\n");
  EXPECT_EQ(result.out,
            "MultiLayerNNModel_v2\nsoftmax 1\nnum_layers 1\nlayer 1 size 1 3\nact_fn linear\n"
            "0.5\t0.1235\t1\n");
  EXPECT_EQ(runTool({"convert", "--strict", in, "-", "--to", "ascii"}).out, model);
}

TEST(ConvertCommandTest, versionOneBecomesVersionTwoWithItsActivations) {
  const TempFolder folder;
  const std::string in = folder.write(
      "in.txt",
      "MultiLayerNNModel\nnum_layers 2\nlayer 1 size 1 2\n1\t2\nlayer 2 size 1 2\n3\t4\n");
  const ToolResult result =
      runTool({"convert", "--act-fn", "relu", "--strict", in, "-", "--to", "ascii"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "info: activation of 1 hidden layer set to relu (--act-fn)\n");
  EXPECT_EQ(result.out,
            "MultiLayerNNModel_v2\nsoftmax 1\nnum_layers 2\nlayer 1 size 1 2\nact_fn relu\n1\t2\n"
            "layer 2 size 1 2\nact_fn linear\n3\t4\n");
}

TEST(ConvertCommandTest, aModelThatDoesNotLoadLeavesNoFile) {
  const TempFolder folder;
  std::string image = mlnn::test::ByteImage::of(mlnn::test::imageModel()).bytes();
  image.pop_back();
  const std::string in = folder.write("in.mlnn", image);
  const ToolResult result = runTool({"convert", in, folder.path("out.txt")});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err,
            "ERROR: MultiLayerNNModel::deserializeBinary: could not read layer index: 2\n"
            "ERROR: could not load the model '" +
                in + "'\n");
  EXPECT_EQ(folder.names(), Names{"in.mlnn"});
}

// --- C sources ---

TEST(ConvertCommandTest, cArrayIsASourceThatHoldsTheImage) {
  const TempFolder folder;
  folder.write("tiny.txt",
               "MultiLayerNNModel_v2\nsoftmax 1\nnum_layers 1\nlayer 1 size 1 3\nact_fn relu\n"
               "0.5 2 -3\n");
  const ToolResult result =
      runTool({"convert", "--to", "c-array", "tiny.txt", "-"}, "", folder.path());
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(runTool({"convert", "tiny.txt", "tiny.mlnn"}, "", folder.path()).status, 0);
  const ByteImage image(contentOf(folder.path("tiny.mlnn")));
  ASSERT_EQ(image.size(), 1056u);
  const std::string start =
      "/* The image of a model, written by mlnn: 1056 bytes, for little-endian machines.\n"
      "   In C++ the declarations below need extern \"C\". */\n"
      "#include <stddef.h>\n#include <stdint.h>\n\n"
      "#ifdef __cplusplus\nextern \"C\" {\n#endif\n\n"
      "extern const uint32_t model_image[];\nextern const size_t model_image_length;\n\n"
      "const size_t model_image_length = 1056;\nconst uint32_t model_image[264] = {\n"
      "    0x4e4e4c4d, 0x";
  EXPECT_EQ(result.out.substr(0, start.size()), start);
  const std::string end =
      " 0x40000000, 0xc0400000, 0x3f000000,\n};\n\n#ifdef __cplusplus\n}\n#endif\n";
  ASSERT_GT(result.out.size(), end.size());
  EXPECT_EQ(result.out.substr(result.out.size() - end.size()), end);
}

TEST(ConvertCommandTest, cArrayOfAQuantisedNetworkSaysSo) {
  const TempFolder folder;
  const std::string small = folder.path("small.mlnn");
  const std::string source = folder.path("small.c");
  ASSERT_EQ(runTool({"quantize", sample("synth.txt"), small, "--bits", "4"}).status, 0);
  ASSERT_EQ(runTool({"convert", small, source}).status, 0);
  const std::string start =
      "/* The image of a model, written by mlnn: 23988 bytes, for little-endian machines.\n"
      "   4 bits a weight in layers 1-3, and a scale a row: 22312 bytes in place of 172544, 12.9 "
      "%.\n"
      "   In C++ the declarations below need extern \"C\". */\n";
  EXPECT_EQ(contentOf(source).substr(0, start.size()), start);
}

// A C compiler takes the source, and what it makes of it is the image.
TEST(ConvertCommandTest, cArrayHoldsTheImageToTheByte) {
  const TempFolder folder;
  const std::string words = folder.path("2 words-x.c");
  const std::string image = folder.path("words.mlnn");
  EXPECT_EQ(runTool({"convert", sample("synth.txt"), words}).status, 0);
  EXPECT_EQ(runTool({"convert", sample("synth.txt"), image}).status, 0);
  folder.write("main.c",
               "#include <stdint.h>\n#include <stdio.h>\n"
               "extern const uint32_t _2_words_x_image[];\n"
               "extern const size_t _2_words_x_image_length;\n"
               "int main(void) {\n"
               "  return fwrite(_2_words_x_image, 1, _2_words_x_image_length, stdout) == 0;\n}\n");
  const ToolResult built = mlnn::test::runShell(
      "cc -std=c99 -pedantic -Wall -Wextra -Werror main.c '2 words-x.c' -o main && ./main",
      folder.path());
  EXPECT_EQ(built.status, 0) << built.err;
  EXPECT_EQ(built.out, contentOf(image));
}

TEST(ConvertCommandTest, cArrayTakesTheNameThatIsGiven) {
  const TempFolder folder;
  const std::vector<std::string> line = {"convert", sample("synth.txt")};
  const auto convert = [&](std::vector<std::string> more) {
    more.insert(more.begin(), line.begin(), line.end());
    return runTool(more, "", folder.path());
  };
  const std::string byFile = convert({"--to", "c-array", "-"}).out;
  std::string expected = byFile;
  for (std::size_t at; (at = expected.find("model_image")) != std::string::npos;) {
    expected.replace(at, 11, "digits");
  }
  EXPECT_EQ(convert({"--symbol", "digits", "--to", "c-array", "-"}).out, expected);
  EXPECT_EQ(convert({"--symbol", "digits", "a.c"}).status, 0);
  EXPECT_EQ(contentOf(folder.path("a.c")), expected);
}

TEST(ConvertCommandTest, refusesANameThatNoArrayCanHave) {
  const TempFolder folder;
  folder.write("in.txt", contentOf(sample("synth.txt")));
  const auto expectRefused = [&](const std::string& out, const std::string& symbol,
                                 const std::string& message) {
    const ToolResult result =
        runTool({"convert", "in.txt", out, "--symbol", symbol}, "", folder.path());
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, "ERROR: " + message + "\n");
    EXPECT_EQ(folder.names(), Names{"in.txt"});
  };
  expectRefused("a.c", "int", "--symbol: 'int' is no name that C and C++ take");
  expectRefused("a.c", "a[2]", "--symbol: 'a[2]' is no name that C and C++ take");
  expectRefused("a.mlnn", "a", "--symbol names the array of a C source, and OUT is none");
}

// --- Formats by name ---

TEST(ConvertCommandTest, refusesAnEndingThatTellsNoFormat) {
  const TempFolder folder;
  folder.write("in.txt", contentOf(sample("synth.txt")));
  for (const std::string ending : {".onnx", ".h", ".json", ".TXT", "."}) {
    const ToolResult result = runTool({"convert", "in.txt", "out" + ending}, "", folder.path());
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "ERROR: no format is known by the ending '" + ending + "' of 'out" +
                              ending + "'; name it: --to ascii, --to binary or --to c-array\n");
    EXPECT_EQ(folder.names(), Names{"in.txt"});
  }
  EXPECT_EQ(runTool({"convert", "in.txt", "out.h", "--to", "c-array"}, "", folder.path()).status,
            0);
  EXPECT_EQ(contentOf(folder.path("out.h")).substr(0, 2), "/*");
}

TEST(ConvertCommandTest, writesTheOtherFormatWhereThereIsNoEnding) {
  const TempFolder folder;
  folder.write("in.txt", contentOf(sample("synth.txt")));
  EXPECT_EQ(runTool({"convert", "in.txt", "out"}, "", folder.path()).status, 0);
  EXPECT_EQ(contentOf(folder.path("out")).substr(0, 4), "MLNN");
}

// --- What may not be lost ---

// No command reads it back: the model would be lost.
TEST(ConvertCommandTest, cArrayReplacesNoModelThatItIsMadeFrom) {
  const TempFolder folder;
  const std::string text = contentOf(sample("synth.txt"));
  folder.write("model.txt", text);
  folder.write("model.c", text);
  for (const std::vector<std::string>& line : std::vector<std::vector<std::string>>{
           {"convert", "model.txt", "model.txt", "--to", "c-array"},
           {"convert", "model.c", "./model.c"},
           {"fold", "model.c", "model.c"},
           {"reduce", "model.c", "model.c", "--bits", "4"},
           {"edit", "model.c", "model.c", "--scale", "2"},
           {"average", "model.txt", "model.c", "model.c"}}) {
    const ToolResult result = runTool(line, "", folder.path());
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, "ERROR: the result would replace its own model, '" +
                              std::string(line.back() == "c-array" ? "model.txt" : "model.c") +
                              "'\n");
  }
  EXPECT_EQ(contentOf(folder.path("model.txt")), text);
  EXPECT_EQ(contentOf(folder.path("model.c")), text);
  EXPECT_EQ(runTool({"convert", "model.c", "model.c", "--to", "binary"}, "", folder.path()).status,
            0);
}

TEST(CArray, nameIsTheFilesWithoutItsEnding) {
  EXPECT_EQ(mlnn::arrayName("digits.c"), "digits_image");
  EXPECT_EQ(mlnn::arrayName("/a.b/int.c"), "int_image");
  EXPECT_EQ(mlnn::arrayName("a/7 of-9.x.c"), "_7_of_9_x_image");
  EXPECT_EQ(mlnn::arrayName("gr\xc3\xbcn.c"), "gr__n_image");
  EXPECT_EQ(mlnn::arrayName("-"), "model_image");
}

TEST(CArray, nameIsPlainWhereNothingOfTheFilesCanStay) {
  EXPECT_EQ(mlnn::arrayName("\xc3\xa4.c"), "model_image");
  EXPECT_EQ(mlnn::arrayName("\xe8\xaa\x9e.c"), "model_image");
  EXPECT_EQ(mlnn::arrayName("a/--.c"), "model_image");
}

TEST(CArray, knowsTheNamesThatCTakes) {
  for (const char* name : {"a", "digits", "Digits_2", "_a", "_", "int_"}) {
    EXPECT_TRUE(mlnn::isCName(name)) << name;
  }
  for (const char* name :
       {"", "2a", "a b", "a-b", "a;", "\xc3\xa4", "__a", "_A", "int", "class", "main", "size_t"}) {
    EXPECT_FALSE(mlnn::isCName(name)) << name;
  }
}

}  // namespace
