// Runs real mail through the built `mrwl convert`, as a user would: every message of Python's
// e-mail test corpus, and the sample mails of this repository. A copy of the add-in module stands
// in a folder of the test with a recording script as its converter, so each start leaves its
// arguments and a copy of its hand-off record behind. The pages, attachment copies and pictures
// the run leaves in the temporary folder are then checked against what Python's email package
// reads in the same files (host/testdata/corpus_reference.py, run as a child process).

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "conversion/handoff_test_support.h"
#include "host/mime_text.h"
#include "platform/utf.h"
#include "testing/temp_folder.h"

namespace mrwl {
namespace {

namespace fs = std::filesystem;
using testing::DecodedHandoff;
using testing::DecodedJob;
using testing::HandoffReader;

constexpr char kCorpusFolder[] = "/usr/lib/python3.11/test/test_email/data";
constexpr char kUserAddress[] = "corpus.reader@example.org";
// Sanitizer builds start slowly, and every converter start is a shell of its own.
constexpr std::chrono::seconds kStartsTimeout{30};
constexpr std::chrono::seconds kStragglers{3};
// Plain runs take the corpus in a few selections rather than one process per mail.
constexpr std::size_t kPlainBatchSize = 12;

// What Python reads in one mail file.
struct Attachment {
  std::string type;
  std::string name;  // empty when the part carries no file name
};
struct Expected {
  std::optional<std::string> subject;
  std::string fromName;
  std::string fromAddress;
  std::vector<Attachment> attachments;
  std::vector<std::string> pictures;  // content ids the HTML body shows
  bool damaged = false;
};

// One start of the converter: its arguments and the hand-off record it was given.
struct ConverterStart {
  std::vector<std::string> arguments;
  std::optional<DecodedHandoff> handoff;
};

struct RunResult {
  int status = -1;
  std::string errors;
  std::vector<ConverterStart> starts;
};

std::string ReadBytes(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Runs `command` through the shell and answers its exit status; the shell itself writes the
// status to a file, so the test needs no process headers.
int RunShell(const std::string& command, const fs::path& statusFile) {
  const std::string line = "(" + command + "); echo $? > " + testing::ShellQuote(statusFile.string());
  if (std::system(line.c_str()) == -1) return -1;
  std::istringstream in(ReadBytes(statusFile));
  int status = -1;
  in >> status;
  return status;
}

// Splits a line of the reference output into its fields, with the escapes undone.
std::vector<std::string> SplitFields(std::string_view line) {
  std::vector<std::string> fields(1);
  for (std::size_t i = 0; i < line.size(); ++i) {
    const char c = line[i];
    if (c == '\t') {
      fields.emplace_back();
    } else if (c == '\\' && i + 1 < line.size()) {
      const char next = line[++i];
      fields.back() += next == 't' ? '\t' : next == 'n' ? '\n' : next == 'r' ? '\r' : next;
    } else {
      fields.back() += c;
    }
  }
  return fields;
}

// Asks Python's email package about `files` and answers its facts by path.
std::map<std::string, Expected> ReadReference(const std::vector<std::string>& files,
                                              const testing::TempFolder& folder) {
  std::string command = "python3 " + testing::ShellQuote(MRWL_SOURCE_DIR "/host/testdata/corpus_reference.py");
  for (const std::string& file : files) command += " " + testing::ShellQuote(file);
  command += " > " + testing::ShellQuote(folder.PathOf("reference.tsv")) + " 2> " +
             testing::ShellQuote(folder.PathOf("reference.err"));
  const int status = RunShell(command, folder.PathOf("reference.status"));
  EXPECT_EQ(status, 0) << "the reference script failed: " << folder.Read("reference.err");

  std::map<std::string, Expected> facts;
  Expected* current = nullptr;
  std::istringstream in(folder.Read("reference.tsv"));
  for (std::string line; std::getline(in, line);) {
    const std::vector<std::string> fields = SplitFields(line);
    const std::string& kind = fields[0];
    if (kind == "FILE" && fields.size() == 2) {
      current = &facts[fields[1]];
    } else if (current == nullptr) {
      ADD_FAILURE() << "reference line before any FILE: " << line;
    } else if (kind == "SUBJECT" && fields.size() == 2) {
      current->subject = fields[1];
    } else if (kind == "FROM" && fields.size() == 3) {
      current->fromName = fields[1];
      current->fromAddress = fields[2];
    } else if (kind == "ATTACHMENT" && fields.size() == 3) {
      current->attachments.push_back({fields[1], fields[2]});
    } else if (kind == "PICTURE" && fields.size() == 2) {
      current->pictures.push_back(fields[1]);
    } else if (kind == "DAMAGED") {
      current->damaged = true;
    } else {
      ADD_FAILURE() << "unreadable reference line: " << line;
    }
  }
  EXPECT_EQ(facts.size(), files.size()) << "the reference did not describe every file";
  return facts;
}

// Whether `text` is well-formed UTF-8: shortest forms only, no surrogates, nothing above
// U+10FFFF. Written here rather than taken from the store, so the check does not trust the code
// it checks.
bool IsWellFormedUtf8(std::string_view text) {
  for (std::size_t i = 0; i < text.size();) {
    const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    const unsigned char lead = byte(i);
    std::size_t length = 0;
    unsigned char low = 0x80, high = 0xBF;  // the range of the first continuation byte
    if (lead < 0x80) {
      length = 1;
    } else if (lead >= 0xC2 && lead <= 0xDF) {
      length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      length = 3;
      if (lead == 0xE0) low = 0xA0;
      if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      length = 4;
      if (lead == 0xF0) low = 0x90;
      if (lead == 0xF4) high = 0x8F;
    } else {
      return false;
    }
    if (text.size() - i < length) return false;
    for (std::size_t k = 1; k < length; ++k) {
      const unsigned char c = byte(i + k);
      if (c < (k == 1 ? low : 0x80) || c > (k == 1 ? high : 0xBF)) return false;
    }
    i += length;
  }
  return true;
}

// `text` without any blank, tab or line end: folding and wrapping may differ between two readers
// of one header, the characters may not.
std::string WithoutWhitespace(std::string_view text) {
  std::string out;
  for (char c : text) {
    if (c != ' ' && c != '\t' && c != '\r' && c != '\n') out += c;
  }
  return out;
}

// A page's text with the equivalent spellings of the quote references made one, and without
// whitespace, to look for escaped header values in.
std::string SearchablePage(std::string_view page) {
  std::string text = WithoutWhitespace(page);
  const std::pair<std::string_view, std::string_view> spellings[] = {
      {"&#x27;", "&#39;"}, {"&apos;", "&#39;"}, {"&#34;", "&quot;"}, {"&#x22;", "&quot;"}};
  for (const auto& [from, to] : spellings) {
    for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at)) {
      text.replace(at, from.size(), to);
      at += to.size();
    }
  }
  return text;
}

// The <meta> elements of `page` that declare a charset, as written.
std::vector<std::string> CharsetDeclarations(const std::string& page) {
  const std::string lower = host::AsciiLower(page);
  std::vector<std::string> declarations;
  for (std::size_t at = lower.find("<meta"); at != std::string::npos;
       at = lower.find("<meta", at + 1)) {
    const std::size_t end = lower.find('>', at);
    const std::string element = page.substr(at, end == std::string::npos ? end : end + 1 - at);
    if (host::AsciiLower(element).find("charset") != std::string::npos) declarations.push_back(element);
  }
  return declarations;
}

// What every exported page must be: a UTF-8 HTML document that says so, once, in its head. A
// mail's own document keeps its document type, or its lack of one, so that it renders as it was
// written, and text a broken mail puts before its <html> stays where it is.
void ExpectWellFormedPage(const std::string& page) {
  EXPECT_TRUE(IsWellFormedUtf8(page)) << "the page is not UTF-8";
  const std::string lower = host::AsciiLower(page);
  const std::size_t head = lower.find("<head");
  ASSERT_NE(head, std::string::npos) << page.substr(0, 80);
  const std::size_t headEnd = lower.find('>', head) + 1;
  const std::size_t meta = lower.find("<meta charset=\"utf-8\">");
  ASSERT_NE(meta, std::string::npos);
  EXPECT_GE(meta, headEnd);
  EXPECT_EQ(lower.find_first_not_of(" \t\r\n", headEnd), meta) << "the declaration comes first";
  EXPECT_EQ(CharsetDeclarations(page), std::vector<std::string>{"<meta charset=\"utf-8\">"});
}

// A subject as the add-in proposes it for a file name: the characters a file name must not hold,
// and a few more, dropped, at most 256 UTF-16 units of the subject looked at.
std::string ProposedStem(std::string_view subject) {
  const std::u16string wide = platform::Utf8ToUtf16(subject);
  std::u16string kept;
  for (std::size_t i = 0; i < wide.size() && i < 256; ++i) {
    if (std::u16string_view(u"|\\?*<\":>+[]/-.").find(wide[i]) == std::u16string_view::npos) {
      kept += wide[i];
    }
  }
  return platform::Utf16ToUtf8(kept);
}

class MailConversion : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* binaryDir = std::getenv("MRWL_TEST_BINARY_DIR");
    ASSERT_NE(binaryDir, nullptr) << "MRWL_TEST_BINARY_DIR names the build folder";
    program_ = fs::path(binaryDir) / "bin" / "mrwl";
    const fs::path module = fs::path(binaryDir) / "bin" / "libmrwl-addin.so";
    ASSERT_TRUE(fs::exists(program_)) << program_;
    ASSERT_TRUE(fs::exists(module)) << module;
    // The module starts the converter that stands beside the file it was loaded from.
    fs::create_directories(folder_.path() / "module");
    fs::copy_file(module, folder_.path() / "module" / "libmrwl-addin.so");
    fs::create_directories(store_);
    fs::create_directories(output_);
  }

  // The mail files of `folder` whose names start with `prefix`, sorted by name.
  static std::vector<std::string> MailFiles(const fs::path& folder, std::string_view prefix) {
    std::vector<std::string> files;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
      const std::string name = entry.path().filename().string();
      const std::string extension = entry.path().extension().string();
      if (name.starts_with(prefix) && (extension == ".txt" || extension == ".eml")) {
        files.push_back(entry.path().string());
      }
    }
    std::sort(files.begin(), files.end());
    return files;
  }

  // Runs `mrwl convert` with `options` over `mails` and collects the converter starts it made,
  // waiting for `expectedStarts` of them (the module does not wait for its converter).
  RunResult Convert(const std::vector<std::string>& options, const std::vector<std::string>& mails,
                    std::size_t expectedStarts) {
    const fs::path records = folder_.path() / ("records" + std::to_string(++runs_));
    fs::create_directories(records);
    const std::string recordsQuoted = testing::ShellQuote(records.string());
    (void)folder_.Write("module/HtmlToPdfApp",
                        "#!/bin/sh\n"
                        "# Stands in for the converter: keeps its arguments and a copy of the\n"
                        "# hand-off file, and leaves the pages for the test.\n"
                        "previous=\n"
                        "for argument in \"$@\"; do\n"
                        "  if [ \"$previous\" = '\\bp' ]; then cp \"$argument\" " +
                            recordsQuoted +
                            "/$$.bin; fi\n"
                            "  previous=$argument\n"
                            "done\n"
                            "printf '%s\\n' \"$@\" > " +
                            recordsQuoted + "/$$.part\nmv " + recordsQuoted + "/$$.part " +
                            recordsQuoted + "/$$.args\n",
                        /*executable=*/true);

    std::string command = "env MRWL_ADDIN=" + testing::ShellQuote(folder_.PathOf("module/libmrwl-addin.so")) +
                          " MRWL_REGISTRY=" + testing::ShellQuote(folder_.PathOf("registry.db")) +
                          " TMPDIR=" + testing::ShellQuote(store_.string()) +
                          " MRWL_USER_ADDRESS=" + testing::ShellQuote(kUserAddress) + " " +
                          testing::ShellQuote(program_.string()) + " convert";
    for (const std::string& option : options) command += " " + testing::ShellQuote(option);
    for (const std::string& mail : mails) command += " " + testing::ShellQuote(mail);
    command += " < /dev/null > /dev/null 2> " + testing::ShellQuote(folder_.PathOf("mrwl.err"));

    RunResult result;
    result.status = RunShell(command, folder_.path() / "mrwl.status");
    result.errors = folder_.Read("mrwl.err");

    // A run that failed may still have started some converters before it stopped.
    const auto deadline =
        std::chrono::steady_clock::now() + (result.status == 0 ? kStartsTimeout : kStragglers);
    std::vector<fs::path> argumentFiles;
    for (;;) {
      argumentFiles.clear();
      for (const fs::directory_entry& entry : fs::directory_iterator(records)) {
        if (entry.path().extension() == ".args") argumentFiles.push_back(entry.path());
      }
      if (argumentFiles.size() >= expectedStarts || std::chrono::steady_clock::now() >= deadline) {
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    for (const fs::path& file : argumentFiles) {
      ConverterStart& start = result.starts.emplace_back();
      std::istringstream in(ReadBytes(file));
      for (std::string line; std::getline(in, line);) start.arguments.push_back(line);
      fs::path copy = file;
      copy.replace_extension(".bin");
      start.handoff = HandoffReader::Decode(ReadBytes(copy));
    }
    return result;
  }

  // Checks one exported mail against what Python read in its file: the page, the header values it
  // shows, the attachment copies and the pictures of the body.
  void ExpectExported(const DecodedJob& job, const Expected& expected) {
    const fs::path page = platform::Utf16ToUtf8(job.page);
    EXPECT_EQ(page.parent_path(), store_);
    EXPECT_TRUE(page.filename().string().starts_with("mrwm_")) << page;
    EXPECT_TRUE(job.deletePage);
    const std::string html = ReadBytes(page);
    ASSERT_FALSE(html.empty()) << "no page at " << page;
    ExpectWellFormedPage(html);

    const std::string searchable = SearchablePage(html);
    if (expected.subject && !WithoutWhitespace(*expected.subject).empty()) {
      EXPECT_NE(searchable.find(WithoutWhitespace(host::EscapeHtml(*expected.subject))),
                std::string::npos)
          << "subject \"" << *expected.subject << "\" not on the page";
    }
    for (const std::string& sender : {expected.fromName, expected.fromAddress}) {
      if (WithoutWhitespace(sender).empty()) continue;
      EXPECT_NE(searchable.find(WithoutWhitespace(host::EscapeHtml(sender))), std::string::npos)
          << "sender \"" << sender << "\" not on the page";
    }

    ExpectPictures(page, html, expected.pictures);
    // Where Python found the structure damaged, another parser may rightly cut other parts.
    if (expected.damaged) return;
    EXPECT_EQ(job.deleteAttachments, !expected.attachments.empty() || !expected.pictures.empty());
    ExpectAttachments(job.attachments, expected.attachments);
  }

  // The copies are in the temporary folder under their own names: the name the mail gives, or
  // for an attached message without one, its subject and ".eml".
  void ExpectAttachments(const std::vector<std::u16string>& copies,
                         const std::vector<Attachment>& expected) {
    std::multiset<std::string> names;
    for (const std::u16string& copy : copies) {
      const fs::path path = platform::Utf16ToUtf8(copy);
      EXPECT_EQ(path.parent_path(), store_);
      EXPECT_TRUE(fs::is_regular_file(path)) << "no attachment copy at " << path;
      names.insert(path.filename().string());
    }
    std::vector<std::string> expectedNames;
    for (const Attachment& attachment : expected) {
      expectedNames.push_back(attachment.name.empty() ? "<unnamed " + attachment.type + ">"
                                                      : attachment.name);
    }
    ASSERT_EQ(copies.size(), expected.size())
        << "expected " << ::testing::PrintToString(expectedNames) << ", got "
        << ::testing::PrintToString(names);
    std::multiset<std::string> expectedNamed;
    for (const Attachment& attachment : expected) {
      if (!attachment.name.empty()) expectedNamed.insert(attachment.name);
    }
    // Two parts of one name share one copy, which the hand-off lists twice.
    for (const std::string& name : expectedNamed) {
      EXPECT_EQ(names.count(name), expectedNamed.count(name)) << name << " not saved";
    }
    for (const Attachment& attachment : expected) {
      if (attachment.name.empty() && attachment.type == "message/rfc822") {
        EXPECT_TRUE(std::any_of(names.begin(), names.end(), [](const std::string& n) {
          return n.ends_with(".eml");
        })) << "no attached message saved as .eml";
      }
    }
  }

  // Each picture the body shows through cid: stands in the page's companion folder, and the
  // page points at it there instead of at the content id.
  static void ExpectPictures(const fs::path& page, const std::string& html,
                             const std::vector<std::string>& pictures) {
    const fs::path companion = page.parent_path() / (page.stem().string() + "_files");
    if (pictures.empty()) return;
    ASSERT_TRUE(fs::is_directory(companion)) << "no companion folder " << companion;
    std::vector<std::string> files;
    for (const fs::directory_entry& entry : fs::directory_iterator(companion)) {
      files.push_back(entry.path().filename().string());
      const std::string reference = companion.filename().string() + "/" + files.back();
      EXPECT_NE(html.find(reference), std::string::npos) << reference << " not used by the page";
      EXPECT_TRUE(ReadBytes(entry.path()).starts_with("\x89PNG\r\n\x1A\n") ||
                  !entry.path().filename().string().ends_with(".png"))
          << entry.path() << " is not the picture";
    }
    EXPECT_EQ(files.size(), pictures.size());
    for (const std::string& contentId : pictures) {
      EXPECT_EQ(host::AsciiLower(html).find("cid:" + host::AsciiLower(contentId)), std::string::npos)
          << "the page still points at cid:" << contentId;
    }
  }

  // Runs one portfolio over `mails` and checks each job against the reference.
  void ConvertPortfolioAndCheck(const std::vector<std::string>& mails) {
    const std::map<std::string, Expected> reference = ReadReference(mails, folder_);
    const RunResult run = Convert({"--portfolio", "-d", output_.string(), "--yes"}, mails, 1);
    EXPECT_EQ(run.status, 0) << run.errors;
    ASSERT_EQ(run.starts.size(), 1u) << run.errors;
    ASSERT_TRUE(run.starts[0].handoff.has_value()) << "the hand-off record does not decode";
    const DecodedHandoff& handoff = *run.starts[0].handoff;
    EXPECT_TRUE(handoff.portfolio);
    EXPECT_EQ(handoff.portfolioUser, platform::Utf8ToUtf16(kUserAddress));
    const fs::path output = platform::Utf16ToUtf8(handoff.portfolioOutput);
    EXPECT_EQ(output.parent_path(), output_);
    EXPECT_EQ(output.extension(), ".pdf");
    ASSERT_EQ(handoff.jobs.size(), mails.size()) << run.errors;
    for (std::size_t i = 0; i < mails.size(); ++i) {
      SCOPED_TRACE(mails[i]);
      const DecodedJob& job = handoff.jobs[i];
      const Expected& expected = reference.at(mails[i]);
      EXPECT_EQ(job.output, handoff.portfolioOutput);
      ASSERT_TRUE(job.mail.has_value());
      EXPECT_EQ(WithoutWhitespace(platform::Utf16ToUtf8(job.mail->subject)),
                WithoutWhitespace(expected.subject.value_or("")));
      ExpectExported(job, expected);
    }
  }

  // Runs one plain conversion of `mails` and checks each converter start: its own hand-off file,
  // one job, a well-formed page, and the proposed PDFs named after the subjects.
  void ConvertPlainAndCheck(const std::vector<std::string>& mails,
                            const std::map<std::string, Expected>& reference) {
    const RunResult run = Convert({"-d", output_.string(), "--yes"}, mails, mails.size());
    EXPECT_EQ(run.status, 0) << run.errors;
    EXPECT_EQ(run.starts.size(), mails.size()) << run.errors;

    std::vector<std::string> stems;
    for (const ConverterStart& start : run.starts) {
      const auto option = std::find(start.arguments.begin(), start.arguments.end(), "\\bp");
      ASSERT_TRUE(option != start.arguments.end() && option + 1 != start.arguments.end())
          << ::testing::PrintToString(start.arguments);
      const fs::path handoffFile = *(option + 1);
      EXPECT_EQ(handoffFile.parent_path(), store_);
      EXPECT_TRUE(handoffFile.filename().string().starts_with("mrwstg_")) << handoffFile;
      ASSERT_TRUE(start.handoff.has_value()) << "the hand-off record does not decode";
      EXPECT_FALSE(start.handoff->portfolio);
      ASSERT_EQ(start.handoff->jobs.size(), 1u);
      const DecodedJob& job = start.handoff->jobs[0];
      EXPECT_FALSE(job.mail.has_value());
      const fs::path output = platform::Utf16ToUtf8(job.output);
      EXPECT_EQ(output.parent_path(), output_);
      EXPECT_EQ(output.extension(), ".pdf");
      stems.push_back(WithoutWhitespace(output.stem().string()));
      const std::string page = ReadBytes(platform::Utf16ToUtf8(job.page));
      ASSERT_FALSE(page.empty()) << "no page at " << platform::Utf16ToUtf8(job.page);
      ExpectWellFormedPage(page);
    }
    // Within one run a name is given once: a subject met again is numbered, and a mail without
    // one is "Untitled".
    std::vector<std::string> expectedStems;
    std::map<std::string, int> given;
    for (const std::string& mail : mails) {
      std::string stem = ProposedStem(reference.at(mail).subject.value_or(""));
      if (stem.empty()) stem = "Untitled";
      const int seen = ++given[stem];
      if (seen > 1) stem += " (" + std::to_string(seen) + ")";
      expectedStems.push_back(WithoutWhitespace(stem));
    }
    std::sort(stems.begin(), stems.end());
    std::sort(expectedStems.begin(), expectedStems.end());
    EXPECT_EQ(stems, expectedStems);
  }

  testing::TempFolder folder_;
  const fs::path store_ = folder_.path() / "store";
  const fs::path output_ = folder_.path() / "out";
  fs::path program_;
  int runs_ = 0;
};

class CorpusConversion : public MailConversion {
 protected:
  void SetUp() override {
    if (!fs::is_directory(kCorpusFolder)) {
      GTEST_SKIP() << "Python's e-mail test corpus is not installed at " << kCorpusFolder;
    }
    MailConversion::SetUp();
    corpus_ = MailFiles(kCorpusFolder, "msg_");
    ASSERT_FALSE(corpus_.empty());
  }

  std::vector<std::string> corpus_;
};

// One portfolio of the whole corpus: a job per message in selection order, each with its page,
// its header values on the page and its attachments in the temporary folder. Damaged messages
// (missing boundaries, a multipart without parts, a boundary used at two levels) still give a
// page.
TEST_F(CorpusConversion, PortfolioExportsEveryMessageAsPythonReadsIt) {
  ConvertPortfolioAndCheck(corpus_);
}

// Plain runs over a few selections: one converter start per message, each with a hand-off file of
// its own in the temporary folder, one job, a well-formed page, and the PDF proposed in the chosen
// folder under the message's subject.
TEST_F(CorpusConversion, PlainRunsStartOneConverterPerMessage) {
  const std::map<std::string, Expected> reference = ReadReference(corpus_, folder_);
  for (std::size_t first = 0; first < corpus_.size(); first += kPlainBatchSize) {
    const std::size_t last = std::min(first + kPlainBatchSize, corpus_.size());
    const std::vector<std::string> batch(corpus_.begin() + static_cast<std::ptrdiff_t>(first),
                                         corpus_.begin() + static_cast<std::ptrdiff_t>(last));
    SCOPED_TRACE(batch.front() + " and the " + std::to_string(batch.size() - 1) + " after it");
    ConvertPlainAndCheck(batch, reference);
  }
}

// The sample mails of the repository in one portfolio: flowed text, an HTML body with its
// picture moved into the companion folder, attachments with non-ASCII names, a meeting request,
// and header fields in Greek, Cyrillic and Japanese.
TEST_F(MailConversion, SamplesPortfolioShowsTextPicturesAndAttachments) {
  const std::vector<std::string> samples = MailFiles(MRWL_SOURCE_DIR "/samples", "");
  ASSERT_EQ(samples.size(), 5u);
  ConvertPortfolioAndCheck(samples);
}

}  // namespace
}  // namespace mrwl
