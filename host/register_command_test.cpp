// Runs `mrwl register` and `mrwl unregister` as an installer does: the real program loads a copy
// of the real module, whose DllInstall writes into a hive of the test's own. What was written is
// read back with `mrwl reg query ... /s`.

#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "testing/temp_folder.h"

namespace mrwl {
namespace {

namespace fs = std::filesystem;
using Args = std::vector<std::string>;
using Outcome = testing::CommandOutcome;

constexpr char kClsid[] = "{D47BD98A-B3C5-4D37-8BA5-F1058527AC4A}";
constexpr char kAddIns[] = "HKLM\\Software\\Microsoft\\Office\\Outlook\\AddIns";

// The classes' keys below `$R` (HKCR, or HKCU\Software\Classes) as Query() shows them; $C is the
// class id, $I the callback interface's id, $T the type library's id, $M the module's path, $F its
// folder and $P the platform of the type library's file.
constexpr char kClassesKeys[] = R"($R\AppID
$R\AppID\MRWOutlookAddin.x86.dll | AppID REG_SZ {B5B132C6-5150-47BB-94DB-7343149F66DC}
$R\AppID\{B5B132C6-5150-47BB-94DB-7343149F66DC} | (Default) REG_SZ Marrowline Outlook Addin
$R\CLSID
$R\CLSID\$C | (Default) REG_SZ Marrowline Outlook Addin Class
$R\CLSID\$C\InprocServer32 | (Default) REG_SZ $M | ThreadingModel REG_SZ Apartment
$R\CLSID\$C\ProgID | (Default) REG_SZ MRWOutlookAddin.Addin.1
$R\CLSID\$C\Programmable
$R\CLSID\$C\TypeLib | (Default) REG_SZ $T
$R\CLSID\$C\Version | (Default) REG_SZ 1.0
$R\CLSID\$C\VersionIndependentProgID | (Default) REG_SZ MRWOutlookAddin.Addin
$R\Interface
$R\Interface\$I | (Default) REG_SZ IRibbonCallback
$R\Interface\$I\ProxyStubClsid32 | (Default) REG_SZ {00020424-0000-0000-C000-000000000046}
$R\Interface\$I\TypeLib | (Default) REG_SZ $T | Version REG_SZ 1.0
$R\MRWOutlookAddin.Addin | (Default) REG_SZ Marrowline Outlook Addin Class
$R\MRWOutlookAddin.Addin\CLSID | (Default) REG_SZ $C
$R\MRWOutlookAddin.Addin\CurVer | (Default) REG_SZ MRWOutlookAddin.Addin.1
$R\MRWOutlookAddin.Addin.1 | (Default) REG_SZ Marrowline Outlook Addin Class
$R\MRWOutlookAddin.Addin.1\CLSID | (Default) REG_SZ $C
$R\TypeLib
$R\TypeLib\$T
$R\TypeLib\$T\1.0 | (Default) REG_SZ OutlookAddinLib
$R\TypeLib\$T\1.0\0
$R\TypeLib\$T\1.0\0\$P | (Default) REG_SZ $M
$R\TypeLib\$T\1.0\FLAGS | (Default) REG_SZ 0
$R\TypeLib\$T\1.0\HELPDIR | (Default) REG_SZ $F
)";

// What unregistration leaves of them: the keys others share.
constexpr char kSharedKeys[] = "$R\\AppID\n$R\\CLSID\n$R\\Interface\n$R\\TypeLib\n";

// HKLM with a value of another add-in's.
constexpr char kOfficeKeys[] = R"(HKLM
HKLM\Software
HKLM\Software\Microsoft
HKLM\Software\Microsoft\Office
HKLM\Software\Microsoft\Office\Outlook
HKLM\Software\Microsoft\Office\Outlook\AddIns | Other REG_SZ kept
)";

constexpr char kAddinKey[] =
    "HKLM\\Software\\Microsoft\\Office\\Outlook\\AddIns\\MRWOutlookAddin.Addin"
    " | FriendlyName REG_SZ Marrowline Outlook Addin | Description REG_SZ Marrowline Outlook Addin"
    " | Publisher REG_SZ Brindlemoor Ltd. | LoadBehavior REG_DWORD 0x3"
    " | CommandLineSafe REG_DWORD 0x0\n";

void ReplaceAll(std::string& text, const std::string& from, const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at)) {
    text.replace(at, from.size(), to);
    at += to.size();
  }
}

// What Query() makes of `reg query` output: a key's values join its line.
constexpr std::pair<const char*, const char*> kCompact[] = {{"\n    ", " | "},
                                                            {"    ", " "},
                                                            {"\n\n", "\n"},
                                                            {"HKEY_CLASSES_ROOT", "HKCR"},
                                                            {"HKEY_CURRENT_USER", "HKCU"},
                                                            {"HKEY_LOCAL_MACHINE", "HKLM"}};

class RegisterCommand : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* dir = std::getenv("MRWL_TEST_BINARY_DIR");
    ASSERT_NE(dir, nullptr);
    program_ = std::string(dir) + "/bin/mrwl";
    fs::create_directories(folder_.path() / "module");
    fs::copy_file(std::string(dir) + "/bin/libmrwl-addin.so", ModulePath());
  }

  std::string ModulePath() const { return folder_.PathOf("module/libmrwl-addin.so"); }

  Outcome Run(const Args& args, const std::string& module = "") {
    std::string command =
        "MRWL_ADDIN=" + testing::ShellQuote(module.empty() ? ModulePath() : module) +
        " MRWL_REGISTRY=" + testing::ShellQuote(folder_.PathOf("hive.db")) + " " +
        testing::ShellQuote(program_);
    for (const std::string& arg : args) command += " " + testing::ShellQuote(arg);
    return testing::RunCommand(command, folder_);
  }

  void Expect(const Args& args) {
    const Outcome outcome = Run(args);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(outcome.err, "");
  }

  // `mrwl reg query KEY /s`, a line a key with its values after " | ", roots abbreviated.
  std::string Query(const std::string& key) {
    Outcome outcome = Run({"reg", "query", key, "/s"});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    for (const auto& [from, to] : kCompact) ReplaceAll(outcome.out, from, to);
    return outcome.out.starts_with("\n") ? outcome.out.substr(1) : outcome.out;
  }

  // `keys` below `root` with the placeholders filled in, after the keys above them.
  std::string Keys(std::string keys, const std::string& root, const std::string& above) {
    ReplaceAll(keys, "$R", root);
    ReplaceAll(keys, "$C", kClsid);
    ReplaceAll(keys, "$I", "{0A2B2726-7F4B-4F5A-9512-EE60F2651E8D}");
    ReplaceAll(keys, "$T", "{2304365D-BB13-4162-B262-018399D69104}");
    ReplaceAll(keys, "$M", ModulePath());
    ReplaceAll(keys, "$F", folder_.PathOf("module"));
    ReplaceAll(keys, "$P", sizeof(void*) == 8 ? "win64" : "win32");
    return above + root + "\n" + keys;
  }

  testing::TempFolder folder_;
  std::string program_;
};

TEST_F(RegisterCommand, RegistersTheClassesForTheUserOrTheMachineAndUnregistersOnlyItsOwn) {
  // Only the word "user", in any case, registers per user; Office's add-in key has no per-user
  // form and is written machine-wide either way.
  const struct {
    Args switches;
    bool perUser;
  } cases[] = {{{"--user"}, true},
               {{"--command-line", "uSeR"}, true},
               {{"--command-line", "users"}, false},
               {{"--command-line", ""}, false},
               {{}, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.switches.empty() ? "no command line" : c.switches.back());
    for (const char* file : {"hive.db", "hive.db-wal", "hive.db-shm"})
      fs::remove(folder_.PathOf(file));
    Expect({"reg", "add", kAddIns, "/v", "Other", "/d", "kept", "/f"});
    const std::string root = c.perUser ? "HKCU\\Software\\Classes" : "HKCR";
    const std::string top = c.perUser ? "HKCU" : "HKCR";
    const std::string above = c.perUser ? "HKCU\nHKCU\\Software\n" : "";
    Args args = {"register"};
    args.insert(args.end(), c.switches.begin(), c.switches.end());
    Expect(args);
    EXPECT_EQ(Query(top), Keys(kClassesKeys, root, above));
    EXPECT_EQ(Query(c.perUser ? "HKCR" : "HKCU"), c.perUser ? "HKCR\n" : "HKCU\n");
    EXPECT_EQ(Query("HKLM"), std::string(kOfficeKeys) + kAddinKey);
    Expect(args);  // again, changing nothing
    EXPECT_EQ(Query(top), Keys(kClassesKeys, root, above));

    // The class's own key goes whole, with what others added to it.
    Expect({"reg", "add", root + "\\CLSID\\" + kClsid + "\\Implemented Categories", "/f"});
    args[0] = "unregister";
    Expect(args);
    EXPECT_EQ(Query(top), Keys(kSharedKeys, root, above));
    EXPECT_EQ(Query("HKLM"), kOfficeKeys);
    Expect(args);  // what is not registered unregisters without complaint
  }
}

TEST_F(RegisterCommand, AFailingRegistrationLeavesNothingBehind) {
  if (std::system("sqlite3 -version >/dev/null 2>&1") != 0) GTEST_SKIP() << "no sqlite3 program";
  Expect({"reg", "add", kAddIns, "/v", "Other", "/d", "kept", "/f"});
  // The hive refuses every DWORD value: the add-in's key under AddIns, written after all the
  // classes, cannot be completed.
  ASSERT_EQ(0, std::system(("sqlite3 " + testing::ShellQuote(folder_.PathOf("hive.db")) +
                            " \"CREATE TRIGGER refuse BEFORE INSERT ON vals WHEN NEW.type = 4 "
                            "BEGIN SELECT RAISE(ABORT, 'refused'); END;\"")
                               .c_str()));
  const Outcome outcome = Run({"register"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err, "mrwl: Registration of " + ModulePath() +
                             " failed: 0x800703F8 An I/O operation initiated by the registry "
                             "failed unrecoverably. The registry could not read in, or write "
                             "out, or flush, one of the files that contain the system's image "
                             "of the registry.\n");
  EXPECT_EQ(Query("HKCR"), "HKCR\n");
  EXPECT_EQ(Query("HKLM"), kOfficeKeys);
}

TEST_F(RegisterCommand, AModuleThatCannotBeLoadedIsReported) {
  const Outcome outcome = Run({"register"}, folder_.PathOf("module/missing.so"));
  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(outcome.err.starts_with("mrwl: Cannot load the add-in module " +
                                      folder_.PathOf("module/missing.so") + ": "))
      << outcome.err;
  EXPECT_EQ(Query("HKCR"), "HKCR\n");
}

}  // namespace
}  // namespace mrwl
