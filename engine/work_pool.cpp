// The engine's worker pool: threads that sleep on "WorkAvailableSemaphore",
// pop one job from the queue, run it and post "WorkCompleteSemaphore". The
// masters fan a batch out under queue_mutex and count its completions.
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "engine/deconv.h"

namespace {

// The C library keeps one table of the process's named semaphores, behind a
// lock of its own that the thread sanitizer cannot see; engines made at once
// on several threads also take this one around sem_open and sem_close.
pthread_mutex_t semaphore_table = PTHREAD_MUTEX_INITIALIZER;

}  // namespace

CDeconv::CDeconv(const int worker_count, const int strength) : CDeconv(worker_count, strength, SEMAPHORES_MACHINE) {}

CDeconv::CDeconv(const int worker_count, const int strength, const SemaphoreScope scope)
    : reg_strength(strength), semaphore_scope(scope) {
  pthread_mutex_init(&fft_mutex, nullptr);
  pthread_mutex_init(&queue_mutex, nullptr);
  pthread_mutex_init(&accum_mutex, nullptr);
  pthread_mutex_lock(&semaphore_table);
  if (scope == SEMAPHORES_PRIVATE) {
    open_private_semaphores();
  } else {
    // No O_EXCL: a run attaches to whatever a crashed run left, counts included.
    work_available = sem_open("WorkAvailableSemaphore", O_CREAT, 0600, 0);
    work_complete = sem_open("WorkCompleteSemaphore", O_CREAT, 0600, 0);
    psf_fft_done = sem_open("PsfFftDoneSemaphore", O_CREAT, 0600, 0);
  }
  pthread_mutex_unlock(&semaphore_table);
  // A negative count widens to a huge size and fails here with length_error,
  // before any thread exists; the semaphores then stay behind.
  workers.resize(worker_count, pthread_t());
  worker_setup(worker_count);
}

CDeconv::~CDeconv() {
  worker_teardown();
  pthread_mutex_destroy(&fft_mutex);
  pthread_mutex_destroy(&queue_mutex);
  pthread_mutex_destroy(&accum_mutex);
  pthread_mutex_lock(&semaphore_table);
  sem_close(work_available);
  sem_close(work_complete);
  sem_close(psf_fft_done);
  pthread_mutex_unlock(&semaphore_table);
  if (semaphore_scope == SEMAPHORES_PRIVATE) return;  // unlinked when they were opened
  sem_unlink("WorkAvailableSemaphore");
  sem_unlink("WorkCompleteSemaphore");
  sem_unlink("PsfFftDoneSemaphore");
}

// Names made of the process, a count of the process's engines and the
// semaphore's role, opened exclusively and unlinked at once. Only a name left
// by a killed process whose number has come round again can be in the way:
// the count then moves on.
void CDeconv::open_private_semaphores() {
  static std::atomic<unsigned long> engines_made{0};
  sem_t** const targets[3] = {&work_available, &work_complete, &psf_fft_done};
  for (int role = 0; role < 3; ++role) {
    for (int attempt = 0;; ++attempt) {
      char name[64];
      std::snprintf(name, sizeof name, "/deconv.%ld.%lu.%d", (long)getpid(), engines_made++, role);
      sem_t* const semaphore = sem_open(name, O_CREAT | O_EXCL, 0600, 0);
      if (semaphore != SEM_FAILED) {
        sem_unlink(name);
        *targets[role] = semaphore;
        break;
      }
      if (errno != EEXIST || attempt == 100) {
        const int error = errno;
        for (int made = 0; made < role; ++made) sem_close(*targets[made]);
        pthread_mutex_unlock(&semaphore_table);
        pthread_mutex_destroy(&fft_mutex);
        pthread_mutex_destroy(&queue_mutex);
        pthread_mutex_destroy(&accum_mutex);
        throw std::runtime_error(std::string("cannot open the engine's semaphores: ") + std::strerror(error));
      }
    }
  }
}

void CDeconv::worker_setup(const int worker_count) {
  for (int i = 0; i < worker_count; ++i) pthread_create(&workers[i], nullptr, worker_start, this);
}

// Workers normally sleep in sem_wait, a cancellation point. One is cancelled
// and joined at a time.
void CDeconv::worker_teardown() {
  for (size_t i = 0; i < workers.size(); ++i) {
    pthread_cancel(workers[i]);
    pthread_join(workers[i], nullptr);
  }
}

void* CDeconv::worker_start(void* const engine) {
  CDeconv* const self = static_cast<CDeconv*>(engine);
  try {
    self->generic_consumer();
  } catch (...) {
    // Cancellation unwinds through here and must go on; any job's exception
    // leaves the thread and ends the process.
    throw;
  }
  return nullptr;
}

void CDeconv::generic_consumer() {
  for (;;) {
    sem_wait(work_available);
    pthread_mutex_lock(&queue_mutex);
    WorkItem_t* const item = work_queue.front();  // the semaphore's count is the only guard
    work_queue.pop();
    pthread_mutex_unlock(&queue_mutex);
    run_job(item);
    sem_post(work_complete);  // not reached by a job that throws
  }
}

void CDeconv::run_job(WorkItem_t* const item) {
  switch (item->kind) {
    case WORK_CHANNEL: {
      ChannelWorkData_t* const record = static_cast<ChannelWorkData_t*>(item->data);
      deconv_channel(record->input, record->output);
      break;
    }
    case WORK_GRADIENT:
      partial_gradient(static_cast<GradientWorkData_t*>(item->data)->type);
      break;
    case WORK_EDGE_TAPER: {
      EdgeTaperWorkData_t* const record = static_cast<EdgeTaperWorkData_t*>(item->data);
      taper_edges(record->image, record->taper_width, false);
      break;
    }
    case WORK_PSF_FFT:
      calculate_fft_of_psf();
      break;
    default:
      throw 188;
  }
}

// Called with queue_mutex held: a worker woken by the post blocks on the mutex
// until the master has queued the whole batch.
void CDeconv::queue_job(std::vector<WorkItem_t*>& batch, const WorkTypes kind, void* const data) {
  WorkItem_t* const item = new WorkItem_t{data, kind};
  batch.push_back(item);
  work_queue.push(item);
  sem_post(work_available);
}

// Completions are only counted; which job ended is not known. After the last
// wait, everything the jobs wrote is visible to the master.
void CDeconv::wait_for_batch(const std::vector<WorkItem_t*>& batch) {
  for (size_t i = 0; i < batch.size(); ++i) sem_wait(work_complete);
}

// Frees an item's record (a record's images are views and free no pixels);
// the item itself stays allocated.
void CDeconv::free_record(WorkItem_t* const item) {
  switch (item->kind) {
    case WORK_CHANNEL:
      delete static_cast<ChannelWorkData_t*>(item->data);
      break;
    case WORK_EDGE_TAPER:
      delete static_cast<EdgeTaperWorkData_t*>(item->data);
      break;
    case WORK_GRADIENT:
      delete static_cast<GradientWorkData_t*>(item->data);
      break;
    case WORK_PSF_FFT:
      break;
    default:
      throw 188;
  }
}
