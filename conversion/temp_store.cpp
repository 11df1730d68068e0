#include "conversion/temp_store.h"

#include "foundation/format.h"
#include "foundation/paths.h"
#include "platform/kernel.h"
#include "platform/win_types.h"

namespace mrwl {
namespace {

constexpr int kNameTries = 10001;

}  // namespace

bool MakeUniqueTempName(std::u16string_view prefix, std::u16string_view extension,
                        WideString& result) noexcept {
  WideString folder;
  if (!GetTempFolder(folder)) {
    result.Clear();
    return false;
  }
  WideString head(folder);
  WideString tail(u".");
  if (!head.Append(prefix) || !tail.Append(extension)) {
    result.Clear();
    return false;
  }

  SYSTEMTIME now{};
  platform::GetSystemTime(&now);
  // The clock spreads the names of separate runs; counting up settles collisions within one.
  unsigned number = now.wMilliseconds + (now.wMinute * 100u + now.wSecond) * 1000u;
  for (int i = 0; i < kNameTries; ++i, ++number) {
    result = FormatText(u"%ls%x%ls", head.c_str(), number, tail.c_str());
    if (!result.IsEmpty() && !PathExists(result.c_str())) return true;
  }
  result.Clear();
  return false;
}

}  // namespace mrwl
