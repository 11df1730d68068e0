#include "settings/headless_dialog.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace mrwl {
namespace {

using platform::ControlKind;
using platform::DialogControl;
using platform::DialogRect;
using platform::DialogTemplate;
using K = ControlKind;

constexpr DialogControl kChildControls[] = {
    {40, K::kCheckBox, u"Inner", 2, 2, 40, 10},
};
constexpr DialogTemplate kChild{9, u"", u"MS Shell Dlg", 8, 60, 20, true, kChildControls};

constexpr DialogControl kFrameControls[] = {
    {11, K::kRadioButton, u"One", 7, 7, 50, 10, true},
    {12, K::kRadioButton, u"Two", 7, 21, 50, 10},
    {13, K::kRadioButton, u"Three", 7, 35, 50, 10},
    {14, K::kCheckBox, u"Tick", 7, 49, 50, 10},
    {15, K::kRadioButton, u"Four", 7, 63, 50, 10},
    {16, K::kRadioButton, u"Five", 7, 77, 50, 10, true},
    {20, K::kDropDownList, u"", 70, 7, 60, 12},
    {21, K::kEdit, u"start", 70, 21, 50, 12},
    {22, K::kUpDown, u"", 120, 21, 11, 12},
    {30, K::kTabControl, u"", 70, 40, 100, 60},
    {1, K::kDefaultPushButton, u"OK", 130, 110, 50, 14},
};
constexpr DialogTemplate kFrame{8, u"Test", u"MS Shell Dlg", 8, 200, 130, false, kFrameControls};

// Writes down what it hears; OK ends the dialog with 1, and the child is made at init.
class Recorder final : public platform::DialogHandler {
 public:
  void OnInit(platform::DialogWindow& window) override {
    heard.push_back("init " + std::to_string(window.Template().id));
    if (window.Template().id == kFrame.id) {
      child = window.CreateChild(kChild, *this, 30);
      heard.push_back(child != nullptr ? "child made" : "no child");
    }
  }
  void OnCommand(platform::DialogWindow& window, int id, int code) override {
    heard.push_back("command " + std::to_string(id) + "/" + std::to_string(code));
    if (id == 1) window.EndDialog(1);
  }
  bool OnUpDown(platform::DialogWindow&, int upDownId, int delta) override {
    heard.push_back("updown " + std::to_string(upDownId) + " " + std::to_string(delta));
    return true;
  }
  void OnTabChange(platform::DialogWindow& window, int id) override {
    heard.push_back("tab " + std::to_string(window.SelectedTab(id)));
  }

  platform::DialogWindow* child = nullptr;
  std::vector<std::string> heard;
};

class HeadlessDialogTest : public ::testing::Test {
 protected:
  void SetUp() override { dialog_.Open(); }
  std::vector<bool> Checks(std::initializer_list<int> ids) {
    std::vector<bool> states;
    for (const int id : ids) states.push_back(dialog_.IsChecked(id));
    return states;
  }
  std::string LastHeard() { return handler_.heard.empty() ? "" : handler_.heard.back(); }

  Recorder handler_;
  HeadlessDialog dialog_{kFrame, handler_};
};

TEST_F(HeadlessDialogTest, ChildIsInitialisedInsideCreateAndStartsHiddenAtItsSize) {
  EXPECT_EQ(handler_.heard, (std::vector<std::string>{"init 8", "init 9", "child made"}));
  HeadlessDialog* child = dialog_.FindChild(9);
  ASSERT_EQ(child, handler_.child);
  EXPECT_FALSE(child->IsWindowVisible());
  EXPECT_EQ(child->Place(), (DialogRect{0, 0, 90, 32}));
  EXPECT_TRUE(dialog_.IsWindowVisible());
  EXPECT_EQ(dialog_.CreateChild(kChild, handler_, 77), nullptr);
}

TEST_F(HeadlessDialogTest, RadioClickClearsOnlyItsOwnGroup) {
  dialog_.SetChecked(11, true);
  dialog_.SetChecked(15, true);
  dialog_.SetChecked(16, true);
  dialog_.Click(12);
  EXPECT_EQ(Checks({11, 12, 13, 15, 16}), (std::vector<bool>{false, true, false, true, true}));
  EXPECT_EQ(LastHeard(), "command 12/0");
  // The check box ends the first group, so "Four" stands alone before "Five" starts a new one.
  dialog_.Click(15);
  EXPECT_EQ(Checks({12, 15, 16}), (std::vector<bool>{true, true, true}));
  dialog_.Click(16);
  EXPECT_EQ(Checks({12, 15, 16}), (std::vector<bool>{true, true, true}));
}

TEST_F(HeadlessDialogTest, ClicksOnDisabledOrHiddenControlsDoNothing) {
  dialog_.Click(14);
  EXPECT_TRUE(dialog_.IsChecked(14));
  dialog_.Enable(14, false);
  dialog_.Click(14);
  dialog_.Enable(14, true);
  dialog_.Show(14, false);
  dialog_.Click(14);
  EXPECT_TRUE(dialog_.IsChecked(14));
  dialog_.Enable(21, false);
  dialog_.Type(21, u"typed");
  EXPECT_EQ(dialog_.GetText(21), u"start");
  EXPECT_EQ(LastHeard(), "command 14/0");

  HeadlessDialog* child = dialog_.FindChild(9);
  child->Click(40);
  EXPECT_FALSE(child->IsChecked(40));
  child->ShowWindow(true);
  child->Click(40);
  EXPECT_TRUE(child->IsChecked(40));
}

TEST_F(HeadlessDialogTest, ListsSelectRowsThatExistAndNotifyOnlyOnChoice) {
  EXPECT_EQ(dialog_.AddRow(20, u"alpha"), 0);
  EXPECT_EQ(dialog_.AddRow(20, u"beta"), 1);
  EXPECT_EQ(dialog_.AddRow(21, u"not a list"), -1);
  dialog_.Select(20, 1);
  EXPECT_EQ(dialog_.GetText(20), u"beta");
  EXPECT_EQ(LastHeard(), "child made");
  dialog_.Select(20, 2);
  EXPECT_EQ(dialog_.Selection(20), -1);
  dialog_.Choose(20, 5);
  EXPECT_EQ(LastHeard(), "child made");
  dialog_.Choose(20, 0);
  EXPECT_EQ(dialog_.Selection(20), 0);
  EXPECT_EQ(LastHeard(), "command 20/1");
  dialog_.ClearRows(20);
  EXPECT_EQ(dialog_.RowCount(20), 0);
  EXPECT_EQ(dialog_.Selection(20), -1);
}

TEST_F(HeadlessDialogTest, TabsInsertAtIndexAndKeepTheSelectedOne) {
  dialog_.InsertTab(30, 0, u"B");
  EXPECT_EQ(dialog_.SelectedTab(30), 0);
  dialog_.InsertTab(30, 0, u"A");
  dialog_.InsertTab(30, 9, u"C");
  EXPECT_EQ(dialog_.TabTexts(30), (std::vector<std::u16string>{u"A", u"B", u"C"}));
  EXPECT_EQ(dialog_.SelectedTab(30), 1);
  dialog_.ChooseTab(30, 2);
  EXPECT_EQ(LastHeard(), "tab 2");
  dialog_.SelectTab(30, 3);
  EXPECT_EQ(dialog_.SelectedTab(30), 2);
  // 100 by 60 units are 150 by 97 pixels.
  EXPECT_EQ(dialog_.TabDisplayArea(30), (DialogRect{2, 22, 148, 95}));
}

TEST_F(HeadlessDialogTest, RectanglesSpinsAndMessages) {
  EXPECT_EQ(dialog_.ControlRect(21), (DialogRect{105, 34, 180, 53}));
  EXPECT_EQ(dialog_.ControlRect(99), DialogRect{});
  EXPECT_EQ(dialog_.TemplateSize(), (DialogRect{0, 0, 300, 211}));
  // A spin answers what the handler answered; an id that is no up-down reaches no handler.
  EXPECT_TRUE(dialog_.Spin(22, -1));
  EXPECT_EQ(LastHeard(), "updown 22 -1");
  EXPECT_FALSE(dialog_.Spin(21, 1));
  // Messages of children collect at the root.
  EXPECT_EQ(handler_.child->ShowMessage(u"inner text", u"", 0), 1);
  EXPECT_EQ(dialog_.ShowMessage(u"outer", u"Caption", 4), 6);
  EXPECT_EQ(dialog_.Messages(), (std::vector<std::u16string>{u"|inner text", u"Caption|outer"}));
}

TEST_F(HeadlessDialogTest, EndedDialogIgnoresTheUser) {
  dialog_.Click(1);
  EXPECT_TRUE(dialog_.Ended());
  EXPECT_EQ(dialog_.Result(), 1);
  dialog_.Click(14);
  EXPECT_FALSE(dialog_.IsChecked(14));
}

TEST_F(HeadlessDialogTest, CloseBoxActsAsCancel) {
  dialog_.Close();
  EXPECT_TRUE(dialog_.Ended());
  EXPECT_EQ(dialog_.Result(), 2);
}

}  // namespace
}  // namespace mrwl
