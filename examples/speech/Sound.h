// Reading of sound: whole files, and raw samples as they arrive.
#pragma once

#include <functional>
#include <string>

// Hands every sample (-1 to 1), and after each piece of the sound calls `pieceDone`.
struct SoundSink {
  std::function<void(double)> sample;
  std::function<void()> pieceDone;
};

// Reads a file: WAV, FLAC and whatever else libsndfile knows, one channel, kSampleRate.
// Throws std::runtime_error with the reason.
void readSoundFile(const std::string& name, const SoundSink& sink);

// Reads raw samples from a descriptor until it ends: 16 bits, little-endian, one channel,
// kSampleRate. A piece is what has arrived when there is anything.
// Throws std::runtime_error with the reason.
void readRawSamples(int descriptor, const SoundSink& sink);
