// The converter's cost over real pages: the sample mails and Python's e-mail corpus exported once
// by the add-in (through `mrwl convert` with a converter that does nothing), then rendered with
// one browser for the whole run against one browser per page and against wkhtmltopdf, finished
// with qpdf, and the converter program run whole for its peak memory.
//
// Rendering waits no extra time after the load event, so the rows compare the renderers rather
// than the wait the user configures (500 ms per page by default).

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "converter/browser.h"
#include "converter/handoff_record.h"
#include "converter/pdf_finish.h"
#include "platform/utf.h"

namespace mrwl::bench {
namespace {

namespace fs = std::filesystem;
using converter::Browser;
using converter::BrowserOptions;
using converter::PrintRequest;

// Pages rendered in the rows that start a process per page: enough for a rate, short enough to run.
constexpr std::size_t kPagesPerProcessRow = 12;

std::string Quote(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

bool HaveProgram(const std::string& name) {
  return std::system(("command -v " + name + " >/dev/null 2>&1").c_str()) == 0;
}

// The exported corpus: pages in a scratch temporary folder, kept for the whole process.
class Corpus {
 public:
  static Corpus& Get() {
    static Corpus corpus;
    return corpus;
  }

  const std::vector<std::string>& pages() const { return pages_; }
  const std::vector<std::string>& mails() const { return mails_; }
  const fs::path& root() const { return root_; }
  const std::string& error() const { return error_; }

  // Exports every mail into `temp` as a portfolio run of the add-in; true when mrwl succeeded.
  bool Export(const fs::path& temp) const {
    fs::create_directories(temp);
    // Appended piece by piece: a literal in front of a string trips a false -Wrestrict of GCC 12.
    std::string command = "MRWL_ADDIN=";
    command += Quote((root_ / "module/libmrwl-addin.so").string());
    command += " MRWL_REGISTRY=";
    command += Quote((root_ / "hive.db").string());
    command += " TMPDIR=";
    command += Quote(temp.string());
    command += " MRWL_USER_ADDRESS=bench@example.org ";
    command += Quote(std::string(MRWL_PROGRAM_DIR) + "/mrwl");
    command += " convert --portfolio --yes -d ";
    command += Quote((root_ / "out").string());
    for (const std::string& mail : mails_) {
      command += ' ';
      command += Quote(mail);
    }
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
  }

  // A print request for A4 at the add-in's default width, with no wait after the load.
  static PrintRequest Request(const std::string& page) {
    PrintRequest request{};
    request.pagePath = page;
    request.viewportWidth = 1280;
    request.viewportHeight = 800;
    request.loadDelayMs = 0;
    request.paperWidth = 595.3;
    request.paperHeight = 841.9;
    request.backgrounds = true;
    return request;
  }

  ~Corpus() {
    std::error_code ignored;
    fs::remove_all(root_, ignored);
  }

 private:
  Corpus()
      : root_(fs::temp_directory_path() /
              ("mrwl-bench-converter-" + std::to_string(std::random_device()()))) {
    fs::create_directories(root_ / "module");
    fs::create_directories(root_ / "out");
    // The add-in's module beside a converter that does nothing, so the pages stay.
    fs::copy_file(std::string(MRWL_PROGRAM_DIR) + "/libmrwl-addin.so",
                  root_ / "module/libmrwl-addin.so");
    std::ofstream(root_ / "module/HtmlToPdfApp") << "#!/bin/sh\nexit 0\n";
    fs::permissions(root_ / "module/HtmlToPdfApp", fs::perms::owner_all);

    for (const char* folder :
         {MRWL_SOURCE_DIR "/samples", "/usr/lib/python3.11/test/test_email/data"}) {
      std::error_code error;
      for (const auto& entry : fs::directory_iterator(folder, error)) {
        const std::string name = entry.path().filename().string();
        if (entry.path().extension() == ".eml" || name.rfind("msg_", 0) == 0) {
          mails_.push_back(entry.path().string());
        }
      }
    }
    std::sort(mails_.begin(), mails_.end());
    if (!Export(root_ / "temp")) {
      error_ = "mrwl convert failed";
      return;
    }
    for (const auto& entry : fs::directory_iterator(root_ / "temp")) {
      if (entry.path().filename().string().rfind("mrwstg_", 0) != 0) continue;
      converter::HandoffRecord record;
      std::u16string why;
      if (!converter::ReadHandoffFile(platform::Utf8ToUtf16(entry.path().string()), record, why)) {
        error_ = "the hand-off record cannot be read: " + platform::Utf16ToUtf8(why);
        return;
      }
      for (const converter::ConversionJob& job : record.jobs) {
        pages_.push_back(platform::Utf16ToUtf8(job.pagePath));
      }
    }
    if (pages_.empty()) error_ = "no pages were exported";
  }

  fs::path root_;
  std::vector<std::string> mails_;
  std::vector<std::string> pages_;
  std::string error_;
};

std::unique_ptr<Browser> StartBrowser(benchmark::State& state) {
  BrowserOptions options;
  options.allowedFolder = (Corpus::Get().root() / "temp").string();
  std::string error;
  std::unique_ptr<Browser> browser = Browser::Start(options, error);
  if (!browser) state.SkipWithError(("no browser: " + error).c_str());
  return browser;
}

// The run as the converter does it: one browser, every page in turn.
void BM_RenderOneBrowserPerRun(benchmark::State& state) {
  const Corpus& corpus = Corpus::Get();
  if (!corpus.error().empty()) return state.SkipWithError(corpus.error().c_str());
  for (auto _ : state) {
    std::unique_ptr<Browser> browser = StartBrowser(state);
    if (!browser) return;
    for (const std::string& page : corpus.pages()) {
      std::string pdf;
      std::string error;
      if (!browser->PrintToPdf(Corpus::Request(page), pdf, error)) {
        return state.SkipWithError(error.c_str());
      }
      benchmark::DoNotOptimize(pdf.data());
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(corpus.pages().size()));
  state.SetLabel(std::to_string(corpus.pages().size()) + " pages");
}
BENCHMARK(BM_RenderOneBrowserPerRun)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

// What one browser per page would cost: a start and an end for every page.
void BM_RenderBrowserPerPage(benchmark::State& state) {
  const Corpus& corpus = Corpus::Get();
  if (!corpus.error().empty()) return state.SkipWithError(corpus.error().c_str());
  const std::size_t count = std::min(kPagesPerProcessRow, corpus.pages().size());
  for (auto _ : state) {
    for (std::size_t i = 0; i < count; ++i) {
      std::unique_ptr<Browser> browser = StartBrowser(state);
      if (!browser) return;
      std::string pdf;
      std::string error;
      if (!browser->PrintToPdf(Corpus::Request(corpus.pages()[i]), pdf, error)) {
        return state.SkipWithError(error.c_str());
      }
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(count));
  state.SetLabel(std::to_string(count) + " pages");
}
BENCHMARK(BM_RenderBrowserPerPage)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

// The older WebKit renderer as a process per page, on the same pages.
void BM_RenderWkhtmltopdfPerPage(benchmark::State& state) {
  if (!HaveProgram("wkhtmltopdf")) return state.SkipWithError("wkhtmltopdf is not installed");
  const Corpus& corpus = Corpus::Get();
  if (!corpus.error().empty()) return state.SkipWithError(corpus.error().c_str());
  const std::size_t count = std::min(kPagesPerProcessRow, corpus.pages().size());
  const std::string out = (corpus.root() / "wk.pdf").string();
  for (auto _ : state) {
    for (std::size_t i = 0; i < count; ++i) {
      const std::string command = "QT_QPA_PLATFORM=offscreen wkhtmltopdf -q --disable-javascript " +
                                  Quote(corpus.pages()[i]) + " " + Quote(out) + " >/dev/null 2>&1";
      if (std::system(command.c_str()) != 0) return state.SkipWithError("wkhtmltopdf failed");
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(count));
  state.SetLabel(std::to_string(count) + " pages");
}
BENCHMARK(BM_RenderWkhtmltopdfPerPage)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

// The add-in's share: mrwl, the module, every mail exported with its attachments and the record.
void BM_AddinExport(benchmark::State& state) {
  const Corpus& corpus = Corpus::Get();
  if (!corpus.error().empty()) return state.SkipWithError(corpus.error().c_str());
  int run = 0;
  for (auto _ : state) {
    const fs::path temp = corpus.root() / ("export-" + std::to_string(run++));
    if (!corpus.Export(temp)) return state.SkipWithError("mrwl convert failed");
    state.PauseTiming();
    fs::remove_all(temp);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(corpus.mails().size()));
  state.SetLabel(std::to_string(corpus.mails().size()) + " mails");
}
BENCHMARK(BM_AddinExport)->Iterations(3)->UseRealTime()->Unit(benchmark::kMillisecond);

// qpdf's share: the rendered pages finished to files, plain and with 256-bit AES.
void BM_FinishPdf(benchmark::State& state) {
  const Corpus& corpus = Corpus::Get();
  if (!corpus.error().empty()) return state.SkipWithError(corpus.error().c_str());
  static std::vector<std::string> rendered;
  if (rendered.empty()) {
    std::unique_ptr<Browser> browser = StartBrowser(state);
    if (!browser) return;
    const std::size_t count = std::min<std::size_t>(kPagesPerProcessRow, corpus.pages().size());
    for (std::size_t i = 0; i < count; ++i) {
      std::string pdf;
      std::string error;
      if (!browser->PrintToPdf(Corpus::Request(corpus.pages()[i]), pdf, error)) {
        return state.SkipWithError(error.c_str());
      }
      rendered.push_back(std::move(pdf));
    }
  }
  converter::SecurityOptions security;
  security.type = 4;
  security.hasUserPassword = true;
  security.userPassword = u"bench";
  security.hasOwnerPassword = true;
  security.ownerPassword = u"owner";
  converter::FinishOptions options;
  options.pdfVersion = 0x10007;
  options.compression = 1;
  options.security = state.range(0) == 1 ? &security : nullptr;
  const std::string out = (corpus.root() / "finished.pdf").string();
  std::int64_t bytes = 0;
  for (auto _ : state) {
    for (const std::string& pdf : rendered) {
      std::vector<std::string> notes;
      std::string error;
      if (!converter::FinishPdf(pdf, options, {}, out, notes, error)) {
        return state.SkipWithError(error.c_str());
      }
      bytes += static_cast<std::int64_t>(pdf.size());
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(rendered.size()));
  state.SetBytesProcessed(bytes);
  state.SetLabel(state.range(0) == 1 ? "AES-256" : "no security");
}
BENCHMARK(BM_FinishPdf)->Arg(0)->Arg(1)->UseRealTime()->Unit(benchmark::kMillisecond);

// The converter program whole over the corpus as a portfolio, with the peak resident memory of
// its largest process (the converter or one of the browser's) as GNU time reports it.
void BM_ConverterPeakMemory(benchmark::State& state) {
  const Corpus& corpus = Corpus::Get();
  if (!corpus.error().empty()) return state.SkipWithError(corpus.error().c_str());
  if (!fs::exists("/usr/bin/time")) return state.SkipWithError("/usr/bin/time is not installed");
  std::string record;
  for (const auto& entry : fs::directory_iterator(corpus.root() / "temp")) {
    if (entry.path().filename().string().rfind("mrwstg_", 0) == 0) record = entry.path().string();
  }
  const std::string rss = (corpus.root() / "rss.txt").string();
  double peakKb = 0;
  for (auto _ : state) {
    // No wait after the load, the rest as the add-in's defaults; the files stay for other rows.
    const std::string command =
        "MRWL_KEEP_TEMP=1 /usr/bin/time -f %M -o " + Quote(rss) + " " +
        Quote(std::string(MRWL_PROGRAM_DIR) + "/HtmlToPdfApp") +
        " '' '' '\\b' '\\h' '\\iw' 1280 '\\ih' 800 '\\ld' 0 '\\is' 65540 '\\ic' 1 '\\pw' 5953 "
        "'\\ph' 8419 '\\mt' 0 '\\mb' 0 '\\ml' 0 '\\mr' 0 '\\bp' " +
        Quote(record) + " >/dev/null 2>&1";
    if (std::system(command.c_str()) != 0) return state.SkipWithError("the converter failed");
    std::ifstream(rss) >> peakKb;
  }
  state.counters["peak_rss_MiB"] = peakKb / 1024.0;
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(corpus.pages().size()));
  state.SetLabel(std::to_string(corpus.pages().size()) + " mails in one portfolio");
}
BENCHMARK(BM_ConverterPeakMemory)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

}  // namespace
}  // namespace mrwl::bench
