// BSTR, VARIANT and GUID services of the POSIX backend.
//
// A BSTR block is laid out as [4 bytes unused][4 bytes byte length][text][2 zero bytes], so that
// the length sits directly before the text and the text keeps the 8-byte alignment of the block.
#include "platform/com.h"

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>

#include <sys/random.h>

namespace {

// Wide enough for every integer type of a VARIANT with room for rounding and overflow checks.
__extension__ typedef __int128 Int128;
__extension__ typedef unsigned __int128 UInt128;

// ---------------------------------------------------------------------------------------------
// BSTR blocks

constexpr std::size_t kBstrHeader = 8;
constexpr std::size_t kBstrLengthOffset = 4;
// Larger strings could not state their byte length in the 32-bit prefix with room for the
// terminator.
constexpr UINT kMaxBstrBytes = 0xFFFFFFFFu - kBstrHeader - 2;

char* BlockOf(BSTR bstr) noexcept { return reinterpret_cast<char*>(bstr) - kBstrHeader; }

BSTR AllocateBytes(UINT byteLength) noexcept {
  if (byteLength > kMaxBstrBytes) return nullptr;
  auto* block = static_cast<char*>(std::malloc(kBstrHeader + byteLength + 2));
  if (block == nullptr) return nullptr;
  const std::uint32_t prefix = byteLength;
  std::memset(block, 0, kBstrLengthOffset);
  std::memcpy(block + kBstrLengthOffset, &prefix, sizeof prefix);
  char* text = block + kBstrHeader;
  text[byteLength] = 0;
  text[byteLength + 1] = 0;
  return reinterpret_cast<BSTR>(text);
}

std::size_t TextLength(const OLECHAR* text) noexcept {
  std::size_t n = 0;
  while (text[n] != 0) ++n;
  return n;
}

BSTR BstrFromAscii(const char* text, std::size_t length) noexcept {
  BSTR result = AllocateBytes(static_cast<UINT>(length * 2));
  if (result == nullptr) return nullptr;
  for (std::size_t i = 0; i < length; ++i) result[i] = static_cast<OLECHAR>(text[i]);
  return result;
}

// ---------------------------------------------------------------------------------------------
// Numbers held exactly in decimal, as text and DECIMAL values need them.

constexpr int kMaxDigits = 40;

// value = (negative ? -1 : 1) * 0.d1d2...dn * 10^(count + exponent) -- that is, the digit string
// times 10^exponent. `sticky` records that non-zero digits beyond the kept ones were dropped.
struct ExactNumber {
  bool negative = false;
  char digits[kMaxDigits] = {};
  int count = 0;
  int exponent = 0;
  bool sticky = false;

  bool IsZero() const noexcept { return count == 0 && !sticky; }

  void PushDigit(int d) noexcept {
    if (count == 0 && d == 0) return;  // leading zeros carry no value
    if (count < kMaxDigits) {
      digits[count++] = static_cast<char>(d);
    } else {
      ++exponent;
      if (d != 0) sticky = true;
    }
  }
  // Appends a digit after the decimal point.
  void PushFraction(int d) noexcept {
    if (count == 0 && d == 0) {
      --exponent;
      return;
    }
    if (count < kMaxDigits) {
      digits[count++] = static_cast<char>(d);
      --exponent;
    } else if (d != 0) {
      sticky = true;
    }
  }
};

bool IsBlank(OLECHAR c) noexcept {
  return c == u' ' || c == u'\t' || c == u'\n' || c == u'\r' || c == u'\v' || c == u'\f' ||
         c == 0x00A0;
}
bool IsDigit(OLECHAR c) noexcept { return c >= u'0' && c <= u'9'; }

// Parses text as the English locale reads numbers: blanks, an optional sign, digits with
// thousands commas, an optional point and fraction, an optional exponent, blanks. The text ends
// at its first zero character, as it does for the system's parser.
bool ParseNumber(const OLECHAR* text, std::size_t length, ExactNumber* out) noexcept {
  if (text == nullptr) return false;
  std::size_t i = 0;
  auto at = [&](std::size_t k) -> OLECHAR { return k < length ? text[k] : OLECHAR{0}; };
  while (IsBlank(at(i))) ++i;
  ExactNumber n;
  if (at(i) == u'+' || at(i) == u'-') {
    n.negative = at(i) == u'-';
    ++i;
  }
  bool anyDigit = false;
  while (true) {
    const OLECHAR c = at(i);
    if (IsDigit(c)) {
      n.PushDigit(c - u'0');
      anyDigit = true;
    } else if (c == u',' && anyDigit) {
      // thousands separator
    } else {
      break;
    }
    ++i;
  }
  if (at(i) == u'.') {
    ++i;
    while (IsDigit(at(i))) {
      n.PushFraction(at(i) - u'0');
      anyDigit = true;
      ++i;
    }
  }
  if (!anyDigit) return false;
  if (at(i) == u'e' || at(i) == u'E') {
    ++i;
    bool negativeExponent = false;
    if (at(i) == u'+' || at(i) == u'-') {
      negativeExponent = at(i) == u'-';
      ++i;
    }
    if (!IsDigit(at(i))) return false;
    long exponent = 0;
    while (IsDigit(at(i))) {
      if (exponent < 100000) exponent = exponent * 10 + (at(i) - u'0');
      ++i;
    }
    n.exponent += static_cast<int>(negativeExponent ? -exponent : exponent);
  }
  while (IsBlank(at(i))) ++i;
  if (at(i) != 0) return false;
  if (n.count == 0) n.negative = false;
  *out = n;
  return true;
}

ExactNumber ExactFromMagnitude(UInt128 magnitude, bool negative, int exponent) noexcept {
  char reversed[kMaxDigits];
  int k = 0;
  while (magnitude != 0 && k < kMaxDigits) {
    reversed[k++] = static_cast<char>(magnitude % 10);
    magnitude /= 10;
  }
  ExactNumber n;
  for (int j = k - 1; j >= 0; --j) n.PushDigit(reversed[j]);
  // Trailing zeros of the integer are folded into the exponent so that digits stay significant.
  while (n.count > 0 && n.digits[n.count - 1] == 0) {
    --n.count;
    ++n.exponent;
  }
  n.exponent += exponent;
  n.negative = negative && n.count > 0;
  return n;
}

// Rounds to an integer, half to even. False when the magnitude cannot be an integer of any
// VARIANT type.
bool RoundExact(const ExactNumber& n, Int128* out) noexcept {
  const int intCount = n.count + n.exponent;
  if (intCount > 30) return false;
  UInt128 magnitude = 0;
  for (int i = 0; i < intCount; ++i) magnitude = magnitude * 10 + (i < n.count ? n.digits[i] : 0);
  if (intCount >= 0 && intCount < n.count) {
    const int first = n.digits[intCount];
    bool rest = n.sticky;
    for (int i = intCount + 1; i < n.count && !rest; ++i) rest = n.digits[i] != 0;
    if (first > 5 || (first == 5 && (rest || (magnitude & 1) != 0))) ++magnitude;
  }
  *out = n.negative ? -static_cast<Int128>(magnitude) : static_cast<Int128>(magnitude);
  return true;
}

// HRESULT-style outcome of turning exact digits into a double.
HRESULT ExactToDouble(const ExactNumber& n, double* out) noexcept {
  if (n.count == 0) {
    *out = 0.0;
    return S_OK;
  }
  char buffer[kMaxDigits + 24];
  int k = 0;
  if (n.negative) buffer[k++] = '-';
  for (int i = 0; i < n.count; ++i) buffer[k++] = static_cast<char>('0' + n.digits[i]);
  buffer[k++] = 'e';
  const auto written = std::to_chars(buffer + k, buffer + sizeof buffer, n.exponent);
  double value = 0.0;
  const auto parsed = std::from_chars(buffer, written.ptr, value);
  if (parsed.ec == std::errc::result_out_of_range) {
    if (n.count + n.exponent > 0) return DISP_E_OVERFLOW;
    value = n.negative ? -0.0 : 0.0;
  } else if (parsed.ec != std::errc{}) {
    return DISP_E_TYPEMISMATCH;
  }
  *out = value;
  return S_OK;
}

// The text of an exact number: plain decimal notation without trailing fraction zeros.
BSTR ExactToBstr(const ExactNumber& n) noexcept {
  char buffer[128];
  int k = 0;
  if (n.count == 0) {
    buffer[k++] = '0';
    return BstrFromAscii(buffer, k);
  }
  int last = n.count;  // drop zeros that only pad the fraction
  int exponent = n.exponent;
  while (last > 0 && n.digits[last - 1] == 0 && exponent < 0) {
    --last;
    ++exponent;
  }
  const int intCount = last + exponent;
  if (intCount > 80 || intCount < -40) return nullptr;
  if (n.negative) buffer[k++] = '-';
  if (intCount <= 0) {
    buffer[k++] = '0';
    buffer[k++] = '.';
    for (int i = 0; i < -intCount; ++i) buffer[k++] = '0';
    for (int i = 0; i < last; ++i) buffer[k++] = static_cast<char>('0' + n.digits[i]);
  } else {
    for (int i = 0; i < intCount; ++i) {
      buffer[k++] = static_cast<char>('0' + (i < last ? n.digits[i] : 0));
    }
    if (intCount < last) {
      buffer[k++] = '.';
      for (int i = intCount; i < last; ++i) buffer[k++] = static_cast<char>('0' + n.digits[i]);
    }
  }
  return BstrFromAscii(buffer, k);
}

// ---------------------------------------------------------------------------------------------
// DECIMAL and CY

constexpr UInt128 kDecimalLimit = static_cast<UInt128>(1) << 96;
constexpr int kMaxDecimalScale = 28;

UInt128 DecimalMagnitude(const DECIMAL& d) noexcept {
  return (static_cast<UInt128>(d.Hi32) << 64) | d.Lo64;
}

HRESULT ExactFromDecimal(const DECIMAL& d, ExactNumber* out) noexcept {
  if (d.scale > kMaxDecimalScale || (d.sign & ~DECIMAL_NEG) != 0) return E_INVALIDARG;
  *out = ExactFromMagnitude(DecimalMagnitude(d), (d.sign & DECIMAL_NEG) != 0, -d.scale);
  return S_OK;
}

// Drops the last digit of `value`, rounding half to even; `sticky` tells of dropped non-zero
// digits below it.
UInt128 DropDigit(UInt128 value, bool* sticky) noexcept {
  const unsigned digit = static_cast<unsigned>(value % 10);
  value /= 10;
  if (digit > 5 || (digit == 5 && (*sticky || (value & 1) != 0))) ++value;
  if (digit != 0) *sticky = true;
  return value;
}

HRESULT DecimalFromExact(const ExactNumber& n, DECIMAL* out) noexcept {
  // At most 29 significant digits fit 96 bits; round the rest away first.
  const ExactNumber& r = n;
  bool sticky = n.sticky;
  UInt128 magnitude = 0;
  const int keep = r.count < 30 ? r.count : 30;
  for (int i = 0; i < keep; ++i) magnitude = magnitude * 10 + r.digits[i];
  for (int i = keep; i < r.count; ++i) sticky = sticky || r.digits[i] != 0;
  int exponent = r.exponent + (r.count - keep);
  if (r.count > keep) {
    // The first dropped digit decides the rounding.
    const int first = r.digits[keep];
    bool rest = n.sticky;
    for (int i = keep + 1; i < r.count && !rest; ++i) rest = r.digits[i] != 0;
    if (first > 5 || (first == 5 && (rest || (magnitude & 1) != 0))) ++magnitude;
  }
  while (exponent > 0) {
    if (magnitude >= kDecimalLimit) return DISP_E_OVERFLOW;
    magnitude *= 10;
    --exponent;
  }
  int scale = -exponent;
  while (scale > kMaxDecimalScale || (magnitude >= kDecimalLimit && scale > 0)) {
    magnitude = DropDigit(magnitude, &sticky);
    --scale;
  }
  if (magnitude >= kDecimalLimit) return DISP_E_OVERFLOW;
  DECIMAL d{};
  d.scale = static_cast<BYTE>(scale);
  d.sign = (n.negative && magnitude != 0) ? DECIMAL_NEG : 0;
  d.Hi32 = static_cast<ULONG>(magnitude >> 64);
  d.Lo64 = static_cast<ULONGLONG>(magnitude);
  *out = d;
  return S_OK;
}

// ---------------------------------------------------------------------------------------------
// Scalar values between source and destination

enum class Kind { kInteger, kReal, kExact };

struct Number {
  Kind kind = Kind::kInteger;
  Int128 integer = 0;
  double real = 0.0;
  ExactNumber exact;
  bool fromBool = false;
};

bool IsIntegerType(VARTYPE vt) noexcept {
  switch (vt) {
    case VT_I1:
    case VT_UI1:
    case VT_I2:
    case VT_UI2:
    case VT_I4:
    case VT_UI4:
    case VT_INT:
    case VT_UINT:
    case VT_I8:
    case VT_UI8:
      return true;
    default:
      return false;
  }
}

int IntegerWidth(VARTYPE vt) noexcept {
  switch (vt) {
    case VT_I1:
    case VT_UI1:
      return 1;
    case VT_I2:
    case VT_UI2:
      return 2;
    case VT_I8:
    case VT_UI8:
      return 8;
    default:
      return 4;
  }
}

bool IsSignedType(VARTYPE vt) noexcept {
  return vt == VT_I1 || vt == VT_I2 || vt == VT_I4 || vt == VT_INT || vt == VT_I8;
}

Int128 ReadInteger(const VARIANT& v) noexcept {
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
      return v.lVal;
    case VT_INT:
      return v.intVal;
    case VT_UI4:
      return v.ulVal;
    case VT_UINT:
      return v.uintVal;
    case VT_I8:
      return v.llVal;
    case VT_UI8:
      return v.ullVal;
    default:
      return 0;
  }
}

// Writes the low bytes of `value` as integer type `vt`.
void WriteInteger(VARIANT* v, VARTYPE vt, Int128 value) noexcept {
  switch (vt) {
    case VT_I1:
      v->cVal = static_cast<CHAR>(value);
      break;
    case VT_UI1:
      v->bVal = static_cast<BYTE>(value);
      break;
    case VT_I2:
      v->iVal = static_cast<SHORT>(value);
      break;
    case VT_UI2:
      v->uiVal = static_cast<USHORT>(value);
      break;
    case VT_I4:
    case VT_INT:
      v->lVal = static_cast<LONG>(value);
      break;
    case VT_UI4:
    case VT_UINT:
      v->ulVal = static_cast<ULONG>(value);
      break;
    case VT_I8:
      v->llVal = static_cast<LONGLONG>(value);
      break;
    case VT_UI8:
      v->ullVal = static_cast<ULONGLONG>(value);
      break;
    default:
      break;
  }
}

void IntegerRange(VARTYPE vt, Int128* low, Int128* high) noexcept {
  const int bits = IntegerWidth(vt) * 8;
  if (IsSignedType(vt)) {
    *high = (static_cast<Int128>(1) << (bits - 1)) - 1;
    *low = -*high - 1;
  } else {
    *low = 0;
    *high = (static_cast<Int128>(1) << bits) - 1;
  }
}

double RoundHalfEven(double x) noexcept {
  const double floor = std::floor(x);
  const double diff = x - floor;
  if (diff > 0.5) return floor + 1.0;
  if (diff < 0.5) return floor;
  return std::fmod(floor, 2.0) == 0.0 ? floor : floor + 1.0;
}

// The nearest integer, half to even. DISP_E_OVERFLOW for values no integer type can hold.
HRESULT NumberToInteger(const Number& n, Int128* out) noexcept {
  switch (n.kind) {
    case Kind::kInteger:
      *out = n.integer;
      return S_OK;
    case Kind::kReal: {
      if (!std::isfinite(n.real)) return DISP_E_OVERFLOW;
      const double rounded = RoundHalfEven(n.real);
      if (std::fabs(rounded) >= 0x1p100) return DISP_E_OVERFLOW;
      *out = static_cast<Int128>(rounded);
      return S_OK;
    }
    case Kind::kExact:
      return RoundExact(n.exact, out) ? S_OK : DISP_E_OVERFLOW;
  }
  return DISP_E_TYPEMISMATCH;
}

HRESULT NumberToDouble(const Number& n, double* out) noexcept {
  switch (n.kind) {
    case Kind::kInteger:
      *out = static_cast<double>(n.integer);
      return S_OK;
    case Kind::kReal:
      *out = n.real;
      return S_OK;
    case Kind::kExact:
      return ExactToDouble(n.exact, out);
  }
  return DISP_E_TYPEMISMATCH;
}

bool NumberIsZero(const Number& n) noexcept {
  switch (n.kind) {
    case Kind::kInteger:
      return n.integer == 0;
    case Kind::kReal:
      return n.real == 0.0;
    case Kind::kExact:
      return n.exact.IsZero();
  }
  return true;
}

// Formats a real as the system does for VT_R8 (15 significant digits) and VT_R4 (7): the
// shortest of fixed and exponent notation, upper-case "E", never "-0".
std::size_t FormatReal(double x, int precision, char* buffer, std::size_t size) noexcept {
  if (x == 0.0) x = 0.0;
  const auto result =
      std::to_chars(buffer, buffer + size, x, std::chars_format::general, precision);
  std::size_t length = static_cast<std::size_t>(result.ptr - buffer);
  for (std::size_t i = 0; i < length; ++i) {
    if (buffer[i] == 'e') buffer[i] = 'E';
  }
  // A value that rounds to zero at this precision prints as "-0" but must read "0".
  if (length == 2 && buffer[0] == '-' && buffer[1] == '0') {
    buffer[0] = '0';
    length = 1;
  }
  return length;
}

HRESULT DecimalFromNumber(const Number& n, DECIMAL* out) noexcept {
  switch (n.kind) {
    case Kind::kInteger: {
      const bool negative = n.integer < 0;
      const UInt128 magnitude = negative ? -static_cast<UInt128>(n.integer) : n.integer;
      DECIMAL d{};
      d.sign = negative ? DECIMAL_NEG : 0;
      d.Hi32 = static_cast<ULONG>(magnitude >> 64);
      d.Lo64 = static_cast<ULONGLONG>(magnitude);
      *out = d;
      return S_OK;
    }
    case Kind::kReal: {
      // Reals enter decimals through their 15-digit text, as the system's conversion does, so
      // that 0.1 becomes exactly 0.1.
      if (!std::isfinite(n.real)) return DISP_E_OVERFLOW;
      char buffer[64];
      const std::size_t length = FormatReal(n.real, 15, buffer, sizeof buffer);
      OLECHAR wide[64];
      for (std::size_t i = 0; i < length; ++i) wide[i] = static_cast<OLECHAR>(buffer[i]);
      ExactNumber exact;
      if (!ParseNumber(wide, length, &exact)) return DISP_E_OVERFLOW;
      return DecimalFromExact(exact, out);
    }
    case Kind::kExact:
      return DecimalFromExact(n.exact, out);
  }
  return DISP_E_TYPEMISMATCH;
}

HRESULT CurrencyFromNumber(const Number& n, CY* out) noexcept {
  Int128 scaled = 0;
  switch (n.kind) {
    case Kind::kInteger:
      scaled = n.integer * 10000;
      break;
    case Kind::kReal: {
      if (!std::isfinite(n.real)) return DISP_E_OVERFLOW;
      const double rounded = RoundHalfEven(n.real * 10000.0);
      if (std::fabs(rounded) >= 0x1p100) return DISP_E_OVERFLOW;
      scaled = static_cast<Int128>(rounded);
      break;
    }
    case Kind::kExact: {
      ExactNumber shifted = n.exact;
      shifted.exponent += 4;
      if (!RoundExact(shifted, &scaled)) return DISP_E_OVERFLOW;
      break;
    }
  }
  if (scaled > std::numeric_limits<LONGLONG>::max() ||
      scaled < std::numeric_limits<LONGLONG>::min()) {
    return DISP_E_OVERFLOW;
  }
  out->int64 = static_cast<LONGLONG>(scaled);
  return S_OK;
}

// Stores a number as scalar type `vt` (not VT_BSTR).
HRESULT StoreNumber(const Number& n, VARTYPE vt, VARIANT* out) noexcept {
  if (IsIntegerType(vt)) {
    Int128 value = 0;
    const HRESULT hr = NumberToInteger(n, &value);
    if (FAILED(hr)) return hr;
    Int128 low = 0;
    Int128 high = 0;
    IntegerRange(vt, &low, &high);
    // VARIANT_TRUE stored in an unsigned type keeps its bits: 255, 65535, ... as the system does.
    if (!n.fromBool && (value < low || value > high)) return DISP_E_OVERFLOW;
    WriteInteger(out, vt, value);
    return S_OK;
  }
  switch (vt) {
    case VT_BOOL:
      out->boolVal = NumberIsZero(n) ? VARIANT_FALSE : VARIANT_TRUE;
      return S_OK;
    case VT_R8: {
      double value = 0.0;
      const HRESULT hr = NumberToDouble(n, &value);
      if (FAILED(hr)) return hr;
      out->dblVal = value;
      return S_OK;
    }
    case VT_R4: {
      double value = 0.0;
      const HRESULT hr = NumberToDouble(n, &value);
      if (FAILED(hr)) return hr;
      if (std::fabs(value) > std::numeric_limits<float>::max()) return DISP_E_OVERFLOW;
      out->fltVal = static_cast<float>(value);
      return S_OK;
    }
    case VT_DATE: {
      double value = 0.0;
      const HRESULT hr = NumberToDouble(n, &value);
      if (FAILED(hr)) return hr;
      // Days from 30 December 1899; the system's dates run from the year 100 to 9999.
      if (!(value > -657435.0 && value < 2958466.0)) return DISP_E_OVERFLOW;
      out->date = value;
      return S_OK;
    }
    case VT_CY:
      return CurrencyFromNumber(n, &out->cyVal);
    case VT_DECIMAL: {
      if (n.fromBool) {
        // A boolean becomes 1 or 0 here, unlike its -1 everywhere else: intended, as the
        // system's VariantChangeType does.
        DECIMAL d{};
        d.Lo64 = n.integer != 0 ? 1 : 0;
        out->decVal = d;
        return S_OK;
      }
      DECIMAL d{};
      const HRESULT hr = DecimalFromNumber(n, &d);
      if (FAILED(hr)) return hr;
      out->decVal = d;
      return S_OK;
    }
    default:
      return DISP_E_TYPEMISMATCH;
  }
}

bool EqualsNoCaseAscii(const OLECHAR* text, std::size_t length, const char* word) noexcept {
  std::size_t i = 0;
  for (; word[i] != 0; ++i) {
    if (i >= length) return false;
    OLECHAR c = text[i];
    if (c >= u'A' && c <= u'Z') c = static_cast<OLECHAR>(c - u'A' + u'a');
    char w = word[i];
    if (w >= 'A' && w <= 'Z') w = static_cast<char>(w - 'A' + 'a');
    if (c != static_cast<OLECHAR>(w)) return false;
  }
  return i == length;
}

HRESULT BoolFromText(BSTR text, VARIANT_BOOL* out) noexcept {
  const std::size_t length = text == nullptr ? 0 : SysStringLen(text);
  std::size_t begin = 0;
  std::size_t end = length;
  while (begin < end && IsBlank(text[begin])) ++begin;
  while (end > begin && IsBlank(text[end - 1])) --end;
  const OLECHAR* word = text == nullptr ? nullptr : text + begin;
  if (EqualsNoCaseAscii(word, end - begin, "True") ||
      EqualsNoCaseAscii(word, end - begin, "#TRUE#")) {
    *out = VARIANT_TRUE;
    return S_OK;
  }
  if (EqualsNoCaseAscii(word, end - begin, "False") ||
      EqualsNoCaseAscii(word, end - begin, "#FALSE#")) {
    *out = VARIANT_FALSE;
    return S_OK;
  }
  ExactNumber n;
  if (!ParseNumber(text, length, &n)) return DISP_E_TYPEMISMATCH;
  *out = n.IsZero() ? VARIANT_FALSE : VARIANT_TRUE;
  return S_OK;
}

// Reads a scalar source as a number; DISP_E_TYPEMISMATCH for types that are no number.
HRESULT ReadNumber(const VARIANT& v, Number* n) noexcept {
  if (IsIntegerType(v.vt)) {
    n->kind = Kind::kInteger;
    n->integer = ReadInteger(v);
    return S_OK;
  }
  switch (v.vt) {
    case VT_BOOL:
      n->kind = Kind::kInteger;
      n->integer = v.boolVal != 0 ? -1 : 0;
      n->fromBool = true;
      return S_OK;
    case VT_R4:
      n->kind = Kind::kReal;
      n->real = v.fltVal;
      return S_OK;
    case VT_R8:
      n->kind = Kind::kReal;
      n->real = v.dblVal;
      return S_OK;
    case VT_DATE:
      n->kind = Kind::kReal;
      n->real = v.date;
      return S_OK;
    case VT_CY: {
      const LONGLONG value = v.cyVal.int64;
      const bool negative = value < 0;
      const UInt128 magnitude =
          negative ? -static_cast<UInt128>(value) : static_cast<UInt128>(value);
      n->kind = Kind::kExact;
      n->exact = ExactFromMagnitude(magnitude, negative, -4);
      return S_OK;
    }
    case VT_DECIMAL:
      n->kind = Kind::kExact;
      return ExactFromDecimal(v.decVal, &n->exact);
    case VT_BSTR:
      n->kind = Kind::kExact;
      return ParseNumber(v.bstrVal, SysStringLen(v.bstrVal), &n->exact) ? S_OK
                                                                        : DISP_E_TYPEMISMATCH;
    default:
      return DISP_E_TYPEMISMATCH;
  }
}

HRESULT TextFromScalar(const VARIANT& v, USHORT flags, BSTR* out) noexcept {
  char buffer[64];
  std::size_t length = 0;
  if (v.vt == VT_BOOL && (flags & (VARIANT_ALPHABOOL | VARIANT_LOCALBOOL)) != 0) {
    const char* word = v.boolVal != 0 ? "True" : "False";
    length = std::strlen(word);
    std::memcpy(buffer, word, length);
  } else if (v.vt == VT_BOOL) {
    // Without VARIANT_ALPHABOOL the system writes a boolean as the number it is: "-1" or "0".
    length = v.boolVal != 0 ? 2 : 1;
    std::memcpy(buffer, v.boolVal != 0 ? "-1" : "0", length);
  } else if (IsIntegerType(v.vt)) {
    const Int128 value = ReadInteger(v);
    const auto result =
        value < 0
            ? std::to_chars(buffer, buffer + sizeof buffer, static_cast<long long>(value))
            : std::to_chars(buffer, buffer + sizeof buffer, static_cast<unsigned long long>(value));
    length = static_cast<std::size_t>(result.ptr - buffer);
  } else if (v.vt == VT_R8) {
    length = FormatReal(v.dblVal, 15, buffer, sizeof buffer);
  } else if (v.vt == VT_R4) {
    length = FormatReal(v.fltVal, 7, buffer, sizeof buffer);
  } else if (v.vt == VT_CY || v.vt == VT_DECIMAL) {
    Number n;
    const HRESULT hr = ReadNumber(v, &n);
    if (FAILED(hr)) return hr;
    *out = ExactToBstr(n.exact);
    return *out != nullptr ? S_OK : E_OUTOFMEMORY;
  } else {
    // Dates would need the locale's date format, which this backend does not have.
    return DISP_E_TYPEMISMATCH;
  }
  *out = BstrFromAscii(buffer, length);
  return *out != nullptr ? S_OK : E_OUTOFMEMORY;
}

bool IsScalarTarget(VARTYPE vt) noexcept {
  return IsIntegerType(vt) || vt == VT_R4 || vt == VT_R8 || vt == VT_DATE || vt == VT_CY ||
         vt == VT_DECIMAL || vt == VT_BOOL || vt == VT_BSTR;
}

HRESULT ValidateType(VARTYPE vt) noexcept {
  const VARTYPE extra = vt & 0xF000;
  const VARTYPE base = vt & VT_TYPEMASK;
  if ((extra & (VT_VECTOR | VT_RESERVED)) != 0) return DISP_E_BADVARTYPE;
  if (base < VT_VOID || base == VT_RECORD || base == VT_CLSID) {
    if ((extra & (VT_BYREF | VT_ARRAY)) != 0 && base <= VT_NULL) return DISP_E_BADVARTYPE;
    if (base != 15) return S_OK;
  }
  return DISP_E_BADVARTYPE;
}

VARTYPE Canonical(VARTYPE vt) noexcept {
  if (vt == VT_INT) return VT_I4;
  if (vt == VT_UINT) return VT_UI4;
  return vt;
}

// Objects could hand out themselves as their value property; the chain stops here.
constexpr int kMaxValueDepth = 8;

HRESULT ChangeType(VARIANT* dest, VARIANT* source, LCID lcid, USHORT flags, VARTYPE vt,
                   int depth) noexcept;

// Converts a by-value `source` to `vt` into the empty `out`. The caller sets out->vt.
HRESULT Coerce(VARIANT* out, VARIANT* source, LCID lcid, USHORT flags, VARTYPE vt,
               int depth) noexcept {
  const VARTYPE from = Canonical(source->vt);
  const VARTYPE to = Canonical(vt);
  if (from == to) return VariantCopy(out, source);
  if ((flags & VARIANT_NOVALUEPROP) != 0 && from == VT_DISPATCH && to != VT_UNKNOWN) {
    return DISP_E_TYPEMISMATCH;
  }
  switch (to) {
    case VT_EMPTY:
    case VT_NULL:
      if (to == VT_EMPTY && from == VT_NULL) return DISP_E_TYPEMISMATCH;
      return (from <= VT_UINT && from != 15 && from != VT_ERROR) ? S_OK : DISP_E_TYPEMISMATCH;
    case VT_UNKNOWN:
      if (from != VT_DISPATCH) return DISP_E_TYPEMISMATCH;
      out->punkVal = nullptr;
      if (source->pdispVal == nullptr) return S_OK;
      return source->pdispVal->QueryInterface(IID_IUnknown,
                                              reinterpret_cast<void**>(&out->punkVal));
    case VT_DISPATCH:
      if (from != VT_UNKNOWN) return DISP_E_TYPEMISMATCH;
      out->pdispVal = nullptr;
      if (source->punkVal == nullptr) return S_OK;
      return source->punkVal->QueryInterface(IID_IDispatch,
                                             reinterpret_cast<void**>(&out->pdispVal));
    default:
      break;
  }
  if (!IsScalarTarget(to)) return DISP_E_TYPEMISMATCH;

  if (from == VT_DISPATCH) {
    if (source->pdispVal == nullptr) return DISP_E_BADVARTYPE;
    if (depth >= kMaxValueDepth) return DISP_E_TYPEMISMATCH;
    DISPPARAMS none = {nullptr, nullptr, 0, 0};
    VARIANT value;
    VariantInit(&value);
    HRESULT hr = source->pdispVal->Invoke(DISPID_VALUE, IID_NULL, lcid, DISPATCH_PROPERTYGET, &none,
                                          &value, nullptr, nullptr);
    if (FAILED(hr)) {
      (void)VariantClear(&value);
      return DISP_E_TYPEMISMATCH;
    }
    hr = ChangeType(out, &value, lcid, flags, vt, depth + 1);
    (void)VariantClear(&value);
    return hr;
  }
  if (from == VT_EMPTY) {
    if (to == VT_BSTR) {
      out->bstrVal = SysAllocStringLen(nullptr, 0);
      return out->bstrVal != nullptr ? S_OK : E_OUTOFMEMORY;
    }
    out->decVal = DECIMAL{};
    return S_OK;
  }
  if (to == VT_BSTR) return TextFromScalar(*source, flags, &out->bstrVal);
  if (from == VT_BSTR && to == VT_BOOL) return BoolFromText(source->bstrVal, &out->boolVal);
  // Integers of one width change signedness by keeping their bits, as the system does.
  if (IsIntegerType(from) && IsIntegerType(to) && IntegerWidth(from) == IntegerWidth(to)) {
    WriteInteger(out, to, ReadInteger(*source));
    return S_OK;
  }
  Number n;
  const HRESULT hr = ReadNumber(*source, &n);
  if (FAILED(hr)) return hr;
  return StoreNumber(n, to, out);
}

HRESULT ChangeType(VARIANT* dest, VARIANT* source, LCID lcid, USHORT flags, VARTYPE vt,
                   int depth) noexcept {
  if (dest == nullptr || source == nullptr) return E_INVALIDARG;
  if (vt == VT_CLSID) return DISP_E_BADVARTYPE;
  HRESULT hr = ValidateType(source->vt);
  if (FAILED(hr)) return hr;
  hr = ValidateType(vt);
  if (FAILED(hr)) return hr;
  if (V_ISBYREF(source) && source->byref == nullptr) return DISP_E_TYPEMISMATCH;
  // Arrays are not supported by this backend.
  if (((source->vt | vt) & VT_ARRAY) != 0) return DISP_E_BADVARTYPE;
  if ((vt & VT_BYREF) != 0) return DISP_E_TYPEMISMATCH;

  VARIANT value;
  VariantInit(&value);
  hr = VariantCopyInd(&value, source);
  if (FAILED(hr)) return hr;
  VARIANT result;
  VariantInit(&result);
  hr = Coerce(&result, &value, lcid, flags, vt, depth);
  (void)VariantClear(&value);
  if (FAILED(hr)) {
    (void)VariantClear(&result);
    return hr;
  }
  result.vt = vt;
  // The destination may be the source, whose value was copied above.
  (void)VariantClear(dest);
  *dest = result;
  return S_OK;
}

}  // namespace

// -----------------------------------------------------------------------------------------------
// BSTR

BSTR SysAllocString(const OLECHAR* text) noexcept {
  if (text == nullptr) return nullptr;
  const std::size_t length = TextLength(text);
  if (length > kMaxBstrBytes / 2) return nullptr;
  return SysAllocStringLen(text, static_cast<UINT>(length));
}

BSTR SysAllocStringLen(const OLECHAR* text, UINT length) noexcept {
  if (length > kMaxBstrBytes / 2) return nullptr;
  BSTR result = AllocateBytes(length * 2);
  if (result != nullptr && text != nullptr) std::memcpy(result, text, length * 2u);
  return result;
}

BSTR SysAllocStringByteLen(LPCSTR bytes, UINT length) noexcept {
  BSTR result = AllocateBytes(length);
  if (result != nullptr && bytes != nullptr) std::memcpy(result, bytes, length);
  return result;
}

INT SysReAllocString(BSTR* bstr, const OLECHAR* text) noexcept {
  if (bstr == nullptr) return FALSE;
  if (text == nullptr) {
    SysFreeString(*bstr);
    *bstr = nullptr;
    return TRUE;
  }
  BSTR fresh = SysAllocString(text);
  if (fresh == nullptr) return FALSE;
  SysFreeString(*bstr);
  *bstr = fresh;
  return TRUE;
}

INT SysReAllocStringLen(BSTR* bstr, const OLECHAR* text, UINT length) noexcept {
  if (bstr == nullptr) return FALSE;
  BSTR fresh = SysAllocStringLen(nullptr, length);
  if (fresh == nullptr) return FALSE;
  if (text != nullptr) {
    std::memcpy(fresh, text, length * 2u);
  } else if (*bstr != nullptr) {
    const UINT keep = SysStringLen(*bstr) < length ? SysStringLen(*bstr) : length;
    std::memcpy(fresh, *bstr, keep * 2u);
  }
  SysFreeString(*bstr);
  *bstr = fresh;
  return TRUE;
}

void SysFreeString(BSTR bstr) noexcept {
  if (bstr != nullptr) std::free(BlockOf(bstr));
}

UINT SysStringByteLen(BSTR bstr) noexcept {
  if (bstr == nullptr) return 0;
  std::uint32_t length = 0;
  std::memcpy(&length, BlockOf(bstr) + kBstrLengthOffset, sizeof length);
  return length;
}

UINT SysStringLen(BSTR bstr) noexcept { return SysStringByteLen(bstr) / 2; }

// -----------------------------------------------------------------------------------------------
// VARIANT

void VariantInit(VARIANTARG* variant) noexcept {
  if (variant != nullptr) variant->vt = VT_EMPTY;
}

HRESULT VariantClear(VARIANTARG* variant) noexcept {
  if (variant == nullptr) return E_INVALIDARG;
  const HRESULT hr = ValidateType(variant->vt);
  if (FAILED(hr)) return hr;
  if (!V_ISBYREF(variant)) {
    if (V_ISARRAY(variant) || variant->vt == VT_SAFEARRAY) {
      if (variant->parray != nullptr) return DISP_E_BADVARTYPE;
    } else if (variant->vt == VT_RECORD) {
      if (variant->pRecInfo != nullptr) return DISP_E_BADVARTYPE;
    } else if (variant->vt == VT_BSTR) {
      SysFreeString(variant->bstrVal);
    } else if (variant->vt == VT_DISPATCH || variant->vt == VT_UNKNOWN) {
      if (variant->punkVal != nullptr) variant->punkVal->Release();
    }
  }
  variant->vt = VT_EMPTY;
  return S_OK;
}

HRESULT VariantCopy(VARIANTARG* dest, VARIANTARG* source) noexcept {
  if (dest == nullptr || source == nullptr) return E_INVALIDARG;
  if ((source->vt & VT_TYPEMASK) == VT_CLSID || FAILED(ValidateType(source->vt))) {
    return DISP_E_BADVARTYPE;
  }
  if (dest == source) return S_OK;
  if (!V_ISBYREF(source)) {
    if ((V_ISARRAY(source) || source->vt == VT_SAFEARRAY) && source->parray != nullptr) {
      return DISP_E_BADVARTYPE;
    }
    if (source->vt == VT_RECORD && source->pRecInfo != nullptr) return DISP_E_BADVARTYPE;
  }
  const HRESULT hr = VariantClear(dest);
  if (FAILED(hr)) return hr;
  *dest = *source;
  if (V_ISBYREF(source)) return S_OK;
  if (source->vt == VT_BSTR && source->bstrVal != nullptr) {
    dest->bstrVal = SysAllocStringByteLen(reinterpret_cast<LPCSTR>(source->bstrVal),
                                          SysStringByteLen(source->bstrVal));
    if (dest->bstrVal == nullptr) {
      dest->vt = VT_EMPTY;
      return E_OUTOFMEMORY;
    }
  } else if ((source->vt == VT_DISPATCH || source->vt == VT_UNKNOWN) &&
             source->punkVal != nullptr) {
    source->punkVal->AddRef();
  }
  return S_OK;
}

HRESULT VariantCopyInd(VARIANT* dest, VARIANTARG* source) noexcept {
  if (dest == nullptr || source == nullptr) return E_INVALIDARG;
  if (!V_ISBYREF(source)) return VariantCopy(dest, source);
  const VARTYPE base = source->vt & VT_TYPEMASK;
  if ((source->vt & (VT_VECTOR | VT_RESERVED)) != 0 || base <= VT_NULL || base == 15 ||
      base >= VT_VOID || source->byref == nullptr) {
    return E_INVALIDARG;
  }
  if (V_ISARRAY(source)) return DISP_E_BADVARTYPE;

  VARIANT out;
  VariantInit(&out);
  switch (base) {
    case VT_VARIANT: {
      VARIANT* inner = source->pvarVal;
      if (inner->vt == (VT_VARIANT | VT_BYREF)) return E_INVALIDARG;
      const HRESULT hr = VariantCopyInd(&out, inner);
      if (FAILED(hr)) return hr;
      break;
    }
    case VT_BSTR:
      out.vt = VT_BSTR;
      out.bstrVal = nullptr;
      if (*source->pbstrVal != nullptr) {
        out.bstrVal = SysAllocStringByteLen(reinterpret_cast<LPCSTR>(*source->pbstrVal),
                                            SysStringByteLen(*source->pbstrVal));
        if (out.bstrVal == nullptr) return E_OUTOFMEMORY;
      }
      break;
    case VT_UNKNOWN:
    case VT_DISPATCH:
      out.punkVal = *source->ppunkVal;
      if (out.punkVal != nullptr) out.punkVal->AddRef();
      out.vt = base;
      break;
    case VT_DECIMAL:
      out.decVal = *source->pdecVal;
      out.vt = VT_DECIMAL;
      break;
    case VT_I1:
    case VT_UI1:
      out.bVal = *static_cast<const BYTE*>(source->byref);
      out.vt = base;
      break;
    case VT_I2:
    case VT_UI2:
    case VT_BOOL:
      std::memcpy(&out.iVal, source->byref, 2);
      out.vt = base;
      break;
    case VT_I4:
    case VT_UI4:
    case VT_INT:
    case VT_UINT:
    case VT_R4:
    case VT_ERROR:
      std::memcpy(&out.lVal, source->byref, 4);
      out.vt = base;
      break;
    case VT_I8:
    case VT_UI8:
    case VT_R8:
    case VT_DATE:
    case VT_CY:
      std::memcpy(&out.llVal, source->byref, 8);
      out.vt = base;
      break;
    default:
      return DISP_E_BADVARTYPE;
  }
  // By-reference values own nothing, so an in-place copy has nothing to release.
  if (dest != source) {
    const HRESULT hr = VariantClear(dest);
    if (FAILED(hr)) {
      (void)VariantClear(&out);
      return hr;
    }
  }
  *dest = out;
  return S_OK;
}

HRESULT VariantChangeType(VARIANTARG* dest, VARIANTARG* source, USHORT flags,
                          VARTYPE type) noexcept {
  return ChangeType(dest, source, LOCALE_USER_DEFAULT, flags, type, 0);
}

HRESULT VariantChangeTypeEx(VARIANTARG* dest, VARIANTARG* source, LCID lcid, USHORT flags,
                            VARTYPE type) noexcept {
  return ChangeType(dest, source, lcid, flags, type, 0);
}

// -----------------------------------------------------------------------------------------------
// GUIDs

namespace {

constexpr int kGuidTextLength = 38;  // without the terminator

// Byte values of a GUID in the order its text shows them.
void GuidBytes(REFGUID guid, BYTE bytes[16]) noexcept {
  for (int i = 0; i < 4; ++i) bytes[i] = static_cast<BYTE>(guid.Data1 >> (24 - 8 * i));
  bytes[4] = static_cast<BYTE>(guid.Data2 >> 8);
  bytes[5] = static_cast<BYTE>(guid.Data2);
  bytes[6] = static_cast<BYTE>(guid.Data3 >> 8);
  bytes[7] = static_cast<BYTE>(guid.Data3);
  for (int i = 0; i < 8; ++i) bytes[8 + i] = guid.Data4[i];
}

GUID GuidFromBytes(const BYTE bytes[16]) noexcept {
  GUID guid{};
  guid.Data1 =
      (DWORD{bytes[0]} << 24) | (DWORD{bytes[1]} << 16) | (DWORD{bytes[2]} << 8) | DWORD{bytes[3]};
  guid.Data2 = static_cast<WORD>((bytes[4] << 8) | bytes[5]);
  guid.Data3 = static_cast<WORD>((bytes[6] << 8) | bytes[7]);
  for (int i = 0; i < 8; ++i) guid.Data4[i] = bytes[8 + i];
  return guid;
}

// Positions of the dashes in "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}".
bool IsDashPosition(int i) noexcept { return i == 9 || i == 14 || i == 19 || i == 24; }

int HexValue(OLECHAR c) noexcept {
  if (c >= u'0' && c <= u'9') return c - u'0';
  if (c >= u'a' && c <= u'f') return c - u'a' + 10;
  if (c >= u'A' && c <= u'F') return c - u'A' + 10;
  return -1;
}

bool ParseGuid(LPCOLESTR text, GUID* guid) noexcept {
  if (text[0] != u'{') return false;
  BYTE bytes[16] = {};
  int nibble = 0;
  for (int i = 1; i < kGuidTextLength - 1; ++i) {
    if (IsDashPosition(i)) {
      if (text[i] != u'-') return false;
      continue;
    }
    const int value = HexValue(text[i]);
    if (value < 0) return false;  // also stops at a premature terminator
    bytes[nibble / 2] = static_cast<BYTE>(bytes[nibble / 2] | (value << (nibble % 2 ? 0 : 4)));
    ++nibble;
  }
  if (text[kGuidTextLength - 1] != u'}' || text[kGuidTextLength] != 0) return false;
  *guid = GuidFromBytes(bytes);
  return true;
}

}  // namespace

int StringFromGUID2(REFGUID guid, LPOLESTR text, int capacity) noexcept {
  if (text == nullptr || capacity < kGuidTextLength + 1) return 0;
  static constexpr char kDigits[] = "0123456789ABCDEF";
  BYTE bytes[16];
  GuidBytes(guid, bytes);
  int nibble = 0;
  text[0] = u'{';
  for (int i = 1; i < kGuidTextLength - 1; ++i) {
    if (IsDashPosition(i)) {
      text[i] = u'-';
      continue;
    }
    const BYTE b = bytes[nibble / 2];
    text[i] = static_cast<OLECHAR>(kDigits[nibble % 2 ? (b & 0xF) : (b >> 4)]);
    ++nibble;
  }
  text[kGuidTextLength - 1] = u'}';
  text[kGuidTextLength] = 0;
  return kGuidTextLength + 1;
}

HRESULT IIDFromString(LPCOLESTR text, LPIID iid) noexcept {
  if (iid == nullptr) return E_INVALIDARG;
  if (text == nullptr) {
    *iid = IID_NULL;
    return S_OK;
  }
  if (ParseGuid(text, iid)) return S_OK;
  *iid = IID_NULL;
  return E_INVALIDARG;
}

HRESULT CLSIDFromString(LPCOLESTR text, LPCLSID clsid) noexcept {
  if (clsid == nullptr) return E_INVALIDARG;
  if (text == nullptr) {
    *clsid = CLSID_NULL;
    return S_OK;
  }
  if (ParseGuid(text, clsid)) return S_OK;
  *clsid = CLSID_NULL;
  return CO_E_CLASSSTRING;
}

HRESULT CoCreateGuid(GUID* guid) noexcept {
  if (guid == nullptr) return E_INVALIDARG;
  BYTE bytes[16];
  std::size_t filled = 0;
  while (filled < sizeof bytes) {
    const ssize_t n = getrandom(bytes + filled, sizeof bytes - filled, 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      return E_FAIL;
    }
    filled += static_cast<std::size_t>(n);
  }
  bytes[6] = static_cast<BYTE>((bytes[6] & 0x0F) | 0x40);  // version 4: random
  bytes[8] = static_cast<BYTE>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
  *guid = GuidFromBytes(bytes);
  return S_OK;
}
