// The library never prints: the image library's exceptions, which the tool
// configuration has report on stderr, stay silent in it. The setting is the
// library's own, since it keeps its copy of the image library to itself.
#include "imaging/cimg_config.h"

namespace {
const unsigned int silent = cimg_library::cimg::exception_mode(0);
}
