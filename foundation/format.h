// printf-style formatting over UTF-16 text, with the meaning that the Windows wide printf family
// gives its conversions.
//
// Conversions: %s a const char16_t* ("(null)" for null), %hs a const char* (UTF-8), %ls and %ws a
// const char16_t* too; %c a char16_t passed as int, %hc a char; %d %i %u %x %X %o with the size
// modifiers hh, h, l (32 bits, as long is on Windows), ll, I64, I32, z, j and t; %p a pointer as
// hexadecimal digits of the pointer's width; %e %f %g %E %G %a on doubles; %%. Flags '-', '0', '+',
// ' ', '#', a width and a precision, each of which may be '*'. An unknown conversion is copied as
// it stands. %n writes nothing.
//
// The functions never raise: on exhaustion the result holds what fitted so far. Any thread may
// call them.
#pragma once

#include <cstdarg>

#include "foundation/wide_string.h"

namespace mrwl {

// Formats the arguments by `format`. A null format gives an empty text.
[[nodiscard]] WideString FormatText(const char16_t* format, ...) noexcept;
[[nodiscard]] WideString FormatTextV(const char16_t* format, std::va_list args) noexcept;

// Formats the arguments by `format` and appends them to `out`. Returns false when memory ran out;
// `out` then holds what fitted.
bool AppendFormatText(WideString& out, const char16_t* format, ...) noexcept;
bool AppendFormatTextV(WideString& out, const char16_t* format, std::va_list args) noexcept;

}  // namespace mrwl
