#include "foundation/log.h"

#include <cstdarg>
#include <cstdint>
#include <string>

#include "foundation/format.h"
#include "platform/files.h"
#include "platform/kernel.h"
#include "platform/unique_any.h"

namespace mrwl {
namespace {

// Capacities of the fixed buffers the trace has always used; a longer text is cut to fit.
constexpr std::size_t kStampBuffer = 200;
constexpr DWORD kSystemTextBuffer = 160;
constexpr std::size_t kJoinedTextBuffer = 169;
constexpr std::size_t kErrorNumberBuffer = 20;
constexpr std::size_t kJoinedNumberBuffer = 49;

// The one debug file of the process. Unguarded, as the trace is used from one thread.
UniqueFile& DebugFile() noexcept {
  static UniqueFile file;
  return file;
}

// Cuts `text` to what a buffer of `capacity` units holds with its terminator.
void CutTo(WideString& text, std::size_t capacity) noexcept {
  if (text.Length() >= capacity) text.SetLength(capacity - 1);
}

void WriteToFile(HANDLE file, std::u16string_view text) noexcept {
  try {
    const std::string bytes = WideToUtf8(text);
    std::size_t offset = 0;
    while (offset < bytes.size()) {
      DWORD done = 0;
      const std::size_t rest = bytes.size() - offset;
      const DWORD chunk = rest > 0x40000000u ? 0x40000000u : static_cast<DWORD>(rest);
      if (!platform::WriteFile(file, bytes.data() + offset, chunk, &done, nullptr) || done == 0) {
        return;  // A file that can't be written is ignored; the debugger still has the line.
      }
      offset += done;
    }
  } catch (...) {
  }
}

}  // namespace

void OpenDebugFile(const char16_t* path) noexcept {
  if (path == nullptr || *path == 0) return;
  UniqueFile& file = DebugFile();
  file.reset();
  // Mode "w": created or emptied. Readers may follow the file while it grows.
  file.reset(platform::CreateFileW(path, GENERIC_WRITE, FILE_SHARE_READ, CREATE_ALWAYS,
                                   FILE_ATTRIBUTE_NORMAL));
  // The wording names the file the trace historically used, whatever the path is.
  platform::OutputDebugStringW(file ? u"OLaddin:OpenDebugFile:DebugFile.txt opened"
                                    : u"ERROR - Unable to open debug file\n");
}

void CloseDebugFile() noexcept {
  UniqueFile& file = DebugFile();
  if (!file) return;
  file.reset();
  platform::OutputDebugStringW(u"OLaddin:OpenDebugFile:DebugFile.txt closed");
}

void DebugPrint(const char16_t* format, ...) noexcept {
  std::va_list args;
  va_start(args, format);
  const WideString text = FormatTextV(format, args);
  va_end(args);
  const WideString line = FormatText(u"OLaddin: %s", text.c_str());
  platform::OutputDebugStringW(line.c_str());

  UniqueFile& file = DebugFile();
  if (!file) return;
  SYSTEMTIME now{};
  platform::GetSystemTime(&now);
  // %ld reads 32 bits, as long is on Windows.
  WideString stamped =
      FormatText(u"[%ld:%ld:%ld.%ld]\t", static_cast<std::int32_t>(now.wHour),
                 static_cast<std::int32_t>(now.wMinute), static_cast<std::int32_t>(now.wSecond),
                 static_cast<std::int32_t>(now.wMilliseconds));
  CutTo(stamped, kStampBuffer);
  (void)stamped.Append(line.view());
  // WriteFile hands the bytes to the system at once, so the line is out before the call returns.
  WriteToFile(file.get(), stamped.view());
}

void DebugPrintLastError(const char16_t* prefix) noexcept {
  const DWORD error = platform::GetLastError();
  if (prefix == nullptr) prefix = u"";
  char16_t systemText[kSystemTextBuffer];
  const DWORD length =
      platform::FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                               error, 0, systemText, kSystemTextBuffer);
  WideString joined;
  if (length != 0) {
    std::u16string_view text(systemText, length);
    const std::size_t cr = text.find(u'\r');
    if (cr != std::u16string_view::npos) text = text.substr(0, cr);
    const WideString firstLine(text);
    joined = FormatText(u"%s%s\n", prefix, firstLine.c_str());
    CutTo(joined, kJoinedTextBuffer);
  } else {
    WideString number = FormatText(u"Error: 0x%x\n", error);
    CutTo(number, kErrorNumberBuffer);
    joined = FormatText(u"%s%s\n", prefix, number.c_str());
    CutTo(joined, kJoinedNumberBuffer);
  }
  DebugPrint(u"%s\n", joined.c_str());
}

void DebugPrintAddinError() noexcept { DebugPrintLastError(u"Error: Addin: "); }

void GetErrorParts(ResultCode code, WideString& domainName, WideString& severity,
                   WideString& message) noexcept {
  auto textOf = [code](int kind, WideString& out) {
    const std::size_t length = GetErrorText(code, kind, static_cast<char16_t*>(nullptr), 0);
    if (length == 0 || !out.Resize(length)) return;
    // The registry may have changed between the two calls; keep only what was written.
    const std::size_t written = GetErrorText(code, kind, out.data(), length + 1);
    out.SetLength(written < length ? written : length);
  };
  if (GetErrorText(code, kErrorTextDomain, static_cast<char16_t*>(nullptr), 0) > 0) {
    domainName.Clear();
    textOf(kErrorTextDomain, domainName);
    textOf(kErrorTextSeverity, severity);
    textOf(kErrorTextMessage, message);
  } else {
    char16_t* block = nullptr;
    const DWORD length = platform::FormatMessageW(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
        nullptr, static_cast<DWORD>(code), LANG_USER_DEFAULT, reinterpret_cast<char16_t*>(&block),
        0);
    message.Clear();
    if (length != 0 && block != nullptr) (void)message.Assign(std::u16string_view(block, length));
    platform::LocalFree(block);
    severity.Clear();
    (void)severity.Assign(u"Error");
  }
  if (message.IsEmpty()) {
    (void)message.Assign(u"Specified error code not found!");
    (void)domainName.Assign(u"--");
  } else if (domainName.IsEmpty()) {
    (void)domainName.Assign(u"Operating System");
  }
}

void ComposeErrorLine(std::u16string_view domainName, std::u16string_view severity,
                      std::u16string_view message, WideString& result) noexcept {
  result.Clear();
  (void)result.Append(severity);
  (void)result.Append(u" [");
  (void)result.Append(domainName);
  (void)result.Append(u"]: ");
  (void)result.Append(message);
}

}  // namespace mrwl
