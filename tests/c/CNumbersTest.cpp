// The numbers in a file and in the arguments, not only lengths: every function of the C interface
// on models of every odd shape, and with counts, widths and indices at and beside the powers of
// two. What they take stays within bounds of the file's bytes.
//
// The functions are those that the header declares: a new one is tried, or the test says that it
// does not know how. Bytes are counted, not time: every loop over what a file only mentions would
// fill an array, or is one of those that the test's limit of processor time ends.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "mlnn.h"
#include "mlnn_analysis.h"
#include "model/MultiLayerNNModel.h"
#include "tests/support/AllocationWatch.h"
#include "tests/support/ByteImage.h"
#include "tests/support/SourceTree.h"
#include "tests/support/TempFolder.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::test::AllocationWatch;
using mlnn::test::ByteImage;
using mlnn::test::TempFolder;

constexpr int kLargest = std::numeric_limits<int32_t>::max();
constexpr std::size_t kMostValues = 1 << 12;  // that a file has; of more it only speaks

// As SECURITY.md has it.
constexpr std::size_t kBytesPerByte = 64;
constexpr std::size_t kBaseBytes = std::size_t{4} << 20;

std::vector<int> numbers() {
  std::vector<int> numbers{0};
  for (int64_t power = 1; power <= int64_t{kLargest} + 1; power *= 2) {
    for (const int64_t number : {power - 1, power, power + 1}) {
      if (number > numbers.back() && number <= kLargest) numbers.push_back(int(number));
    }
  }
  return numbers;
}

// --- Models ---

std::string rowsOf(std::size_t rows, std::size_t values) {
  if (rows == 0 || values == 0) return "";
  if (std::uint64_t{rows} * values > kMostValues) return "1 ";
  std::string row;
  for (std::size_t i = 0; i < values; ++i) row += "1 ";
  std::string text;
  for (std::size_t r = 0; r < rows; ++r) text += row + "\n";
  return text;
}

std::string textOf(int rows, int columns, bool isBatchNorm, int window) {
  const auto r = static_cast<std::size_t>(rows);
  const auto c = static_cast<std::size_t>(columns);
  std::string text = "MultiLayerNNModel_v2\nsoftmax 1\n";
  if (window > 0) {
    text += "# nn_tune feat_desc mel_deltas:bands=1,left=" + std::to_string(window - 1) +
            ",right=0,deltas=0,line_kernels=0,line_kernel_width=0\n";
  }
  text += "num_layers 1\n";
  if (isBatchNorm) {
    return text + "batch_norm_layer 1 size " + std::to_string(rows) + " " +
           std::to_string(columns) + "\n" + rowsOf(r, c) + "gamma_beta\n" + rowsOf(r, 4);
  }
  const int values = columns == kLargest ? columns : columns + 1;
  return text + "layer 1 size " + std::to_string(rows) + " " + std::to_string(values) +
         "\nact_fn relu\n" + rowsOf(r, static_cast<std::size_t>(values));
}

// An image of one layer that says it has that shape.
std::string imageOf(int rows, int columns) {
  MultiLayerNNModel model = mlnn::test::modelOf({NNLayer()});
  model.deltasNorm.allocIfNeeded();
  constexpr std::size_t kRowsOffset = 1004 + 4;
  return ByteImage::of(model)
      .setInt32At(kRowsOffset, rows)
      .setInt32At(kRowsOffset + 4, columns)
      .bytes();
}

std::vector<std::string> filesOf(int number) {
  std::vector<std::string> files;
  for (const auto& [rows, columns] :
       {std::pair{0, number}, {number, 0}, {1, number}, {number, 1}}) {
    for (const bool isBatchNorm : {false, true}) {
      files.push_back(textOf(rows, columns, isBatchNorm, 0));
      files.push_back(textOf(rows, columns, isBatchNorm, columns));
    }
    files.push_back(imageOf(rows, columns));
  }
  return files;
}

// --- Calls ---

// What is called with: the file, its model where it has one, and a number.
struct Case {
  const std::string& bytes;
  const char* path;  // of a file with these bytes
  mlnn_model model;
  std::size_t number;
};

// Gives a pass over the model to the action.
void withPass(const Case& c, const std::function<void(mlnn_pass)>& action) {
  mlnn_pass pass{0};
  mlnn_pass_create(c.model, &pass);
  action(pass);
  mlnn_pass_close(pass);
}

// Gives the action a stream of the model's own frames, and one of frames of that width.
void withStreams(const Case& c, const std::function<void(mlnn_stream)>& action) {
  for (const std::size_t width : {std::size_t{0}, c.number}) {
    mlnn_stream stream{0};
    mlnn_stream_create(c.model, width, &stream);
    action(stream);
    mlnn_stream_close(stream);
  }
}

void openAndClose(const std::function<mlnn_status(mlnn_model*)>& open) {
  mlnn_model model{0};
  open(&model);
  mlnn_model_close(model);
}

// Runs as many frames as there are values for.
void runPass(const Case& c, mlnn_pass pass) {
  const std::vector<float> inputs(kMostValues, 1.0f);
  std::vector<float> outputs(kMostValues);
  std::size_t width = 0;
  std::size_t height = 0;
  mlnn_model_inputs(c.model, &width);
  mlnn_model_outputs(c.model, &height);
  const bool fits = width <= kMostValues && height <= kMostValues;
  mlnn_pass_run(pass, fits ? 1 : 0, inputs.data(), width, width, outputs.data(), height, height);
  if (width != c.number) {
    mlnn_pass_run(pass, 1, inputs.data(), c.number, c.number, outputs.data(), height, height);
  }
  mlnn_pass_run(pass, 0, inputs.data(), c.number, c.number, outputs.data(), c.number, c.number);
}

void pushFrames(const Case& c, mlnn_stream stream) {
  const std::vector<float> frame(kMostValues, 1.0f);
  std::vector<float> outputs(kMostValues);
  std::size_t width = 0;
  std::size_t height = 0;
  int hasOutputs = 0;
  mlnn_stream_frame_width(stream, &width);
  mlnn_model_outputs(c.model, &height);
  if (width > kMostValues || height > kMostValues) return;
  for (int i = 0; i < 3; ++i) {
    mlnn_stream_push(stream, frame.data(), width, outputs.data(), height, &hasOutputs);
  }
  for (int i = 0; i < 3; ++i) {
    mlnn_stream_finish(stream, outputs.data(), height, &hasOutputs);
  }
}

// Runs what was made of the model.
void runOther(const Case& c, mlnn_model other) {
  const Case made{c.bytes, c.path, other, c.number};
  withPass(made, [&](mlnn_pass pass) { runPass(made, pass); });
  withStreams(made, [&](mlnn_stream stream) { pushFrames(made, stream); });
  mlnn_model_close(other);
}

void makeCodes(const Case& c) {
  const auto number = static_cast<int32_t>(c.number);
  for (const int32_t bits : {1, 8, number}) {
    mlnn_model codes{0};
    mlnn_model_to_codes(c.model, bits, MLNN_CODES_FOR_MEMORY, &codes);
    runOther(c, codes);
  }
}

void makeIntegers(const Case& c) {
  const auto number = static_cast<int32_t>(c.number);
  for (const int32_t wide : {int32_t{MLNN_WIDE_INPUTS_NONE}, number}) {
    mlnn_model integers{0};
    mlnn_model_to_integers(c.model, wide, &integers);
    runOther(c, integers);
  }
}

void ignoreFinding(mlnn_severity, const char*, void*) {}

void fit(const Case& c) {
  const auto ignore = [](const void*, size_t, void*) {};
  for (const int32_t format : {MLNN_FORMAT_TEXT, MLNN_FORMAT_IMAGE}) {
    mlnn_model_fit(c.model, format, static_cast<int32_t>(c.number), ignoreFinding, ignore, nullptr,
                   nullptr);
  }
}

void average(const Case& c) {
  const double weights[] = {1, static_cast<double>(c.number) + 1};
  const mlnn_model models[] = {c.model, c.model};
  mlnn_model mean{0};
  mlnn_model_average(models, 2, weights, nullptr, nullptr, &mean);
  mlnn_model_close(mean);
}

constexpr std::size_t kMostFrames = 8;

// Gives the action one frame for the model, and frames of which the number is the width, the
// stride or the count.
void withFrames(const Case& c, const std::function<void(const mlnn_frames&)>& action) {
  const std::vector<float> values(kMostValues, 1.0f);
  std::size_t width = 0;
  mlnn_model_inputs(c.model, &width);
  for (const mlnn_frames& frames :
       {mlnn_frames{values.data(), 1, width, width}, mlnn_frames{values.data(), 1, c.number, 1},
        mlnn_frames{values.data(), 1, 1, c.number},
        mlnn_frames{values.data(), std::min(c.number, kMostFrames), 1, 1}}) {
    if (frames.width <= kMostValues) action(frames);
  }
}

void trace(const Case& c) {
  const auto ignore = [](const char*, const mlnn_frames*, void*) {};
  withFrames(c, [&](const mlnn_frames& frames) {
    mlnn_model_trace(c.model, &frames, 0, ignore, nullptr, nullptr);
  });
}

void compareBehaviour(const Case& c) {
  const auto ignore = [](const char*, const mlnn_stage_difference*, void*) {};
  std::uint64_t same = 0;
  withFrames(c, [&](const mlnn_frames& frames) {
    mlnn_model_compare_behaviour(c.model, c.model, &frames, 1, 1, ignore, nullptr, nullptr, &same);
  });
}

void sweep(const Case& c) {
  const auto ignore = [](const mlnn_precision_loss*, void*) {};
  const auto number = static_cast<int32_t>(c.number);
  std::uint64_t right = 0;
  withFrames(c, [&](const mlnn_frames& frames) {
    mlnn_model_sweep(c.model, &frames, 1, &number, 0, &number, 1, ignore, nullptr, nullptr, &right);
  });
}

void proveQuantization(const Case& c) {
  const auto ignore = [](const mlnn_quantization_loss*, void*) {};
  const auto number = static_cast<int32_t>(c.number);
  const double share = c.number == 0 ? 0 : 1 / static_cast<double>(c.number);
  mlnn_quantization_proof proof;
  withFrames(c, [&](const mlnn_frames& frames) {
    const mlnn_quantization_options options{number % 2, share, share, frames};
    for (const int32_t bits : {int32_t{8}, number}) {
      mlnn_model_prove_quantization(c.model, &frames, 1, &number, 0, &options, &bits, 1, ignore,
                                    nullptr, nullptr, &proof);
    }
    mlnn_model_prove_quantization(c.model, &frames, 1, nullptr, 1, &options, &number, 1, ignore,
                                  nullptr, nullptr, &proof);
  });
}

void compareTraces(const Case& c) {
  const auto ignore = [](const char*, const mlnn_frames*, const mlnn_frames*,
                         const mlnn_difference*, void*) {};
  const std::string name = "layer-" + std::to_string(c.number);
  withFrames(c, [&](const mlnn_frames& frames) {
    const mlnn_stage stage{name.c_str(), frames};
    mlnn_compare_traces(&stage, 1, &stage, 1, ignore, nullptr, nullptr);
  });
}

void countValues(const Case& c) {
  const std::vector<float> values(kMostValues, 1.0f);
  std::vector<std::uint64_t> counts(kMostValues);
  mlnn_histogram histogram;
  mlnn_count_values(values.data(), std::min(c.number, kMostValues), std::min(c.number, kMostValues),
                    nullptr, nullptr, counts.data(), &histogram);
}

// Until the first frame was computed: whole measurements take longer than all of the rest.
void timeFrames(const Case& c) {
  mlnn_frame_time time;
  mlnn_model_time(
      c.model, static_cast<double>(c.number), [](size_t, void*) { return 1; }, nullptr, &time);
}

void compareDigests(const Case& c) {
  const auto ignore = [](const char*, const char*, void*) {};
  const std::string name = "layer " + std::to_string(c.number);
  const std::vector<mlnn_section> sections(std::min(c.number, kMostFrames), {name.c_str(), ""});
  mlnn_compare_digests(static_cast<int32_t>(c.number % 3), sections.data(), sections.size(), 0,
                       sections.data(), sections.size() / 2, ignore, nullptr);
}

void findQuantization(const Case& c) {
  const auto ignore = [](size_t, const mlnn_layer_quantization*, void*) {};
  mlnn_model_find_quantization(c.model, c.model, ignore, nullptr, nullptr);
}

// By a model that is read, and one that is run from where its image lies.
void prepare(const Case& c) {
  std::size_t bytes = 0;
  withPass(c, [&](mlnn_pass p) { mlnn_pass_prepare(p, c.number, &bytes); });
  mlnn_model image{0};
  mlnn_model_open_image(c.bytes.data(), c.bytes.size(), &image);
  withPass({c.bytes, c.path, image, c.number},
           [&](mlnn_pass p) { mlnn_pass_prepare(p, SIZE_MAX, &bytes); });
  mlnn_model_close(image);
}

using Call = std::function<void(const Case&)>;

template <typename Result>
Call ask(mlnn_status (*function)(mlnn_model, Result*)) {
  return [function](const Case& c) {
    Result result{};
    function(c.model, &result);
  };
}

const std::map<std::string, Call>& calls() {
  const Call pass = [](const Case& c) { withPass(c, [&](mlnn_pass p) { runPass(c, p); }); };
  const Call stream = [](const Case& c) {
    withStreams(c, [&](mlnn_stream s) { pushFrames(c, s); });
  };
  static const std::map<std::string, Call> calls{
      {"mlnn_last_error", [](const Case&) { mlnn_last_error(); }},
      {"mlnn_status_name",
       [](const Case& c) { mlnn_status_name(static_cast<mlnn_status>(c.number % 9)); }},
      {"mlnn_version", [](const Case&) { mlnn_version(); }},
      {"mlnn_set_message_function",
       [](const Case&) {
         mlnn_set_message_function([](mlnn_severity, const char*, void*) {}, nullptr);
       }},
      {"mlnn_print_problems",
       [](const Case&) { mlnn_print_problems(MLNN_SEVERITY_INFO, "not shown", nullptr); }},
      {"mlnn_model_open",
       [](const Case& c) {
         openAndClose([&](mlnn_model* m) { return mlnn_model_open(c.path, "tanh", m); });
       }},
      {"mlnn_model_open_memory",
       [](const Case& c) {
         openAndClose([&](mlnn_model* m) {
           return mlnn_model_open_memory(c.bytes.data(), c.bytes.size(), nullptr, m);
         });
       }},
      {"mlnn_model_open_image",
       [](const Case& c) {
         openAndClose([&](mlnn_model* m) {
           return mlnn_model_open_image(c.bytes.data(), c.bytes.size(), m);
         });
       }},
      {"mlnn_model_map_image",
       [](const Case& c) {
         openAndClose([&](mlnn_model* m) { return mlnn_model_map_image(c.path, m); });
       }},
      {"mlnn_model_close", [](const Case& c) { mlnn_model_close({c.number}); }},
      {"mlnn_model_to_codes", makeCodes},
      {"mlnn_model_to_integers", makeIntegers},
      {"mlnn_model_inputs", ask(mlnn_model_inputs)},
      {"mlnn_model_outputs", ask(mlnn_model_outputs)},
      {"mlnn_model_layers", ask(mlnn_model_layers)},
      {"mlnn_model_layer_outputs",
       [](const Case& c) {
         std::size_t outputs = 0;
         mlnn_model_layer_outputs(c.model, c.number, &outputs);
         mlnn_model_layer_outputs(c.model, 0, &outputs);
       }},
      {"mlnn_model_softmax", ask(mlnn_model_softmax)},
      {"mlnn_model_label",
       [](const Case& c) {
         const char* label = nullptr;
         mlnn_model_label(c.model, c.number, &label);
         mlnn_model_label(c.model, 0, &label);
       }},
      {"mlnn_model_property",
       [](const Case& c) {
         const char* value = nullptr;
         mlnn_model_property(c.model, "labels", &value);
       }},
      {"mlnn_model_properties", ask(mlnn_model_properties)},
      {"mlnn_model_property_at",
       [](const Case& c) {
         const char* name = nullptr;
         const char* value = nullptr;
         mlnn_model_property_at(c.model, c.number, &name, &value);
       }},
      {"mlnn_model_features", ask(mlnn_model_features)},
      {"mlnn_model_feature_text", ask(mlnn_model_feature_text)},
      {"mlnn_pass_create", pass},
      {"mlnn_pass_close", [](const Case& c) { mlnn_pass_close({c.number}); }},
      {"mlnn_pass_run", pass},
      {"mlnn_pass_set_threads",
       [](const Case& c) {
         const std::size_t threads = c.number > MLNN_MOST_THREADS ? c.number : 2;
         withPass(c, [&](mlnn_pass p) { mlnn_pass_set_threads(p, static_cast<int32_t>(threads)); });
       }},
      {"mlnn_pass_prepare", prepare},
      {"mlnn_stream_create", stream},
      {"mlnn_stream_close", [](const Case& c) { mlnn_stream_close({c.number}); }},
      {"mlnn_stream_frame_width", stream},
      {"mlnn_stream_delay",
       [](const Case& c) {
         withStreams(c, [](mlnn_stream s) {
           std::size_t delay = 0;
           mlnn_stream_delay(s, &delay);
         });
       }},
      {"mlnn_stream_push", stream},
      {"mlnn_stream_finish", stream},
      {"mlnn_check_memory",
       [](const Case& c) {
         mlnn_check_memory(c.bytes.data(), c.bytes.size(), nullptr, ignoreFinding, nullptr,
                           nullptr);
       }},
      {"mlnn_model_check",
       [](const Case& c) { mlnn_model_check(c.model, ignoreFinding, nullptr, nullptr); }},
      {"mlnn_model_summary",
       [](const Case& c) {
         const auto ignore = [](size_t, const mlnn_layer_summary*, void*) {};
         mlnn_model_summary(c.model, ignore, nullptr, nullptr);
       }},
      {"mlnn_model_budget",
       [](const Case& c) {
         mlnn_budget budget;
         mlnn_model_budget(c.model, nullptr, nullptr, &budget);
       }},
      {"mlnn_model_digest",
       [](const Case& c) {
         const auto ignore = [](const char*, const char*, void*) {};
         mlnn_model_digest(c.model, ignore, nullptr, nullptr);
       }},
      {"mlnn_model_compare",
       [](const Case& c) {
         const auto ignore = [](size_t, const char*, const mlnn_difference*, void*) {};
         mlnn_model_compare(c.model, c.model, ignore, nullptr, nullptr);
       }},
      {"mlnn_model_compare_statements",
       [](const Case& c) {
         const auto ignore = [](const char*, const char*, const char*, void*) {};
         mlnn_model_compare_statements(c.model, c.model, ignore, nullptr);
       }},
      {"mlnn_compare_digests", compareDigests},
      {"mlnn_model_time", timeFrames},
      {"mlnn_model_find_quantization", findQuantization},
      {"mlnn_model_fit", fit},
      {"mlnn_model_average", average},
      {"mlnn_model_trace", trace},
      {"mlnn_model_compare_behaviour", compareBehaviour},
      {"mlnn_model_sweep", sweep},
      {"mlnn_model_prove_quantization", proveQuantization},
      {"mlnn_compare_traces", compareTraces},
      {"mlnn_count_values", countValues},
      {"mlnn_stream_reset",
       [](const Case& c) { withStreams(c, [](mlnn_stream s) { mlnn_stream_reset(s); }); }},
  };
  return calls;
}

std::set<std::string> declaredFunctions() {
  const std::string header = mlnn::test::contentOf(mlnn::test::sourcePath("c/mlnn.h")) +
                             mlnn::test::contentOf(mlnn::test::sourcePath("c/mlnn_analysis.h"));
  const std::regex function("MLNN_API [a-z_ ]+[ *]+(mlnn_[a-z_]+)\\(");
  std::set<std::string> names;
  for (std::sregex_iterator i(header.begin(), header.end(), function), end; i != end; ++i) {
    names.insert((*i)[1]);
  }
  return names;
}

TEST(CNumbers, everyFunctionIsTried) {
  std::set<std::string> tried;
  for (const auto& [name, call] : calls()) tried.insert(name);
  EXPECT_EQ(tried, declaredFunctions());
}

void expectWithinBounds(const std::string& name, const Call& call, const Case& c) {
  const AllocationWatch watch;
  call(c);
  EXPECT_LE(watch.total(), kBaseBytes + kBytesPerByte * c.bytes.size())
      << name << " with " << c.number << " takes more than the file allows:\n"
      << c.bytes.substr(0, 300);
}

TEST(CNumbers, costNoMoreThanTheFilesDo) {
  const rlimit seconds{250, 250};  // of processor time, for what never ends
  setrlimit(RLIMIT_CPU, &seconds);
  mlnn_set_message_function([](mlnn_severity, const char*, void*) {}, nullptr);
  const TempFolder folder;
  for (const int number : numbers()) {
    for (const std::string& bytes : filesOf(number)) {
      const std::string path = folder.write("model", bytes);
      Case c{bytes, path.c_str(), {0}, static_cast<std::size_t>(number)};
      expectWithinBounds(
          "opening",
          [&c](const Case& file) {
            mlnn_model_open_memory(file.bytes.data(), file.bytes.size(), nullptr, &c.model);
          },
          c);
      for (const auto& [name, call] : calls()) expectWithinBounds(name, call, c);
      mlnn_model_close(c.model);
    }
  }
  mlnn_set_message_function(nullptr, nullptr);
}

}  // namespace
