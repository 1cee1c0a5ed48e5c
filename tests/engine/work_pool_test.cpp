// The pool's life: engines of any size come and go and take their semaphores
// with them; the failures that end a run do so as designed.
#include <semaphore.h>

#include <stdexcept>

#include "engine/deconv.h"
#include "tests/support/test_support.h"

namespace {

class WorkPool : public SemaphoreTest {};

void queue_unknown_job() {
  CDeconv engine(1, 10);
  static CDeconv::WorkItem_t item = {nullptr, (CDeconv::WorkTypes)7};
  pthread_mutex_lock(&engine.queue_mutex);
  engine.work_queue.push(&item);
  pthread_mutex_unlock(&engine.queue_mutex);
  sem_post(engine.work_available);
  sem_wait(engine.work_complete);  // never posted: the worker throws 188
}

TEST_F(WorkPool, EnginesThatNeverRanAJobComeAndGoCleanly) {
  for (const int workers : {1, 3, 16}) {
    CDeconv* const engine = new CDeconv(workers, 10);
    EXPECT_EQ(engine->workers.size(), (size_t)workers);
    EXPECT_TRUE(any_semaphore_exists());
    int available = -1;
    sem_getvalue(engine->work_available, &available);
    EXPECT_EQ(available, 0);
    delete engine;  // every worker sleeps in sem_wait and is cancelled there
    EXPECT_FALSE(any_semaphore_exists()) << workers << " workers";
  }
}

TEST_F(WorkPool, NegativeWorkerCountFailsBeforeAnyThreadAndLeavesTheNames) {
  try {
    CDeconv engine(-1, 10);
    FAIL() << "no exception";
  } catch (std::length_error& e) {
    EXPECT_STREQ(e.what(), "vector::_M_fill_insert");
  }
  EXPECT_TRUE(remove_semaphores());
}

TEST_F(WorkPool, AJobOfUnknownKindEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(queue_unknown_job(), "terminate called after throwing an instance of 'int'");
  remove_semaphores();  // the dead process could not remove them
}

TEST_F(WorkPool, ABatchCountsOnePostAndOneWaitPerJob) {
  CDeconv engine(2, 10);
  engine.width = 16;
  engine.height = 12;
  engine.channels = 3;
  engine.psf.assign(3, 3, 1, 1, 0).fill(0);
  engine.psf(1, 1) = 1;
  CImg<float> picture(16, 12, 1, 3, 0.5f), result(16, 12, 1, 3);
  engine.taper_and_gradient_master(picture);
  engine.deconv_master(result, picture);
  int available = -1, complete = -1, latch = -1;
  sem_getvalue(engine.work_available, &available);
  sem_getvalue(engine.work_complete, &complete);
  sem_getvalue(engine.psf_fft_done, &latch);
  EXPECT_EQ(available, 0);
  EXPECT_EQ(complete, 0);
  EXPECT_EQ(latch, 1);  // the latch stays open
  EXPECT_TRUE(engine.work_queue.empty());
}

}  // namespace
