#include "host/reg_command.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>

#include "foundation/wide_string.h"
#include "platform/kernel.h"
#include "platform/registry.h"
#include "platform/utf.h"

namespace mrwl {
namespace {

// CLI11 takes an option's value from "--name=value" whatever the value looks like, but an empty
// value there makes it swallow the next token. Every translated value therefore starts with this
// mark, which is never empty and is taken off again before use.
constexpr char kValueMark = '\x1F';

constexpr const char* kNotFound =
    "ERROR: The system was unable to find the specified registry key or value.";
constexpr const char* kInvalidKeyName = "ERROR: Invalid key name.";
constexpr const char* kCancelled = "The operation was cancelled.";
constexpr const char* kCompleted = "The operation completed successfully.";

struct RegSwitch {
  std::string_view name;
  bool takesValue;
};
constexpr RegSwitch kRegSwitches[] = {
    {"v", true}, {"ve", false}, {"va", false}, {"t", true},
    {"d", true}, {"se", true},  {"f", false},  {"s", false},
};

const RegSwitch* FindSwitch(std::string_view token) {
  std::string_view name;
  if (token.starts_with("--")) {
    name = token.substr(2);
  } else if (token.starts_with("/") || token.starts_with("-")) {
    name = token.substr(1);
  } else {
    return nullptr;
  }
  for (const RegSwitch& candidate : kRegSwitches) {
    if (EqualsAsciiNoCase(name, candidate.name)) return &candidate;
  }
  return nullptr;
}

std::string Unmark(const std::string& value) {
  return !value.empty() && value[0] == kValueMark ? value.substr(1) : value;
}

std::string ToUtf8(std::u16string_view text) { return platform::Utf16ToUtf8(text); }

void PrintLine(std::FILE* stream, std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), stream);
  std::fputc('\n', stream);
}

// Asks on standard output and reads the answer from standard input; only "y" or "yes" agree.
bool Confirm(const std::string& question) {
  std::fputs(question.c_str(), stdout);
  std::fflush(stdout);
  char line[256];
  if (std::fgets(line, sizeof line, stdin) == nullptr) {
    std::fputc('\n', stdout);
    return false;
  }
  std::string_view answer(line);
  while (!answer.empty() && (answer.back() == '\n' || answer.back() == '\r' ||
                             answer.back() == ' ' || answer.back() == '\t')) {
    answer.remove_suffix(1);
  }
  while (!answer.empty() && (answer.front() == ' ' || answer.front() == '\t')) {
    answer.remove_prefix(1);
  }
  return EqualsAsciiNoCase(answer, "y") || EqualsAsciiNoCase(answer, "yes");
}

int Cancelled() {
  PrintLine(stdout, kCancelled);
  return 1;
}

int Fail(LSTATUS error) {
  ReportRegistryError(error);
  return 1;
}

int Refuse(const std::string& message) {
  PrintLine(stderr, message);
  return 1;
}

// A key as the user named it: the root, the path below it, and the full name for display with
// the long name of the root.
struct KeyName {
  HKEY root = nullptr;
  std::u16string subKey;
  std::u16string display;
};

std::optional<KeyName> ParseKeyName(std::string_view text) {
  struct Root {
    std::u16string_view shortName;
    std::u16string_view longName;
    HKEY key;
  };
  const Root roots[] = {
      {u"HKCU", u"HKEY_CURRENT_USER", HKEY_CURRENT_USER},
      {u"HKLM", u"HKEY_LOCAL_MACHINE", HKEY_LOCAL_MACHINE},
      {u"HKCR", u"HKEY_CLASSES_ROOT", HKEY_CLASSES_ROOT},
  };
  const std::u16string wide = platform::Utf8ToUtf16(text);
  const std::size_t slash = wide.find(u'\\');
  const std::u16string_view rootName = std::u16string_view(wide).substr(0, slash);
  std::u16string subKey = slash == std::u16string::npos ? u"" : wide.substr(slash + 1);
  while (!subKey.empty() && subKey.back() == u'\\') subKey.pop_back();
  // An empty step ("A\\\\B") would name no key at all; the reg tool calls that a bad name too.
  if (!subKey.empty() &&
      (subKey.front() == u'\\' || subKey.find(u"\\\\") != std::u16string::npos)) {
    return std::nullopt;
  }
  for (const Root& root : roots) {
    if (EqualsNoCase(rootName, root.shortName) || EqualsNoCase(rootName, root.longName)) {
      KeyName name{root.key, subKey, std::u16string(root.longName)};
      if (!subKey.empty()) name.display += u"\\" + subKey;
      return name;
    }
  }
  return std::nullopt;
}

// Opens the key itself (`subKey` empty: the root) with `access`.
LSTATUS OpenKey(const KeyName& name, REGSAM access, UniqueRegKey& key) {
  return platform::RegOpenKeyExW(name.root, name.subKey.empty() ? nullptr : name.subKey.c_str(), 0,
                                 access, key.put());
}

struct ValueEntry {
  std::u16string name;
  DWORD type = REG_NONE;
  std::vector<BYTE> data;
};

// Calls `step(index)` for the indexes 0, 1, ... until it answers ERROR_NO_MORE_ITEMS. `size()`
// sizes the step's buffers from the key's longest entry, once before the first step and again
// when a step answers ERROR_MORE_DATA because the key grew meanwhile; eight of those in a row
// give up.
template <typename Size, typename Step>
LSTATUS EnumerateByIndex(Size&& size, Step&& step) {
  LSTATUS rc = size();
  DWORD index = 0;
  for (int retries = 0; rc == ERROR_SUCCESS;) {
    rc = step(index);
    if (rc == ERROR_SUCCESS) {
      ++index;
      retries = 0;
    } else if (rc == ERROR_NO_MORE_ITEMS) {
      return ERROR_SUCCESS;
    } else if (rc == ERROR_MORE_DATA && ++retries < 8) {
      rc = size();
    }
  }
  return rc;
}

// Every value of `key` in the registry's order.
LSTATUS ListValues(HKEY key, std::vector<ValueEntry>& values) {
  values.clear();
  std::u16string name;
  std::vector<BYTE> data;
  return EnumerateByIndex(
      [&] {
        DWORD maxName = 0;
        DWORD maxData = 0;
        const LSTATUS rc =
            platform::RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                       nullptr, &maxName, &maxData, nullptr, nullptr);
        name.assign(maxName + 1, u'\0');
        // Never a null buffer: that would ask for the size alone.
        data.assign(maxData + 1, 0);
        return rc;
      },
      [&](DWORD index) {
        ValueEntry value;
        DWORD nameLength = static_cast<DWORD>(name.size());
        DWORD size = static_cast<DWORD>(data.size());
        const LSTATUS rc = platform::RegEnumValueW(key, index, name.data(), &nameLength, nullptr,
                                                   &value.type, data.data(), &size);
        if (rc != ERROR_SUCCESS) return rc;
        value.name.assign(name.data(), nameLength);
        value.data.assign(data.begin(), data.begin() + size);
        values.push_back(std::move(value));
        return rc;
      });
}

// The names of the subkeys of `key` in the registry's order.
LSTATUS ListSubKeys(HKEY key, std::vector<std::u16string>& names) {
  names.clear();
  std::u16string name;
  return EnumerateByIndex(
      [&] {
        DWORD maxName = 0;
        const LSTATUS rc =
            platform::RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, nullptr, &maxName, nullptr,
                                       nullptr, nullptr, nullptr, nullptr, nullptr);
        name.assign(maxName + 1, u'\0');
        return rc;
      },
      [&](DWORD index) {
        DWORD nameLength = static_cast<DWORD>(name.size());
        const LSTATUS rc = platform::RegEnumKeyExW(key, index, name.data(), &nameLength, nullptr,
                                                   nullptr, nullptr, nullptr);
        if (rc == ERROR_SUCCESS) names.emplace_back(name.data(), nameLength);
        return rc;
      });
}

struct TypeName {
  DWORD type;
  std::string_view name;
};
// The types that `reg add` can write come first; the rest are only ever shown.
constexpr TypeName kTypeNames[] = {
    {REG_SZ, "REG_SZ"},
    {REG_EXPAND_SZ, "REG_EXPAND_SZ"},
    {REG_MULTI_SZ, "REG_MULTI_SZ"},
    {REG_DWORD, "REG_DWORD"},
    {REG_QWORD, "REG_QWORD"},
    {REG_BINARY, "REG_BINARY"},
    {REG_NONE, "REG_NONE"},
    {5, "REG_DWORD_BIG_ENDIAN"},
    {6, "REG_LINK"},
    {8, "REG_RESOURCE_LIST"},
    {9, "REG_FULL_RESOURCE_DESCRIPTOR"},
    {10, "REG_RESOURCE_REQUIREMENTS_LIST"},
};
constexpr std::size_t kWritableTypes = 7;

std::string TypeToText(DWORD type) {
  for (const TypeName& entry : kTypeNames) {
    if (entry.type == type) return std::string(entry.name);
  }
  char text[32];
  std::snprintf(text, sizeof text, "REG_UNKNOWN(%lu)", static_cast<unsigned long>(type));
  return text;
}

std::string HexText(const std::vector<BYTE>& data) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(data.size() * 2);
  for (BYTE b : data) {
    text += kDigits[b >> 4];
    text += kDigits[b & 15];
  }
  return text;
}

std::u16string Units(const std::vector<BYTE>& data) {
  std::u16string units(data.size() / 2, u'\0');
  if (!units.empty()) std::memcpy(units.data(), data.data(), units.size() * 2);
  return units;
}

std::string DataToText(DWORD type, const std::vector<BYTE>& data) {
  char number[32];
  switch (type) {
    case REG_SZ:
    case REG_EXPAND_SZ: {
      const std::u16string units = Units(data);
      return ToUtf8(std::u16string_view(units).substr(0, units.find(u'\0')));
    }
    case REG_MULTI_SZ: {
      const std::u16string units = Units(data);
      std::string text;
      std::size_t start = 0;
      // The list ends at an empty string (the final double NUL) or where the data ends.
      while (start < units.size()) {
        std::size_t end = units.find(u'\0', start);
        if (end == start) break;
        if (end == std::u16string::npos) end = units.size();
        if (!text.empty()) text += "\\0";
        text += ToUtf8(std::u16string_view(units).substr(start, end - start));
        start = end + 1;
      }
      return text;
    }
    case REG_DWORD:
      if (data.size() != sizeof(std::uint32_t)) return HexText(data);
      {
        std::uint32_t value;
        std::memcpy(&value, data.data(), sizeof value);
        std::snprintf(number, sizeof number, "0x%x", static_cast<unsigned>(value));
      }
      return number;
    case REG_QWORD:
      if (data.size() != sizeof(std::uint64_t)) return HexText(data);
      {
        std::uint64_t value;
        std::memcpy(&value, data.data(), sizeof value);
        std::snprintf(number, sizeof number, "0x%llx", static_cast<unsigned long long>(value));
      }
      return number;
    default:
      return HexText(data);
  }
}

std::string ValueLine(const ValueEntry& value) {
  const std::string name = value.name.empty() ? "(Default)" : ToUtf8(value.name);
  return "    " + name + "    " + TypeToText(value.type) + "    " +
         DataToText(value.type, value.data);
}

// The options of one `reg` invocation after CLI11 has read them.
struct RegRequest {
  std::string key;
  std::string valueName;
  std::string type;
  std::string data;
  std::string separator = "\\0";
  CLI::Option* valueOption = nullptr;
  CLI::Option* typeOption = nullptr;
  CLI::Option* dataOption = nullptr;
  bool defaultValue = false;
  bool allValues = false;
  bool recursive = false;
  bool force = false;

  [[nodiscard]] bool NamesValue() const { return valueOption->count() > 0 || defaultValue; }
  // The value's name for the registry: null for the default value.
  [[nodiscard]] std::optional<std::u16string> Name() const {
    if (defaultValue || Unmark(valueName).empty()) return std::nullopt;
    return platform::Utf8ToUtf16(Unmark(valueName));
  }
  [[nodiscard]] std::string ShownName() const {
    const std::string name = Unmark(valueName);
    return defaultValue || name.empty() ? "(Default)" : name;
  }
};

const char16_t* NameOrNull(const std::optional<std::u16string>& name) {
  return name ? name->c_str() : nullptr;
}

// --- query ---

// Prints `display` with its values (only `only` when given) and, with `recursive`, the same for
// every key below it. `found` counts the values printed.
LSTATUS QueryTree(HKEY key, const std::u16string& display,
                  const std::optional<std::optional<std::u16string>>& only, bool recursive,
                  std::size_t& found, std::string& out) {
  std::vector<ValueEntry> values;
  LSTATUS rc = ListValues(key, values);
  if (rc != ERROR_SUCCESS) return rc;
  if (only) {
    // Found by listing rather than by name, so that the name shows as it was written.
    const std::u16string wanted = only->value_or(u"");
    std::erase_if(values, [&wanted](const ValueEntry& v) { return !EqualsNoCase(v.name, wanted); });
  }
  found += values.size();
  // A search for one value through a tree shows only the keys that hold it.
  if (!only || !values.empty()) {
    out += ToUtf8(display) + "\n";
    for (const ValueEntry& value : values) out += ValueLine(value) + "\n";
    if (recursive) out += "\n";
  }

  std::vector<std::u16string> subKeys;
  if (recursive || !only) {
    rc = ListSubKeys(key, subKeys);
    if (rc != ERROR_SUCCESS) return rc;
  }
  if (!recursive) {
    if (!only) {
      out += "\n";
      for (const std::u16string& sub : subKeys) out += ToUtf8(display) + "\\" + ToUtf8(sub) + "\n";
    } else if (!values.empty()) {
      out += "\n";
    }
    return ERROR_SUCCESS;
  }
  for (const std::u16string& sub : subKeys) {
    UniqueRegKey child;
    rc = platform::RegOpenKeyExW(key, sub.c_str(), 0, KEY_READ, child.put());
    // A key deleted by someone else while we walk is simply no longer there.
    if (rc == ERROR_FILE_NOT_FOUND || rc == ERROR_KEY_DELETED) continue;
    if (rc != ERROR_SUCCESS) return rc;
    rc = QueryTree(child.get(), display + u"\\" + sub, only, recursive, found, out);
    if (rc != ERROR_SUCCESS) return rc;
  }
  return ERROR_SUCCESS;
}

int RunQuery(const RegRequest& request) {
  const std::optional<KeyName> name = ParseKeyName(request.key);
  if (!name) return Refuse(kInvalidKeyName);
  UniqueRegKey key;
  const LSTATUS rc = OpenKey(*name, KEY_READ, key);
  if (rc != ERROR_SUCCESS) return Fail(rc);

  std::optional<std::optional<std::u16string>> only;
  if (request.NamesValue()) only.emplace(request.Name());
  std::string out = "\n";
  std::size_t found = 0;
  const LSTATUS walk = QueryTree(key.get(), name->display, only, request.recursive, found, out);
  if (walk != ERROR_SUCCESS) return Fail(walk);
  if (only && found == 0) return Fail(ERROR_FILE_NOT_FOUND);
  std::fwrite(out.data(), 1, out.size(), stdout);
  return 0;
}

// --- add ---

std::optional<std::vector<BYTE>> ParseHex(std::string_view text) {
  if (text.size() % 2 != 0) return std::nullopt;
  std::vector<BYTE> bytes;
  for (std::size_t i = 0; i < text.size(); i += 2) {
    unsigned byte = 0;
    const auto [end, error] = std::from_chars(text.data() + i, text.data() + i + 2, byte, 16);
    if (error != std::errc() || end != text.data() + i + 2) return std::nullopt;
    bytes.push_back(static_cast<BYTE>(byte));
  }
  return bytes;
}

void AppendUnits(std::vector<BYTE>& bytes, std::u16string_view units) {
  const auto* p = reinterpret_cast<const BYTE*>(units.data());
  bytes.insert(bytes.end(), p, p + units.size() * sizeof(char16_t));
}

// The bytes that `reg add` writes for `data` as `type`, or the message that refuses it.
bool EncodeData(DWORD type, const std::string& typeName, const std::string& data,
                const std::string& separator, std::vector<BYTE>& bytes, std::string& error) {
  const auto invalid = [&](std::string_view why) {
    error = "ERROR: Invalid value '" + data + "' for " + typeName;
    if (!why.empty()) error += ": " + std::string(why);
    error += ".";
    return false;
  };
  bytes.clear();
  switch (type) {
    case REG_SZ:
    case REG_EXPAND_SZ: {
      AppendUnits(bytes, platform::Utf8ToUtf16(data));
      AppendUnits(bytes, std::u16string_view(u"\0", 1));
      return true;
    }
    case REG_MULTI_SZ: {
      if (separator.empty()) {
        error = "ERROR: Invalid syntax. The separator of /se must not be empty.";
        return false;
      }
      // One separator at the end closes the last string rather than starting an empty one.
      std::string_view list = data;
      if (list.ends_with(separator)) list.remove_suffix(separator.size());
      std::size_t start = 0;
      while (!list.empty()) {
        const std::size_t end = list.find(separator, start);
        const std::string_view part = list.substr(start, end - start);
        // An empty string would end the list early when it is read back.
        if (part.empty()) return invalid("a REG_MULTI_SZ cannot hold an empty string");
        AppendUnits(bytes, platform::Utf8ToUtf16(part));
        AppendUnits(bytes, std::u16string_view(u"\0", 1));
        if (end == std::string::npos) break;
        start = end + separator.size();
      }
      AppendUnits(bytes, std::u16string_view(u"\0", 1));
      return true;
    }
    case REG_DWORD: {
      const auto value = ParseUnsigned(data.empty() ? "0" : data, 0xFFFFFFFFull);
      if (!value) return invalid("expected a number from 0 to 4294967295 or 0x0 to 0xffffffff");
      const auto dword = static_cast<std::uint32_t>(*value);
      const auto* p = reinterpret_cast<const BYTE*>(&dword);
      bytes.assign(p, p + sizeof dword);
      return true;
    }
    case REG_QWORD: {
      const auto value = ParseUnsigned(data.empty() ? "0" : data, ~std::uint64_t{0});
      if (!value) return invalid("expected a decimal or 0x hexadecimal number of 64 bits");
      const auto* p = reinterpret_cast<const BYTE*>(&*value);
      bytes.assign(p, p + sizeof(std::uint64_t));
      return true;
    }
    default: {
      auto hex = ParseHex(data);
      if (!hex) return invalid("expected an even number of hexadecimal digits");
      bytes = std::move(*hex);
      return true;
    }
  }
}

int RunAdd(const RegRequest& request) {
  const std::optional<KeyName> name = ParseKeyName(request.key);
  if (!name) return Refuse(kInvalidKeyName);

  const bool hasType = request.typeOption->count() > 0;
  const bool hasData = request.dataOption->count() > 0;
  if (!request.NamesValue() && (hasType || hasData)) {
    return Refuse("ERROR: Invalid syntax. /t and /d need /v NAME or /ve.");
  }

  std::vector<BYTE> bytes;
  DWORD type = REG_SZ;
  if (request.NamesValue()) {
    const std::string typeName = hasType ? Unmark(request.type) : "REG_SZ";
    bool known = false;
    for (std::size_t i = 0; i < kWritableTypes; ++i) {
      if (EqualsAsciiNoCase(typeName, kTypeNames[i].name)) {
        type = kTypeNames[i].type;
        known = true;
      }
    }
    if (!known) return Refuse("ERROR: Invalid syntax. Unknown type '" + typeName + "'.");
    std::string error;
    if (!EncodeData(type, TypeToText(type), Unmark(request.data), Unmark(request.separator), bytes,
                    error)) {
      return Refuse(error);
    }
  }

  const std::optional<std::u16string> valueName = request.Name();
  if (request.NamesValue() && !request.force) {
    UniqueRegKey existing;
    LSTATUS rc = OpenKey(*name, KEY_QUERY_VALUE, existing);
    if (rc == ERROR_SUCCESS) {
      DWORD size = 0;
      rc = platform::RegQueryValueExW(existing.get(), NameOrNull(valueName), nullptr, nullptr,
                                      nullptr, &size);
      if (rc == ERROR_SUCCESS &&
          !Confirm("Value " + request.ShownName() + " exists, overwrite(Yes/No)? ")) {
        return Cancelled();
      }
    }
    if (rc != ERROR_SUCCESS && rc != ERROR_FILE_NOT_FOUND) return Fail(rc);
  }

  UniqueRegKey key;
  LSTATUS rc = name->subKey.empty()
                   ? OpenKey(*name, KEY_SET_VALUE, key)
                   : platform::RegCreateKeyExW(name->root, name->subKey.c_str(), 0, nullptr,
                                               REG_OPTION_NON_VOLATILE, KEY_SET_VALUE, nullptr,
                                               key.put(), nullptr);
  if (rc != ERROR_SUCCESS) return Fail(rc);
  if (request.NamesValue()) {
    rc = platform::RegSetValueExW(key.get(), NameOrNull(valueName), 0, type, bytes.data(),
                                  static_cast<DWORD>(bytes.size()));
    if (rc != ERROR_SUCCESS) return Fail(rc);
  }
  PrintLine(stdout, kCompleted);
  return 0;
}

// --- delete ---

int RunDelete(const RegRequest& request) {
  const std::optional<KeyName> name = ParseKeyName(request.key);
  if (!name) return Refuse(kInvalidKeyName);
  const bool valuesOnly = request.NamesValue() || request.allValues;
  // Deleting a root would take the whole of it; the reg tool never allows that.
  if (name->subKey.empty() && !valuesOnly) return Refuse(kInvalidKeyName);

  UniqueRegKey key;
  LSTATUS rc = OpenKey(*name, KEY_READ | KEY_SET_VALUE, key);
  if (rc != ERROR_SUCCESS) return Fail(rc);

  if (request.NamesValue()) {
    const std::optional<std::u16string> valueName = request.Name();
    DWORD size = 0;
    rc = platform::RegQueryValueExW(key.get(), NameOrNull(valueName), nullptr, nullptr, nullptr,
                                    &size);
    if (rc != ERROR_SUCCESS) return Fail(rc);
    if (!request.force &&
        !Confirm("Delete the registry value " + request.ShownName() + " (Yes/No)? ")) {
      return Cancelled();
    }
    rc = platform::RegDeleteValueW(key.get(), NameOrNull(valueName));
  } else if (request.allValues) {
    if (!request.force && !Confirm("Delete all values under the registry key " +
                                   ToUtf8(name->display) + " (Yes/No)? ")) {
      return Cancelled();
    }
    std::vector<ValueEntry> values;
    rc = ListValues(key.get(), values);
    for (std::size_t i = 0; rc == ERROR_SUCCESS && i < values.size(); ++i) {
      rc = platform::RegDeleteValueW(key.get(),
                                     values[i].name.empty() ? nullptr : values[i].name.c_str());
      if (rc == ERROR_FILE_NOT_FOUND) rc = ERROR_SUCCESS;
    }
  } else {
    if (!request.force &&
        !Confirm("Permanently delete the registry key " + ToUtf8(name->display) + " (Yes/No)? ")) {
      return Cancelled();
    }
    key.reset();
    rc = platform::RegDeleteTreeW(name->root, name->subKey.c_str());
  }
  if (rc != ERROR_SUCCESS) return Fail(rc);
  PrintLine(stdout, kCompleted);
  return 0;
}

// Declares a verb with the key and the value switches that all verbs share. Each verb fills a
// request of its own, so the options of one never show in another.
CLI::App* AddVerb(CLI::App& reg, const std::string& verb, const std::string& usage,
                  const std::shared_ptr<RegRequest>& request) {
  CLI::App* command = reg.add_subcommand(verb, usage)->ignore_case();
  command->add_option("KEY", request->key, "HKCU, HKLM or HKCR (or the long names), \\ and a path")
      ->required();
  request->valueOption =
      command->add_option("--v", request->valueName, "/v NAME: the value")->option_text("NAME");
  command->add_flag("--ve", request->defaultValue, "/ve: the default value (no name)")
      ->excludes(request->valueOption);
  return command;
}

}  // namespace

std::optional<std::uint64_t> ParseUnsigned(std::string_view text, std::uint64_t maximum) {
  int base = 10;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    text.remove_prefix(2);
    base = 16;
  }
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  if (text.empty() || error != std::errc() || end != text.data() + text.size() || value > maximum) {
    return std::nullopt;
  }
  return value;
}

bool EqualsAsciiNoCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
    if (lower(a[i]) != lower(b[i])) return false;
  }
  return true;
}

std::vector<std::string> TranslateRegSwitches(std::vector<std::string> args) {
  if (args.empty() || !EqualsAsciiNoCase(args[0], "reg")) return args;
  std::vector<std::string> out;
  out.reserve(args.size());
  out.push_back(args[0]);
  for (std::size_t i = 1; i < args.size(); ++i) {
    const RegSwitch* found = FindSwitch(args[i]);
    if (found == nullptr) {
      out.push_back(args[i]);
      continue;
    }
    std::string option = "--" + std::string(found->name);
    // Without a following token the bare option stays, and CLI11 reports the missing value.
    if (found->takesValue && i + 1 < args.size()) {
      option += "=" + std::string(1, kValueMark) + args[++i];
    }
    out.push_back(std::move(option));
  }
  return out;
}

void AddRegCommand(CLI::App& app, int* status) {
  CLI::App* reg = app.add_subcommand(
      "reg", "Query, add and delete registry keys and values; switches as in Windows' reg");
  reg->ignore_case()->require_subcommand(1);

  auto query = std::make_shared<RegRequest>();
  CLI::App* queryCommand = AddVerb(*reg, "query", "Show a key's values and subkeys", query);
  queryCommand->add_flag("--s", query->recursive, "/s: every key below as well");
  queryCommand->callback([query, status] { *status = RunQuery(*query); });

  auto add = std::make_shared<RegRequest>();
  CLI::App* addCommand = AddVerb(*reg, "add", "Create a key, or write a value", add);
  add->typeOption = addCommand
                        ->add_option("--t", add->type,
                                     "/t TYPE: REG_SZ (default), REG_EXPAND_SZ, REG_MULTI_SZ, "
                                     "REG_DWORD, REG_QWORD, REG_BINARY, REG_NONE")
                        ->option_text("TYPE");
  add->dataOption =
      addCommand->add_option("--d", add->data, "/d DATA: the data")->option_text("DATA");
  addCommand->add_option("--se", add->separator, "/se SEP: separator of REG_MULTI_SZ (default \\0)")
      ->option_text("SEP");
  addCommand->add_flag("--f", add->force, "/f: overwrite without asking");
  addCommand->callback([add, status] { *status = RunAdd(*add); });

  auto remove = std::make_shared<RegRequest>();
  CLI::App* deleteCommand =
      AddVerb(*reg, "delete", "Delete a key with its subkeys, or values", remove);
  deleteCommand->add_flag("--va", remove->allValues, "/va: every value of the key (subkeys stay)")
      ->excludes(remove->valueOption)
      ->excludes("--ve");
  deleteCommand->add_flag("--f", remove->force, "/f: delete without asking");
  deleteCommand->callback([remove, status] { *status = RunDelete(*remove); });
}

void ReportRegistryError(LSTATUS error) {
  if (error == ERROR_FILE_NOT_FOUND) {
    PrintLine(stderr, kNotFound);
  } else {
    char16_t buffer[512] = {};
    const DWORD length =
        platform::FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                                 nullptr, static_cast<DWORD>(error), 0, buffer, 512);
    std::u16string_view text(buffer, std::min<std::size_t>(length, std::size(buffer)));
    while (!text.empty() && (text.back() == u'\r' || text.back() == u'\n' || text.back() == u' ')) {
      text.remove_suffix(1);
    }
    std::string line = "ERROR: ";
    if (text.empty()) {
      line += "Registry error " + std::to_string(error) + ".";
    } else {
      line += ToUtf8(text);
    }
    PrintLine(stderr, line);
  }
  const std::u16string problem = platform::RegHiveProblem();
  if (!problem.empty()) PrintLine(stderr, ToUtf8(problem));
}

}  // namespace mrwl
