// The allocator of the foundation and the Cab framework.
//
// Every string, array and object of the foundation lives on these four calls rather than on the
// language runtime's heap. Results are 16-byte aligned; any thread may free or resize any pointer,
// whichever thread or module allocated it. Nothing here raises an exception: exhaustion answers
// null.
#pragma once

#include <cstddef>
#include <new>

namespace mrwl {

// Returns a block of at least `size` bytes, 16-byte aligned, or null. A size of 0 gives null, and
// so does one above 0x7FFFFFFFFFFFFFFF.
[[nodiscard]] void* MemAlloc(std::size_t size) noexcept;

// Releases a block of MemAlloc. Null is ignored.
void MemFree(void* block) noexcept;

// Resizes a block, moving it whenever its size demands. A null block acts as MemAlloc. On failure
// returns null and the old block stands unchanged.
[[nodiscard]] void* MemRealloc(void* block, std::size_t size) noexcept;

// Like MemRealloc, but keeps the block where it is when it is already long enough and the slack
// is small. Growing containers use it.
[[nodiscard]] void* MemTryRealloc(void* block, std::size_t size) noexcept;

// The usable size of a block of MemAlloc; 0 for null.
[[nodiscard]] std::size_t MemSize(const void* block) noexcept;

// A standard allocator over MemAlloc, for standard containers inside the foundation.
template <typename T>
struct MemAllocator {
  using value_type = T;
  MemAllocator() noexcept = default;
  template <typename U>
  MemAllocator(const MemAllocator<U>&) noexcept {}
  T* allocate(std::size_t n) {
    void* p = n > static_cast<std::size_t>(-1) / sizeof(T) ? nullptr : MemAlloc(n * sizeof(T));
    if (p == nullptr) throw std::bad_alloc();
    return static_cast<T*>(p);
  }
  void deallocate(T* p, std::size_t) noexcept { MemFree(p); }
  template <typename U>
  bool operator==(const MemAllocator<U>&) const noexcept {
    return true;
  }
};

}  // namespace mrwl
