// The first batch and its derivative jobs. The weighting spectra of the solve
// depend on the picture's size alone:
//   S = 50 + 25 |Dx|^2 + 25 |Dy|^2   (fidelity_spectrum)
//   N = |Dx|^2 + |Dy|^2              (smoothness_spectrum)
// where Dx and Dy are the transforms of the first differences. The batch also
// carries the PSF job and one edge-taper job per channel.
#include "engine/deconv.h"

namespace {

// Indexed by GradTypes.
const float grad_weights[8] = {50.0f, 25.0f, 25.0f, 12.5f, 12.5f, 12.5f, 12.5f, 12.5f};

// |F|^2 of a transform, element by element in float.
void power_into(CImg<float>& power, const CImgList<float>& spectrum) {
  const float* const re = spectrum[0].data();
  const float* const im = spectrum[1].data();
  float* const out = power.data();
  for (cimg_uint64 k = 0, n = power.size(); k < n; ++k) out[k] = re[k] * re[k] + im[k] * im[k];
}

}  // namespace

void CDeconv::taper_and_gradient_master(CImg<float>& image) {
  std::vector<WorkItem_t*> items;  // the records are reached through their items

  pthread_mutex_lock(&queue_mutex);
  const int taper_width = FindSupport(psf);
  // First in the queue, so that some worker has it before any taper job, which
  // waits for its spectrum: this is what keeps the batch free of deadlock.
  queue_job(items, WORK_PSF_FFT, nullptr);
  const GradTypes types[3] = {GRAD_IDENTITY, GRAD_X, GRAD_Y};
  for (const GradTypes type : types) {
    queue_job(items, WORK_GRADIENT, new GradientWorkData_t{type});
  }
  for (int c = 0; c < channels; ++c) {
    EdgeTaperWorkData_t* const record = new EdgeTaperWorkData_t;
    record->channel = c;
    record->image.assign(image.get_shared_channel(c), true);
    record->taper_width = taper_width;
    queue_job(items, WORK_EDGE_TAPER, record);
  }
  // Zeros for the jobs to add into, made before any job can start.
  fidelity_spectrum.resize(width, height, 1, 1, 1, 0, 0.0f, 0.0f, 0.0f, 0.0f);
  pthread_mutex_unlock(&queue_mutex);

  wait_for_batch(items);
  while (!items.empty()) {
    WorkItem_t* const item = items.back();
    items.pop_back();
    if (item) free_record(item);
  }

  if (smoothness_spectrum.is_empty()) {
    smoothness_spectrum = grad_x_power + grad_y_power;
    grad_x_power.assign();
    grad_y_power.assign();
  }
}

void CDeconv::partial_gradient(const GradTypes type) {
  CImg<float> result(width, height, 1, 1);
  if (type == GRAD_IDENTITY) {
    result.fill(grad_weights[GRAD_IDENTITY]);  // the kernel 1 has power 1 everywhere
  } else {
    CImg<float> kernel;
    gradient_kernel(kernel, type);
    place_kernel(kernel, width, height);
    CImgList<float> spectrum = forward_spectrum(kernel, &fft_mutex);
    // Each transient has one writer and is read by the master after the batch.
    if (type == GRAD_X) power_into(grad_x_power.assign(width, height, 1, 1), spectrum);
    if (type == GRAD_Y) power_into(grad_y_power.assign(width, height, 1, 1), spectrum);
    spectrum[0].pow(2.0);
    spectrum[1].pow(2.0);
    result = (spectrum[0] + spectrum[1]) * grad_weights[type];
  }
  pthread_mutex_lock(&accum_mutex);
  fidelity_spectrum += result;
  pthread_mutex_unlock(&accum_mutex);
}

void CDeconv::gradient_kernel(CImg<float>& kernel, const GradTypes type) {
  switch ((unsigned int)type) {
    case GRAD_IDENTITY: kernel.assign(1, 1, 1, 1, 1.0f); break;
    case GRAD_X: kernel.assign(2, 1, 1, 1, 1.0f, -1.0f); break;
    case GRAD_Y: kernel.assign(1, 2, 1, 1, 1.0f, -1.0f); break;
    case GRAD_XX: kernel.assign(3, 1, 1, 1, -1.0f, 2.0f, -1.0f); break;
    case GRAD_YY: kernel.assign(1, 3, 1, 1, -1.0f, 2.0f, -1.0f); break;
    case GRAD_XY: kernel.assign(2, 2, 1, 1, 1.0f, -1.0f, -1.0f, 1.0f); break;
    case GRAD_X_PLUS_Y: kernel.assign(2, 2, 1, 1, 0.0f, -1.0f, -1.0f, 2.0f); break;
    case GRAD_LAPLACIAN:
      kernel.assign(3, 3, 1, 1, 0.0f, -1.0f, 0.0f, -1.0f, 4.0f, -1.0f, 0.0f, -1.0f, 0.0f);
      break;
    default: throw 187;  // negative values too: the comparison is unsigned
  }
}
