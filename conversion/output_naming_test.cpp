#include "conversion/output_naming.h"

#include <string>

#include <gtest/gtest.h>

#include "conversion/temp_store.h"
#include "foundation/paths.h"
#include "platform/utf.h"
#include "testing/temp_folder.h"
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
  const std::u16string plain(300, u'x');
  EXPECT_EQ(256u, Sanitized(plain).size());

  std::u16string withDropped = plain;
  for (int i = 0; i < 10; ++i) withDropped[static_cast<std::size_t>(i) * 20] = u'-';
  EXPECT_EQ(246u, Sanitized(withDropped).size());

  // A dropped unit behind the limit changes nothing.
  std::u16string lateDropped = plain;
  lateDropped[280] = u':';
  EXPECT_EQ(256u, Sanitized(lateDropped).size());

  // Only `length` units are read, whatever stands behind them.
  WideString result;
  SanitizeFileName(u"abc:def", 4, result);
  EXPECT_EQ("abc", Utf8(result));
}

class GetUserAndFolderTest : public ::testing::Test {
 public:  // the table of MissingUserGivesEmail arranges through these
  void SetUp() override { OutlookFaults::Get().Reset(); }
  void TearDown() override { OutlookFaults::Get().Reset(); }

  void Run() {
    user_.Clear();
    folder_.Clear();
    GetUserAndFolder(world_.application.get(), user_, folder_);
  }
  testing::TestRecipient& CurrentUser() {
    return *static_cast<testing::TestRecipient*>(
        static_cast<testing::TestNameSpace*>(world_.application->session.get())->currentUser.get());
  }
  void MakeExchangeUser(std::u16string smtp) {
    auto entry = MakeComObject<testing::TestAddressEntry>();
    entry->exchangeUser = MakeComObject<testing::TestExchangeUser>(std::move(smtp));
    CurrentUser().addressEntry = entry;
  }

  testing::ExplorerWorld world_ = testing::MakeExplorerWorld({});
  WideString user_;
  WideString folder_;
};

TEST_F(GetUserAndFolderTest, NonExchangeUserIsTheRecipientAddress) {
  Run();
  EXPECT_EQ("ann.lee@example.org", Utf8(user_));
  EXPECT_EQ("Inbox", Utf8(folder_));
}

TEST_F(GetUserAndFolderTest, ExchangeUserIsThePrimarySmtpAddress) {
  CurrentUser().address = u"/o=Org/ou=Exchange/cn=Recipients/cn=ann";
  MakeExchangeUser(u"ann@corp.example.org");
  Run();
  EXPECT_EQ("ann@corp.example.org", Utf8(user_));
}

TEST_F(GetUserAndFolderTest, EntryWithoutExchangeUserFallsBackToTheAddress) {
  auto entry = MakeComObject<testing::TestAddressEntry>();
  CurrentUser().addressEntry = entry;
  Run();
  EXPECT_EQ("ann.lee@example.org", Utf8(user_));
}

TEST_F(GetUserAndFolderTest, MissingUserGivesEmail) {
  struct Case {
    const char* name;
    void (*arrange)(GetUserAndFolderTest&);
  };
  const Case cases[] = {
      {"no current user",
       [](GetUserAndFolderTest& t) {
         static_cast<testing::TestNameSpace*>(t.world_.application->session.get())->currentUser =
             nullptr;
       }},
      {"no session", [](GetUserAndFolderTest& t) { t.world_.application->session = nullptr; }},
      {"empty address", [](GetUserAndFolderTest& t) { t.CurrentUser().address.clear(); }},
      {"address unreadable",
       [](GetUserAndFolderTest&) { OutlookFaults::Get().Fail("Recipient.Address", E_FAIL); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    world_ = testing::MakeExplorerWorld({});
    OutlookFaults::Get().Reset();
    c.arrange(*this);
    Run();
    EXPECT_EQ("Email", Utf8(user_));
    EXPECT_EQ("Inbox", Utf8(folder_));
  }
}

TEST_F(GetUserAndFolderTest, FolderNameIsTakenAsItStands) {
  world_.explorer->currentFolder = MakeComObject<testing::TestFolder>(u"Q3: plans [old].");
  Run();
  EXPECT_EQ("Q3: plans [old].", Utf8(folder_));

  world_.application->activeExplorer = nullptr;
  Run();
  EXPECT_EQ("", Utf8(folder_));
  EXPECT_EQ("ann.lee@example.org", Utf8(user_));

  world_ = testing::MakeExplorerWorld({});
  world_.explorer->currentFolder = nullptr;
  Run();
  EXPECT_EQ("", Utf8(folder_));
}

// Points the temporary folder of the process at a test's folder.
class ScopedTempFolder {
 public:
  explicit ScopedTempFolder(std::u16string folder) {
    Folder() = std::move(folder);
    previous_ = SetTempFolderHook(&Hook);
  }
  ~ScopedTempFolder() { (void)SetTempFolderHook(previous_); }

 private:
  static std::u16string& Folder() {
    static std::u16string folder;
    return folder;
  }
  static bool Hook(WideString& result, TempFolderFunction) noexcept {
    result = Folder();
    return true;
  }
  TempFolderHook previous_ = nullptr;
};

TEST(MakeUniqueTempName, NamesAFreshFileInTheTemporaryFolder) {
  testing::TempFolder temp;
  const std::u16string folder = temp.WidePathOf("");
  ScopedTempFolder scoped(folder);

  WideString first;
  ASSERT_TRUE(MakeUniqueTempName(u"mrwm_", u"html", first));
  const std::string name = Utf8(first);
  SCOPED_TRACE(name);
  ASSERT_EQ(0u, name.rfind(Utf8(folder) + "mrwm_", 0));
  EXPECT_EQ(".html", name.substr(name.size() - 5));
  const std::string number =
      name.substr(Utf8(folder).size() + 5, name.size() - 5 - Utf8(folder).size() - 5);
  EXPECT_EQ(std::string::npos, number.find_first_not_of("0123456789abcdef"));
  EXPECT_FALSE(temp.Exists(name.substr(Utf8(folder).size())));

  // A taken name is passed over: the next free number follows.
  temp.Write(name.substr(Utf8(folder).size()), "taken");
  WideString second;
  ASSERT_TRUE(MakeUniqueTempName(u"mrwm_", u"html", second));
  EXPECT_NE(name, Utf8(second));
}

TEST(MakeUniqueTempName, FailsEmptyWithoutATemporaryFolder) {
  struct NoFolder {
    static bool Hook(WideString& result, TempFolderFunction) noexcept {
      result.Clear();
      return false;
    }
  };
  const TempFolderHook previous = SetTempFolderHook(&NoFolder::Hook);
  WideString result(u"left over");
  EXPECT_FALSE(MakeUniqueTempName(u"mrwm_", u"html", result));
  EXPECT_TRUE(result.IsEmpty());
  (void)SetTempFolderHook(previous);
}

}  // namespace
}  // namespace mrwl
