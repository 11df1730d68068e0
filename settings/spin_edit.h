// SpinEdit: the numeric edit of the settings dialogs. It holds an integer and shows it as a
// decimal through a ratio (value * numerator / denominator), so that a length kept in thousandths
// of a point can show in points, inches or millimetres without drifting when nobody typed.
#pragma once

#include <cstdint>
#include <string>

#include "platform/dialog.h"

namespace mrwl {

class SpinEdit {
 public:
  // Remembers the edit `editId` and its up-down `upDownId` in `window`.
  void Attach(platform::DialogWindow& window, int editId, int upDownId) noexcept;
  // Stores all, clamps the value and writes the text.
  void Setup(std::int32_t minimum, std::int32_t maximum, std::int32_t value,
             std::int32_t numerator, std::int32_t denominator, std::int32_t decimals);
  // Clamps and writes the text.
  void SetValue(std::int32_t value);
  // Reads the text under the old ratio, stores the new one and writes the text again, so the
  // value is carried across a change of unit.
  void SetRatio(std::int32_t numerator, std::int32_t denominator, std::int32_t decimals);
  // true: writes the value as text; false: reads the text into the value.
  void Sync(bool toControl);
  // An up-down click of `delta` (+1 up, -1 down). Returns true: the click is handled.
  bool OnDeltaPos(int delta);

  [[nodiscard]] int EditId() const noexcept { return editId_; }
  [[nodiscard]] int UpDownId() const noexcept { return upDownId_; }

  std::int32_t minimum = 0;
  std::int32_t maximum = 100;
  std::int32_t value = 0;
  std::int32_t numerator = 1;
  std::int32_t denominator = 1;
  std::int32_t decimals = 3;
  std::int32_t power = 1000;
  std::string lastText;  // single-byte: the text last written to the edit

 private:
  platform::DialogWindow* window_ = nullptr;
  int editId_ = 0;
  int upDownId_ = 0;
};

}  // namespace mrwl
