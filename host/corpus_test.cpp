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
using testing::ShellQuote;
constexpr std::size_t npos = std::string::npos;

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
  std::string fromName, fromAddress;
  std::vector<Attachment> attachments;
  std::vector<std::string> pictures;  // content ids the HTML body shows
  bool damaged = false;
};

// One start of the converter: its arguments and the hand-off record it was given.
struct ConverterStart {
  std::vector<std::string> arguments;
  std::optional<DecodedHandoff> handoff;
};

std::string ReadBytes(const fs::path& path) { return testing::WaitForFile(path, {}).value_or(""); }

// Splits a line of the reference output into its fields, with the escapes undone.
std::vector<std::string> SplitFields(std::string_view line) {
  std::vector<std::string> fields(1);
  for (std::size_t i = 0; i < line.size(); ++i) {
    if (line[i] == '\t') {
      fields.emplace_back();
    } else if (line[i] == '\\' && i + 1 < line.size()) {
      const char next = line[++i];
      fields.back() += next == 't' ? '\t' : next == 'n' ? '\n' : next == 'r' ? '\r' : next;
    } else {
      fields.back() += line[i];
    }
  }
  return fields;
}

// Asks Python's email package about `files` and answers its facts by path.
std::map<std::string, Expected> ReadReference(const std::vector<std::string>& files,
                                              const testing::TempFolder& folder) {
  std::string command =
      "python3 " + ShellQuote(MRWL_SOURCE_DIR "/host/testdata/corpus_reference.py");
  for (const std::string& file : files) command += " " + ShellQuote(file);
  const testing::CommandOutcome reference =
      testing::RunCommand(command, folder, "/dev/null", "reference");
  EXPECT_EQ(reference.status, 0) << "the reference script failed: " << reference.err;

  std::map<std::string, Expected> facts;
  Expected* current = nullptr;
  std::istringstream in(reference.out);
  for (std::string line; std::getline(in, line);) {
    const std::vector<std::string> f = SplitFields(line);
    if (f[0] == "FILE" && f.size() == 2) {
      current = &facts[f[1]];
    } else if (current != nullptr && f[0] == "SUBJECT" && f.size() == 2) {
      current->subject = f[1];
    } else if (current != nullptr && f[0] == "FROM" && f.size() == 3) {
      current->fromName = f[1];
      current->fromAddress = f[2];
    } else if (current != nullptr && f[0] == "ATTACHMENT" && f.size() == 3) {
      current->attachments.push_back({f[1], f[2]});
    } else if (current != nullptr && f[0] == "PICTURE" && f.size() == 2) {
      current->pictures.push_back(f[1]);
    } else if (current != nullptr && f[0] == "DAMAGED") {
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
    const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[i + k]); };
    const unsigned char lead = byte(0);
    const std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    if ((lead >= 0x80 && lead < 0xC2) || lead > 0xF4 || text.size() - i < length) return false;
    // The range of the first continuation byte shuts out overlong forms, surrogates and what
    // lies above U+10FFFF.
    const unsigned char low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    const unsigned char high = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    for (std::size_t k = 1; k < length; ++k) {
      if (byte(k) < (k == 1 ? low : 0x80) || byte(k) > (k == 1 ? high : 0xBF)) return false;
    }
    i += length;
  }
  return true;
}

// `text` without any blank, tab or line end: folding and wrapping may differ between two readers
// of one header, the characters may not.
std::string WithoutWhitespace(std::string_view text) {
  std::string out(text);
  std::erase_if(out, [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; });
  return out;
}

// A page's text with the equivalent spellings of the quote references made one, and without
// whitespace, to look for escaped header values in.
std::string SearchablePage(std::string_view page) {
  std::string text = WithoutWhitespace(page);
  const std::pair<std::string_view, std::string_view> spellings[] = {
      {"&#x27;", "&#39;"}, {"&apos;", "&#39;"}, {"&#34;", "&quot;"}, {"&#x22;", "&quot;"}};
  for (const auto& [from, to] : spellings) {
    for (std::size_t at = text.find(from); at != npos; at = text.find(from, at + to.size())) {
      text.replace(at, from.size(), to);
    }
  }
  return text;
}

// What every exported page must be: a UTF-8 HTML document that says so, once, first in its head.
// A mail's own document keeps its document type, or its lack of one, so that it renders as it was
// written, and text a broken mail puts before its <html> stays where it is.
void ExpectWellFormedPage(const std::string& page) {
  EXPECT_TRUE(IsWellFormedUtf8(page)) << "the page is not UTF-8";
  const std::string lower = host::AsciiLower(page);
  const std::size_t head = lower.find("<head");
  ASSERT_NE(head, npos) << page.substr(0, 80);
  const std::size_t meta = lower.find("<meta charset=\"utf-8\">");
  ASSERT_NE(meta, npos);
  EXPECT_EQ(lower.find_first_not_of(" \t\r\n", lower.find('>', head) + 1), meta)
      << "the declaration comes first in the head";
  std::vector<std::string> declarations;
  for (std::size_t at = lower.find("<meta"); at != npos; at = lower.find("<meta", at + 1)) {
    const std::string element = page.substr(at, lower.find('>', at) - at + 1);
    if (host::AsciiLower(element).find("charset") != npos) declarations.push_back(element);
  }
  EXPECT_EQ(declarations, std::vector<std::string>{"<meta charset=\"utf-8\">"});
}

// A subject as the add-in proposes it for a file name: the characters a file name must not hold,
// and a few more, dropped, at most 256 UTF-16 units of the subject looked at.
std::string ProposedStem(std::string_view subject) {
  const std::u16string wide = platform::Utf8ToUtf16(subject);
  std::u16string kept;
  for (std::size_t i = 0; i < wide.size() && i < 256; ++i) {
    if (std::u16string_view(u"|\\?*<\":>+[]/-.").find(wide[i]) == npos) kept += wide[i];
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
    ASSERT_TRUE(fs::exists(program_) && fs::exists(module)) << binaryDir;
    // The module starts the converter that stands beside the file it was loaded from.
    for (const fs::path& folder : {folder_.path() / "module", store_, output_}) {
      fs::create_directories(folder);
    }
    fs::copy_file(module, folder_.path() / "module" / "libmrwl-addin.so");
  }

  // The mail files of `folder` whose names start with `prefix`, sorted by name; none when the
  // folder is not there.
  static std::vector<std::string> MailFiles(const fs::path& folder, std::string_view prefix) {
    std::vector<std::string> files;
    std::error_code ignored;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder, ignored)) {
      const fs::path& path = entry.path();
      if (path.filename().string().starts_with(prefix) &&
          (path.extension() == ".txt" || path.extension() == ".eml")) {
        files.push_back(path.string());
      }
    }
    std::sort(files.begin(), files.end());
    return files;
  }

  // Runs `mrwl convert -d <output> --yes` over `mails`, as one portfolio or plainly, and collects
  // the converter starts: one for a portfolio, else one per mail. The module does not wait for its
  // converter, so the test waits for the starts.
  std::vector<ConverterStart> Convert(const std::vector<std::string>& mails, bool portfolio) {
    const fs::path records = folder_.path() / ("records" + std::to_string(++runs_));
    fs::create_directories(records);
    // Stands in for the converter: keeps its arguments and a copy of the hand-off file, and
    // leaves the pages for the test.
    folder_.Write("module/HtmlToPdfApp", "#!/bin/sh\nr=" + ShellQuote(records.string()) + R"(; p=
for a in "$@"; do if [ "$p" = '\bp' ]; then cp "$a" "$r/$$.bin"; fi; p=$a; done
printf '%s\n' "$@" > "$r/$$.part" && mv "$r/$$.part" "$r/$$.args"
)",
                  /*executable=*/true);
    std::string command =
        "env MRWL_ADDIN=" + ShellQuote(folder_.PathOf("module/libmrwl-addin.so")) +
        " MRWL_REGISTRY=" + ShellQuote(folder_.PathOf("registry.db")) +
        " TMPDIR=" + ShellQuote(store_.string()) +
        " MRWL_USER_ADDRESS=" + ShellQuote(kUserAddress) + " " + ShellQuote(program_.string()) +
        " convert" + (portfolio ? " --portfolio" : "") + " -d " + ShellQuote(output_.string()) +
        " --yes";
    for (const std::string& mail : mails) command += " " + ShellQuote(mail);
    const testing::CommandOutcome outcome =
        testing::RunCommand(command, folder_, "/dev/null", "mrwl");
    errors_ = outcome.err;
    EXPECT_EQ(outcome.status, 0) << errors_;

    // A run that failed may still have started some converters before it stopped.
    const std::size_t expectedStarts = portfolio ? 1 : mails.size();
    const auto deadline =
        std::chrono::steady_clock::now() + (outcome.status == 0 ? kStartsTimeout : kStragglers);
    std::vector<fs::path> argumentFiles;
    do {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      argumentFiles.clear();
      for (const fs::directory_entry& entry : fs::directory_iterator(records)) {
        if (entry.path().extension() == ".args") argumentFiles.push_back(entry.path());
      }
    } while (argumentFiles.size() < expectedStarts && std::chrono::steady_clock::now() < deadline);
    std::vector<ConverterStart> starts;
    for (fs::path file : argumentFiles) {
      ConverterStart& start = starts.emplace_back();
      start.arguments = testing::WaitForLines(file);
      start.handoff = testing::HandoffReader::Decode(ReadBytes(file.replace_extension(".bin")));
    }
    EXPECT_EQ(starts.size(), expectedStarts) << errors_;
    return starts;
  }

  // The page of `job`, which must be a well-formed page of its own in the temporary folder, for
  // the converter to delete.
  std::string ExpectPage(const DecodedJob& job) {
    const fs::path page = platform::Utf16ToUtf8(job.page);
    EXPECT_EQ(page.parent_path(), store_);
    EXPECT_TRUE(page.filename().string().starts_with("mrwm_")) << page;
    EXPECT_TRUE(job.deletePage);
    const std::string html = ReadBytes(page);
    EXPECT_FALSE(html.empty()) << "no page at " << page;
    ExpectWellFormedPage(html);
    return html;
  }

  // Runs one portfolio over `mails` and checks each job against what Python read in its file:
  // the page, the header values it shows, the attachment copies and the pictures of the body.
  void ConvertPortfolioAndCheck(const std::vector<std::string>& mails) {
    const std::map<std::string, Expected> reference = ReadReference(mails, folder_);
    const std::vector<ConverterStart> starts = Convert(mails, /*portfolio=*/true);
    ASSERT_EQ(starts.size(), 1u);
    ASSERT_TRUE(starts[0].handoff.has_value()) << "the hand-off record does not decode";
    const DecodedHandoff& handoff = *starts[0].handoff;
    EXPECT_TRUE(handoff.portfolio);
    EXPECT_EQ(handoff.portfolioUser, platform::Utf8ToUtf16(kUserAddress));
    const fs::path output = platform::Utf16ToUtf8(handoff.portfolioOutput);
    EXPECT_EQ(output.parent_path(), output_);
    EXPECT_EQ(output.extension(), ".pdf");
    ASSERT_EQ(handoff.jobs.size(), mails.size()) << errors_;
    for (std::size_t i = 0; i < mails.size(); ++i) {
      SCOPED_TRACE(mails[i]);
      const DecodedJob& job = handoff.jobs[i];
      const Expected& expected = reference.at(mails[i]);
      EXPECT_EQ(job.output, handoff.portfolioOutput);
      ASSERT_TRUE(job.mail.has_value());
      EXPECT_EQ(WithoutWhitespace(platform::Utf16ToUtf8(job.mail->subject)),
                WithoutWhitespace(expected.subject.value_or("")));
      const std::string html = ExpectPage(job);
      const std::string searchable = SearchablePage(html);
      for (const std::string& value :
           {expected.subject.value_or(""), expected.fromName, expected.fromAddress}) {
        if (WithoutWhitespace(value).empty()) continue;
        EXPECT_NE(searchable.find(WithoutWhitespace(host::EscapeHtml(value))), npos)
            << "header value \"" << value << "\" not on the page";
      }
      ExpectPictures(platform::Utf16ToUtf8(job.page), html, expected.pictures);
      // Where Python found the structure damaged, another parser may rightly cut other parts.
      if (expected.damaged) continue;
      EXPECT_EQ(job.deleteAttachments, !expected.attachments.empty() || !expected.pictures.empty());
      ExpectAttachments(job.attachments, expected.attachments);
    }
  }

  // The copies are in the temporary folder under their own names: the name the mail gives, or
  // for an attached message without one, its subject and ".eml". Two parts of one name share one
  // copy, which the hand-off lists twice.
  void ExpectAttachments(const std::vector<std::u16string>& copies,
                         const std::vector<Attachment>& expected) {
    std::multiset<std::string> names;
    for (const std::u16string& copy : copies) {
      const fs::path path = platform::Utf16ToUtf8(copy);
      EXPECT_EQ(path.parent_path(), store_);
      EXPECT_TRUE(fs::is_regular_file(path)) << "no attachment copy at " << path;
      names.insert(path.filename().string());
    }
    ASSERT_EQ(copies.size(), expected.size()) << "got " << ::testing::PrintToString(names);
    for (const Attachment& attachment : expected) {
      if (!attachment.name.empty()) {
        EXPECT_EQ(names.count(attachment.name),
                  std::ranges::count(expected, attachment.name, &Attachment::name))
            << attachment.name << " not saved";
      } else if (attachment.type == "message/rfc822") {
        EXPECT_TRUE(std::ranges::any_of(names, [](const auto& name) {
          return name.ends_with(".eml");
        })) << "no attached message saved as .eml";
      }
    }
  }

  // Each picture the body shows through cid: stands in the page's companion folder, and the
  // page points at it there instead of at the content id.
  static void ExpectPictures(const fs::path& page, const std::string& html,
                             const std::vector<std::string>& pictures) {
    if (pictures.empty()) return;
    const fs::path companion = page.parent_path() / (page.stem().string() + "_files");
    ASSERT_TRUE(fs::is_directory(companion)) << "no companion folder " << companion;
    std::size_t files = 0;
    for (const fs::directory_entry& entry : fs::directory_iterator(companion)) {
      ++files;
      const std::string name = entry.path().filename().string();
      EXPECT_NE(html.find(companion.filename().string() + "/" + name), npos)
          << name << " not used by the page";
      EXPECT_TRUE(!name.ends_with(".png") ||
                  ReadBytes(entry.path()).starts_with("\x89PNG\r\n\x1A\n"))
          << name << " is not the picture";
    }
    EXPECT_EQ(files, pictures.size());
    const std::string lower = host::AsciiLower(html);
    for (const std::string& contentId : pictures) {
      EXPECT_EQ(lower.find("cid:" + host::AsciiLower(contentId)), npos)
          << "the page still points at cid:" << contentId;
    }
  }

  // Runs one plain conversion of `mails` and checks each converter start: its own hand-off file
  // in the temporary folder, one job, a well-formed page, and the PDF proposed in the chosen
  // folder under the mail's subject.
  void ConvertPlainAndCheck(const std::vector<std::string>& mails,
                            const std::map<std::string, Expected>& reference) {
    std::vector<std::string> stems;
    for (const ConverterStart& start : Convert(mails, /*portfolio=*/false)) {
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
      (void)ExpectPage(job);
    }
    // Within one run a name is given once: a subject met again is numbered, and a mail without
    // one is "Untitled".
    std::vector<std::string> expectedStems;
    std::map<std::string, int> given;
    for (const std::string& mail : mails) {
      std::string stem = ProposedStem(reference.at(mail).subject.value_or(""));
      if (stem.empty()) stem = "Untitled";
      if (const int seen = ++given[stem]; seen > 1) stem += " (" + std::to_string(seen) + ")";
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
  std::string errors_;  // what the last run wrote to its standard error
  int runs_ = 0;
};

class CorpusConversion : public MailConversion {
 protected:
  void SetUp() override {
    if (corpus_.empty()) GTEST_SKIP() << "Python's e-mail test corpus is not at " << kCorpusFolder;
    MailConversion::SetUp();
  }

  const std::vector<std::string> corpus_ = MailFiles(kCorpusFolder, "msg_");
};

// One portfolio of the whole corpus: a job per message in selection order, each with its page,
// its header values on the page and its attachments in the temporary folder. Damaged messages
// (missing boundaries, a multipart without parts, a boundary used at two levels) still give a
// page.
TEST_F(CorpusConversion, PortfolioExportsEveryMessageAsPythonReadsIt) {
  ConvertPortfolioAndCheck(corpus_);
}

TEST_F(CorpusConversion, PlainRunsStartOneConverterPerMessage) {
  const std::map<std::string, Expected> reference = ReadReference(corpus_, folder_);
  for (std::size_t first = 0; first < corpus_.size(); first += kPlainBatchSize) {
    const std::vector<std::string> batch(
        corpus_.begin() + first,
        corpus_.begin() + std::min(first + kPlainBatchSize, corpus_.size()));
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
