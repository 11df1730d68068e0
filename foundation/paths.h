// Paths, the temporary folder, and the shell helpers of the foundation.
//
// Where temporary files go, how a path survives the length limit of the classic file functions,
// what kind of location a typed text is, and how a location is opened or shown in its folder.
// The functions report by their results and show nothing. Any thread may call them; the only
// shared state is the one-time answers (integrity level, Wine) and the temporary-folder hook.
#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <string_view>

#include "foundation/wide_string.h"
#include "platform/com.h"
#include "platform/files.h"

namespace mrwl {

// --- Temporary folder ------------------------------------------------------------------------

// The folder for temporary files, ending in a separator. Goes through the hook when one is set.
// On success returns true. On failure returns false and leaves `result` empty. The folder is not
// created here.
bool GetTempFolder(WideString& result) noexcept;

// The built-in lookup of GetTempFolder, which a hook may wrap.
using TempFolderFunction = bool (*)(WideString& result) noexcept;
// A replacement of GetTempFolder: receives the built-in lookup and may call it.
using TempFolderHook = bool (*)(WideString& result, TempFolderFunction builtIn) noexcept;
// Sets the hook (null restores the built-in lookup) and returns the previous one. Null by default.
TempFolderHook SetTempFolderHook(TempFolderHook hook) noexcept;

namespace internal {
// The built-in lookup for a process at the given integrity. Exposed so that the low-integrity
// branch can run where the system never reports low integrity.
bool GetTempFolderAt(bool lowIntegrity, WideString& result) noexcept;
}  // namespace internal

// --- Module folder -----------------------------------------------------------------------------

// The folder of the module file that holds this code, ending in the platform's separator: where
// the files that ship beside the module stand. Worked out once, on the first call, unless
// SetModuleFolder came first; empty when the system can't tell the module's path.
// Set it at module load, before any other thread reads it; the result stays valid until the next
// SetModuleFolder.
[[nodiscard]] const WideString& ModuleFolder() noexcept;
// Sets the folder that ModuleFolder answers, as given (it should end in a separator). The module
// entry sets it when the module loads; tests point it at a folder of their own.
void SetModuleFolder(std::u16string_view folder) noexcept;

// --- Path text -------------------------------------------------------------------------------

// The path to pass to the system for `path` of `length` units: `path` itself when it is empty,
// already the scratch's text or shorter than 248 units; otherwise `scratch` filled with the
// "\\?\" form, a network path (one starting with "/" or "\") turned into "\\?\UNC\" with its
// leading two separators dropped. The forms are those of Windows and mean something only for
// backslash-shaped paths. If `scratch` cannot grow, returns `path`.
// REQUIRES: `path` is NUL-terminated at `length`.
[[nodiscard]] const char16_t* MakeLongPath(const char16_t* path, std::size_t length,
                                           WideString& scratch) noexcept;

// Whether a file or folder named `path` exists; fills `findData`, when given, for an entry that
// could be listed. A null path, or one holding a character the file system forbids ('"', '*',
// '<', '>', '|', a ':' not followed by the end or a separator, a '?' other than in "\\?\"),
// answers false without touching the disk.
[[nodiscard]] bool PathExists(const char16_t* path,
                              platform::FindDataW* findData = nullptr) noexcept;

// The extension of `path` of `length` units: the text behind the last point of the final name.
// Returns a pointer into `path` and sets *extensionLength (when given), or null and 0 when the
// final name has no point. The search stops at "/", "\" and ":".
[[nodiscard]] const char16_t* GetPathExtension(const char16_t* path, std::size_t length,
                                               std::size_t* extensionLength) noexcept;

// The folder of `path` of `length` units, with its final separator: the path itself when it ends
// in "/" or "\", otherwise the text up to and including the last separator. Returns false, with
// `result` empty, when there is no separator or no memory.
bool GetParentFolder(const char16_t* path, std::size_t length, WideString& result) noexcept;

// Joins `relative` to `base` as PathCombineW does, accepting "/" and "\" as separators, and
// removes "." and ".." segments; ".." never climbs above the root. A rooted or drive-qualified
// `relative` stands on its own. Returns false, with `result` empty, when the result would not fit
// a buffer of 261 units.
bool CombinePath(std::u16string_view relative, std::u16string_view base,
                 WideString& result) noexcept;

// --- Locations -------------------------------------------------------------------------------

// What ClassifyLocation found. Bit 3 (value 8) marks a text with a scheme.
enum class LocationKind : int {
  kNothing = 0,       // nothing usable
  kPlainName = 1,     // no scheme: a plain name
  kFileSystem = 3,    // an existing file-system path, or a file: URL of one
  kRelativePath = 5,  // a relative path
  kScheme = 9,        // a text with a scheme
};
[[nodiscard]] constexpr bool HasScheme(LocationKind kind) noexcept {
  return (static_cast<int>(kind) & 8) != 0;
}

// Schemes that are written without "//", sorted, searched without regard to case.
inline constexpr std::array<std::u16string_view, 64> KnownSchemes = {
    u"aim",   u"amss",      u"apt",  u"barion",      u"beshare", u"bitcoin",     u"callto",
    u"cid",   u"dab",       u"data", u"dav",         u"doi",     u"drm",         u"fax",
    u"feed",  u"fm",        u"geo",  u"go",          u"gtalk",   u"h323",        u"iax",
    u"im",    u"itms",      u"jar",  u"javascript",  u"jdbc",    u"magnet",      u"mailto",
    u"maps",  u"message",   u"mid",  u"msnim",       u"mvn",     u"news",        u"openpgp4fpr",
    u"palm",  u"paparazzi", u"pres", u"psyc",        u"session", u"shc",         u"sip",
    u"sips",  u"skype",     u"sms",  u"spotify",     u"steam",   u"stratum+tcp", u"stun",
    u"stuns", u"svn",       u"tag",  u"tel",         u"things",  u"trueconf",    u"turn",
    u"turns", u"unreal",    u"urn",  u"view-source", u"ws",      u"xfire",       u"xmpp",
    u"ymsgr",
};

// Whether `scheme` stands in KnownSchemes, without regard to case.
[[nodiscard]] bool IsKnownScheme(std::u16string_view scheme) noexcept;

// Tells what `text` is. For kScheme, `scheme` (when given) receives the scheme's text; otherwise
// it is left as it was.
[[nodiscard]] LocationKind ClassifyLocation(std::u16string_view text,
                                            WideString* scheme = nullptr) noexcept;

// Opens `target` (a path, an address or a bare mail address) with its application, or with
// `useBrowser` in the browser, falling back to the default application. A file:/// address with
// a fragment that the shell cannot open goes to the default program of "http". Returns true if
// something started.
bool OpenLocation(std::u16string_view target, bool useBrowser) noexcept;

// Shows `path` in the file manager with the names of `selection` (relative to `path`) selected.
// An empty `path` takes the folder of the first name of `selection`; with no name, or with
// `mode` non-zero, that gives E_INVALIDARG. A location with a scheme other than FTP is opened
// with OpenLocation instead. Returns S_OK, or a failure result when nothing could be shown.
HRESULT ShowInFolder(std::u16string_view path, std::span<const std::u16string_view> selection,
                     DWORD mode) noexcept;

// The program that opens documents of `extension` (".pdf") or addresses of a scheme ("http").
// Returns false, with `result` empty, when there is no association.
bool GetDefaultCommand(std::u16string_view extension, WideString& result) noexcept;

// Whether the process runs under Wine. Asked once per process.
[[nodiscard]] bool IsRunningOnWine() noexcept;

}  // namespace mrwl
