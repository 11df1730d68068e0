// The conversion's own work per mail, on a real temporary folder: the export through the store
// (page name, attachment copies, private rights) and the hand-off file, set against the bare file
// writes that the host itself makes for the same mail; and the hand-off record of a large
// portfolio.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/bench_folder.h"
#include "conversion/conversion_driver.h"
#include "conversion/temp_store.h"
#include "foundation/paths.h"
#include "foundation/stream.h"
#include "platform/utf.h"
#include "settings/addin_settings.h"
#include "testing/test_outlook.h"

namespace {

namespace fs = std::filesystem;
using mrwl::bench::BenchFolder;

constexpr int kAttachments = 5;
constexpr std::size_t kAttachmentSize = 100 * 1024;

mrwl::ComPtr<mrwl::testing::TestMailItem> MailWithAttachments() {
  auto mail = mrwl::testing::MakeMail(u"Quarterly figures", u"Ann Lee", u"ann.lee@example.org");
  for (int i = 0; i < kAttachments; ++i) {
    auto attachment = mrwl::MakeComObject<mrwl::testing::TestAttachment>();
    attachment->fileName =
        u"figures-" + std::u16string(1, static_cast<char16_t>(u'1' + i)) + u".xlsx";
    attachment->content.assign(kAttachmentSize, static_cast<char>('a' + i));
    mail->attachments->items.push_back(attachment);
  }
  return mail;
}

// Export, hand-off file and the clean-up of a failed start, per mail.
void BM_ExportAndHandoff(benchmark::State& state) {
  BenchFolder folder;
  auto mail = MailWithAttachments();
  const auto wrapper = mrwl::MakeWrapper(mrwl::testing::AsItem(mail).get());
  mrwl::ComPtr<mrwl::outlook::_Application> application;
  mrwl::AddinSettings settings;
  mrwl::ConversionStore store;
  mrwl::ConversionDriver driver(application, settings, store);
  mrwl::ConverterRequest request;
  request.OutputPath = std::u16string_view(u"/home/ann/Quarterly figures.pdf");
  for (auto _ : state) {
    store.Clear();
    mail->saved = {};
    for (auto& attachment : mail->attachments->items) attachment->savedPaths.clear();
    if (!driver.ExportItem(*wrapper, request)) state.SkipWithError("export failed");
    mrwl::WideString handoff;
    if (!mrwl::WriteHandoffFile(store, handoff)) state.SkipWithError("hand-off failed");
    mrwl::DeleteJobFiles(store.Jobs);
    (void)mrwl::DeleteFileForced(handoff.c_str());
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ExportAndHandoff)->Unit(benchmark::kMicrosecond);

// The host's share of the same mail: the page and the five attachment files written and removed
// with nothing of the store around them.
void BM_HostWritesOnly(benchmark::State& state) {
  BenchFolder folder;
  const std::string content(kAttachmentSize, 'a');
  for (auto _ : state) {
    std::vector<fs::path> written;
    written.push_back(folder.path() / "page.html");
    std::ofstream(written.back(), std::ios::binary)
        << "<html><body><p>Quarterly</p></body></html>\n";
    for (int i = 0; i < kAttachments; ++i) {
      written.push_back(folder.path() / ("figures-" + std::to_string(i) + ".xlsx"));
      std::ofstream(written.back(), std::ios::binary) << content;
    }
    for (const fs::path& path : written) std::remove(path.c_str());
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_HostWritesOnly)->Unit(benchmark::kMicrosecond);

// The hand-off record of a portfolio of 1000 mails, each with a record and two attachments.
void BM_SerializeStore1000(benchmark::State& state) {
  mrwl::ConversionStore store;
  store.RunApp = mrwl::RunAppSettings::Create();
  store.Security = mrwl::SecuritySettings::Create();
  store.Security->secEnabled = true;
  store.Security->secOwnerPassword = std::u16string_view(u"owner password");
  store.Portfolio = true;
  for (int i = 0; i < 1000; ++i) {
    mrwl::ConversionJob& job = *store.NewJob();
    job.PagePath = std::u16string_view(u"/tmp/mrwm_5a3f2c.html");
    job.OutputPath = std::u16string_view(u"/home/ann/Inbox.pdf");
    job.Attachments = {mrwl::WideString(u"/tmp/figures.xlsx"), mrwl::WideString(u"/tmp/notes.txt")};
    job.DeletePage = job.DeleteAttachments = true;
    job.Record = mrwl::MailRecord::TryCreate();
    job.Record->FileName = std::u16string_view(u"Quarterly figures.pdf");
    job.Record->From = std::u16string_view(u"Ann Lee<ann.lee@example.org>");
    job.Record->To = std::u16string_view(u"Bob Stone; Carla Diaz");
    job.Record->Subject = std::u16string_view(u"Quarterly figures");
  }
  std::int64_t bytes = 0;
  for (auto _ : state) {
    mrwl::MemoryStream stream;
    (void)stream.Open(0, 0);
    if (!store.SerializeStore(stream)) state.SkipWithError("serialise failed");
    bytes = stream.GetSize();
  }
  state.SetBytesProcessed(state.iterations() * bytes);
  state.counters["record_bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_SerializeStore1000)->Unit(benchmark::kMicrosecond);

}  // namespace
