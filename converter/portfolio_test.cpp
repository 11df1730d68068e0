#include <map>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "converter/pdf_finish.h"
#include "converter/pdf_finish_test_support.h"
#include "testing/temp_folder.h"

namespace mrwl::converter {
namespace {

class PortfolioTest : public ::testing::Test {
 protected:
  PortfolioEntry& AddMail(std::u16string fileName, std::u16string from, std::u16string subject,
                          double received) {
    PortfolioEntry& entry = entries_.emplace_back();
    entry.pdf = MakePagePdf("mail", false);
    entry.record = {std::move(fileName),
                    std::move(from),
                    u"team@example.org",
                    u"cc@example.org",
                    u"",
                    std::move(subject),
                    u"2",
                    u"0",
                    received};
    return entry;
  }

  bool Build(const FinishOptions& options = {}) {
    notes_.clear();
    error_.clear();
    return BuildPortfolio(MakePagePdf("Cover", false), entries_, options, Output(), notes_, error_);
  }
  std::string Output() const { return folder_.PathOf("portfolio.pdf"); }

  ::mrwl::testing::CommandOutcome Qpdf(const std::string& arguments) {
    return RunQpdf(arguments, Output(), folder_);
  }

  ::mrwl::testing::TempFolder folder_;
  std::vector<PortfolioEntry> entries_;
  std::vector<std::string> notes_;
  std::string error_;
};

TEST_F(PortfolioTest, ThreeMailsMakeACollectionWithSchemaSortAndItems) {
  AddMail(u"Budget.pdf", u"Ann <ann@example.org>", u"Budget", 45002.25);
  AddMail(u"Plan.pdf", u"Bärbel <b@example.org>", u"Plan für Q3", 45000.5)
      .attachments.push_back({folder_.Write("plan.txt", "the plan"), u"plan.txt"});
  AddMail(u"Minutes.pdf", u"Carl <c@example.org>", u"Minutes", 45001.0);
  ASSERT_TRUE(Build()) << error_;
  EXPECT_EQ(0, Qpdf("--check").status);

  QPDF pdf;
  pdf.processFile(Output().c_str());
  QPDFObjectHandle root = pdf.getRoot();
  EXPECT_EQ(1u, QPDFPageDocumentHelper(pdf).getAllPages().size());
  EXPECT_TRUE(root.getKey("/PageMode").isNameAndEquals("/UseAttachments"));
  QPDFObjectHandle collection = root.getKey("/Collection");
  EXPECT_TRUE(collection.getKey("/View").isNameAndEquals("/D"));
  EXPECT_TRUE(collection.getKey("/Sort").getKey("/S").isNameAndEquals("/Received"));

  const char* kFields[] = {"From",    "To",       "Cc",         "Bcc",
                           "Subject", "Received", "Importance", "Sensitivity"};
  for (int order = 1; order <= 8; ++order) {
    const std::string name = kFields[order - 1];
    SCOPED_TRACE(name);
    QPDFObjectHandle field = collection.getKey("/Schema").getKey("/" + name);
    EXPECT_TRUE(field.getKey("/Subtype").isNameAndEquals(name == "Received" ? "/D" : "/S"));
    EXPECT_EQ(name, field.getKey("/N").getUTF8Value());
    EXPECT_EQ(order, field.getKey("/O").getIntValueAsInt());
    EXPECT_TRUE(field.getKey("/V").isBool());
  }

  auto files = QPDFEmbeddedFileDocumentHelper(pdf).getEmbeddedFiles();
  ASSERT_EQ(4u, files.size());
  EXPECT_EQ("Plan.pdf", files.at("Plan.pdf")->getFilename());
  const auto item = [&files](const char* key, const char* field) {
    return files.at(key)->getObjectHandle().getKey("/CI").getKey(field).getUTF8Value();
  };
  for (const char* key : {"Plan.pdf", "plan.txt"}) {
    // The attachment sorts beside its mail because it carries the mail's values.
    SCOPED_TRACE(key);
    EXPECT_EQ("Bärbel <b@example.org>", item(key, "/From"));
    EXPECT_EQ("Plan für Q3", item(key, "/Subject"));
    EXPECT_EQ("team@example.org", item(key, "/To"));
    EXPECT_EQ("D:20230315120000", item(key, "/Received"));
    EXPECT_EQ("2", item(key, "/Importance"));
  }

  const auto bytes = EmbeddedFilesOf(Output());
  EXPECT_EQ(entries_[0].pdf, bytes.at("Budget.pdf").second);
  EXPECT_EQ("the plan", bytes.at("plan.txt").second);
}

TEST_F(PortfolioTest, SixtyMailsPassTheCheckWithoutLimitsOnTheRoot) {
  for (int i = 0; i < 60; ++i) {
    const std::u16string number = platform::Utf8ToUtf16(std::to_string(100 + i));
    AddMail(u"Mail " + number + u".pdf", u"sender" + number, u"Subject " + number,
            45000.0 + i / 24.0);
  }
  ASSERT_TRUE(Build()) << error_;
  const auto checked = Qpdf("--check");
  EXPECT_EQ(0, checked.status) << checked.out << checked.err;
  std::map<std::string, std::string> shown;  // by name-tree key
  for (const auto& [key, file] : EmbeddedFilesOf(Output())) shown[key] = file.first;
  EXPECT_EQ(60u, shown.size());
  for (int i = 0; i < 60; ++i) {
    const std::string name = "Mail " + std::to_string(100 + i) + ".pdf";
    EXPECT_EQ(name, shown[name]);
  }

  QPDF pdf;
  pdf.processFile(Output().c_str());
  QPDFObjectHandle tree = pdf.getRoot().getKey("/Names").getKey("/EmbeddedFiles");
  EXPECT_TRUE(tree.hasKey("/Kids"));  // big enough for the tree to split
  EXPECT_FALSE(tree.hasKey("/Limits"));
}

TEST_F(PortfolioTest, NoMailsStillMakeAValidPortfolioOfTheCover) {
  ASSERT_TRUE(Build()) << error_;
  EXPECT_EQ(0, Qpdf("--check").status);
  QPDF pdf;
  pdf.processFile(Output().c_str());
  EXPECT_EQ(1u, QPDFPageDocumentHelper(pdf).getAllPages().size());
  EXPECT_TRUE(pdf.getRoot().getKey("/Collection").isDictionary());
  EXPECT_FALSE(QPDFEmbeddedFileDocumentHelper(pdf).hasEmbeddedFiles());
}

TEST_F(PortfolioTest, SecurityAndVersionApplyToThePortfolio) {
  AddMail(u"One.pdf", u"Ann", u"One", 45000.0);
  SecurityOptions security;
  security.type = 2;
  security.hasUserPassword = true;
  security.userPassword = u"secret";
  FinishOptions options;
  options.pdfVersion = 0x10004;
  options.compression = 2;
  options.security = &security;
  ASSERT_TRUE(Build(options)) << error_;
  EXPECT_EQ(std::vector<std::string>{"PDF version raised to 1.6 for 128-bit AES encryption"},
            notes_);
  EXPECT_EQ("%PDF-1.6", folder_.Read("portfolio.pdf").substr(0, 8));
  EXPECT_EQ(0, Qpdf("--requires-password").status);
  const auto files = EmbeddedFilesOf(Output(), "secret");
  ASSERT_EQ(1u, files.count("One.pdf"));
  EXPECT_EQ(std::make_pair(std::string("One.pdf"), entries_[0].pdf), files.at("One.pdf"));
}

TEST(PortfolioCoverHtml, NamesFolderAndUserAndListsTheMailsByReceivedEscaped) {
  std::vector<PortfolioEntry> entries(2);
  entries[0].record.from = u"Zoë <z@example.org>";
  entries[0].record.subject = u"Later & louder";
  entries[0].record.receivedTime = 45000.75;
  entries[1].record.from = u"Al";
  entries[1].record.subject = u"<script>alert(1)</script>";
  entries[1].record.receivedTime = 45000.25;
  const std::string html = PortfolioCoverHtml(u"Inbox \"Q3\"", u"me@example.org", entries);

  for (const char* part :
       {"<meta charset=\"utf-8\">", "<h1>Inbox &quot;Q3&quot;</h1>", "me@example.org",
        "<td>Zoë &lt;z@example.org&gt;</td><td>Later &amp; louder</td>"
        "<td>2023-03-15 18:00</td>"}) {
    EXPECT_NE(std::string::npos, html.find(part)) << part << "\n" << html;
  }
  EXPECT_EQ(std::string::npos, html.find("<script>"));
  const std::size_t early = html.find("2023-03-15 06:00");
  ASSERT_NE(std::string::npos, early);
  EXPECT_LT(early, html.find("2023-03-15 18:00"));

  const std::string empty = PortfolioCoverHtml(u"Drafts", u"me", {});
  EXPECT_EQ(std::string::npos, empty.find("<table>"));
  EXPECT_NE(std::string::npos, empty.find("<h1>Drafts</h1>"));
}

}  // namespace
}  // namespace mrwl::converter
