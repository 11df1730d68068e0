// Child processes over posix_spawn with two extra pipes, and private scratch folders.

#include "platform/process.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <ftw.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/kernel.h"
#include "platform/posix/posix_util.h"

extern char** environ;

namespace mrwl::platform {
namespace {

// The child's descriptors for the message pipes.
constexpr int kChildReadsFd = 3;
constexpr int kChildWritesFd = 4;
// The pipe ends are moved above this before the spawn, so that placing them on 3 and 4 in the
// child never overwrites the other end.
constexpr int kHighFd = 10;

void CloseFd(int& fd) noexcept {
  if (fd >= 0) {
    (void)::close(fd);
    fd = -1;
  }
}

// A close-on-exec copy of `fd` at kHighFd or above; the original is closed.
int MoveHigh(int fd) noexcept {
  const int high = ::fcntl(fd, F_DUPFD_CLOEXEC, kHighFd);
  (void)::close(fd);
  return high;
}

std::string VariableName(const std::string& entry) { return entry.substr(0, entry.find('=')); }

// This process's environment with `changes` applied.
std::vector<std::string> ChildEnvironment(const ChildProcessOptions& options) {
  std::vector<std::string> entries;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    entries.emplace_back(*entry);
  }
  for (const auto& [wideName, value] : options.environment) {
    const std::string name = posix::ToUtf8(wideName);
    std::erase_if(entries, [&](const std::string& e) { return VariableName(e) == name; });
    if (value) entries.push_back(name + "=" + posix::ToUtf8(*value));
  }
  return entries;
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

DWORD SpawnError(int error) noexcept {
  return error == ENOEXEC ? static_cast<DWORD>(ERROR_BAD_EXE_FORMAT)
                          : posix::WinErrorFromErrno(error);
}

// Milliseconds left until `deadline`, for poll: -1 without a limit.
int PollTimeout(bool unlimited, std::chrono::steady_clock::time_point deadline) {
  if (unlimited) return -1;
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now())
                        .count();
  return left <= 0 ? 0 : static_cast<int>(left);
}

// Waits for `events` on `fd` until the deadline, through interruptions. Answers the events that
// came, or 0 with the last error set: ERROR_TIMEOUT, or what poll met.
short WaitForEvents(int fd, short events, bool unlimited,
                    std::chrono::steady_clock::time_point deadline) {
  for (;;) {
    pollfd entry{fd, events, 0};
    const int ready = ::poll(&entry, 1, PollTimeout(unlimited, deadline));
    if (ready < 0) {
      if (errno == EINTR) continue;
      posix::SetLastErrorFromErrno();
      return 0;
    }
    if (ready == 0) {
      SetLastError(ERROR_TIMEOUT);
      return 0;
    }
    return entry.revents;
  }
}

// Writes with SIGPIPE held back on this thread, so that a child that has gone turns into
// EPIPE rather than ending the whole process; a SIGPIPE raised meanwhile is consumed.
ssize_t WriteWithoutSigpipe(int fd, const char* data, std::size_t size) noexcept {
  sigset_t pipeOnly;
  sigset_t old;
  sigemptyset(&pipeOnly);
  sigaddset(&pipeOnly, SIGPIPE);
  sigset_t pending;
  sigemptyset(&pending);
  (void)sigpending(&pending);
  const bool alreadyPending = sigismember(&pending, SIGPIPE) == 1;
  (void)pthread_sigmask(SIG_BLOCK, &pipeOnly, &old);
  const ssize_t written = ::write(fd, data, size);
  const int error = errno;
  if (written < 0 && error == EPIPE && !alreadyPending) {
    const timespec zero{0, 0};
    while (sigtimedwait(&pipeOnly, nullptr, &zero) == -1 && errno == EINTR) {
    }
  }
  (void)pthread_sigmask(SIG_SETMASK, &old, nullptr);
  errno = error;
  return written;
}

int RemoveEntry(const char* path, const struct stat*, int kind, struct FTW*) {
  const int result = kind == FTW_DP ? ::rmdir(path) : ::unlink(path);
  if (result != 0 && errno != ENOENT) posix::SetLastErrorFromErrno();
  return 0;  // go on with the rest; the first failure's error stays recorded
}

}  // namespace

ChildProcess::~ChildProcess() { (void)Terminate(); }

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : id_(std::exchange(other.id_, 0)),
      ownGroup_(other.ownGroup_),
      toChild_(std::exchange(other.toChild_, -1)),
      fromChild_(std::exchange(other.fromChild_, -1)) {}

ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept {
  if (this != &other) {
    (void)Terminate();
    id_ = std::exchange(other.id_, 0);
    ownGroup_ = other.ownGroup_;
    toChild_ = std::exchange(other.toChild_, -1);
    fromChild_ = std::exchange(other.fromChild_, -1);
  }
  return *this;
}

void ChildProcess::CloseAll() noexcept {
  CloseFd(toChild_);
  CloseFd(fromChild_);
  id_ = 0;
}

BOOL ChildProcess::Start(const ChildProcessOptions& options) noexcept {
  if (id_ > 0 || options.program.empty()) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  try {
    std::vector<std::string> argv;
    argv.push_back(posix::ToUtf8(options.program));
    for (const std::u16string& argument : options.arguments) {
      argv.push_back(posix::ToUtf8(argument));
    }
    std::vector<std::string> envp = ChildEnvironment(options);
    std::vector<char*> argvPointers = Pointers(argv);
    std::vector<char*> envpPointers = Pointers(envp);
    const std::string log =
        options.outputLog.empty() ? "/dev/null" : posix::ToUtf8(options.outputLog);

    // Our ends stay close-on-exec; the child's ends reach it only through the dup2 below.
    int commands[2] = {-1, -1};  // child reads [0], we write [1]
    int replies[2] = {-1, -1};   // we read [0], child writes [1]
    if (options.messagePipes) {
      if (::pipe2(commands, O_CLOEXEC) != 0 || ::pipe2(replies, O_CLOEXEC) != 0) {
        posix::SetLastErrorFromErrno();
        for (int& fd : commands) CloseFd(fd);
        return FALSE;
      }
      for (int* fd : {&commands[0], &commands[1], &replies[0], &replies[1]}) *fd = MoveHigh(*fd);
      if (commands[0] < 0 || commands[1] < 0 || replies[0] < 0 || replies[1] < 0) {
        posix::SetLastErrorFromErrno();
        for (int& fd : commands) CloseFd(fd);
        for (int& fd : replies) CloseFd(fd);
        return FALSE;
      }
    }

    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    (void)posix_spawn_file_actions_init(&actions);
    (void)posix_spawnattr_init(&attributes);
    (void)posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    (void)posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, log.c_str(),
                                           O_WRONLY | O_CREAT | O_APPEND, 0600);
    (void)posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    if (options.messagePipes) {
      (void)posix_spawn_file_actions_adddup2(&actions, commands[0], kChildReadsFd);
      (void)posix_spawn_file_actions_adddup2(&actions, replies[1], kChildWritesFd);
    }
    // The child starts with no signal held back and the default actions, whatever this
    // process chose for itself (a test runner may ignore SIGPIPE, for instance).
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
    (void)posix_spawnattr_setsigmask(&attributes, &none);
    (void)posix_spawnattr_setsigdefault(&attributes, &all);
    if (options.ownGroup) {
      flags |= POSIX_SPAWN_SETPGROUP;
      (void)posix_spawnattr_setpgroup(&attributes, 0);
    }
    (void)posix_spawnattr_setflags(&attributes, flags);

    pid_t pid = 0;
    const int error = ::posix_spawnp(&pid, argvPointers[0], &actions, &attributes,
                                     argvPointers.data(), envpPointers.data());
    (void)posix_spawn_file_actions_destroy(&actions);
    (void)posix_spawnattr_destroy(&attributes);
    CloseFd(commands[0]);
    CloseFd(replies[1]);
    if (error != 0) {
      CloseFd(commands[1]);
      CloseFd(replies[0]);
      SetLastError(SpawnError(error));
      return FALSE;
    }
    id_ = pid;
    ownGroup_ = options.ownGroup;
    toChild_ = commands[1];
    fromChild_ = replies[0];
    return TRUE;
  } catch (...) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return FALSE;
  }
}

BOOL ChildProcess::WriteToChild(std::string_view data, DWORD timeoutMs) noexcept {
  if (toChild_ < 0) {
    SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
  }
  const bool unlimited = timeoutMs == INFINITE;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  std::size_t done = 0;
  while (done < data.size()) {
    const short events = WaitForEvents(toChild_, POLLOUT, unlimited, deadline);
    if (events == 0) return FALSE;
    if ((events & POLLOUT) == 0) {
      // POLLERR alone: the reader has gone.
      SetLastError(ERROR_BROKEN_PIPE);
      return FALSE;
    }
    const ssize_t written = WriteWithoutSigpipe(toChild_, data.data() + done, data.size() - done);
    if (written < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      posix::SetLastErrorFromErrno();
      return FALSE;
    }
    done += static_cast<std::size_t>(written);
  }
  return TRUE;
}

BOOL ChildProcess::ReadFromChild(std::string& data, DWORD timeoutMs) noexcept {
  if (fromChild_ < 0) {
    SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
  }
  const bool unlimited = timeoutMs == INFINITE;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    if (WaitForEvents(fromChild_, POLLIN, unlimited, deadline) == 0) return FALSE;
    char buffer[65536];
    const ssize_t got = ::read(fromChild_, buffer, sizeof buffer);
    if (got < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      posix::SetLastErrorFromErrno();
      return FALSE;
    }
    if (got == 0) {
      SetLastError(ERROR_BROKEN_PIPE);
      return FALSE;
    }
    try {
      data.append(buffer, static_cast<std::size_t>(got));
    } catch (...) {
      SetLastError(ERROR_NOT_ENOUGH_MEMORY);
      return FALSE;
    }
    return TRUE;
  }
}

BOOL ChildProcess::WaitForExit(DWORD timeoutMs, DWORD* exitCode) noexcept {
  if (id_ <= 0) {
    SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
  }
  const bool unlimited = timeoutMs == INFINITE;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    // WNOWAIT leaves the child a zombie, so its id, and that of its group, cannot be taken by
    // another process before the rest of the group is ended.
    siginfo_t info{};
    const int result = ::waitid(P_PID, static_cast<id_t>(id_), &info, WEXITED | WNOHANG | WNOWAIT);
    if (result != 0 && errno != EINTR) {
      posix::SetLastErrorFromErrno();
      CloseAll();
      return FALSE;
    }
    if (result == 0 && info.si_pid == id_) {
      if (ownGroup_) (void)::kill(-id_, SIGKILL);
      int status = 0;
      while (::waitpid(id_, &status, 0) < 0 && errno == EINTR) {
      }
      if (exitCode != nullptr) {
        *exitCode = WIFEXITED(status) ? static_cast<DWORD>(WEXITSTATUS(status))
                                      : static_cast<DWORD>(128 + WTERMSIG(status));
      }
      CloseAll();
      return TRUE;
    }
    if (PollTimeout(unlimited, deadline) == 0) {
      SetLastError(ERROR_TIMEOUT);
      return FALSE;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

BOOL ChildProcess::Terminate() noexcept {
  if (id_ <= 0) {
    CloseAll();
    return FALSE;
  }
  (void)::kill(ownGroup_ ? -id_ : id_, SIGKILL);
  int status = 0;
  while (::waitpid(id_, &status, 0) < 0 && errno == EINTR) {
  }
  CloseAll();
  return TRUE;
}

BOOL CreatePrivateTempFolder(std::u16string_view prefix, std::u16string* path) noexcept {
  try {
    std::string base;
    if (const char* tmp = std::getenv("TMPDIR"); tmp != nullptr && *tmp != '\0') {
      base = tmp;
    } else {
      base = "/tmp";
    }
    while (base.size() > 1 && base.back() == '/') base.pop_back();
    std::string pattern = base + "/" + posix::ToUtf8(prefix) + "XXXXXX";
    // mkdtemp makes the folder with mode 0700.
    if (::mkdtemp(pattern.data()) == nullptr) {
      posix::SetLastErrorFromErrno();
      return FALSE;
    }
    *path = posix::FromUtf8(pattern);
    return TRUE;
  } catch (...) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return FALSE;
  }
}

BOOL DeleteFolderTree(const char16_t* path) noexcept {
  try {
    const std::string folder = posix::ToUtf8(path);
    struct stat info {};
    if (::lstat(folder.c_str(), &info) != 0) {
      if (errno == ENOENT) return TRUE;
      posix::SetLastErrorFromErrno();
      return FALSE;
    }
    SetLastError(ERROR_SUCCESS);
    (void)::nftw(folder.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
    if (::lstat(folder.c_str(), &info) == 0) {
      if (GetLastError() == ERROR_SUCCESS) SetLastError(ERROR_DIR_NOT_EMPTY);
      return FALSE;
    }
    return TRUE;
  } catch (...) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return FALSE;
  }
}

bool RunningAsAdministrator() noexcept { return ::geteuid() == 0; }

}  // namespace mrwl::platform
