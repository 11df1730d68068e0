// What the unit tests share to work on real files and real child processes: a scratch folder
// that cleans up after itself (TempFolder), an environment variable changed for one scope
// (ScopedEnv), and the means to read what a started child left behind (RecorderScript,
// WaitForLines). Header-only and for tests only; the helpers report setup faults through
// GoogleTest rather than hiding them. None of these is for simultaneous use by two threads.
#pragma once

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "platform/utf.h"

namespace mrwl::testing {

// A fresh folder of its own below the system's temporary folder (TMPDIR where it is set), removed
// with everything in it when the object goes. Names given to the members are relative to it and
// may contain folders. Throws std::runtime_error if no folder can be made, which GoogleTest
// reports as a failure of the test whose fixture holds it.
class TempFolder {
 public:
  TempFolder() : path_(MakeUniqueFolder()) {}
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  // Read-only entries must not keep the folder alive: owner rights come back before removal.
  ~TempFolder() {
    std::error_code ignored;
    std::filesystem::permissions(path_, std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::add, ignored);
    for (auto it = std::filesystem::recursive_directory_iterator(
             path_, std::filesystem::directory_options::skip_permission_denied, ignored);
         it != std::filesystem::recursive_directory_iterator(); it.increment(ignored)) {
      if (!it->is_symlink(ignored)) {
        std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                     std::filesystem::perm_options::add, ignored);
      }
    }
    std::filesystem::remove_all(path_, ignored);
  }

  const std::filesystem::path& path() const { return path_; }

  // The full path of `name` in UTF-8 and in UTF-16.
  std::string PathOf(std::string_view name) const { return (path_ / name).string(); }
  std::u16string WidePathOf(std::string_view name) const {
    return platform::Utf8ToUtf16(PathOf(name));
  }

  // Writes `content` to `name` as it stands, making the folders on the way, and returns the full
  // path. An executable file gets the rights of a program (rwxr-xr-x).
  std::string Write(std::string_view name, std::string_view content, bool executable = false) {
    const std::filesystem::path path = path_ / name;
    std::error_code error;
    std::filesystem::create_directories(path.parent_path(), error);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    out.close();
    if (!out) ADD_FAILURE() << "cannot write " << path.string();
    if (executable) {
      using std::filesystem::perms;
      std::filesystem::permissions(path,
                                   perms::owner_all | perms::group_read | perms::group_exec |
                                       perms::others_read | perms::others_exec,
                                   error);
      if (error) ADD_FAILURE() << "cannot make " << path.string() << " executable";
    }
    return path.string();
  }

  // The bytes of `name`; empty if it cannot be read.
  std::string Read(std::string_view name) const {
    std::ifstream in(path_ / name, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }

  bool Exists(std::string_view name) const {
    std::error_code ignored;
    return std::filesystem::exists(path_ / name, ignored);
  }

 private:
  static std::filesystem::path MakeUniqueFolder() {
    const std::filesystem::path base = std::filesystem::temp_directory_path();
#if defined(_WIN32)
    // No mkdtemp here; creating the directory is the exclusive step, so a taken name is retried.
    std::random_device random;
    for (int attempt = 0; attempt < 100; ++attempt) {
      const std::filesystem::path candidate = base / ("mrwl-test-" + std::to_string(random()));
      std::error_code error;
      if (std::filesystem::create_directory(candidate, error)) return candidate;
    }
#else
    std::string pattern = (base / "mrwl-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) != nullptr) return pattern;
#endif
    throw std::runtime_error("cannot make a temporary folder below " + base.string());
  }

  std::filesystem::path path_;
};

// Sets or unsets one environment variable for a scope; the old value, or its absence, comes back
// on destruction. Set and Unset answer false where the system refuses the change.
class ScopedEnv {
 public:
  // Remembers the variable without changing it, for a test that changes it later.
  explicit ScopedEnv(std::string name) : name_(std::move(name)) {
    if (const char* value = std::getenv(name_.c_str())) saved_ = value;
  }
  ScopedEnv(std::string name, const std::string& value) : ScopedEnv(std::move(name)) {
    (void)Set(value);
  }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;
  ~ScopedEnv() {
    if (saved_) {
      (void)Set(*saved_);
    } else {
      (void)Unset();
    }
  }

  bool Set(const std::string& value) {
#if defined(_WIN32)
    return _putenv_s(name_.c_str(), value.c_str()) == 0;
#else
    return ::setenv(name_.c_str(), value.c_str(), 1) == 0;
#endif
  }
  bool Unset() {
#if defined(_WIN32)
    return _putenv_s(name_.c_str(), "") == 0;
#else
    return ::unsetenv(name_.c_str()) == 0;
#endif
  }

 private:
  std::string name_;
  std::optional<std::string> saved_;
};

// How long a test waits for a started child before it calls the child lost.
inline constexpr std::chrono::milliseconds kChildTimeout{5000};

// `text` quoted for /bin/sh as one word.
inline std::string ShellQuote(std::string_view text) {
  std::string quoted = "'";
  for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

// What a command run through the shell left behind: its exit status (-1 when it did not end by
// itself) and what it wrote to its standard output and error.
struct CommandOutcome {
  int status = -1;
  std::string out;
  std::string err;
};

// Runs the shell command line `command` (its words quoted with ShellQuote) with standard input
// from the file `input`, and captures its output in files of `folder` named by `tag`. The shell
// reports the status itself, so no process header is needed.
inline CommandOutcome RunCommand(const std::string& command, const TempFolder& folder,
                                 const std::string& input = "/dev/null",
                                 const std::string& tag = "command") {
  const std::string out = folder.PathOf(tag + ".out");
  const std::string err = folder.PathOf(tag + ".err");
  const std::string status = folder.PathOf(tag + ".status");
  const std::string line = "(" + command + ") <" + ShellQuote(input) + " >" + ShellQuote(out) +
                           " 2>" + ShellQuote(err) + "; echo $? >" + ShellQuote(status);
  CommandOutcome outcome;
  if (std::system(line.c_str()) == -1) return outcome;
  std::ifstream(status) >> outcome.status;
  outcome.out = folder.Read(tag + ".out");
  outcome.err = folder.Read(tag + ".err");
  return outcome;
}

// The text of a /bin/sh script that runs the shell command `command` with its output going to the
// file `record`, then exits with `status`. The output is renamed into place, so whoever polls for
// the record never reads half of it.
inline std::string RecordingScript(std::string_view command, std::string_view record,
                                   int status = 0) {
  const std::string quoted = ShellQuote(record);
  const std::string part = quoted.substr(0, quoted.size() - 1) + ".part'";
  return "#!/bin/sh\n" + std::string(command) + " > " + part + "\nmv " + part + " " + quoted +
         "\nexit " + std::to_string(status) + "\n";
}

// A script standing in for a program: it records its arguments, one a line, in `record`.
inline std::string RecorderScript(std::string_view record, int status = 0) {
  return RecordingScript("printf '%s\\n' \"$@\"", record, status);
}

// Polls for the file a child writes by rename and returns its bytes once it is there, or nothing
// after `timeout`.
inline std::optional<std::string> WaitForFile(const std::filesystem::path& path,
                                              std::chrono::milliseconds timeout = kChildTimeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    std::ifstream in(path, std::ios::binary);
    if (in) {
      return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

// The lines of the file a child writes, without their line ends; a test failure and no lines if
// the file does not come within `timeout`.
inline std::vector<std::string> WaitForLines(const std::filesystem::path& path,
                                             std::chrono::milliseconds timeout = kChildTimeout) {
  const std::optional<std::string> text = WaitForFile(path, timeout);
  if (!text) {
    ADD_FAILURE() << "no record at " << path.string();
    return {};
  }
  std::vector<std::string> lines;
  std::istringstream in(*text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

}  // namespace mrwl::testing
