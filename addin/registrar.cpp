// The registrar: a script is read whole into a tree of keys first, so that a script with a fault
// writes nothing, and then written or removed through the platform registry.

#include "addin/registrar.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <span>
#include <utility>

namespace mrwl {

template <typename T>
using Vec = std::vector<T, MemAllocator<T>>;

namespace {

constexpr std::u16string_view kPerUserOpening = u"HKCU\r\n{\tSoftware\r\n\t{\r\n\t\tClasses";
constexpr std::u16string_view kPerUserClosing = u"\r\n\t}\r\n}\r\n";

// Reading, writing and deleting below the key; the Windows registry wants the DELETE right
// (0x00010000) on the parent for RegDeleteTreeW.
constexpr REGSAM kKeyAccess = KEY_READ | KEY_WRITE | 0x00010000u;

bool IsSpace(char16_t c) {
  return c == u' ' || c == u'\t' || c == u'\r' || c == u'\n' || c == u'\v' || c == u'\f';
}

char16_t FoldAscii(char16_t c) {
  return c >= u'A' && c <= u'Z' ? static_cast<char16_t>(c - u'A' + u'a') : c;
}

bool EqualsNoCase(std::u16string_view a, std::u16string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (FoldAscii(a[i]) != FoldAscii(b[i])) return false;
  }
  return true;
}

// Appends text, throwing on exhaustion so that the caller's catch turns it into E_OUTOFMEMORY.
void Add(WideString& text, std::u16string_view part) {
  if (!text.Append(part)) throw std::bad_alloc();
}

void AddNumber(WideString& text, std::uint64_t number) {
  char16_t digits[24];
  std::size_t at = std::size(digits);
  do {
    digits[--at] = static_cast<char16_t>(u'0' + number % 10);
    number /= 10;
  } while (number != 0);
  Add(text, std::u16string_view(digits + at, std::size(digits) - at));
}

// A stretch of a rewritten script that the original did not have; its line breaks do not count,
// so that lines keep the numbers they have in the script as written.
struct Inserted {
  std::size_t begin;
  std::size_t end;
};

HKEY RootOf(std::u16string_view name) {
  if (EqualsNoCase(name, u"HKCR") || EqualsNoCase(name, u"HKEY_CLASSES_ROOT")) {
    return HKEY_CLASSES_ROOT;
  }
  if (EqualsNoCase(name, u"HKCU") || EqualsNoCase(name, u"HKEY_CURRENT_USER")) {
    return HKEY_CURRENT_USER;
  }
  if (EqualsNoCase(name, u"HKLM") || EqualsNoCase(name, u"HKEY_LOCAL_MACHINE")) {
    return HKEY_LOCAL_MACHINE;
  }
  return nullptr;
}

std::u16string_view RootName(HKEY root) {
  if (root == HKEY_CLASSES_ROOT) return u"HKCR";
  if (root == HKEY_CURRENT_USER) return u"HKCU";
  return u"HKLM";
}

enum class TokenKind { kEnd, kWord, kQuoted, kOpen, kClose, kEquals };

struct Token {
  TokenKind kind = TokenKind::kEnd;
  std::u16string_view raw;  // a quoted token without its quotes, its inner quotes still doubled
  std::size_t begin = 0;    // the token's place in the text, quotes included
  std::size_t end = 0;
  int line = 1;
};

// Splits a script at white space; a token in single quotes may hold white space.
class Tokenizer {
 public:
  explicit Tokenizer(std::u16string_view text, std::span<const Inserted> inserted = {})
      : text_(text), inserted_(inserted) {}

  // The next token; false with `error` set when a quoted name is not closed properly.
  bool Next(Token& token, WideString& error) {
    while (pos_ < text_.size() && IsSpace(text_[pos_])) Advance();
    token = Token{};
    token.begin = pos_;
    token.line = line_;
    if (pos_ == text_.size()) {
      token.end = pos_;
      return true;
    }
    if (text_[pos_] == u'\'') {
      Advance();
      const std::size_t start = pos_;
      for (;;) {
        if (pos_ == text_.size()) {
          return Fail(error, token.line, u"a quoted name has no closing quote");
        }
        if (text_[pos_] == u'\'') {
          if (pos_ + 1 < text_.size() && text_[pos_ + 1] == u'\'') {
            Advance();
            Advance();
            continue;
          }
          break;
        }
        Advance();
      }
      token.kind = TokenKind::kQuoted;
      token.raw = text_.substr(start, pos_ - start);
      Advance();
      token.end = pos_;
      if (pos_ < text_.size() && !IsSpace(text_[pos_])) {
        return Fail(error, line_, u"a closing quote must be followed by white space");
      }
      return true;
    }
    while (pos_ < text_.size() && !IsSpace(text_[pos_])) Advance();
    token.end = pos_;
    token.raw = text_.substr(token.begin, pos_ - token.begin);
    if (token.raw == u"{") {
      token.kind = TokenKind::kOpen;
    } else if (token.raw == u"}") {
      token.kind = TokenKind::kClose;
    } else if (token.raw == u"=") {
      token.kind = TokenKind::kEquals;
    } else {
      token.kind = TokenKind::kWord;
    }
    return true;
  }

 private:
  static bool Fail(WideString& error, int line, std::u16string_view text) {
    error.Clear();
    Add(error, u"line ");
    AddNumber(error, static_cast<std::uint64_t>(line));
    Add(error, u": ");
    Add(error, text);
    return false;
  }

  void Advance() {
    if (text_[pos_] == u'\n' && !IsInserted(pos_)) ++line_;
    ++pos_;
  }

  bool IsInserted(std::size_t at) const {
    for (const Inserted& range : inserted_) {
      if (at >= range.begin && at < range.end) return true;
    }
    return false;
  }

  std::u16string_view text_;
  std::span<const Inserted> inserted_;
  std::size_t pos_ = 0;
  int line_ = 1;
};

// Rewrites every HKCR root block for a per-user registration, noting where text was inserted.
// False when memory runs out.
bool Rewrite(std::u16string_view script, WideString& result, Vec<Inserted>* inserted) {
  result.Clear();
  Tokenizer tokenizer(script);
  WideString error;
  Token token;
  std::size_t copied = 0;
  int depth = 0;
  bool rewriting = false;
  auto insert = [&](std::u16string_view text) {
    const std::size_t begin = result.Length();
    Add(result, text);
    if (inserted != nullptr) inserted->push_back({begin, result.Length()});
  };
  while (tokenizer.Next(token, error) && token.kind != TokenKind::kEnd) {
    if (depth == 0 && token.kind == TokenKind::kWord && RootOf(token.raw) == HKEY_CLASSES_ROOT) {
      Add(result, script.substr(copied, token.begin - copied));
      insert(kPerUserOpening);
      copied = token.end;
      rewriting = true;
    } else if (token.kind == TokenKind::kOpen) {
      ++depth;
    } else if (token.kind == TokenKind::kClose && depth > 0 && --depth == 0 && rewriting) {
      Add(result, script.substr(copied, token.end - copied));
      insert(kPerUserClosing);
      copied = token.end;
      rewriting = false;
    }
  }
  Add(result, script.substr(copied));
  return true;
}

enum class KeyFlag { kNone, kForceRemove, kNoRemove, kDelete };

struct ScriptValue {
  WideString name;  // empty: the key's default value
  DWORD type = REG_SZ;
  Vec<BYTE> data;
  int line = 0;
};

struct ScriptKey {
  WideString name;
  KeyFlag flag = KeyFlag::kNone;
  int line = 0;
  Vec<ScriptValue> values;
  Vec<ScriptKey> subkeys;
};

struct ScriptRoot {
  HKEY key = nullptr;
  Vec<ScriptKey> keys;
};

class Parser {
 public:
  Parser(std::u16string_view text, std::span<const Inserted> inserted,
         std::span<const Registrar::Replacement> replacements, WideString& error)
      : tokenizer_(text, inserted), replacements_(replacements), error_(error) {}

  // The roots of the whole script; false with the error set at the first fault.
  bool Parse(Vec<ScriptRoot>& roots) {
    Token token;
    for (;;) {
      if (!Fetch(token)) return false;
      if (token.kind == TokenKind::kEnd) return true;
      if (token.kind == TokenKind::kClose) return Fail(token.line, {u"'}' closes no block"});
      const HKEY key = token.kind == TokenKind::kWord ? RootOf(token.raw) : nullptr;
      if (key == nullptr) {
        return Fail(token.line, {u"'", token.raw, u"' is no root key (HKCR, HKCU or HKLM)"});
      }
      const Token rootToken = token;
      if (!Fetch(token)) return false;
      if (token.kind != TokenKind::kOpen) {
        return Fail(token.line, {u"'{' is expected after ", rootToken.raw});
      }
      roots.emplace_back();
      roots.back().key = key;
      if (!ParseEntries(token.line, roots.back().keys, nullptr)) return false;
    }
  }

 private:
  bool Fail(int line, std::initializer_list<std::u16string_view> parts) {
    error_.Clear();
    Add(error_, u"line ");
    AddNumber(error_, static_cast<std::uint64_t>(line));
    Add(error_, u": ");
    for (std::u16string_view part : parts) Add(error_, part);
    return false;
  }

  bool Fetch(Token& token) {
    if (hasPending_) {
      token = pending_;
      hasPending_ = false;
      return true;
    }
    return tokenizer_.Next(token, error_);
  }
  void PutBack(const Token& token) {
    pending_ = token;
    hasPending_ = true;
  }

  // The text of a name or data token, with doubled quotes made single and every %NAME%
  // replaced.
  bool Expand(const Token& token, WideString& out) {
    out.Clear();
    const std::u16string_view raw = token.raw;
    for (std::size_t i = 0; i < raw.size(); ++i) {
      const char16_t c = raw[i];
      if (c == u'\'' && token.kind == TokenKind::kQuoted) {
        ++i;  // the tokenizer let only doubled quotes through
        Add(out, u"'");
      } else if (c == u'%') {
        const std::size_t close = raw.find(u'%', i + 1);
        if (close == std::u16string_view::npos) {
          return Fail(token.line, {u"'%' without its closing '%' in '", raw, u"'"});
        }
        const std::u16string_view name = raw.substr(i + 1, close - i - 1);
        if (name.empty()) {
          Add(out, u"%");
        } else {
          const Registrar::Replacement* found = nullptr;
          for (const Registrar::Replacement& replacement : replacements_) {
            if (EqualsNoCase(replacement.name.view(), name)) found = &replacement;
          }
          if (found == nullptr) {
            return Fail(token.line, {u"nothing to replace %", name, u"% with"});
          }
          Add(out, found->value.view());
        }
        i = close;
      } else {
        Add(out, std::u16string_view(&c, 1));
      }
    }
    return true;
  }

  bool IsName(const Token& token) {
    return token.kind == TokenKind::kWord || token.kind == TokenKind::kQuoted;
  }

  // The entries of a block up to its closing brace: keys, and values where `values` is given.
  bool ParseEntries(int openLine, Vec<ScriptKey>& keys, Vec<ScriptValue>* values) {
    Token token;
    for (;;) {
      if (!Fetch(token)) return false;
      if (token.kind == TokenKind::kClose) return true;
      if (token.kind == TokenKind::kEnd) {
        WideString opened;
        AddNumber(opened, static_cast<std::uint64_t>(openLine));
        return Fail(token.line, {u"the script ends inside the block opened on line ", opened});
      }
      if (!IsName(token)) {
        return Fail(token.line, {u"a key name is expected, not '", token.raw, u"'"});
      }
      if (token.kind == TokenKind::kWord && EqualsNoCase(token.raw, u"val")) {
        if (values == nullptr) return Fail(token.line, {u"a root key has no values"});
        if (!ParseNamedValue(*values)) return false;
        continue;
      }
      KeyFlag flag = KeyFlag::kNone;
      if (token.kind == TokenKind::kWord) {
        if (EqualsNoCase(token.raw, u"ForceRemove")) flag = KeyFlag::kForceRemove;
        if (EqualsNoCase(token.raw, u"NoRemove")) flag = KeyFlag::kNoRemove;
        if (EqualsNoCase(token.raw, u"Delete")) flag = KeyFlag::kDelete;
      }
      if (flag != KeyFlag::kNone) {
        const Token flagToken = token;
        if (!Fetch(token)) return false;
        if (!IsName(token)) {
          return Fail(token.line, {u"a key name is expected after ", flagToken.raw});
        }
      }
      if (!ParseKey(token, flag, keys)) return false;
    }
  }

  bool ParseKey(const Token& nameToken, KeyFlag flag, Vec<ScriptKey>& keys) {
    ScriptKey key;
    key.flag = flag;
    key.line = nameToken.line;
    if (!Expand(nameToken, key.name)) return false;
    if (key.name.IsEmpty()) return Fail(nameToken.line, {u"a key name is empty"});
    // One name is one key: a path would leave keys behind that unregistration cannot see.
    if (key.name.view().find(u'\\') != std::u16string_view::npos) {
      return Fail(nameToken.line, {u"the key name '", key.name.view(), u"' holds a backslash"});
    }
    Token token;
    if (!Fetch(token)) return false;
    if (token.kind == TokenKind::kEquals) {
      ScriptValue value;
      value.line = token.line;
      if (!ParseData(key.name.view(), value)) return false;
      key.values.push_back(std::move(value));
      if (!Fetch(token)) return false;
    }
    if (token.kind == TokenKind::kOpen) {
      if (!ParseEntries(token.line, key.subkeys, &key.values)) return false;
    } else {
      PutBack(token);
    }
    keys.push_back(std::move(key));
    return true;
  }

  // "val NAME = TYPE DATA", after "val".
  bool ParseNamedValue(Vec<ScriptValue>& values) {
    Token token;
    if (!Fetch(token)) return false;
    if (!IsName(token)) return Fail(token.line, {u"a value name is expected after val"});
    ScriptValue value;
    value.line = token.line;
    if (!Expand(token, value.name)) return false;
    if (value.name.IsEmpty()) return Fail(token.line, {u"a value name is empty"});
    if (!Fetch(token)) return false;
    if (token.kind != TokenKind::kEquals) {
      return Fail(token.line, {u"'=' is expected after the value name ", value.name.view()});
    }
    if (!ParseData(value.name.view(), value)) return false;
    values.push_back(std::move(value));
    return true;
  }

  // "TYPE DATA" after "=".
  bool ParseData(std::u16string_view owner, ScriptValue& value) {
    Token type;
    if (!Fetch(type)) return false;
    if (type.kind != TokenKind::kWord) {
      return Fail(type.line, {u"a value type is expected for ", owner});
    }
    Token data;
    if (!Fetch(data)) return false;
    if (!IsName(data)) return Fail(data.line, {u"the value of ", owner, u" has no data"});
    WideString text;
    if (!Expand(data, text)) return false;
    if (EqualsNoCase(type.raw, u"s")) {
      value.type = REG_SZ;
      const auto* bytes = reinterpret_cast<const BYTE*>(text.c_str());
      value.data.assign(bytes, bytes + (text.Length() + 1) * sizeof(char16_t));
      return true;
    }
    if (EqualsNoCase(type.raw, u"d")) {
      std::uint64_t number = 0;
      if (!ParseDword(text.view(), number)) {
        return Fail(data.line, {u"'", text.view(), u"' is no DWORD"});
      }
      value.type = REG_DWORD;
      const DWORD dword = static_cast<DWORD>(number);
      value.data.resize(sizeof dword);
      std::memcpy(value.data.data(), &dword, sizeof dword);
      return true;
    }
    if (EqualsNoCase(type.raw, u"b")) {
      value.type = REG_BINARY;
      if (!ParseBytes(text.view(), value.data)) {
        return Fail(data.line, {u"'", text.view(), u"' is no byte string (pairs of hex digits)"});
      }
      return true;
    }
    return Fail(type.line, {u"'", type.raw, u"' is no value type (s, d or b)"});
  }

  static int HexDigit(char16_t c) {
    if (c >= u'0' && c <= u'9') return c - u'0';
    if (c >= u'a' && c <= u'f') return c - u'a' + 10;
    if (c >= u'A' && c <= u'F') return c - u'A' + 10;
    return -1;
  }

  // Decimal, or hexadecimal after 0x; at most 0xFFFFFFFF.
  static bool ParseDword(std::u16string_view text, std::uint64_t& number) {
    unsigned base = 10;
    if (text.size() > 2 && text[0] == u'0' && FoldAscii(text[1]) == u'x') {
      base = 16;
      text.remove_prefix(2);
    }
    if (text.empty()) return false;
    number = 0;
    for (char16_t c : text) {
      const int digit = HexDigit(c);
      if (digit < 0 || static_cast<unsigned>(digit) >= base) return false;
      number = number * base + static_cast<unsigned>(digit);
      if (number > 0xFFFFFFFFu) return false;
    }
    return true;
  }

  static bool ParseBytes(std::u16string_view text, Vec<BYTE>& bytes) {
    if (text.size() % 2 != 0) return false;
    bytes.clear();
    for (std::size_t i = 0; i < text.size(); i += 2) {
      const int high = HexDigit(text[i]);
      const int low = HexDigit(text[i + 1]);
      if (high < 0 || low < 0) return false;
      bytes.push_back(static_cast<BYTE>(high * 16 + low));
    }
    return true;
  }

  Tokenizer tokenizer_;
  std::span<const Registrar::Replacement> replacements_;
  WideString& error_;
  Token pending_;
  bool hasPending_ = false;
};

}  // namespace

// Writes or removes the keys of a parsed script, noting the first failure in the registrar.
class ScriptRunner {
 public:
  explicit ScriptRunner(Registrar& registrar) : registrar_(registrar) {}

  HRESULT Register(const Vec<ScriptRoot>& roots) {
    for (const ScriptRoot& root : roots) {
      for (const ScriptKey& key : root.keys) {
        const HRESULT result = RegisterKey(root.key, root.key, WideString(), key);
        if (FAILED(result)) return result;
      }
    }
    return S_OK;
  }

  HRESULT Unregister(const Vec<ScriptRoot>& roots) {
    for (const ScriptRoot& root : roots) {
      for (const ScriptKey& key : root.keys) UnregisterKey(root.key, root.key, WideString(), key);
    }
    return first_;
  }

 private:
  static WideString Join(const WideString& path, const WideString& name) {
    WideString joined = path;
    if (!joined.IsEmpty()) Add(joined, u"\\");
    Add(joined, name.view());
    return joined;
  }

  // Notes a registry failure with what was being done; returns its HRESULT.
  HRESULT Fail(LSTATUS status, int line, std::u16string_view action, HKEY root,
               const WideString& path, std::u16string_view valueName = {}) {
    const HRESULT result = HRESULT_FROM_WIN32(static_cast<unsigned long>(status));
    if (SUCCEEDED(first_)) {
      first_ = result;
      WideString& error = registrar_.lastError_;
      error.Clear();
      Add(error, u"line ");
      AddNumber(error, static_cast<std::uint64_t>(line));
      Add(error, u": cannot ");
      Add(error, action);
      Add(error, u" ");
      if (!valueName.empty()) {
        Add(error, valueName);
        Add(error, u" of ");
      }
      Add(error, RootName(root));
      Add(error, u"\\");
      Add(error, path.view());
      Add(error, u" (error ");
      AddNumber(error, static_cast<std::uint64_t>(status));
      Add(error, u")");
    }
    return result;
  }

  static const char16_t* ValueNameOf(const ScriptValue& value) {
    return value.name.IsEmpty() ? nullptr : value.name.c_str();
  }

  HRESULT RegisterKey(HKEY root, HKEY parent, const WideString& parentPath, const ScriptKey& key) {
    const WideString path = Join(parentPath, key.name);
    if (key.flag == KeyFlag::kDelete || key.flag == KeyFlag::kForceRemove) {
      const LSTATUS status = platform::RegDeleteTreeW(parent, key.name.c_str());
      if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND) {
        return Fail(status, key.line, u"delete", root, path);
      }
      if (key.flag == KeyFlag::kDelete) return S_OK;
    }
    UniqueRegKey handle;
    DWORD disposition = 0;
    LSTATUS status =
        platform::RegCreateKeyExW(parent, key.name.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                                  kKeyAccess, nullptr, handle.put(), &disposition);
    if (status != ERROR_SUCCESS) return Fail(status, key.line, u"create", root, path);
    const bool created = disposition == REG_CREATED_NEW_KEY;
    if (created) registrar_.written_.push_back({root, path, false, WideString()});
    for (const ScriptValue& value : key.values) {
      const char16_t* name = ValueNameOf(value);
      if (!created && platform::RegQueryValueExW(handle.get(), name, nullptr, nullptr, nullptr,
                                                 nullptr) == ERROR_FILE_NOT_FOUND) {
        registrar_.written_.push_back({root, path, true, value.name});
      }
      status = platform::RegSetValueExW(handle.get(), name, 0, value.type, value.data.data(),
                                        static_cast<DWORD>(value.data.size()));
      if (status != ERROR_SUCCESS) {
        return Fail(status, value.line, u"write", root, path,
                    value.name.IsEmpty() ? u"the default value" : value.name.view());
      }
    }
    for (const ScriptKey& subkey : key.subkeys) {
      const HRESULT result = RegisterKey(root, handle.get(), path, subkey);
      if (FAILED(result)) return result;
    }
    return S_OK;
  }

  void UnregisterKey(HKEY root, HKEY parent, const WideString& parentPath, const ScriptKey& key) {
    if (key.flag == KeyFlag::kDelete) return;
    const WideString path = Join(parentPath, key.name);
    LSTATUS status;
    if (key.flag == KeyFlag::kForceRemove) {
      status = platform::RegDeleteTreeW(parent, key.name.c_str());
      if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND) {
        (void)Fail(status, key.line, u"delete", root, path);
      }
      return;
    }
    UniqueRegKey handle;
    status = platform::RegOpenKeyExW(parent, key.name.c_str(), 0, kKeyAccess, handle.put());
    if (status == ERROR_FILE_NOT_FOUND) return;
    if (status != ERROR_SUCCESS) {
      (void)Fail(status, key.line, u"open", root, path);
      return;
    }
    for (const ScriptKey& subkey : key.subkeys) UnregisterKey(root, handle.get(), path, subkey);
    for (const ScriptValue& value : key.values) {
      status = platform::RegDeleteValueW(handle.get(), ValueNameOf(value));
      if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND) {
        (void)Fail(status, value.line, u"delete", root, path,
                   value.name.IsEmpty() ? u"the default value" : value.name.view());
      }
    }
    if (key.flag == KeyFlag::kNoRemove) return;
    // Others may keep values or keys of their own here; then the key stays theirs.
    DWORD subkeys = 0;
    DWORD values = 0;
    status = platform::RegQueryInfoKeyW(handle.get(), nullptr, nullptr, nullptr, &subkeys, nullptr,
                                        nullptr, &values, nullptr, nullptr, nullptr, nullptr);
    handle.reset();
    if (status != ERROR_SUCCESS) {
      (void)Fail(status, key.line, u"read", root, path);
      return;
    }
    if (subkeys != 0 || values != 0) return;
    status = platform::RegDeleteTreeW(parent, key.name.c_str());
    if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND) {
      (void)Fail(status, key.line, u"delete", root, path);
    }
  }

  Registrar& registrar_;
  HRESULT first_ = S_OK;
};

bool RewriteForPerUser(std::u16string_view script, WideString& result) noexcept {
  try {
    return Rewrite(script, result, nullptr);
  } catch (...) {
    return false;
  }
}

bool Registrar::AddReplacement(std::u16string_view name, std::u16string_view value) noexcept {
  try {
    Replacement replacement;
    Add(replacement.name, name);
    Add(replacement.value, value);
    replacements_.push_back(std::move(replacement));
    return true;
  } catch (...) {
    return false;
  }
}

HRESULT Registrar::Register(std::u16string_view script) noexcept {
  HRESULT result;
  try {
    result = Run(script, true);
  } catch (...) {
    result = E_OUTOFMEMORY;
    lastError_.Clear();
    (void)lastError_.Append(u"out of memory");
  }
  if (FAILED(result)) TakeBack();
  return result;
}

HRESULT Registrar::Unregister(std::u16string_view script) noexcept {
  try {
    return Run(script, false);
  } catch (...) {
    lastError_.Clear();
    (void)lastError_.Append(u"out of memory");
    return E_OUTOFMEMORY;
  }
}

HRESULT Registrar::Run(std::u16string_view script, bool doRegister) {
  lastError_.Clear();
  // The script as written is read first, so that a fault names the line its author sees.
  Vec<ScriptRoot> roots;
  if (!Parser(script, {}, replacements_, lastError_).Parse(roots)) return kRegistrarScriptError;
  if (perUser_) {
    WideString rewritten;
    Vec<Inserted> inserted;
    (void)Rewrite(script, rewritten, &inserted);
    roots.clear();
    if (!Parser(rewritten.view(), inserted, replacements_, lastError_).Parse(roots)) {
      return kRegistrarScriptError;
    }
  }
  ScriptRunner runner(*this);
  return doRegister ? runner.Register(roots) : runner.Unregister(roots);
}

void Registrar::TakeBack() noexcept {
  // Latest first: a value added to a key goes before the key that a later step created.
  for (auto it = written_.rbegin(); it != written_.rend(); ++it) {
    if (!it->isValue) {
      (void)platform::RegDeleteTreeW(it->root, it->path.c_str());
      continue;
    }
    UniqueRegKey key;
    if (platform::RegOpenKeyExW(it->root, it->path.c_str(), 0, KEY_SET_VALUE, key.put()) ==
        ERROR_SUCCESS) {
      (void)platform::RegDeleteValueW(key.get(),
                                      it->valueName.IsEmpty() ? nullptr : it->valueName.c_str());
    }
  }
  written_.clear();
}

}  // namespace mrwl
