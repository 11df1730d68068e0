// COM and automation types: HRESULT values, GUID, IUnknown, IDispatch, BSTR and VARIANT.
//
// On Windows these are the system's own headers. Elsewhere this header defines a binary-compatible
// subset: the same names, sizes, field orders and values, a length-prefixed BSTR whose text is
// UTF-16, reference counting and QueryInterface with the usual contracts. The BSTR and VARIANT
// services may be called from any thread.
#pragma once

#include "platform/win_types.h"

#if !defined(_WIN32)

#include <cstddef>
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

#define CO_E_CLASSSTRING (static_cast<HRESULT>(0x800401F3u))

// Calling-convention macros, empty here, so that interface implementations are written once for
// both systems.
#define STDMETHODCALLTYPE
#define STDMETHODIMP HRESULT STDMETHODCALLTYPE
#define STDMETHODIMP_(type) type STDMETHODCALLTYPE

using CHAR = char;
using SHORT = std::int16_t;
using USHORT = std::uint16_t;
using INT = int;
using FLOAT = float;
using DOUBLE = double;
using PVOID = void*;
using LPCSTR = const char*;
using ULONG_PTR = std::uintptr_t;

// ---------------------------------------------------------------------------------------------
// GUIDs

struct GUID {
  DWORD Data1;
  WORD Data2;
  WORD Data3;
  BYTE Data4[8];
};
static_assert(sizeof(GUID) == 16);

using IID = GUID;
using CLSID = GUID;
using LPIID = IID*;
using LPCLSID = CLSID*;
using LPGUID = GUID*;
using REFGUID = const GUID&;
using REFIID = const IID&;
using REFCLSID = const CLSID&;

constexpr bool IsEqualGUID(REFGUID a, REFGUID b) noexcept {
  if (a.Data1 != b.Data1 || a.Data2 != b.Data2 || a.Data3 != b.Data3) return false;
  for (int i = 0; i < 8; ++i) {
    if (a.Data4[i] != b.Data4[i]) return false;
  }
  return true;
}
constexpr bool IsEqualIID(REFIID a, REFIID b) noexcept { return IsEqualGUID(a, b); }
constexpr bool IsEqualCLSID(REFCLSID a, REFCLSID b) noexcept { return IsEqualGUID(a, b); }
constexpr bool operator==(REFGUID a, REFGUID b) noexcept { return IsEqualGUID(a, b); }

inline constexpr GUID GUID_NULL = {0, 0, 0, {0, 0, 0, 0, 0, 0, 0, 0}};
inline constexpr IID IID_NULL = GUID_NULL;
inline constexpr CLSID CLSID_NULL = GUID_NULL;
inline constexpr IID IID_IUnknown = {
    0x00000000, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr IID IID_IDispatch = {
    0x00020400, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr IID IID_IEnumVARIANT = {
    0x00020404, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};

// Writes `guid` as "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}" with upper-case digits into `text`
// of `capacity` characters. Returns 39, the characters written with the terminator, or 0 when
// the buffer is too small (nothing is written then).
int StringFromGUID2(REFGUID guid, LPOLESTR text, int capacity) noexcept;

// Reads an interface id in the braced form of StringFromGUID2 (hex digits in either case).
// S_OK, and GUID_NULL for a null text; E_INVALIDARG for any other form, with `iid` cleared.
HRESULT IIDFromString(LPCOLESTR text, LPIID iid) noexcept;

// As IIDFromString for class ids; malformed text gives CO_E_CLASSSTRING. Program ids are not
// looked up: this system has no class registry here.
HRESULT CLSIDFromString(LPCOLESTR text, LPCLSID clsid) noexcept;

// A new random GUID (version 4, RFC 4122 variant) from the system's random source. S_OK;
// E_INVALIDARG for a null pointer; E_FAIL when no random bytes can be read.
HRESULT CoCreateGuid(GUID* guid) noexcept;

// ---------------------------------------------------------------------------------------------
// IUnknown and IDispatch
//
// The virtual functions stand in the order of the Windows vtables, and nothing else is virtual,
// so that objects are laid out as COM expects. The destructors are protected: a COM object is
// destroyed by its own last Release, never through an interface pointer.

struct ITypeInfo;
struct IRecordInfo;
struct SAFEARRAY;
struct VARIANT;

struct IUnknown {
  virtual HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) = 0;
  virtual ULONG STDMETHODCALLTYPE AddRef() = 0;
  virtual ULONG STDMETHODCALLTYPE Release() = 0;

 protected:
  ~IUnknown() = default;
};
using LPUNKNOWN = IUnknown*;

#define DISPID_UNKNOWN (-1)
#define DISPID_VALUE 0
#define DISPID_PROPERTYPUT (-3)
#define DISPID_NEWENUM (-4)
#define DISPID_EVALUATE (-5)
#define DISPID_CONSTRUCTOR (-6)
#define DISPID_DESTRUCTOR (-7)
#define DISPID_COLLECT (-8)

#define DISPATCH_METHOD 0x1
#define DISPATCH_PROPERTYGET 0x2
#define DISPATCH_PROPERTYPUT 0x4
#define DISPATCH_PROPERTYPUTREF 0x8

struct DISPPARAMS {
  VARIANT* rgvarg;
  DISPID* rgdispidNamedArgs;
  UINT cArgs;
  UINT cNamedArgs;
};

struct EXCEPINFO {
  WORD wCode;
  WORD wReserved;
  BSTR bstrSource;
  BSTR bstrDescription;
  BSTR bstrHelpFile;
  DWORD dwHelpContext;
  PVOID pvReserved;
  HRESULT (*pfnDeferredFillIn)(EXCEPINFO*);
  SCODE scode;
};
using LPEXCEPINFO = EXCEPINFO*;

struct IDispatch : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT index, LCID lcid, ITypeInfo** info) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID riid, LPOLESTR* names, UINT count,
                                                  LCID lcid, DISPID* ids) = 0;
  virtual HRESULT STDMETHODCALLTYPE Invoke(DISPID member, REFIID riid, LCID lcid, WORD flags,
                                           DISPPARAMS* params, VARIANT* result,
                                           EXCEPINFO* exception, UINT* argError) = 0;

 protected:
  ~IDispatch() = default;
};
using LPDISPATCH = IDispatch*;

// ---------------------------------------------------------------------------------------------
// BSTR
//
// A BSTR points at UTF-16 text that is preceded by its length in bytes (4 bytes, directly before
// the text) and followed by a zero character; the text may hold zeros of its own. A null BSTR is
// the empty string to every function here. The caller owns what the Sys*Alloc* functions return
// and frees it with SysFreeString.

// A copy of the zero-terminated `text`; null for a null text or when memory runs out.
BSTR SysAllocString(const OLECHAR* text) noexcept;
// A string of `length` characters copied from `text` (zeros included), or left uninitialised
// when `text` is null; terminated either way. Null when memory runs out.
BSTR SysAllocStringLen(const OLECHAR* text, UINT length) noexcept;
// A string of `length` bytes copied from `bytes` (uninitialised when null), followed by a zero
// character. Its SysStringLen is length / 2.
BSTR SysAllocStringByteLen(LPCSTR bytes, UINT length) noexcept;
// Replaces *bstr with a copy of `text` (null for a null text). `text` may point into *bstr.
// TRUE on success; FALSE for a null `bstr` or when memory runs out, *bstr unchanged then.
INT SysReAllocString(BSTR* bstr, const OLECHAR* text) noexcept;
// Replaces *bstr with `length` characters of `text`; with a null `text` the old characters are
// kept as far as they reach. TRUE on success; FALSE as for SysReAllocString.
INT SysReAllocStringLen(BSTR* bstr, const OLECHAR* text, UINT length) noexcept;
void SysFreeString(BSTR bstr) noexcept;
// Length in characters (bytes / 2, rounded down); 0 for null.
UINT SysStringLen(BSTR bstr) noexcept;
// Length in bytes; 0 for null.
UINT SysStringByteLen(BSTR bstr) noexcept;

// ---------------------------------------------------------------------------------------------
// VARIANT

struct DECIMAL;
#define DECIMAL_NEG (static_cast<BYTE>(0x80))

enum VARENUM {
  VT_EMPTY = 0,
  VT_NULL = 1,
  VT_I2 = 2,
  VT_I4 = 3,
  VT_R4 = 4,
  VT_R8 = 5,
  VT_CY = 6,
  VT_DATE = 7,
  VT_BSTR = 8,
  VT_DISPATCH = 9,
  VT_ERROR = 10,
  VT_BOOL = 11,
  VT_VARIANT = 12,
  VT_UNKNOWN = 13,
  VT_DECIMAL = 14,
  VT_I1 = 16,
  VT_UI1 = 17,
  VT_UI2 = 18,
  VT_UI4 = 19,
  VT_I8 = 20,
  VT_UI8 = 21,
  VT_INT = 22,
  VT_UINT = 23,
  VT_VOID = 24,
  VT_HRESULT = 25,
  VT_PTR = 26,
  VT_SAFEARRAY = 27,
  VT_CARRAY = 28,
  VT_USERDEFINED = 29,
  VT_LPSTR = 30,
  VT_LPWSTR = 31,
  VT_RECORD = 36,
  VT_INT_PTR = 37,
  VT_UINT_PTR = 38,
  VT_FILETIME = 64,
  VT_BLOB = 65,
  VT_STREAM = 66,
  VT_STORAGE = 67,
  VT_STREAMED_OBJECT = 68,
  VT_STORED_OBJECT = 69,
  VT_BLOB_OBJECT = 70,
  VT_CF = 71,
  VT_CLSID = 72,
  VT_VERSIONED_STREAM = 73,
  VT_BSTR_BLOB = 0xfff,
  VT_VECTOR = 0x1000,
  VT_ARRAY = 0x2000,
  VT_BYREF = 0x4000,
  VT_RESERVED = 0x8000,
  VT_ILLEGAL = 0xffff,
  VT_ILLEGALMASKED = 0xfff,
  VT_TYPEMASK = 0xfff
};

// Flags of VariantChangeType.
#define VARIANT_NOVALUEPROP 0x01
#define VARIANT_ALPHABOOL 0x02
#define VARIANT_NOUSEROVERRIDE 0x04
#define VARIANT_CALENDAR_HIJRI 0x08
#define VARIANT_LOCALBOOL 0x10
#define VARIANT_CALENDAR_THAI 0x20
#define VARIANT_CALENDAR_GREGORIAN 0x40
#define VARIANT_USE_NLS 0x80

#define LOCALE_USER_DEFAULT 0x0400u
#define LOCALE_SYSTEM_DEFAULT 0x0800u
#define LOCALE_INVARIANT 0x007Fu

// The Windows structures use nameless structs inside unions, which ISO C++ lacks; every compiler
// that builds this code accepts them.
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"
#endif

struct DECIMAL {
  USHORT wReserved;
  union {
    struct {
      BYTE scale;
      BYTE sign;
    };
    USHORT signscale;
  };
  ULONG Hi32;
  union {
    struct {
      ULONG Lo32;
      ULONG Mid32;
    };
    ULONGLONG Lo64;
  };
};

union CY {
  struct {
    ULONG Lo;
    LONG Hi;
  };
  LONGLONG int64;
};

struct VARIANT {
  union {
    struct {
      VARTYPE vt;
      WORD wReserved1;
      WORD wReserved2;
      WORD wReserved3;
      union {
        LONGLONG llVal;
        LONG lVal;
        BYTE bVal;
        SHORT iVal;
        FLOAT fltVal;
        DOUBLE dblVal;
        VARIANT_BOOL boolVal;
        SCODE scode;
        CY cyVal;
        DATE date;
        BSTR bstrVal;
        IUnknown* punkVal;
        IDispatch* pdispVal;
        SAFEARRAY* parray;
        BYTE* pbVal;
        SHORT* piVal;
        LONG* plVal;
        LONGLONG* pllVal;
        FLOAT* pfltVal;
        DOUBLE* pdblVal;
        VARIANT_BOOL* pboolVal;
        SCODE* pscode;
        CY* pcyVal;
        DATE* pdate;
        BSTR* pbstrVal;
        IUnknown** ppunkVal;
        IDispatch** ppdispVal;
        SAFEARRAY** pparray;
        VARIANT* pvarVal;
        PVOID byref;
        CHAR cVal;
        USHORT uiVal;
        ULONG ulVal;
        ULONGLONG ullVal;
        INT intVal;
        UINT uintVal;
        DECIMAL* pdecVal;
        CHAR* pcVal;
        USHORT* puiVal;
        ULONG* pulVal;
        ULONGLONG* pullVal;
        INT* pintVal;
        UINT* puintVal;
        struct {
          PVOID pvRecord;
          IRecordInfo* pRecInfo;
        };
      };
    };
    DECIMAL decVal;
  };
};

#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

using VARIANTARG = VARIANT;
using LPVARIANT = VARIANT*;
using LPVARIANTARG = VARIANT*;

static_assert(sizeof(DECIMAL) == 16);
static_assert(sizeof(CY) == 8);
static_assert(offsetof(VARIANT, vt) == 0);
static_assert(offsetof(VARIANT, wReserved3) == 6);
static_assert(offsetof(VARIANT, lVal) == 8);
static_assert(offsetof(VARIANT, bstrVal) == 8);
static_assert(offsetof(VARIANT, decVal) == 0);
static_assert(offsetof(VARIANT, pRecInfo) == 8 + sizeof(void*));
static_assert(sizeof(void*) != 8 || sizeof(VARIANT) == 24);
static_assert(sizeof(void*) != 4 || sizeof(VARIANT) == 16);

#define V_VT(v) ((v)->vt)
#define V_ISBYREF(v) ((V_VT(v) & VT_BYREF) != 0)
#define V_ISARRAY(v) ((V_VT(v) & VT_ARRAY) != 0)
#define V_I1(v) ((v)->cVal)
#define V_UI1(v) ((v)->bVal)
#define V_I2(v) ((v)->iVal)
#define V_UI2(v) ((v)->uiVal)
#define V_I4(v) ((v)->lVal)
#define V_UI4(v) ((v)->ulVal)
#define V_I8(v) ((v)->llVal)
#define V_UI8(v) ((v)->ullVal)
#define V_INT(v) ((v)->intVal)
#define V_UINT(v) ((v)->uintVal)
#define V_R4(v) ((v)->fltVal)
#define V_R8(v) ((v)->dblVal)
#define V_DATE(v) ((v)->date)
#define V_CY(v) ((v)->cyVal)
#define V_BOOL(v) ((v)->boolVal)
#define V_ERROR(v) ((v)->scode)
#define V_BSTR(v) ((v)->bstrVal)
#define V_UNKNOWN(v) ((v)->punkVal)
#define V_DISPATCH(v) ((v)->pdispVal)
#define V_DECIMAL(v) ((v)->decVal)
#define V_ARRAY(v) ((v)->parray)
#define V_BYREF(v) ((v)->byref)
#define V_VARIANTREF(v) ((v)->pvarVal)
#define V_BSTRREF(v) ((v)->pbstrVal)

// Sets the type to VT_EMPTY; the other fields are left as they are.
void VariantInit(VARIANTARG* variant) noexcept;

// Frees what the variant owns (a BSTR, a reference on an interface) and sets VT_EMPTY; by-
// reference values own nothing. DISP_E_BADVARTYPE, with the variant unchanged, for a type that
// is not valid in a VARIANT, and for arrays and records, which this backend cannot own (an
// array or record whose pointer is null is cleared).
HRESULT VariantClear(VARIANTARG* variant) noexcept;

// Clears `dest`, then copies `source` into it: a BSTR is duplicated and an interface gets a
// reference; by-reference values copy the pointer only. Copying a variant onto itself does
// nothing. DISP_E_BADVARTYPE for an invalid source type; E_OUTOFMEMORY.
HRESULT VariantCopy(VARIANTARG* dest, VARIANTARG* source) noexcept;

// As VariantCopy, but a by-reference source is copied as the value it points to (one level of
// VT_VARIANT | VT_BYREF is followed). E_INVALIDARG for a by-reference type that cannot be
// dereferenced.
HRESULT VariantCopyInd(VARIANT* dest, VARIANTARG* source) noexcept;

// Converts `source` (dereferenced first when by reference) to type `type` into `dest`, which may
// be `source` itself. Conversions follow the Windows rules in the English locale: integers
// narrow with DISP_E_OVERFLOW and round half to even from reals; VT_BOOL is VARIANT_TRUE (-1) or
// VARIANT_FALSE; text is parsed as an optionally signed decimal number with thousands commas,
// a point and an exponent, surrounded by blanks, or as "True"/"False" for VT_BOOL; reals become
// text with 15 (VT_R4: 7) significant digits; VT_BOOL becomes "-1"/"0", or "True"/"False" with
// VARIANT_ALPHABOOL or VARIANT_LOCALBOOL; VT_EMPTY becomes 0 or ""; VT_NULL converts to nothing
// but VT_NULL (DISP_E_TYPEMISMATCH); VT_DISPATCH becomes a scalar through its value property
// (DISPID_VALUE), unless VARIANT_NOVALUEPROP is given, and VT_UNKNOWN becomes VT_DISPATCH
// through QueryInterface. Dates convert as numbers; text to and from VT_DATE, arrays and records
// are not supported here (DISP_E_TYPEMISMATCH, DISP_E_BADVARTYPE).
// On success `dest` was cleared and holds the result; on failure `dest` is left as it was.
HRESULT VariantChangeType(VARIANTARG* dest, VARIANTARG* source, USHORT flags,
                          VARTYPE type) noexcept;
// As VariantChangeType; every locale is treated as English.
HRESULT VariantChangeTypeEx(VARIANTARG* dest, VARIANTARG* source, LCID lcid, USHORT flags,
                            VARTYPE type) noexcept;


// ---------------------------------------------------------------------------------------------
// Connection points, class objects and task memory

struct IEnumConnections;
struct IEnumConnectionPoints;
struct IConnectionPointContainer;

inline constexpr IID IID_IConnectionPoint = {
    0xB196B286, 0xBAB4, 0x101A, {0xB6, 0x9C, 0x00, 0xAA, 0x00, 0x34, 0x1D, 0x07}};
inline constexpr IID IID_IConnectionPointContainer = {
    0xB196B284, 0xBAB4, 0x101A, {0xB6, 0x9C, 0x00, 0xAA, 0x00, 0x34, 0x1D, 0x07}};
inline constexpr IID IID_IClassFactory = {
    0x00000001, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr IID IID_IPictureDisp = {
    0x7BF80981, 0xBF32, 0x101A, {0x8B, 0xBB, 0x00, 0xAA, 0x00, 0x30, 0x0C, 0xAB}};

#define CONNECT_E_NOCONNECTION (static_cast<HRESULT>(0x80040200u))
#define CONNECT_E_ADVISELIMIT (static_cast<HRESULT>(0x80040201u))
#define CONNECT_E_CANNOTCONNECT (static_cast<HRESULT>(0x80040202u))
#define REGDB_E_CLASSNOTREG (static_cast<HRESULT>(0x80040154u))
#define CO_E_OBJNOTREG (static_cast<HRESULT>(0x800401FBu))

// One outgoing interface of an object: sinks are advised with a cookie and unadvised by it.
struct IConnectionPoint : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE GetConnectionInterface(IID* iid) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetConnectionPointContainer(
      IConnectionPointContainer** container) = 0;
  virtual HRESULT STDMETHODCALLTYPE Advise(IUnknown* sink, DWORD* cookie) = 0;
  virtual HRESULT STDMETHODCALLTYPE Unadvise(DWORD cookie) = 0;
  virtual HRESULT STDMETHODCALLTYPE EnumConnections(IEnumConnections** connections) = 0;

 protected:
  ~IConnectionPoint() = default;
};

struct IConnectionPointContainer : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE EnumConnectionPoints(IEnumConnectionPoints** points) = 0;
  virtual HRESULT STDMETHODCALLTYPE FindConnectionPoint(REFIID iid, IConnectionPoint** point) = 0;

 protected:
  ~IConnectionPointContainer() = default;
};

struct IClassFactory : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID iid,
                                                   void** object) = 0;
  virtual HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) = 0;

 protected:
  ~IClassFactory() = default;
};

// A picture for automation clients. This backend has no pictures of the system's; the ribbon's
// images implement it over decoded bitmaps.
struct IPictureDisp : IDispatch {
 protected:
  ~IPictureDisp() = default;
};

#define CLSCTX_INPROC_SERVER 0x1
#define CLSCTX_LOCAL_SERVER 0x4
#define CLSCTX_REMOTE_SERVER 0x10
#define CLSCTX_ALL (CLSCTX_INPROC_SERVER | CLSCTX_LOCAL_SERVER | CLSCTX_REMOTE_SERVER)
#define REGCLS_MULTIPLEUSE 1

// Creates an object of class `clsid` through the class object registered for it in this process.
// REGDB_E_CLASSNOTREG when none is: this backend has no class registry beyond the process, so
// a class of the system (the shell's file dialogs, for one) exists only where a part of this
// system registers it. CLASS_E_NOAGGREGATION for an outer object.
HRESULT CoCreateInstance(REFCLSID clsid, IUnknown* outer, DWORD context, REFIID iid,
                         void** object) noexcept;
// Makes `factory` the class object of `clsid` for this process, taking a reference; *cookie
// receives the number that revokes it. A second registration of the same class hides the first
// until it is revoked.
HRESULT CoRegisterClassObject(REFCLSID clsid, IUnknown* factory, DWORD context, DWORD flags,
                              DWORD* cookie) noexcept;
// Withdraws a registration and releases its class object; CO_E_OBJNOTREG for an unknown cookie.
HRESULT CoRevokeClassObject(DWORD cookie) noexcept;

// Memory that crosses an interface: out-parameter strings of the shell interfaces.
void* CoTaskMemAlloc(SIZE_T size) noexcept;
void CoTaskMemFree(void* block) noexcept;

#endif  // !_WIN32

namespace mrwl {

// The logic's UTF-16 text as the system's wide characters and back. Both are 16-bit units on
// either system; only the type differs on Windows.
[[nodiscard]] inline const OLECHAR* OleText(const char16_t* text) noexcept {
  return reinterpret_cast<const OLECHAR*>(text);
}
[[nodiscard]] inline const char16_t* U16Text(const OLECHAR* text) noexcept {
  return reinterpret_cast<const char16_t*>(text);
}

}  // namespace mrwl
