// The outcome of a command as its exit status, shared by the commands of this
// tool. The body returns its own status (0, or 1 for a bad command line); what
// it throws is caught here: the library's instance errors give 10, other
// standard exceptions 11, anything else 12, each after one line on stderr
// without a line end (the library has already printed its own report).
#ifndef DECONV_TOOL_EXIT_STATUS_H
#define DECONV_TOOL_EXIT_STATUS_H

#include <cstdio>
#include <exception>

#include "imaging/cimg_config.h"

template <class Body>
int run_with_exit_status(Body body) {
  try {
    return body();
  } catch (cimg_library::CImgInstanceException& e) {
    std::fprintf(stderr, "Library Error : %s", e.what());
    return 10;
  } catch (std::exception& e) {
    std::fprintf(stderr, "General exception: %s", e.what());
    return 11;
  } catch (...) {
    std::fprintf(stderr, "Unknown exception");
    return 12;
  }
}

#endif
