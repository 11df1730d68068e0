// Runs `mrwl convert` and `mrwl open` as a user does: the real program loads a copy of the real
// add-in module, whose converter is a recording script beside it, over mail files in a scratch
// folder. What the add-in handed over is read back from the hand-off files it wrote.

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "conversion/handoff_test_support.h"
#include "platform/utf.h"
#include "testing/temp_folder.h"

namespace mrwl {
namespace {

namespace fs = std::filesystem;
using Args = std::vector<std::string>;
using Outcome = testing::CommandOutcome;

std::string Mail(const std::string& subject, const std::string& extraHeaders = "") {
  return "From: Ann Lee <ann@example.org>\r\nTo: Bob Stone <bob@example.org>\r\nSubject: " +
         subject + "\r\nDate: Mon, 23 Nov 2026 09:15:00 +0000\r\n" + extraHeaders +
         "Content-Type: text/plain; charset=utf-8\r\n\r\nFigures attached.\r\n";
}

constexpr char kAttachmentMail[] =
    "From: Ann Lee <ann@example.org>\r\nTo: bob@example.org\r\nSubject: Budget\r\n"
    "MIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=\"b1\"\r\n\r\n"
    "--b1\r\nContent-Type: text/plain\r\n\r\nSee the sheet.\r\n"
    "--b1\r\nContent-Type: text/csv; name=\"sheet.csv\"\r\n"
    "Content-Disposition: attachment; filename=\"../../sheet.csv\"\r\n\r\na,b\r\n1,2\r\n"
    "--b1--\r\n";

class ConvertCommand : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* dir = std::getenv("MRWL_TEST_BINARY_DIR");
    ASSERT_NE(dir, nullptr);
    program_ = std::string(dir) + "/bin/mrwl";
    fs::create_directories(folder_.path() / "module");
    fs::create_directories(folder_.path() / "temp");
    fs::create_directories(folder_.path() / "records");
    fs::create_directories(folder_.path() / "Inbox");
    fs::create_directories(folder_.path() / "out");
    fs::copy_file(std::string(dir) + "/bin/libmrwl-addin.so",
                  folder_.PathOf("module/libmrwl-addin.so"));
  }

  // Puts the recording converter beside the module: each start leaves its arguments, one a line,
  // in a record of its own.
  void InstallConverter() {
    const std::string script =
        "#!/bin/sh\nr=" + testing::ShellQuote(folder_.PathOf("records")) +
        "/start.$$\nprintf '%s\\n' \"$@\" > \"$r.part\"\nmv \"$r.part\" \"$r\"\n";
    const std::string path = folder_.Write("module/HtmlToPdfApp", script);
    fs::permissions(path, fs::perms::owner_all);
  }

  std::string WriteMail(const std::string& name, const std::string& text) {
    return folder_.Write("Inbox/" + name, text);
  }

  // Runs mrwl with the module copy, or with `module` empty the module beside the program.
  Outcome Run(const Args& args, const std::string& user = "",
              const std::string& module = "module/libmrwl-addin.so") {
    std::string command =
        "MRWL_ADDIN=" + testing::ShellQuote(module.empty() ? "" : folder_.PathOf(module)) +
        " MRWL_REGISTRY=" + testing::ShellQuote(folder_.PathOf("hive.db")) +
        " TMPDIR=" + testing::ShellQuote(folder_.PathOf("temp")) +
        " MRWL_USER_ADDRESS=" + testing::ShellQuote(user) +
        " EMAIL= " + testing::ShellQuote(program_);
    for (const std::string& arg : args) command += " " + testing::ShellQuote(arg);
    return testing::RunCommand(command, folder_);
  }

  // The hand-off records of `count` converter starts, waited for.
  std::vector<testing::DecodedHandoff> Handoffs(std::size_t count) {
    std::vector<testing::DecodedHandoff> handoffs;
    const auto deadline = std::chrono::steady_clock::now() + testing::kChildTimeout;
    std::vector<fs::path> records;
    while (std::chrono::steady_clock::now() < deadline) {
      records.clear();
      for (const auto& entry : fs::directory_iterator(folder_.path() / "records")) {
        if (entry.path().extension() != ".part") records.push_back(entry.path());
      }
      if (records.size() >= count) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_EQ(records.size(), count);
    for (const fs::path& record : records) {
      const std::string lines = folder_.Read(fs::relative(record, folder_.path()).string());
      // The hand-off file is the last argument.
      std::string last = lines.substr(0, lines.size() - 1);
      last = last.substr(last.rfind('\n') + 1);
      const auto decoded =
          testing::HandoffReader::Decode(folder_.Read(fs::relative(last, folder_.path()).string()));
      EXPECT_TRUE(decoded.has_value()) << last;
      if (decoded) handoffs.push_back(*decoded);
    }
    return handoffs;
  }

  testing::TempFolder folder_;
  std::string program_;
};

TEST_F(ConvertCommand, PlainRunConvertsEachMailUnderItsProposedName) {
  InstallConverter();
  const Outcome outcome =
      Run({"convert", "-d", folder_.PathOf("out"), WriteMail("a.eml", Mail("Re: Q3 report")),
           WriteMail("b.eml", Mail("Minutes")), WriteMail("c.eml", Mail("Minutes")),
           WriteMail("d.eml", Mail(""))});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.out,
            "Converter started (1)\nConverter started (2)\nConverter started (3)\n"
            "Converter started (4)\n");
  std::vector<std::u16string> outputs;
  for (const auto& handoff : Handoffs(4)) {
    ASSERT_EQ(handoff.jobs.size(), 1u);
    EXPECT_FALSE(handoff.portfolio);
    EXPECT_TRUE(fs::exists(platform::Utf16ToUtf8(handoff.jobs[0].page)));
    outputs.push_back(handoff.jobs[0].output);
  }
  std::sort(outputs.begin(), outputs.end());
  // Mails of one subject get numbered names, and one without a subject a name of its own.
  std::vector<std::u16string> expected;
  for (const char* name :
       {"out/Minutes (2).pdf", "out/Minutes.pdf", "out/Re Q3 report.pdf", "out/Untitled.pdf"}) {
    expected.push_back(platform::Utf8ToUtf16(folder_.PathOf(name)));
  }
  EXPECT_EQ(outputs, expected);
}

TEST_F(ConvertCommand, PortfolioTakesFolderUserAndEveryItemWithBareAttachmentNames) {
  InstallConverter();
  const Outcome outcome = Run({"convert", "--portfolio", "-o", folder_.PathOf("out/all.pdf"),
                               WriteMail("a.eml", Mail("Budget", "Importance: high\r\n")),
                               WriteMail("b.eml", kAttachmentMail)},
                              "ann@example.org");
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  const auto handoffs = Handoffs(1);
  ASSERT_EQ(handoffs.size(), 1u);
  const testing::DecodedHandoff& handoff = handoffs[0];
  EXPECT_TRUE(handoff.portfolio);
  EXPECT_EQ(handoff.portfolioOutput, platform::Utf8ToUtf16(folder_.PathOf("out/all.pdf")));
  EXPECT_EQ(handoff.portfolioFolder, u"Inbox");
  EXPECT_EQ(handoff.portfolioUser, u"ann@example.org");
  ASSERT_EQ(handoff.jobs.size(), 2u);
  ASSERT_TRUE(handoff.jobs[0].mail.has_value());
  // The attachment's name loses the folders the mail gave it and lands in the temporary folder.
  ASSERT_EQ(handoff.jobs[1].attachments.size(), 1u);
  EXPECT_EQ(handoff.jobs[1].attachments[0],
            platform::Utf8ToUtf16(folder_.PathOf("temp/sheet.csv")));
  // The line end before a boundary belongs to the boundary.
  EXPECT_EQ(folder_.Read("temp/sheet.csv"), "a,b\r\n1,2");
}

TEST_F(ConvertCommand, OpenConvertsTheItemWindowsMail) {
  InstallConverter();
  const Outcome outcome =
      Run({"open", "-d", folder_.PathOf("out"), WriteMail("a.eml", Mail("Notes"))});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  const auto handoffs = Handoffs(1);
  ASSERT_EQ(handoffs.size(), 1u);
  EXPECT_EQ(handoffs[0].jobs.at(0).output, platform::Utf8ToUtf16(folder_.PathOf("out/Notes.pdf")));
}

TEST_F(ConvertCommand, FailuresAreReportedWithNonZeroStatus) {
  const std::string mail = WriteMail("a.eml", Mail("Notes"));
  // No converter beside the module: the add-in's own message, and nothing exported.
  Outcome outcome = Run({"convert", "-d", folder_.PathOf("out"), mail});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_NE(outcome.err.find("HtmlToPdf application could not be found - please reinstall."),
            std::string::npos)
      << outcome.err;
  EXPECT_TRUE(fs::is_empty(folder_.path() / "temp"));

  InstallConverter();
  folder_.Write("out/Notes.pdf", "old");
  outcome = Run({"convert", "-o", folder_.PathOf("out/Notes.pdf"), mail});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_NE(outcome.err.find("already exists; add --yes to replace it."), std::string::npos);
  // A proposed name that exists is refused without a terminal, unless --yes says otherwise.
  outcome = Run({"convert", "-d", folder_.PathOf("out"), mail});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_NE(outcome.err.find("Notes.pdf already exists."), std::string::npos) << outcome.err;
  EXPECT_EQ(Run({"convert", "-d", folder_.PathOf("out"), "--yes", mail}).status, 0);
  (void)Handoffs(1);

  outcome = Run({"convert", "-o", folder_.PathOf("out/x.pdf"), mail, mail});
  EXPECT_EQ(outcome.status, 2);
  outcome = Run({"convert", "--portfolio", "-d", folder_.PathOf("out"), "--yes", mail,
                 WriteMail("card.vcf", "BEGIN:VCARD\r\nFN:Ann Lee\r\nEND:VCARD\r\n"),
                 folder_.PathOf("Inbox/missing.eml")});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_NE(outcome.err.find("card.vcf is a contact or calendar entry, not a mail"),
            std::string::npos)
      << outcome.err;
  EXPECT_NE(outcome.err.find("missing.eml"), std::string::npos);
}

TEST_F(ConvertCommand, ModuleBesideTheProgramLoadsAndOneThatIsNoAddinIsNamed) {
  // A contact alone: the module beside mrwl is loaded and clicked, and passes the item by.
  const std::string card = WriteMail("card.vcf", "BEGIN:VCARD\r\nFN:Ann Lee\r\nEND:VCARD\r\n");
  Outcome outcome = Run({"convert", "-d", folder_.PathOf("out"), card}, "", "");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err, "mrwl: " + card +
                             " is a contact or calendar entry, not a mail; it is not converted.\n");

  folder_.Write("module/libmrwl-addin.so", "not a module");
  outcome = Run({"convert", "-d", folder_.PathOf("out"), WriteMail("a.eml", Mail("x"))});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_NE(outcome.err.find("Cannot load the add-in module " +
                             folder_.PathOf("module/libmrwl-addin.so")),
            std::string::npos)
      << outcome.err;
}

}  // namespace
}  // namespace mrwl
