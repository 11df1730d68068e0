#include "settings/spin_edit.h"

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "foundation/wide_string.h"
#include "settings/headless_dialog.h"

namespace mrwl {
namespace {

using platform::ControlKind;
using platform::DialogControl;
using platform::DialogTemplate;

constexpr DialogControl kControls[] = {{10, ControlKind::kEdit, u"", 7, 7, 50, 12},
                                       {11, ControlKind::kUpDown, u"", 57, 7, 11, 12}};
constexpr DialogTemplate kPage{1, u"", u"MS Shell Dlg", 8, 80, 30, true, kControls};

class NoHandler final : public platform::DialogHandler {
 public:
  void OnInit(platform::DialogWindow&) override {}
};

// A spin edit on a real (window-less) edit, set up as a length in thousandths of a point.
class SpinEditTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dialog_.Open();
    spin_.Attach(dialog_, 10, 11);
  }
  void SetUpSpin(std::int32_t value, std::int32_t numerator, std::int32_t denominator,
                 std::int32_t decimals) {
    spin_.Setup(0, 10000000, value, numerator, denominator, decimals);
  }
  std::string Shown() const { return WideToUtf8(dialog_.GetText(10)); }
  std::int32_t ReadAfterTyping(std::u16string_view text) {
    dialog_.Type(10, text);
    spin_.Sync(false);
    return spin_.value;
  }

  NoHandler handler_;
  HeadlessDialog dialog_{kPage, handler_};
  SpinEdit spin_;
};

TEST_F(SpinEditTest, WritesTheValueThroughItsRatio) {
  // The last: the fraction of 0.9996 inches rounds to 1000, which prints as ".1000" and strips
  // to ".1": kept as the edit has always shown it.
  const struct {
    std::int32_t value, numerator, denominator, decimals;
    const char* text;
  } cases[] = {{595300, 1, 1000, 1, "595.3"},
               {595000, 1, 72000, 3, "8.264"},
               {595000, 1000, 2833000, 1, "210.0"},
               {72000, 1, 72000, 3, "1.0"},
               {12346, 1, 1000, 1, "12.3"},
               {1280, 1, 1, 1, "1280.0"},
               {5, 1, 1000, 1, "0.0"},
               {50, 1, 1000, 3, "0.05"},
               {10, 1, 10, 1, "1.0"},
               {7, 1, 1, 0, "7.0"},
               {71972, 1, 72000, 3, "0.1"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    SetUpSpin(c.value, c.numerator, c.denominator, c.decimals);
    EXPECT_EQ(Shown(), c.text);
    EXPECT_EQ(spin_.lastText, c.text);
  }
}

TEST_F(SpinEditTest, ReadsTypedTextOrKeepsTheValue) {
  // Starting from 7 points each time.
  const struct {
    const char16_t* typed;
    std::int32_t value;
  } cases[] = {{u"12.34567", 12346}, {u"  +4", 4000}, {u"2.5x", 2500},      {u"1.", 1000},
               {u".5", 7000},        {u"abc", 7000},  {u"- 3", 7000},       {u"", 0},
               {u"-3", 0},           {u"0.0004", 0},  {u"99999", 10000000}, {u"0.0006", 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(WideToUtf8(c.typed));
    SetUpSpin(7000, 1, 1000, 1);
    EXPECT_EQ(ReadAfterTyping(c.typed), c.value);
  }
  // Ignored text still honours the limits.
  spin_.Setup(0, 100, 50, 1, 1, 1);
  spin_.minimum = 60;
  EXPECT_EQ(ReadAfterTyping(u"x"), 60);
}

TEST_F(SpinEditTest, UntouchedTextKeepsTheExactValueAcrossUnits) {
  SetUpSpin(595000, 1, 1000, 1);
  spin_.SetRatio(1, 72000, 3);
  EXPECT_EQ(Shown(), "8.264");
  EXPECT_EQ(spin_.power, 1000);
  spin_.SetRatio(1, 1000, 1);
  EXPECT_EQ(Shown(), "595.0");
  EXPECT_EQ(spin_.value, 595000);
  // Typing the very text shown is no change either.
  dialog_.Type(10, u"595.0");
  spin_.SetRatio(1, 72000, 3);
  EXPECT_EQ(spin_.value, 595000);
}

TEST_F(SpinEditTest, UpDownStepsOneUnitFromTheTypedTextAndEverySetterClamps) {
  SetUpSpin(595000, 1000, 2833000, 1);
  EXPECT_TRUE(spin_.OnDeltaPos(1));
  EXPECT_EQ(spin_.value, 597833);
  EXPECT_EQ(Shown(), "211.0");
  dialog_.Type(10, u"10");
  spin_.OnDeltaPos(-1);
  EXPECT_EQ(spin_.value, 28330 - 2833);
  spin_.SetValue(1000);
  spin_.OnDeltaPos(-1);
  EXPECT_EQ(spin_.value, 0);
  EXPECT_EQ(Shown(), "0.0");

  spin_.Setup(5, 100, 1000, 1, 1, 1);
  EXPECT_EQ(spin_.value, 100);
  spin_.SetValue(-4);
  EXPECT_EQ(spin_.value, 5);
  EXPECT_EQ(Shown(), "5.0");
}

}  // namespace
}  // namespace mrwl
