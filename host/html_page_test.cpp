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

  // Parses `eml` into the message and takes its first part as the body; the other leaves become
  // parts named by `names`.
  void Parse(const std::string& eml, std::vector<std::string> names = {"image.png", "image.gif"}) {
    GMimeStream* stream = g_mime_stream_mem_new_with_buffer(eml.data(), eml.size());
    GMimeParser* parser = g_mime_parser_new_with_stream(stream);
    message_->message = g_mime_parser_construct_message(parser, nullptr);
    g_object_unref(parser);
    g_object_unref(stream);
    ASSERT_NE(message_->message, nullptr);
    std::vector<GMimeObject*> leaves;
    GMimeObject* root = g_mime_message_get_mime_part(message_->message);
    if (GMIME_IS_MULTIPART(root)) {
      for (int i = 0; i < g_mime_multipart_get_count(GMIME_MULTIPART(root)); ++i) {
        leaves.push_back(g_mime_multipart_get_part(GMIME_MULTIPART(root), i));
      }
    } else {
      leaves.push_back(root);
    }
    const bool html =
        g_mime_content_type_is_type(g_mime_object_get_content_type(leaves[0]), "text", "html");
    (html ? message_->htmlBody : message_->textBody) = leaves[0];
    for (std::size_t i = 1; i < leaves.size(); ++i) {
      const char* id = g_mime_object_get_content_id(leaves[i]);
      message_->parts.push_back(
          {leaves[i], names[i - 1], id != nullptr ? id : "", "image/png", true});
    }
  }

  // Starts over with an empty message and no companion folder.
  void Reset() {
    message_ = std::make_unique<MailMessage>();
    fs::remove_all(temp_.path() / "page_files");
  }

  bool Write(const std::string& name = "page.html") {
    error_.clear();
    return WriteHtmlPage(*message_, temp_.PathOf(name), &error_);
  }
  std::string Page(const std::string& name = "page.html") { return temp_.Read(name); }

  testing::TempFolder temp_;
  std::unique_ptr<MailMessage> message_ = std::make_unique<MailMessage>();
  std::string error_;
};

TEST_F(HtmlPage, IsUtf8AndDeclaresOnlyUtf8WhenTheMailDeclaredLatin1AndFetchesNothing) {
  Parse(
      HtmlMail("<html><head><meta http-equiv=\"Content-Type\" content=\"text/html; "
               "charset=iso-8859-1\"></head><body><img src=https://x.org/a.png><img src='cid:no@x'>"
               "caf\xe9</body></html>",
               "iso-8859-1"));
  message_->subject = "Caf\xc3\xa9 <menu>";
  ASSERT_TRUE(Write()) << error_;
  const std::string page = Page();
  EXPECT_TRUE(IsValidUtf8(page));
  EXPECT_EQ(page.find("iso-8859-1"), std::string::npos);
  EXPECT_NE(page.find("<meta charset=\"utf-8\">"), std::string::npos);
  EXPECT_NE(page.find("caf\xc3\xa9</body>"), std::string::npos);
  EXPECT_NE(page.find("<title>Caf\xc3\xa9 &lt;menu&gt;</title>"), std::string::npos);
  // The header block opens the mail's own body.
  EXPECT_NE(page.find("<body><div class=\"mrwl-header\">"), std::string::npos);
  EXPECT_NE(page.find("<img src=https://x.org/a.png><img src='cid:no@x'>"), std::string::npos);
  EXPECT_FALSE(temp_.Exists("page_files"));
}

TEST_F(HtmlPage, HeaderBlockShowsItsRowsInOrderAndCcOnlyWhenGiven) {
  struct Case {
    std::string cc;
    std::vector<std::string> labels;
  };
  const Case cases[] = {
      {"Cy <c@x.org>", {"From:", "Sent:", "To:", "Cc:", "Subject:", "Attachments:"}},
      {"", {"From:", "Sent:", "To:", "Subject:", "Attachments:"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.cc);
    message_->fromLine = "Ann Lee <ann@x.org>";
    message_->to = "Bo; Cy";
    message_->cc = c.cc;
    message_->subject = "Plans & dates";
    message_->sentUnixSeconds = 1795452404;
    message_->parts = {{nullptr, "a.pdf", "", "application/pdf", false},
                       {nullptr, "logo.png", "logo@x", "image/png", true},
                       {nullptr, "b.txt", "", "text/plain", false}};
    ASSERT_TRUE(Write()) << error_;
    const std::string page = Page();
    std::size_t last = 0;
    for (const std::string& label : c.labels) {
      const std::size_t at = page.find("<b>" + label + "</b>");
      ASSERT_NE(at, std::string::npos) << label;
      EXPECT_GT(at, last) << label;
      last = at;
    }
    EXPECT_EQ(page.find("<b>Cc:</b>") != std::string::npos, !c.cc.empty());
    EXPECT_NE(page.find("Ann Lee &lt;ann@x.org&gt;"), std::string::npos);
    EXPECT_NE(page.find(EscapeHtml(FormatSentDate(1795452404))), std::string::npos);
    EXPECT_NE(page.find("Plans &amp; dates"), std::string::npos);
    EXPECT_NE(page.find("<td>a.pdf; b.txt</td>"), std::string::npos);
    EXPECT_LT(last, page.find("<hr"));
  }
}

TEST_F(HtmlPage, WritesCidPicturesBesideThePageInEveryReferenceForm) {
  Parse(
      HtmlMail("<body background=cid:two@x><img src=\"cid:one@x\">"
               "<p style=\"background:url('CID:one%40x')\">x</p>"
               "<style>td{background:url(pics/two.gif)}</style></body>"));
  ASSERT_TRUE(Write()) << error_;
  const std::string page = Page();
  EXPECT_EQ(page.find("cid:"), std::string::npos);
  EXPECT_NE(page.find("background=page_files/image.gif>"), std::string::npos);
  EXPECT_NE(page.find("src=\"page_files/image.png\""), std::string::npos);
  EXPECT_NE(page.find("url('page_files/image.png')"), std::string::npos);
  EXPECT_NE(page.find("url(page_files/image.gif)"), std::string::npos);
  EXPECT_EQ(temp_.Read("page_files/image.png"), kPng);
  EXPECT_EQ(temp_.Read("page_files/image.gif"), kGif);
  EXPECT_EQ(fs::status(temp_.path() / "page_files").permissions() & fs::perms::all,
            fs::perms::owner_all);
}

TEST_F(HtmlPage, GivesPicturesOfOneNameTheirOwnFilesAndEncodesTheirUrls) {
  struct Case {
    std::vector<std::string> names;
    std::string file1, file2, url1, url2;
  };
  const Case cases[] = {
      {{"image.png", "IMAGE.png"},
       "image.png",
       "IMAGE (2).png",
       "image.png",
       "IMAGE%20%282%29.png"},
      {{"my photo#1?.png", "50%.gif"},
       "my photo#1?.png",
       "50%.gif",
       "my%20photo%231%3F.png",
       "50%25.gif"},
      {{"\xc3\xa9t\xc3\xa9.png", "b.gif"},
       "\xc3\xa9t\xc3\xa9.png",
       "b.gif",
       "%C3%A9t%C3%A9.png",
       "b.gif"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file2);
    Reset();
    Parse(HtmlMail("<img src=\"cid:one@x\"><img src=\"cid:two@x\">"), c.names);
    ASSERT_TRUE(Write()) << error_;
    const std::string page = Page();
    EXPECT_NE(page.find("src=\"page_files/" + c.url1 + "\""), std::string::npos);
    EXPECT_NE(page.find("src=\"page_files/" + c.url2 + "\""), std::string::npos);
    EXPECT_EQ(temp_.Read("page_files/" + c.file1), kPng);
    EXPECT_EQ(temp_.Read("page_files/" + c.file2), kGif);
  }
}

TEST_F(HtmlPage, KeepsNoScriptOfTheMail) {
  Parse(
      HtmlMail("<body onload=\"steal()\"><SCRIPT>alert(1)</script><a href=\" jav&#x61;script:"
               "go()\">a</a><img src=x ONERROR=go()><base href=\"http://x/\">"
               "<iframe src=\"data:text/html,go()\" srcdoc=\"go()\"></iframe>kept</body>"));
  ASSERT_TRUE(Write()) << error_;
  const std::string page = Page();
  for (std::string_view gone : {"steal", "alert", "go()", "<base", "onerror"}) {
    EXPECT_EQ(page.find(gone), std::string::npos) << gone;
  }
  EXPECT_NE(page.find("<a href=\"#\">a</a><img src=x>"), std::string::npos);
  EXPECT_NE(page.find("<iframe src=\"#\"></iframe>kept</body>"), std::string::npos);
}

TEST_F(HtmlPage, ShowsTextBodyWithItsLinesLinksAndFlowedLinesJoined) {
  Parse(
      "Subject: t\r\nContent-Type: text/plain; charset=utf-8; format=flowed; delsp=yes\r\n\r\n"
      "a < b\r\nsee https://example.com/x\r\nsoft \r\nbreak\r\n");
  ASSERT_TRUE(Write()) << error_;
  const std::string page = Page();
  EXPECT_TRUE(page.starts_with("<!DOCTYPE html>"));
  EXPECT_NE(page.find("a &lt; b"), std::string::npos);
  EXPECT_NE(page.find("href=\"https://example.com/x\""), std::string::npos);
  EXPECT_NE(page.find("softbreak"), std::string::npos);
  EXPECT_LT(page.find("a &lt; b"), page.find("see "));
}

TEST_F(HtmlPage, ShowsProblemsInANoteBetweenHeaderAndBody) {
  message_->plainBody = "Meeting body";
  ASSERT_TRUE(Write()) << error_;
  EXPECT_EQ(Page().find("class=\"mrwl-note\""), std::string::npos);
  message_->problems = {"The character set \"x-foo\" is unknown; the text is shown as UTF-8."};
  ASSERT_TRUE(Write()) << error_;
  const std::string page = Page();
  const std::size_t note = page.find("<div class=\"mrwl-note\">");
  ASSERT_NE(note, std::string::npos);
  EXPECT_NE(page.find("&quot;x-foo&quot; is unknown", note), std::string::npos);
  EXPECT_LT(page.find("<hr"), note);
  EXPECT_LT(note, page.find("Meeting body"));
}

TEST_F(HtmlPage, ReusesARealCompanionFolderButRefusesALinkAndThenLeavesNoPage) {
  Parse(HtmlMail("<img src=\"cid:one@x\">"));
  temp_.Write("page_files/earlier.txt", "kept");
  ASSERT_TRUE(Write()) << error_;
  EXPECT_EQ(temp_.Read("page_files/earlier.txt"), "kept");
  EXPECT_EQ(temp_.Read("page_files/image.png"), kPng);

  fs::remove_all(temp_.path() / "page_files");
  fs::remove(temp_.path() / "page.html");
  fs::create_directory(temp_.path() / "elsewhere");
  fs::create_directory_symlink(temp_.path() / "elsewhere", temp_.path() / "page_files");
  EXPECT_FALSE(Write());
  EXPECT_NE(error_.find("symbolic link"), std::string::npos) << error_;
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
  const std::string page = Page();
  EXPECT_NE(page.find("<b>Attachments:</b></td><td>report.pdf</td>"), std::string::npos);
  // The pictures keep the names the message gave them, whatever those are.
  const std::string_view link = "<img src=\"page_files/";
  const std::size_t start = page.find(link) + link.size();
  ASSERT_NE(page.find(link), std::string::npos);
  EXPECT_EQ(temp_.Read("page_files/" + page.substr(start, page.find('"', start) - start)), kPng);
}

TEST_F(HtmlPage, NamesTheCompanionFolderAfterThePage) {
  const std::pair<std::string, std::string> cases[] = {{"/t/mrwm_1.html", "/t/mrwm_1_files"},
                                                       {"/t/a.HTM", "/t/a_files"},
                                                       {"/t/a", "/t/a_files"},
                                                       {"/t/a.html.txt", "/t/a.html.txt_files"}};
  for (const auto& [page, folder] : cases) EXPECT_EQ(CompanionFolderOf(page), folder) << page;

  Parse(HtmlMail("<img src=\"cid:one@x\">"));
  ASSERT_TRUE(Write("page")) << error_;
  EXPECT_NE(Page("page").find("src=\"page_files/image.png\""), std::string::npos);
  EXPECT_EQ(temp_.Read("page_files/image.png"), kPng);
}

}  // namespace
}  // namespace mrwl::host
