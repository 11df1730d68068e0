// The whole chain as a user meets it: `mrwl convert` exports sample mails through the real add-in
// module, which starts the real converter beside it; the PDFs are then read with poppler's and
// qpdf's own tools. Where a test needs the converter's exit status or a record it can damage, it
// keeps the temporary files of a real run (MRWL_KEEP_TEMP=1) and runs the converter itself on that
// record. Skipped where no browser is installed.

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
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
using testing::CommandOutcome;
using testing::ShellQuote;
using Strings = std::vector<std::string>;

// Chromium on two shared cores: a run of a few mails takes seconds, the corpus a minute or more.
constexpr std::chrono::seconds kRunTimeout{240};
constexpr char kUser[] = "ann.lee@example.org";

std::string Utf8(const std::u16string& text) { return platform::Utf16ToUtf8(text); }

bool HaveProgram(const std::string& name) {
  return std::system(("command -v " + name + " >/dev/null 2>&1").c_str()) == 0;
}

// The source tree, from the build folder's cache, for the sample mails.
fs::path SourceFolder(const fs::path& buildFolder) {
  std::ifstream cache(buildFolder / "CMakeCache.txt");
  const std::string key = "CMAKE_HOME_DIRECTORY:INTERNAL=";
  for (std::string line; std::getline(cache, line);) {
    if (line.rfind(key, 0) == 0) return line.substr(key.size());
  }
  return {};
}

// Splits the converter's option string as the program receives it: blank-separated words, ""
// standing for an empty word. The add-in writes no other quoting.
Strings SplitOptions(const std::string& line) {
  Strings words;
  std::istringstream in(line);
  for (std::string word; in >> word;) words.push_back(word == "\"\"" ? std::string() : word);
  return words;
}

// The page sizes pdfinfo reports, in points.
struct PageSize {
  double width = 0;
  double height = 0;
};

class ConverterChain : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* dir = std::getenv("MRWL_TEST_BINARY_DIR");
    ASSERT_NE(dir, nullptr) << "MRWL_TEST_BINARY_DIR is not set";
    build_ = dir;
    if (std::getenv("MRWL_CHROMIUM") == nullptr && !HaveProgram("chromium") &&
        !HaveProgram("chromium-browser")) {
      GTEST_SKIP() << "no chromium installed";
    }
    samples_ = SourceFolder(build_) / "samples";
    ASSERT_TRUE(fs::exists(samples_ / "plain-text.eml")) << samples_;
    for (const char* name : {"temp", "out", "records"})
      fs::create_directories(folder_.path() / name);
    // The converter opens nothing unless a test asks it to.
    SetSettings({"RunPDFApp=false"});
  }

  // --- verbs ---

  CommandOutcome Mrwl(const Strings& args, const std::string& env = "",
                      const std::string& tag = "mrwl") {
    std::string command = "MRWL_REGISTRY=" + ShellQuote(folder_.PathOf("hive.db")) +
                          " TMPDIR=" + ShellQuote(folder_.PathOf("temp")) +
                          " MRWL_USER_ADDRESS=" + kUser + " MRWL_OPENER=/bin/true " + env + " " +
                          ShellQuote((build_ / "bin/mrwl").string());
    for (const std::string& arg : args) command += " " + ShellQuote(arg);
    return testing::RunCommand(command, folder_, "/dev/null", tag);
  }

  void SetSettings(const Strings& assignments) {
    Strings args = {"settings", "set"};
    args.insert(args.end(), assignments.begin(), assignments.end());
    const CommandOutcome outcome = Mrwl(args, "", "settings");
    ASSERT_EQ(outcome.status, 0) << outcome.err;
  }

  // Converts sample mails (names in the samples folder, or full paths) into out/ and waits until
  // every converter the run started is done. Returns what mrwl and its converters wrote.
  CommandOutcome Convert(const Strings& mails, bool portfolio = false,
                         const std::string& env = "") {
    Strings args = {"convert", "-d", folder_.PathOf("out"), "--yes"};
    if (portfolio) args.push_back("--portfolio");
    for (const std::string& mail : mails) {
      args.push_back(mail.front() == '/' ? mail : (samples_ / mail).string());
    }
    CommandOutcome outcome = Mrwl(args, env, "convert");
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    WaitForConverters(env.find("MRWL_KEEP_TEMP=1") != std::string::npos);
    // The converters write into the same standard error as mrwl, after mrwl has gone.
    outcome.err = folder_.Read("convert.err");
    return outcome;
  }

  // A converter deletes its hand-off file last of all, so no hand-off file means no converter is
  // left. Keeping its files, a converter is done when its PDF has been renamed into place and the
  // hand-off is still there to be read.
  void WaitForConverters(bool keepingFiles) {
    const auto deadline = std::chrono::steady_clock::now() + kRunTimeout;
    while (std::chrono::steady_clock::now() < deadline) {
      const bool done = keepingFiles
                            ? Handoffs().size() <= OutputPdfs().size() && !Handoffs().empty()
                            : Handoffs().empty();
      if (done) {
        // Let a converter that has renamed its PDF finish its exit.
        std::this_thread::sleep_for(std::chrono::milliseconds(keepingFiles ? 1500 : 0));
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    ADD_FAILURE() << "the converters did not finish in time";
  }

  // Runs the converter itself with the options the settings give and `record` as its hand-off.
  CommandOutcome RunConverter(const std::string& record, const std::string& env = "",
                              bool onTerminal = false) {
    const CommandOutcome line = Mrwl({"settings", "command-line"}, "", "command-line");
    EXPECT_EQ(line.status, 0) << line.err;
    Strings args = SplitOptions(line.out);
    args.push_back("\\bp");
    args.push_back(record);
    std::string command = "TMPDIR=" + ShellQuote(folder_.PathOf("temp")) +
                          " MRWL_OPENER=/bin/true " + env + " " +
                          ShellQuote((build_ / "bin/HtmlToPdfApp").string());
    for (const std::string& arg : args) command += " " + ShellQuote(arg);
    if (onTerminal) {
      // script gives the converter a terminal and copies what it wrote there to our output.
      command = "script -qefc " + ShellQuote(command) + " /dev/null";
    }
    return testing::RunCommand(command, folder_, "/dev/null", "converter");
  }

  // The paper the settings give, in points, as the converter's command line carries it.
  PageSize PaperFromSettings() {
    const CommandOutcome line = Mrwl({"settings", "command-line"}, "", "command-line");
    const Strings words = SplitOptions(line.out);
    PageSize paper;
    for (std::size_t i = 0; i + 1 < words.size(); ++i) {
      if (words[i] == "\\pw") paper.width = std::stod(words[i + 1]) / 10.0;
      if (words[i] == "\\ph") paper.height = std::stod(words[i + 1]) / 10.0;
    }
    EXPECT_GT(paper.width, 0.0) << line.out;
    return paper;
  }

  std::vector<fs::path> Handoffs() const { return Matching("temp", "mrwstg_"); }
  std::vector<fs::path> OutputPdfs() const { return Matching("out", ""); }

  std::vector<fs::path> Matching(const std::string& sub, const std::string& prefix) const {
    std::vector<fs::path> found;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder_.path() / sub, error)) {
      const std::string name = entry.path().filename().string();
      if (name.rfind(prefix, 0) == 0 && entry.path().extension() != ".part") {
        if (sub != "out" || entry.path().extension() == ".pdf") found.push_back(entry.path());
      }
    }
    std::sort(found.begin(), found.end());
    return found;
  }

  // Everything left below temp/, as paths relative to it.
  Strings LeftInTemp() const {
    Strings left;
    for (const auto& entry : fs::recursive_directory_iterator(folder_.path() / "temp")) {
      left.push_back(fs::relative(entry.path(), folder_.path() / "temp").string());
    }
    return left;
  }

  testing::DecodedHandoff DecodeHandoff(const fs::path& path) {
    const auto decoded =
        testing::HandoffReader::Decode(folder_.Read(fs::relative(path, folder_.path()).string()));
    EXPECT_TRUE(decoded.has_value()) << path;
    return decoded.value_or(testing::DecodedHandoff{});
  }

  // Runs a tool over a file and returns its standard output; the test fails if the tool does.
  std::string Tool(const std::string& command, int expectedStatus = 0) {
    const CommandOutcome outcome = testing::RunCommand(command, folder_, "/dev/null", "tool");
    EXPECT_EQ(outcome.status, expectedStatus) << command << "\n" << outcome.err;
    return outcome.out;
  }

  std::string PdfInfo(const fs::path& pdf, const std::string& extra = "") {
    return Tool("pdfinfo " + extra + " " + ShellQuote(pdf.string()));
  }

  PageSize SizeOf(const fs::path& pdf) {
    std::smatch match;
    const std::string info = PdfInfo(pdf);
    PageSize size;
    if (std::regex_search(info, match, std::regex(R"(Page size:\s+([\d.]+) x ([\d.]+) pts)"))) {
      size.width = std::stod(match[1]);
      size.height = std::stod(match[2]);
    } else {
      ADD_FAILURE() << "no page size in\n" << info;
    }
    return size;
  }

  std::string VersionOf(const fs::path& pdf, const std::string& ownerPassword = "") {
    std::smatch match;
    const std::string info =
        PdfInfo(pdf, ownerPassword.empty() ? "" : "-opw " + ShellQuote(ownerPassword));
    return std::regex_search(info, match, std::regex(R"(PDF version:\s+([\d.]+))")) ? match[1].str()
                                                                                    : "";
  }

  std::string TextOf(const fs::path& pdf, const std::string& password = "") {
    const std::string option = password.empty() ? "" : "-upw " + ShellQuote(password) + " ";
    return Tool("pdftotext " + option + ShellQuote(pdf.string()) + " -");
  }

  // The smallest left and top edges of the words on the first page, in points.
  std::pair<double, double> TextOrigin(const fs::path& pdf) {
    const std::string html = Tool("pdftotext -f 1 -l 1 -bbox " + ShellQuote(pdf.string()) + " -");
    double left = 1e9;
    double top = 1e9;
    const std::regex word(R"re(<word xMin="([\d.]+)" yMin="([\d.]+)")re");
    for (auto it = std::sregex_iterator(html.begin(), html.end(), word);
         it != std::sregex_iterator(); ++it) {
      left = std::min(left, std::stod((*it)[1]));
      top = std::min(top, std::stod((*it)[2]));
    }
    EXPECT_LT(left, 1e9) << "no words on the first page";
    return {left, top};
  }

  Strings AttachmentsOf(const fs::path& pdf, const std::string& password = "") {
    const std::string option = password.empty() ? "" : "--password=" + ShellQuote(password) + " ";
    std::istringstream in(
        Tool("qpdf " + option + "--list-attachments " + ShellQuote(pdf.string())));
    Strings names;
    for (std::string line; std::getline(in, line);) {
      // "name -> objects": the key of the name tree; the details are indented below it.
      const std::size_t arrow = line.find(" -> ");
      if (!line.empty() && line[0] != ' ' && arrow != std::string::npos) {
        names.push_back(line.substr(0, arrow));
      }
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  fs::path OnlyPdf() {
    const std::vector<fs::path> pdfs = OutputPdfs();
    EXPECT_EQ(pdfs.size(), 1u);
    return pdfs.empty() ? fs::path() : pdfs.front();
  }

  testing::TempFolder folder_;
  fs::path build_;
  fs::path samples_;
};

const Strings kSamples = {"attachments.eml", "html-inline-picture.eml", "meeting-request.eml",
                          "non-latin.eml", "plain-text.eml"};

TEST_F(ConverterChain, PlainRunWritesEveryMailAsA4PortraitAndLeavesNoTemporaryFile) {
  const CommandOutcome outcome = Convert(kSamples);
  // Quiet when no one is watching: no progress, no failure.
  EXPECT_EQ(outcome.err, "");
  const std::vector<fs::path> pdfs = OutputPdfs();
  ASSERT_EQ(pdfs.size(), kSamples.size());
  const PageSize paper = PaperFromSettings();
  EXPECT_LT(paper.width, paper.height);
  for (const fs::path& pdf : pdfs) {
    SCOPED_TRACE(pdf.filename().string());
    // The browser rounds the paper to its own units, a fraction of a point.
    const PageSize size = SizeOf(pdf);
    EXPECT_NEAR(size.width, paper.width, 0.5);
    EXPECT_NEAR(size.height, paper.height, 0.5);
    EXPECT_EQ(VersionOf(pdf), "1.4");
    EXPECT_EQ(Tool("qpdf --check " + ShellQuote(pdf.string()) + " >/dev/null; echo $?"), "0\n");
  }
  // The pages, their pictures, the attachment copies and the hand-off files are all gone.
  EXPECT_EQ(LeftInTemp(), Strings{});

  const std::string survey =
      TextOf(folder_.PathOf("out/Site survey for the Quayside warehouse, Thursday 3 December.pdf"));
  EXPECT_NE(survey.find("Quayside"), std::string::npos) << survey;
  // Greek and Cyrillic from the subject and the body, Japanese from a recipient's name.
  bool sawNonLatin = false;
  for (const fs::path& pdf : pdfs) {
    const std::string text = TextOf(pdf);
    if (text.find("Надежда Коваленко") == std::string::npos) continue;
    sawNonLatin = true;
    EXPECT_NE(text.find("Πρόγραμμα επίσκεψης"), std::string::npos) << text;
    EXPECT_NE(text.find("Программа визита"), std::string::npos) << text;
    EXPECT_NE(text.find("山田"), std::string::npos) << text;
  }
  EXPECT_TRUE(sawNonLatin) << "no PDF holds the text of non-latin.eml";
}

TEST_F(ConverterChain, LandscapeExchangesThePaperAndMarginsMoveTheText) {
  Convert({"plain-text.eml"});
  const fs::path plain = OnlyPdf();
  ASSERT_FALSE(plain.empty());
  const auto [plainLeft, plainTop] = TextOrigin(plain);
  EXPECT_LT(plainLeft, 36.0);
  EXPECT_LT(plainTop, 36.0);
  fs::remove(plain);

  SetSettings({"LandscapeOrienatation=true", "MarginLeft=72", "MarginTop=54"});
  Convert({"plain-text.eml"});
  const fs::path turned = OnlyPdf();
  ASSERT_FALSE(turned.empty());
  // The settings keep the paper upright; the converter turns it.
  const PageSize paper = PaperFromSettings();
  const PageSize size = SizeOf(turned);
  EXPECT_NEAR(size.width, paper.height, 0.5);
  EXPECT_NEAR(size.height, paper.width, 0.5);
  const auto [left, top] = TextOrigin(turned);
  EXPECT_GE(left, 72.0 - 0.5);
  EXPECT_LT(left, 72.0 + 36.0);
  EXPECT_GE(top, 54.0 - 0.5);
}

TEST_F(ConverterChain, LinksStayOnlyWhenGenerateLinksIsOn) {
  const std::string url = "https://tessellate-survey.example/projects/quayside-2026/scope?rev=3";
  for (const bool links : {true, false}) {
    SCOPED_TRACE(links ? "GenerateLinks on" : "GenerateLinks off");
    SetSettings({links ? "GenerateLinks=true" : "GenerateLinks=false"});
    Convert({"plain-text.eml"});
    const fs::path pdf = OnlyPdf();
    ASSERT_FALSE(pdf.empty());
    const std::string urls = PdfInfo(pdf, "-url");
    EXPECT_EQ(urls.find(url) != std::string::npos, links) << urls;
    // The text of the address stays either way.
    EXPECT_NE(TextOf(pdf).find("tessellate-survey.example"), std::string::npos);
    fs::remove(pdf);
  }
}

TEST_F(ConverterChain, EveryEncryptionLevelReallyEncryptsAtTheVersionItNeeds) {
  struct Case {
    int type;
    const char* revision;
    const char* minimumVersion;
  };
  const Case cases[] = {
      {0, "R = 2", "1.4"}, {1, "R = 3", "1.4"}, {2, "R = 4", "1.6"},
      {3, "R = 5", "1.7"}, {4, "R = 6", "1.7"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("secType " + std::to_string(c.type));
    SetSettings({"secEnabled=true", "secType=" + std::to_string(c.type), "secHasUserPassword=true",
                 "secUserPassword=open sesame", "secHasOwnerPassword=true",
                 "secOwnerPassword=keeper", "sec40AllowPrinting=true", "sec128Printing=1",
                 "sec128Changes=0", "sec128AllowCopying=false"});
    const CommandOutcome outcome = Convert({"plain-text.eml"});
    const fs::path pdf = OnlyPdf();
    ASSERT_FALSE(pdf.empty()) << outcome.err;
    const std::string quoted = ShellQuote(pdf.string());
    // Without the user password the file does not open.
    EXPECT_EQ(Tool("qpdf --requires-password " + quoted, 0), "");
    const std::string shown = Tool("qpdf --password=keeper --show-encryption " + quoted);
    EXPECT_NE(shown.find(c.revision), std::string::npos) << shown;
    EXPECT_GE(VersionOf(pdf, "keeper"), c.minimumVersion);
    if (c.type == 0) {
      EXPECT_NE(shown.find("print low resolution: allowed"), std::string::npos) << shown;
    } else {
      EXPECT_NE(shown.find("print low resolution: allowed"), std::string::npos) << shown;
      EXPECT_NE(shown.find("print high resolution: not allowed"), std::string::npos) << shown;
      EXPECT_NE(shown.find("extract for any purpose: not allowed"), std::string::npos) << shown;
    }
    // A raised version is said on standard error; the levels that fit 1.4 say nothing.
    EXPECT_EQ(outcome.err.find("note:") != std::string::npos, c.type >= 2) << outcome.err;
    EXPECT_NE(TextOf(pdf, "open sesame").find("Quayside"), std::string::npos);
    fs::remove(pdf);
  }
}

TEST_F(ConverterChain, VersionAndCompressionFollowTheSettings) {
  struct Case {
    const char* pdfSetting;
    const char* compression;
    const char* version;
    bool objectStreams;
  };
  const Case cases[] = {
      {"65539", "1", "1.3", false},
      {"65541", "2", "1.5", true},
      {"65543", "0", "1.7", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string("PDFSpecification ") + c.pdfSetting + ", compression " +
                 c.compression);
    SetSettings({std::string("PDFSpecification=") + c.pdfSetting,
                 std::string("CompressionLevel=") + c.compression});
    Convert({"html-inline-picture.eml"});
    const fs::path pdf = OnlyPdf();
    ASSERT_FALSE(pdf.empty());
    EXPECT_EQ(VersionOf(pdf), c.version);
    const std::string bytes = folder_.Read(fs::relative(pdf, folder_.path()).string());
    EXPECT_EQ(bytes.find("/ObjStm") != std::string::npos, c.objectStreams);
    fs::remove(pdf);
  }
}

TEST_F(ConverterChain, AttachmentsAreEmbeddedUnderTheirOwnNames) {
  Convert({"attachments.eml"});
  const fs::path pdf = OnlyPdf();
  ASSERT_FALSE(pdf.empty());
  EXPECT_EQ(AttachmentsOf(pdf),
            (Strings{"Angebot_2026-417_Kühlraum.pdf", "Positionsliste_Halle_B_äöü.csv"}));
}

TEST_F(ConverterChain, PortfolioHoldsEveryMailBehindACoverWithTheMailSchema) {
  const CommandOutcome outcome = Convert(kSamples, true);
  EXPECT_EQ(outcome.err, "");
  const fs::path pdf = OnlyPdf();
  ASSERT_FALSE(pdf.empty());
  EXPECT_EQ(Tool("qpdf --check " + ShellQuote(pdf.string()) + " >/dev/null; echo $?"), "0\n");
  const Strings files = AttachmentsOf(pdf);
  // Five mail PDFs beside the attachments of the mails, one of which is a PDF too.
  const auto mails = std::count_if(files.begin(), files.end(), [](const std::string& name) {
    return name.size() > 4 && name.substr(name.size() - 4) == ".pdf" &&
           name != "Angebot_2026-417_Kühlraum.pdf";
  });
  EXPECT_EQ(mails, 5) << ::testing::PrintToString(files);
  EXPECT_NE(std::find(files.begin(), files.end(), "Positionsliste_Halle_B_äöü.csv"), files.end());

  const std::string json = Tool("qpdf --json --json-key=qpdf " + ShellQuote(pdf.string()));
  for (const char* field : {"/Collection", "/Schema", "/From", "/To", "/Cc", "/Bcc", "/Subject",
                            "/Received", "/Importance", "/Sensitivity", "/Sort"}) {
    EXPECT_NE(json.find(field), std::string::npos) << field;
  }
  // The cover names the user and lists the mails.
  const std::string cover = TextOf(pdf);
  EXPECT_NE(cover.find(kUser), std::string::npos) << cover;
  EXPECT_NE(cover.find("Quayside"), std::string::npos) << cover;
  EXPECT_EQ(LeftInTemp(), Strings{});
}

TEST_F(ConverterChain, PythonCorpusAsAPortfolioHoldsEveryMail) {
  const fs::path corpus = "/usr/lib/python3.11/test/test_email/data";
  Strings mails;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(corpus, error)) {
    if (entry.path().filename().string().rfind("msg_", 0) == 0) mails.push_back(entry.path());
  }
  if (mails.empty()) GTEST_SKIP() << "libpython3.11-testsuite is not installed";
  std::sort(mails.begin(), mails.end());
  Convert(mails, true, "MRWL_KEEP_TEMP=1");
  const fs::path pdf = OnlyPdf();
  ASSERT_FALSE(pdf.empty());
  ASSERT_EQ(Handoffs().size(), 1u);
  const testing::DecodedHandoff handoff = DecodeHandoff(Handoffs().front());
  EXPECT_GE(handoff.jobs.size(), 40u);
  EXPECT_EQ(Tool("qpdf --check " + ShellQuote(pdf.string()) + " >/dev/null; echo $?"), "0\n");
  const Strings files = AttachmentsOf(pdf);
  const std::set<std::string> present(files.begin(), files.end());
  for (const testing::DecodedJob& job : handoff.jobs) {
    ASSERT_TRUE(job.mail.has_value());
    EXPECT_EQ(present.count(Utf8(job.mail->fileName)), 1u) << Utf8(job.mail->fileName);
  }
}

// --- the converter run on its own, over the record of a real run ---

class ConverterOnRecord : public ConverterChain {
 protected:
  // Runs the chain over `mails` keeping its files, then takes the record off the run.
  void KeepRecordOf(const std::string& mail) { KeepRecordOf(Strings{mail}, false); }
  void KeepRecordOf(const Strings& mails, bool portfolio) {
    Convert(mails, portfolio, "MRWL_KEEP_TEMP=1");
    ASSERT_EQ(Handoffs().size(), 1u);
    record_ = Handoffs().front();
    handoff_ = DecodeHandoff(record_);
    ASSERT_EQ(handoff_.jobs.size(), mails.size());
    if (portfolio) {
      output_ = Utf8(handoff_.portfolioOutput);
      fs::remove(output_);
      return;
    }
    page_ = Utf8(handoff_.jobs[0].page);
    output_ = Utf8(handoff_.jobs[0].output);
    ASSERT_TRUE(fs::exists(page_));
    fs::remove(output_);
  }

  fs::path record_;
  testing::DecodedHandoff handoff_;
  fs::path page_;
  fs::path output_;
};

TEST_F(ConverterOnRecord, DamagedRecordIsRefusedWithExitTwoAndNothingDeleted) {
  KeepRecordOf("plain-text.eml");
  const std::string good = folder_.Read(fs::relative(record_, folder_.path()).string());
  struct Case {
    const char* name;
    std::string bytes;
  };
  std::string wrongVersion = good;
  wrongVersion[4] = 13;
  std::string longer = good + std::string("\0", 1);
  std::string truncated = good.substr(0, good.size() - 3);
  truncated[0] = static_cast<char>(truncated.size() & 0xFF);
  truncated[1] = static_cast<char>((truncated.size() >> 8) & 0xFF);
  const Case cases[] = {
      {"an unknown version", wrongVersion},
      {"a byte past TotalSize", longer},
      {"a job cut short", truncated},
      {"an empty file", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::ofstream(record_, std::ios::binary | std::ios::trunc) << c.bytes;
    const CommandOutcome outcome = RunConverter(record_.string());
    EXPECT_EQ(outcome.status, 2) << outcome.err;
    EXPECT_NE(outcome.err.find(record_.string()), std::string::npos) << outcome.err;
    EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome.err;
    EXPECT_TRUE(fs::exists(record_));
    EXPECT_TRUE(fs::exists(page_));
    EXPECT_FALSE(fs::exists(output_));
  }
}

TEST_F(ConverterOnRecord, FailedJobKeepsTheExistingPdfAndStillCleansUp) {
  KeepRecordOf("plain-text.eml");
  std::ofstream(output_, std::ios::binary) << "an earlier PDF the user keeps";
  // The page goes missing between export and conversion.
  fs::remove(page_);
  const CommandOutcome outcome = RunConverter(record_.string());
  EXPECT_EQ(outcome.status, 1) << outcome.err;
  EXPECT_NE(outcome.err.find("job 1 of 1 (\"Site survey for the Quayside warehouse, Thursday 3 "
                             "December\") failed: "),
            std::string::npos)
      << outcome.err;
  EXPECT_EQ(folder_.Read(fs::relative(output_, folder_.path()).string()),
            "an earlier PDF the user keeps");
  EXPECT_EQ(OutputPdfs(), std::vector<fs::path>{output_});
  EXPECT_EQ(Matching("out", "").size(), 1u);
  // A failed run deletes what the record marks, the hand-off file too.
  EXPECT_FALSE(fs::exists(record_));
}

TEST_F(ConverterOnRecord, PortfolioGoesOnWithoutTheJobThatFailedOrTheAttachmentThatWentAway) {
  KeepRecordOf({"plain-text.eml", "attachments.eml"}, true);
  ASSERT_TRUE(handoff_.jobs[0].mail && handoff_.jobs[1].mail);
  fs::remove(Utf8(handoff_.jobs[0].page));
  // Another conversion that saved an attachment of the same name has finished and taken it along.
  ASSERT_GE(handoff_.jobs[1].attachments.size(), 2u);
  const std::string gone = Utf8(handoff_.jobs[1].attachments[0]);
  const std::string kept = fs::path(Utf8(handoff_.jobs[1].attachments[1])).filename().string();
  fs::remove(gone);
  const CommandOutcome outcome = RunConverter(record_.string());
  EXPECT_EQ(outcome.status, 1) << outcome.err;
  EXPECT_NE(
      outcome.err.find("job 1 of 2 (\"" + Utf8(handoff_.jobs[0].mail->subject) + "\") failed: "),
      std::string::npos)
      << outcome.err;
  EXPECT_NE(outcome.err.find("job 2 of 2 (\"" + Utf8(handoff_.jobs[1].mail->subject) +
                             "\") failed: its attachment " + gone + " is not there any more"),
            std::string::npos)
      << outcome.err;
  ASSERT_TRUE(fs::exists(output_));
  const Strings files = AttachmentsOf(output_);
  const auto count = [&files](const std::string& name) {
    return std::count(files.begin(), files.end(), name);
  };
  EXPECT_EQ(count(Utf8(handoff_.jobs[0].mail->fileName)), 0) << ::testing::PrintToString(files);
  EXPECT_EQ(count(Utf8(handoff_.jobs[1].mail->fileName)), 1) << ::testing::PrintToString(files);
  EXPECT_EQ(count(kept), 1) << ::testing::PrintToString(files);
  EXPECT_EQ(count(fs::path(gone).filename().string()), 0) << ::testing::PrintToString(files);
  EXPECT_FALSE(fs::exists(record_));
}

TEST_F(ConverterOnRecord, NoBrowserFailsEveryJobNamesThePackageAndCleansUp) {
  KeepRecordOf("attachments.eml");
  ASSERT_EQ(handoff_.jobs[0].attachments.size(), 2u);
  const CommandOutcome outcome =
      RunConverter(record_.string(), "MRWL_CHROMIUM=" + folder_.PathOf("no-such-browser"));
  EXPECT_EQ(outcome.status, 1) << outcome.err;
  EXPECT_NE(outcome.err.find("chromium"), std::string::npos) << outcome.err;
  EXPECT_FALSE(fs::exists(output_));
  EXPECT_FALSE(fs::exists(record_));
  EXPECT_FALSE(fs::exists(page_));
  for (const std::u16string& attachment : handoff_.jobs[0].attachments) {
    EXPECT_FALSE(fs::exists(Utf8(attachment))) << Utf8(attachment);
  }
}

TEST_F(ConverterOnRecord, ReportsProgressAndThePdfOnlyOnATerminal) {
  KeepRecordOf("plain-text.eml");
  const CommandOutcome onTerminal =
      RunConverter(record_.string(), "MRWL_KEEP_TEMP=1", /*onTerminal=*/true);
  EXPECT_EQ(onTerminal.status, 0) << onTerminal.err;
  EXPECT_EQ(onTerminal.out,
            "[1/1] Site survey for the Quayside warehouse, Thursday 3 December\r\n"
            "PDF written: " +
                output_.string() + "\r\n");
  EXPECT_TRUE(fs::exists(output_));
  fs::remove(output_);

  const CommandOutcome inPipe = RunConverter(record_.string());
  EXPECT_EQ(inPipe.status, 0) << inPipe.err;
  EXPECT_EQ(inPipe.err, "");
  EXPECT_TRUE(fs::exists(output_));
  EXPECT_FALSE(fs::exists(record_));
  EXPECT_FALSE(fs::exists(page_));
}

TEST_F(ConverterChain, RunAfterwardsOpensThePdfWithTheDefaultApplication) {
  const std::string record = folder_.PathOf("records/opener");
  const std::string opener = folder_.Write("opener.sh", testing::RecorderScript(record), true);
  SetSettings({"RunPDFApp=true", "RunCustPDFApp=false"});
  Convert({"plain-text.eml"}, false, "MRWL_OPENER=" + ShellQuote(opener));
  const fs::path pdf = OnlyPdf();
  EXPECT_EQ(testing::WaitForLines(record), Strings{pdf.string()});
}

TEST_F(ConverterChain, RunAfterwardsGivesACustomApplicationThePdfForEveryPercentF) {
  const std::string record = folder_.PathOf("records/viewer");
  const std::string viewer = folder_.Write("viewer.sh", testing::RecorderScript(record), true);
  SetSettings(
      {"RunPDFApp=true", "RunCustPDFApp=true", "RunPDFPath=" + viewer, "RunPDFParams=--page 1 %f"});
  Convert({"plain-text.eml"});
  const fs::path pdf = OnlyPdf();
  // The name has blanks: it reaches the application as one argument.
  EXPECT_EQ(testing::WaitForLines(record), (Strings{"--page", "1", pdf.string()}));
}

}  // namespace
}  // namespace mrwl
