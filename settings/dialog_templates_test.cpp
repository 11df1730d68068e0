#include "settings/dialog_templates.h"

#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/wide_string.h"

namespace mrwl {
namespace {

using platform::ControlKind;
using platform::DialogControl;
using platform::DialogTemplate;

// The control with `id`, or for id -1 (labels and group boxes) the one of `kind` showing `text`.
const DialogControl* FindControl(const DialogTemplate& dialog, int id, ControlKind kind = {},
                                 std::u16string_view text = {}) {
  for (const DialogControl& control : dialog.controls) {
    if (control.id == id && (id != -1 || (control.kind == kind && control.text == text))) {
      return &control;
    }
  }
  return nullptr;
}

struct Box {
  int left, top, right, bottom;
};
Box BoxOf(const DialogControl& c) { return {c.x, c.y, c.x + c.cx, c.y + c.cy}; }
bool Intersects(const Box& a, const Box& b) {
  return a.left < b.right && b.left < a.right && a.top < b.bottom && b.top < a.bottom;
}
bool Contains(const Box& outer, const Box& inner) {
  return outer.left <= inner.left && inner.right <= outer.right && outer.top <= inner.top &&
         inner.bottom <= outer.bottom;
}

TEST(DialogTemplates, SevenDialogsWithTheirSizesFontAndTitle) {
  const struct {
    int id;
    short cx, cy;
    bool child;
  } rows[] = {{201, 311, 243, false}, {202, 316, 180, true}, {215, 310, 219, true},
              {217, 201, 51, true},   {219, 273, 69, true},  {207, 316, 180, true},
              {103, 310, 176, true}};
  ASSERT_EQ(AllDialogTemplates().size(), 7u);
  for (std::size_t i = 0; i < std::size(rows); ++i) {
    SCOPED_TRACE(rows[i].id);
    const DialogTemplate* dialog = FindDialogTemplate(rows[i].id);
    ASSERT_EQ(AllDialogTemplates()[i], dialog);
    EXPECT_EQ(std::tuple(dialog->cx, dialog->cy, dialog->child),
              std::tuple(rows[i].cx, rows[i].cy, rows[i].child));
    EXPECT_EQ(dialog->font, u"MS Shell Dlg");
    EXPECT_EQ(dialog->pointSize, 8);
  }
  EXPECT_EQ(FindDialogTemplate(201)->title, u"Marrowline Options");
  EXPECT_EQ(FindDialogTemplate(216), nullptr);
}

TEST(DialogTemplates, EveryControlThePagesUseHasItsKindAndText) {
  using K = ControlKind;
  // Controls without text are left to the pages' tests, which reach them by id and kind; the
  // frame's buttons to its resource script below.
  const struct {
    int dialog;
    ControlKind kind;
    int id;
    std::u16string_view text;
  } controls[] = {
      {202, K::kRadioButton, 1008, u"Portrait"},
      {202, K::kRadioButton, 1009, u"Landscape"},
      {215, K::kCheckBox, 206, u"Use PDF security"},
      {215, K::kCheckBox, 285, u"Password Required to Open the Document"},
      {215, K::kCheckBox, 286, u"Password Required to Change Permissions and/or Passwords"},
      {215, K::kPlaceholder, 291, u"SubPlaceHolder"},
      {217, K::kCheckBox, 206, u"Allow Printing"},
      {217, K::kCheckBox, 293, u"Allow Changing the Document"},
      {217, K::kCheckBox, 294, u"Allow  Content Copying or Extraction. Enable Accessibility"},
      {217, K::kCheckBox, 295, u"Allow Adding or Changing Comments and Form Fields"},
      {219, K::kCheckBox, 292, u"Enable Content Access for the Visually Impaired"},
      {219, K::kCheckBox, 206, u"Allow Content Copying and Extraction"},
      {219, K::kCheckBox, 296, u"Encrypt Document Metadata (Acrobat 6.0 and later compatible)"},
      {207, K::kCheckBox, 206, u"Convert attachments"},
      {207, K::kPlaceholder, 291, u"SubPlaceHolder"},
      {103, K::kCheckBox, 206, u"Run Application After conversion"},
      {103, K::kRadioButton, 207, u"Default Application for PDF files"},
      {103, K::kRadioButton, 208, u"Application:"},
      {103, K::kPushButton, 211, u"Browse"},
  };
  for (const auto& row : controls) {
    SCOPED_TRACE(testing::Message() << row.dialog << "/" << row.id);
    const DialogControl* control = FindControl(*FindDialogTemplate(row.dialog), row.id);
    ASSERT_NE(control, nullptr);
    EXPECT_EQ(control->kind, row.kind);
    EXPECT_EQ(control->text, row.text);
  }
  const struct {
    int dialog;
    ControlKind kind;
    std::vector<std::u16string_view> texts;
  } labels[] = {
      {202, K::kGroupBox, {u"Page size", u"Margins"}},
      {202, K::kLabel, {u"Width:", u"Height:", u"Top:", u"Left:", u"Bottom:", u"Right:"}},
      {215, K::kGroupBox, {u"Document Passwords", u"Document Permissions"}},
      {215, K::kLabel, {u"Password:", u"Encryption Level:"}},
      {219, K::kLabel, {u"Changes Allowed:", u"Printing the Document:"}},
      {103, K::kGroupBox, {u"Compression", u"Run Options"}},
      {103, K::kLabel, {u"Web page target width:", u"Compression level:", u"Parameters:"}},
  };
  for (const auto& row : labels) {
    for (const std::u16string_view text : row.texts) {
      SCOPED_TRACE(testing::Message() << row.dialog << " " << WideToUtf8(text));
      EXPECT_NE(FindControl(*FindDialogTemplate(row.dialog), -1, row.kind, text), nullptr);
    }
  }
}

TEST(DialogTemplates, ControlsStayInsideAndNeverOverlapButForTheirGroupBox) {
  for (const DialogTemplate* dialog : AllDialogTemplates()) {
    const auto& controls = dialog->controls;
    for (std::size_t i = 0; i < controls.size(); ++i) {
      SCOPED_TRACE(testing::Message() << dialog->id << " #" << i << " id " << controls[i].id);
      EXPECT_TRUE(Contains({0, 0, dialog->cx, dialog->cy}, BoxOf(controls[i])));
      for (std::size_t j = i + 1; j < controls.size(); ++j) {
        SCOPED_TRACE(testing::Message() << "against #" << j << " id " << controls[j].id);
        const Box a = BoxOf(controls[i]);
        const Box b = BoxOf(controls[j]);
        const bool aGroup = controls[i].kind == ControlKind::kGroupBox;
        if (aGroup != (controls[j].kind == ControlKind::kGroupBox)) {
          // A control is wholly inside a group box or wholly outside it.
          EXPECT_TRUE(aGroup ? Contains(a, b) || !Intersects(a, b)
                             : Contains(b, a) || !Intersects(a, b));
        } else {
          EXPECT_FALSE(Intersects(a, b));
        }
      }
    }
  }
}

TEST(DialogTemplates, EachUpDownSitsRightOfTheEditBeforeIt) {
  // The Windows build makes the preceding control the up-down's buddy, so order matters as much
  // as place.
  int upDowns = 0;
  for (const DialogTemplate* dialog : AllDialogTemplates()) {
    for (std::size_t i = 0; i < dialog->controls.size(); ++i) {
      const DialogControl& spin = dialog->controls[i];
      if (spin.kind != ControlKind::kUpDown) continue;
      ++upDowns;
      SCOPED_TRACE(spin.id);
      ASSERT_GT(i, 0u);
      const DialogControl& edit = dialog->controls[i - 1];
      EXPECT_EQ(edit.kind, ControlKind::kEdit);
      EXPECT_EQ(std::tuple(edit.x + edit.cx, edit.y, edit.cy, spin.cy),
                std::tuple(spin.x, spin.y, 12, 12));
    }
  }
  EXPECT_EQ(upDowns, 7);
}

TEST(DialogTemplates, RadioGroupsStartAtTheirFirstButton) {
  for (const auto& [dialogId, first, second] :
       {std::tuple{202, 1008, 1009}, std::tuple{103, 207, 208}}) {
    SCOPED_TRACE(dialogId);
    const DialogTemplate& dialog = *FindDialogTemplate(dialogId);
    const DialogControl* a = FindControl(dialog, first);
    const DialogControl* b = FindControl(dialog, second);
    ASSERT_EQ(b, a + 1);
    EXPECT_TRUE(a->group);
    EXPECT_FALSE(b->group);
    const bool lastInDialog = b + 1 == dialog.controls.data() + dialog.controls.size();
    EXPECT_TRUE(lastInDialog || b[1].kind != ControlKind::kRadioButton || b[1].group);
  }
}

TEST(DialogTemplates, ResourceScriptOfTheFrame) {
  WideString script(u"// before\n");
  WriteResourceScript(*FindDialogTemplate(201), script);
  EXPECT_EQ(WideToUtf8(script.view()),
            "// before\n"
            "201 DIALOGEX 0, 0, 311, 243\n"
            "STYLE DS_SETFONT | DS_FIXEDSYS | WS_POPUP | WS_CAPTION | WS_SYSMENU | "
            "DS_MODALFRAME\n"
            "CAPTION \"Marrowline Options\"\n"
            "FONT 8, \"MS Shell Dlg\"\n"
            "BEGIN\n"
            "    CONTROL \"\", 1002, \"SysTabControl32\", WS_TABSTOP, 6, 6, 300, 210\n"
            "    PUSHBUTTON \"Reset\", 3, 138, 222, 50, 14\n"
            "    DEFPUSHBUTTON \"OK\", 1, 196, 222, 50, 14\n"
            "    PUSHBUTTON \"Cancel\", 2, 254, 222, 50, 14\n"
            "END\n");
}

TEST(DialogTemplates, ResourceScriptStatementsOfEachKind) {
  using K = ControlKind;
  const DialogControl controls[] = {
      {7, K::kRadioButton, u"Say \"yes\"", 1, 2, 3, 4, true},
      {8, K::kRadioButton, u"No", 1, 6, 3, 4},
      {-1, K::kLabel, u"Name:", 1, 10, 20, 8},
      {9, K::kPasswordEdit, u"", 22, 10, 40, 12},
      {10, K::kUpDown, u"", 62, 10, 11, 12},
      {11, K::kDropDownList, u"", 1, 24, 60, 12},
      {12, K::kCheckBox, u"Check", 1, 40, 60, 10},
  };
  WideString script;
  WriteResourceScript({5, u"", u"MS Shell Dlg", 8, 80, 60, true, controls}, script);
  EXPECT_EQ(WideToUtf8(script.view()),
            "5 DIALOGEX 0, 0, 80, 60\n"
            "STYLE DS_SETFONT | DS_FIXEDSYS | DS_CONTROL | WS_CHILD\n"
            "FONT 8, \"MS Shell Dlg\"\n"
            "BEGIN\n"
            "    AUTORADIOBUTTON \"Say \"\"yes\"\"\", 7, 1, 2, 3, 4, WS_GROUP | WS_TABSTOP\n"
            "    AUTORADIOBUTTON \"No\", 8, 1, 6, 3, 4\n"
            "    LTEXT \"Name:\", -1, 1, 10, 20, 8\n"
            "    EDITTEXT 9, 22, 10, 40, 12, ES_PASSWORD | ES_AUTOHSCROLL\n"
            "    CONTROL \"\", 10, \"msctls_updown32\", UDS_AUTOBUDDY | UDS_ARROWKEYS, 62, 10, 11, "
            "12\n"
            "    COMBOBOX 11, 1, 24, 60, 100, CBS_DROPDOWNLIST | WS_VSCROLL | WS_TABSTOP\n"
            "    AUTOCHECKBOX \"Check\", 12, 1, 40, 60, 10\n"
            "END\n");
}

}  // namespace
}  // namespace mrwl
