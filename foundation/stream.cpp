#include "foundation/stream.h"

#include <algorithm>
#include <cstring>

#include "foundation/memory.h"
#include "foundation/paths.h"
#include "platform/kernel.h"

namespace mrwl {
namespace {

constexpr std::size_t kComparePiece = 4096;
// Fills a temporary-name prefix of fewer than three characters, position by position.
constexpr char16_t kPrefixFiller[] = u"mrw";

}  // namespace

ResultCode LastErrorCode() noexcept { return ErrorResult(platform::GetLastError()); }

ResultCode SeekTarget(int mode, std::int64_t offset, std::int64_t size,
                      std::int64_t* position) noexcept {
  std::int64_t base = 0;
  switch (mode) {
    case kSeekBegin:
      break;
    case kSeekCurrent:
      base = *position;
      break;
    case kSeekEnd:
      base = size;
      break;
    default:
      return kErrInvalidSeekMode;
  }
  std::int64_t target = 0;
  if (__builtin_add_overflow(base, offset, &target) || target < 0 || target > size) {
    return kErrInvalidSeekPos;
  }
  *position = target;
  return kOk;
}

void* LayerObject::operator new(std::size_t size) {
  void* block = MemAlloc(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

void* LayerObject::operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return MemAlloc(size);
}

void LayerObject::operator delete(void* block) noexcept { MemFree(block); }

Stream::~Stream() = default;

ResultCode Stream::ReadAt(void* buffer, std::size_t count, int mode, std::int64_t offset,
                          std::size_t* done) noexcept {
  if (done != nullptr) *done = 0;
  const std::int64_t saved = GetPosition();
  const ResultCode sought = Seek(mode, offset);
  if (Failed(sought)) return sought;
  const ResultCode result = Read(buffer, count, done);
  (void)Seek(kSeekBegin, saved);  // the saved position was valid, so this cannot fail
  return result;
}

ResultCode Stream::Compare(std::int64_t count, std::int64_t offset, Stream& other,
                           std::int64_t otherOffset) noexcept {
  ResultCode result = Seek(kSeekBegin, offset);
  if (Failed(result)) return result;
  result = other.Seek(kSeekBegin, otherOffset);
  if (Failed(result)) return result;
  unsigned char mine[kComparePiece];
  unsigned char theirs[kComparePiece];
  while (count > 0) {
    const std::size_t piece =
        static_cast<std::size_t>(std::min<std::int64_t>(count, kComparePiece));
    std::size_t gotMine = 0, gotTheirs = 0;
    result = Read(mine, piece, &gotMine);
    if (Failed(result) && result != kErrEndOfData) return result;
    result = other.Read(theirs, piece, &gotTheirs);
    if (Failed(result) && result != kErrEndOfData) return result;
    if (gotMine != piece || gotTheirs != piece) return kErrInternal;
    const int order = std::memcmp(mine, theirs, piece);
    if (order != 0) return order < 0 ? 0 : 2;
    count -= static_cast<std::int64_t>(piece);
  }
  return 1;
}

ResultCode MakeTempName(WideString& result, std::u16string_view prefix,
                        std::u16string_view folder) noexcept {
  result.Clear();
  WideString base;
  if (folder.empty()) {
    if (!GetTempFolder(base)) return LastErrorCode();
  } else if (!base.Assign(folder)) {
    return kErrOutOfMemory;
  }
  const char16_t separator = platform::PathSeparator();
  if (base.IsEmpty() || base[base.Length() - 1] != separator) {
    if (!base.Append(separator)) return kErrOutOfMemory;
  }
  char16_t shortPrefix[4] = {};
  for (std::size_t i = 0; i < 3; ++i) {
    shortPrefix[i] = i < prefix.size() ? prefix[i] : kPrefixFiller[i];
  }
  char16_t path[MAX_PATH] = {};
  if (platform::GetTempFileNameW(base.c_str(), shortPrefix, 0, path) == 0) {
    return LastErrorCode();
  }
  return result.Assign(path) ? kOk : kErrOutOfMemory;
}

}  // namespace mrwl
