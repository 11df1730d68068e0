// The "PDF page" tab: paper size, orientation, margins and the unit they show in. Geometry inside
// the page is kept in thousandths of a point, whatever the unit shown.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "platform/dialog.h"
#include "settings/addin_settings.h"
#include "settings/spin_edit.h"

namespace mrwl {

struct PaperSize {
  std::u16string_view name;
  std::int32_t width;   // whole points
  std::int32_t height;
};

// The paper sizes in the order of the list; the index is the stored PaperSize.
extern const std::array<PaperSize, 18> PaperSizeTable;

// The ratio of a display unit: one up-down click is one unit.
struct UnitRatio {
  std::u16string_view name;
  std::int32_t numerator;
  std::int32_t denominator;
  std::int32_t decimals;
};
extern const std::array<UnitRatio, 3> UnitRatioTable;

class PdfPage final : public platform::DialogHandler {
 public:
  void OnInit(platform::DialogWindow& window) override;
  void OnCommand(platform::DialogWindow& window, int id, int code) override;
  bool OnUpDown(platform::DialogWindow& window, int upDownId, int delta) override;

  // Moves the record's values into the controls and remembers the record for Save.
  void Load(AddinSettings& record);
  // Moves the controls' values into the record given to Load.
  void Save();

  [[nodiscard]] platform::DialogWindow* Window() const noexcept { return window_; }

 private:
  void ApplyUnits();
  void ApplyPaperSize();

  platform::DialogWindow* window_ = nullptr;
  AddinSettings* record_ = nullptr;
  SpinEdit width_, height_, top_, bottom_, left_, right_;
};

}  // namespace mrwl
