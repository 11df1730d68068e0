// A scratch temporary folder for a benchmark run, set as the process's temporary folder so that
// everything the measured code writes lands there and goes with the folder.
#pragma once

#include <filesystem>
#include <random>
#include <string>
#include <system_error>

#include "platform/utf.h"
#include "testing/temp_folder_hook.h"

namespace mrwl::bench {

class BenchFolder {
 public:
  BenchFolder()
      : path_(std::filesystem::temp_directory_path() /
              ("mrwl-bench-" + std::to_string(std::random_device()()))),
        scoped_((std::filesystem::create_directories(path_),
                 platform::Utf8ToUtf16(path_.string() + "/"))) {}
  BenchFolder(const BenchFolder&) = delete;
  BenchFolder& operator=(const BenchFolder&) = delete;
  ~BenchFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
  testing::ScopedTempFolder scoped_;
};

}  // namespace mrwl::bench
