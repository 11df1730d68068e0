// COM and automation types: HRESULT values, GUID, IUnknown, IDispatch, BSTR and VARIANT.
//
// On Windows these are the system's own headers. Elsewhere this header defines a binary-compatible
// subset: the same names, sizes, field orders and values, a length-prefixed BSTR whose text is
// UTF-16, reference counting and QueryInterface with the usual contracts. The BSTR and VARIANT
// services may be called from any thread.
#pragma once

#include "platform/win_types.h"

#if !defined(_WIN32)

#include <cstdint>

using SCODE = LONG;
using OLECHAR = char16_t;
using BSTR = OLECHAR*;
using LPOLESTR = OLECHAR*;
using LPCOLESTR = const OLECHAR*;
using VARTYPE = std::uint16_t;
using VARIANT_BOOL = std::int16_t;
using DISPID = LONG;
using MEMBERID = DISPID;
using DATE = double;

#define VARIANT_TRUE (static_cast<VARIANT_BOOL>(-1))
#define VARIANT_FALSE (static_cast<VARIANT_BOOL>(0))

#define SUCCEEDED(hr) (static_cast<HRESULT>(hr) >= 0)
#define FAILED(hr) (static_cast<HRESULT>(hr) < 0)

#define S_OK (static_cast<HRESULT>(0))
#define S_FALSE (static_cast<HRESULT>(1))
#define E_NOTIMPL (static_cast<HRESULT>(0x80004001u))
#define E_NOINTERFACE (static_cast<HRESULT>(0x80004002u))
#define E_POINTER (static_cast<HRESULT>(0x80004003u))
#define E_ABORT (static_cast<HRESULT>(0x80004004u))
#define E_FAIL (static_cast<HRESULT>(0x80004005u))
#define E_UNEXPECTED (static_cast<HRESULT>(0x8000FFFFu))
#define E_ACCESSDENIED (static_cast<HRESULT>(0x80070005u))
#define E_HANDLE (static_cast<HRESULT>(0x80070006u))
#define E_OUTOFMEMORY (static_cast<HRESULT>(0x8007000Eu))
#define E_INVALIDARG (static_cast<HRESULT>(0x80070057u))
#define CLASS_E_NOAGGREGATION (static_cast<HRESULT>(0x80040110u))
#define CLASS_E_CLASSNOTAVAILABLE (static_cast<HRESULT>(0x80040111u))
#define DISP_E_UNKNOWNINTERFACE (static_cast<HRESULT>(0x80020001u))
#define DISP_E_MEMBERNOTFOUND (static_cast<HRESULT>(0x80020003u))
#define DISP_E_PARAMNOTFOUND (static_cast<HRESULT>(0x80020004u))
#define DISP_E_TYPEMISMATCH (static_cast<HRESULT>(0x80020005u))
#define DISP_E_UNKNOWNNAME (static_cast<HRESULT>(0x80020006u))
#define DISP_E_BADVARTYPE (static_cast<HRESULT>(0x80020008u))
#define DISP_E_EXCEPTION (static_cast<HRESULT>(0x80020009u))
#define DISP_E_OVERFLOW (static_cast<HRESULT>(0x8002000Au))
#define DISP_E_BADINDEX (static_cast<HRESULT>(0x8002000Bu))
#define DISP_E_BADPARAMCOUNT (static_cast<HRESULT>(0x8002000Eu))
#define SEC_E_DECRYPT_FAILURE (static_cast<HRESULT>(0x80090330u))

// A system error number as an HRESULT, as HRESULT_FROM_WIN32 does.
constexpr HRESULT HRESULT_FROM_WIN32(unsigned long error) {
  return static_cast<HRESULT>(error) <= 0
             ? static_cast<HRESULT>(error)
             : static_cast<HRESULT>((error & 0x0000FFFFu) | (7u << 16) | 0x80000000u);
}

#endif  // !_WIN32
