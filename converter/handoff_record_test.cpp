#include "converter/handoff_record.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "conversion/conversion_store.h"
#include "conversion/handoff_test_support.h"
#include "conversion/temp_store.h"
#include "foundation/stream.h"
#include "foundation/wide_string.h"
#include "platform/files.h"
#include "platform/kernel.h"
#include "settings/addin_settings.h"
#include "testing/temp_folder.h"

namespace mrwl::converter {
namespace {

using mrwl::testing::Golden;

std::string Utf8(std::u16string_view text) { return WideToUtf8(text); }

void PutU32(std::string& bytes, std::size_t at, std::uint32_t value) {
  for (int i = 0; i < 4; ++i) bytes[at + i] = static_cast<char>(value >> (8 * i));
}

// Builds stores with the add-in's own writer and reads them back with the converter's reader.
class HandoffRecordTest : public ::testing::Test {
 protected:
  mrwl::ConversionJob& AddJob(std::u16string_view page, std::u16string_view output) {
    mrwl::ConversionJob& job = *store_.NewJob();
    job.PagePath = page;
    job.OutputPath = output;
    job.DeletePage = true;
    return job;
  }

  void AddMail(mrwl::ConversionJob& job, std::u16string_view fileName, std::u16string_view subject,
               double received) {
    job.Record = mrwl::MailRecord::TryCreate();
    mrwl::MailRecord& mail = *job.Record;
    mail.FileName = fileName;
    mail.From = std::u16string_view(u"Ann Lee<ann.lee@example.org>");
    mail.To = std::u16string_view(u"Bob Stone; Cy Dunn");
    mail.Cc = std::u16string_view(u"Dee Eve");
    mail.Bcc = std::u16string_view(u"Fay");
    mail.Subject = subject;
    mail.Importance = std::u16string_view(u"2");
    mail.Sensitivity = std::u16string_view(u"3");
    mail.ReceivedTime = received;
  }

  void TurnOnSecurity() {
    store_.Security = SecuritySettings::Create();
    SecuritySettings& security = *store_.Security;
    security.secEnabled = security.secHasUserPassword = security.secHasOwnerPassword = true;
    // 57 units: 114 bytes, two full base64 lines with their line breaks.
    security.secUserPassword =
        std::u16string_view(u"user-password-that-is-long-enough-to-wrap-the-base64-lin");
    security.secOwnerPassword = std::u16string_view(u"\u00c9t\u00e9 \U0001F511 owner");
    security.secType = 4;
    security.sec40AllowPrinting = security.sec40AllowCopying = true;
    security.sec40AllowChanging = security.sec40AllowComments = false;
    security.sec128ContentAccess = true;
    security.sec128AllowCopying = security.sec128EncryptMeta = false;
    security.sec128Changes = 3;
    security.sec128Printing = 2;
  }

  // A store that uses every part of the layout: protection, a program of the user's, a portfolio
  // with mail records, attachments and text beyond the Basic Multilingual Plane.
  void FillEverything() {
    TurnOnSecurity();
    store_.RunApp = RunAppSettings::Create();
    store_.RunApp->RunCustPDFApp = true;
    store_.RunApp->RunPDFPath = std::u16string_view(u"/opt/viewer/bin/view");
    store_.RunApp->RunPDFParams = std::u16string_view(u"--page 1 \"%f\"");
    store_.Portfolio = true;
    store_.PortfolioOutputPath = std::u16string_view(u"/home/ann/Inbox.pdf");
    store_.PortfolioUser = std::u16string_view(u"ann@example.org");
    store_.PortfolioFolder = std::u16string_view(u"Inbox \u6536\u4ef6\u7bb1");
    mrwl::ConversionJob& first = AddJob(u"/tmp/mrwm_1.html", u"/home/ann/Inbox.pdf");
    first.Attachments.emplace_back(std::u16string_view(u"/tmp/a b/report.docx"));
    first.Attachments.emplace_back(std::u16string_view(u"/tmp/\U0001D11E.txt"));
    first.DeleteAttachments = true;
    AddMail(first, u"Q3 report.pdf", u"Re: Q3 \U0001F4C8", 46000.25);
    mrwl::ConversionJob& second = AddJob(u"/tmp/mrwm_2.html", u"/home/ann/Inbox.pdf");
    second.DeletePage = false;
    AddMail(second, u"Lunch.pdf", u"Lunch", 45999.75);
  }

  std::string Serialize() {
    MemoryStream stream;
    EXPECT_EQ(kOk, stream.Open(0, 0));
    EXPECT_TRUE(store_.SerializeStore(stream));
    return std::string(static_cast<const char*>(stream.GetData()),
                       static_cast<std::size_t>(stream.GetSize()));
  }

  HandoffRecord ReadBack() {
    HandoffRecord record;
    std::u16string error;
    EXPECT_TRUE(ParseHandoffRecord(Serialize(), record, error)) << Utf8(error);
    return record;
  }

  // The message of a record that must be refused.
  static std::string Refusal(std::string_view bytes) {
    HandoffRecord record;
    std::u16string error;
    EXPECT_FALSE(ParseHandoffRecord(bytes, record, error));
    return Utf8(error);
  }

  mrwl::ConversionStore store_;
};

// The settings store keeps the registry's terminator inside the program's strings.
TEST_F(HandoffRecordTest, PlainRunReadsBackWithoutRegistryTerminators) {
  store_.RunApp = RunAppSettings::Create();
  store_.RunApp->RunPDFPath = std::u16string_view(u"/usr/bin/evince\0", 16);
  store_.RunApp->RunPDFParams = std::u16string_view(u"%f\0", 3);
  AddJob(u"/tmp/mrwm_5f.html", u"/home/ann/Status.pdf");

  const HandoffRecord record = ReadBack();
  EXPECT_FALSE(record.security.has_value());
  ASSERT_TRUE(record.runApp.has_value());
  EXPECT_EQ(std::make_tuple(false, u"/usr/bin/evince", u"%f"),
            std::tie(record.runApp->custom, record.runApp->path, record.runApp->parameters));
  EXPECT_FALSE(record.portfolio);
  ASSERT_EQ(1u, record.jobs.size());
  const ConversionJob& job = record.jobs[0];
  EXPECT_EQ(std::make_tuple(u"/tmp/mrwm_5f.html", u"/home/ann/Status.pdf", true, false, false),
            std::make_tuple(job.pagePath, job.outputPath, job.deletePage, job.deleteAttachments,
                            job.record.has_value()));
  EXPECT_TRUE(job.attachments.empty());
}

TEST_F(HandoffRecordTest, EveryFieldOfAFullRecordReadsBack) {
  FillEverything();
  const HandoffRecord record = ReadBack();

  ASSERT_TRUE(record.security.has_value());
  const SecurityOptions& s = *record.security;
  EXPECT_EQ(u"user-password-that-is-long-enough-to-wrap-the-base64-lin", s.userPassword);
  EXPECT_EQ(u"\u00c9t\u00e9 \U0001F511 owner", s.ownerPassword);
  EXPECT_EQ(std::make_tuple(true, true, 4u, true, false, true, false, true, false, 3u, 2u, false),
            std::tie(s.hasUserPassword, s.hasOwnerPassword, s.type, s.allowPrinting40,
                     s.allowChanging40, s.allowCopying40, s.allowComments40, s.contentAccess,
                     s.allowCopying, s.changes, s.printing, s.encryptMetadata));

  ASSERT_TRUE(record.runApp.has_value());
  EXPECT_EQ(std::make_tuple(true, u"/opt/viewer/bin/view", u"--page 1 \"%f\""),
            std::tie(record.runApp->custom, record.runApp->path, record.runApp->parameters));
  EXPECT_EQ(std::make_tuple(true, u"/home/ann/Inbox.pdf", u"ann@example.org",
                            u"Inbox \u6536\u4ef6\u7bb1"),
            std::tie(record.portfolio, record.portfolioOutputPath, record.portfolioUser,
                     record.portfolioFolder));

  ASSERT_EQ(2u, record.jobs.size());
  const ConversionJob& first = record.jobs[0];
  EXPECT_EQ(u"/tmp/mrwm_1.html", first.pagePath);
  EXPECT_EQ((std::vector<std::u16string>{u"/tmp/a b/report.docx", u"/tmp/\U0001D11E.txt"}),
            first.attachments);
  EXPECT_TRUE(first.deletePage && first.deleteAttachments);
  ASSERT_TRUE(first.record.has_value());
  const MailRecord& m = *first.record;
  EXPECT_EQ(
      std::make_tuple(u"Q3 report.pdf", u"Ann Lee<ann.lee@example.org>", u"Bob Stone; Cy Dunn",
                      u"Dee Eve", u"Fay", u"Re: Q3 \U0001F4C8", u"2", u"3", 46000.25),
      std::tie(m.fileName, m.from, m.to, m.cc, m.bcc, m.subject, m.importance, m.sensitivity,
               m.receivedTime));

  EXPECT_FALSE(record.jobs[1].deletePage);
  EXPECT_EQ(45999.75, record.jobs[1].record->receivedTime);
}

TEST_F(HandoffRecordTest, EmptyPasswordsWithTheirFlagsSetReadBackEmpty) {
  TurnOnSecurity();
  store_.Security->secUserPassword.Clear();
  store_.Security->secOwnerPassword.Clear();
  const HandoffRecord record = ReadBack();
  ASSERT_TRUE(record.security.has_value());
  EXPECT_TRUE(record.security->hasUserPassword);
  EXPECT_EQ(u"", record.security->userPassword + record.security->ownerPassword);
}

TEST_F(HandoffRecordTest, EveryPrefixOfARecordIsRefused) {
  FillEverything();
  const std::string whole = Serialize();
  for (std::size_t length = 0; length < whole.size(); ++length) {
    SCOPED_TRACE("prefix of " + std::to_string(length) + " bytes");
    std::string prefix = whole.substr(0, length);
    const std::string asIs = Refusal(prefix);
    EXPECT_TRUE(asIs.find("TotalSize") != std::string::npos) << asIs;
    if (length < 4) continue;
    // With its TotalSize made to agree, the cut must be found by the fields themselves.
    PutU32(prefix, 0, static_cast<std::uint32_t>(length));
    const std::string message = Refusal(prefix);
    const bool pastEnd = message.find("runs past the end of the record") != std::string::npos;
    const bool tooMany = message.find("bytes that remain could hold") != std::string::npos;
    EXPECT_TRUE(pastEnd || tooMany) << message;
    const std::size_t at = message.rfind("(offset ");
    ASSERT_NE(std::string::npos, at) << message;
    EXPECT_LE(std::stoul(message.substr(at + 8)), length) << message;
  }
}

TEST_F(HandoffRecordTest, TotalSizeMustBeTheLengthExactly) {
  AddJob(u"/tmp/p.html", u"/tmp/o.pdf");
  const std::string whole = Serialize();
  const auto size = static_cast<std::uint32_t>(whole.size());
  for (const std::uint32_t claimed : {size - 1, size + 1, 0u, 0xFFFFFFFFu}) {
    SCOPED_TRACE(claimed);
    std::string bytes = whole;
    PutU32(bytes, 0, claimed);
    EXPECT_EQ("TotalSize says " + std::to_string(claimed) + " bytes, but the record has " +
                  std::to_string(size) + " (offset 0)",
              Refusal(bytes));
  }
  EXPECT_EQ("the record has 3 bytes, too few to hold its TotalSize (offset 0)",
            Refusal(whole.substr(0, 3)));
}

TEST_F(HandoffRecordTest, BytesBehindTheLastJobAreRefused) {
  AddJob(u"/tmp/p.html", u"/tmp/o.pdf");
  std::string bytes = Serialize() + std::string("\0\0\0", 3);
  const std::size_t end = bytes.size() - 3;
  PutU32(bytes, 0, static_cast<std::uint32_t>(bytes.size()));
  EXPECT_EQ("3 bytes are left over after the last job (offset " + std::to_string(end) + ")",
            Refusal(bytes));
}

// A plain record with page "p" and output "o". Offsets: 4 Version, 5 SecurityPresent,
// 6 RunAppPresent, 16/17 ReservedFlag1/2, 27 Portfolio, 28 JobCount, 32 PagePath, 46 OutputPath,
// 52 AttachmentCount, 56 DeletePage, 59 the end.
struct Corruption {
  const char* name;
  const char* layout;
  const char* message;  // empty: the record is good
};

// The head, no protection, no program, both reserved flags and texts empty, no portfolio.
constexpr const char* kPlain = "{size} 0c 00 01 00 00000000 00000000 00 00 00 0000000000000000 00";

const Corruption kCorruptions[] = {
    {"good", "{plain} 01000000 01000000 7000 00000000 00000000 01000000 6f00 00000000 01 00 00",
     ""},
    {"reserved text read by the layout",
     "{size} 0c 00 01 00 00000000 00000000 00 01 02000000 4100 4200 00 ffffffffffffffff 00 "
     "00000000",
     ""},
    {"pair beyond the basic plane",
     "{plain} 01000000 02000000 3dd8 00de 00000000 00000000 01000000 6f00 00000000 01 00 00", ""},
    {"version 13", "{size} 0d 00 01 00 00000000 00000000",
     "the record has version 13, but this converter reads only version 12 (offset 4)"},
    {"bad security flag", "{size} 0c 07", "SecurityPresent must be 0 or 1 but is 7 (offset 5)"},
    {"bad run flag", "{size} 0c 00 ff", "RunAppPresent must be 0 or 1 but is 255 (offset 6)"},
    {"job count too large",
     "{plain} ffffffff 01000000 7000 00000000 00000000 01000000 6f00 00000000 01 00 00",
     "JobCount of 4294967295 is more than the 27 bytes that remain could hold (offset 28)"},
    {"text count too large",
     "{plain} 01000000 01000000 7000 00000000 00000000 10000000 6f00 00000000 01 00 00",
     "the text of job 1's OutputPath runs past the end of the record (offset 50)"},
    {"attachment count too large",
     "{plain} 01000000 01000000 7000 00000000 00000000 01000000 6f00 05000000 01 00 00",
     "job 1's AttachmentCount of 5 is more than the 3 bytes that remain could hold (offset 52)"},
    {"bad delete flag",
     "{plain} 01000000 01000000 7000 00000000 00000000 01000000 6f00 00000000 02 00 00",
     "job 1's DeletePage must be 0 or 1 but is 2 (offset 56)"},
    {"lone high surrogate",
     "{plain} 01000000 01000000 00d8 00000000 00000000 01000000 6f00 00000000 01 00 00",
     "job 1's PagePath holds an unpaired surrogate (offset 36)"},
    {"pair the wrong way round",
     "{plain} 01000000 02000000 00de 3dd8 00000000 00000000 01000000 6f00 00000000 01 00 00",
     "job 1's PagePath holds an unpaired surrogate (offset 36)"},
    {"record promised but missing",
     "{plain} 01000000 01000000 7000 00000000 00000000 01000000 6f00 00000000 01 00 01",
     "job 1's FileName runs past the end of the record (offset 59)"},
    // Protection: 8 secUserPassword's count, 12 its text; with both passwords empty, 34
    // sec128EncryptMeta.
    {"odd password bytes",
     "{size} 0c 01 01 01 04000000 \"AA==\" 00000000 00000000 000000000000 00000000 00000000 01",
     "secUserPassword does not decode to whole UTF-16 units (offset 12)"},
    {"password with a lone surrogate",
     "{size} 0c 01 01 01 04000000 \"ANg=\" 00000000 00000000 000000000000 00000000 00000000 01",
     "secUserPassword holds an unpaired surrogate (offset 12)"},
    {"bad metadata flag",
     "{size} 0c 01 01 01 00000000 00000000 00000000 000000000000 00000000 00000000 03",
     "sec128EncryptMeta must be 0 or 1 but is 3 (offset 34)"},
    // A count near 2^32 must be refused by arithmetic, not by an allocation that fails or works.
    {"huge attachment count",
     "{plain} 01000000 00000000 00000000 00000000 00000000 ffffffff 01 00 00",
     "job 1's AttachmentCount of 4294967295 is more than the 3 bytes that remain could hold "
     "(offset 48)"},
};

TEST_F(HandoffRecordTest, EachKindOfDamageIsNamedWithItsOffset) {
  for (const Corruption& corruption : kCorruptions) {
    SCOPED_TRACE(corruption.name);
    std::string layout = corruption.layout;
    if (const std::size_t at = layout.find("{plain}"); at != std::string::npos) {
      layout.replace(at, 7, kPlain);
    }
    const std::string bytes = Golden(layout);
    HandoffRecord record;
    std::u16string error;
    const bool parsed = ParseHandoffRecord(bytes, record, error);
    if (*corruption.message == '\0') {
      EXPECT_TRUE(parsed) << Utf8(error);
    } else {
      EXPECT_FALSE(parsed);
      EXPECT_EQ(corruption.message, Utf8(error));
    }
  }
}

class HandoffCarrierTest : public HandoffRecordTest {
 protected:
  mrwl::testing::TempFolder folder_;
};

// Both carriers hold the same bytes; a few fields from each end show the whole record arrived.
TEST_F(HandoffCarrierTest, FileAndSharedMemoryOfTheAddinReadBack) {
  const mrwl::testing::ScopedEnv tmp("TMPDIR", folder_.path().string() + "/");
  FillEverything();
  // The mapping's name is fixed, so another run could publish at the same moment; a path of this
  // test's own makes sure the record read is this one.
  store_.PortfolioOutputPath = Utf8ToWide(folder_.PathOf("Inbox.pdf"));
  WideString path;
  ASSERT_TRUE(WriteHandoffFile(store_, path));
  ASSERT_TRUE(store_.CreateHandoffMapping());

  for (const bool mapped : {false, true}) {
    SCOPED_TRACE(mapped ? "shared memory" : "file");
    HandoffRecord record;
    std::u16string error;
    ASSERT_TRUE(mapped ? ReadHandoffMapping(kHandoffMappingName, record, error)
                       : ReadHandoffFile(path.view(), record, error))
        << Utf8(error);
    EXPECT_EQ(folder_.PathOf("Inbox.pdf"), Utf8(record.portfolioOutputPath));
    ASSERT_EQ(2u, record.jobs.size());
    EXPECT_EQ(u"Re: Q3 \U0001F4C8", record.jobs[0].record->subject);
    ASSERT_TRUE(record.security.has_value());
    EXPECT_EQ(u"\u00c9t\u00e9 \U0001F511 owner", record.security->ownerPassword);
  }
  // The converter reads the file; removing it is the caller's business.
  EXPECT_NE(INVALID_FILE_ATTRIBUTES, platform::GetFileAttributesW(path.c_str()));
}

// The reader's own messages are named by the parse tests; here the file's name must lead them.
TEST_F(HandoffCarrierTest, FileProblemsNameTheFile) {
  const std::string missing = folder_.PathOf("mrwstg_none.bin");
  const std::string empty = folder_.Write("mrwstg_empty.bin", "");
  const std::string folder = folder_.path().string();
  const std::pair<std::string, std::string> cases[] = {
      {missing, "\" does not exist"},
      {empty, "\" is damaged: the record has 0 bytes, too few to hold its TotalSize (offset 0)"},
      {folder, "\" "},  // whatever the system says of a folder
  };
  for (const auto& [path, tail] : cases) {
    SCOPED_TRACE(path);
    HandoffRecord record;
    std::u16string error;
    EXPECT_FALSE(ReadHandoffFile(Utf8ToWide(path).view(), record, error));
    const std::string expected = "the hand-off file \"" + path + tail;
    EXPECT_EQ(expected,
              Utf8(error).substr(0, path == folder ? expected.size() : std::string::npos));
  }
}

TEST_F(HandoffCarrierTest, SharedMemoryProblemsNameTheBlock) {
  const std::u16string base =
      u"MRW:IEP:test-" + std::u16string(Utf8ToWide(folder_.path().filename().string()).view());

  HandoffRecord record;
  std::u16string error;
  EXPECT_FALSE(ReadHandoffMapping(base + u"-none", record, error));
  EXPECT_EQ("the shared hand-off record \"" + Utf8(base) + "-none\" does not exist", Utf8(error));

  // A block shorter than the record it claims to hold.
  const std::u16string shortName = base + u"-short";
  HANDLE mapping = platform::CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 8,
                                                shortName.c_str());
  ASSERT_NE(nullptr, mapping);
  void* view = platform::MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 0, 8);
  ASSERT_NE(nullptr, view);
  const unsigned char head[8] = {100, 0, 0, 0, 12, 0, 0, 0};
  std::memcpy(view, head, sizeof head);
  EXPECT_FALSE(ReadHandoffMapping(shortName, record, error));
  EXPECT_EQ("the shared hand-off record \"" + Utf8(shortName) +
                "\" is shorter than its TotalSize of 100 bytes",
            Utf8(error));

  // A whole block whose record is damaged.
  const unsigned char damaged[8] = {8, 0, 0, 0, 11, 0, 0, 0};
  std::memcpy(view, damaged, sizeof damaged);
  EXPECT_FALSE(ReadHandoffMapping(shortName, record, error));
  EXPECT_EQ("the shared hand-off record \"" + Utf8(shortName) +
                "\" is damaged: the record has version 11, but this converter reads only version "
                "12 (offset 4)",
            Utf8(error));
  EXPECT_TRUE(platform::UnmapViewOfFile(view));
  EXPECT_TRUE(platform::CloseHandle(mapping));
}

}  // namespace
}  // namespace mrwl::converter
