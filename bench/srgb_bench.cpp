// The sRGB curve's cost against its floor: decoding and encoding a 12
// Mpixel plane through the tables, beside a copy of the same bytes and the
// curve's formulas (std::pow) that the tables stand in for. The figure that
// matters is the ratio to the copy, in the same run.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "imaging/srgb.h"

namespace {

constexpr size_t samples = 4000 * 3000;

std::vector<float> plane() {
  std::vector<float> v(samples);
  std::mt19937 rng(1);
  for (float& x : v) x = (rng() % 256) / 255.0f;
  return v;
}

void Copy(benchmark::State& state) {
  const std::vector<float> in = plane();
  std::vector<float> out(samples);
  for (auto _ : state) {
    std::memcpy(out.data(), in.data(), samples * sizeof(float));
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(state.iterations() * samples * sizeof(float));
}

void DecodeThroughTable(benchmark::State& state) {
  const std::vector<float> in = plane();
  std::vector<float> out(samples);
  for (auto _ : state) {
    std::memcpy(out.data(), in.data(), samples * sizeof(float));
    deconv::imaging::srgb_decode(out.data(), samples);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(state.iterations() * samples * sizeof(float));
}

void EncodeThroughTable(benchmark::State& state) {
  std::vector<float> in = plane();
  deconv::imaging::srgb_decode(in.data(), samples);
  std::vector<float> out(samples);
  for (auto _ : state) {
    std::memcpy(out.data(), in.data(), samples * sizeof(float));
    deconv::imaging::srgb_encode(out.data(), samples);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(state.iterations() * samples * sizeof(float));
}

void EncodeByFormula(benchmark::State& state) {
  std::vector<float> in = plane();
  deconv::imaging::srgb_decode(in.data(), samples);
  std::vector<float> out(samples);
  for (auto _ : state) {
    for (size_t i = 0; i < samples; ++i) out[i] = (float)deconv::imaging::srgb_encode_exact(in[i]);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(state.iterations() * samples * sizeof(float));
}

BENCHMARK(Copy)->Unit(benchmark::kMillisecond);
BENCHMARK(DecodeThroughTable)->Unit(benchmark::kMillisecond);
BENCHMARK(EncodeThroughTable)->Unit(benchmark::kMillisecond);
BENCHMARK(EncodeByFormula)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
