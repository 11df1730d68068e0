#include <dlfcn.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/kernel.h"
#include "platform/posix/posix_util.h"

namespace mrwl::platform {

void GetSystemTime(SYSTEMTIME* time) noexcept {
  if (time == nullptr) return;
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm parts{};
  gmtime_r(&now.tv_sec, &parts);
  time->wYear = static_cast<WORD>(parts.tm_year + 1900);
  time->wMonth = static_cast<WORD>(parts.tm_mon + 1);
  time->wDayOfWeek = static_cast<WORD>(parts.tm_wday);
  time->wDay = static_cast<WORD>(parts.tm_mday);
  time->wHour = static_cast<WORD>(parts.tm_hour);
  time->wMinute = static_cast<WORD>(parts.tm_min);
  time->wSecond = static_cast<WORD>(parts.tm_sec);
  time->wMilliseconds = static_cast<WORD>(now.tv_nsec / 1000000);
}

void GetSystemTimeAsFileTime(FILETIME* time) noexcept {
  if (time == nullptr) return;
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  *time = posix::SplitFileTime(posix::FileTimeFromUnix(now.tv_sec, now.tv_nsec));
}

DWORD GetTickCount() noexcept {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<DWORD>(static_cast<ULONGLONG>(now.tv_sec) * 1000u +
                            static_cast<ULONGLONG>(now.tv_nsec) / 1000000u);
}

BOOL QueryPerformanceCounter(LARGE_INTEGER* count) noexcept {
  if (count == nullptr) return FALSE;
  timespec now{};
  if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) return FALSE;
  count->QuadPart = static_cast<LONGLONG>(now.tv_sec) * 1000000000LL + now.tv_nsec;
  return TRUE;
}

BOOL QueryPerformanceFrequency(LARGE_INTEGER* frequency) noexcept {
  if (frequency == nullptr) return FALSE;
  frequency->QuadPart = 1000000000LL;
  return TRUE;
}

void Sleep(DWORD milliseconds) noexcept {
  timespec wait{static_cast<time_t>(milliseconds / 1000),
                static_cast<long>(milliseconds % 1000) * 1000000L};
  while (nanosleep(&wait, &wait) != 0) {
  }
}

DWORD GetCurrentProcessId() noexcept { return static_cast<DWORD>(getpid()); }

DWORD GetCurrentThreadId() noexcept { return static_cast<DWORD>(syscall(SYS_gettid)); }

DWORD GetEnvironmentVariableW(const char16_t* name, char16_t* buffer, DWORD size) noexcept {
  try {
    const char* value = std::getenv(posix::ToUtf8(name).c_str());
    if (value == nullptr) {
      SetLastError(ERROR_ENVVAR_NOT_FOUND);
      return 0;
    }
    const std::u16string text = posix::FromUtf8(value);
    if (buffer == nullptr || text.size() + 1 > size) return static_cast<DWORD>(text.size() + 1);
    std::memcpy(buffer, text.c_str(), (text.size() + 1) * sizeof(char16_t));
    return static_cast<DWORD>(text.size());
  } catch (...) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return 0;
  }
}

DWORD GetModuleFileNameForAddress(const void* address, char16_t* buffer, DWORD size) noexcept {
  try {
    Dl_info info{};
    const void* probe =
        address != nullptr ? address : reinterpret_cast<const void*>(&GetModuleFileNameForAddress);
    std::string path;
    if (dladdr(const_cast<void*>(probe), &info) != 0 && info.dli_fname != nullptr &&
        std::strchr(info.dli_fname, '/') != nullptr) {
      path = info.dli_fname;
    } else {
      // The main program reports its bare name through dladdr; the kernel knows its full path.
      char self[4096];
      const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
      if (n <= 0) {
        posix::SetLastErrorFromErrno();
        return 0;
      }
      path.assign(self, static_cast<std::size_t>(n));
    }
    if (char* real = realpath(path.c_str(), nullptr)) {
      path = real;
      std::free(real);
    }
    const std::u16string text = posix::FromUtf8(path);
    if (buffer == nullptr || size == 0) {
      SetLastError(ERROR_INSUFFICIENT_BUFFER);
      return 0;
    }
    const std::size_t n = text.size() < size ? text.size() : size - 1;
    std::memcpy(buffer, text.data(), n * sizeof(char16_t));
    buffer[n] = 0;
    if (n < text.size()) {
      SetLastError(ERROR_INSUFFICIENT_BUFFER);
      return size;
    }
    return static_cast<DWORD>(n);
  } catch (...) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return 0;
  }
}

HMODULE GetModuleHandleA(const char* name) noexcept {
  // The message modules asked for by name are Windows components; a POSIX process never has them.
  (void)name;
  SetLastError(ERROR_MOD_NOT_FOUND);
  return nullptr;
}

namespace {
thread_local std::string tLoadProblem;
}  // namespace

HMODULE LoadLibraryW(const char16_t* path) noexcept {
  try {
    tLoadProblem.clear();
    if (path == nullptr || *path == 0) {
      SetLastError(ERROR_INVALID_PARAMETER);
      return nullptr;
    }
    const std::string name = posix::ToUtf8(path);
    // A name without a folder would make the loader search the library path; the callers mean
    // a file.
    if (name.find('/') == std::string::npos) {
      SetLastError(ERROR_MOD_NOT_FOUND);
      return nullptr;
    }
    // The module's own objects stay its own (RTLD_LOCAL), as a Windows module's are.
    void* handle = dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle != nullptr) return static_cast<HMODULE>(handle);
    const char* why = dlerror();
    tLoadProblem = why != nullptr ? why : "";
    DWORD error = ERROR_MOD_NOT_FOUND;
    if (tLoadProblem.find("undefined symbol") != std::string::npos) {
      error = ERROR_PROC_NOT_FOUND;
    } else if (tLoadProblem.find("invalid ELF header") != std::string::npos ||
               tLoadProblem.find("wrong ELF class") != std::string::npos ||
               tLoadProblem.find("file too short") != std::string::npos ||
               tLoadProblem.find("not a dynamic") != std::string::npos) {
      error = ERROR_BAD_EXE_FORMAT;
    }
    OutputDebugStringW(posix::FromUtf8("LoadLibraryW: " + tLoadProblem).c_str());
    SetLastError(error);
    return nullptr;
  } catch (...) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
}

void* GetProcAddress(HMODULE module, const char* name) noexcept {
  if (module == nullptr || name == nullptr) {
    SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
  }
  (void)dlerror();
  void* address = dlsym(module, name);
  if (address == nullptr) SetLastError(ERROR_PROC_NOT_FOUND);
  return address;
}

BOOL FreeLibrary(HMODULE module) noexcept {
  if (module == nullptr || dlclose(module) != 0) {
    SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
  }
  return TRUE;
}

std::u16string GetModuleLoadProblem() {
  return posix::FromUtf8(tLoadProblem);
}

bool ModuleExports(const char* module, const char* name) noexcept {
  if (module == nullptr || name == nullptr) return false;
  // Windows system modules do not exist here; only a real shared object can export anything.
  if (std::strcmp(module, "ntdll") == 0 || std::strcmp(module, "ntdll.dll") == 0) return false;
  void* handle = dlopen(module, RTLD_LAZY | RTLD_NOLOAD);
  if (handle == nullptr) return false;
  const bool found = dlsym(handle, name) != nullptr;
  dlclose(handle);
  return found;
}

void OutputDebugStringW(const char16_t* text) noexcept {
  // Read on every call, so a trace can be switched on in a running process.
  if (text == nullptr || std::getenv("MRWL_TRACE") == nullptr) return;
  try {
    const std::string line = posix::ToUtf8(text);
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
  } catch (...) {
  }
}

void LocalFree(void* block) noexcept { std::free(block); }

bool GetTokenIntegrityLevel(DWORD* level) noexcept {
  (void)level;
  SetLastError(ERROR_NOT_SUPPORTED);
  return false;
}

bool IsTerminal(StandardStream stream) noexcept {
  const int descriptor = stream == StandardStream::kInput    ? STDIN_FILENO
                         : stream == StandardStream::kOutput ? STDOUT_FILENO
                                                             : STDERR_FILENO;
  return isatty(descriptor) == 1;
}

}  // namespace mrwl::platform
