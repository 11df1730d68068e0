#include "conversion/item_wrapper.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "conversion/conversion_store.h"
#include "platform/utf.h"
#include "testing/test_outlook.h"

namespace mrwl {
namespace {

using testing::MakeMail;
using testing::OutlookFaults;
using testing::TestAttachment;
using testing::TestMailItem;
using testing::TestMeetingItem;

std::string Utf8(std::u16string_view text) { return platform::Utf16ToUtf8(text); }

class ItemWrapperTest : public ::testing::Test {
 protected:
  void SetUp() override { Faults().Reset(); }
  void TearDown() override { Faults().Reset(); }

  static OutlookFaults& Faults() { return OutlookFaults::Get(); }

  // The record FillMailRecord makes for `item`.
  static SharedRecord<MailRecord> RecordOf(IUnknown* item) {
    UniqueItemWrapper wrapper = MakeWrapper(item);
    EXPECT_TRUE(wrapper);
    ConversionJob job;
    if (wrapper) FillMailRecord(job, *wrapper);
    return job.Record;
  }

  static std::string SenderAddressOf(const ComPtr<TestMailItem>& mail) {
    UniqueItemWrapper wrapper = MakeWrapper(mail.get());
    UniqueBstr address;
    EXPECT_EQ(S_OK, wrapper->GetSenderEmailAddress(address.put()));
    return Utf8(BstrView(address.get()));
  }
};

TEST_F(ItemWrapperTest, MakeWrapperTellsMailsAndMeetingsFromOtherItems) {
  auto mail = MakeMail(u"Status");
  auto meeting = MakeComObject<TestMeetingItem>();
  auto contact = MakeComObject<testing::TestOtherItem>("contact");

  UniqueItemWrapper forMail = MakeWrapper(mail.get());
  UniqueItemWrapper forMeeting = MakeWrapper(meeting.get());
  EXPECT_NE(nullptr, dynamic_cast<MailItemWrapper*>(forMail.get()));
  EXPECT_NE(nullptr, dynamic_cast<MeetingItemWrapper*>(forMeeting.get()));
  EXPECT_EQ(nullptr, MakeWrapper(contact.get()));
  EXPECT_EQ(nullptr, MakeWrapper(nullptr));
}

TEST_F(ItemWrapperTest, DestroyGivesBackTheReferenceToTheItem) {
  auto mail = MakeMail(u"Status");
  const ULONG before = mail->AddRef() - 1;
  mail->Release();
  {
    UniqueItemWrapper wrapper = MakeWrapper(mail.get());
    EXPECT_EQ(before + 2, mail->AddRef());
    mail->Release();
  }
  EXPECT_EQ(before + 1, mail->AddRef());
  mail->Release();
}

TEST_F(ItemWrapperTest, EachOperationCallsItsOwnMemberAndPassesItsFailureOn) {
  auto mail = MakeMail(u"Status");
  auto meeting = MakeComObject<TestMeetingItem>();
  UniqueItemWrapper mailWrapper = MakeWrapper(mail.get());
  UniqueItemWrapper meetingWrapper = MakeWrapper(meeting.get());
  // The result each operation gives when its member fails with a code of its own.
  const HRESULT kInjected = static_cast<HRESULT>(0x80070005u);

  struct Case {
    const char* member;
    HRESULT (*call)(ItemWrapper&);
  };
  const auto subject = [](ItemWrapper& w) {
    UniqueBstr s;
    return w.GetSubject(s.put());
  };
  const auto saveAs = [](ItemWrapper& w) {
    VARIANT type;
    ::VariantInit(&type);
    return w.SaveAs(nullptr, type);
  };
  const auto attachments = [](ItemWrapper& w) {
    ComPtr<outlook::Attachments> a;
    return w.GetAttachments(a.put());
  };
  const auto senderName = [](ItemWrapper& w) {
    UniqueBstr s;
    return w.GetSenderName(s.put());
  };
  const auto senderAddress = [](ItemWrapper& w) {
    UniqueBstr s;
    return w.GetSenderEmailAddress(s.put());
  };
  const auto to = [](ItemWrapper& w) {
    UniqueBstr s;
    return w.GetTo(s.put());
  };
  const auto bcc = [](ItemWrapper& w) {
    UniqueBstr s;
    return w.GetBcc(s.put());
  };
  const auto cc = [](ItemWrapper& w) {
    UniqueBstr s;
    return w.GetCc(s.put());
  };
  const auto received = [](ItemWrapper& w) {
    DATE d = 0;
    return w.GetReceivedTime(&d);
  };
  const auto importance = [](ItemWrapper& w) {
    LONG n = 0;
    return w.GetImportance(&n);
  };
  const auto sensitivity = [](ItemWrapper& w) {
    LONG n = 0;
    return w.GetSensitivity(&n);
  };
  const Case mailCases[] = {
      {"MailItem.Subject", subject},
      {"MailItem.SaveAs", saveAs},
      {"MailItem.Attachments", attachments},
      {"MailItem.SenderName", senderName},
      {"MailItem.To", to},
      {"MailItem.BCC", bcc},
      {"MailItem.CC", cc},
      {"MailItem.ReceivedTime", received},
      {"MailItem.Importance", importance},
      {"MailItem.Sensitivity", sensitivity},
  };
  for (const Case& c : mailCases) {
    SCOPED_TRACE(c.member);
    Faults().Reset();
    Faults().Fail(c.member, kInjected);
    EXPECT_EQ(kInjected, c.call(*mailWrapper));
    EXPECT_EQ(std::vector<std::string>{c.member}, Faults().Calls());
  }
  const Case meetingCases[] = {
      {"MeetingItem.Subject", subject},
      {"MeetingItem.SaveAs", saveAs},
      {"MeetingItem.Attachments", attachments},
      {"MeetingItem.SenderName", senderName},
      {"MeetingItem.SenderEmailAddress", senderAddress},
      {"MeetingItem.ReceivedTime", received},
      {"MeetingItem.Importance", importance},
      {"MeetingItem.Sensitivity", sensitivity},
  };
  for (const Case& c : meetingCases) {
    SCOPED_TRACE(c.member);
    Faults().Reset();
    Faults().Fail(c.member, kInjected);
    EXPECT_EQ(kInjected, c.call(*meetingWrapper));
    EXPECT_EQ(std::vector<std::string>{c.member}, Faults().Calls());
  }
}

TEST_F(ItemWrapperTest, MeetingHasNoRecipientLines) {
  auto meeting = MakeComObject<TestMeetingItem>();
  UniqueItemWrapper wrapper = MakeWrapper(meeting.get());
  UniqueBstr text;
  EXPECT_EQ(static_cast<HRESULT>(0x80004001u), wrapper->GetTo(text.put()));
  EXPECT_EQ(static_cast<HRESULT>(0x80004001u), wrapper->GetBcc(text.put()));
  EXPECT_EQ(static_cast<HRESULT>(0x80004001u), wrapper->GetCc(text.put()));
  EXPECT_TRUE(Faults().Calls().empty());
}

TEST_F(ItemWrapperTest, ExchangeSenderIsShownBySmtpAddress) {
  auto user = MakeComObject<testing::TestExchangeUser>(u"ann.lee@example.org");
  auto entry = MakeComObject<testing::TestAddressEntry>();
  entry->exchangeUser = user;

  struct Case {
    const char* name;
    std::u16string type;
    bool withEntry;
    bool withUser;
    const char* failing;  // a member made to fail, or null
    const char* expected;
  };
  const Case cases[] = {
      {"EX sender", u"EX", true, true, nullptr, "ann.lee@example.org"},
      {"type compared without case", u"ex", true, true, nullptr, "ann.lee@example.org"},
      {"Internet sender", u"SMTP", true, true, nullptr, "/o=Org/cn=ann"},
      {"no address entry", u"EX", false, true, nullptr, "/o=Org/cn=ann"},
      {"no Exchange user", u"EX", true, false, nullptr, "/o=Org/cn=ann"},
      {"type unreadable", u"EX", true, true, "MailItem.SenderEmailType", "/o=Org/cn=ann"},
      {"SMTP address unreadable", u"EX", true, true, "ExchangeUser.PrimarySmtpAddress",
       "/o=Org/cn=ann"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Faults().Reset();
    if (c.failing != nullptr) Faults().Fail(c.failing, E_FAIL);
    auto mail = MakeMail(u"Status", u"Ann Lee", u"/o=Org/cn=ann");
    mail->senderEmailType = c.type;
    entry->exchangeUser = c.withUser ? ComPtr<outlook::ExchangeUser>(user) : nullptr;
    if (c.withEntry) mail->sender = entry;
    EXPECT_EQ(c.expected, SenderAddressOf(mail));
  }
}

TEST_F(ItemWrapperTest, RecordTakesSubjectNameAndSender) {
  struct Case {
    std::u16string name;
    std::u16string address;
    const char* from;
  };
  const Case cases[] = {
      {u"Ann", u"", "Ann"},
      {u"", u"ann.lee", "ann.lee"},
      {u"Ann", u"ann.lee", "Ann<ann.lee>"},
      {u"", u"", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.from);
    auto mail = MakeMail(u"Re: Q3 report", c.name, c.address);
    SharedRecord<MailRecord> record = RecordOf(mail.get());
    ASSERT_TRUE(record);
    EXPECT_EQ(c.from, Utf8(record->From));
    EXPECT_EQ("Re: Q3 report", Utf8(record->Subject));
    EXPECT_EQ("Re Q3 report.pdf", Utf8(record->FileName));
    EXPECT_TRUE(record->Reserved1.IsEmpty());
    EXPECT_TRUE(record->Reserved2.IsEmpty());
  }
}

TEST_F(ItemWrapperTest, RecordReadsRecipientsInFixedOrderAndNumbersAsText) {
  auto mail = MakeMail(u"Status");
  mail->to = u"Bo Ek";
  mail->cc = u"Cy Ng";
  mail->bcc = u"Di Ho";
  mail->receivedTime = 45000.25;
  mail->importance = 2;
  mail->sensitivity = 3;
  SharedRecord<MailRecord> record = RecordOf(mail.get());
  ASSERT_TRUE(record);
  EXPECT_EQ("Bo Ek", Utf8(record->To));
  EXPECT_EQ("Cy Ng", Utf8(record->Cc));
  EXPECT_EQ("Di Ho", Utf8(record->Bcc));
  EXPECT_EQ(45000.25, record->ReceivedTime);
  EXPECT_EQ("2", Utf8(record->Importance));
  EXPECT_EQ("3", Utf8(record->Sensitivity));
  const int to = Faults().IndexOf("MailItem.To");
  const int bcc = Faults().IndexOf("MailItem.BCC");
  const int cc = Faults().IndexOf("MailItem.CC");
  EXPECT_LT(Faults().IndexOf("MailItem.SenderEmailAddress"), to);
  EXPECT_LT(to, bcc);
  EXPECT_LT(bcc, cc);
  EXPECT_LT(cc, Faults().IndexOf("MailItem.ReceivedTime"));
}

TEST_F(ItemWrapperTest, RecordLeavesFieldsOfFailedCallsEmpty) {
  auto mail = MakeMail(u"Status");
  mail->to = u"Bo Ek";
  mail->cc = u"Cy Ng";
  Faults().Fail("MailItem.To", E_FAIL);
  Faults().Fail("MailItem.Importance", E_FAIL);
  Faults().Fail("MailItem.Subject", E_FAIL);
  SharedRecord<MailRecord> record = RecordOf(mail.get());
  ASSERT_TRUE(record);
  EXPECT_TRUE(record->To.IsEmpty());
  EXPECT_EQ("Cy Ng", Utf8(record->Cc));
  EXPECT_TRUE(record->Importance.IsEmpty());
  EXPECT_EQ("0", Utf8(record->Sensitivity));
  EXPECT_TRUE(record->Subject.IsEmpty());
  EXPECT_EQ(".pdf", Utf8(record->FileName));
}

TEST_F(ItemWrapperTest, MeetingRecordHasNoRecipients) {
  auto meeting = MakeComObject<TestMeetingItem>();
  meeting->subject = u"Planning";
  meeting->senderName = u"Ann";
  meeting->senderEmailAddress = u"ann.lee";
  SharedRecord<MailRecord> record = RecordOf(meeting.get());
  ASSERT_TRUE(record);
  EXPECT_TRUE(record->To.IsEmpty());
  EXPECT_TRUE(record->Cc.IsEmpty());
  EXPECT_TRUE(record->Bcc.IsEmpty());
  EXPECT_EQ("Ann<ann.lee>", Utf8(record->From));
  EXPECT_EQ("Planning.pdf", Utf8(record->FileName));
  EXPECT_EQ("1", Utf8(record->Importance));
}

TEST_F(ItemWrapperTest, InlineNeedsBothContentIdAndMhtmlFlag) {
  struct Case {
    const char* name;
    bool hasAccessor;
    std::optional<std::u16string> contentId;
    std::optional<LONG> flags;
    bool inlined;
  };
  const Case cases[] = {
      {"content id and flag", true, u"image001.png@01D9", 4, true},
      {"flag among others", true, u"image001.png@01D9", 6, true},
      {"content id, flags 0", true, u"image001.png@01D9", 0, false},
      {"content id, no flags", true, u"image001.png@01D9", std::nullopt, false},
      {"flag, no content id", true, std::nullopt, 4, false},
      {"flag, empty content id", true, u"", 4, false},
      {"no accessor", false, u"image001.png@01D9", 4, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto attachment = MakeComObject<TestAttachment>();
    attachment->hasAccessor = c.hasAccessor;
    attachment->contentId = c.contentId;
    attachment->flags = c.flags;
    EXPECT_EQ(c.inlined, IsInlineAttachment(attachment.get()));
  }
  EXPECT_FALSE(IsInlineAttachment(nullptr));
}

TEST_F(ItemWrapperTest, FailingPropertyReadMakesARealAttachment) {
  auto attachment = MakeComObject<TestAttachment>();
  attachment->contentId = u"image001.png@01D9";
  attachment->flags = 4;
  Faults().Fail("PropertyAccessor.GetProperty", testing::kMapiNotFound, 1);
  EXPECT_FALSE(IsInlineAttachment(attachment.get()));
  EXPECT_EQ(2, Faults().CountOf("PropertyAccessor.GetProperty"));
}

}  // namespace
}  // namespace mrwl
