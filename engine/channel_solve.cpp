// The second batch: one job per colour channel, each restoring its plane of
// the tapered input with the generalised Wiener filter
//   X = S conj(H) Y / (S |H|^2 + lambda N + 1e-17)
// from the spectra that the first batch left in the engine.
#include "engine/deconv.h"

void CDeconv::deconv_master(CImg<float>& output, CImg<float>& input) {
  std::vector<WorkItem_t*> items;  // the records are reached through their items

  pthread_mutex_lock(&queue_mutex);
  for (int c = 0; c < channels; ++c) {
    ChannelWorkData_t* const record = new ChannelWorkData_t;
    record->channel = c;
    record->input.assign(input.get_shared_channel(c), true);
    record->output.assign(output.get_shared_channel(c), true);
    queue_job(items, WORK_CHANNEL, record);
  }
  pthread_mutex_unlock(&queue_mutex);

  wait_for_batch(items);
  while (!items.empty()) {
    WorkItem_t* const item = items.back();
    items.pop_back();
    if (!item) continue;
    if (item->kind != WORK_CHANNEL) throw 188;
    free_record(item);
  }
}

void CDeconv::deconv_channel(CImg<float>& input, CImg<float>& output) {
  const float lambda = (float)reg_strength / 10.0f;
  const float* const Hr = psf_fft[0].data();
  const float* const Hi = psf_fft[1].data();
  const float* const S = fidelity_spectrum.data();
  const float* const N = smoothness_spectrum.data();
  // The result's plane takes the input's shape; a view of another pixel count
  // refuses it here. The real part of the inverse lands in it, unclamped.
  output.assign(input.width(), input.height(), input.depth(), input.spectrum());
  CImg<float>::FFT_filter(
      input, output,
      [=](auto& Yr, auto& Yi, const cimg_uint64 k) {
        using V = std::decay_t<decltype(Yr)>;
        using fft_copies::at;
        const V hr = at<V>(Hr + k), hi = at<V>(Hi + k), s = at<V>(S + k), n = at<V>(N + k);
        // 1e-17f keeps d positive where H and N are both zero, so such a
        // frequency gives 0 and not NaN. Each step is rounded to float in this
        // association.
        const V d = (n * V(lambda) + V(1e-17f)) + (hr * hr + hi * hi) * s;
        const V r = V(1.0f) / d;
        const V g = s * r;
        const V yr = Yr, yi = Yi;
        Yr = g * (hr * yr + hi * yi);
        Yi = g * (hr * yi - hi * yr);
      },
      &fft_mutex);
}
