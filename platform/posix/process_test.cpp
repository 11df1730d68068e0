#include "platform/process.h"

#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "platform/kernel.h"
#include "platform/utf.h"
#include "testing/temp_folder.h"

namespace mrwl::platform {
namespace {

using testing::TempFolder;

class ChildProcessTest : public ::testing::Test {
 protected:
  // Starts /bin/sh -c `script` with the message pipes.
  void StartShell(const std::string& script) {
    ChildProcessOptions options;
    options.program = u"/bin/sh";
    options.arguments = {u"-c", Utf8ToUtf16(script)};
    options.messagePipes = true;
    options.environment = environment_;
    options.outputLog = log_;
    ASSERT_TRUE(child_.Start(options)) << GetLastError();
  }

  // Everything the child writes on its reply pipe until it closes it.
  std::string ReadAll() {
    std::string data;
    while (child_.ReadFromChild(data, 5000)) {
    }
    EXPECT_EQ(static_cast<DWORD>(ERROR_BROKEN_PIPE), GetLastError());
    return data;
  }

  DWORD ExitCode() {
    DWORD code = 9999;
    EXPECT_TRUE(child_.WaitForExit(5000, &code));
    return code;
  }

  TempFolder folder_;
  ChildProcess child_;
  std::vector<std::pair<std::u16string, std::optional<std::u16string>>> environment_;
  std::u16string log_;
};

TEST_F(ChildProcessTest, ChildReadsOnThreeAndWritesOnFour) {
  StartShell("head -c 11 <&3 | tr a-z A-Z >&4");
  ASSERT_TRUE(child_.WriteToChild(std::string("hello\0world", 11), 5000));
  // A moved object keeps talking to the same child.
  ChildProcess moved = std::move(child_);
  EXPECT_FALSE(child_.Started());
  child_ = std::move(moved);
  EXPECT_EQ(std::string("HELLO\0WORLD", 11), ReadAll());
  EXPECT_EQ(0u, ExitCode());
  EXPECT_FALSE(child_.Started());
}

TEST_F(ChildProcessTest, EnvironmentChangesReachOnlyTheChild) {
  testing::ScopedEnv removed("MRWL_PROCESS_TEST_GONE", "present");
  environment_ = {{u"MRWL_PROCESS_TEST_SET", u"v\u00e4lue"}, {u"MRWL_PROCESS_TEST_GONE", {}}};
  StartShell("printf '%s|%s' \"$MRWL_PROCESS_TEST_SET\" \"${MRWL_PROCESS_TEST_GONE-unset}\" >&4");
  EXPECT_EQ("v\xc3\xa4lue|unset", ReadAll());
  EXPECT_EQ(0u, ExitCode());
}

TEST_F(ChildProcessTest, OutputGoesToTheLogAndNotToTheCaller) {
  log_ = folder_.WidePathOf("child.log");
  StartShell("echo out; echo err >&2; exit 3");
  EXPECT_EQ(3u, ExitCode());
  EXPECT_EQ("out\nerr\n", folder_.Read("child.log"));
}

TEST_F(ChildProcessTest, ReadTimesOutWhileTheChildIsSilent) {
  StartShell("sleep 5");
  std::string data;
  EXPECT_FALSE(child_.ReadFromChild(data, 100));
  EXPECT_EQ(static_cast<DWORD>(ERROR_TIMEOUT), GetLastError());
  DWORD code = 0;
  EXPECT_FALSE(child_.WaitForExit(50, &code));
  EXPECT_EQ(static_cast<DWORD>(ERROR_TIMEOUT), GetLastError());
  EXPECT_TRUE(child_.Terminate());
}

TEST_F(ChildProcessTest, WritingToAChildThatEndedFailsWithoutEndingUs) {
  StartShell("exec 3<&-; exec 4>&-; sleep 5");
  std::string data;
  EXPECT_FALSE(child_.ReadFromChild(data, 5000));
  EXPECT_EQ(static_cast<DWORD>(ERROR_BROKEN_PIPE), GetLastError());
  EXPECT_FALSE(child_.WriteToChild("ping", 1000));
  EXPECT_EQ(static_cast<DWORD>(ERROR_BROKEN_PIPE), GetLastError());
  EXPECT_TRUE(child_.Terminate());
}

TEST_F(ChildProcessTest, TerminateEndsTheWholeGroup) {
  ChildProcessOptions options;
  options.program = u"/bin/sh";
  const std::string pidFile = folder_.PathOf("grandchild.pid");
  options.arguments = {
      u"-c", Utf8ToUtf16("sleep 30 & echo $! > " + testing::ShellQuote(pidFile) + "; wait")};
  options.ownGroup = true;
  ASSERT_TRUE(child_.Start(options));
  const auto text = testing::WaitForFile(pidFile);
  ASSERT_TRUE(text.has_value());
  const std::string grandchild = std::to_string(std::stoi(*text));
  ASSERT_TRUE(std::filesystem::exists("/proc/" + grandchild));
  EXPECT_TRUE(child_.Terminate());
  // Its parent is gone, so whoever adopts it reaps it, if at all; a zombie counts as ended.
  const auto alive = [&] {
    std::ifstream stat("/proc/" + grandchild + "/stat");
    std::string pid, name, state;
    return static_cast<bool>(stat >> pid >> name >> state) && state != "Z";
  };
  for (int i = 0; i < 100 && alive(); ++i) Sleep(20);
  EXPECT_FALSE(alive());
}

TEST(ChildProcess, StartReportsWhyTheProgramCannotRun) {
  TempFolder folder;
  const std::string plain = folder.Write("plain.txt", "not a program");
  const std::string noFormat = folder.Write("garbage", "\x01\x02\x03\x04", true);
  struct Case {
    std::string program;
    DWORD error;
  } cases[] = {
      {folder.PathOf("missing"), ERROR_FILE_NOT_FOUND},
      {"mrwl-no-such-program-on-path", ERROR_FILE_NOT_FOUND},
      {plain, ERROR_ACCESS_DENIED},
      {noFormat, ERROR_BAD_EXE_FORMAT},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.program);
    ChildProcess child;
    ChildProcessOptions options;
    options.program = Utf8ToUtf16(c.program);
    EXPECT_FALSE(child.Start(options));
    EXPECT_EQ(c.error, GetLastError());
    EXPECT_FALSE(child.Started());
  }
}

TEST(PrivateTempFolder, IsOwnerOnlyAndDeletedWithItsContentButNotWhatLinksPointTo) {
  TempFolder outside;
  const std::string keep = outside.Write("keep.txt", "stays");
  testing::ScopedEnv tmpdir("TMPDIR", outside.path().string());

  std::u16string path;
  ASSERT_TRUE(CreatePrivateTempFolder(u"mrwl-unit-", &path));
  const std::filesystem::path folder(Utf16ToUtf8(path));
  EXPECT_EQ(outside.path(), folder.parent_path());
  EXPECT_EQ(0, folder.filename().string().rfind("mrwl-unit-", 0));
  EXPECT_EQ(std::filesystem::perms::owner_all,
            std::filesystem::status(folder).permissions() & std::filesystem::perms::all);

  std::filesystem::create_directories(folder / "a" / "b");
  { std::ofstream(folder / "a" / "b" / "f.txt") << "x"; }
  std::filesystem::create_symlink(outside.path(), folder / "a" / "link");
  std::filesystem::create_symlink(keep, folder / "file-link");

  EXPECT_TRUE(DeleteFolderTree(path.c_str()));
  EXPECT_FALSE(std::filesystem::exists(folder));
  EXPECT_EQ("stays", outside.Read("keep.txt"));
  // Gone already is fine.
  EXPECT_TRUE(DeleteFolderTree(path.c_str()));
}

}  // namespace
}  // namespace mrwl::platform
