#include "conversion/conversion_driver.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "conversion/handoff_test_support.h"
#include "foundation/paths.h"
#include "platform/file_dialog.h"
#include "platform/utf.h"
#include "settings/addin_settings.h"
#include "testing/temp_folder.h"
#include "testing/temp_folder_hook.h"
#include "testing/test_outlook.h"

namespace mrwl {
namespace {

namespace fs = std::filesystem;
using testing::AsItem;
using testing::MakeMail;
using testing::OutlookFaults;
using testing::TestOtherItem;

constexpr HRESULT kGenericFailure = static_cast<HRESULT>(0x80004005u);
constexpr auto kPrivateFile = fs::perms::owner_read | fs::perms::owner_write;

constexpr const char* kNoMailLine =
    "Marrowline Outlook Addin: No mail item selected for conversion. Please, select or open a "
    "mail item.\n";
constexpr const char* kConverterMissingLine =
    "Error: HtmlToPdf application could not be found - please reinstall.\n";
constexpr const char* kNoTempFolderLine =
    "Marrowline Outlook Addin: Unable to get temporary folder.\n";
constexpr const char* kSaveFailedLine =
    "Marrowline Outlook Addin: Unable to save email file into user's temporary folder.\n";

// The option string of the default settings, as the converter receives it, up to the hand-off.
const std::vector<std::string> kDefaultArguments = {
    "",    "",     "\\b",   "\\h",  "\\r", "\\iw", "1280", "\\ih", "800",  "\\ld",
    "500", "\\is", "65540", "\\ic", "1",   "\\pw", "5953", "\\ph", "8419", "\\mt",
    "0",   "\\mb", "0",     "\\ml", "0",   "\\mr", "0",    "\\bp"};

std::string Utf8(std::u16string_view text) { return platform::Utf16ToUtf8(text); }
std::u16string Wide(const std::string& text) { return platform::Utf8ToUtf16(text); }
std::string FileNameOf(const std::string& path) { return fs::path(path).filename().string(); }
fs::perms Mode(const std::string& path) { return fs::symlink_status(path).permissions(); }

template <typename... Item>
std::vector<ComPtr<IDispatch>> Items(const Item&... items) {
  return {AsItem(items)...};
}

void Attach(testing::TestMailItem& mail, std::u16string name, std::string content,
            bool inlinePicture = false) {
  auto attachment = MakeComObject<testing::TestAttachment>();
  attachment->fileName = std::move(name);
  attachment->content = std::move(content);
  if (inlinePicture) {
    attachment->contentId = u"image001.png@01DA";
    attachment->flags = 4;
  }
  mail.attachments->items.push_back(attachment);
}

// Records what the store held instead of handing it on, unless `real`: for each launch
// "OUTPUT [PORTFOLIO-OUTPUT|USER|FOLDER] {JOB-OUTPUT|RECORD-NAME}..." with file names only, the
// brackets for a portfolio only, "-" for a job without a record. The fault
// "Driver.LaunchConverter" makes the hand-off fail.
class RecordingDriver : public ConversionDriver {
 public:
  using ConversionDriver::ConversionDriver;

  bool LaunchConverter(const ConverterRequest& request) override {
    if (real) return ConversionDriver::LaunchConverter(request);
    if (FAILED(OutlookFaults::Get().Enter("Driver.LaunchConverter"))) return false;
    std::string line = FileNameOf(Utf8(request.OutputPath));
    if (store_.Portfolio) {
      line += " [" + FileNameOf(Utf8(store_.PortfolioOutputPath)) + "|" +
              Utf8(store_.PortfolioUser) + "|" + Utf8(store_.PortfolioFolder) + "]";
    }
    for (const auto& job : store_.Jobs) {
      line += " {" + FileNameOf(Utf8(job->OutputPath)) + "|" +
              (job->Record ? Utf8(job->Record->FileName) : "-") + "}";
      pages.push_back(Utf8(job->PagePath));
    }
    launches += (launches.empty() ? "" : "; ") + line;
    return true;
  }

  bool real = false;
  std::string launches;  // "; " between launches
  std::vector<std::string> pages;
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
    Reset();
    fs::create_directories(temp_.path() / "tmp");
    SetModuleFolder(temp_.WidePathOf("module/"));
  }
  void TearDown() override { platform::ClearFileDialogAnswers(); }
  // Between the cases of a table too.
  void Reset() {
    Faults().Reset();
    platform::ClearFileDialogAnswers();
    store_.Clear();
    testing::ScopedTempFolder::Set(temp_.WidePathOf("tmp/"));
  }

  static OutlookFaults& Faults() { return OutlookFaults::Get(); }
  static std::size_t Pending() { return platform::PendingFileDialogAnswers(); }

  // Puts a stand-in converter beside the module that records its arguments, one a line;
  // `runnable` false leaves it without the rights of a program.
  void InstallConverter(bool runnable = true) {
    fs::remove(ArgsFile());
    const std::string path = temp_.Write("module/" + Utf8(kConverterFileName),
                                         testing::RecorderScript(ArgsFile()), true);
    if (!runnable) fs::permissions(path, fs::perms::owner_read);
  }
  std::string ArgsFile() const { return temp_.PathOf("args.txt"); }
  // Queues the save dialog's answer: a file in the test's "out" folder, or "" for the proposal.
  std::string Answer(const std::string& name) {
    const std::string path = name.empty() ? std::string() : temp_.PathOf("out/" + name);
    EXPECT_TRUE(platform::QueueFileDialogAnswer(Wide(path)));
    return path;
  }
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

  // Runs a command as the ribbon does and keeps what it showed; `real` starts the converter.
  HRESULT Run(bool portfolio, bool real = false) {
    driver_.real = real;
    ::testing::internal::CaptureStderr();
    const HRESULT result = driver_.RunConversion(portfolio);
    shown_ = ::testing::internal::GetCapturedStderr();
    return result;
  }

  // The temporary folder the driver is given; empty when none can be found.

  // The names left in the temporary folder, sorted.
  std::vector<std::string> TempEntries() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(temp_.path() / "tmp")) {
      names.push_back(fs::relative(entry.path(), temp_.path() / "tmp").string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }
  std::string HandoffBytes() const {
    return temp_.Read("tmp/" + FileNameOf(Utf8(settings_.HandoffFilePath)));
  }

  testing::TempFolder temp_;
  testing::ScopedEnv registry_{"MRWL_REGISTRY", temp_.PathOf("hive.db")};
  testing::ScopedTempFolder tempFolder_{u""};
  testing::ExplorerWorld world_;
  ComPtr<outlook::_Application> application_;
  AddinSettings settings_;
  ConversionStore store_;
  RecordingDriver driver_{application_, settings_, store_};
  std::string shown_;
};

TEST_F(ConversionDriverTest, WindowKindsFollowTheActiveWindow) {
  const auto twoFaced = [](const IID& iid, HRESULT error) {
    return AsItem(MakeComObject<TwoFacedWindow>(iid, error));
  };
  const struct {
    const char* name;
    ComPtr<IDispatch> window;
    bool activeWindowFails;
    int kind;  // 7: left as it came
  } cases[] = {
      {"explorer", AsItem(MakeComObject<testing::TestExplorer>()), false, kExplorerWindow},
      {"inspector", AsItem(MakeComObject<testing::TestInspector>()), false, kInspectorWindow},
      {"reminder window", AsItem(MakeComObject<TestOtherItem>("reminders")), false, kOtherWindow},
      {"both: the explorer wins", twoFaced(IID_NULL, S_OK), false, kExplorerWindow},
      {"no active window", nullptr, false, kOtherWindow},
      {"ActiveWindow failing", AsItem(MakeComObject<testing::TestExplorer>()), true, 7},
      {"explorer query failing", twoFaced(outlook::IID__Explorer, E_UNEXPECTED), false, 7},
      {"inspector query failing", twoFaced(outlook::IID__Inspector, E_UNEXPECTED), false, 7},
      {"no-interface is an answer, not a failure", twoFaced(outlook::IID__Explorer, E_NOINTERFACE),
       false, kInspectorWindow},
  };
  for (const auto& c : cases) {
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
  const struct {
    const char* name;
    Window window;
    ComPtr<IDispatch> item;  // open or selected
    const char* failing;     // made to fail with kInjected, or null
    bool raise;
    HRESULT result;
    const char* shown;
  } cases[] = {
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
  for (const auto& c : cases) {
    for (const bool portfolio : {false, true}) {
      SCOPED_TRACE(std::string(c.name) + (portfolio ? ", portfolio" : ""));
      Reset();
      Answer("never.pdf");
      if (c.window == kNoApplication) application_ = nullptr;
      if (c.window == kNote) ActivateWindow(AsItem(MakeComObject<TestOtherItem>("note")));
      if (c.window == kInspector || c.window == kNoInspector) OpenInspector(c.item);
      if (c.window == kNoInspector) {
        static_cast<testing::TestApplication*>(application_.get())->activeInspector = nullptr;
      }
      if (c.window == kExplorer || c.window == kNoSelection) {
        Select(c.item ? Items(c.item) : Items());
      }
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
  Reset();
  Answer("one.pdf");
  Select({contact, nullptr, AsItem(MakeComObject<TestOtherItem>("task"))});
  EXPECT_EQ(S_OK, Run(false));
  EXPECT_EQ("", shown_);
  EXPECT_EQ(1u, Pending());
  Select({mail, AsItem(MakeMail(u"Two"))});
  Faults().Reset();  // the call counts start afresh
  Faults().Fail("Selection.Item", DISP_E_BADINDEX, 1);
  EXPECT_EQ(DISP_E_BADINDEX, Run(false));
  EXPECT_EQ("one.pdf {one.pdf|-}", driver_.launches);
}

TEST_F(ConversionDriverTest, RunsHandOnWhatTheyFind) {
  InstallConverter();
  auto meeting = MakeComObject<testing::TestMeetingItem>();
  meeting->subject = u"Planning";
  const auto contact = MakeComObject<TestOtherItem>("contact");
  const struct {
    const char* name;
    bool open;  // an inspector on the first item, else an explorer selecting them all
    bool portfolio;
    const char* answers;   // comma-separated; "" takes the proposed name
    const char* launches;  // "; "-separated
    std::vector<ComPtr<IDispatch>> items;
  } cases[] = {
      // No explorer is active, so no folder.
      {"open mail, portfolio: a portfolio of that one mail", true, true, "single.pdf",
       "single.pdf [single.pdf|ann.lee@example.org|] {single.pdf|Budget 2025.pdf}",
       Items(MakeMail(u"Budget: 2025"))},
      {"open mail: its sanitised subject proposed", true, false, "",
       "Re Q3report finaldoc.pdf {Re Q3report finaldoc.pdf|-}",
       Items(MakeMail(u"Re: Q3-report [final].doc"))},
      {"selection: a dialog and a converter for each mail", false, false, "first.pdf,second.pdf",
       "first.pdf {first.pdf|-}; second.pdf {second.pdf|-}",
       Items(MakeMail(u"One"), contact, MakeMail(u"Two"))},
      {"selection, portfolio: one of each, a record per mail or meeting", false, true, "all.pdf",
       "all.pdf [all.pdf|ann.lee@example.org|Inbox] {all.pdf|Re One.pdf} {all.pdf|Planning.pdf}",
       Items(MakeMail(u"Re: One"), contact, meeting)},
  };
  // No Reset between the cases: each run must clear the store and settings the last one left.
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    driver_.launches.clear();
    driver_.pages.clear();
    settings_.HandoffMappingName = std::u16string_view(u"MRW:IEP:HTMLData");
    Select(c.open ? std::vector<ComPtr<IDispatch>>{} : c.items);  // the session comes with it
    if (c.open) OpenInspector(c.items[0]);
    for (std::string_view rest = c.answers;; rest.remove_prefix(rest.find(',') + 1)) {
      Answer(std::string(rest.substr(0, rest.find(','))));
      if (rest.find(',') == rest.npos) break;
    }

    EXPECT_EQ(S_OK, Run(c.portfolio));
    EXPECT_EQ("", shown_);
    EXPECT_EQ(0u, Pending());
    EXPECT_EQ(c.launches, driver_.launches);
    EXPECT_TRUE(settings_.HandoffMappingName.IsEmpty());
    // A page of its own for each job, or one would overwrite another before it is read.
    EXPECT_EQ(driver_.pages.size(), std::set(driver_.pages.begin(), driver_.pages.end()).size());
  }
}

TEST_F(ConversionDriverTest, EachFailureStopsTheRunAtTheFirstItem) {
  enum Fault { kCancel, kNoConverter, kNoTempFolder, kSaveFails, kHandOffFails };
  // A cancelled portfolio is no failure, and a missing converter answers as a cancel does. The
  // converter is looked for only after the dialog: a cancel says nothing even without it.
  const struct {
    const char* name;
    Fault fault;
    HRESULT plainResult, portfolioResult;
    const char* shown;
    std::size_t plainJobs, portfolioJobs;  // in the store afterwards
  } cases[] = {
      {"cancelled", kCancel, kGenericFailure, S_OK, "", 0, 0},
      {"no converter", kNoConverter, kGenericFailure, S_OK, kConverterMissingLine, 0, 0},
      {"no temporary folder", kNoTempFolder, kGenericFailure, kGenericFailure, kNoTempFolderLine, 1,
       1},
      {"SaveAs failing", kSaveFails, kGenericFailure, kGenericFailure, kSaveFailedLine, 1, 1},
      {"hand-off failing", kHandOffFails, kGenericFailure, kGenericFailure, "", 1, 2},
  };
  for (const auto& c : cases) {
    for (const bool portfolio : {false, true}) {
      SCOPED_TRACE(std::string(c.name) + (portfolio ? ", portfolio" : ""));
      Reset();
      fs::remove(temp_.path() / "module" / Utf8(kConverterFileName));
      if (c.fault != kCancel && c.fault != kNoConverter) InstallConverter();
      if (c.fault == kCancel) {
        EXPECT_TRUE(platform::QueueFileDialogCancel());
      } else {
        Answer("one.pdf");
      }
      Answer("two.pdf");
      if (c.fault == kNoTempFolder) testing::ScopedTempFolder::Set(u"");
      if (c.fault == kSaveFails) Faults().Fail("MailItem.SaveAs", E_ACCESSDENIED);
      if (c.fault == kHandOffFails) Faults().Fail("Driver.LaunchConverter", E_FAIL);
      Select(Items(MakeMail(u"One"), MakeMail(u"Two")));

      EXPECT_EQ(portfolio ? c.portfolioResult : c.plainResult, Run(portfolio));
      EXPECT_EQ(c.shown, shown_);
      EXPECT_EQ(1u, Pending());  // the second item's dialog was never shown
      EXPECT_TRUE(driver_.launches.empty());
      ASSERT_EQ(portfolio ? c.portfolioJobs : c.plainJobs, store_.Jobs.size());
      if (store_.Jobs.empty()) continue;
      // A job is made before its export is tried, and one whose export failed has no page.
      const ConversionJob& job = *store_.Jobs[0];
      EXPECT_EQ(c.fault == kHandOffFails, job.DeletePage);
      EXPECT_EQ(c.fault == kHandOffFails, !job.PagePath.IsEmpty());
      EXPECT_EQ(portfolio, static_cast<bool>(job.Record));
    }
  }
}

TEST_F(ConversionDriverTest, PlainRunHandsPageAndRecordToAStartedConverter) {
  InstallConverter();
  const std::string output = Answer("Status.pdf");
  auto mail = MakeMail(u"Status");
  mail->picture = "png bytes";
  Select(Items(mail));
  EXPECT_EQ(S_OK, Run(false, true));
  EXPECT_EQ("", shown_);

  std::vector<std::string> expected = kDefaultArguments;
  expected.push_back(Utf8(settings_.HandoffFilePath));
  EXPECT_EQ(expected, testing::WaitForLines(ArgsFile()));

  ASSERT_EQ(1u, mail->saved.paths.size());
  const std::string page = Utf8(mail->saved.paths[0]);
  const std::string stem = fs::path(page).stem().string();
  EXPECT_TRUE(stem.starts_with("mrwm_")) << stem;  // the export's own prefix
  EXPECT_EQ(std::vector<LONG>{outlook::olHTML}, mail->saved.types);
  EXPECT_EQ((std::vector<std::string>{stem + ".html", stem + "_files", stem + "_files/image001.png",
                                      FileNameOf(Utf8(settings_.HandoffFilePath))}),
            TempEntries());
  // The page, its pictures and the record with its passwords are the user's alone.
  EXPECT_EQ(kPrivateFile, Mode(page));
  EXPECT_EQ(fs::perms::owner_all, Mode(temp_.PathOf("tmp/" + stem + "_files")));
  EXPECT_EQ(kPrivateFile, Mode(temp_.PathOf("tmp/" + stem + "_files/image001.png")));
  EXPECT_EQ(kPrivateFile, Mode(Utf8(settings_.HandoffFilePath)));
  EXPECT_EQ(
      testing::Golden(testing::kPlainGolden, {{"page", Wide(page)}, {"output", Wide(output)}}),
      HandoffBytes());
}

TEST_F(ConversionDriverTest, ProtectedRunCarriesPasswordsAndRealAttachments) {
  {
    AddinSettings saved;
    testing::SetGoldenSecurity(*saved.Security, *saved.RunApp);
    saved.SaveSettings();
  }
  InstallConverter();
  const std::string output = Answer("Plans.pdf");
  auto mail = MakeMail(u"Plans");
  Attach(*mail, u"plan.txt", "first");
  Attach(*mail, u"image001.png", "inline", true);
  Attach(*mail, u"notes/q3.txt", "refused by the file system");
  Attach(*mail, u"plan.txt", "second");  // one name twice: the later file wins
  Select(Items(mail));
  EXPECT_EQ(S_OK, Run(false, true));
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

TEST_F(ConversionDriverTest, PortfolioRecordNumbersEqualNames) {
  InstallConverter();
  const std::string output = Answer("Inbox.pdf");
  std::vector<ComPtr<testing::TestMailItem>> mails;
  for (int i = 0; i < 2; ++i) {
    auto mail = MakeMail(u"Status");
    mail->to = u"Bob Stone";
    mail->receivedTime = 46000.5;
    mails.push_back(mail);
  }
  Select(Items(mails[0], mails[1]));
  EXPECT_EQ(S_OK, Run(true, true));
  EXPECT_EQ("", shown_);
  EXPECT_EQ(kDefaultArguments.size() + 1, testing::WaitForLines(ArgsFile()).size());
  std::map<std::string, std::u16string> texts = {
      {"cc", u""},          {"bcc", u""},           {"importance", u"1"}, {"sensitivity", u"0"},
      {"to", u"Bob Stone"}, {"subject", u"Status"}, {"folder", u"Inbox"}, {"name1", u"Status.pdf"}};
  texts["name2"] = u"Status(1).pdf";
  texts["user"] = u"ann.lee@example.org";
  texts["from"] = u"Ann Lee<ann.lee@example.org>";
  texts["output"] = Wide(output);
  texts["page1"] = mails[0]->saved.paths.at(0);
  texts["page2"] = mails[1]->saved.paths.at(0);
  EXPECT_EQ(testing::Golden(testing::kPortfolioGolden, texts), HandoffBytes());

  // Attachments of one name in two mails: one file, the later one's, named by both jobs.
  InstallConverter();
  Answer("Inbox.pdf");
  Attach(*mails[0], u"report.txt", "first");
  Attach(*mails[1], u"report.txt", "second");
  EXPECT_EQ(S_OK, Run(true, true));
  (void)testing::WaitForLines(ArgsFile());
  const auto shared = testing::HandoffReader::Decode(HandoffBytes());
  ASSERT_TRUE(shared.has_value());
  ASSERT_EQ(2u, shared->jobs.size());
  const std::vector<std::u16string> report = {Wide(temp_.PathOf("tmp/report.txt"))};
  for (const auto& job : shared->jobs) EXPECT_EQ(report, job.attachments);
  EXPECT_EQ("second", temp_.Read("tmp/report.txt"));

  // A portfolio that found nothing to export still starts the converter, with no jobs, under
  // the folder's name as proposed, unsanitised.
  InstallConverter();
  Answer("");
  Select(Items(MakeComObject<TestOtherItem>("contact")));
  world_.explorer->currentFolder = MakeComObject<testing::TestFolder>(u"Clients-2025");
  EXPECT_EQ(S_OK, Run(true, true));
  EXPECT_EQ(0u, Pending());
  EXPECT_EQ(kDefaultArguments.size() + 1, testing::WaitForLines(ArgsFile()).size());
  const auto none = testing::HandoffReader::Decode(HandoffBytes());
  ASSERT_TRUE(none.has_value());
  EXPECT_EQ("Clients-2025.pdf", FileNameOf(Utf8(none->portfolioOutput)));
  EXPECT_EQ(testing::Golden(testing::kEmptyPortfolioGolden, {{"output", none->portfolioOutput},
                                                             {"user", u"ann.lee@example.org"},
                                                             {"folder", u"Clients-2025"}}),
            HandoffBytes());
}

TEST_F(ConversionDriverTest, FailedStartTakesEveryTemporaryFileAlong) {
  InstallConverter(/*runnable=*/false);
  Answer("one.pdf");
  Answer("two.pdf");
  auto first = MakeMail(u"One");
  first->picture = "png";
  Attach(*first, u"a.txt", "a");
  Attach(*first, u"b.txt", "b");
  auto second = MakeMail(u"Two");
  Select(Items(first, second));
  // No message, and the run goes on to the next mail.
  EXPECT_EQ(S_OK, Run(false, true));
  EXPECT_EQ("", shown_);
  EXPECT_EQ(1u, second->saved.paths.size());
  EXPECT_TRUE(settings_.HandoffFilePath.IsEmpty());
  EXPECT_EQ(std::vector<std::string>{}, TempEntries());
  EXPECT_FALSE(fs::exists(ArgsFile()));
}

TEST_F(ConversionDriverTest, AttachmentsAreSavedOnlyWhenRealAndAsked) {
  const struct {
    const char* name;
    bool convertAttachments;
    const char* attachments;  // names; "*" marks an inline picture
    const char* failing;      // fails on its first call only
    bool deleteAttachments;
    const char* saved;  // below the temporary folder
  } cases[] = {
      {"none", true, "", nullptr, false, ""},
      {"only an inline picture", true, "*image001.png", nullptr, true, ""},
      {"a text file and an inline picture", true, "a.txt *image001.png", nullptr, true, "a.txt"},
      {"switched off", false, "a.txt", nullptr, false, ""},
      {"a failing name is left out", true, "a.txt b.txt", "Attachment.FileName", true, "b.txt"},
      {"a failing item is left out", true, "a.txt b.txt", "Attachments.Item", true, "b.txt"},
      {"a failing save is left out", true, "a.txt b.txt", "Attachment.SaveAsFile", true, "b.txt"},
      {"no count", true, "a.txt", "Attachments.Count", false, ""},
      {"no collection", true, "a.txt", "MailItem.Attachments", false, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Reset();
    for (const auto& entry : fs::directory_iterator(temp_.path() / "tmp")) fs::remove_all(entry);
    settings_.ConvertAttachments = c.convertAttachments;
    auto mail = MakeMail(u"Mail");
    std::istringstream names(c.attachments);
    for (std::string name; names >> name;) {
      Attach(*mail, Wide(name.substr(name[0] == '*' ? 1 : 0)), "x", name[0] == '*');
    }
    if (c.failing != nullptr) Faults().Fail(c.failing, E_FAIL, 0, 1);

    ConverterRequest request;
    request.OutputPath = std::u16string_view(u"/out/mail.pdf");
    ASSERT_TRUE(driver_.ExportItem(*MakeWrapper(AsItem(mail).get()), request));
    ASSERT_EQ(1u, store_.Jobs.size());
    const ConversionJob& job = *store_.Jobs[0];
    EXPECT_EQ(c.deleteAttachments, job.DeleteAttachments);
    EXPECT_EQ(u"/out/mail.pdf", job.OutputPath.view());
    std::string saved;
    for (const WideString& path : job.Attachments) {
      EXPECT_TRUE(fs::exists(Utf8(path)));
      saved += (saved.empty() ? "" : " ") + fs::relative(Utf8(path), temp_.path() / "tmp").string();
    }
    EXPECT_EQ(c.saved, saved);
    // Switched off, the attachments are not even counted.
    EXPECT_TRUE(c.convertAttachments || Faults().CountOf("Attachments.Count") == 0);
  }
}

}  // namespace
}  // namespace mrwl
