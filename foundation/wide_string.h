// WideString: the foundation's owned UTF-16 text, and the conversions at the UTF-8 boundary.
//
// A WideString holds a length and a capacity and is always terminated by a zero code unit, so
// c_str() can go to any call that wants a NUL-terminated string. Its memory comes from MemAlloc;
// the capacity grows to the next multiple of 32 less one, the terminator taking the last unit.
// Operations that need memory answer false when none is left and leave the text as it was.
// A WideString is not for simultaneous use by two threads.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace mrwl {

class WideString {
 public:
  WideString() noexcept = default;
  // Copies `text`. On exhaustion the string stays empty.
  WideString(std::u16string_view text);  // NOLINT(google-explicit-constructor): text converts
  WideString(const char16_t* text) : WideString(std::u16string_view(text ? text : u"")) {}
  WideString(const WideString& other) : WideString(other.view()) {}
  WideString(WideString&& other) noexcept;
  WideString& operator=(const WideString& other);
  WideString& operator=(WideString&& other) noexcept;
  WideString& operator=(std::u16string_view text);
  ~WideString();

  [[nodiscard]] std::size_t Length() const noexcept { return length_; }
  [[nodiscard]] std::size_t Capacity() const noexcept { return capacity_; }
  [[nodiscard]] bool IsEmpty() const noexcept { return length_ == 0; }
  [[nodiscard]] const char16_t* c_str() const noexcept { return data_ ? data_ : u""; }
  // Writable text of Length() units; null while nothing was ever allocated.
  [[nodiscard]] char16_t* data() noexcept { return data_; }
  [[nodiscard]] std::u16string_view view() const noexcept { return {c_str(), length_}; }
  operator std::u16string_view() const noexcept { return view(); }  // NOLINT
  char16_t operator[](std::size_t i) const noexcept { return data_[i]; }
  char16_t& operator[](std::size_t i) noexcept { return data_[i]; }

  // Makes room for `capacity` units plus the terminator.
  bool Reserve(std::size_t capacity) noexcept;
  // Sets the length; new units are zero. Shrinking keeps the capacity.
  bool Resize(std::size_t length) noexcept;
  // Sets the length after the caller wrote into data() up to Capacity(); units from `length` on
  // are dropped and the terminator is rewritten.
  void SetLength(std::size_t length) noexcept;
  bool Assign(std::u16string_view text) noexcept;
  bool Append(std::u16string_view text) noexcept;
  bool Append(char16_t unit) noexcept { return Append(std::u16string_view(&unit, 1)); }
  // Empties the text and keeps the memory.
  void Clear() noexcept { SetLength(0); }
  // Releases the memory.
  void Reset() noexcept;

  friend bool operator==(const WideString& a, const WideString& b) noexcept {
    return a.view() == b.view();
  }
  friend bool operator==(const WideString& a, std::u16string_view b) noexcept {
    return a.view() == b;
  }

 private:
  char16_t* data_ = nullptr;
  std::size_t length_ = 0;
  std::size_t capacity_ = 0;
};

// The capacity a WideString takes for `length` units: the next multiple of 32 less one.
[[nodiscard]] constexpr std::size_t RoundCapacity(std::size_t length) noexcept {
  return ((length + 32) & ~std::size_t{31}) - 1;
}

// UTF-8 to UTF-16. Malformed sequences become U+FFFD, one for each maximal bad subpart.
[[nodiscard]] WideString Utf8ToWide(std::string_view text);
// UTF-16 to UTF-8. Unpaired surrogates become U+FFFD.
[[nodiscard]] std::string WideToUtf8(std::u16string_view text);

// Comparison without regard to case, for the letters of ASCII and Latin-1; other units must match
// exactly. Negative, zero or positive as for a three-way compare.
[[nodiscard]] int CompareNoCase(std::u16string_view a, std::u16string_view b) noexcept;
[[nodiscard]] inline bool EqualsNoCase(std::u16string_view a, std::u16string_view b) noexcept {
  return a.size() == b.size() && CompareNoCase(a, b) == 0;
}
[[nodiscard]] char16_t ToLowerLatin(char16_t unit) noexcept;

}  // namespace mrwl
