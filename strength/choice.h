// The choice of STRENGTH for a picture, by generalised cross-validation of
// deconv's own filter. At a strength s, lambda = s / 10, and at each frequency
// the restoration blurred again is A Y with A = P / (P + lambda N), where
// P = S |H|^2 and Y is the tapered picture's spectrum. GCV(lambda) =
// n sum |(1 - A) Y|^2 / (sum (1 - A))^2 is smallest at the lambda whose fit
// best predicts the picture from itself, noise left out.
//
// GCV takes the noise for white: what the fit leaves at the frequencies the
// blur has emptied is the noise of every frequency. A JPEG breaks that. It
// rounds each 8 x 8 block's fine frequencies to zero, grain with them, and
// keeps its coarse ones, grain and rounding errors included: its high
// frequencies look cleaner than the picture is, and GCV over all of them
// picks a strength fit for a clean picture. So GCV is also found over the
// coarse frequencies alone (within 0.575 of Nyquist), where a JPEG's noise
// stays, and the larger of the two wins. On an uncompressed picture the two
// mostly agree; where they do not, the coarse band's is seldom far off.
//
// Both sums depend on a frequency only through r = P / N and |Y|^2
// (1 - A = lambda / (r + lambda)), so a histogram over r keeps all the search
// needs: one pass over the spectra, then every strength in microseconds.
#ifndef DECONV_STRENGTH_CHOICE_H
#define DECONV_STRENGTH_CHOICE_H

#include <cstdint>
#include <vector>

// GCV over a set of frequencies.
class StrengthHistogram {
 public:
  StrengthHistogram();

  // One frequency: P = S |H|^2, N, and |Y|^2. Frequencies with N = 0 (the
  // zero frequency) are fitted exactly at every strength and count for nothing.
  void add(float P, float N, float power);
  void merge(const StrengthHistogram& other);

  // GCV at lambda, up to a constant factor.
  double gcv(double lambda) const;

  // The strength from lowest to highest (lambda = strength / 10) with the
  // smallest GCV; the lower one on a tie.
  int best(int lowest, int highest) const;

 private:
  // Bins of r by the top 16 bits of its float: exponent and 7 bits of
  // mantissa, 128 bins an octave.
  struct Bin {
    double count = 0, r_sum = 0;        // for the sum of 1 - A
    double power = 0, r_power_sum = 0;  // for the sum of |(1 - A) Y|^2
  };
  std::vector<Bin> bins_;
};

class StrengthChoice {
 public:
  // True when the frequency at column x and row y of a width x height
  // spectrum (the zero frequency at 0, 0) lies in the coarse band.
  static bool coarse(int64_t x, int64_t y, int64_t width, int64_t height);

  void add(float P, float N, float power, bool coarse) {
    all.add(P, N, power);
    if (coarse) coarse_band.add(P, N, power);
  }
  void merge(const StrengthChoice& other) {
    all.merge(other.all);
    coarse_band.merge(other.coarse_band);
  }

  // The strength to restore with, 2 to 200: one and a half times the larger
  // of the two GCV strengths, rounded. GCV judges the fit of the blurred
  // restoration to the picture; on a photograph the restoration's own error
  // is least at a larger lambda, on a star field or fluorescent spots (a flat
  // spectrum, most frequencies left to the noise) at about GCV's own.
  // bench/sparse_strength_bench.cpp measures the factor on both kinds: twice
  // GCV restored the stars of fields given their exact PSF up to 12 % wider
  // than the best strength of a grid; one and a half times keeps every sparse
  // case within 0.25 dB and 8 % of that best, and the photographs of
  // bench/strength_bench.cpp as close to their best as twice did.
  int strength() const;

  StrengthHistogram all, coarse_band;
};

#endif
