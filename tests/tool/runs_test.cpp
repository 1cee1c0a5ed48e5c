// The binary as a script runs it: exit statuses and silence, the converters it
// finds and the command lines it gives them (recorded by scripts in the working folder).
#include <regex>

#include "tests/support.h"
#include "tool/converters.h"
#include "tool/image_io.h"

namespace {

int count(const std::string& text, const std::string& word) {
  int n = 0;
  for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) ++n;
  return n;
}

class Runs : public SemaphoreTest {
 protected:
  void SetUp() override {
    SemaphoreTest::SetUp();
    CImg<float> picture(24, 20, 1, 3);
    cimg_forXYC(picture, x, y, c) picture(x, y, 0, c) = 40 + 6 * x + 5 * y + 30 * c;
    picture.save_pnm((dir / "input.ppm").c_str());
    picture.get_channel(1).save_pnm((dir / "grey.pgm").c_str());
    CImg<float>(3, 1, 1, 1, 128.0, 255.0, 128.0).save_pnm((dir / "psf.pgm").c_str());
    ASSERT_EQ(std::system(("cd " + dir.path + " && mkdir tmp bin && convert input.ppm input.png").c_str()), 0);
  }
  // A converter that logs its arguments as a line, then runs `real` ("": fails).
  void recording(const std::string& name, const std::string& real) {
    write_file(dir / name, "#!/bin/sh\necho \"$*\" >> '" + dir / name + ".log'\n" + (real.empty() ? "exit 1" : "exec " + real + " \"$@\""));
    ASSERT_EQ(std::system(("chmod +x " + dir / name).c_str()), 0);
  }
  bool logged(const std::string& name, const std::string& pattern) {  // a temporary name stands as TMP
    const std::string log = read_file(dir / name + ".log");
    return std::regex_match(log, std::regex(std::regex_replace(pattern, std::regex("TMP"), "tmp/[A-Za-z0-9]{8}"))) || !(std::cerr << log);
  }
  TempDir dir;
};

TEST_F(Runs, ExitStatusesAsAScriptSeesThem) {
  for (const char* args : {"", "input.ppm psf.pgm out.png", "input.ppm psf.pgm out.png 2 9", "input.ppm psf.pgm out.png 2 101",
                           "input.ppm psf.pgm out.png 2 abc", "input.ppm psf.pgm out.png 2 95 -1", "input.ppm psf.pgm out.png 2 95 201"})
    EXPECT_EQ(dir.run(args), std::pair(1, std::string())) << args;  // silently, after loading both pictures
  EXPECT_EQ(dir.run("missing.ppm psf.pgm out.png 2 9").first, 11);
  for (const char* args : {"2 10", "2 100", "2 95 0", "2 95 200", "2 95 none"}) {
    EXPECT_EQ(dir.run(std::string("input.ppm psf.pgm out.png ") + args), std::pair(0, std::string())) << args;
    EXPECT_FALSE(remove_semaphores());
  }
  const auto [status, err] = dir.run("input.ppm psf.pgm out.png -2");
  EXPECT_EQ(status, 11);
  EXPECT_TRUE(std::regex_search(err, std::regex("General exception: vector::_M_fill_insert$")));
  EXPECT_TRUE(remove_semaphores());  // a failed constructor leaves the names
  EXPECT_EQ(dir.run("input.ppm psf.pgm out.png 0", "", 2).first, 137);  // no worker: waits for ever
  EXPECT_TRUE(remove_semaphores());
}

TEST_F(Runs, ConverterCommandLinesAndTheTemporaryFolder) {
  recording("convert", "/usr/bin/convert");
  ASSERT_EQ(dir.run("input.png psf.pgm out.png 2 60", "TMP=tmp").first, 0);  // PNG input: quality 100
  ASSERT_EQ(dir.run("grey.pgm psf.pgm out.jpg 2 60", "TMP=tmp").first, 0);   // read natively
  ASSERT_EQ(dir.run("input.ppm psf.pgm out.png 2", "-u TMP TEMP=tmp").first, 0);
  EXPECT_TRUE(logged("convert", "input.png pnm:-\n-quality 100 TMP\\.ppm out.png\n-quality 60 TMP\\.pgm out.jpg\n"
                                "-quality 95 TMP\\.ppm out.png\n"));
  EXPECT_EQ(std::system(("test -z \"$(ls " + dir / "tmp" + ")\"").c_str()), 0) << "temporary files stay behind";
}

TEST_F(Runs, TheFirstConvertThatOpensWinsAndGmTakesOver) {
  const std::string candidates[] = {"convert", "im_mac/bin/convert", "mactools/im_mac/bin/convert"};
  ASSERT_EQ(std::system(("mkdir -p " + dir / "im_mac/bin " + dir / "mactools/im_mac/bin").c_str()), 0);
  for (int first = 2; first >= 0; --first) {  // candidates from `first` on exist
    recording(candidates[first], "/usr/bin/convert");
    ASSERT_EQ(dir.run("input.png psf.pgm out.png 2", "TMP=tmp").first, 0);
    for (int i = first; i < 3; ++i) EXPECT_TRUE(logged(candidates[i], i == first ? "input.png pnm:-\n.*\n" : "")) << candidates[i];
    std::remove((dir / candidates[first] + ".log").c_str());
  }
  ASSERT_EQ(std::system(("chmod -x " + dir / "convert").c_str()), 0);  // still found: the search only opens it
  recording("gm", "/usr/bin/gm");
  const auto [status, err] = dir.run("input.png psf.pgm gm.png 2", "TMP=tmp");
  EXPECT_EQ(status, 0);
  EXPECT_EQ(count(err, "./convert: Permission denied"), 2);
  EXPECT_TRUE(logged("gm", "convert input.png pnm:-\nconvert -quality 100 TMP\\.ppm gm.png\n"));
}

TEST_F(Runs, CommandsAreCutAt1023Characters) {
  std::string path;  // ./convert "<path>" is exactly 1023 characters: " pnm:-" is cut off
  for (int i = 0; i < 4; ++i) path += std::string(200, 'd') + "/";
  path += std::string(1011 - path.size() - 4, 'f') + ".png";
  ASSERT_EQ(std::system(("cd " + dir.path + " && mkdir -p $(dirname " + path + ") && cp input.png " + path).c_str()), 0);
  recording("convert", "");
  dir.run(path + " psf.pgm out.png 2");
  EXPECT_TRUE(logged("convert", "(" + path + "\n)+"));
}

TEST_F(Runs, WithoutConvertersWhatAUserSees) {
  const auto [status, err] = dir.run("input.png psf.pgm out.png 2", "PATH=bin");
  EXPECT_EQ(status, 11);
  EXPECT_EQ(count(err, "convert: not found"), 3);  // by extension, by content, as the last resort
  EXPECT_EQ(count(err, "gm: not found"), 3);
  const std::string unknown = "[instance(0,0,0,0,(nil),non-shared)] CImg<float>::load() : Failed to recognize format of file 'input.png'.";
  EXPECT_EQ(err.substr(err.find("\n[CImg]")), "\n[CImg] *** CImgIOException *** " + unknown + "\nGeneral exception: " + unknown);

  const auto [save_status, save_err] = dir.run("input.ppm psf.pgm out.png 2", "PATH=bin TMP=tmp");
  EXPECT_EQ(save_status, 11);
  EXPECT_EQ(count(save_err, "convert: not found") + count(save_err, "gm: not found"), 2);
  EXPECT_NE(save_err.find("CImg<float>::save_other() : Failed to save file 'out.png'. Format is not natively supported, "
                          "and no external commands succeeded."), std::string::npos);
  EXPECT_EQ(std::system(("test $(ls " + dir / "tmp" + " | grep -cE '^[A-Za-z0-9]{8}\\.ppm$') = 2").c_str()), 0);
  write_file(dir / "out.png", "old");  // an existing target counts as saved
  EXPECT_EQ(dir.run("input.ppm psf.pgm out.png 2", "PATH=bin").first, 0);

  const std::string missing = "[instance(0,0,0,0,(nil),non-shared)] CImg<float>::load() : Failed to open file 'missing.png'.";
  EXPECT_EQ(dir.run("missing.png psf.pgm out.png 2"),
            std::pair(11, "\n[CImg] *** CImgIOException *** " + missing + "\nGeneral exception: " + missing));
}

TEST_F(Runs, APsfUrlIsFetchedAndAnInputUrlFailsItsPngTest) {
  ASSERT_EQ(std::system(("cd " + dir.path + " && (python3 -c 'import functools as f, http.server as h, os\n"
                         "s = h.ThreadingHTTPServer((\"127.0.0.1\", 0), f.partial(h.SimpleHTTPRequestHandler, directory=\".\"))\n"
                         "open(\"port.new\", \"w\").write(str(s.server_address[1])); os.rename(\"port.new\", \"port\")\n"
                         "s.serve_forever()' 2>/dev/null & echo $! > server.pid) && "
                         "for i in $(seq 100); do [ -f port ] && break; sleep 0.05; done").c_str()), 0);
  const std::string url = "http://127.0.0.1:" + read_file(dir / "port");
  const auto psf_url = dir.run("input.ppm " + url + "/psf.pgm out.png 2");
  const auto input_url = dir.run(url + "/input.ppm psf.pgm out.png 2");
  EXPECT_EQ(std::system(("kill $(cat " + dir / "server.pid" + ")").c_str()), 0);
  EXPECT_EQ(psf_url, std::pair(0, std::string()));
  EXPECT_EQ(input_url.first, 11);
  EXPECT_NE(input_url.second.find("General exception: cimg::fopen() : Failed to open file '" + url + "/input.ppm' with mode 'rb'."),
            std::string::npos) << input_url.second;
}

TEST_F(Runs, GzipContentAndTemporaryRoutes) {
  // A gzipped PSF is unpacked to a temporary .pgm, read natively, and removed:
  // the converter never sees it.
  recording("convert", "/usr/bin/convert");
  ASSERT_EQ(std::system(("cd " + dir.path + " && gzip -c psf.pgm > psf.pgm.gz").c_str()), 0);
  EXPECT_EQ(dir.run("input.ppm psf.pgm plain.pnm 1", "TMP=tmp").first, 0);
  EXPECT_EQ(dir.run("input.ppm psf.pgm.gz gz.pnm 1", "TMP=tmp").first, 0);
  EXPECT_EQ(read_file(dir / "gz.pnm"), read_file(dir / "plain.pnm"));
  EXPECT_EQ(count(read_file(dir / "convert.log"), "psf.pgm.gz"), 0);
  EXPECT_EQ(std::system(("test -z \"$(ls " + dir / "tmp" + ")\"").c_str()), 0);

  // Converter runs by content: two letters II or MM make a TIFF, read by the
  // converter and again as the last resort; GIF has no reader by type, only
  // the last resort. A PNM of 2048 bytes or more is read natively, even after
  // a blank line.
  const std::string pad(3000, '\x40');
  write_file(dir / "tiff.xyz", "II" + pad);
  write_file(dir / "motorola.xyz", "MM" + pad);
  write_file(dir / "gif.xyz", "GIF89a" + pad);
  write_file(dir / "blank.xyz", "\n# made by hand\n\nP6\n24 20\n255\n" + pad);
  for (const auto& [name, piped_loads] : {std::pair{"tiff.xyz", 2}, {"motorola.xyz", 2}, {"gif.xyz", 1}, {"blank.xyz", 0}}) {
    std::remove((dir / "convert.log").c_str());
    dir.run(std::string(name) + " psf.pgm out.png 1");
    EXPECT_EQ(count(read_file(dir / "convert.log"), std::string(name) + " pnm:-"), piped_loads) << name;
  }
}

TEST_F(Runs, TheWorkingDirectoryIsTheLastTemporaryFolder) {
  if (std::system("unshare -rm true 2>/dev/null") != 0) GTEST_SKIP() << "no user namespaces here";
  // /tmp and /var/tmp read-only in a namespace of the run's own (bound onto
  // themselves, so that all stays reachable; the working folder keeps a
  // writable mount of its own), TMP and TEMP unset: the converter gets
  // ./<name>.ppm, not /<name>.ppm.
  recording("convert", "/usr/bin/convert");
  const std::string private_folders = "unshare -rm sh -c 'mount --bind \"$PWD\" \"$PWD\"; for d in /tmp /var/tmp; do "
                                      "mount --rbind $d $d && mount -o remount,bind,ro $d; done; "
                                      "mount -t tmpfs tmpfs /dev/shm; exec \"$0\" \"$@\"' ";
  EXPECT_EQ(dir.run("input.ppm psf.pgm out.png 1", "-u TMP -u TEMP " + private_folders).first, 0);
  EXPECT_TRUE(logged("convert", "-quality 95 \\./[A-Za-z0-9]{8}\\.ppm out\\.png\n"));
}

TEST_F(Runs, PicturesThatEndTheProcessLeaveTheOutputAlone) {
  // An empty picture and a volumetric one end the process on a worker thread
  // (SIGABRT, seen through timeout as 134), with the names left behind; the
  // output is neither made nor touched.
  write_file(dir / "empty.pgm", "P5\n0 1\n255\n");
  CImg<float>(24, 20, 2, 1, 100.0f).save_cimg((dir / "volume.cimg").c_str());
  for (const char* input : {"empty.pgm", "volume.cimg"}) {
    EXPECT_EQ(dir.run(std::string(input) + " psf.pgm new.png 2").first, 134) << input;
    EXPECT_TRUE(remove_semaphores());
    EXPECT_FALSE(file_exists((dir / "new.png").c_str()));
    write_file(dir / "old.png", "old");
    EXPECT_EQ(dir.run(std::string(input) + " psf.pgm old.png 2").first, 134) << input;
    EXPECT_TRUE(remove_semaphores());
    EXPECT_EQ(read_file(dir / "old.png"), "old");
  }
  // A PSF of zeros has no centroid: the restoration is NaN, saved as black.
  CImg<float>(3, 3, 1, 1, 0.0f).save_pnm((dir / "zero.pgm").c_str());
  EXPECT_EQ(dir.run("input.ppm zero.pgm black.pnm 2"), std::pair(0, std::string()));
  EXPECT_EQ(load(dir / "black.pnm").max(), 0);
}

}  // namespace
