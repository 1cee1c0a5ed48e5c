// What every command shows of itself: --help and --version on stdout, and a
// picture it cannot read (cut short, empty, a folder, a header claiming more
// than the machine's memory) as one line on stderr naming the file and why, status 11.
#include <gmock/gmock.h>

#include <tuple>

#include "tests/support.h"

namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

struct Command {
  const char* name;
  const char* binary;
  const char* read_args;  // how it reads a picture named FILE; null for those that read none
};

void PrintTo(const Command& command, std::ostream* out) { *out << command.name; }

const Command commands[] = {
    {"deconv-restore", DECONV_RESTORE_BINARY, "--psf gaussian:1 FILE out.png"},
    {"deconv-estimate", DECONV_ESTIMATE_BINARY, "FILE psf-out.png"},
    {"deconv-strength", DECONV_STRENGTH_BINARY, "FILE psf.png"},
    {"deconv-psf", DECONV_PSF_BINARY, nullptr},
    {"deconv-batch", DECONV_BATCH_BINARY, nullptr},
};

struct Outcome {
  int status;
  std::string out, err;
};

// `binary args` in `dir`, with stdout and stderr apart.
Outcome run(const TempDir& dir, const std::string& binary, const std::string& args) {
  const int status =
      std::system(("cd '" + dir.path + "' && " + binary + " " + args + " >.out 2>.err </dev/null").c_str());
  return {WEXITSTATUS(status), read_file(dir / ".out"), read_file(dir / ".err")};
}

class EveryCommand : public ::testing::TestWithParam<Command> {
 protected:
  TempDir dir;
};

// --help and -h are the usage on stdout, --version the project's; a bad
// command line is one line on stderr.
TEST_P(EveryCommand, HelpVersionAndABadCommandLine) {
  const std::string name = GetParam().name;
  for (const char* option : {"--help", "-h"}) {
    const Outcome r = run(dir, GetParam().binary, option);
    EXPECT_TRUE(r.status == 0 && r.err.empty()) << option;
    EXPECT_THAT(r.out, StartsWith("usage: " + name + " ")) << option;
  }
  const Outcome version = run(dir, GetParam().binary, "--version");
  EXPECT_TRUE(version.status == 0 && version.err.empty());
  EXPECT_EQ(version.out, name + " " DECONV_PROJECT_VERSION "\n");
  const Outcome bad = run(dir, GetParam().binary, "--no-such-option x y z");
  EXPECT_TRUE(bad.status != 0 && bad.out.empty());
  EXPECT_EQ(std::count(bad.err.begin(), bad.err.end(), '\n'), 1) << bad.err;
  EXPECT_THAT(bad.err, StartsWith(name + ": "));
}

INSTANTIATE_TEST_SUITE_P(Commands, EveryCommand, ::testing::ValuesIn(commands),
                         [](const auto& info) { return std::string(info.param.name).substr(7); });

uint32_t crc32(const std::string& bytes) {
  uint32_t crc = 0xFFFFFFFFu;
  for (const unsigned char b : bytes) {
    crc ^= b;
    for (int k = 0; k < 8; ++k) crc = crc & 1 ? crc >> 1 ^ 0xEDB88320u : crc >> 1;
  }
  return ~crc;
}

std::string big_endian(const uint32_t v) { return {(char)(v >> 24), (char)(v >> 16), (char)(v >> 8), (char)v}; }

std::string png_chunk(const std::string& type, const std::string& data) {  // its CRC as PNG's readers check it
  return big_endian((uint32_t)data.size()) + type + data + big_endian(crc32(type + data));
}

// A valid PNG header claiming width x height RGB pixels, and a few bytes of data.
std::string png_claiming(const uint32_t width, const uint32_t height) {
  const std::string ihdr = big_endian(width) + big_endian(height) + std::string("\x08\x02\x00\x00\x00", 5);
  return std::string("\x89PNG\r\n\x1a\n", 8) + png_chunk("IHDR", ihdr) +
         png_chunk("IDAT", std::string("\x78\x9c\x03\x00\x00\x00\x00\x01", 8)) + png_chunk("IEND", "");
}

struct BadFile {
  const char* name;
  const char* reason;  // what the line says after "cannot read NAME: "
};

void PrintTo(const BadFile& file, std::ostream* out) { *out << file.name; }

const BadFile bad_files[] = {
    {"cut.png", "the file is cut short"},  // not libpng's four lines
    {"empty.png", "an empty file"},
    {"folder.png", "a directory, not a picture"},
    {"missing.png", "No such file or directory"},
    {"huge.ppm", "100000 x 100000 pixels of 3 channels would take 120.0 GB"},
    {"huge.png", "100000 x 100000 pixels of 3 channels would take 120.0 GB"},
};

class BadPicture : public ::testing::TestWithParam<std::tuple<Command, BadFile>> {
 protected:
  void SetUp() override {
    write_file(dir / "cut.png", read_file(DECONV_SOURCE "/examples/astronaut_blurred.png").substr(0, 3000));
    write_file(dir / "empty.png", "");
    mkdir((dir / "folder.png").c_str(), 0755);
    write_file(dir / "huge.ppm", "P6\n100000 100000\n255\n" + std::string(64, '\x80'));
    write_file(dir / "huge.png", png_claiming(100000, 100000));
    ASSERT_EQ(run(dir, DECONV_PSF_BINARY, "gaussian 1 psf.png").status, 0);
  }
  TempDir dir;
};

TEST_P(BadPicture, IsOneLineThatNamesTheFile) {
  const auto& [command, file] = GetParam();
  std::string args = command.read_args;
  args.replace(args.find("FILE"), 4, file.name);
  const Outcome r = run(dir, command.binary, args);
  EXPECT_EQ(r.status, 11);
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  EXPECT_THAT(r.err, StartsWith(std::string(command.name) + ": cannot read " + file.name + ": " + file.reason));
  EXPECT_EQ(r.out, "");
}

INSTANTIATE_TEST_SUITE_P(Readers, BadPicture,
                         ::testing::Combine(::testing::Values(commands[0], commands[1], commands[2]),
                                            ::testing::ValuesIn(bad_files)),
                         [](const auto& info) {
                           std::string name =
                               std::string(std::get<0>(info.param).name).substr(7) + "_" + std::get<1>(info.param).name;
                           std::replace(name.begin(), name.end(), '.', '_');
                           return name;
                         });

}  // namespace
