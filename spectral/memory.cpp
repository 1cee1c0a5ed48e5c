#include "spectral/memory.h"

#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <new>

namespace deconv {
namespace spectral {

namespace {

constexpr size_t huge_page = (size_t)2 << 20;

}  // namespace

void* allocate_aligned(const size_t bytes) {
  const size_t alignment = bytes >= huge_block ? huge_page : 64;
  void* const p = std::aligned_alloc(alignment, (bytes + alignment - 1) / alignment * alignment);
  if (!p) throw std::bad_alloc();
  if (bytes >= huge_block) advise_huge_pages(p, bytes);
  return p;
}

void free_aligned(void* const p) { std::free(p); }

void advise_huge_pages(void* const p, const size_t bytes) {
  // Only the whole huge pages inside the block; a refusal costs nothing but
  // the small pages' time.
  const uintptr_t begin = ((uintptr_t)p + huge_page - 1) / huge_page * huge_page;
  const uintptr_t end = ((uintptr_t)p + bytes) / huge_page * huge_page;
  if (end > begin) madvise((void*)begin, end - begin, MADV_HUGEPAGE);
}

}  // namespace spectral
}  // namespace deconv
