// Tests of the class-object table, shell items and the console file dialog. The terminal
// conversation runs in a copy of this test program on a real pseudo-terminal.
#include "platform/file_dialog.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/com_object.h"
#include "platform/utf.h"
#include "testing/temp_folder.h"

extern char** environ;

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
    if (FAILED(failure_)) return failure_;
    return QueryInterface(iid, object);
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
  ComPtr<IUnknown> Create(DWORD context = CLSCTX_ALL) {
    ComPtr<IUnknown> object;
    created_ = CoCreateInstance(kTestClass, nullptr, context, IID_IUnknown, object.put_void());
    return object;
  }

  std::atomic<int> alive_{0};
  HRESULT created_ = S_OK;
};

TEST_F(ClassTableTest, UnregisteredClassIsNotFound) {
  void* object = reinterpret_cast<void*>(1);
  EXPECT_EQ(REGDB_E_CLASSNOTREG,
            CoCreateInstance(kTestClass, nullptr, CLSCTX_ALL, IID_IUnknown, &object));
  EXPECT_EQ(nullptr, object);
}

TEST_F(ClassTableTest, NewestRegistrationAnswersUntilRevoked) {
  ComPtr<Factory> first = NewFactory();
  ComPtr<Factory> second = NewFactory();
  const DWORD firstCookie = Register(first);
  const DWORD secondCookie = Register(second);
  EXPECT_NE(firstCookie, secondCookie);

  EXPECT_EQ(second->Identity(), Create().get());
  EXPECT_EQ(S_OK, CoRevokeClassObject(secondCookie));
  EXPECT_EQ(first->Identity(), Create().get());
  EXPECT_EQ(S_OK, CoRevokeClassObject(firstCookie));
  EXPECT_EQ(nullptr, Create().get());
  EXPECT_EQ(REGDB_E_CLASSNOTREG, created_);
  EXPECT_EQ(CO_E_OBJNOTREG, CoRevokeClassObject(firstCookie));
}

TEST_F(ClassTableTest, RevokingReleasesTheClassObject) {
  DWORD cookie = 0;
  {
    ComPtr<Factory> factory = NewFactory();
    cookie = Register(factory);
  }
  EXPECT_EQ(1, alive_.load()) << "the table holds a reference";
  EXPECT_EQ(S_OK, CoRevokeClassObject(cookie));
  EXPECT_EQ(0, alive_.load());
}

TEST_F(ClassTableTest, RefusalsAndFailuresComeBackAsTheyAre) {
  ComPtr<Factory> failing = NewFactory(E_OUTOFMEMORY);
  const DWORD cookie = Register(failing, CLSCTX_LOCAL_SERVER);

  EXPECT_EQ(nullptr, Create(CLSCTX_INPROC_SERVER).get());
  EXPECT_EQ(REGDB_E_CLASSNOTREG, created_) << "a class of another context is not found";
  EXPECT_EQ(nullptr, Create(23).get());
  EXPECT_EQ(E_OUTOFMEMORY, created_);

  void* object = nullptr;
  EXPECT_EQ(CLASS_E_NOAGGREGATION,
            CoCreateInstance(kTestClass, failing->Identity(), CLSCTX_ALL, IID_IUnknown, &object));
  EXPECT_EQ(E_POINTER, CoCreateInstance(kTestClass, nullptr, CLSCTX_ALL, IID_IUnknown, nullptr));
  EXPECT_EQ(S_OK, CoRevokeClassObject(cookie));
}

TEST_F(ClassTableTest, ThreadsRegisterCreateAndRevokeAtOnce) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 300;
  std::vector<std::vector<DWORD>> cookies(kThreads);
  std::atomic<int> misses{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRounds; ++i) {
        ComPtr<Factory> factory = MakeComObject<Factory>(&alive_);
        DWORD cookie = 0;
        if (FAILED(CoRegisterClassObject(kTestClass, factory->Identity(), CLSCTX_INPROC_SERVER,
                                         REGCLS_MULTIPLEUSE, &cookie))) {
          ++misses;
          continue;
        }
        cookies[t].push_back(cookie);
        ComPtr<IUnknown> object;
        // Some registration stands while this thread's own does.
        if (FAILED(CoCreateInstance(kTestClass, nullptr, CLSCTX_ALL, IID_IUnknown,
                                    object.put_void()))) {
          ++misses;
        }
        if (CoRevokeClassObject(cookie) != S_OK) ++misses;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(0, misses.load());
  std::set<DWORD> distinct;
  for (const auto& list : cookies) distinct.insert(list.begin(), list.end());
  EXPECT_EQ(static_cast<std::size_t>(kThreads * kRounds), distinct.size());
  EXPECT_EQ(0, alive_.load());
  EXPECT_EQ(nullptr, Create().get());
}

// ---------------------------------------------------------------------------------------------
// Shell items

std::u16string TakeTaskText(OLECHAR* text) {
  std::u16string copy = text == nullptr ? u"" : std::u16string(text);
  CoTaskMemFree(text);
  return copy;
}

TEST(ShellItem, NamesItsPathParentAndKind) {
  TempFolder folder;
  folder.Write("docs/plan.txt", "x");
  const std::u16string path = folder.WidePathOf("docs/plan.txt");
  ComPtr<IShellItem> item;
  ASSERT_EQ(S_OK,
            SHCreateItemFromParsingName(path.c_str(), nullptr, IID_IShellItem, item.put_void()));
  OLECHAR* name = nullptr;
  ASSERT_EQ(S_OK, item->GetDisplayName(SIGDN_FILESYSPATH, &name));
  EXPECT_EQ(path, TakeTaskText(name));
  ASSERT_EQ(S_OK, item->GetDisplayName(SIGDN_NORMALDISPLAY, &name));
  EXPECT_EQ(u"plan.txt", TakeTaskText(name));

  ComPtr<IShellItem> parent;
  ASSERT_EQ(S_OK, item->GetParent(parent.put()));
  ASSERT_EQ(S_OK, parent->GetDisplayName(SIGDN_FILESYSPATH, &name));
  EXPECT_EQ(folder.WidePathOf("docs"), TakeTaskText(name));
  SFGAOF attributes = 0;
  EXPECT_EQ(S_OK, parent->GetAttributes(SFGAO_FOLDER | SFGAO_FILESYSTEM, &attributes));
  EXPECT_EQ(S_FALSE, item->GetAttributes(SFGAO_FOLDER | SFGAO_FILESYSTEM, &attributes));
  EXPECT_EQ(SFGAO_FILESYSTEM, attributes);

  int order = 0;
  EXPECT_EQ(S_FALSE, item->Compare(parent.get(), 0, &order));
  EXPECT_EQ(1, order);
}

TEST(ShellItem, MissingOrEmptyPathsAreRefused) {
  TempFolder folder;
  void* item = reinterpret_cast<void*>(1);
  const std::u16string missing = folder.WidePathOf("nothing-here");
  EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND),
            SHCreateItemFromParsingName(missing.c_str(), nullptr, IID_IShellItem, &item));
  EXPECT_EQ(nullptr, item);
  EXPECT_EQ(E_INVALIDARG, SHCreateItemFromParsingName(u"", nullptr, IID_IShellItem, &item));
  EXPECT_EQ(E_NOINTERFACE, SHCreateItemFromParsingName(folder.WidePathOf("").c_str(), nullptr,
                                                       IID_IFileDialog, &item));
}

// ---------------------------------------------------------------------------------------------
// The console dialog without a terminal

// Standard input from /dev/null for the scope, so that no question can reach a terminal.
class NoTerminal {
 public:
  NoTerminal() : saved_(dup(STDIN_FILENO)) {
    const int null = open("/dev/null", O_RDONLY);
    dup2(null, STDIN_FILENO);
    close(null);
  }
  ~NoTerminal() {
    dup2(saved_, STDIN_FILENO);
    close(saved_);
  }

 private:
  int saved_;
};

class ConsoleDialogTest : public ::testing::Test {
 protected:
  ConsoleDialogTest() { ClearFileDialogAnswers(); }
  ~ConsoleDialogTest() override { ClearFileDialogAnswers(); }

  // Prepares a question: the proposed name, the folder and the default extension.
  void Propose(const std::u16string& name, const std::u16string& initialFolder = u"",
               const char16_t* defaultExtension = nullptr, DWORD flags = OFN_EXPLORER) {
    buffer_.assign(kBufferSize, u'\0');
    name.copy(buffer_.data(), name.size());
    initialFolder_ = initialFolder;
    ofn_ = OpenFileNameW{};
    ofn_.lStructSize = sizeof ofn_;
    ofn_.lpstrFile = buffer_.data();
    ofn_.nMaxFile = kBufferSize;
    ofn_.lpstrInitialDir = initialFolder_.empty() ? nullptr : initialFolder_.c_str();
    ofn_.lpstrDefExt = defaultExtension;
    ofn_.Flags = flags;
  }
  BOOL AskSave() { return GetSaveFileNameW(&ofn_); }
  BOOL AskOpen() { return GetOpenFileNameW(&ofn_); }
  std::u16string Chosen() const { return std::u16string(buffer_.data()); }
  // The whole buffer up to its first double NUL, NULs included.
  std::u16string ChosenList() const {
    const std::u16string_view all(buffer_.data(), buffer_.size());
    return std::u16string(all.substr(0, all.find(u"\0\0"s) + 2));
  }

  static constexpr DWORD kBufferSize = 1024;
  NoTerminal noTerminal_;
  TempFolder folder_;
  std::vector<char16_t> buffer_;
  std::u16string initialFolder_;
  OpenFileNameW ofn_{};
};

TEST_F(ConsoleDialogTest, QueuedAnswersResolveAgainstTheInitialFolder) {
  folder_.Write("exists.pdf", "old");
  const std::u16string base = folder_.WidePathOf("");
  struct Case {
    const char* what;
    std::u16string proposed;
    std::u16string initial;
    const char16_t* extension;
    std::u16string answer;
    std::u16string expected;
  };
  const Case cases[] = {
      {"absolute answer", u"x", base, u"pdf", u"/elsewhere/a.pdf", u"/elsewhere/a.pdf"},
      {"relative answer", u"x", base, u"pdf", u"sub/a.pdf", folder_.WidePathOf("sub/a.pdf")},
      {"extension added", u"x", base, u"pdf", u"report", folder_.WidePathOf("report.pdf")},
      {"foreign extension kept", u"x", base, u"pdf", u"report.txt",
       folder_.WidePathOf("report.txt")},
      {"no default extension", u"x", base, nullptr, u"report", folder_.WidePathOf("report")},
      {"empty answer takes the proposal", u"Q1 Plan", base, u"pdf", u"",
       folder_.WidePathOf("Q1 Plan.pdf")},
      {"existing file taken without a question", u"x", base, u"pdf", u"exists.pdf",
       folder_.WidePathOf("exists.pdf")},
      {"absolute proposal", folder_.WidePathOf("p.pdf"), u"", u"pdf", u"",
       folder_.WidePathOf("p.pdf")},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Propose(c.proposed, c.initial, c.extension, OFN_EXPLORER | OFN_OVERWRITEPROMPT);
    ASSERT_TRUE(QueueFileDialogAnswer(c.answer));
    ASSERT_EQ(TRUE, AskSave());
    EXPECT_EQ(c.expected, Chosen());
    EXPECT_EQ(0u, CommDlgExtendedError());
  }
}

TEST_F(ConsoleDialogTest, RelativeAnswerWithoutInitialFolderIsFromTheCurrentFolder) {
  char cwd[4096];
  ASSERT_NE(nullptr, getcwd(cwd, sizeof cwd));
  Propose(u"x");
  ASSERT_TRUE(QueueFileDialogAnswer(u"out.pdf"));
  ASSERT_EQ(TRUE, AskSave());
  EXPECT_EQ(Utf8ToUtf16(std::string(cwd) + "/out.pdf"), Chosen());
}

TEST_F(ConsoleDialogTest, ReportsNameOffsetsAndTitle) {
  Propose(u"x", folder_.WidePathOf(""), u"pdf");
  std::vector<char16_t> title(64, u'\0');
  ofn_.lpstrFileTitle = title.data();
  ofn_.nMaxFileTitle = 64;
  ASSERT_TRUE(QueueFileDialogAnswer(u"Quarter.Report"));
  ASSERT_EQ(TRUE, AskSave());
  const std::u16string chosen = Chosen();
  EXPECT_EQ(u"Quarter.Report", chosen.substr(ofn_.nFileOffset));
  EXPECT_EQ(u"Report", chosen.substr(ofn_.nFileExtension));
  EXPECT_EQ(u"Quarter.Report", std::u16string(title.data()));
}

TEST_F(ConsoleDialogTest, CancelsWhenQueuedOrWithNeitherAnswerNorTerminal) {
  Propose(u"report", folder_.WidePathOf(""), u"pdf");
  ASSERT_TRUE(QueueFileDialogCancel());
  ASSERT_TRUE(QueueFileDialogAnswer(u"second"));
  EXPECT_EQ(2u, PendingFileDialogAnswers());
  EXPECT_EQ(FALSE, AskSave());
  EXPECT_EQ(0u, CommDlgExtendedError());
  EXPECT_EQ(u"report", Chosen()) << "a cancel leaves the buffer alone";

  ASSERT_EQ(TRUE, AskSave()) << "the next question takes the next answer";
  EXPECT_EQ(folder_.WidePathOf("second.pdf"), Chosen());

  EXPECT_EQ(0u, PendingFileDialogAnswers());
  EXPECT_EQ(FALSE, AskOpen());
  EXPECT_EQ(0u, CommDlgExtendedError());
}

TEST_F(ConsoleDialogTest, TooSmallBufferTellsTheSizeNeeded) {
  Propose(u"x", folder_.WidePathOf(""));
  ofn_.nMaxFile = 8;
  const std::u16string path = folder_.WidePathOf("long-enough-name.pdf");
  ASSERT_TRUE(QueueFileDialogAnswer(path));
  EXPECT_EQ(FALSE, AskSave());
  EXPECT_EQ(static_cast<DWORD>(FNERR_BUFFERTOOSMALL), CommDlgExtendedError());
  EXPECT_EQ(path.size() + 1, static_cast<std::size_t>(buffer_[0]));
}

TEST_F(ConsoleDialogTest, BadQuestionsAreErrors) {
  Propose(u"x");
  ofn_.lStructSize = 88;
  EXPECT_EQ(FALSE, AskSave());
  EXPECT_EQ(static_cast<DWORD>(CDERR_STRUCTSIZE), CommDlgExtendedError());
  Propose(u"x");
  ofn_.lpstrFile = nullptr;
  EXPECT_EQ(FALSE, AskOpen());
  EXPECT_EQ(static_cast<DWORD>(CDERR_INITIALIZATION), CommDlgExtendedError());
}

TEST_F(ConsoleDialogTest, MultipleSelectionListsFolderThenNames) {
  const std::u16string base = folder_.WidePathOf("");
  Propose(u"", base, nullptr, OFN_EXPLORER | OFN_ALLOWMULTISELECT);
  ASSERT_TRUE(QueueFileDialogAnswer(u"a.eml\0b.eml\0sub/c.eml"s));
  ASSERT_EQ(TRUE, AskOpen());
  std::u16string folder = base;
  while (folder.back() == u'/') folder.pop_back();
  EXPECT_EQ(folder + u"\0a.eml\0b.eml\0sub/c.eml\0\0"s, ChosenList());
  EXPECT_EQ(folder.size() + 1, ofn_.nFileOffset);

  Propose(u"", base, nullptr, OFN_EXPLORER | OFN_ALLOWMULTISELECT);
  ASSERT_TRUE(QueueFileDialogAnswer(u"only.eml"));
  ASSERT_EQ(TRUE, AskOpen());
  EXPECT_EQ(folder_.WidePathOf("only.eml") + u"\0\0"s, ChosenList());

  Propose(u"", base, nullptr, OFN_EXPLORER);
  ASSERT_TRUE(QueueFileDialogAnswer(u"a.eml\0b.eml"s));
  ASSERT_EQ(TRUE, AskOpen());
  EXPECT_EQ(folder_.WidePathOf("a.eml"), Chosen()) << "one file without multiple selection";
}

// ---------------------------------------------------------------------------------------------
// The console dialog on a terminal: a copy of this program asks on a pseudo-terminal, this test
// plays the user.

// Output of the child gathered from the terminal's master side.
class TerminalSession {
 public:
  TerminalSession(const std::string& folder, const std::string& resultFile, const char* flags) {
    int slave = -1;
    if (openpty(&master_, &slave, nullptr, nullptr, nullptr) != 0) {
      ADD_FAILURE() << "no pseudo-terminal: " << std::strerror(errno);
      return;
    }
    std::vector<std::string> env;
    for (char** e = environ; *e != nullptr; ++e) env.emplace_back(*e);
    env.push_back("MRWL_DIALOG_FOLDER=" + folder);
    env.push_back("MRWL_DIALOG_RESULT=" + resultFile);
    env.push_back("MRWL_DIALOG_FLAGS="s + flags);
    std::vector<char*> envp;
    for (std::string& e : env) envp.push_back(e.data());
    envp.push_back(nullptr);
    std::string self = "/proc/self/exe";
    std::string filter = "--gtest_filter=ConsoleDialogChild.DISABLED_AsksOnTerminal";
    std::string disabled = "--gtest_also_run_disabled_tests";
    char* argv[] = {self.data(), filter.data(), disabled.data(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (int fd = 0; fd < 3; ++fd) posix_spawn_file_actions_adddup2(&actions, slave, fd);
    posix_spawn_file_actions_addclose(&actions, slave);
    posix_spawn_file_actions_addclose(&actions, master_);
    if (posix_spawn(&pid_, self.c_str(), &actions, nullptr, argv, envp.data()) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(slave);
    if (pid_ < 0) ADD_FAILURE() << "cannot start the child";
  }
  ~TerminalSession() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      Wait();
    }
    if (master_ >= 0) close(master_);
  }

  // Waits until the child wrote `text` after what the last wait found. False on timeout or
  // when the child ended without writing it.
  bool Expect(const std::string& text) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    for (;;) {
      const std::size_t found = output_.find(text, seen_);
      if (found != std::string::npos) {
        seen_ = found + text.size();
        return true;
      }
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0 || !ReadSome(static_cast<int>(left.count()))) return false;
    }
  }
  void Type(const std::string& text) {
    if (write(master_, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
      ADD_FAILURE() << "cannot type";
    }
  }
  // Drains the terminal until the child ends; its exit status.
  int Finish() {
    while (ReadSome(20000)) {
    }
    return Wait();
  }
  const std::string& Output() const { return output_; }

 private:
  bool ReadSome(int timeoutMs) {
    if (master_ < 0) return false;
    pollfd fd{master_, POLLIN, 0};
    if (poll(&fd, 1, timeoutMs) <= 0) return false;
    char chunk[512];
    const ssize_t got = read(master_, chunk, sizeof chunk);
    if (got <= 0) return false;  // EIO once the child closed its side
    output_.append(chunk, static_cast<std::size_t>(got));
    return true;
  }
  int Wait() {
    int status = 0;
    if (waitpid(pid_, &status, 0) != pid_) status = -1;
    pid_ = -1;
    return status;
  }

  int master_ = -1;
  pid_t pid_ = -1;
  std::string output_;
  std::size_t seen_ = 0;
};

// Run by the copy: asks to save "report" with the default extension "pdf" in the folder given,
// and writes "1 <path>" or "0 <error>" into the result file.
TEST(ConsoleDialogChild, DISABLED_AsksOnTerminal) {
  const char* folder = std::getenv("MRWL_DIALOG_FOLDER");
  const char* resultFile = std::getenv("MRWL_DIALOG_RESULT");
  const char* flags = std::getenv("MRWL_DIALOG_FLAGS");
  ASSERT_TRUE(folder != nullptr && resultFile != nullptr && flags != nullptr);
  std::vector<char16_t> buffer(1024, u'\0');
  std::u16string(u"report").copy(buffer.data(), 6);
  const std::u16string initial = Utf8ToUtf16(folder);
  OpenFileNameW ofn{};
  ofn.lStructSize = sizeof ofn;
  ofn.lpstrFile = buffer.data();
  ofn.nMaxFile = 1024;
  ofn.lpstrInitialDir = initial.c_str();
  ofn.lpstrDefExt = u"pdf";
  ofn.Flags = static_cast<DWORD>(std::strtoul(flags, nullptr, 16));
  const BOOL chosen = GetSaveFileNameW(&ofn);
  std::ofstream out(resultFile);
  if (chosen) {
    out << "1 " << Utf16ToUtf8(buffer.data());
  } else {
    out << "0 " << CommDlgExtendedError();
  }
}

class TerminalDialogTest : public ::testing::Test {
 protected:
  TerminalDialogTest() { folder_.Write("report.pdf", "old"); }
  std::string Result() {
    std::ifstream in(folder_.PathOf("result.txt"));
    std::string text;
    std::getline(in, text);
    return text;
  }
  TempFolder folder_;
};

TEST_F(TerminalDialogTest, AsksBeforeReplacingAnExistingFile) {
  const std::string folder = folder_.PathOf("");
  TerminalSession user(folder, folder_.PathOf("result.txt"), "80002");  // overwrite prompt
  ASSERT_TRUE(user.Expect("Save As [report]: ")) << user.Output();
  user.Type("\n");
  ASSERT_TRUE(user.Expect("report.pdf already exists.")) << user.Output();
  ASSERT_TRUE(user.Expect("Do you want to replace it? (y/n) ")) << user.Output();
  user.Type("n\n");
  ASSERT_TRUE(user.Expect("Save As [report]: ")) << "a no asks for the name again";
  user.Type("report\n");
  ASSERT_TRUE(user.Expect("Do you want to replace it? (y/n) ")) << user.Output();
  user.Type("y\n");
  EXPECT_EQ(0, user.Finish()) << user.Output();
  EXPECT_EQ("1 " + folder_.PathOf("report.pdf"), Result());
}

TEST_F(TerminalDialogTest, NewNameIsTakenWithoutQuestion) {
  TerminalSession user(folder_.PathOf(""), folder_.PathOf("result.txt"), "80002");
  ASSERT_TRUE(user.Expect("Save As [report]: ")) << user.Output();
  user.Type("summary\n");
  EXPECT_EQ(0, user.Finish()) << user.Output();
  EXPECT_EQ(std::string::npos, user.Output().find("replace"));
  EXPECT_EQ("1 " + folder_.PathOf("summary.pdf"), Result());
}

TEST_F(TerminalDialogTest, ExistingFileIsTakenWithoutOverwritePrompt) {
  TerminalSession user(folder_.PathOf(""), folder_.PathOf("result.txt"), "80000");
  ASSERT_TRUE(user.Expect("Save As [report]: ")) << user.Output();
  user.Type("\n");
  EXPECT_EQ(0, user.Finish()) << user.Output();
  EXPECT_EQ("1 " + folder_.PathOf("report.pdf"), Result());
}

TEST_F(TerminalDialogTest, EndOfInputCancels) {
  TerminalSession user(folder_.PathOf(""), folder_.PathOf("result.txt"), "80002");
  ASSERT_TRUE(user.Expect("Save As [report]: ")) << user.Output();
  user.Type("\x04");
  EXPECT_EQ(0, user.Finish()) << user.Output();
  EXPECT_EQ("0 0", Result());
}

}  // namespace
}  // namespace mrwl::platform
