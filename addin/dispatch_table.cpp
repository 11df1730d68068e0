// Dispatch descriptions and the shared machinery behind GetIDsOfNames and Invoke.
#include "addin/dispatch_table.h"

#include <cstddef>

#include "addin/addin_guids.h"
#include "addin/addin_interfaces.h"
#include "foundation/wide_string.h"
#include "platform/com_ptr.h"
#include "platform/office.h"

namespace mrwl {

namespace {

constexpr HRESULT kNoNamedArgs = static_cast<HRESULT>(0x80020007u);  // DISP_E_NONAMEDARGS

std::u16string_view NameOf(LPOLESTR name) noexcept {
  if (name == nullptr) return {};
  const char16_t* text = U16Text(name);
  std::size_t length = 0;
  while (text[length] != 0) ++length;
  return {text, length};
}

// The object of an interface argument as `type`: an object without IDispatch cannot be one.
HRESULT CoerceInterface(IUnknown* object, VARTYPE type, VARIANT* out) noexcept {
  *out = MakeObjectVariant(object, type);
  if (type == VT_DISPATCH && object != nullptr && out->pdispVal == nullptr) {
    out->vt = VT_EMPTY;
    return DISP_E_TYPEMISMATCH;
  }
  return S_OK;
}

// --- Invokers --------------------------------------------------------------------------------
//
// Each casts the view back from IDispatch; the view derives from IDispatch alone, so the cast
// is exact.

template <typename View>
View* ViewOf(IDispatch* target) noexcept {
  return static_cast<View*>(target);
}

SAFEARRAY** ArrayOf(const VARIANT& argument) noexcept {
  return argument.vt == kAnyArray ? argument.pparray : nullptr;
}

// IOutlookAddin: the primary view. Its interface is not in the type library, so the description
// is empty: no name resolves and no dispid is found.
constexpr std::span<const DispatchMember> kOutlookAddinMembers{};

// IDTExtensibility2, as its type library describes it.
constexpr DispatchParam kOnConnectionParams[] = {{u"Application", VT_DISPATCH},
                                                 {u"ConnectMode", VT_I4},
                                                 {u"AddInInst", VT_DISPATCH},
                                                 {u"custom", kAnyArray}};
constexpr DispatchParam kOnDisconnectionParams[] = {{u"RemoveMode", VT_I4}, {u"custom", kAnyArray}};
constexpr DispatchParam kCustomParams[] = {{u"custom", kAnyArray}};

const DispatchMember kExtensibilityMembers[] = {
    {u"OnConnection", office::DISPID_OnConnection, kOnConnectionParams, VT_EMPTY,
     [](IDispatch* target, VARIANT* args, VARIANT*) {
       return ViewOf<office::IDTExtensibility2>(target)->OnConnection(
           args[0].pdispVal, static_cast<office::ext_ConnectMode>(args[1].lVal), args[2].pdispVal,
           ArrayOf(args[3]));
     }},
    {u"OnDisconnection", office::DISPID_OnDisconnection, kOnDisconnectionParams, VT_EMPTY,
     [](IDispatch* target, VARIANT* args, VARIANT*) {
       return ViewOf<office::IDTExtensibility2>(target)->OnDisconnection(
           static_cast<office::ext_DisconnectMode>(args[0].lVal), ArrayOf(args[1]));
     }},
    {u"OnAddInsUpdate", office::DISPID_OnAddInsUpdate, kCustomParams, VT_EMPTY,
     [](IDispatch* target, VARIANT* args, VARIANT*) {
       return ViewOf<office::IDTExtensibility2>(target)->OnAddInsUpdate(ArrayOf(args[0]));
     }},
    {u"OnStartupComplete", office::DISPID_OnStartupComplete, kCustomParams, VT_EMPTY,
     [](IDispatch* target, VARIANT* args, VARIANT*) {
       return ViewOf<office::IDTExtensibility2>(target)->OnStartupComplete(ArrayOf(args[0]));
     }},
    {u"OnBeginShutdown", office::DISPID_OnBeginShutdown, kCustomParams, VT_EMPTY,
     [](IDispatch* target, VARIANT* args, VARIANT*) {
       return ViewOf<office::IDTExtensibility2>(target)->OnBeginShutdown(ArrayOf(args[0]));
     }},
};

// IRibbonExtensibility.
constexpr DispatchParam kGetCustomUIParams[] = {{u"RibbonID", VT_BSTR}};

const DispatchMember kRibbonExtensibilityMembers[] = {
    {u"GetCustomUI", office::DISPID_GetCustomUI, kGetCustomUIParams, VT_BSTR,
     [](IDispatch* target, VARIANT* args, VARIANT* result) {
       BSTR xml = nullptr;
       const HRESULT hr =
           ViewOf<office::IRibbonExtensibility>(target)->GetCustomUI(args[0].bstrVal, &xml);
       result->vt = VT_BSTR;
       result->bstrVal = xml;
       return hr;
     }},
};

// IRibbonCallback, as this add-in's type library describes it.
constexpr DispatchParam kControlParams[] = {{u"pControl", VT_UNKNOWN}};
constexpr DispatchParam kOnRibbonLoadedParams[] = {{u"pRibbonUI", VT_UNKNOWN}};
constexpr DispatchParam kRibbonHandlerParams[] = {{u"ribbonControl", VT_DISPATCH}};

const DispatchMember kRibbonCallbackMembers[] = {
    {u"GetImage", DISPID_GetImage, kControlParams, VT_DISPATCH,
     [](IDispatch* target, VARIANT* args, VARIANT* result) {
       IPictureDisp* image = nullptr;
       const HRESULT hr = ViewOf<IRibbonCallback>(target)->GetImage(args[0].punkVal, &image);
       result->vt = VT_DISPATCH;
       result->pdispVal = image;
       return hr;
     }},
    {u"GetEnabled", DISPID_GetEnabled, kControlParams, VT_I4,
     [](IDispatch* target, VARIANT* args, VARIANT* result) {
       LONG enabled = 0;
       const HRESULT hr = ViewOf<IRibbonCallback>(target)->GetEnabled(args[0].punkVal, &enabled);
       result->vt = VT_I4;
       result->lVal = enabled;
       return hr;
     }},
    {u"OnRibbonLoaded", DISPID_OnRibbonLoaded, kOnRibbonLoadedParams, VT_EMPTY,
     [](IDispatch* target, VARIANT* args, VARIANT*) {
       return ViewOf<IRibbonCallback>(target)->OnRibbonLoaded(args[0].punkVal);
     }},
    {u"RibbonHandler", DISPID_RibbonHandler, kRibbonHandlerParams, VT_EMPTY,
     [](IDispatch* target, VARIANT* args, VARIANT*) {
       return ViewOf<IRibbonCallback>(target)->RibbonHandler(args[0].pdispVal);
     }},
};

}  // namespace

const DispatchTable kOutlookAddinDescription(IID_IOutlookAddin, LIBID_OutlookAddinLib,
                                             kOutlookAddinLibMajor, kOutlookAddinLibMinor,
                                             kOutlookAddinMembers);
const DispatchTable kExtensibilityDescription(office::IID_IDTExtensibility2,
                                              office::LIBID_AddInDesignerObjects, 1, 0,
                                              kExtensibilityMembers);
const DispatchTable kRibbonExtensibilityDescription(office::IID_IRibbonExtensibility,
                                                    office::LIBID_Office, 2, 5,
                                                    kRibbonExtensibilityMembers);
const DispatchTable kRibbonCallbackDescription(IID_IRibbonCallback, LIBID_OutlookAddinLib,
                                               kOutlookAddinLibMajor, kOutlookAddinLibMinor,
                                               kRibbonCallbackMembers);

const DispatchMember* DispatchTable::Find(DISPID dispid) const noexcept {
  for (const DispatchMember& member : members_) {
    if (member.dispid == dispid) return &member;
  }
  return nullptr;
}

HRESULT DispatchTable::GetIDsOfNames(LPOLESTR* names, UINT count, DISPID* ids) const noexcept {
  if (count == 0) return S_OK;
  if (names == nullptr || ids == nullptr) return E_INVALIDARG;
  for (UINT i = 0; i < count; ++i) ids[i] = DISPID_UNKNOWN;
  const DispatchMember* found = nullptr;
  for (const DispatchMember& member : members_) {
    if (EqualsNoCase(member.name, NameOf(names[0]))) {
      found = &member;
      break;
    }
  }
  if (found == nullptr) return DISP_E_UNKNOWNNAME;
  ids[0] = found->dispid;
  HRESULT result = S_OK;
  for (UINT i = 1; i < count; ++i) {
    for (std::size_t p = 0; p < found->params.size(); ++p) {
      if (EqualsNoCase(found->params[p].name, NameOf(names[i]))) {
        ids[i] = static_cast<DISPID>(p);
        break;
      }
    }
    if (ids[i] == DISPID_UNKNOWN) result = DISP_E_UNKNOWNNAME;
  }
  return result;
}

HRESULT DispatchTable::Invoke(IDispatch* target, DISPID dispid, WORD flags, DISPPARAMS* params,
                              VARIANT* result, EXCEPINFO* exception, UINT* argError) const {
  const DispatchMember* member = Find(dispid);
  if (member == nullptr || (flags & DISPATCH_METHOD) == 0) return DISP_E_MEMBERNOTFOUND;
  const UINT argCount = params != nullptr ? params->cArgs : 0;
  if (params != nullptr && params->cNamedArgs != 0) return kNoNamedArgs;
  if (argCount != member->params.size()) return DISP_E_BADPARAMCOUNT;
  if (argCount > 0 && params->rgvarg == nullptr) return E_INVALIDARG;

  UniqueVariant args[kMaxDispatchArgs];
  for (UINT i = 0; i < argCount; ++i) {
    const UINT position = argCount - 1 - i;  // rgvarg holds the last argument first
    const HRESULT hr =
        CoerceArgument(params->rgvarg[position], member->params[i].type, args[i].get());
    if (FAILED(hr)) {
      if (argError != nullptr) *argError = position;
      return hr;
    }
  }
  VARIANT raw[kMaxDispatchArgs];
  for (UINT i = 0; i < argCount; ++i) raw[i] = *args[i].get();

  UniqueVariant value;
  const HRESULT hr = member->invoke(target, raw, value.get());
  if (FAILED(hr)) return ReportDispatchException(exception, hr);
  if (result != nullptr && member->result != VT_EMPTY) {
    VariantInit(result);
    *result = value.release();
  }
  return hr;
}

HRESULT CoerceArgument(const VARIANT& argument, VARTYPE type, VARIANT* out) noexcept {
  if (type == kAnyArray) {
    *out = argument;  // passed on as it stands, owning nothing: by-reference or ignored
    if (argument.vt != kAnyArray) out->vt = VT_EMPTY;
    return S_OK;
  }
  const VARIANT* value = &argument;
  if (argument.vt == (VT_VARIANT | VT_BYREF)) {
    if (argument.pvarVal == nullptr) return DISP_E_TYPEMISMATCH;
    value = argument.pvarVal;
  }
  if (type == VT_DISPATCH || type == VT_UNKNOWN) {
    switch (value->vt) {
      case VT_DISPATCH:
        return CoerceInterface(value->pdispVal, type, out);
      case VT_UNKNOWN:
        return CoerceInterface(value->punkVal, type, out);
      case VT_DISPATCH | VT_BYREF:
        return CoerceInterface(value->ppdispVal != nullptr ? *value->ppdispVal : nullptr, type,
                               out);
      case VT_UNKNOWN | VT_BYREF:
        return CoerceInterface(value->ppunkVal != nullptr ? *value->ppunkVal : nullptr, type, out);
      default:
        return DISP_E_TYPEMISMATCH;
    }
  }
  VARIANT source = *value;
  const HRESULT hr = VariantChangeType(out, &source, 0, type);
  return FAILED(hr) ? hr : S_OK;
}

HRESULT ReportDispatchException(EXCEPINFO* exception, HRESULT error) noexcept {
  if (exception != nullptr) {
    exception->wCode = 0;
    exception->wReserved = 0;
    exception->bstrSource = nullptr;
    exception->bstrDescription = nullptr;
    exception->bstrHelpFile = nullptr;
    exception->dwHelpContext = 0;
    exception->pvReserved = nullptr;
    exception->pfnDeferredFillIn = nullptr;
    exception->scode = error;
  }
  return DISP_E_EXCEPTION;
}

}  // namespace mrwl
