// Child processes that the caller talks to over two pipes of their own, and private scratch
// folders for them.
//
// This is what a program needs to drive a helper that speaks a message protocol on extra file
// descriptors (the child reads commands on its descriptor 3 and writes replies on 4), with the
// helper's own chatter kept away from the user. Text is char16_t as everywhere in the platform;
// pipe contents are bytes. Errors are Windows error numbers read with GetLastError(). A
// ChildProcess belongs to one thread at a time; the free functions may be called from any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/win_types.h"

namespace mrwl::platform {

// What to start and how.
struct ChildProcessOptions {
  // A path, or a bare name looked up on PATH.
  std::u16string program;
  // The arguments after the program's own name.
  std::vector<std::u16string> arguments;
  // Changes to this process's environment for the child: a value sets the variable, none
  // removes it.
  std::vector<std::pair<std::u16string, std::optional<std::u16string>>> environment;
  // Two pipes to the child: it reads what WriteToChild sends on its descriptor 3 and writes what
  // ReadFromChild returns on its descriptor 4.
  bool messagePipes = false;
  // The child's standard output and error: empty for nowhere, else a file they are appended to.
  // Its standard input is always empty.
  std::u16string outputLog;
  // Starts the child as the leader of a process group of its own, so that Terminate and the end of
  // the child also end whatever it started itself.
  bool ownGroup = false;
};

// One started child. Move-only; the destructor ends a child still running (Terminate).
class ChildProcess {
 public:
  ChildProcess() = default;
  ~ChildProcess();
  ChildProcess(ChildProcess&& other) noexcept;
  ChildProcess& operator=(ChildProcess&& other) noexcept;
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Starts the child. FALSE with the last error ERROR_FILE_NOT_FOUND when the program is not
  // there (or not on PATH), ERROR_ACCESS_DENIED when it may not be run, ERROR_BAD_EXE_FORMAT when
  // it is no program, ERROR_INVALID_PARAMETER when this object already holds a child.
  [[nodiscard]] BOOL Start(const ChildProcessOptions& options) noexcept;

  // Sends all of `data` to the child's descriptor 3 within `timeoutMs` (INFINITE: no limit).
  // FALSE with ERROR_TIMEOUT when the child did not take it in time (part may have gone),
  // ERROR_BROKEN_PIPE when the child no longer reads, ERROR_INVALID_HANDLE without such a pipe.
  [[nodiscard]] BOOL WriteToChild(std::string_view data, DWORD timeoutMs) noexcept;

  // Appends to `data` what the child has written on its descriptor 4, waiting up to `timeoutMs`
  // for the first byte. TRUE when bytes came; FALSE with ERROR_TIMEOUT when none came in time,
  // ERROR_BROKEN_PIPE when the child closed its end (it ended), ERROR_INVALID_HANDLE without
  // such a pipe.
  [[nodiscard]] BOOL ReadFromChild(std::string& data, DWORD timeoutMs) noexcept;

  // Waits up to `timeoutMs` for the child to end. TRUE with its exit code (128 + the signal's
  // number when a signal ended it); FALSE with ERROR_TIMEOUT while it still runs, or
  // ERROR_INVALID_HANDLE when there is no child. A child in a group of its own takes the rest of
  // its group with it. The child is reaped; the object is empty afterwards.
  [[nodiscard]] BOOL WaitForExit(DWORD timeoutMs, DWORD* exitCode) noexcept;

  // Ends the child at once (and its group, if it has one) and reaps it. TRUE when there was a
  // child; the object is empty afterwards.
  BOOL Terminate() noexcept;

  // Whether the object holds a child not yet reaped.
  [[nodiscard]] bool Started() const noexcept { return id_ > 0; }
  [[nodiscard]] DWORD ProcessId() const noexcept { return static_cast<DWORD>(id_ > 0 ? id_ : 0); }

 private:
  void CloseAll() noexcept;

  int id_ = 0;
  bool ownGroup_ = false;
  int toChild_ = -1;
  int fromChild_ = -1;
};

// Makes a new folder below the temporary folder (TMPDIR, else the system's), named `prefix`
// followed by random characters, that only the current user may enter. TRUE with its full path,
// without a final separator, in `path`; FALSE with the last error.
[[nodiscard]] BOOL CreatePrivateTempFolder(std::u16string_view prefix,
                                           std::u16string* path) noexcept;

// Deletes the folder `path` and everything below it. Links are removed, never followed. TRUE when
// the folder is gone (or was never there); FALSE with the last error of the first entry that
// would not go, after removing all it could.
BOOL DeleteFolderTree(const char16_t* path) noexcept;

// Whether the process runs with the rights of the system's administrator (root on POSIX).
[[nodiscard]] bool RunningAsAdministrator() noexcept;

}  // namespace mrwl::platform
