#include <algorithm>
#include <mutex>
#include <utility>

#include "foundation/stream.h"
#include "platform/kernel.h"
#include "platform/unique_any.h"

namespace mrwl {
namespace {

// The system's transfer count is 32 bits; pieces stay well inside it.
constexpr std::size_t kMaxPiece = 0x40000000;
constexpr std::size_t kCopyPiece = 4096;
constexpr DWORD kReopenInterval = 500;
constexpr int kRenameTries = 6;
constexpr DWORD kRenameWait = 500;
constexpr DWORD kRenameFlags =
    MOVEFILE_REPLACE_EXISTING | MOVEFILE_COPY_ALLOWED | MOVEFILE_WRITE_THROUGH;

// Guards every reopen of the layer, so that two clones do not reopen one record at once.
std::mutex& ReopenLock() {
  static std::mutex lock;
  return lock;
}

std::atomic<ReopenFunction> gReopenFunction{nullptr};
std::atomic<ReadFileFunction> gReadFileFunction{nullptr};

bool IsNetworkFailure(DWORD error) noexcept {
  return error >= ERROR_BAD_NETPATH && error <= ERROR_UNEXP_NET_ERR;
}

DWORD DesiredAccess(std::uint32_t access) noexcept {
  return GENERIC_READ | ((access & kAccessWrite) ? GENERIC_WRITE : 0);
}

void SetOffset(OVERLAPPED& overlapped, std::int64_t position) noexcept {
  const auto value = static_cast<std::uint64_t>(position);
#if defined(_WIN32)
  overlapped.Offset = static_cast<DWORD>(value);
  overlapped.OffsetHigh = static_cast<DWORD>(value >> 32);
#else
  overlapped.u.s.Offset = static_cast<DWORD>(value);
  overlapped.u.s.OffsetHigh = static_cast<DWORD>(value >> 32);
#endif
}

std::uint64_t Combine(const FILETIME& time) noexcept {
  return (static_cast<std::uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

// Size and last-write time of an open file.
ResultCode ReadFileState(HANDLE handle, std::int64_t* size, std::uint64_t* lastWrite) noexcept {
  LARGE_INTEGER length{};
  FILETIME written{};
  if (!platform::GetFileSizeEx(handle, &length) ||
      !platform::GetFileTime(handle, nullptr, nullptr, &written)) {
    return LastErrorCode();
  }
  *size = length.QuadPart;
  *lastWrite = Combine(written);
  return kOk;
}

ResultCode BuiltInReopen(const DiskFileRecord& record, HANDLE* handle) {
  UniqueFile file(platform::CreateFileW(record.Path.c_str(), DesiredAccess(record.Access),
                                        record.Share, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL));
  if (!file) return LastErrorCode();
  std::int64_t size = 0;
  std::uint64_t lastWrite = 0;
  const ResultCode state = ReadFileState(file.get(), &size, &lastWrite);
  if (Failed(state)) return state;
  // Another file has taken the name: reading on would mix two files.
  if (size != record.Size || lastWrite != record.LastWriteTime) return kErrFileChanged;
  *handle = file.release();
  return kOk;
}

std::uint32_t NormaliseAccess(std::uint32_t access) noexcept {
  access &= kAccessRead | kAccessWrite;
  if (access & kAccessWrite) access |= kAccessRead;
  return access;
}

}  // namespace

ReopenFunction SetReopenFunction(ReopenFunction opener) noexcept {
  return gReopenFunction.exchange(opener);
}

ReadFileFunction SetReadFileFunctionForTesting(ReadFileFunction read) noexcept {
  return gReadFileFunction.exchange(read);
}

// --- DiskFileRecord ----------------------------------------------------------------------------

DiskFileRecord::~DiskFileRecord() {
  if (Handle != INVALID_HANDLE_VALUE) (void)platform::CloseHandle(Handle);
}

bool DiskFileRecord::IsOpen() const noexcept { return Handle != INVALID_HANDLE_VALUE; }

ResultCode DiskFileRecord::CloseRecord() noexcept {
  ResultCode result = kOk;
  if (Handle != INVALID_HANDLE_VALUE) {
    // Seeks and SetSize may have stretched the file beyond what was written.
    if (Access & kAccessWrite) {
      LARGE_INTEGER end{};
      end.QuadPart = Size;
      if (!platform::SetFilePointerEx(Handle, end, nullptr, FILE_BEGIN) ||
          !platform::SetEndOfFile(Handle)) {
        result = LastErrorCode();
      }
    }
    if (!platform::CloseHandle(Handle) && Succeeded(result)) result = LastErrorCode();
  }
  Capacity = 0;
  Size = 0;
  Path.Reset();
  LastWriteTime = 0;
  Handle = INVALID_HANDLE_VALUE;
  ReopenTicks = 0;
  Access = 0;
  Share = 0;
  return result;
}

void DiskFileRecord::Release() noexcept {
  if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    (void)CloseRecord();
    delete this;
  }
}

ResultCode DiskFileRecord::OpenFile(std::u16string_view path, DWORD disposition,
                                    std::uint32_t access, DWORD share, DWORD flags) noexcept {
  access = NormaliseAccess(access);
  if (access == 0) return kErrInvalidAccessMode;
  WideString name;
  if (!name.Assign(path)) return kErrOutOfMemory;
  UniqueFile file(
      platform::CreateFileW(name.c_str(), DesiredAccess(access), share, disposition, flags));
  if (!file) return LastErrorCode();
  std::int64_t size = 0;
  std::uint64_t lastWrite = 0;
  const ResultCode state = ReadFileState(file.get(), &size, &lastWrite);
  if (Failed(state)) return state;
  Capacity = size;
  Size = size;
  Path = std::move(name);
  LastWriteTime = lastWrite;
  Handle = file.release();
  ReopenTicks = platform::GetTickCount();
  Access = access;
  Share = share;
  return kOk;
}

ResultCode DiskFileRecord::Reopen(bool* reopened) noexcept {
  *reopened = false;
  std::lock_guard<std::mutex> lock(ReopenLock());
  // A reopen moments ago has not cured the failure yet: let the caller try again.
  if (platform::GetTickCount() - ReopenTicks < kReopenInterval) return kOk;
  if (Path.IsEmpty()) return kErrInvalidArgument;
  (void)Commit();
  if (Handle != INVALID_HANDLE_VALUE) (void)platform::CloseHandle(Handle);
  Handle = INVALID_HANDLE_VALUE;
  const ReopenFunction opener = gReopenFunction.load();
  HANDLE handle = INVALID_HANDLE_VALUE;
  const ResultCode result =
      opener != nullptr ? opener(*this, &handle) : BuiltInReopen(*this, &handle);
  if (Failed(result)) return result;
  if (handle == INVALID_HANDLE_VALUE) return kErrInvalidArgument;
  Handle = handle;
  ReopenTicks = platform::GetTickCount();
  *reopened = true;
  return kOk;
}

// --- DiskFileStream ----------------------------------------------------------------------------

DiskFileStream::DiskFileStream() noexcept {
  overlapped_.hEvent = platform::CreateEventW(TRUE, FALSE);
}

DiskFileStream::~DiskFileStream() {
  (void)ReleaseRecord();
  if (overlapped_.hEvent != nullptr) (void)platform::CloseHandle(overlapped_.hEvent);
}

DiskFileRecord* DiskFileStream::GetRecord() noexcept {
  if (record_ == nullptr) record_ = new (std::nothrow) DiskFileRecord;
  return record_;
}

ResultCode DiskFileStream::Commit() noexcept {
  return record_ != nullptr ? record_->Commit() : kErrNotInitialized;
}

ResultCode DiskFileStream::Open(std::u16string_view path, DWORD disposition, std::uint32_t access,
                                DWORD share, DWORD flags) noexcept {
  // The clones keep the file they share; this stream starts on a record of its own.
  (void)ReleaseRecord();
  DiskFileRecord* record = GetRecord();
  if (record == nullptr) return kErrOutOfMemory;
  ResultCode result = record->OpenFile(path, disposition, access, share, flags);
  if (Succeeded(result)) result = record->Start();
  if (Failed(result)) (void)Close();
  return result;
}

ResultCode DiskFileStream::ChangeAccess(std::uint32_t access, DWORD share, DWORD flags) noexcept {
  if (record_ == nullptr || !record_->IsOpen()) return kErrNotInitialized;
  access = NormaliseAccess(access);
  if (access == 0) return kErrInvalidAccessMode;
  if (access == record_->Access && share == record_->Share) return kOk;
  const std::uint32_t oldAccess = record_->Access;
  const DWORD oldShare = record_->Share;
  WideString path = record_->Path;
  if (path.IsEmpty() && !record_->Path.IsEmpty()) return kErrOutOfMemory;
  (void)record_->Commit();
  const ResultCode closed = record_->CloseRecord();
  if (Failed(closed)) return closed;
  const ResultCode result = record_->OpenFile(path, OPEN_EXISTING, access, share, flags);
  if (Succeeded(result)) return kOk;
  (void)record_->OpenFile(path, OPEN_EXISTING, oldAccess, oldShare, FILE_ATTRIBUTE_NORMAL);
  return result;
}

ResultCode DiskFileStream::MakeWritable() noexcept {
  if (record_ == nullptr) return kErrNotInitialized;
  return ChangeAccess(kAccessRead | kAccessWrite, record_->Share, FILE_ATTRIBUTE_NORMAL);
}

ResultCode DiskFileStream::MakeReadOnly() noexcept {
  if (record_ == nullptr) return kErrNotInitialized;
  return ChangeAccess(kAccessRead, record_->Share, FILE_ATTRIBUTE_NORMAL);
}

ResultCode DiskFileStream::Rename(std::u16string_view newPath) noexcept {
  if (record_ == nullptr || !record_->IsOpen()) return kErrNotInitialized;
  // Intended: names that differ only in case count as the same file, as on Windows.
  if (EqualsNoCase(record_->Path.view(), newPath)) return kOk;
  WideString oldPath = record_->Path;
  WideString target;
  if (oldPath.IsEmpty() || !target.Assign(newPath)) return kErrOutOfMemory;
  const std::uint32_t access = record_->Access;
  (void)record_->Commit();
  const ResultCode closed = record_->CloseRecord();
  if (Failed(closed)) return closed;

  ResultCode result = kOk;
  for (int attempt = 1; attempt <= kRenameTries; ++attempt) {
    if (platform::MoveFileExW(oldPath.c_str(), target.c_str(), kRenameFlags)) {
      result =
          record_->OpenFile(target, OPEN_EXISTING, access, FILE_SHARE_READ, FILE_ATTRIBUTE_NORMAL);
      break;
    }
    const DWORD error = platform::GetLastError();
    result = LastErrorCode();
    // Another program (a scanner, an indexer) may hold the file for a moment.
    if ((error != ERROR_ACCESS_DENIED && error != ERROR_SHARING_VIOLATION) ||
        attempt == kRenameTries) {
      break;
    }
    platform::Sleep(kRenameWait);
  }
  if (Succeeded(result)) {
    position_ = std::min(position_, record_->Size);
    return kOk;
  }
  if (Succeeded(record_->OpenFile(oldPath, OPEN_EXISTING, access, FILE_SHARE_READ,
                                  FILE_ATTRIBUTE_NORMAL))) {
    position_ = std::min(position_, record_->Size);
  } else {
    position_ = 0;
  }
  return result;
}

std::int64_t DiskFileStream::GetPosition() const noexcept { return position_; }
std::int64_t DiskFileStream::GetCapacity() const noexcept {
  return record_ != nullptr ? record_->Capacity : 0;
}
std::int64_t DiskFileStream::GetSize() const noexcept {
  return record_ != nullptr ? record_->Size : 0;
}
std::uint32_t DiskFileStream::GetAccess() const noexcept {
  return record_ != nullptr ? record_->Access : 0;
}

bool DiskFileStream::IsOpen() const noexcept { return record_ != nullptr && record_->IsOpen(); }

ResultCode DiskFileStream::Seek(int mode, std::int64_t offset) noexcept {
  if (record_ == nullptr) return kErrNotInitialized;
  return SeekTarget(mode, offset, record_->Size, &position_);
}

DWORD DiskFileStream::TransferPiece(bool write, void* buffer, DWORD count, DWORD* got) noexcept {
  *got = 0;
  SetOffset(overlapped_, position_);
  BOOL ok = FALSE;
  if (write) {
    ok = platform::WriteFile(record_->Handle, buffer, count, got, &overlapped_);
  } else {
    const ReadFileFunction read = gReadFileFunction.load();
    ok = (read != nullptr ? read : &platform::ReadFile)(record_->Handle, buffer, count, got,
                                                        &overlapped_);
  }
  DWORD error = ok ? 0 : platform::GetLastError();
  if (!ok && error == ERROR_IO_PENDING) {
    ok = platform::GetOverlappedResult(record_->Handle, &overlapped_, got, TRUE);
    error = ok ? 0 : platform::GetLastError();
  }
  if (ok) return 0;
  // A failure that forgot its number is still a failure; ErrorResult tells it apart.
  return error == 0 ? kNoErrorNumber : error;
}

ResultCode DiskFileStream::Read(void* buffer, std::size_t count, std::size_t* done) noexcept {
  if (done != nullptr) *done = 0;
  if (record_ == nullptr) return kErrNotInitialized;
  if (!(record_->Access & kAccessRead)) return kErrInvalidAccessMode;
  if (count == 0) return kOk;
  if (buffer == nullptr || !FitsAfter(position_, count)) return kErrInvalidArgument;
  auto* bytes = static_cast<unsigned char*>(buffer);
  std::size_t total = 0;
  while (total < count) {
    const auto piece = static_cast<DWORD>(std::min(count - total, kMaxPiece));
    DWORD got = 0;
    bool reopened = false;
    for (;;) {
      const DWORD error = TransferPiece(false, bytes + total, piece, &got);
      if (error == 0) break;
      if (!IsNetworkFailure(error)) {
        if (done != nullptr) *done = total;
        return ErrorResult(error);
      }
      if (reopened) {
        if (done != nullptr) *done = total;
        return kErrUnexpectedRead;
      }
      const ResultCode result = record_->Reopen(&reopened);
      if (Failed(result)) {
        if (done != nullptr) *done = total;
        return result;
      }
    }
    position_ += got;
    total += got;
    if (done != nullptr) *done = total;
    if (got < piece) return total > 0 ? kOk : kErrEndOfData;
  }
  return kOk;
}

ResultCode DiskFileStream::Write(const void* buffer, std::size_t count,
                                 std::size_t* done) noexcept {
  if (done != nullptr) *done = 0;
  if (record_ == nullptr) return kErrNotInitialized;
  if (!(record_->Access & kAccessWrite)) return kErrInvalidAccessMode;
  if ((buffer == nullptr && count != 0) || !FitsAfter(position_, count)) {
    return kErrInvalidArgument;
  }
  // The transfer helper serves both directions; a write never stores into the buffer.
  auto* bytes = static_cast<unsigned char*>(const_cast<void*>(buffer));
  std::size_t total = 0;
  ResultCode result = kOk;
  while (total < count) {
    const auto piece = static_cast<DWORD>(std::min(count - total, kMaxPiece));
    DWORD got = 0;
    const DWORD error = TransferPiece(true, bytes + total, piece, &got);
    position_ += got;
    total += got;
    if (error != 0) {
      result = ErrorResult(error);
      break;
    }
    if (got < piece) {
      result = kErrFailure;
      break;
    }
  }
  if (done != nullptr) *done = total;
  // Also for a count of 0: the file then reaches the position, if only logically.
  if (position_ > record_->Size) record_->Size = position_;
  if (position_ > record_->Capacity) record_->Capacity = position_;
  return result;
}

ResultCode DiskFileStream::CopyFrom(Stream& source, int mode, std::int64_t offset,
                                    std::int64_t count, std::int64_t* done) noexcept {
  if (done != nullptr) *done = 0;
  if (record_ == nullptr) return kErrNotInitialized;
  if (!(record_->Access & kAccessWrite)) return kErrInvalidAccessMode;
  // Seeking the source would move this stream's own position.
  if (&source == this) return kErrInvalidArgument;
  ResultCode result = source.Seek(mode, offset);
  if (Failed(result)) return result;
  unsigned char buffer[kCopyPiece];
  std::int64_t total = 0;
  while (total < count) {
    const auto piece = static_cast<std::size_t>(
        std::min<std::int64_t>(count - total, static_cast<std::int64_t>(kCopyPiece)));
    std::size_t got = 0;
    result = source.Read(buffer, piece, &got);
    if (got > 0) {
      std::size_t put = 0;
      const ResultCode written = Write(buffer, got, &put);
      total += static_cast<std::int64_t>(put);
      if (Failed(written)) {
        result = written;
        break;
      }
    }
    if (Failed(result) || got < piece) break;
  }
  if (done != nullptr) *done = total;
  // Running out of source after some bytes is a short copy, not a failure.
  return result == kErrEndOfData && total > 0 ? kOk : result;
}

ResultCode DiskFileStream::SetSize(std::int64_t size) noexcept {
  if (record_ == nullptr) return kErrNotInitialized;
  if (!(record_->Access & kAccessWrite)) return kErrInvalidAccessMode;
  if (size < 0) return kErrInvalidArgument;
  LARGE_INTEGER end{};
  end.QuadPart = size;
  if (!platform::SetFilePointerEx(record_->Handle, end, nullptr, FILE_BEGIN) ||
      !platform::SetEndOfFile(record_->Handle)) {
    return LastErrorCode();
  }
  record_->Capacity = size;
  record_->Size = size;
  position_ = std::min(position_, size);
  return kOk;
}

ResultCode DiskFileStream::Compact() noexcept {
  return record_ != nullptr ? kOk : kErrNotInitialized;
}

ResultCode DiskFileStream::Flush() noexcept {
  if (record_ == nullptr) return kErrNotInitialized;
  return platform::FlushFileBuffers(record_->Handle) ? kOk : LastErrorCode();
}

ResultCode DiskFileStream::SetAccess(std::uint32_t) noexcept { return kErrUnsupportedOperation; }

ResultCode DiskFileStream::Close() noexcept {
  position_ = 0;
  return record_ != nullptr ? record_->CloseRecord() : kOk;
}

ResultCode DiskFileStream::ReleaseRecord() noexcept {
  position_ = 0;
  if (record_ != nullptr) std::exchange(record_, nullptr)->Release();
  return kOk;
}

StreamPtr DiskFileStream::Clone(ResultCode* error) const noexcept {
  if (record_ == nullptr) {
    if (error != nullptr) *error = kErrNotInitialized;
    return nullptr;
  }
  auto* clone = new (std::nothrow) DiskFileStream;
  if (clone == nullptr || clone->overlapped_.hEvent == nullptr) {
    delete clone;
    if (error != nullptr) *error = kErrOutOfMemory;
    return nullptr;
  }
  record_->AddRef();
  clone->record_ = record_;
  clone->position_ = position_;
  if (error != nullptr) *error = kOk;
  return StreamPtr(clone);
}

bool DiskFileStream::IsSameFile(const Stream& other) const noexcept {
  if (record_ == nullptr || other.GetStreamKind() != kStreamKindDiskFile) return false;
  return static_cast<const DiskFileStream&>(other).record_ == record_;
}

ResultCode DiskFileStream::GetFileIdentity(FileIdentity* result) const noexcept {
  if (result == nullptr) return kErrInvalidArgument;
  if (record_ == nullptr || !record_->IsOpen()) return kErrNotInitialized;
  BY_HANDLE_FILE_INFORMATION info{};
  if (!platform::GetFileInformationByHandle(record_->Handle, &info)) return LastErrorCode();
  result->VolumeSerial = info.dwVolumeSerialNumber;
  result->FileId = (static_cast<std::uint64_t>(info.nFileIndexHigh) << 32) | info.nFileIndexLow;
  return kOk;
}

}  // namespace mrwl
