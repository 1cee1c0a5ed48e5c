// Memory for the second engine's planes and spectra. Large blocks are taken
// in whole huge pages: a restoration touches each of its buffers for the
// first time once per call, and the kernel clears a huge page in a seventh of
// the time it takes for the same bytes in small pages.
#ifndef DECONV_SPECTRAL_MEMORY_H
#define DECONV_SPECTRAL_MEMORY_H

#include <cstddef>

namespace deconv {
namespace spectral {

// Blocks of this many bytes and more go into huge pages.
constexpr size_t huge_block = (size_t)4 << 20;

// Memory aligned for FFTW's SIMD codelets; `bytes` >= huge_block: in huge
// pages where the system lends them. Throws std::bad_alloc.
void* allocate_aligned(size_t bytes);
void free_aligned(void* p);

// Asks for huge pages under [p, p + bytes) before it is first touched.
void advise_huge_pages(void* p, size_t bytes);

// std::vector's allocator on allocate_aligned.
template <class T>
struct FftwAllocator {
  using value_type = T;
  FftwAllocator() = default;
  template <class U>
  FftwAllocator(const FftwAllocator<U>&) {}
  T* allocate(size_t n) { return static_cast<T*>(allocate_aligned(n * sizeof(T))); }
  void deallocate(T* p, size_t) { free_aligned(p); }
  template <class U>
  bool operator==(const FftwAllocator<U>&) const { return true; }
  template <class U>
  bool operator!=(const FftwAllocator<U>&) const { return false; }
};

}  // namespace spectral
}  // namespace deconv

#endif
