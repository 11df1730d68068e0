#include <algorithm>
#include <cstring>
#include <utility>

#include "foundation/memory.h"
#include "foundation/stream.h"

namespace mrwl {
namespace {

constexpr std::int64_t kDefaultCapacity = 4096;
constexpr std::int64_t kFirstGrowth = 8192;
constexpr std::int64_t kPage = 4096;
constexpr std::int64_t kMinCompactSize = 4;

// `value` rounded up to a multiple of `step`, or -1 when that passes the largest size.
std::int64_t RoundUp(std::int64_t value, std::int64_t step) noexcept {
  if (value > INT64_MAX - (step - 1)) return -1;
  return (value + step - 1) / step * step;
}

}  // namespace

// --- MemoryRecord ------------------------------------------------------------------------------

MemoryRecord::~MemoryRecord() { MemFree(Buffer); }

void MemoryRecord::Release() noexcept {
  if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
}

void MemoryRecord::FreeBuffer() noexcept {
  MemFree(std::exchange(Buffer, nullptr));
  Capacity = 0;
  Size = 0;
}

ResultCode MemoryRecord::Resize(std::int64_t size, bool zero) noexcept {
  if (size < 0) return kErrInvalidArgument;
  if (size > Capacity) {
    std::int64_t capacity = 0;
    if (Growth > 0) {
      capacity = RoundUp(size, Growth);
    } else {
      const std::int64_t divisor = Growth < 0 ? -Growth : 2;
      capacity = Capacity <= kDefaultCapacity ? kFirstGrowth : Capacity + Capacity / divisor;
      if (capacity < size) capacity = RoundUp(size, kPage);
    }
    if (capacity < 0) return kErrOutOfMemory;
    void* grown = Buffer != nullptr ? MemTryRealloc(Buffer, static_cast<std::size_t>(capacity))
                                    : MemAlloc(static_cast<std::size_t>(capacity));
    if (grown == nullptr) return kErrOutOfMemory;
    Buffer = static_cast<unsigned char*>(grown);
    Capacity = capacity;
  }
  if (zero && size > Size) std::memset(Buffer + Size, 0, static_cast<std::size_t>(size - Size));
  Size = size;
  return kOk;
}

// --- MemoryStream ------------------------------------------------------------------------------

MemoryStream::MemoryStream(MemoryRecord* record) noexcept : record_(record) {
  if (record_ != nullptr) record_->AddRef();
}

MemoryStream::~MemoryStream() { (void)ReleaseRecord(); }

ResultCode MemoryStream::Open(std::int64_t initialSize, std::int64_t growth) noexcept {
  (void)ReleaseRecord();
  if (initialSize < 0) return kErrInvalidArgument;
  if (growth == 0) growth = -2;
  if (growth < -4) growth = -4;
  std::int64_t capacity = initialSize;
  if (capacity == 0) capacity = growth > 0 ? growth : kDefaultCapacity;
  if (growth > 0) capacity = RoundUp(capacity, growth);
  if (capacity < 0) return kErrOutOfMemory;
  auto* record = new (std::nothrow) MemoryRecord;
  if (record == nullptr) return kErrOutOfMemory;
  record->Buffer = static_cast<unsigned char*>(MemAlloc(static_cast<std::size_t>(capacity)));
  if (record->Buffer == nullptr) {
    record->Release();
    return kErrOutOfMemory;
  }
  record->Capacity = capacity;
  record->Access = kAccessRead | kAccessWrite;
  record->Growth = growth;
  record_ = record;
  return kOk;
}

std::int64_t MemoryStream::GetCapacity() const noexcept {
  return record_ != nullptr ? record_->Capacity : 0;
}
std::int64_t MemoryStream::GetSize() const noexcept {
  return record_ != nullptr ? record_->Size : 0;
}
std::uint32_t MemoryStream::GetAccess() const noexcept {
  return record_ != nullptr ? record_->Access : 0;
}

ResultCode MemoryStream::Seek(int mode, std::int64_t offset) noexcept {
  if (record_ == nullptr) return kErrNotInitialized;
  return SeekTarget(mode, offset, record_->Size, &position_);
}

ResultCode MemoryStream::Read(void* buffer, std::size_t count, std::size_t* done) noexcept {
  if (done != nullptr) *done = 0;
  if (record_ == nullptr) return kErrNotInitialized;
  if (!(record_->Access & kAccessRead)) return kErrInvalidAccessMode;
  if (count == 0) return kOk;
  if (buffer == nullptr) return kErrInvalidArgument;
  const std::int64_t available = record_->Size - position_;
  if (available <= 0) return kErrEndOfData;
  const auto n = static_cast<std::size_t>(std::min<std::int64_t>(
      available, static_cast<std::int64_t>(std::min<std::size_t>(count, INT64_MAX))));
  // A clone's CopyFrom reads from the buffer it writes to; the two ranges may overlap.
  std::memmove(buffer, record_->Buffer + position_, n);
  position_ += static_cast<std::int64_t>(n);
  if (done != nullptr) *done = n;
  return kOk;
}

ResultCode MemoryStream::Write(const void* buffer, std::size_t count, std::size_t* done) noexcept {
  if (done != nullptr) *done = 0;
  if (record_ == nullptr) return kErrNotInitialized;
  if (!(record_->Access & kAccessWrite)) return kErrInvalidAccessMode;
  if (count == 0) return kOk;
  if (buffer == nullptr || !FitsAfter(position_, count)) return kErrInvalidArgument;
  const std::int64_t end = position_ + static_cast<std::int64_t>(count);
  if (end > record_->Size) {
    // The copy covers the new bytes from the position on. Only a position beyond the size, left
    // behind when a clone shrank or closed the record, leaves a gap that must read as zeros.
    const ResultCode grown = record_->Resize(end, position_ > record_->Size);
    if (Failed(grown)) return grown;
  }
  std::memcpy(record_->Buffer + position_, buffer, count);
  position_ = end;
  if (done != nullptr) *done = count;
  return kOk;
}

ResultCode MemoryStream::CopyFrom(Stream& source, int mode, std::int64_t offset, std::int64_t count,
                                  std::int64_t* done) noexcept {
  if (done != nullptr) *done = 0;
  if (record_ == nullptr) return kErrNotInitialized;
  if (!(record_->Access & kAccessWrite)) return kErrInvalidAccessMode;
  if (count <= 0) return kOk;
  // Seeking the source would move this stream's own position.
  if (&source == this) return kErrInvalidArgument;
  ResultCode result = source.Seek(mode, offset);
  if (Failed(result)) return result;
  // The buffer grows by what the source holds, not by what was asked: a count of "everything"
  // must not demand that much memory. At the source's end one byte lets the source answer.
  const std::int64_t available = source.GetSize() - source.GetPosition();
  count = std::min(count, std::max<std::int64_t>(available, 1));
  if (!FitsAfter(position_, static_cast<std::size_t>(count))) return kErrInvalidArgument;
  const std::int64_t oldSize = record_->Size;
  const std::int64_t end = position_ + count;
  if (end > oldSize) {
    result = record_->Resize(end, position_ > oldSize);
    if (Failed(result)) return result;
  }
  std::size_t got = 0;
  result = source.Read(record_->Buffer + position_, static_cast<std::size_t>(count), &got);
  const std::int64_t reached = position_ + static_cast<std::int64_t>(got);
  // What the source did not fill is no part of the stream.
  const std::int64_t kept = got > 0 ? std::max(oldSize, reached) : oldSize;
  if (record_->Size > kept) record_->Size = kept;
  position_ = reached;
  if (done != nullptr) *done = static_cast<std::int64_t>(got);
  return result;
}

ResultCode MemoryStream::SetSize(std::int64_t size) noexcept {
  if (record_ == nullptr) return kErrNotInitialized;
  if (!(record_->Access & kAccessWrite)) return kErrInvalidAccessMode;
  const ResultCode result = record_->Resize(size, true);
  if (Failed(result)) return result;
  position_ = std::min(position_, size);
  return kOk;
}

ResultCode MemoryStream::Compact() noexcept {
  if (record_ == nullptr) return kErrNotInitialized;
  const std::int64_t capacity = std::max(record_->Size, kMinCompactSize);
  if (capacity == record_->Capacity) return kOk;
  void* shrunk = record_->Buffer != nullptr
                     ? MemRealloc(record_->Buffer, static_cast<std::size_t>(capacity))
                     : MemAlloc(static_cast<std::size_t>(capacity));
  if (shrunk == nullptr) return kErrOutOfMemory;
  record_->Buffer = static_cast<unsigned char*>(shrunk);
  record_->Capacity = capacity;
  return kOk;
}

ResultCode MemoryStream::Flush() noexcept { return record_ != nullptr ? kOk : kErrNotInitialized; }

void* MemoryStream::GetData() noexcept { return record_ != nullptr ? record_->Buffer : nullptr; }

ResultCode MemoryStream::SetAccess(std::uint32_t bits) noexcept {
  if (record_ == nullptr) return kErrNotInitialized;
  record_->Access =
      (record_->Access & ~(kAccessRead | kAccessWrite)) | (bits & (kAccessRead | kAccessWrite));
  return kOk;
}

ResultCode MemoryStream::Close() noexcept {
  position_ = 0;
  if (record_ == nullptr) return kErrNotInitialized;
  record_->FreeBuffer();
  return kOk;
}

ResultCode MemoryStream::ReleaseRecord() noexcept {
  position_ = 0;
  if (record_ != nullptr) std::exchange(record_, nullptr)->Release();
  return kOk;
}

StreamPtr MemoryStream::Clone(ResultCode* error) const noexcept {
  return CloneAs<MemoryStream>(error);
}

bool MemoryStream::IsSameFile(const Stream& other) const noexcept {
  const int kind = other.GetStreamKind();
  if (record_ == nullptr || (kind != kStreamKindMemory && kind != kStreamKindSharedMemory)) {
    return false;
  }
  return static_cast<const MemoryStream&>(other).record_ == record_;
}

ResultCode MemoryStream::GetFileIdentity(FileIdentity* result) const noexcept {
  if (result != nullptr) *result = FileIdentity{};
  return kOk;
}

// --- SharedMemoryStream ------------------------------------------------------------------------

void SharedMemoryStream::Attach(MemoryRecord* record) noexcept {
  if (record != nullptr) record->AddRef();
  (void)ReleaseRecord();
  record_ = record;
}

StreamPtr SharedMemoryStream::Clone(ResultCode* error) const noexcept {
  return CloneAs<SharedMemoryStream>(error);
}

}  // namespace mrwl
