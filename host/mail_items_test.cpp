// The mail store's Outlook items over real mail files: which interfaces each kind answers, the
// members the add-in reads, the attachments' names and MAPI properties, and the files written.

#include "host/mail_items.h"

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "platform/com_ptr.h"
#include "platform/utf.h"
#include "testing/temp_folder.h"

namespace mrwl::host {
namespace {

constexpr char kRelatedMail[] =
    "From: \"Lee, Ann\" <ann@example.org>\r\nTo: Bob <bob@example.org>, carol@example.org\r\n"
    "Cc: Dan <dan@example.org>\r\nSubject: =?utf-8?q?Gr=C3=BC=C3=9Fe?=\r\n"
    "Date: Mon, 23 Nov 2026 09:15:00 +0000\r\nX-Priority: 1\r\nSensitivity: Private\r\n"
    "MIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=\"m\"\r\n\r\n"
    "--m\r\nContent-Type: multipart/related; boundary=\"r\"\r\n\r\n"
    "--r\r\nContent-Type: text/html; charset=utf-8\r\n\r\n<p><img src=\"cid:logo@x\"></p>\r\n"
    "--r\r\nContent-Type: image/png; name=\"logo.png\"\r\nContent-ID: <logo@x>\r\n"
    "Content-Transfer-Encoding: base64\r\n\r\niVBORw0KGgo=\r\n--r--\r\n"
    "--m\r\nContent-Type: application/octet-stream\r\nContent-ID: <spare@x>\r\n"
    "Content-Disposition: attachment; filename=\"C:\\\\temp\\\\notes.txt\"\r\n\r\nhello\r\n"
    "--m--\r\n";

constexpr char kMeetingMail[] =
    "From: Ann <ann@example.org>\r\nTo: bob@example.org\r\nSubject: Planning\r\n"
    "MIME-Version: 1.0\r\nContent-Type: text/calendar; method=REQUEST; charset=utf-8\r\n\r\n"
    "BEGIN:VCALENDAR\r\nMETHOD:REQUEST\r\nBEGIN:VEVENT\r\nSUMMARY:Planning\r\nEND:VEVENT\r\n"
    "END:VCALENDAR\r\n";

class MailItems : public ::testing::Test {
 protected:
  ComPtr<IDispatch> Open(const std::string& name, const std::string& text) {
    std::string error;
    ComPtr<IDispatch> item;
    item.Attach(OpenMailItem(folder_.Write(name, text), &error));
    EXPECT_TRUE(item) << error;
    return item;
  }
  template <typename I>
  ComPtr<I> As(const ComPtr<IDispatch>& item) {
    ComPtr<I> result;
    if (item) (void)item->QueryInterface(InterfaceId<I>::value, result.put_void());
    return result;
  }
  static std::u16string Text(HRESULT (outlook::_MailItem::*member)(BSTR*),
                             outlook::_MailItem* mail) {
    UniqueBstr text;
    EXPECT_EQ((mail->*member)(text.put()), S_OK);
    return std::u16string(BstrView(text.get()));
  }

  testing::TempFolder folder_;
};

TEST_F(MailItems, KindsAnswerTheirOwnInterfacesOnly) {
  const ComPtr<IDispatch> mail = Open("a.eml", kRelatedMail);
  const ComPtr<IDispatch> meeting = Open("m.eml", kMeetingMail);
  const ComPtr<IDispatch> contact = Open("c.vcf", "BEGIN:VCARD\r\nFN:Ann\r\nEND:VCARD\r\n");
  EXPECT_TRUE(As<outlook::_MailItem>(mail));
  EXPECT_FALSE(As<outlook::_MeetingItem>(mail));
  EXPECT_FALSE(As<outlook::_MailItem>(meeting));
  EXPECT_TRUE(As<outlook::_MeetingItem>(meeting));
  EXPECT_FALSE(As<outlook::_MailItem>(contact));
  EXPECT_FALSE(As<outlook::_MeetingItem>(contact));
  EXPECT_TRUE(As<IDispatch>(contact));

  std::string error;
  EXPECT_EQ(OpenMailItem(folder_.PathOf("absent.eml"), &error), nullptr);
  EXPECT_NE(error.find("absent.eml"), std::string::npos) << error;
}

TEST_F(MailItems, MailAnswersItsHeaderFieldsAsOutlookShowsThem) {
  const ComPtr<outlook::_MailItem> mail = As<outlook::_MailItem>(Open("a.eml", kRelatedMail));
  ASSERT_TRUE(mail);
  EXPECT_EQ(Text(&outlook::_MailItem::get_Subject, mail.get()), u"Gr\u00FC\u00DFe");
  EXPECT_EQ(Text(&outlook::_MailItem::get_SenderName, mail.get()), u"Lee, Ann");
  EXPECT_EQ(Text(&outlook::_MailItem::get_SenderEmailAddress, mail.get()), u"ann@example.org");
  EXPECT_EQ(Text(&outlook::_MailItem::get_SenderEmailType, mail.get()), u"SMTP");
  EXPECT_EQ(Text(&outlook::_MailItem::get_To, mail.get()), u"Bob; carol@example.org");
  EXPECT_EQ(Text(&outlook::_MailItem::get_CC, mail.get()), u"Dan");
  EXPECT_EQ(Text(&outlook::_MailItem::get_BCC, mail.get()), u"");
  LONG importance = -1, sensitivity = -1;
  EXPECT_EQ(mail->get_Importance(&importance), S_OK);
  EXPECT_EQ(mail->get_Sensitivity(&sensitivity), S_OK);
  EXPECT_EQ(importance, 2);   // olImportanceHigh, from X-Priority 1
  EXPECT_EQ(sensitivity, 2);  // olPrivate
  ComPtr<outlook::AddressEntry> sender;
  EXPECT_EQ(mail->get_Sender(sender.put()), S_OK);
  EXPECT_FALSE(sender) << "no Exchange directory stands behind a mail file";
}

TEST_F(MailItems, AttachmentsAnswerBareNamesContentIdsAndTheInlineFlag) {
  const ComPtr<outlook::_MailItem> mail = As<outlook::_MailItem>(Open("a.eml", kRelatedMail));
  ASSERT_TRUE(mail);
  ComPtr<outlook::Attachments> attachments;
  ASSERT_EQ(mail->get_Attachments(attachments.put()), S_OK);
  LONG count = 0;
  ASSERT_EQ(attachments->get_Count(&count), S_OK);
  ASSERT_EQ(count, 2);
  const UniqueBstr idSchema = MakeBstr(kContentIdSchema);
  const UniqueBstr flagsSchema = MakeBstr(kAttachFlagsSchema);
  const struct {
    const char16_t* name;
    const char16_t* contentId;
    LONG flags;
    const char* content;
  } expected[] = {{u"logo.png", u"logo@x", kAttachMhtmlRef, "\x89PNG\r\n\x1a\n"},
                  {u"notes.txt", u"spare@x", 0, "hello"}};
  for (LONG i = 1; i <= count; ++i) {
    const auto& want = expected[i - 1];
    SCOPED_TRACE(platform::Utf16ToUtf8(want.name));
    ComPtr<outlook::Attachment> attachment;
    ASSERT_EQ(attachments->Item(MakeI4Variant(i), attachment.put()), S_OK);
    UniqueBstr name;
    ASSERT_EQ(attachment->get_FileName(name.put()), S_OK);
    EXPECT_EQ(BstrView(name.get()), want.name);

    ComPtr<outlook::PropertyAccessor> properties;
    ASSERT_EQ(attachment->get_PropertyAccessor(properties.put()), S_OK);
    UniqueVariant id;
    ASSERT_EQ(properties->GetProperty(idSchema.get(), id.get()), S_OK);
    ASSERT_EQ(id.get()->vt, VT_BSTR);
    EXPECT_EQ(BstrView(id.get()->bstrVal), want.contentId);
    UniqueVariant flags;
    ASSERT_EQ(properties->GetProperty(flagsSchema.get(), flags.get()), S_OK);
    ASSERT_EQ(flags.get()->vt, VT_I4);
    EXPECT_EQ(flags.get()->lVal, want.flags);

    const std::string path = folder_.PathOf(platform::Utf16ToUtf8(want.name));
    ASSERT_EQ(attachment->SaveAsFile(MakeBstr(platform::Utf8ToUtf16(path)).get()), S_OK);
    EXPECT_EQ(folder_.Read(platform::Utf16ToUtf8(want.name)), want.content);
    EXPECT_EQ(std::filesystem::status(path).permissions() & std::filesystem::perms::all,
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  }
  ComPtr<outlook::Attachment> none;
  EXPECT_EQ(attachments->Item(MakeI4Variant(3), none.put()), DISP_E_BADINDEX);
}

TEST_F(MailItems, SaveAsWritesThePageOnlyAsHtml) {
  const ComPtr<outlook::_MeetingItem> meeting =
      As<outlook::_MeetingItem>(Open("m.eml", kMeetingMail));
  ASSERT_TRUE(meeting);
  const UniqueBstr path = MakeBstr(platform::Utf8ToUtf16(folder_.PathOf("page.html")));
  // olMSG (3) is not a form this store writes.
  EXPECT_EQ(meeting->SaveAs(path.get(), MakeI4Variant(3)), E_INVALIDARG);
  EXPECT_FALSE(folder_.Exists("page.html"));
  ASSERT_EQ(meeting->SaveAs(path.get(), MakeI4Variant(outlook::olHTML)), S_OK);
  EXPECT_NE(folder_.Read("page.html").find("Planning"), std::string::npos);
  // A folder that is not there cannot take the page.
  const UniqueBstr nowhere = MakeBstr(platform::Utf8ToUtf16(folder_.PathOf("no/page.html")));
  EXPECT_EQ(meeting->SaveAs(nowhere.get(), MakeI4Variant(outlook::olHTML)),
            static_cast<HRESULT>(0x80070005u));
}

}  // namespace
}  // namespace mrwl::host
