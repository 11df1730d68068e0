#include <cerrno>

#include "platform/kernel.h"
#include "platform/posix/posix_util.h"
#include "platform/utf.h"

namespace mrwl::platform {
namespace {
thread_local DWORD tLastError = 0;
}  // namespace

DWORD GetLastError() noexcept { return tLastError; }
void SetLastError(DWORD error) noexcept { tLastError = error; }

namespace posix {

DWORD WinErrorFromErrno(int error) noexcept {
  switch (error) {
    case 0: return ERROR_SUCCESS;
    case ENOENT: return ERROR_FILE_NOT_FOUND;
    case ENOTDIR: return ERROR_PATH_NOT_FOUND;
    case EACCES:
    case EPERM:
    case EROFS: return ERROR_ACCESS_DENIED;
    case EISDIR: return ERROR_ACCESS_DENIED;
    case EMFILE:
    case ENFILE: return ERROR_TOO_MANY_OPEN_FILES;
    case EBADF: return ERROR_INVALID_HANDLE;
    case ENOMEM: return ERROR_NOT_ENOUGH_MEMORY;
    case EXDEV: return ERROR_NOT_SAME_DEVICE;
    case EBUSY:
    case ETXTBSY: return ERROR_SHARING_VIOLATION;
    case EAGAIN: return ERROR_LOCK_VIOLATION;
    case EEXIST: return ERROR_FILE_EXISTS;
    case EINVAL: return ERROR_INVALID_PARAMETER;
    case ENOSPC:
    case EDQUOT: return ERROR_DISK_FULL;
    case EFBIG: return ERROR_FILE_TOO_LARGE;
    case ENAMETOOLONG: return ERROR_FILENAME_EXCED_RANGE;
    case ENOTEMPTY: return ERROR_DIR_NOT_EMPTY;
    case ELOOP: return ERROR_CANT_RESOLVE_FILENAME;
    case EPIPE: return ERROR_BROKEN_PIPE;
    case ESPIPE: return ERROR_SEEK;
    case EIO: return ERROR_GEN_FAILURE;
    case ENOSYS:
    case EOPNOTSUPP: return ERROR_NOT_SUPPORTED;
    case ETIMEDOUT: return ERROR_SEM_TIMEOUT;
    case ECANCELED: return ERROR_OPERATION_ABORTED;
    case EMLINK: return ERROR_TOO_MANY_LINKS;
    case EILSEQ: return ERROR_NO_UNICODE_TRANSLATION;
    case ENXIO:
    case ENODEV: return ERROR_DEV_NOT_EXIST;
    // The network family: a stale or broken remote file answers in ERROR_BAD_NETPATH ..
    // ERROR_UNEXP_NET_ERR, which the stream layer treats as a reason to reopen.
    case ESTALE: return ERROR_UNEXP_NET_ERR;
    case ENETDOWN:
    case ENETUNREACH:
    case EHOSTUNREACH:
    case EHOSTDOWN: return ERROR_BAD_NETPATH;
    case ECONNRESET:
    case ECONNABORTED:
    case ENOTCONN:
    case ENOLINK: return ERROR_UNEXP_NET_ERR;
    case ECOMM: return ERROR_BAD_NET_RESP;
    default: return ERROR_GEN_FAILURE;
  }
}

DWORD SetLastErrorFromErrno() noexcept {
  const DWORD error = WinErrorFromErrno(errno);
  SetLastError(error);
  return error;
}

std::string ToUtf8(std::u16string_view text) { return Utf16ToUtf8(text); }

std::string ToUtf8(const char16_t* text) {
  return text == nullptr ? std::string() : Utf16ToUtf8(std::u16string_view(text));
}

std::u16string FromUtf8(std::string_view text) { return Utf8ToUtf16(text); }

ULONGLONG FileTimeFromUnix(long long seconds, long nanoseconds) noexcept {
  constexpr ULONGLONG kEpochDifference = 116444736000000000ull;  // 1601 to 1970 in 100 ns
  return kEpochDifference + static_cast<ULONGLONG>(seconds) * 10000000ull +
         static_cast<ULONGLONG>(nanoseconds / 100);
}

}  // namespace posix
}  // namespace mrwl::platform
