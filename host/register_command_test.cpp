// Runs `mrwl register` and `mrwl unregister` as an installer does: the real program loads a copy
// of the real module, whose DllInstall writes into a hive of the test's own. What was written is
// read back with `mrwl reg query ... /s`.

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/wait.h>

#include "testing/temp_folder.h"

namespace mrwl {
namespace {

namespace fs = std::filesystem;
using Args = std::vector<std::string>;

constexpr char kClsid[] = "{D47BD98A-B3C5-4D37-8BA5-F1058527AC4A}";

// The classes' keys below `$R` (HKCR, or HKCU\Software\Classes), as Compact() shows them; $M is
// the module's path, $F its folder and $P the platform of the type library's file.
constexpr char kClassesKeys[] = R"($R\AppID
$R\AppID\MRWOutlookAddin.x86.dll
  AppID REG_SZ {B5B132C6-5150-47BB-94DB-7343149F66DC}
$R\AppID\{B5B132C6-5150-47BB-94DB-7343149F66DC}
  (Default) REG_SZ Marrowline Outlook Addin
$R\CLSID
$R\CLSID\{D47BD98A-B3C5-4D37-8BA5-F1058527AC4A}
  (Default) REG_SZ Marrowline Outlook Addin Class
$R\CLSID\{D47BD98A-B3C5-4D37-8BA5-F1058527AC4A}\InprocServer32
  (Default) REG_SZ $M
  ThreadingModel REG_SZ Apartment
$R\CLSID\{D47BD98A-B3C5-4D37-8BA5-F1058527AC4A}\ProgID
  (Default) REG_SZ MRWOutlookAddin.Addin.1
$R\CLSID\{D47BD98A-B3C5-4D37-8BA5-F1058527AC4A}\Programmable
$R\CLSID\{D47BD98A-B3C5-4D37-8BA5-F1058527AC4A}\TypeLib
  (Default) REG_SZ {2304365D-BB13-4162-B262-018399D69104}
$R\CLSID\{D47BD98A-B3C5-4D37-8BA5-F1058527AC4A}\Version
  (Default) REG_SZ 1.0
$R\CLSID\{D47BD98A-B3C5-4D37-8BA5-F1058527AC4A}\VersionIndependentProgID
  (Default) REG_SZ MRWOutlookAddin.Addin
$R\Interface
$R\Interface\{0A2B2726-7F4B-4F5A-9512-EE60F2651E8D}
  (Default) REG_SZ IRibbonCallback
$R\Interface\{0A2B2726-7F4B-4F5A-9512-EE60F2651E8D}\ProxyStubClsid32
  (Default) REG_SZ {00020424-0000-0000-C000-000000000046}
$R\Interface\{0A2B2726-7F4B-4F5A-9512-EE60F2651E8D}\TypeLib
  (Default) REG_SZ {2304365D-BB13-4162-B262-018399D69104}
  Version REG_SZ 1.0
$R\MRWOutlookAddin.Addin
  (Default) REG_SZ Marrowline Outlook Addin Class
$R\MRWOutlookAddin.Addin\CLSID
  (Default) REG_SZ {D47BD98A-B3C5-4D37-8BA5-F1058527AC4A}
$R\MRWOutlookAddin.Addin\CurVer
  (Default) REG_SZ MRWOutlookAddin.Addin.1
$R\MRWOutlookAddin.Addin.1
  (Default) REG_SZ Marrowline Outlook Addin Class
$R\MRWOutlookAddin.Addin.1\CLSID
  (Default) REG_SZ {D47BD98A-B3C5-4D37-8BA5-F1058527AC4A}
$R\TypeLib
$R\TypeLib\{2304365D-BB13-4162-B262-018399D69104}
$R\TypeLib\{2304365D-BB13-4162-B262-018399D69104}\1.0
  (Default) REG_SZ OutlookAddinLib
$R\TypeLib\{2304365D-BB13-4162-B262-018399D69104}\1.0\0
$R\TypeLib\{2304365D-BB13-4162-B262-018399D69104}\1.0\0\$P
  (Default) REG_SZ $M
$R\TypeLib\{2304365D-BB13-4162-B262-018399D69104}\1.0\FLAGS
  (Default) REG_SZ 0
$R\TypeLib\{2304365D-BB13-4162-B262-018399D69104}\1.0\HELPDIR
  (Default) REG_SZ $F
)";

constexpr char kOfficeKeys[] = R"(HKLM
HKLM\Software
HKLM\Software\Microsoft
HKLM\Software\Microsoft\Office
HKLM\Software\Microsoft\Office\Outlook
HKLM\Software\Microsoft\Office\Outlook\AddIns
)";

constexpr char kAddinKey[] = R"(HKLM\Software\Microsoft\Office\Outlook\AddIns\MRWOutlookAddin.Addin
  FriendlyName REG_SZ Marrowline Outlook Addin
  Description REG_SZ Marrowline Outlook Addin
  Publisher REG_SZ Brindlemoor Ltd.
  LoadBehavior REG_DWORD 0x3
  CommandLineSafe REG_DWORD 0x0
)";

void ReplaceAll(std::string& text, const std::string& from, const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at)) {
    text.replace(at, from.size(), to);
    at += to.size();
  }
}

struct Outcome {
  int status = -1;
  std::string out;
  std::string err;
};

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
    command += " </dev/null >" + testing::ShellQuote(folder_.PathOf("stdout")) + " 2>" +
               testing::ShellQuote(folder_.PathOf("stderr"));
    const int raw = std::system(command.c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, folder_.Read("stdout"), folder_.Read("stderr")};
  }

  void Expect(const Args& args) {
    const Outcome outcome = Run(args);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(outcome.err, "");
  }

  // `mrwl reg query KEY /s`, one line a key and an indented line a value, roots abbreviated.
  std::string Query(const std::string& key) {
    const Outcome outcome = Run({"reg", "query", key, "/s"});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    std::string compact;
    std::size_t start = 0;
    for (std::size_t end; (end = outcome.out.find('\n', start)) != std::string::npos;
         start = end + 1) {
      std::string line = outcome.out.substr(start, end - start);
      if (line.empty()) continue;
      if (line.starts_with("    ")) {
        line = "  " + line.substr(4);
        ReplaceAll(line, "    ", " ");
      }
      ReplaceAll(line, "HKEY_CLASSES_ROOT", "HKCR");
      ReplaceAll(line, "HKEY_CURRENT_USER", "HKCU");
      ReplaceAll(line, "HKEY_LOCAL_MACHINE", "HKLM");
      compact += line + "\n";
    }
    return compact;
  }

  std::string ClassesKeys(const std::string& root) {
    std::string keys = kClassesKeys;
    ReplaceAll(keys, "$R", root);
    ReplaceAll(keys, "$M", ModulePath());
    ReplaceAll(keys, "$F", folder_.PathOf("module"));
    ReplaceAll(keys, "$P", sizeof(void*) == 8 ? "win64" : "win32");
    return keys;
  }

  bool Exists(const std::string& key) { return Run({"reg", "query", key}).status == 0; }

  testing::TempFolder folder_;
  std::string program_;
};

TEST_F(RegisterCommand, MachineWideRegistrationWritesTheClassesAndTheAddinKey) {
  Expect({"register"});
  EXPECT_EQ(Query("HKCR"), "HKCR\n" + ClassesKeys("HKCR"));
  EXPECT_EQ(Query("HKLM"), std::string(kOfficeKeys) + kAddinKey);
  EXPECT_EQ(Query("HKCU"), "HKCU\n");
  // Registering again changes nothing.
  Expect({"register"});
  EXPECT_EQ(Query("HKCR"), "HKCR\n" + ClassesKeys("HKCR"));
}

TEST_F(RegisterCommand, PerUserRegistrationPutsTheClassesUnderTheUsersKey) {
  Expect({"register", "--user"});
  const Outcome clsid =
      Run({"reg", "query", "HKCU\\Software\\Classes\\MRWOutlookAddin.Addin\\CLSID"});
  EXPECT_EQ(clsid.status, 0);
  EXPECT_NE(clsid.out.find(std::string("(Default)    REG_SZ    ") + kClsid), std::string::npos)
      << clsid.out;
  EXPECT_EQ(Query("HKCU"), "HKCU\nHKCU\\Software\nHKCU\\Software\\Classes\n" +
                               ClassesKeys("HKCU\\Software\\Classes"));
  EXPECT_EQ(Query("HKCR"), "HKCR\n");
  // Office's add-in key has no per-user form here.
  EXPECT_EQ(Query("HKLM"), std::string(kOfficeKeys) + kAddinKey);

  Expect({"unregister", "--user"});
  EXPECT_EQ(Query("HKCU"),
            "HKCU\nHKCU\\Software\nHKCU\\Software\\Classes\nHKCU\\Software\\Classes\\AppID\n"
            "HKCU\\Software\\Classes\\CLSID\nHKCU\\Software\\Classes\\Interface\n"
            "HKCU\\Software\\Classes\\TypeLib\n");
  EXPECT_EQ(Query("HKLM"), kOfficeKeys);
}

TEST_F(RegisterCommand, UnregistrationKeepsSharedKeysAndWhatOthersPutThere) {
  Expect({"reg", "add", "HKLM\\Software\\Microsoft\\Office\\Outlook\\AddIns", "/v", "Other", "/d",
          "kept", "/f"});
  Expect({"register"});
  // The class's own key is removed whole, with what others added to it.
  Expect({"reg", "add", std::string("HKCR\\CLSID\\") + kClsid + "\\Implemented Categories", "/f"});
  Expect({"unregister"});
  EXPECT_EQ(Query("HKCR"), "HKCR\nHKCR\\AppID\nHKCR\\CLSID\nHKCR\\Interface\nHKCR\\TypeLib\n");
  EXPECT_EQ(Query("HKLM"), std::string(kOfficeKeys) + "  Other REG_SZ kept\n");
  // Unregistering what is not registered succeeds.
  Expect({"unregister"});
}

TEST_F(RegisterCommand, OnlyTheWordUserInAnyCaseRegistersPerUser) {
  const struct {
    Args switches;
    bool perUser;
  } cases[] = {
      {{"--user"}, true},
      {{"--command-line", "USER"}, true},
      {{"--command-line", "User"}, true},
      {{"--command-line", "users"}, false},
      {{"--command-line", ""}, false},
      {{}, false},
  };
  const std::string perUserKey = "HKCU\\Software\\Classes\\MRWOutlookAddin.Addin";
  const std::string machineKey = "HKCR\\MRWOutlookAddin.Addin";
  for (const auto& c : cases) {
    SCOPED_TRACE(c.switches.empty() ? "no command line" : c.switches.back());
    Args args = {"register"};
    args.insert(args.end(), c.switches.begin(), c.switches.end());
    Expect(args);
    EXPECT_EQ(Exists(perUserKey), c.perUser);
    EXPECT_EQ(Exists(machineKey), !c.perUser);
    args[0] = "unregister";
    Expect(args);
    EXPECT_FALSE(Exists(perUserKey));
    EXPECT_FALSE(Exists(machineKey));
  }
}

TEST_F(RegisterCommand, AFailingRegistrationLeavesNothingBehind) {
  if (std::system("sqlite3 -version >/dev/null 2>&1") != 0) GTEST_SKIP() << "no sqlite3 program";
  Expect({"reg", "add", "HKLM\\Software\\Microsoft\\Office\\Outlook\\AddIns", "/v", "Other", "/d",
          "kept", "/f"});
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
  EXPECT_EQ(Query("HKLM"), std::string(kOfficeKeys) + "  Other REG_SZ kept\n");
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
