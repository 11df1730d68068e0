// For the tests of the options dialog and its pages: the whole dialog over a record and a hive
// of its own in a scratch folder, driven as a user drives it. Tests only.
#pragma once

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "platform/registry.h"
#include "settings/dialog_templates.h"
#include "settings/headless_dialog.h"
#include "settings/options_dialog.h"
#include "testing/temp_folder.h"

namespace mrwl::testing {

// A string as an edit shows it: a loaded one may end in the terminator the registry held.
inline std::u16string Text(const WideString& text) {
  return std::u16string(text.view().substr(0, text.view().find(u'\0')));
}

class OptionsDialogTest : public ::testing::Test {
 protected:
  // Opens the dialog over record_ and brings tab `tab` to the front; a dialog open before goes.
  void Open(int tab = 0) {
    frame_.reset();
    options_.SetRecord(&record_);
    frame_ = std::make_unique<HeadlessDialog>(*FindDialogTemplate(kOptionsFrameDialog), options_);
    frame_->Open();
    if (tab != 0) frame_->ChooseTab(kIdTabs, tab);
  }
  HeadlessDialog& Dialog(int templateId) {
    HeadlessDialog* dialog = frame_->FindChild(templateId);
    if (dialog == nullptr) throw std::runtime_error("no dialog " + std::to_string(templateId));
    return *dialog;
  }
  HeadlessDialog& Security() { return Dialog(kSecurityPageDialog); }
  HeadlessDialog& Panel40() { return Dialog(kPermissions40Dialog); }
  HeadlessDialog& Panel128() { return Dialog(kPermissions128Dialog); }
  HeadlessDialog& Advanced() { return Dialog(kAdvancedPageDialog); }
  HeadlessDialog& Sub() { return Dialog(kAdvancedSubPageDialog); }
  void Ok() { frame_->Click(kIdOk); }

  // Where a sub-dialog belongs on `page`: the placeholder's corner, at the sub-dialog's own size.
  static platform::DialogRect PlaceOf(HeadlessDialog& page, HeadlessDialog& sub) {
    const platform::DialogRect mark = page.ControlRect(kIdPlaceholder);
    const platform::DialogRect size = sub.TemplateSize();
    return {mark.left, mark.top, mark.left + size.Width(), mark.top + size.Height()};
  }

  // The type and size of a value of the settings key; nothing when it or the key is missing.
  std::optional<std::pair<DWORD, DWORD>> ValueShape(const char16_t* name) {
    UniqueRegKey key;
    BYTE bytes[4096];
    DWORD type = 0;
    DWORD size = sizeof bytes;
    if (platform::RegOpenKeyExW(HKEY_CURRENT_USER, record_.SettingsKeyPath.c_str(), 0, KEY_READ,
                                key.put()) != ERROR_SUCCESS ||
        platform::RegQueryValueExW(key.get(), name, nullptr, &type, bytes, &size) != 0) {
      return {};
    }
    return std::pair{type, size};
  }
  bool SettingsKeyExists() {
    UniqueRegKey key;
    return platform::RegOpenKeyExW(HKEY_CURRENT_USER, record_.SettingsKeyPath.c_str(), 0, KEY_READ,
                                   key.put()) == ERROR_SUCCESS;
  }

  TempFolder folder_;
  ScopedEnv hive_{"MRWL_REGISTRY", folder_.PathOf("hive.db")};
  AddinSettings record_;
  OptionsDialog options_;
  std::unique_ptr<HeadlessDialog> frame_;  // goes before the handlers it calls
};

}  // namespace mrwl::testing
