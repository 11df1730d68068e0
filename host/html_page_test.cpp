#include "host/html_page.h"

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <gmime/gmime.h>
#include <gtest/gtest.h>

#include "host/mail_message.h"
#include "host/mime_text.h"
#include "testing/temp_folder.h"

namespace mrwl::host {
namespace {

namespace fs = std::filesystem;
constexpr std::size_t npos = std::string::npos;
constexpr std::string_view kPng = "\x89PNG\r\n\x1a\nfirst";
constexpr std::string_view kGif = "GIF89a second";

// A mail with an HTML body and two pictures, base64 of kPng and kGif.
std::string HtmlMail(std::string_view html, std::string_view charset = "utf-8") {
  return "From: a@x.org\r\nSubject: s\r\nMIME-Version: 1.0\r\n"
         "Content-Type: multipart/related; boundary=\"b\"\r\n\r\n"
         "--b\r\nContent-Type: text/html; charset=" +
         std::string(charset) + "\r\nContent-Transfer-Encoding: 8bit\r\n\r\n" + std::string(html) +
         "\r\n--b\r\nContent-Type: image/png\r\nContent-ID: <one@x>\r\n"
         "Content-Transfer-Encoding: base64\r\n\r\niVBORw0KGgpmaXJzdA==\r\n"
         "--b\r\nContent-Type: image/gif\r\nContent-ID: <two@x>\r\n"
         "Content-Location: pics/two.gif\r\nContent-Transfer-Encoding: base64\r\n\r\n"
         "R0lGODlhIHNlY29uZA==\r\n--b--\r\n";
}

class HtmlPage : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { g_mime_init(); }

  // Parses `eml` into a fresh message: a single part is its text body; of a multipart, the first
  // part is the HTML body and the others are pictures the body refers to, named by `names`.
  void Parse(const std::string& eml, std::vector<std::string> names = {"image.png", "image.gif"}) {
    message_ = std::make_unique<MailMessage>();
    GMimeStream* stream = g_mime_stream_mem_new_with_buffer(eml.data(), eml.size());
    GMimeParser* parser = g_mime_parser_new_with_stream(stream);
    message_->message = g_mime_parser_construct_message(parser, nullptr);
    g_object_unref(parser);
    g_object_unref(stream);
    ASSERT_NE(message_->message, nullptr);
    GMimeObject* root = g_mime_message_get_mime_part(message_->message);
    if (!GMIME_IS_MULTIPART(root)) {
      message_->textBody = root;
      message_->bodyText = ReadBodyText(root, nullptr);
      return;
    }
    GMimeMultipart* multipart = GMIME_MULTIPART(root);
    message_->htmlBody = g_mime_multipart_get_part(multipart, 0);
    message_->bodyText = ReadBodyText(message_->htmlBody, nullptr);
    for (int i = 1; i < g_mime_multipart_get_count(multipart); ++i) {
      GMimeObject* leaf = g_mime_multipart_get_part(multipart, i);
      const char* id = g_mime_object_get_content_id(leaf);
      message_->parts.push_back({leaf, names[i - 1], id != nullptr ? id : "", "image/png", true});
    }
  }

  // Writes the page to `name` and answers its text, empty when the write failed.
  std::string Write(const std::string& name = "page.html") {
    error_.clear();
    return WriteHtmlPage(*message_, temp_.PathOf(name), &error_) ? temp_.Read(name) : "";
  }

  testing::TempFolder temp_;
  std::unique_ptr<MailMessage> message_ = std::make_unique<MailMessage>();
  std::string error_;
};

// The page is UTF-8 whatever the mail declared, fetches nothing, and keeps nothing that could run
// where it is rendered.
TEST_F(HtmlPage, IsUtf8AndSafeWhenTheMailDeclaredLatin1AndHoldsScript) {
  Parse(
      HtmlMail("<html><head><meta http-equiv=\"Content-Type\" content=\"text/html; "
               "charset=iso-8859-1\"></head><body onload=\"steal()\"><img src=https://x.org/a.png>"
               "<img src='cid:no@x'>caf\xe9<SCRIPT>alert(1)</script><a href=\" jav&#x61;script:"
               "go()\" onclick=\"go()\">a</a><img src=x ONERROR=go()><base href=\"http://x/\">"
               "<iframe src=\"data:text/html,go()\" srcdoc=\"go()\"></iframe>kept</body></html>",
               "iso-8859-1"));
  message_->subject = "Caf\xc3\xa9 <menu>";
  const std::string page = Write();
  ASSERT_FALSE(page.empty()) << error_;
  EXPECT_TRUE(IsValidUtf8(page));
  EXPECT_EQ(page.find("iso-8859-1"), npos);
  EXPECT_NE(page.find("<meta charset=\"utf-8\">"), npos);
  EXPECT_NE(page.find("<title>Caf\xc3\xa9 &lt;menu&gt;</title>"), npos);
  // The header block opens the mail's own body.
  EXPECT_NE(page.find("<body><div class=\"mrwl-header\">"), npos);
  EXPECT_NE(page.find("<img src=https://x.org/a.png><img src='cid:no@x'>caf\xc3\xa9<a"), npos);
  EXPECT_FALSE(temp_.Exists("page_files"));
  for (std::string_view gone : {"steal", "alert", "go()", "<base", "onerror", "onclick"}) {
    EXPECT_EQ(page.find(gone), npos) << gone;
  }
  EXPECT_NE(page.find("<a href=\"#\">a</a><img src=x>"), npos);
  EXPECT_NE(page.find("<iframe src=\"#\"></iframe>kept</body>"), npos);
  EXPECT_EQ(page.find("class=\"mrwl-note\""), npos) << "a note without problems";
}

TEST_F(HtmlPage, HeaderBlockShowsItsRowsInOrderAndCcOnlyWhenGiven) {
  for (const std::string cc : {"Cy <c@x.org>", ""}) {
    SCOPED_TRACE(cc);
    message_->fromLine = "Ann Lee <ann@x.org>";
    message_->to = "Bo; Cy";
    message_->cc = cc;
    message_->subject = "Plans & dates";
    message_->sentUnixSeconds = 1795452404;
    message_->parts = {{nullptr, "a.pdf", "", "application/pdf", false},
                       {nullptr, "logo.png", "logo@x", "image/png", true},
                       {nullptr, "b.txt", "", "text/plain", false}};
    const std::string page = Write();
    ASSERT_FALSE(page.empty()) << error_;
    std::size_t last = 0;
    for (const std::string label : {"From:", "Sent:", "To:", "Cc:", "Subject:", "Attachments:"}) {
      const std::size_t at = page.find("<b>" + label + "</b>");
      if (label == "Cc:" && cc.empty()) {
        EXPECT_EQ(at, npos);
        continue;
      }
      ASSERT_NE(at, npos) << label;
      EXPECT_GT(at, last) << label;
      last = at;
    }
    EXPECT_NE(page.find("Ann Lee &lt;ann@x.org&gt;"), npos);
    EXPECT_NE(page.find(EscapeHtml(FormatSentDate(1795452404))), npos);
    EXPECT_NE(page.find("Plans &amp; dates"), npos);
    EXPECT_NE(page.find("<td>a.pdf; b.txt</td>"), npos);
    EXPECT_LT(last, page.find("<hr"));
  }
}

TEST_F(HtmlPage, WritesCidPicturesBesideThePageInEveryReferenceForm) {
  Parse(
      HtmlMail("<body background=cid:two@x><img src=\"cid:one@x\">"
               "<p style=\"background:url('CID:one%40x')\">x</p>"
               "<style>td{background:url(pics/two.gif)}</style></body>"));
  const std::string page = Write();
  ASSERT_FALSE(page.empty()) << error_;
  EXPECT_EQ(page.find("cid:"), npos);
  EXPECT_NE(page.find("background=page_files/image.gif>"), npos);
  EXPECT_NE(page.find("src=\"page_files/image.png\""), npos);
  EXPECT_NE(page.find("url('page_files/image.png')"), npos);
  EXPECT_NE(page.find("url(page_files/image.gif)"), npos);
  EXPECT_EQ(temp_.Read("page_files/image.png"), kPng);
  EXPECT_EQ(temp_.Read("page_files/image.gif"), kGif);
  EXPECT_EQ(fs::status(temp_.path() / "page_files").permissions() & fs::perms::all,
            fs::perms::owner_all);
}

// Two pictures of one name get files of their own, and their links are URL-encoded; a page
// without an extension still gets its companion folder.
TEST_F(HtmlPage, GivesPicturesOfOneNameTheirOwnFilesAndEncodesTheirUrls) {
  const struct {
    std::string page, name1, name2, file2, url1, url2;
  } cases[] = {
      {"page.html", "image.png", "IMAGE.png", "IMAGE (2).png", "image.png", "IMAGE%20%282%29.png"},
      {"page", "my photo#1?.png", "50%.gif", "50%.gif", "my%20photo%231%3F.png", "50%25.gif"},
      {"page.htm", "\xc3\xa9t\xc3\xa9.png", "b.gif", "b.gif", "%C3%A9t%C3%A9.png", "b.gif"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.url2);
    fs::remove_all(temp_.path() / "page_files");
    Parse(HtmlMail("<img src=\"cid:one@x\"><img src=\"cid:two@x\">"), {c.name1, c.name2});
    const std::string page = Write(c.page);
    ASSERT_FALSE(page.empty()) << error_;
    EXPECT_NE(page.find("src=\"page_files/" + c.url1 + "\""), npos);
    EXPECT_NE(page.find("src=\"page_files/" + c.url2 + "\""), npos);
    EXPECT_EQ(temp_.Read("page_files/" + c.name1), kPng);
    EXPECT_EQ(temp_.Read("page_files/" + c.file2), kGif);
  }
}

TEST_F(HtmlPage, ShowsTextBodyWithItsLinesLinksAndFlowedLinesJoinedBelowTheProblems) {
  Parse(
      "Subject: t\r\nContent-Type: text/plain; charset=utf-8; format=flowed; delsp=yes\r\n\r\n"
      "a < b\r\nsee https://example.com/x\r\nsoft \r\nbreak\r\n");
  message_->problems = {"The character set \"x-foo\" is unknown; the text is shown as UTF-8."};
  const std::string page = Write();
  ASSERT_FALSE(page.empty()) << error_;
  EXPECT_TRUE(page.starts_with("<!DOCTYPE html>"));
  EXPECT_NE(page.find("href=\"https://example.com/x\""), npos);
  EXPECT_NE(page.find("softbreak"), npos);
  EXPECT_LT(page.find("a &lt; b"), page.find("see "));
  const std::size_t note = page.find("<div class=\"mrwl-note\">");
  ASSERT_NE(note, npos);
  EXPECT_NE(page.find("&quot;x-foo&quot; is unknown", note), npos);
  EXPECT_LT(page.find("<hr"), note);
  EXPECT_LT(note, page.find("a &lt; b"));
}

TEST_F(HtmlPage, ReusesARealCompanionFolderButRefusesALinkAndThenLeavesNoPage) {
  Parse(HtmlMail("<img src=\"cid:one@x\">"));
  temp_.Write("page_files/earlier.txt", "kept");
  ASSERT_FALSE(Write().empty()) << error_;
  EXPECT_EQ(temp_.Read("page_files/earlier.txt"), "kept");
  EXPECT_EQ(temp_.Read("page_files/image.png"), kPng);

  fs::remove_all(temp_.path() / "page_files");
  fs::remove(temp_.path() / "page.html");
  fs::create_directory(temp_.path() / "elsewhere");
  fs::create_directory_symlink(temp_.path() / "elsewhere", temp_.path() / "page_files");
  EXPECT_EQ(Write(), "");
  EXPECT_NE(error_.find("symbolic link"), npos) << error_;
  EXPECT_FALSE(temp_.Exists("page.html"));
  EXPECT_TRUE(fs::is_empty(temp_.path() / "elsewhere"));
}

TEST_F(HtmlPage, ListsOnlyTheUnreferencedPartsOfAFileReadFromDisk) {
  const std::string path = temp_.Write(
      "mail.eml",
      "From: Ann <ann@x.org>\r\nTo: bo@x.org\r\nSubject: Report\r\nMIME-Version: 1.0\r\n"
      "Content-Type: multipart/mixed; boundary=m\r\n\r\n--m\r\n" +
          HtmlMail("<img src=\"cid:one@x\"><img src=\"pics/two.gif\">").substr(46) +
          "\r\n--m\r\nContent-Type: application/pdf\r\nContent-Disposition: attachment; "
          "filename=report.pdf\r\n\r\n%PDF\r\n--m--\r\n");
  std::shared_ptr<const MailMessage> message = ReadMailFile(path, &error_);
  ASSERT_NE(message, nullptr) << error_;
  ASSERT_TRUE(WriteHtmlPage(*message, temp_.PathOf("page.html"), &error_)) << error_;
  const std::string page = temp_.Read("page.html");
  EXPECT_NE(page.find("<b>Attachments:</b></td><td>report.pdf</td>"), npos);
  // The pictures keep the names the message gave them, whatever those are.
  const std::string_view link = "<img src=\"page_files/";
  ASSERT_NE(page.find(link), npos);
  const std::size_t start = page.find(link) + link.size();
  EXPECT_EQ(temp_.Read("page_files/" + page.substr(start, page.find('"', start) - start)), kPng);
}

TEST_F(HtmlPage, NamesTheCompanionFolderAfterThePage) {
  const std::pair<std::string, std::string> cases[] = {{"/t/mrwm_1.html", "/t/mrwm_1_files"},
                                                       {"/t/a.HTM", "/t/a_files"},
                                                       {"/t/a", "/t/a_files"},
                                                       {"/t/a.html.txt", "/t/a.html.txt_files"}};
  for (const auto& [page, folder] : cases) EXPECT_EQ(CompanionFolderOf(page), folder) << page;
}

}  // namespace
}  // namespace mrwl::host
