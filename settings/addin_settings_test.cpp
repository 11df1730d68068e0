#include "settings/addin_settings.h"

#include <cstdint>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "platform/com.h"
#include "platform/registry.h"
#include "testing/temp_folder.h"

namespace mrwl {
namespace {

using ValueList = std::vector<std::pair<std::u16string, DWORD>>;

// The bytes of `text` as the registry holds them.
std::string Utf16Bytes(std::u16string_view text) {
  return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(char16_t)};
}

std::string DwordBytes(std::uint32_t value) {
  return {static_cast<char>(value), static_cast<char>(value >> 8), static_cast<char>(value >> 16),
          static_cast<char>(value >> 24)};
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
  s.WebPageTargetWidth = 4294967295u;
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
  sec.secOwnerPassword.Assign(std::u16string(57, u'O'));
  s.RunApp->RunCustPDFApp = true;
  s.RunApp->RunPDFPath.Assign({u"C:\\Program Files\\Viewer\\view.exe\0", 33});
  s.RunApp->RunPDFParams.Assign({u"/p \"%f\"\0", 8});
  s.HandoffMappingName.Assign(u"map");
  s.HandoffFilePath.Assign(u"/tmp/my files/mrwstg_1.bin");
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
    UniqueRegKey key;
    ASSERT_EQ(ERROR_SUCCESS,
              platform::RegCreateKeyExW(HKEY_CURRENT_USER, KeyPath(), 0, nullptr, 0, KEY_ALL_ACCESS,
                                        nullptr, key.put(), nullptr));
    EXPECT_EQ(ERROR_SUCCESS, platform::RegSetValueExW(key.get(), name, 0, type,
                                                      reinterpret_cast<const BYTE*>(bytes.data()),
                                                      static_cast<DWORD>(bytes.size())));
  }
  void SetDword(const char16_t* name, std::uint32_t value) {
    SetValue(name, REG_DWORD, DwordBytes(value));
  }

  // The settings key, not valid when it does not exist.
  UniqueRegKey OpenKey() {
    UniqueRegKey key;
    (void)platform::RegOpenKeyExW(HKEY_CURRENT_USER, KeyPath(), 0, KEY_READ, key.put());
    return key;
  }

  // The type and bytes of a value, or nothing when it (or the key) does not exist.
  std::optional<std::pair<DWORD, std::string>> Value(const char16_t* name) {
    const UniqueRegKey key = OpenKey();
    char bytes[1024];
    DWORD type = 0;
    DWORD size = sizeof bytes;
    if (!key || platform::RegQueryValueExW(key.get(), name, nullptr, &type,
                                           reinterpret_cast<BYTE*>(bytes), &size) != 0) {
      return {};
    }
    return std::pair{type, std::string(bytes, size)};
  }

  ValueList ValuesInOrder() {
    const UniqueRegKey key = OpenKey();
    ValueList values;
    char16_t name[256];
    DWORD nameLength = 256;
    DWORD type = 0;
    for (DWORD index = 0;
         key && platform::RegEnumValueW(key.get(), index, name, &nameLength, nullptr, &type,
                                        nullptr, nullptr) == ERROR_SUCCESS;
         ++index, nameLength = 256) {
      values.emplace_back(std::u16string(name, nameLength), type);
    }
    return values;
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
  EXPECT_FALSE(OpenKey()) << "a load must never create the key";
  EXPECT_EQ(StoredFields(AddinSettings()), StoredFields(settings_));

  settings_.SaveSettings();
  ValueList expected;
  // clang-format off
  for (std::u16string name : {
           u"WebPageTargetWidth", u"LoadDelay", u"PaperSize", u"PDFSpecification",
           u"CompressionLevel", u"Units", u"LandscapeOrienatation", u"UseWebPageBackgroundColor",
           u"GenerateLinks", u"RunPDFApp", u"UseWebPageCopy", u"ConvertAttachments", u"PageWidth2",
           u"PageHeight2", u"MarginTop2", u"MarginBottom2", u"MarginLeft2", u"MarginRight2",
           u"RunCustPDFApp", u"RunPDFPath", u"RunPDFParams", u"secEnabled", u"secHasUserPassword",
           u"secHasOwnerPassword", u"secUserPassword", u"secOwnerPassword", u"secType",
           u"sec40AllowPrinting", u"sec40AllowChanging", u"sec40AllowCopying",
           u"sec40AllowComments", u"sec128ContentAccess", u"sec128AllowCopying", u"sec128Changes",
           u"sec128Printing", u"sec128EncryptMeta"}) {
    // clang-format on
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

  // Geometry is stored in thousandths, truncated towards zero.
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
      {&AddinSettings::PageHeight, u"PageHeight", REG_DWORD, DwordBytes(8000), 600000, 600, false},
      {&AddinSettings::MarginTop, u"MarginTop", REG_DWORD, DwordBytes(125), 0, 12.5, false},
      {&AddinSettings::MarginBottom, u"MarginBottom", REG_SZ, Utf16Bytes({u"1\0", 2}), 0, 0, true},
      {&AddinSettings::MarginLeft, u"MarginLeft", REG_DWORD, std::string(8, 1), 0, 0, true},
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
  const Case cases[] = {
      {"terminated", REG_SZ, Utf16Bytes({u"C:\0", 3}), {u"C:\0", 3}},
      {"expand, not expanded", REG_EXPAND_SZ, Utf16Bytes({u"%T%\0", 4}), {u"%T%\0", 4}},
      {"no terminator", REG_SZ, Utf16Bytes(u"ab"), u""},
      {"odd byte count", REG_SZ, std::string("a\0\0", 3), u""},
      {"empty data", REG_SZ, "", u""},
      {"binary", REG_BINARY, Utf16Bytes({u"x\0", 2}), before},
      {"dword", REG_DWORD, DwordBytes(1), before},
      {"absent", {}, "", before}};
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
  const Case cases[] = {{"four bytes", REG_DWORD, DwordBytes(1234), 1234},
                        {"two bytes fill the low end", REG_DWORD, "\x39\x30", 0x3039},
                        {"eight bytes", REG_DWORD, std::string(8, 1), 777},
                        {"qword", REG_QWORD, std::string(8, 1), 777},
                        {"binary", REG_BINARY, DwordBytes(1), 777},
                        {"string", REG_SZ, Utf16Bytes({u"9\0", 2}), 777}};
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
  auto thrownBy = [](auto call) {
    try {
      call();
    } catch (HRESULT hr) {
      return hr;
    }
    return S_OK;
  };
  EXPECT_EQ(E_FAIL, thrownBy([&] { settings_.SaveSettings(); }));
  EXPECT_TRUE(Value(u"RunPDFParams").has_value()) << "values before the block are written";
  EXPECT_FALSE(Value(u"secEnabled").has_value());
  EXPECT_EQ(E_FAIL, thrownBy([&] { settings_.LoadSettings(); }));
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
  EXPECT_EQ(CommandLine(AddinSettings()), CommandLine(settings)) << "with the fields never stored";
}

TEST(AddinSettings, CommandLineCarriesFlagsNumbersAndTheHandoff) {
  const std::tuple<const char*, void (*)(AddinSettings&), std::u16string_view> cases[] = {
      {"defaults", [](AddinSettings&) {},
       u"\"in.html\" \"out.pdf\" \\b \\h \\r \\iw 1280 \\ih 800 \\ld 500 \\is 65540 \\ic 1 "
       u"\\pw 5953 \\ph 8419 \\mt 0 \\mb 0 \\ml 0 \\mr 0 "},
      // Tenths truncated towards zero; the file path goes unquoted and wins over the mapping.
      {"every field changed", &ChangeEveryField,
       u"\"in.html\" \"out.pdf\" \\l \\hi \\iw 4294967295 \\ih 900 \\ld 1500 \\is 65543 \\ic 2 "
       u"\\pw 6125 \\ph 7922 \\mt 123 \\mb 15 \\ml 0 \\mr 360 \\bp /tmp/my files/mrwstg_1.bin "
       u"\\ce ce "},
      {"mapping without a file",
       [](AddinSettings& s) { s.HandoffMappingName.Assign(u"MRW:IEP:HTMLData"); },
       u"\"in.html\" \"out.pdf\" \\b \\h \\r \\iw 1280 \\ih 800 \\ld 500 \\is 65540 \\ic 1 "
       u"\\pw 5953 \\ph 8419 \\mt 0 \\mb 0 \\ml 0 \\mr 0 \\sm MRW:IEP:HTMLData "}};
  for (const auto& [what, change, expected] : cases) {
    SCOPED_TRACE(what);
    AddinSettings settings;
    change(settings);
    EXPECT_EQ(expected, CommandLine(settings, u"in.html", u"out.pdf"));
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
  const std::tuple<std::string, bool, std::u16string> cases[] = {
      {"QQBC\r\nAA==", true, u"AB"}, {"QQ=A=", true, u"A"},
      {" Q*Q-A\n", true, u"A"},      {std::string("QQA=\0QgA=", 9), true, u"A"},
      {"QQ==", false, u""},          {"QQBCAA", true, u"AB"}};
  for (const auto& [stored, ok, expected] : cases) {
    SCOPED_TRACE(stored);
    WideString decoded(u"left over");
    EXPECT_EQ(ok, DecodePassword(stored, decoded));
    EXPECT_EQ(expected, decoded.view());
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
