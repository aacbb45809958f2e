#include "Sound.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <sndfile.hh>
#include <stdexcept>

#include "MelFrames.h"

namespace {

constexpr std::size_t kPiece = 4096;  // samples, or bytes, that are read at once

void refuseOtherThan(int expected, int found, const std::string& name, const char* what) {
  if (found == expected) return;
  throw std::runtime_error(name + ": expected " + std::to_string(expected) + " " + what +
                           ", found " + std::to_string(found));
}

double sampleOf(unsigned char low, unsigned char high) {
  return static_cast<int16_t>(static_cast<uint16_t>(low | high << 8)) / 32768.0;
}

}  // namespace

void readSoundFile(const std::string& name, const SoundSink& sink) {
  SndfileHandle file(name);
  if (file.error() != SF_ERR_NO_ERROR) throw std::runtime_error(name + ": " + file.strError());
  refuseOtherThan(1, file.channels(), name, "channel");
  refuseOtherThan(kSampleRate, file.samplerate(), name, "samples a second");
  std::array<double, kPiece> samples;
  while (const sf_count_t count = file.read(samples.data(), samples.size())) {
    for (sf_count_t i = 0; i < count; ++i) sink.sample(samples[static_cast<std::size_t>(i)]);
    sink.pieceDone();
  }
  if (file.error() != SF_ERR_NO_ERROR) throw std::runtime_error(name + ": " + file.strError());
}

void readRawSamples(int descriptor, const SoundSink& sink) {
  std::array<unsigned char, kPiece> bytes;
  std::size_t held = 0;  // 1 when a sample's first byte came without its second
  for (;;) {
    const ssize_t count = read(descriptor, bytes.data() + held, bytes.size() - held);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw std::runtime_error(std::string("standard input: ") + strerror(errno));
    if (count == 0) break;
    held += static_cast<std::size_t>(count);
    for (std::size_t i = 0; i + 1 < held; i += 2) sink.sample(sampleOf(bytes[i], bytes[i + 1]));
    if (held % 2 == 1) bytes[0] = bytes[held - 1];
    held %= 2;
    sink.pieceDone();
  }
  if (held != 0) throw std::runtime_error("standard input: the last sample lacks a byte");
}
