#include "foundation/paths.h"

#include <atomic>
#include <string>

#include "platform/files.h"
#include "platform/kernel.h"
#include "platform/shell.h"
#include "platform/unique_any.h"

namespace mrwl {
namespace {

// Paths of the classic file functions end at 260 units with the terminator; from 248 on, a
// folder could no longer take an 8.3 name below it, so the long form starts there.
constexpr std::size_t kLongPathThreshold = 248;
// The fallback low-integrity folder is built only below this length, so that the whole stays
// within the classic limit.
constexpr std::size_t kLowFolderBaseLimit = 249;
// PathCombineW's buffer: MAX_PATH units and the terminator.
constexpr std::size_t kCombineBufferLength = 261;
// Sub-authority of the mandatory label from which a token is no longer low integrity.
constexpr DWORD kMediumIntegrityFloor = 0x1001;

std::atomic<TempFolderHook> gTempFolderHook{nullptr};

bool IsSeparator(char16_t c) noexcept { return c == u'/' || c == u'\\'; }

bool IsAsciiLetter(char16_t c) noexcept {
  return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z');
}

bool HasDrive(std::u16string_view path) noexcept {
  return path.size() >= 2 && IsAsciiLetter(path[0]) && path[1] == u':';
}

bool IsLowIntegrity() noexcept {
  // A token's label cannot change for the life of the process, so the answer is asked once.
  static const bool low = [] {
    DWORD level = 0;
    return platform::GetTokenIntegrityLevel(&level) && level < kMediumIntegrityFloor;
  }();
  return low;
}

bool BuiltInTempFolder(WideString& result) noexcept {
  return internal::GetTempFolderAt(IsLowIntegrity(), result);
}

// The separator a path already uses, so that what is added matches it; the system's own for a
// text without any.
char16_t SeparatorOf(std::u16string_view a, std::u16string_view b) noexcept {
  for (std::u16string_view text : {a, b}) {
    for (char16_t c : text) {
      if (IsSeparator(c)) return c;
    }
  }
  return platform::PathSeparator();
}

// The length of the part of `path` that ".." may not climb above: "X:\", "X:", "\\server\",
// "\" or nothing.
std::size_t RootLength(std::u16string_view path) noexcept {
  if (HasDrive(path)) return path.size() > 2 && IsSeparator(path[2]) ? 3 : 2;
  if (path.size() >= 2 && IsSeparator(path[0]) && IsSeparator(path[1])) {
    std::size_t i = 2;
    while (i < path.size() && !IsSeparator(path[i])) ++i;
    return i < path.size() ? i + 1 : i;
  }
  if (!path.empty() && IsSeparator(path[0])) return 1;
  return 0;
}

// Removes "." and ".." segments and doubled separators from `path` into `result`.
bool Canonicalize(std::u16string_view path, char16_t separator, WideString& result) noexcept {
  const std::size_t rootLength = RootLength(path);
  result.Clear();
  if (!result.Reserve(path.size()) || !result.Append(path.substr(0, rootLength))) return false;
  // Where each kept segment began in `result`, separator included, so that ".." can cut it off.
  struct Kept {
    std::size_t cut;
    bool parent;
  };
  Kept kept[kCombineBufferLength];
  std::size_t depth = 0;
  std::size_t i = rootLength;
  while (i < path.size()) {
    std::size_t end = i;
    while (end < path.size() && !IsSeparator(path[end])) ++end;
    const std::u16string_view segment = path.substr(i, end - i);
    i = end + 1;
    if (segment.empty() || segment == u".") continue;
    const bool parent = segment == u"..";
    if (parent && depth > 0 && !kept[depth - 1].parent) {
      result.SetLength(kept[--depth].cut);
      continue;
    }
    // At the root there is nothing above; a relative path keeps what it cannot resolve.
    if (parent && rootLength > 0) continue;
    if (depth >= kCombineBufferLength) return false;
    kept[depth++] = Kept{result.Length(), parent};
    if (result.Length() > rootLength && !result.Append(separator)) return false;
    if (!result.Append(segment)) return false;
  }
  // A path that named a folder by its final separator keeps it.
  if (!path.empty() && IsSeparator(path.back()) && result.Length() > rootLength) {
    if (!result.Append(separator)) return false;
  }
  return true;
}

}  // namespace

namespace internal {

bool GetTempFolderAt(bool lowIntegrity, WideString& result) noexcept {
  result.Clear();
  const char16_t separator = platform::PathSeparator();
  char16_t buffer[MAX_PATH + 1] = {};
  if (!lowIntegrity) {
    const DWORD length = platform::GetTempPathW(MAX_PATH, buffer);
    if (length == 0 || length >= MAX_PATH) return false;
    if (!result.Assign(std::u16string_view(buffer, length))) return false;
    if (!IsSeparator(buffer[length - 1]) && !result.Append(separator)) {
      result.Clear();
      return false;
    }
    return true;
  }
  // A low-integrity process may write only below the local low folder; the usual temporary
  // folder would refuse it.
  if (SUCCEEDED(platform::SHGetKnownFolderPath(platform::KnownFolder::kLocalAppDataLow, buffer,
                                               MAX_PATH)) &&
      buffer[0] != 0) {
    const char16_t tail[] = {separator, u'T', u'e', u'm', u'p', separator};
    if (result.Assign(buffer) && result.Append(std::u16string_view(tail, 6))) return true;
    result.Clear();
    return false;
  }
  buffer[0] = 0;
  if (SUCCEEDED(platform::SHGetFolderPathW(nullptr, CSIDL_LOCAL_APPDATA, nullptr,
                                           SHGFP_TYPE_CURRENT, buffer))) {
    const std::u16string_view base(buffer);
    if (!base.empty() && base.size() < kLowFolderBaseLimit) {
      const char16_t tail[] = {separator, u'T', u'e', u'm', u'p',
                               separator, u'L', u'o', u'w', separator};
      if (result.Assign(base) && result.Append(std::u16string_view(tail, 10))) return true;
      result.Clear();
    }
  }
  return false;
}

}  // namespace internal

bool GetTempFolder(WideString& result) noexcept {
  const TempFolderHook hook = gTempFolderHook.load(std::memory_order_acquire);
  if (hook != nullptr) return hook(result, &BuiltInTempFolder);
  return BuiltInTempFolder(result);
}

TempFolderHook SetTempFolderHook(TempFolderHook hook) noexcept {
  return gTempFolderHook.exchange(hook, std::memory_order_acq_rel);
}

namespace {

// The module folder: worked out on first use, or set by the module entry or a test.
struct ModuleFolderState {
  WideString folder;
  bool known = false;
};

ModuleFolderState& ModuleFolderSlot() noexcept {
  static ModuleFolderState state;
  return state;
}

// The folder of the module that holds this code, from the module file's path. Any object of the
// module tells which module that is; the state itself serves.
void FindModuleFolder(WideString& result) noexcept {
  result.Clear();
  WideString path;
  for (DWORD size = MAX_PATH; size <= 32768; size *= 2) {
    if (!path.Resize(size)) return;
    const DWORD length = platform::GetModuleFileNameForAddress(
        static_cast<const void*>(&ModuleFolderSlot()), path.data(), size);
    if (length == 0) return;
    if (length < size) {
      path.SetLength(length);
      (void)GetParentFolder(path.c_str(), path.Length(), result);
      return;
    }
  }
}

}  // namespace

const WideString& ModuleFolder() noexcept {
  ModuleFolderState& state = ModuleFolderSlot();
  if (!state.known) {
    FindModuleFolder(state.folder);
    state.known = true;
  }
  return state.folder;
}

void SetModuleFolder(std::u16string_view folder) noexcept {
  ModuleFolderState& state = ModuleFolderSlot();
  (void)state.folder.Assign(folder);
  state.known = true;
}

const char16_t* MakeLongPath(const char16_t* path, std::size_t length,
                             WideString& scratch) noexcept {
  if (path == nullptr || length == 0 || length < kLongPathThreshold) return path;
  if (scratch.data() != nullptr && path == scratch.data()) return path;
  std::size_t skip = 0;
  bool network = false;
  if (IsSeparator(path[0])) {
    network = true;
    skip = IsSeparator(path[1]) ? 2 : 1;
  }
  scratch.Clear();
  const bool built = scratch.Reserve(length + 8) && scratch.Append(u"\\\\?\\") &&
                     (!network || scratch.Append(u"UNC\\")) &&
                     scratch.Append(std::u16string_view(path + skip, length - skip));
  return built ? scratch.c_str() : path;
}

bool PathExists(const char16_t* path, platform::FindDataW* findData) noexcept {
  if (path == nullptr) return false;
  const std::u16string_view text(path);
  const bool longPrefix = text.starts_with(u"\\\\?\\");
  for (std::size_t i = 0; i < text.size(); ++i) {
    switch (text[i]) {
      case u'"':
      case u'*':
      case u'<':
      case u'>':
      case u'|':
        return false;
      case u':': {
        const char16_t next = i + 1 < text.size() ? text[i + 1] : u'\0';
        if (next != u'\0' && !IsSeparator(next)) return false;
        break;
      }
      case u'?':
        if (!(longPrefix && i == 2)) return false;
        break;
      default:
        break;
    }
  }
  if (text.size() == 2 && HasDrive(text)) {
    return platform::GetFileAttributesW(path) != INVALID_FILE_ATTRIBUTES;
  }
  // The long form exists for the classic Windows functions; POSIX has no such limit and would
  // read the prefix as part of the name.
  WideString scratch;
  const char16_t* target =
      platform::PathSeparator() == u'\\' ? MakeLongPath(path, text.size(), scratch) : path;
  platform::FindDataW local{};
  UniqueFind find(platform::FindFirstFileW(target, findData != nullptr ? findData : &local));
  if (find) return true;
  // A root, or a folder named with its final separator, has no entry to list; the shell still
  // knows whether it is there.
  if (!text.empty() && IsSeparator(text.back())) {
    platform::ShFileInfoW info{};
    return platform::SHGetFileInfoW(path, 0, &info, sizeof info, SHGFI_ATTRIBUTES) != 0;
  }
  return false;
}

const char16_t* GetPathExtension(const char16_t* path, std::size_t length,
                                 std::size_t* extensionLength) noexcept {
  if (extensionLength != nullptr) *extensionLength = 0;
  if (path == nullptr) return nullptr;
  for (std::size_t i = length; i > 0; --i) {
    const char16_t c = path[i - 1];
    if (c == u'.') {
      if (extensionLength != nullptr) *extensionLength = length - i;
      return path + i;
    }
    if (IsSeparator(c) || c == u':') return nullptr;
  }
  return nullptr;
}

bool GetParentFolder(const char16_t* path, std::size_t length, WideString& result) noexcept {
  result.Clear();
  if (path == nullptr || length == 0) return false;
  std::size_t end = length;
  if (!IsSeparator(path[length - 1])) {
    while (end > 0 && !IsSeparator(path[end - 1])) --end;
    if (end == 0) return false;
  }
  if (result.Assign(std::u16string_view(path, end))) return true;
  result.Clear();
  return false;
}

bool CombinePath(std::u16string_view relative, std::u16string_view base,
                 WideString& result) noexcept {
  result.Clear();
  const char16_t separator = SeparatorOf(base, relative);
  WideString joined;
  bool ok = true;
  if (relative.empty()) {
    ok = joined.Assign(base);
  } else if (base.empty() || HasDrive(relative) ||
             (relative.size() >= 2 && IsSeparator(relative[0]) && IsSeparator(relative[1]))) {
    ok = joined.Assign(relative);
  } else if (IsSeparator(relative[0])) {
    // Rooted without a drive: the root of the base, if it has one of its own, carries it.
    std::size_t keep = 0;
    if (HasDrive(base)) {
      keep = 2;
    } else if (base.size() >= 2 && IsSeparator(base[0]) && IsSeparator(base[1])) {
      keep = RootLength(base);
      std::size_t i = keep;
      while (i < base.size() && !IsSeparator(base[i])) ++i;
      keep = i;
    }
    ok = joined.Assign(base.substr(0, keep)) && joined.Append(relative);
  } else {
    ok = joined.Assign(base) && (IsSeparator(base.back()) || joined.Append(separator)) &&
         joined.Append(relative);
  }
  if (!ok || !Canonicalize(joined.view(), separator, result) ||
      result.Length() >= kCombineBufferLength) {
    result.Clear();
    return false;
  }
  return true;
}

bool IsRunningOnWine() noexcept {
  static const bool wine = platform::ModuleExports("ntdll", "wine_get_version");
  return wine;
}

}  // namespace mrwl
