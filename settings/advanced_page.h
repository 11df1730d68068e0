// The "Advanced" tab: "Convert attachments", and in its placeholder the sub-page with the target
// width of the web page, the PDF version, the compression and what runs after the conversion.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "platform/dialog.h"
#include "settings/addin_settings.h"
#include "settings/spin_edit.h"

namespace mrwl {

struct PdfVersion {
  std::u16string_view text;
  std::uint32_t code;  // 0x10000 plus the minor version
};
extern const std::array<PdfVersion, 5> PdfVersionTable;
// The rows of "Compression level:"; the index is CompressionLevel.
extern const std::array<std::u16string_view, 3> CompressionRows;

class AdvancedSubPage final : public platform::DialogHandler {
 public:
  void OnInit(platform::DialogWindow& window) override;
  void OnCommand(platform::DialogWindow& window, int id, int code) override;
  bool OnUpDown(platform::DialogWindow& window, int upDownId, int delta) override;

  void Load(AddinSettings& record);
  // A row of the PDF version list past the table (each load adds the rows again) stores the code
  // of the table row with the same text; no selection leaves PDFSpecification as it was.
  void Save();

  [[nodiscard]] platform::DialogWindow* Window() const noexcept { return window_; }

 private:
  void ApplyEnabling();
  void Browse();

  platform::DialogWindow* window_ = nullptr;
  AddinSettings* record_ = nullptr;
  SpinEdit width_;
};

class AdvancedPage final : public platform::DialogHandler {
 public:
  void OnInit(platform::DialogWindow& window) override;

  void Load(AddinSettings& record);
  void Save();

  [[nodiscard]] platform::DialogWindow* Window() const noexcept { return window_; }
  [[nodiscard]] AdvancedSubPage& SubPage() noexcept { return subPage_; }

 private:
  platform::DialogWindow* window_ = nullptr;
  AddinSettings* record_ = nullptr;
  AdvancedSubPage subPage_;
};

}  // namespace mrwl
