#include "settings/addin_settings.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "foundation/codecs.h"
#include "platform/com.h"
#include "platform/files.h"
#include "platform/registry.h"
#include "platform/win_types.h"

namespace mrwl {
namespace {

// Query, set, create subkey, enumerate, notify and read control: what a load and a save need,
// and no more, so that a key with stricter rights can still be read.
constexpr REGSAM kSettingsKeyAccess = 0x2001F;

// The page geometry of the earlier release, in tenths of a point, in the order it is taken over.
struct LegacyGeometryValue {
  const char16_t* name;
  double AddinSettings::*field;
};
constexpr std::array<LegacyGeometryValue, 6> kLegacyGeometry{{
    {u"PageWidth", &AddinSettings::PageWidth},
    {u"PageHeight", &AddinSettings::PageHeight},
    {u"MarginTop", &AddinSettings::MarginTop},
    {u"MarginBottom", &AddinSettings::MarginBottom},
    {u"MarginLeft", &AddinSettings::MarginLeft},
    {u"MarginRight", &AddinSettings::MarginRight},
}};

// The earlier release stored 16 plus the PDF minor version.
constexpr std::uint32_t kLegacySpecificationFirst = 16;
constexpr std::uint32_t kLegacySpecificationEnd = 24;
constexpr std::uint32_t kSpecificationBase = 0x10000;

// Geometry in the registry is in thousandths of a point, on the command line in tenths.
constexpr double kThousandthsPerPoint = 1000.0;
constexpr double kTenthsPerPoint = 10.0;

constexpr std::string_view kBase64Alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
// 19 groups of four characters make one line of 76.
constexpr std::size_t kGroupsPerLine = 19;

[[noreturn]] void ThrowMissingRecord() { throw static_cast<HRESULT>(E_FAIL); }

// A number truncated towards zero and taken modulo 2^32, as an unsigned 32-bit value; what cannot
// be truncated to a 64-bit integer at all becomes 0.
std::uint32_t TruncateToDword(double value) noexcept {
  constexpr double kLimit = 9223372036854775808.0;  // 2^63
  if (!(value > -kLimit && value < kLimit)) return 0;
  return static_cast<std::uint32_t>(static_cast<std::int64_t>(value));
}

// A REG_DWORD of at most four bytes, read into a zeroed buffer so that a shorter value counts
// from its low bytes. False leaves the caller's field as it is.
bool QueryDword(HKEY key, const char16_t* name, std::uint32_t& value) noexcept {
  BYTE buffer[4] = {0, 0, 0, 0};
  DWORD type = REG_NONE;
  DWORD size = sizeof(buffer);
  if (platform::RegQueryValueExW(key, name, nullptr, &type, buffer, &size) != ERROR_SUCCESS ||
      type != REG_DWORD) {
    return false;
  }
  value = static_cast<std::uint32_t>(buffer[0]) | static_cast<std::uint32_t>(buffer[1]) << 8 |
          static_cast<std::uint32_t>(buffer[2]) << 16 | static_cast<std::uint32_t>(buffer[3]) << 24;
  return true;
}

void SetDword(HKEY key, const char16_t* name, std::uint32_t value) noexcept {
  const BYTE data[4] = {static_cast<BYTE>(value), static_cast<BYTE>(value >> 8),
                        static_cast<BYTE>(value >> 16), static_cast<BYTE>(value >> 24)};
  // Single failed values are not reported; the next save writes them again.
  (void)platform::RegSetValueExW(key, name, 0, REG_DWORD, data, sizeof(data));
}

// Reads a REG_SZ or REG_EXPAND_SZ without expansion. The terminator the registry holds stays in
// the string's length; data that is not a whole, terminated string empties the field.
void QueryString(HKEY key, const char16_t* name, WideString& field) {
  DWORD type = REG_NONE;
  DWORD size = 0;
  if (platform::RegQueryValueExW(key, name, nullptr, &type, nullptr, &size) != ERROR_SUCCESS ||
      (type != REG_SZ && type != REG_EXPAND_SZ)) {
    return;
  }
  if (!field.Resize(size / 2)) {
    field.Clear();
    return;
  }
  // An odd byte count does not fit the units reserved for it, so the second query refuses it.
  DWORD readSize = static_cast<DWORD>(field.Length() * 2);
  const LSTATUS status = platform::RegQueryValueExW(
      key, name, nullptr, &type, reinterpret_cast<BYTE*>(field.data()), &readSize);
  const bool typeFits = type == REG_SZ || type == REG_EXPAND_SZ;
  if (status == ERROR_SUCCESS && typeFits && readSize == 0) {
    field.Clear();
    return;
  }
  if (status == ERROR_SUCCESS && typeFits && readSize % 2 == 0 && readSize / 2 <= field.Length() &&
      field[readSize / 2 - 1] == u'\0') {
    field.SetLength(readSize / 2);
    return;
  }
  field.Clear();
}

// Writes a REG_SZ whose byte length counts one terminator. A string read from the registry
// already ends in its terminator and is written as it stands, so that it does not grow by a NUL
// with every load and save.
void SetString(HKEY key, const char16_t* name, const WideString& text) noexcept {
  std::size_t units = text.Length();
  if (units == 0 || text[units - 1] != u'\0') ++units;
  (void)platform::RegSetValueExW(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()),
                                 static_cast<DWORD>(units * 2));
}

void QueryPassword(HKEY key, const char16_t* name, WideString& field) {
  field.Clear();
  DWORD type = REG_NONE;
  DWORD size = 0;
  if (platform::RegQueryValueExW(key, name, nullptr, &type, nullptr, &size) != ERROR_SUCCESS ||
      type != REG_BINARY) {
    return;
  }
  std::string stored(size, '\0');
  if (size != 0 &&
      platform::RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(stored.data()),
                                 &size) != ERROR_SUCCESS) {
    return;
  }
  stored.resize(size);
  (void)DecodePassword(stored, field);
}

void SetPassword(HKEY key, const char16_t* name, const WideString& password) {
  std::string stored;
  EncodePassword(password, stored);
  (void)platform::RegSetValueExW(key, name, 0, REG_BINARY,
                                 reinterpret_cast<const BYTE*>(stored.data()),
                                 static_cast<DWORD>(stored.size()));
}

// Reads one value into a field of its kind: geometry in thousandths of a point, any other
// number or flag as a DWORD, a string as a password.
class ValueReader {
 public:
  explicit ValueReader(HKEY key) noexcept : key_(key) {}
  void operator()(const char16_t* name, std::uint32_t& field) const noexcept {
    (void)QueryDword(key_, name, field);
  }
  void operator()(const char16_t* name, bool& field) const noexcept {
    std::uint32_t value = 0;
    if (QueryDword(key_, name, value)) field = value != 0;
  }
  void operator()(const char16_t* name, double& field) const noexcept {
    std::uint32_t value = 0;
    if (QueryDword(key_, name, value)) field = value / kThousandthsPerPoint;
  }
  void operator()(const char16_t* name, WideString& password) const {
    QueryPassword(key_, name, password);
  }

 private:
  HKEY key_;
};

class ValueWriter {
 public:
  explicit ValueWriter(HKEY key) noexcept : key_(key) {}
  void operator()(const char16_t* name, std::uint32_t field) const noexcept {
    SetDword(key_, name, field);
  }
  void operator()(const char16_t* name, bool field) const noexcept {
    SetDword(key_, name, field ? 1u : 0u);
  }
  void operator()(const char16_t* name, double field) const noexcept {
    SetDword(key_, name, TruncateToDword(field * kThousandthsPerPoint));
  }
  void operator()(const char16_t* name, const WideString& password) const {
    SetPassword(key_, name, password);
  }

 private:
  HKEY key_;
};

// The DWORD values of the record in their stored order; load and save walk the same list.
template <typename Visitor>
void VisitDwordValues(AddinSettings& settings, const Visitor& visit) {
  visit(u"WebPageTargetWidth", settings.WebPageTargetWidth);
  visit(u"LoadDelay", settings.LoadDelay);
  visit(u"PaperSize", settings.PaperSize);
  visit(u"PDFSpecification", settings.PDFSpecification);
  visit(u"CompressionLevel", settings.CompressionLevel);
  visit(u"Units", settings.Units);
  visit(u"LandscapeOrienatation", settings.LandscapeOrienatation);
  visit(u"UseWebPageBackgroundColor", settings.UseWebPageBackgroundColor);
  visit(u"GenerateLinks", settings.GenerateLinks);
  visit(u"RunPDFApp", settings.RunPDFApp);
  visit(u"UseWebPageCopy", settings.UseWebPageCopy);
  visit(u"ConvertAttachments", settings.ConvertAttachments);
  visit(u"PageWidth2", settings.PageWidth);
  visit(u"PageHeight2", settings.PageHeight);
  visit(u"MarginTop2", settings.MarginTop);
  visit(u"MarginBottom2", settings.MarginBottom);
  visit(u"MarginLeft2", settings.MarginLeft);
  visit(u"MarginRight2", settings.MarginRight);
  if (!settings.RunApp) ThrowMissingRecord();
  visit(u"RunCustPDFApp", settings.RunApp->RunCustPDFApp);
}

// The security values in their stored order; the two passwords are the only strings.
template <typename Visitor>
void VisitSecurityValues(AddinSettings& settings, const Visitor& visit) {
  if (!settings.Security) ThrowMissingRecord();
  SecuritySettings& security = *settings.Security;
  visit(u"secEnabled", security.secEnabled);
  visit(u"secHasUserPassword", security.secHasUserPassword);
  visit(u"secHasOwnerPassword", security.secHasOwnerPassword);
  visit(u"secUserPassword", security.secUserPassword);
  visit(u"secOwnerPassword", security.secOwnerPassword);
  visit(u"secType", security.secType);
  visit(u"sec40AllowPrinting", security.sec40AllowPrinting);
  visit(u"sec40AllowChanging", security.sec40AllowChanging);
  visit(u"sec40AllowCopying", security.sec40AllowCopying);
  visit(u"sec40AllowComments", security.sec40AllowComments);
  visit(u"sec128ContentAccess", security.sec128ContentAccess);
  visit(u"sec128AllowCopying", security.sec128AllowCopying);
  visit(u"sec128Changes", security.sec128Changes);
  visit(u"sec128Printing", security.sec128Printing);
  visit(u"sec128EncryptMeta", security.sec128EncryptMeta);
}

// Takes over the tenths-of-a-point geometry of the earlier release and deletes it, so that it is
// read once; the thousandths values read afterwards win where both exist.
void MigrateLegacyGeometry(HKEY key, AddinSettings& settings) noexcept {
  for (const LegacyGeometryValue& legacy : kLegacyGeometry) {
    std::uint32_t tenths = 0;
    if (!QueryDword(key, legacy.name, tenths)) continue;
    settings.*legacy.field = tenths / kTenthsPerPoint;
    (void)platform::RegDeleteValueW(key, legacy.name);
  }
}

// Codes of the earlier release (16 plus the minor version) become 0x10000 plus the minor
// version; other numbers below 24 stay, and the dialog shows them as its last row.
std::uint32_t MapLegacyPdfSpecification(std::uint32_t code) noexcept {
  if (code >= kLegacySpecificationFirst && code < kLegacySpecificationEnd) {
    return kSpecificationBase + (code - kLegacySpecificationFirst);
  }
  return code;
}

void AppendOption(WideString& out, std::u16string_view option) {
  (void)out.Append(option);
  (void)out.Append(u' ');
}

void AppendNumberOption(WideString& out, std::u16string_view option, std::uint32_t number) {
  AppendOption(out, option);
  char16_t digits[10];
  std::size_t count = 0;
  do {
    digits[count++] = static_cast<char16_t>(u'0' + number % 10);
    number /= 10;
  } while (number != 0);
  while (count != 0) (void)out.Append(digits[--count]);
  (void)out.Append(u' ');
}

void AppendTextOption(WideString& out, std::u16string_view option, std::u16string_view text) {
  AppendOption(out, option);
  (void)out.Append(text);
  (void)out.Append(u' ');
}

}  // namespace

AddinSettings::AddinSettings(std::u16string_view keyPath)
    : Security(SecuritySettings::Create()),
      RunApp(RunAppSettings::Create()),
      SettingsKeyPath(keyPath) {
  ResetSettings();
}

void AddinSettings::ResetSettings() {
  RunPDFApp = true;
  GenerateLinks = true;
  PDFSpecification = 0x00010004;
  CompressionLevel = 1;
  LandscapeOrienatation = false;
  UseWebPageCopy = true;
  ConvertAttachments = true;
  HiOption = false;
  UseWebPageBackgroundColor = true;
  PaperSize = 11;
  WebPageTargetWidth = 1280;
  WebPageTargetHeight = 800;
  Units = 0;
  LoadDelay = 500;
  PageWidth = 595.3;
  PageHeight = 841.9;
  MarginTop = 0.0;
  MarginBottom = 0.0;
  MarginLeft = 0.0;
  MarginRight = 0.0;
  if (Security) {
    SecuritySettings& security = *Security;
    security.secEnabled = false;
    security.secHasUserPassword = false;
    security.secHasOwnerPassword = false;
    security.secUserPassword.Clear();
    security.secOwnerPassword.Clear();
    security.secType = 0;
    security.sec40AllowPrinting = false;
    security.sec40AllowChanging = false;
    security.sec40AllowCopying = false;
    security.sec40AllowComments = false;
    security.sec128ContentAccess = false;
    security.sec128AllowCopying = false;
    security.sec128Changes = 0;
    security.sec128Printing = 0;
    security.sec128EncryptMeta = true;
  }
  if (RunApp) {
    RunApp->RunCustPDFApp = false;
    RunApp->RunPDFPath.Clear();
    (void)RunApp->RunPDFParams.Assign(u"%f");
  }
  HandoffMappingName.Clear();
  HandoffFilePath.Clear();
  CeOption.Clear();
}

void AddinSettings::LoadSettings() {
  UniqueRegKey key;
  // Opened, never created: a load must not leave an empty key behind.
  if (platform::RegOpenKeyExW(HKEY_CURRENT_USER, SettingsKeyPath.c_str(), 0, kSettingsKeyAccess,
                              key.put()) != ERROR_SUCCESS) {
    return;
  }
  MigrateLegacyGeometry(key.get(), *this);
  const ValueReader reader(key.get());
  VisitDwordValues(*this, reader);
  QueryString(key.get(), u"RunPDFPath", RunApp->RunPDFPath);
  QueryString(key.get(), u"RunPDFParams", RunApp->RunPDFParams);
  VisitSecurityValues(*this, reader);
  key.reset();
  // The record only: the registry keeps the old code until the next save.
  PDFSpecification = MapLegacyPdfSpecification(PDFSpecification);
}

void AddinSettings::SaveSettings() {
  UniqueRegKey key;
  if (platform::RegCreateKeyExW(HKEY_CURRENT_USER, SettingsKeyPath.c_str(), 0, nullptr, 0,
                                kSettingsKeyAccess, nullptr, key.put(), nullptr) != ERROR_SUCCESS) {
    return;
  }
  const ValueWriter writer(key.get());
  VisitDwordValues(*this, writer);
  SetString(key.get(), u"RunPDFPath", RunApp->RunPDFPath);
  SetString(key.get(), u"RunPDFParams", RunApp->RunPDFParams);
  // Passwords are kept whatever secEnabled and the two "has" flags say.
  VisitSecurityValues(*this, writer);
}

void AddinSettings::BuildConverterCommandLine(std::u16string_view inputName,
                                              std::u16string_view outputName,
                                              WideString& result) const {
  result.Clear();
  (void)result.Append(u'"');
  (void)result.Append(inputName);
  (void)result.Append(u"\" \"");
  (void)result.Append(outputName);
  (void)result.Append(u"\" ");

  if (LandscapeOrienatation) AppendOption(result, u"\\l");
  if (UseWebPageBackgroundColor) AppendOption(result, u"\\b");
  if (GenerateLinks) AppendOption(result, u"\\h");
  if (RunPDFApp) AppendOption(result, u"\\r");
  if (HiOption) AppendOption(result, u"\\hi");

  AppendNumberOption(result, u"\\iw", WebPageTargetWidth);
  AppendNumberOption(result, u"\\ih", WebPageTargetHeight);
  AppendNumberOption(result, u"\\ld", LoadDelay);
  AppendNumberOption(result, u"\\is", PDFSpecification);
  AppendNumberOption(result, u"\\ic", CompressionLevel);
  // The converter still takes the tenths of a point of the earlier registry form.
  AppendNumberOption(result, u"\\pw", TruncateToDword(PageWidth * kTenthsPerPoint));
  AppendNumberOption(result, u"\\ph", TruncateToDword(PageHeight * kTenthsPerPoint));
  AppendNumberOption(result, u"\\mt", TruncateToDword(MarginTop * kTenthsPerPoint));
  AppendNumberOption(result, u"\\mb", TruncateToDword(MarginBottom * kTenthsPerPoint));
  AppendNumberOption(result, u"\\ml", TruncateToDword(MarginLeft * kTenthsPerPoint));
  AppendNumberOption(result, u"\\mr", TruncateToDword(MarginRight * kTenthsPerPoint));

  // Unquoted even with blanks in it: the converter reads the rest of its options by position.
  if (!HandoffFilePath.IsEmpty()) {
    AppendTextOption(result, u"\\bp", HandoffFilePath);
  } else if (!HandoffMappingName.IsEmpty()) {
    AppendTextOption(result, u"\\sm", HandoffMappingName);
  }
  if (!CeOption.IsEmpty()) AppendTextOption(result, u"\\ce", CeOption);
}

void AddinSettings::ClearHandoffFile() {
  if (HandoffFilePath.IsEmpty()) return;
  // A file that is already gone is what we want; nobody is told either way.
  (void)platform::DeleteFileW(HandoffFilePath.c_str());
  HandoffFilePath.Clear();
}

void EncodePassword(std::u16string_view password, std::string& out) {
  std::string bytes;
  bytes.reserve(password.size() * 2);
  for (char16_t unit : password) {
    bytes.push_back(static_cast<char>(unit & 0xFF));
    bytes.push_back(static_cast<char>(unit >> 8));
  }
  out.clear();
  const std::size_t fullGroups = bytes.size() / 3;
  out.reserve((fullGroups + 1) * 4 + (fullGroups / kGroupsPerLine) * 2);
  const auto byteAt = [&bytes](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
  for (std::size_t group = 0; group < fullGroups; ++group) {
    const std::uint32_t triple = static_cast<std::uint32_t>(byteAt(group * 3)) << 16 |
                                 static_cast<std::uint32_t>(byteAt(group * 3 + 1)) << 8 |
                                 byteAt(group * 3 + 2);
    out.push_back(kBase64Alphabet[triple >> 18 & 0x3F]);
    out.push_back(kBase64Alphabet[triple >> 12 & 0x3F]);
    out.push_back(kBase64Alphabet[triple >> 6 & 0x3F]);
    out.push_back(kBase64Alphabet[triple & 0x3F]);
    if ((group + 1) % kGroupsPerLine == 0) out.append("\r\n");
  }
  // The tail group follows the last CR LF directly; there is no break after it.
  const std::size_t tail = bytes.size() % 3;
  if (tail != 0) {
    const std::size_t first = fullGroups * 3;
    std::uint32_t triple = static_cast<std::uint32_t>(byteAt(first)) << 16;
    if (tail == 2) triple |= static_cast<std::uint32_t>(byteAt(first + 1)) << 8;
    out.push_back(kBase64Alphabet[triple >> 18 & 0x3F]);
    out.push_back(kBase64Alphabet[triple >> 12 & 0x3F]);
    out.push_back(tail == 2 ? kBase64Alphabet[triple >> 6 & 0x3F] : '=');
    out.push_back('=');
  }
}

bool DecodePassword(std::string_view stored, WideString& out) {
  out.Clear();
  std::string bytes;
  (void)DecodeBase64(stored, Base64Input::kSkipOthers, bytes);
  if (bytes.size() % 2 != 0) return false;
  if (!out.Resize(bytes.size() / 2)) return false;
  for (std::size_t i = 0; i < bytes.size() / 2; ++i) {
    out[i] = static_cast<char16_t>(static_cast<unsigned char>(bytes[2 * i]) |
                                   static_cast<unsigned char>(bytes[2 * i + 1]) << 8);
  }
  return true;
}

}  // namespace mrwl
