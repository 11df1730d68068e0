// A dialog without windows: every control is a record in memory, and the user's actions are
// calls that raise the same notifications a desktop dialog raises. The command line edits the
// settings through it (so the pages' rules and validation apply there too), and the tests drive
// the pages through it.
//
// Pixels come from fixed base units (6 by 13, those of an 8-point dialog font at 96 dots per
// inch), so places and sizes follow the templates exactly.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/dialog.h"

namespace mrwl {

class HeadlessDialog final : public platform::DialogWindow {
 public:
  // A frame over `dialog`, heard by `handler`; nothing happens until Open.
  HeadlessDialog(const platform::DialogTemplate& dialog, platform::DialogHandler& handler);
  ~HeadlessDialog() override;
  HeadlessDialog(const HeadlessDialog&) = delete;
  HeadlessDialog& operator=(const HeadlessDialog&) = delete;

  // Initialises the dialog (the handler's OnInit), as a modal run does before the first paint.
  void Open();

  // The user's actions. A click on a check box toggles it and one on a radio button checks it and
  // clears the others of its group, before the handler hears BN_CLICKED; clicks on disabled or
  // hidden controls do nothing, as on a screen.
  void Click(int id);
  // Selects `row` of a drop-down list and raises CBN_SELCHANGE.
  void Choose(int id, int row);
  // Replaces the text of an edit, as typing does (no notification); like a click, it does nothing
  // on a disabled or hidden edit.
  void Type(int id, std::u16string_view text);
  // Clicks the up-down `upDownId` (+1 up, -1 down); answers what the handler answered.
  bool Spin(int upDownId, int delta);
  // Brings tab `index` of tab control `id` to the front and raises TCN_SELCHANGE.
  void ChooseTab(int id, int index);
  // The close box.
  void Close();

  [[nodiscard]] bool Ended() const noexcept { return ended_; }
  [[nodiscard]] int Result() const noexcept { return result_; }

  // The first child made from template `templateId`, searched depth-first; null if none.
  [[nodiscard]] HeadlessDialog* FindChild(int templateId) noexcept;
  // Message boxes shown by this dialog or any of its children, in order, as "caption|text" with
  // an empty caption left empty. When `echo` is on they also go to platform::MessageBoxW.
  [[nodiscard]] const std::vector<std::u16string>& Messages() const noexcept;
  void SetMessageEcho(bool echo) noexcept;

  // DialogWindow.
  [[nodiscard]] const platform::DialogTemplate& Template() const noexcept override;
  [[nodiscard]] HWND Handle() const noexcept override;
  [[nodiscard]] bool IsChecked(int id) const override;
  void SetChecked(int id, bool checked) override;
  [[nodiscard]] std::u16string GetText(int id) const override;
  void SetText(int id, std::u16string_view text) override;
  void ClearRows(int id) override;
  int AddRow(int id, std::u16string_view text) override;
  [[nodiscard]] int RowCount(int id) const override;
  [[nodiscard]] std::u16string RowText(int id, int row) const override;
  [[nodiscard]] int Selection(int id) const override;
  void Select(int id, int row) override;
  void Enable(int id, bool enabled) override;
  [[nodiscard]] bool IsEnabled(int id) const override;
  void Show(int id, bool visible) override;
  [[nodiscard]] bool IsVisible(int id) const override;
  [[nodiscard]] platform::DialogRect ControlRect(int id) const override;
  void InsertTab(int id, int index, std::u16string_view text) override;
  [[nodiscard]] int TabCount(int id) const override;
  [[nodiscard]] int SelectedTab(int id) const override;
  void SelectTab(int id, int index) override;
  [[nodiscard]] platform::DialogRect TabDisplayArea(int id) const override;
  DialogWindow* CreateChild(const platform::DialogTemplate& child, platform::DialogHandler& handler,
                            int parentControlId) override;
  void SetPlace(const platform::DialogRect& place) override;
  [[nodiscard]] platform::DialogRect Place() const override;
  void ShowWindow(bool visible) override;
  [[nodiscard]] bool IsWindowVisible() const override;
  [[nodiscard]] platform::DialogRect TemplateSize() const override;
  void CenterOnOwner() override;
  void EndDialog(int result) override;
  void Invalidate() override;
  int ShowMessage(std::u16string_view text, std::u16string_view caption, UINT type) override;

  // The tab texts of tab control `id`, in index order.
  [[nodiscard]] std::vector<std::u16string> TabTexts(int id) const;

 private:
  struct Control;
  HeadlessDialog(const platform::DialogTemplate& dialog, platform::DialogHandler& handler,
                 HeadlessDialog* parent);
  Control* Find(int id) noexcept;
  const Control* Find(int id) const noexcept;
  HeadlessDialog& Root() noexcept;

  const platform::DialogTemplate& template_;
  platform::DialogHandler& handler_;
  HeadlessDialog* parent_ = nullptr;
  std::vector<Control> controls_;
  std::vector<std::unique_ptr<HeadlessDialog>> children_;
  std::vector<std::u16string> messages_;
  platform::DialogRect place_;
  bool visible_ = false;
  bool opened_ = false;
  bool ended_ = false;
  bool echo_ = false;
  int result_ = 0;
};

}  // namespace mrwl
