// The transposing copies of the FFT entry. FFTW sees a channel x-major (x is
// its slowest axis) while an image is x-fastest, so every copy in and out of
// its buffer is a transpose. The walk takes blocks of 64 columns so that both
// sides stay in cache, and moves 4 x 4 tiles with SSE shuffles. Nothing is
// computed on the way but the inverse's division, which SSE does as a true
// division of each float, exactly as scalar code would.
#ifndef DECONV_SPECTRAL_FFT_COPIES_H
#define DECONV_SPECTRAL_FFT_COPIES_H

#include <fftw3.h>
#include <xmmintrin.h>

#include <algorithm>

namespace fft_copies {

// Calls tile(x, y) for every 4 x 4 tile whose corner is (x, y), and one(x, y)
// for every sample that no tile covers.
template <class Tile, class One>
inline void walk(const unsigned W, const unsigned H, Tile tile, One one) {
  for (unsigned x0 = 0; x0 < W; x0 += 64) {
    const unsigned x1 = std::min(W, x0 + 64), tiled_end = x0 + (x1 - x0) / 4 * 4;
    unsigned y = 0;
    for (; y + 4 <= H; y += 4) {
      for (unsigned x = x0; x < tiled_end; x += 4) tile(x, y);
      for (unsigned x = tiled_end; x < x1; ++x)
        for (unsigned k = 0; k < 4; ++k) one(x, y + k);
    }
    for (; y < H; ++y)
      for (unsigned x = x0; x < x1; ++x) one(x, y);
  }
}

// buffer[x * H + y] = (re(x, y), im(x, y)) for a W x H plane; a null im reads
// as zeros.
inline void copy_in(const float* const re, const float* const im, fftwf_complex* const buffer, const unsigned W,
                    const unsigned H) {
  float* const out = reinterpret_cast<float*>(buffer);
  const auto row4 = [W](const float* p, __m128* v) {
    for (unsigned k = 0; k < 4; ++k) v[k] = _mm_loadu_ps(p + (size_t)k * W);
    _MM_TRANSPOSE4_PS(v[0], v[1], v[2], v[3]);  // now v[k] is column k of the tile
  };
  walk(
      W, H,
      [&](unsigned x, unsigned y) {
        __m128 r[4], i[4] = {_mm_setzero_ps(), _mm_setzero_ps(), _mm_setzero_ps(), _mm_setzero_ps()};
        row4(re + (size_t)y * W + x, r);
        if (im) row4(im + (size_t)y * W + x, i);
        for (unsigned k = 0; k < 4; ++k) {
          float* const o = out + 2 * ((size_t)(x + k) * H + y);
          _mm_storeu_ps(o, _mm_unpacklo_ps(r[k], i[k]));
          _mm_storeu_ps(o + 4, _mm_unpackhi_ps(r[k], i[k]));
        }
      },
      [&](unsigned x, unsigned y) {
        const size_t b = (size_t)x * H + y, p = (size_t)y * W + x;
        buffer[b][0] = re[p];
        buffer[b][1] = im ? im[p] : 0.0f;
      });
}

// re(x, y), im(x, y) = buffer[x * H + y], each float divided by n when divide
// is set (the inverse transform's only scaling). A null im skips the imaginary
// parts.
template <bool divide>
inline void copy_out(const fftwf_complex* const buffer, float* const re, float* const im, const unsigned W,
                     const unsigned H, const float n) {
  const float* const in = reinterpret_cast<const float*>(buffer);
  const __m128 vn = _mm_set1_ps(n);
  const auto store4 = [W](float* p, __m128* v) {
    _MM_TRANSPOSE4_PS(v[0], v[1], v[2], v[3]);  // back to rows
    for (unsigned k = 0; k < 4; ++k) _mm_storeu_ps(p + (size_t)k * W, v[k]);
  };
  walk(
      W, H,
      [&](unsigned x, unsigned y) {
        __m128 r[4], i[4];
        for (unsigned k = 0; k < 4; ++k) {
          const float* const s = in + 2 * ((size_t)(x + k) * H + y);
          const __m128 a = _mm_loadu_ps(s), b = _mm_loadu_ps(s + 4);
          r[k] = _mm_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0));
          i[k] = _mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1));
          if (divide) r[k] = _mm_div_ps(r[k], vn), i[k] = _mm_div_ps(i[k], vn);
        }
        store4(re + (size_t)y * W + x, r);
        if (im) store4(im + (size_t)y * W + x, i);
      },
      [&](unsigned x, unsigned y) {
        const size_t b = (size_t)x * H + y, p = (size_t)y * W + x;
        re[p] = divide ? buffer[b][0] / n : buffer[b][0];
        if (im) im[p] = divide ? buffer[b][1] / n : buffer[b][1];
      });
}

// Four frequencies side by side along x. An operation on the spectrum is
// written once, generically, and runs on Lanes where whole tiles allow and on
// plain floats elsewhere: SSE's arithmetic is IEEE single precision lane by
// lane, so both give the same bits.
struct Lanes {
  __m128 v;
  Lanes(const float s) : v(_mm_set1_ps(s)) {}
  explicit Lanes(const __m128 x) : v(x) {}
};
inline Lanes operator+(const Lanes a, const Lanes b) { return Lanes(_mm_add_ps(a.v, b.v)); }
inline Lanes operator-(const Lanes a, const Lanes b) { return Lanes(_mm_sub_ps(a.v, b.v)); }
inline Lanes operator*(const Lanes a, const Lanes b) { return Lanes(_mm_mul_ps(a.v, b.v)); }
inline Lanes operator/(const Lanes a, const Lanes b) { return Lanes(_mm_div_ps(a.v, b.v)); }

// The value (or the four values) of a plane at p, and a store there.
template <class V>
V at(const float* p);
template <>
inline float at<float>(const float* const p) {
  return *p;
}
template <>
inline Lanes at<Lanes>(const float* const p) {
  return Lanes(_mm_loadu_ps(p));
}
inline void put(float* const p, const float v) { *p = v; }
inline void put(float* const p, const Lanes v) { _mm_storeu_ps(p, v.v); }

// Calls f(re, im, k) for every entry of a W x H x D buffer, with k the offset
// of the same frequency in an image of that size, where the other spectra keep
// it; re and im may be changed. On a plane, f gets Lanes for the four
// frequencies k..k+3 of a row inside each 4 x 4 tile, and floats elsewhere.
template <class F>
inline void for_each_frequency(fftwf_complex* const buffer, const unsigned W, const unsigned H, const unsigned D, F f) {
  if (D != 1) {
    for (unsigned x = 0; x < W; ++x)
      for (unsigned y = 0; y < H; ++y)
        for (unsigned z = 0; z < D; ++z) {
          fftwf_complex& e = buffer[((size_t)x * H + y) * D + z];
          f(e[0], e[1], ((size_t)z * H + y) * W + x);
        }
    return;
  }
  float* const data = reinterpret_cast<float*>(buffer);
  walk(
      W, H,
      [&](unsigned x, unsigned y) {
        __m128 r[4], i[4];
        for (unsigned k = 0; k < 4; ++k) {  // column x + k, rows y..y+3
          const float* const s = data + 2 * ((size_t)(x + k) * H + y);
          const __m128 a = _mm_loadu_ps(s), b = _mm_loadu_ps(s + 4);
          r[k] = _mm_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0));
          i[k] = _mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1));
        }
        _MM_TRANSPOSE4_PS(r[0], r[1], r[2], r[3]);  // now row y + j, columns x..x+3
        _MM_TRANSPOSE4_PS(i[0], i[1], i[2], i[3]);
        for (unsigned j = 0; j < 4; ++j) {
          Lanes re(r[j]), im(i[j]);
          f(re, im, (size_t)(y + j) * W + x);
          r[j] = re.v, i[j] = im.v;
        }
        _MM_TRANSPOSE4_PS(r[0], r[1], r[2], r[3]);
        _MM_TRANSPOSE4_PS(i[0], i[1], i[2], i[3]);
        for (unsigned k = 0; k < 4; ++k) {
          float* const o = data + 2 * ((size_t)(x + k) * H + y);
          _mm_storeu_ps(o, _mm_unpacklo_ps(r[k], i[k]));
          _mm_storeu_ps(o + 4, _mm_unpackhi_ps(r[k], i[k]));
        }
      },
      [&](unsigned x, unsigned y) {
        fftwf_complex& e = buffer[(size_t)x * H + y];
        f(e[0], e[1], (size_t)y * W + x);
      });
}

}  // namespace fft_copies

#endif
