#include "foundation/format.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <string_view>
#include <utility>

#include "foundation/memory.h"
#include "platform/utf.h"

namespace mrwl {
namespace {

enum class SizeModifier { kNone, kChar, kShort, kLong, kLongLong, kSize, kMax, kDiff };

struct FieldFormat {
  bool left = false;
  bool zero = false;
  bool plus = false;
  bool space = false;
  bool alternate = false;
  int width = 0;
  int precision = -1;  // -1: none given
  SizeModifier size = SizeModifier::kNone;
  bool narrowText = false;  // h on s and c: single-byte text
  bool wideText = false;    // l or w on s and c
};

// Collects the output and remembers whether memory ran out, so that one check at the end serves.
class Sink {
 public:
  explicit Sink(WideString& out) noexcept : out_(out) {}
  void Put(std::u16string_view text) noexcept {
    if (ok_ && !out_.Append(text)) ok_ = false;
  }
  void Put(char16_t unit) noexcept { Put(std::u16string_view(&unit, 1)); }
  void Repeat(char16_t unit, std::size_t count) noexcept {
    // Padding goes out in runs rather than unit by unit; wide fields stay cheap.
    char16_t run[64];
    for (char16_t& slot : run) slot = unit;
    while (count > 0 && ok_) {
      const std::size_t n = count < std::size(run) ? count : std::size(run);
      Put(std::u16string_view(run, n));
      count -= n;
    }
  }
  [[nodiscard]] bool ok() const noexcept { return ok_; }

 private:
  WideString& out_;
  bool ok_ = true;
};

// Places `body` (with an optional prefix such as a sign or "0x", and `zeros` leading zeros of the
// precision) in a field of its width. Zero padding goes between the prefix and the body, as printf
// does.
void PutField(Sink& sink, const FieldFormat& field, std::u16string_view prefix, std::size_t zeros,
              std::u16string_view body, bool zeroAllowed) noexcept {
  const std::size_t length = prefix.size() + zeros + body.size();
  const std::size_t width = field.width > 0 ? static_cast<std::size_t>(field.width) : 0;
  const std::size_t pad = width > length ? width - length : 0;
  if (field.left) {
    sink.Put(prefix);
    sink.Repeat(u'0', zeros);
    sink.Put(body);
    sink.Repeat(u' ', pad);
  } else if (field.zero && zeroAllowed) {
    sink.Put(prefix);
    sink.Repeat(u'0', pad + zeros);
    sink.Put(body);
  } else {
    sink.Repeat(u' ', pad);
    sink.Put(prefix);
    sink.Repeat(u'0', zeros);
    sink.Put(body);
  }
}

void PutInteger(Sink& sink, const FieldFormat& field, std::uint64_t magnitude, bool negative,
                bool isSigned, unsigned base, bool upper) noexcept {
  // 64 bits in octal take 22 digits; the zeros of a large precision are counted, not stored.
  char16_t digits[24];
  std::size_t count = 0;
  const char* alphabet = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  for (std::uint64_t v = magnitude; v != 0; v /= base) {
    digits[std::size(digits) - 1 - count++] = static_cast<char16_t>(alphabet[v % base]);
  }
  const std::u16string_view raw(digits + (std::size(digits) - count), count);

  const std::size_t minimum = field.precision >= 0 ? static_cast<std::size_t>(field.precision) : 1;
  std::size_t zeros = minimum > count ? minimum - count : 0;
  // '#' with octal makes sure the text starts with a zero; raw digits never do.
  if (base == 8 && field.alternate && zeros == 0) zeros = 1;

  char16_t prefix[2];
  std::size_t prefixLength = 0;
  if (isSigned) {
    if (negative) {
      prefix[prefixLength++] = u'-';
    } else if (field.plus) {
      prefix[prefixLength++] = u'+';
    } else if (field.space) {
      prefix[prefixLength++] = u' ';
    }
  } else if (base == 16 && field.alternate && magnitude != 0) {
    prefix[prefixLength++] = u'0';
    prefix[prefixLength++] = upper ? u'X' : u'x';
  }
  // A precision switches zero padding off for integers, as in C.
  PutField(sink, field, std::u16string_view(prefix, prefixLength), zeros, raw, field.precision < 0);
}

std::int64_t ReadSigned(const FieldFormat& field, std::va_list& args) noexcept {
  switch (field.size) {
    case SizeModifier::kChar:
      return static_cast<signed char>(va_arg(args, int));
    case SizeModifier::kShort:
      return static_cast<short>(va_arg(args, int));
    case SizeModifier::kLongLong:
    case SizeModifier::kMax:
      return va_arg(args, long long);
    case SizeModifier::kSize:
    case SizeModifier::kDiff:
      return va_arg(args, std::ptrdiff_t);
    case SizeModifier::kNone:
    case SizeModifier::kLong:
      break;
  }
  return static_cast<std::int32_t>(va_arg(args, int));
}

std::uint64_t ReadUnsigned(const FieldFormat& field, std::va_list& args) noexcept {
  switch (field.size) {
    case SizeModifier::kChar:
      return static_cast<unsigned char>(va_arg(args, unsigned int));
    case SizeModifier::kShort:
      return static_cast<unsigned short>(va_arg(args, unsigned int));
    case SizeModifier::kLongLong:
    case SizeModifier::kMax:
      return va_arg(args, unsigned long long);
    case SizeModifier::kSize:
    case SizeModifier::kDiff:
      return va_arg(args, std::size_t);
    case SizeModifier::kNone:
    case SizeModifier::kLong:
      break;
  }
  return static_cast<std::uint32_t>(va_arg(args, unsigned int));
}

void PutText(Sink& sink, const FieldFormat& field, std::u16string_view text) noexcept {
  if (field.precision >= 0 && text.size() > static_cast<std::size_t>(field.precision)) {
    text = text.substr(0, static_cast<std::size_t>(field.precision));
  }
  PutField(sink, field, {}, 0, text, true);
}

// The length of a NUL-terminated text, reading no further than `limit` units: with a precision
// the text need not be terminated, as in C.
template <typename Unit>
std::size_t BoundedLength(const Unit* text, int precision) noexcept {
  const std::size_t limit =
      precision >= 0 ? static_cast<std::size_t>(precision) : static_cast<std::size_t>(-1);
  std::size_t n = 0;
  while (n < limit && text[n] != 0) ++n;
  return n;
}

// Floating point goes through the C library's narrow printf, whose digits are plain ASCII.
void PutFloating(Sink& sink, const FieldFormat& field, char conversion, double value) noexcept {
  char format[16];
  std::size_t n = 0;
  format[n++] = '%';
  if (field.left) format[n++] = '-';
  if (field.plus) format[n++] = '+';
  if (field.space) format[n++] = ' ';
  if (field.alternate) format[n++] = '#';
  if (field.zero) format[n++] = '0';
  format[n++] = '*';
  format[n++] = '.';
  format[n++] = '*';
  format[n++] = conversion;
  format[n] = 0;
  const int precision =
      field.precision >= 0 ? field.precision : (conversion == 'a' || conversion == 'A' ? -1 : 6);
  char small[64];
  const int needed = std::snprintf(small, sizeof small, format, field.width, precision, value);
  if (needed < 0) return;
  const char* text = small;
  void* large = nullptr;
  if (static_cast<std::size_t>(needed) >= sizeof small) {
    large = MemAlloc(static_cast<std::size_t>(needed) + 1);
    if (large == nullptr) return;
    std::snprintf(static_cast<char*>(large), static_cast<std::size_t>(needed) + 1, format,
                  field.width, precision, value);
    text = static_cast<const char*>(large);
  }
  // Widened in runs, so that a number costs a few appends rather than one per digit.
  char16_t run[64];
  for (int i = 0; i < needed;) {
    std::size_t filled = 0;
    while (filled < std::size(run) && i < needed) run[filled++] = static_cast<char16_t>(text[i++]);
    sink.Put(std::u16string_view(run, filled));
  }
  MemFree(large);
}

void FormatInto(Sink& sink, const char16_t* format, std::va_list& args) noexcept {
  const char16_t* p = format;
  while (*p != 0) {
    const char16_t* literal = p;
    while (*p != 0 && *p != u'%') ++p;
    if (p != literal) sink.Put(std::u16string_view(literal, static_cast<std::size_t>(p - literal)));
    if (*p == 0) break;

    const char16_t* start = p++;  // the '%'
    if (*p == u'%') {
      sink.Put(u'%');
      ++p;
      continue;
    }
    FieldFormat field;
    for (;; ++p) {
      if (*p == u'-') {
        field.left = true;
      } else if (*p == u'0') {
        field.zero = true;
      } else if (*p == u'+') {
        field.plus = true;
      } else if (*p == u' ') {
        field.space = true;
      } else if (*p == u'#') {
        field.alternate = true;
      } else {
        break;
      }
    }
    if (*p == u'*') {
      field.width = va_arg(args, int);
      if (field.width < 0) {
        field.left = true;
        field.width = field.width == INT32_MIN ? 0 : -field.width;
      }
      ++p;
    } else {
      while (*p >= u'0' && *p <= u'9') {
        if (field.width < 100000000) field.width = field.width * 10 + (*p - u'0');
        ++p;
      }
    }
    if (*p == u'.') {
      ++p;
      field.precision = 0;
      if (*p == u'*') {
        field.precision = va_arg(args, int);
        if (field.precision < 0) field.precision = -1;
        ++p;
      } else {
        while (*p >= u'0' && *p <= u'9') {
          if (field.precision < 100000000) field.precision = field.precision * 10 + (*p - u'0');
          ++p;
        }
      }
    }
    switch (*p) {
      case u'h':
        ++p;
        field.narrowText = true;
        field.size = SizeModifier::kShort;
        if (*p == u'h') {
          field.size = SizeModifier::kChar;
          ++p;
        }
        break;
      case u'l':
        ++p;
        field.wideText = true;
        field.size = SizeModifier::kLong;
        if (*p == u'l') {
          field.size = SizeModifier::kLongLong;
          ++p;
        }
        break;
      case u'w':
        ++p;
        field.wideText = true;
        break;
      case u'L':
      case u'q':
        ++p;
        field.size = SizeModifier::kLongLong;
        break;
      case u'z':
        ++p;
        field.size = SizeModifier::kSize;
        break;
      case u'j':
        ++p;
        field.size = SizeModifier::kMax;
        break;
      case u't':
        ++p;
        field.size = SizeModifier::kDiff;
        break;
      case u'I':
        ++p;
        if (p[0] == u'6' && p[1] == u'4') {
          field.size = SizeModifier::kLongLong;
          p += 2;
        } else if (p[0] == u'3' && p[1] == u'2') {
          field.size = SizeModifier::kLong;
          p += 2;
        } else {
          field.size = SizeModifier::kSize;
        }
        break;
      default:
        break;
    }

    const char16_t conversion = *p;
    if (conversion == 0) {
      // A format that ends inside a conversion: show what stood there.
      sink.Put(std::u16string_view(start, static_cast<std::size_t>(p - start)));
      break;
    }
    ++p;
    switch (conversion) {
      case u'd':
      case u'i': {
        const std::int64_t value = ReadSigned(field, args);
        const std::uint64_t magnitude =
            value < 0 ? 0 - static_cast<std::uint64_t>(value) : static_cast<std::uint64_t>(value);
        PutInteger(sink, field, magnitude, value < 0, true, 10, false);
        break;
      }
      case u'u':
        PutInteger(sink, field, ReadUnsigned(field, args), false, false, 10, false);
        break;
      case u'x':
      case u'X':
        PutInteger(sink, field, ReadUnsigned(field, args), false, false, 16, conversion == u'X');
        break;
      case u'o':
        PutInteger(sink, field, ReadUnsigned(field, args), false, false, 8, false);
        break;
      case u'p': {
        FieldFormat pointer = field;
        pointer.precision = static_cast<int>(sizeof(void*) * 2);
        pointer.alternate = false;
        const auto value = reinterpret_cast<std::uintptr_t>(va_arg(args, void*));
        PutInteger(sink, pointer, value, false, false, 16, true);
        break;
      }
      case u'c':
      case u'C': {
        const int value = va_arg(args, int);
        // In the wide family %c is wide and %C single-byte; h and l override either way.
        const bool narrow = field.narrowText || (conversion == u'C' && !field.wideText);
        const char16_t unit = narrow ? static_cast<char16_t>(static_cast<unsigned char>(value))
                                     : static_cast<char16_t>(value);
        FieldFormat text = field;
        text.precision = -1;
        PutText(sink, text, std::u16string_view(&unit, 1));
        break;
      }
      case u's':
      case u'S': {
        const bool narrow = field.narrowText || (conversion == u'S' && !field.wideText);
        if (narrow) {
          const char* text = va_arg(args, const char*);
          if (text == nullptr) {
            PutText(sink, field, u"(null)");
          } else {
            const std::string_view bytes(text, BoundedLength(text, field.precision));
            try {
              const std::u16string wide = platform::Utf8ToUtf16(bytes);
              PutText(sink, field, wide);
            } catch (...) {
              // Out of memory: the conversion adds nothing.
            }
          }
        } else {
          const char16_t* text = va_arg(args, const char16_t*);
          PutText(sink, field,
                  text == nullptr
                      ? std::u16string_view(u"(null)")
                      : std::u16string_view(text, BoundedLength(text, field.precision)));
        }
        break;
      }
      case u'e':
      case u'E':
      case u'f':
      case u'F':
      case u'g':
      case u'G':
      case u'a':
      case u'A':
        PutFloating(sink, field, static_cast<char>(conversion), va_arg(args, double));
        break;
      case u'n':
        // Writing through an argument is a classic attack vector; the conversion is consumed only.
        (void)va_arg(args, void*);
        break;
      default:
        sink.Put(std::u16string_view(start, static_cast<std::size_t>(p - start)));
        break;
    }
    if (!sink.ok()) break;
  }
}

}  // namespace

bool AppendFormatTextV(WideString& out, const char16_t* format, std::va_list args) noexcept {
  if (format == nullptr) return true;
  Sink sink(out);
  std::va_list copy;
  va_copy(copy, args);
  FormatInto(sink, format, copy);
  va_end(copy);
  return sink.ok();
}

bool AppendFormatText(WideString& out, const char16_t* format, ...) noexcept {
  std::va_list args;
  va_start(args, format);
  const bool ok = AppendFormatTextV(out, format, args);
  va_end(args);
  return ok;
}

WideString FormatTextV(const char16_t* format, std::va_list args) noexcept {
  WideString out;
  (void)AppendFormatTextV(out, format, args);
  return out;
}

WideString FormatText(const char16_t* format, ...) noexcept {
  std::va_list args;
  va_start(args, format);
  WideString out = FormatTextV(format, args);
  va_end(args);
  return out;
}

}  // namespace mrwl
