// An engine made after the semaphore names are cleared and destroyed before
// they are checked, for tests that call its stages one by one.
#ifndef DECONV_TESTS_ENGINE_ENGINE_FIXTURE_H
#define DECONV_TESTS_ENGINE_ENGINE_FIXTURE_H

#include <memory>

#include "engine/deconv.h"
#include "tests/support/test_support.h"

class EngineTest : public SemaphoreTest {
 protected:
  void SetUp() override {
    SemaphoreTest::SetUp();
    engine = std::make_unique<CDeconv>(2, 10);
  }
  void TearDown() override {
    engine.reset();
    SemaphoreTest::TearDown();
  }
  // Sets the picture's size as deconv_nonblind would.
  void set_picture(int width, int height, int channels = 1) {
    engine->width = width;
    engine->height = height;
    engine->channels = channels;
  }
  std::unique_ptr<CDeconv> engine;
};

#endif
