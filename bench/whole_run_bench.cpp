// A whole run of the command on a 4000 x 3000 colour JPEG, in and out, with 1
// and 2 workers, beside its floor: what the converter needs to decode the input
// and encode the result, and the 15 transforms a run makes, as bare
// fftwf_execute calls of ESTIMATE plans on 1 thread and split over 2. Prints
// wall and CPU time, both as multiples of the floor, and the peak resident
// memory per pixel. The picture is a real photograph enlarged, with grain, so
// that the JPEG has a photograph's entropy; the PSF is a PGM the command reads
// itself, so that no converter runs for it. Beside them, deconv-strength on the
// same picture, whose choice should cost no more than one run.
//
// Run it on a quiet machine: every figure is the median of its repetitions,
// which run in random order.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "spectral/fft.h"

extern char** environ;

namespace {

constexpr int W = 4000, H = 3000, transforms_per_run = 15;
std::string work;  // the folder of the pictures

struct Usage {
  double wall = 0, cpu = 0, peak_bytes = 0;
};

double seconds(const timeval& t) { return t.tv_sec + t.tv_usec / 1e6; }

// Runs a command with /usr/bin first on the PATH (the real converter, not a
// stand-in elsewhere on the PATH); stdout to `out` if given. The CPU time and
// the peak are those of the process and the children it waited for.
Usage spawn(const std::vector<std::string>& args, const char* out = nullptr) {
  std::vector<char*> argv;
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (out) posix_spawn_file_actions_addopen(&actions, 1, out, O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addchdir_np(&actions, work.c_str());
  const auto start = std::chrono::steady_clock::now();
  pid_t pid;
  if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) std::abort();
  int status;
  rusage usage;
  wait4(pid, &status, 0, &usage);
  posix_spawn_file_actions_destroy(&actions);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::fprintf(stderr, "%s failed\n", args[0].c_str());
    std::exit(1);
  }
  return {std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(),
          seconds(usage.ru_utime) + seconds(usage.ru_stime), usage.ru_maxrss * 1024.0};
}

void report(benchmark::State& state, const Usage& usage) {
  state.SetIterationTime(usage.wall);
  state.counters["cpu_s"] = usage.cpu;
  if (usage.peak_bytes > 0) state.counters["peak_B_per_px"] = usage.peak_bytes / (W * H);
}

void BM_Run(benchmark::State& state) {
  const std::string workers = std::to_string(state.range(0));
  for (auto _ : state) report(state, spawn({DECONV_BINARY, "big.jpg", "psf.pgm", "out.jpg", workers}));
}

void BM_Strength(benchmark::State& state) {
  for (auto _ : state) report(state, spawn({DECONV_STRENGTH_BINARY, "big.jpg", "psf.pgm"}, "/dev/null"));
}

void BM_Decode(benchmark::State& state) {
  for (auto _ : state) report(state, spawn({"convert", "big.jpg", "pnm:-"}, "/dev/null"));
}

void BM_Encode(benchmark::State& state) {
  for (auto _ : state) report(state, spawn({"convert", "-quality", "95", "big.ppm", "encoded.jpg"}));
}

// The run's transforms, bare: each thread plans once and executes its share.
void BM_Transforms(benchmark::State& state) {
  const int threads = (int)state.range(0);
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  struct Plan {
    fftwf_complex* buffer;
    fftwf_plan plan;
  };
  std::vector<Plan> plans(threads);
  for (Plan& p : plans) {
    p.buffer = (fftwf_complex*)fftwf_malloc(sizeof(fftwf_complex) * W * H);
    p.plan = fftwf_plan_dft_3d(W, H, 1, p.buffer, p.buffer, FFTW_FORWARD, FFTW_ESTIMATE);
    for (size_t k = 0; k < (size_t)W * H; ++k) p.buffer[k][0] = p.buffer[k][1] = (float)(k % 255) / 255;
  }
  for (auto _ : state) {
    timespec cpu0, cpu1;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &cpu0);
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t)
      pool.emplace_back([&, t] {
        for (int i = t; i < transforms_per_run; i += threads) fftwf_execute(plans[t].plan);
      });
    for (std::thread& t : pool) t.join();
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &cpu1);
    report(state, {std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(),
                   (cpu1.tv_sec - cpu0.tv_sec) + (cpu1.tv_nsec - cpu0.tv_nsec) / 1e9, 0});
  }
  pthread_mutex_lock(&mutex);
  for (Plan& p : plans) fftwf_destroy_plan(p.plan), fftwf_free(p.buffer);
  pthread_mutex_unlock(&mutex);
}

constexpr int repetitions = 5;
BENCHMARK(BM_Run)->Arg(1)->Arg(2)->UseManualTime()->Iterations(1)->Repetitions(repetitions);
BENCHMARK(BM_Strength)->UseManualTime()->Iterations(1)->Repetitions(repetitions);
BENCHMARK(BM_Decode)->UseManualTime()->Iterations(1)->Repetitions(repetitions);
BENCHMARK(BM_Encode)->UseManualTime()->Iterations(1)->Repetitions(repetitions);
BENCHMARK(BM_Transforms)->Arg(1)->Arg(2)->UseManualTime()->Iterations(1)->Repetitions(repetitions);

// Keeps the medians and prints the summary: the run against its floor.
class FloorReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs)
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
        const auto& name = run.run_name;
        Usage& u = medians_[name.function_name + (name.args.empty() ? "" : "/" + name.args)];
        u.wall = run.GetAdjustedRealTime() / 1e9;  // reported in nanoseconds
        u.cpu = run.counters.count("cpu_s") ? (double)run.counters.at("cpu_s") : 0;
        u.peak_bytes = run.counters.count("peak_B_per_px") ? (double)run.counters.at("peak_B_per_px") : 0;
      }
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    const Usage decode = medians_["BM_Decode"], encode = medians_["BM_Encode"];
    std::printf("\n4000 x 3000 colour JPEG in and out (medians of %d runs)\n", repetitions);
    std::printf("converter: decode %.2f s wall / %.2f s CPU, encode %.2f s / %.2f s\n", decode.wall, decode.cpu,
                encode.wall, encode.cpu);
    const Usage one = medians_["BM_Transforms/1"];
    for (const int workers : {1, 2}) {
      const Usage run = medians_["BM_Run/" + std::to_string(workers)];
      const Usage bare = medians_["BM_Transforms/" + std::to_string(workers)];
      const double wall_floor = decode.wall + encode.wall + bare.wall;
      const double cpu_floor = decode.cpu + encode.cpu + one.cpu;
      std::printf(
          "%d worker%s: run %.2f s wall, %.2f s CPU, peak %.1f B/px | floor %.2f s wall (%d transforms %.2f s on "
          "%d thread%s), %.2f s CPU | wall %.2f x floor, CPU %.2f x floor\n",
          workers, workers > 1 ? "s" : " ", run.wall, run.cpu, run.peak_bytes, wall_floor, transforms_per_run,
          bare.wall, workers, workers > 1 ? "s" : "", cpu_floor, run.wall / wall_floor, run.cpu / cpu_floor);
    }
    std::printf("(the peak is the larger of the run's own and its converters')\n");
    const Usage strength = medians_["BM_Strength"], run = medians_["BM_Run/2"];
    std::printf("deconv-strength: %.2f s wall, %.2f s CPU; one run with 2 workers: %.2f s wall (%.2f x)\n",
                strength.wall, strength.cpu, run.wall, strength.wall / run.wall);
  }

 private:
  std::map<std::string, Usage> medians_;
};

// The input: a real photograph enlarged to 4000 x 3000 with grain, saved as a
// JPEG; its PNM for the encoder's floor; the bundled motion PSF as a PGM.
void make_pictures() {
  char pattern[] = "/tmp/deconv-bench-XXXXXX";
  work = mkdtemp(pattern);
  const std::string photo = DECONV_SOURCE "/.cache/testdata/rocket.jpg";
  spawn({"convert", photo, "-resize", "4000x3000!", "-attenuate", "0.5", "+noise", "Gaussian", "-quality", "92",
         "big.jpg"});
  spawn({"convert", "big.jpg", "big.ppm"});
  spawn({"convert", DECONV_SOURCE "/examples/motion_psf.png", "psf.pgm"});
}

}  // namespace

int main(int argc, char** argv) {
  setenv("PATH", ("/usr/bin:" + std::string(getenv("PATH") ? getenv("PATH") : "")).c_str(), 1);
  make_pictures();
  // Repetitions of all the benchmarks in random order, so that a noisy moment
  // of the machine does not fall on one of them alone.
  std::vector<char*> args(argv, argv + argc);
  char interleave[] = "--benchmark_enable_random_interleaving=true";
  args.insert(args.begin() + 1, interleave);
  argc = (int)args.size();
  argv = args.data();
  benchmark::Initialize(&argc, argv);
  FloorReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  spawn({"rm", "-rf", work});
}
