// Streams of the foundation: one interface over operating system files and growing buffers.
//
// Serialisers write to a Stream without knowing what stands behind it. DiskFileStream works on a
// file through a DiskFileRecord that several streams may share: each stream carries its own
// position and passes it with every transfer, and a read that meets a network failure reopens the
// file and goes on. MemoryStream works on a MemoryRecord, a buffer from MemAlloc that grows
// geometrically; SharedMemoryStream is a memory stream that attaches to a record made elsewhere.
// Every operation answers with a result code of the IO domain (below) or a system error as
// SystemErrorCode(e); nothing throws.
//
// Threading: a stream is for one thread at a time. Clones have their own position (and event), so
// two clones may transfer on two threads; records count their references atomically. Reopening a
// file runs under one lock of the layer.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <string_view>

#include "foundation/result_codes.h"
#include "foundation/wide_string.h"
#include "platform/files.h"
#include "platform/win_types.h"

namespace mrwl {

// Result codes of this layer.
inline constexpr ResultCode kErrInvalidArgument = MakeResultCode(2, kDomainIo, 0x01);
inline constexpr ResultCode kErrUnsupportedOperation = MakeResultCode(2, kDomainIo, 0x09);
inline constexpr ResultCode kErrInvalidAccessMode = MakeResultCode(2, kDomainIo, 0x0A);
inline constexpr ResultCode kErrInvalidSeekMode = MakeResultCode(2, kDomainIo, 0x0B);
inline constexpr ResultCode kErrInvalidSeekPos = MakeResultCode(2, kDomainIo, 0x0C);
inline constexpr ResultCode kErrFailure = MakeResultCode(3, kDomainIo, 0x0E);
inline constexpr ResultCode kErrInitFailed = MakeResultCode(3, kDomainIo, 0x0F);
inline constexpr ResultCode kErrNotInitialized = MakeResultCode(2, kDomainIo, 0x10);
inline constexpr ResultCode kErrInternal = MakeResultCode(2, kDomainIo, 0x11);
inline constexpr ResultCode kErrEndOfData = MakeResultCode(2, kDomainIo, 0x1B);
inline constexpr ResultCode kErrFileChanged = MakeResultCode(2, kDomainIo, 0x1E);
inline constexpr ResultCode kErrOutOfMemory = MakeResultCode(3, kDomainIo, 0x3E8);
inline constexpr ResultCode kErrUnexpectedRead = MakeResultCode(3, kDomainIo, 0x1001);

// Access bits of a stream.
inline constexpr std::uint32_t kAccessRead = 1;
inline constexpr std::uint32_t kAccessWrite = 2;

// Seek modes.
inline constexpr int kSeekBegin = 0;
inline constexpr int kSeekCurrent = 1;
inline constexpr int kSeekEnd = 2;

// What Stream::GetStreamKind tells.
inline constexpr int kStreamKindSharedMemory = 2;
inline constexpr int kStreamKindMemory = 3;
inline constexpr int kStreamKindDiskFile = 5;

// The identity of an open file: equal for two handles on the same file.
struct FileIdentity {
  std::uint32_t VolumeSerial = 0;
  std::uint64_t FileId = 0;
};

// The result code of the calling thread's last system error; 0xC202000F when there is none.
[[nodiscard]] ResultCode LastErrorCode() noexcept;

// Stands for a failed call that left no error number behind.
inline constexpr DWORD kNoErrorNumber = 0xFFFFFFFFu;
// The result code of a system error number, or of kNoErrorNumber.
[[nodiscard]] constexpr ResultCode ErrorResult(DWORD error) noexcept {
  return error == 0 || error == kNoErrorNumber ? kErrInitFailed : SystemErrorCode(error);
}

// Moves `position` by a seek of `mode` and `offset` within a stream of `size` bytes. Returns
// kErrInvalidSeekMode for an unknown mode and kErrInvalidSeekPos for a target before the start,
// past the end or beyond the range of a position; `position` then stays.
[[nodiscard]] ResultCode SeekTarget(int mode, std::int64_t offset, std::int64_t size,
                                    std::int64_t* position) noexcept;

// Whether `count` more bytes from `position` stay within the largest stream size.
[[nodiscard]] constexpr bool FitsAfter(std::int64_t position, std::size_t count) noexcept {
  return position >= 0 && count <= static_cast<std::uint64_t>(INT64_MAX - position);
}

// Objects of this layer live on MemAlloc, whoever creates them with new.
class LayerObject {
 public:
  static void* operator new(std::size_t size);
  static void* operator new(std::size_t size, const std::nothrow_t&) noexcept;
  static void operator delete(void* block) noexcept;
  static void* operator new(std::size_t, void* where) noexcept { return where; }
  static void operator delete(void*, void*) noexcept {}
};

class Stream;
struct StreamDeleter {
  void operator()(Stream* stream) const noexcept;
};
using StreamPtr = std::unique_ptr<Stream, StreamDeleter>;

// The stream interface. Positions and sizes are in bytes; `done` receives the bytes moved, also
// when the operation fails part way. A stream without its record answers 0x82020010, or 0 for
// the queries.
class Stream : public LayerObject {
 public:
  Stream() noexcept = default;
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;
  virtual ~Stream();

  [[nodiscard]] virtual std::int64_t GetPosition() const noexcept = 0;
  // Bytes reserved behind the stream: the size on disk, or the size of the buffer.
  [[nodiscard]] virtual std::int64_t GetCapacity() const noexcept = 0;
  [[nodiscard]] virtual std::int64_t GetSize() const noexcept = 0;
  [[nodiscard]] virtual std::uint32_t GetAccess() const noexcept = 0;
  // Moves the position: mode 0 from the start, 1 from the position, 2 from the end. Another mode
  // gives 0x8202000B; a target below 0 or beyond the size gives 0x8202000C.
  virtual ResultCode Seek(int mode, std::int64_t offset) noexcept = 0;
  // Reads at the position. Reaching the end after some bytes gives 0 with a short `done`; being
  // at the end gives 0x8202001B with `done` 0. REQUIRES: the read bit.
  virtual ResultCode Read(void* buffer, std::size_t count, std::size_t* done) noexcept = 0;
  // Writes at the position, growing the stream as needed. REQUIRES: the write bit.
  virtual ResultCode Write(const void* buffer, std::size_t count, std::size_t* done) noexcept = 0;
  // Reads at a position given as for Seek and puts the position back afterwards.
  virtual ResultCode ReadAt(void* buffer, std::size_t count, int mode, std::int64_t offset,
                            std::size_t* done) noexcept;
  // Seeks `source` as for Seek and copies up to `count` of its bytes to this stream's position.
  virtual ResultCode CopyFrom(Stream& source, int mode, std::int64_t offset, std::int64_t count,
                              std::int64_t* done) noexcept = 0;
  virtual ResultCode SetSize(std::int64_t size) noexcept = 0;
  virtual ResultCode Compact() noexcept = 0;
  virtual ResultCode ReleaseView() noexcept { return kOk; }
  virtual ResultCode Flush() noexcept = 0;
  // The bytes themselves, for a stream that holds them in memory; null otherwise.
  [[nodiscard]] virtual void* GetData() noexcept = 0;
  [[nodiscard]] virtual bool IsOpen() const noexcept = 0;
  virtual ResultCode SetAccess(std::uint32_t bits) noexcept = 0;
  // Gives up the contents and sets the position to 0; the record stays with the stream.
  virtual ResultCode Close() noexcept = 0;
  // Sets the position to 0 and drops this stream's reference to its record.
  virtual ResultCode ReleaseRecord() noexcept = 0;
  [[nodiscard]] virtual int GetStreamKind() const noexcept = 0;
  [[nodiscard]] virtual int GetStreamKindEx() const noexcept { return GetStreamKind(); }
  // A new stream on the same record with its own position. Null with `error` set on failure.
  [[nodiscard]] virtual StreamPtr Clone(ResultCode* error) const noexcept = 0;
  // True if both streams work on the same record.
  [[nodiscard]] virtual bool IsSameFile(const Stream& other) const noexcept = 0;
  virtual ResultCode GetFileIdentity(FileIdentity* result) const noexcept = 0;
  // Compares `count` bytes of this stream from `offset` with `other` from `otherOffset`, both
  // from the start: 1 if equal, 0 if this one is less at the first difference, 2 if it is more,
  // 0x82020011 if either ends early, or the failure of a seek or read.
  virtual ResultCode Compare(std::int64_t count, std::int64_t offset, Stream& other,
                             std::int64_t otherOffset) noexcept;
  virtual void ResetPosition() noexcept = 0;
};

inline void StreamDeleter::operator()(Stream* stream) const noexcept { delete stream; }

// A reference-counted record of one open file, shared by the streams on it. Handle is
// INVALID_HANDLE_VALUE while the file is closed. Records are made with new (on MemAlloc) and
// destroyed by the last Release.
class DiskFileRecord : public LayerObject {
 public:
  DiskFileRecord() noexcept = default;
  DiskFileRecord(const DiskFileRecord&) = delete;
  DiskFileRecord& operator=(const DiskFileRecord&) = delete;
  virtual ~DiskFileRecord();
  [[nodiscard]] virtual bool IsOpen() const noexcept;
  // Cuts a writable file to Size, closes it and clears every field. Success when nothing is open.
  virtual ResultCode CloseRecord() noexcept;
  // Hooks for records that keep more than the file; they do nothing here.
  virtual ResultCode Start() noexcept { return kOk; }
  virtual ResultCode Commit() noexcept { return kOk; }

  void AddRef() noexcept { references_.fetch_add(1, std::memory_order_relaxed); }
  // Drops a reference; the last one closes the file and destroys the record.
  void Release() noexcept;

  // Opens `path` into this closed record and reads size and last-write time.
  ResultCode OpenFile(std::u16string_view path, DWORD disposition, std::uint32_t access,
                      DWORD share, DWORD flags) noexcept;
  // Opens the file again after a network failure, under the layer's lock. `reopened` tells
  // whether it ran: within 500 ms of the last reopen it does nothing and succeeds, so that the
  // caller only tries again. Gives 0x8202001E when another file has taken the name.
  ResultCode Reopen(bool* reopened) noexcept;

  std::int64_t Capacity = 0;
  std::int64_t Size = 0;
  WideString Path;
  std::uint64_t LastWriteTime = 0;
  HANDLE Handle = INVALID_HANDLE_VALUE;
  std::uint32_t ReopenTicks = 0;
  std::uint32_t Access = 0;
  std::uint32_t Share = 0;

 private:
  std::atomic<long> references_{1};
};

// Opens `record.Path` again with OPEN_EXISTING and the record's access and share, into `handle`.
// It must give a handle on the same file or a failure.
using ReopenFunction = ResultCode (*)(const DiskFileRecord& record, HANDLE* handle);
// Replaces the opener of Reopen; null restores the built-in, which refuses a file whose size or
// last-write time differ from the record's. Returns the previous one.
ReopenFunction SetReopenFunction(ReopenFunction opener) noexcept;

// The read call of disk streams, replaceable so that tests can inject the failures of a network
// file system; null restores platform::ReadFile. Returns the previous one.
using ReadFileFunction = BOOL (*)(HANDLE file, void* buffer, DWORD count, DWORD* done,
                                  OVERLAPPED* overlapped);
ReadFileFunction SetReadFileFunctionForTesting(ReadFileFunction read) noexcept;

// A stream over a file of the operating system.
class DiskFileStream : public Stream {
 public:
  DiskFileStream() noexcept;
  ~DiskFileStream() override;

  // Closes what was open and opens `path`. `access` takes kAccessRead and kAccessWrite (write
  // implies read); `disposition`, `share` and `flags` go to CreateFileW as they are. On failure
  // the stream is left closed.
  ResultCode Open(std::u16string_view path, DWORD disposition, std::uint32_t access, DWORD share,
                  DWORD flags) noexcept;
  // Opens the file again with other access and share, keeping the position. On failure it is
  // opened with the old values again and the failure returned.
  ResultCode ChangeAccess(std::uint32_t access, DWORD share, DWORD flags) noexcept;

  std::int64_t GetPosition() const noexcept override;
  std::int64_t GetCapacity() const noexcept override;
  std::int64_t GetSize() const noexcept override;
  std::uint32_t GetAccess() const noexcept override;
  ResultCode Seek(int mode, std::int64_t offset) noexcept override;
  ResultCode Read(void* buffer, std::size_t count, std::size_t* done) noexcept override;
  ResultCode Write(const void* buffer, std::size_t count, std::size_t* done) noexcept override;
  ResultCode CopyFrom(Stream& source, int mode, std::int64_t offset, std::int64_t count,
                      std::int64_t* done) noexcept override;
  ResultCode SetSize(std::int64_t size) noexcept override;
  ResultCode Compact() noexcept override;
  ResultCode Flush() noexcept override;
  void* GetData() noexcept override { return nullptr; }
  bool IsOpen() const noexcept override;
  // Disk streams change access only through ChangeAccess: 0x82020009.
  ResultCode SetAccess(std::uint32_t bits) noexcept override;
  ResultCode Close() noexcept override;
  ResultCode ReleaseRecord() noexcept override;
  int GetStreamKind() const noexcept override { return kStreamKindDiskFile; }
  StreamPtr Clone(ResultCode* error) const noexcept override;
  bool IsSameFile(const Stream& other) const noexcept override;
  ResultCode GetFileIdentity(FileIdentity* result) const noexcept override;
  void ResetPosition() noexcept override { position_ = 0; }

  // ChangeAccess to read and write, and to read only, keeping the share mode.
  virtual ResultCode MakeWritable() noexcept;
  virtual ResultCode MakeReadOnly() noexcept;
  // Moves the file under the open stream to `newPath` and opens it there with FILE_SHARE_READ.
  // A path equal but for case is left alone. Sharing violations and denied access are retried
  // for about three seconds; on failure the file is opened at its old path again.
  virtual ResultCode Rename(std::u16string_view newPath) noexcept;
  // The record, made when there is none; null only when memory is out.
  virtual DiskFileRecord* GetRecord() noexcept;
  virtual ResultCode Commit() noexcept;

 private:
  // One transfer at the position, waiting if it pends. Returns 0 or the system error number.
  DWORD TransferPiece(bool write, void* buffer, DWORD count, DWORD* got) noexcept;

  DiskFileRecord* record_ = nullptr;
  std::int64_t position_ = 0;
  OVERLAPPED overlapped_{};
};

// The buffer of memory streams, shared by a stream and its clones. Growth > 0 rounds capacities up
// to multiples of it; -2 .. -4 grow by a half to a quarter of the capacity.
class MemoryRecord : public LayerObject {
 public:
  MemoryRecord() noexcept = default;
  MemoryRecord(const MemoryRecord&) = delete;
  MemoryRecord& operator=(const MemoryRecord&) = delete;
  virtual ~MemoryRecord();

  void AddRef() noexcept { references_.fetch_add(1, std::memory_order_relaxed); }
  void Release() noexcept;

  // Makes room for `size` bytes by the growth rule and sets Size; new bytes are zero when `zero`.
  ResultCode Resize(std::int64_t size, bool zero) noexcept;
  // Frees the buffer; the record stays usable.
  void FreeBuffer() noexcept;

  std::int64_t Capacity = 0;
  std::int64_t Size = 0;
  unsigned char* Buffer = nullptr;
  std::uint32_t Access = 0;
  std::int64_t Growth = 0;

 private:
  std::atomic<long> references_{1};
};

// A stream over a growing buffer.
class MemoryStream : public Stream {
 public:
  MemoryStream() noexcept = default;
  // A stream on an existing record, taking a reference of its own.
  explicit MemoryStream(MemoryRecord* record) noexcept;
  ~MemoryStream() override;

  // Starts an empty stream with room for `initialSize` bytes (4096, or `growth` when positive,
  // for 0). `growth` 0 means -2; below -4 means -4. Access is read and write.
  ResultCode Open(std::int64_t initialSize, std::int64_t growth) noexcept;
  [[nodiscard]] MemoryRecord* GetRecord() const noexcept { return record_; }

  std::int64_t GetPosition() const noexcept override { return position_; }
  std::int64_t GetCapacity() const noexcept override;
  std::int64_t GetSize() const noexcept override;
  std::uint32_t GetAccess() const noexcept override;
  ResultCode Seek(int mode, std::int64_t offset) noexcept override;
  ResultCode Read(void* buffer, std::size_t count, std::size_t* done) noexcept override;
  ResultCode Write(const void* buffer, std::size_t count, std::size_t* done) noexcept override;
  ResultCode CopyFrom(Stream& source, int mode, std::int64_t offset, std::int64_t count,
                      std::int64_t* done) noexcept override;
  // Grows by the record's growth rule; a negative size gives 0x82020001.
  ResultCode SetSize(std::int64_t size) noexcept override;
  // Shrinks the buffer to the size, at least 4 bytes.
  ResultCode Compact() noexcept override;
  ResultCode Flush() noexcept override;
  void* GetData() noexcept override;
  bool IsOpen() const noexcept override { return record_ != nullptr; }
  // Sets the read and write bits from the two low bits of `bits`.
  ResultCode SetAccess(std::uint32_t bits) noexcept override;
  ResultCode Close() noexcept override;
  ResultCode ReleaseRecord() noexcept override;
  int GetStreamKind() const noexcept override { return kStreamKindMemory; }
  StreamPtr Clone(ResultCode* error) const noexcept override;
  bool IsSameFile(const Stream& other) const noexcept override;
  ResultCode GetFileIdentity(FileIdentity* result) const noexcept override;
  void ResetPosition() noexcept override { position_ = 0; }

 protected:
  // A new stream of type T on this record at this position, for Clone of either memory kind.
  template <typename T>
  [[nodiscard]] StreamPtr CloneAs(ResultCode* error) const noexcept {
    if (record_ == nullptr) {
      if (error != nullptr) *error = kErrNotInitialized;
      return nullptr;
    }
    auto* clone = new (std::nothrow) T(record_);
    if (error != nullptr) *error = clone != nullptr ? kOk : kErrOutOfMemory;
    if (clone != nullptr) clone->position_ = position_;
    return StreamPtr(clone);
  }

  MemoryRecord* record_ = nullptr;
  std::int64_t position_ = 0;
};

// A memory stream attached to a record that another owner shares; it is told apart from a plain
// memory stream by its kind, so that readers do not take its buffer for their own.
class SharedMemoryStream : public MemoryStream {
 public:
  SharedMemoryStream() noexcept = default;
  explicit SharedMemoryStream(MemoryRecord* record) noexcept : MemoryStream(record) {}
  // Drops the present record and attaches to `record` (may be null).
  void Attach(MemoryRecord* record) noexcept;
  int GetStreamKind() const noexcept override { return kStreamKindSharedMemory; }
  StreamPtr Clone(ResultCode* error) const noexcept override;
};

// Creates an empty, uniquely named file in `folder` (the temporary folder when empty) whose name
// starts with the first three characters of `prefix`, padded when shorter, and puts its path in
// `result`. Returns 0 or the failure; `result` is empty on failure.
ResultCode MakeTempName(WideString& result, std::u16string_view prefix,
                        std::u16string_view folder) noexcept;

}  // namespace mrwl
