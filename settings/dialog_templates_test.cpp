#include "settings/dialog_templates.h"

#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "foundation/wide_string.h"

namespace mrwl {
namespace {

using platform::ControlKind;
using platform::DialogControl;
using platform::DialogTemplate;

const DialogControl* FindControl(const DialogTemplate& dialog, int id) {
  for (const DialogControl& control : dialog.controls) {
    if (control.id == id) return &control;
  }
  return nullptr;
}

bool HasLabel(const DialogTemplate& dialog, ControlKind kind, std::u16string_view text) {
  for (const DialogControl& control : dialog.controls) {
    if (control.id == -1 && control.kind == kind && control.text == text) return true;
  }
  return false;
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
  struct Row {
    int id;
    short cx, cy;
    bool child;
  };
  const Row rows[] = {{201, 311, 243, false}, {202, 316, 180, true}, {215, 310, 219, true},
                      {217, 201, 51, true},   {219, 273, 69, true},  {207, 316, 180, true},
                      {103, 310, 176, true}};
  ASSERT_EQ(AllDialogTemplates().size(), 7u);
  for (std::size_t i = 0; i < std::size(rows); ++i) {
    SCOPED_TRACE(rows[i].id);
    const DialogTemplate* dialog = FindDialogTemplate(rows[i].id);
    ASSERT_NE(dialog, nullptr);
    EXPECT_EQ(AllDialogTemplates()[i], dialog);
    EXPECT_EQ(dialog->cx, rows[i].cx);
    EXPECT_EQ(dialog->cy, rows[i].cy);
    EXPECT_EQ(dialog->child, rows[i].child);
    EXPECT_EQ(dialog->font, u"MS Shell Dlg");
    EXPECT_EQ(dialog->pointSize, 8);
  }
  EXPECT_EQ(FindDialogTemplate(201)->title, u"Marrowline Options");
  EXPECT_EQ(FindDialogTemplate(216), nullptr);
}

TEST(DialogTemplates, EveryIdThePagesUseHasItsKindAndText) {
  struct Row {
    int dialog, id;
    ControlKind kind;
    std::u16string_view text;
  };
  using K = ControlKind;
  const Row rows[] = {
      {201, 1, K::kDefaultPushButton, u"OK"},
      {201, 2, K::kPushButton, u"Cancel"},
      {201, 3, K::kPushButton, u"Reset"},
      {201, 1002, K::kTabControl, u""},
      {202, 1029, K::kDropDownList, u""},
      {202, 1028, K::kDropDownList, u""},
      {202, 1003, K::kEdit, u""},
      {202, 1004, K::kUpDown, u""},
      {202, 1005, K::kEdit, u""},
      {202, 1007, K::kUpDown, u""},
      {202, 1008, K::kRadioButton, u"Portrait"},
      {202, 1009, K::kRadioButton, u"Landscape"},
      {202, 1010, K::kEdit, u""},
      {202, 1011, K::kUpDown, u""},
      {202, 1012, K::kEdit, u""},
      {202, 1013, K::kUpDown, u""},
      {202, 1014, K::kEdit, u""},
      {202, 1015, K::kUpDown, u""},
      {202, 1016, K::kEdit, u""},
      {202, 1017, K::kUpDown, u""},
      {215, 206, K::kCheckBox, u"Use PDF security"},
      {215, 285, K::kCheckBox, u"Password Required to Open the Document"},
      {215, 286, K::kCheckBox, u"Password Required to Change Permissions and/or Passwords"},
      {215, 287, K::kPasswordEdit, u""},
      {215, 288, K::kPasswordEdit, u""},
      {215, 290, K::kDropDownList, u""},
      {215, 291, K::kPlaceholder, u"SubPlaceHolder"},
      {217, 206, K::kCheckBox, u"Allow Printing"},
      {217, 293, K::kCheckBox, u"Allow Changing the Document"},
      {217, 294, K::kCheckBox, u"Allow  Content Copying or Extraction. Enable Accessibility"},
      {217, 295, K::kCheckBox, u"Allow Adding or Changing Comments and Form Fields"},
      {219, 292, K::kCheckBox, u"Enable Content Access for the Visually Impaired"},
      {219, 206, K::kCheckBox, u"Allow Content Copying and Extraction"},
      {219, 297, K::kDropDownList, u""},
      {219, 298, K::kDropDownList, u""},
      {219, 296, K::kCheckBox, u"Encrypt Document Metadata (Acrobat 6.0 and later compatible)"},
      {207, 206, K::kCheckBox, u"Convert attachments"},
      {207, 291, K::kPlaceholder, u"SubPlaceHolder"},
      {103, 1020, K::kEdit, u""},
      {103, 1025, K::kUpDown, u""},
      {103, 1031, K::kDropDownList, u""},
      {103, 1030, K::kDropDownList, u""},
      {103, 206, K::kCheckBox, u"Run Application After conversion"},
      {103, 207, K::kRadioButton, u"Default Application for PDF files"},
      {103, 208, K::kRadioButton, u"Application:"},
      {103, 209, K::kEdit, u""},
      {103, 210, K::kEdit, u""},
      {103, 211, K::kPushButton, u"Browse"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << row.dialog << "/" << row.id);
    const DialogControl* control = FindControl(*FindDialogTemplate(row.dialog), row.id);
    ASSERT_NE(control, nullptr);
    EXPECT_EQ(control->kind, row.kind);
    EXPECT_EQ(control->text, row.text);
  }
  const DialogTemplate& advanced = *FindDialogTemplate(207);
  EXPECT_EQ(FindControl(advanced, 206)->x, 6);
  EXPECT_EQ(FindControl(advanced, 206)->y, 6);
  EXPECT_EQ(FindControl(advanced, 291)->x, 6);
  EXPECT_EQ(FindControl(advanced, 291)->y, 18);
}

TEST(DialogTemplates, LabelsAndGroupBoxesStandInTheirDialogs) {
  struct Row {
    int dialog;
    ControlKind kind;
    std::u16string_view text;
  };
  using K = ControlKind;
  const Row rows[] = {
      {202, K::kGroupBox, u"Page size"},
      {202, K::kGroupBox, u"Margins"},
      {202, K::kLabel, u"Width:"},
      {202, K::kLabel, u"Height:"},
      {202, K::kLabel, u"Top:"},
      {202, K::kLabel, u"Left:"},
      {202, K::kLabel, u"Bottom:"},
      {202, K::kLabel, u"Right:"},
      {215, K::kGroupBox, u"Document Passwords"},
      {215, K::kGroupBox, u"Document Permissions"},
      {215, K::kLabel, u"Password:"},
      {215, K::kLabel, u"Encryption Level:"},
      {219, K::kLabel, u"Changes Allowed:"},
      {219, K::kLabel, u"Printing the Document:"},
      {103, K::kGroupBox, u"PDF Specification"},
      {103, K::kGroupBox, u"Compression"},
      {103, K::kGroupBox, u"Run Options"},
      {103, K::kLabel, u"Web page target width:"},
      {103, K::kLabel, u"Compression level:"},
      {103, K::kLabel, u"Conform to Specification:"},
      {103, K::kLabel, u"Parameters:"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << row.dialog << " " << WideToUtf8(row.text));
    EXPECT_TRUE(HasLabel(*FindDialogTemplate(row.dialog), row.kind, row.text));
  }
}

TEST(DialogTemplates, ControlsStayInsideAndNeverOverlapButForTheirGroupBox) {
  for (const DialogTemplate* dialog : AllDialogTemplates()) {
    const Box whole{0, 0, dialog->cx, dialog->cy};
    for (std::size_t i = 0; i < dialog->controls.size(); ++i) {
      const DialogControl& a = dialog->controls[i];
      SCOPED_TRACE(testing::Message() << dialog->id << " control #" << i << " id " << a.id);
      EXPECT_TRUE(Contains(whole, BoxOf(a)));
      for (std::size_t j = i + 1; j < dialog->controls.size(); ++j) {
        const DialogControl& b = dialog->controls[j];
        SCOPED_TRACE(testing::Message() << "against #" << j << " id " << b.id);
        const bool aGroup = a.kind == ControlKind::kGroupBox;
        const bool bGroup = b.kind == ControlKind::kGroupBox;
        if (aGroup != bGroup) {
          // A control is wholly inside a group box or wholly outside it.
          const Box group = aGroup ? BoxOf(a) : BoxOf(b);
          const Box other = aGroup ? BoxOf(b) : BoxOf(a);
          EXPECT_TRUE(Contains(group, other) || !Intersects(group, other));
        } else {
          EXPECT_FALSE(Intersects(BoxOf(a), BoxOf(b)));
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
      EXPECT_EQ(edit.x + edit.cx, spin.x);
      EXPECT_EQ(edit.y, spin.y);
      EXPECT_EQ(edit.cy, 12);
      EXPECT_EQ(spin.cy, 12);
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
  const DialogTemplate page{5, u"", u"MS Shell Dlg", 8, 80, 60, true, controls};
  WideString script;
  WriteResourceScript(page, script);
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
