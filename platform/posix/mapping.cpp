// Shared memory of the POSIX backend, with the Windows meaning of section objects.
//
// A named mapping is a shm_open object; an unnamed one a memfd. Windows removes a name with the
// last handle on it, POSIX only on shm_unlink, so the process counts its own handles per name
// and unlinks the name when the last of them closes. Handles of other processes are not seen:
// a name may go while another process still holds it, which is why a reader should open the
// name while the writer still holds its handle. Views are remembered by address so that
// UnmapViewOfFile can give back exactly what mmap took, and refuse anything else.
#include <cerrno>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <utility>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/files.h"
#include "platform/kernel.h"
#include "platform/posix/handle_object.h"
#include "platform/posix/posix_util.h"

namespace mrwl::platform {
namespace {

using posix::As;
using posix::HandleKind;
using posix::HandleObject;

// The names this process holds, with the number of its handles on each, and its views.
struct MappingTables {
  std::mutex mutex;
  std::map<std::string, unsigned> names;
  std::map<const void*, std::size_t> views;
};

// Never destroyed: handles may still be closed and views ended by static destructors elsewhere.
MappingTables& Tables() {
  static MappingTables* tables = new MappingTables;
  return *tables;
}

// Gives up one hold on `name`, unlinking it when it was the last. Called under the mutex.
void ReleaseNameLocked(MappingTables& tables, const std::string& name) noexcept {
  const auto it = tables.names.find(name);
  if (it == tables.names.end()) return;
  if (--it->second == 0) {
    tables.names.erase(it);
    // Another process may have taken the name away already; that changes nothing here.
    (void)shm_unlink(name.c_str());
  }
}

struct MappingObject final : HandleObject {
  MappingObject() noexcept : HandleObject(HandleKind::kMapping) {}
  ~MappingObject() override {
    if (fd >= 0) (void)close(fd);
    if (shmName.empty()) return;
    MappingTables& tables = Tables();
    try {
      std::lock_guard<std::mutex> lock(tables.mutex);
      ReleaseNameLocked(tables, shmName);
    } catch (...) {
      // A mutex that cannot be locked leaves the name behind; nothing better can be done here.
    }
  }
  int fd = -1;
  std::string shmName;  // empty for an unnamed mapping
  bool writable = false;
};

HANDLE FailNull(DWORD error) noexcept {
  SetLastError(error);
  return nullptr;
}

// The shm_open name of a mapping name: a leading "/" and no other, as POSIX asks.
std::string ShmNameOf(const char16_t* name) {
  const std::string text = posix::ToUtf8(name);
  std::string shmName(1, '/');
  shmName.reserve(text.size() + 1);
  for (char c : text) shmName.push_back(c == '/' ? '_' : c);
  return shmName;
}

// Opens or creates the named object for `mapping`. Returns ERROR_SUCCESS for a new object,
// ERROR_ALREADY_EXISTS for an existing one, or the error. Called under the mutex, which keeps
// this process's own unlink from running between the two opens.
DWORD OpenNamed(MappingObject& mapping, off_t size) {
  // The object may vanish between a failed exclusive create and the plain open, when another
  // process drops it; a few rounds settle that.
  for (int attempt = 0; attempt < 8; ++attempt) {
    if (size > 0) {
      const int fd = shm_open(mapping.shmName.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0600);
      if (fd >= 0) {
        mapping.fd = fd;
        if (ftruncate(fd, size) != 0) {
          const DWORD error = posix::WinErrorFromErrno(errno);
          (void)shm_unlink(mapping.shmName.c_str());
          return error;
        }
        return ERROR_SUCCESS;
      }
      if (errno != EEXIST) return posix::WinErrorFromErrno(errno);
    }
    const int fd = shm_open(mapping.shmName.c_str(), O_RDWR | O_CLOEXEC, 0);
    if (fd >= 0) {
      mapping.fd = fd;
      return ERROR_ALREADY_EXISTS;
    }
    if (errno != ENOENT) return posix::WinErrorFromErrno(errno);
    // Without a size nothing new can be made: Windows asks for one for the paging file.
    if (size == 0) return ERROR_INVALID_PARAMETER;
  }
  return ERROR_ACCESS_DENIED;
}

}  // namespace

HANDLE CreateFileMappingW(HANDLE file, const SECURITY_ATTRIBUTES* /*attributes*/, DWORD protect,
                          DWORD sizeHigh, DWORD sizeLow, const char16_t* name) noexcept {
  // The security attributes have nothing to say here: the object is the owner's alone (0600),
  // and no handle of this backend passes to a child process.
  try {
    if (file != INVALID_HANDLE_VALUE) return FailNull(ERROR_NOT_SUPPORTED);
    if (protect != PAGE_READONLY && protect != PAGE_READWRITE) {
      return FailNull(ERROR_INVALID_PARAMETER);
    }
    const std::uint64_t size = (std::uint64_t{sizeHigh} << 32) | sizeLow;
    if (size > static_cast<std::uint64_t>(INT64_MAX)) return FailNull(ERROR_INVALID_PARAMETER);
    const bool named = name != nullptr && *name != 0;
    if (!named && size == 0) return FailNull(ERROR_INVALID_PARAMETER);

    auto mapping = std::unique_ptr<MappingObject>(new (std::nothrow) MappingObject);
    if (mapping == nullptr) return FailNull(ERROR_NOT_ENOUGH_MEMORY);
    mapping->writable = protect == PAGE_READWRITE;

    if (!named) {
      mapping->fd = memfd_create("mrwl-mapping", MFD_CLOEXEC);
      if (mapping->fd < 0 || ftruncate(mapping->fd, static_cast<off_t>(size)) != 0) {
        return FailNull(posix::WinErrorFromErrno(errno));
      }
      SetLastError(ERROR_SUCCESS);
      return mapping.release();
    }

    const std::string shmName = ShmNameOf(name);
    MappingTables& tables = Tables();
    std::lock_guard<std::mutex> lock(tables.mutex);
    // Counted before the open, so that running out of memory for the count leaves nothing open.
    ++tables.names[shmName];
    mapping->shmName = shmName;
    const DWORD outcome = OpenNamed(*mapping, static_cast<off_t>(size));
    if (outcome != ERROR_SUCCESS && outcome != ERROR_ALREADY_EXISTS) {
      // Given back under the same lock, so that no other thread counts on a failed open.
      mapping->shmName.clear();
      ReleaseNameLocked(tables, shmName);
      return FailNull(outcome);
    }
    SetLastError(outcome);
    return mapping.release();
  } catch (...) {
    return FailNull(ERROR_NOT_ENOUGH_MEMORY);
  }
}

HANDLE OpenFileMappingW(DWORD access, BOOL /*inherit*/, const char16_t* name) noexcept {
  try {
    if (name == nullptr || *name == 0) return FailNull(ERROR_INVALID_PARAMETER);
    const bool write = (access & FILE_MAP_WRITE) != 0;
    if (!write && !(access & FILE_MAP_READ)) return FailNull(ERROR_INVALID_PARAMETER);
    auto mapping = std::unique_ptr<MappingObject>(new (std::nothrow) MappingObject);
    if (mapping == nullptr) return FailNull(ERROR_NOT_ENOUGH_MEMORY);
    mapping->writable = write;

    const std::string shmName = ShmNameOf(name);
    MappingTables& tables = Tables();
    std::lock_guard<std::mutex> lock(tables.mutex);
    const int fd = shm_open(shmName.c_str(), (write ? O_RDWR : O_RDONLY) | O_CLOEXEC, 0);
    if (fd < 0) {
      return FailNull(errno == ENOENT ? ERROR_FILE_NOT_FOUND : posix::WinErrorFromErrno(errno));
    }
    mapping->fd = fd;
    ++tables.names[shmName];
    mapping->shmName = shmName;
    SetLastError(ERROR_SUCCESS);
    return mapping.release();
  } catch (...) {
    return FailNull(ERROR_NOT_ENOUGH_MEMORY);
  }
}

void* MapViewOfFile(HANDLE handle, DWORD access, DWORD offsetHigh, DWORD offsetLow,
                    SIZE_T size) noexcept {
  try {
    auto* mapping = As<MappingObject>(handle, HandleKind::kMapping);
    if (mapping == nullptr) return FailNull(ERROR_INVALID_HANDLE);
    const bool write = (access & FILE_MAP_WRITE) != 0;
    if (!write && !(access & FILE_MAP_READ)) return FailNull(ERROR_INVALID_PARAMETER);
    if (write && !mapping->writable) return FailNull(ERROR_ACCESS_DENIED);

    const std::uint64_t offset = (std::uint64_t{offsetHigh} << 32) | offsetLow;
    const long pageSize = sysconf(_SC_PAGESIZE);
    if (pageSize > 0 && offset % static_cast<std::uint64_t>(pageSize) != 0) {
      return FailNull(ERROR_MAPPED_ALIGNMENT);
    }
    struct stat st {};
    if (fstat(mapping->fd, &st) != 0) return FailNull(posix::WinErrorFromErrno(errno));
    const auto total = static_cast<std::uint64_t>(st.st_size);
    // A view that would reach past the object is refused as Windows refuses it, rather than
    // mapped with pages that fault on first touch.
    if (offset >= total || (size != 0 && size > total - offset)) {
      return FailNull(ERROR_ACCESS_DENIED);
    }
    const std::size_t length = size != 0 ? size : static_cast<std::size_t>(total - offset);

    const int prot = write ? PROT_READ | PROT_WRITE : PROT_READ;
    void* view = mmap(nullptr, length, prot, MAP_SHARED, mapping->fd, static_cast<off_t>(offset));
    if (view == MAP_FAILED) return FailNull(posix::WinErrorFromErrno(errno));
    try {
      MappingTables& tables = Tables();
      std::lock_guard<std::mutex> lock(tables.mutex);
      tables.views[view] = length;
    } catch (...) {
      (void)munmap(view, length);
      return FailNull(ERROR_NOT_ENOUGH_MEMORY);
    }
    SetLastError(ERROR_SUCCESS);
    return view;
  } catch (...) {
    return FailNull(ERROR_NOT_ENOUGH_MEMORY);
  }
}

BOOL UnmapViewOfFile(const void* view) noexcept {
  try {
    std::size_t length = 0;
    {
      MappingTables& tables = Tables();
      std::lock_guard<std::mutex> lock(tables.mutex);
      const auto it = tables.views.find(view);
      if (it == tables.views.end()) {
        SetLastError(ERROR_INVALID_ADDRESS);
        return FALSE;
      }
      length = it->second;
      tables.views.erase(it);
    }
    if (munmap(const_cast<void*>(view), length) != 0) {
      SetLastError(posix::WinErrorFromErrno(errno));
      return FALSE;
    }
    return TRUE;
  } catch (...) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return FALSE;
  }
}

}  // namespace mrwl::platform
