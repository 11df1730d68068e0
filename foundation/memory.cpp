#include "foundation/memory.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

// A plain backing for the allocator interface: the runtime heap with a 16-byte prefix that holds
// the usable size. The three-tier manager replaces this file without changing the interface.

namespace mrwl {
namespace {

constexpr std::size_t kHeader = 16;
constexpr std::size_t kMaxRequest = 0x7FFFFFFFFFFFFFFFull - 64;
// MemTryRealloc keeps a block in place while the slack stays at most this large.
constexpr std::size_t kMaxSlack = 1024;

struct alignas(16) Prefix {
  std::size_t size;
  std::size_t reserved;
};
static_assert(sizeof(Prefix) == kHeader);

Prefix* PrefixOf(const void* block) {
  return reinterpret_cast<Prefix*>(static_cast<char*>(const_cast<void*>(block)) - kHeader);
}

std::size_t RoundUp16(std::size_t n) { return (n + 15) & ~std::size_t{15}; }

}  // namespace

void* MemAlloc(std::size_t size) noexcept {
  if (size == 0 || size > kMaxRequest) return nullptr;
  const std::size_t usable = RoundUp16(size);
  void* raw = std::malloc(usable + kHeader);
  if (raw == nullptr) return nullptr;
  auto* prefix = static_cast<Prefix*>(raw);
  prefix->size = usable;
  prefix->reserved = 0;
  return static_cast<char*>(raw) + kHeader;
}

void MemFree(void* block) noexcept {
  if (block != nullptr) std::free(PrefixOf(block));
}

std::size_t MemSize(const void* block) noexcept {
  return block == nullptr ? 0 : PrefixOf(block)->size;
}

void* MemRealloc(void* block, std::size_t size) noexcept {
  if (block == nullptr) return MemAlloc(size);
  if (size == 0 || size > kMaxRequest) return nullptr;
  const std::size_t usable = RoundUp16(size);
  void* raw = std::realloc(PrefixOf(block), usable + kHeader);
  if (raw == nullptr) return nullptr;
  static_cast<Prefix*>(raw)->size = usable;
  return static_cast<char*>(raw) + kHeader;
}

void* MemTryRealloc(void* block, std::size_t size) noexcept {
  if (block != nullptr && size != 0) {
    const std::size_t have = PrefixOf(block)->size;
    if (have >= size && have - size <= kMaxSlack) return block;
  }
  return MemRealloc(block, size);
}

}  // namespace mrwl
