// Runs the built `mrwl` as a child process against a hive of its own and checks what a person at
// the terminal would see: the exact output, the exit status, and what ended up in the registry.

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/wait.h>

#include "platform/registry.h"
#include "platform/utf.h"
#include "testing/temp_folder.h"

namespace mrwl {
namespace {

constexpr char kNotFound[] =
    "ERROR: The system was unable to find the specified registry key or value.\n";
constexpr char kDone[] = "The operation completed successfully.\n";
constexpr char kSettingsKey[] = "HKCU\\Software\\Brindlemoor\\Marrowline 6\\Outlook Addin";
constexpr char kDefaultCommandLine[] =
    "\"\" \"\" \\b \\h \\r \\iw 1280 \\ih 800 \\ld 500 \\is 65540 \\ic 1 \\pw 5953 \\ph 8419 "
    "\\mt 0 \\mb 0 \\ml 0 \\mr 0 \n";

struct Outcome {
  int status = -1;
  std::string out;
  std::string err;
};

std::string Quote(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

class MrwlCli : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* dir = std::getenv("MRWL_TEST_BINARY_DIR");
    ASSERT_NE(dir, nullptr) << "MRWL_TEST_BINARY_DIR names the build folder that holds host/mrwl";
    program_ = std::string(dir) + "/host/mrwl";
  }

  // Runs mrwl with `args`, `input` on its standard input, against this test's hive.
  Outcome Run(const std::vector<std::string>& args, const std::string& input = "") {
    std::string command = Quote(program_);
    for (const std::string& arg : args) command += " " + Quote(arg);
    command += " <" + Quote(folder_.Write("stdin", input)) + " >" + Quote(folder_.PathOf("out")) +
               " 2>" + Quote(folder_.PathOf("err"));
    const int raw = std::system(command.c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, folder_.Read("out"), folder_.Read("err")};
  }

  // Runs a command that must succeed and returns its output.
  std::string Must(const std::vector<std::string>& args, const std::string& input = "") {
    const Outcome outcome = Run(args, input);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(outcome.err, "");
    return outcome.out;
  }

  void ExpectMissing(const std::vector<std::string>& args) {
    const Outcome outcome = Run(args);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, kNotFound);
  }

  // The bytes of a value below HKEY_CURRENT_USER, read in this process.
  std::string StoredBytes(const std::u16string& subKey, const std::u16string& name) {
    HKEY key = nullptr;
    EXPECT_EQ(platform::RegOpenKeyExW(HKEY_CURRENT_USER, subKey.c_str(), 0, KEY_READ, &key), 0);
    std::string bytes(256, '\0');
    DWORD size = static_cast<DWORD>(bytes.size());
    EXPECT_EQ(platform::RegQueryValueExW(key, name.c_str(), nullptr, nullptr,
                                         reinterpret_cast<BYTE*>(bytes.data()), &size),
              0);
    (void)platform::RegCloseKey(key);
    bytes.resize(size);
    return bytes;
  }

  // The value column of `name` in the table of `settings show`.
  static std::string Shown(const std::string& table, const std::string& name) {
    std::istringstream in(table);
    for (std::string line; std::getline(in, line);) {
      if (line.starts_with(name + " "))
        return line.substr(line.find_first_not_of(' ', name.size()));
    }
    return "<" + name + " not shown>";
  }

  std::string program_;
  testing::TempFolder folder_;
  testing::ScopedEnv hive_{"MRWL_REGISTRY", folder_.PathOf("registry.db")};
};

TEST_F(MrwlCli, AddedValuesOfEveryTypeQueryBackAsRegShowsThem) {
  struct Case {
    std::vector<std::string> add;
    std::string shown;
  } const cases[] = {
      {{"/v", "Text", "/d", "hello w\xC3\xB6rld"}, "    Text    REG_SZ    hello w\xC3\xB6rld"},
      {{"/v", "Path", "/t", "reg_expand_sz", "/d", "%HOME%\\bin"},
       "    Path    REG_EXPAND_SZ    %HOME%\\bin"},
      {{"/v", "List", "/t", "REG_MULTI_SZ", "/d", "a\\0b\\0c"},
       "    List    REG_MULTI_SZ    a\\0b\\0c"},
      {{"/v", "Semi", "/t", "REG_MULTI_SZ", "/se", ";", "/d", "x;y"},
       "    Semi    REG_MULTI_SZ    x\\0y"},
      {{"/v", "Tail", "/t", "REG_MULTI_SZ", "/d", "p\\0q\\0"}, "    Tail    REG_MULTI_SZ    p\\0q"},
      {{"/v", "Max", "/t", "REG_DWORD", "/d", "4294967295"}, "    Max    REG_DWORD    0xffffffff"},
      {{"/v", "Hex", "/t", "REG_DWORD", "/d", "0x1F"}, "    Hex    REG_DWORD    0x1f"},
      {{"/v", "Big", "/t", "REG_QWORD", "/d", "0x123456789ABCDEF0"},
       "    Big    REG_QWORD    0x123456789abcdef0"},
      {{"/v", "Raw", "/t", "REG_BINARY", "/d", "00ff10Ab"}, "    Raw    REG_BINARY    00FF10AB"},
      {{"/v", "None", "/t", "REG_NONE", "/d", "beef"}, "    None    REG_NONE    BEEF"},
      // The token after /d is data even when it looks like a switch or a path.
      {{"/ve", "/d", "/f"}, "    (Default)    REG_SZ    /f"},
      {{"/V", "Slash", "/D", "/tmp/x"}, "    Slash    REG_SZ    /tmp/x"},
  };
  std::string expected = "\nHKEY_CURRENT_USER\\Software\\T\n";
  for (const Case& c : cases) {
    SCOPED_TRACE(c.shown);
    std::vector<std::string> args = {"reg", "add", "HKCU\\Software\\T"};
    args.insert(args.end(), c.add.begin(), c.add.end());
    EXPECT_EQ(Must(args), kDone);
    expected += c.shown + "\n";
  }
  EXPECT_EQ(Must({"reg", "add", "HKCU\\Software\\T\\Sub"}), kDone);
  expected += "\nHKEY_CURRENT_USER\\Software\\T\\Sub\n";
  EXPECT_EQ(Must({"reg", "query", "HKCU\\Software\\T"}), expected);

  // Strings keep their terminator; a list ends in an extra one.
  EXPECT_EQ(StoredBytes(u"Software\\T", u"Slash"), std::string("/\0t\0m\0p\0/\0x\0\0\0", 14));
  EXPECT_EQ(StoredBytes(u"Software\\T", u"Semi"), std::string("x\0\0\0y\0\0\0\0\0", 10));
}

TEST_F(MrwlCli, QueryNarrowsToOneValueOrWalksTheTree) {
  Must({"reg", "add", "HKCU\\A", "/v", "Name", "/d", "top", "/f"});
  Must({"reg", "add", "HKCU\\A", "/ve", "/d", "def", "/f"});
  Must({"reg", "add", "HKCU\\A\\B", "/v", "name", "/t", "REG_DWORD", "/d", "7", "/f"});
  Must({"reg", "add", "HKCU\\A\\C"});

  EXPECT_EQ(Must({"reg", "query", "HKCU\\A", "/v", "NAME"}),
            "\nHKEY_CURRENT_USER\\A\n    Name    REG_SZ    top\n\n");
  EXPECT_EQ(Must({"reg", "query", "HKCU\\A", "/ve"}),
            "\nHKEY_CURRENT_USER\\A\n    (Default)    REG_SZ    def\n\n");
  EXPECT_EQ(Must({"reg", "query", "HKCU\\A", "/s"}),
            "\nHKEY_CURRENT_USER\\A\n    Name    REG_SZ    top\n    (Default)    REG_SZ    def\n\n"
            "HKEY_CURRENT_USER\\A\\B\n    name    REG_DWORD    0x7\n\n"
            "HKEY_CURRENT_USER\\A\\C\n\n");
  EXPECT_EQ(Must({"reg", "query", "HKCU\\A", "/s", "/v", "name"}),
            "\nHKEY_CURRENT_USER\\A\n    Name    REG_SZ    top\n\n"
            "HKEY_CURRENT_USER\\A\\B\n    name    REG_DWORD    0x7\n\n");
  ExpectMissing({"reg", "query", "HKCU\\A\\C", "/v", "name"});
  ExpectMissing({"reg", "query", "HKCU\\A\\C", "/ve"});
  ExpectMissing({"reg", "query", "HKCU\\Nowhere"});
  ExpectMissing({"reg", "delete", "HKCU\\A", "/v", "Nowhere", "/f"});
}

TEST_F(MrwlCli, RootsGoByShortOrLongNameInAnyCase) {
  const char* const roots[][3] = {
      {"HKCU", "hkey_current_user", "HKEY_CURRENT_USER"},
      {"hklm", "HKEY_LOCAL_MACHINE", "HKEY_LOCAL_MACHINE"},
      {"HkCr", "HKEY_CLASSES_ROOT", "HKEY_CLASSES_ROOT"},
  };
  for (const auto& root : roots) {
    SCOPED_TRACE(root[2]);
    Must({"reg", "add", std::string(root[0]) + "\\K", "/v", "v", "/d", root[2]});
    EXPECT_EQ(Must({"reg", "query", std::string(root[1]) + "\\K\\"}),
              "\n" + std::string(root[2]) + "\\K\n    v    REG_SZ    " + root[2] + "\n\n");
  }
  for (const char* bad : {"HKXX\\K", "HKCU\\A\\\\B", "Software\\K"}) {
    SCOPED_TRACE(bad);
    const Outcome outcome = Run({"reg", "add", bad, "/f"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "ERROR: Invalid key name.\n");
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
    EXPECT_TRUE(outcome.out.ends_with("The operation was cancelled.\n")) << outcome.out;
  }
  EXPECT_EQ(Must({"reg", "query", "HKCU\\K", "/v", "V"}),
            "\nHKEY_CURRENT_USER\\K\n    V    REG_SZ    one\n\n");
  EXPECT_EQ(Must({"reg", "add", "HKCU\\K", "/v", "V", "/d", "two"}, "Yes\n"), prompt + kDone);
  EXPECT_EQ(Must({"reg", "add", "HKCU\\K", "/v", "V", "/d", "three", "/F"}), kDone);
  EXPECT_EQ(Must({"reg", "query", "HKCU\\K", "/v", "V"}),
            "\nHKEY_CURRENT_USER\\K\n    V    REG_SZ    three\n\n");
}

TEST_F(MrwlCli, DeleteTakesAValueAllValuesOrTheWholeKey) {
  Must({"reg", "add", "HKCU\\K", "/v", "a", "/d", "1"});
  Must({"reg", "add", "HKCU\\K", "/v", "b", "/d", "2"});
  Must({"reg", "add", "HKCU\\K\\Sub", "/v", "c", "/d", "3"});

  Outcome kept = Run({"reg", "delete", "HKCU\\K", "/v", "a"}, "n\n");
  EXPECT_EQ(kept.status, 1);
  EXPECT_EQ(kept.out, "Delete the registry value a (Yes/No)? The operation was cancelled.\n");
  EXPECT_EQ(Must({"reg", "delete", "HKCU\\K", "/v", "a"}, "y\n"),
            std::string("Delete the registry value a (Yes/No)? ") + kDone);
  ExpectMissing({"reg", "query", "HKCU\\K", "/v", "a"});

  Must({"reg", "add", "HKCU\\K", "/v", "a", "/d", "1"});
  EXPECT_EQ(Must({"reg", "delete", "HKCU\\K", "/va", "/f"}), kDone);
  EXPECT_EQ(Must({"reg", "query", "HKCU\\K"}),
            "\nHKEY_CURRENT_USER\\K\n\nHKEY_CURRENT_USER\\K\\Sub\n");

  kept = Run({"reg", "delete", "HKCU\\K"});
  EXPECT_EQ(kept.out,
            "Permanently delete the registry key HKEY_CURRENT_USER\\K (Yes/No)? \n"
            "The operation was cancelled.\n");
  Must({"reg", "query", "HKCU\\K\\Sub"});
  EXPECT_EQ(
      Must({"reg", "delete", "hkey_current_user\\K"}, "YES\n"),
      std::string("Permanently delete the registry key HKEY_CURRENT_USER\\K (Yes/No)? ") + kDone);
  ExpectMissing({"reg", "query", "HKCU\\K"});

  const Outcome root = Run({"reg", "delete", "HKCU", "/f"});
  EXPECT_EQ(root.status, 1);
  EXPECT_EQ(root.err, "ERROR: Invalid key name.\n");
}

TEST_F(MrwlCli, BadTypeOrDataIsRefusedAndNothingIsWritten) {
  struct Case {
    const char* type;
    const char* data;
    const char* error;
  } const cases[] = {
      {"REG_DWORD", "4294967296", "ERROR: Invalid value '4294967296' for REG_DWORD"},
      {"REG_DWORD", "abc", "ERROR: Invalid value 'abc' for REG_DWORD"},
      {"REG_DWORD", "-1", "ERROR: Invalid value '-1' for REG_DWORD"},
      {"REG_QWORD", "18446744073709551616",
       "ERROR: Invalid value '18446744073709551616' for REG_QWORD"},
      {"REG_BINARY", "abc", "ERROR: Invalid value 'abc' for REG_BINARY"},
      {"REG_BINARY", "zz", "ERROR: Invalid value 'zz' for REG_BINARY"},
      {"REG_MULTI_SZ", "a\\0\\0b", "ERROR: Invalid value 'a\\0\\0b' for REG_MULTI_SZ"},
      {"REG_FOO", "1", "ERROR: Invalid syntax. Unknown type 'REG_FOO'."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.type) + " " + c.data);
    const Outcome outcome =
        Run({"reg", "add", "HKCU\\K", "/v", "V", "/t", c.type, "/d", c.data, "/f"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, "");
    EXPECT_TRUE(outcome.err.starts_with(c.error)) << outcome.err;
    ExpectMissing({"reg", "query", "HKCU\\K"});
  }
  EXPECT_NE(Run({"reg", "query"}).status, 0);
  EXPECT_NE(Run({"reg", "query", "HKCU", "/v", "a", "/ve"}).status, 0);
  EXPECT_NE(Run({"reg", "add", "HKCU\\K", "/v"}).status, 0);
}

TEST_F(MrwlCli, SettingsShowListsEveryFieldWithItsDefault) {
  const std::string table = Must({"settings", "show"});
  EXPECT_TRUE(table.starts_with(
      "Hive:  " + folder_.PathOf("registry.db") +
      "\nKey:   " + "HKEY_CURRENT_USER\\Software\\Brindlemoor\\Marrowline 6\\Outlook Addin\n"))
      << table;
  const char* const rows[][2] = {
      {"RunPDFApp", "true"},
      {"PDFSpecification", "65540 (PDF 1.4)"},
      {"CompressionLevel", "1 (Medium)"},
      {"LandscapeOrienatation", "false"},
      {"HiOption", "false  (not stored)"},
      {"PaperSize", "11"},
      {"PageWidth", "595.3"},
      {"PageHeight", "841.9"},
      {"MarginRight", "0"},
      {"secUserPassword", "\"\""},
      {"sec128EncryptMeta", "true"},
      {"RunPDFParams", "\"%f\""},
  };
  for (const auto& row : rows) EXPECT_EQ(Shown(table, row[0]), row[1]) << row[0];
  EXPECT_LT(table.find("\nRunPDFApp "), table.find("\nSettingsKeyPath "));
  EXPECT_LT(table.find("\nSettingsKeyPath "), table.find("\nsecEnabled "));
  EXPECT_LT(table.find("\nsec128EncryptMeta "), table.find("\nRunCustPDFApp "));
  EXPECT_EQ(Must({"settings", "command-line"}), kDefaultCommandLine);
}

TEST_F(MrwlCli, SettingsSetReachesShowTheCommandLineAndTheRegistry) {
  EXPECT_EQ(Must({"settings", "set", "PageWidth=612", "MarginTop=10.5", "landscapeorienatation=yes",
                  "PDFSpecification=1.7", "CompressionLevel=0x2", "secUserPassword=s3cret",
                  "RunPDFPath=/opt/view er"}),
            kDone);
  const std::string table = Must({"settings", "show"});
  EXPECT_EQ(Shown(table, "PageWidth"), "612");
  EXPECT_EQ(Shown(table, "MarginTop"), "10.5");
  EXPECT_EQ(Shown(table, "PDFSpecification"), "65543 (PDF 1.7)");
  EXPECT_EQ(Shown(table, "secUserPassword"), "\"********\"");
  EXPECT_EQ(Shown(table, "RunPDFPath"), "\"/opt/view er\"");
  EXPECT_EQ(Must({"settings", "command-line"}),
            "\"\" \"\" \\l \\b \\h \\r \\iw 1280 \\ih 800 \\ld 500 \\is 65543 \\ic 2 \\pw 6120 "
            "\\ph 8419 \\mt 105 \\mb 0 \\ml 0 \\mr 0 \n");
  EXPECT_EQ(Must({"reg", "query", kSettingsKey, "/v", "PageWidth2"}),
            "\nHKEY_CURRENT_USER\\Software\\Brindlemoor\\Marrowline 6\\Outlook Addin\n"
            "    PageWidth2    REG_DWORD    0x956a0\n\n");

  EXPECT_EQ(Must({"settings", "reset"}), kDone);
  EXPECT_EQ(Must({"settings", "command-line"}), kDefaultCommandLine);
  EXPECT_EQ(Shown(Must({"settings", "show"}), "secUserPassword"), "\"\"");
}

TEST_F(MrwlCli, SettingsSetWithOneBadArgumentSavesNothing) {
  Must({"settings", "set", "LoadDelay=700"});
  const std::string before = Must({"reg", "query", kSettingsKey});
  struct Case {
    const char* bad;
    const char* error;
  } const cases[] = {
      {"Nope=1", "ERROR: Unknown setting 'Nope'."},
      {"HiOption=true", "ERROR: HiOption is never stored, so it cannot be set."},
      {"WebPageTargetHeight=600", "ERROR: WebPageTargetHeight is never stored"},
      {"SettingsKeyPath=Software", "ERROR: SettingsKeyPath is never stored"},
      {"PaperSize=abc", "ERROR: Invalid value 'abc' for PaperSize"},
      {"PaperSize=4294967296", "ERROR: Invalid value '4294967296' for PaperSize"},
      {"CompressionLevel=3", "ERROR: Invalid value '3' for CompressionLevel"},
      {"Units=3", "ERROR: Invalid value '3' for Units"},
      {"secType=5", "ERROR: Invalid value '5' for secType"},
      {"sec128Changes=5", "ERROR: Invalid value '5' for sec128Changes"},
      {"sec128Printing=3", "ERROR: Invalid value '3' for sec128Printing"},
      {"PDFSpecification=1.8", "ERROR: Invalid value '1.8' for PDFSpecification"},
      {"PDFSpecification=20", "ERROR: Invalid value '20' for PDFSpecification"},
      {"PageWidth=-1", "ERROR: Invalid value '-1' for PageWidth"},
      {"MarginLeft=nan", "ERROR: Invalid value 'nan' for MarginLeft"},
      {"PageHeight=1e10", "ERROR: Invalid value '1e10' for PageHeight"},
      {"RunPDFApp=maybe", "ERROR: Invalid value 'maybe' for RunPDFApp"},
      {"RunPDFApp", "ERROR: Expected NAME=VALUE, got 'RunPDFApp'."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.bad);
    const Outcome outcome = Run({"settings", "set", "LoadDelay=900", c.bad, "PageWidth=100"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_TRUE(outcome.err.starts_with(c.error)) << outcome.err;
    EXPECT_EQ(Must({"reg", "query", kSettingsKey}), before);
  }
}

TEST_F(MrwlCli, DamagedHiveIsReportedAndLeftAsItIs) {
  // A database header in front makes the file look like a hive to anything that only peeks.
  const std::string garbage = std::string("SQLite format 3") + '\0' + std::string(4096, '\x5A');
  const std::string path = folder_.Write("registry.db", garbage);
  const std::string original = folder_.Read("registry.db");
  const std::vector<std::string> commands[] = {
      {"settings", "show"},
      {"settings", "set", "PageWidth=100"},
      {"settings", "reset"},
      {"settings", "command-line"},
      {"reg", "query", "HKCU"},
      {"reg", "add", "HKCU\\K", "/v", "a", "/d", "b", "/f"},
      {"reg", "delete", "HKCU\\K", "/f"},
  };
  for (const auto& command : commands) {
    SCOPED_TRACE(command[0] + " " + command[1]);
    const Outcome outcome = Run(command);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_TRUE(outcome.err.starts_with("ERROR: ")) << outcome.err;
    EXPECT_NE(outcome.err.find(path), std::string::npos) << outcome.err;
    EXPECT_EQ(folder_.Read("registry.db"), original);
  }
}

}  // namespace
}  // namespace mrwl
