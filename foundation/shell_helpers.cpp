// Classifying typed locations and handing them to the shell.
#include <algorithm>
#include <cstdint>
#include <vector>

#include "foundation/memory.h"
#include "foundation/paths.h"
#include "platform/kernel.h"
#include "platform/shell.h"
#include "platform/unique_any.h"

namespace mrwl {
namespace {

constexpr char16_t kNoBreakSpace = 0xA0;
constexpr std::size_t kMaxSchemeLength = 16;
// A file URL that turns into a longer path than this is not a path the file functions could use.
constexpr DWORD kUrlPathBufferLength = 2048;
// The buffer of the association query, terminator included.
constexpr DWORD kDefaultCommandBufferLength = 2047;

bool IsSeparator(char16_t c) noexcept { return c == u'/' || c == u'\\'; }

bool IsAsciiDigit(char16_t c) noexcept { return c >= u'0' && c <= u'9'; }

bool IsSchemeUnit(char16_t c) noexcept {
  return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || IsAsciiDigit(c) || c == u'-' ||
         c == u'+' || c == u'.';
}

// Spacing modifiers, combining marks and format characters: an address can't start with one,
// and a text that does is more likely prose with a colon in it than a link.
bool IsModifierOrFormat(char16_t c) noexcept {
  struct Range {
    char16_t first;
    char16_t last;
  };
  static constexpr Range kRanges[] = {
      {0x02B0, 0x036F}, {0x1D2C, 0x1D6A}, {0x1D9B, 0x1DFF},
      {0x2000, 0x200F}, {0x202A, 0x202F}, {0x206A, 0x206F},
  };
  for (const Range& range : kRanges) {
    if (c >= range.first && c <= range.last) return true;
  }
  return false;
}

// Whether a file URL names a path that exists.
bool IsExistingFileUrl(const WideString& text) noexcept {
  if (!platform::UrlIsW(text.c_str(), URLIS_FILEURL)) return false;
  WideString path;
  if (!path.Resize(kUrlPathBufferLength)) return false;
  DWORD length = kUrlPathBufferLength;
  if (FAILED(platform::PathCreateFromUrlW(text.c_str(), path.data(), &length, 0))) return false;
  path.SetLength(std::u16string_view(path.c_str()).size());
  return !path.IsEmpty() && PathExists(path.c_str());
}

bool AppendPercentByte(WideString& out, unsigned byte) noexcept {
  static constexpr char16_t kHex[] = u"0123456789ABCDEF";
  const char16_t escaped[3] = {u'%', kHex[(byte >> 4) & 0xF], kHex[byte & 0xF]};
  return out.Append(std::u16string_view(escaped, 3));
}

// The target as one command-line word for a browser: white space, quotes and characters outside
// ASCII percent-encoded (as UTF-8), so that the program receives the address whole. A '%' stays,
// since an address may already carry escapes.
bool EncodeForBrowser(std::u16string_view target, WideString& out) noexcept {
  out.Clear();
  if (!out.Reserve(target.size() * 3)) return false;
  for (std::size_t i = 0; i < target.size(); ++i) {
    char32_t c = target[i];
    const bool plain = c > 32 && c < 127 && c != u'"' && c != u'<' && c != u'>' && c != u'^' &&
                       c != u'`' && c != u'{' && c != u'|' && c != u'}';
    if (plain) {
      if (!out.Append(static_cast<char16_t>(c))) return false;
      continue;
    }
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < target.size() && target[i + 1] >= 0xDC00 &&
        target[i + 1] <= 0xDFFF) {
      c = 0x10000 + ((c - 0xD800) << 10) + (target[++i] - 0xDC00);
    } else if (c >= 0xD800 && c <= 0xDFFF) {
      c = 0xFFFD;
    }
    unsigned bytes[4];
    int count = 0;
    if (c < 0x80) {
      bytes[count++] = static_cast<unsigned>(c);
    } else if (c < 0x800) {
      bytes[count++] = 0xC0 | static_cast<unsigned>(c >> 6);
      bytes[count++] = 0x80 | static_cast<unsigned>(c & 0x3F);
    } else if (c < 0x10000) {
      bytes[count++] = 0xE0 | static_cast<unsigned>(c >> 12);
      bytes[count++] = 0x80 | static_cast<unsigned>((c >> 6) & 0x3F);
      bytes[count++] = 0x80 | static_cast<unsigned>(c & 0x3F);
    } else {
      bytes[count++] = 0xF0 | static_cast<unsigned>(c >> 18);
      bytes[count++] = 0x80 | static_cast<unsigned>((c >> 12) & 0x3F);
      bytes[count++] = 0x80 | static_cast<unsigned>((c >> 6) & 0x3F);
      bytes[count++] = 0x80 | static_cast<unsigned>(c & 0x3F);
    }
    for (int b = 0; b < count; ++b) {
      if (!AppendPercentByte(out, bytes[b])) return false;
    }
  }
  return true;
}

bool Started(HINSTANCE result) noexcept { return reinterpret_cast<std::uintptr_t>(result) > 32; }

struct ItemListTraits {
  using Type = platform::ItemIdList*;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type list) noexcept { platform::ILFree(list); }
};
using UniqueItemList = UniqueAny<ItemListTraits>;

}  // namespace

bool IsKnownScheme(std::u16string_view scheme) noexcept {
  const auto less = [](std::u16string_view a, std::u16string_view b) {
    return CompareNoCase(a, b) < 0;
  };
  const auto* found = std::lower_bound(KnownSchemes.begin(), KnownSchemes.end(), scheme, less);
  return found != KnownSchemes.end() && CompareNoCase(*found, scheme) == 0;
}

LocationKind ClassifyLocation(std::u16string_view text, WideString* scheme) noexcept {
  if (text.empty()) return LocationKind::kNothing;
  const WideString terminated(text);
  if (terminated.Length() == text.size()) {
    if (PathExists(terminated.c_str()) || IsExistingFileUrl(terminated)) {
      return LocationKind::kFileSystem;
    }
    if (text[0] == u'.' || IsSeparator(text[0])) {
      return platform::PathIsRelativeW(terminated.c_str()) ? LocationKind::kRelativePath
                                                           : LocationKind::kNothing;
    }
  }

  std::size_t i = 0;
  while (i < text.size() && (text[i] < 33 || text[i] == kNoBreakSpace)) ++i;
  if (i == text.size()) return LocationKind::kNothing;

  const std::size_t start = i;
  if (!IsAsciiDigit(text[i])) {
    while (i < text.size() && i - start < kMaxSchemeLength && IsSchemeUnit(text[i])) ++i;
  }
  if (i >= text.size() || text[i] != u':') return LocationKind::kPlainName;
  // A colon with no scheme before it starts no address.
  if (i == start) return LocationKind::kNothing;
  const std::u16string_view schemeText = text.substr(start, i - start);
  ++i;

  if (i + 1 < text.size() && IsSeparator(text[i]) && IsSeparator(text[i + 1])) {
    i += 2;
    if (i < text.size() && text[i] == u'/') ++i;
  } else {
    if (!IsKnownScheme(schemeText)) return LocationKind::kNothing;
    while (i < text.size() && (text[i] == u' ' || text[i] == kNoBreakSpace)) ++i;
  }

  const char16_t next = i < text.size() ? text[i] : u'\0';
  if (next < 33 || next == u':' || next == kNoBreakSpace || IsModifierOrFormat(next)) {
    return LocationKind::kNothing;
  }
  if (scheme != nullptr) (void)scheme->Assign(schemeText);
  return LocationKind::kScheme;
}

bool OpenLocation(std::u16string_view target, bool useBrowser) noexcept {
  if (target.empty()) return false;

  WideString text;
  const std::size_t at = target.find(u'@');
  const bool bareMail = at != std::u16string_view::npos && at > 0 &&
                        target.substr(0, at).find_first_of(u"/:\\") == std::u16string_view::npos;
  if (!(bareMail ? text.Assign(u"mailto:") && text.Append(target) : text.Assign(target))) {
    return false;
  }

  const HANDLE previousCursor = platform::ShowWaitCursor();
  ScopeGuard restoreCursor([previousCursor] { platform::SetCursor(previousCursor); });

  // The shell opens a file by its path and would drop the fragment; remember it, so that a
  // failure can still reach the page through the browser.
  bool hasFragment = false;
  if (!useBrowser && text.Length() >= 8 && EqualsNoCase(text.view().substr(0, 8), u"file:///")) {
    const std::size_t hash = text.view().rfind(u'#');
    hasFragment = hash != std::u16string_view::npos && hash + 1 < text.Length();
  }

  platform::ShellExecuteInfoW info{};
  info.cbSize = sizeof info;
  info.fMask = hasFragment ? SEE_MASK_FLAG_NO_UI : 0;
  info.lpVerb = u"open";
  info.nShow = SW_SHOWNORMAL;
  if (useBrowser) {
    info.lpFile = u"iexplore.exe";
    info.lpParameters = text.c_str();
  } else {
    info.lpFile = text.c_str();
  }
  if (platform::ShellExecuteExW(&info)) return true;

  if (useBrowser) return OpenLocation(target, false);
  if (hasFragment) {
    WideString program;
    WideString encoded;
    if (!GetDefaultCommand(u"http", program) || !EncodeForBrowser(text.view(), encoded)) {
      return false;
    }
    return Started(platform::ShellExecuteW(nullptr, u"open", program.c_str(), encoded.c_str(),
                                           nullptr, SW_SHOWNORMAL));
  }
  return false;
}

HRESULT ShowInFolder(std::u16string_view path, std::span<const std::u16string_view> selection,
                     DWORD mode) noexcept {
  while (!path.empty() &&
         (path[0] == u' ' || path[0] == u'\t' || path[0] == u'\r' || path[0] == u'\n')) {
    path.remove_prefix(1);
  }

  WideString folder;
  if (path.empty()) {
    if (selection.empty() || mode != 0) return E_INVALIDARG;
    const std::u16string_view first = selection.front();
    if (!GetParentFolder(first.data(), first.size(), folder)) return E_INVALIDARG;
  } else if (!folder.Assign(path)) {
    return E_OUTOFMEMORY;
  }

  WideString scheme;
  if (HasScheme(ClassifyLocation(folder.view(), &scheme)) && !EqualsNoCase(scheme.view(), u"FTP")) {
    return OpenLocation(folder.view(), false) ? S_OK : E_FAIL;
  }

  HRESULT hr = E_FAIL;
  try {
    UniqueItemList folderList(platform::ILCreateFromPathW(folder.c_str()));
    if (folderList) {
      std::vector<UniqueItemList, MemAllocator<UniqueItemList>> owned;
      std::vector<const platform::ItemIdList*, MemAllocator<const platform::ItemIdList*>> items;
      owned.reserve(selection.size());
      items.reserve(selection.size());
      WideString joined;
      for (std::u16string_view name : selection) {
        if (!CombinePath(name, folder.view(), joined)) continue;
        UniqueItemList item(platform::ILCreateFromPathW(joined.c_str()));
        if (!item) continue;
        items.push_back(item.get());
        owned.push_back(std::move(item));
      }
      hr = platform::SHOpenFolderAndSelectItems(folderList.get(), static_cast<UINT>(items.size()),
                                                items.data(), 0);
    }
  } catch (...) {
    hr = E_OUTOFMEMORY;
  }
  if (SUCCEEDED(hr)) return S_OK;

  if (Started(platform::ShellExecuteW(nullptr, u"explore", folder.c_str(), nullptr, nullptr,
                                      SW_SHOWNORMAL))) {
    return S_OK;
  }
  const DWORD error = platform::GetLastError();
  return error != 0 ? HRESULT_FROM_WIN32(error) : E_FAIL;
}

bool GetDefaultCommand(std::u16string_view extension, WideString& result) noexcept {
  result.Clear();
  const WideString assoc(extension);
  if (assoc.Length() != extension.size() || !result.Resize(kDefaultCommandBufferLength)) {
    result.Clear();
    return false;
  }
  DWORD length = kDefaultCommandBufferLength;
  const HRESULT hr = platform::AssocQueryStringW(0, ASSOCSTR_EXECUTABLE, assoc.c_str(), u"open",
                                                 result.data(), &length);
  if (FAILED(hr)) {
    result.Clear();
    return false;
  }
  result.SetLength(std::u16string_view(result.c_str()).size());
  return !result.IsEmpty();
}

}  // namespace mrwl
