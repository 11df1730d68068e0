#include "conversion/conversion_driver.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "conversion/handoff_test_support.h"
#include "foundation/paths.h"
#include "platform/file_dialog.h"
#include "platform/utf.h"
#include "settings/addin_settings.h"
#include "testing/temp_folder.h"
#include "testing/test_outlook.h"

namespace mrwl {
namespace {

using testing::AsItem;
using testing::MakeMail;
using testing::OutlookFaults;
using testing::TestOtherItem;

constexpr HRESULT kGenericFailure = static_cast<HRESULT>(0x80004005u);

constexpr const char* kNoMailLine =
    "Marrowline Outlook Addin: No mail item selected for conversion. Please, select or open a "
    "mail item.\n";
constexpr const char* kConverterMissingLine =
    "Error: HtmlToPdf application could not be found - please reinstall.\n";
constexpr const char* kNoTempFolderLine =
    "Marrowline Outlook Addin: Unable to get temporary folder.\n";
constexpr const char* kSaveFailedLine =
    "Marrowline Outlook Addin: Unable to save email file into user's temporary folder.\n";

std::string Utf8(std::u16string_view text) { return platform::Utf16ToUtf8(text); }
std::u16string Wide(const std::string& text) { return platform::Utf8ToUtf16(text); }
std::string FileNameOf(const std::string& path) {
  return std::filesystem::path(path).filename().string();
}

// What the store held when the driver handed it on.
struct Launch {
  std::string outputPath, portfolioOutputPath, portfolioUser, portfolioFolder;
  bool portfolio = false;
  std::vector<std::string> pages, jobOutputs, recordNames;  // "-" for a job without a record
};

// The driver with the hand-off replaced by a record of what it would have handed on; the
// fault "Driver.LaunchConverter" makes the hand-off fail.
class RecordingDriver : public ConversionDriver {
 public:
  using ConversionDriver::ConversionDriver;

  bool LaunchConverter(const ConverterRequest& request) override {
    if (FAILED(OutlookFaults::Get().Enter("Driver.LaunchConverter"))) return false;
    Launch& launch = launches.emplace_back();
    launch.outputPath = Utf8(request.OutputPath);
    launch.portfolio = store_.Portfolio;
    launch.portfolioOutputPath = Utf8(store_.PortfolioOutputPath);
    launch.portfolioUser = Utf8(store_.PortfolioUser);
    launch.portfolioFolder = Utf8(store_.PortfolioFolder);
    for (const auto& job : store_.Jobs) {
      launch.pages.push_back(Utf8(job->PagePath));
      launch.jobOutputs.push_back(Utf8(job->OutputPath));
      launch.recordNames.push_back(job->Record ? Utf8(job->Record->FileName) : "-");
    }
    return true;
  }

  std::vector<Launch> launches;
};

// A window that is both an explorer and an inspector; its query for `failingIid` fails with
// `error`, as a broken proxy would.
class TwoFacedWindow : public ComObject<outlook::_Explorer, outlook::_Inspector> {
 public:
  explicit TwoFacedWindow(const IID& failingIid = IID_NULL, HRESULT error = S_OK)
      : failingIid_(failingIid), error_(error) {}
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
    if (FAILED(error_) && IsEqualIID(iid, failingIid_)) {
      *object = nullptr;
      return error_;
    }
    return ComObject::QueryInterface(iid, object);
  }
  HRESULT STDMETHODCALLTYPE get_CurrentFolder(outlook::MAPIFolder**) override { return E_FAIL; }
  HRESULT STDMETHODCALLTYPE get_Selection(outlook::Selection**) override { return E_FAIL; }
  HRESULT STDMETHODCALLTYPE get_CurrentItem(IDispatch**) override { return E_FAIL; }

 private:
  IID failingIid_;
  HRESULT error_;
};

class ConversionDriverTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Faults().Reset();
    platform::ClearFileDialogAnswers();
    std::filesystem::create_directories(temp_.path() / "tmp");
    TempRoot() = temp_.WidePathOf("tmp/");
    previousHook_ = SetTempFolderHook(&TempHook);
    SetModuleFolder(temp_.WidePathOf("module/"));
  }
  void TearDown() override {
    (void)SetTempFolderHook(previousHook_);
    platform::ClearFileDialogAnswers();
  }

  static OutlookFaults& Faults() { return OutlookFaults::Get(); }

  void InstallConverter() {
    temp_.Write("module/" + Utf8(kConverterFileName), "#!/bin/sh\n", true);
  }
  // Queues the save dialog's answer: a file in the test's "out" folder, or "" for the proposal.
  std::string Answer(const std::string& name) {
    const std::string path = name.empty() ? std::string() : temp_.PathOf("out/" + name);
    EXPECT_TRUE(platform::QueueFileDialogAnswer(platform::Utf8ToUtf16(path)));
    return path;
  }
  void Cancel() { EXPECT_TRUE(platform::QueueFileDialogCancel()); }
  static std::size_t Pending() { return platform::PendingFileDialogAnswers(); }
  void Select(std::vector<ComPtr<IDispatch>> items) {
    world_ = testing::MakeExplorerWorld(std::move(items));
    application_ = world_.application;
  }
  // Makes an inspector on `item` the active window, in the session of the last Select.
  void OpenInspector(ComPtr<IDispatch> item) {
    auto inspector = MakeComObject<testing::TestInspector>();
    inspector->currentItem = std::move(item);
    auto app = MakeComObject<testing::TestApplication>();
    app->Activate(inspector);
    app->session = world_.application ? world_.application->session : nullptr;
    application_ = app;
  }
  void ActivateWindow(ComPtr<IDispatch> window) {
    auto app = MakeComObject<testing::TestApplication>();
    app->activeWindow = std::move(window);
    application_ = app;
  }

  // Runs a command as the ribbon does and keeps what it showed.
  HRESULT Run(bool portfolio) {
    ::testing::internal::CaptureStderr();
    const HRESULT result = driver_.RunConversion(portfolio);
    shown_ = ::testing::internal::GetCapturedStderr();
    return result;
  }

  static std::u16string& TempRoot() {
    static std::u16string root;
    return root;
  }
  static bool TempHook(WideString& result, TempFolderFunction) noexcept {
    result = TempRoot();
    return !TempRoot().empty();
  }

  // Puts a program beside the module that stands in for the converter and records its
  // arguments, one a line; `runnable` false leaves it without the rights of a program.
  void InstallRecorder(bool runnable = true) {
    std::filesystem::remove(ArgsFile());
    temp_.Write("module/" + Utf8(kConverterFileName), testing::RecorderScript(ArgsFile()), true);
    if (!runnable) {
      std::filesystem::permissions(temp_.path() / "module" / Utf8(kConverterFileName),
                                   std::filesystem::perms::owner_read);
    }
  }
  std::string ArgsFile() const { return temp_.PathOf("args.txt"); }
  // Runs a command through the real hand-off and start of the converter.
  HRESULT RunReal(bool portfolio) {
    ConversionDriver real(application_, settings_, store_);
    ::testing::internal::CaptureStderr();
    const HRESULT result = real.RunConversion(portfolio);
    shown_ = ::testing::internal::GetCapturedStderr();
    return result;
  }
  // The names left in the temporary folder, sorted.
  std::vector<std::string> TempEntries() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(temp_.path() / "tmp")) {
      names.push_back(std::filesystem::relative(entry.path(), temp_.path() / "tmp").string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }
  std::string HandoffBytes() const {
    std::ifstream in(Utf8(settings_.HandoffFilePath), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }

  testing::TempFolder temp_;
  testing::ScopedEnv registry_{"MRWL_REGISTRY", temp_.PathOf("hive.db")};
  TempFolderHook previousHook_ = nullptr;
  testing::ExplorerWorld world_;
  ComPtr<outlook::_Application> application_;
  AddinSettings settings_;
  ConversionStore store_;
  RecordingDriver driver_{application_, settings_, store_};
  std::string shown_;
};

TEST_F(ConversionDriverTest, WindowKindsFollowTheActiveWindow) {
  struct Case {
    const char* name;
    ComPtr<IDispatch> window;
    bool activeWindowFails;
    int kind;  // 7: left as it came
  };
  const Case cases[] = {
      {"explorer", AsItem(MakeComObject<testing::TestExplorer>()), false, kExplorerWindow},
      {"inspector", AsItem(MakeComObject<testing::TestInspector>()), false, kInspectorWindow},
      {"reminder window", AsItem(MakeComObject<TestOtherItem>("reminders")), false, kOtherWindow},
      {"both at once: the explorer wins", AsItem(MakeComObject<TwoFacedWindow>()), false,
       kExplorerWindow},
      {"no active window", nullptr, false, kOtherWindow},
      {"ActiveWindow failing", AsItem(MakeComObject<testing::TestExplorer>()), true, 7},
      {"explorer query failing otherwise",
       AsItem(MakeComObject<TwoFacedWindow>(outlook::IID__Explorer, E_UNEXPECTED)), false, 7},
      {"inspector query failing otherwise",
       AsItem(MakeComObject<TwoFacedWindow>(outlook::IID__Inspector, E_UNEXPECTED)), false, 7},
      {"no-interface is an answer, not a failure",
       AsItem(MakeComObject<TwoFacedWindow>(outlook::IID__Explorer, E_NOINTERFACE)), false,
       kInspectorWindow},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Faults().Reset();
    if (c.activeWindowFails) Faults().Fail("Application.ActiveWindow", kGenericFailure);
    ActivateWindow(c.window);
    int kind = 7;
    EXPECT_EQ(S_OK, driver_.GetActiveWindowKind(kind));
    EXPECT_EQ(c.kind, kind);
  }
}

TEST_F(ConversionDriverTest, RunsThatFindNothingToConvertAskNothing) {
  InstallConverter();
  const HRESULT kInjected = static_cast<HRESULT>(0x80010108u);
  const ComPtr<IDispatch> mail = AsItem(MakeMail(u"Status"));
  const ComPtr<IDispatch> contact = AsItem(MakeComObject<TestOtherItem>("contact"));
  enum Window { kNoApplication, kNote, kInspector, kNoInspector, kExplorer, kNoSelection };
  struct Case {
    const char* name;
    Window window;
    ComPtr<IDispatch> item;  // open or selected
    const char* failing;     // made to fail with kInjected, or null
    bool raise;
    HRESULT result;
    const char* shown;
  };
  const Case cases[] = {
      {"no application: the window can't be told", kNoApplication, nullptr, nullptr, false, 1, ""},
      {"a note's window", kNote, nullptr, nullptr, false, S_OK, ""},
      // An open item that isn't a mail, or can't be reached, ends the run without a word.
      {"no inspector", kNoInspector, mail, nullptr, false, S_OK, ""},
      {"inspector without an item", kInspector, nullptr, nullptr, false, S_OK, ""},
      {"open contact", kInspector, contact, nullptr, false, S_OK, ""},
      {"ActiveInspector failing", kInspector, mail, "Application.ActiveInspector", false, S_OK, ""},
      {"CurrentItem failing", kInspector, mail, "Inspector.CurrentItem", false, S_OK, ""},
      {"COM error for the open item", kInspector, mail, "MailItem.Subject", true, S_OK, ""},
      // An explorer's failures answer with their code; from the count on as a raised COM error.
      {"ActiveExplorer failing", kExplorer, mail, "Application.ActiveExplorer", false, kInjected,
       ""},
      {"Selection failing", kExplorer, mail, "Explorer.Selection", false, kInjected, ""},
      {"Count failing", kExplorer, mail, "Selection.Count", false, kInjected, ""},
      {"empty selection", kExplorer, nullptr, nullptr, false, 1, kNoMailLine},
      {"no selection", kNoSelection, nullptr, nullptr, false, 1, kNoMailLine},
  };
  for (const Case& c : cases) {
    for (const bool portfolio : {false, true}) {
      SCOPED_TRACE(std::string(c.name) + (portfolio ? ", portfolio" : ""));
      Faults().Reset();
      platform::ClearFileDialogAnswers();
      Answer("never.pdf");
      if (c.window == kNoApplication) application_ = nullptr;
      if (c.window == kNote) ActivateWindow(AsItem(MakeComObject<TestOtherItem>("note")));
      if (c.window == kInspector || c.window == kNoInspector) OpenInspector(c.item);
      if (c.window == kNoInspector) {
        static_cast<testing::TestApplication*>(application_.get())->activeInspector = nullptr;
      }
      std::vector<ComPtr<IDispatch>> selected;
      if (c.item) selected.push_back(c.item);
      if (c.window == kExplorer || c.window == kNoSelection) Select(selected);
      if (c.window == kNoSelection) world_.explorer->selection = nullptr;
      if (c.failing != nullptr && c.raise) Faults().Throw(c.failing, kInjected);
      if (c.failing != nullptr && !c.raise) Faults().Fail(c.failing, kInjected);

      EXPECT_EQ(c.result, Run(portfolio));
      EXPECT_EQ(c.shown, shown_);
      EXPECT_EQ(1u, Pending());
      EXPECT_TRUE(driver_.launches.empty());
    }
  }

  // A plain run over items of other kinds only gives the code of the last fetch, also when that
  // fetch failed.
  Faults().Reset();
  Select({contact, nullptr, AsItem(MakeComObject<TestOtherItem>("task"))});
  EXPECT_EQ(S_OK, Run(false));
  EXPECT_EQ("", shown_);
  EXPECT_EQ(1u, Pending());
  Select({mail, AsItem(MakeMail(u"Two"))});
  Faults().Reset();
  Faults().Fail("Selection.Item", DISP_E_BADINDEX, 1);
  EXPECT_EQ(DISP_E_BADINDEX, Run(false));
  EXPECT_EQ(1u, driver_.launches.size());
}

TEST_F(ConversionDriverTest, OpenMailIsConvertedAloneUnderItsSanitisedSubject) {
  InstallConverter();
  Answer("");  // take the proposed name
  auto mail = MakeMail(u"Re: Q3-report [final].doc");
  OpenInspector(AsItem(mail));
  EXPECT_EQ(S_OK, Run(false));
  EXPECT_EQ("", shown_);
  ASSERT_EQ(1u, driver_.launches.size());
  const Launch& launch = driver_.launches[0];
  EXPECT_EQ("Re Q3report finaldoc.pdf", FileNameOf(launch.outputPath));
  EXPECT_FALSE(launch.portfolio);
  EXPECT_EQ(std::vector<std::string>{launch.outputPath}, launch.jobOutputs);
  EXPECT_EQ(std::vector<std::string>{"-"}, launch.recordNames);

  // The page stands in the temporary folder under the export's own prefix, written as HTML.
  const std::filesystem::path page(launch.pages.at(0));
  EXPECT_EQ(temp_.path() / "tmp", page.parent_path());
  EXPECT_EQ(0u, page.filename().string().rfind("mrwm_", 0));
  EXPECT_EQ(".html", page.extension().string());
  EXPECT_TRUE(std::filesystem::exists(page));
  EXPECT_EQ(std::vector<LONG>{outlook::olHTML}, mail->saved.types);
  EXPECT_TRUE(store_.Jobs.at(0)->DeletePage);
  EXPECT_FALSE(store_.Jobs.at(0)->DeleteAttachments);

  // The portfolio command on an open mail makes a portfolio of that one mail.
  Select({});  // the session and user come with the world
  const std::string output = Answer("single.pdf");
  OpenInspector(AsItem(MakeMail(u"Budget: 2025")));
  EXPECT_EQ(S_OK, Run(true));
  ASSERT_EQ(2u, driver_.launches.size());
  const Launch& single = driver_.launches[1];
  EXPECT_TRUE(single.portfolio);
  EXPECT_EQ(output, single.portfolioOutputPath);
  EXPECT_EQ("ann.lee@example.org", single.portfolioUser);
  EXPECT_EQ("", single.portfolioFolder);  // no explorer is active
  EXPECT_EQ(std::vector<std::string>{"Budget 2025.pdf"}, single.recordNames);
}

TEST_F(ConversionDriverTest, PlainRunAsksForEachMailAndStopsAtACancel) {
  InstallConverter();
  const std::string first = Answer("first.pdf");
  const std::string second = Answer("second.pdf");
  Select({AsItem(MakeMail(u"One")), AsItem(MakeComObject<TestOtherItem>("contact")),
          AsItem(MakeMail(u"Two"))});
  EXPECT_EQ(S_OK, Run(false));
  EXPECT_EQ("", shown_);
  EXPECT_EQ(0u, Pending());
  ASSERT_EQ(2u, driver_.launches.size());
  // Each run starts from an empty store: one job per hand-off.
  EXPECT_EQ(std::vector<std::string>{first}, driver_.launches[0].jobOutputs);
  EXPECT_EQ(std::vector<std::string>{second}, driver_.launches[1].jobOutputs);
  EXPECT_NE(driver_.launches[0].pages, driver_.launches[1].pages);

  // Cancelling the second of three dialogs leaves the first handed on and the third untouched.
  Answer("first.pdf");
  Cancel();
  Answer("third.pdf");
  auto third = MakeMail(u"Three");
  Select({AsItem(MakeMail(u"One")), AsItem(MakeMail(u"Two")), AsItem(third)});
  EXPECT_EQ(kGenericFailure, Run(false));
  EXPECT_EQ("", shown_);
  EXPECT_EQ(3u, driver_.launches.size());
  EXPECT_EQ(1u, Pending());
  EXPECT_TRUE(third->saved.paths.empty());
}

TEST_F(ConversionDriverTest, PortfolioHasOneDialogOneConverterAndARecordPerMail) {
  InstallConverter();
  const std::string output = Answer("all.pdf");
  auto meeting = MakeComObject<testing::TestMeetingItem>();
  meeting->subject = u"Planning";
  Select({AsItem(MakeMail(u"Re: One")), AsItem(MakeComObject<TestOtherItem>("contact")),
          AsItem(meeting)});
  EXPECT_EQ(S_OK, Run(true));
  EXPECT_EQ("", shown_);
  ASSERT_EQ(1u, driver_.launches.size());
  const Launch& launch = driver_.launches[0];
  EXPECT_TRUE(launch.portfolio);
  EXPECT_EQ(output, launch.portfolioOutputPath);
  EXPECT_EQ("Inbox", launch.portfolioFolder);
  EXPECT_EQ("ann.lee@example.org", launch.portfolioUser);
  EXPECT_EQ((std::vector<std::string>{"Re One.pdf", "Planning.pdf"}), launch.recordNames);
  EXPECT_EQ((std::vector<std::string>{output, output}), launch.jobOutputs);

  // Only contacts: still one dialog, proposing the folder's name unsanitised, and a start.
  Answer("");
  Select({AsItem(MakeComObject<TestOtherItem>("contact"))});
  world_.explorer->currentFolder = MakeComObject<testing::TestFolder>(u"Clients-2025");
  EXPECT_EQ(S_OK, Run(true));
  EXPECT_EQ(0u, Pending());
  ASSERT_EQ(2u, driver_.launches.size());
  EXPECT_TRUE(driver_.launches[1].portfolio);
  EXPECT_TRUE(driver_.launches[1].pages.empty());
  EXPECT_EQ("Clients-2025.pdf", FileNameOf(driver_.launches[1].outputPath));
}

TEST_F(ConversionDriverTest, EachFailureStopsTheRunAtTheFirstItem) {
  enum Fault { kCancel, kNoConverter, kNoTempFolder, kSaveFails, kHandOffFails };
  struct Case {
    const char* name;
    Fault fault;
    bool portfolio;
    HRESULT result;
    const char* shown;
    std::size_t jobs;  // in the store afterwards
  };
  // A cancelled portfolio is no failure, and a missing converter answers as a cancel does. The
  // converter is looked for only after the dialog: a cancel says nothing even without it.
  const Case cases[] = {
      {"cancelled", kCancel, false, kGenericFailure, "", 0},
      {"cancelled portfolio", kCancel, true, S_OK, "", 0},
      {"no converter", kNoConverter, false, kGenericFailure, kConverterMissingLine, 0},
      {"no converter, portfolio", kNoConverter, true, S_OK, kConverterMissingLine, 0},
      {"no temporary folder", kNoTempFolder, false, kGenericFailure, kNoTempFolderLine, 1},
      {"no temporary folder, portfolio", kNoTempFolder, true, kGenericFailure, kNoTempFolderLine,
       1},
      {"SaveAs failing", kSaveFails, false, kGenericFailure, kSaveFailedLine, 1},
      {"SaveAs failing, portfolio", kSaveFails, true, kGenericFailure, kSaveFailedLine, 1},
      {"hand-off failing", kHandOffFails, false, kGenericFailure, "", 1},
      {"hand-off failing, portfolio", kHandOffFails, true, kGenericFailure, "", 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Faults().Reset();
    platform::ClearFileDialogAnswers();
    store_.Clear();
    std::filesystem::remove(temp_.path() / "module" / Utf8(kConverterFileName));
    TempRoot() = temp_.WidePathOf("tmp/");
    if (c.fault != kCancel && c.fault != kNoConverter) InstallConverter();
    if (c.fault == kCancel) Cancel();
    if (c.fault != kCancel) Answer("one.pdf");
    Answer("two.pdf");
    if (c.fault == kNoTempFolder) TempRoot().clear();
    if (c.fault == kSaveFails) Faults().Fail("MailItem.SaveAs", E_ACCESSDENIED);
    if (c.fault == kHandOffFails) Faults().Fail("Driver.LaunchConverter", E_FAIL);
    Select({AsItem(MakeMail(u"One")), AsItem(MakeMail(u"Two"))});

    EXPECT_EQ(c.result, Run(c.portfolio));
    EXPECT_EQ(c.shown, shown_);
    EXPECT_EQ(1u, Pending());  // the second item's dialog was never shown
    EXPECT_TRUE(driver_.launches.empty());
    ASSERT_EQ(c.jobs, store_.Jobs.size());
    if (c.jobs == 0) continue;
    // A job is made before its export is tried, and one whose export failed has no page.
    const ConversionJob& job = *store_.Jobs[0];
    EXPECT_EQ(c.fault == kHandOffFails, job.DeletePage);
    EXPECT_EQ(c.fault == kHandOffFails, !job.PagePath.IsEmpty());
    EXPECT_EQ(c.portfolio, static_cast<bool>(job.Record));
  }
}

TEST_F(ConversionDriverTest, PrepareClearsTheStoreAndReadsTheSettingsAfresh) {
  InstallConverter();
  {
    AddinSettings saved;
    saved.CompressionLevel = 2;
    saved.ConvertAttachments = false;
    saved.SaveSettings();
  }
  store_.Portfolio = true;
  store_.PortfolioUser = std::u16string_view(u"old");
  (void)store_.NewJob();
  settings_.HandoffMappingName = std::u16string_view(u"MRW:IEP:HTMLData");
  const std::string output = Answer("one.pdf");

  ConverterRequest request;
  EXPECT_TRUE(driver_.PrepareConversion(u"One", request));
  EXPECT_EQ(output, Utf8(request.OutputPath));
  EXPECT_EQ(temp_.PathOf("module/") + Utf8(kConverterFileName), Utf8(request.ConverterPath));
  EXPECT_TRUE(store_.Jobs.empty());
  EXPECT_FALSE(store_.Portfolio);
  EXPECT_TRUE(store_.PortfolioUser.IsEmpty());
  EXPECT_EQ(2u, settings_.CompressionLevel);
  EXPECT_FALSE(settings_.ConvertAttachments);
  EXPECT_TRUE(settings_.HandoffMappingName.IsEmpty());
}

std::filesystem::perms Mode(const std::string& path) {
  return std::filesystem::symlink_status(path).permissions();
}
constexpr auto kPrivateFile =
    std::filesystem::perms::owner_read | std::filesystem::perms::owner_write;

ComPtr<testing::TestAttachment> Attach(testing::TestMailItem& mail, std::u16string name,
                                       std::string content, bool inlinePicture = false) {
  auto attachment = MakeComObject<testing::TestAttachment>();
  attachment->fileName = std::move(name);
  attachment->content = std::move(content);
  if (inlinePicture) {
    attachment->contentId = u"image001.png@01DA";
    attachment->flags = 4;
  }
  mail.attachments->items.push_back(attachment);
  return attachment;
}

// The option string of the default settings, as the converter receives it, up to the hand-off.
const std::vector<std::string> kDefaultArguments = {
    "",    "",     "\\b",   "\\h",  "\\r", "\\iw", "1280", "\\ih", "800",  "\\ld",
    "500", "\\is", "65540", "\\ic", "1",   "\\pw", "5953", "\\ph", "8419", "\\mt",
    "0",   "\\mb", "0",     "\\ml", "0",   "\\mr", "0",    "\\bp"};

TEST_F(ConversionDriverTest, PlainRunHandsPageAndRecordToAStartedConverter) {
  InstallRecorder();
  const std::string output = Answer("Status.pdf");
  auto mail = MakeMail(u"Status");
  mail->picture = "png bytes";
  Select({AsItem(mail)});
  EXPECT_EQ(S_OK, RunReal(false));
  EXPECT_EQ("", shown_);

  std::vector<std::string> expected = kDefaultArguments;
  expected.push_back(Utf8(settings_.HandoffFilePath));
  EXPECT_EQ(expected, testing::WaitForLines(ArgsFile()));

  ASSERT_EQ(1u, mail->saved.paths.size());
  const std::string page = Utf8(mail->saved.paths[0]);
  const std::string stem = FileNameOf(page).substr(0, FileNameOf(page).size() - 5);
  const std::string handoff = FileNameOf(Utf8(settings_.HandoffFilePath));
  EXPECT_EQ((std::vector<std::string>{stem + ".html", stem + "_files", stem + "_files/image001.png",
                                      handoff}),
            TempEntries());
  // The page, its pictures and the record with its passwords are the user's alone.
  EXPECT_EQ(kPrivateFile, Mode(page));
  EXPECT_EQ(std::filesystem::perms::owner_all, Mode(temp_.PathOf("tmp/" + stem + "_files")));
  EXPECT_EQ(kPrivateFile, Mode(temp_.PathOf("tmp/" + stem + "_files/image001.png")));
  EXPECT_EQ(kPrivateFile, Mode(Utf8(settings_.HandoffFilePath)));
  EXPECT_EQ(
      testing::Golden(testing::kPlainGolden, {{"page", Wide(page)}, {"output", Wide(output)}}),
      HandoffBytes());
}

TEST_F(ConversionDriverTest, ProtectedRunCarriesPasswordsAndRealAttachments) {
  {
    AddinSettings saved;
    SecuritySettings& security = *saved.Security;
    security.secEnabled = true;
    security.secHasUserPassword = true;
    security.secHasOwnerPassword = true;
    security.secOwnerPassword = std::u16string_view(u"Owner1");
    security.secType = 3;
    security.sec40AllowPrinting = true;
    security.sec40AllowCopying = true;
    security.sec128ContentAccess = true;
    security.sec128Changes = 2;
    security.sec128Printing = 1;
    saved.RunApp->RunCustPDFApp = true;
    saved.RunApp->RunPDFPath = std::u16string_view(u"/usr/bin/viewer");
    saved.RunApp->RunPDFParams = std::u16string_view(u"--page 1 %f");
    saved.SaveSettings();
  }
  InstallRecorder();
  const std::string output = Answer("Plans.pdf");
  auto mail = MakeMail(u"Plans");
  Attach(*mail, u"plan.txt", "first");
  Attach(*mail, u"image001.png", "inline", true);
  Attach(*mail, u"notes/q3.txt", "refused by the file system");
  Attach(*mail, u"plan.txt", "second");  // one name twice: the later file wins
  Select({AsItem(mail)});
  EXPECT_EQ(S_OK, RunReal(false));
  EXPECT_EQ("", shown_);
  EXPECT_EQ(kDefaultArguments.size() + 1, testing::WaitForLines(ArgsFile()).size());

  const std::string attachment = temp_.PathOf("tmp/plan.txt");
  EXPECT_EQ("second", temp_.Read("tmp/plan.txt"));
  EXPECT_EQ(kPrivateFile, Mode(attachment));
  EXPECT_FALSE(temp_.Exists("tmp/image001.png"));
  // Texts read back from the registry keep its terminator in their length, and the record
  // carries it along.
  using namespace std::string_literals;
  const std::map<std::string, std::u16string> texts = {
      {"page", mail->saved.paths.at(0)},  {"output", Wide(output)},
      {"runPath", u"/usr/bin/viewer\0"s}, {"runParams", u"--page 1 %f\0"s},
      {"attachment1", Wide(attachment)},  {"attachment2", Wide(attachment)}};
  EXPECT_EQ(testing::Golden(testing::kSecurityGolden, texts), HandoffBytes());
}

TEST_F(ConversionDriverTest, PortfolioRecordNumbersEqualNamesAndShareAttachmentFiles) {
  InstallRecorder();
  const std::string output = Answer("Inbox.pdf");
  std::vector<ComPtr<testing::TestMailItem>> mails;
  for (int i = 0; i < 2; ++i) {
    auto mail = MakeMail(u"Status", u"Ann Lee", u"ann.lee@example.org");
    mail->to = u"Bob Stone";
    mail->receivedTime = 46000.5;
    mails.push_back(mail);
  }
  Select({AsItem(mails[0]), AsItem(mails[1])});
  EXPECT_EQ(S_OK, RunReal(true));
  EXPECT_EQ("", shown_);
  EXPECT_EQ(kDefaultArguments.size() + 1, testing::WaitForLines(ArgsFile()).size());
  const std::map<std::string, std::u16string> texts = {{"page1", mails[0]->saved.paths.at(0)},
                                                       {"page2", mails[1]->saved.paths.at(0)},
                                                       {"output", Wide(output)},
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
                                                       {"sensitivity", u"0"}};
  EXPECT_EQ(testing::Golden(testing::kPortfolioGolden, texts), HandoffBytes());

  // Attachments of one name in two mails: one file, its path in both jobs.
  InstallRecorder();
  Answer("Inbox.pdf");
  for (auto& mail : mails) Attach(*mail, u"report.txt", "from " + Utf8(mail->subject));
  Select({AsItem(mails[0]), AsItem(mails[1])});
  EXPECT_EQ(S_OK, RunReal(true));
  (void)testing::WaitForLines(ArgsFile());
  const auto decoded = testing::HandoffReader::Decode(HandoffBytes());
  ASSERT_TRUE(decoded.has_value());
  ASSERT_EQ(2u, decoded->jobs.size());
  const std::vector<std::u16string> shared = {Wide(temp_.PathOf("tmp/report.txt"))};
  EXPECT_EQ(shared, decoded->jobs[0].attachments);
  EXPECT_EQ(shared, decoded->jobs[1].attachments);

  // A portfolio that found nothing to export still starts the converter, with no jobs.
  InstallRecorder();
  const std::string empty = Answer("Nothing.pdf");
  Select({AsItem(MakeComObject<TestOtherItem>("contact"))});
  EXPECT_EQ(S_OK, RunReal(true));
  EXPECT_EQ(kDefaultArguments.size() + 1, testing::WaitForLines(ArgsFile()).size());
  EXPECT_EQ(testing::Golden(
                testing::kEmptyPortfolioGolden,
                {{"output", Wide(empty)}, {"user", u"ann.lee@example.org"}, {"folder", u"Inbox"}}),
            HandoffBytes());
}

TEST_F(ConversionDriverTest, FailedStartTakesEveryTemporaryFileAlong) {
  InstallRecorder(/*runnable=*/false);
  Answer("one.pdf");
  Answer("two.pdf");
  auto first = MakeMail(u"One");
  first->picture = "png";
  Attach(*first, u"a.txt", "a");
  Attach(*first, u"b.txt", "b");
  auto second = MakeMail(u"Two");
  Select({AsItem(first), AsItem(second)});
  // No message, and the run goes on to the next mail.
  EXPECT_EQ(S_OK, RunReal(false));
  EXPECT_EQ("", shown_);
  EXPECT_EQ(1u, second->saved.paths.size());
  EXPECT_TRUE(settings_.HandoffFilePath.IsEmpty());
  EXPECT_EQ(std::vector<std::string>{}, TempEntries());
  EXPECT_FALSE(std::filesystem::exists(ArgsFile()));
}

TEST_F(ConversionDriverTest, AttachmentsAreSavedOnlyWhenRealAndAsked) {
  struct Case {
    const char* name;
    bool convertAttachments;
    std::vector<std::pair<std::u16string, bool>> attachments;  // name, inline picture
    const char* failing;
    bool deleteAttachments;
    std::vector<std::string> saved;  // below the temporary folder
  };
  const Case cases[] = {
      {"none", true, {}, nullptr, false, {}},
      {"only an inline picture", true, {{u"image001.png", true}}, nullptr, true, {}},
      {"a text file and an inline picture",
       true,
       {{u"a.txt", false}, {u"image001.png", true}},
       nullptr,
       true,
       {"a.txt"}},
      {"switched off", false, {{u"a.txt", false}}, nullptr, false, {}},
      {"a failing name is left out",
       true,
       {{u"a.txt", false}, {u"b.txt", false}},
       "Attachment.FileName",
       true,
       {"b.txt"}},
      {"a failing item is left out",
       true,
       {{u"a.txt", false}, {u"b.txt", false}},
       "Attachments.Item",
       true,
       {"b.txt"}},
      {"a failing save is left out",
       true,
       {{u"a.txt", false}, {u"b.txt", false}},
       "Attachment.SaveAsFile",
       true,
       {"b.txt"}},
      {"no count", true, {{u"a.txt", false}}, "Attachments.Count", false, {}},
      {"no collection", true, {{u"a.txt", false}}, "MailItem.Attachments", false, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Faults().Reset();
    store_.Clear();
    for (const auto& entry : std::filesystem::directory_iterator(temp_.path() / "tmp")) {
      std::filesystem::remove_all(entry.path());
    }
    settings_.ConvertAttachments = c.convertAttachments;
    auto mail = MakeMail(u"Mail");
    for (const auto& [name, isInline] : c.attachments) Attach(*mail, name, "x", isInline);
    if (c.failing != nullptr) Faults().Fail(c.failing, E_FAIL, 0, 1);  // the first call only

    ConverterRequest request;
    request.OutputPath = std::u16string_view(u"/out/mail.pdf");
    const auto wrapper = MakeWrapper(AsItem(mail).get());
    ConversionDriver real(application_, settings_, store_);
    ASSERT_TRUE(real.ExportItem(*wrapper, request));
    ASSERT_EQ(1u, store_.Jobs.size());
    const ConversionJob& job = *store_.Jobs[0];
    EXPECT_EQ(c.deleteAttachments, job.DeleteAttachments);
    std::vector<std::string> saved;
    for (const WideString& path : job.Attachments) {
      EXPECT_TRUE(std::filesystem::exists(Utf8(path)));
      saved.push_back(std::filesystem::relative(Utf8(path), temp_.path() / "tmp").string());
    }
    EXPECT_EQ(c.saved, saved);
    EXPECT_EQ(u"/out/mail.pdf", job.OutputPath.view());
    if (!c.convertAttachments) {
      EXPECT_EQ(0, Faults().CountOf("Attachments.Count"));  // not even counted
    }
  }
}

}  // namespace
}  // namespace mrwl
