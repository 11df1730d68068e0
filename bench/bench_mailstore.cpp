// The mail store over Python's e-mail test corpus: every message opened from its file as an
// Outlook item and written by _MailItem::SaveAs as an HTML page with its pictures, and the
// add-in's whole export of the same items (page, attachment copies, clean-up) through the
// conversion driver. Counters: mails per second, and the peak resident memory of the process
// (VmHWM) once the passes are done, so that a store that keeps messages or pages alive shows.
#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/bench_folder.h"
#include "conversion/conversion_driver.h"
#include "conversion/item_wrapper.h"
#include "conversion/temp_store.h"
#include "foundation/paths.h"
#include "host/mail_items.h"
#include "platform/com_ptr.h"
#include "platform/outlook.h"
#include "platform/utf.h"
#include "settings/addin_settings.h"

namespace {

namespace fs = std::filesystem;
using mrwl::bench::BenchFolder;

constexpr char kCorpusFolder[] = "/usr/lib/python3.11/test/test_email/data";

// The corpus messages, sorted by name; empty when the corpus is not installed.
const std::vector<std::string>& CorpusFiles() {
  static const std::vector<std::string> files = [] {
    std::vector<std::string> found;
    std::error_code error;
    for (fs::directory_iterator it(kCorpusFolder, error), end; !error && it != end;
         it.increment(error)) {
      const std::string name = it->path().filename().string();
      if (name.starts_with("msg_") && name.ends_with(".txt")) found.push_back(it->path().string());
    }
    std::sort(found.begin(), found.end());
    return found;
  }();
  return files;
}

// The process's peak resident set in KiB, as the kernel counts it; 0 where it cannot be read.
double PeakResidentKib() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (!line.starts_with("VmHWM:")) continue;
    std::istringstream fields(line.substr(6));
    double kib = 0;
    fields >> kib;
    return kib;
  }
  return 0;
}

void ReportCounters(benchmark::State& state, std::size_t mailsPerPass) {
  state.counters["mails"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * static_cast<double>(mailsPerPass),
      benchmark::Counter::kIsRate);
  state.counters["peak_rss_KiB"] = PeakResidentKib();
}

// One pass per iteration: each message read from its file, made an item, and saved as a page
// (one page name per message, replaced on the next pass).
void BM_OpenAndSaveAsCorpus(benchmark::State& state) {
  const std::vector<std::string>& files = CorpusFiles();
  if (files.empty()) {
    state.SkipWithError("Python's e-mail test corpus is not installed");
    return;
  }
  BenchFolder folder;
  std::vector<mrwl::UniqueBstr> pages;
  for (std::size_t i = 0; i < files.size(); ++i) {
    const fs::path page = folder.path() / ("page" + std::to_string(i) + ".html");
    pages.push_back(mrwl::MakeBstr(mrwl::platform::Utf8ToUtf16(page.string())));
  }
  VARIANT type;
  VariantInit(&type);
  type.vt = VT_I4;
  type.lVal = mrwl::outlook::olHTML;

  for (auto _ : state) {
    for (std::size_t i = 0; i < files.size(); ++i) {
      std::string error;
      mrwl::ComPtr<IDispatch> item;
      item.Attach(mrwl::host::OpenMailItem(files[i], &error));
      mrwl::ComPtr<mrwl::outlook::_MailItem> mail;
      if (!item || FAILED(item.As(mrwl::outlook::IID__MailItem, &mail))) {
        state.SkipWithError(("not a mail: " + files[i] + " " + error).c_str());
        return;
      }
      if (FAILED(mail->SaveAs(pages[i].get(), type))) {
        state.SkipWithError(("SaveAs failed for " + files[i]).c_str());
        return;
      }
    }
  }
  ReportCounters(state, files.size());
}
BENCHMARK(BM_OpenAndSaveAsCorpus)->Unit(benchmark::kMillisecond);

// The add-in's share per message: the item through its wrapper, ExportItem (unique page name,
// SaveAs, every attachment copied into the temporary folder), then the clean-up a failed converter
// start makes, so that each pass starts from an empty folder.
void BM_ExportCorpus(benchmark::State& state) {
  const std::vector<std::string>& files = CorpusFiles();
  if (files.empty()) {
    state.SkipWithError("Python's e-mail test corpus is not installed");
    return;
  }
  BenchFolder folder;
  mrwl::ComPtr<mrwl::outlook::_Application> application;
  mrwl::AddinSettings settings;
  settings.ConvertAttachments = true;
  mrwl::ConversionStore store;
  mrwl::ConversionDriver driver(application, settings, store);
  mrwl::ConverterRequest request;
  request.OutputPath = std::u16string_view(u"/home/reader/corpus.pdf");

  for (auto _ : state) {
    for (const std::string& file : files) {
      std::string error;
      mrwl::ComPtr<IDispatch> item;
      item.Attach(mrwl::host::OpenMailItem(file, &error));
      const mrwl::UniqueItemWrapper wrapper = mrwl::MakeWrapper(item.get());
      if (!wrapper) {
        state.SkipWithError(("not a mail: " + file + " " + error).c_str());
        return;
      }
      store.Clear();
      if (!driver.ExportItem(*wrapper, request)) {
        state.SkipWithError(("export failed for " + file).c_str());
        return;
      }
      mrwl::DeleteJobFiles(store.Jobs);
    }
  }
  store.Clear();
  ReportCounters(state, files.size());
}
BENCHMARK(BM_ExportCorpus)->Unit(benchmark::kMillisecond);

}  // namespace
