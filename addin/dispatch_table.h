// Descriptions of dispatch interfaces, standing in for type libraries: the name, dispid and
// argument types of each member and a function that calls it through the virtual table. The four
// views of Addin answer GetIDsOfNames from their own description and share one Invoke that routes
// by dispid (addin.h).
//
// A description is a constant table; its functions may be called from any thread. Invoke calls
// into the object on the caller's thread and lets the object's exceptions through.
#pragma once

#include <span>
#include <string_view>

#include "platform/com.h"

namespace mrwl {

// The arguments of a member can be at most this many.
inline constexpr UINT kMaxDispatchArgs = 4;

// The argument types a member may declare. kAnyArray stands for the SAFEARRAY** of the
// IDTExtensibility2 members: any value is taken and the array, if it is one, passed on.
inline constexpr VARTYPE kAnyArray = VT_ARRAY | VT_VARIANT | VT_BYREF;

struct DispatchParam {
  std::u16string_view name;
  VARTYPE type;  // VT_DISPATCH, VT_UNKNOWN, VT_BSTR, VT_I4 or kAnyArray
};

// Calls the member on `target` (the view that the description belongs to, as IDispatch) with the
// arguments already coerced to the declared types, in declaration order. A member with an
// [out, retval] argument writes it to `result`, which is VT_EMPTY on entry and never null.
using DispatchInvoker = HRESULT (*)(IDispatch* target, VARIANT* args, VARIANT* result);

struct DispatchMember {
  std::u16string_view name;
  DISPID dispid;
  std::span<const DispatchParam> params;
  VARTYPE result;  // VT_EMPTY for none; else the type of the [out, retval] argument
  DispatchInvoker invoke;
};

class DispatchTable {
 public:
  constexpr DispatchTable(const IID& iid, const GUID& library, WORD major, WORD minor,
                          std::span<const DispatchMember> members) noexcept
      : iid_(iid), library_(library), major_(major), minor_(minor), members_(members) {}

  [[nodiscard]] const IID& Iid() const noexcept { return iid_; }
  [[nodiscard]] const GUID& Library() const noexcept { return library_; }
  [[nodiscard]] WORD MajorVersion() const noexcept { return major_; }
  [[nodiscard]] WORD MinorVersion() const noexcept { return minor_; }
  [[nodiscard]] std::span<const DispatchMember> Members() const noexcept { return members_; }

  // The member of `dispid`, or null.
  [[nodiscard]] const DispatchMember* Find(DISPID dispid) const noexcept;

  // The member's dispid for names[0], and for the further names the positions of the member's
  // parameters, all compared without regard to case. S_OK; DISP_E_UNKNOWNNAME when a name is not
  // found (its id is DISPID_UNKNOWN, the others are still filled); E_INVALIDARG for null arrays.
  HRESULT GetIDsOfNames(LPOLESTR* names, UINT count, DISPID* ids) const noexcept;

  // Calls member `dispid` on `target` as ITypeInfo::Invoke would. DISP_E_MEMBERNOTFOUND for a
  // dispid not in the table or a call that is not DISPATCH_METHOD; DISP_E_NONAMEDARGS (0x80020007)
  // for named arguments; DISP_E_BADPARAMCOUNT when the count differs from the declared one; a
  // failed coercion's code with *argError the index in rgvarg. The arguments stand in reverse
  // order in params->rgvarg. A member that answers a failure gives DISP_E_EXCEPTION with the
  // failure in exception->scode. On success the [out, retval] value goes to `result`, when given.
  // The member's exceptions pass through.
  HRESULT Invoke(IDispatch* target, DISPID dispid, WORD flags, DISPPARAMS* params, VARIANT* result,
                 EXCEPINFO* exception, UINT* argError) const;

 private:
  const IID& iid_;
  const GUID& library_;
  WORD major_;
  WORD minor_;
  std::span<const DispatchMember> members_;
};

// Writes `argument` (dereferenced if by reference) as type `type` into `out`, which must be
// VT_EMPTY. Interfaces are coerced by QueryInterface (a null pointer stays null); other scalar
// types by VariantChangeType. The coercion's failure code, DISP_E_TYPEMISMATCH where it has none.
HRESULT CoerceArgument(const VARIANT& argument, VARTYPE type, VARIANT* out) noexcept;

// Fills `exception`, when given, for a call that failed with `error`: scode is the error, the
// strings are null. Returns DISP_E_EXCEPTION.
HRESULT ReportDispatchException(EXCEPINFO* exception, HRESULT error) noexcept;

// The descriptions of the four views of Addin.
extern const DispatchTable kOutlookAddinDescription;
extern const DispatchTable kExtensibilityDescription;
extern const DispatchTable kRibbonExtensibilityDescription;
extern const DispatchTable kRibbonCallbackDescription;

}  // namespace mrwl
