// Sound to frames, posteriors and decisions: examples/speech for a page.
//
// What a call returned an address of holds until the next call on the same object. No function
// throws.
#include <cstddef>
#include <exception>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "DigitDecoder.h"
#include "MelFrames.h"
#include "model/MultiLayerNNModel.h"

namespace {

// One sound, from its first sample on.
class Hearing {
 public:
  explicit Hearing(MultiLayerNNModel& model) : decoder(model) {}

  void hear(const std::vector<float>& samples) {
    forgetNews();
    for (const float sample : samples) frames_.push(double{sample});
    take();
  }

  void finish() {
    forgetNews();
    frames_.finish();
    take();
    while (decoder.finish()) keepPosteriors();
  }

  DigitDecoder decoder;
  std::vector<float> newFrames;      // since the last call, one behind the other
  std::vector<float> newPosteriors;  // of frames that were decided since the last call

 private:
  void forgetNews() {
    newFrames.clear();
    newPosteriors.clear();
  }

  void take() {
    Frame frame;
    while (frames_.next(frame)) {
      newFrames.insert(newFrames.end(), frame.begin(), frame.end());
      if (decoder.push(frame)) keepPosteriors();
    }
  }

  void keepPosteriors() {
    const float* const first = decoder.posteriors().data();
    newPosteriors.insert(newPosteriors.end(), first, first + decoder.posteriors().size());
  }

  MelFrames frames_;
};

int countOf(const std::vector<float>& values, std::size_t width) {
  return static_cast<int>(values.size() / width);
}

}  // namespace

// A network, and the sound that it hears.
struct Ears {
  // Returns why `work` could not be done; "" when it was.
  template <typename Work>
  const char* reasonAgainst(const Work& work) {
    try {
      reason.clear();
      work();
    } catch (const std::exception& error) {
      reason = error.what();
    }
    return reason.c_str();
  }

  std::unique_ptr<MultiLayerNNModel> model;
  std::optional<Hearing> hearing;
  std::vector<float> samples;
  std::string reason;
};

extern "C" {

// Null when there is no memory.
Ears* hearing_create() { return new (std::nothrow) Ears; }

// Opens a network, and begins a sound. After a failure the object is as it was.
const char* hearing_open(Ears* ears, const char* name) {
  return ears->reasonAgainst([&] {
    std::unique_ptr<MultiLayerNNModel> model = loadNetwork(name);
    const Hearing itFits(*model);
    ears->hearing.reset();
    ears->model = std::move(model);
    ears->hearing.emplace(*ears->model);
  });
}

// Begins another sound.
// REQUIRES, here and below: a network is open.
const char* hearing_begin(Ears* ears) {
  return ears->reasonAgainst([&] { ears->hearing.emplace(*ears->model); });
}

// Returns where to put so many samples for hearing_push; null when there is no memory.
float* hearing_samples(Ears* ears, int count) {
  const char* const reason =
      ears->reasonAgainst([&] { ears->samples.resize(static_cast<std::size_t>(count)); });
  return *reason == '\0' ? ears->samples.data() : nullptr;
}

// Hears the samples that were put there.
const char* hearing_push(Ears* ears) {
  return ears->reasonAgainst([&] { ears->hearing->hear(ears->samples); });
}

// The sound has ended. Only hearing_begin and hearing_open go on from here.
const char* hearing_finish(Ears* ears) {
  return ears->reasonAgainst([&] { ears->hearing->finish(); });
}

// What the last call of hearing_push or hearing_finish gave, one behind the other.
const float* hearing_frames(Ears* ears) { return ears->hearing->newFrames.data(); }
int hearing_frame_count(Ears* ears) {
  return countOf(ears->hearing->newFrames, std::tuple_size<Frame>::value);
}
const float* hearing_posteriors(Ears* ears) { return ears->hearing->newPosteriors.data(); }
int hearing_posterior_count(Ears* ears) {
  return countOf(ears->hearing->newPosteriors, static_cast<std::size_t>(ears->model->numOutputs()));
}

// The output that the sound so far is, and the sum of its log posteriors; -1 and 0 before any.
int hearing_best(Ears* ears) {
  double score = 0;
  return ears->hearing->decoder.frames() == 0 ? -1 : ears->hearing->decoder.best(score);
}
double hearing_score(Ears* ears) {
  double score = 0;
  if (ears->hearing->decoder.frames() > 0) ears->hearing->decoder.best(score);
  return score;
}

int hearing_outputs(Ears* ears) { return static_cast<int>(ears->model->numOutputs()); }
const char* hearing_label(Ears* ears, int output) {
  return ears->hearing->decoder.label(output).c_str();
}

// Frames that posteriors wait for, and what a frame is made of.
int hearing_delay(Ears* ears) { return ears->hearing->decoder.delay(); }
int hearing_bands() { return kBands; }
int hearing_frame_width() { return static_cast<int>(std::tuple_size<Frame>::value); }
int hearing_frame_length() { return kFrameLength; }
int hearing_frame_shift() { return kFrameShift; }
int hearing_sample_rate() { return kSampleRate; }
}
