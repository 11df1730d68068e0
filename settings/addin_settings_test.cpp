#include "settings/addin_settings.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "platform/com.h"
#include "platform/registry.h"
#include "testing/temp_folder.h"

namespace mrwl {
namespace {

using ValueList = std::vector<std::pair<std::u16string, DWORD>>;

constexpr std::u16string_view kDefaultCommandLine =
    u"\"\" \"\" \\b \\h \\r \\iw 1280 \\ih 800 \\ld 500 \\is 65540 \\ic 1 \\pw 5953 \\ph 8419 "
    u"\\mt 0 \\mb 0 \\ml 0 \\mr 0 ";

std::string Utf16Bytes(std::u16string_view text) {
  std::string bytes;
  for (char16_t unit : text) {
    bytes.push_back(static_cast<char>(unit & 0xFF));
    bytes.push_back(static_cast<char>(unit >> 8));
  }
  return bytes;
}

std::string DwordBytes(std::uint32_t value) {
  return {static_cast<char>(value), static_cast<char>(value >> 8), static_cast<char>(value >> 16),
          static_cast<char>(value >> 24)};
}

std::u16string Repeat(std::u16string_view part, int times) {
  std::u16string out;
  for (int i = 0; i < times; ++i) out += part;
  return out;
}

std::string Repeat(std::string_view part, int times) {
  std::string out;
  for (int i = 0; i < times; ++i) out += part;
  return out;
}

std::u16string CommandLine(const AddinSettings& settings, std::u16string_view in = u"",
                           std::u16string_view out = u"") {
  WideString line(u"left over");
  settings.BuildConverterCommandLine(in, out, line);
  return std::u16string(line.view());
}

// Non-default values in every field, the unstored ones included. Strings end in the terminator
// that a load keeps, so that a loaded record compares equal.
void ChangeEveryField(AddinSettings& s) {
  s.RunPDFApp = s.GenerateLinks = s.UseWebPageCopy = s.ConvertAttachments = false;
  s.UseWebPageBackgroundColor = false;
  s.LandscapeOrienatation = s.HiOption = true;
  s.PDFSpecification = 0x10007;
  s.CompressionLevel = 2;
  s.PaperSize = 3;
  s.WebPageTargetWidth = 1600;
  s.WebPageTargetHeight = 900;
  s.Units = 2;
  s.LoadDelay = 1500;
  s.PageWidth = 612.5;
  s.PageHeight = 792.25;
  s.MarginTop = 12.345;
  s.MarginBottom = 1.5;
  s.MarginLeft = 0.001;
  s.MarginRight = 36.0;
  SecuritySettings& sec = *s.Security;
  sec.secEnabled = sec.secHasUserPassword = sec.secHasOwnerPassword = true;
  sec.sec40AllowPrinting = sec.sec40AllowChanging = sec.sec40AllowCopying = true;
  sec.sec40AllowComments = sec.sec128ContentAccess = sec.sec128AllowCopying = true;
  sec.sec128EncryptMeta = false;
  sec.secType = 4;
  sec.sec128Changes = 3;
  sec.sec128Printing = 2;
  sec.secUserPassword.Assign(u"p\u00e4ssw\u00f6rd \u20ac");
  sec.secOwnerPassword = Repeat(u"O", 57);
  s.RunApp->RunCustPDFApp = true;
  s.RunApp->RunPDFPath.Assign({u"C:\\Program Files\\Viewer\\view.exe\0", 33});
  s.RunApp->RunPDFParams.Assign({u"/p \"%f\"\0", 8});
  s.HandoffMappingName.Assign(u"map");
  s.HandoffFilePath.Assign(u"/tmp/handoff.bin");
  s.CeOption.Assign(u"ce");
}

// Every stored field as text, for comparing whole records.
std::string StoredFields(const AddinSettings& s) {
  const SecuritySettings& sec = *s.Security;
  const RunAppSettings& run = *s.RunApp;
  std::ostringstream out;
  out.precision(17);
  out << s.RunPDFApp << s.GenerateLinks << s.LandscapeOrienatation << s.UseWebPageCopy
      << s.ConvertAttachments << s.UseWebPageBackgroundColor << ' ' << s.PDFSpecification << ' '
      << s.CompressionLevel << ' ' << s.PaperSize << ' ' << s.WebPageTargetWidth << ' ' << s.Units
      << ' ' << s.LoadDelay << ' ' << s.PageWidth << ' ' << s.PageHeight << ' ' << s.MarginTop
      << ' ' << s.MarginBottom << ' ' << s.MarginLeft << ' ' << s.MarginRight << " | "
      << sec.secEnabled << sec.secHasUserPassword << sec.secHasOwnerPassword
      << sec.sec40AllowPrinting << sec.sec40AllowChanging << sec.sec40AllowCopying
      << sec.sec40AllowComments << sec.sec128ContentAccess << sec.sec128AllowCopying
      << sec.sec128EncryptMeta << ' ' << sec.secType << ' ' << sec.sec128Changes << ' '
      << sec.sec128Printing << " [" << WideToUtf8(sec.secUserPassword) << "] ["
      << WideToUtf8(sec.secOwnerPassword) << "] | " << run.RunCustPDFApp << " ["
      << WideToUtf8(run.RunPDFPath) << "] [" << WideToUtf8(run.RunPDFParams) << ']';
  return out.str();
}

// A record over a hive of its own in a scratch folder, with verbs that reach the settings key
// behind the record's back.
class SettingsStoreTest : public ::testing::Test {
 protected:
  void SetValue(const char16_t* name, DWORD type, std::string_view bytes) {
    HKEY key = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, platform::RegCreateKeyExW(HKEY_CURRENT_USER, KeyPath(), 0, nullptr, 0,
                                                       KEY_ALL_ACCESS, nullptr, &key, nullptr));
    EXPECT_EQ(ERROR_SUCCESS, platform::RegSetValueExW(key, name, 0, type,
                                                      reinterpret_cast<const BYTE*>(bytes.data()),
                                                      static_cast<DWORD>(bytes.size())));
    platform::RegCloseKey(key);
  }
  void SetDword(const char16_t* name, std::uint32_t value) {
    SetValue(name, REG_DWORD, DwordBytes(value));
  }

  // The type and bytes of a value, or nothing when it (or the key) does not exist.
  std::optional<std::pair<DWORD, std::string>> Value(const char16_t* name) {
    HKEY key = nullptr;
    if (platform::RegOpenKeyExW(HKEY_CURRENT_USER, KeyPath(), 0, KEY_READ, &key) != 0) return {};
    DWORD type = 0;
    DWORD size = 0;
    std::optional<std::pair<DWORD, std::string>> result;
    if (platform::RegQueryValueExW(key, name, nullptr, &type, nullptr, &size) == ERROR_SUCCESS) {
      std::string bytes(size, '\0');
      EXPECT_EQ(ERROR_SUCCESS,
                platform::RegQueryValueExW(key, name, nullptr, &type,
                                           reinterpret_cast<BYTE*>(bytes.data()), &size));
      result.emplace(type, bytes);
    }
    platform::RegCloseKey(key);
    return result;
  }

  ValueList ValuesInOrder() {
    ValueList values;
    HKEY key = nullptr;
    if (platform::RegOpenKeyExW(HKEY_CURRENT_USER, KeyPath(), 0, KEY_READ, &key) != 0) return {};
    for (DWORD index = 0;; ++index) {
      char16_t name[256];
      DWORD nameLength = 256;
      DWORD type = 0;
      if (platform::RegEnumValueW(key, index, name, &nameLength, nullptr, &type, nullptr,
                                  nullptr) != ERROR_SUCCESS) {
        break;
      }
      values.emplace_back(std::u16string(name, nameLength), type);
    }
    platform::RegCloseKey(key);
    return values;
  }

  bool KeyExists() {
    HKEY key = nullptr;
    if (platform::RegOpenKeyExW(HKEY_CURRENT_USER, KeyPath(), 0, KEY_READ, &key) != 0) {
      return false;
    }
    platform::RegCloseKey(key);
    return true;
  }

  const char16_t* KeyPath() const { return settings_.SettingsKeyPath.c_str(); }

  testing::TempFolder folder_;
  testing::ScopedEnv hive_{"MRWL_REGISTRY", folder_.PathOf("hive.db")};
  AddinSettings settings_;
};

TEST_F(SettingsStoreTest, EveryStoredFieldSurvivesSaveAndLoad) {
  ChangeEveryField(settings_);
  settings_.SaveSettings();
  AddinSettings loaded;
  loaded.LoadSettings();
  EXPECT_EQ(StoredFields(settings_), StoredFields(loaded));
  EXPECT_FALSE(loaded.HiOption) << "never stored";
  EXPECT_EQ(800u, loaded.WebPageTargetHeight);
  EXPECT_TRUE(loaded.HandoffFilePath.IsEmpty());

  // The terminator kept in a loaded string must not become a second one.
  const auto before = Value(u"RunPDFPath");
  loaded.SaveSettings();
  EXPECT_EQ(before, Value(u"RunPDFPath"));
}

TEST_F(SettingsStoreTest, FirstSaveOfAnEmptyHiveCreatesTheKeyWithEveryValue) {
  settings_.LoadSettings();
  EXPECT_FALSE(KeyExists()) << "a load must never create the key";
  EXPECT_EQ(StoredFields(AddinSettings()), StoredFields(settings_));

  settings_.SaveSettings();
  ValueList expected;
  for (std::u16string name : {u"WebPageTargetWidth",
                              u"LoadDelay",
                              u"PaperSize",
                              u"PDFSpecification",
                              u"CompressionLevel",
                              u"Units",
                              u"LandscapeOrienatation",
                              u"UseWebPageBackgroundColor",
                              u"GenerateLinks",
                              u"RunPDFApp",
                              u"UseWebPageCopy",
                              u"ConvertAttachments",
                              u"PageWidth2",
                              u"PageHeight2",
                              u"MarginTop2",
                              u"MarginBottom2",
                              u"MarginLeft2",
                              u"MarginRight2",
                              u"RunCustPDFApp",
                              u"RunPDFPath",
                              u"RunPDFParams",
                              u"secEnabled",
                              u"secHasUserPassword",
                              u"secHasOwnerPassword",
                              u"secUserPassword",
                              u"secOwnerPassword",
                              u"secType",
                              u"sec40AllowPrinting",
                              u"sec40AllowChanging",
                              u"sec40AllowCopying",
                              u"sec40AllowComments",
                              u"sec128ContentAccess",
                              u"sec128AllowCopying",
                              u"sec128Changes",
                              u"sec128Printing",
                              u"sec128EncryptMeta"}) {
    const bool text = name.starts_with(u"RunPDFP");
    const bool password = name == u"secUserPassword" || name == u"secOwnerPassword";
    expected.emplace_back(name, text ? REG_SZ : password ? REG_BINARY : REG_DWORD);
  }
  EXPECT_EQ(expected, ValuesInOrder());
  using Stored = std::optional<std::pair<DWORD, std::string>>;
  EXPECT_EQ(Stored({REG_DWORD, DwordBytes(595300)}), Value(u"PageWidth2"));
  EXPECT_EQ(Stored({REG_DWORD, DwordBytes(841900)}), Value(u"PageHeight2"));
  EXPECT_EQ(Stored({REG_DWORD, DwordBytes(65540)}), Value(u"PDFSpecification"));
  EXPECT_EQ(Stored({REG_DWORD, DwordBytes(1)}), Value(u"sec128EncryptMeta"));
  EXPECT_EQ(Stored({REG_SZ, std::string("%\0f\0\0\0", 6)}), Value(u"RunPDFParams"));
  EXPECT_EQ(Stored({REG_SZ, std::string(2, '\0')}), Value(u"RunPDFPath"));
  EXPECT_EQ(Stored({REG_BINARY, ""}), Value(u"secUserPassword"));
}

TEST_F(SettingsStoreTest, GeometryIsStoredInThousandthsTruncatedTowardsZero) {
  settings_.PageWidth = 100.0009;
  settings_.MarginLeft = 0.0015;
  settings_.MarginRight = 2.9999;
  settings_.SaveSettings();
  EXPECT_EQ(DwordBytes(100000), Value(u"PageWidth2")->second);
  EXPECT_EQ(DwordBytes(1), Value(u"MarginLeft2")->second);
  EXPECT_EQ(DwordBytes(2999), Value(u"MarginRight2")->second);
}

TEST_F(SettingsStoreTest, LegacyGeometryIsTakenOverAndDeleted) {
  struct Case {
    double AddinSettings::*field;
    std::u16string legacy;
    DWORD type;
    std::string bytes;
    std::uint32_t thousandths;  // of the "2" form; 0: absent
    double expected;
    bool legacyStays;
  };
  // clang-format off
  const std::vector<Case> cases = {
      {&AddinSettings::PageWidth, u"PageWidth", REG_DWORD, DwordBytes(5953), 0, 595.3, false},
      {&AddinSettings::PageHeight, u"PageHeight", REG_DWORD, DwordBytes(8000), 600000, 600.0, false},
      {&AddinSettings::MarginTop, u"MarginTop", REG_DWORD, DwordBytes(125), 0, 12.5, false},
      {&AddinSettings::MarginBottom, u"MarginBottom", REG_SZ, Utf16Bytes({u"1\0", 2}), 0, 0.0, true},
      {&AddinSettings::MarginLeft, u"MarginLeft", REG_DWORD, DwordBytes(7) + DwordBytes(0), 0, 0.0,
       true},
      {&AddinSettings::MarginRight, u"MarginRight", REG_DWORD, DwordBytes(1), 0, 0.1, false},
  };
  // clang-format on
  for (const Case& c : cases) {
    SetValue(c.legacy.c_str(), c.type, c.bytes);
    if (c.thousandths != 0) SetDword((c.legacy + u"2").c_str(), c.thousandths);
  }
  settings_.LoadSettings();
  for (const Case& c : cases) {
    SCOPED_TRACE(WideToUtf8(c.legacy));
    EXPECT_EQ(c.expected, settings_.*c.field);
    EXPECT_EQ(c.legacyStays, Value(c.legacy.c_str()).has_value());
  }
}

TEST_F(SettingsStoreTest, PdfSpecificationOfTheEarlierReleaseIsMappedInTheRecordOnly) {
  const std::vector<std::pair<std::uint32_t, std::uint32_t>> cases = {
      {16, 0x10000}, {17, 0x10001}, {18, 0x10002}, {19, 0x10003},
      {20, 0x10004}, {21, 0x10005}, {22, 0x10006}, {23, 0x10007},
      {5, 5},        {15, 15},      {24, 24},      {0x10003, 0x10003}};
  for (const auto& [stored, expected] : cases) {
    SCOPED_TRACE(stored);
    SetDword(u"PDFSpecification", stored);
    settings_.LoadSettings();
    EXPECT_EQ(expected, settings_.PDFSpecification);
    EXPECT_EQ(DwordBytes(stored), Value(u"PDFSpecification")->second);
  }
}

TEST_F(SettingsStoreTest, StringValuesStandOnlyWhenTerminated) {
  struct Case {
    const char* what;
    std::optional<DWORD> type;  // nothing: the value is absent
    std::string bytes;
    std::u16string expected;
  };
  const std::u16string before = u"before";
  const std::vector<Case> cases = {
      {"terminated", REG_SZ, Utf16Bytes({u"C:\0", 3}), {u"C:\0", 3}},
      {"expand, not expanded", REG_EXPAND_SZ, Utf16Bytes({u"%T%\0", 4}), {u"%T%\0", 4}},
      {"no terminator", REG_SZ, Utf16Bytes(u"ab"), u""},
      {"odd byte count", REG_SZ, std::string("a\0\0", 3), u""},
      {"empty data", REG_SZ, "", u""},
      {"binary", REG_BINARY, Utf16Bytes({u"x\0", 2}), before},
      {"dword", REG_DWORD, DwordBytes(1), before},
      {"absent", {}, "", before},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    if (c.type) SetValue(u"RunPDFPath", *c.type, c.bytes);
    settings_.RunApp->RunPDFPath = before;
    settings_.LoadSettings();
    EXPECT_EQ(c.expected, settings_.RunApp->RunPDFPath.view());
  }
}

TEST_F(SettingsStoreTest, DwordValuesOfTheWrongShapeLeaveTheField) {
  struct Case {
    const char* what;
    DWORD type;
    std::string bytes;
    std::uint32_t expected;
  };
  const std::vector<Case> cases = {
      {"four bytes", REG_DWORD, DwordBytes(1234), 1234},
      {"two bytes fill the low end", REG_DWORD, "\x39\x30", 0x3039},
      {"eight bytes", REG_DWORD, DwordBytes(1) + DwordBytes(0), 777},
      {"qword", REG_QWORD, DwordBytes(1) + DwordBytes(0), 777},
      {"binary", REG_BINARY, DwordBytes(1), 777},
      {"string", REG_SZ, Utf16Bytes({u"9\0", 2}), 777},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    SetValue(u"LoadDelay", c.type, c.bytes);
    settings_.LoadDelay = 777;
    settings_.LoadSettings();
    EXPECT_EQ(c.expected, settings_.LoadDelay);
  }
  SetDword(u"GenerateLinks", 7);
  SetDword(u"RunPDFApp", 0);
  settings_.LoadSettings();
  EXPECT_TRUE(settings_.GenerateLinks);
  EXPECT_FALSE(settings_.RunPDFApp);
}

TEST_F(SettingsStoreTest, AbsentValuesKeepWhatTheRecordHeldButPasswordsDoNot) {
  SetDword(u"LoadDelay", 42);
  ChangeEveryField(settings_);
  settings_.LoadSettings();
  AddinSettings expected;
  ChangeEveryField(expected);
  expected.LoadDelay = 42;
  expected.Security->secUserPassword.Clear();
  expected.Security->secOwnerPassword.Clear();
  EXPECT_EQ(StoredFields(expected), StoredFields(settings_));
}

TEST_F(SettingsStoreTest, UnreadablePasswordsComeOutEmpty) {
  const std::vector<std::pair<DWORD, std::string>> cases = {
      {REG_SZ, Utf16Bytes({u"QQA=\0", 5})}, {REG_BINARY, "QQ=="}, {REG_DWORD, DwordBytes(0)}};
  for (const auto& [type, bytes] : cases) {
    SCOPED_TRACE(bytes);
    SetValue(u"secOwnerPassword", type, bytes);
    settings_.Security->secOwnerPassword.Assign(u"old");
    settings_.LoadSettings();
    EXPECT_TRUE(settings_.Security->secOwnerPassword.IsEmpty());
  }
}

TEST_F(SettingsStoreTest, MissingSubRecordThrowsFromTheSecurityBlock) {
  settings_.Security = SharedRecord<SecuritySettings>();
  HRESULT thrown = S_OK;
  try {
    settings_.SaveSettings();
  } catch (HRESULT hr) {
    thrown = hr;
  }
  EXPECT_EQ(E_FAIL, thrown);
  EXPECT_TRUE(Value(u"RunPDFParams").has_value()) << "values before the block are written";
  EXPECT_FALSE(Value(u"secEnabled").has_value());

  thrown = S_OK;
  try {
    settings_.LoadSettings();
  } catch (HRESULT hr) {
    thrown = hr;
  }
  EXPECT_EQ(E_FAIL, thrown);
}

TEST_F(SettingsStoreTest, ClearHandoffFileDeletesTheFileAndForgetsIt) {
  folder_.Write("mrwstg_1.bin", "record");
  settings_.HandoffFilePath = folder_.WidePathOf("mrwstg_1.bin");
  settings_.ClearHandoffFile();
  EXPECT_FALSE(folder_.Exists("mrwstg_1.bin"));
  EXPECT_TRUE(settings_.HandoffFilePath.IsEmpty());
  settings_.ClearHandoffFile();
  EXPECT_TRUE(settings_.HandoffFilePath.IsEmpty());
}

TEST(AddinSettings, ResetPutsDefaultsBackInTheSameSubRecords) {
  AddinSettings settings(u"Software\\Test\\Reset");
  const SecuritySettings* security = settings.Security.get();
  const RunAppSettings* runApp = settings.RunApp.get();
  ChangeEveryField(settings);
  settings.ResetSettings();
  EXPECT_EQ(security, settings.Security.get());
  EXPECT_EQ(runApp, settings.RunApp.get());
  EXPECT_EQ(u"Software\\Test\\Reset", settings.SettingsKeyPath.view());
  EXPECT_EQ(StoredFields(AddinSettings()), StoredFields(settings));
  EXPECT_EQ(kDefaultCommandLine, CommandLine(settings)) << "with the fields never stored";
}

TEST(AddinSettings, CommandLineCarriesFlagsNumbersAndTheHandoff) {
  struct Case {
    const char* what;
    std::function<void(AddinSettings&)> change;
    std::u16string_view expected;
  };
  const std::vector<Case> cases = {
      {"defaults", [](AddinSettings&) {}, kDefaultCommandLine},
      {"everything set",
       [](AddinSettings& s) {
         s.LandscapeOrienatation = s.HiOption = true;
         s.PDFSpecification = 0x10007;
         s.CompressionLevel = 2;
         s.WebPageTargetWidth = 4294967295u;
         s.LoadDelay = 0;
         s.PageWidth = 612.0;
         s.PageHeight = 792.99;
         s.MarginTop = 12.34;
         s.MarginBottom = 0.05;
         s.MarginLeft = 1.0;
         s.MarginRight = 72.0;
         s.HandoffFilePath.Assign(u"/tmp/my files/mrwstg_1.bin");
         s.HandoffMappingName.Assign(u"MRW:IEP:HTMLData");
         s.CeOption.Assign(u"x1");
       },
       u"\"in.html\" \"out.pdf\" \\l \\b \\h \\r \\hi \\iw 4294967295 \\ih 800 \\ld 0 "
       u"\\is 65543 \\ic 2 \\pw 6120 \\ph 7929 \\mt 123 \\mb 0 \\ml 10 \\mr 720 "
       u"\\bp /tmp/my files/mrwstg_1.bin \\ce x1 "},
      {"mapping without a file, flags off",
       [](AddinSettings& s) {
         s.UseWebPageBackgroundColor = s.GenerateLinks = s.RunPDFApp = false;
         s.HandoffMappingName.Assign(u"MRW:IEP:HTMLData");
       },
       u"\"in.html\" \"out.pdf\" \\iw 1280 \\ih 800 \\ld 500 \\is 65540 \\ic 1 \\pw 5953 "
       u"\\ph 8419 \\mt 0 \\mb 0 \\ml 0 \\mr 0 \\sm MRW:IEP:HTMLData "},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    AddinSettings settings;
    c.change(settings);
    const bool named = c.expected != kDefaultCommandLine;
    EXPECT_EQ(c.expected,
              CommandLine(settings, named ? u"in.html" : u"", named ? u"out.pdf" : u""));
  }
}

TEST(PasswordCoding, LinesBreakAfterNineteenGroups) {
  // "A" in UTF-16LE repeats every six bytes, so the text repeats every eight characters.
  const std::string line1 = Repeat("QQBBAEEA", 9) + "QQBB";
  const std::vector<std::pair<int, std::string>> cases = {
      {0, ""},
      {1, "QQA="},
      {28, Repeat("QQBBAEEA", 9) + "QQA="},
      {29, line1 + "\r\nAA=="},
      {57, line1 + "\r\n" + "AEEA" + Repeat("QQBBAEEA", 9) + "\r\n"},
  };
  for (const auto& [length, expected] : cases) {
    SCOPED_TRACE(length);
    const std::u16string password(length, u'A');
    std::string stored = "left over";
    EncodePassword(password, stored);
    EXPECT_EQ(expected, stored);
    WideString decoded(u"left over");
    EXPECT_TRUE(DecodePassword(stored, decoded));
    EXPECT_EQ(password, decoded.view());
  }
}

TEST(PasswordCoding, DecoderSkipsNoiseStopsAtNulAndRefusesOddBytes) {
  struct Case {
    std::string stored;
    bool ok;
    std::u16string expected;
  };
  const std::vector<Case> cases = {
      {"QQBC\r\nAA==", true, u"AB"}, {"QQ=A=", true, u"A"},
      {" Q*Q-A\n", true, u"A"},      {std::string("QQA=\0QgA=", 9), true, u"A"},
      {"QQ==", false, u""},          {"QQBCAA", true, u"AB"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.stored);
    WideString decoded(u"left over");
    EXPECT_EQ(c.ok, DecodePassword(c.stored, decoded));
    EXPECT_EQ(c.expected, decoded.view());
  }
  const std::u16string wide = u"p\u00e4ss \u20ac \U0001F600";
  std::string stored;
  EncodePassword(wide, stored);
  WideString decoded;
  ASSERT_TRUE(DecodePassword(stored, decoded));
  EXPECT_EQ(wide, decoded.view());
}

}  // namespace
}  // namespace mrwl
