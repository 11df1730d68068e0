// UTF-8 and UTF-16 conversion for the boundary with POSIX text. Plain C++, no OS header, so every
// layer above may use it too.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace mrwl::platform {

// UTF-16 to UTF-8. An unpaired surrogate becomes U+FFFD.
[[nodiscard]] inline std::string Utf16ToUtf8(std::u16string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    char32_t cp = text[i];
    if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
        text[i + 1] <= 0xDFFF) {
      cp = 0x10000 + ((cp - 0xD800) << 10) + (text[i + 1] - 0xDC00);
      ++i;
    } else if (cp >= 0xD800 && cp <= 0xDFFF) {
      cp = 0xFFFD;
    }
    if (cp < 0x80) {
      out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
      out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
      out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
      out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
  }
  return out;
}

// UTF-8 to UTF-16. Decodes by the well-formed byte ranges of the Unicode standard (table 3-7), so
// overlong forms, encoded surrogates and values past U+10FFFF end in one U+FFFD for each maximal
// ill-formed subpart.
[[nodiscard]] inline std::u16string Utf8ToUtf16(std::string_view text) {
  std::u16string out;
  out.reserve(text.size());
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const std::size_t n = text.size();
  std::size_t i = 0;
  while (i < n) {
    const unsigned char lead = p[i];
    if (lead < 0x80) {
      out.push_back(lead);
      ++i;
      continue;
    }
    int need = 0;
    char32_t cp = 0;
    unsigned char lo = 0x80, hi = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
      need = 1, cp = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      need = 2, cp = lead & 0x0F;
      if (lead == 0xE0) lo = 0xA0;
      if (lead == 0xED) hi = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      need = 3, cp = lead & 0x07;
      if (lead == 0xF0) lo = 0x90;
      if (lead == 0xF4) hi = 0x8F;
    } else {
      out.push_back(u'\xFFFD');
      ++i;
      continue;
    }
    std::size_t j = i + 1;
    bool ok = true;
    for (int k = 0; k < need; ++k, ++j) {
      const unsigned char min = k == 0 ? lo : 0x80;
      const unsigned char max = k == 0 ? hi : 0xBF;
      if (j >= n || p[j] < min || p[j] > max) {
        ok = false;
        break;
      }
      cp = (cp << 6) | (p[j] & 0x3F);
    }
    i = j;
    if (!ok) {
      out.push_back(u'\xFFFD');
    } else if (cp >= 0x10000) {
      out.push_back(static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(cp));
    }
  }
  return out;
}

}  // namespace mrwl::platform
