#include "platform/com.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "platform/com_ptr.h"

namespace {

using mrwl::BstrView;
using mrwl::ComPtr;
using mrwl::MakeBstr;
using mrwl::MakeI4Variant;
using mrwl::MakeObjectVariant;
using mrwl::UniqueBstr;
using mrwl::UniqueVariant;

// A dispatch object on the stack that counts its references, so a leaked or doubled reference
// shows as a count rather than as a crash; DISPID_VALUE answers `value` when one is given.
class CountingObject final : public IDispatch {
 public:
  explicit CountingObject(bool offersDispatch = true, const char16_t* value = nullptr)
      : offersDispatch_(offersDispatch), value_(value) {}

  HRESULT QueryInterface(REFIID iid, void** out) override {
    *out = nullptr;
    if (iid != IID_IUnknown && !(offersDispatch_ && iid == IID_IDispatch)) return E_NOINTERFACE;
    *out = static_cast<IDispatch*>(this);
    AddRef();
    return S_OK;
  }
  ULONG AddRef() override { return ++refs_; }
  ULONG Release() override { return --refs_; }
  HRESULT GetTypeInfoCount(UINT*) override { return E_NOTIMPL; }
  HRESULT GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
  HRESULT GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
  HRESULT Invoke(DISPID member, REFIID, LCID, WORD flags, DISPPARAMS* params, VARIANT* result,
                 EXCEPINFO*, UINT*) override {
    lastMember = member;
    lastFlags = flags;
    lastArgCount = params == nullptr ? 99 : params->cArgs;
    if (value_ == nullptr || result == nullptr) return DISP_E_MEMBERNOTFOUND;
    result->vt = VT_BSTR;
    result->bstrVal = SysAllocString(value_);
    return S_OK;
  }

  // References beyond the one the test itself holds.
  ULONG extra() const { return refs_ - 1; }

  DISPID lastMember = DISPID_UNKNOWN;
  WORD lastFlags = 0;
  UINT lastArgCount = 0;

 private:
  ULONG refs_ = 1;
  bool offersDispatch_;
  const char16_t* value_;
};

std::string Narrow(std::u16string_view text) { return std::string(text.begin(), text.end()); }

// A VARIANT of type `vt` whose pointer member is `target`, owned by nobody: conversions must
// neither release nor free what it points at.
VARIANT Borrowed(VARTYPE vt, void* target) {
  VARIANT v;
  v.vt = vt;
  v.byref = target;
  return v;
}

// ---------------------------------------------------------------------------------------------
// BSTR

TEST(Bstr, LengthPrefixSitsBeforeAlignedTerminatedText) {
  BSTR b = SysAllocString(u"abc");
  ASSERT_NE(b, nullptr);
  std::uint32_t prefix = 0;
  std::memcpy(&prefix, reinterpret_cast<const char*>(b) - 4, sizeof prefix);
  EXPECT_EQ(prefix, 6u);
  EXPECT_EQ(SysStringLen(b), 3u);
  EXPECT_EQ(SysStringByteLen(b), 6u);
  EXPECT_EQ(b[3], u'\0');
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(b) % 8, 0u);
  SysFreeString(b);
}

TEST(Bstr, NullIsTheEmptyStringButEmptyIsNotNull) {
  EXPECT_EQ(SysAllocString(nullptr), nullptr);
  EXPECT_EQ(SysStringLen(nullptr), 0u);
  EXPECT_EQ(SysStringByteLen(nullptr), 0u);
  SysFreeString(nullptr);
  UniqueBstr empty = MakeBstr(u"");
  ASSERT_TRUE(empty);
  EXPECT_EQ(SysStringLen(empty.get()), 0u);
  EXPECT_EQ(empty.get()[0], u'\0');
  EXPECT_EQ(BstrView(nullptr), u"");
}

TEST(Bstr, LengthGivenAllocationsKeepZerosAndAreTerminated) {
  const std::u16string_view zeros(u"a\0b\0c", 5);
  UniqueBstr b = MakeBstr(zeros);
  EXPECT_EQ(BstrView(b.get()), zeros);
  EXPECT_EQ(b.get()[5], u'\0');

  BSTR blank = SysAllocStringLen(nullptr, 4);
  ASSERT_NE(blank, nullptr);
  EXPECT_EQ(SysStringLen(blank), 4u);
  EXPECT_EQ(blank[4], u'\0');
  SysFreeString(blank);
  EXPECT_EQ(SysAllocStringLen(nullptr, 0x80000000u), nullptr);

  // An odd byte length still ends in a whole zero character.
  BSTR bytes = SysAllocStringByteLen("abc", 3);
  ASSERT_NE(bytes, nullptr);
  EXPECT_EQ(SysStringByteLen(bytes), 3u);
  EXPECT_EQ(SysStringLen(bytes), 1u);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(bytes), 5), std::string("abc\0\0", 5));
  SysFreeString(bytes);
}

TEST(Bstr, ReallocationAcceptsTextInsideTheOldStringAndKeepsOldCharacters) {
  BSTR b = SysAllocString(u"hello");
  ASSERT_TRUE(SysReAllocString(&b, b + 2));
  EXPECT_EQ(BstrView(b), u"llo");
  ASSERT_TRUE(SysReAllocStringLen(&b, b, 2));
  EXPECT_EQ(BstrView(b), u"ll");
  ASSERT_TRUE(SysReAllocStringLen(&b, nullptr, 6));
  EXPECT_EQ(SysStringLen(b), 6u);
  EXPECT_EQ(BstrView(b).substr(0, 2), u"ll");
  EXPECT_EQ(b[6], u'\0');
  ASSERT_TRUE(SysReAllocStringLen(&b, nullptr, 1));
  EXPECT_EQ(BstrView(b), u"l");
  ASSERT_TRUE(SysReAllocString(&b, nullptr));
  EXPECT_EQ(b, nullptr);
  EXPECT_FALSE(SysReAllocString(nullptr, u"x"));
  EXPECT_FALSE(SysReAllocStringLen(nullptr, u"x", 1));
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

TEST(Variant, CopyDuplicatesStringsAddsReferencesAndFreesTheOldValue) {
  CountingObject object;
  UniqueVariant text;
  text->vt = VT_BSTR;
  text->bstrVal = SysAllocString(u"copy me");
  UniqueVariant copy;
  ASSERT_EQ(VariantCopy(copy.get(), text.get()), S_OK);
  EXPECT_NE(copy->bstrVal, text->bstrVal);
  text.reset();
  EXPECT_EQ(BstrView(copy->bstrVal), u"copy me");

  UniqueVariant unknown(MakeObjectVariant(&object, VT_UNKNOWN));
  // The copy lands on a variant that holds a string; that string must be freed, not leaked.
  ASSERT_EQ(VariantCopy(copy.get(), unknown.get()), S_OK);
  EXPECT_EQ(copy->vt, VT_UNKNOWN);
  EXPECT_EQ(object.extra(), 2u);
  ASSERT_EQ(VariantClear(copy.get()), S_OK);
  EXPECT_EQ(copy->vt, VT_EMPTY);
  EXPECT_EQ(object.extra(), 1u);

  // A copy onto itself must not release the reference it is about to copy.
  EXPECT_EQ(VariantCopy(unknown.get(), unknown.get()), S_OK);
  EXPECT_EQ(object.extra(), 1u);
  unknown.reset();
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
    UniqueVariant dest;
    EXPECT_EQ(VariantCopy(dest.get(), &v), DISP_E_BADVARTYPE);
  }
}

TEST(Variant, CopyIndFollowsOneLevelOfReference) {
  LONG number = 77;
  VARIANT byNumber = Borrowed(VT_I4 | VT_BYREF, &number);
  UniqueVariant out;
  ASSERT_EQ(VariantCopyInd(out.get(), &byNumber), S_OK);
  EXPECT_EQ(out->vt, VT_I4);
  EXPECT_EQ(out->lVal, 77);

  UniqueBstr text = MakeBstr(u"deep");
  BSTR raw = text.get();
  VARIANT inner = Borrowed(VT_BSTR | VT_BYREF, &raw);
  VARIANT outer = Borrowed(VT_VARIANT | VT_BYREF, &inner);
  ASSERT_EQ(VariantCopyInd(out.get(), &outer), S_OK);
  EXPECT_EQ(out->vt, VT_BSTR);
  EXPECT_NE(out->bstrVal, raw);
  EXPECT_EQ(BstrView(out->bstrVal), u"deep");

  VARIANT twice = Borrowed(VT_VARIANT | VT_BYREF, &outer);
  EXPECT_EQ(VariantCopyInd(out.get(), &twice), E_INVALIDARG);
}

// ---------------------------------------------------------------------------------------------
// VariantChangeType

struct Source {
  VARTYPE vt;
  long long integer = 0;  // integer types, VT_BOOL, VT_ERROR, VT_CY; the unscaled VT_DECIMAL
  double real = 0.0;
  const char16_t* text = nullptr;
  BYTE scale = 0;  // VT_DECIMAL
};

Source Int(VARTYPE vt, long long value) { return {vt, value}; }
Source Real(VARTYPE vt, double value) { return {vt, 0, value}; }
Source Text(const char16_t* text) { return {VT_BSTR, 0, 0.0, text}; }
Source Bool(bool value) { return {VT_BOOL, value ? -1 : 0}; }
Source Dec(long long unscaled, BYTE scale) { return {VT_DECIMAL, unscaled, 0.0, nullptr, scale}; }

// Writes only the member of the source's width, so a conversion that reads a wider member than
// its type allows sees the wrong value.
UniqueVariant Make(const Source& s) {
  UniqueVariant v;
  const VARTYPE vt = s.vt;
  if (vt == VT_I1 || vt == VT_UI1) v->bVal = static_cast<BYTE>(s.integer);
  if (vt == VT_I2 || vt == VT_UI2 || vt == VT_BOOL) v->uiVal = static_cast<USHORT>(s.integer);
  if (vt == VT_I4 || vt == VT_UI4 || vt == VT_ERROR) v->ulVal = static_cast<ULONG>(s.integer);
  if (vt == VT_I8 || vt == VT_UI8 || vt == VT_CY) v->llVal = s.integer;
  if (vt == VT_R4) v->fltVal = static_cast<float>(s.real);
  if (vt == VT_R8 || vt == VT_DATE) v->dblVal = s.real;
  if (vt == VT_BSTR) v->bstrVal = SysAllocString(s.text);
  if (vt == VT_DECIMAL) {  // a DECIMAL overlaps vt, so it goes first
    v->decVal = DECIMAL{};
    v->decVal.scale = s.scale;
    v->decVal.sign = s.integer < 0 ? DECIMAL_NEG : 0;
    v->decVal.Lo64 = static_cast<ULONGLONG>(s.integer < 0 ? -s.integer : s.integer);
  }
  v->vt = vt;
  return v;
}

// The outcome of a conversion as text, read by the test's own rules: the failure's name, or the
// member the type selects (integers extended by their width and sign, VT_BOOL and VT_CY as raw
// integers, reals with round-trip precision, decimals as sign, Hi32:Lo64 and scale).
std::string Outcome(HRESULT hr, const VARIANT& v) {
  if (hr == DISP_E_OVERFLOW) return "overflow";
  if (hr == DISP_E_TYPEMISMATCH) return "mismatch";
  if (hr == DISP_E_BADVARTYPE) return "badtype";
  if (hr == E_INVALIDARG) return "invalidarg";
  if (hr != S_OK) return "hr " + std::to_string(hr);
  const VARTYPE vt = v.vt;
  if (vt == VT_I1) return std::to_string(v.cVal);
  if (vt == VT_UI1) return std::to_string(v.bVal);
  if (vt == VT_I2 || vt == VT_BOOL) return std::to_string(v.iVal);
  if (vt == VT_UI2) return std::to_string(v.uiVal);
  if (vt == VT_I4 || vt == VT_INT) return std::to_string(v.lVal);
  if (vt == VT_UI4 || vt == VT_UINT) return std::to_string(v.ulVal);
  if (vt == VT_I8 || vt == VT_CY) return std::to_string(v.llVal);
  if (vt == VT_UI8) return std::to_string(v.ullVal);
  if (vt == VT_BSTR) return Narrow(BstrView(v.bstrVal));
  if (vt == VT_DECIMAL) {
    return (v.decVal.sign == DECIMAL_NEG ? "-" : "") + std::to_string(v.decVal.Hi32) + ":" +
           std::to_string(v.decVal.Lo64) + "e-" + std::to_string(v.decVal.scale);
  }
  if (vt != VT_R4 && vt != VT_R8 && vt != VT_DATE) return "";
  char real[32];
  std::snprintf(real, sizeof real, "%.17g", vt == VT_R4 ? double{v.fltVal} : v.dblVal);
  return real;
}

struct ConversionCase {
  Source from;
  VARTYPE to;
  const char* outcome;
  USHORT flags = 0;
};

void CheckConversions(std::initializer_list<ConversionCase> cases) {
  for (const ConversionCase& c : cases) {
    SCOPED_TRACE(::testing::Message()
                 << "vt " << c.from.vt << " (" << c.from.integer << "/" << c.from.real << "/"
                 << Narrow(c.from.text ? c.from.text : u"") << ") to vt " << c.to << " flags "
                 << c.flags);
    UniqueVariant source = Make(c.from);
    UniqueVariant dest;
    const HRESULT hr = VariantChangeType(dest.get(), source.get(), c.flags, c.to);
    EXPECT_EQ(Outcome(hr, *dest.get()), c.outcome);
    EXPECT_EQ(dest->vt, SUCCEEDED(hr) ? c.to : VARTYPE{VT_EMPTY});
  }
}

// clang-format off
TEST(VariantChangeType, NarrowsIntegersOrReportsOverflow) {
  CheckConversions({
      {Int(VT_I4, 255), VT_UI1, "255"}, {Int(VT_I4, 256), VT_UI1, "overflow"},
      {Int(VT_I4, -1), VT_UI1, "overflow"}, {Int(VT_I4, -128), VT_I1, "-128"},
      {Int(VT_I4, -129), VT_I1, "overflow"}, {Int(VT_I4, 32767), VT_I2, "32767"},
      {Int(VT_I4, 40000), VT_I2, "overflow"}, {Int(VT_I4, 40000), VT_UI2, "40000"},
      {Int(VT_I8, 2147483648LL), VT_I4, "overflow"},
      {Int(VT_I8, -2147483648LL), VT_I4, "-2147483648"},
      {Int(VT_UI4, 4294967295LL), VT_I8, "4294967295"}, {Int(VT_I4, -1), VT_UI8, "overflow"},
      {Int(VT_UI8, std::numeric_limits<long long>::min()), VT_I4, "overflow"},
      {Int(VT_I4, 7), VT_INT, "7"}, {Int(VT_UI1, 200), VT_I2, "200"},
      // Integers of one width keep their bits when only the sign changes.
      {Int(VT_I4, -1), VT_UI4, "4294967295"}, {Int(VT_I2, -1), VT_UI2, "65535"}});
}

TEST(VariantChangeType, RoundsRealsHalfToEven) {
  CheckConversions({
      {Real(VT_R8, 2.5), VT_I4, "2"}, {Real(VT_R8, 3.5), VT_I4, "4"},
      {Real(VT_R8, -2.5), VT_I4, "-2"}, {Real(VT_R8, 2.4999), VT_I2, "2"},
      {Real(VT_R8, 255.5), VT_UI1, "overflow"}, {Real(VT_R8, 254.5), VT_UI1, "254"},
      {Real(VT_R8, 2147483647.5), VT_I4, "overflow"},
      {Real(VT_R8, -2147483648.5), VT_I4, "-2147483648"},
      {Real(VT_R8, std::nan("")), VT_I4, "overflow"}, {Real(VT_R8, 1e19), VT_I8, "overflow"},
      {Real(VT_R4, 1.5), VT_I8, "2"}, {Real(VT_R8, 1e40), VT_R4, "overflow"},
      {Real(VT_R8, 1.5), VT_R4, "1.5"}, {Real(VT_R8, 1.25), VT_CY, "12500"},
      {Real(VT_R8, 45000.5), VT_DATE, "45000.5"}, {Real(VT_R8, 1e7), VT_DATE, "overflow"},
      {Int(VT_CY, 15000), VT_I4, "2"}, {Int(VT_CY, 25000), VT_I4, "2"},
      {Int(VT_I4, 3), VT_CY, "30000"}});
}

TEST(VariantChangeType, BooleansAreMinusOneOrZero) {
  CheckConversions({
      {Bool(true), VT_I4, "-1"}, {Bool(true), VT_UI1, "255"}, {Bool(true), VT_R8, "-1"},
      {Bool(false), VT_I4, "0"}, {Int(VT_I4, 5), VT_BOOL, "-1"}, {Int(VT_UI8, 0), VT_BOOL, "0"},
      {Real(VT_R8, 0.25), VT_BOOL, "-1"}, {Real(VT_R8, 0.0), VT_BOOL, "0"},
      {Bool(true), VT_BSTR, "-1"}, {Bool(false), VT_BSTR, "0"},
      {Bool(true), VT_BSTR, "True", VARIANT_ALPHABOOL},
      {Bool(false), VT_BSTR, "False", VARIANT_ALPHABOOL},
      {Bool(true), VT_BSTR, "True", VARIANT_LOCALBOOL}});
}

TEST(VariantChangeType, ReadsTextAsTheEnglishLocaleDoes) {
  CheckConversions({
      {Text(u"12"), VT_I4, "12"}, {Text(u"-3"), VT_I4, "-3"}, {Text(u"+3"), VT_I2, "3"},
      {Text(u"  7 "), VT_I4, "7"}, {Text(u"1.5"), VT_R8, "1.5"}, {Text(u".5"), VT_R8, "0.5"},
      {Text(u"1,000"), VT_I4, "1000"}, {Text(u"1e3"), VT_I4, "1000"},
      {Text(u"2.5E-1"), VT_R8, "0.25"}, {Text(u"2.5"), VT_I4, "2"}, {Text(u"3.5"), VT_I4, "4"},
      {Text(u"2.5000001"), VT_I4, "3"}, {Text(u"0.5"), VT_I4, "0"}, {Text(u"1.5"), VT_CY, "15000"},
      {Text(u"9223372036854775807"), VT_I8, "9223372036854775807"},
      {Text(u"9223372036854775808"), VT_I8, "overflow"},
      {Text(u"18446744073709551615"), VT_UI8, "18446744073709551615"},
      {Text(u"300"), VT_UI1, "overflow"}, {Text(u"-1"), VT_UI4, "overflow"},
      {Text(u"1e400"), VT_R8, "overflow"}, {Text(u"0x1F"), VT_I4, "mismatch"},
      {Text(u""), VT_I4, "mismatch"}, {Text(u"   "), VT_R8, "mismatch"},
      {Text(u"abc"), VT_I4, "mismatch"}, {Text(u"12abc"), VT_I4, "mismatch"},
      {Text(u"1e"), VT_R8, "mismatch"}, {Text(u"-"), VT_I4, "mismatch"},
      {Text(u"1.2.3"), VT_R8, "mismatch"}, {Text(u"True"), VT_BOOL, "-1"},
      {Text(u" false "), VT_BOOL, "0"}, {Text(u"#TRUE#"), VT_BOOL, "-1"},
      {Text(u"0"), VT_BOOL, "0"}, {Text(u"2"), VT_BOOL, "-1"}, {Text(u"yes"), VT_BOOL, "mismatch"},
      {Text(u""), VT_BOOL, "mismatch"}});
}

TEST(VariantChangeType, WritesNumbersAsTheEnglishLocaleDoes) {
  CheckConversions({
      {Int(VT_I4, -42), VT_BSTR, "-42"}, {Int(VT_UI8, -1), VT_BSTR, "18446744073709551615"},
      {Int(VT_I1, -5), VT_BSTR, "-5"}, {Real(VT_R8, 1.5), VT_BSTR, "1.5"},
      {Real(VT_R8, 0.1), VT_BSTR, "0.1"}, {Real(VT_R8, 1.0 / 3.0), VT_BSTR, "0.333333333333333"},
      {Real(VT_R8, 100000), VT_BSTR, "100000"}, {Real(VT_R8, 1e20), VT_BSTR, "1E+20"},
      {Real(VT_R8, 1.5e-7), VT_BSTR, "1.5E-07"},
      {Real(VT_R8, 123456789012345678.0), VT_BSTR, "1.23456789012346E+17"},
      {Real(VT_R8, -0.0), VT_BSTR, "0"}, {Real(VT_R4, 0.1), VT_BSTR, "0.1"},
      {Int(VT_CY, 15000), VT_BSTR, "1.5"}, {Int(VT_CY, -20000), VT_BSTR, "-2"}});
}

TEST(VariantChangeType, EmptyIsZeroNullIsNothingAndOddTypesAreRefused) {
  CheckConversions({
      {Int(VT_EMPTY, 0), VT_I4, "0"}, {Int(VT_EMPTY, 0), VT_BOOL, "0"},
      {Int(VT_EMPTY, 0), VT_BSTR, ""}, {Int(VT_EMPTY, 0), VT_NULL, ""},
      {Int(VT_NULL, 0), VT_NULL, ""}, {Int(VT_NULL, 0), VT_I4, "mismatch"},
      {Int(VT_NULL, 0), VT_BSTR, "mismatch"}, {Int(VT_NULL, 0), VT_EMPTY, "mismatch"},
      {Int(VT_I4, 9), VT_EMPTY, ""}, {Text(u"x"), VT_NULL, ""},
      {Int(VT_ERROR, 0x80020004), VT_I4, "mismatch"},
      {Int(VT_ERROR, 0x80020004), VT_EMPTY, "mismatch"}, {Int(VT_I4, 1), VT_UNKNOWN, "mismatch"},
      {Int(VT_I4, 1), VARTYPE{15}, "badtype"}, {Int(VT_I4, 1), VT_LPWSTR, "badtype"},
      {Int(VT_I4, 1), VT_CLSID, "badtype"}, {Int(VT_I4, 1), VARTYPE(VT_ARRAY | VT_I4), "badtype"}});
}

TEST(VariantChangeType, DecimalsConvertExactly) {
  CheckConversions({
      {Dec(-150, 2), VT_R8, "-1.5"}, {Dec(-150, 2), VT_I4, "-2"}, {Dec(-150, 2), VT_BSTR, "-1.5"},
      // Reals enter decimals by their 15-digit text: 0.1 is exactly one tenth.
      {Real(VT_R8, 0.1), VT_DECIMAL, "0:1e-1"},
      {Text(u"79228162514264337593543950335"), VT_DECIMAL, "4294967295:18446744073709551615e-0"},
      {Text(u"79228162514264337593543950336"), VT_DECIMAL, "overflow"},
      // 29 is beyond the largest scale a DECIMAL may have.
      {Dec(1, 29), VT_R8, "invalidarg"}});
}
// clang-format on

TEST(VariantChangeTypeInPlace, SuccessReplacesAndFailureKeepsTheDestination) {
  UniqueVariant v = Make(Text(u"42"));
  ASSERT_EQ(VariantChangeType(v.get(), v.get(), 0, VT_I4), S_OK);
  EXPECT_EQ(v->vt, VT_I4);
  EXPECT_EQ(v->lVal, 42);

  UniqueVariant dest = Make(Text(u"old"));
  UniqueVariant number = Make(Int(VT_I2, 5));
  ASSERT_EQ(VariantChangeType(dest.get(), number.get(), 0, VT_BSTR), S_OK);
  EXPECT_EQ(BstrView(dest->bstrVal), u"5");

  UniqueVariant null = Make(Int(VT_NULL, 0));
  EXPECT_EQ(VariantChangeType(dest.get(), null.get(), 0, VT_I4), DISP_E_TYPEMISMATCH);
  ASSERT_EQ(dest->vt, VT_BSTR);
  EXPECT_EQ(BstrView(dest->bstrVal), u"5");

  UniqueVariant self = Make(Text(u"not a number"));
  EXPECT_EQ(VariantChangeType(self.get(), self.get(), 0, VT_R8), DISP_E_TYPEMISMATCH);
  ASSERT_EQ(self->vt, VT_BSTR);
  EXPECT_EQ(BstrView(self->bstrVal), u"not a number");
}

TEST(VariantChangeTypeInPlace, ReferencesAreDereferencedAndLeftToTheCaller) {
  LONG number = 7;
  VARIANT byNumber = Borrowed(VT_I4 | VT_BYREF, &number);
  UniqueVariant out;
  ASSERT_EQ(VariantChangeType(out.get(), &byNumber, 0, VT_BSTR), S_OK);
  EXPECT_EQ(BstrView(out->bstrVal), u"7");

  UniqueBstr text = MakeBstr(u"  19 ");
  BSTR raw = text.get();
  VARIANT byText = Borrowed(VT_BSTR | VT_BYREF, &raw);
  ASSERT_EQ(VariantChangeType(out.get(), &byText, 0, VT_UI2), S_OK);
  EXPECT_EQ(out->uiVal, 19);
  EXPECT_EQ(raw, text.get());

  // In place, the reference is replaced by the value and the referenced string is untouched.
  ASSERT_EQ(VariantChangeType(&byText, &byText, 0, VT_I4), S_OK);
  EXPECT_EQ(byText.vt, VT_I4);
  EXPECT_EQ(byText.lVal, 19);
  EXPECT_EQ(BstrView(text.get()), u"  19 ");

  byNumber.plVal = nullptr;
  EXPECT_EQ(VariantChangeType(out.get(), &byNumber, 0, VT_I4), DISP_E_TYPEMISMATCH);
}

TEST(VariantChangeTypeObjects, UnknownBecomesDispatchThroughQueryInterface) {
  CountingObject object;
  VARIANT unknown = Borrowed(VT_UNKNOWN, static_cast<IDispatch*>(&object));
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
  VARIANT dispatch = Borrowed(VT_DISPATCH, static_cast<IDispatch*>(&object));
  UniqueVariant out;
  ASSERT_EQ(VariantChangeType(out.get(), &dispatch, 0, VT_I4), S_OK);
  EXPECT_EQ(out->lVal, 17);
  EXPECT_EQ(object.lastMember, DISPID_VALUE);
  EXPECT_EQ(object.lastFlags, DISPATCH_PROPERTYGET);
  EXPECT_EQ(object.lastArgCount, 0u);
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

TEST(Guid, GeneratedGuidsAreVersionFourAndRoundTripThroughText) {
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
  // clang-format off
  const char16_t* const malformed[] = {
      u"", u"00020400-0000-0000-C000-000000000046", u"{00020400-0000-0000-C000-000000000046",
      u"{00020400-0000-0000-C000-00000000004}", u"{00020400-0000-0000-C000-000000000046}x",
      u"{00020400-0000-0000-C000-00000000004G}", u"{000204000-000-0000-C000-000000000046}",
      u"{00020400 0000-0000-C000-000000000046}", u"(00020400-0000-0000-C000-000000000046)",
      u"{0x020400-0000-0000-C000-000000000046}"};
  // clang-format on
  for (const char16_t* text : malformed) {
    SCOPED_TRACE(Narrow(text));
    IID iid = IID_IDispatch;
    EXPECT_EQ(IIDFromString(text, &iid), E_INVALIDARG);
    CLSID clsid{};
    EXPECT_EQ(CLSIDFromString(text, &clsid), CO_E_CLASSSTRING);
  }
}

// ---------------------------------------------------------------------------------------------
// Owners

TEST(ComPtr, CountsReferencesThroughCopiesMovesPutAndDetach) {
  CountingObject object;
  {
    ComPtr<IDispatch> first(&object);
    ComPtr<IDispatch> second = first;
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
    // Attach and Detach move ownership without counting.
    IDispatch* raw = moved.Detach();
    EXPECT_EQ(raw, &object);
    EXPECT_FALSE(moved);
    EXPECT_EQ(object.extra(), 2u);
    first.Attach(raw);
    EXPECT_EQ(object.extra(), 2u);
  }
  EXPECT_EQ(object.extra(), 0u);
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

TEST(UniqueVariant, ReleasesWhatItOwnsOnceThroughMovesAndRelease) {
  CountingObject object;
  {
    UniqueVariant v(MakeObjectVariant(&object, VT_DISPATCH));
    UniqueVariant moved = std::move(v);
    EXPECT_EQ(v.vt(), VT_EMPTY);
    EXPECT_EQ(object.extra(), 1u);
    UniqueVariant again(moved.release());
    EXPECT_EQ(moved.vt(), VT_EMPTY);
    EXPECT_EQ(object.extra(), 1u);
    UniqueVariant number(MakeI4Variant(3));
    again = std::move(number);
    EXPECT_EQ(object.extra(), 0u);
    EXPECT_EQ(again->lVal, 3);
  }
  EXPECT_EQ(object.extra(), 0u);
}

}  // namespace
