#include "foundation/memory.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

namespace mrwl {
namespace {

bool Aligned16(const void* p) { return (reinterpret_cast<std::uintptr_t>(p) & 15u) == 0; }

TEST(Memory, ZeroAndImpossibleSizesGiveNull) {
  EXPECT_EQ(nullptr, MemAlloc(0));
  EXPECT_EQ(nullptr, MemAlloc(0x8000000000000000ull));
  EXPECT_EQ(nullptr, MemAlloc(static_cast<std::size_t>(-1)));
  MemFree(nullptr);  // ignored
  EXPECT_EQ(0u, MemSize(nullptr));
}

TEST(Memory, EveryBlockIsAlignedAndLargeEnough) {
  std::vector<void*> blocks;
  for (std::size_t n : {1u, 12u, 13u, 1052u, 1053u, 4096u, 0x100000u, 0x100001u}) {
    SCOPED_TRACE(n);
    void* p = MemAlloc(n);
    ASSERT_NE(nullptr, p);
    EXPECT_TRUE(Aligned16(p));
    EXPECT_GE(MemSize(p), n);
    std::memset(p, 0xAB, n);  // the whole request is writable (the sanitizer build checks)
    blocks.push_back(p);
  }
  for (void* p : blocks) MemFree(p);
}

TEST(Memory, ReallocKeepsContentAndFailureKeepsTheOldBlock) {
  auto* p = static_cast<unsigned char*>(MemAlloc(100));
  ASSERT_NE(nullptr, p);
  for (int i = 0; i < 100; ++i) p[i] = static_cast<unsigned char>(i);
  auto* q = static_cast<unsigned char*>(MemRealloc(p, 5000));
  ASSERT_NE(nullptr, q);
  EXPECT_TRUE(Aligned16(q));
  for (int i = 0; i < 100; ++i) ASSERT_EQ(i, q[i]);
  EXPECT_EQ(nullptr, MemRealloc(q, static_cast<std::size_t>(-1)));
  EXPECT_EQ(99, q[99]);  // still ours
  MemFree(q);

  void* fresh = MemRealloc(nullptr, 24);  // acts as MemAlloc
  EXPECT_NE(nullptr, fresh);
  MemFree(fresh);
}

TEST(Memory, TryReallocStaysInPlaceOnlyWhileTheSlackIsSmall) {
  void* p = MemAlloc(1500);
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(p, MemTryRealloc(p, 600));  // 900 bytes of slack: kept
  void* q = MemTryRealloc(p, 400);      // 1100 bytes of slack: resized
  ASSERT_NE(nullptr, q);
  EXPECT_LT(MemSize(q), 1500u);
  MemFree(q);
}

TEST(Memory, AnyThreadFreesAnyBlock) {
  std::vector<void*> blocks(1000);
  std::thread producer([&] {
    for (std::size_t i = 0; i < blocks.size(); ++i) {
      blocks[i] = MemAlloc(48);
      if (blocks[i] != nullptr) std::memset(blocks[i], static_cast<int>(i & 0xFF), 48);
    }
  });
  producer.join();
  int intact = 0;
  std::thread consumer([&] {
    for (std::size_t i = 0; i < blocks.size(); ++i) {
      const auto* p = static_cast<const unsigned char*>(blocks[i]);
      if (p != nullptr && p[0] == (i & 0xFF) && p[47] == (i & 0xFF)) ++intact;
      MemFree(blocks[i]);
    }
  });
  consumer.join();
  EXPECT_EQ(1000, intact);
}

}  // namespace
}  // namespace mrwl
