// A whole deconv_nonblind of a 4000 x 3000 colour picture with 1 and 2
// workers, beside the bare FFTW cost of the transforms such a run makes: one
// for the PSF, two for the derivative spectra, and for each of the three
// channels a forward and an inverse for the taper and again for the solve.
#include <benchmark/benchmark.h>
#include <semaphore.h>

#include "bench/ratio_reporter.h"
#include "engine/deconv.h"

namespace {

constexpr int W = 4000, H = 3000, C = 3;
constexpr int transforms_per_run = 1 + 2 + C * 4;

const CImg<float>& picture() {
  static const CImg<float> img = CImg<float>(W, H, 1, C).rand(0, 1);
  return img;
}

CImg<float> motion_psf() {
  CImg<float> psf(15, 15, 1, 1, 0);
  for (int i = 2; i < 13; ++i) psf(i, i) = 1.0f / 11;
  return psf;
}

void BM_Restoration(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    CImg<float> input(picture()), psf = motion_psf(), output(W, H, 1, C);
    state.ResumeTiming();
    CDeconv* const engine = new CDeconv((int)state.range(0), 10);
    engine->deconv_nonblind(output, input, psf);
    delete engine;
    benchmark::DoNotOptimize(output.data());
  }
  state.counters["transforms"] = transforms_per_run;
}

void BM_BareTransformsOfARun(benchmark::State& state) {
  fftwf_complex* const buffer = (fftwf_complex*)fftwf_malloc(sizeof(fftwf_complex) * W * H);
  const fftwf_plan plan = fftwf_plan_dft_3d(W, H, 1, buffer, buffer, FFTW_FORWARD, FFTW_ESTIMATE);
  for (size_t k = 0; k < (size_t)W * H; ++k) buffer[k][0] = buffer[k][1] = (float)(k % 255) / 255;
  for (auto _ : state)
    for (int i = 0; i < transforms_per_run; ++i) {
      fftwf_execute(plan);
      benchmark::DoNotOptimize(buffer);
    }
  fftwf_destroy_plan(plan);
  fftwf_free(buffer);
}

BENCHMARK(BM_Restoration)->Arg(1)->Arg(2)->Unit(benchmark::kSecond)->Iterations(2)->UseRealTime();
BENCHMARK(BM_BareTransformsOfARun)->Unit(benchmark::kSecond)->Iterations(2);

}  // namespace

int main(int argc, char** argv) {
  sem_unlink("WorkAvailableSemaphore");
  sem_unlink("WorkCompleteSemaphore");
  sem_unlink("PsfFftDoneSemaphore");
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter("BM_BareTransformsOfARun");
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
}
