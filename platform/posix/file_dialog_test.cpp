// Tests of the class-object table, shell items and the console file dialog. The terminal
// conversation runs in a copy of this test program on a real pseudo-terminal.
#include "platform/file_dialog.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/com_object.h"
#include "platform/utf.h"
#include "testing/temp_folder.h"

namespace mrwl::platform {
namespace {

using mrwl::testing::TempFolder;
using namespace std::string_literals;

// ---------------------------------------------------------------------------------------------
// Class objects

const CLSID kTestClass = {
    0x6D1A0E51, 0x2B7C, 0x4A8E, {0x9F, 0x11, 0x3C, 0x5D, 0x7E, 0x80, 0x91, 0xA2}};

// A class object that hands out itself, or fails with a set result; it notes its destruction.
class Factory final : public ComObject<IClassFactory> {
 public:
  explicit Factory(std::atomic<int>* alive, HRESULT failure = S_OK)
      : alive_(alive), failure_(failure) {
    ++*alive_;
  }
  ~Factory() override { --*alive_; }
  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown*, REFIID iid, void** object) override {
    return FAILED(failure_) ? failure_ : QueryInterface(iid, object);
  }
  HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }

 private:
  std::atomic<int>* alive_;
  HRESULT failure_;
};

class ClassTableTest : public ::testing::Test {
 protected:
  ComPtr<Factory> NewFactory(HRESULT failure = S_OK) {
    return MakeComObject<Factory>(&alive_, failure);
  }
  DWORD Register(const ComPtr<Factory>& factory, DWORD context = CLSCTX_INPROC_SERVER) {
    DWORD cookie = 0;
    EXPECT_EQ(S_OK, CoRegisterClassObject(kTestClass, factory->Identity(), context,
                                          REGCLS_MULTIPLEUSE, &cookie));
    EXPECT_NE(0u, cookie);
    return cookie;
  }
  // The object CoCreateInstance makes, with the result kept in created_.
  IUnknown* Create(DWORD context = CLSCTX_ALL) {
    void* object = reinterpret_cast<void*>(1);
    created_ = CoCreateInstance(kTestClass, nullptr, context, IID_IUnknown, &object);
    if (object != nullptr) static_cast<IUnknown*>(object)->Release();  // the table holds one
    return static_cast<IUnknown*>(object);
  }

  std::atomic<int> alive_{0};
  HRESULT created_ = S_OK;
};

TEST_F(ClassTableTest, NewestRegistrationAnswersUntilRevokedAndFailuresComeBackAsTheyAre) {
  EXPECT_EQ(nullptr, Create()) << "a failed creation clears the out pointer";
  EXPECT_EQ(REGDB_E_CLASSNOTREG, created_);
  ComPtr<Factory> first = NewFactory();
  ComPtr<Factory> second = NewFactory(E_OUTOFMEMORY);
  const DWORD firstCookie = Register(first);
  const DWORD secondCookie = Register(second, CLSCTX_LOCAL_SERVER);
  EXPECT_NE(firstCookie, secondCookie);
  EXPECT_EQ(first->Identity(), Create(CLSCTX_INPROC_SERVER)) << "another context is not found";
  EXPECT_EQ(nullptr, Create(23));
  EXPECT_EQ(E_OUTOFMEMORY, created_);
  void* object = nullptr;
  EXPECT_EQ(CLASS_E_NOAGGREGATION,
            CoCreateInstance(kTestClass, first->Identity(), CLSCTX_ALL, IID_IUnknown, &object));
  EXPECT_EQ(E_POINTER, CoCreateInstance(kTestClass, nullptr, CLSCTX_ALL, IID_IUnknown, nullptr));

  EXPECT_EQ(S_OK, CoRevokeClassObject(secondCookie));
  EXPECT_EQ(first->Identity(), Create());
  EXPECT_EQ(S_OK, CoRevokeClassObject(firstCookie));
  EXPECT_EQ(nullptr, Create());
  EXPECT_EQ(REGDB_E_CLASSNOTREG, created_);
  EXPECT_EQ(CO_E_OBJNOTREG, CoRevokeClassObject(firstCookie));
}

TEST_F(ClassTableTest, ThreadsRegisterCreateAndRevokeAtOnce) {
  constexpr int kThreads = 4, kRounds = 300;
  std::vector<std::vector<DWORD>> cookies(kThreads, std::vector<DWORD>(kRounds));
  std::atomic<int> misses{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (DWORD& cookie : cookies[t]) {
        // Some registration stands while this thread's own does.
        ComPtr<IUnknown> object;
        if (FAILED(CoRegisterClassObject(kTestClass, NewFactory()->Identity(), CLSCTX_INPROC_SERVER,
                                         REGCLS_MULTIPLEUSE, &cookie)) ||
            FAILED(CoCreateInstance(kTestClass, nullptr, CLSCTX_ALL, IID_IUnknown,
                                    object.put_void())) ||
            CoRevokeClassObject(cookie) != S_OK) {
          ++misses;
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(0, misses.load());
  std::set<DWORD> distinct;
  for (const auto& list : cookies) distinct.insert(list.begin(), list.end());
  EXPECT_EQ(static_cast<std::size_t>(kThreads * kRounds), distinct.size());
  EXPECT_EQ(0, alive_.load()) << "revoking releases the class object";
  EXPECT_EQ(nullptr, Create());
}

// ---------------------------------------------------------------------------------------------
// Shell items

// The display name of `item` in `form`, or "(failed)".
std::u16string NameOf(const ComPtr<IShellItem>& item, SIGDN form) {
  OLECHAR* name = nullptr;
  if (FAILED(item->GetDisplayName(form, &name))) return u"(failed)";
  std::u16string copy(name);
  CoTaskMemFree(name);
  return copy;
}

TEST(ShellItem, NamesItsPathParentAndKindAndRefusesMissingOrEmptyPaths) {
  TempFolder folder;
  folder.Write("docs/plan.txt", "x");
  const std::u16string path = folder.WidePathOf("docs/plan.txt");
  ComPtr<IShellItem> item;
  ComPtr<IShellItem> parent;
  ASSERT_EQ(S_OK,
            SHCreateItemFromParsingName(path.c_str(), nullptr, IID_IShellItem, item.put_void()));
  ASSERT_EQ(S_OK, item->GetParent(parent.put()));
  EXPECT_EQ(path, NameOf(item, SIGDN_FILESYSPATH));
  EXPECT_EQ(u"plan.txt", NameOf(item, SIGDN_NORMALDISPLAY));
  EXPECT_EQ(folder.WidePathOf("docs"), NameOf(parent, SIGDN_FILESYSPATH));
  SFGAOF attributes = 0;
  EXPECT_EQ(S_OK, parent->GetAttributes(SFGAO_FOLDER | SFGAO_FILESYSTEM, &attributes));
  EXPECT_EQ(S_FALSE, item->GetAttributes(SFGAO_FOLDER | SFGAO_FILESYSTEM, &attributes));
  EXPECT_EQ(SFGAO_FILESYSTEM, attributes);
  int order = 0;
  EXPECT_EQ(S_FALSE, item->Compare(parent.get(), 0, &order));
  EXPECT_EQ(1, order);

  void* refused = reinterpret_cast<void*>(1);
  const std::u16string missing = folder.WidePathOf("nothing-here");
  EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND),
            SHCreateItemFromParsingName(missing.c_str(), nullptr, IID_IShellItem, &refused));
  EXPECT_EQ(nullptr, refused);
  EXPECT_EQ(E_INVALIDARG, SHCreateItemFromParsingName(u"", nullptr, IID_IShellItem, &refused));
  EXPECT_EQ(E_NOINTERFACE,
            SHCreateItemFromParsingName(path.c_str(), nullptr, IID_IFileDialog, &refused));
}

// ---------------------------------------------------------------------------------------------
// The console dialog without a terminal

// "<OFN_ flags in hex> <folder>" for the copy of this program that asks on a terminal.
constexpr char kTerminalSetting[] = "MRWL_TEST_TERMINAL_DIALOG";

class ConsoleDialogTest : public ::testing::Test {
 protected:
  // Standard input from /dev/null, so that no question can reach a terminal, except in the copy
  // that is meant to ask on one.
  ConsoleDialogTest() : savedInput_(dup(STDIN_FILENO)) {
    const int null = open("/dev/null", O_RDONLY);
    if (std::getenv(kTerminalSetting) == nullptr) dup2(null, STDIN_FILENO);
    close(null);
    ClearFileDialogAnswers();
  }
  ~ConsoleDialogTest() override {
    ClearFileDialogAnswers();
    dup2(savedInput_, STDIN_FILENO);
    close(savedInput_);
  }

  // Prepares a question: the proposed name, the folder and the default extension.
  void Propose(const std::u16string& name, const std::u16string& initialFolder = u"",
               const char16_t* defaultExtension = nullptr, DWORD flags = OFN_EXPLORER) {
    buffer_ = name;
    buffer_.resize(1024);
    initialFolder_ = initialFolder;
    ofn_ = OpenFileNameW{};
    ofn_.lStructSize = sizeof ofn_;
    ofn_.lpstrFile = buffer_.data();
    ofn_.nMaxFile = static_cast<DWORD>(buffer_.size());
    ofn_.lpstrInitialDir = initialFolder_.empty() ? nullptr : initialFolder_.c_str();
    ofn_.lpstrDefExt = defaultExtension;
    ofn_.Flags = flags;
  }
  std::u16string Chosen() const { return buffer_.c_str(); }
  // The whole buffer up to its first double NUL, NULs included.
  std::u16string ChosenList() const { return buffer_.substr(0, buffer_.find(u"\0\0"s) + 2); }

  int savedInput_;
  TempFolder folder_;
  std::u16string buffer_;
  std::u16string initialFolder_;
  OpenFileNameW ofn_{};
};

TEST_F(ConsoleDialogTest, QueuedAnswersResolveAgainstTheInitialFolder) {
  folder_.Write("exists.pdf", "old");
  const std::u16string base = folder_.WidePathOf("");
  const std::u16string cwd = Utf8ToUtf16(std::filesystem::current_path().string());
  const struct {
    const char* what;
    std::u16string proposed;
    std::u16string initial;
    const char16_t* extension;
    std::u16string answer;
    std::u16string expected;
  } cases[] = {
      {"absolute answer", u"x", base, u"pdf", u"/elsewhere/a.pdf", u"/elsewhere/a.pdf"},
      {"relative answer", u"x", base, u"pdf", u"sub/a.pdf", folder_.WidePathOf("sub/a.pdf")},
      {"relative without initial folder", u"x", u"", u"pdf", u"out.pdf", cwd + u"/out.pdf"},
      {"extension added", u"x", base, u"pdf", u"report", folder_.WidePathOf("report.pdf")},
      {"foreign extension kept", u"x", base, u"pdf", u"a.txt", folder_.WidePathOf("a.txt")},
      {"no default extension", u"x", base, nullptr, u"report", folder_.WidePathOf("report")},
      {"empty answer takes the proposal", u"Q1 Plan", base, u"pdf", u"",
       folder_.WidePathOf("Q1 Plan.pdf")},
      {"existing file taken without a question", u"x", base, u"pdf", u"exists.pdf",
       folder_.WidePathOf("exists.pdf")},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Propose(c.proposed, c.initial, c.extension, OFN_EXPLORER | OFN_OVERWRITEPROMPT);
    ASSERT_TRUE(QueueFileDialogAnswer(c.answer));
    ASSERT_EQ(TRUE, GetSaveFileNameW(&ofn_));
    EXPECT_EQ(c.expected, Chosen());
    EXPECT_EQ(0u, CommDlgExtendedError());
  }
}

TEST_F(ConsoleDialogTest, CancelsWhenQueuedOrWithNeitherAnswerNorTerminal) {
  Propose(u"report", folder_.WidePathOf(""), u"pdf");
  std::vector<char16_t> title(64, u'\0');
  ofn_.lpstrFileTitle = title.data();
  ofn_.nMaxFileTitle = 64;
  ASSERT_TRUE(QueueFileDialogCancel());
  ASSERT_TRUE(QueueFileDialogAnswer(u"Quarter.Report"));
  EXPECT_EQ(2u, PendingFileDialogAnswers());
  EXPECT_EQ(FALSE, GetSaveFileNameW(&ofn_));
  EXPECT_EQ(0u, CommDlgExtendedError());
  EXPECT_EQ(u"report", Chosen()) << "a cancel leaves the buffer alone";

  ASSERT_EQ(TRUE, GetSaveFileNameW(&ofn_)) << "the next question takes the next answer";
  const std::u16string chosen = Chosen();
  EXPECT_EQ(folder_.WidePathOf("Quarter.Report"), chosen);
  EXPECT_EQ(u"Quarter.Report", chosen.substr(ofn_.nFileOffset));
  EXPECT_EQ(u"Report", chosen.substr(ofn_.nFileExtension));
  EXPECT_EQ(u"Quarter.Report", std::u16string(title.data()));

  EXPECT_EQ(0u, PendingFileDialogAnswers());
  EXPECT_EQ(FALSE, GetOpenFileNameW(&ofn_));
  EXPECT_EQ(0u, CommDlgExtendedError());
}

TEST_F(ConsoleDialogTest, BadQuestionsAndSmallBuffersAreErrors) {
  Propose(u"x", folder_.WidePathOf(""));
  ofn_.nMaxFile = 8;
  const std::u16string path = folder_.WidePathOf("long-enough-name.pdf");
  ASSERT_TRUE(QueueFileDialogAnswer(path));
  EXPECT_EQ(FALSE, GetSaveFileNameW(&ofn_));
  EXPECT_EQ(static_cast<DWORD>(FNERR_BUFFERTOOSMALL), CommDlgExtendedError());
  EXPECT_EQ(path.size() + 1, static_cast<std::size_t>(buffer_[0])) << "the size needed";

  Propose(u"x");
  ofn_.lStructSize = 88;
  EXPECT_EQ(FALSE, GetSaveFileNameW(&ofn_));
  EXPECT_EQ(static_cast<DWORD>(CDERR_STRUCTSIZE), CommDlgExtendedError());
  Propose(u"x");
  ofn_.lpstrFile = nullptr;
  EXPECT_EQ(FALSE, GetOpenFileNameW(&ofn_));
  EXPECT_EQ(static_cast<DWORD>(CDERR_INITIALIZATION), CommDlgExtendedError());
}

TEST_F(ConsoleDialogTest, MultipleSelectionListsFolderThenNames) {
  const std::u16string base = folder_.WidePathOf("");
  std::u16string folder = base;
  while (folder.back() == u'/') folder.pop_back();
  const struct {
    DWORD flags;
    std::u16string answer;
    std::u16string expected;
  } cases[] = {
      {OFN_ALLOWMULTISELECT, u"a.eml\0b.eml\0sub/c.eml"s,
       folder + u"\0a.eml\0b.eml\0sub/c.eml\0\0"s},
      {OFN_ALLOWMULTISELECT, u"only.eml", folder_.WidePathOf("only.eml") + u"\0\0"s},
      {0, u"a.eml\0b.eml"s, folder_.WidePathOf("a.eml") + u"\0\0"s},  // the first without it
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(Utf16ToUtf8(c.answer));
    Propose(u"", base, nullptr, OFN_EXPLORER | c.flags);
    ASSERT_TRUE(QueueFileDialogAnswer(c.answer));
    ASSERT_EQ(TRUE, GetOpenFileNameW(&ofn_));
    EXPECT_EQ(c.expected, ChosenList());
    EXPECT_EQ(folder.size() + 1, ofn_.nFileOffset);
  }
}

// ---------------------------------------------------------------------------------------------
// The console dialog on a terminal: a copy of this program asks on a pseudo-terminal, this test
// plays the user.

// Run by the copy: asks to save "report" with the default extension "pdf" in the folder given,
// and prints "result: 1 <path>" or "result: 0 <error>".
TEST_F(ConsoleDialogTest, DISABLED_AsksOnTerminal) {
  const char* setting = std::getenv(kTerminalSetting);
  ASSERT_NE(nullptr, setting);
  char* folder = nullptr;
  const DWORD flags = static_cast<DWORD>(std::strtoul(setting, &folder, 16));
  Propose(u"report", Utf8ToUtf16(folder + 1), u"pdf", flags);
  const std::string result = GetSaveFileNameW(&ofn_)
                                 ? "1 " + Utf16ToUtf8(Chosen())
                                 : "0 " + std::to_string(CommDlgExtendedError());
  std::printf("result: %s\n", result.c_str());
  std::fflush(stdout);
}

// The copy on its terminal, and what it wrote there.
class TerminalUser {
 public:
  TerminalUser() {
    static char self[] = "/proc/self/exe";
    static char filter[] = "--gtest_filter=ConsoleDialogTest.DISABLED_AsksOnTerminal";
    static char disabled[] = "--gtest_also_run_disabled_tests";
    static char* const argv[] = {self, filter, disabled, nullptr};
    pid_ = forkpty(&master_, nullptr, nullptr, nullptr);
    if (pid_ == 0) {
      execv(self, argv);
      _exit(127);
    }
    if (pid_ < 0) ADD_FAILURE() << "no pseudo-terminal: " << std::strerror(errno);
  }
  ~TerminalUser() {
    if (pid_ > 0) kill(pid_, SIGKILL);
    (void)Finish();
    if (master_ >= 0) close(master_);
  }

  // Reads until the copy wrote `text` after what the last call found; false when the copy ends
  // or stays silent for long without writing it.
  bool Expect(const std::string& text) {
    std::size_t found = 0;
    while ((found = output_.find(text, seen_)) == std::string::npos) {
      if (!ReadSome()) return false;
    }
    seen_ = found + text.size();
    return true;
  }
  void Type(const std::string& text) {
    EXPECT_EQ(static_cast<ssize_t>(text.size()), write(master_, text.data(), text.size()));
  }
  // Drains the terminal until the copy ends; its exit status.
  int Finish() {
    while (ReadSome()) {
    }
    int status = -1;
    if (pid_ > 0 && waitpid(pid_, &status, 0) != pid_) status = -1;
    pid_ = -1;
    return status;
  }
  const std::string& Output() const { return output_; }

 private:
  bool ReadSome() {
    pollfd fd{master_, POLLIN, 0};
    if (master_ < 0 || poll(&fd, 1, 20000) <= 0) return false;
    char chunk[512];
    const ssize_t got = read(master_, chunk, sizeof chunk);
    if (got <= 0) return false;  // EIO once the copy closed its side
    output_.append(chunk, static_cast<std::size_t>(got));
    return true;
  }

  int master_ = -1;
  pid_t pid_ = -1;
  std::string output_;
  std::size_t seen_ = 0;
};

TEST(TerminalDialog, UserAnswersNameTheFileOrCancel) {
  TempFolder folder;
  folder.Write("report.pdf", "old");
  const std::string ask = "Save As [report]: ";
  const std::string replace = "report.pdf already exists.\r\nDo you want to replace it? (y/n) ";
  const struct {
    const char* what;
    const char* flags;                      // OFN_EXPLORER, with or without OFN_OVERWRITEPROMPT
    std::vector<std::string> conversation;  // what is asked, then what the user types
    const char* chosen;                     // nullptr for a cancel
  } cases[] = {
      {"a no asks for the name again",
       "80002",
       {ask, "\n", replace, "n\n", ask, "report\n", replace, "y\n"},
       "report.pdf"},
      {"a new name is taken without question", "80002", {ask, "summary\n"}, "summary.pdf"},
      {"no overwrite prompt", "80000", {ask, "\n"}, "report.pdf"},
      {"end of input cancels", "80002", {ask, "\x04"}, nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    mrwl::testing::ScopedEnv setting(kTerminalSetting, c.flags + " "s + folder.PathOf(""));
    TerminalUser user;
    for (std::size_t i = 0; i + 1 < c.conversation.size(); i += 2) {
      ASSERT_TRUE(user.Expect(c.conversation[i])) << user.Output();
      user.Type(c.conversation[i + 1]);
    }
    const std::string result = c.chosen != nullptr ? "1 " + folder.PathOf(c.chosen) : "0 0";
    EXPECT_TRUE(user.Expect("result: " + result + "\r\n")) << user.Output();
    EXPECT_EQ(0, user.Finish()) << user.Output();
    const bool asked = c.conversation.size() > 2 && c.conversation[2] == replace;
    EXPECT_EQ(asked, user.Output().find("replace") != std::string::npos);
  }
}


TEST_F(ConsoleDialogTest, StandingFolderAnswerTakesProposedNamesAndGuardsExistingFiles) {
  folder_.Write("out/Taken.pdf", "old");
  const std::u16string out = folder_.WidePathOf("out");
  ASSERT_TRUE(SetFileDialogFolderAnswer(out, FALSE));
  // The proposal's folder part is dropped; the default extension comes as for a typed name.
  Propose(u"/elsewhere/Q3 Plan", folder_.WidePathOf(""), u"pdf", OFN_OVERWRITEPROMPT);
  ASSERT_EQ(TRUE, GetSaveFileNameW(&ofn_));
  EXPECT_EQ(folder_.WidePathOf("out/Q3 Plan.pdf"), Chosen());
  // Without a terminal an existing file is refused, unless the answer allows replacing.
  Propose(u"Taken.pdf", u"", u"pdf", OFN_OVERWRITEPROMPT);
  EXPECT_EQ(FALSE, GetSaveFileNameW(&ofn_));
  EXPECT_EQ(0u, CommDlgExtendedError());
  ASSERT_TRUE(SetFileDialogFolderAnswer(out, TRUE));
  ASSERT_EQ(TRUE, GetSaveFileNameW(&ofn_));
  EXPECT_EQ(folder_.WidePathOf("out/Taken.pdf"), Chosen());
  // Queued answers come first; open questions and empty proposals are not answered.
  ASSERT_TRUE(QueueFileDialogAnswer(u"/queued/a.pdf"));
  ASSERT_EQ(TRUE, GetSaveFileNameW(&ofn_));
  EXPECT_EQ(u"/queued/a.pdf", Chosen());
  Propose(u"Taken.pdf");
  EXPECT_EQ(FALSE, GetOpenFileNameW(&ofn_));
  Propose(u"");
  EXPECT_EQ(FALSE, GetSaveFileNameW(&ofn_));
  // A name given once is numbered the next time; an empty proposal takes the fallback name.
  ASSERT_TRUE(SetFileDialogFolderAnswer(out, FALSE, u"Untitled"));
  for (const char* expected : {"out/Minutes.pdf", "out/Minutes (2).pdf", "out/Minutes (3).pdf"}) {
    Propose(u"Minutes", u"", u"pdf", OFN_OVERWRITEPROMPT);
    ASSERT_EQ(TRUE, GetSaveFileNameW(&ofn_));
    EXPECT_EQ(folder_.WidePathOf(expected), Chosen());
  }
  Propose(u"", u"", u"pdf");
  ASSERT_EQ(TRUE, GetSaveFileNameW(&ofn_));
  EXPECT_EQ(folder_.WidePathOf("out/Untitled.pdf"), Chosen());
  ASSERT_TRUE(SetFileDialogFolderAnswer(u"", FALSE));
  Propose(u"Fresh.pdf");
  EXPECT_EQ(FALSE, GetSaveFileNameW(&ofn_)) << "withdrawn: no terminal, so a cancel";
}
}  // namespace
}  // namespace mrwl::platform
