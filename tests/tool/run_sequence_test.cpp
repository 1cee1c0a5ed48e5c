// The command line as a script meets it: exit statuses, silence, and the
// engine's semaphores after every kind of run.
#include "tests/tool/tool_fixture.h"

namespace {

class RunSequence : public ToolTest {
 protected:
  RunResult run(std::vector<std::string> extra, const std::string& input = "input.ppm") {
    std::vector<std::string> args{input, "psf.pgm", "out.png", "2"};
    args.insert(args.end(), extra.begin(), extra.end());
    return run_deconv(args, dir.path());
  }
};

TEST_F(RunSequence, TooFewArgumentsGiveOneSilently) {
  for (const auto& args : {std::vector<std::string>{}, std::vector<std::string>{"input.ppm", "psf.pgm", "out.png"}}) {
    const RunResult r = run_deconv(args, dir.path());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "");
  }
}

TEST_F(RunSequence, QualityAndStrengthOutOfRangeGiveOneAfterLoading) {
  for (const auto& extra : {std::vector<std::string>{"9"}, {"101"}, {"abc"}, {"95", "-1"}, {"95", "201"}}) {
    const RunResult r = run(extra);
    EXPECT_EQ(r.status, 1) << extra.back();
    EXPECT_EQ(r.err, "") << extra.back();
    EXPECT_FALSE(file_exists(in("out.png")));
  }
  // The images load first: a missing input wins over a bad quality.
  const RunResult missing = run({"9"}, "missing.ppm");
  EXPECT_EQ(missing.status, 11);
}

TEST_F(RunSequence, QualityAndStrengthAtTheirLimitsAreAccepted) {
  for (const auto& extra : {std::vector<std::string>{"10"}, {"100"}, {"95", "0"}, {"95", "200"}, {"95", "none"}}) {
    const RunResult r = run(extra);
    EXPECT_EQ(r.status, 0) << extra.back() << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_TRUE(file_exists(in("out.png")));
    std::remove(in("out.png").c_str());
  }
}

TEST_F(RunSequence, ANegativeWorkerCountIsAGeneralException) {
  const RunResult r = run_deconv({"input.ppm", "psf.pgm", "out.png", "-2"}, dir.path());
  EXPECT_EQ(r.status, 11);
  const std::string tail = "General exception: vector::_M_fill_insert";
  ASSERT_GE(r.err.size(), tail.size());
  EXPECT_EQ(r.err.substr(r.err.size() - tail.size()), tail);  // no line feed after it
  EXPECT_TRUE(remove_semaphores()) << "a failed constructor leaves the names";
}

TEST_F(RunSequence, NoWorkersHangsForEver) {
  // By design there is no guard: the first batch waits for a worker that
  // does not exist. The run is killed after its time.
  const RunResult r = run_deconv({"input.ppm", "psf.pgm", "out.png", "0"}, dir.path(), {}, 2.0);
  EXPECT_TRUE(r.timed_out);
  EXPECT_TRUE(remove_semaphores());
}

TEST_F(RunSequence, ASuccessfulRunIsSilentAndLeavesNoSemaphores) {
  const RunResult r = run({});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  EXPECT_FALSE(any_semaphore_exists());
}

}  // namespace
