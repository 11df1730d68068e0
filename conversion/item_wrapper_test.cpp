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
using testing::TestMeetingItem;

std::string Utf8(std::u16string_view text) { return platform::Utf16ToUtf8(text); }

// Calls `Operation` with a fresh out-value, for calls that fail and so hand nothing out.
template <auto Operation, typename Out>
HRESULT Call(ItemWrapper& wrapper) {
  Out out{};
  return (wrapper.*Operation)(&out);
}

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
};

TEST_F(ItemWrapperTest, MakeWrapperTakesMailsAndMeetingsAndGivesTheItemBack) {
  auto mail = MakeMail(u"Status");
  auto meeting = MakeComObject<TestMeetingItem>();
  EXPECT_EQ(nullptr, MakeWrapper(MakeComObject<testing::TestOtherItem>("contact").get()));
  EXPECT_EQ(nullptr, MakeWrapper(nullptr));

  const ULONG held = mail->AddRef();
  mail->Release();
  {
    UniqueItemWrapper forMail = MakeWrapper(mail.get());
    UniqueItemWrapper forMeeting = MakeWrapper(meeting.get());
    EXPECT_NE(nullptr, dynamic_cast<MailItemWrapper*>(forMail.get()));
    EXPECT_NE(nullptr, dynamic_cast<MeetingItemWrapper*>(forMeeting.get()));
    EXPECT_EQ(held + 1, mail->AddRef());
    mail->Release();
  }
  // A converted item must not stay referenced until Outlook ends.
  EXPECT_EQ(held, mail->AddRef());
  mail->Release();
}

TEST_F(ItemWrapperTest, EachOperationCallsItsOwnMemberAndPassesItsFailureOn) {
  auto mail = MakeMail(u"Status");
  auto meeting = MakeComObject<TestMeetingItem>();
  UniqueItemWrapper mailWrapper = MakeWrapper(mail.get());
  UniqueItemWrapper meetingWrapper = MakeWrapper(meeting.get());
  const HRESULT kInjected = static_cast<HRESULT>(0x80070005u);
  using Operation = HRESULT (*)(ItemWrapper&);
  const Operation saveAs = [](ItemWrapper& w) {
    return w.SaveAs(nullptr, MakeI4Variant(outlook::olHTML));
  };
  // A mail's SenderEmailAddress first asks for the Exchange address: see the sender test.
  enum Answer { kAsks, kNotImplemented, kElsewhere };
  struct Case {
    const char* member;
    Operation call;
    Answer mail, meeting;
  };
  const Case cases[] = {
      {"Subject", Call<&ItemWrapper::GetSubject, BSTR>, kAsks, kAsks},
      {"SaveAs", saveAs, kAsks, kAsks},
      {"Attachments", Call<&ItemWrapper::GetAttachments, outlook::Attachments*>, kAsks, kAsks},
      {"SenderName", Call<&ItemWrapper::GetSenderName, BSTR>, kAsks, kAsks},
      {"SenderEmailAddress", Call<&ItemWrapper::GetSenderEmailAddress, BSTR>, kElsewhere, kAsks},
      // A meeting has no recipient lines, and doesn't ask Outlook for them.
      {"To", Call<&ItemWrapper::GetTo, BSTR>, kAsks, kNotImplemented},
      {"BCC", Call<&ItemWrapper::GetBcc, BSTR>, kAsks, kNotImplemented},
      {"CC", Call<&ItemWrapper::GetCc, BSTR>, kAsks, kNotImplemented},
      {"ReceivedTime", Call<&ItemWrapper::GetReceivedTime, DATE>, kAsks, kAsks},
      {"Importance", Call<&ItemWrapper::GetImportance, LONG>, kAsks, kAsks},
      {"Sensitivity", Call<&ItemWrapper::GetSensitivity, LONG>, kAsks, kAsks},
  };
  for (const Case& c : cases) {
    for (const bool forMail : {true, false}) {
      const Answer answer = forMail ? c.mail : c.meeting;
      if (answer == kElsewhere) continue;
      const std::string member = (forMail ? "MailItem." : "MeetingItem.") + std::string(c.member);
      SCOPED_TRACE(member);
      Faults().Reset();
      Faults().Fail(member, kInjected);
      EXPECT_EQ(answer == kAsks ? kInjected : E_NOTIMPL,
                c.call(forMail ? *mailWrapper : *meetingWrapper));
      EXPECT_EQ(answer == kAsks ? std::vector<std::string>{member} : std::vector<std::string>{},
                Faults().Calls());
    }
  }
}

TEST_F(ItemWrapperTest, ExchangeSenderIsShownBySmtpAddress) {
  auto user = MakeComObject<testing::TestExchangeUser>(u"ann.lee@example.org");
  auto entry = MakeComObject<testing::TestAddressEntry>();
  struct Case {
    const char* name;
    std::u16string type;
    bool withEntry, withUser;
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
    UniqueBstr address;
    EXPECT_EQ(S_OK, MakeWrapper(mail.get())->GetSenderEmailAddress(address.put()));
    EXPECT_EQ(c.expected, Utf8(BstrView(address.get())));
  }
}

TEST_F(ItemWrapperTest, RecordHoldsWhatTheItemTellsAsText) {
  const auto mail = [](std::u16string name, std::u16string address) {
    auto item = MakeMail(u"Re: Q3 report", std::move(name), std::move(address));
    item->to = u"Bo Ek";
    item->cc = u"Cy Ng";
    item->bcc = u"Di Ho";
    item->importance = 2;
    item->sensitivity = 3;
    return testing::AsItem(item);
  };
  auto meeting = MakeComObject<TestMeetingItem>();
  meeting->subject = u"Planning";
  meeting->senderName = u"Ann";
  meeting->senderEmailAddress = u"ann.lee";
  struct Case {
    const char* name;
    ComPtr<IDispatch> item;
    const char* failing;  // a member made to fail, or null
    const char* fields;   // subject|file name|from|to|cc|bcc|importance|sensitivity
  };
  // A failed call leaves its field empty; a meeting has no recipient lines.
  const Case cases[] = {
      {"name and address", mail(u"Ann", u"ann.lee"), nullptr,
       "Re: Q3 report|Re Q3 report.pdf|Ann<ann.lee>|Bo Ek|Cy Ng|Di Ho|2|3"},
      {"name only", mail(u"Ann", u""), nullptr,
       "Re: Q3 report|Re Q3 report.pdf|Ann|Bo Ek|Cy Ng|Di Ho|2|3"},
      {"address only", mail(u"", u"ann.lee"), nullptr,
       "Re: Q3 report|Re Q3 report.pdf|ann.lee|Bo Ek|Cy Ng|Di Ho|2|3"},
      {"no sender", mail(u"", u""), nullptr,
       "Re: Q3 report|Re Q3 report.pdf||Bo Ek|Cy Ng|Di Ho|2|3"},
      {"Subject failing", mail(u"Ann", u""), "MailItem.Subject", "|.pdf|Ann|Bo Ek|Cy Ng|Di Ho|2|3"},
      {"Sensitivity failing", mail(u"Ann", u""), "MailItem.Sensitivity",
       "Re: Q3 report|Re Q3 report.pdf|Ann|Bo Ek|Cy Ng|Di Ho|2|"},
      {"meeting", testing::AsItem(meeting), nullptr, "Planning|Planning.pdf|Ann<ann.lee>||||1|0"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Faults().Reset();
    if (c.failing != nullptr) Faults().Fail(c.failing, E_FAIL);
    SharedRecord<MailRecord> record = RecordOf(c.item.get());
    ASSERT_TRUE(record);
    const MailRecord& r = *record;
    EXPECT_EQ(c.fields, Utf8(r.Subject) + "|" + Utf8(r.FileName) + "|" + Utf8(r.From) + "|" +
                            Utf8(r.To) + "|" + Utf8(r.Cc) + "|" + Utf8(r.Bcc) + "|" +
                            Utf8(r.Importance) + "|" + Utf8(r.Sensitivity));
  }

  // The recipient lines are read in a fixed order, between the sender and the time.
  Faults().Reset();
  auto timed = MakeMail(u"Status");
  timed->receivedTime = 45000.25;
  EXPECT_EQ(45000.25, RecordOf(timed.get())->ReceivedTime);
  const char* order[] = {"MailItem.SenderEmailAddress", "MailItem.To", "MailItem.BCC",
                         "MailItem.CC", "MailItem.ReceivedTime"};
  for (std::size_t i = 1; i < std::size(order); ++i) {
    EXPECT_LT(Faults().IndexOf(order[i - 1]), Faults().IndexOf(order[i])) << order[i];
  }
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

  // A property read that fails makes a real attachment, without a word.
  auto attachment = MakeComObject<TestAttachment>();
  attachment->contentId = u"image001.png@01D9";
  attachment->flags = 4;
  Faults().Reset();
  Faults().Fail("PropertyAccessor.GetProperty", testing::kMapiNotFound, 1);
  EXPECT_FALSE(IsInlineAttachment(attachment.get()));
  EXPECT_EQ(2, Faults().CountOf("PropertyAccessor.GetProperty"));
}

}  // namespace
}  // namespace mrwl
