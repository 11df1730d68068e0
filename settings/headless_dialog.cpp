#include "settings/headless_dialog.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <utility>

#include "platform/ui.h"

namespace mrwl {

using platform::ControlKind;
using platform::DialogControl;
using platform::DialogRect;
using platform::DialogTemplate;

namespace {

// The base units of an 8-point dialog font at 96 dots per inch. Windows rounds in MapDialogRect;
// truncation here keeps every edge a plain function of the template, which is what the tests
// compare against.
constexpr int kBaseUnitX = 6;
constexpr int kBaseUnitY = 13;

// The tab control's display area: a 2-pixel border on every side and one row of tabs, 20 pixels
// high, along the top, as the common controls draw a single-row tab strip in that font.
constexpr int kTabBorder = 2;
constexpr int kTabRowHeight = 20;

// CenterOnOwner has no screen to ask: it centres on a work area of this size.
constexpr int kWorkAreaWidth = 1920;
constexpr int kWorkAreaHeight = 1040;

int DluToPixelsX(int x) { return x * kBaseUnitX / 4; }
int DluToPixelsY(int y) { return y * kBaseUnitY / 8; }

bool IsButtonKind(ControlKind kind) {
  return kind == ControlKind::kPushButton || kind == ControlKind::kDefaultPushButton ||
         kind == ControlKind::kCheckBox || kind == ControlKind::kRadioButton;
}

bool IsEditKind(ControlKind kind) {
  return kind == ControlKind::kEdit || kind == ControlKind::kPasswordEdit;
}

// The answer of a message box nobody sees: its first button.
int FirstButtonOf(UINT type) {
  switch (type & 0xFu) {
    case 3:      // MB_YESNOCANCEL
    case 4:      // MB_YESNO
      return 6;  // IDYES
    case 2:      // MB_ABORTRETRYIGNORE
      return 3;  // IDABORT
    case 5:      // MB_RETRYCANCEL
      return 4;  // IDRETRY
    default:
      return 1;  // IDOK
  }
}

// What the user can reach: an enabled, visible control in a window that shows, with its owners
// showing too.
template <typename Dialog, typename ControlT>
bool Reachable(const Dialog& dialog, const ControlT* control) {
  return control != nullptr && control->enabled && control->visible && dialog.IsWindowVisible();
}

}  // namespace

struct HeadlessDialog::Control {
  const DialogControl* def = nullptr;
  std::u16string text;
  std::vector<std::u16string> rows;  // drop-down rows, or the tabs of a tab control
  int selection = -1;                // selected row or tab
  bool checked = false;
  bool enabled = true;
  bool visible = true;
};

HeadlessDialog::HeadlessDialog(const DialogTemplate& dialog, platform::DialogHandler& handler)
    : HeadlessDialog(dialog, handler, nullptr) {}

HeadlessDialog::HeadlessDialog(const DialogTemplate& dialog, platform::DialogHandler& handler,
                               HeadlessDialog* parent)
    : template_(dialog), handler_(handler), parent_(parent) {
  controls_.reserve(dialog.controls.size());
  for (const DialogControl& def : dialog.controls) {
    Control control;
    control.def = &def;
    control.text.assign(def.text);
    controls_.push_back(std::move(control));
  }
  place_ = TemplateSize();
}

HeadlessDialog::~HeadlessDialog() = default;

void HeadlessDialog::Open() {
  if (opened_) return;
  opened_ = true;
  handler_.OnInit(*this);
  // A modal run shows its frame after initialisation; children stay as their owner left them.
  if (parent_ == nullptr) visible_ = true;
}

HeadlessDialog::Control* HeadlessDialog::Find(int id) noexcept {
  if (id == -1) return nullptr;
  for (Control& control : controls_) {
    if (control.def->id == id) return &control;
  }
  return nullptr;
}

const HeadlessDialog::Control* HeadlessDialog::Find(int id) const noexcept {
  return const_cast<HeadlessDialog*>(this)->Find(id);
}

HeadlessDialog& HeadlessDialog::Root() noexcept {
  HeadlessDialog* dialog = this;
  while (dialog->parent_ != nullptr) dialog = dialog->parent_;
  return *dialog;
}

void HeadlessDialog::Click(int id) {
  if (Root().ended_) return;
  Control* control = Find(id);
  if (!Reachable(*this, control) || !IsButtonKind(control->def->kind)) return;
  if (control->def->kind == ControlKind::kCheckBox) {
    control->checked = !control->checked;
  } else if (control->def->kind == ControlKind::kRadioButton) {
    const std::size_t at = static_cast<std::size_t>(control - controls_.data());
    std::size_t first = at;
    while (first > 0 && !controls_[first].def->group &&
           controls_[first - 1].def->kind == ControlKind::kRadioButton) {
      --first;
    }
    std::size_t last = at + 1;
    while (last < controls_.size() && !controls_[last].def->group &&
           controls_[last].def->kind == ControlKind::kRadioButton) {
      ++last;
    }
    for (std::size_t i = first; i < last; ++i) controls_[i].checked = (i == at);
  }
  handler_.OnCommand(*this, id, BN_CLICKED);
}

void HeadlessDialog::Choose(int id, int row) {
  if (Root().ended_) return;
  Control* control = Find(id);
  if (!Reachable(*this, control) || control->def->kind != ControlKind::kDropDownList) return;
  if (row < 0 || row >= static_cast<int>(control->rows.size())) return;
  control->selection = row;
  handler_.OnCommand(*this, id, CBN_SELCHANGE);
}

void HeadlessDialog::Type(int id, std::u16string_view text) {
  if (Root().ended_) return;
  Control* control = Find(id);
  if (!Reachable(*this, control) || !IsEditKind(control->def->kind)) return;
  control->text.assign(text);
}

bool HeadlessDialog::Spin(int upDownId, int delta) {
  if (Root().ended_) return false;
  Control* control = Find(upDownId);
  if (!Reachable(*this, control) || control->def->kind != ControlKind::kUpDown) return false;
  return handler_.OnUpDown(*this, upDownId, delta);
}

void HeadlessDialog::ChooseTab(int id, int index) {
  if (Root().ended_) return;
  Control* control = Find(id);
  if (!Reachable(*this, control) || control->def->kind != ControlKind::kTabControl) return;
  if (index < 0 || index >= static_cast<int>(control->rows.size())) return;
  control->selection = index;
  handler_.OnTabChange(*this, id);
}

void HeadlessDialog::Close() {
  if (Root().ended_) return;
  handler_.OnClose(*this);
}

HeadlessDialog* HeadlessDialog::FindChild(int templateId) noexcept {
  for (const auto& child : children_) {
    if (child->template_.id == templateId) return child.get();
    if (HeadlessDialog* found = child->FindChild(templateId)) return found;
  }
  return nullptr;
}

const std::vector<std::u16string>& HeadlessDialog::Messages() const noexcept {
  return const_cast<HeadlessDialog*>(this)->Root().messages_;
}

void HeadlessDialog::SetMessageEcho(bool echo) noexcept { Root().echo_ = echo; }

const DialogTemplate& HeadlessDialog::Template() const noexcept { return template_; }

HWND HeadlessDialog::Handle() const noexcept {
  // Only an identity for owner arguments; nothing outside this class may treat it as a window.
  return reinterpret_cast<HWND>(const_cast<HeadlessDialog*>(this));
}

bool HeadlessDialog::IsChecked(int id) const {
  const Control* control = Find(id);
  return control != nullptr && control->checked;
}

void HeadlessDialog::SetChecked(int id, bool checked) {
  Control* control = Find(id);
  if (control == nullptr) return;
  const ControlKind kind = control->def->kind;
  if (kind == ControlKind::kCheckBox || kind == ControlKind::kRadioButton) {
    control->checked = checked;
  }
}

std::u16string HeadlessDialog::GetText(int id) const {
  const Control* control = Find(id);
  if (control == nullptr) return {};
  // A drop-down list's text is its selected row, as the window text of one is.
  if (control->def->kind == ControlKind::kDropDownList) {
    return RowText(id, control->selection);
  }
  return control->text;
}

void HeadlessDialog::SetText(int id, std::u16string_view text) {
  Control* control = Find(id);
  if (control == nullptr || control->def->kind == ControlKind::kDropDownList) return;
  control->text.assign(text);
}

void HeadlessDialog::ClearRows(int id) {
  Control* control = Find(id);
  if (control == nullptr || control->def->kind != ControlKind::kDropDownList) return;
  control->rows.clear();
  control->selection = -1;
}

int HeadlessDialog::AddRow(int id, std::u16string_view text) {
  Control* control = Find(id);
  if (control == nullptr || control->def->kind != ControlKind::kDropDownList) return -1;
  control->rows.emplace_back(text);
  return static_cast<int>(control->rows.size()) - 1;
}

int HeadlessDialog::RowCount(int id) const {
  const Control* control = Find(id);
  if (control == nullptr || control->def->kind != ControlKind::kDropDownList) return 0;
  return static_cast<int>(control->rows.size());
}

std::u16string HeadlessDialog::RowText(int id, int row) const {
  const Control* control = Find(id);
  if (control == nullptr || control->def->kind != ControlKind::kDropDownList) return {};
  if (row < 0 || row >= static_cast<int>(control->rows.size())) return {};
  return control->rows[static_cast<std::size_t>(row)];
}

int HeadlessDialog::Selection(int id) const {
  const Control* control = Find(id);
  if (control == nullptr || control->def->kind != ControlKind::kDropDownList) return -1;
  return control->selection;
}

void HeadlessDialog::Select(int id, int row) {
  Control* control = Find(id);
  if (control == nullptr || control->def->kind != ControlKind::kDropDownList) return;
  control->selection = (row >= 0 && row < static_cast<int>(control->rows.size())) ? row : -1;
}

void HeadlessDialog::Enable(int id, bool enabled) {
  if (Control* control = Find(id)) control->enabled = enabled;
}

bool HeadlessDialog::IsEnabled(int id) const {
  const Control* control = Find(id);
  return control != nullptr && control->enabled;
}

void HeadlessDialog::Show(int id, bool visible) {
  if (Control* control = Find(id)) control->visible = visible;
}

bool HeadlessDialog::IsVisible(int id) const {
  const Control* control = Find(id);
  return control != nullptr && control->visible;
}

DialogRect HeadlessDialog::ControlRect(int id) const {
  const Control* control = Find(id);
  if (control == nullptr) return {};
  const DialogControl& def = *control->def;
  return DialogRect{DluToPixelsX(def.x), DluToPixelsY(def.y), DluToPixelsX(def.x + def.cx),
                    DluToPixelsY(def.y + def.cy)};
}

void HeadlessDialog::InsertTab(int id, int index, std::u16string_view text) {
  Control* control = Find(id);
  if (control == nullptr || control->def->kind != ControlKind::kTabControl || index < 0) return;
  const int count = static_cast<int>(control->rows.size());
  const int at = std::min(index, count);
  control->rows.insert(control->rows.begin() + at, std::u16string(text));
  // The first tab becomes the selected one; a tab put in front of the selected one moves the
  // selection along so that it keeps naming the same tab.
  if (control->selection < 0) {
    control->selection = 0;
  } else if (at <= control->selection) {
    ++control->selection;
  }
}

int HeadlessDialog::TabCount(int id) const {
  const Control* control = Find(id);
  if (control == nullptr || control->def->kind != ControlKind::kTabControl) return 0;
  return static_cast<int>(control->rows.size());
}

int HeadlessDialog::SelectedTab(int id) const {
  const Control* control = Find(id);
  if (control == nullptr || control->def->kind != ControlKind::kTabControl) return -1;
  return control->selection;
}

void HeadlessDialog::SelectTab(int id, int index) {
  Control* control = Find(id);
  if (control == nullptr || control->def->kind != ControlKind::kTabControl) return;
  if (index < 0 || index >= static_cast<int>(control->rows.size())) return;
  control->selection = index;
}

DialogRect HeadlessDialog::TabDisplayArea(int id) const {
  const Control* control = Find(id);
  if (control == nullptr || control->def->kind != ControlKind::kTabControl) return {};
  const DialogRect outer = ControlRect(id);
  return DialogRect{kTabBorder, kTabBorder + kTabRowHeight, outer.Width() - kTabBorder,
                    outer.Height() - kTabBorder};
}

platform::DialogWindow* HeadlessDialog::CreateChild(const DialogTemplate& child,
                                                    platform::DialogHandler& handler,
                                                    int parentControlId) {
  if (parentControlId != 0 && Find(parentControlId) == nullptr) return nullptr;
  // The constructor is private, so make_unique cannot reach it.
  std::unique_ptr<HeadlessDialog> window(new HeadlessDialog(child, handler, this));
  HeadlessDialog* made = window.get();
  children_.push_back(std::move(window));
  made->Open();
  return made;
}

void HeadlessDialog::SetPlace(const DialogRect& place) { place_ = place; }

DialogRect HeadlessDialog::Place() const { return place_; }

void HeadlessDialog::ShowWindow(bool visible) { visible_ = visible; }

bool HeadlessDialog::IsWindowVisible() const {
  for (const HeadlessDialog* dialog = this; dialog != nullptr; dialog = dialog->parent_) {
    if (!dialog->visible_) return false;
  }
  return true;
}

DialogRect HeadlessDialog::TemplateSize() const {
  return DialogRect{0, 0, DluToPixelsX(template_.cx), DluToPixelsY(template_.cy)};
}

void HeadlessDialog::CenterOnOwner() {
  const DialogRect size = TemplateSize();
  const int left = std::max(0, (kWorkAreaWidth - size.Width()) / 2);
  const int top = std::max(0, (kWorkAreaHeight - size.Height()) / 2);
  place_ = DialogRect{left, top, left + size.Width(), top + size.Height()};
}

void HeadlessDialog::EndDialog(int result) {
  ended_ = true;
  result_ = result;
}

void HeadlessDialog::Invalidate() {}

int HeadlessDialog::ShowMessage(std::u16string_view text, std::u16string_view caption, UINT type) {
  HeadlessDialog& root = Root();
  std::u16string entry(caption);
  entry += u'|';
  entry += text;
  root.messages_.push_back(std::move(entry));
  if (!root.echo_) return FirstButtonOf(type);
  // The platform wants terminated strings; views need not be.
  const std::u16string ownText(text);
  const std::u16string ownCaption(caption);
  return platform::MessageBoxW(nullptr, ownText.c_str(), ownCaption.c_str(), type);
}

std::vector<std::u16string> HeadlessDialog::TabTexts(int id) const {
  const Control* control = Find(id);
  if (control == nullptr || control->def->kind != ControlKind::kTabControl) return {};
  return control->rows;
}

}  // namespace mrwl
