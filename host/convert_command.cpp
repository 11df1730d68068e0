// `mrwl convert` and `mrwl open`: Outlook's part of a conversion, played over mail files.

#include "host/convert_command.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include <CLI/CLI.hpp>

#include "host/addin_session.h"
#include "host/host_outlook.h"
#include "host/mail_items.h"
#include "platform/file_dialog.h"
#include "platform/outlook.h"
#include "platform/shell.h"
#include "platform/utf.h"

namespace mrwl {
namespace {

namespace fs = std::filesystem;

constexpr char16_t kConvertLabel[] = u"Convert to PDF";
constexpr char16_t kPortfolioLabel[] = u"Convert to PDF portfolio";
constexpr char16_t kUntitled[] = u"Untitled";

struct ConvertOptions {
  bool portfolio = false;
  std::string outputFile;
  std::string outputFolder;
  bool replace = false;
  std::vector<std::string> mails;
};

void Report(const std::string& text) { std::fprintf(stderr, "mrwl: %s\n", text.c_str()); }

// Counts the converter's starts as the add-in makes them.
struct StartCounter {
  int started = 0;
  int failed = 0;

  static void Observe(void* context, const char16_t*, const char16_t*, HINSTANCE result) {
    auto* counter = static_cast<StartCounter*>(context);
    if (reinterpret_cast<std::uintptr_t>(result) > 32) {
      ++counter->started;
      std::printf("Converter started (%d)\n", counter->started);
      std::fflush(stdout);
    } else {
      ++counter->failed;
    }
  }
};

std::string Environment(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

// The current user's address, as Outlook's session would know it.
std::u16string UserAddress() {
  std::string address = Environment("MRWL_USER_ADDRESS");
  if (address.empty()) address = Environment("EMAIL");
  return platform::Utf8ToUtf16(address);
}

std::string Absolute(const std::string& path) {
  std::error_code ignored;
  const fs::path full = fs::absolute(path, ignored);
  return full.empty() ? path : full.lexically_normal().string();
}

// The name of the folder the first mail stands in: the folder Outlook would show as current.
std::u16string FolderNameOf(const std::string& mail) {
  const fs::path folder = fs::path(Absolute(mail)).parent_path();
  const std::string name = folder.filename().string();
  return platform::Utf8ToUtf16(name.empty() ? folder.string() : name);
}

const char* KindName(IDispatch* item) {
  ComPtr<outlook::_MailItem> mail;
  ComPtr<outlook::_MeetingItem> meeting;
  if (SUCCEEDED(item->QueryInterface(outlook::IID__MailItem, mail.put_void())) && mail) {
    return nullptr;
  }
  if (SUCCEEDED(item->QueryInterface(outlook::IID__MeetingItem, meeting.put_void())) && meeting) {
    return nullptr;
  }
  return "a contact or calendar entry";
}

// Sets up the answer to the save question from the options. False, reported, when they cannot
// be followed.
bool PrepareSaveAnswer(const ConvertOptions& options) {
  if (!options.outputFile.empty()) {
    const std::string file = Absolute(options.outputFile);
    std::error_code error;
    if (fs::is_directory(file, error)) {
      Report(file + " is a folder; -o names the PDF file to write (-d names a folder).");
      return false;
    }
    if (fs::exists(file, error) && !options.replace) {
      Report(file + " already exists; add --yes to replace it.");
      return false;
    }
    if (!fs::is_directory(fs::path(file).parent_path(), error)) {
      Report("The folder of " + file + " does not exist.");
      return false;
    }
    return platform::QueueFileDialogAnswer(platform::Utf8ToUtf16(file)) != FALSE;
  }
  if (!options.outputFolder.empty()) {
    const std::string folder = Absolute(options.outputFolder);
    std::error_code error;
    if (!fs::is_directory(folder, error)) {
      Report(folder + " is not a folder.");
      return false;
    }
    // A mail without a subject proposes no name; a person would type one.
    return platform::SetFileDialogFolderAnswer(platform::Utf8ToUtf16(folder),
                                               options.replace ? TRUE : FALSE, kUntitled) != FALSE;
  }
  return true;
}

// Opens every mail as an Outlook item. Files that cannot be read, or hold no mail, are reported;
// `convertible` counts the items the add-in will convert.
std::vector<ComPtr<IDispatch>> OpenItems(const std::vector<std::string>& mails, int* convertible,
                                         bool* allUsable) {
  std::vector<ComPtr<IDispatch>> items;
  *convertible = 0;
  *allUsable = true;
  for (const std::string& mail : mails) {
    std::string error;
    ComPtr<IDispatch> item;
    item.Attach(host::OpenMailItem(mail, &error));
    if (!item) {
      Report(error);
      *allUsable = false;
      continue;
    }
    if (const char* kind = KindName(item.get())) {
      // Outlook's selection may hold such items; the add-in passes them by without a word.
      Report(mail + " is " + kind + ", not a mail; it is not converted.");
      *allUsable = false;
    } else {
      ++*convertible;
    }
    items.push_back(std::move(item));
  }
  return items;
}

// Runs one click of the add-in over the host's Outlook. `openItem` set: the item is opened in an
// item window and clicked there; else the items are the main window's selection.
int RunClick(const ConvertOptions& options, bool inInspector) {
  if (!options.outputFile.empty() && !options.portfolio && options.mails.size() > 1) {
    Report(
        "-o names one PDF, but a plain conversion makes one per mail; give -d FOLDER or "
        "--portfolio.");
    return 2;
  }
  int convertible = 0;
  bool allUsable = true;
  std::vector<ComPtr<IDispatch>> items = OpenItems(options.mails, &convertible, &allUsable);
  if (items.empty()) return 1;
  if (!PrepareSaveAnswer(options)) return 1;

  StartCounter counter;
  platform::SetShellExecuteObserver(&StartCounter::Observe, &counter);
  bool clicked = false;
  {
    auto application = MakeComObject<host::HostApplication>(UserAddress());
    host::AddinSession session;
    std::string error;
    const std::u16string folder = FolderNameOf(options.mails.front());
    // Outlook has its main window open when it connects its add-ins.
    (void)application->OpenExplorer(folder, inInspector ? std::vector<ComPtr<IDispatch>>{} : items);
    bool ready = session.Load(host::AddinModulePath(), &error) &&
                 session.Connect(application.get(), &error) &&
                 session.LoadRibbon(host::kExplorerRibbonId, &error);
    if (ready && inInspector) {
      (void)application->OpenInspector(items.front());
      ready = session.LoadRibbon(host::kMailReadRibbonId, &error);
    }
    const std::u16string label = options.portfolio ? kPortfolioLabel : kConvertLabel;
    clicked = ready && session.Click(label, &error);
    if (!clicked) Report(error);
    application->CloseWindows();
    session.Disconnect();
  }
  platform::SetShellExecuteObserver(nullptr, nullptr);
  platform::ClearFileDialogAnswers();
  (void)platform::SetFileDialogFolderAnswer(u"", FALSE);

  const int expected = options.portfolio ? (convertible > 0 ? 1 : 0) : convertible;
  if (clicked && counter.started == 0 && counter.failed == 0 && options.outputFile.empty() &&
      options.outputFolder.empty()) {
    Report("Nothing was converted. Answer the save question, or give -o FILE or -d FOLDER.");
  }
  if (counter.failed > 0) Report("The converter could not be started.");
  return clicked && allUsable && expected > 0 && counter.started == expected ? 0 : 1;
}

}  // namespace

void AddConvertCommands(CLI::App& app, int* status) {
  auto options = std::make_shared<ConvertOptions>();
  CLI::App* convert = app.add_subcommand(
      "convert", "Select mail files in Outlook's main window and click \"Convert to PDF\"");
  convert->add_flag("--portfolio", options->portfolio,
                    "Click \"Convert to PDF portfolio\": one PDF holding every mail");
  CLI::Option* file =
      convert->add_option("-o,--output", options->outputFile, "Answer the save question with FILE");
  CLI::Option* folder = convert->add_option("-d,--folder", options->outputFolder,
                                            "Save under the proposed names in FOLDER");
  file->excludes(folder);
  convert->add_flag("-y,--yes", options->replace, "Replace existing PDF files without asking");
  convert->add_option("MAIL", options->mails, "Mail files (.eml)")->required();
  convert->callback([options, status] { *status = RunClick(*options, false); });

  auto openOptions = std::make_shared<ConvertOptions>();
  CLI::App* open =
      app.add_subcommand("open", "Open a mail file in an item window and click \"Convert to PDF\"");
  CLI::Option* openFile = open->add_option("-o,--output", openOptions->outputFile,
                                           "Answer the save question with FILE");
  CLI::Option* openFolder = open->add_option("-d,--folder", openOptions->outputFolder,
                                             "Save under the proposed name in FOLDER");
  openFile->excludes(openFolder);
  open->add_flag("-y,--yes", openOptions->replace, "Replace an existing PDF file without asking");
  std::string* mail = &openOptions->mails.emplace_back();
  open->add_option("MAIL", *mail, "A mail file (.eml)")->required();
  open->callback([openOptions, status] { *status = RunClick(*openOptions, true); });
}

}  // namespace mrwl
