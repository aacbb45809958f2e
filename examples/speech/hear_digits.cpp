// Tells the digits that are spoken in sound files, or on the standard input as it arrives.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "DigitDecoder.h"
#include "MelFrames.h"
#include "Sound.h"

namespace {

constexpr char kStandardInput[] = "-";

struct Options {
  std::string model;
  std::vector<std::string> sounds = {kStandardInput};
  bool posteriors = false;
  bool decisionsOnly = false;
};

// Prints a line for each frame as soon as its posteriors are known.
class Printer {
 public:
  Printer(MultiLayerNNModel& model, const Options& options) : decoder_(model), options_(options) {}

  void printDelay() const {
    if (options_.decisionsOnly) return;
    constexpr int kMilliseconds = 1000;
    std::printf("a frame is known %d ms after its last sample (%d frames of deltas and context)\n",
                decoder_.delay() * kFrameShift * kMilliseconds / kSampleRate, decoder_.delay());
  }

  void take(MelFrames& frames) {
    Frame frame;
    while (frames.next(frame)) {
      if (decoder_.push(frame)) printFrame();
    }
    std::fflush(stdout);
  }

  void finish(const std::string& sound) {
    while (decoder_.finish()) printFrame();
    if (decoder_.frames() == 0) {
      std::printf("%s: too short\n", sound.c_str());
      return;
    }
    double score = 0;
    const int output = decoder_.best(score);
    std::printf("%s: %s, sum of log posteriors %.3f\n", sound.c_str(),
                decoder_.label(output).c_str(), score);
  }

 private:
  void printFrame() const {
    if (options_.decisionsOnly) return;
    const Eigen::MatrixXf& posteriors = decoder_.posteriors();
    const int samples = (decoder_.frames() - 1) * kFrameShift + kFrameLength;
    std::printf("%7.3f", static_cast<double>(samples) / kSampleRate);
    if (options_.posteriors) {
      for (Eigen::Index i = 0; i < posteriors.rows(); ++i) {
        std::printf(" %.6f", double{posteriors(i, 0)});
      }
    } else {
      Eigen::Index output = 0;
      const float largest = posteriors.col(0).maxCoeff(&output);
      std::printf("  %s  %.6f", decoder_.label(static_cast<int>(output)).c_str(), double{largest});
    }
    std::printf("\n");
  }

  DigitDecoder decoder_;
  const Options& options_;
};

void hear(const std::string& sound, MultiLayerNNModel& model, const Options& options) {
  MelFrames frames;
  Printer printer(model, options);
  printer.printDelay();
  const SoundSink sink = {[&frames](double sample) { frames.push(sample); },
                          [&] { printer.take(frames); }};
  if (sound == kStandardInput) {
    readRawSamples(STDIN_FILENO, sink);
  } else {
    readSoundFile(sound, sink);
  }
  frames.finish();
  printer.take(frames);
  printer.finish(sound);
}

int run(int argc, char** argv) {
  CLI::App app("Tells the digits that are spoken in sound files, or on the standard input");
  Options options;
  app.add_option("MODEL", options.model, "Network, text or image")->required();
  app.add_option(
      "SOUND", options.sounds,
      "Files of 8 kHz and one channel, WAV or FLAC; - (which is also taken without any)\n"
      "is the standard input: raw samples of 16 bits, little-endian, 8 kHz, one channel");
  app.add_flag("--posteriors", options.posteriors, "Print all posteriors of each frame");
  app.add_flag("--decisions", options.decisionsOnly, "Print no frames, only what was said");
  CLI11_PARSE(app, argc, argv);
  const std::unique_ptr<MultiLayerNNModel> model = loadNetwork(options.model);
  for (const std::string& sound : options.sounds) hear(sound, *model, options);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "ERROR: %s\n", error.what());
    return 1;
  }
}
