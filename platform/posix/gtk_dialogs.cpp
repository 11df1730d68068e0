// The desktop side of the dialogs: templates become GTK 3 windows.
//
// A frame is a GtkWindow around a GtkFixed of the template's size; a child dialog is a GtkLayout
// placed in its parent's container, which clips its controls as a child window clips on Windows.
// Controls stand where the template puts them, in pixels from the base units of the template's
// font. GTK's own widgets are taller and wider than the classic ones, so a style sheet gives every
// widget of a dialog that font and compact paddings, which lets them fit the template's
// rectangles. The logic must hear only the user's actions: while it sets values itself, the
// handlers here stay silent (Quiet).
#include "platform/posix/gtk_dialogs.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtk/gtk.h>

#include "platform/dialog.h"
#include "platform/file_dialog.h"
#include "platform/ui.h"

namespace mrwl::platform {
namespace {

constexpr int kIdCancel = 2;
// Space between the border of a tab control and the pages it shows, as the classic control has.
constexpr int kTabInset = 3;

// ---------------------------------------------------------------------------------------------
// Text

std::string ToUtf8(std::u16string_view text) {
  if (text.empty()) return {};
  glong written = 0;
  gchar* bytes = g_utf16_to_utf8(reinterpret_cast<const gunichar2*>(text.data()),
                                 static_cast<glong>(text.size()), nullptr, &written, nullptr);
  if (bytes == nullptr) return {};
  std::string result(bytes, static_cast<std::size_t>(written));
  g_free(bytes);
  return result;
}

std::u16string FromUtf8(const char* text) {
  if (text == nullptr || *text == 0) return {};
  glong written = 0;
  gunichar2* units = g_utf8_to_utf16(text, -1, nullptr, &written, nullptr);
  if (units == nullptr) return {};
  std::u16string result(reinterpret_cast<const char16_t*>(units),
                        static_cast<std::size_t>(written));
  g_free(units);
  return result;
}

// A Windows control text with its '&' marks as GTK's mnemonic text ('_' marks).
std::string Mnemonic(std::u16string_view text) {
  std::u16string converted;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == u'&' && i + 1 < text.size()) {
      ++i;
      converted += text[i] == u'&' ? u"&" : u"_";
      if (text[i] != u'&') converted += text[i];
    } else if (text[i] == u'_') {
      converted += u"__";
    } else {
      converted += text[i];
    }
  }
  return ToUtf8(converted);
}

// The same text without marks, for places that show no mnemonics (frames, tabs).
std::string Plain(std::u16string_view text) {
  std::u16string converted;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == u'&' && i + 1 < text.size()) ++i;
    converted += text[i];
  }
  return ToUtf8(converted);
}

// ---------------------------------------------------------------------------------------------
// Metrics and looks

struct BaseUnits {
  int x = 6;
  int y = 13;
};

std::string FontFamily(const DialogTemplate& dialog) {
  return dialog.font.empty() ? std::string("MS Shell Dlg") : ToUtf8(dialog.font);
}

int PointSize(const DialogTemplate& dialog) { return dialog.pointSize > 0 ? dialog.pointSize : 8; }

// The base units of the template's font as the dialog manager measures them: the average width
// of the Latin letters and the font's height. Fontconfig stands in a sans font for a Windows face.
BaseUnits MeasureBaseUnits(const DialogTemplate& dialog) {
  BaseUnits units;
  PangoContext* context = gdk_pango_context_get();
  if (context == nullptr) return units;
  PangoFontDescription* font = pango_font_description_new();
  pango_font_description_set_family(font, FontFamily(dialog).c_str());
  pango_font_description_set_size(font, PointSize(dialog) * PANGO_SCALE);
  PangoLayout* layout = pango_layout_new(context);
  pango_layout_set_font_description(layout, font);
  pango_layout_set_text(layout, "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz", -1);
  int width = 0;
  int height = 0;
  pango_layout_get_pixel_size(layout, &width, &height);
  PangoFontMetrics* metrics = pango_context_get_metrics(context, font, nullptr);
  const int fontHeight = PANGO_PIXELS_CEIL(pango_font_metrics_get_ascent(metrics) +
                                           pango_font_metrics_get_descent(metrics));
  pango_font_metrics_unref(metrics);
  g_object_unref(layout);
  pango_font_description_free(font);
  g_object_unref(context);
  if (width > 0) units.x = (width / 26 + 1) / 2;
  if (fontHeight > 0) units.y = fontHeight;
  return units;
}

// Compact widgets in the dialog font, so that GTK's controls fit rectangles made for the classic
// ones: edits 12 dialog units high, buttons 14.
std::string StyleSheet(const DialogTemplate& dialog) {
  const std::string font = "font-family: \"" + FontFamily(dialog) +
                           "\", sans-serif; font-size: " + std::to_string(PointSize(dialog)) +
                           "pt;";
  return ".mrwl-dialog, .mrwl-dialog * {" + font +
         "}\n"
         ".mrwl-dialog entry { min-height: 0; min-width: 0; padding: 0 3px; }\n"
         ".mrwl-dialog button { min-height: 0; min-width: 0; padding: 0 6px; }\n"
         ".mrwl-dialog button.mrwl-arrow { padding: 0; border-radius: 0; }\n"
         ".mrwl-dialog combobox button { padding: 0 2px 0 4px; min-height: 0; }\n"
         ".mrwl-dialog combobox arrow { min-width: 12px; min-height: 12px; }\n"
         ".mrwl-dialog checkbutton, .mrwl-dialog radiobutton { min-height: 0; padding: 0; }\n"
         ".mrwl-dialog check, .mrwl-dialog radio { min-width: 13px; min-height: 13px;"
         " margin: 0 5px 0 0; }\n"
         ".mrwl-dialog notebook > header.top > tabs > tab { min-height: 0; min-width: 0;"
         " padding: 2px 8px; }\n"
         ".mrwl-dialog notebook > header.top > tabs { margin: 0; }\n"
         ".mrwl-dialog notebook > stack { min-height: 0; min-width: 0; }\n"
         ".mrwl-dialog frame > label { margin: 0 2px; }\n"
         ".mrwl-dialog layout { background-color: transparent; }\n";
}

// ---------------------------------------------------------------------------------------------
// The dialogs

class ToolkitDialog;

// Every dialog alive, frames and children, so that a handle can be told for one of ours.
std::vector<ToolkitDialog*>& LiveDialogs() {
  static std::vector<ToolkitDialog*> dialogs;
  return dialogs;
}

// The frames now running modally, innermost last.
std::vector<ToolkitDialog*>& RunningFrames() {
  static std::vector<ToolkitDialog*> frames;
  return frames;
}

class ToolkitDialog final : public DialogWindow {
 public:
  // A frame when `parent` is null; a child placed in `parent`'s control `parentControlId` (or in
  // the parent itself for 0) otherwise.
  ToolkitDialog(const DialogTemplate& dialog, DialogHandler& handler, ToolkitDialog* parent,
                int parentControlId)
      : template_(dialog),
        handler_(handler),
        parent_(parent),
        parentControlId_(parentControlId),
        units_(parent == nullptr ? MeasureBaseUnits(dialog) : parent->units_) {
    LiveDialogs().push_back(this);
  }

  ~ToolkitDialog() override {
    if (parent_ == nullptr) {
      // Widgets raise signals while they go (a notebook switches pages as its tabs leave); the
      // handlers must not reach the logic then.
      dying_ = true;
      if (window_ != nullptr) gtk_widget_destroy(window_);
      if (provider_ != nullptr) {
        gtk_style_context_remove_provider_for_screen(gdk_screen_get_default(),
                                                     GTK_STYLE_PROVIDER(provider_));
        g_object_unref(provider_);
      }
    }
    children_.clear();
    for (GtkWidget* radio : noneRadios_) g_object_unref(radio);
    std::erase(LiveDialogs(), this);
  }

  ToolkitDialog(const ToolkitDialog&) = delete;
  ToolkitDialog& operator=(const ToolkitDialog&) = delete;

  // Makes the widgets and initialises the logic. False when the dialog cannot be made.
  bool Build() {
    const int width = Dlu(template_.cx, true);
    const int height = Dlu(template_.cy, false);
    if (parent_ == nullptr) {
      provider_ = gtk_css_provider_new();
      const std::string css = StyleSheet(template_);
      gtk_css_provider_load_from_data(provider_, css.c_str(), -1, nullptr);
      gtk_style_context_add_provider_for_screen(gdk_screen_get_default(),
                                                GTK_STYLE_PROVIDER(provider_),
                                                GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
      window_ = gtk_window_new(GTK_WINDOW_TOPLEVEL);
      gtk_style_context_add_class(gtk_widget_get_style_context(window_), "mrwl-dialog");
      gtk_window_set_title(GTK_WINDOW(window_), Plain(template_.title).c_str());
      gtk_window_set_modal(GTK_WINDOW(window_), TRUE);
      gtk_window_set_resizable(GTK_WINDOW(window_), FALSE);
      gtk_window_set_type_hint(GTK_WINDOW(window_), GDK_WINDOW_TYPE_HINT_DIALOG);
      client_ = gtk_fixed_new();
      gtk_widget_set_size_request(client_, width, height);
      gtk_container_add(GTK_CONTAINER(window_), client_);
      gtk_widget_show(client_);
      g_signal_connect(window_, "delete-event", G_CALLBACK(OnDeleteEvent), this);
      g_signal_connect(window_, "key-press-event", G_CALLBACK(OnKeyPress), this);
      g_signal_connect_after(window_, "draw", G_CALLBACK(OnDrawn), this);
    } else {
      client_ = gtk_layout_new(nullptr, nullptr);
      gtk_widget_set_size_request(client_, width, height);
      gtk_widget_set_name(client_, ("dialog-" + std::to_string(template_.id)).c_str());
      parent_->Put(client_, parent_->Offset(parentControlId_));
    }
    place_ = {0, 0, width, height};
    BuildControls();
    const Quiet quiet(*this);
    handler_.OnInit(*this);
    return true;
  }

  // Runs the frame until EndDialog; answers its result.
  int RunModal() {
    gtk_widget_show(window_);
    RunningFrames().push_back(this);
    const char* snapshots = std::getenv("MRWL_DIALOG_SNAPSHOTS");
    if (!ended_ && snapshots != nullptr && *snapshots != 0) TakeSnapshots(snapshots);
    if (!ended_) {
      loop_ = g_main_loop_new(nullptr, FALSE);
      g_main_loop_run(loop_);
      g_main_loop_unref(loop_);
      loop_ = nullptr;
    }
    std::erase(RunningFrames(), this);
    gtk_widget_hide(window_);
    return result_;
  }

  [[nodiscard]] GtkWindow* Toplevel() const { return GTK_WINDOW(gtk_widget_get_toplevel(client_)); }

  // DialogWindow.
  [[nodiscard]] const DialogTemplate& Template() const noexcept override { return template_; }
  [[nodiscard]] HWND Handle() const noexcept override {
    return parent_ == nullptr ? static_cast<HWND>(window_) : static_cast<HWND>(client_);
  }

  [[nodiscard]] bool IsChecked(int id) const override {
    const Control* control = Find(id);
    if (control == nullptr || !GTK_IS_TOGGLE_BUTTON(control->widget)) return false;
    return gtk_toggle_button_get_active(GTK_TOGGLE_BUTTON(control->widget)) != FALSE;
  }

  void SetChecked(int id, bool checked) override {
    Control* control = Find(id);
    if (control == nullptr || !GTK_IS_TOGGLE_BUTTON(control->widget)) return;
    const Quiet quiet(*this);
    if (!checked && control->noneRadio != nullptr) {
      // A GTK radio group always has a member on; the hidden one stands for "none".
      if (IsChecked(id)) gtk_toggle_button_set_active(GTK_TOGGLE_BUTTON(control->noneRadio), TRUE);
      return;
    }
    gtk_toggle_button_set_active(GTK_TOGGLE_BUTTON(control->widget), checked ? TRUE : FALSE);
  }

  [[nodiscard]] std::u16string GetText(int id) const override {
    const Control* control = Find(id);
    if (control == nullptr) return {};
    switch (control->def->kind) {
      case ControlKind::kEdit:
      case ControlKind::kPasswordEdit:
        return FromUtf8(gtk_entry_get_text(GTK_ENTRY(control->widget)));
      case ControlKind::kDropDownList: {
        const int row = Selection(id);
        return row < 0 ? std::u16string() : control->rows[static_cast<std::size_t>(row)];
      }
      default:
        return control->text;
    }
  }

  void SetText(int id, std::u16string_view text) override {
    Control* control = Find(id);
    if (control == nullptr) return;
    const Quiet quiet(*this);
    control->text.assign(text);
    GtkWidget* widget = control->widget;
    switch (control->def->kind) {
      case ControlKind::kEdit:
      case ControlKind::kPasswordEdit:
        gtk_entry_set_text(GTK_ENTRY(widget), ToUtf8(text).c_str());
        break;
      case ControlKind::kLabel:
      case ControlKind::kPlaceholder:
        gtk_label_set_text_with_mnemonic(GTK_LABEL(widget), Mnemonic(text).c_str());
        break;
      case ControlKind::kGroupBox:
        gtk_frame_set_label(GTK_FRAME(widget), Plain(text).c_str());
        break;
      case ControlKind::kPushButton:
      case ControlKind::kDefaultPushButton:
      case ControlKind::kCheckBox:
      case ControlKind::kRadioButton:
        gtk_button_set_label(GTK_BUTTON(widget), Mnemonic(text).c_str());
        break;
      default:
        break;
    }
  }

  void ClearRows(int id) override {
    Control* control = FindKind(id, ControlKind::kDropDownList);
    if (control == nullptr) return;
    const Quiet quiet(*this);
    gtk_combo_box_text_remove_all(GTK_COMBO_BOX_TEXT(control->widget));
    control->rows.clear();
  }

  int AddRow(int id, std::u16string_view text) override {
    Control* control = FindKind(id, ControlKind::kDropDownList);
    if (control == nullptr) return -1;
    const Quiet quiet(*this);
    gtk_combo_box_text_append_text(GTK_COMBO_BOX_TEXT(control->widget), ToUtf8(text).c_str());
    control->rows.emplace_back(text);
    return static_cast<int>(control->rows.size()) - 1;
  }

  [[nodiscard]] int RowCount(int id) const override {
    const Control* control = FindKind(id, ControlKind::kDropDownList);
    return control == nullptr ? -1 : static_cast<int>(control->rows.size());
  }

  [[nodiscard]] std::u16string RowText(int id, int row) const override {
    const Control* control = FindKind(id, ControlKind::kDropDownList);
    if (control == nullptr || row < 0 || row >= static_cast<int>(control->rows.size())) return {};
    return control->rows[static_cast<std::size_t>(row)];
  }

  [[nodiscard]] int Selection(int id) const override {
    const Control* control = FindKind(id, ControlKind::kDropDownList);
    return control == nullptr ? -1 : gtk_combo_box_get_active(GTK_COMBO_BOX(control->widget));
  }

  void Select(int id, int row) override {
    Control* control = FindKind(id, ControlKind::kDropDownList);
    if (control == nullptr) return;
    const Quiet quiet(*this);
    if (row < 0 || row >= static_cast<int>(control->rows.size())) row = -1;
    gtk_combo_box_set_active(GTK_COMBO_BOX(control->widget), row);
  }

  void Enable(int id, bool enabled) override {
    Control* control = Find(id);
    if (control != nullptr) gtk_widget_set_sensitive(control->widget, enabled ? TRUE : FALSE);
  }

  [[nodiscard]] bool IsEnabled(int id) const override {
    const Control* control = Find(id);
    return control != nullptr && gtk_widget_get_sensitive(control->widget) != FALSE;
  }

  void Show(int id, bool visible) override {
    Control* control = Find(id);
    if (control != nullptr) gtk_widget_set_visible(control->widget, visible ? TRUE : FALSE);
  }

  [[nodiscard]] bool IsVisible(int id) const override {
    const Control* control = Find(id);
    return control != nullptr && gtk_widget_get_visible(control->widget) != FALSE;
  }

  [[nodiscard]] DialogRect ControlRect(int id) const override {
    const Control* control = Find(id);
    return control == nullptr ? DialogRect{} : control->rect;
  }

  void InsertTab(int id, int index, std::u16string_view text) override {
    Control* control = FindKind(id, ControlKind::kTabControl);
    if (control == nullptr) return;
    const Quiet quiet(*this);
    // The pages are the logic's child dialogs, laid over the notebook; its own pages stay empty.
    GtkWidget* page = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
    gtk_widget_show(page);
    GtkWidget* label = gtk_label_new(Plain(text).c_str());
    gtk_notebook_insert_page(GTK_NOTEBOOK(control->widget), page, label, index);
  }

  [[nodiscard]] int TabCount(int id) const override {
    const Control* control = FindKind(id, ControlKind::kTabControl);
    return control == nullptr ? 0 : gtk_notebook_get_n_pages(GTK_NOTEBOOK(control->widget));
  }

  [[nodiscard]] int SelectedTab(int id) const override {
    const Control* control = FindKind(id, ControlKind::kTabControl);
    return control == nullptr ? -1 : gtk_notebook_get_current_page(GTK_NOTEBOOK(control->widget));
  }

  void SelectTab(int id, int index) override {
    Control* control = FindKind(id, ControlKind::kTabControl);
    if (control == nullptr || index < 0 || index >= TabCount(id)) return;
    const Quiet quiet(*this);
    gtk_notebook_set_current_page(GTK_NOTEBOOK(control->widget), index);
  }

  [[nodiscard]] DialogRect TabDisplayArea(int id) const override {
    const Control* control = FindKind(id, ControlKind::kTabControl);
    if (control == nullptr) return {};
    // The notebook's own pages are empty, so what it asks for in height is its row of tabs and
    // the border of the page area; the display area starts below that.
    // The size the notebook is held to would hide that, so it is asked without.
    int minimum = 0;
    int natural = 0;
    gtk_widget_set_size_request(control->widget, -1, -1);
    gtk_widget_get_preferred_height(control->widget, &minimum, &natural);
    gtk_widget_set_size_request(control->widget, control->rect.Width(), control->rect.Height());
    const int border = 1;
    const DialogRect& rect = control->rect;
    DialogRect area{border + kTabInset, std::max(minimum - border, 0) + kTabInset,
                    rect.Width() - border - kTabInset, rect.Height() - border - kTabInset};
    if (area.bottom < area.top) area.bottom = area.top;
    if (area.right < area.left) area.right = area.left;
    return area;
  }

  DialogWindow* CreateChild(const DialogTemplate& child, DialogHandler& handler,
                            int parentControlId) override {
    if (parentControlId != 0 && Find(parentControlId) == nullptr) return nullptr;
    auto dialog = std::make_unique<ToolkitDialog>(child, handler, this, parentControlId);
    ToolkitDialog* made = dialog.get();
    children_.push_back(std::move(dialog));
    if (!made->Build()) {
      children_.pop_back();
      return nullptr;
    }
    return made;
  }

  void SetPlace(const DialogRect& place) override {
    place_ = place;
    if (parent_ == nullptr) {
      gtk_window_move(GTK_WINDOW(window_), place.left, place.top);
      return;
    }
    gtk_widget_set_size_request(client_, std::max(place.Width(), 0), std::max(place.Height(), 0));
    const Point offset = parent_->Offset(parentControlId_);
    parent_->Move(client_, {offset.x + place.left, offset.y + place.top});
  }

  [[nodiscard]] DialogRect Place() const override { return place_; }

  void ShowWindow(bool visible) override {
    if (parent_ != nullptr) gtk_widget_set_visible(client_, visible ? TRUE : FALSE);
    // A frame shows itself when its modal run starts.
  }

  [[nodiscard]] bool IsWindowVisible() const override {
    return gtk_widget_get_visible(parent_ == nullptr ? window_ : client_) != FALSE;
  }

  [[nodiscard]] DialogRect TemplateSize() const override {
    return {0, 0, Dlu(template_.cx, true), Dlu(template_.cy, false)};
  }

  void CenterOnOwner() override {
    if (parent_ != nullptr) return;
    // No owner windows here: the frame goes to the middle of the work area of the screen's
    // primary monitor, kept inside it right and bottom first, then left and top.
    GdkDisplay* display = gdk_display_get_default();
    GdkMonitor* monitor = gdk_display_get_primary_monitor(display);
    if (monitor == nullptr) monitor = gdk_display_get_monitor(display, 0);
    if (monitor == nullptr) return;
    GdkRectangle area{};
    gdk_monitor_get_workarea(monitor, &area);
    const DialogRect size = TemplateSize();
    int left = area.x + (area.width - size.Width()) / 2;
    int top = area.y + (area.height - size.Height()) / 2;
    left = std::max(std::min(left, area.x + area.width - size.Width()), area.x);
    top = std::max(std::min(top, area.y + area.height - size.Height()), area.y);
    SetPlace({left, top, left + size.Width(), top + size.Height()});
  }

  void EndDialog(int result) override {
    ToolkitDialog& root = Root();
    root.ended_ = true;
    root.result_ = result;
    // The loop stops once the notification under way has returned to it.
    if (root.loop_ != nullptr) g_main_loop_quit(root.loop_);
  }

  void Invalidate() override { gtk_widget_queue_draw(client_); }

  int ShowMessage(std::u16string_view text, std::u16string_view caption, UINT type) override {
    GtkMessageType kind = GTK_MESSAGE_OTHER;
    switch (type & 0xF0u) {
      case MB_ICONHAND:
        kind = GTK_MESSAGE_ERROR;
        break;
      case MB_ICONQUESTION:
        kind = GTK_MESSAGE_QUESTION;
        break;
      case MB_ICONWARNING:
        kind = GTK_MESSAGE_WARNING;
        break;
      case MB_ICONINFORMATION:
        kind = GTK_MESSAGE_INFO;
        break;
      default:
        break;
    }
    GtkWidget* box = gtk_message_dialog_new(Toplevel(), GTK_DIALOG_MODAL, kind, GTK_BUTTONS_NONE,
                                            "%s", ToUtf8(text).c_str());
    gtk_window_set_title(GTK_WINDOW(box), ToUtf8(caption).c_str());
    const UINT buttons = type & 0x0Fu;
    if (buttons == MB_YESNO) {
      gtk_dialog_add_buttons(GTK_DIALOG(box), "_Yes", IDYES, "_No", IDNO, nullptr);
      gtk_dialog_set_default_response(GTK_DIALOG(box), IDYES);
    } else {
      gtk_dialog_add_button(GTK_DIALOG(box), "OK", IDOK);
      if (buttons == MB_OKCANCEL) gtk_dialog_add_button(GTK_DIALOG(box), "Cancel", IDCANCEL);
      gtk_dialog_set_default_response(GTK_DIALOG(box), IDOK);
    }
    const int response = gtk_dialog_run(GTK_DIALOG(box));
    gtk_widget_destroy(box);
    if (response == IDOK || response == IDCANCEL || response == IDYES || response == IDNO) {
      return response;
    }
    // Closed by the window's close box: as Cancel where there is one, the only button otherwise.
    if (buttons == MB_YESNO) return IDNO;
    return buttons == MB_OKCANCEL ? IDCANCEL : IDOK;
  }

 private:
  struct Point {
    int x = 0;
    int y = 0;
  };

  struct Control {
    ToolkitDialog* owner = nullptr;
    const DialogControl* def = nullptr;
    GtkWidget* widget = nullptr;
    GtkWidget* noneRadio = nullptr;  // radio buttons: the hidden member of the group
    DialogRect rect;
    std::u16string text;
    std::vector<std::u16string> rows;
  };

  // Keeps the handlers silent while the logic itself changes the controls.
  class Quiet {
   public:
    explicit Quiet(ToolkitDialog& dialog) : root_(dialog.Root()) { ++root_.quiet_; }
    ~Quiet() { --root_.quiet_; }
    Quiet(const Quiet&) = delete;
    Quiet& operator=(const Quiet&) = delete;

   private:
    ToolkitDialog& root_;
  };

  ToolkitDialog& Root() {
    ToolkitDialog* dialog = this;
    while (dialog->parent_ != nullptr) dialog = dialog->parent_;
    return *dialog;
  }

  // True while the user's actions may reach the logic.
  bool Listening() {
    const ToolkitDialog& root = Root();
    return root.quiet_ == 0 && !root.dying_;
  }

  int Dlu(int units, bool horizontal) const {
    return horizontal ? units * units_.x / 4 : units * units_.y / 8;
  }

  DialogRect RectOf(const DialogControl& def) const {
    const int left = Dlu(def.x, true);
    const int top = Dlu(def.y, false);
    return {left, top, left + Dlu(def.cx, true), top + Dlu(def.cy, false)};
  }

  Control* Find(int id) {
    for (Control& control : controls_) {
      if (control.def->id == id && id != -1) return &control;
    }
    return nullptr;
  }
  const Control* Find(int id) const { return const_cast<ToolkitDialog*>(this)->Find(id); }
  Control* FindKind(int id, ControlKind kind) {
    Control* control = Find(id);
    return control != nullptr && control->def->kind == kind ? control : nullptr;
  }
  const Control* FindKind(int id, ControlKind kind) const {
    return const_cast<ToolkitDialog*>(this)->FindKind(id, kind);
  }

  // Where the children placed in control `controlId` (or in this dialog for 0) have their origin.
  Point Offset(int controlId) const {
    const Control* control = controlId == 0 ? nullptr : Find(controlId);
    return control == nullptr ? Point{} : Point{control->rect.left, control->rect.top};
  }

  void Put(GtkWidget* widget, Point at) {
    if (GTK_IS_LAYOUT(client_)) {
      gtk_layout_put(GTK_LAYOUT(client_), widget, at.x, at.y);
    } else {
      gtk_fixed_put(GTK_FIXED(client_), widget, at.x, at.y);
    }
  }

  void Move(GtkWidget* widget, Point at) {
    if (GTK_IS_LAYOUT(client_)) {
      gtk_layout_move(GTK_LAYOUT(client_), widget, at.x, at.y);
    } else {
      gtk_fixed_move(GTK_FIXED(client_), widget, at.x, at.y);
    }
  }

  void BuildControls() {
    controls_.reserve(template_.controls.size());  // the handlers keep pointers to the records
    GtkWidget* groupNone = nullptr;                // the hidden radio of the group under way
    GtkWidget* defaultButton = nullptr;
    for (const DialogControl& def : template_.controls) {
      Control& control = controls_.emplace_back();
      control.owner = this;
      control.def = &def;
      control.text.assign(def.text);
      control.rect = RectOf(def);
      if (def.group) groupNone = nullptr;
      GtkWidget* widget = nullptr;
      switch (def.kind) {
        case ControlKind::kPushButton:
        case ControlKind::kDefaultPushButton:
          widget = gtk_button_new_with_mnemonic(Mnemonic(def.text).c_str());
          g_signal_connect(widget, "clicked", G_CALLBACK(OnClicked), &control);
          if (def.kind == ControlKind::kDefaultPushButton) defaultButton = widget;
          break;
        case ControlKind::kCheckBox:
          widget = gtk_check_button_new_with_mnemonic(Mnemonic(def.text).c_str());
          g_signal_connect_after(widget, "clicked", G_CALLBACK(OnClicked), &control);
          break;
        case ControlKind::kRadioButton:
          if (groupNone == nullptr) {
            groupNone = gtk_radio_button_new(nullptr);
            g_object_ref_sink(groupNone);
            noneRadios_.push_back(groupNone);
          }
          widget = gtk_radio_button_new_with_mnemonic_from_widget(GTK_RADIO_BUTTON(groupNone),
                                                                  Mnemonic(def.text).c_str());
          control.noneRadio = groupNone;
          g_signal_connect_after(widget, "clicked", G_CALLBACK(OnClicked), &control);
          break;
        case ControlKind::kGroupBox:
          widget = gtk_frame_new(def.text.empty() ? nullptr : Plain(def.text).c_str());
          gtk_frame_set_label_align(GTK_FRAME(widget), 0.0f, 0.5f);
          break;
        case ControlKind::kLabel:
        case ControlKind::kPlaceholder:
          widget = gtk_label_new_with_mnemonic(Mnemonic(def.text).c_str());
          gtk_label_set_xalign(GTK_LABEL(widget), 0.0f);
          gtk_label_set_yalign(GTK_LABEL(widget), 0.0f);
          gtk_label_set_line_wrap(GTK_LABEL(widget), TRUE);
          break;
        case ControlKind::kEdit:
        case ControlKind::kPasswordEdit:
          widget = gtk_entry_new();
          gtk_entry_set_width_chars(GTK_ENTRY(widget), 1);
          gtk_entry_set_activates_default(GTK_ENTRY(widget), TRUE);
          gtk_entry_set_text(GTK_ENTRY(widget), ToUtf8(def.text).c_str());
          if (def.kind == ControlKind::kPasswordEdit) {
            gtk_entry_set_visibility(GTK_ENTRY(widget), FALSE);
            gtk_entry_set_input_purpose(GTK_ENTRY(widget), GTK_INPUT_PURPOSE_PASSWORD);
          }
          break;
        case ControlKind::kUpDown:
          widget = MakeUpDown(control);
          break;
        case ControlKind::kDropDownList: {
          widget = gtk_combo_box_text_new();
          // Long rows are cut short rather than widening the list beyond its rectangle.
          GList* cells = gtk_cell_layout_get_cells(GTK_CELL_LAYOUT(widget));
          for (GList* cell = cells; cell != nullptr; cell = cell->next) {
            g_object_set(cell->data, "ellipsize", PANGO_ELLIPSIZE_END, "width-chars", 1, nullptr);
          }
          g_list_free(cells);
          // A drop-down list's template height includes its open list; the closed box is an
          // edit's height.
          control.rect.bottom = control.rect.top + std::min(control.rect.Height(), Dlu(12, false));
          g_signal_connect(widget, "changed", G_CALLBACK(OnRowChosen), &control);
          break;
        }
        case ControlKind::kTabControl:
          widget = gtk_notebook_new();
          gtk_notebook_set_scrollable(GTK_NOTEBOOK(widget), TRUE);
          g_signal_connect_after(widget, "switch-page", G_CALLBACK(OnTabSwitched), &control);
          break;
      }
      control.widget = widget;
      gtk_widget_set_name(widget, ("control-" + std::to_string(def.id)).c_str());
      gtk_widget_set_size_request(widget, control.rect.Width(), control.rect.Height());
      Put(widget, {control.rect.left, control.rect.top});
      gtk_widget_show_all(widget);
    }
    if (defaultButton != nullptr) {
      gtk_widget_set_can_default(defaultButton, TRUE);
      if (parent_ == nullptr) gtk_window_set_default(GTK_WINDOW(window_), defaultButton);
    }
  }

  // The arrows of an up-down: two small buttons stacked, set against the right edge of the edit
  // before it, which gives up that room, as the classic control's aligned buddy does.
  GtkWidget* MakeUpDown(Control& control) {
    const std::size_t index = static_cast<std::size_t>(&control - controls_.data());
    if (index > 0) {
      Control& buddy = controls_[index - 1];
      if (buddy.def->kind == ControlKind::kEdit) {
        const int width = std::clamp(control.rect.Width(), 1, std::max(buddy.rect.Width() / 2, 1));
        control.rect = {buddy.rect.right - width, buddy.rect.top, buddy.rect.right,
                        buddy.rect.bottom};
        buddy.rect.right -= width;
        gtk_widget_set_size_request(buddy.widget, buddy.rect.Width(), buddy.rect.Height());
      }
    }
    GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
    gtk_box_set_homogeneous(GTK_BOX(box), TRUE);
    for (const bool up : {true, false}) {
      GtkWidget* button = gtk_button_new();
      gtk_style_context_add_class(gtk_widget_get_style_context(button), "mrwl-arrow");
      gtk_widget_set_can_focus(button, FALSE);
      GtkWidget* arrow = gtk_drawing_area_new();
      g_signal_connect(arrow, "draw", G_CALLBACK(up ? OnDrawUpArrow : OnDrawDownArrow), nullptr);
      gtk_container_add(GTK_CONTAINER(button), arrow);
      gtk_widget_set_name(
          button, ("control-" + std::to_string(control.def->id) + (up ? "-up" : "-down")).c_str());
      g_signal_connect(button, "clicked", G_CALLBACK(up ? OnUpClicked : OnDownClicked), &control);
      gtk_box_pack_start(GTK_BOX(box), button, TRUE, TRUE, 0);
    }
    return box;
  }

  static gboolean DrawArrow(GtkWidget* area, cairo_t* cr, bool up) {
    const int width = gtk_widget_get_allocated_width(area);
    const int height = gtk_widget_get_allocated_height(area);
    GdkRGBA colour{};
    GtkStyleContext* style = gtk_widget_get_style_context(area);
    gtk_style_context_get_color(style, gtk_style_context_get_state(style), &colour);
    gdk_cairo_set_source_rgba(cr, &colour);
    const double half = std::max(2.0, std::min(width / 2.0 - 1.0, height - 2.0) * 0.8);
    const double cx = width / 2.0;
    const double cy = height / 2.0;
    const double tip = up ? cy - half / 2.0 : cy + half / 2.0;
    const double base = up ? cy + half / 2.0 : cy - half / 2.0;
    cairo_move_to(cr, cx - half, base);
    cairo_line_to(cr, cx + half, base);
    cairo_line_to(cr, cx, tip);
    cairo_close_path(cr);
    cairo_fill(cr);
    return FALSE;
  }
  static gboolean OnDrawUpArrow(GtkWidget* area, cairo_t* cr, gpointer) {
    return DrawArrow(area, cr, true);
  }
  static gboolean OnDrawDownArrow(GtkWidget* area, cairo_t* cr, gpointer) {
    return DrawArrow(area, cr, false);
  }

  // -------------------------------------------------------------------------------------------
  // What the user does. No exception may leave a signal handler of the toolkit.

  template <typename Action>
  void Notify(Action action) {
    if (!Listening()) return;
    try {
      action();
    } catch (...) {
      // The logic's failure ends in the notification that caused it, as it would in a dialog
      // procedure; the dialog stays usable.
    }
  }

  static void OnClicked(GtkWidget* widget, gpointer data) {
    auto* control = static_cast<Control*>(data);
    // Switching radio buttons turns the old one off with a click of its own; only the button
    // turned on is the user's.
    if (control->def->kind == ControlKind::kRadioButton &&
        !gtk_toggle_button_get_active(GTK_TOGGLE_BUTTON(widget))) {
      return;
    }
    ToolkitDialog* dialog = control->owner;
    dialog->Notify([&] { dialog->handler_.OnCommand(*dialog, control->def->id, BN_CLICKED); });
  }

  static void OnRowChosen(GtkComboBox*, gpointer data) {
    auto* control = static_cast<Control*>(data);
    ToolkitDialog* dialog = control->owner;
    dialog->Notify([&] { dialog->handler_.OnCommand(*dialog, control->def->id, CBN_SELCHANGE); });
  }

  static void OnTabSwitched(GtkNotebook*, GtkWidget*, guint, gpointer data) {
    auto* control = static_cast<Control*>(data);
    ToolkitDialog* dialog = control->owner;
    dialog->Notify([&] { dialog->handler_.OnTabChange(*dialog, control->def->id); });
  }

  void Spin(Control& control, int delta) {
    Notify([&] {
      if (handler_.OnUpDown(*this, control.def->id, delta)) return;
      // Unhandled: the arrows step the whole number in the edit they belong to.
      const std::size_t index = static_cast<std::size_t>(&control - controls_.data());
      if (index == 0 || controls_[index - 1].def->kind != ControlKind::kEdit) return;
      GtkEntry* buddy = GTK_ENTRY(controls_[index - 1].widget);
      const long value = std::strtol(gtk_entry_get_text(buddy), nullptr, 10) + delta;
      const Quiet quiet(*this);
      gtk_entry_set_text(buddy, std::to_string(value).c_str());
    });
  }
  static void OnUpClicked(GtkButton*, gpointer data) {
    auto* control = static_cast<Control*>(data);
    control->owner->Spin(*control, +1);
  }
  static void OnDownClicked(GtkButton*, gpointer data) {
    auto* control = static_cast<Control*>(data);
    control->owner->Spin(*control, -1);
  }

  static gboolean OnDeleteEvent(GtkWidget*, GdkEvent*, gpointer data) {
    auto* dialog = static_cast<ToolkitDialog*>(data);
    dialog->Notify([&] { dialog->handler_.OnClose(*dialog); });
    return TRUE;  // the window stays until the logic ends the dialog
  }

  static gboolean OnKeyPress(GtkWidget*, GdkEventKey* event, gpointer data) {
    if (event->keyval != GDK_KEY_Escape) return FALSE;
    // Escape is the dialog's Cancel, whether or not a Cancel button is there.
    auto* dialog = static_cast<ToolkitDialog*>(data);
    dialog->Notify([&] { dialog->handler_.OnCommand(*dialog, kIdCancel, BN_CLICKED); });
    return TRUE;
  }

  static gboolean OnDrawn(GtkWidget*, cairo_t*, gpointer data) {
    ++static_cast<ToolkitDialog*>(data)->draws_;
    return FALSE;
  }

  // -------------------------------------------------------------------------------------------
  // Pictures of the dialog, one per tab

  // Lets the toolkit lay out and paint everything pending, then waits for one more paint.
  void Settle() {
    const long before = draws_;
    gtk_widget_queue_draw(window_);
    const gint64 deadline = g_get_monotonic_time() + 5 * G_USEC_PER_SEC;
    while ((draws_ == before || gtk_events_pending()) && g_get_monotonic_time() < deadline) {
      if (!gtk_events_pending()) g_usleep(2000);
      while (gtk_events_pending()) gtk_main_iteration_do(FALSE);
    }
  }

  bool WriteSnapshot(const std::string& path) {
    const int width = gtk_widget_get_allocated_width(window_);
    const int height = gtk_widget_get_allocated_height(window_);
    if (width <= 0 || height <= 0) return false;
    cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_RGB24, width, height);
    cairo_t* cr = cairo_create(surface);
    gtk_widget_draw(window_, cr);
    cairo_destroy(cr);
    const bool written = cairo_surface_write_to_png(surface, path.c_str()) == CAIRO_STATUS_SUCCESS;
    cairo_surface_destroy(surface);
    return written;
  }

  static std::string ShotName(std::u16string_view text) {
    std::string name;
    for (const char c : Plain(text)) {
      name += c == ' ' ? '-' : static_cast<char>(g_ascii_tolower(c));
    }
    return name;
  }

  void TakeSnapshots(const std::string& folder) {
    Settle();
    const Control* tabs = nullptr;
    for (const Control& control : controls_) {
      if (control.def->kind == ControlKind::kTabControl) {
        tabs = &control;
        break;
      }
    }
    const int count = tabs == nullptr ? 0 : TabCount(tabs->def->id);
    if (count == 0) {
      (void)WriteSnapshot(folder + "/0-dialog.png");
    }
    for (int index = 0; index < count && !ended_; ++index) {
      GtkNotebook* notebook = GTK_NOTEBOOK(tabs->widget);
      if (gtk_notebook_get_current_page(notebook) == index) {
        // Already at the front: the logic hears it as the click that would have chosen it.
        Notify([&] { handler_.OnTabChange(*this, tabs->def->id); });
      } else {
        gtk_notebook_set_current_page(notebook, index);
      }
      Settle();
      GtkWidget* label =
          gtk_notebook_get_tab_label(notebook, gtk_notebook_get_nth_page(notebook, index));
      const std::u16string text = FromUtf8(gtk_label_get_text(GTK_LABEL(label)));
      (void)WriteSnapshot(folder + "/" + std::to_string(index) + "-" + ShotName(text) + ".png");
    }
    if (!ended_) EndDialog(kIdCancel);
  }

  const DialogTemplate& template_;
  DialogHandler& handler_;
  ToolkitDialog* parent_;
  int parentControlId_;
  BaseUnits units_;
  GtkWidget* window_ = nullptr;  // frames only
  GtkWidget* client_ = nullptr;  // GtkFixed of a frame, GtkLayout of a child
  GtkCssProvider* provider_ = nullptr;
  std::vector<Control> controls_;
  std::vector<GtkWidget*> noneRadios_;
  std::vector<std::unique_ptr<ToolkitDialog>> children_;
  DialogRect place_;
  GMainLoop* loop_ = nullptr;
  long draws_ = 0;
  int quiet_ = 0;
  bool dying_ = false;
  bool ended_ = false;
  int result_ = 0;
};

ToolkitDialog* FindDialog(HWND handle) {
  if (handle == nullptr) return nullptr;
  for (ToolkitDialog* dialog : LiveDialogs()) {
    if (dialog->Handle() == handle) return dialog;
  }
  return nullptr;
}

// The filter rows of an open question: pairs of a name and its patterns ("*.exe;*.bat"), ended
// by an empty name.
void AddFilters(GtkFileChooser* chooser, const char16_t* filter, DWORD index) {
  if (filter == nullptr) return;
  DWORD row = 0;
  while (*filter != 0) {
    const std::u16string_view name(filter);
    filter += name.size() + 1;
    const std::u16string_view patterns(filter);
    filter += patterns.size() + 1;
    GtkFileFilter* rowFilter = gtk_file_filter_new();
    gtk_file_filter_set_name(rowFilter, ToUtf8(name).c_str());
    std::size_t at = 0;
    while (at <= patterns.size()) {
      std::size_t end = patterns.find(u';', at);
      if (end == std::u16string_view::npos) end = patterns.size();
      const std::string pattern = ToUtf8(patterns.substr(at, end - at));
      if (!pattern.empty()) gtk_file_filter_add_pattern(rowFilter, pattern.c_str());
      at = end + 1;
    }
    gtk_file_chooser_add_filter(chooser, rowFilter);
    ++row;
    if (row == index || (index == 0 && row == 1)) gtk_file_chooser_set_filter(chooser, rowFilter);
    if (patterns.empty()) break;
  }
}

}  // namespace
}  // namespace mrwl::platform

using mrwl::platform::DialogHandler;
using mrwl::platform::DialogTemplate;
using mrwl::platform::OpenFileNameW;
using mrwl::platform::ToolkitDialog;

extern "C" __attribute__((visibility("default"))) int MrwlGtkDialogsStart() {
  static const int started = gtk_init_check(nullptr, nullptr) ? 1 : 0;
  return started;
}

extern "C" __attribute__((visibility("default"))) int MrwlGtkDialogsRun(const DialogTemplate* frame,
                                                                        DialogHandler* handler,
                                                                        HWND) {
  try {
    // The frame is transient for nothing: the owner, if any, is not a window of this toolkit.
    ToolkitDialog dialog(*frame, *handler, nullptr, 0);
    if (!dialog.Build()) return -1;
    return dialog.RunModal();
  } catch (...) {
    return -1;
  }
}

extern "C" __attribute__((visibility("default"))) int MrwlGtkDialogsAskOpenFile(
    const OpenFileNameW* question, std::u16string* paths) {
  using namespace mrwl::platform;
  ToolkitDialog* owner = FindDialog(question->hwndOwner);
  if (owner == nullptr && !RunningFrames().empty()) owner = RunningFrames().back();
  if (owner == nullptr) return -1;
  try {
    const std::string title = question->lpstrTitle != nullptr && *question->lpstrTitle != 0
                                  ? ToUtf8(question->lpstrTitle)
                                  : std::string("Open");
    GtkWidget* chooser = gtk_file_chooser_dialog_new(
        title.c_str(), owner->Toplevel(), GTK_FILE_CHOOSER_ACTION_OPEN, "_Cancel",
        GTK_RESPONSE_CANCEL, "_Open", GTK_RESPONSE_ACCEPT, nullptr);
    gtk_window_set_modal(GTK_WINDOW(chooser), TRUE);
    GtkFileChooser* files = GTK_FILE_CHOOSER(chooser);
    gtk_file_chooser_set_select_multiple(files, (question->Flags & OFN_ALLOWMULTISELECT) != 0);
    AddFilters(files, question->lpstrFilter, question->nFilterIndex);
    if (question->lpstrInitialDir != nullptr && *question->lpstrInitialDir != 0) {
      gtk_file_chooser_set_current_folder(files, ToUtf8(question->lpstrInitialDir).c_str());
    }
    if (question->lpstrFile != nullptr && question->lpstrFile[0] == u'/') {
      (void)gtk_file_chooser_set_filename(files, ToUtf8(question->lpstrFile).c_str());
    }
    const int response = gtk_dialog_run(GTK_DIALOG(chooser));
    paths->clear();
    if (response == GTK_RESPONSE_ACCEPT) {
      GSList* names = gtk_file_chooser_get_filenames(files);
      for (GSList* name = names; name != nullptr; name = name->next) {
        if (!paths->empty()) *paths += u'\0';
        *paths += FromUtf8(static_cast<const char*>(name->data));
      }
      g_slist_free_full(names, g_free);
    }
    gtk_widget_destroy(chooser);
    return paths->empty() ? 0 : 1;
  } catch (...) {
    return 0;
  }
}
