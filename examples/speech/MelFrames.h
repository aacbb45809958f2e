// MelFrames — the frames of features of a sound, as its samples arrive.
//
// A frame: 40 logarithmic mel band energies of 25 ms of sound, every 10 ms; their deltas; and the
// deltas of these. This is what the networks of examples/digits were trained on.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

constexpr int kSampleRate = 8000;             // samples a second
constexpr int kFrameLength = 200;             // samples of a frame: 25 ms
constexpr int kFrameShift = 80;               // from one frame to the next: 10 ms
constexpr int kBands = 40;                    // mel bands
constexpr int kSpectrum = 512;                // points of the Fourier transform
constexpr int kDeltaReach = 2;                // frames that a delta looks back, and ahead
constexpr int kFrameDelay = 2 * kDeltaReach;  // frames that a whole frame waits for

using Bands = std::array<double, kBands>;
using Frame = std::array<float, 3 * kBands>;  // bands, deltas, deltas of the deltas

// The slope of every band over the frames around each, as they arrive: by regression, where
// frames before the first or after the last repeat it.
class Deltas {
 public:
  // Takes the next frame. Puts the delta of the frame kDeltaReach before it into `delta` and
  // returns true; false while there is no such frame.
  bool push(const Bands& frame, Bands& delta);

  // After the last frame: puts the next delta that is still due into `delta` and returns true;
  // false when there is none left.
  bool finish(Bands& delta);

 private:
  const Bands& at(int64_t frame) const;  // the nearest frame that there is
  void emit(Bands& delta);

  std::array<Bands, 2 * kDeltaReach + 1> ring_;
  int64_t received_ = 0;
  int64_t emitted_ = 0;
};

// The band energies of one frame.
class MelSpectrum {
 public:
  MelSpectrum();
  ~MelSpectrum();
  MelSpectrum(const MelSpectrum&) = delete;
  MelSpectrum& operator=(const MelSpectrum&) = delete;

  // Takes kFrameLength samples, whose high frequencies are raised already.
  Bands of(const double* samples);

 private:
  struct Transform;
  struct Band {
    int firstBin;
    std::vector<double> weights;
  };

  std::array<double, kFrameLength> window_;
  std::vector<Band> bands_;
  std::unique_ptr<Transform> transform_;
};

class MelFrames {
 public:
  // Takes the next sample, from -1 to 1.
  void push(double sample);

  // Says that the sound has ended: the frames that wait for later ones are due.
  void finish();

  // Puts the next frame that is due into `frame` and returns true; false when there is none.
  bool next(Frame& frame);

 private:
  void addBands(const Bands& bands);
  void addDelta(const Bands& delta);
  void addDeltaOfDelta(const Bands& delta);

  MelSpectrum spectrum_;
  std::vector<double> samples_;  // of the frame that is being filled
  double previous_ = 0;          // sample
  bool begun_ = false;
  Deltas first_;
  Deltas second_;
  std::deque<Bands> bands_;   // that wait for their deltas
  std::deque<Bands> deltas_;  // that wait for their own deltas
  std::deque<Frame> due_;
};
