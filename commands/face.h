// What every command's face answers alike.
#ifndef DECONV_COMMANDS_FACE_H
#define DECONV_COMMANDS_FACE_H

#include <cstdio>
#include <cstring>

// For a lone --help (or -h) or --version: prints the usage, or the command's
// name and version, on stdout and returns 0; otherwise -1.
inline int answer_help_or_version(const int argc, char** const argv, const char* const name,
                                  const char* const usage) {
  if (argc != 2) return -1;
  if (!std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h")) {
    std::fputs(usage, stdout);
    return 0;
  }
  if (!std::strcmp(argv[1], "--version")) {
    std::printf("%s %s\n", name, DECONV_VERSION);
    return 0;
  }
  return -1;
}

#endif
