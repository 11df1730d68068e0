// Base64 decoding, for the stored passwords and for the binary answers of the renderer.
#include <cstdint>
#include <string>
#include <string_view>

#include "foundation/codecs.h"

namespace mrwl {
namespace {

int Base64Value(unsigned char c) noexcept {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

}  // namespace

bool DecodeBase64(std::string_view text, Base64Input input, std::string& out) {
  if (input == Base64Input::kStrict) {
    while (!text.empty() && text.back() == '=') text.remove_suffix(1);
    if (text.size() % 4 == 1) return false;
  }
  out.reserve(out.size() + text.size() / 4 * 3 + 3);
  std::uint32_t bits = 0;
  int count = 0;
  for (char c : text) {
    if (c == '\0' && input == Base64Input::kSkipOthers) break;
    const int value = Base64Value(static_cast<unsigned char>(c));
    if (value < 0) {
      if (input == Base64Input::kStrict) return false;
      continue;
    }
    bits = bits << 6 | static_cast<std::uint32_t>(value);
    if (++count == 4) {
      out.push_back(static_cast<char>(bits >> 16 & 0xFF));
      out.push_back(static_cast<char>(bits >> 8 & 0xFF));
      out.push_back(static_cast<char>(bits & 0xFF));
      bits = 0;
      count = 0;
    }
  }
  // A short last group carries one byte for two characters, two for three; one alone is noise.
  if (count == 2) {
    out.push_back(static_cast<char>(bits >> 4 & 0xFF));
  } else if (count == 3) {
    out.push_back(static_cast<char>(bits >> 10 & 0xFF));
    out.push_back(static_cast<char>(bits >> 2 & 0xFF));
  }
  return true;
}

}  // namespace mrwl
