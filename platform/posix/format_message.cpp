#include <cstdlib>
#include <cstring>
#include <string_view>

#include "platform/kernel.h"

namespace mrwl::platform {
namespace {

// The system texts of the error numbers that this backend produces or the logic names, in the
// wording that an English Windows gives them. The terminating CR LF is added on the way out.
struct SystemMessage {
  DWORD id;
  std::u16string_view text;
};

constexpr SystemMessage kSystemMessages[] = {
    {0, u"The operation completed successfully."},
    {1, u"Incorrect function."},
    {2, u"The system cannot find the file specified."},
    {3, u"The system cannot find the path specified."},
    {4, u"The system cannot open the file."},
    {5, u"Access is denied."},
    {6, u"The handle is invalid."},
    {8, u"Not enough memory resources are available to process this command."},
    {13, u"The data is invalid."},
    {14, u"Not enough memory resources are available to complete this operation."},
    {15, u"The system cannot find the drive specified."},
    {16, u"The directory cannot be removed."},
    {17, u"The system cannot move the file to a different disk drive."},
    {18, u"There are no more files."},
    {19, u"The media is write protected."},
    {21, u"The device is not ready."},
    {23, u"Data error (cyclic redundancy check)."},
    {25, u"The drive cannot locate a specific area or track on the disk."},
    {29, u"The system cannot write to the specified device."},
    {30, u"The system cannot read from the specified device."},
    {31, u"A device attached to the system is not functioning."},
    {32, u"The process cannot access the file because it is being used by another process."},
    {33,
     u"The process cannot access the file because another process has locked a portion of the "
     u"file."},
    {38, u"Reached the end of the file."},
    {39, u"The disk is full."},
    {50, u"The request is not supported."},
    {51,
     u"Windows cannot find the network path. Verify that the network path is correct and the "
     u"destination computer is not busy or turned off. If Windows still cannot find the network "
     u"path, contact your network administrator."},
    {53, u"The network path was not found."},
    {54, u"The network is busy."},
    {55, u"The specified network resource or device is no longer available."},
    {56, u"The network BIOS command limit has been reached."},
    {57, u"A network adapter hardware error occurred."},
    {58, u"The specified server cannot perform the requested operation."},
    {59, u"An unexpected network error occurred."},
    {64, u"The specified network name is no longer available."},
    {65, u"Network access is denied."},
    {67, u"The network name cannot be found."},
    {80, u"The file exists."},
    {82, u"The directory or file cannot be created."},
    {87, u"The parameter is incorrect."},
    {109, u"The pipe has been ended."},
    {110, u"The system cannot open the device or file specified."},
    {111, u"The file name is too long."},
    {112, u"There is not enough space on the disk."},
    {120, u"This function is not supported on this system."},
    {121, u"The semaphore timeout period has expired."},
    {122, u"The data area passed to a system call is too small."},
    {123, u"The filename, directory name, or volume label syntax is incorrect."},
    {126, u"The specified module could not be found."},
    {127, u"The specified procedure could not be found."},
    {131, u"An attempt was made to move the file pointer before the beginning of the file."},
    {145, u"The directory is not empty."},
    {161, u"The specified path is invalid."},
    {170, u"The requested resource is in use."},
    {183, u"Cannot create a file when that file already exists."},
    {193, u"%1 is not a valid Win32 application."},
    {203, u"The system could not find the environment option that was entered."},
    {206, u"The filename or extension is too long."},
    {223, u"The file size exceeds the limit allowed and cannot be saved."},
    {234, u"More data is available."},
    {258, u"The wait operation timed out."},
    {259, u"No more data is available."},
    {267, u"The directory name is invalid."},
    {288, u"Attempt to release mutex not owned by caller."},
    {317,
     u"The system cannot find message text for message number 0x%1 in the message file for %2."},
    {995,
     u"The I/O operation has been aborted because of either a thread exit or an application "
     u"request."},
    {996, u"Overlapped I/O event is not in a signaled state."},
    {997, u"Overlapped I/O operation is in progress."},
    {998, u"Invalid access to memory location."},
    {1004, u"Invalid flags."},
    {1009, u"The configuration registry database is corrupt."},
    {1010, u"The configuration registry key is invalid."},
    {1011, u"The configuration registry key could not be opened."},
    {1012, u"The configuration registry key could not be read."},
    {1013, u"The configuration registry key could not be written."},
    {1015,
     u"The registry is corrupted. The structure of one of the files containing registry data is "
     u"corrupted, or the system's memory image of the file is corrupted, or the file could not "
     u"be recovered because the alternate copy or log was absent or corrupted."},
    {1016,
     u"An I/O operation initiated by the registry failed unrecoverably. The registry could not "
     u"read in, or write out, or flush, one of the files that contain the system's image of the "
     u"registry."},
    {1018, u"Illegal operation attempted on a registry key that has been marked for deletion."},
    {1113, u"No mapping for the Unicode character exists in the target multi-byte code page."},
    {1142, u"An attempt was made to create more links on a file than the file system supports."},
    {1155, u"No application is associated with the specified file for this operation."},
    {1167, u"The device is not connected."},
    {1168, u"Element not found."},
    {1223, u"The operation was canceled by the user."},
    {1460, u"This operation returned because the timeout period expired."},
    {1815, u"The specified resource language ID cannot be found in the image file."},
    {1921, u"The name of the file cannot be resolved by the system."},
    {4390, u"The file or directory is not a reparse point."},
    {6701,
     u"The requested operation was made in the context of a transaction that is no longer "
     u"active."},
    {6704,
     u"It is too late to perform the requested operation, since the Transaction has already "
     u"been aborted."},
    {6705,
     u"It is too late to perform the requested operation, since the Transaction has already "
     u"been committed."},
    {6800,
     u"The function attempted to use a name that is reserved for use by another transaction."},
    // COM and security codes that have no Win32 number behind them.
    {0x80004001u, u"Not implemented"},
    {0x80004002u, u"No such interface supported"},
    {0x80004003u, u"Invalid pointer"},
    {0x80004004u, u"Operation aborted"},
    {0x80004005u, u"Unspecified error"},
    {0x8000FFFFu, u"Catastrophic failure"},
    {0x80020001u, u"Unknown interface."},
    {0x80020003u, u"Member not found."},
    {0x80020004u, u"Parameter not found."},
    {0x80020005u, u"Type mismatch."},
    {0x80020006u, u"Unknown name."},
    {0x80020008u, u"Bad variable type."},
    {0x80020009u, u"Exception occurred."},
    {0x8002000Au, u"Out of present range."},
    {0x8002000Bu, u"Invalid index."},
    {0x8002000Eu, u"Invalid number of parameters."},
    {0x80040110u, u"Class does not support aggregation (or class object is remote)"},
    {0x80040111u, u"ClassFactory cannot supply requested class"},
    {0x80090330u, u"The specified data could not be decrypted."},
};

constexpr DWORD kLangSystemDefault = 0x0800;
constexpr DWORD kLangEnglishUs = 0x0409;
constexpr DWORD kLangEnglishUk = 0x0809;

const SystemMessage* FindSystemMessage(DWORD id) noexcept {
  // An HRESULT of the Win32 facility carries a system error number in its low word.
  if ((id & 0xFFFF0000u) == 0x80070000u) id &= 0xFFFFu;
  for (const SystemMessage& message : kSystemMessages) {
    if (message.id == id) return &message;
  }
  return nullptr;
}

}  // namespace

DWORD FormatMessageW(DWORD flags, HMODULE module, DWORD messageId, DWORD languageId,
                     char16_t* buffer, DWORD size) noexcept {
  (void)module;  // No module of a POSIX process carries a message table.
  if ((flags & (FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_FROM_HMODULE)) == 0 ||
      buffer == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  if (languageId != 0 && languageId != LANG_USER_DEFAULT && languageId != kLangSystemDefault &&
      languageId != kLangEnglishUs && languageId != kLangEnglishUk) {
    SetLastError(ERROR_RESOURCE_LANG_NOT_FOUND);
    return 0;
  }
  const SystemMessage* message =
      (flags & FORMAT_MESSAGE_FROM_SYSTEM) != 0 ? FindSystemMessage(messageId) : nullptr;
  if (message == nullptr) {
    SetLastError(ERROR_MR_MID_NOT_FOUND);
    return 0;
  }
  const std::size_t length = message->text.size() + 2;  // with CR LF
  char16_t* out = buffer;
  if ((flags & FORMAT_MESSAGE_ALLOCATE_BUFFER) != 0) {
    // `size` is then the least number of characters to allocate.
    const std::size_t units = length + 1 > size ? length + 1 : size;
    out = static_cast<char16_t*>(std::malloc(units * sizeof(char16_t)));
    if (out == nullptr) {
      SetLastError(ERROR_NOT_ENOUGH_MEMORY);
      return 0;
    }
    *reinterpret_cast<char16_t**>(buffer) = out;
  } else if (size < length + 1) {
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return 0;
  }
  std::memcpy(out, message->text.data(), message->text.size() * sizeof(char16_t));
  out[length - 2] = u'\r';
  out[length - 1] = u'\n';
  out[length] = 0;
  return static_cast<DWORD>(length);
}

}  // namespace mrwl::platform
