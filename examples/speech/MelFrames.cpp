#include "MelFrames.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <unsupported/Eigen/FFT>

namespace {

constexpr double kPreEmphasis = 0.97;
constexpr double kLowestFrequency = 60;  // Hz; edges of the first and the last band
constexpr double kHighestFrequency = 4000;
constexpr double kEnergyFloor = 1e-5;  // added to an energy before its logarithm
constexpr int kBins = kSpectrum / 2 + 1;

double melOf(double hertz) { return 2595 * std::log10(1 + hertz / 700); }
double hertzOf(double mel) { return 700 * (std::pow(10, mel / 2595) - 1); }

// The edges of the bands: band b rises from edge b to edge b + 1 and falls to edge b + 2.
std::vector<double> bandEdges() {
  const double lowest = melOf(kLowestFrequency);
  const double step = (melOf(kHighestFrequency) - lowest) / (kBands + 1);
  std::vector<double> edges;
  edges.reserve(kBands + 2);
  for (int i = 0; i < kBands + 2; ++i) edges.push_back(hertzOf(lowest + i * step));
  return edges;
}

double hamming(int sample) {
  const double turn = 2 * std::acos(-1.0) / (kFrameLength - 1);
  return 0.54 - 0.46 * std::cos(turn * sample);
}

}  // namespace

// --- Deltas ---

const Bands& Deltas::at(int64_t frame) const {
  const int64_t nearest = std::clamp<int64_t>(frame, 0, received_ - 1);
  return ring_[static_cast<std::size_t>(nearest) % ring_.size()];
}

void Deltas::emit(Bands& delta) {
  const int64_t t = emitted_++;
  for (std::size_t b = 0; b < delta.size(); ++b) {
    delta[b] = (at(t + 1)[b] - at(t - 1)[b] + 2 * (at(t + 2)[b] - at(t - 2)[b])) / 10;
  }
}

bool Deltas::push(const Bands& frame, Bands& delta) {
  ring_[static_cast<std::size_t>(received_++) % ring_.size()] = frame;
  if (received_ <= kDeltaReach) return false;
  emit(delta);
  return true;
}

bool Deltas::finish(Bands& delta) {
  if (emitted_ == received_) return false;
  emit(delta);
  return true;
}

// --- MelSpectrum ---

struct MelSpectrum::Transform {
  void run() { fft.fwd(spectrum.data(), samples.data(), kSpectrum); }

  Eigen::FFT<double> fft;
  std::array<double, kSpectrum> samples{};  // zeros after the frame's own
  std::array<std::complex<double>, kSpectrum> spectrum{};
};

MelSpectrum::MelSpectrum() : transform_(std::make_unique<Transform>()) {
  for (int i = 0; i < kFrameLength; ++i) window_[static_cast<std::size_t>(i)] = hamming(i);
  const std::vector<double> edges = bandEdges();
  for (std::size_t b = 0; b < kBands; ++b) {
    const double left = edges[b], peak = edges[b + 1], right = edges[b + 2];
    constexpr double kBinWidth = double{kSampleRate} / kSpectrum;
    Band band{static_cast<int>(std::ceil(left / kBinWidth)), {}};
    for (int bin = band.firstBin; bin < kBins && bin * kBinWidth < right; ++bin) {
      const double hertz = bin * kBinWidth;
      band.weights.push_back(
          std::min((hertz - left) / (peak - left), (right - hertz) / (right - peak)));
    }
    bands_.push_back(std::move(band));
  }
}

MelSpectrum::~MelSpectrum() = default;

Bands MelSpectrum::of(const double* samples) {
  std::transform(window_.begin(), window_.end(), samples, transform_->samples.begin(),
                 [](double weight, double sample) { return weight * sample; });
  transform_->run();
  Bands energies;
  for (std::size_t b = 0; b < bands_.size(); ++b) {
    double energy = 0;
    auto bin = transform_->spectrum.begin() + bands_[b].firstBin;
    for (const double weight : bands_[b].weights) energy += weight * std::norm(*bin++);
    energies[b] = std::log(energy + kEnergyFloor);
  }
  return energies;
}

// --- MelFrames ---

void MelFrames::push(double sample) {
  samples_.push_back(begun_ ? sample - kPreEmphasis * previous_ : sample);
  previous_ = sample;
  begun_ = true;
  if (samples_.size() < kFrameLength) return;
  addBands(spectrum_.of(samples_.data()));
  samples_.erase(samples_.begin(), samples_.begin() + kFrameShift);
}

void MelFrames::finish() {
  Bands delta;
  while (first_.finish(delta)) addDelta(delta);
  while (second_.finish(delta)) addDeltaOfDelta(delta);
}

bool MelFrames::next(Frame& frame) {
  if (due_.empty()) return false;
  frame = due_.front();
  due_.pop_front();
  return true;
}

void MelFrames::addBands(const Bands& bands) {
  bands_.push_back(bands);
  Bands delta;
  if (first_.push(bands, delta)) addDelta(delta);
}

void MelFrames::addDelta(const Bands& delta) {
  deltas_.push_back(delta);
  Bands deltaOfDelta;
  if (second_.push(delta, deltaOfDelta)) addDeltaOfDelta(deltaOfDelta);
}

void MelFrames::addDeltaOfDelta(const Bands& delta) {
  Frame frame;
  auto out = frame.begin();
  for (const Bands& part : {bands_.front(), deltas_.front(), delta}) {
    for (const double value : part) *out++ = static_cast<float>(value);
  }
  bands_.pop_front();
  deltas_.pop_front();
  due_.push_back(frame);
}
