// Files, folders, events and directory listings of the POSIX backend, with Windows meaning.
//
// A HANDLE here points to a HandleObject of this file. Windows share modes have no POSIX
// counterpart, so every file handle of the process is entered in one table keyed by device and
// inode, and each open, delete and move consults it under one mutex. Other processes are not
// seen; the table only keeps this process from doing to itself what Windows would refuse.
#include "platform/files.h"

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/kernel.h"
#include "platform/posix/handle_object.h"
#include "platform/posix/posix_util.h"

namespace mrwl::platform {
namespace {

// Not a Windows access right of the callers; marks a handle that will delete its file, which
// other handles must permit with FILE_SHARE_DELETE just as Windows' DELETE right demands.
constexpr DWORD kDeleteRight = 0x00010000u;

using posix::As;
using posix::HandleKind;
using posix::HandleObject;
using posix::kHandleMagic;

struct FileKey {
  dev_t dev = 0;
  ino_t ino = 0;
  friend bool operator<(const FileKey& a, const FileKey& b) noexcept {
    return a.dev != b.dev ? a.dev < b.dev : a.ino < b.ino;
  }
  friend bool operator==(const FileKey& a, const FileKey& b) noexcept {
    return a.dev == b.dev && a.ino == b.ino;
  }
};

FileKey KeyOf(const struct stat& st) noexcept { return FileKey{st.st_dev, st.st_ino}; }

struct FileObject final : HandleObject {
  FileObject() noexcept : HandleObject(HandleKind::kFile) {}
  int fd = -1;
  std::string path;
  DWORD rights = 0;  // GENERIC_READ, GENERIC_WRITE, kDeleteRight
  DWORD share = 0;
  bool deleteOnClose = false;
  FileKey key;
};

struct EventObject final : HandleObject {
  EventObject(bool manual, bool initial) noexcept
      : HandleObject(HandleKind::kEvent), manualReset(manual), signaled(initial) {}
  std::mutex mutex;
  std::condition_variable changed;
  bool manualReset;
  bool signaled;
};

struct FindObject final : HandleObject {
  FindObject() noexcept : HandleObject(HandleKind::kFind) {}
  ~FindObject() override {
    if (dir != nullptr) closedir(dir);
  }
  DIR* dir = nullptr;  // null for a pattern without wildcards, which has found its one entry
  std::string folder;  // with its trailing separator, or empty for the current folder
  std::u16string pattern;
};

// The handles open on one file, and whether the file goes when the last of them closes.
struct OpenFile {
  std::vector<FileObject*> handles;
  bool deletePending = false;
  std::string deletePath;
};

struct ShareTable {
  std::mutex mutex;
  std::map<FileKey, OpenFile> files;
};

// Never destroyed: handles may still be closed by static destructors of other units.
ShareTable& Table() {
  static ShareTable* table = new ShareTable;
  return *table;
}

BOOL Fail(DWORD error) noexcept {
  SetLastError(error);
  return FALSE;
}

// ENOENT does not say whether the file or a folder on its way is missing; Windows does.
DWORD MissingError(const std::string& path) {
  const std::size_t slash = path.find_last_of('/');
  if (slash == std::string::npos || slash == 0) return ERROR_FILE_NOT_FOUND;
  struct stat st {};
  const std::string parent = path.substr(0, slash);
  if (stat(parent.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return ERROR_FILE_NOT_FOUND;
  return ERROR_PATH_NOT_FOUND;
}

DWORD ErrorFromErrno(int error, const std::string& path) {
  if (error == ENOENT) return MissingError(path);
  return posix::WinErrorFromErrno(error);
}

// Whether a handle with `rights` and `share` may stand beside `other`: each side must permit
// what the other does with the file. A handle without data rights takes no part, as on Windows.
bool Compatible(DWORD rights, DWORD share, const FileObject& other) noexcept {
  if (rights == 0 || other.rights == 0) return true;
  const auto permits = [](DWORD wanted, DWORD allowed) {
    return !((wanted & GENERIC_READ) && !(allowed & FILE_SHARE_READ)) &&
           !((wanted & GENERIC_WRITE) && !(allowed & FILE_SHARE_WRITE)) &&
           !((wanted & kDeleteRight) && !(allowed & FILE_SHARE_DELETE));
  };
  return permits(rights, other.share) && permits(other.rights, share);
}

// Whether any open handle of `key` lacks FILE_SHARE_DELETE. Called under the table's mutex.
bool BlocksDelete(ShareTable& table, const FileKey& key) {
  const auto it = table.files.find(key);
  if (it == table.files.end()) return false;
  for (const FileObject* h : it->second.handles) {
    if (!(h->share & FILE_SHARE_DELETE)) return true;
  }
  return false;
}

bool IsReadOnly(const struct stat& st) noexcept {
  return !S_ISDIR(st.st_mode) && !(st.st_mode & S_IWUSR);
}

DWORD AttributesOf(const struct stat& st) noexcept {
  if (S_ISDIR(st.st_mode)) return FILE_ATTRIBUTE_DIRECTORY;
  // A file written since its creation carries the archive bit on Windows; that is the usual case.
  DWORD attributes = FILE_ATTRIBUTE_ARCHIVE;
  if (IsReadOnly(st)) attributes |= FILE_ATTRIBUTE_READONLY;
  return attributes;
}

FILETIME ToFileTime(const struct timespec& t) noexcept {
  return posix::SplitFileTime(posix::FileTimeFromUnix(t.tv_sec, t.tv_nsec));
}

void SignalEvent(HANDLE handle, bool state) noexcept {
  auto* event = As<EventObject>(handle, HandleKind::kEvent);
  if (event == nullptr) return;
  {
    std::lock_guard<std::mutex> lock(event->mutex);
    event->signaled = state;
  }
  if (state) event->changed.notify_all();
}

std::int64_t OffsetOf(const OVERLAPPED& overlapped) noexcept {
  return static_cast<std::int64_t>((static_cast<std::uint64_t>(overlapped.u.s.OffsetHigh) << 32) |
                                   overlapped.u.s.Offset);
}

void CloseFile(FileObject* file) {
  ShareTable& table = Table();
  {
    std::lock_guard<std::mutex> lock(table.mutex);
    const auto it = table.files.find(file->key);
    if (it != table.files.end()) {
      OpenFile& open = it->second;
      std::erase(open.handles, file);
      if (file->deleteOnClose) {
        open.deletePending = true;
        open.deletePath = file->path;
      }
      if (open.handles.empty()) {
        struct stat st {};
        // Only the file the handles were on goes: the name may have been taken by another.
        if (open.deletePending && lstat(open.deletePath.c_str(), &st) == 0 &&
            KeyOf(st) == file->key) {
          (void)unlink(open.deletePath.c_str());
        }
        table.files.erase(it);
      }
    }
  }
  if (file->fd >= 0) (void)close(file->fd);
  delete file;
}

// Copies a regular file for a move between devices, keeping its mode and times.
DWORD CopyAcrossDevices(const std::string& from, const std::string& to, bool replace,
                        bool writeThrough) {
  const int in = open(from.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0) return ErrorFromErrno(errno, from);
  struct stat st {};
  if (fstat(in, &st) != 0) {
    const DWORD error = posix::WinErrorFromErrno(errno);
    close(in);
    return error;
  }
  const int out =
      open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | (replace ? 0 : O_EXCL),
           st.st_mode & 07777);
  if (out < 0) {
    const DWORD error = errno == EEXIST ? ERROR_ALREADY_EXISTS : ErrorFromErrno(errno, to);
    close(in);
    return error;
  }
  DWORD error = ERROR_SUCCESS;
  std::vector<char> buffer(1 << 16);
  for (;;) {
    const ssize_t got = read(in, buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      error = posix::WinErrorFromErrno(errno);
      break;
    }
    if (got == 0) break;
    for (ssize_t put = 0; put < got;) {
      const ssize_t n = write(out, buffer.data() + put, static_cast<std::size_t>(got - put));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        error = n < 0 ? posix::WinErrorFromErrno(errno) : ERROR_WRITE_FAULT;
        break;
      }
      put += n;
    }
    if (error != ERROR_SUCCESS) break;
  }
  if (error == ERROR_SUCCESS) {
    const struct timespec times[2] = {st.st_atim, st.st_mtim};
    (void)futimens(out, times);
    if (writeThrough && fsync(out) != 0) error = posix::WinErrorFromErrno(errno);
  }
  close(in);
  if (close(out) != 0 && error == ERROR_SUCCESS) error = posix::WinErrorFromErrno(errno);
  if (error != ERROR_SUCCESS) (void)unlink(to.c_str());
  return error;
}

char16_t FoldCase(char16_t c) noexcept {
  return (c >= u'A' && c <= u'Z') ? static_cast<char16_t>(c - u'A' + u'a') : c;
}

// "*" and "?" matching without regard to ASCII case, as the Windows file system compares names.
bool WildcardMatch(std::u16string_view pattern, std::u16string_view name) noexcept {
  std::size_t p = 0, n = 0;
  std::size_t starP = std::u16string_view::npos, starN = 0;
  while (n < name.size()) {
    if (p < pattern.size() && pattern[p] == u'*') {
      starP = p++;
      starN = n;
    } else if (p < pattern.size() &&
               (pattern[p] == u'?' || FoldCase(pattern[p]) == FoldCase(name[n]))) {
      ++p;
      ++n;
    } else if (starP != std::u16string_view::npos) {
      p = starP + 1;
      n = ++starN;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == u'*') ++p;
  return p == pattern.size();
}

// Windows' own rules on top: a final ".*" may match nothing, so "*.*" matches every name and
// "name.*" matches "name"; a final "." asks for names without an extension.
bool NameMatches(std::u16string_view pattern, std::u16string_view name) noexcept {
  if (WildcardMatch(pattern, name)) return true;
  if (pattern.size() >= 2 && pattern.substr(pattern.size() - 2) == u".*") {
    return WildcardMatch(pattern.substr(0, pattern.size() - 2), name);
  }
  if (pattern.size() >= 2 && pattern.back() == u'.' && name.find(u'.') == name.npos) {
    return WildcardMatch(pattern.substr(0, pattern.size() - 1), name);
  }
  return false;
}

// Windows' tag of a symbolic link, which a find record carries in dwReserved0.
constexpr DWORD kSymlinkReparseTag = 0xA000000Cu;

// The status of `path` as Windows reports a link: a symbolic link shows the attributes of its
// target with FILE_ATTRIBUTE_REPARSE_POINT beside them, and a link whose target is missing the
// reparse and archive bits alone (with the link's own status). Callers that walk folders rely
// on the bit to leave linked folders alone. False with errno if `path` itself cannot be read.
bool StatThroughLink(const std::string& path, struct stat* st, DWORD* attributes) {
  if (lstat(path.c_str(), st) != 0) return false;
  if (!S_ISLNK(st->st_mode)) {
    *attributes = AttributesOf(*st);
    return true;
  }
  struct stat target {};
  if (stat(path.c_str(), &target) == 0) {
    *st = target;
    *attributes = AttributesOf(target) | FILE_ATTRIBUTE_REPARSE_POINT;
  } else {
    *attributes = FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_ARCHIVE;
  }
  return true;
}

// Fills `data` for the entry `name` at `path`. False if the name does not fit the record.
bool FillFindData(const std::string& path, const std::u16string& name, FindDataW* data) {
  if (name.size() >= MAX_PATH) return false;
  struct stat st {};
  DWORD attributes = 0;
  if (!StatThroughLink(path, &st, &attributes)) return false;
  std::memset(data, 0, sizeof(*data));
  data->dwFileAttributes = attributes;
  if (attributes & FILE_ATTRIBUTE_REPARSE_POINT) data->dwReserved0 = kSymlinkReparseTag;
  data->ftCreationTime = ToFileTime(st.st_ctim);
  data->ftLastAccessTime = ToFileTime(st.st_atim);
  data->ftLastWriteTime = ToFileTime(st.st_mtim);
  if (!S_ISDIR(st.st_mode)) {
    const auto size = static_cast<std::uint64_t>(st.st_size);
    data->nFileSizeHigh = static_cast<DWORD>(size >> 32);
    data->nFileSizeLow = static_cast<DWORD>(size);
  }
  std::memcpy(data->cFileName, name.data(), name.size() * sizeof(char16_t));
  return true;
}

bool NextMatch(FindObject* find, FindDataW* data) {
  if (find->dir == nullptr) return false;
  while (dirent* entry = readdir(find->dir)) {
    const std::u16string name = posix::FromUtf8(entry->d_name);
    if (!NameMatches(find->pattern, name)) continue;
    if (FillFindData(find->folder + entry->d_name, name, data)) return true;
  }
  return false;
}

std::atomic<unsigned> gTempCounter{0};

}  // namespace

HANDLE CreateFileW(const char16_t* path, DWORD access, DWORD share, DWORD disposition,
                   DWORD flags) noexcept {
  try {
    if (path == nullptr || *path == 0) {
      SetLastError(ERROR_PATH_NOT_FOUND);
      return INVALID_HANDLE_VALUE;
    }
    const bool wantRead = (access & GENERIC_READ) != 0;
    const bool wantWrite = (access & GENERIC_WRITE) != 0;
    if (disposition < CREATE_NEW || disposition > TRUNCATE_EXISTING ||
        (disposition == TRUNCATE_EXISTING && !wantWrite)) {
      SetLastError(ERROR_INVALID_PARAMETER);
      return INVALID_HANDLE_VALUE;
    }
    const std::string name = posix::ToUtf8(path);
    DWORD rights = access & (GENERIC_READ | GENERIC_WRITE);
    if (flags & FILE_FLAG_DELETE_ON_CLOSE) rights |= kDeleteRight;

    ShareTable& table = Table();
    std::lock_guard<std::mutex> lock(table.mutex);

    struct stat st {};
    const bool exists = stat(name.c_str(), &st) == 0;
    if (!exists && errno != ENOENT) {
      SetLastError(ErrorFromErrno(errno, name));
      return INVALID_HANDLE_VALUE;
    }
    if (exists) {
      if (S_ISDIR(st.st_mode)) {
        SetLastError(ERROR_ACCESS_DENIED);
        return INVALID_HANDLE_VALUE;
      }
      if (disposition == CREATE_NEW) {
        SetLastError(ERROR_FILE_EXISTS);
        return INVALID_HANDLE_VALUE;
      }
      // The read-only attribute binds even where POSIX permissions would not (root).
      if (IsReadOnly(st) && (wantWrite || (rights & kDeleteRight) || disposition == CREATE_ALWAYS ||
                             disposition == TRUNCATE_EXISTING)) {
        SetLastError(ERROR_ACCESS_DENIED);
        return INVALID_HANDLE_VALUE;
      }
    } else if (disposition == OPEN_EXISTING || disposition == TRUNCATE_EXISTING) {
      SetLastError(MissingError(name));
      return INVALID_HANDLE_VALUE;
    }

    int openFlags = O_CLOEXEC | (wantWrite ? (wantRead ? O_RDWR : O_WRONLY) : O_RDONLY);
    if (!exists) openFlags |= O_CREAT | O_EXCL;
    const mode_t mode = (flags & FILE_ATTRIBUTE_READONLY) ? 0400 : 0600;
    const int fd = open(name.c_str(), openFlags, mode);
    if (fd < 0) {
      SetLastError(errno == EEXIST ? ERROR_FILE_EXISTS : ErrorFromErrno(errno, name));
      return INVALID_HANDLE_VALUE;
    }
    struct stat opened {};
    if (fstat(fd, &opened) != 0) {
      SetLastError(posix::WinErrorFromErrno(errno));
      close(fd);
      return INVALID_HANDLE_VALUE;
    }
    const FileKey key = KeyOf(opened);
    if (const auto it = table.files.find(key); it != table.files.end()) {
      for (const FileObject* other : it->second.handles) {
        if (!Compatible(rights, share, *other)) {
          close(fd);
          SetLastError(ERROR_SHARING_VIOLATION);
          return INVALID_HANDLE_VALUE;
        }
      }
    }
    if (exists && (disposition == CREATE_ALWAYS || disposition == TRUNCATE_EXISTING)) {
      const int truncated = wantWrite ? ftruncate(fd, 0) : truncate(name.c_str(), 0);
      if (truncated != 0) {
        SetLastError(posix::WinErrorFromErrno(errno));
        close(fd);
        return INVALID_HANDLE_VALUE;
      }
    }

    auto* file = new (std::nothrow) FileObject;
    if (file == nullptr) {
      close(fd);
      if (!exists) (void)unlink(name.c_str());
      SetLastError(ERROR_NOT_ENOUGH_MEMORY);
      return INVALID_HANDLE_VALUE;
    }
    file->fd = fd;
    file->path = name;
    file->rights = rights;
    file->share = share;
    file->deleteOnClose = (flags & FILE_FLAG_DELETE_ON_CLOSE) != 0;
    file->key = key;
    table.files[key].handles.push_back(file);
    SetLastError(exists && (disposition == CREATE_ALWAYS || disposition == OPEN_ALWAYS)
                     ? ERROR_ALREADY_EXISTS
                     : ERROR_SUCCESS);
    return file;
  } catch (...) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return INVALID_HANDLE_VALUE;
  }
}

BOOL CloseHandle(HANDLE handle) noexcept {
  if (handle == nullptr || handle == INVALID_HANDLE_VALUE) return Fail(ERROR_INVALID_HANDLE);
  auto* object = static_cast<HandleObject*>(handle);
  if (object->magic != kHandleMagic) return Fail(ERROR_INVALID_HANDLE);
  switch (object->kind) {
    case HandleKind::kFile:
      CloseFile(static_cast<FileObject*>(object));
      break;
    case HandleKind::kEvent:
      delete static_cast<EventObject*>(object);
      break;
    case HandleKind::kFind:
    case HandleKind::kTransaction:
    case HandleKind::kMapping:
      // Each of these undoes its own work in its destructor; a transaction rolls back there, a
      // mapping gives up its hold on its name.
      delete object;
      break;
  }
  return TRUE;
}

namespace {

// One positioned or sequential transfer in either direction, looping over short transfers and
// interruptions until `count` bytes moved, the end of the file was met, or an error came.
BOOL Transfer(bool write, HANDLE handle, void* buffer, DWORD count, DWORD* done,
              OVERLAPPED* overlapped) noexcept {
  if (done != nullptr) *done = 0;
  FileObject* file = As<FileObject>(handle, HandleKind::kFile);
  if (file == nullptr) return Fail(ERROR_INVALID_HANDLE);
  if (!(file->rights & (write ? GENERIC_WRITE : GENERIC_READ))) return Fail(ERROR_ACCESS_DENIED);
  if (buffer == nullptr && count != 0) return Fail(ERROR_NOACCESS);
  const std::int64_t offset = overlapped != nullptr ? OffsetOf(*overlapped) : 0;
  // An offset whose transfer would pass the largest file position is refused before any
  // arithmetic on it.
  if (offset < 0 || static_cast<std::uint64_t>(offset) > INT64_MAX - std::uint64_t{count}) {
    return Fail(ERROR_INVALID_PARAMETER);
  }
  if (overlapped != nullptr) SignalEvent(overlapped->hEvent, false);
  auto* bytes = static_cast<char*>(buffer);
  std::size_t total = 0;
  while (total < count) {
    const auto at = static_cast<off_t>(offset + static_cast<std::int64_t>(total));
    const std::size_t left = count - total;
    ssize_t moved = 0;
    if (write) {
      moved = overlapped != nullptr ? pwrite(file->fd, bytes + total, left, at)
                                    : ::write(file->fd, bytes + total, left);
    } else {
      moved = overlapped != nullptr ? pread(file->fd, bytes + total, left, at)
                                    : ::read(file->fd, bytes + total, left);
    }
    if (moved < 0 && errno == EINTR) continue;
    if (moved < 0) {
      if (done != nullptr) *done = static_cast<DWORD>(total);
      return Fail(posix::WinErrorFromErrno(errno));
    }
    if (moved == 0) break;
    total += static_cast<std::size_t>(moved);
  }
  if (done != nullptr) *done = static_cast<DWORD>(total);
  if (overlapped != nullptr) {
    overlapped->Internal = 0;
    overlapped->InternalHigh = total;
    SignalEvent(overlapped->hEvent, true);
  }
  return TRUE;
}

}  // namespace

BOOL ReadFile(HANDLE handle, void* buffer, DWORD count, DWORD* done,
              OVERLAPPED* overlapped) noexcept {
  return Transfer(false, handle, buffer, count, done, overlapped);
}

BOOL WriteFile(HANDLE handle, const void* buffer, DWORD count, DWORD* done,
               OVERLAPPED* overlapped) noexcept {
  // The transfer never stores into the buffer of a write.
  return Transfer(true, handle, const_cast<void*>(buffer), count, done, overlapped);
}

BOOL GetOverlappedResult(HANDLE handle, OVERLAPPED* overlapped, DWORD* done, BOOL) noexcept {
  if (As<FileObject>(handle, HandleKind::kFile) == nullptr) return Fail(ERROR_INVALID_HANDLE);
  if (overlapped == nullptr) return Fail(ERROR_INVALID_PARAMETER);
  // Every transfer of this backend has completed before its call returned.
  if (done != nullptr) *done = static_cast<DWORD>(overlapped->InternalHigh);
  if (overlapped->Internal != 0) return Fail(static_cast<DWORD>(overlapped->Internal));
  return TRUE;
}

BOOL SetFilePointerEx(HANDLE handle, LARGE_INTEGER distance, LARGE_INTEGER* newPosition,
                      DWORD origin) noexcept {
  FileObject* file = As<FileObject>(handle, HandleKind::kFile);
  if (file == nullptr) return Fail(ERROR_INVALID_HANDLE);
  int whence = SEEK_SET;
  switch (origin) {
    case FILE_BEGIN:
      whence = SEEK_SET;
      break;
    case FILE_CURRENT:
      whence = SEEK_CUR;
      break;
    case FILE_END:
      whence = SEEK_END;
      break;
    default:
      return Fail(ERROR_INVALID_PARAMETER);
  }
  const off_t result = lseek(file->fd, static_cast<off_t>(distance.QuadPart), whence);
  if (result < 0)
    return Fail(errno == EINVAL ? ERROR_NEGATIVE_SEEK : posix::WinErrorFromErrno(errno));
  if (newPosition != nullptr) newPosition->QuadPart = result;
  return TRUE;
}

BOOL SetEndOfFile(HANDLE handle) noexcept {
  FileObject* file = As<FileObject>(handle, HandleKind::kFile);
  if (file == nullptr) return Fail(ERROR_INVALID_HANDLE);
  if (!(file->rights & GENERIC_WRITE)) return Fail(ERROR_ACCESS_DENIED);
  const off_t position = lseek(file->fd, 0, SEEK_CUR);
  if (position < 0 || ftruncate(file->fd, position) != 0) {
    return Fail(posix::WinErrorFromErrno(errno));
  }
  return TRUE;
}

BOOL FlushFileBuffers(HANDLE handle) noexcept {
  FileObject* file = As<FileObject>(handle, HandleKind::kFile);
  if (file == nullptr) return Fail(ERROR_INVALID_HANDLE);
  if (!(file->rights & GENERIC_WRITE)) return Fail(ERROR_ACCESS_DENIED);
  if (fsync(file->fd) != 0) return Fail(posix::WinErrorFromErrno(errno));
  return TRUE;
}

BOOL GetFileSizeEx(HANDLE handle, LARGE_INTEGER* size) noexcept {
  FileObject* file = As<FileObject>(handle, HandleKind::kFile);
  if (file == nullptr) return Fail(ERROR_INVALID_HANDLE);
  if (size == nullptr) return Fail(ERROR_INVALID_PARAMETER);
  struct stat st {};
  if (fstat(file->fd, &st) != 0) return Fail(posix::WinErrorFromErrno(errno));
  size->QuadPart = st.st_size;
  return TRUE;
}

BOOL GetFileTime(HANDLE handle, FILETIME* creation, FILETIME* lastAccess,
                 FILETIME* lastWrite) noexcept {
  FileObject* file = As<FileObject>(handle, HandleKind::kFile);
  if (file == nullptr) return Fail(ERROR_INVALID_HANDLE);
  struct stat st {};
  if (fstat(file->fd, &st) != 0) return Fail(posix::WinErrorFromErrno(errno));
  // POSIX keeps no creation time everywhere; the status change time stands in for it.
  if (creation != nullptr) *creation = ToFileTime(st.st_ctim);
  if (lastAccess != nullptr) *lastAccess = ToFileTime(st.st_atim);
  if (lastWrite != nullptr) *lastWrite = ToFileTime(st.st_mtim);
  return TRUE;
}

BOOL GetFileInformationByHandle(HANDLE handle, BY_HANDLE_FILE_INFORMATION* info) noexcept {
  FileObject* file = As<FileObject>(handle, HandleKind::kFile);
  if (file == nullptr) return Fail(ERROR_INVALID_HANDLE);
  if (info == nullptr) return Fail(ERROR_INVALID_PARAMETER);
  struct stat st {};
  if (fstat(file->fd, &st) != 0) return Fail(posix::WinErrorFromErrno(errno));
  info->dwFileAttributes = AttributesOf(st);
  info->ftCreationTime = ToFileTime(st.st_ctim);
  info->ftLastAccessTime = ToFileTime(st.st_atim);
  info->ftLastWriteTime = ToFileTime(st.st_mtim);
  info->dwVolumeSerialNumber = static_cast<DWORD>(st.st_dev);
  const auto size = static_cast<std::uint64_t>(st.st_size);
  info->nFileSizeHigh = static_cast<DWORD>(size >> 32);
  info->nFileSizeLow = static_cast<DWORD>(size);
  info->nNumberOfLinks = static_cast<DWORD>(st.st_nlink);
  const auto index = static_cast<std::uint64_t>(st.st_ino);
  info->nFileIndexHigh = static_cast<DWORD>(index >> 32);
  info->nFileIndexLow = static_cast<DWORD>(index);
  return TRUE;
}

HANDLE CreateEventW(BOOL manualReset, BOOL initialState) noexcept {
  auto* event = new (std::nothrow) EventObject(manualReset != FALSE, initialState != FALSE);
  if (event == nullptr) SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  return event;
}

BOOL MoveFileExW(const char16_t* from, const char16_t* to, DWORD flags) noexcept {
  try {
    if (from == nullptr || to == nullptr || *from == 0 || *to == 0) {
      return Fail(ERROR_PATH_NOT_FOUND);
    }
    const std::string source = posix::ToUtf8(from);
    const std::string target = posix::ToUtf8(to);
    const bool replace = (flags & MOVEFILE_REPLACE_EXISTING) != 0;
    ShareTable& table = Table();
    std::lock_guard<std::mutex> lock(table.mutex);

    struct stat sourceStat {};
    if (lstat(source.c_str(), &sourceStat) != 0) return Fail(ErrorFromErrno(errno, source));
    const FileKey sourceKey = KeyOf(sourceStat);
    if (BlocksDelete(table, sourceKey)) return Fail(ERROR_SHARING_VIOLATION);

    struct stat targetStat {};
    if (lstat(target.c_str(), &targetStat) == 0 && !(KeyOf(targetStat) == sourceKey)) {
      if (!replace) return Fail(ERROR_ALREADY_EXISTS);
      if (S_ISDIR(targetStat.st_mode) || IsReadOnly(targetStat) ||
          BlocksDelete(table, KeyOf(targetStat))) {
        return Fail(ERROR_ACCESS_DENIED);
      }
    }

    int moved =
        replace ? rename(source.c_str(), target.c_str())
                : renameat2(AT_FDCWD, source.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE);
    if (moved != 0 && !replace && (errno == EINVAL || errno == ENOSYS)) {
      // A file system without RENAME_NOREPLACE; the existence test above has to do.
      moved = rename(source.c_str(), target.c_str());
    }
    if (moved != 0) {
      const int error = errno;
      if (error == EEXIST) return Fail(ERROR_ALREADY_EXISTS);
      // The source was there a moment ago, so a missing piece lies on the way to the target.
      if (error == ENOENT) return Fail(ERROR_PATH_NOT_FOUND);
      if (error != EXDEV) return Fail(ErrorFromErrno(error, source));
      if (!(flags & MOVEFILE_COPY_ALLOWED) || !S_ISREG(sourceStat.st_mode)) {
        return Fail(ERROR_NOT_SAME_DEVICE);
      }
      const DWORD copied =
          CopyAcrossDevices(source, target, replace, (flags & MOVEFILE_WRITE_THROUGH) != 0);
      if (copied != ERROR_SUCCESS) return Fail(copied);
      if (unlink(source.c_str()) != 0) return Fail(posix::WinErrorFromErrno(errno));
      return TRUE;
    }
    // Handles follow the file to its new name, as they do on Windows.
    if (const auto it = table.files.find(sourceKey); it != table.files.end()) {
      for (FileObject* h : it->second.handles) h->path = target;
      if (it->second.deletePending) it->second.deletePath = target;
    }
    return TRUE;
  } catch (...) {
    return Fail(ERROR_NOT_ENOUGH_MEMORY);
  }
}

BOOL DeleteFileW(const char16_t* path) noexcept {
  try {
    if (path == nullptr || *path == 0) return Fail(ERROR_PATH_NOT_FOUND);
    const std::string name = posix::ToUtf8(path);
    ShareTable& table = Table();
    std::lock_guard<std::mutex> lock(table.mutex);
    struct stat st {};
    if (lstat(name.c_str(), &st) != 0) return Fail(ErrorFromErrno(errno, name));
    if (S_ISDIR(st.st_mode) || (S_ISREG(st.st_mode) && IsReadOnly(st))) {
      return Fail(ERROR_ACCESS_DENIED);
    }
    if (BlocksDelete(table, KeyOf(st))) return Fail(ERROR_SHARING_VIOLATION);
    if (unlink(name.c_str()) != 0) return Fail(ErrorFromErrno(errno, name));
    return TRUE;
  } catch (...) {
    return Fail(ERROR_NOT_ENOUGH_MEMORY);
  }
}

BOOL CreateDirectoryW(const char16_t* path) noexcept {
  try {
    if (path == nullptr || *path == 0) return Fail(ERROR_PATH_NOT_FOUND);
    if (mkdir(posix::ToUtf8(path).c_str(), 0700) == 0) return TRUE;
    switch (errno) {
      case EEXIST:
        return Fail(ERROR_ALREADY_EXISTS);
      case ENOENT:
      case ENOTDIR:
        return Fail(ERROR_PATH_NOT_FOUND);
      default:
        return Fail(posix::WinErrorFromErrno(errno));
    }
  } catch (...) {
    return Fail(ERROR_NOT_ENOUGH_MEMORY);
  }
}

BOOL RemoveDirectoryW(const char16_t* path) noexcept {
  try {
    if (path == nullptr || *path == 0) return Fail(ERROR_PATH_NOT_FOUND);
    const std::string name = posix::ToUtf8(path);
    if (rmdir(name.c_str()) == 0) return TRUE;
    switch (errno) {
      case ENOTDIR: {
        struct stat st {};
        // A file named by the path is ERROR_DIRECTORY; a file on the way to it is not.
        return Fail(stat(name.c_str(), &st) == 0 ? ERROR_DIRECTORY : ERROR_PATH_NOT_FOUND);
      }
      case ENOTEMPTY:
      case EEXIST:
        return Fail(ERROR_DIR_NOT_EMPTY);
      default:
        return Fail(ErrorFromErrno(errno, name));
    }
  } catch (...) {
    return Fail(ERROR_NOT_ENOUGH_MEMORY);
  }
}

DWORD GetFileAttributesW(const char16_t* path) noexcept {
  try {
    if (path == nullptr || *path == 0) {
      SetLastError(ERROR_PATH_NOT_FOUND);
      return INVALID_FILE_ATTRIBUTES;
    }
    const std::string name = posix::ToUtf8(path);
    struct stat st {};
    DWORD attributes = 0;
    if (!StatThroughLink(name, &st, &attributes)) {
      SetLastError(ErrorFromErrno(errno, name));
      return INVALID_FILE_ATTRIBUTES;
    }
    return attributes;
  } catch (...) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return INVALID_FILE_ATTRIBUTES;
  }
}

BOOL SetFileAttributesW(const char16_t* path, DWORD attributes) noexcept {
  try {
    if (path == nullptr || *path == 0) return Fail(ERROR_PATH_NOT_FOUND);
    const std::string name = posix::ToUtf8(path);
    struct stat st {};
    if (stat(name.c_str(), &st) != 0) return Fail(ErrorFromErrno(errno, name));
    if (S_ISDIR(st.st_mode)) return TRUE;  // Windows keeps the bit on folders without effect.
    mode_t mode = st.st_mode & 07777;
    if (attributes & FILE_ATTRIBUTE_READONLY) {
      mode &= ~static_cast<mode_t>(S_IWUSR | S_IWGRP | S_IWOTH);
    } else {
      mode |= S_IWUSR;
    }
    if (mode != (st.st_mode & 07777) && chmod(name.c_str(), mode) != 0) {
      return Fail(ErrorFromErrno(errno, name));
    }
    return TRUE;
  } catch (...) {
    return Fail(ERROR_NOT_ENOUGH_MEMORY);
  }
}

namespace {

// The owner-only mode of an entry: 0700 for a folder, 0600 for anything else, where a file
// without its owner's write bit stays read-only (0400), as the read-only attribute must survive.
mode_t OwnerOnlyMode(const struct stat& st) noexcept {
  if (S_ISDIR(st.st_mode)) return 0700;
  return (st.st_mode & S_IWUSR) ? 0600 : 0400;
}

// Changes the mode of `name` in `folder` without following a link that may have taken the
// entry's place since it was looked at. The C library does that through a descriptor of the entry
// where the system lets it; elsewhere a second look just before the plain call has to do.
int ChmodNoFollow(int folder, const char* name, mode_t mode) {
  if (fchmodat(folder, name, mode, AT_SYMLINK_NOFOLLOW) == 0) return 0;
  if (errno != EOPNOTSUPP && errno != ENOTSUP) return -1;
  struct stat st {};
  if (fstatat(folder, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return -1;
  if (S_ISLNK(st.st_mode)) return 0;
  return fchmodat(folder, name, mode, 0);
}

// Gives the entry `name` in `folder`, whose status is `st`, its owner-only mode unless it has it
// already. False with errno on failure.
bool RestrictEntry(int folder, const char* name, const struct stat& st) {
  const mode_t mode = OwnerOnlyMode(st);
  return (st.st_mode & 07777) == mode || ChmodNoFollow(folder, name, mode) == 0;
}

// Restricts the entries of the open folder `folder`, and below, to their owner. Every entry is
// looked at by name relative to the folder without following links, so a link placed inside
// cannot lead the walk, or a mode change, out of the tree. Keeps going past a failure and
// returns the first error, or ERROR_SUCCESS. Takes ownership of `folder`.
DWORD RestrictEntriesBelow(int folder) {
  DIR* dir = fdopendir(folder);
  if (dir == nullptr) {
    const DWORD error = posix::WinErrorFromErrno(errno);
    close(folder);
    return error;
  }
  DWORD firstError = ERROR_SUCCESS;
  const auto note = [&firstError](DWORD error) {
    if (firstError == ERROR_SUCCESS) firstError = error;
  };
  for (;;) {
    errno = 0;
    const dirent* entry = readdir(dir);
    if (entry == nullptr) {
      if (errno != 0) note(posix::WinErrorFromErrno(errno));
      break;
    }
    const char* name = entry->d_name;
    if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
    struct stat st {};
    if (fstatat(dirfd(dir), name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
      // An entry removed while the walk goes on is no longer anyone's to read.
      if (errno != ENOENT) note(posix::WinErrorFromErrno(errno));
      continue;
    }
    if (S_ISLNK(st.st_mode)) continue;
    // The folder's own rights come first, so that a folder closed to its owner can be read.
    if (!RestrictEntry(dirfd(dir), name, st)) {
      note(posix::WinErrorFromErrno(errno));
      continue;
    }
    if (S_ISDIR(st.st_mode)) {
      const int child = openat(dirfd(dir), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      if (child < 0) {
        note(posix::WinErrorFromErrno(errno));
        continue;
      }
      note(RestrictEntriesBelow(child));
    }
  }
  closedir(dir);
  return firstError;
}

}  // namespace

BOOL RestrictToOwner(const char16_t* path, BOOL recursive) noexcept {
  try {
    if (path == nullptr || *path == 0) return Fail(ERROR_PATH_NOT_FOUND);
    const std::string name = posix::ToUtf8(path);
    struct stat st {};
    if (lstat(name.c_str(), &st) != 0) return Fail(ErrorFromErrno(errno, name));
    // A link is not ours to change, and what it points to may lie outside anything we own.
    if (S_ISLNK(st.st_mode)) return TRUE;
    if (!RestrictEntry(AT_FDCWD, name.c_str(), st)) return Fail(ErrorFromErrno(errno, name));
    if (!recursive || !S_ISDIR(st.st_mode)) return TRUE;
    const int folder = open(name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (folder < 0) return Fail(ErrorFromErrno(errno, name));
    const DWORD error = RestrictEntriesBelow(folder);
    return error == ERROR_SUCCESS ? TRUE : Fail(error);
  } catch (...) {
    return Fail(ERROR_NOT_ENOUGH_MEMORY);
  }
}

HANDLE FindFirstFileW(const char16_t* pattern, FindDataW* data) noexcept {
  try {
    if (pattern == nullptr || *pattern == 0 || data == nullptr) {
      SetLastError(pattern == nullptr || *pattern == 0 ? ERROR_PATH_NOT_FOUND
                                                       : ERROR_INVALID_PARAMETER);
      return INVALID_HANDLE_VALUE;
    }
    const std::u16string whole(pattern);
    const std::size_t slash = whole.find_last_of(u'/');
    const std::u16string namePattern = slash == whole.npos ? whole : whole.substr(slash + 1);
    const std::string folder =
        slash == whole.npos ? std::string() : posix::ToUtf8(whole.substr(0, slash + 1));
    if (namePattern.empty()) {
      SetLastError(ERROR_FILE_NOT_FOUND);
      return INVALID_HANDLE_VALUE;
    }
    auto* find = new (std::nothrow) FindObject;
    if (find == nullptr) {
      SetLastError(ERROR_NOT_ENOUGH_MEMORY);
      return INVALID_HANDLE_VALUE;
    }
    find->folder = folder;
    find->pattern = namePattern;
    if (namePattern.find_first_of(u"*?") == namePattern.npos) {
      const std::string path = folder + posix::ToUtf8(namePattern);
      struct stat st {};
      if (lstat(path.c_str(), &st) != 0) {
        SetLastError(ErrorFromErrno(errno, path));
        delete find;
        return INVALID_HANDLE_VALUE;
      }
      if (!FillFindData(path, namePattern, data)) {
        SetLastError(ERROR_FILE_NOT_FOUND);
        delete find;
        return INVALID_HANDLE_VALUE;
      }
      return find;
    }
    find->dir = opendir(folder.empty() ? "." : folder.c_str());
    if (find->dir == nullptr) {
      const int error = errno;
      delete find;
      SetLastError(error == ENOENT || error == ENOTDIR ? ERROR_PATH_NOT_FOUND
                                                       : posix::WinErrorFromErrno(error));
      return INVALID_HANDLE_VALUE;
    }
    if (!NextMatch(find, data)) {
      delete find;
      SetLastError(ERROR_FILE_NOT_FOUND);
      return INVALID_HANDLE_VALUE;
    }
    return find;
  } catch (...) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return INVALID_HANDLE_VALUE;
  }
}

BOOL FindNextFileW(HANDLE handle, FindDataW* data) noexcept {
  try {
    FindObject* find = As<FindObject>(handle, HandleKind::kFind);
    if (find == nullptr) return Fail(ERROR_INVALID_HANDLE);
    if (data == nullptr) return Fail(ERROR_INVALID_PARAMETER);
    if (!NextMatch(find, data)) return Fail(ERROR_NO_MORE_FILES);
    return TRUE;
  } catch (...) {
    return Fail(ERROR_NOT_ENOUGH_MEMORY);
  }
}

BOOL FindClose(HANDLE handle) noexcept {
  FindObject* find = As<FindObject>(handle, HandleKind::kFind);
  if (find == nullptr) return Fail(ERROR_INVALID_HANDLE);
  delete find;
  return TRUE;
}

std::FILE* OpenStdioFile(const char16_t* path, const char* mode) noexcept {
  try {
    if (path == nullptr || *path == 0 || mode == nullptr) {
      errno = ENOENT;
      Fail(ERROR_PATH_NOT_FOUND);
      return nullptr;
    }
    std::FILE* file = std::fopen(posix::ToUtf8(path).c_str(), mode);
    if (file == nullptr) Fail(posix::WinErrorFromErrno(errno));
    return file;
  } catch (...) {
    errno = ENOMEM;
    Fail(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
}

DWORD GetTempPathW(DWORD size, char16_t* buffer) noexcept {
  try {
    const char* value = std::getenv("TMPDIR");
    std::u16string folder = value != nullptr && *value != 0 ? posix::FromUtf8(value) : u"/tmp/";
    if (folder.back() != u'/') folder.push_back(u'/');
    if (buffer == nullptr || size < folder.size() + 1) return static_cast<DWORD>(folder.size() + 1);
    std::memcpy(buffer, folder.c_str(), (folder.size() + 1) * sizeof(char16_t));
    return static_cast<DWORD>(folder.size());
  } catch (...) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return 0;
  }
}

UINT GetTempFileNameW(const char16_t* folder, const char16_t* prefix, UINT unique,
                      char16_t* result) noexcept {
  try {
    if (folder == nullptr || result == nullptr) {
      SetLastError(ERROR_INVALID_PARAMETER);
      return 0;
    }
    std::u16string base(folder);
    if (!base.empty() && base.back() != u'/') base.push_back(u'/');
    if (prefix != nullptr) {
      for (int i = 0; i < 3 && prefix[i] != 0; ++i) base.push_back(prefix[i]);
    }
    const auto nameFor = [&base](UINT number) {
      char hex[16];
      std::snprintf(hex, sizeof(hex), "%X", number & 0xFFFFu);
      std::u16string name = base;
      for (const char* c = hex; *c != 0; ++c) name.push_back(static_cast<char16_t>(*c));
      name += u".tmp";
      return name;
    };
    const auto deliver = [result](const std::u16string& name) {
      if (name.size() >= MAX_PATH) {
        SetLastError(ERROR_BUFFER_OVERFLOW);
        return false;
      }
      std::memcpy(result, name.c_str(), (name.size() + 1) * sizeof(char16_t));
      return true;
    };
    if (unique != 0) return deliver(nameFor(unique)) ? unique : 0;

    // Start where a neighbouring process is unlikely to be, then walk the 65535 numbers.
    const UINT start = (static_cast<UINT>(getpid()) * 7919u + GetTickCount() +
                        gTempCounter.fetch_add(1, std::memory_order_relaxed)) &
                       0xFFFFu;
    for (UINT i = 0; i < 0xFFFFu; ++i) {
      const UINT number = (start + i) % 0xFFFFu + 1;
      const std::u16string name = nameFor(number);
      if (name.size() >= MAX_PATH) {
        SetLastError(ERROR_BUFFER_OVERFLOW);
        return 0;
      }
      const int fd =
          open(posix::ToUtf8(name).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
      if (fd >= 0) {
        close(fd);
        (void)deliver(name);
        SetLastError(ERROR_SUCCESS);
        return number;
      }
      if (errno == EEXIST) continue;
      SetLastError(errno == ENOENT || errno == ENOTDIR ? ERROR_DIRECTORY
                                                       : posix::WinErrorFromErrno(errno));
      return 0;
    }
    SetLastError(ERROR_FILE_EXISTS);
    return 0;
  } catch (...) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return 0;
  }
}

}  // namespace mrwl::platform
