#include "conversion/output_naming.h"

#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "platform/utf.h"
#include "testing/test_outlook.h"

namespace mrwl {
namespace {

using testing::OutlookFaults;

std::string Utf8(std::u16string_view text) { return platform::Utf16ToUtf8(text); }

std::u16string Sanitized(std::u16string_view text) {
  WideString result;
  SanitizeFileName(text.data(), text.size(), result);
  return std::u16string(result.view());
}

TEST(SanitizeFileName, DropsTheFourteenUnitsAndKeepsBlanks) {
  struct Case {
    std::u16string text;
    std::u16string name;
  };
  const Case cases[] = {
      {u"Re: Q3-report [final].doc", u"Re Q3report finaldoc"},
      {u"Re: Q3 report", u"Re Q3 report"},
      {u"|\\?*<\":>+[]/-.", u""},
      {u"  a+b=c  ", u"  ab=c  "},
      {u"50% off! (today) #1 & 'more' ~ok_", u"50% off! (today) #1 & 'more' ~ok_"},
      {u"Grüße, 東京", u"Grüße, 東京"},
      {u"", u""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(Utf8(c.text));
    EXPECT_EQ(c.name, Sanitized(c.text));
  }
}

TEST(SanitizeFileName, LooksAtTheFirst256UnitsOfTheText) {
  std::u16string text(300, u'x');
  EXPECT_EQ(256u, Sanitized(text).size());
  text[280] = u':';  // behind the limit: changes nothing
  EXPECT_EQ(256u, Sanitized(text).size());
  for (std::size_t i = 0; i < 10; ++i) text[i * 20] = u'-';
  EXPECT_EQ(246u, Sanitized(text).size());

  // Only `length` units are read, whatever stands behind them.
  WideString result;
  SanitizeFileName(u"abc:def", 4, result);
  EXPECT_EQ("abc", Utf8(result));
}

TEST(GetUserAndFolder, TakesTheSmtpOrRecipientAddressAndTheFolderAsItStands) {
  using World = testing::ExplorerWorld;
  const auto session = [](World& w) -> testing::TestNameSpace& {
    return *static_cast<testing::TestNameSpace*>(w.application->session.get());
  };
  const auto user = [session](World& w) -> testing::TestRecipient& {
    return *static_cast<testing::TestRecipient*>(session(w).currentUser.get());
  };
  // An address entry, with an Exchange user of `smtp` unless it is null.
  const auto entry = [](const char16_t* smtp) {
    auto result = MakeComObject<testing::TestAddressEntry>();
    if (smtp != nullptr) result->exchangeUser = MakeComObject<testing::TestExchangeUser>(smtp);
    return result;
  };
  struct Case {
    const char* name;
    std::function<void(World&)> arrange;
    const char* user;
    const char* folder;
  };
  const char* kAddress = "ann.lee@example.org";
  const Case cases[] = {
      {"non-Exchange user", [](World&) {}, kAddress, "Inbox"},
      {"Exchange user", [&](World& w) { user(w).addressEntry = entry(u"ann@corp.example.org"); },
       "ann@corp.example.org", "Inbox"},
      {"entry without an Exchange user", [&](World& w) { user(w).addressEntry = entry(nullptr); },
       kAddress, "Inbox"},
      {"no current user", [&](World& w) { session(w).currentUser = nullptr; }, "Email", "Inbox"},
      {"no session", [](World& w) { w.application->session = nullptr; }, "Email", "Inbox"},
      {"empty address", [&](World& w) { user(w).address.clear(); }, "Email", "Inbox"},
      {"address unreadable", [](World&) { OutlookFaults::Get().Fail("Recipient.Address", E_FAIL); },
       "Email", "Inbox"},
      // The folder is proposed as the portfolio's name unsanitised, and has no fallback.
      {"folder name with forbidden units",
       [](World& w) {
         w.explorer->currentFolder = MakeComObject<testing::TestFolder>(u"Q3: plans [old].");
       },
       kAddress, "Q3: plans [old]."},
      {"no active explorer", [](World& w) { w.application->activeExplorer = nullptr; }, kAddress,
       ""},
      {"no current folder", [](World& w) { w.explorer->currentFolder = nullptr; }, kAddress, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    OutlookFaults::Get().Reset();
    World world = testing::MakeExplorerWorld({});
    c.arrange(world);
    WideString userText;
    WideString folderText;
    GetUserAndFolder(world.application.get(), userText, folderText);
    EXPECT_EQ(c.user, Utf8(userText));
    EXPECT_EQ(c.folder, Utf8(folderText));
  }
  OutlookFaults::Get().Reset();
}

}  // namespace
}  // namespace mrwl
