#include "c/mlnn.h"

#include <algorithm>
#include <cstddef>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "c/Calls.h"
#include "c/HandleTable.h"
#include "c/OpenedModel.h"
#include "features/ContextWindow.h"
#include "features/FrameWidth.h"
#include "features/Version.h"
#include "inference/ImageFileMapping.h"
#include "layers/Messages.h"
#include "layers/Report.h"
#include "model/StackOutputs.h"

namespace {

using mlnn::fitsMemory;
using mlnn::guarded;
using mlnn::isActivation;
using mlnn::OpenedModel;
using mlnn::refuse;
using mlnn::refuseNull;
using mlnn::refuseStride;
using mlnn::refuseTooMany;
using mlnn::report;

std::ptrdiff_t signedOf(std::size_t count) { return static_cast<std::ptrdiff_t>(count); }

// --- What is behind the handles ---

// A pass over a model that it keeps.
class Pass {
 public:
  explicit Pass(std::shared_ptr<const OpenedModel> model)
      : model_(std::move(model)), pass_(model_->makePass()) {}

  std::size_t inputs() const { return model_->inputs(); }
  std::size_t outputs() const { return model_->outputs(); }

  // Whether the model can be run; else, after an error line.
  bool canRun() {
    return run({nullptr, static_cast<std::ptrdiff_t>(inputs()), 0},
               {nullptr, static_cast<std::ptrdiff_t>(outputs()), 0});
  }

  void setThreads(int threads) {
    pass_->setThreads(nullptr);  // those before it are gone before there are others
    if (threads > 1) pass_->setThreads(mlnn::Threads::start(threads));
  }

  std::size_t prepare(std::size_t mostBytes) { return model_->prepare(*pass_, mostBytes); }

  bool run(const mlnn::InputFrames& inputs, const mlnn::OutputFrames& outputs) {
    return pass_->evaluate(inputs, outputs) == 0;
  }

 private:
  std::shared_ptr<const OpenedModel> model_;  // goes last
  std::unique_ptr<FwdPass> pass_;
};

struct Stream {
  Stream(std::shared_ptr<const OpenedModel> model, mlnn::ContextWindow window_)
      : pass(std::move(model)), window(std::move(window_)), input(pass.inputs()) {}

  // Runs the model once, so that it has all memory that it takes from then on.
  // Returns: whether the model can be run; else, after an error line.
  bool prepare() {
    std::vector<float> output(pass.outputs());
    return pass.canRun() && run(output.data());
  }

  // Computes the outputs for `input`.
  bool run(float* outputs) {
    return pass.run({input.data(), signedOf(input.size()), 1},
                    {outputs, signedOf(pass.outputs()), 1});
  }

  Pass pass;
  mlnn::ContextWindow window;
  std::vector<float> input;
  bool isFinishing = false;
};

// Handles are for whole processes, and outlive whatever a program does when it ends.
struct Handles {
  mlnn::HandleTable<OpenedModel, 1> models;
  mlnn::HandleTable<Pass, 2> passes;
  mlnn::HandleTable<Stream, 3> streams;
};

Handles& handles() {
  static Handles* const all = new Handles;
  return *all;
}

// --- Refusals ---

mlnn_status refuseHandle(const char* function) {
  return refuse(MLNN_ERROR_HANDLE, function, "the handle is closed, or is not one");
}

mlnn_status refuseWidth(const char* function, const char* what, std::size_t expected,
                        std::size_t found) {
  report({"ERROR: ", function, ": expected ", expected, " ", what, " but got ", found});
  return MLNN_ERROR_SIZE;
}

// Runs `action` with the model of a handle, when `result`, where it puts what it finds, is there.
template <typename Result, typename Action>
mlnn_status withModel(const char* function, mlnn_model handle, Result* result,
                      Action action) noexcept {
  return guarded(function, [&] {
    if (result == nullptr) return refuseNull(function);
    const std::shared_ptr<OpenedModel> model = handles().models.share(handle.id);
    if (!model) return refuseHandle(function);
    return action(*model);
  });
}

// The same for what is there in any case.
template <typename Result, typename Action>
mlnn_status tell(const char* function, mlnn_model handle, Result* result, Action action) noexcept {
  return withModel(function, handle, result, [&](const OpenedModel& model) {
    *result = action(model);
    return MLNN_OK;
  });
}

// Gives a model that could be opened its handle.
mlnn_status hand(std::shared_ptr<OpenedModel> opened, mlnn_model* model) {
  if (!opened) return MLNN_ERROR_MODEL;
  model->id = handles().models.add(std::move(opened));
  return MLNN_OK;
}

// Opens a model by `open`, where there is a source and an activation of that name, or none given.
template <typename Open>
mlnn_status openBy(const char* function, const void* source, const char* hiddenActFn,
                   mlnn_model* model, Open open) noexcept {
  return guarded(function, [&] {
    if (source == nullptr || model == nullptr) return refuseNull(function);
    if (!isActivation(function, hiddenActFn)) return MLNN_ERROR_ARGUMENT;
    return hand(open(), model);
  });
}

mlnn::OpenOptions optionsFor(const char* hiddenActFn) {
  mlnn::OpenOptions options;
  options.hiddenActFn = hiddenActFn == nullptr ? "" : hiddenActFn;
  options.optionWords = "hidden_act_fn";
  return options;
}

template <typename Table>
mlnn_status closeIn(const char* function, Table& table, uint64_t id) noexcept {
  return guarded(function, [&] { return table.take(id) ? MLNN_OK : refuseHandle(function); });
}

mlnn_status refuseIndex(const char* function, const char* what, std::size_t index) {
  report({"ERROR: ", function, ": there is no ", what, " ", index});
  return MLNN_ERROR_ARGUMENT;
}

// Runs `action` with the stream of a handle, when `result`, where it puts what it finds, is there.
template <typename Result, typename Action>
mlnn_status withStream(const char* function, mlnn_stream handle, Result* result,
                       Action action) noexcept {
  return guarded(function, [&] {
    if (result == nullptr) return refuseNull(function);
    Stream* const stream = handles().streams.find(handle.id);
    return stream == nullptr ? refuseHandle(function) : action(*stream);
  });
}

int ownFrameWidth(const OpenedModel& model) {
  return mlnn::frameWidth(model.featureDesc(), static_cast<int>(model.inputs()));
}

// Makes the window for frames of a width, or of the model's own where that is 0.
mlnn_status makeWindow(const char* function, const OpenedModel& model, std::size_t frameWidth,
                       std::optional<mlnn::ContextWindow>& window) {
  const auto own = static_cast<std::size_t>(ownFrameWidth(model));
  if (frameWidth == 0 && own == 0) {
    return refuse(MLNN_ERROR_SIZE, function, "the model does not tell the width of its frames");
  }
  const std::size_t width = frameWidth == 0 ? own : frameWidth;
  // The window is as long as a row of weights, of which there is one at least (see below), so a
  // file cannot ask for more memory with it than it fills itself.
  if (width > model.inputs() ||
      !mlnn::framesMakeInputs(model.featureDesc(), static_cast<int>(width),
                              static_cast<int>(model.inputs()))) {
    report({"ERROR: ", function, ": frames of ", width, " values in a window of ",
            mlnn::windowLength(model.featureDesc()), " do not make the model's ", model.inputs(),
            " inputs"});
    return MLNN_ERROR_SIZE;
  }
  if (!mlnn::hasOutputs(model.widths())) {
    return refuse(MLNN_ERROR_MODEL, function, mlnn::kNoOutputs);
  }
  std::string whyNot;
  window = mlnn::ContextWindow::create(model.featureDesc(), model.deltasNorm(),
                                       static_cast<int>(width), whyNot);
  return window ? MLNN_OK : refuse(MLNN_ERROR_MODEL, function, whyNot.c_str());
}

// Who takes the messages.
struct Listener {
  mlnn_message_function function;
  void* data;
};

// Returns a listener that stays to the end of the process, since another thread may be about to
// call it; one for those that are the same.
Listener& listenerOf(mlnn_message_function function, void* data) {
  static std::mutex mutex;
  static auto* const listeners = new std::list<Listener>;
  const std::lock_guard<std::mutex> lock(mutex);
  for (Listener& listener : *listeners) {
    if (listener.function == function && listener.data == data) return listener;
  }
  listeners->push_back({function, data});
  return listeners->back();
}

void handOn(mlnn::Severity severity, std::string_view text, void* data) {
  const auto& listener = *static_cast<const Listener*>(data);
  listener.function(static_cast<mlnn_severity>(severity), text.data(), listener.data);
}
static_assert(static_cast<int>(mlnn::Severity::kError) == MLNN_SEVERITY_ERROR);
static_assert(static_cast<int>(mlnn::Severity::kWarning) == MLNN_SEVERITY_WARNING);
static_assert(static_cast<int>(mlnn::Severity::kInfo) == MLNN_SEVERITY_INFO);
static_assert(static_cast<int>(mlnn::WideInputs::kNone) == MLNN_WIDE_INPUTS_NONE);
static_assert(static_cast<int>(mlnn::WideInputs::kFirst) == MLNN_WIDE_INPUTS_FIRST);
static_assert(static_cast<int>(mlnn::WideInputs::kAll) == MLNN_WIDE_INPUTS_ALL);

// Puts the outputs for the input vector of a stream where they belong.
mlnn_status runStream(Stream& stream, float* outputs, int* hasOutputs) {
  if (!stream.run(outputs)) return MLNN_ERROR_MODEL;
  *hasOutputs = 1;
  return MLNN_OK;
}

}  // namespace

// --- What both interfaces use ---

mlnn_status mlnn::refuse(mlnn_status status, const char* function, const char* why) noexcept {
  try {
    report({"ERROR: ", function, ": ", why});
  } catch (...) {  // no memory for who collects messages
  }
  return status;
}

bool mlnn::isActivation(const char* function, const char* name) {
  ActFn::ActFn actFn;
  if (name == nullptr || ActFn::stringToActFn(name, actFn) == 0) return true;
  report({"ERROR: ", function, ": no activation is called '", name, "'"});
  return false;
}

mlnn_status mlnn::findModelFile(const char* function, mlnn_model handle,
                                std::shared_ptr<const ModelFile>& file) {
  const std::shared_ptr<OpenedModel> model = handles().models.share(handle.id);
  if (!model) return refuseHandle(function);
  file = model->file();
  if (file) return MLNN_OK;
  return refuse(MLNN_ERROR_MODEL, function,
                "the model was converted: ask the one that it was made from");
}

mlnn_status mlnn::makePass(const char* function, mlnn_model handle,
                           std::shared_ptr<FwdPass>& pass) {
  std::shared_ptr<const OpenedModel> model = handles().models.share(handle.id);
  if (!model) return refuseHandle(function);
  if (!model->widths().empty() && !hasOutputs(model->widths())) {
    return refuse(MLNN_ERROR_MODEL, function, kNoOutputs);
  }
  std::unique_ptr<FwdPass> made = model->makePass();
  pass = std::shared_ptr<FwdPass>(made.release(),
                                  [model = std::move(model)](FwdPass* last) { delete last; });
  return MLNN_OK;
}

mlnn_model mlnn::handleOf(ModelFile file) {
  return {handles().models.add(openedModelOf(std::move(file)))};
}

// --- Results, version, messages ---

const char* mlnn_last_error(void) { return mlnn::lastError(); }

const char* mlnn_status_name(mlnn_status status) {
  switch (status) {
    case MLNN_OK:
      return "MLNN_OK";
    case MLNN_ERROR_ARGUMENT:
      return "MLNN_ERROR_ARGUMENT";
    case MLNN_ERROR_HANDLE:
      return "MLNN_ERROR_HANDLE";
    case MLNN_ERROR_SIZE:
      return "MLNN_ERROR_SIZE";
    case MLNN_ERROR_MODEL:
      return "MLNN_ERROR_MODEL";
    case MLNN_ERROR_STATE:
      return "MLNN_ERROR_STATE";
    case MLNN_ERROR_MEMORY:
      return "MLNN_ERROR_MEMORY";
    case MLNN_ERROR_INTERNAL:
      return "MLNN_ERROR_INTERNAL";
    case MLNN_STOPPED:
      return "MLNN_STOPPED";
  }
  return "unknown";
}

const char* mlnn_version(void) { return mlnn::version(); }

mlnn_status mlnn_set_message_function(mlnn_message_function function, void* data) {
  return guarded(__func__, [&] {
    if (function == nullptr) {
      mlnn::setMessageSink(nullptr, nullptr);
    } else {
      mlnn::setMessageSink(&handOn, &listenerOf(function, data));
    }
    return MLNN_OK;
  });
}

void mlnn_print_problems(mlnn_severity severity, const char* text, void*) {
  try {
    if (text != nullptr) mlnn::printProblems(static_cast<mlnn::Severity>(severity), text, nullptr);
  } catch (...) {  // no memory for the line
  }
}

// --- Models ---

mlnn_status mlnn_model_open(const char* path, const char* hidden_act_fn, mlnn_model* model) {
  return openBy(__func__, path, hidden_act_fn, model, [&]() -> std::shared_ptr<OpenedModel> {
    mlnn::ModelFile file;
    if (mlnn::openModel(path, file, optionsFor(hidden_act_fn)) != 0) return nullptr;
    return mlnn::openedModelOf(std::move(file));
  });
}

mlnn_status mlnn_model_open_memory(const void* bytes, size_t length, const char* hidden_act_fn,
                                   mlnn_model* model) {
  return openBy(__func__, bytes, hidden_act_fn, model, [&]() -> std::shared_ptr<OpenedModel> {
    mlnn::ModelFile file;
    if (mlnn::openModel(bytes, length, file, optionsFor(hidden_act_fn)) != 0) return nullptr;
    return mlnn::openedModelOf(std::move(file));
  });
}

mlnn_status mlnn_model_open_image(const void* image, size_t length, mlnn_model* model) {
  return openBy(__func__, image, nullptr, model,
                [&] { return mlnn::openedModelOf(image, length); });
}

mlnn_status mlnn_model_map_image(const char* path, mlnn_model* model) {
  return openBy(__func__, path, nullptr, model,
                [&] { return mlnn::openedModelOf(mlnn::mapImageFile(path)); });
}

mlnn_status mlnn_model_to_codes(mlnn_model model, int32_t bits, int32_t codes_for,
                                mlnn_model* codes) {
  const char* const function = __func__;
  return withModel(function, model, codes, [&](const OpenedModel& opened) {
    if (bits < mlnn::CodedFwdPass::kMinBits || bits > mlnn::CodedFwdPass::kMaxBits) {
      return refuse(MLNN_ERROR_ARGUMENT, function, "bits must be 1 to 8");
    }
    if (codes_for != MLNN_CODES_FOR_SPEED && codes_for != MLNN_CODES_FOR_MEMORY) {
      return refuse(MLNN_ERROR_ARGUMENT, function, "codes_for is no value that there is");
    }
    const bool isForSpeed = codes_for == MLNN_CODES_FOR_SPEED;
    return hand(opened.toCodes(bits, isForSpeed ? mlnn::CodesFor::kSpeed : mlnn::CodesFor::kMemory),
                codes);
  });
}

mlnn_status mlnn_model_to_integers(mlnn_model model, int32_t wide_inputs, mlnn_model* integers) {
  const char* const function = __func__;
  return withModel(function, model, integers, [&](const OpenedModel& opened) {
    if (wide_inputs < MLNN_WIDE_INPUTS_NONE || wide_inputs > MLNN_WIDE_INPUTS_ALL) {
      return refuse(MLNN_ERROR_ARGUMENT, function, "wide_inputs is no value that there is");
    }
    return hand(opened.toIntegers(static_cast<mlnn::WideInputs>(wide_inputs)), integers);
  });
}

mlnn_status mlnn_model_close(mlnn_model model) {
  return closeIn(__func__, handles().models, model.id);
}

mlnn_status mlnn_model_inputs(mlnn_model model, size_t* inputs) {
  return tell(__func__, model, inputs, [](const OpenedModel& opened) { return opened.inputs(); });
}

mlnn_status mlnn_model_outputs(mlnn_model model, size_t* outputs) {
  return tell(__func__, model, outputs, [](const OpenedModel& opened) { return opened.outputs(); });
}

mlnn_status mlnn_model_layers(mlnn_model model, size_t* layers) {
  return tell(__func__, model, layers, [](const OpenedModel& opened) {
    return std::max<std::size_t>(opened.widths().size(), 1) - 1;
  });
}

mlnn_status mlnn_model_layer_outputs(mlnn_model model, size_t layer, size_t* outputs) {
  const char* const function = __func__;
  return withModel(function, model, outputs, [&](const OpenedModel& opened) {
    const std::vector<std::size_t>& widths = opened.widths();
    if (widths.empty() || layer >= widths.size() - 1) return refuseIndex(function, "layer", layer);
    *outputs = widths[layer + 1];
    return MLNN_OK;
  });
}

mlnn_status mlnn_model_softmax(mlnn_model model, int* softmax) {
  return tell(__func__, model, softmax,
              [](const OpenedModel& opened) { return opened.hasSoftmax() ? 1 : 0; });
}

mlnn_status mlnn_model_label(mlnn_model model, size_t output, const char** label) {
  const char* const function = __func__;
  return withModel(function, model, label, [&](const OpenedModel& opened) {
    const std::vector<std::string>& labels = opened.labels();
    if (output >= labels.size()) return refuseIndex(function, "output", output);
    *label = labels[output].c_str();
    return MLNN_OK;
  });
}

mlnn_status mlnn_model_property(mlnn_model model, const char* name, const char** value) {
  const char* const function = __func__;
  return withModel(function, model, value, [&](const OpenedModel& opened) {
    if (name == nullptr) return refuseNull(function);
    const auto isNamed = [name](const OpenedModel::Property& p) { return p.first == name; };
    const auto found =
        std::find_if(opened.properties().begin(), opened.properties().end(), isNamed);
    *value = found == opened.properties().end() ? nullptr : found->second.c_str();
    return MLNN_OK;
  });
}

mlnn_status mlnn_model_properties(mlnn_model model, size_t* properties) {
  return tell(__func__, model, properties,
              [](const OpenedModel& opened) { return opened.properties().size(); });
}

mlnn_status mlnn_model_property_at(mlnn_model model, size_t index, const char** name,
                                   const char** value) {
  const char* const function = __func__;
  return withModel(function, model, name, [&](const OpenedModel& opened) {
    if (value == nullptr) return refuseNull(function);
    if (index >= opened.properties().size()) return refuseIndex(function, "property", index);
    *name = opened.properties()[index].first.c_str();
    *value = opened.properties()[index].second.c_str();
    return MLNN_OK;
  });
}

mlnn_status mlnn_model_features(mlnn_model model, mlnn_features* features) {
  return tell(__func__, model, features, [](const OpenedModel& opened) {
    const DbnFeatureDescription& desc = opened.featureDesc();
    mlnn_features told;
    told.window_left = desc.winSizeLeft;
    told.window_right = desc.winSizeRight;
    told.bands = desc.numBands;
    told.deltas = desc.useDeltas ? 1 : 0;
    told.line_kernels = desc.useLineKernels ? 1 : 0;
    told.line_kernel_width = desc.lineKernelWidth;
    told.frame_width = ownFrameWidth(opened);
    return told;
  });
}

mlnn_status mlnn_model_feature_text(mlnn_model model, const char** text) {
  return tell(__func__, model, text,
              [](const OpenedModel& opened) { return opened.featureText().c_str(); });
}

// --- Passes ---

mlnn_status mlnn_pass_create(mlnn_model model, mlnn_pass* pass) {
  const char* const function = __func__;
  return guarded(function, [&] {
    if (pass == nullptr) return refuseNull(function);
    std::shared_ptr<OpenedModel> opened = handles().models.share(model.id);
    if (!opened) return refuseHandle(function);
    auto made = std::make_shared<Pass>(std::move(opened));
    if (!made->canRun()) return MLNN_ERROR_MODEL;
    pass->id = handles().passes.add(std::move(made));
    return MLNN_OK;
  });
}

mlnn_status mlnn_pass_close(mlnn_pass pass) { return closeIn(__func__, handles().passes, pass.id); }

mlnn_status mlnn_pass_set_threads(mlnn_pass pass, int32_t threads) {
  static_assert(MLNN_MOST_THREADS == mlnn::Threads::kMost);
  const char* const function = __func__;
  return guarded(function, [&] {
    Pass* const found = handles().passes.find(pass.id);
    if (found == nullptr) return refuseHandle(function);
    if (threads < 1 || threads > MLNN_MOST_THREADS) {
      return refuse(MLNN_ERROR_ARGUMENT, function, "threads must be 1 to 256");
    }
    found->setThreads(threads);
    return MLNN_OK;
  });
}

mlnn_status mlnn_pass_prepare(mlnn_pass pass, size_t most_bytes, size_t* bytes) {
  const char* const function = __func__;
  return guarded(function, [&] {
    if (bytes == nullptr) return refuseNull(function);
    Pass* const found = handles().passes.find(pass.id);
    if (found == nullptr) return refuseHandle(function);
    *bytes = found->prepare(most_bytes);
    return MLNN_OK;
  });
}

mlnn_status mlnn_pass_run(mlnn_pass pass, size_t frames, const float* inputs, size_t input_width,
                          size_t input_stride, float* outputs, size_t output_width,
                          size_t output_stride) {
  const char* const function = __func__;
  return guarded(function, [&] {
    Pass* const found = handles().passes.find(pass.id);
    if (found == nullptr) return refuseHandle(function);
    if (input_width != found->inputs()) {
      return refuseWidth(function, "inputs", found->inputs(), input_width);
    }
    if (output_width != found->outputs()) {
      return refuseWidth(function, "outputs", found->outputs(), output_width);
    }
    if (frames == 0) return MLNN_OK;
    if (inputs == nullptr || outputs == nullptr) return refuseNull(function);
    if (!fitsMemory(frames, input_stride) || !fitsMemory(frames, output_stride)) {
      return refuseTooMany(function);
    }
    if (frames > 1 && (input_stride < input_width || output_stride < output_width)) {
      return refuseStride(function);
    }
    const mlnn::InputFrames from(inputs, signedOf(input_width), signedOf(frames),
                                 signedOf(input_stride));
    const mlnn::OutputFrames to(outputs, signedOf(output_width), signedOf(frames),
                                signedOf(std::max(output_stride, output_width)));
    return found->run(from, to) ? MLNN_OK : MLNN_ERROR_MODEL;
  });
}

// --- Streams ---

mlnn_status mlnn_stream_create(mlnn_model model, size_t frame_width, mlnn_stream* stream) {
  const char* const function = __func__;
  return guarded(function, [&] {
    if (stream == nullptr) return refuseNull(function);
    const std::shared_ptr<OpenedModel> opened = handles().models.share(model.id);
    if (!opened) return refuseHandle(function);
    std::optional<mlnn::ContextWindow> window;
    const mlnn_status status = makeWindow(function, *opened, frame_width, window);
    if (status != MLNN_OK) return status;
    auto made = std::make_shared<Stream>(opened, *std::move(window));
    if (!made->prepare()) return MLNN_ERROR_MODEL;
    stream->id = handles().streams.add(std::move(made));
    return MLNN_OK;
  });
}

mlnn_status mlnn_stream_close(mlnn_stream stream) {
  return closeIn(__func__, handles().streams, stream.id);
}

mlnn_status mlnn_stream_frame_width(mlnn_stream stream, size_t* frame_width) {
  return withStream(__func__, stream, frame_width, [&](Stream& found) {
    *frame_width = static_cast<std::size_t>(found.window.frameLen());
    return MLNN_OK;
  });
}

mlnn_status mlnn_stream_delay(mlnn_stream stream, size_t* frames) {
  return withStream(__func__, stream, frames, [&](Stream& found) {
    *frames = static_cast<std::size_t>(found.window.delay());
    return MLNN_OK;
  });
}

mlnn_status mlnn_stream_push(mlnn_stream stream, const float* frame, size_t frame_width,
                             float* outputs, size_t output_width, int* has_outputs) {
  const char* const function = __func__;
  return withStream(function, stream, has_outputs, [&](Stream& found) {
    if (frame == nullptr || outputs == nullptr) return refuseNull(function);
    const auto width = static_cast<std::size_t>(found.window.frameLen());
    if (frame_width != width) {
      return refuseWidth(function, "values in a frame", width, frame_width);
    }
    if (output_width != found.pass.outputs()) {
      return refuseWidth(function, "outputs", found.pass.outputs(), output_width);
    }
    if (found.isFinishing) {
      return refuse(
          MLNN_ERROR_STATE, function,
          "the stream is being finished; call mlnn_stream_finish until it has no outputs");
    }
    *has_outputs = 0;
    if (!found.window.push(frame, found.input.data())) return MLNN_OK;
    return runStream(found, outputs, has_outputs);
  });
}

mlnn_status mlnn_stream_finish(mlnn_stream stream, float* outputs, size_t output_width,
                               int* has_outputs) {
  const char* const function = __func__;
  return withStream(function, stream, has_outputs, [&](Stream& found) {
    if (outputs == nullptr) return refuseNull(function);
    if (output_width != found.pass.outputs()) {
      return refuseWidth(function, "outputs", found.pass.outputs(), output_width);
    }
    *has_outputs = 0;
    found.isFinishing = found.window.finish(found.input.data());
    return found.isFinishing ? runStream(found, outputs, has_outputs) : MLNN_OK;
  });
}

mlnn_status mlnn_stream_reset(mlnn_stream stream) {
  const int nothing = 0;
  return withStream(__func__, stream, &nothing, [](Stream& found) {
    found.window.reset();
    found.isFinishing = false;
    return MLNN_OK;
  });
}
