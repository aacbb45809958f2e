// The two passes of precision reduction beside a plain copy of the same bytes.
#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <vector>

#include "model/PrecisionGrid.h"

namespace {

std::vector<float> randomValues(std::size_t count) {
  std::mt19937 random(1);
  std::normal_distribution<float> normal;
  std::vector<float> values(count);
  for (float& value : values) value = normal(random);
  return values;
}

std::size_t countOf(const benchmark::State& state) {
  return static_cast<std::size_t>(state.range(0)) / sizeof(float);
}

void reportBytes(benchmark::State& state) {
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

template <void (*include)(mlnn::ValueRange&, const float*, std::size_t)>
void findRange(benchmark::State& state) {
  const std::vector<float> values = randomValues(countOf(state));
  for (auto _ : state) {
    mlnn::ValueRange range{values[0], values[0]};
    include(range, values.data(), values.size());
    benchmark::DoNotOptimize(range);
  }
  reportBytes(state);
}

template <void (*snap)(const mlnn::PrecisionGrid&, float*, std::size_t)>
void snapValues(benchmark::State& state) {
  std::vector<float> values = randomValues(countOf(state));
  const mlnn::PrecisionGrid grid({-4.0f, 4.0f}, 8);
  for (auto _ : state) {
    snap(grid, values.data(), values.size());
    benchmark::ClobberMemory();
  }
  reportBytes(state);
}

void includeFast(mlnn::ValueRange& range, const float* values, std::size_t count) {
  range.include(values, count);
}

void snapFast(const mlnn::PrecisionGrid& grid, float* values, std::size_t count) {
  grid.snap(values, count);
}

void copyValues(benchmark::State& state) {
  const std::vector<float> source = randomValues(countOf(state));
  std::vector<float> target(source.size());
  for (auto _ : state) {
    std::memcpy(target.data(), source.data(), source.size() * sizeof(float));
    benchmark::ClobberMemory();
  }
  reportBytes(state);
}

void sizes(benchmark::internal::Benchmark* benchmark) {
  benchmark->Arg(256 << 10)->Arg(16 << 20)->Arg(256 << 20)->UseRealTime();
}

BENCHMARK(copyValues)->Apply(sizes);
BENCHMARK(findRange<includeFast>)->Apply(sizes);
BENCHMARK(snapValues<snapFast>)->Apply(sizes);
BENCHMARK(findRange<mlnn::plain::include>)->Apply(sizes);
BENCHMARK(snapValues<mlnn::plain::snap>)->Apply(sizes);

}  // namespace
