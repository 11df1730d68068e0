// A scratch temporary folder for a benchmark run, set as the process's temporary folder so that
// everything the measured code writes lands there and goes with the folder.
#pragma once

#include <filesystem>
#include <random>
#include <string>
#include <system_error>

#include "foundation/paths.h"
#include "foundation/wide_string.h"
#include "platform/utf.h"

namespace mrwl::bench {

class BenchFolder {
 public:
  BenchFolder() {
    path_ = std::filesystem::temp_directory_path() /
            ("mrwl-bench-" + std::to_string(std::random_device()()));
    std::filesystem::create_directories(path_);
    Folder() = platform::Utf8ToUtf16(path_.string() + "/");
    previous_ = SetTempFolderHook(&Hook);
  }
  BenchFolder(const BenchFolder&) = delete;
  BenchFolder& operator=(const BenchFolder&) = delete;
  ~BenchFolder() {
    (void)SetTempFolderHook(previous_);
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  const std::filesystem::path& path() const { return path_; }

 private:
  static std::u16string& Folder() {
    static std::u16string folder;
    return folder;
  }
  static bool Hook(WideString& result, TempFolderFunction) noexcept {
    result = Folder();
    return true;
  }
  std::filesystem::path path_;
  TempFolderHook previous_ = nullptr;
};

}  // namespace mrwl::bench
