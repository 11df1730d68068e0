#include "converter/converter_run.h"

#include <cstdio>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "conversion/temp_store.h"
#include "converter/browser.h"
#include "converter/handoff_record.h"
#include "converter/pdf_finish.h"
#include "foundation/wide_string.h"
#include "platform/files.h"
#include "platform/kernel.h"
#include "platform/shell.h"
#include "platform/utf.h"
#include "platform/win_types.h"

namespace mrwl::converter {
namespace {

constexpr std::string_view kProgramName = "HtmlToPdfApp";

bool IsSeparator(char16_t c) { return c == u'/' || c == u'\\'; }

std::u16string_view FileNameOf(std::u16string_view path) {
  std::size_t at = path.size();
  while (at > 0 && !IsSeparator(path[at - 1])) --at;
  return path.substr(at);
}

// The folder part of `path` without a final separator; "/" stays "/".
std::u16string FolderOf(std::u16string_view path) {
  std::size_t at = path.size();
  while (at > 0 && !IsSeparator(path[at - 1])) --at;
  while (at > 1 && IsSeparator(path[at - 1])) --at;
  return std::u16string(path.substr(0, at));
}

std::u16string WithoutFinalSeparator(std::u16string_view path) {
  while (path.size() > 1 && IsSeparator(path.back())) path.remove_suffix(1);
  return std::u16string(path);
}

// Whether `path` is `folder` or lies below it, by whole path components.
bool IsAtOrBelow(std::u16string_view path, std::u16string_view folder) {
  if (folder.empty() || path.size() < folder.size()) return false;
  if (path.substr(0, folder.size()) != folder) return false;
  return path.size() == folder.size() || IsSeparator(folder.back()) ||
         IsSeparator(path[folder.size()]);
}

std::u16string CommonFolder(std::u16string_view a, std::u16string_view b) {
  std::size_t same = 0;
  std::size_t lastSeparator = 0;
  bool sawSeparator = false;
  while (same < a.size() && same < b.size() && a[same] == b[same]) {
    if (IsSeparator(a[same])) {
      lastSeparator = same;
      sawSeparator = true;
    }
    ++same;
  }
  // The whole of the shorter one is the common folder only when it ends at a component boundary.
  if ((same == a.size() && (same == b.size() || IsSeparator(b[same]))) ||
      (same == b.size() && IsSeparator(a[same]))) {
    return WithoutFinalSeparator(a.substr(0, same));
  }
  if (!sawSeparator) return std::u16string();
  return lastSeparator == 0 ? std::u16string(1, a[0]) : std::u16string(a.substr(0, lastSeparator));
}

std::string ToUtf8(std::u16string_view text) { return platform::Utf16ToUtf8(text); }

void Say(std::string_view line) {
  std::fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
  std::fflush(stderr);
}

void Complain(std::string_view line) { Say(std::string(kProgramName) + ": " + std::string(line)); }

std::u16string TempFolder() {
  char16_t buffer[MAX_PATH + 1] = {};
  const DWORD length = platform::GetTempPathW(MAX_PATH + 1, buffer);
  if (length == 0 || length > MAX_PATH) return u"/tmp";
  return WithoutFinalSeparator(std::u16string_view(buffer, length));
}

bool KeepTemporaryFiles() {
  char16_t buffer[8] = {};
  const DWORD length = platform::GetEnvironmentVariableW(u"MRWL_KEEP_TEMP", buffer, 8);
  return length == 1 && buffer[0] == u'1';
}

bool ReadWholeFile(const std::u16string& path, std::string& bytes) {
  std::FILE* file = platform::OpenStdioFile(path.c_str(), "rb");
  if (file == nullptr) return false;
  bytes.clear();
  char chunk[65536];
  std::size_t got = 0;
  while ((got = std::fread(chunk, 1, sizeof chunk, file)) > 0) bytes.append(chunk, got);
  const bool ok = std::ferror(file) == 0;
  std::fclose(file);
  return ok;
}

FinishOptions FinishOptionsOf(const ConverterOptions& options, const HandoffRecord& record) {
  FinishOptions finish;
  finish.keepLinks = options.links;
  finish.pdfVersion = options.pdfVersion;
  finish.compression = options.compression;
  finish.security = record.security ? &*record.security : nullptr;
  return finish;
}

// The browsers of one run. Normally one folder and so one browser; pages scattered outside the
// temporary folder make it start one per folder in turn. A browser that failed to start is not
// tried again: the cause (no browser installed, say) would be the same for every job.
class BrowserSession {
 public:
  Browser* For(const std::string& folder, std::string& error) {
    if (!startError_.empty()) {
      error = startError_;
      return nullptr;
    }
    if (browser_ && folder == folder_) return browser_.get();
    browser_.reset();
    BrowserOptions options;
    options.allowedFolder = folder;
    browser_ = Browser::Start(options, error);
    if (!browser_) {
      startError_ = error.empty() ? "the browser did not start" : error;
      error = startError_;
      return nullptr;
    }
    folder_ = folder;
    return browser_.get();
  }

  // Drops the browser after a page failed: should the failure have killed it, the next job gets
  // a fresh one instead of failing as well. A restart costs about a second.
  void Discard() { browser_.reset(); }

 private:
  std::unique_ptr<Browser> browser_;
  std::string folder_;
  std::string startError_;
};

// Progress and the notes of a run. Progress lines are for a person at a terminal; failures and
// notes always go out, since they are the only account of the run a log keeps.
class Reporter {
 public:
  explicit Reporter(std::size_t total)
      : total_(total), terminal_(platform::IsTerminal(platform::StandardStream::kError)) {}

  void Begin(std::size_t index, std::u16string_view label) const {
    if (!terminal_) return;
    Say("[" + std::to_string(index + 1) + "/" + std::to_string(total_) + "] " + ToUtf8(label));
  }

  void JobFailed(std::size_t index, std::u16string_view label, std::string_view cause) const {
    Complain("job " + std::to_string(index + 1) + " of " + std::to_string(total_) + " (\"" +
             ToUtf8(label) + "\") failed: " + std::string(cause));
  }

  void Notes(const std::vector<std::string>& notes) {
    for (const std::string& note : notes) {
      if (seenNotes_.insert(note).second) Complain("note: " + note);
    }
  }

  void Finished(const std::vector<std::u16string>& written) const {
    if (!terminal_) return;
    if (written.empty()) {
      Say("No PDF was written.");
    } else if (written.size() == 1) {
      Say("PDF written: " + ToUtf8(written.front()));
    } else {
      std::string line = std::to_string(written.size()) + " PDFs written: ";
      for (std::size_t i = 0; i < written.size(); ++i) {
        if (i > 0) line += ", ";
        line += ToUtf8(written[i]);
      }
      Say(line);
    }
  }

 private:
  std::size_t total_;
  bool terminal_;
  std::set<std::string> seenNotes_;
};

// The attachments of job `index` that are there to embed. One that has gone is named and left
// out, and the run counts as failed: the PDF without it is worth more than none. (Conversions
// running side by side save attachments of one name to one file in the temporary folder, and
// the first to finish deletes it.)
std::vector<EmbeddedFile> EmbeddedFilesOf(const ConversionJob& job, std::size_t index,
                                          const Reporter& reporter, bool& failed) {
  std::vector<EmbeddedFile> files;
  files.reserve(job.attachments.size());
  for (const std::u16string& path : job.attachments) {
    const DWORD attributes = platform::GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
      reporter.JobFailed(index, JobLabel(job),
                         "its attachment " + ToUtf8(path) +
                             " is not there any more; the PDF is written without it");
      failed = true;
      continue;
    }
    files.push_back({ToUtf8(path), std::u16string(FileNameOf(path))});
  }
  return files;
}

// Renders the page of `job` with the browser for its folder; false with `error` in plain words.
bool RenderJob(BrowserSession& browsers, const std::string& folder, const ConverterOptions& options,
               const ConversionJob& job, std::string& pdf, std::string& error) {
  Browser* browser = browsers.For(folder, error);
  if (browser == nullptr) return false;
  std::string cause;
  if (!browser->PrintToPdf(MakePrintRequest(options, ToUtf8(job.pagePath)), pdf, cause)) {
    browsers.Discard();
    error = "the page " + ToUtf8(job.pagePath) + " could not be rendered: " + cause;
    return false;
  }
  return true;
}

void RunPlainJobs(const ConverterOptions& options, const HandoffRecord& record,
                  const std::vector<std::string>& folders, BrowserSession& browsers,
                  Reporter& reporter, std::vector<std::u16string>& written, bool& failed) {
  const FinishOptions finish = FinishOptionsOf(options, record);
  for (std::size_t i = 0; i < record.jobs.size(); ++i) {
    const ConversionJob& job = record.jobs[i];
    const std::u16string label = JobLabel(job);
    reporter.Begin(i, label);
    std::string pdf;
    std::string error;
    if (job.outputPath.empty()) {
      reporter.JobFailed(i, label, "the hand-off record names no output file for it");
      failed = true;
      continue;
    }
    if (!RenderJob(browsers, folders[i], options, job, pdf, error)) {
      reporter.JobFailed(i, label, error);
      failed = true;
      continue;
    }
    std::vector<std::string> notes;
    if (!FinishPdf(pdf, finish, EmbeddedFilesOf(job, i, reporter, failed), ToUtf8(job.outputPath),
                   notes, error)) {
      reporter.Notes(notes);
      reporter.JobFailed(i, label,
                         "the PDF " + ToUtf8(job.outputPath) + " could not be written: " + error);
      failed = true;
      continue;
    }
    reporter.Notes(notes);
    written.push_back(job.outputPath);
  }
}

// A part of a portfolio gets the page options (links, compression) but no security of its own:
// the portfolio as a whole is protected. qpdf writes only to files, so the part passes through a
// private file in the temporary folder.
bool FinishPart(std::string_view pdf, const ConverterOptions& options, std::string& part,
                std::vector<std::string>& notes, std::string& error) {
  WideString path;
  if (!MakeUniqueTempName(u"mrwp_", u"pdf", path)) {
    error = "no name for a temporary file could be found in the temporary folder";
    return false;
  }
  FinishOptions finish;
  finish.keepLinks = options.links;
  finish.pdfVersion = options.pdfVersion;
  finish.compression = options.compression;
  const std::u16string widePath(path.view());
  bool ok = FinishPdf(pdf, finish, {}, ToUtf8(widePath), notes, error);
  if (ok && !ReadWholeFile(widePath, part)) {
    error = "the finished part " + ToUtf8(widePath) + " could not be read back";
    ok = false;
  }
  (void)DeleteFileForced(widePath.c_str());  // a leftover in the temporary folder harms no one
  return ok;
}

void RunPortfolio(const ConverterOptions& options, const HandoffRecord& record,
                  const std::vector<std::string>& folders, BrowserSession& browsers,
                  Reporter& reporter, std::vector<std::u16string>& written, bool& failed) {
  std::vector<PortfolioEntry> entries;
  for (std::size_t i = 0; i < record.jobs.size(); ++i) {
    const ConversionJob& job = record.jobs[i];
    const std::u16string label = JobLabel(job);
    reporter.Begin(i, label);
    std::string pdf;
    std::string error;
    if (!RenderJob(browsers, folders[i], options, job, pdf, error)) {
      reporter.JobFailed(i, label, error);
      failed = true;
      continue;
    }
    PortfolioEntry entry;
    std::vector<std::string> notes;
    if (!FinishPart(pdf, options, entry.pdf, notes, error)) {
      reporter.JobFailed(i, label, error);
      failed = true;
      continue;
    }
    // A job without its record still belongs in the portfolio; it goes under its page's name.
    if (job.record) {
      entry.record = *job.record;
    } else {
      entry.record.subject = label;
    }
    if (entry.record.fileName.empty()) entry.record.fileName = label + u".pdf";
    entry.attachments = EmbeddedFilesOf(job, i, reporter, failed);
    entries.push_back(std::move(entry));
  }

  // The cover needs a browser too; with no job at all it may load nothing from the disk.
  const std::string coverFolder = folders.empty() ? ToUtf8(TempFolder()) : folders.front();
  std::string error;
  Browser* browser = browsers.For(coverFolder, error);
  std::string cover;
  const std::string outputPath = ToUtf8(record.portfolioOutputPath);
  if (browser == nullptr) {
    Complain("the portfolio " + outputPath + " was not written: " + error);
    failed = true;
    return;
  }
  PrintRequest paper = MakePrintRequest(options, std::string());
  std::string cause;
  if (!browser->PrintHtmlToPdf(
          PortfolioCoverHtml(record.portfolioFolder, record.portfolioUser, entries), paper, cover,
          cause)) {
    Complain("the portfolio " + outputPath +
             " was not written: its cover page could not be rendered: " + cause);
    failed = true;
    return;
  }
  std::vector<std::string> notes;
  if (!BuildPortfolio(cover, entries, FinishOptionsOf(options, record), outputPath, notes, cause)) {
    reporter.Notes(notes);
    Complain("the portfolio " + outputPath + " was not written: " + cause);
    failed = true;
    return;
  }
  reporter.Notes(notes);
  written.push_back(record.portfolioOutputPath);
}

// Opens what was written, as the user asked. A failure to start the application is reported but
// changes nothing about the conversion, which did succeed.
void OpenWritten(const HandoffRecord& record, const std::vector<std::u16string>& written) {
  const bool custom = record.runApp && record.runApp->custom && !record.runApp->path.empty();
  for (const std::u16string& pdf : written) {
    HINSTANCE result;
    if (custom) {
      const std::u16string parameters = ExpandRunParameters(record.runApp->parameters, pdf);
      result = platform::ShellExecuteW(nullptr, nullptr, record.runApp->path.c_str(),
                                       parameters.c_str(), nullptr, SW_SHOW);
    } else {
      result = platform::ShellExecuteW(nullptr, u"open", pdf.c_str(), nullptr, nullptr, SW_SHOW);
    }
    if (reinterpret_cast<std::uintptr_t>(result) <= 32) {
      Complain("could not open " + ToUtf8(pdf) + " with " +
               (custom ? ToUtf8(record.runApp->path) : std::string("the PDF application")) +
               " (error " + std::to_string(reinterpret_cast<std::uintptr_t>(result)) + ")");
    }
  }
}

void DeleteTemporaryFiles(const HandoffRecord& record, const ConverterOptions& options) {
  for (const ConversionJob& job : record.jobs) {
    if (job.deleteAttachments) {
      for (const std::u16string& attachment : job.attachments) {
        (void)DeleteFileForced(attachment.c_str());
      }
    }
    if (job.deletePage) DeleteExportedPage(job.pagePath);
  }
  if (!options.handoffPath.empty()) (void)DeleteFileForced(options.handoffPath.c_str());
}

}  // namespace

std::vector<std::string> ChooseAllowedFolders(const std::vector<ConversionJob>& jobs,
                                              std::u16string_view tempFolder) {
  std::vector<std::string> folders;
  if (jobs.empty()) return folders;
  const std::u16string temp = WithoutFinalSeparator(tempFolder);
  std::u16string common = FolderOf(jobs.front().pagePath);
  for (const ConversionJob& job : jobs) common = CommonFolder(common, FolderOf(job.pagePath));
  // The common parent is acceptable when it is one of the pages' own folders (the others lie
  // below it) or inside the temporary folder.
  bool isPageFolder = false;
  for (const ConversionJob& job : jobs) isPageFolder |= FolderOf(job.pagePath) == common;
  if (!common.empty() && (isPageFolder || IsAtOrBelow(common, temp))) {
    folders.assign(jobs.size(), ToUtf8(common));
    return folders;
  }
  for (const ConversionJob& job : jobs) folders.push_back(ToUtf8(FolderOf(job.pagePath)));
  return folders;
}

PrintRequest MakePrintRequest(const ConverterOptions& options, std::string pagePath) {
  PrintRequest request{};
  request.pagePath = std::move(pagePath);
  request.viewportWidth = options.pageWidthPx;
  request.viewportHeight = options.pageHeightPx;
  request.loadDelayMs = options.loadDelayMs;
  const double width = options.paperWidth / 10.0;
  const double height = options.paperHeight / 10.0;
  request.paperWidth = options.landscape ? height : width;
  request.paperHeight = options.landscape ? width : height;
  request.marginTop = options.marginTop / 10.0;
  request.marginBottom = options.marginBottom / 10.0;
  request.marginLeft = options.marginLeft / 10.0;
  request.marginRight = options.marginRight / 10.0;
  request.backgrounds = options.backgrounds;
  return request;
}

std::u16string ExpandRunParameters(std::u16string_view parameters, std::u16string_view pdfPath) {
  std::u16string result;
  std::size_t i = 0;
  while (i < parameters.size()) {
    if (parameters.substr(i, 2) == u"%f") {
      const bool quoted = i > 0 && parameters[i - 1] == u'"' && i + 2 < parameters.size() &&
                          parameters[i + 2] == u'"';
      if (quoted) {
        result += pdfPath;
      } else {
        result += u'"';
        result += pdfPath;
        result += u'"';
      }
      i += 2;
    } else {
      result += parameters[i++];
    }
  }
  return result;
}

std::u16string JobLabel(const ConversionJob& job) {
  if (job.record && !job.record->subject.empty()) return job.record->subject;
  std::u16string_view name = FileNameOf(job.outputPath);
  if (!name.empty()) {
    const std::size_t point = name.rfind(u'.');
    if (point != std::u16string_view::npos && point > 0) name = name.substr(0, point);
    return std::u16string(name);
  }
  return std::u16string(FileNameOf(job.pagePath));
}

int RunConverter(const std::vector<std::string>& arguments) {
  std::vector<std::u16string> wide;
  wide.reserve(arguments.size());
  for (const std::string& argument : arguments) wide.push_back(platform::Utf8ToUtf16(argument));

  ConverterOptions options;
  std::u16string error;
  if (!ParseConverterArguments(wide, options, error)) {
    Complain("the command line cannot be used: " + ToUtf8(error));
    return kExitBadInput;
  }
  HandoffRecord record;
  const bool fromFile = !options.handoffPath.empty();
  const bool read = fromFile ? ReadHandoffFile(options.handoffPath, record, error)
                             : ReadHandoffMapping(options.mappingName, record, error);
  if (!read) {
    const std::u16string& carrier = fromFile ? options.handoffPath : options.mappingName;
    std::string message = "the hand-off record cannot be used: " + ToUtf8(error);
    // The reader is expected to name its carrier; the message must, in any case.
    if (error.find(carrier) == std::u16string::npos) message += " (" + ToUtf8(carrier) + ")";
    Complain(message);
    return kExitBadInput;
  }
  if (record.portfolio && record.portfolioOutputPath.empty()) {
    Complain("the hand-off record " + ToUtf8(fromFile ? options.handoffPath : options.mappingName) +
             " asks for a portfolio but names no file for it");
    return kExitBadInput;
  }

  const std::vector<std::string> folders = ChooseAllowedFolders(record.jobs, TempFolder());
  Reporter reporter(record.jobs.size());
  std::vector<std::u16string> written;
  bool failed = false;
  {
    BrowserSession browsers;
    if (record.portfolio) {
      RunPortfolio(options, record, folders, browsers, reporter, written, failed);
    } else {
      RunPlainJobs(options, record, folders, browsers, reporter, written, failed);
    }
  }  // the browser goes before anything is opened or deleted
  reporter.Finished(written);

  if (options.runAfterwards && !written.empty()) OpenWritten(record, written);
  if (!KeepTemporaryFiles()) DeleteTemporaryFiles(record, options);
  return failed ? kExitJobFailed : kExitSuccess;
}

}  // namespace mrwl::converter
