# find_package(deconv): libdeconv as the imported target deconv::deconv, its
# header included. The library carries its engine and FFTW's use inside it:
# a program needs nothing else.
include(${CMAKE_CURRENT_LIST_DIR}/deconvTargets.cmake)
