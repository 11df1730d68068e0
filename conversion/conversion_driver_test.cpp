#include "conversion/conversion_driver.h"

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

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
constexpr HRESULT kOutOfMemory = static_cast<HRESULT>(0x8007000Eu);

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

// What the store held when the driver handed it on.
struct Launch {
  std::string converterPath;
  std::string outputPath;
  bool portfolio = false;
  std::string portfolioOutputPath;
  std::string portfolioUser;
  std::string portfolioFolder;
  std::vector<std::string> pages;
  std::vector<std::string> jobOutputs;
  std::vector<std::string> recordNames;  // "-" for a job without a record
};

// The driver with the hand-off replaced by a record of what it would have handed on. A test
// makes the hand-off fail with OutlookFaults' "Driver.LaunchConverter".
class RecordingDriver : public ConversionDriver {
 public:
  using ConversionDriver::ConversionDriver;

  bool LaunchConverter(const ConverterRequest& request) override {
    if (FAILED(OutlookFaults::Get().Enter("Driver.LaunchConverter"))) return false;
    Launch launch;
    launch.converterPath = Utf8(request.ConverterPath);
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
    launches.push_back(std::move(launch));
    return true;
  }

  std::vector<Launch> launches;
};

// A window that is both an explorer and an inspector.
class TwoFacedWindow : public ComObject<outlook::_Explorer, outlook::_Inspector> {
 public:
  HRESULT STDMETHODCALLTYPE get_CurrentFolder(outlook::MAPIFolder** folder) override {
    *folder = nullptr;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE get_Selection(outlook::Selection** selection) override {
    *selection = nullptr;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE get_CurrentItem(IDispatch** item) override {
    *item = nullptr;
    return S_OK;
  }
};

// A window whose query for `iid` fails with `error`, as a broken proxy would.
class FailingQueryWindow : public ComObject<outlook::_Explorer> {
 public:
  FailingQueryWindow(const IID& iid, HRESULT error) : iid_(iid), error_(error) {}
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
    if (IsEqualIID(iid, iid_)) {
      *object = nullptr;
      return error_;
    }
    return ComObject::QueryInterface(iid, object);
  }
  HRESULT STDMETHODCALLTYPE get_CurrentFolder(outlook::MAPIFolder**) override { return E_FAIL; }
  HRESULT STDMETHODCALLTYPE get_Selection(outlook::Selection**) override { return E_FAIL; }

 private:
  IID iid_;
  HRESULT error_;
};

class ConversionDriverTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Faults().Reset();
    platform::ClearFileDialogAnswers();
    std::filesystem::create_directories(temp_.path() / "tmp");
    std::filesystem::create_directories(temp_.path() / "module");
    std::filesystem::create_directories(temp_.path() / "out");
    TempRoot() = temp_.WidePathOf("tmp/");
    previousHook_ = SetTempFolderHook(&TempHook);
    SetModuleFolder(temp_.WidePathOf("module/"));
  }
  void TearDown() override {
    (void)SetTempFolderHook(previousHook_);
    platform::ClearFileDialogAnswers();
    Faults().Reset();
  }

  static OutlookFaults& Faults() { return OutlookFaults::Get(); }

  // Verbs of the set-up.
  void InstallConverter() {
    temp_.Write(std::string("module/") + Utf8(kConverterFileName), "#!/bin/sh\n", true);
  }
  // Queues the save dialog's answer: a file in the test's "out" folder, or "" for the proposal.
  std::string Answer(const std::string& name) {
    const std::string path = name.empty() ? std::string() : temp_.PathOf("out/" + name);
    EXPECT_TRUE(platform::QueueFileDialogAnswer(platform::Utf8ToUtf16(path)));
    return path;
  }
  void Cancel() { EXPECT_TRUE(platform::QueueFileDialogCancel()); }
  void Select(std::vector<ComPtr<IDispatch>> items) {
    world_ = testing::MakeExplorerWorld(std::move(items));
    application_ = world_.application;
  }
  void OpenInspector(ComPtr<IDispatch> item) {
    auto inspector = MakeComObject<testing::TestInspector>();
    inspector->currentItem = std::move(item);
    auto app = MakeComObject<testing::TestApplication>();
    app->Activate(inspector);
    app->session = world_.application ? world_.application->session : nullptr;
    world_.application = app;
    application_ = app;
  }
  void NoTemporaryFolder() { TempRoot().clear(); }

  // Runs a command as the ribbon does and keeps what it showed.
  HRESULT Run(bool portfolio) {
    ::testing::internal::CaptureStderr();
    const HRESULT result = driver_.RunConversion(portfolio);
    shown_ = ::testing::internal::GetCapturedStderr();
    return result;
  }

  std::vector<std::string> FilesIn(const char* folder) const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(temp_.path() / folder)) {
      names.push_back(entry.path().filename().string());
    }
    return names;
  }

  static std::u16string& TempRoot() {
    static std::u16string root;
    return root;
  }
  static bool TempHook(WideString& result, TempFolderFunction) noexcept {
    result = TempRoot();
    return !TempRoot().empty();
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

// --- Window kinds ------------------------------------------------------------------------------

TEST_F(ConversionDriverTest, WindowKindsFollowTheActiveWindow) {
  struct Case {
    const char* name;
    ComPtr<IDispatch> window;
    const char* failing;
    int kind;
  };
  const Case cases[] = {
      {"explorer", AsItem(MakeComObject<testing::TestExplorer>()), nullptr, kExplorerWindow},
      {"inspector", AsItem(MakeComObject<testing::TestInspector>()), nullptr, kInspectorWindow},
      {"reminder window", AsItem(MakeComObject<TestOtherItem>("reminders")), nullptr, kOtherWindow},
      {"both at once: the explorer wins", AsItem(MakeComObject<TwoFacedWindow>()), nullptr,
       kExplorerWindow},
      {"no active window", nullptr, nullptr, kOtherWindow},
      {"ActiveWindow failing leaves the kind", AsItem(MakeComObject<testing::TestExplorer>()),
       "Application.ActiveWindow", 7},
      {"explorer query failing otherwise",
       AsItem(MakeComObject<FailingQueryWindow>(outlook::IID__Explorer, E_UNEXPECTED)), nullptr, 7},
      {"inspector query failing otherwise",
       AsItem(MakeComObject<FailingQueryWindow>(outlook::IID__Inspector, E_UNEXPECTED)), nullptr,
       7},
      {"query failing with no-interface only",
       AsItem(MakeComObject<FailingQueryWindow>(outlook::IID__Inspector, E_NOINTERFACE)), nullptr,
       kExplorerWindow},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Faults().Reset();
    if (c.failing != nullptr) Faults().Fail(c.failing, kGenericFailure);
    auto app = MakeComObject<testing::TestApplication>();
    app->activeWindow = c.window;
    application_ = app;
    int kind = 7;
    EXPECT_EQ(S_OK, driver_.GetActiveWindowKind(kind));
    EXPECT_EQ(c.kind, kind);
  }
}

TEST_F(ConversionDriverTest, NoApplicationMeansTheKindCannotBeTold) {
  int kind = 7;
  EXPECT_EQ(E_POINTER, driver_.GetActiveWindowKind(kind));
  EXPECT_EQ(7, kind);
  EXPECT_EQ(1, Run(false));
  EXPECT_EQ("", shown_);
}

TEST_F(ConversionDriverTest, OtherWindowsDoNothing) {
  InstallConverter();
  Answer("never.pdf");
  auto app = MakeComObject<testing::TestApplication>();
  app->activeWindow = AsItem(MakeComObject<TestOtherItem>("note"));
  application_ = app;
  EXPECT_EQ(S_OK, Run(false));
  EXPECT_EQ("", shown_);
  EXPECT_EQ(1u, platform::PendingFileDialogAnswers());
}

// --- Open item ---------------------------------------------------------------------------------

TEST_F(ConversionDriverTest, OpenItemThatCannotBeConvertedEndsSilently) {
  InstallConverter();
  struct Case {
    const char* name;
    ComPtr<IDispatch> item;
    const char* failing;
    bool raise;
  };
  const Case cases[] = {
      {"no item", nullptr, nullptr, false},
      {"a contact", AsItem(MakeComObject<TestOtherItem>("contact")), nullptr, false},
      {"an appointment", AsItem(MakeComObject<TestOtherItem>("appointment")), nullptr, false},
      {"CurrentItem failing", AsItem(MakeMail(u"Status")), "Inspector.CurrentItem", false},
      {"ActiveInspector failing", AsItem(MakeMail(u"Status")), "Application.ActiveInspector",
       false},
      {"a COM error inside", AsItem(MakeMail(u"Status")), "MailItem.Subject", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Faults().Reset();
    platform::ClearFileDialogAnswers();
    Answer("never.pdf");
    if (c.failing != nullptr && c.raise) Faults().Throw(c.failing, kOutOfMemory);
    if (c.failing != nullptr && !c.raise) Faults().Fail(c.failing, kGenericFailure);
    OpenInspector(c.item);
    EXPECT_EQ(S_OK, Run(false));
    EXPECT_EQ("", shown_);
    EXPECT_EQ(1u, platform::PendingFileDialogAnswers());
    EXPECT_TRUE(driver_.launches.empty());
  }
}

TEST_F(ConversionDriverTest, OpenMailIsConvertedUnderItsSanitisedSubject) {
  InstallConverter();
  Answer("");  // take the proposed name
  auto mail = MakeMail(u"Re: Q3-report [final].doc");
  OpenInspector(AsItem(mail));
  EXPECT_EQ(S_OK, Run(false));
  EXPECT_EQ("", shown_);
  ASSERT_EQ(1u, driver_.launches.size());
  const Launch& launch = driver_.launches[0];
  EXPECT_EQ("Re Q3report finaldoc.pdf",
            std::filesystem::path(launch.outputPath).filename().string());
  EXPECT_EQ(temp_.PathOf("module/") + Utf8(kConverterFileName), launch.converterPath);
  EXPECT_FALSE(launch.portfolio);
  ASSERT_EQ(1u, launch.pages.size());
  EXPECT_EQ(launch.outputPath, launch.jobOutputs[0]);
  EXPECT_EQ("-", launch.recordNames[0]);

  // The page stands in the temporary folder under the export's own prefix, written as HTML.
  const std::filesystem::path page(launch.pages[0]);
  EXPECT_EQ(temp_.path() / "tmp", page.parent_path());
  EXPECT_EQ(0u, page.filename().string().rfind("mrwm_", 0));
  EXPECT_EQ(".html", page.extension().string());
  EXPECT_TRUE(std::filesystem::exists(page));
  EXPECT_EQ(std::vector<LONG>{outlook::olHTML}, mail->saved.types);
  const ConversionJob& job = *store_.Jobs.at(0);
  EXPECT_TRUE(job.DeletePage);
  EXPECT_FALSE(job.DeleteAttachments);
  EXPECT_TRUE(job.Attachments.empty());
}

TEST_F(ConversionDriverTest, PortfolioCommandOnAnOpenMailMakesAPortfolioOfIt) {
  InstallConverter();
  Select({});  // the session and user come with the world
  const std::string output = Answer("single.pdf");
  auto mail = MakeMail(u"Budget: 2025");
  OpenInspector(AsItem(mail));
  EXPECT_EQ(S_OK, Run(true));
  ASSERT_EQ(1u, driver_.launches.size());
  const Launch& launch = driver_.launches[0];
  EXPECT_TRUE(launch.portfolio);
  EXPECT_EQ(output, launch.portfolioOutputPath);
  EXPECT_EQ("ann.lee@example.org", launch.portfolioUser);
  EXPECT_EQ("", launch.portfolioFolder);  // no explorer is active
  EXPECT_EQ(std::vector<std::string>{"Budget 2025.pdf"}, launch.recordNames);
}

// --- Selection ---------------------------------------------------------------------------------

TEST_F(ConversionDriverTest, EmptySelectionShowsTheMessageAndNoDialog) {
  InstallConverter();
  Answer("never.pdf");
  Select({});
  EXPECT_EQ(1, Run(false));
  EXPECT_EQ(kNoMailLine, shown_);

  world_.explorer->selection = nullptr;
  EXPECT_EQ(1, Run(true));
  EXPECT_EQ(kNoMailLine, shown_);
  EXPECT_EQ(1u, platform::PendingFileDialogAnswers());
}

TEST_F(ConversionDriverTest, FailingExplorerCallsGiveTheirCode) {
  InstallConverter();
  const HRESULT kInjected = static_cast<HRESULT>(0x80010108u);
  for (const char* member : {"Application.ActiveExplorer", "Explorer.Selection"}) {
    SCOPED_TRACE(member);
    Select({AsItem(MakeMail(u"Status"))});
    Faults().Reset();
    Faults().Fail(member, kInjected);
    EXPECT_EQ(kInjected, Run(false));
    EXPECT_EQ("", shown_);
  }
}

TEST_F(ConversionDriverTest, ComErrorFromTheCountOnEndsTheRunWithItsCode) {
  InstallConverter();
  Answer("a.pdf");
  Select({AsItem(MakeMail(u"Status"))});
  Faults().Fail("Selection.Count", kOutOfMemory);
  EXPECT_EQ(kOutOfMemory, Run(false));
  EXPECT_EQ("", shown_);

  Faults().Reset();
  Faults().Throw("MailItem.SaveAs", kOutOfMemory);
  EXPECT_EQ(kOutOfMemory, Run(false));
  EXPECT_EQ("", shown_);
  EXPECT_TRUE(driver_.launches.empty());
}

TEST_F(ConversionDriverTest, MailContactMailGivesTwoDialogsAndTwoConverters) {
  InstallConverter();
  const std::string first = Answer("first.pdf");
  const std::string second = Answer("second.pdf");
  Select({AsItem(MakeMail(u"One")), AsItem(MakeComObject<TestOtherItem>("contact")),
          AsItem(MakeMail(u"Two"))});
  EXPECT_EQ(S_OK, Run(false));
  EXPECT_EQ("", shown_);
  EXPECT_EQ(0u, platform::PendingFileDialogAnswers());
  ASSERT_EQ(2u, driver_.launches.size());
  // Each run starts from an empty store: one job per hand-off.
  EXPECT_EQ(std::vector<std::string>{first}, driver_.launches[0].jobOutputs);
  EXPECT_EQ(std::vector<std::string>{second}, driver_.launches[1].jobOutputs);
  EXPECT_NE(driver_.launches[0].pages, driver_.launches[1].pages);
}

TEST_F(ConversionDriverTest, OnlyOtherItemsGiveTheLastFetchCodeSilently) {
  InstallConverter();
  Answer("never.pdf");
  Select({AsItem(MakeComObject<TestOtherItem>("contact")), nullptr,
          AsItem(MakeComObject<TestOtherItem>("task"))});
  EXPECT_EQ(S_OK, Run(false));
  EXPECT_EQ("", shown_);
  EXPECT_EQ(1u, platform::PendingFileDialogAnswers());

  // The code of the last fetch is the result, also when that fetch failed.
  Select({AsItem(MakeMail(u"One")), AsItem(MakeMail(u"Two"))});
  Faults().Reset();
  Faults().Fail("Selection.Item", DISP_E_BADINDEX, 1);
  EXPECT_EQ(DISP_E_BADINDEX, Run(false));
  EXPECT_EQ(1u, driver_.launches.size());
}

TEST_F(ConversionDriverTest, CancellingTheSecondOfThreeDialogsStopsTheRun) {
  InstallConverter();
  const std::string first = Answer("first.pdf");
  Cancel();
  Answer("third.pdf");
  auto third = MakeMail(u"Three");
  Select({AsItem(MakeMail(u"One")), AsItem(MakeMail(u"Two")), AsItem(third)});
  EXPECT_EQ(kGenericFailure, Run(false));
  EXPECT_EQ("", shown_);
  ASSERT_EQ(1u, driver_.launches.size());
  EXPECT_EQ(first, driver_.launches[0].outputPath);
  EXPECT_EQ(1u, platform::PendingFileDialogAnswers());
  EXPECT_TRUE(third->saved.paths.empty());
}

TEST_F(ConversionDriverTest, PortfolioOfMailsHasOneDialogOneConverterAndARecordEach) {
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
}

TEST_F(ConversionDriverTest, PortfolioOfContactsStillAsksAndStartsWithNoJobs) {
  InstallConverter();
  Answer("");  // the folder's name, unsanitised, is proposed
  Select({AsItem(MakeComObject<TestOtherItem>("contact")),
          AsItem(MakeComObject<TestOtherItem>("contact"))});
  world_.explorer->currentFolder = MakeComObject<testing::TestFolder>(u"Clients-2025");
  EXPECT_EQ(S_OK, Run(true));
  EXPECT_EQ("", shown_);
  EXPECT_EQ(0u, platform::PendingFileDialogAnswers());
  ASSERT_EQ(1u, driver_.launches.size());
  EXPECT_TRUE(driver_.launches[0].portfolio);
  EXPECT_TRUE(driver_.launches[0].pages.empty());
  EXPECT_EQ("Clients-2025.pdf",
            std::filesystem::path(driver_.launches[0].outputPath).filename().string());
}

// --- Failure table of a run --------------------------------------------------------------------

TEST_F(ConversionDriverTest, CancelledDialogStopsWithoutAWord) {
  InstallConverter();
  Select({AsItem(MakeMail(u"One"))});
  Cancel();
  EXPECT_EQ(kGenericFailure, Run(false));
  Cancel();
  EXPECT_EQ(S_OK, Run(true));
  EXPECT_EQ("", shown_);
  EXPECT_TRUE(driver_.launches.empty());
}

TEST_F(ConversionDriverTest, MissingConverterIsReportedAfterTheDialog) {
  Select({AsItem(MakeMail(u"One"))});
  // A cancelled dialog ends the run before the converter is looked for.
  Cancel();
  EXPECT_EQ(kGenericFailure, Run(false));
  EXPECT_EQ("", shown_);

  Answer("one.pdf");
  EXPECT_EQ(kGenericFailure, Run(false));
  EXPECT_EQ(kConverterMissingLine, shown_);
  EXPECT_EQ(0u, platform::PendingFileDialogAnswers());

  Answer("all.pdf");
  EXPECT_EQ(S_OK, Run(true));
  EXPECT_EQ(kConverterMissingLine, shown_);

  EXPECT_TRUE(FilesIn("tmp").empty());
  EXPECT_TRUE(FilesIn("out").empty());
  EXPECT_TRUE(driver_.launches.empty());
}

TEST_F(ConversionDriverTest, ExportFailuresShowTheirMessage) {
  InstallConverter();
  struct Case {
    const char* name;
    bool portfolio;
    bool noTempFolder;
    const char* line;
    HRESULT result;
  };
  const Case cases[] = {
      {"no temporary folder", false, true, kNoTempFolderLine, kGenericFailure},
      {"no temporary folder, portfolio", true, true, kNoTempFolderLine, kGenericFailure},
      {"SaveAs failing", false, false, kSaveFailedLine, kGenericFailure},
      {"SaveAs failing, portfolio", true, false, kSaveFailedLine, kGenericFailure},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Faults().Reset();
    TempRoot() = temp_.WidePathOf("tmp/");
    Answer("one.pdf");
    Select({AsItem(MakeMail(u"One")), AsItem(MakeMail(u"Two"))});
    if (c.noTempFolder) NoTemporaryFolder();
    if (!c.noTempFolder) Faults().Fail("MailItem.SaveAs", E_ACCESSDENIED);
    EXPECT_EQ(c.result, Run(c.portfolio));
    EXPECT_EQ(c.line, shown_);
    EXPECT_TRUE(driver_.launches.empty());
    // The job was made before the export was tried, and stays without its page.
    ASSERT_EQ(1u, store_.Jobs.size());
    EXPECT_FALSE(store_.Jobs[0]->DeletePage);
    EXPECT_TRUE(store_.Jobs[0]->PagePath.IsEmpty());
    EXPECT_EQ(c.portfolio, static_cast<bool>(store_.Jobs[0]->Record));
  }
}

TEST_F(ConversionDriverTest, FailedHandOffGivesGenericFailure) {
  InstallConverter();
  Select({AsItem(MakeMail(u"One")), AsItem(MakeMail(u"Two"))});
  Faults().Fail("Driver.LaunchConverter", E_FAIL);
  Answer("one.pdf");
  Answer("two.pdf");
  EXPECT_EQ(kGenericFailure, Run(false));
  EXPECT_EQ(1u, platform::PendingFileDialogAnswers());  // the second item wasn't reached
  platform::ClearFileDialogAnswers();
  Answer("all.pdf");
  EXPECT_EQ(kGenericFailure, Run(true));
  EXPECT_EQ("", shown_);
  EXPECT_EQ(2u, store_.Jobs.size());  // both exported before the hand-off failed
}

TEST_F(ConversionDriverTest, HandOffIsNotAvailableYetInTheBaseDriver) {
  InstallConverter();
  Answer("one.pdf");
  Select({AsItem(MakeMail(u"One"))});
  ConversionDriver plain(application_, settings_, store_);
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(kGenericFailure, plain.RunConversion(false));
  EXPECT_EQ("", ::testing::internal::GetCapturedStderr());
  EXPECT_EQ(1u, store_.Jobs.size());
}

// --- Preparing a conversion ---------------------------------------------------------------------

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
  ::testing::internal::CaptureStderr();
  EXPECT_TRUE(driver_.PrepareConversion(u"One", request));
  EXPECT_EQ("", ::testing::internal::GetCapturedStderr());
  EXPECT_EQ(output, Utf8(request.OutputPath));
  EXPECT_EQ(temp_.PathOf("module/") + Utf8(kConverterFileName), Utf8(request.ConverterPath));
  EXPECT_EQ(nullptr, request.OwnerWindow);
  EXPECT_TRUE(store_.Jobs.empty());
  EXPECT_FALSE(store_.Portfolio);
  EXPECT_TRUE(store_.PortfolioUser.IsEmpty());
  EXPECT_EQ(2u, settings_.CompressionLevel);
  EXPECT_FALSE(settings_.ConvertAttachments);
  EXPECT_TRUE(settings_.HandoffMappingName.IsEmpty());
}

TEST_F(ConversionDriverTest, MessagesCarryTheAddinCaption) {
  ::testing::internal::CaptureStderr();
  ShowAddinMessage(u"Done.");
  EXPECT_EQ("Marrowline Outlook Addin: Done.\n", ::testing::internal::GetCapturedStderr());
  EXPECT_EQ(kOutOfMemory, HandleComError(ComError(kOutOfMemory)));
}

}  // namespace
}  // namespace mrwl
