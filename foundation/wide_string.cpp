#include "foundation/wide_string.h"

#include <cstring>
#include <utility>

#include "foundation/memory.h"
#include "platform/utf.h"

namespace mrwl {

WideString::WideString(std::u16string_view text) { (void)Assign(text); }

WideString::WideString(WideString&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)),
      length_(std::exchange(other.length_, 0)),
      capacity_(std::exchange(other.capacity_, 0)) {}

WideString& WideString::operator=(const WideString& other) {
  if (this != &other) (void)Assign(other.view());
  return *this;
}

WideString& WideString::operator=(WideString&& other) noexcept {
  if (this != &other) {
    MemFree(data_);
    data_ = std::exchange(other.data_, nullptr);
    length_ = std::exchange(other.length_, 0);
    capacity_ = std::exchange(other.capacity_, 0);
  }
  return *this;
}

WideString& WideString::operator=(std::u16string_view text) {
  (void)Assign(text);
  return *this;
}

WideString::~WideString() { MemFree(data_); }

bool WideString::Reserve(std::size_t capacity) noexcept {
  if (data_ != nullptr && capacity <= capacity_) return true;
  if (capacity >= (std::size_t{1} << 61)) return false;
  const std::size_t rounded = RoundCapacity(capacity);
  void* block = MemTryRealloc(data_, (rounded + 1) * sizeof(char16_t));
  if (block == nullptr) return false;
  data_ = static_cast<char16_t*>(block);
  capacity_ = rounded;
  data_[length_] = 0;
  return true;
}

bool WideString::Resize(std::size_t length) noexcept {
  if (!Reserve(length)) return false;
  if (length > length_) {
    std::memset(data_ + length_, 0, (length - length_) * sizeof(char16_t));
  }
  length_ = length;
  data_[length_] = 0;
  return true;
}

void WideString::SetLength(std::size_t length) noexcept {
  if (data_ == nullptr) return;
  length_ = length <= capacity_ ? length : capacity_;
  data_[length_] = 0;
}

bool WideString::Assign(std::u16string_view text) noexcept {
  // The source may lie inside this string; copy before reusing the buffer would be wrong only if
  // the buffer moved, and it moves only when it grows, which a view of this text never demands.
  if (!Reserve(text.size())) return false;
  // An empty view may carry a null address, which memmove must not see even for no bytes.
  if (!text.empty()) std::memmove(data_, text.data(), text.size() * sizeof(char16_t));
  length_ = text.size();
  data_[length_] = 0;
  return true;
}

bool WideString::Append(std::u16string_view text) noexcept {
  if (text.empty()) return Reserve(length_);
  const char16_t* source = text.data();
  const bool inside = data_ != nullptr && source >= data_ && source <= data_ + length_;
  const std::size_t offset = inside ? static_cast<std::size_t>(source - data_) : 0;
  if (length_ + text.size() < length_ || !Reserve(length_ + text.size())) return false;
  if (inside) source = data_ + offset;
  std::memmove(data_ + length_, source, text.size() * sizeof(char16_t));
  length_ += text.size();
  data_[length_] = 0;
  return true;
}

void WideString::Reset() noexcept {
  MemFree(data_);
  data_ = nullptr;
  length_ = 0;
  capacity_ = 0;
}

WideString Utf8ToWide(std::string_view text) {
  return WideString(std::u16string_view(platform::Utf8ToUtf16(text)));
}

std::string WideToUtf8(std::u16string_view text) { return platform::Utf16ToUtf8(text); }

char16_t ToLowerLatin(char16_t unit) noexcept {
  if ((unit >= u'A' && unit <= u'Z') || (unit >= 0xC0 && unit <= 0xDE && unit != 0xD7)) {
    return static_cast<char16_t>(unit + 32);
  }
  return unit;
}

int CompareNoCase(std::u16string_view a, std::u16string_view b) noexcept {
  const std::size_t n = a.size() < b.size() ? a.size() : b.size();
  for (std::size_t i = 0; i < n; ++i) {
    const char16_t x = ToLowerLatin(a[i]);
    const char16_t y = ToLowerLatin(b[i]);
    if (x != y) return x < y ? -1 : 1;
  }
  return a.size() == b.size() ? 0 : (a.size() < b.size() ? -1 : 1);
}

}  // namespace mrwl
