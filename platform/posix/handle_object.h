// The objects behind the HANDLE values of the POSIX backend. Internal to platform/posix: each kind
// of handle derives from HandleObject, and CloseHandle deletes what it does not close itself.
#pragma once

#include <cstdint>

#include "platform/win_types.h"

namespace mrwl::platform::posix {

inline constexpr std::uint32_t kHandleMagic = 0x4D524846u;  // tells our objects from stray pointers

enum class HandleKind { kFile, kEvent, kFind, kTransaction, kMapping };

struct HandleObject {
  explicit HandleObject(HandleKind k) noexcept : kind(k) {}
  virtual ~HandleObject() { magic = 0; }
  HandleObject(const HandleObject&) = delete;
  HandleObject& operator=(const HandleObject&) = delete;

  std::uint32_t magic = kHandleMagic;
  HandleKind kind;
};

// The object behind `handle` if it is one of ours of `kind`, else null.
template <typename T>
T* As(HANDLE handle, HandleKind kind) noexcept {
  if (handle == nullptr || handle == INVALID_HANDLE_VALUE) return nullptr;
  auto* object = static_cast<HandleObject*>(handle);
  if (object->magic != kHandleMagic || object->kind != kind) return nullptr;
  return static_cast<T*>(object);
}

}  // namespace mrwl::platform::posix
