#include "platform/com.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "platform/com_ptr.h"

namespace {

using mrwl::BstrView;
using mrwl::ComPtr;
using mrwl::MakeBstr;
using mrwl::UniqueBstr;
using mrwl::UniqueVariant;

// A dispatch object that counts its references and answers DISPID_VALUE with a fixed text.
class CountingObject final : public IDispatch {
 public:
  explicit CountingObject(bool offersDispatch = true, const char16_t* value = nullptr)
      : offersDispatch_(offersDispatch), value_(value) {}

  HRESULT QueryInterface(REFIID iid, void** out) override {
    if (out == nullptr) return E_POINTER;
    if (iid == IID_IUnknown || (offersDispatch_ && iid == IID_IDispatch)) {
      *out = static_cast<IDispatch*>(this);
      AddRef();
      return S_OK;
    }
    *out = nullptr;
    return E_NOINTERFACE;
  }
  ULONG AddRef() override { return ++refs_; }
  ULONG Release() override { return --refs_; }
  HRESULT GetTypeInfoCount(UINT* count) override {
    *count = 0;
    return S_OK;
  }
  HRESULT GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
  HRESULT GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
  HRESULT Invoke(DISPID member, REFIID, LCID, WORD flags, DISPPARAMS* params, VARIANT* result,
                 EXCEPINFO*, UINT*) override {
    lastMember_ = member;
    lastFlags_ = flags;
    lastArgCount_ = params == nullptr ? 99 : params->cArgs;
    if (value_ == nullptr || result == nullptr) return DISP_E_MEMBERNOTFOUND;
    result->vt = VT_BSTR;
    result->bstrVal = SysAllocString(value_);
    return S_OK;
  }

  // References beyond the one the test itself holds.
  ULONG extra() const { return refs_ - 1; }
  DISPID lastMember() const { return lastMember_; }
  WORD lastFlags() const { return lastFlags_; }
  UINT lastArgCount() const { return lastArgCount_; }

 private:
  ULONG refs_ = 1;
  bool offersDispatch_;
  const char16_t* value_;
  DISPID lastMember_ = DISPID_UNKNOWN;
  WORD lastFlags_ = 0;
  UINT lastArgCount_ = 0;
};

std::uint32_t PrefixOf(BSTR bstr) {
  std::uint32_t prefix = 0;
  std::memcpy(&prefix, reinterpret_cast<const char*>(bstr) - 4, sizeof prefix);
  return prefix;
}

// ---------------------------------------------------------------------------------------------
// BSTR

TEST(Bstr, LengthPrefixSitsBeforeTerminatedText) {
  BSTR b = SysAllocString(u"abc");
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(PrefixOf(b), 6u);
  EXPECT_EQ(SysStringLen(b), 3u);
  EXPECT_EQ(SysStringByteLen(b), 6u);
  EXPECT_EQ(b[3], u'\0');
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(b) % 8, 0u);
  SysFreeString(b);
}

TEST(Bstr, NullIsTheEmptyString) {
  EXPECT_EQ(SysAllocString(nullptr), nullptr);
  EXPECT_EQ(SysStringLen(nullptr), 0u);
  EXPECT_EQ(SysStringByteLen(nullptr), 0u);
  SysFreeString(nullptr);
  BSTR empty = SysAllocString(u"");
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(SysStringLen(empty), 0u);
  EXPECT_EQ(empty[0], u'\0');
  SysFreeString(empty);
}

TEST(Bstr, EmbeddedZerosCountInTheLength) {
  const char16_t text[] = {u'a', 0, u'b', 0, u'c'};
  BSTR b = SysAllocStringLen(text, 5);
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(SysStringLen(b), 5u);
  EXPECT_EQ(BstrView(b), std::u16string_view(text, 5));
  EXPECT_EQ(b[5], u'\0');
  SysFreeString(b);
}

TEST(Bstr, ByteLengthMayBeOddAndIsTerminated) {
  BSTR b = SysAllocStringByteLen("abc", 3);
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(SysStringByteLen(b), 3u);
  EXPECT_EQ(SysStringLen(b), 1u);
  const char* bytes = reinterpret_cast<const char*>(b);
  EXPECT_EQ(std::string(bytes, 3), "abc");
  EXPECT_EQ(bytes[3], 0);
  EXPECT_EQ(bytes[4], 0);
  SysFreeString(b);
}

TEST(Bstr, UninitialisedAllocationIsStillTerminated) {
  BSTR b = SysAllocStringLen(nullptr, 4);
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(SysStringLen(b), 4u);
  EXPECT_EQ(b[4], u'\0');
  SysFreeString(b);
  EXPECT_EQ(SysAllocStringLen(nullptr, 0x80000000u), nullptr);
}

TEST(Bstr, ReallocationAcceptsTextInsideTheOldString) {
  BSTR b = SysAllocString(u"hello");
  ASSERT_TRUE(SysReAllocString(&b, b + 2));
  EXPECT_EQ(BstrView(b), u"llo");
  ASSERT_TRUE(SysReAllocStringLen(&b, b, 2));
  EXPECT_EQ(BstrView(b), u"ll");
  ASSERT_TRUE(SysReAllocString(&b, nullptr));
  EXPECT_EQ(b, nullptr);
  EXPECT_FALSE(SysReAllocString(nullptr, u"x"));
  EXPECT_FALSE(SysReAllocStringLen(nullptr, u"x", 1));
}

TEST(Bstr, ReallocationWithoutTextKeepsTheOldCharacters) {
  BSTR b = SysAllocString(u"hello");
  ASSERT_TRUE(SysReAllocStringLen(&b, nullptr, 3));
  EXPECT_EQ(BstrView(b), u"hel");
  ASSERT_TRUE(SysReAllocStringLen(&b, nullptr, 6));
  EXPECT_EQ(SysStringLen(b), 6u);
  EXPECT_EQ(BstrView(b).substr(0, 3), u"hel");
  EXPECT_EQ(b[6], u'\0');
  SysFreeString(b);
}

// ---------------------------------------------------------------------------------------------
// VARIANT copying and clearing

TEST(Variant, LayoutMatchesWindows) {
  EXPECT_EQ(sizeof(VARIANT), 24u);
  EXPECT_EQ(offsetof(VARIANT, llVal), 8u);
  EXPECT_EQ(offsetof(VARIANT, pvRecord), 8u);
  EXPECT_EQ(offsetof(VARIANT, pRecInfo), 16u);
  EXPECT_EQ(offsetof(DECIMAL, Hi32), 4u);
  EXPECT_EQ(offsetof(DECIMAL, Lo64), 8u);
  EXPECT_EQ(offsetof(DISPPARAMS, cArgs), 16u);
}

TEST(Variant, CopyDuplicatesStringsAndAddsReferences) {
  CountingObject object;
  UniqueVariant text;
  text->vt = VT_BSTR;
  text->bstrVal = SysAllocString(u"copy me");
  UniqueVariant copy;
  ASSERT_EQ(VariantCopy(copy.get(), text.get()), S_OK);
  EXPECT_NE(copy->bstrVal, text->bstrVal);
  text.reset();
  EXPECT_EQ(BstrView(copy->bstrVal), u"copy me");

  UniqueVariant unknown;
  unknown->vt = VT_UNKNOWN;
  unknown->punkVal = &object;
  object.AddRef();
  // The copy lands on a variant that holds a string; that string must be freed, not leaked.
  ASSERT_EQ(VariantCopy(copy.get(), unknown.get()), S_OK);
  EXPECT_EQ(copy->vt, VT_UNKNOWN);
  EXPECT_EQ(object.extra(), 2u);
  ASSERT_EQ(VariantClear(copy.get()), S_OK);
  EXPECT_EQ(copy->vt, VT_EMPTY);
  EXPECT_EQ(object.extra(), 1u);
  unknown.reset();
  EXPECT_EQ(object.extra(), 0u);
}

TEST(Variant, CopyOntoItselfChangesNothing) {
  CountingObject object;
  VARIANT v;
  v.vt = VT_DISPATCH;
  v.pdispVal = &object;
  object.AddRef();
  EXPECT_EQ(VariantCopy(&v, &v), S_OK);
  EXPECT_EQ(object.extra(), 1u);
  EXPECT_EQ(VariantClear(&v), S_OK);
  EXPECT_EQ(object.extra(), 0u);
}

TEST(Variant, InvalidTypesAreRefusedAndLeftAlone) {
  for (VARTYPE vt : {VARTYPE{15}, VARTYPE(VT_I4 | VT_VECTOR), VARTYPE(VT_EMPTY | VT_BYREF),
                     VARTYPE{VT_LPWSTR}, VARTYPE(VT_I4 | VT_RESERVED)}) {
    SCOPED_TRACE(vt);
    VARIANT v;
    v.vt = vt;
    EXPECT_EQ(VariantClear(&v), DISP_E_BADVARTYPE);
    EXPECT_EQ(v.vt, vt);
    VARIANT dest;
    VariantInit(&dest);
    EXPECT_EQ(VariantCopy(&dest, &v), DISP_E_BADVARTYPE);
  }
}

TEST(Variant, CopyIndFollowsReferences) {
  LONG number = 77;
  VARIANT byNumber;
  byNumber.vt = VT_I4 | VT_BYREF;
  byNumber.plVal = &number;
  UniqueVariant out;
  ASSERT_EQ(VariantCopyInd(out.get(), &byNumber), S_OK);
  EXPECT_EQ(out->vt, VT_I4);
  EXPECT_EQ(out->lVal, 77);

  UniqueBstr text = MakeBstr(u"deep");
  BSTR raw = text.get();
  VARIANT inner;
  inner.vt = VT_BSTR | VT_BYREF;
  inner.pbstrVal = &raw;
  VARIANT outer;
  outer.vt = VT_VARIANT | VT_BYREF;
  outer.pvarVal = &inner;
  ASSERT_EQ(VariantCopyInd(out.get(), &outer), S_OK);
  EXPECT_EQ(out->vt, VT_BSTR);
  EXPECT_NE(out->bstrVal, raw);
  EXPECT_EQ(BstrView(out->bstrVal), u"deep");

  // Only one level of VT_VARIANT | VT_BYREF is followed.
  VARIANT twice;
  twice.vt = VT_VARIANT | VT_BYREF;
  twice.pvarVal = &outer;
  EXPECT_EQ(VariantCopyInd(out.get(), &twice), E_INVALIDARG);
}

// ---------------------------------------------------------------------------------------------
// VariantChangeType

struct Source {
  VARTYPE vt;
  long long integer = 0;
  double real = 0.0;
  const char16_t* text = nullptr;
};

Source Int(VARTYPE vt, long long value) { return {vt, value, 0.0, nullptr}; }
Source Real(VARTYPE vt, double value) { return {vt, 0, value, nullptr}; }
Source Text(const char16_t* text) { return {VT_BSTR, 0, 0.0, text}; }
Source Bool(bool value) { return {VT_BOOL, value ? -1 : 0, 0.0, nullptr}; }
Source Of(VARTYPE vt) { return {vt, 0, 0.0, nullptr}; }

UniqueVariant Make(const Source& s) {
  UniqueVariant v;
  v->vt = s.vt;
  switch (s.vt) {
    case VT_I1:
      v->cVal = static_cast<CHAR>(s.integer);
      break;
    case VT_UI1:
      v->bVal = static_cast<BYTE>(s.integer);
      break;
    case VT_I2:
      v->iVal = static_cast<SHORT>(s.integer);
      break;
    case VT_UI2:
      v->uiVal = static_cast<USHORT>(s.integer);
      break;
    case VT_I4:
      v->lVal = static_cast<LONG>(s.integer);
      break;
    case VT_UI4:
      v->ulVal = static_cast<ULONG>(s.integer);
      break;
    case VT_I8:
      v->llVal = s.integer;
      break;
    case VT_UI8:
      v->ullVal = static_cast<ULONGLONG>(s.integer);
      break;
    case VT_BOOL:
      v->boolVal = static_cast<VARIANT_BOOL>(s.integer);
      break;
    case VT_ERROR:
      v->scode = static_cast<SCODE>(s.integer);
      break;
    case VT_CY:
      v->cyVal.int64 = s.integer;
      break;
    case VT_R4:
      v->fltVal = static_cast<float>(s.real);
      break;
    case VT_R8:
      v->dblVal = s.real;
      break;
    case VT_DATE:
      v->date = s.real;
      break;
    case VT_BSTR:
      v->bstrVal = SysAllocString(s.text);
      break;
    default:
      break;
  }
  return v;
}

// The converted value as a 64-bit integer, for every integer type, VT_BOOL and VT_CY.
long long IntegerOf(const VARIANT& v) {
  switch (v.vt) {
    case VT_I1:
      return v.cVal;
    case VT_UI1:
      return v.bVal;
    case VT_I2:
      return v.iVal;
    case VT_UI2:
      return v.uiVal;
    case VT_I4:
    case VT_INT:
      return v.lVal;
    case VT_UI4:
    case VT_UINT:
      return v.ulVal;
    case VT_I8:
      return v.llVal;
    case VT_UI8:
      return static_cast<long long>(v.ullVal);
    case VT_BOOL:
      return v.boolVal;
    case VT_CY:
      return v.cyVal.int64;
    default:
      return -123456789;
  }
}

struct ConversionCase {
  Source from;
  VARTYPE to;
  HRESULT result;
  long long integer = 0;           // integer, VT_BOOL and VT_CY results
  double real = 0.0;               // VT_R4, VT_R8 and VT_DATE results
  const char16_t* text = nullptr;  // VT_BSTR results
  USHORT flags = 0;
};

void CheckConversion(const ConversionCase& c) {
  UniqueVariant source = Make(c.from);
  UniqueVariant dest;
  const HRESULT hr = VariantChangeType(dest.get(), source.get(), c.flags, c.to);
  ASSERT_EQ(hr, c.result);
  if (FAILED(hr)) {
    EXPECT_EQ(dest->vt, VT_EMPTY);
    return;
  }
  ASSERT_EQ(dest->vt, c.to);
  switch (c.to) {
    case VT_BSTR:
      EXPECT_EQ(BstrView(dest->bstrVal), std::u16string_view(c.text));
      break;
    case VT_R8:
      EXPECT_EQ(dest->dblVal, c.real);
      break;
    case VT_R4:
      EXPECT_EQ(dest->fltVal, static_cast<float>(c.real));
      break;
    case VT_DATE:
      EXPECT_EQ(dest->date, c.real);
      break;
    case VT_EMPTY:
    case VT_NULL:
      break;
    default:
      EXPECT_EQ(IntegerOf(*dest.get()), c.integer);
  }
}

TEST(VariantChangeType, NarrowsIntegersOrReportsOverflow) {
  const ConversionCase cases[] = {
      {Int(VT_I4, 255), VT_UI1, S_OK, 255},
      {Int(VT_I4, 256), VT_UI1, DISP_E_OVERFLOW},
      {Int(VT_I4, -1), VT_UI1, DISP_E_OVERFLOW},
      {Int(VT_I4, -128), VT_I1, S_OK, -128},
      {Int(VT_I4, -129), VT_I1, DISP_E_OVERFLOW},
      {Int(VT_I4, 32767), VT_I2, S_OK, 32767},
      {Int(VT_I4, 40000), VT_I2, DISP_E_OVERFLOW},
      {Int(VT_I4, 40000), VT_UI2, S_OK, 40000},
      {Int(VT_I8, 2147483648LL), VT_I4, DISP_E_OVERFLOW},
      {Int(VT_I8, -2147483648LL), VT_I4, S_OK, -2147483648LL},
      {Int(VT_UI4, 4294967295LL), VT_I8, S_OK, 4294967295LL},
      {Int(VT_I4, -1), VT_UI8, DISP_E_OVERFLOW},
      {Int(VT_UI8, std::numeric_limits<long long>::min()), VT_I4, DISP_E_OVERFLOW},
      // Integers of one width keep their bits when only the sign changes.
      {Int(VT_I4, -1), VT_UI4, S_OK, 4294967295LL},
      {Int(VT_I2, -1), VT_UI2, S_OK, 65535},
      {Int(VT_I4, 7), VT_INT, S_OK, 7},
      {Int(VT_UI1, 200), VT_I2, S_OK, 200},
  };
  for (const ConversionCase& c : cases) {
    SCOPED_TRACE(testing::Message()
                 << "vt " << c.from.vt << " value " << c.from.integer << " to vt " << c.to);
    CheckConversion(c);
  }
}

TEST(VariantChangeType, RoundsRealsHalfToEven) {
  const ConversionCase cases[] = {
      {Real(VT_R8, 2.5), VT_I4, S_OK, 2},
      {Real(VT_R8, 3.5), VT_I4, S_OK, 4},
      {Real(VT_R8, -2.5), VT_I4, S_OK, -2},
      {Real(VT_R8, 2.4999), VT_I2, S_OK, 2},
      {Real(VT_R8, 255.5), VT_UI1, DISP_E_OVERFLOW},
      {Real(VT_R8, 254.5), VT_UI1, S_OK, 254},
      {Real(VT_R8, 2147483647.5), VT_I4, DISP_E_OVERFLOW},
      {Real(VT_R8, -2147483648.5), VT_I4, S_OK, -2147483648LL},
      {Real(VT_R8, std::nan("")), VT_I4, DISP_E_OVERFLOW},
      {Real(VT_R8, 1e19), VT_I8, DISP_E_OVERFLOW},
      {Real(VT_R4, 1.5), VT_I8, S_OK, 2},
      {Real(VT_R8, 1e40), VT_R4, DISP_E_OVERFLOW},
      {Real(VT_R8, 1.5), VT_R4, S_OK, 0, 1.5},
      {Real(VT_R8, 1.25), VT_CY, S_OK, 12500},
      {Real(VT_R8, 45000.5), VT_DATE, S_OK, 0, 45000.5},
      {Real(VT_R8, 1e7), VT_DATE, DISP_E_OVERFLOW},
      {Int(VT_CY, 15000), VT_I4, S_OK, 2},
      {Int(VT_CY, 25000), VT_I4, S_OK, 2},
      {Int(VT_I4, 3), VT_CY, S_OK, 30000},
  };
  for (const ConversionCase& c : cases) {
    SCOPED_TRACE(testing::Message() << "vt " << c.from.vt << " value " << c.from.real << "/"
                                    << c.from.integer << " to vt " << c.to);
    CheckConversion(c);
  }
}

TEST(VariantChangeType, BooleansAreMinusOneOrZero) {
  const ConversionCase cases[] = {
      {Bool(true), VT_I4, S_OK, -1},
      {Bool(true), VT_I2, S_OK, -1},
      {Bool(true), VT_UI1, S_OK, 255},
      {Bool(true), VT_R8, S_OK, 0, -1.0},
      {Bool(false), VT_I4, S_OK, 0},
      {Int(VT_I4, 5), VT_BOOL, S_OK, VARIANT_TRUE},
      {Int(VT_UI8, 0), VT_BOOL, S_OK, VARIANT_FALSE},
      {Real(VT_R8, 0.25), VT_BOOL, S_OK, VARIANT_TRUE},
      {Real(VT_R8, 0.0), VT_BOOL, S_OK, VARIANT_FALSE},
      {Bool(true), VT_BSTR, S_OK, 0, 0, u"-1"},
      {Bool(false), VT_BSTR, S_OK, 0, 0, u"0"},
      {Bool(true), VT_BSTR, S_OK, 0, 0, u"True", VARIANT_ALPHABOOL},
      {Bool(false), VT_BSTR, S_OK, 0, 0, u"False", VARIANT_ALPHABOOL},
      {Bool(true), VT_BSTR, S_OK, 0, 0, u"True", VARIANT_LOCALBOOL},
  };
  for (const ConversionCase& c : cases) {
    SCOPED_TRACE(testing::Message() << "vt " << c.from.vt << " value " << c.from.integer
                                    << c.from.real << " to vt " << c.to << " flags " << c.flags);
    CheckConversion(c);
  }
}

TEST(VariantChangeType, ReadsTextAsTheEnglishLocaleDoes) {
  const ConversionCase cases[] = {
      {Text(u"12"), VT_I4, S_OK, 12},
      {Text(u"-3"), VT_I4, S_OK, -3},
      {Text(u"+3"), VT_I2, S_OK, 3},
      {Text(u"  7 "), VT_I4, S_OK, 7},
      {Text(u"1.5"), VT_R8, S_OK, 0, 1.5},
      {Text(u".5"), VT_R8, S_OK, 0, 0.5},
      {Text(u"1,000"), VT_I4, S_OK, 1000},
      {Text(u"1e3"), VT_I4, S_OK, 1000},
      {Text(u"2.5E-1"), VT_R8, S_OK, 0, 0.25},
      {Text(u"2.5"), VT_I4, S_OK, 2},
      {Text(u"3.5"), VT_I4, S_OK, 4},
      {Text(u"2.5000001"), VT_I4, S_OK, 3},
      {Text(u"0.5"), VT_I4, S_OK, 0},
      {Text(u"9223372036854775807"), VT_I8, S_OK, std::numeric_limits<long long>::max()},
      {Text(u"9223372036854775808"), VT_I8, DISP_E_OVERFLOW},
      {Text(u"18446744073709551615"), VT_UI8, S_OK, -1},
      {Text(u"300"), VT_UI1, DISP_E_OVERFLOW},
      {Text(u"-1"), VT_UI4, DISP_E_OVERFLOW},
      {Text(u"1e400"), VT_R8, DISP_E_OVERFLOW},
      {Text(u"1.5"), VT_CY, S_OK, 15000},
      {Text(u"0x1F"), VT_I4, DISP_E_TYPEMISMATCH},
      {Text(u""), VT_I4, DISP_E_TYPEMISMATCH},
      {Text(u"   "), VT_R8, DISP_E_TYPEMISMATCH},
      {Text(u"abc"), VT_I4, DISP_E_TYPEMISMATCH},
      {Text(u"12abc"), VT_I4, DISP_E_TYPEMISMATCH},
      {Text(u"1e"), VT_R8, DISP_E_TYPEMISMATCH},
      {Text(u"-"), VT_I4, DISP_E_TYPEMISMATCH},
      {Text(u"1.2.3"), VT_R8, DISP_E_TYPEMISMATCH},
      {Text(u"True"), VT_BOOL, S_OK, VARIANT_TRUE},
      {Text(u" false "), VT_BOOL, S_OK, VARIANT_FALSE},
      {Text(u"#TRUE#"), VT_BOOL, S_OK, VARIANT_TRUE},
      {Text(u"0"), VT_BOOL, S_OK, VARIANT_FALSE},
      {Text(u"2"), VT_BOOL, S_OK, VARIANT_TRUE},
      {Text(u"yes"), VT_BOOL, DISP_E_TYPEMISMATCH},
      {Text(u""), VT_BOOL, DISP_E_TYPEMISMATCH},
  };
  for (const ConversionCase& c : cases) {
    SCOPED_TRACE(testing::Message()
                 << "text \""
                 << std::string(c.from.text,
                                c.from.text + std::char_traits<char16_t>::length(c.from.text))
                 << "\" to vt " << c.to);
    CheckConversion(c);
  }
}

TEST(VariantChangeType, WritesNumbersAsTheEnglishLocaleDoes) {
  const ConversionCase cases[] = {
      {Int(VT_I4, -42), VT_BSTR, S_OK, 0, 0, u"-42"},
      {Int(VT_UI8, -1), VT_BSTR, S_OK, 0, 0, u"18446744073709551615"},
      {Int(VT_I1, -5), VT_BSTR, S_OK, 0, 0, u"-5"},
      {Real(VT_R8, 1.5), VT_BSTR, S_OK, 0, 0, u"1.5"},
      {Real(VT_R8, 0.1), VT_BSTR, S_OK, 0, 0, u"0.1"},
      {Real(VT_R8, 1.0 / 3.0), VT_BSTR, S_OK, 0, 0, u"0.333333333333333"},
      {Real(VT_R8, 100000), VT_BSTR, S_OK, 0, 0, u"100000"},
      {Real(VT_R8, 1e20), VT_BSTR, S_OK, 0, 0, u"1E+20"},
      {Real(VT_R8, 1.5e-7), VT_BSTR, S_OK, 0, 0, u"1.5E-07"},
      {Real(VT_R8, 123456789012345678.0), VT_BSTR, S_OK, 0, 0, u"1.23456789012346E+17"},
      {Real(VT_R8, -0.0), VT_BSTR, S_OK, 0, 0, u"0"},
      {Real(VT_R4, 0.1), VT_BSTR, S_OK, 0, 0, u"0.1"},
      {Int(VT_CY, 15000), VT_BSTR, S_OK, 0, 0, u"1.5"},
      {Int(VT_CY, -20000), VT_BSTR, S_OK, 0, 0, u"-2"},
  };
  for (const ConversionCase& c : cases) {
    SCOPED_TRACE(testing::Message()
                 << "vt " << c.from.vt << " value " << c.from.integer << "/" << c.from.real);
    CheckConversion(c);
  }
}

TEST(VariantChangeType, EmptyIsZeroAndNullIsNothing) {
  const ConversionCase cases[] = {
      {Of(VT_EMPTY), VT_I4, S_OK, 0},
      {Of(VT_EMPTY), VT_R8, S_OK, 0, 0.0},
      {Of(VT_EMPTY), VT_BOOL, S_OK, VARIANT_FALSE},
      {Of(VT_EMPTY), VT_BSTR, S_OK, 0, 0, u""},
      {Of(VT_EMPTY), VT_NULL, S_OK},
      {Of(VT_NULL), VT_NULL, S_OK},
      {Of(VT_NULL), VT_I4, DISP_E_TYPEMISMATCH},
      {Of(VT_NULL), VT_BSTR, DISP_E_TYPEMISMATCH},
      {Of(VT_NULL), VT_BOOL, DISP_E_TYPEMISMATCH},
      {Of(VT_NULL), VT_EMPTY, DISP_E_TYPEMISMATCH},
      {Int(VT_I4, 9), VT_EMPTY, S_OK},
      {Text(u"x"), VT_NULL, S_OK},
      {Int(VT_ERROR, 0x80020004), VT_I4, DISP_E_TYPEMISMATCH},
      {Int(VT_ERROR, 0x80020004), VT_EMPTY, DISP_E_TYPEMISMATCH},
      {Int(VT_I4, 1), VT_UNKNOWN, DISP_E_TYPEMISMATCH},
      {Int(VT_I4, 1), VARTYPE{15}, DISP_E_BADVARTYPE},
      {Int(VT_I4, 1), VT_LPWSTR, DISP_E_BADVARTYPE},
      {Int(VT_I4, 1), VT_CLSID, DISP_E_BADVARTYPE},
      {Int(VT_I4, 1), VARTYPE(VT_ARRAY | VT_I4), DISP_E_BADVARTYPE},
  };
  for (const ConversionCase& c : cases) {
    SCOPED_TRACE(testing::Message() << "vt " << c.from.vt << " to vt " << c.to);
    CheckConversion(c);
  }
}

TEST(VariantChangeType, DecimalsConvertExactly) {
  UniqueVariant decimal;
  DECIMAL d{};
  d.scale = 2;
  d.sign = DECIMAL_NEG;
  d.Lo64 = 150;  // -1.50
  decimal->decVal = d;
  decimal->vt = VT_DECIMAL;

  UniqueVariant out;
  ASSERT_EQ(VariantChangeType(out.get(), decimal.get(), 0, VT_R8), S_OK);
  EXPECT_EQ(out->vt, VT_R8);
  EXPECT_EQ(out->dblVal, -1.5);
  ASSERT_EQ(VariantChangeType(out.get(), decimal.get(), 0, VT_I4), S_OK);
  EXPECT_EQ(out->lVal, -2);
  ASSERT_EQ(VariantChangeType(out.get(), decimal.get(), 0, VT_BSTR), S_OK);
  EXPECT_EQ(BstrView(out->bstrVal), u"-1.5");

  // Reals enter decimals by their 15-digit text: 0.1 is exactly one tenth.
  UniqueVariant tenth = Make(Real(VT_R8, 0.1));
  ASSERT_EQ(VariantChangeType(out.get(), tenth.get(), 0, VT_DECIMAL), S_OK);
  EXPECT_EQ(out->vt, VT_DECIMAL);
  EXPECT_EQ(out->decVal.scale, 1);
  EXPECT_EQ(out->decVal.sign, 0);
  EXPECT_EQ(out->decVal.Lo64, 1u);
  EXPECT_EQ(out->decVal.Hi32, 0u);

  UniqueVariant big = Make(Text(u"79228162514264337593543950335"));  // 2^96 - 1
  ASSERT_EQ(VariantChangeType(out.get(), big.get(), 0, VT_DECIMAL), S_OK);
  EXPECT_EQ(out->decVal.Hi32, 0xFFFFFFFFu);
  EXPECT_EQ(out->decVal.Lo64, ~0ULL);
  UniqueVariant tooBig = Make(Text(u"79228162514264337593543950336"));
  EXPECT_EQ(VariantChangeType(out.get(), tooBig.get(), 0, VT_DECIMAL), DISP_E_OVERFLOW);

  d.scale = 29;  // beyond the largest scale a DECIMAL may have
  decimal->decVal = d;
  decimal->vt = VT_DECIMAL;
  EXPECT_EQ(VariantChangeType(out.get(), decimal.get(), 0, VT_R8), E_INVALIDARG);
}

class VariantChangeTypeInPlace : public testing::Test {
 protected:
  // Gives `variant` the text `text`, freeing what it held.
  static void SetText(UniqueVariant& variant, const char16_t* text) {
    VARIANT* v = variant.put();
    v->vt = VT_BSTR;
    v->bstrVal = SysAllocString(text);
  }
  HRESULT Convert(VARIANT* dest, VARIANT* source, VARTYPE vt, USHORT flags = 0) {
    return VariantChangeType(dest, source, flags, vt);
  }
};

TEST_F(VariantChangeTypeInPlace, ConvertsAndFreesTheOldString) {
  UniqueVariant v;
  SetText(v, u"42");
  ASSERT_EQ(Convert(v.get(), v.get(), VT_I4), S_OK);
  EXPECT_EQ(v->vt, VT_I4);
  EXPECT_EQ(v->lVal, 42);
}

TEST_F(VariantChangeTypeInPlace, FailureLeavesTheDestinationAsItWas) {
  UniqueVariant dest;
  SetText(dest, u"keep");
  UniqueVariant null;
  null->vt = VT_NULL;
  EXPECT_EQ(Convert(dest.get(), null.get(), VT_I4), DISP_E_TYPEMISMATCH);
  ASSERT_EQ(dest->vt, VT_BSTR);
  EXPECT_EQ(BstrView(dest->bstrVal), u"keep");

  UniqueVariant self;
  SetText(self, u"not a number");
  EXPECT_EQ(Convert(self.get(), self.get(), VT_R8), DISP_E_TYPEMISMATCH);
  ASSERT_EQ(self->vt, VT_BSTR);
  EXPECT_EQ(BstrView(self->bstrVal), u"not a number");
}

TEST_F(VariantChangeTypeInPlace, SuccessReplacesTheDestinationString) {
  UniqueVariant dest;
  SetText(dest, u"old");
  UniqueVariant number = Make(Int(VT_I2, 5));
  ASSERT_EQ(Convert(dest.get(), number.get(), VT_BSTR), S_OK);
  EXPECT_EQ(BstrView(dest->bstrVal), u"5");
}

TEST_F(VariantChangeTypeInPlace, ReferencesAreDereferenced) {
  LONG number = 7;
  VARIANT byNumber;
  byNumber.vt = VT_I4 | VT_BYREF;
  byNumber.plVal = &number;
  UniqueVariant out;
  ASSERT_EQ(Convert(out.get(), &byNumber, VT_BSTR), S_OK);
  EXPECT_EQ(BstrView(out->bstrVal), u"7");

  UniqueBstr text = MakeBstr(u"  19 ");
  BSTR raw = text.get();
  VARIANT byText;
  byText.vt = VT_BSTR | VT_BYREF;
  byText.pbstrVal = &raw;
  ASSERT_EQ(Convert(out.get(), &byText, VT_UI2), S_OK);
  EXPECT_EQ(out->uiVal, 19);
  EXPECT_EQ(raw, text.get());  // the referenced string stays the caller's

  // In place, the reference is replaced by the value and the referenced string is untouched.
  ASSERT_EQ(Convert(&byText, &byText, VT_I4), S_OK);
  EXPECT_EQ(byText.vt, VT_I4);
  EXPECT_EQ(byText.lVal, 19);
  EXPECT_EQ(BstrView(text.get()), u"  19 ");

  VARIANT dangling;
  dangling.vt = VT_I4 | VT_BYREF;
  dangling.plVal = nullptr;
  EXPECT_EQ(Convert(out.get(), &dangling, VT_I4), DISP_E_TYPEMISMATCH);
}

TEST(VariantChangeTypeObjects, UnknownBecomesDispatchThroughQueryInterface) {
  CountingObject object;
  VARIANT unknown;
  unknown.vt = VT_UNKNOWN;
  unknown.punkVal = &object;
  UniqueVariant out;
  ASSERT_EQ(VariantChangeType(out.get(), &unknown, 0, VT_DISPATCH), S_OK);
  EXPECT_EQ(out->vt, VT_DISPATCH);
  EXPECT_EQ(out->pdispVal, static_cast<IDispatch*>(&object));
  EXPECT_EQ(object.extra(), 1u);
  out.reset();
  EXPECT_EQ(object.extra(), 0u);

  CountingObject plain(false);
  unknown.punkVal = &plain;
  EXPECT_EQ(VariantChangeType(out.get(), &unknown, 0, VT_DISPATCH), E_NOINTERFACE);
  EXPECT_EQ(out->vt, VT_EMPTY);
  EXPECT_EQ(plain.extra(), 0u);

  unknown.punkVal = nullptr;
  ASSERT_EQ(VariantChangeType(out.get(), &unknown, 0, VT_DISPATCH), S_OK);
  EXPECT_EQ(out->vt, VT_DISPATCH);
  EXPECT_EQ(out->pdispVal, nullptr);
}

TEST(VariantChangeTypeObjects, DispatchYieldsItsValueProperty) {
  CountingObject object(true, u"17");
  VARIANT dispatch;
  dispatch.vt = VT_DISPATCH;
  dispatch.pdispVal = &object;
  UniqueVariant out;
  ASSERT_EQ(VariantChangeType(out.get(), &dispatch, 0, VT_I4), S_OK);
  EXPECT_EQ(out->lVal, 17);
  EXPECT_EQ(object.lastMember(), DISPID_VALUE);
  EXPECT_EQ(object.lastFlags(), DISPATCH_PROPERTYGET);
  EXPECT_EQ(object.lastArgCount(), 0u);
  EXPECT_EQ(object.extra(), 0u);

  EXPECT_EQ(VariantChangeType(out.get(), &dispatch, VARIANT_NOVALUEPROP, VT_I4),
            DISP_E_TYPEMISMATCH);
  ASSERT_EQ(VariantChangeType(out.get(), &dispatch, VARIANT_NOVALUEPROP, VT_UNKNOWN), S_OK);
  EXPECT_EQ(out->punkVal, static_cast<IUnknown*>(&object));
  out.reset();
  EXPECT_EQ(object.extra(), 0u);

  CountingObject mute;
  dispatch.pdispVal = &mute;
  EXPECT_EQ(VariantChangeType(out.get(), &dispatch, 0, VT_BSTR), DISP_E_TYPEMISMATCH);
}

// ---------------------------------------------------------------------------------------------
// GUIDs

TEST(Guid, TextHasBracesDashesAndUpperCase) {
  OLECHAR text[39];
  ASSERT_EQ(StringFromGUID2(IID_IDispatch, text, 39), 39);
  EXPECT_EQ(std::u16string_view(text), u"{00020400-0000-0000-C000-000000000046}");
  const GUID mixed = {0xDEADBEEF, 0xCAFE, 0x0B0E, {0xA1, 0xB2, 0xC3, 0xD4, 0xE5, 0xF6, 0x07, 0x18}};
  ASSERT_EQ(StringFromGUID2(mixed, text, 39), 39);
  EXPECT_EQ(std::u16string_view(text), u"{DEADBEEF-CAFE-0B0E-A1B2-C3D4E5F60718}");
  EXPECT_EQ(StringFromGUID2(mixed, text, 38), 0);
}

TEST(Guid, GeneratedGuidsRoundTripThroughText) {
  GUID a{};
  GUID b{};
  ASSERT_EQ(CoCreateGuid(&a), S_OK);
  ASSERT_EQ(CoCreateGuid(&b), S_OK);
  EXPECT_FALSE(a == b);
  EXPECT_EQ(a.Data3 >> 12, 4);
  EXPECT_EQ(a.Data4[0] & 0xC0, 0x80);
  OLECHAR text[39];
  ASSERT_EQ(StringFromGUID2(a, text, 39), 39);
  IID iid{};
  ASSERT_EQ(IIDFromString(text, &iid), S_OK);
  EXPECT_TRUE(IsEqualGUID(iid, a));
  CLSID clsid{};
  ASSERT_EQ(CLSIDFromString(text, &clsid), S_OK);
  EXPECT_TRUE(clsid == a);
  ASSERT_EQ(IIDFromString(u"{00020400-0000-0000-c000-000000000046}", &iid), S_OK);
  EXPECT_TRUE(iid == IID_IDispatch);
  ASSERT_EQ(IIDFromString(nullptr, &iid), S_OK);
  EXPECT_TRUE(iid == IID_NULL);
}

TEST(Guid, MalformedTextIsRejected) {
  const char16_t* cases[] = {
      u"",
      u"00020400-0000-0000-C000-000000000046",
      u"{00020400-0000-0000-C000-000000000046",
      u"{00020400-0000-0000-C000-00000000004}",
      u"{00020400-0000-0000-C000-000000000046}x",
      u"{00020400-0000-0000-C000-00000000004G}",
      u"{000204000-000-0000-C000-000000000046}",
      u"{00020400 0000-0000-C000-000000000046}",
      u"(00020400-0000-0000-C000-000000000046)",
      u"{0x020400-0000-0000-C000-000000000046}",
  };
  for (const char16_t* text : cases) {
    SCOPED_TRACE(std::string(text, text + std::char_traits<char16_t>::length(text)));
    IID iid = IID_IDispatch;
    EXPECT_EQ(IIDFromString(text, &iid), E_INVALIDARG);
    CLSID clsid{};
    EXPECT_EQ(CLSIDFromString(text, &clsid), CO_E_CLASSSTRING);
  }
}

// ---------------------------------------------------------------------------------------------
// Owners

TEST(ComPtr, CountsReferencesThroughCopiesAndPut) {
  CountingObject object;
  {
    ComPtr<IDispatch> first(&object);
    EXPECT_EQ(object.extra(), 1u);
    ComPtr<IDispatch> second = first;
    EXPECT_EQ(object.extra(), 2u);
    ComPtr<IUnknown> base = second;
    EXPECT_EQ(object.extra(), 3u);
    ComPtr<IDispatch> moved = std::move(second);
    EXPECT_EQ(object.extra(), 3u);
    EXPECT_FALSE(second);
    (void)first.put();
    EXPECT_EQ(object.extra(), 2u);
    EXPECT_FALSE(first);
    IDispatch* out = nullptr;
    ASSERT_EQ(moved.CopyTo(&out), S_OK);
    EXPECT_EQ(object.extra(), 3u);
    out->Release();
  }
  EXPECT_EQ(object.extra(), 0u);
}

TEST(ComPtr, AttachAndDetachMoveOwnershipWithoutCounting) {
  CountingObject object;
  object.AddRef();
  ComPtr<IDispatch> held;
  held.Attach(&object);
  EXPECT_EQ(object.extra(), 1u);
  IDispatch* raw = held.Detach();
  EXPECT_EQ(raw, &object);
  EXPECT_EQ(object.extra(), 1u);
  EXPECT_FALSE(held);
  raw->Release();
}

TEST(ComPtr, AsAsksForTheInterface) {
  CountingObject object;
  CountingObject plain(false);
  ComPtr<IUnknown> unknown(&object);
  ComPtr<IDispatch> dispatch;
  ASSERT_EQ(unknown.As(IID_IDispatch, &dispatch), S_OK);
  EXPECT_EQ(dispatch.get(), &object);
  EXPECT_EQ(object.extra(), 2u);

  ComPtr<IUnknown> other(&plain);
  EXPECT_EQ(other.As(IID_IDispatch, &dispatch), E_NOINTERFACE);
  EXPECT_FALSE(dispatch);
  EXPECT_EQ(object.extra(), 1u);  // the old reference was released first

  ComPtr<IUnknown> none;
  EXPECT_EQ(none.As(IID_IDispatch, &dispatch), E_POINTER);
}

TEST(UniqueVariant, ReleasesWhatItOwns) {
  CountingObject object;
  {
    UniqueVariant v;
    v->vt = VT_DISPATCH;
    v->pdispVal = &object;
    object.AddRef();
    UniqueVariant moved = std::move(v);
    EXPECT_EQ(v.vt(), VT_EMPTY);
    EXPECT_EQ(object.extra(), 1u);
    VARIANT taken = moved.release();
    EXPECT_EQ(moved.vt(), VT_EMPTY);
    UniqueVariant again(taken);
    EXPECT_EQ(object.extra(), 1u);
  }
  EXPECT_EQ(object.extra(), 0u);
}

TEST(UniqueBstr, HoldsTextWithZeros) {
  const std::u16string text(u"a\0b", 3);
  UniqueBstr b = MakeBstr(text);
  ASSERT_TRUE(b);
  EXPECT_EQ(SysStringLen(b.get()), 3u);
  EXPECT_EQ(BstrView(b.get()), text);
  UniqueBstr empty = MakeBstr(u"");
  EXPECT_TRUE(empty);
  EXPECT_EQ(BstrView(empty.get()), u"");
  EXPECT_EQ(BstrView(nullptr), u"");
}

}  // namespace
