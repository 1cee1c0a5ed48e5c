// The external converters as the binary runs them: which one is found, the
// exact command lines, the temporary folder, and what a user sees when there
// is none. Converters here are scripts in the run's working folder that record
// their arguments and pass them to the real program.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <thread>

#include "tests/tool/tool_fixture.h"

namespace {

int count(const std::string& text, const std::string& word) {
  int n = 0;
  for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) ++n;
  return n;
}

class Converters : public ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    mkdir(in("tmp").c_str(), 0755);
    mkdir(in("bin").c_str(), 0755);  // a PATH without any converter
  }
  RunResult run(const std::string& input, const std::string& output, const std::string& quality = "95",
                std::map<std::string, std::string> env = {}) {
    env.emplace("TMP", in("tmp"));
    return run_deconv({input, "psf.pgm", output, "2", quality}, dir.path(), env);
  }
  std::map<std::string, std::string> no_converters() { return {{"PATH", in("bin")}}; }
};

TEST_F(Converters, PngIsPipedInAndSavedAtQuality100ThroughATemporaryPpm) {
  write_recording_converter(in("convert"), in("log"), "/usr/bin/convert");
  const RunResult r = run("input.png", "out.png", "60");
  ASSERT_EQ(r.status, 0) << r.err;
  const std::vector<std::string> log = read_lines(in("log"));
  ASSERT_EQ(log.size(), 2u);
  EXPECT_EQ(log[0], "input.png pnm:-");
  EXPECT_TRUE(std::regex_match(log[1], std::regex("-quality 100 " + in("tmp") + "/[A-Za-z0-9]{8}\\.ppm out\\.png")))
      << log[1];
  EXPECT_TRUE(list_dir(in("tmp")).empty()) << "the temporary file is removed after a save";
}

TEST_F(Converters, OtherInputsSaveAtTheQualityArgumentAndGreyAsPgm) {
  write_recording_converter(in("convert"), in("log"), "/usr/bin/convert");
  convert_with_imagemagick(in("input.ppm"), in("grey.pgm"), "-colorspace gray");
  ASSERT_EQ(run("grey.pgm", "out.jpg", "60").status, 0);
  const std::vector<std::string> log = read_lines(in("log"));
  ASSERT_EQ(log.size(), 1u);  // PNM inputs need no converter
  EXPECT_TRUE(std::regex_match(log[0], std::regex("-quality 60 " + in("tmp") + "/[A-Za-z0-9]{8}\\.pgm out\\.jpg")))
      << log[0];
}

TEST_F(Converters, TempIsUsedWhenTmpIsUnset) {
  write_recording_converter(in("convert"), in("log"), "/usr/bin/convert");
  mkdir(in("temp").c_str(), 0755);
  ASSERT_EQ(run("input.ppm", "out.png", "95", {{"TMP", ""}, {"TEMP", in("temp")}}).status, 0);
  EXPECT_EQ(read_lines(in("log")).at(0).find("-quality 95 " + in("temp") + "/"), 0u);
}

// Which of the candidates for convert the binary uses, given which exist.
struct Layout {
  const char* name;
  std::vector<std::string> present;
  std::string used;
};

void PrintTo(const Layout& l, std::ostream* os) { *os << l.name; }

class ConvertSearch : public Converters, public ::testing::WithParamInterface<Layout> {};

TEST_P(ConvertSearch, TheFirstCandidateThatOpensWins) {
  for (const std::string& candidate : GetParam().present) {
    const std::string path = in(candidate);
    ASSERT_EQ(std::system(("mkdir -p \"$(dirname '" + path + "')\"").c_str()), 0);
    write_recording_converter(path, path + ".log", "/usr/bin/convert");
  }
  ASSERT_EQ(run("input.png", "out.png").status, 0);
  for (const std::string& candidate : GetParam().present) {
    const size_t calls = read_lines(in(candidate) + ".log").size();
    EXPECT_EQ(calls, candidate == GetParam().used ? 2u : 0u) << candidate;  // one load, one save
  }
}

INSTANTIATE_TEST_SUITE_P(
    Candidates, ConvertSearch,
    ::testing::Values(Layout{"mactoolsOnly", {"mactools/im_mac/bin/convert"}, "mactools/im_mac/bin/convert"},
                      Layout{"imMacBeforeMactools",
                             {"im_mac/bin/convert", "mactools/im_mac/bin/convert"},
                             "im_mac/bin/convert"},
                      Layout{"workingFolderFirst",
                             {"convert", "im_mac/bin/convert", "mactools/im_mac/bin/convert"},
                             "convert"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(Converters, AReadableButNotExecutableConvertStillWinsAndGmTakesOver) {
  write_file(in("convert"), "not a program\n");
  write_recording_converter(in("gm"), in("gm.log"), "/usr/bin/gm");
  const RunResult r = run("input.png", "out.png");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(count(r.err, "./convert: Permission denied"), 2);  // the load and the save
  const std::vector<std::string> log = read_lines(in("gm.log"));
  ASSERT_EQ(log.size(), 2u);
  EXPECT_EQ(log[0], "convert input.png pnm:-");
  EXPECT_TRUE(std::regex_match(log[1], std::regex("convert -quality 100 " + in("tmp") + "/[A-Za-z0-9]{8}\\.ppm out\\.png")))
      << log[1];
}

TEST_F(Converters, CommandsAreCutAt1023Characters) {
  // ./convert "<path>" fills the 1023 characters exactly: " pnm:-" is cut off.
  std::string path;
  for (int i = 0; i < 4; ++i) path += std::string(200, 'd') + "/";
  path += std::string(1011 - path.size() - 4, 'f') + ".png";
  ASSERT_EQ(path.size(), 1011u);
  ASSERT_EQ(std::system(("mkdir -p \"$(dirname '" + in(path) + "')\" && cp '" + in("input.png") + "' '" + in(path) + "'").c_str()), 0);
  write_recording_converter(in("convert"), in("log"), "");
  run(path, "out.png");
  EXPECT_EQ(read_lines(in("log")).at(0), path);
}

TEST_F(Converters, WithoutConvertersAPngCannotBeRead) {
  const RunResult r = run("input.png", "out.png", "95", no_converters());
  EXPECT_EQ(r.status, 11);
  // By extension, by content, and as the last resort: three rounds of both.
  EXPECT_EQ(count(r.err, "convert: not found"), 3) << r.err;
  EXPECT_EQ(count(r.err, "gm: not found"), 3) << r.err;
  const std::string message =
      "[instance(0,0,0,0,(nil),non-shared)] CImg<float>::load() : Failed to recognize format of file 'input.png'.";
  const std::string tail = "\n[CImg] *** CImgIOException *** " + message + "\nGeneral exception: " + message;
  ASSERT_GE(r.err.size(), tail.size());
  EXPECT_EQ(r.err.substr(r.err.size() - tail.size()), tail);
}

TEST_F(Converters, WithoutConvertersTheResultIsLostAndTwoTemporaryFilesStay) {
  const RunResult r = run("input.ppm", "out.png", "95", no_converters());
  EXPECT_EQ(r.status, 11);
  EXPECT_EQ(count(r.err, "convert: not found"), 1);
  EXPECT_EQ(count(r.err, "gm: not found"), 1);
  EXPECT_NE(r.err.find("CImg<float>::save_other() : Failed to save file 'out.png'. Format is not natively "
                       "supported, and no external commands succeeded."),
            std::string::npos)
      << r.err;
  const std::vector<std::string> left = list_dir(in("tmp"));
  ASSERT_EQ(left.size(), 2u);
  for (const std::string& name : left) EXPECT_TRUE(std::regex_match(name, std::regex("[A-Za-z0-9]{8}\\.ppm"))) << name;
}

TEST_F(Converters, AnExistingOutputFileCountsAsSaved) {
  write_file(in("out.png"), "old");
  const RunResult r = run("input.ppm", "out.png", "95", no_converters());
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(read_file(in("out.png")), "old");
}

TEST_F(Converters, AMissingInputIsReportedOnceAndQuietly) {
  const RunResult r = run("missing.png", "out.png");
  EXPECT_EQ(r.status, 11);
  const std::string message =
      "[instance(0,0,0,0,(nil),non-shared)] CImg<float>::load() : Failed to open file 'missing.png'.";
  EXPECT_EQ(r.err, "\n[CImg] *** CImgIOException *** " + message + "\nGeneral exception: " + message);
}

// A small HTTP server on 127.0.0.1 serving the test's folder, stopped at the end.
class HttpServer {
 public:
  explicit HttpServer(const std::string& root) {
    const std::string port_file = root + "/port";
    pid_ = fork();
    if (pid_ == 0) {
      freopen("/dev/null", "w", stderr);
      execlp("python3", "python3", "-c",
             "import functools,http.server,sys\n"
             "h=functools.partial(http.server.SimpleHTTPRequestHandler,directory=sys.argv[1])\n"
             "s=http.server.ThreadingHTTPServer(('127.0.0.1',0),h)\n"
             "open(sys.argv[2]+'.new','w').write(str(s.server_address[1]))\n"
             "import os; os.rename(sys.argv[2]+'.new',sys.argv[2])\n"
             "s.serve_forever()\n",
             root.c_str(), port_file.c_str(), (char*)nullptr);
      _exit(127);
    }
    for (int i = 0; i < 500 && !file_exists(port_file); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    url_ = "http://127.0.0.1:" + read_file(port_file);
  }
  ~HttpServer() {
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }
  const std::string& url() const { return url_; }

 private:
  pid_t pid_;
  std::string url_;
};

TEST_F(Converters, APsfUrlIsFetchedButAnInputUrlFailsItsPngTest) {
  HttpServer server(dir.path());
  const RunResult psf_url = run_deconv({"input.ppm", server.url() + "/psf.pgm", "out.png", "2"}, dir.path());
  EXPECT_EQ(psf_url.status, 0) << psf_url.err;
  EXPECT_TRUE(file_exists(in("out.png")));

  const std::string input = server.url() + "/input.ppm";
  const RunResult input_url = run_deconv({input, "psf.pgm", "out2.png", "2"}, dir.path());
  EXPECT_EQ(input_url.status, 11);
  EXPECT_NE(input_url.err.find("General exception: cimg::fopen() : Failed to open file '" + input + "' with mode 'rb'."),
            std::string::npos)
      << input_url.err;
}

}  // namespace
