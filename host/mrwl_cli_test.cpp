// Runs the built `mrwl` as a child process against a hive of its own and checks what a person at
// the terminal would see: the exact output, the exit status, and what ended up in the registry.

#include <cstdlib>
#include <initializer_list>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/registry.h"
#include "testing/temp_folder.h"

namespace mrwl {
namespace {

using Args = std::vector<std::string>;
using Outcome = testing::CommandOutcome;

constexpr char kNotFound[] =
    "ERROR: The system was unable to find the specified registry key or value.\n";
constexpr char kDone[] = "The operation completed successfully.\n";
constexpr char kCancelled[] = "The operation was cancelled.\n";
constexpr char kSettingsKey[] = "HKCU\\Software\\Brindlemoor\\Marrowline 6\\Outlook Addin";
constexpr char kDefaultCommandLine[] =
    "\"\" \"\" \\b \\h \\r \\iw 1280 \\ih 800 \\ld 500 \\is 65540 \\ic 1 \\pw 5953 \\ph 8419 "
    "\\mt 0 \\mb 0 \\ml 0 \\mr 0 \n";

// What `reg query` prints for one key with the given value lines.
std::string Listing(const std::string& key, const std::string& lines) {
  return "\nHKEY_CURRENT_USER\\" + key + "\n" + lines + "\n";
}

class MrwlCli : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* dir = std::getenv("MRWL_TEST_BINARY_DIR");
    ASSERT_NE(dir, nullptr) << "MRWL_TEST_BINARY_DIR names the build folder that holds bin/mrwl";
    program_ = std::string(dir) + "/bin/mrwl";
  }

  // Runs mrwl with `args`, `input` on its standard input, against this test's hive.
  Outcome Run(const Args& args, const std::string& input = "") {
    std::string command = testing::ShellQuote(program_);
    for (const std::string& arg : args) command += " " + testing::ShellQuote(arg);
    return testing::RunCommand(command, folder_, folder_.Write("stdin", input));
  }

  // Runs a command that must succeed and returns its output.
  std::string Must(const Args& args, const std::string& input = "") {
    const Outcome outcome = Run(args, input);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(outcome.err, "");
    return outcome.out;
  }

  // Runs a command that must fail with status 1, print nothing and report `error`: the whole
  // report when `error` ends in a newline, else the report's start.
  void ExpectFailure(const Args& args, const std::string& error) {
    const Outcome outcome = Run(args);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, "");
    if (error.ends_with('\n')) {
      EXPECT_EQ(outcome.err, error);
    } else {
      EXPECT_TRUE(outcome.err.starts_with(error)) << outcome.err;
    }
  }

  // The bytes of a value below HKEY_CURRENT_USER, read in this process.
  static std::string StoredBytes(const char16_t* subKey, const char16_t* name) {
    HKEY key = nullptr;
    EXPECT_EQ(platform::RegOpenKeyExW(HKEY_CURRENT_USER, subKey, 0, KEY_READ, &key), 0);
    const UniqueRegKey owner(key);
    std::string bytes(256, '\0');
    DWORD size = static_cast<DWORD>(bytes.size());
    EXPECT_EQ(platform::RegQueryValueExW(key, name, nullptr, nullptr,
                                         reinterpret_cast<BYTE*>(bytes.data()), &size),
              0);
    bytes.resize(size);
    return bytes;
  }

  // Checks the value column of `settings show` for each "NAME=VALUE" of `rows`.
  static void ExpectShown(const std::string& table, std::initializer_list<std::string> rows) {
    for (const std::string& row : rows) {
      const std::string name = row.substr(0, row.find('=') + 1);
      const std::size_t at = table.find("\n" + name.substr(0, name.size() - 1) + " ");
      const std::size_t start = table.find_first_not_of(' ', at + name.size());
      EXPECT_EQ(
          name + (at == std::string::npos ? "<not shown>"
                                          : table.substr(start, table.find('\n', start) - start)),
          row);
    }
  }

  std::string program_;
  testing::TempFolder folder_;
  testing::ScopedEnv hive_{"MRWL_REGISTRY", folder_.PathOf("registry.db")};
};

TEST_F(MrwlCli, AddedValuesOfEveryTypeQueryBackAsRegShowsThem) {
  const std::pair<Args, std::string> cases[] = {
      {{"/v", "Text", "/d", "hello w\xC3\xB6rld"}, "Text    REG_SZ    hello w\xC3\xB6rld"},
      {{"/v", "Path", "/t", "reg_expand_sz", "/d", "%HOME%\\bin"},
       "Path    REG_EXPAND_SZ    %HOME%\\bin"},
      {{"/v", "List", "/t", "REG_MULTI_SZ", "/d", "a\\0b\\0c"},
       "List    REG_MULTI_SZ    a\\0b\\0c"},
      {{"/v", "Semi", "/t", "REG_MULTI_SZ", "/se", ";", "/d", "x;y"},
       "Semi    REG_MULTI_SZ    x\\0y"},
      {{"/v", "Tail", "/t", "REG_MULTI_SZ", "/d", "p\\0q\\0"}, "Tail    REG_MULTI_SZ    p\\0q"},
      {{"/v", "Max", "/t", "REG_DWORD", "/d", "4294967295"}, "Max    REG_DWORD    0xffffffff"},
      {{"/v", "Hex", "/t", "REG_DWORD", "/d", "0x1F"}, "Hex    REG_DWORD    0x1f"},
      {{"/v", "Big", "/t", "REG_QWORD", "/d", "0x123456789ABCDEF0"},
       "Big    REG_QWORD    0x123456789abcdef0"},
      {{"/v", "Raw", "/t", "REG_BINARY", "/d", "00ff10Ab"}, "Raw    REG_BINARY    00FF10AB"},
      {{"/v", "None", "/t", "REG_NONE", "/d", "beef"}, "None    REG_NONE    BEEF"},
      // The token after /d is data even when it looks like a switch or a path.
      {{"/ve", "/d", "/f"}, "(Default)    REG_SZ    /f"},
      {{"/V", "Slash", "/D", "/tmp/x"}, "Slash    REG_SZ    /tmp/x"},
  };
  std::string lines;
  for (const auto& [add, shown] : cases) {
    SCOPED_TRACE(shown);
    Args args = {"reg", "add", "HKCU\\Software\\T"};
    args.insert(args.end(), add.begin(), add.end());
    EXPECT_EQ(Must(args), kDone);
    lines += "    " + shown + "\n";
  }
  EXPECT_EQ(Must({"reg", "add", "HKCU\\Software\\T\\Sub"}), kDone);
  EXPECT_EQ(Must({"reg", "query", "HKCU\\Software\\T"}),
            Listing("Software\\T", lines) + "HKEY_CURRENT_USER\\Software\\T\\Sub\n");
  // Strings keep their terminator; a list ends in an extra one.
  EXPECT_EQ(StoredBytes(u"Software\\T", u"Slash"), std::string("/\0t\0m\0p\0/\0x\0\0\0", 14));
  EXPECT_EQ(StoredBytes(u"Software\\T", u"Semi"), std::string("x\0\0\0y\0\0\0\0\0", 10));
}

TEST_F(MrwlCli, QueryNarrowsToOneValueOrWalksTheTree) {
  Must({"reg", "add", "HKCU\\A", "/v", "Name", "/d", "top", "/f"});
  Must({"reg", "add", "HKCU\\A", "/ve", "/d", "def", "/f"});
  Must({"reg", "add", "HKCU\\A\\B", "/v", "name", "/t", "REG_DWORD", "/d", "7", "/f"});
  Must({"reg", "add", "HKCU\\A\\C"});
  const std::string top = "    Name    REG_SZ    top\n";
  const std::string b = "HKEY_CURRENT_USER\\A\\B\n    name    REG_DWORD    0x7\n\n";
  EXPECT_EQ(Must({"reg", "query", "HKCU\\A", "/v", "NAME"}), Listing("A", top));
  EXPECT_EQ(Must({"reg", "query", "HKCU\\A", "/ve"}),
            Listing("A", "    (Default)    REG_SZ    def\n"));
  EXPECT_EQ(
      Must({"reg", "query", "HKCU\\A", "/s"}),
      Listing("A", top + "    (Default)    REG_SZ    def\n") + b + "HKEY_CURRENT_USER\\A\\C\n\n");
  EXPECT_EQ(Must({"reg", "query", "HKCU\\A", "/s", "/v", "name"}), Listing("A", top) + b);
  for (const Args& missing :
       {Args{"reg", "query", "HKCU\\A\\C", "/v", "name"}, Args{"reg", "query", "HKCU\\A\\C", "/ve"},
        Args{"reg", "query", "HKCU\\Nowhere"},
        Args{"reg", "delete", "HKCU\\A", "/v", "Nowhere", "/f"}}) {
    SCOPED_TRACE(missing[1] + " " + missing[2] + " " + missing.back());
    ExpectFailure(missing, kNotFound);
  }
}

TEST_F(MrwlCli, RootsGoByShortOrLongNameInAnyCase) {
  const char* const roots[][3] = {{"HKCU", "hkey_current_user", "HKEY_CURRENT_USER"},
                                  {"hklm", "HKEY_LOCAL_MACHINE", "HKEY_LOCAL_MACHINE"},
                                  {"HkCr", "HKEY_CLASSES_ROOT", "HKEY_CLASSES_ROOT"}};
  for (const auto& root : roots) {
    SCOPED_TRACE(root[2]);
    Must({"reg", "add", std::string(root[0]) + "\\K", "/v", "v", "/d", root[2]});
    EXPECT_EQ(Must({"reg", "query", std::string(root[1]) + "\\K\\"}),
              "\n" + std::string(root[2]) + "\\K\n    v    REG_SZ    " + root[2] + "\n\n");
  }
  // A whole root is no key that could be deleted.
  for (const Args& bad :
       {Args{"reg", "add", "HKXX\\K", "/f"}, Args{"reg", "add", "HKCU\\A\\\\B", "/f"},
        Args{"reg", "add", "Software\\K", "/f"}, Args{"reg", "delete", "HKCU", "/f"}}) {
    SCOPED_TRACE(bad[2]);
    ExpectFailure(bad, "ERROR: Invalid key name.\n");
  }
}

TEST_F(MrwlCli, ExistingValueIsReplacedOnlyWhenConfirmedOrForced) {
  Must({"reg", "add", "HKCU\\K", "/v", "V", "/d", "one"});
  const std::string prompt = "Value V exists, overwrite(Yes/No)? ";
  for (const char* refusal : {"n\n", "", "nope\n"}) {
    SCOPED_TRACE(refusal);
    const Outcome outcome = Run({"reg", "add", "HKCU\\K", "/v", "V", "/d", "two"}, refusal);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_TRUE(outcome.out.starts_with(prompt)) << outcome.out;
    EXPECT_TRUE(outcome.out.ends_with(kCancelled)) << outcome.out;
  }
  const Args query = {"reg", "query", "HKCU\\K", "/v", "V"};
  EXPECT_EQ(Must(query), Listing("K", "    V    REG_SZ    one\n"));
  EXPECT_EQ(Must({"reg", "add", "HKCU\\K", "/v", "V", "/d", "two"}, "Yes\n"), prompt + kDone);
  EXPECT_EQ(Must({"reg", "add", "HKCU\\K", "/v", "V", "/d", "three", "/F"}), kDone);
  EXPECT_EQ(Must(query), Listing("K", "    V    REG_SZ    three\n"));
}

TEST_F(MrwlCli, DeleteTakesAValueAllValuesOrTheWholeKey) {
  Must({"reg", "add", "HKCU\\K", "/v", "a", "/d", "1"});
  Must({"reg", "add", "HKCU\\K", "/v", "b", "/d", "2"});
  Must({"reg", "add", "HKCU\\K\\Sub", "/v", "c", "/d", "3"});

  const std::string valuePrompt = "Delete the registry value a (Yes/No)? ";
  Outcome kept = Run({"reg", "delete", "HKCU\\K", "/v", "a"}, "n\n");
  EXPECT_EQ(kept.status, 1);
  EXPECT_EQ(kept.out, valuePrompt + kCancelled);
  EXPECT_EQ(Must({"reg", "delete", "HKCU\\K", "/v", "a"}, "y\n"), valuePrompt + kDone);
  ExpectFailure({"reg", "query", "HKCU\\K", "/v", "a"}, kNotFound);

  Must({"reg", "add", "HKCU\\K", "/v", "a", "/d", "1"});
  EXPECT_EQ(Must({"reg", "delete", "HKCU\\K", "/va", "/f"}), kDone);
  EXPECT_EQ(Must({"reg", "query", "HKCU\\K"}), Listing("K", "") + "HKEY_CURRENT_USER\\K\\Sub\n");

  const std::string keyPrompt =
      "Permanently delete the registry key HKEY_CURRENT_USER\\K (Yes/No)? ";
  EXPECT_EQ(Run({"reg", "delete", "HKCU\\K"}).out, keyPrompt + "\n" + kCancelled);
  Must({"reg", "query", "HKCU\\K\\Sub"});
  EXPECT_EQ(Must({"reg", "delete", "hkey_current_user\\K"}, "YES\n"), keyPrompt + kDone);
  ExpectFailure({"reg", "query", "HKCU\\K"}, kNotFound);
}

TEST_F(MrwlCli, BadTypeOrDataIsRefusedAndNothingIsWritten) {
  for (const std::string typeAndData :
       {"REG_DWORD 4294967296", "REG_DWORD abc", "REG_DWORD -1", "REG_QWORD 18446744073709551616",
        "REG_BINARY abc", "REG_BINARY zz", "REG_MULTI_SZ a\\0\\0b"}) {
    SCOPED_TRACE(typeAndData);
    const std::string type = typeAndData.substr(0, typeAndData.find(' '));
    const std::string data = typeAndData.substr(type.size() + 1);
    ExpectFailure({"reg", "add", "HKCU\\K", "/v", "V", "/t", type, "/d", data, "/f"},
                  "ERROR: Invalid value '" + data + "' for " + type);
    ExpectFailure({"reg", "query", "HKCU\\K"}, kNotFound);
  }
  ExpectFailure({"reg", "add", "HKCU\\K", "/v", "V", "/t", "REG_FOO", "/d", "1", "/f"},
                "ERROR: Invalid syntax. Unknown type 'REG_FOO'.");
  EXPECT_NE(Run({"reg", "query"}).status, 0);
  EXPECT_NE(Run({"reg", "query", "HKCU", "/v", "a", "/ve"}).status, 0);
  EXPECT_NE(Run({"reg", "add", "HKCU\\K", "/v"}).status, 0);
}

TEST_F(MrwlCli, SettingsShowSetAndResetAgreeWithTheCommandLineAndTheRegistry) {
  const std::string table = Must({"settings", "show"});
  EXPECT_TRUE(table.starts_with(
      "Hive:  " + folder_.PathOf("registry.db") +
      "\nKey:   HKEY_CURRENT_USER\\Software\\Brindlemoor\\Marrowline 6\\Outlook Addin\n"))
      << table;
  ExpectShown(table,
              {"RunPDFApp=true", "PDFSpecification=65540 (PDF 1.4)", "CompressionLevel=1 (Medium)",
               "LandscapeOrienatation=false", "HiOption=false  (not stored)", "PaperSize=11",
               "PageWidth=595.3", "MarginRight=0", "secUserPassword=\"\"", "sec128EncryptMeta=true",
               "RunPDFParams=\"%f\""});
  EXPECT_LT(table.find("\nRunPDFApp "), table.find("\nSettingsKeyPath "));
  EXPECT_LT(table.find("\nSettingsKeyPath "), table.find("\nsecEnabled "));
  EXPECT_LT(table.find("\nsec128EncryptMeta "), table.find("\nRunCustPDFApp "));
  EXPECT_EQ(Must({"settings", "command-line"}), kDefaultCommandLine);

  // The A4 paper the page loaded with shows 842.0 high; "Custom" keeps what it shows.
  EXPECT_EQ(Must({"settings", "set", "PaperSize=0", "PageWidth=612", "MarginTop=10.5",
                  "landscapeorienatation=yes", "PDFSpecification=1.7", "CompressionLevel=0x2",
                  "secUserPassword=s3cret", "RunPDFPath=/opt/view er"}),
            kDone);
  ExpectShown(Must({"settings", "show"}),
              {"PageWidth=612", "MarginTop=10.5", "PDFSpecification=65543 (PDF 1.7)",
               "secUserPassword=\"********\"", "RunPDFPath=\"/opt/view er\"", "PaperSize=0"});
  EXPECT_EQ(Must({"settings", "command-line"}),
            "\"\" \"\" \\l \\b \\h \\r \\iw 1280 \\ih 800 \\ld 500 \\is 65543 \\ic 2 \\pw 6120 "
            "\\ph 8420 \\mt 105 \\mb 0 \\ml 0 \\mr 0 \n");
  EXPECT_EQ(Must({"reg", "query", kSettingsKey, "/v", "PageWidth2"}),
            Listing("Software\\Brindlemoor\\Marrowline 6\\Outlook Addin",
                    "    PageWidth2    REG_DWORD    0x956a0\n"));

  EXPECT_EQ(Must({"settings", "reset"}), kDone);
  EXPECT_EQ(Must({"settings", "command-line"}), kDefaultCommandLine);
  ExpectShown(Must({"settings", "show"}), {"secUserPassword=\"\""});
}

TEST_F(MrwlCli, SettingsSetWithOneBadArgumentSavesNothing) {
  Must({"settings", "set", "LoadDelay=700"});
  const std::string before = Must({"reg", "query", kSettingsKey});
  std::vector<std::pair<std::string, std::string>> cases = {
      {"Nope=1", "ERROR: Unknown setting 'Nope'."},
      {"HiOption=true", "ERROR: HiOption is never stored, so it cannot be set."},
      {"RunPDFApp", "ERROR: Expected NAME=VALUE, got 'RunPDFApp'."}};
  for (const std::string bad :
       {"PaperSize=abc", "PaperSize=4294967296", "CompressionLevel=3", "secType=5",
        "sec128Printing=3", "PDFSpecification=1.8", "PDFSpecification=20", "PageWidth=-1",
        "MarginLeft=nan", "PageHeight=1e10", "RunPDFApp=maybe"}) {
    const std::size_t equals = bad.find('=');
    cases.emplace_back(
        bad, "ERROR: Invalid value '" + bad.substr(equals + 1) + "' for " + bad.substr(0, equals));
  }
  for (const auto& [bad, error] : cases) {
    SCOPED_TRACE(bad);
    ExpectFailure({"settings", "set", "LoadDelay=900", bad, "PageWidth=100"}, error);
    EXPECT_EQ(Must({"reg", "query", kSettingsKey}), before);
  }
}

// `settings set` edits through the options dialog's pages: their validation refuses what the
// dialog would refuse, with the dialog's own words, and a refusal saves nothing.
TEST_F(MrwlCli, SettingsSetGoesThroughTheDialogsRulesAndValidation) {
  Must({"settings", "set", "LoadDelay=700"});
  const std::string before = Must({"reg", "query", kSettingsKey});
  const std::pair<Args, std::string> refused[] = {
      {{"secEnabled=true"},
       "Either a Document Open Password or Permissions Password should be specified.\n"},
      {{"secEnabled=true", "secHasUserPassword=true"},
       "Please either deselect 'Password Required' option or enter the password.\n"},
      {{"secEnabled=true", "secHasUserPassword=true", "secUserPassword=Same",
        "secHasOwnerPassword=true", "secOwnerPassword=Same"},
       "The passwords to document open and permissions cannot be the same. Please enter "
       "different password in one of passwords fields.\n"},
      {{"PageWidth=612"}, "ERROR: PageWidth follows the paper size; give PaperSize=0 (Custom)"},
      {{"WebPageTargetWidth=9000"}, "ERROR: Invalid value '9000' for WebPageTargetWidth"},
  };
  for (const auto& [assignments, error] : refused) {
    SCOPED_TRACE(assignments.front() + " ... " + assignments.back());
    Args args = {"settings", "set"};
    args.insert(args.end(), assignments.begin(), assignments.end());
    const Outcome outcome = Run(args);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_TRUE(outcome.err.starts_with(error)) << outcome.err;
    EXPECT_EQ(Must({"reg", "query", kSettingsKey}), before);
  }

  // Passwords that differ only in case pass; the dialog saves the page as it shows it, so the A4
  // size goes in as the table's whole points.
  Must({"settings", "set", "secEnabled=true", "secHasUserPassword=true", "secUserPassword=Same",
        "secHasOwnerPassword=true", "secOwnerPassword=same", "sec40AllowPrinting=yes", "Units=2",
        "RunCustPDFApp=true", "PDFSpecification=1.6"});
  ExpectShown(Must({"settings", "show"}),
              {"secEnabled=true", "sec40AllowPrinting=true", "Units=2 (mm)", "PageWidth=595",
               "PageHeight=842", "RunCustPDFApp=true", "PDFSpecification=65542 (PDF 1.6)",
               "LoadDelay=700"});

  // Lengths are given in points whatever unit the page shows, and come back exactly.
  Must({"settings", "set", "PaperSize=0", "PageWidth=300.125", "MarginLeft=36"});
  ExpectShown(Must({"settings", "show"}),
              {"PaperSize=0", "PageWidth=300.125", "MarginLeft=36", "Units=2 (mm)"});
}

TEST_F(MrwlCli, SettingsAloneWithoutADisplaySaysHowToChangeThem) {
  testing::ScopedEnv noX11("DISPLAY");
  testing::ScopedEnv noWayland("WAYLAND_DISPLAY");
  ASSERT_TRUE(noX11.Unset() && noWayland.Unset());
  const Outcome outcome = Run({"settings"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err,
            "There is no display to show the options dialog on. Use `mrwl settings show` to see "
            "the settings and `mrwl settings set NAME=VALUE ...` to change them.\n");
}

TEST_F(MrwlCli, DamagedHiveIsReportedAndLeftAsItIs) {
  // A database header in front makes the file look like a hive to anything that only peeks.
  const std::string garbage = std::string("SQLite format 3") + '\0' + std::string(4096, '\x5A');
  const std::string path = folder_.Write("registry.db", garbage);
  for (const Args& command :
       {Args{"settings", "show"}, Args{"settings", "set", "PageWidth=100"},
        Args{"settings", "reset"}, Args{"settings", "command-line"}, Args{"reg", "query", "HKCU"},
        Args{"reg", "add", "HKCU\\K", "/v", "a", "/d", "b", "/f"},
        Args{"reg", "delete", "HKCU\\K", "/f"}}) {
    SCOPED_TRACE(command[0] + " " + command[1]);
    const Outcome outcome = Run(command);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_TRUE(outcome.err.starts_with("ERROR: ")) << outcome.err;
    EXPECT_NE(outcome.err.find(path), std::string::npos) << outcome.err;
    EXPECT_TRUE(folder_.Read("registry.db") == garbage) << "the file must not change";
  }
}

}  // namespace
}  // namespace mrwl
