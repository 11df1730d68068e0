// The "Security" tab: whether the PDF is protected, its two passwords, the encryption level and
// the permissions, which differ by level and so live in two panels shown in one place. The only
// page that can refuse OK.
#pragma once

#include <array>
#include <string_view>

#include "platform/dialog.h"
#include "settings/addin_settings.h"

namespace mrwl {

// The rows of the encryption level list; the index is secType.
extern const std::array<std::u16string_view, 5> EncryptionLevelRows;
// The rows of "Changes Allowed:" and "Printing the Document:"; the index is what is stored.
extern const std::array<std::u16string_view, 5> ChangesAllowedRows;
extern const std::array<std::u16string_view, 3> PrintingRows;

// The permissions of 40-bit RC4 (dialog 217) and of every stronger level (dialog 219). They load
// and save only through the page.
class Permissions40Panel final : public platform::DialogHandler {
 public:
  void OnInit(platform::DialogWindow& window) override { window_ = &window; }
  [[nodiscard]] platform::DialogWindow* Window() const noexcept { return window_; }

 private:
  platform::DialogWindow* window_ = nullptr;
};

class Permissions128Panel final : public platform::DialogHandler {
 public:
  void OnInit(platform::DialogWindow& window) override { window_ = &window; }
  [[nodiscard]] platform::DialogWindow* Window() const noexcept { return window_; }

 private:
  platform::DialogWindow* window_ = nullptr;
};

class SecurityPage final : public platform::DialogHandler {
 public:
  void OnInit(platform::DialogWindow& window) override;
  void OnCommand(platform::DialogWindow& window, int id, int code) override;

  void Load(AddinSettings& record);
  void Save();
  // True lets OK pass; false has shown the reason in a message box owned by the page.
  [[nodiscard]] bool Validate();

  [[nodiscard]] platform::DialogWindow* Window() const noexcept { return window_; }

 private:
  void ShowPanelForLevel();
  void ApplyEnabling();

  platform::DialogWindow* window_ = nullptr;
  AddinSettings* record_ = nullptr;
  Permissions40Panel panel40_;
  Permissions128Panel panel128_;
  platform::DialogRect panelPlace_;
};

}  // namespace mrwl
