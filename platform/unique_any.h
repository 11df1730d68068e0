// Move-only owners of OS and COM resources, a counted interface pointer, and a scope guard.
//
// UniqueAny<Traits> owns one value and closes it with Traits::Close when it is reset, reassigned
// or destroyed; put() closes the old value before handing out the address for an out-parameter.
// Aliases for the resources of the platform headers stand below. None of these is for
// simultaneous use by two threads.
#pragma once

#include <utility>

#include "platform/files.h"
#include "platform/win_types.h"

namespace mrwl {

template <typename Traits>
class UniqueAny {
 public:
  using value_type = typename Traits::Type;

  UniqueAny() noexcept = default;
  explicit UniqueAny(value_type value) noexcept : value_(value) {}
  UniqueAny(const UniqueAny&) = delete;
  UniqueAny& operator=(const UniqueAny&) = delete;
  UniqueAny(UniqueAny&& other) noexcept : value_(other.release()) {}
  UniqueAny& operator=(UniqueAny&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  ~UniqueAny() { reset(); }

  [[nodiscard]] value_type get() const noexcept { return value_; }
  [[nodiscard]] bool is_valid() const noexcept { return value_ != Traits::Invalid(); }
  explicit operator bool() const noexcept { return is_valid(); }

  // Closes the owned value, if any, and takes `value`.
  void reset(value_type value = Traits::Invalid()) noexcept {
    const value_type old = std::exchange(value_, value);
    if (old != Traits::Invalid()) Traits::Close(old);
  }
  // Gives up ownership without closing.
  [[nodiscard]] value_type release() noexcept { return std::exchange(value_, Traits::Invalid()); }
  // Closes the owned value and returns the address for a call that fills it.
  [[nodiscard]] value_type* put() noexcept {
    reset();
    return &value_;
  }

 private:
  value_type value_ = Traits::Invalid();
};

struct FileHandleTraits {
  using Type = HANDLE;
  static Type Invalid() noexcept { return INVALID_HANDLE_VALUE; }
  static void Close(Type h) noexcept { (void)platform::CloseHandle(h); }
};
// Events and other handles whose empty value is null rather than INVALID_HANDLE_VALUE.
struct NullHandleTraits {
  using Type = HANDLE;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type h) noexcept { (void)platform::CloseHandle(h); }
};
struct FindHandleTraits {
  using Type = HANDLE;
  static Type Invalid() noexcept { return INVALID_HANDLE_VALUE; }
  static void Close(Type h) noexcept { (void)platform::FindClose(h); }
};

using UniqueFile = UniqueAny<FileHandleTraits>;
using UniqueEvent = UniqueAny<NullHandleTraits>;
using UniqueFind = UniqueAny<FindHandleTraits>;

// Runs a callable when the scope ends, unless dismissed.
template <typename F>
class ScopeGuard {
 public:
  explicit ScopeGuard(F f) noexcept : f_(std::move(f)) {}
  ScopeGuard(const ScopeGuard&) = delete;
  ScopeGuard& operator=(const ScopeGuard&) = delete;
  ~ScopeGuard() {
    if (active_) f_();
  }
  void Dismiss() noexcept { active_ = false; }

 private:
  F f_;
  bool active_ = true;
};

}  // namespace mrwl
