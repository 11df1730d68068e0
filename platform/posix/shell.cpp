// The shell on a POSIX desktop: programs start with posix_spawn, everything else goes to the
// desktop's opener, associations come from xdg-mime and desktop entries, and the file manager is
// asked over D-Bus.
#include "platform/shell.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <new>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/kernel.h"
#include "platform/posix/posix_util.h"

extern char** environ;

namespace mrwl::platform {

struct ItemIdList {
  std::string path;
};

namespace {

// What ShellExecuteW answers on success; any value above 32 would do.
constexpr int kStarted = 42;
// SE_ERR_NOASSOC's neighbour for a file that is no program.
constexpr int kNotAProgram = 11;
// How long a desktop opener may take to say whether it found an application. Openers start the
// application and leave; one that is still running after this has started something.
constexpr auto kOpenerWait = std::chrono::seconds(5);
// How long an association query or a file-manager call may take.
constexpr int kQueryTimeoutMs = 8000;

struct ShellFailure {
  int code;
  DWORD error;
};

int Fail(int code, DWORD error) noexcept {
  SetLastError(error);
  return code;
}

HINSTANCE AsInstance(int code) noexcept {
  return reinterpret_cast<HINSTANCE>(static_cast<std::uintptr_t>(code));
}

ShellFailure FailureFromErrno(int error) noexcept {
  switch (error) {
    case ENOENT:
      return {ERROR_FILE_NOT_FOUND, ERROR_FILE_NOT_FOUND};
    case ENOTDIR:
    case ENAMETOOLONG:
    case ELOOP:
      return {ERROR_PATH_NOT_FOUND, ERROR_PATH_NOT_FOUND};
    case EACCES:
    case EPERM:
      return {SE_ERR_ACCESSDENIED, ERROR_ACCESS_DENIED};
    case ENOMEM:
    case E2BIG:
      return {SE_ERR_OOM, ERROR_NOT_ENOUGH_MEMORY};
    case ENOEXEC:
      return {kNotAProgram, ERROR_BAD_EXE_FORMAT};
    default:
      return {SE_ERR_NOASSOC, posix::WinErrorFromErrno(error)};
  }
}

std::string GetEnv(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? std::string(value) : std::string();
}

bool IsExecutableFile(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(path.c_str(), X_OK) == 0;
}

// The full path of a program found on PATH, or empty.
std::string FindOnPath(const std::string& name) {
  if (name.find('/') != std::string::npos) return IsExecutableFile(name) ? name : std::string();
  std::string path = GetEnv("PATH");
  if (path.empty()) path = "/usr/local/bin:/usr/bin:/bin";
  std::size_t start = 0;
  while (start <= path.size()) {
    std::size_t end = path.find(':', start);
    if (end == std::string::npos) end = path.size();
    const std::string folder = end > start ? path.substr(start, end - start) : std::string(".");
    const std::string candidate = folder + "/" + name;
    if (IsExecutableFile(candidate)) return candidate;
    start = end + 1;
  }
  return {};
}

// Starts `argv` with standard input from /dev/null, in a session of its own so that a signal
// meant for the caller's terminal does not reach it. Returns 0 or an errno value.
int Spawn(const std::vector<std::string>& argv, const std::string& directory, int outputFd,
          pid_t* pid, bool quiet = false) {
  std::vector<char*> args;
  args.reserve(argv.size() + 1);
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  if (posix_spawn_file_actions_init(&actions) != 0) return ENOMEM;
  if (posix_spawnattr_init(&attributes) != 0) {
    posix_spawn_file_actions_destroy(&actions);
    return ENOMEM;
  }
  int result = posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  if (result == 0 && outputFd >= 0)
    result = posix_spawn_file_actions_adddup2(&actions, outputFd, 1);
  if (result == 0 && quiet) {
    result = posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    if (result == 0)
      result = posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  }
  if (result == 0 && !directory.empty()) {
    result = posix_spawn_file_actions_addchdir_np(&actions, directory.c_str());
  }
  sigset_t noSignals;
  sigemptyset(&noSignals);
  sigset_t defaults;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  sigaddset(&defaults, SIGCHLD);
  if (result == 0) result = posix_spawnattr_setsigmask(&attributes, &noSignals);
  if (result == 0) result = posix_spawnattr_setsigdefault(&attributes, &defaults);
  if (result == 0) {
    result = posix_spawnattr_setflags(
        &attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSID);
  }
  if (result == 0) {
    // glibc reports a failed exec (a missing program, no permission) as the spawn's own result.
    result = argv[0].find('/') != std::string::npos
                 ? posix_spawn(pid, args[0], &actions, &attributes, args.data(), environ)
                 : posix_spawnp(pid, args[0], &actions, &attributes, args.data(), environ);
  }
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  return result;
}

// Collects a started child's exit without making anyone wait for it.
void ReapLater(pid_t pid) noexcept {
  try {
    std::thread([pid] {
      int status = 0;
      while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
      }
    }).detach();
  } catch (...) {
    // No thread to spare: the child stays a zombie until the process ends, which is harmless.
  }
}

// Waits for a child up to `limit`. Returns true with its status when it ended; false when it is
// still running or was collected elsewhere.
bool WaitFor(pid_t pid, std::chrono::milliseconds limit, int* status) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    const pid_t done = waitpid(pid, status, WNOHANG);
    if (done == pid) return true;
    if (done < 0 && errno != EINTR) return false;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

// Runs `argv` to its end, collecting its standard output. Returns false if it could not start,
// timed out, or ended with a non-zero status.
bool RunCapture(const std::vector<std::string>& argv, std::string* output,
                int timeoutMs = kQueryTimeoutMs) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return false;
  pid_t pid = 0;
  const int spawned = Spawn(argv, std::string(), fds[1], &pid);
  close(fds[1]);
  if (spawned != 0) {
    close(fds[0]);
    return false;
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  bool timedOut = false;
  char buffer[4096];
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          deadline - std::chrono::steady_clock::now())
                          .count();
    if (left <= 0) {
      timedOut = true;
      break;
    }
    pollfd poller{fds[0], POLLIN, 0};
    const int ready = poll(&poller, 1, static_cast<int>(left));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) {
      timedOut = ready == 0;
      break;
    }
    const ssize_t n = read(fds[0], buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    if (output != nullptr) output->append(buffer, static_cast<std::size_t>(n));
  }
  close(fds[0]);
  int status = 0;
  // A child may close its output and still run on; the deadline holds for its exit as well.
  if (!timedOut) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (WaitFor(pid, std::max(left, std::chrono::milliseconds(0)), &status)) {
      return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
  }
  kill(pid, SIGKILL);
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return false;
  }
  return false;
}

// Hands `target` to the desktop opener and waits for its verdict.
int RunOpener(const std::string& target) {
  std::string opener = GetEnv("MRWL_OPENER");
  if (opener.empty()) opener = "xdg-open";
  pid_t pid = 0;
  // The opener's verdict is its exit status; what it tells the terminal on the way (each viewer it
  // tried and did not find) is no business of the user's, as the shell shows nothing either.
  const int spawned = Spawn({opener, target}, std::string(), -1, &pid, /*quiet=*/true);
  if (spawned == ENOENT) return Fail(SE_ERR_NOASSOC, ERROR_NO_ASSOCIATION);
  if (spawned != 0) {
    const ShellFailure failure = FailureFromErrno(spawned);
    return Fail(failure.code, failure.error);
  }
  int status = 0;
  if (!WaitFor(pid, kOpenerWait, &status)) {
    ReapLater(pid);
    return kStarted;
  }
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return kStarted;
  // xdg-open: 2 means the file was not there; 1, 3 and 4 that nothing could open it.
  if (WIFEXITED(status) && WEXITSTATUS(status) == 2) {
    return Fail(ERROR_FILE_NOT_FOUND, ERROR_FILE_NOT_FOUND);
  }
  return Fail(SE_ERR_NOASSOC, ERROR_NO_ASSOCIATION);
}

// A text that starts with a scheme of two or more units and a colon; one letter is a drive.
bool IsAddress(const std::string& text) {
  std::size_t i = 0;
  if (text.empty() || !std::isalpha(static_cast<unsigned char>(text[0]))) return false;
  while (i < text.size() && (std::isalnum(static_cast<unsigned char>(text[i])) || text[i] == '+' ||
                             text[i] == '-' || text[i] == '.')) {
    ++i;
  }
  return i >= 2 && i < text.size() && text[i] == ':';
}

std::vector<std::string> SplitParameters(const char16_t* parameters) {
  std::vector<std::string> words;
  if (parameters == nullptr || *parameters == 0) return words;
  // A placeholder program name, so that the parameters follow the rules of the later words.
  std::u16string line = u"x ";
  line += parameters;
  int count = 0;
  char16_t** argv = CommandLineToArgvW(line.c_str(), &count);
  if (argv == nullptr) return words;
  for (int i = 1; i < count; ++i) words.push_back(posix::ToUtf8(argv[i]));
  LocalFree(argv);
  return words;
}

int StartProgram(const std::string& program, const char16_t* parameters,
                 const std::string& directory) {
  std::vector<std::string> argv{program};
  for (std::string& word : SplitParameters(parameters)) argv.push_back(std::move(word));
  pid_t pid = 0;
  const int spawned = Spawn(argv, directory, -1, &pid);
  if (spawned != 0) {
    const ShellFailure failure = FailureFromErrno(spawned);
    return Fail(failure.code, failure.error);
  }
  ReapLater(pid);
  return kStarted;
}

std::string Lowered(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

std::string ParentOf(const std::string& path) {
  const std::size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? std::string("/") : path.substr(0, slash);
}

int ShellExecuteCore(const char16_t* verb, const char16_t* file, const char16_t* parameters,
                     const char16_t* directory) {
  if (file == nullptr || *file == 0) return Fail(ERROR_FILE_NOT_FOUND, ERROR_FILE_NOT_FOUND);
  const std::string verbText = Lowered(posix::ToUtf8(verb));
  const bool open = verbText.empty() || verbText == "open";
  const bool explore = verbText == "explore";
  if (!open && !explore) return Fail(SE_ERR_NOASSOC, ERROR_NO_ASSOCIATION);

  const std::string target = posix::ToUtf8(file);
  const std::string folder = posix::ToUtf8(directory);
  if (IsAddress(target)) {
    return open ? RunOpener(target) : Fail(SE_ERR_NOASSOC, ERROR_NO_ASSOCIATION);
  }

  std::string path = target;
  if (path[0] != '/' && !folder.empty()) path = folder + "/" + target;
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) {
    const int error = errno;
    // A bare name that is not in the folder is a program on the search path.
    if (open && target.find('/') == std::string::npos && error == ENOENT) {
      const std::string program = FindOnPath(target);
      if (program.empty()) return Fail(ERROR_FILE_NOT_FOUND, ERROR_FILE_NOT_FOUND);
      return StartProgram(program, parameters, folder);
    }
    if (error == ENOENT) {
      struct stat parent {};
      if (stat(ParentOf(path).c_str(), &parent) != 0) {
        return Fail(ERROR_PATH_NOT_FOUND, ERROR_PATH_NOT_FOUND);
      }
    }
    const ShellFailure failure = FailureFromErrno(error);
    return Fail(failure.code, failure.error);
  }
  // The opener must not take a name starting with '-' for one of its options.
  if (path[0] == '-') path = "./" + path;
  if (S_ISDIR(st.st_mode)) return RunOpener(path);
  if (explore) return Fail(SE_ERR_NOASSOC, ERROR_NO_ASSOCIATION);
  if (S_ISREG(st.st_mode) && access(path.c_str(), X_OK) == 0) {
    // The working folder applies in the child before exec, so the program is named absolutely.
    std::string program = path;
    if (program[0] != '/') {
      if (char* real = realpath(path.c_str(), nullptr)) {
        program = real;
        std::free(real);
      } else {
        program = "./" + program;
      }
    }
    return StartProgram(program, parameters, folder);
  }
  return RunOpener(path);
}

// --- Associations ---

std::vector<std::string> DataFolders() {
  std::vector<std::string> folders;
  std::string home = GetEnv("XDG_DATA_HOME");
  if (home.empty() || home[0] != '/') {
    const std::string user = GetEnv("HOME");
    if (!user.empty()) home = user + "/.local/share";
  }
  if (!home.empty()) folders.push_back(home);
  std::string dirs = GetEnv("XDG_DATA_DIRS");
  if (dirs.empty()) dirs = "/usr/local/share:/usr/share";
  std::stringstream stream(dirs);
  std::string folder;
  while (std::getline(stream, folder, ':')) {
    if (!folder.empty()) folders.push_back(folder);
  }
  return folders;
}

// The MIME type of files ending in ".extension", from the shared MIME database, else from
// /etc/mime.types.
std::string MimeTypeOfExtension(const std::string& extension) {
  const std::string wanted = "*." + Lowered(extension);
  std::string best;
  int bestWeight = -1;
  for (const std::string& folder : DataFolders()) {
    std::ifstream globs(folder + "/mime/globs2");
    std::string line;
    while (std::getline(globs, line)) {
      if (line.empty() || line[0] == '#') continue;
      const std::size_t a = line.find(':');
      const std::size_t b = a == std::string::npos ? a : line.find(':', a + 1);
      if (b == std::string::npos) continue;
      const std::size_t c = line.find(':', b + 1);
      const std::string glob = line.substr(b + 1, c == std::string::npos ? c : c - b - 1);
      const bool caseSensitive =
          c != std::string::npos && line.find("cs", c + 1) != std::string::npos;
      if (caseSensitive ? glob != "*." + extension : Lowered(glob) != wanted) continue;
      const int weight = std::atoi(line.substr(0, a).c_str());
      if (weight > bestWeight) {
        bestWeight = weight;
        best = line.substr(a + 1, b - a - 1);
      }
    }
  }
  if (!best.empty()) return best;
  std::ifstream types("/etc/mime.types");
  std::string line;
  const std::string lowered = Lowered(extension);
  while (std::getline(types, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::stringstream words(line);
    std::string type;
    std::string word;
    words >> type;
    while (words >> word) {
      if (Lowered(word) == lowered) return type;
    }
  }
  return {};
}

// The Exec line of a desktop entry, found by its id in the applications folders.
std::string DesktopEntryExec(const std::string& id) {
  std::vector<std::string> names{id};
  // An id "vendor-app.desktop" may also stand as "vendor/app.desktop".
  for (std::size_t dash = id.find('-'); dash != std::string::npos; dash = id.find('-', dash + 1)) {
    std::string name = id;
    name[dash] = '/';
    names.push_back(name);
  }
  for (const std::string& folder : DataFolders()) {
    for (const std::string& name : names) {
      std::ifstream entry(folder + "/applications/" + name);
      if (!entry) continue;
      std::string line;
      bool inEntry = false;
      while (std::getline(entry, line)) {
        if (!line.empty() && line[0] == '[') {
          inEntry = line == "[Desktop Entry]";
          continue;
        }
        if (inEntry && line.compare(0, 5, "Exec=") == 0) return line.substr(5);
      }
    }
  }
  return {};
}

// The program of an Exec line: its first word, quoted or not.
std::string ExecProgram(const std::string& exec) {
  std::string program;
  std::size_t i = 0;
  while (i < exec.size() && exec[i] == ' ') ++i;
  if (i < exec.size() && exec[i] == '"') {
    for (++i; i < exec.size() && exec[i] != '"'; ++i) {
      if (exec[i] == '\\' && i + 1 < exec.size()) ++i;
      program += exec[i];
    }
  } else {
    while (i < exec.size() && exec[i] != ' ') program += exec[i++];
  }
  if (program.find('/') == std::string::npos) {
    const std::string found = FindOnPath(program);
    if (!found.empty()) return found;
  }
  return program;
}

HRESULT CopyOut(const std::u16string& text, char16_t* out, DWORD* outLength) {
  const DWORD needed = static_cast<DWORD>(text.size() + 1);
  if (out == nullptr) {
    *outLength = needed;
    return S_FALSE;
  }
  if (*outLength < needed) {
    *outLength = needed;
    return E_POINTER;
  }
  std::memcpy(out, text.c_str(), needed * sizeof(char16_t));
  *outLength = needed;
  return S_OK;
}

// --- File manager ---

std::string FileUri(const std::string& path) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string uri = "file://";
  for (unsigned char c : path) {
    if (std::isalnum(c) || c == '/' || c == '-' || c == '.' || c == '_' || c == '~') {
      uri += static_cast<char>(c);
    } else {
      uri += '%';
      uri += kHex[c >> 4];
      uri += kHex[c & 0xF];
    }
  }
  return uri;
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

bool posix::RunAndCapture(const std::vector<std::string>& argv, std::string* output,
                          int timeoutMs) {
  return RunCapture(argv, output, timeoutMs);
}

char16_t** CommandLineToArgvW(const char16_t* commandLine, int* count) noexcept {
  if (count == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  try {
    std::vector<std::u16string> words;
    const char16_t* p = commandLine;
    if (p == nullptr || *p == 0) {
      char16_t self[4096];
      const DWORD n = GetModuleFileNameForAddress(nullptr, self, 4096);
      words.emplace_back(self, n);
    } else {
      // The program name: quotes only group, backslashes are literal.
      std::u16string program;
      if (*p == u'"') {
        for (++p; *p != 0 && *p != u'"'; ++p) program += *p;
        if (*p == u'"') ++p;
      } else {
        for (; *p != 0 && *p != u' ' && *p != u'\t'; ++p) program += *p;
      }
      words.push_back(std::move(program));
      for (;;) {
        while (*p == u' ' || *p == u'\t') ++p;
        if (*p == 0) break;
        std::u16string word;
        bool quoted = false;
        while (*p != 0) {
          if (!quoted && (*p == u' ' || *p == u'\t')) break;
          if (*p == u'\\') {
            std::size_t run = 0;
            while (p[run] == u'\\') ++run;
            if (p[run] == u'"') {
              word.append(run / 2, u'\\');
              p += run;
              if (run % 2 == 1) {
                word += u'"';
                ++p;
              }
            } else {
              word.append(run, u'\\');
              p += run;
            }
            continue;
          }
          if (*p == u'"') {
            if (quoted && p[1] == u'"') {
              word += u'"';
              p += 2;
              continue;
            }
            quoted = !quoted;
            ++p;
            continue;
          }
          word += *p++;
        }
        words.push_back(std::move(word));
      }
    }
    std::size_t bytes = (words.size() + 1) * sizeof(char16_t*);
    for (const std::u16string& word : words) bytes += (word.size() + 1) * sizeof(char16_t);
    auto** block = static_cast<char16_t**>(std::malloc(bytes));
    if (block == nullptr) {
      SetLastError(ERROR_NOT_ENOUGH_MEMORY);
      return nullptr;
    }
    auto* text = reinterpret_cast<char16_t*>(block + words.size() + 1);
    for (std::size_t i = 0; i < words.size(); ++i) {
      block[i] = text;
      std::memcpy(text, words[i].c_str(), (words[i].size() + 1) * sizeof(char16_t));
      text += words[i].size() + 1;
    }
    block[words.size()] = nullptr;
    *count = static_cast<int>(words.size());
    return block;
  } catch (...) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
}

namespace {
std::atomic<ShellExecuteObserver> gObserver{nullptr};
std::atomic<void*> gObserverContext{nullptr};
}  // namespace

void SetShellExecuteObserver(ShellExecuteObserver observer, void* context) noexcept {
  gObserverContext.store(context);
  gObserver.store(observer);
}

HINSTANCE ShellExecuteW(HWND owner, const char16_t* verb, const char16_t* file,
                        const char16_t* parameters, const char16_t* directory, int show) noexcept {
  (void)owner;
  (void)show;
  HINSTANCE result;
  try {
    result = AsInstance(ShellExecuteCore(verb, file, parameters, directory));
  } catch (...) {
    result = AsInstance(Fail(SE_ERR_OOM, ERROR_NOT_ENOUGH_MEMORY));
  }
  if (const ShellExecuteObserver observer = gObserver.load()) {
    const DWORD error = GetLastError();
    observer(gObserverContext.load(), file, parameters, result);
    SetLastError(error);
  }
  return result;
}

BOOL ShellExecuteExW(ShellExecuteInfoW* info) noexcept {
  if (info == nullptr || info->cbSize != sizeof(ShellExecuteInfoW)) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  // There is no dialog to suppress here, so SEE_MASK_FLAG_NO_UI needs nothing more.
  info->hInstApp = ShellExecuteW(info->hwnd, info->lpVerb, info->lpFile, info->lpParameters,
                                 info->lpDirectory, info->nShow);
  return reinterpret_cast<std::uintptr_t>(info->hInstApp) > 32 ? TRUE : FALSE;
}

HRESULT AssocQueryStringW(DWORD flags, ASSOCSTR what, const char16_t* assoc, const char16_t* extra,
                          char16_t* out, DWORD* outLength) noexcept {
  (void)flags;
  if (assoc == nullptr || *assoc == 0 || outLength == nullptr) return E_INVALIDARG;
  if (what != ASSOCSTR_EXECUTABLE && what != ASSOCSTR_COMMAND) {
    return HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED);
  }
  constexpr HRESULT kNoAssociation = HRESULT_FROM_WIN32(ERROR_NO_ASSOCIATION);
  try {
    // Desktop entries know one action: opening.
    if (extra != nullptr && *extra != 0 && Lowered(posix::ToUtf8(extra)) != "open") {
      return kNoAssociation;
    }
    const std::string name = posix::ToUtf8(assoc);
    std::string type;
    if (name[0] == '.') {
      type = MimeTypeOfExtension(name.substr(1));
    } else if (name.find('/') != std::string::npos) {
      type = name;
    } else {
      type = "x-scheme-handler/" + Lowered(name);
    }
    if (type.empty()) return kNoAssociation;

    std::string tool = GetEnv("MRWL_XDG_MIME");
    if (tool.empty()) tool = "xdg-mime";
    std::string answer;
    if (!RunCapture({tool, "query", "default", type}, &answer)) return kNoAssociation;
    const std::size_t end = answer.find_first_of("\r\n;");
    std::string id = answer.substr(0, end);
    while (!id.empty() && id.back() == ' ') id.pop_back();
    if (id.empty()) return kNoAssociation;
    const std::string exec = DesktopEntryExec(id);
    if (exec.empty()) return kNoAssociation;
    const std::string result = what == ASSOCSTR_EXECUTABLE ? ExecProgram(exec) : exec;
    if (result.empty()) return kNoAssociation;
    return CopyOut(posix::FromUtf8(result), out, outLength);
  } catch (...) {
    return E_OUTOFMEMORY;
  }
}

ItemIdList* ILCreateFromPathW(const char16_t* path) noexcept {
  if (path == nullptr || *path == 0) return nullptr;
  try {
    char* real = realpath(posix::ToUtf8(path).c_str(), nullptr);
    if (real == nullptr) return nullptr;
    std::string resolved(real);
    std::free(real);
    // The list is handed across the interface as a raw pointer and comes back to ILFree.
    return new (std::nothrow) ItemIdList{std::move(resolved)};
  } catch (...) {
    return nullptr;
  }
}

void ILFree(ItemIdList* list) noexcept { delete list; }

HRESULT SHOpenFolderAndSelectItems(const ItemIdList* folder, UINT count,
                                   const ItemIdList* const* items, DWORD flags) noexcept {
  (void)flags;
  if (folder == nullptr || (count > 0 && items == nullptr)) return E_INVALIDARG;
  try {
    std::vector<std::string> uris;
    if (count == 0) uris.push_back(FileUri(folder->path));
    for (UINT i = 0; i < count; ++i) {
      if (items[i] != nullptr) uris.push_back(FileUri(items[i]->path));
    }
    const std::string method = count == 0 ? "org.freedesktop.FileManager1.ShowFolders"
                                          : "org.freedesktop.FileManager1.ShowItems";
    std::vector<std::string> argv;
    const std::string gdbus = FindOnPath("gdbus");
    if (!gdbus.empty()) {
      std::string list = "[";
      for (std::size_t i = 0; i < uris.size(); ++i) list += (i ? ", '" : "'") + uris[i] + "'";
      list += "]";
      argv = {gdbus,
              "call",
              "--session",
              "--timeout",
              "5",
              "--dest",
              "org.freedesktop.FileManager1",
              "--object-path",
              "/org/freedesktop/FileManager1",
              "--method",
              method,
              list,
              ""};
    } else {
      const std::string dbusSend = FindOnPath("dbus-send");
      // Without a way to reach the file manager the call is not there at all.
      if (dbusSend.empty()) return E_NOTIMPL;
      std::string list = "array:string:";
      for (std::size_t i = 0; i < uris.size(); ++i) list += (i ? "," : "") + uris[i];
      argv = {dbusSend,
              "--session",
              "--print-reply",
              "--reply-timeout=5000",
              "--dest=org.freedesktop.FileManager1",
              "/org/freedesktop/FileManager1",
              method,
              list,
              "string:"};
    }
    return RunCapture(argv, nullptr) ? S_OK : E_FAIL;
  } catch (...) {
    return E_OUTOFMEMORY;
  }
}

BOOL PathIsRelativeW(const char16_t* path) noexcept {
  if (path == nullptr || *path == 0) return TRUE;
  if (path[0] == u'/' || path[0] == u'\\') return FALSE;
  const bool letter = (path[0] >= u'a' && path[0] <= u'z') || (path[0] >= u'A' && path[0] <= u'Z');
  return letter && path[1] == u':' ? FALSE : TRUE;
}

BOOL UrlIsW(const char16_t* url, URLIS what) noexcept {
  if (url == nullptr) return FALSE;
  if (what == URLIS_FILEURL) {
    static constexpr char16_t kFile[] = u"file:";
    for (int i = 0; i < 5; ++i) {
      const char16_t c = url[i] >= u'A' && url[i] <= u'Z' ? url[i] + 32 : url[i];
      if (c != kFile[i]) return FALSE;
    }
    return TRUE;
  }
  if (what == URLIS_URL) {
    try {
      return IsAddress(posix::ToUtf8(url)) ? TRUE : FALSE;
    } catch (...) {
      return FALSE;
    }
  }
  return FALSE;
}

HRESULT PathCreateFromUrlW(const char16_t* url, char16_t* path, DWORD* pathLength,
                           DWORD flags) noexcept {
  (void)flags;
  if (url == nullptr || pathLength == nullptr || !UrlIsW(url, URLIS_FILEURL)) return E_INVALIDARG;
  try {
    std::string rest = posix::ToUtf8(url).substr(5);
    if (rest.compare(0, 2, "//") == 0) {
      rest.erase(0, 2);
      const std::size_t slash = rest.find('/');
      const std::string host = rest.substr(0, slash);
      if (!host.empty() && Lowered(host) != "localhost") return E_INVALIDARG;
      rest.erase(0, host.size());
    }
    rest = rest.substr(0, rest.find_first_of("?#"));
    if (rest.empty() || rest[0] != '/') return E_INVALIDARG;
    std::string decoded;
    for (std::size_t i = 0; i < rest.size(); ++i) {
      if (rest[i] != '%') {
        decoded += rest[i];
        continue;
      }
      const int high = i + 2 < rest.size() ? HexValue(rest[i + 1]) : -1;
      const int low = high >= 0 ? HexValue(rest[i + 2]) : -1;
      // An encoded NUL would end the path early and name another file than the address does.
      if (low < 0 || (high == 0 && low == 0)) return E_INVALIDARG;
      decoded += static_cast<char>(high * 16 + low);
      i += 2;
    }
    const std::u16string text = posix::FromUtf8(decoded);
    const DWORD needed = static_cast<DWORD>(text.size() + 1);
    if (path == nullptr || *pathLength < needed) {
      *pathLength = needed;
      return E_POINTER;
    }
    std::memcpy(path, text.c_str(), needed * sizeof(char16_t));
    *pathLength = needed - 1;
    return S_OK;
  } catch (...) {
    return E_OUTOFMEMORY;
  }
}

HRESULT SHGetKnownFolderPath(KnownFolder folder, char16_t* buffer, DWORD size) noexcept {
  (void)folder;
  (void)buffer;
  (void)size;
  // Integrity levels, and with them the low folder, do not exist here.
  return HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
}

HRESULT SHGetFolderPathW(HWND owner, int folder, HANDLE token, DWORD flags,
                         char16_t* path) noexcept {
  (void)owner;
  (void)token;
  (void)flags;
  if (path == nullptr) return E_INVALIDARG;
  path[0] = 0;
  if ((folder & 0xFF) != CSIDL_LOCAL_APPDATA) return E_INVALIDARG;
  try {
    std::string result = GetEnv("XDG_DATA_HOME");
    if (result.empty() || result[0] != '/') {
      std::string home = GetEnv("HOME");
      if (home.empty()) {
        passwd entry{};
        passwd* found = nullptr;
        char buffer[4096];
        if (getpwuid_r(getuid(), &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr) {
          home = found->pw_dir;
        }
      }
      if (home.empty()) return E_FAIL;
      result = home + "/.local/share";
    }
    while (result.size() > 1 && result.back() == '/') result.pop_back();
    const std::u16string text = posix::FromUtf8(result);
    if (text.size() >= MAX_PATH) return E_FAIL;
    std::memcpy(path, text.c_str(), (text.size() + 1) * sizeof(char16_t));
    return S_OK;
  } catch (...) {
    return E_OUTOFMEMORY;
  }
}

std::uintptr_t SHGetFileInfoW(const char16_t* path, DWORD fileAttributes, ShFileInfoW* info,
                              UINT infoSize, UINT flags) noexcept {
  (void)fileAttributes;
  if (path == nullptr) return 0;
  try {
    struct stat st {};
    if (stat(posix::ToUtf8(path).c_str(), &st) != 0) return 0;
    if ((flags & SHGFI_ATTRIBUTES) != 0) {
      if (info == nullptr || infoSize < sizeof(ShFileInfoW)) return 0;
      info->dwAttributes = static_cast<DWORD>(SFGAO_FILESYSTEM) |
                           (S_ISDIR(st.st_mode) ? static_cast<DWORD>(SFGAO_FOLDER) : 0u);
    }
    return 1;
  } catch (...) {
    return 0;
  }
}

HANDLE ShowWaitCursor() noexcept { return nullptr; }

void SetCursor(HANDLE cursor) noexcept { (void)cursor; }

}  // namespace mrwl::platform
