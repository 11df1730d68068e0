#include <map>
#include <string>

#include <gtest/gtest.h>

#include "conversion/conversion_store.h"
#include "conversion/handoff_test_support.h"
#include "conversion/temp_store.h"
#include "foundation/stream.h"
#include "platform/files.h"
#include "platform/unique_any.h"
#include "settings/addin_settings.h"

namespace mrwl {
namespace {

using testing::Golden;
using testing::HandoffReader;
using testing::kEmptyPortfolioGolden;
using testing::kPlainGolden;
using testing::kPortfolioGolden;
using testing::kSecurityGolden;

std::string Serialize(const ConversionStore& store) {
  MemoryStream stream;
  EXPECT_EQ(kOk, stream.Open(0, 0));
  EXPECT_TRUE(store.SerializeStore(stream));
  return std::string(static_cast<const char*>(stream.GetData()),
                     static_cast<std::size_t>(stream.GetSize()));
}

ConversionJob& AddJob(ConversionStore& store, std::u16string_view page,
                      std::u16string_view output) {
  ConversionJob& job = *store.NewJob();
  job.PagePath = page;
  job.OutputPath = output;
  job.DeletePage = true;
  return job;
}

void AddMail(ConversionJob& job, std::u16string_view fileName) {
  job.Record = MailRecord::TryCreate();
  MailRecord& mail = *job.Record;
  mail.FileName = fileName;
  mail.From = std::u16string_view(u"Ann Lee<ann.lee@example.org>");
  mail.To = std::u16string_view(u"Bob Stone");
  mail.Subject = std::u16string_view(u"Status");
  mail.Importance = std::u16string_view(u"1");
  mail.Sensitivity = std::u16string_view(u"0");
  mail.ReceivedTime = 46000.5;
}

TEST(HandoffRecordTest, StoresSerialiseToTheGoldenBytes) {
  const std::map<std::string, std::u16string> texts = {
      {"page", u"/tmp/mrwm_1a2b.html"},
      {"page1", u"/tmp/mrwm_1a2b.html"},
      {"page2", u"/tmp/mrwm_1a2c.html"},
      {"output", u"/home/ann/Status.pdf"},
      {"runPath", u"/usr/bin/viewer"},
      {"runParams", u"--page 1 %f"},
      {"attachment1", u"/tmp/plan.txt"},
      {"attachment2", u"/tmp/plan.txt"},
      {"user", u"ann.lee@example.org"},
      {"folder", u"Inbox"},
      {"name1", u"Status.pdf"},
      {"name2", u"Status(1).pdf"},
      {"from", u"Ann Lee<ann.lee@example.org>"},
      {"to", u"Bob Stone"},
      {"cc", u""},
      {"bcc", u""},
      {"subject", u"Status"},
      {"importance", u"1"},
      {"sensitivity", u"0"},
  };
  const AddinSettings settings;  // the run application's defaults

  {
    SCOPED_TRACE("plain");
    ConversionStore store;
    store.RunApp = settings.RunApp;
    store.Security = settings.Security;  // present but off: nothing of it goes out
    settings.Security->secUserPassword = std::u16string_view(u"secret");
    AddJob(store, texts.at("page"), texts.at("output"));
    EXPECT_EQ(Golden(kPlainGolden, texts), Serialize(store));
  }
  {
    SCOPED_TRACE("protection with passwords");
    ConversionStore store;
    store.Security = SecuritySettings::Create();
    store.RunApp = RunAppSettings::Create();
    testing::SetGoldenSecurity(*store.Security, *store.RunApp);
    ConversionJob& job = AddJob(store, texts.at("page"), texts.at("output"));
    // One name twice: the later save replaced the earlier file, and both paths go out.
    job.Attachments = {WideString(texts.at("attachment1")), WideString(texts.at("attachment2"))};
    job.DeleteAttachments = true;
    EXPECT_EQ(Golden(kSecurityGolden, texts), Serialize(store));
  }
  {
    SCOPED_TRACE("portfolio without jobs, then with two mails of one subject");
    ConversionStore store;
    store.RunApp = settings.RunApp;
    store.Portfolio = true;
    store.PortfolioOutputPath = texts.at("output");
    store.PortfolioUser = texts.at("user");
    store.PortfolioFolder = texts.at("folder");
    // A portfolio that found no mail still gives the converter its output.
    EXPECT_EQ(Golden(kEmptyPortfolioGolden, texts), Serialize(store));
    AddMail(AddJob(store, texts.at("page1"), texts.at("output")), u"Status.pdf");
    AddMail(AddJob(store, texts.at("page2"), texts.at("output")), u"status.PDF");
    MakeAttachmentNamesUnique(store.Jobs);
    auto withCase = texts;
    withCase["name2"] = u"status(1).PDF";  // the later name keeps its own case
    EXPECT_EQ(Golden(kPortfolioGolden, withCase), Serialize(store));
  }
}

TEST(HandoffRecordTest, ReaderDecodesWhatTheWriterWrote) {
  ConversionStore store;
  store.Security = SecuritySettings::Create();
  SecuritySettings& security = *store.Security;
  security.secEnabled = true;
  security.secHasOwnerPassword = true;
  // Long enough for the coded form to break its lines, and beyond Latin-1.
  const std::u16string owner = u"\u00e9t\u00e9 \u65e5\u672c " + std::u16string(60, u'x');
  security.secUserPassword = std::u16string_view(u"kept though its flag is off");
  security.secOwnerPassword = owner;
  security.sec128EncryptMeta = false;
  store.RunApp = RunAppSettings::Create();
  store.ReservedFlag2 = true;
  store.ReservedText = std::u16string_view(u"reserved");
  store.ReservedNumber = 0x0102030405060708u;
  AddJob(store, u"C:\\Temp\\mrwm_1.html", u"C:\\Out\\one.pdf");
  ConversionJob& second = AddJob(store, u"C:\\Temp\\mrwm_2.html", u"C:\\Out\\two.pdf");
  second.DeletePage = false;
  second.Attachments = {u"C:\\Temp\\a.txt"};
  AddMail(second, u"Second.pdf");

  const std::string bytes = Serialize(store);
  const auto decoded = HandoffReader::Decode(bytes);
  ASSERT_TRUE(decoded.has_value());
  EXPECT_EQ(bytes.size(), decoded->totalSize);
  ASSERT_TRUE(decoded->security.has_value());
  EXPECT_FALSE(decoded->security->hasUserPassword);
  EXPECT_FALSE(decoded->security->encryptMeta128);
  WideString password;
  ASSERT_TRUE(DecodePassword(decoded->security->ownerPassword, password));
  EXPECT_EQ(owner, password.view());
  EXPECT_NE(std::string::npos, decoded->security->ownerPassword.find("\r\n"));
  ASSERT_TRUE(DecodePassword(decoded->security->userPassword, password));
  EXPECT_EQ(u"kept though its flag is off", password.view());
  EXPECT_TRUE(decoded->reserved2);
  EXPECT_EQ(u"reserved", decoded->reservedText);
  EXPECT_EQ(0x0102030405060708u, decoded->reservedNumber);
  ASSERT_EQ(2u, decoded->jobs.size());
  EXPECT_FALSE(decoded->jobs[0].mail.has_value());
  EXPECT_FALSE(decoded->jobs[1].deletePage);
  EXPECT_EQ(std::vector<std::u16string>{u"C:\\Temp\\a.txt"}, decoded->jobs[1].attachments);
  ASSERT_TRUE(decoded->jobs[1].mail.has_value());
  EXPECT_EQ(u"Second.pdf", decoded->jobs[1].mail->fileName);

  // A record written behind other bytes counts its own length only.
  MemoryStream stream;
  ASSERT_EQ(kOk, stream.Open(0, 0));
  std::size_t done = 0;
  ASSERT_EQ(kOk, stream.Write("head", 4, &done));
  ASSERT_TRUE(store.SerializeStore(stream));
  EXPECT_EQ(bytes, std::string(static_cast<const char*>(stream.GetData()) + 4, bytes.size()));
  EXPECT_EQ(stream.GetSize(), stream.GetPosition());
}

// A memory stream whose writes fail, or come up short, once `budget` bytes are used up.
class FailingStream : public MemoryStream {
 public:
  FailingStream(std::size_t budget, bool shortWrite) : budget_(budget), short_(shortWrite) {
    EXPECT_EQ(kOk, Open(0, 0));
  }
  ResultCode Write(const void* buffer, std::size_t count, std::size_t* done) noexcept override {
    const std::size_t part = count <= budget_ ? count : short_ ? budget_ : 0;
    budget_ = count <= budget_ ? budget_ - count : 0;
    const ResultCode result = MemoryStream::Write(buffer, part, done);
    return part == count || short_ ? result : kErrFailure;
  }

 private:
  std::size_t budget_;
  bool short_;
};

TEST(HandoffRecordTest, EveryFailedOrShortWriteFailsTheRecord) {
  ConversionStore store;
  store.RunApp = RunAppSettings::Create();
  store.Security = SecuritySettings::Create();
  store.Security->secEnabled = true;
  store.Security->secOwnerPassword = std::u16string_view(u"pw");
  store.Portfolio = true;
  ConversionJob& job = AddJob(store, u"/tmp/p.html", u"/tmp/o.pdf");
  job.Attachments = {u"/tmp/a"};
  AddMail(job, u"A.pdf");
  const std::size_t size = Serialize(store).size();
  // TotalSize is written twice: the place holder, then the patch.
  for (std::size_t budget = 0; budget < size + 4; ++budget) {
    for (const bool shortWrite : {false, true}) {
      SCOPED_TRACE(::testing::Message() << "budget " << budget << (shortWrite ? " short" : ""));
      FailingStream stream(budget, shortWrite);
      EXPECT_FALSE(store.SerializeStore(stream));
    }
  }
  FailingStream enough(size + 4, false);
  EXPECT_TRUE(store.SerializeStore(enough));
}

TEST(HandoffMappingTest, PublishesWholeRecordsOnly) {
  ConversionStore store;
  store.RunApp = RunAppSettings::Create();
  AddJob(store, u"/tmp/mrwm_1.html", u"/tmp/one.pdf");
  const std::string record = Serialize(store);

  ASSERT_TRUE(store.CreateHandoffMapping());
  ASSERT_TRUE(store.Mapping);
  EXPECT_EQ(record, std::string(static_cast<const char*>(store.Mapping->View), record.size()));
  {  // What a second opener of the name, like the converter, finds there.
    const WideString name(kHandoffMappingName);
    UniqueAny<NullHandleTraits> handle(platform::CreateFileMappingW(
        INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 1, name.c_str()));
    void* view = platform::MapViewOfFile(handle.get(), FILE_MAP_READ, 0, 0, record.size());
    ASSERT_NE(nullptr, view);
    EXPECT_EQ(record, std::string(static_cast<const char*>(view), record.size()));
    (void)platform::UnmapViewOfFile(view);
  }
  WideString name;
  store.GetHandoffMappingName(name);
  EXPECT_EQ(u"MRW:IEP:HTMLData", name.view());

  // A failed publish takes down what was published before it.
  std::string wrongSize = record;  // the size is not its own first u32
  wrongSize[0] = static_cast<char>(wrongSize[0] + 1);
  for (const std::string& bytes : {std::string("\x03\0\0", 3), wrongSize, std::string()}) {
    SCOPED_TRACE(bytes.size());
    ASSERT_TRUE(store.Mapping->Publish(record.data(), record.size()));
    EXPECT_FALSE(store.Mapping->Publish(bytes.data(), bytes.size()));
    EXPECT_EQ(nullptr, store.Mapping->View);
    EXPECT_EQ(nullptr, store.Mapping->Handle);
  }

  ASSERT_TRUE(store.CreateHandoffMapping());
  store.Clear();
  EXPECT_FALSE(store.Mapping);
  store.GetHandoffMappingName(name);
  EXPECT_TRUE(name.IsEmpty());
}

}  // namespace
}  // namespace mrwl
