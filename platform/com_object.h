// Building blocks for objects that implement interfaces: reference counting and QueryInterface by
// a list of interfaces, and the exception that carries a failed COM call through C++ code.
//
// ComObject<Interfaces...> is the base of an object that implements the listed interfaces. It
// answers IUnknown, and IDispatch when one of them derives from it, with its first such view,
// and each listed interface by the IID that InterfaceId names for it. The count is atomic; the
// last Release deletes the object, which must have been made with `new`. Objects that answer an
// interface by a view other than the natural one write their own QueryInterface.
#pragma once

#include <atomic>
#include <tuple>
#include <type_traits>
#include <utility>

#include "platform/com.h"
#include "platform/com_ptr.h"

namespace mrwl {

// The IID of interface I, declared next to the interface with MRWL_INTERFACE_ID.
template <typename I>
struct InterfaceId;

#define MRWL_INTERFACE_ID(Interface, iidValue)    \
  template <>                                     \
  struct mrwl::InterfaceId<Interface> {           \
    static constexpr const IID& value = iidValue; \
  }

// The answers of an IDispatch that has no type information objects: a count of 0, and no
// description at any index.
inline HRESULT NoTypeInfoCount(UINT* count) noexcept {
  if (count == nullptr) return E_POINTER;
  *count = 0;
  return S_OK;
}
inline HRESULT NoTypeInfo(ITypeInfo** info) noexcept {
  if (info != nullptr) *info = nullptr;
  return DISP_E_BADINDEX;
}

template <typename... Interfaces>
class ComObject : public Interfaces... {
  static_assert(sizeof...(Interfaces) > 0);
  using First = std::tuple_element_t<0, std::tuple<Interfaces...>>;

 public:
  ComObject(const ComObject&) = delete;
  ComObject& operator=(const ComObject&) = delete;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
    if (object == nullptr) return E_POINTER;
    *object = FindInterface(iid);
    if (*object == nullptr) return E_NOINTERFACE;
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override {
    return refs_.fetch_add(1, std::memory_order_relaxed) + 1;
  }
  ULONG STDMETHODCALLTYPE Release() override {
    const ULONG left = refs_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left == 0) delete this;
    return left;
  }

  // Objects reached through their virtual tables only answer IDispatch without a description:
  // no type information and no member by name or dispid.
  HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) { return NoTypeInfoCount(count); }
  HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo** info) { return NoTypeInfo(info); }
  HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) {
    return DISP_E_UNKNOWNNAME;
  }
  HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*,
                                   UINT*) {
    return DISP_E_MEMBERNOTFOUND;
  }

  // The object's identity: its IUnknown, as QueryInterface gives it.
  [[nodiscard]] IUnknown* Identity() noexcept { return static_cast<First*>(this); }

 protected:
  ComObject() noexcept = default;
  virtual ~ComObject() = default;

  // The view that answers `iid`, or null. A derived object may extend the table.
  virtual void* FindInterface(REFIID iid) noexcept {
    if (IsEqualIID(iid, IID_IUnknown)) return static_cast<First*>(this);
    void* found = nullptr;
    if (IsEqualIID(iid, IID_IDispatch)) {
      ((found == nullptr && std::is_base_of_v<IDispatch, Interfaces>
            ? found = DispatchOf<Interfaces>()
            : found),
       ...);
      return found;
    }
    ((found == nullptr && IsEqualIID(iid, InterfaceId<Interfaces>::value)
          ? found = static_cast<Interfaces*>(this)
          : found),
     ...);
    return found;
  }

 private:
  template <typename I>
  void* DispatchOf() noexcept {
    if constexpr (std::is_base_of_v<IDispatch, I>) {
      return static_cast<IDispatch*>(static_cast<I*>(this));
    } else {
      return nullptr;
    }
  }

  std::atomic<ULONG> refs_{1};
};

// Makes a new object with one reference, held by the result.
template <typename T, typename... Args>
[[nodiscard]] ComPtr<T> MakeComObject(Args&&... args) {
  ComPtr<T> result;
  result.Attach(new T(std::forward<Args>(args)...));
  return result;
}

// A failed COM call raised as an exception: its HRESULT, and the object whose call failed, whose
// error information a handler may read.
class ComError {
 public:
  explicit ComError(HRESULT error, IUnknown* source = nullptr) noexcept
      : error_(error), source_(source) {}

  [[nodiscard]] HRESULT Error() const noexcept { return error_; }
  [[nodiscard]] IUnknown* Source() const noexcept { return source_.get(); }
  // The source and description of the error information. No object of this system sets any,
  // so both are empty strings; they are read where a handler would show them.
  [[nodiscard]] UniqueBstr ErrorSource() const noexcept { return MakeBstr(u""); }
  [[nodiscard]] UniqueBstr Description() const noexcept { return MakeBstr(u""); }

 private:
  HRESULT error_;
  ComPtr<IUnknown> source_;
};

// Raises a ComError for a failed result; success passes through.
inline HRESULT ThrowIfFailed(HRESULT result, IUnknown* source = nullptr) {
  if (FAILED(result)) throw ComError(result, source);
  return result;
}

}  // namespace mrwl

MRWL_INTERFACE_ID(IUnknown, IID_IUnknown);
MRWL_INTERFACE_ID(IDispatch, IID_IDispatch);
MRWL_INTERFACE_ID(IConnectionPoint, IID_IConnectionPoint);
MRWL_INTERFACE_ID(IConnectionPointContainer, IID_IConnectionPointContainer);
MRWL_INTERFACE_ID(IClassFactory, IID_IClassFactory);
