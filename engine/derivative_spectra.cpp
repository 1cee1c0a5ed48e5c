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
    // N is summed in the plane of |Dx|^2, which is emptied as it moves.
    (grad_x_power += grad_y_power).move_to(smoothness_spectrum);
    grad_y_power.assign();
  }
}

void CDeconv::partial_gradient(const GradTypes type) {
  if (type == GRAD_IDENTITY) {  // the kernel 1 has power 1 everywhere: S gains its weight
    pthread_mutex_lock(&accum_mutex);
    fidelity_spectrum += grad_weights[GRAD_IDENTITY];
    pthread_mutex_unlock(&accum_mutex);
    return;
  }
  // The kernel is placed in the plane that will hold its power: |Dx|^2 and
  // |Dy|^2 are kept for N (each has one writer, read by the master after the
  // batch), other kernels' power only serves S. The transform reads the whole
  // plane before the visit overwrites it with re^2 + im^2.
  CImg<float> own;
  CImg<float>& power = type == GRAD_X ? grad_x_power : type == GRAD_Y ? grad_y_power : own;
  gradient_kernel(power, type);
  place_kernel(power, width, height);
  float* const p = power.data();
  CImg<float>::FFT_visit(
      power,
      [p](auto& re, auto& im, const cimg_uint64 k) {
        using V = std::decay_t<decltype(re)>;
        fft_copies::put(p + k, V(re * re + im * im));
      },
      &fft_mutex);
  // The job's share of S, its power times its weight, added in one pass.
  const float weight = grad_weights[type];
  float* const S = fidelity_spectrum.data();
  pthread_mutex_lock(&accum_mutex);
  for (cimg_uint64 k = 0, n = power.size(); k < n; ++k) S[k] += p[k] * weight;
  pthread_mutex_unlock(&accum_mutex);
}

void CDeconv::gradient_kernel(CImg<float>& kernel, const GradTypes type) {
  switch ((unsigned int)type) {
    case GRAD_IDENTITY:
      kernel.assign(1, 1, 1, 1, 1.0f);
      break;
    case GRAD_X:
      kernel.assign(2, 1, 1, 1, 1.0f, -1.0f);
      break;
    case GRAD_Y:
      kernel.assign(1, 2, 1, 1, 1.0f, -1.0f);
      break;
    case GRAD_XX:
      kernel.assign(3, 1, 1, 1, -1.0f, 2.0f, -1.0f);
      break;
    case GRAD_YY:
      kernel.assign(1, 3, 1, 1, -1.0f, 2.0f, -1.0f);
      break;
    case GRAD_XY:
      kernel.assign(2, 2, 1, 1, 1.0f, -1.0f, -1.0f, 1.0f);
      break;
    case GRAD_X_PLUS_Y:
      kernel.assign(2, 2, 1, 1, 0.0f, -1.0f, -1.0f, 2.0f);
      break;
    case GRAD_LAPLACIAN:
      kernel.assign(3, 3, 1, 1, 0.0f, -1.0f, 0.0f, -1.0f, 4.0f, -1.0f, 0.0f, -1.0f, 0.0f);
      break;
    default:
      throw 187;  // negative values too: the comparison is unsigned
  }
}
