// The add-in's debug trace and the breakdown of a result code into printable parts.
//
// The trace goes to the debugger (OutputDebugStringW) with the prefix "OLaddin: ", and, while a
// debug file is open, to that file too, each line led by a UTC time stamp, written as UTF-8 and
// handed to the system before the call returns. No flow of the add-in opens the file; the facility
// stands ready to be called. The log swallows every failure.
//
// The debug file is one process-wide handle that nothing guards: open, close and print it from
// one thread. GetErrorParts and ComposeErrorLine may be called from any thread.
#pragma once

#include <string_view>

#include "foundation/result_codes.h"
#include "foundation/wide_string.h"

namespace mrwl {

// Opens `path` for writing, emptying it, as the trace's debug file, and says so to the debugger.
// A null or empty path opens nothing and says nothing. A file already open is closed first.
void OpenDebugFile(const char16_t* path) noexcept;

// Closes the debug file, if one is open, and says so to the debugger.
void CloseDebugFile() noexcept;

// One trace line, fire and forget. Formats the arguments as FormatText does (%s takes a const
// char16_t*) and sends "OLaddin: " and the text to the debugger, and with its time stamp to the
// debug file if one is open.
void DebugPrint(const char16_t* format, ...) noexcept;

// Traces `prefix` followed by the system's text for the calling thread's last error, or by
// "Error: 0x..." when the system has no text for it.
void DebugPrintLastError(const char16_t* prefix) noexcept;

// DebugPrintLastError with the prefix "Error: Addin: ".
void DebugPrintAddinError() noexcept;

// The domain name, severity word and message of `code`. A code whose domain is unknown takes the
// system's text with the severity "Error"; a code that nobody knows gives the message
// "Specified error code not found!" and the domain "--". `severity` and `message` are left as
// they were where a registered domain has no such text, so pass them empty.
void GetErrorParts(ResultCode code, WideString& domainName, WideString& severity,
                   WideString& message) noexcept;

// `severity` " [" `domainName` "]: " `message`, into `result`.
void ComposeErrorLine(std::u16string_view domainName, std::u16string_view severity,
                      std::u16string_view message, WideString& result) noexcept;

}  // namespace mrwl
