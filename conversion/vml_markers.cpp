#include "conversion/vml_markers.h"

#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string_view>

#include "foundation/memory.h"
#include "platform/files.h"
#include "platform/kernel.h"
#include "platform/unique_any.h"

namespace mrwl {
namespace {

// In the order they are applied.
constexpr std::string_view kVmlPatterns[] = {
    "<![if !vml]>",
    "<![endif]>",
    "xmlns:v=\"urn:schemas-microsoft-com:vml\"",
};

constexpr std::size_t LongestPattern() {
  std::size_t longest = 0;
  for (std::string_view text : kVmlPatterns)
    longest = text.size() > longest ? text.size() : longest;
  return longest;
}

// Room for the longest pattern at four bytes a character.
constexpr std::size_t kMaxPatternBytes = 4 * LongestPattern();

// How a character of the file is laid out in bytes.
struct TextEncoding {
  std::size_t width;  // 1, 2 or 4
  bool bigEndian;
};

bool StartsWith(const unsigned char* data, std::size_t size,
                std::initializer_list<unsigned char> mark) noexcept {
  if (size < mark.size()) return false;
  return std::memcmp(data, mark.begin(), mark.size()) == 0;
}

// The order matters: FF FE 00 00 must be tested before its prefix FF FE.
TextEncoding DetectEncoding(const unsigned char* data, std::size_t size) noexcept {
  if (StartsWith(data, size, {0xEF, 0xBB, 0xBF})) return {1, false};
  if (StartsWith(data, size, {0xFF, 0xFE, 0x00, 0x00})) return {4, false};
  if (StartsWith(data, size, {0xFF, 0xFE})) return {2, false};
  if (StartsWith(data, size, {0xFE, 0xFF})) return {2, true};
  if (StartsWith(data, size, {0x00, 0x00, 0xFE, 0xFF})) return {4, true};
  return {1, false};
}

// Writes the 8-bit character `c` at `out` in `encoding`.
void PutChar(char c, TextEncoding encoding, unsigned char* out) noexcept {
  const std::size_t low = encoding.bigEndian ? encoding.width - 1 : 0;
  for (std::size_t i = 0; i < encoding.width; ++i) {
    out[i] = i == low ? static_cast<unsigned char>(c) : 0;
  }
}

// One pass over the buffer with a single counter of matched bytes. A byte that breaks a partial
// match is not tried as a new start: pages blanked earlier must come out the same, so the
// resulting blind spot (a doubled first character) is kept on purpose.
void BlankPattern(unsigned char* data, std::size_t size, const unsigned char* pattern,
                  const unsigned char* blanks, std::size_t patternSize) noexcept {
  std::size_t matched = 0;
  std::size_t start = 0;
  for (std::size_t i = 0; i < size; ++i) {
    if (data[i] != pattern[matched]) {
      matched = 0;
      continue;
    }
    if (matched == 0) start = i;
    if (++matched == patternSize) {
      std::memcpy(data + start, blanks, patternSize);
      matched = 0;
    }
  }
}

void BlankMarkers(unsigned char* data, std::size_t size) noexcept {
  const TextEncoding encoding = DetectEncoding(data, size);
  unsigned char pattern[kMaxPatternBytes];
  unsigned char blanks[kMaxPatternBytes];
  for (std::string_view text : kVmlPatterns) {
    for (std::size_t i = 0; i < text.size(); ++i) {
      PutChar(text[i], encoding, pattern + i * encoding.width);
      PutChar(' ', encoding, blanks + i * encoding.width);
    }
    BlankPattern(data, size, pattern, blanks, text.size() * encoding.width);
  }
}

}  // namespace

HRESULT StripVmlMarkers(const char16_t* path, std::size_t bufferSizeHint) noexcept {
  // Kept in the signature for callers that pass it; the whole file is read regardless.
  (void)bufferSizeHint;
  if (path == nullptr || *path == 0) return E_INVALIDARG;

  std::FILE* file = platform::OpenStdioFile(path, "r");
  if (file == nullptr) return E_FAIL;
  ScopeGuard closeFile([&file]() noexcept {
    if (file != nullptr) std::fclose(file);
  });

  if (std::fseek(file, 0, SEEK_END) != 0) return E_FAIL;
  const long end = std::ftell(file);
  if (end < 0 || std::fseek(file, 0, SEEK_SET) != 0) return E_FAIL;
  const std::size_t length = static_cast<std::size_t>(end);

  // At least one byte, so that an empty file gets as far as the read and fails there.
  auto* buffer = static_cast<unsigned char*>(MemAlloc(length == 0 ? 1 : length));
  if (buffer == nullptr) return E_FAIL;
  ScopeGuard freeBuffer([buffer]() noexcept { MemFree(buffer); });
  std::memset(buffer, 0, length == 0 ? 1 : length);

  // Text mode may deliver fewer bytes than the file holds (folded line ends); that is fine once
  // the end was reached. Nothing at all counts as short, since fread of 0 bytes sets no end.
  const std::size_t read = std::fread(buffer, 1, length, file);
  if ((read < length || read == 0) && !std::feof(file)) return E_FAIL;

  BlankMarkers(buffer, read);

  std::fclose(file);
  file = platform::OpenStdioFile(path, "w");
  if (file == nullptr) return HRESULT_FROM_WIN32(platform::GetLastError());
  const std::size_t written = std::fwrite(buffer, 1, read, file);
  // Buffered bytes only reach the file on close, so a failed close is a short write as well.
  const int closed = std::fclose(file);
  file = nullptr;
  if (written != read || closed != 0) return E_FAIL;
  return S_OK;
}

}  // namespace mrwl
