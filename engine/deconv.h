// The restoration engine. One CDeconv restores one picture with a known PSF:
// deconv_nonblind prepares the PSF and runs two batches of jobs on a fixed pool
// of worker threads, fed by one first-in-first-out queue.
//
//   taper_and_gradient_master   PSF spectrum, derivative spectra, edge taper
//   deconv_master               one frequency-domain solve per channel
//
// deconv's pool is counted with three machine-wide named semaphores, so only
// one such engine may be alive on a machine at a time; engines made for the
// library open semaphores of their own instead. Workers stop only by being
// cancelled in the destructor; with no worker at all the first batch waits for
// ever, which is how the design stands.
#ifndef DECONV_ENGINE_DECONV_H
#define DECONV_ENGINE_DECONV_H

#include <semaphore.h>

#include <cstdint>
#include <deque>
#include <queue>
#include <vector>

#include "spectral/fft.h"

class CDeconv {
 public:
  // Kinds of queued job, with the member each is dispatched to. Both enums
  // have a fixed 32-bit type, so that any other value is one the dispatch can
  // meet and refuse.
  enum WorkTypes : int32_t {
    WORK_CHANNEL = 0,     // deconv_channel
    WORK_GRADIENT = 1,    // partial_gradient
    WORK_EDGE_TAPER = 2,  // taper_edges
    WORK_PSF_FFT = 3,     // calculate_fft_of_psf
  };

  // Derivative kernels of the weighting spectra. Only the first three are
  // queued; the others are kept for other choices of the prior.
  enum GradTypes : int32_t {
    GRAD_IDENTITY = 0,
    GRAD_X = 1,
    GRAD_Y = 2,
    GRAD_XX = 3,
    GRAD_YY = 4,
    GRAD_XY = 5,
    GRAD_X_PLUS_Y = 6,
    GRAD_LAPLACIAN = 7,
  };

  // A queued job. The master that made it owns it and its record; workers only
  // borrow them. Items are never freed: they are left to the end of the process.
  struct WorkItem_t {
    void* data;  // the record, by kind; null for WORK_PSF_FFT
    WorkTypes kind;
  };

  // One channel's solve. The images are views into the caller's planes.
  struct ChannelWorkData_t {
    int channel = 0;
    CImg<float> output;
    CImg<float> input;
  };

  struct GradientWorkData_t {
    GradTypes type;
  };

  // One channel's edge taper. image is a view: writing it changes the picture.
  struct EdgeTaperWorkData_t {
    int channel = 0;
    CImg<float> image;
    CImg<float> spare_image;  // unused
    int taper_width = 0;
  };

  // Which semaphores count the pool. deconv's engine opens the three names
  // "WorkAvailableSemaphore", "WorkCompleteSemaphore" and "PsfFftDoneSemaphore",
  // which the whole machine shares. A private engine opens names no other
  // engine uses and unlinks them at once: nothing can attach to its counts,
  // and nothing is left behind however the process ends.
  enum SemaphoreScope : int32_t { SEMAPHORES_MACHINE = 0, SEMAPHORES_PRIVATE = 1 };

  CDeconv(int worker_count, int strength);  // machine-wide semaphores
  CDeconv(int worker_count, int strength, SemaphoreScope scope);
  virtual ~CDeconv();

  // Restores input into output (allocated by the caller at input's size). Both
  // input and psf are changed: input is tapered, psf becomes the prepared PSF.
  void deconv_nonblind(CImg<float>& output, CImg<float>& input, CImg<float>& psf);

  // The whole of deconv_nonblind but its last batch: the PSF prepared and
  // published, then the first batch, which leaves psf_fft, S and N complete and
  // input tapered. What the solve would see, for those who judge it.
  void deconv_prepare(CImg<float>& input, CImg<float>& psf);

  // The PSF as deconv_prepare makes it: on a zero canvas of 2w + 1 squared,
  // centred on its first moment, normalised.
  void prepare_psf(CImg<float>& psf);

  // The two batches, run on the calling thread.
  void taper_and_gradient_master(CImg<float>& image);
  void deconv_master(CImg<float>& output, CImg<float>& input);

  // Jobs, run on worker threads.
  void calculate_fft_of_psf();
  void partial_gradient(GradTypes type);
  void taper_edges(CImg<float>& image, int taper_width, bool use_gaussian);
  void deconv_channel(CImg<float>& input, CImg<float>& output);

  static void gradient_kernel(CImg<float>& kernel, GradTypes type);
  void fftconv(CImg<float>& result, CImg<float>& image, CImgList<float>& kernel_fft);
  void fftconv(CImg<float>& result, CImg<float>& image, CImg<float>& kernel);
  void RecenterPsf(CImg<float>& psf);
  int FindSupport(CImg<float>& psf);

  // The pool.
  void worker_setup(int worker_count);
  void worker_teardown();
  void generic_consumer();
  static void* worker_start(void* engine);

  // Fields are public so that the stages can be examined one by one.

  // The working PSF, written by deconv_nonblind and consumed by the PSF job.
  CImg<float> psf;
  // S of the solve: written by the first batch's derivative jobs under
  // accum_mutex, read without a lock by the solve once that batch is collected.
  CImg<float> fidelity_spectrum;
  // The PSF's transform: written once by the PSF job, which then opens the
  // psf_fft_done latch; read without a lock by the taper jobs and the solve.
  CImgList<float> psf_fft;
  // |Dx|^2 and |Dy|^2, each written by one derivative job and summed into
  // smoothness_spectrum (N of the solve) by the master after the first batch.
  CImg<float> grad_x_power;
  CImg<float> grad_y_power;
  CImg<float> smoothness_spectrum;

  int reg_strength;  // lambda in tenths
  // The picture's size, set by deconv_nonblind before the first batch.
  int width;
  int height;
  int channels;

  pthread_mutex_t fft_mutex;    // FFTW planning, inside CImg<float>::FFT only
  pthread_mutex_t queue_mutex;  // work_queue; held by a master for a whole fan-out
  pthread_mutex_t accum_mutex;  // the += into fidelity_spectrum

  sem_t* work_available;  // items queued and not yet taken
  sem_t* work_complete;   // jobs done and not yet collected
  sem_t* psf_fft_done;    // latch: 1 once psf_fft exists

  std::vector<pthread_t> workers;
  std::queue<WorkItem_t*, std::deque<WorkItem_t*> > work_queue;
  SemaphoreScope semaphore_scope;  // whether the destructor unlinks the names

 private:
  // The fan-out protocol shared by both masters (work_pool.cpp).
  void queue_job(std::vector<WorkItem_t*>& batch, WorkTypes kind, void* data);
  void wait_for_batch(const std::vector<WorkItem_t*>& batch);
  static void free_record(WorkItem_t* item);
  void open_private_semaphores();
  void run_job(WorkItem_t* item);
};

// Sum of all pixels in double; an empty image is an instance error.
double checked_sum(const CImg<float>& img);

// Divides every pixel by the image's sum, in double, rounding back to float.
void normalize_to_unit_sum(CImg<float>& img);

#endif
