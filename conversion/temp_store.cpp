#include "conversion/temp_store.h"

#include "foundation/format.h"
#include "foundation/paths.h"
#include "foundation/stream.h"
#include "platform/files.h"
#include "platform/kernel.h"
#include "platform/win_types.h"

namespace mrwl {
namespace {

constexpr int kNameTries = 10001;

// The two names under which Outlook puts the pictures of a page, in the order they are tried.
constexpr std::u16string_view kCompanionSuffixes[] = {u"_files", u".files"};

// `page` with its first ".html" taken out and `suffix` appended. The search is case-sensitive and
// runs over the whole path, as the companion folder was always named.
bool CompanionFolder(std::u16string_view page, std::u16string_view suffix,
                     WideString& result) noexcept {
  const std::size_t at = page.find(u".html");
  if (!result.Assign(page.substr(0, at))) return false;
  if (at != std::u16string_view::npos && !result.Append(page.substr(at + 5))) return false;
  return result.Append(suffix);
}

bool Exists(const WideString& path) noexcept {
  return platform::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

DWORD LastErrorOr(DWORD fallback) noexcept {
  const DWORD error = platform::GetLastError();
  return error != 0 ? error : fallback;
}

// Removes a symbolic link or junction itself. Its target lies outside the tree being deleted and
// stays untouched; clearing attributes first would reach through the link, so that step is left
// out.
DWORD RemoveLink(const char16_t* path, DWORD attributes) noexcept {
  // A link to a folder is a folder on Windows and a file on POSIX; one of the two calls takes it.
  if ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 && platform::RemoveDirectoryW(path)) return 0;
  return platform::DeleteFileW(path) ? 0 : LastErrorOr(ERROR_ACCESS_DENIED);
}

}  // namespace

bool MakeUniqueTempName(std::u16string_view prefix, std::u16string_view extension,
                        WideString& result) noexcept {
  WideString folder;
  if (!GetTempFolder(folder)) {
    result.Clear();
    return false;
  }
  WideString head(folder);
  WideString tail(u".");
  if (!head.Append(prefix) || !tail.Append(extension)) {
    result.Clear();
    return false;
  }

  SYSTEMTIME now{};
  platform::GetSystemTime(&now);
  // The clock spreads the names of separate runs; counting up settles collisions within one.
  unsigned number = now.wMilliseconds + (now.wMinute * 100u + now.wSecond) * 1000u;
  for (int i = 0; i < kNameTries; ++i, ++number) {
    result = FormatText(u"%ls%x%ls", head.c_str(), number, tail.c_str());
    if (!result.IsEmpty() && !PathExists(result.c_str())) return true;
  }
  result.Clear();
  return false;
}

bool WriteHandoffFile(const ConversionStore& store, WideString& result) noexcept {
  if (!MakeUniqueTempName(kHandoffFilePrefix, kHandoffFileExtension, result)) return false;
  MemoryStream record;
  if (Failed(record.Open(0, 0)) || !store.SerializeStore(record)) {
    result.Clear();
    return false;
  }
  // Files this process creates are private to the user, which the passwords need.
  DiskFileStream file;
  if (Failed(file.Open(result, CREATE_ALWAYS, kAccessRead | kAccessWrite, FILE_SHARE_READ,
                       FILE_ATTRIBUTE_NORMAL))) {
    result.Clear();
    return false;
  }
  const auto size = static_cast<std::size_t>(record.GetSize());
  std::size_t done = 0;
  const ResultCode written = file.Write(record.GetData(), size, &done);
  const ResultCode closed = file.Close();
  return Succeeded(written) && done == size && Succeeded(closed);
}

DWORD DeleteFileForced(const char16_t* path) noexcept {
  if (!platform::SetFileAttributesW(path, FILE_ATTRIBUTE_NORMAL) || !platform::DeleteFileW(path)) {
    return LastErrorOr(ERROR_ACCESS_DENIED);
  }
  return 0;
}

DWORD DeleteTree(const char16_t* path, bool recursive) noexcept {
  // An empty path would list the root of the file system.
  if (path == nullptr || *path == 0) return 0;
  const DWORD own = platform::GetFileAttributesW(path);
  if (own != INVALID_FILE_ATTRIBUTES && (own & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
    return RemoveLink(path, own);
  }

  const char16_t separator = platform::PathSeparator();
  WideString pattern(path);
  if (!pattern.Append(separator) || !pattern.Append(u"*.*")) return ERROR_NOT_ENOUGH_MEMORY;
  platform::FindDataW entry{};
  const HANDLE find = platform::FindFirstFileW(pattern.c_str(), &entry);
  if (find == INVALID_HANDLE_VALUE) return 0;  // nothing that can be listed: nothing to do

  bool kept = false;
  DWORD result = 0;
  WideString child;
  do {
    const std::u16string_view name(entry.cFileName);
    // Passes over "." and "..", and with them every name with a leading point.
    if (name.empty() || name[0] == u'.') continue;
    if (!child.Assign(path) || !child.Append(separator) || !child.Append(name)) {
      result = ERROR_NOT_ENOUGH_MEMORY;
    } else if ((entry.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
      result = RemoveLink(child.c_str(), entry.dwFileAttributes);
    } else if ((entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
      if (recursive) {
        result = DeleteTree(child.c_str(), true);
      } else {
        kept = true;
      }
    } else {
      result = DeleteFileForced(child.c_str());
    }
    if (result != 0) {
      (void)platform::FindClose(find);
      return result;
    }
  } while (platform::FindNextFileW(find, &entry));
  const DWORD ended = platform::GetLastError();
  (void)platform::FindClose(find);
  if (ended != ERROR_NO_MORE_FILES) return ended;
  if (kept) return 0;
  (void)platform::SetFileAttributesW(path, FILE_ATTRIBUTE_NORMAL);
  return platform::RemoveDirectoryW(path) ? 0 : LastErrorOr(ERROR_DIR_NOT_EMPTY);
}

void DeleteExportedPage(std::u16string_view path) noexcept {
  WideString page;
  if (!page.Assign(path)) return;
  (void)DeleteFileForced(page.c_str());
  WideString folder;
  for (std::u16string_view suffix : kCompanionSuffixes) {
    if (CompanionFolder(path, suffix, folder) && Exists(folder)) {
      (void)DeleteTree(folder.c_str(), true);
      return;
    }
  }
}

void RestrictExportedPage(std::u16string_view path) noexcept {
  WideString page;
  if (!page.Assign(path)) return;
  (void)platform::RestrictToOwner(page.c_str(), FALSE);
  WideString folder;
  for (std::u16string_view suffix : kCompanionSuffixes) {
    if (CompanionFolder(path, suffix, folder) && Exists(folder)) {
      (void)platform::RestrictToOwner(folder.c_str(), TRUE);
    }
  }
}

void DeleteJobFiles(const JobList& jobs) noexcept {
  for (const auto& job : jobs) {
    if (job->DeleteAttachments) {
      for (const WideString& attachment : job->Attachments) {
        (void)DeleteFileForced(attachment.c_str());
      }
    }
    if (job->DeletePage) DeleteExportedPage(job->PagePath);
  }
}

void MakeAttachmentNamesUnique(JobList& jobs) noexcept {
  for (std::size_t i = 0; i < jobs.size(); ++i) {
    if (!jobs[i]->Record) continue;
    int counter = 1;
    for (std::size_t j = i + 1; j < jobs.size(); ++j) {
      if (!jobs[j]->Record) continue;
      WideString& name = jobs[j]->Record->FileName;
      if (!EqualsNoCase(jobs[i]->Record->FileName, name)) continue;
      const WideString label = FormatText(u"(%d)", counter++);
      // The number goes in front of the extension; a name without a point takes it at its end.
      const std::size_t point = name.view().rfind(u'.');
      const std::size_t at = point == std::u16string_view::npos ? name.Length() : point;
      WideString renamed;
      if (renamed.Assign(name.view().substr(0, at)) && renamed.Append(label) &&
          renamed.Append(name.view().substr(at))) {
        name = std::move(renamed);
      }
    }
  }
}

}  // namespace mrwl
