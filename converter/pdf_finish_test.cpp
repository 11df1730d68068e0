#include "converter/pdf_finish.h"

#include <filesystem>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "converter/pdf_finish_test_support.h"
#include "testing/temp_folder.h"

namespace mrwl::converter {
namespace {

bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

class PdfFinishTest : public ::testing::Test {
 protected:
  // Finishes a page with a link into "out.pdf"; false with error_ set on failure.
  bool Finish(const FinishOptions& options, const std::vector<EmbeddedFile>& attachments = {},
              std::string_view pdf = {}) {
    notes_.clear();
    error_.clear();
    const std::string page = MakePagePdf("Hello", true);
    return FinishPdf(pdf.empty() ? page : pdf, options, attachments, Output(), notes_, error_);
  }
  // Finishes with the security of `type` and the given passwords (empty: not flagged).
  bool Protect(std::uint32_t type, std::uint32_t version, SecurityOptions security = {}) {
    security.type = type;
    FinishOptions options;
    options.pdfVersion = version;
    options.security = &security;
    return Finish(options);
  }
  // Whether `qpdf --show-encryption` reports `right` as allowed, or not, as expected.
  void ExpectRight(const std::string& shown, const std::string& right, bool allowed) {
    EXPECT_TRUE(Has(shown, right + (allowed ? ": allowed\n" : ": not allowed\n")))
        << right << " " << allowed << "\n"
        << shown;
  }
  std::string Output() const { return folder_.PathOf("out.pdf"); }
  std::string Bytes() const { return folder_.Read("out.pdf"); }
  ::mrwl::testing::CommandOutcome Qpdf(const std::string& arguments) {
    return RunQpdf(arguments, Output(), folder_);
  }
  // Whether the target is all the folder holds: no temporary file stays behind. (Before any qpdf
  // run, which leaves its own records.)
  bool OnlyTheTarget() const {
    const auto entries = std::filesystem::directory_iterator(folder_.path());
    return std::distance(begin(entries), end(entries)) == 1 && folder_.Exists("out.pdf");
  }

  ::mrwl::testing::TempFolder folder_;
  std::vector<std::string> notes_;
  std::string error_;
};

TEST_F(PdfFinishTest, LinksGoWithoutTheOptionAndOtherAnnotationsStay) {
  for (bool keepLinks : {true, false}) {
    SCOPED_TRACE(keepLinks);
    FinishOptions options;
    options.keepLinks = keepLinks;
    ASSERT_TRUE(Finish(options)) << error_;
    EXPECT_EQ(keepLinks, Has(Bytes(), "/Subtype /Link"));
    EXPECT_TRUE(Has(Bytes(), "/Subtype /Text"));
  }
}

TEST_F(PdfFinishTest, VersionFollowsTheRequestAndOutOfRangeMeansOnePointSeven) {
  const std::pair<std::uint32_t, const char*> kCases[] = {
      {0x10003, "%PDF-1.3"}, {0x10004, "%PDF-1.4"}, {0x10005, "%PDF-1.5"}, {0x10006, "%PDF-1.6"},
      {0x10007, "%PDF-1.7"}, {0x10002, "%PDF-1.7"}, {0x10008, "%PDF-1.7"}};
  for (const auto& [requested, header] : kCases) {
    SCOPED_TRACE(requested);
    FinishOptions options;
    options.pdfVersion = requested;
    ASSERT_TRUE(Finish(options)) << error_;
    EXPECT_EQ(header, Bytes().substr(0, 8));
    EXPECT_TRUE(notes_.empty());
  }
}

// qpdf silently drops the encryption when the version is too low for it, so each level is opened.
TEST_F(PdfFinishTest, EveryEncryptionLevelReallyEncryptsAtTheVersionItNeeds) {
  const struct {
    std::uint32_t type, requested;
    const char* header;
    const char* extension;  // as the catalog states it
    const char* revision;
    const char* note;
  } kCases[] = {
      {0, 0x10003, "%PDF-1.3", nullptr, "R = 2", nullptr},
      {1, 0x10003, "%PDF-1.4", nullptr, "R = 3", "PDF version raised to 1.4 for 128-bit RC4"},
      {2, 0x10004, "%PDF-1.6", nullptr, "R = 4", "PDF version raised to 1.6 for 128-bit AES"},
      {2, 0x10007, "%PDF-1.7", nullptr, "R = 4", nullptr},
      {3, 0x10004, "%PDF-1.7", "/ExtensionLevel 3", "R = 5",
       "PDF version raised to 1.7 for 256-bit AES"},
      {4, 0x10007, "%PDF-1.7", "/ExtensionLevel 8", "R = 6", nullptr},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.revision + std::string(" from ") + std::to_string(c.requested));
    SecurityOptions security;
    security.hasUserPassword = security.hasOwnerPassword = true;
    security.userPassword = u"open sesame";
    security.ownerPassword = u"owner";
    ASSERT_TRUE(Protect(c.type, c.requested, security)) << error_;
    EXPECT_EQ(c.header, Bytes().substr(0, 8));
    EXPECT_EQ(c.extension != nullptr, Has(Bytes(), c.extension ? c.extension : "/ExtensionLevel"));
    EXPECT_EQ(c.note ? std::vector<std::string>{c.note + std::string(" encryption")}
                     : std::vector<std::string>{},
              notes_);
    const auto shown = Qpdf("--show-encryption --password='open sesame'");
    EXPECT_TRUE(Has(shown.out, c.revision + std::string("\n"))) << shown.out << shown.err;
    EXPECT_TRUE(
        Has(Qpdf("--show-encryption --password=owner").out, "Supplied password is owner password"));
    const auto refused = Qpdf("--check --password=wrong");
    EXPECT_EQ(2, refused.status);
    EXPECT_TRUE(Has(refused.err, "invalid password")) << refused.err;
    EXPECT_FALSE(Has(Bytes(), "(Hello) Tj"));
  }
}

TEST_F(PdfFinishTest, ChangesAndPrintingRowsBecomeTheirPermissions) {
  // Each row of "Changes Allowed" grants what the row before it grants and one right more.
  const char* kRights[] = {"modify document assembly", "modify forms", "modify annotations",
                           "modify other"};
  for (std::uint32_t type : {1u, 4u}) {
    for (std::uint32_t changes = 0; changes <= 4; ++changes) {
      SCOPED_TRACE("type " + std::to_string(type) + " changes " + std::to_string(changes));
      SecurityOptions security;
      security.changes = changes;
      security.printing = changes % 3;
      security.contentAccess = changes % 2 == 0;
      security.allowCopying = changes % 2 == 1;
      ASSERT_TRUE(Protect(type, 0x10007, security)) << error_;
      const std::string shown = Qpdf("--show-encryption").out;
      for (std::uint32_t row = 0; row < 4; ++row) ExpectRight(shown, kRights[row], changes > row);
      ExpectRight(shown, "print low resolution", security.printing >= 1);
      ExpectRight(shown, "print high resolution", security.printing == 2);
      // From R4 on qpdf always grants accessibility, as PDF 2.0 asks of every writer.
      ExpectRight(shown, "extract for accessibility", security.contentAccess || type >= 2);
      ExpectRight(shown, "extract for any purpose", security.allowCopying);
    }
  }
  for (bool allow : {true, false}) {
    SCOPED_TRACE(allow ? "40-bit, allowed" : "40-bit, not allowed");
    SecurityOptions security;
    security.allowPrinting40 = security.allowCopying40 = allow;
    security.allowChanging40 = security.allowComments40 = !allow;
    ASSERT_TRUE(Protect(0, 0x10004, security)) << error_;
    const std::string shown = Qpdf("--show-encryption").out;
    ExpectRight(shown, "print high resolution", allow);
    ExpectRight(shown, "extract for any purpose", allow);
    ExpectRight(shown, "modify other", !allow);
    ExpectRight(shown, "modify annotations", !allow);
  }
}

TEST_F(PdfFinishTest, PasswordsApplyOnlyWhenFlagged) {
  SecurityOptions security;
  security.userPassword = u"ignored";        // not flagged: the file opens without it
  security.ownerPassword = u"also ignored";  // not flagged: one nobody knows instead
  ASSERT_TRUE(Protect(2, 0x10006, security)) << error_;
  EXPECT_EQ(3, Qpdf("--requires-password").status);  // encrypted, opens without a password
  EXPECT_EQ(2, Qpdf("--check --password=ignored").status);
  // Neither the empty password nor the unflagged one gives the owner's rights.
  EXPECT_TRUE(Has(Qpdf("--show-encryption").out, "Supplied password is user password"));
  EXPECT_TRUE(Has(Qpdf("--show-encryption --password='also ignored'").out, "Incorrect password"));
}

TEST_F(PdfFinishTest, MetadataStaysReadableOnlyWhenItsEncryptionIsOff) {
  for (std::uint32_t type : {2u, 3u, 4u}) {
    for (bool encryptMetadata : {true, false}) {
      SCOPED_TRACE(std::to_string(type) + (encryptMetadata ? " encrypted" : " plain"));
      SecurityOptions security;
      security.encryptMetadata = encryptMetadata;
      ASSERT_TRUE(Protect(type, 0x10007, security)) << error_;
      // qpdf never compresses metadata, so unencrypted it stands in the file as written.
      EXPECT_EQ(!encryptMetadata, Has(Bytes(), kMetadataText));
      EXPECT_EQ(!encryptMetadata, Has(Bytes(), "/EncryptMetadata false"));
    }
  }
}

TEST_F(PdfFinishTest, CompressionLevelsDecideStreamsAndObjectStreams) {
  const struct {
    std::uint32_t compression, version;
    bool flate, objectStreams;
  } kCases[] = {{0, 0x10007, false, false},
                {1, 0x10007, true, false},
                {2, 0x10005, true, true},
                {2, 0x10004, true, false}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::to_string(c.compression) + " at " + std::to_string(c.version));
    FinishOptions options;
    options.compression = c.compression;
    options.pdfVersion = c.version;
    ASSERT_TRUE(Finish(options)) << error_;
    EXPECT_EQ(!c.flate, Has(Bytes(), "(Hello) Tj"));  // readable only while uncompressed
    EXPECT_EQ(c.objectStreams, Has(Bytes(), "/ObjStm"));
    EXPECT_EQ(0, Qpdf("--check").status);
  }
}

TEST_F(PdfFinishTest, AttachmentsKeepTheirNamesEvenWhenTwoShareOne) {
  const std::string first = folder_.Write("a/report.txt", "first report");
  const std::string second = folder_.Write("b/report.txt", "second report");
  const std::string third = folder_.Write("c/x.bin", std::string("\0\1\2", 3));
  ASSERT_TRUE(Finish({}, {{first, u"report.txt"}, {second, u"report.txt"}, {third, u"Ü.bin"}}))
      << error_;
  const std::map<std::string, std::pair<std::string, std::string>> expected = {
      {"report.txt", {"report.txt", "first report"}},
      {"report.txt (2)", {"report.txt", "second report"}},
      {"Ü.bin", {"Ü.bin", std::string("\0\1\2", 3)}}};
  EXPECT_EQ(expected, EmbeddedFilesOf(Output()));
}

TEST_F(PdfFinishTest, TheTargetIsReplacedWholeOrNotAtAll) {
  folder_.Write("out.pdf", std::string(1 << 20, 'x'));
  ASSERT_TRUE(Finish({})) << error_;
  EXPECT_TRUE(OnlyTheTarget());
  EXPECT_FALSE(Has(Bytes(), "xxxx"));  // a longer old file is not left standing behind the new

  folder_.Write("out.pdf", "old");
  EXPECT_FALSE(Finish({}, {}, "not a pdf"));
  EXPECT_TRUE(Has(error_, "could not be finished")) << error_;
  EXPECT_FALSE(Finish({}, {{folder_.PathOf("gone.txt"), u"gone.txt"}}));
  EXPECT_TRUE(Has(error_, "attachment \"gone.txt\"")) << error_;
  EXPECT_EQ("old", Bytes());
  EXPECT_TRUE(OnlyTheTarget());

  // The target is a folder: the rename fails after the whole file was written.
  std::filesystem::remove(folder_.path() / "out.pdf");
  folder_.Write("out.pdf/keep.txt", "kept");
  EXPECT_FALSE(Finish({}));
  EXPECT_TRUE(Has(error_, "\"" + Output() + "\" could not be written")) << error_;
  EXPECT_EQ("kept", folder_.Read("out.pdf/keep.txt"));
  EXPECT_TRUE(OnlyTheTarget());

  std::vector<std::string> notes;
  EXPECT_FALSE(
      FinishPdf(MakePagePdf("Hi", false), {}, {}, folder_.PathOf("no/out.pdf"), notes, error_));
  EXPECT_TRUE(Has(error_, "cannot be written in the folder of")) << error_;
}

TEST(OleDateToPdfDate, CountsDaysFromTheEpochAndRoundsToTheSecond) {
  const std::pair<double, const char*> kCases[] = {{0.0, "D:18991230000000"},
                                                   {2.0, "D:19000101000000"},
                                                   {25569.0, "D:19700101000000"},
                                                   {45000.5, "D:20230315120000"},
                                                   {45000 + 1 / 3.0, "D:20230315080000"},
                                                   {45351.75, "D:20240229180000"},
                                                   {45000.999999999, "D:20230316000000"},
                                                   {-1.25, "D:18991229060000"}};
  for (const auto& [ole, pdf] : kCases) {
    SCOPED_TRACE(ole);
    EXPECT_EQ(pdf, OleDateToPdfDate(ole));
  }
}

}  // namespace
}  // namespace mrwl::converter
