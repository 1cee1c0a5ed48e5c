// One forward transform of a 4000 x 3000 plane through the FFT entry, beside
// its floor: a bare fftwf_execute of a plan made once for the same size. The
// ratio is the cost of the per-call plan and the transposing copies.
#include <benchmark/benchmark.h>

#include "bench/ratio_reporter.h"
#include "spectral/fft.h"

namespace {

constexpr int W = 4000, H = 3000;

void BM_FftEntryForward(benchmark::State& state) {
  const CImg<float> plane = CImg<float>(W, H).rand(0, 1);
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  for (auto _ : state) {
    CImg<float> re(plane), im;
    CImg<float>::FFT(re, im, false, &mutex);
    benchmark::DoNotOptimize(re.data());
  }
}

void BM_BareFftwExecute(benchmark::State& state) {
  fftwf_complex* const buffer = (fftwf_complex*)fftwf_malloc(sizeof(fftwf_complex) * W * H);
  const fftwf_plan plan = fftwf_plan_dft_3d(W, H, 1, buffer, buffer, FFTW_FORWARD, FFTW_ESTIMATE);
  for (size_t k = 0; k < (size_t)W * H; ++k) buffer[k][0] = buffer[k][1] = (float)(k % 255) / 255;
  for (auto _ : state) {
    fftwf_execute(plan);
    benchmark::DoNotOptimize(buffer);
  }
  fftwf_destroy_plan(plan);
  fftwf_free(buffer);
}

BENCHMARK(BM_FftEntryForward)->Unit(benchmark::kMillisecond)->MinTime(3);
BENCHMARK(BM_BareFftwExecute)->Unit(benchmark::kMillisecond)->MinTime(3);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter("BM_BareFftwExecute");
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
}
