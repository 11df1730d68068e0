#include "settings/spin_edit.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>

namespace mrwl {

namespace {

std::int32_t Clamp(std::int64_t value, std::int32_t minimum, std::int32_t maximum) {
  if (value < minimum) return minimum;
  if (value > maximum) return maximum;
  return static_cast<std::int32_t>(value);
}

// Doubles beyond the 64-bit range (or not numbers at all) must not reach an integer cast.
std::int64_t SaturatingTruncate(double x) {
  if (std::isnan(x)) return 0;
  if (x >= 9.0e18) return INT64_MAX;
  if (x <= -9.0e18) return INT64_MIN;
  return static_cast<std::int64_t>(x);
}

std::int32_t PowerOfTen(std::int32_t decimals) {
  std::int32_t power = 1;
  for (std::int32_t i = 0; i < decimals && power <= INT32_MAX / 10; ++i) power *= 10;
  return power;
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

void SpinEdit::Attach(platform::DialogWindow& window, int editId, int upDownId) noexcept {
  window_ = &window;
  editId_ = editId;
  upDownId_ = upDownId;
}

void SpinEdit::Setup(std::int32_t newMinimum, std::int32_t newMaximum, std::int32_t newValue,
                     std::int32_t newNumerator, std::int32_t newDenominator,
                     std::int32_t newDecimals) {
  minimum = newMinimum;
  maximum = newMaximum;
  numerator = newNumerator;
  denominator = newDenominator;
  decimals = newDecimals;
  power = PowerOfTen(newDecimals);
  value = Clamp(newValue, minimum, maximum);
  Sync(true);
}

void SpinEdit::SetValue(std::int32_t newValue) {
  value = Clamp(newValue, minimum, maximum);
  Sync(true);
}

void SpinEdit::SetRatio(std::int32_t newNumerator, std::int32_t newDenominator,
                        std::int32_t newDecimals) {
  Sync(false);
  numerator = newNumerator;
  denominator = newDenominator;
  decimals = newDecimals;
  power = PowerOfTen(newDecimals);
  Sync(true);
}

void SpinEdit::Sync(bool toControl) {
  if (toControl) {
    double display = static_cast<double>(value) * numerator / denominator;
    if (!std::isfinite(display)) display = 0.0;  // a zero denominator shows as nothing at all
    char text[64];
    // "%d." keeps a minus sign only on a non-zero integer part: -0.5 shows as 0.5. The edit has
    // always shown it so, and no limit of the dialogs lets a value go below zero.
    const double integer = std::clamp(std::trunc(display), -2147483648.0, 2147483647.0);
    int length = std::snprintf(text, sizeof text, "%d.", static_cast<int>(integer));
    // Nine digits is all an int holds.
    const int shownDecimals = std::clamp(static_cast<int>(decimals), 0, 9);
    char fractionFormat[16];
    std::snprintf(fractionFormat, sizeof fractionFormat, "%%.%dd", shownDecimals);
    double fraction = std::fabs(display - std::trunc(display));
    for (int i = 0; i < shownDecimals; ++i) fraction *= 10.0;
    // A fraction that rounds up to a whole unit prints as one digit more than `decimals`
    // ("1000" for 0.9996 with three), which the stripping below turns into ".1". The edit has
    // always behaved so and that is kept.
    const int fractionDigits = static_cast<int>(fraction + 0.5);
    length += std::snprintf(text + length, sizeof text - static_cast<std::size_t>(length),
                            fractionFormat, fractionDigits);
    while (length > 0 && text[length - 1] == '0') --length;
    if (length > 0 && text[length - 1] == '.') text[length++] = '0';
    lastText.assign(text, static_cast<std::size_t>(length));
    if (window_ != nullptr) {
      window_->SetText(editId_, std::u16string(lastText.begin(), lastText.end()));
    }
    return;
  }

  if (window_ == nullptr) return;
  // The edit takes single-byte text; anything else could not have been typed into it.
  const std::u16string wide = window_->GetText(editId_);
  std::string text;
  text.reserve(wide.size());
  for (const char16_t c : wide) text.push_back(c < 0x80 ? static_cast<char>(c) : '?');

  if (text.empty()) {
    value = minimum;
    return;
  }
  // Untouched text keeps the exact value, so switching units back and forth doesn't drift.
  if (text == lastText) return;

  std::size_t at = 0;
  while (at < text.size() && (text[at] == ' ' || text[at] == '\t')) ++at;
  bool negative = false;
  if (at < text.size() && (text[at] == '-' || text[at] == '+')) {
    negative = text[at] == '-';
    ++at;
  }
  if (at < text.size() && IsDigit(text[at])) {
    double integer = 0.0;
    while (at < text.size() && IsDigit(text[at])) integer = integer * 10.0 + (text[at++] - '0');
    double fraction = 0.0;
    if (at < text.size() && text[at] == '.') {
      ++at;
      int fractionDigits = 0;
      int scale = 1;
      for (int digits = 0; digits < 4 && at < text.size() && IsDigit(text[at]); ++digits) {
        fractionDigits = fractionDigits * 10 + (text[at++] - '0');
        scale *= 10;
      }
      fraction = static_cast<double>(fractionDigits) / scale;
    }
    std::int64_t read = SaturatingTruncate((integer + fraction) * denominator / numerator + 0.5);
    if (negative) read = -read;
    value = Clamp(read, minimum, maximum);
    return;
  }
  // Text without a leading digit is ignored; only the limits still apply.
  value = Clamp(value, minimum, maximum);
}

bool SpinEdit::OnDeltaPos(int delta) {
  Sync(false);
  const std::int64_t step =
      numerator != 0 ? static_cast<std::int64_t>(delta) * denominator / numerator : 0;
  value = Clamp(static_cast<std::int64_t>(value) + step, minimum, maximum);
  Sync(true);
  return true;
}

}  // namespace mrwl
