#include "c/mlnn_analysis.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "analysis/FrameTimer.h"
#include "analysis/Histogram.h"
#include "analysis/ModelAverage.h"
#include "analysis/ModelBudget.h"
#include "analysis/ModelCopy.h"
#include "analysis/ModelDigest.h"
#include "analysis/ModelSummary.h"
#include "analysis/ModelSuspicions.h"
#include "analysis/NumberDiff.h"
#include "analysis/QuantizationDiff.h"
#include "analysis/StatementDiff.h"
#include "analysis/diagnosis/Diagnosis.h"
#include "c/AnalysisCalls.h"
#include "inference/PreparedFloats.h"
#include "model/FormatFit.h"

namespace {

using mlnn::ModelFile;
using mlnn::ModelFormat;
using mlnn::refuse;
using mlnn::told;
using mlnn::Watch;
using mlnn::watched;
using mlnn::withFile;
using mlnn::withFiles;

void hand(const std::vector<mlnn::Suspicion>& suspicions, mlnn_message_function found, void* data) {
  for (const mlnn::Suspicion& suspicion : suspicions) {
    found(MLNN_SEVERITY_WARNING, suspicion.text.c_str(), data);
  }
}

mlnn_layer_summary summaryOf(const mlnn::LayerSummary& layer, const std::string& actFn) {
  return {static_cast<std::size_t>(layer.inputs),
          static_cast<std::size_t>(layer.outputs),
          layer.isBatchNorm ? 1 : 0,
          layer.imageWeights.rowBits,
          actFn.c_str(),
          layer.imageWeights.form,
          layer.imageWeights.bytes,
          layer.parameters};
}

const char* textOrNull(const std::optional<std::string>& text) {
  return text ? text->c_str() : nullptr;
}

// A text that grows, and tells a watch of its bytes.
class WatchedText : public std::stringbuf {
 public:
  explicit WatchedText(const Watch& watch) : std::stringbuf(std::ios::out), watch_(watch) {}

 protected:
  std::streamsize xsputn(const char* bytes, std::streamsize length) override {
    constexpr std::size_t kBytesBetweenCalls = std::size_t{1} << 18;
    untold_ += static_cast<std::size_t>(length);
    if (untold_ >= kBytesBetweenCalls) mlnn::tell(watch_, std::exchange(untold_, 0));
    return std::stringbuf::xsputn(bytes, length);
  }

 private:
  const Watch& watch_;
  std::size_t untold_ = 0;
};

std::string textOf(const MultiLayerNNModel& model, int precision, const Watch& watch) {
  WatchedText text(watch);
  std::ostream out(&text);
  out.exceptions(std::ios::badbit);  // so that what the watch throws passes through
  mlnn::writeText(model, precision, out);
  return text.str();
}

void hand(const mlnn::Fit& fit, ModelFormat format, mlnn_message_function found, void* data) {
  for (const std::string& line : fit.lost) {
    const std::string text = mlnn::describe(format) + " does not hold " + line;
    found(MLNN_SEVERITY_WARNING, text.c_str(), data);
  }
  for (const std::string& line : fit.done) found(MLNN_SEVERITY_INFO, line.c_str(), data);
}

bool isFormat(int32_t format) { return format == MLNN_FORMAT_TEXT || format == MLNN_FORMAT_IMAGE; }

mlnn_status refuseFormat(const char* function) {
  return refuse(MLNN_ERROR_ARGUMENT, function, "format is no value that there is");
}

// REQUIRES: isFormat(format)
ModelFormat formatOf(int32_t format) {
  return format == MLNN_FORMAT_TEXT ? ModelFormat::kText : ModelFormat::kBinary;
}

bool areThere(const mlnn_section* sections, std::size_t count) {
  if (sections == nullptr) return count == 0;
  return std::all_of(sections, sections + count, [](const mlnn_section& section) {
    return section.name != nullptr && section.digest != nullptr;
  });
}

mlnn::ModelDigest digestOf(int32_t format, const mlnn_section* sections, std::size_t count) {
  mlnn::ModelDigest digest;
  digest.format = formatOf(format);
  for (std::size_t i = 0; i < count; ++i) {
    digest.sections.push_back({sections[i].name, sections[i].digest});
  }
  return digest;
}

constexpr double kMostSeconds = 3600;

static_assert(static_cast<int>(mlnn::RowScale::kLargest) == MLNN_ROW_SCALE_LARGEST);
static_assert(static_cast<int>(mlnn::RowScale::kLeastSquares) == MLNN_ROW_SCALE_LEAST_SQUARES);

bool areWeights(const double* weights, std::size_t count) {
  return std::all_of(weights, weights + count,
                     [](double weight) { return std::isfinite(weight) && weight > 0; });
}

}  // namespace

mlnn_status mlnn_check_memory(const void* bytes, size_t length, const char* hidden_act_fn,
                              mlnn_message_function found, mlnn_watch_function watch, void* data) {
  const char* const function = __func__;
  const bool hasAll = bytes != nullptr && found != nullptr;
  return watched(function, hasAll, watch, data, [&](const Watch& watching) {
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
    if (file.format == ModelFormat::kText) {
      hand(mlnn::suspiciousLines(content, watching), found, data);
    }
    hand(mlnn::suspicionsOf(file, [&](std::size_t) { mlnn::tell(watching, 0); }), found, data);
    return MLNN_OK;
  });
}

mlnn_status mlnn_model_check(mlnn_model model, mlnn_message_function found,
                             mlnn_watch_function watch, void* data) {
  return withFile(__func__, model, found != nullptr, watch, data,
                  [&](const ModelFile& file, const Watch& watching) {
                    hand(mlnn::suspicionsOf(file, watching), found, data);
                    return MLNN_OK;
                  });
}

mlnn_status mlnn_model_summary(mlnn_model model, mlnn_layer_function found,
                               mlnn_watch_function watch, void* data) {
  return withFile(__func__, model, found != nullptr, watch, data,
                  [&](const ModelFile& file, const Watch& watching) {
                    std::size_t number = 0;
                    for (const auto& layer : mlnn::summaryOf(file.model, watching).layers) {
                      const std::string actFn = ActFn::actFnToString(layer.actFn);
                      const mlnn_layer_summary summary = summaryOf(layer, actFn);
                      found(number++, &summary, data);
                    }
                    return MLNN_OK;
                  });
}

mlnn_status mlnn_model_budget(mlnn_model model, mlnn_watch_function watch, void* data,
                              mlnn_budget* budget) {
  return withFile(__func__, model, budget != nullptr, watch, data,
                  [&](const ModelFile& file, const Watch& watching) {
                    const mlnn::ModelBudget found = mlnn::budgetOf(file.model, watching);
                    const mlnn::FileSizes sizes = mlnn::fileSizesOf(file.model, watching);
                    *budget = {found.parameterBytes,   found.readBytes,
                               found.workingBytes,     found.multiplyAdds,
                               found.activations,      sizes.image.value_or(0),
                               sizes.text.value_or(0), mlnn::preparedBytesOf(file.model, watching)};
                    return MLNN_OK;
                  });
}

mlnn_status mlnn_model_digest(mlnn_model model, mlnn_digest_function found,
                              mlnn_watch_function watch, void* data) {
  return withFile(__func__, model, found != nullptr, watch, data,
                  [&](const ModelFile& file, const Watch& watching) {
                    for (const auto& section : mlnn::digestOf(file, watching).sections) {
                      found(section.name.c_str(), section.digest.c_str(), data);
                    }
                    return MLNN_OK;
                  });
}

mlnn_status mlnn_compare_digests(int32_t format, const mlnn_section* sections, size_t count,
                                 int32_t earlier_format, const mlnn_section* earlier_sections,
                                 size_t earlier_count, mlnn_section_function found, void* data) {
  const char* const function = __func__;
  const bool hasAll =
      areThere(sections, count) && areThere(earlier_sections, earlier_count) && found != nullptr;
  return watched(function, hasAll, nullptr, data, [&](const Watch&) {
    if (!isFormat(format) || !isFormat(earlier_format)) return refuseFormat(function);
    const mlnn::DigestComparison comparison =
        mlnn::compareDigests(digestOf(format, sections, count),
                             digestOf(earlier_format, earlier_sections, earlier_count));
    for (const auto& difference : comparison.differences) {
      found(difference.section.c_str(), difference.text.c_str(), data);
    }
    for (const std::string& section : comparison.notCompared) found(section.c_str(), nullptr, data);
    return MLNN_OK;
  });
}

mlnn_status mlnn_model_time(mlnn_model model, double seconds, mlnn_watch_function watch, void* data,
                            mlnn_frame_time* time) {
  const char* const function = __func__;
  return watched(function, time != nullptr, watch, data, [&](const Watch& watching) {
    if (!(seconds > 0 && seconds <= kMostSeconds)) {
      return refuse(MLNN_ERROR_ARGUMENT, function, "seconds must be above 0 and at most 3600");
    }
    std::shared_ptr<FwdPass> pass;
    const mlnn_status status = mlnn::makePass(function, model, pass);
    if (status != MLNN_OK) return status;
    std::string whyNot;
    const auto found = mlnn::timeFrames(*pass, seconds, whyNot, watching);
    if (!found) return refuse(MLNN_ERROR_MODEL, function, whyNot.c_str());
    *time = {found->median, found->fastest, found->slowest, found->frames};
    return MLNN_OK;
  });
}

mlnn_status mlnn_count_values(const float* values, size_t count, size_t bins,
                              mlnn_watch_function watch, void* data, uint64_t* counts,
                              mlnn_histogram* histogram) {
  const char* const function = __func__;
  const bool hasAll =
      (values != nullptr || count == 0) && counts != nullptr && histogram != nullptr;
  return watched(function, hasAll, watch, data, [&](const Watch& watching) {
    if (!mlnn::fitsMemory(count, 1)) {
      return refuse(MLNN_ERROR_SIZE, function, "more values than memory can hold");
    }
    if (bins == 0) return refuse(MLNN_ERROR_ARGUMENT, function, "there must be a bin");
    if (!mlnn::fitsMemory(bins, sizeof(uint64_t) / sizeof(float))) {
      return refuse(MLNN_ERROR_SIZE, function, "more bins than memory can hold");
    }
    const mlnn::Histogram found = mlnn::histogramOf(values, count, bins, watching);
    std::copy(found.counts.begin(), found.counts.end(), counts);
    *histogram = {found.low, found.high, found.notFinite};
    return MLNN_OK;
  });
}

mlnn_status mlnn_model_fit(mlnn_model model, int32_t format, int32_t precision,
                           mlnn_message_function found, mlnn_file_function file,
                           mlnn_watch_function watch, void* data) {
  const char* const function = __func__;
  return withFile(function, model, found != nullptr, watch, data,
                  [&](const ModelFile& source, const Watch& watching) {
                    if (!isFormat(format)) return refuseFormat(function);
                    if (precision < 1 || precision > 17) {
                      return refuse(MLNN_ERROR_ARGUMENT, function, "precision must be 1 to 17");
                    }
                    const ModelFormat wanted = formatOf(format);
                    MultiLayerNNModel ready = mlnn::copyOf(source.model, watching);
                    std::string whyNot;
                    const auto fit = mlnn::fitToFormat(ready, wanted, precision, whyNot, watching);
                    if (!fit) return refuse(MLNN_ERROR_MODEL, function, whyNot.c_str());
                    if (file == nullptr) {
                      hand(*fit, wanted, found, data);
                    } else if (wanted == ModelFormat::kText) {
                      const std::string text = textOf(ready, precision, watching);
                      hand(*fit, wanted, found, data);
                      file(text.data(), text.size(), data);
                    } else {
                      const auto image = mlnn::imageOf(ready, whyNot, watching);
                      if (!image) return refuse(MLNN_ERROR_MODEL, function, whyNot.c_str());
                      hand(*fit, wanted, found, data);
                      file(image->data(), image->size(), data);
                    }
                    return MLNN_OK;
                  });
}

mlnn_status mlnn_model_compare(mlnn_model model, mlnn_model other, mlnn_difference_function found,
                               mlnn_watch_function watch, void* data) {
  return withFiles(__func__, model, other, found != nullptr, watch, data,
                   [&](const ModelFile& a, const ModelFile& b, const Watch& watching) {
                     for (const auto& layer : mlnn::compareNumbers(a.model, b.model, watching)) {
                       if (!layer.sameShape) found(layer.layer - 1, nullptr, nullptr, data);
                       for (const mlnn::ArrayDifference& array : layer.arrays) {
                         const mlnn_difference difference = told(array.difference);
                         found(layer.layer - 1, array.array.c_str(), &difference, data);
                       }
                     }
                     return MLNN_OK;
                   });
}

mlnn_status mlnn_model_compare_statements(mlnn_model model, mlnn_model other,
                                          mlnn_statement_function found, void* data) {
  return withFiles(__func__, model, other, found != nullptr, nullptr, data,
                   [&](const ModelFile& a, const ModelFile& b, const Watch&) {
                     for (const auto& said : mlnn::compareStatements(a.model, b.model)) {
                       found(said.what.c_str(), textOrNull(said.a), textOrNull(said.b), data);
                     }
                     return MLNN_OK;
                   });
}

mlnn_status mlnn_model_find_quantization(mlnn_model model, mlnn_model other,
                                         mlnn_quantization_function found,
                                         mlnn_watch_function watch, void* data) {
  return withFiles(__func__, model, other, found != nullptr, watch, data,
                   [&](const ModelFile& a, const ModelFile& b, const Watch& watching) {
                     const auto layers = mlnn::findQuantization(a.model, b.model, watching);
                     for (std::size_t i = 0; layers && i < layers->size(); ++i) {
                       const mlnn::LayerQuantization& layer = (*layers)[i];
                       const mlnn_layer_quantization quantization = {
                           layer.bits, static_cast<int32_t>(layer.scale), layer.isFolded ? 1 : 0,
                           layer.isShifted ? 1 : 0};
                       found(i, &quantization, data);
                     }
                     return MLNN_OK;
                   });
}

mlnn_status mlnn_model_average(const mlnn_model* models, size_t count, const double* weights,
                               mlnn_watch_function watch, void* data, mlnn_model* average) {
  const char* const function = __func__;
  const bool hasAll = models != nullptr && average != nullptr;
  return watched(function, hasAll, watch, data, [&](const Watch& watching) {
    if (count == 0) return refuse(MLNN_ERROR_ARGUMENT, function, "there must be a model");
    if (!mlnn::fitsMemory(count, sizeof(double) / sizeof(float))) {
      return refuse(MLNN_ERROR_ARGUMENT, function, "more models than memory can hold");
    }
    if (weights != nullptr && !areWeights(weights, count)) {
      return refuse(MLNN_ERROR_ARGUMENT, function, "weights must be numbers above 0");
    }
    const std::vector<float> shares =
        mlnn::sharesOf(weights == nullptr ? std::vector<double>(count, 1)
                                          : std::vector<double>(weights, weights + count));
    mlnn::ModelAverage sum;
    ModelFile mean;
    for (std::size_t i = 0; i < count; ++i) {
      std::shared_ptr<const ModelFile> file;
      const mlnn_status status = mlnn::findModelFile(function, models[i], file);
      if (status != MLNN_OK) return status;
      const std::string why = i == 0 ? "" : mlnn::whyNoMean(sum.first(), file->model);
      if (!why.empty()) {
        const std::string text = "model " + std::to_string(i) + " has another shape: " + why;
        return refuse(MLNN_ERROR_MODEL, function, text.c_str());
      }
      if (i == 0) {
        mean.format = file->format;
        mean.textVersion = file->textVersion;
      }
      sum.add(mlnn::copyOf(file->model, watching), shares[i], watching);
    }
    mean.model = sum.take();
    *average = mlnn::handleOf(std::move(mean));
    return MLNN_OK;
  });
}
