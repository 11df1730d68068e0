// Owners for COM references, BSTRs and VARIANTs.
//
// ComPtr<T> holds one counted reference on an interface; UniqueBstr frees its string with
// SysFreeString; UniqueVariant clears its VARIANT with VariantClear. All are move-only owners
// except ComPtr, which copies by taking another reference. Like the other owners, none is for
// simultaneous use by two threads; the objects they point to set their own threading rules.
#pragma once

#include <cstddef>
#include <string_view>
#include <type_traits>
#include <utility>

#include "platform/com.h"
#include "platform/unique_any.h"

namespace mrwl {

template <typename T>
class ComPtr {
 public:
  ComPtr() noexcept = default;
  ComPtr(std::nullptr_t) noexcept {}  // NOLINT: null converts implicitly, as for raw pointers
  // Takes a reference of its own on `pointer`; the caller keeps theirs.
  explicit ComPtr(T* pointer) noexcept : pointer_(pointer) { AddRefHeld(); }
  ComPtr(const ComPtr& other) noexcept : pointer_(other.pointer_) { AddRefHeld(); }
  ComPtr(ComPtr&& other) noexcept : pointer_(std::exchange(other.pointer_, nullptr)) {}
  // A reference on a derived interface as one on its base.
  template <typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  ComPtr(const ComPtr<U>& other) noexcept : pointer_(other.get()) {  // NOLINT: as pointers do
    AddRefHeld();
  }
  ComPtr& operator=(const ComPtr& other) noexcept {
    ComPtr(other).Swap(*this);
    return *this;
  }
  ComPtr& operator=(ComPtr&& other) noexcept {
    ComPtr(std::move(other)).Swap(*this);
    return *this;
  }
  ComPtr& operator=(std::nullptr_t) noexcept {
    reset();
    return *this;
  }
  ~ComPtr() { reset(); }

  [[nodiscard]] T* get() const noexcept { return pointer_; }
  T* operator->() const noexcept { return pointer_; }
  T& operator*() const noexcept { return *pointer_; }
  explicit operator bool() const noexcept { return pointer_ != nullptr; }

  // Releases the held reference, if any.
  void reset() noexcept {
    if (T* old = std::exchange(pointer_, nullptr)) old->Release();
  }
  // Releases the held reference and returns the address for a call that hands out a new one.
  [[nodiscard]] T** put() noexcept {
    reset();
    return &pointer_;
  }
  // As put(), typed for QueryInterface and factory out-parameters.
  [[nodiscard]] void** put_void() noexcept { return reinterpret_cast<void**>(put()); }

  // Takes over a reference the caller owns, releasing the one held before.
  void Attach(T* pointer) noexcept {
    reset();
    pointer_ = pointer;
  }
  // Gives up the held reference to the caller without releasing it.
  [[nodiscard]] T* Detach() noexcept { return std::exchange(pointer_, nullptr); }

  // Hands out a new reference through an out-parameter: S_OK, also for null; E_POINTER for a
  // null `out`.
  HRESULT CopyTo(T** out) const noexcept {
    if (out == nullptr) return E_POINTER;
    *out = pointer_;
    AddRefHeld();
    return S_OK;
  }

  // Asks the object for interface `iid`, which must be U's identifier, into `out` (whose old
  // reference is released). The QueryInterface result; E_POINTER when nothing is held or `out`
  // is null.
  template <typename U>
  HRESULT As(REFIID iid, ComPtr<U>* out) const noexcept {
    if (out == nullptr) return E_POINTER;
    if (pointer_ == nullptr) {
      out->reset();
      return E_POINTER;
    }
    return pointer_->QueryInterface(iid, out->put_void());
  }

  void Swap(ComPtr& other) noexcept { std::swap(pointer_, other.pointer_); }

  friend bool operator==(const ComPtr& a, const ComPtr& b) noexcept {
    return a.pointer_ == b.pointer_;
  }
  friend bool operator==(const ComPtr& a, std::nullptr_t) noexcept { return a.pointer_ == nullptr; }

 private:
  void AddRefHeld() const noexcept {
    if (pointer_ != nullptr) pointer_->AddRef();
  }

  T* pointer_ = nullptr;
};

struct BstrTraits {
  using Type = BSTR;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type bstr) noexcept { ::SysFreeString(bstr); }
};
using UniqueBstr = UniqueAny<BstrTraits>;

// A new BSTR holding `text` (zeros included). Empty, not null, for empty text; null only when
// memory runs out.
[[nodiscard]] inline UniqueBstr MakeBstr(std::u16string_view text) noexcept {
  static_assert(sizeof(OLECHAR) == sizeof(char16_t));
  return UniqueBstr(::SysAllocStringLen(reinterpret_cast<const OLECHAR*>(text.data()),
                                        static_cast<UINT>(text.size())));
}

// The text of a BSTR by its stored length; empty for null.
[[nodiscard]] inline std::u16string_view BstrView(BSTR bstr) noexcept {
  if (bstr == nullptr) return {};
  return std::u16string_view(reinterpret_cast<const char16_t*>(bstr), ::SysStringLen(bstr));
}

// A VT_I4 VARIANT, as collections take their indexes and SaveAs its type.
[[nodiscard]] inline VARIANT MakeI4Variant(LONG value) noexcept {
  VARIANT variant;
  ::VariantInit(&variant);
  variant.vt = VT_I4;
  variant.lVal = value;
  return variant;
}

// A VARIANT of type `type` (VT_DISPATCH or VT_UNKNOWN) holding a reference of its own on
// `object`, which may be null; the caller clears it. For VT_DISPATCH the object is asked for
// IDispatch, and one that has none gives a null value.
[[nodiscard]] inline VARIANT MakeObjectVariant(IUnknown* object, VARTYPE type) noexcept {
  VARIANT variant;
  ::VariantInit(&variant);
  variant.vt = type;
  variant.punkVal = nullptr;
  if (object == nullptr) return variant;
  if (type == VT_DISPATCH) {
    if (FAILED(
            object->QueryInterface(IID_IDispatch, reinterpret_cast<void**>(&variant.pdispVal)))) {
      variant.pdispVal = nullptr;
    }
  } else {
    object->AddRef();
    variant.punkVal = object;
  }
  return variant;
}

// Owns one VARIANT and clears it when reset, reassigned or destroyed.
class UniqueVariant {
 public:
  UniqueVariant() noexcept { ::VariantInit(&value_); }
  // Takes over `value` and what it owns; the caller must not clear it afterwards.
  explicit UniqueVariant(const VARIANT& value) noexcept : value_(value) {}
  UniqueVariant(const UniqueVariant&) = delete;
  UniqueVariant& operator=(const UniqueVariant&) = delete;
  UniqueVariant(UniqueVariant&& other) noexcept : value_(other.release()) {}
  UniqueVariant& operator=(UniqueVariant&& other) noexcept {
    if (this != &other) {
      reset();
      value_ = other.release();
    }
    return *this;
  }
  ~UniqueVariant() { reset(); }

  [[nodiscard]] VARIANT* get() noexcept { return &value_; }
  [[nodiscard]] const VARIANT* get() const noexcept { return &value_; }
  VARIANT* operator->() noexcept { return &value_; }
  const VARIANT* operator->() const noexcept { return &value_; }
  [[nodiscard]] VARTYPE vt() const noexcept { return value_.vt; }

  // Clears the value to VT_EMPTY. A value the platform cannot clear is dropped as it is.
  void reset() noexcept {
    if (FAILED(::VariantClear(&value_))) ::VariantInit(&value_);
  }
  // Clears the value and returns its address for a call that fills it.
  [[nodiscard]] VARIANT* put() noexcept {
    reset();
    return &value_;
  }
  // Gives up the value, and what it owns, to the caller; VT_EMPTY remains.
  [[nodiscard]] VARIANT release() noexcept {
    VARIANT out = value_;
    ::VariantInit(&value_);
    return out;
  }

 private:
  VARIANT value_;
};

}  // namespace mrwl
