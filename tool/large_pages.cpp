// Array allocations of the command: the image library makes every picture
// plane with new[], and a run first-touches about a gigabyte of planes for a
// 12-megapixel picture. On 4 KiB pages that costs one page fault per page
// (about 25 ms for a 48 MB plane); on transparent huge pages one per 2 MiB
// (about 3 ms). Blocks of 4 MiB and more therefore get a mapping of their own,
// advised for huge pages where the system offers them; smaller ones come from
// malloc as before. A header before each block records which way it was made.
//
// Linked into the command alone, and left out of sanitizer builds, whose own
// allocators must see every block.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

#include <sys/mman.h>

#include <cstdlib>
#include <new>

namespace {

constexpr std::size_t header = 16;  // keeps new[]'s 16-byte alignment
constexpr std::size_t large = std::size_t(4) << 20;

}  // namespace

void* operator new[](const std::size_t size) {
  if (size >= large) {
    const std::size_t length = size + header;
    void* const base = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (base == MAP_FAILED) throw std::bad_alloc();
    madvise(base, length, MADV_HUGEPAGE);  // only advice: refused where there are none
    *static_cast<std::size_t*>(base) = length;
    return static_cast<char*>(base) + header;
  }
  void* const base = std::malloc(size + header);
  if (!base) throw std::bad_alloc();
  *static_cast<std::size_t*>(base) = 0;
  return static_cast<char*>(base) + header;
}

void operator delete[](void* const block) noexcept {
  if (!block) return;
  char* const base = static_cast<char*>(block) - header;
  const std::size_t length = *reinterpret_cast<std::size_t*>(base);
  if (length)
    munmap(base, length);
  else
    std::free(base);
}

void operator delete[](void* const block, std::size_t) noexcept { operator delete[](block); }

#endif
