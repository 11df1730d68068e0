// The process's temporary folder pointed at a folder of the caller's for a scope, through the
// foundation's hook, so that everything the code under test or measure writes there lands in a
// scratch folder. For tests and benchmarks; one scope at a time, on one thread.
#pragma once

#include <string>
#include <utility>

#include "foundation/paths.h"
#include "foundation/wide_string.h"

namespace mrwl::testing {

class ScopedTempFolder {
 public:
  // `folder` ends in its separator; an empty one makes the temporary folder one that can't be
  // told.
  explicit ScopedTempFolder(std::u16string folder) : previous_(SetTempFolderHook(&Hook)) {
    Folder() = std::move(folder);
  }
  ScopedTempFolder(const ScopedTempFolder&) = delete;
  ScopedTempFolder& operator=(const ScopedTempFolder&) = delete;
  ~ScopedTempFolder() { (void)SetTempFolderHook(previous_); }

  // Points the temporary folder elsewhere for the rest of the scope.
  static void Set(std::u16string folder) { Folder() = std::move(folder); }

 private:
  static std::u16string& Folder() {
    static std::u16string folder;
    return folder;
  }
  static bool Hook(WideString& result, TempFolderFunction) noexcept {
    result = Folder();
    return !Folder().empty();
  }
  TempFolderHook previous_;
};

}  // namespace mrwl::testing
