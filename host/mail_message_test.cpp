#include "host/mail_message.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <glib.h>
#include <gtest/gtest.h>

#include "testing/temp_folder.h"

namespace mrwl::host {
namespace {

class MailMessageTest : public ::testing::Test {
 protected:
  // Writes `content` as the file `name` (line ends made CR LF) and reads it back.
  std::shared_ptr<const MailMessage> Read(const std::string& name, std::string content) {
    std::string crlf;
    for (char c : content) crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
    std::string error;
    auto mail = ReadMailFile(folder_.Write(name, crlf), &error);
    EXPECT_NE(mail, nullptr) << error;
    return mail;
  }

  static std::string Text(GMimeObject* body) {
    std::string problem;
    return ReadBodyText(body, &problem);
  }

  static std::vector<std::string> Names(const MailMessage& mail) {
    std::vector<std::string> names;
    for (const MailPart& part : mail.parts) names.push_back(part.fileName);
    return names;
  }

  static bool HasProblem(const MailMessage& mail, const std::string& words) {
    return std::any_of(mail.problems.begin(), mail.problems.end(),
                       [&](const std::string& p) { return p.find(words) != std::string::npos; });
  }

  testing::TempFolder folder_;
};

std::string Multipart(const std::string& type, const std::vector<std::string>& parts,
                      const std::string& boundary = "B") {
  std::string text = "Content-Type: multipart/" + type + "; boundary=\"" + boundary + "\"\n\n";
  for (const std::string& part : parts) text += "--" + boundary + "\n" + part + "\n";
  return text + "--" + boundary + "--\n";
}

const std::string kPlain = "Content-Type: text/plain; charset=utf-8\n\nplain text";
const std::string kHtml =
    "Content-Type: text/html; charset=utf-8\n\n<p><img src=\"cid:logo%40x\">html text</p>";
const std::string kLogo = "Content-Type: image/png\nContent-ID: <Logo@X>\n\nPNG";

std::string CalendarText(const std::string& method) {
  return "BEGIN:VCALENDAR\n" + (method.empty() ? "" : "METHOD:" + method + "\n") +
         "BEGIN:VEVENT\nSUMMARY:Review\nDTSTART:20261123T090000Z\n"
         "ORGANIZER;CN=\"Ann Lee\":mailto:ann@x.org\nATTENDEE;CN=Bo:MAILTO:bo@x.org\n"
         "END:VEVENT\nEND:VCALENDAR";
}

std::string Calendar(const std::string& method, bool inParameter) {
  return "Content-Type: text/calendar; charset=utf-8" +
         (inParameter ? "; method=" + method : std::string()) + "\n\n" +
         CalendarText(inParameter ? "" : method);
}

TEST_F(MailMessageTest, KindComesFromExtensionAndCalendarMethod) {
  struct Case {
    std::string name, content;
    ItemKind kind;
  } cases[] = {
      {"request.eml", "Subject: m\n" + Calendar("REQUEST", true), ItemKind::kMeeting},
      {"cancel.eml", "Subject: m\n" + Calendar("CANCEL", false), ItemKind::kMeeting},
      {"reply.eml", "Subject: m\n" + Multipart("mixed", {kPlain, Calendar("reply", true)}),
       ItemKind::kMeeting},
      {"publish.eml", "Subject: m\n" + Calendar("PUBLISH", true), ItemKind::kMail},
      {"card.VCF", "BEGIN:VCARD\nFN:Ann\nEND:VCARD", ItemKind::kContact},
      {"event.ics", CalendarText("REQUEST"), ItemKind::kAppointment},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto mail = Read(c.name, c.content);
    ASSERT_NE(mail, nullptr);
    EXPECT_EQ(mail->kind, c.kind);
  }
  auto meeting = Read("bare.eml", "Subject: m\n" + Calendar("REQUEST", true));
  EXPECT_EQ(meeting->plainBody,
            "Subject: Review\nStart: 2026-11-23 09:00 UTC\nOrganizer: Ann Lee <ann@x.org>\n"
            "Attendees: Bo <bo@x.org>\n");
  EXPECT_EQ(Read("with-text.eml",
                 "Subject: m\n" + Multipart("mixed", {kPlain, Calendar("REQUEST", true)}))
                ->plainBody,
            "");
}

TEST_F(MailMessageTest, ContactsAndAppointmentsGetReadableSummaries) {
  auto card = Read("ann.vcf",
                   "BEGIN:VCARD\nVERSION:3.0\nFN:Ann\n  Lee\nORG:Acme;Sales\n"
                   "item1.EMAIL;TYPE=work:ann@x.org\nTEL:+1 555\nNOTE:a\\, b\nEND:VCARD\n");
  EXPECT_EQ(card->subject, "Ann Lee");
  EXPECT_EQ(card->plainBody,
            "Name: Ann Lee\nCompany: Acme,Sales\nE-mail: ann@x.org\nPhone: +1 555\n");
  EXPECT_EQ(card->message, nullptr);
  auto event = Read("a.ics",
                    "BEGIN:VCALENDAR\nBEGIN:VEVENT\nSUMMARY:Plan\\, then build\n"
                    "DTSTART;TZID=Europe/Berlin:20261124T100000\nDTEND;VALUE=DATE:20261125\n"
                    "LOCATION:Room 1\nBEGIN:VALARM\nSUMMARY:ignored\nEND:VALARM\nEND:VEVENT\n"
                    "END:VCALENDAR\n");
  EXPECT_EQ(event->subject, "Plan, then build");
  EXPECT_EQ(event->plainBody,
            "Subject: Plan, then build\nStart: 2026-11-24 10:00 (Europe/Berlin)\n"
            "End: 2026-11-25\nLocation: Room 1\n");
}

TEST_F(MailMessageTest, HeaderFieldsAreDecodedFromRawValues) {
  // The euro sign (E2 82 AC) is split across two adjacent base64 words.
  auto mail = Read("h.eml",
                   "From: =?utf-8?Q?Ann_L=C3=A9e?= <ann@x.org>\n"
                   "To: Bo <bo@x.org>, cy@x.org\nCc: =?iso-8859-1?Q?D=E9?= <d@x.org>\n"
                   "Subject: =?utf-8?B?4oI=?=\n =?utf-8?B?rCA1?= and more\n"
                   "Date: Mon, 23 Nov 2026 16:46:44 +0100\nX-Priority: 1 (Highest)\n"
                   "Sensitivity: Company-Confidential\n\nbody\n");
  EXPECT_EQ(mail->subject, "\xE2\x82\xAC 5 and more");
  EXPECT_EQ(mail->senderName,
            "Ann L\xC3\xA9"
            "e");
  EXPECT_EQ(mail->senderAddress, "ann@x.org");
  EXPECT_EQ(mail->fromLine,
            "Ann L\xC3\xA9"
            "e <ann@x.org>");
  EXPECT_EQ(mail->to, "Bo; cy@x.org");
  EXPECT_EQ(mail->cc, "D\xC3\xA9");
  EXPECT_TRUE(mail->hasDateHeader);
  EXPECT_EQ(mail->sentUnixSeconds, 1795448804);
  EXPECT_EQ(mail->importance, 2);
  EXPECT_EQ(mail->sensitivity, 3);

  const std::string path = folder_.Write("nodate.eml", "From: ann@x.org\n\nbody\n");
  const auto stamp =
      std::chrono::file_clock::from_sys(std::chrono::sys_seconds(std::chrono::seconds(1700000000)));
  std::filesystem::last_write_time(path, stamp);
  std::string error;
  auto undated = ReadMailFile(path, &error);
  ASSERT_NE(undated, nullptr);
  EXPECT_FALSE(undated->hasDateHeader);
  EXPECT_EQ(undated->sentUnixSeconds, 1700000000);
  EXPECT_EQ(undated->senderName, "ann@x.org");
  EXPECT_EQ(undated->fromLine, "ann@x.org");
}

TEST_F(MailMessageTest, ImportanceAndSensitivityFollowTheirHeaders) {
  struct Case {
    std::string headers;
    int importance, sensitivity;
  } cases[] = {{"Importance: Low\nX-Priority: 1\n", 0, 0},
               {"X-Priority: 5\n", 0, 0},
               {"X-Priority: 3\nSensitivity: Personal\n", 1, 1},
               {"Priority: urgent\nSensitivity: private\n", 2, 2},
               {"Priority: non-urgent\n", 0, 0},
               {"Importance: bogus\n", 1, 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.headers);
    auto mail = Read("p.eml", c.headers + "\nx\n");
    EXPECT_EQ(mail->importance, c.importance);
    EXPECT_EQ(mail->sensitivity, c.sensitivity);
  }
}

TEST_F(MailMessageTest, BodyIsChosenAsMailClientsDo) {
  const std::string attachedText =
      "Content-Type: text/plain\nContent-Disposition: attachment; filename=notes.txt\n\nnotes";
  const std::string inner = "Content-Type: message/rfc822\n\nSubject: Old/news\n\ninner text";
  const std::string signature = "Content-Type: application/pgp-signature\n\nSIG";
  struct Case {
    std::string name, content, html, text;
    std::vector<std::string> parts;
  } cases[] = {
      {"alternative", Multipart("alternative", {kPlain, kHtml}), "html text", "plain text", {}},
      {"related in alternative",
       Multipart("alternative", {kPlain, Multipart("related", {kHtml, kLogo}, "R")}),
       "html text",
       "plain text",
       {"image001.png"}},
      {"mixed",
       Multipart("mixed", {attachedText, kPlain, inner}),
       "",
       "plain text",
       {"notes.txt", "Oldnews.eml"}},
      {"signed",
       Multipart("signed", {Multipart("alternative", {kPlain, kHtml}, "A"), signature}),
       "html text",
       "plain text",
       {"attachment1.asc"}},
      {"single part", kPlain, "", "plain text", {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto mail = Read("b.eml", "Subject: s\n" + c.content);
    EXPECT_EQ(Text(mail->htmlBody).find(c.html) != std::string::npos && !c.html.empty(),
              !c.html.empty());
    EXPECT_EQ(mail->htmlBody != nullptr, !c.html.empty());
    EXPECT_EQ(Text(mail->textBody), c.text);
    EXPECT_EQ(Names(*mail), c.parts);
  }
}

TEST_F(MailMessageTest, PartNamesAreDecodedAndMadeSafe) {
  auto mail = Read(
      "n.eml",
      "Subject: s\n" +
          Multipart(
              "mixed",
              {
                  kPlain,
                  "Content-Type: application/pdf\nContent-Disposition: attachment; "
                  "filename=\"C:\\Users\\ann\\report.pdf\"\n\n%PDF",
                  "Content-Type: text/plain\nContent-Disposition: attachment;\n"
                  " filename*0*=iso-8859-1''%E9t%E9%20;\n filename*1=\"rate.txt\"\n\nx",
                  "Content-Type: application/octet-stream; "
                  "name=\"=?utf-8?B?4oKsLnppcA==?=\"\n\nzip",
                  "Content-Type: image/gif\n\nGIF",
                  "Content-Type: image/jpeg\nContent-Disposition: inline; filename=\"..\"\n\nJPG",
                  "Content-Type: application/x-unknown\nContent-Disposition: attachment; "
                  "filename=\"a\tb/../\"\n\nbin",
              }));
  EXPECT_EQ(Names(*mail), (std::vector<std::string>{"report.pdf", "\xC3\xA9t\xC3\xA9 rate.txt",
                                                    "\xE2\x82\xAC.zip", "image001.gif",
                                                    "image002.jpg", "attachment6.bin"}));
  EXPECT_EQ(mail->parts[3].mimeType, "image/gif");
}

TEST_F(MailMessageTest, PartsTheHtmlReferencesAreFlagged) {
  const std::string located = "Content-Type: image/png\nContent-Location: pics/chart.png\n\nPNG";
  const std::string html =
      "Content-Type: text/html\n\n<img src=\"cid:logo%40x\"><img src = 'pics/chart.png'>";
  auto mail = Read("c.eml", "Subject: s\n" + Multipart("related", {html, kLogo, located,
                                                                   "Content-Type: image/png\n"
                                                                   "Content-ID: <other@x>\n\nP"}));
  ASSERT_EQ(mail->parts.size(), 3u);
  EXPECT_EQ(mail->parts[0].contentId, "Logo@X");
  EXPECT_TRUE(mail->parts[0].referencedByBody);
  EXPECT_TRUE(mail->parts[1].referencedByBody);
  EXPECT_FALSE(mail->parts[2].referencedByBody);
}

TEST_F(MailMessageTest, PartsReadFromSeveralThreadsAtOnceComeOutWhole) {
  std::string big;
  for (int i = 0; i < 60000; ++i) big += static_cast<char>('a' + i % 26);
  gchar* encoded = g_base64_encode(reinterpret_cast<const guchar*>(big.data()), big.size());
  std::string lines;
  for (std::string_view rest = encoded; !rest.empty();
       rest.remove_prefix(std::min<size_t>(76, rest.size()))) {
    lines += std::string(rest.substr(0, 76)) + "\n";
  }
  g_free(encoded);
  const std::string part =
      "Content-Type: application/octet-stream\nContent-Transfer-Encoding: base64\n\n" + lines;
  auto mail = Read("t.eml", Multipart("mixed", {kPlain, part, part}));
  ASSERT_EQ(mail->parts.size(), 2u);
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 100; ++i) {
        std::string content;
        if (!ReadPartContent(mail->parts[(t + i) % 2], content) || content != big) ++wrong;
        if (ReadBodyText(mail->textBody, nullptr) != "plain text") ++wrong;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong.load(), 0);
}

TEST_F(MailMessageTest, DamagedEncodingsAreDecodedAsFarAsPossibleAndReported) {
  auto mail = Read(
      "d.eml",
      "Subject: s\n" +
          Multipart(
              "mixed",
              {"Content-Type: text/plain\nContent-Transfer-Encoding: base64\n\nYWJj=ZGVm\nZ2hp",
               "Content-Type: application/pdf; name=x.pdf\nContent-Transfer-Encoding: "
               "base64\n\nJV!BE\xA0Rg==",
               "Content-Type: application/zip; name=empty.zip\n\n",
               "Content-Type: text/plain; charset=x-nonesuch; name=n.txt\n\ntext"}));
  EXPECT_EQ(Text(mail->textBody), "abcdefghi");
  std::string pdf;
  ASSERT_TRUE(ReadPartContent(mail->parts[0], pdf));
  EXPECT_EQ(pdf, "%PDF");
  EXPECT_TRUE(HasProblem(*mail, "The message text has base64 padding in the middle"));
  EXPECT_TRUE(HasProblem(*mail,
                         "The attachment \"x.pdf\" is damaged: its base64 encoding has invalid "
                         "characters; what could be decoded is kept."));
  EXPECT_TRUE(HasProblem(*mail, "The attachment \"empty.zip\" has no content."));

  auto unknown = Read("u.eml", "Content-Type: text/plain; charset=x-nonesuch\n\ntext\n");
  EXPECT_TRUE(HasProblem(*unknown, "x-nonesuch")) << ::testing::PrintToString(unknown->problems);
  auto meta = Read("m.eml", "Content-Type: text/html\n\n<meta charset='iso-8859-1'>\xE9\n");
  EXPECT_EQ(Text(meta->htmlBody), "<meta charset='iso-8859-1'>\xC3\xA9\r\n");
}

TEST_F(MailMessageTest, MalformedMultipartStillGivesAMessageWithAProblem) {
  auto unclosed = Read("x.eml", "Subject: s\nContent-Type: multipart/mixed; boundary=B\n\n--B\n" +
                                    kPlain + "\n--B\nContent-Type: image/png\n\nPN");
  EXPECT_EQ(Text(unclosed->textBody), "plain text");
  EXPECT_TRUE(HasProblem(*unclosed, "closing boundary"));
  auto unbounded = Read("y.eml", "Subject: s\nContent-Type: multipart/mixed\n\n--B\nhello\n");
  EXPECT_EQ(unbounded->subject, "s");
  EXPECT_EQ(unbounded->plainBody, "--B\nhello");
  EXPECT_EQ(unbounded->problems,
            std::vector<std::string>{
                "A multipart section has no boundary, so its parts cannot be told apart."});
  auto headless = Read("z.eml", "just text\nand more\n");
  EXPECT_EQ(Text(headless->textBody), "just text\r\nand more\r\n");
  EXPECT_EQ(headless->problems, std::vector<std::string>{"The file starts without a header; all "
                                                         "of it is taken as the text."});
}

TEST_F(MailMessageTest, UnreadableFilesFailWithASentence) {
  std::string error;
  EXPECT_EQ(ReadMailFile(folder_.PathOf("none.eml"), &error), nullptr);
  EXPECT_EQ(error, "The file \"" + folder_.PathOf("none.eml") + "\" does not exist.");
  EXPECT_EQ(ReadMailFile(folder_.Write("empty.eml", ""), &error), nullptr);
  EXPECT_EQ(error, "The file \"" + folder_.PathOf("empty.eml") + "\" is empty.");
}

TEST_F(MailMessageTest, WriteNewFileReplacesAPlantedLinkWithoutTouchingItsTarget) {
  const std::string target = folder_.Write("target.txt", "keep");
  std::filesystem::create_symlink(target, folder_.PathOf("out.bin"));
  std::string error;
  ASSERT_TRUE(WriteNewFile(folder_.PathOf("out.bin"), std::string(3 << 20, 'x'), &error)) << error;
  EXPECT_FALSE(std::filesystem::is_symlink(folder_.PathOf("out.bin")));
  EXPECT_EQ(folder_.Read("out.bin").size(), 3u << 20);
  EXPECT_EQ(folder_.Read("target.txt"), "keep");
  EXPECT_EQ(std::filesystem::status(folder_.PathOf("out.bin")).permissions() &
                std::filesystem::perms::all,
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);

  EXPECT_FALSE(WriteNewFile(folder_.PathOf("no/such/folder.bin"), "x", &error));
  EXPECT_EQ(
      error.rfind("The file \"" + folder_.PathOf("no/such/folder.bin") + "\" cannot be created", 0),
      0u)
      << error;
}

TEST(MailMessageCorpus, EveryPythonTestMessageReadsIntoValidText) {
  const std::filesystem::path corpus = "/usr/lib/python3.11/test/test_email/data";
  std::error_code status;
  if (!std::filesystem::is_directory(corpus, status)) GTEST_SKIP() << "no corpus at " << corpus;
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(corpus)) {
    const std::string name = entry.path().filename().string();
    if (name.rfind("msg_", 0) != 0 || entry.path().extension() != ".txt") continue;
    SCOPED_TRACE(name);
    ++count;
    std::string error;
    auto mail = ReadMailFile(entry.path().string(), &error);
    ASSERT_NE(mail, nullptr) << error;
    std::vector<std::string> texts = {mail->subject, mail->senderName, mail->fromLine, mail->to,
                                      mail->cc,      mail->bcc,        mail->plainBody};
    texts.insert(texts.end(), mail->problems.begin(), mail->problems.end());
    for (const MailPart& part : mail->parts) {
      texts.push_back(part.fileName);
      EXPECT_FALSE(part.fileName.empty());
      std::string content;
      EXPECT_TRUE(ReadPartContent(part, content));
    }
    std::string problem;
    texts.push_back(ReadBodyText(mail->htmlBody ? mail->htmlBody : mail->textBody, &problem));
    for (const std::string& text : texts) EXPECT_TRUE(IsValidUtf8(text)) << text;
  }
  EXPECT_EQ(count, 47);
}

}  // namespace
}  // namespace mrwl::host
