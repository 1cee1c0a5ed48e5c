// deconv-strength against the strengths a user could have tried, on PNG and
// on JPEG: the photographs of bench/strength_photographs.h, each restored as
// deconv restores it, at the strength deconv-strength prints for its file.
// Prints the mean PSNR by format and noise: chosen, best of the grid, default
// 10.
//
// It makes engines and runs deconv-strength, so it runs in a /dev/shm of its
// own (the engine's semaphore names are the machine's): it starts itself
// again under `unshare` first.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "bench/photo_cases.h"
#include "bench/strength_photographs.h"

namespace {

int chosen(const std::string& work, const std::string& picture) {
  std::FILE* const pipe = popen(("cd " + work + " && " DECONV_STRENGTH_BINARY " " + picture + " psf.pgm").c_str(), "r");
  int strength = -1;
  if (std::fscanf(pipe, "%d", &strength) != 1 || pclose(pipe) != 0 || strength < 1 || strength > 200) {
    std::fprintf(stderr, "bench_strength: deconv-strength failed on %s\n", picture.c_str());
    std::exit(1);
  }
  return strength;
}

}  // namespace

int main(int, char** argv) {
  restart_in_own_shm(argv);
  flush_denormals_to_zero();
  setenv("PATH", ("/usr/bin:" + std::string(getenv("PATH") ? getenv("PATH") : "")).c_str(), 1);
  char pattern[] = "/tmp/deconv-bench-XXXXXX";
  const std::string work = mkdtemp(pattern);
  const StrengthTable table = photograph_strengths(
      work, [&](const std::string& name, const CImg<float>&) { return chosen(work, name); }, deconv_restored);
  run_or_exit("rm -rf " + work);
  print_photograph_strengths(table);
  return 0;
}
