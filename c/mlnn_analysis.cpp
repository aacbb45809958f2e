#include "c/mlnn_analysis.h"

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "analysis/ModelBudget.h"
#include "analysis/ModelDigest.h"
#include "analysis/ModelSummary.h"
#include "analysis/ModelSuspicions.h"
#include "analysis/NumberDiff.h"
#include "analysis/diagnosis/Diagnosis.h"
#include "c/Calls.h"

namespace {

using mlnn::ModelFile;
using mlnn::Watch;

struct Stopped {};

// The watch of a C program.
Watch watchOf(mlnn_watch_function watch, void* data) {
  if (watch == nullptr) return {};
  return [watch, data](std::size_t steps) {
    if (watch(steps, data) != 0) throw Stopped();
  };
}

// Runs what a function does, which its watch may stop.
template <typename Action>
mlnn_status watched(const char* function, mlnn_watch_function watch, void* data,
                    Action action) noexcept {
  return mlnn::guarded(function, [&] {
    try {
      return action(watchOf(watch, data));
    } catch (const Stopped&) {
      return MLNN_STOPPED;
    }
  });
}

// The same with the model of a handle, when `result` is there.
template <typename Result, typename Action>
mlnn_status withFile(const char* function, mlnn_model handle, Result result,
                     mlnn_watch_function watch, void* data, Action action) noexcept {
  return watched(function, watch, data, [&](const Watch& watching) {
    if (result == nullptr) return mlnn::refuseNull(function);
    std::shared_ptr<const ModelFile> file;
    const mlnn_status status = mlnn::findModelFile(function, handle, file);
    if (status == MLNN_OK) action(*file, watching);
    return status;
  });
}

void hand(const std::vector<mlnn::Suspicion>& suspicions, mlnn_message_function found, void* data) {
  for (const mlnn::Suspicion& suspicion : suspicions) {
    found(MLNN_SEVERITY_WARNING, suspicion.text.c_str(), data);
  }
}

mlnn_layer_summary told(const mlnn::LayerSummary& layer, const std::string& actFn) {
  return {static_cast<std::size_t>(layer.inputs),
          static_cast<std::size_t>(layer.outputs),
          layer.isBatchNorm ? 1 : 0,
          layer.imageWeights.rowBits,
          actFn.c_str(),
          layer.imageWeights.form,
          layer.imageWeights.bytes,
          layer.parameters};
}

mlnn_difference told(const mlnn::Difference& difference) {
  const mlnn::Difference::Place place = difference.placeOfLargest();
  return {difference.count(),
          difference.differing(),
          difference.largest(),
          difference.mean(),
          difference.rootMeanSquare(),
          difference.cosine(),
          static_cast<std::size_t>(place.row),
          static_cast<std::size_t>(place.col),
          difference.largestUlps()};
}

}  // namespace

mlnn_status mlnn_check_memory(const void* bytes, size_t length, const char* hidden_act_fn,
                              mlnn_message_function found, mlnn_watch_function watch, void* data) {
  const char* const function = __func__;
  return watched(function, watch, data, [&](const Watch& watching) {
    if (bytes == nullptr || found == nullptr) return mlnn::refuseNull(function);
    if (!mlnn::isActivation(function, hidden_act_fn)) return MLNN_ERROR_ARGUMENT;
    const std::string_view content(static_cast<const char*>(bytes), length);
    ModelFile file;
    mlnn::OpenOptions options;
    options.hiddenActFn = hidden_act_fn == nullptr ? "" : hidden_act_fn;
    options.optionWords = "hidden_act_fn";
    if (mlnn::openModel(bytes, length, file, options) != 0) {
      const auto misfit = mlnn::diagnose(content, watching);
      if (misfit) found(MLNN_SEVERITY_ERROR, mlnn::describe(*misfit).c_str(), data);
      return MLNN_ERROR_MODEL;
    }
    if (file.format == mlnn::ModelFormat::kText) {
      hand(mlnn::suspiciousLines(content, watching), found, data);
    }
    hand(mlnn::suspicionsOf(file, [&](std::size_t) { mlnn::tell(watching, 0); }), found, data);
    return MLNN_OK;
  });
}

mlnn_status mlnn_model_check(mlnn_model model, mlnn_message_function found,
                             mlnn_watch_function watch, void* data) {
  return withFile(__func__, model, found, watch, data,
                  [&](const ModelFile& file, const Watch& watching) {
                    hand(mlnn::suspicionsOf(file, watching), found, data);
                  });
}

mlnn_status mlnn_model_summary(mlnn_model model, mlnn_layer_function found,
                               mlnn_watch_function watch, void* data) {
  return withFile(__func__, model, found, watch, data,
                  [&](const ModelFile& file, const Watch& watching) {
                    std::size_t number = 0;
                    for (const auto& layer : mlnn::summaryOf(file.model, watching).layers) {
                      const std::string actFn = ActFn::actFnToString(layer.actFn);
                      const mlnn_layer_summary summary = told(layer, actFn);
                      found(number++, &summary, data);
                    }
                  });
}

mlnn_status mlnn_model_budget(mlnn_model model, mlnn_watch_function watch, void* data,
                              mlnn_budget* budget) {
  return withFile(__func__, model, budget, watch, data,
                  [&](const ModelFile& file, const Watch& watching) {
                    const mlnn::ModelBudget found = mlnn::budgetOf(file.model, watching);
                    const mlnn::FileSizes sizes = mlnn::fileSizesOf(file.model, watching);
                    *budget = {found.parameterBytes,  found.readBytes,   found.workingBytes,
                               found.multiplyAdds,    found.activations, sizes.image.value_or(0),
                               sizes.text.value_or(0)};
                  });
}

mlnn_status mlnn_model_digest(mlnn_model model, mlnn_digest_function found,
                              mlnn_watch_function watch, void* data) {
  return withFile(__func__, model, found, watch, data,
                  [&](const ModelFile& file, const Watch& watching) {
                    for (const auto& section : mlnn::digestOf(file, watching).sections) {
                      found(section.name.c_str(), section.digest.c_str(), data);
                    }
                  });
}

mlnn_status mlnn_model_compare(mlnn_model model, mlnn_model other, mlnn_difference_function found,
                               mlnn_watch_function watch, void* data) {
  const char* const function = __func__;
  return watched(function, watch, data, [&](const Watch& watching) {
    if (found == nullptr) return mlnn::refuseNull(function);
    std::shared_ptr<const ModelFile> a;
    std::shared_ptr<const ModelFile> b;
    mlnn_status status = mlnn::findModelFile(function, model, a);
    if (status == MLNN_OK) status = mlnn::findModelFile(function, other, b);
    if (status != MLNN_OK) return status;
    for (const auto& layer : mlnn::compareNumbers(a->model, b->model, watching)) {
      if (!layer.sameShape) found(layer.layer - 1, nullptr, nullptr, data);
      for (const mlnn::ArrayDifference& array : layer.arrays) {
        const mlnn_difference difference = told(array.difference);
        found(layer.layer - 1, array.array.c_str(), &difference, data);
      }
    }
    return MLNN_OK;
  });
}
