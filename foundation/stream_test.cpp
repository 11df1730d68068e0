#include "foundation/stream.h"

#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/paths.h"
#include "platform/kernel.h"
#include "platform/unique_any.h"
#include "testing/temp_folder.h"

namespace mrwl {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr std::uint32_t kReadWrite = kAccessRead | kAccessWrite;

std::string Pattern(std::size_t size, unsigned seed) {
  std::string text(size, '\0');
  std::mt19937 random(seed);
  for (char& c : text) c = static_cast<char>('a' + random() % 26);
  return text;
}

class StreamFilesTest : public ::testing::Test {
 protected:
  WideString PathOf(const std::string& name) const { return Utf8ToWide(temp_.PathOf(name)); }
  ResultCode Open(DiskFileStream& stream, const std::string& name, DWORD disposition,
                  std::uint32_t access = kReadWrite, DWORD share = FILE_SHARE_READ) const {
    return stream.Open(PathOf(name), disposition, access, share, FILE_ATTRIBUTE_NORMAL);
  }
  UniqueFile RawOpen(const std::string& name, DWORD access, DWORD share) const {
    return UniqueFile(platform::CreateFileW(PathOf(name).c_str(), access, share, OPEN_EXISTING, 0));
  }
  static std::string ReadString(Stream& stream, std::size_t count, ResultCode* result) {
    std::string text(count, '\0');
    std::size_t done = 99;
    *result = stream.Read(text.data(), count, &done);
    text.resize(done);
    return text;
  }
  static ResultCode WriteString(Stream& stream, std::string_view text) {
    std::size_t done = 0;
    const ResultCode result = stream.Write(text.data(), text.size(), &done);
    EXPECT_EQ(done, Succeeded(result) ? text.size() : done);
    return result;
  }

  testing::TempFolder temp_;
};

// --- Reading, writing and sizes of disk streams ------------------------------------------------

TEST_F(StreamFilesTest, ReadStopsShortAcrossTheEndAndFailsAtIt) {
  temp_.Write("f", "0123456789");
  DiskFileStream stream;
  ASSERT_EQ(Open(stream, "f", OPEN_EXISTING, kAccessRead), kOk);
  EXPECT_EQ(stream.GetSize(), 10);
  ResultCode result = -1;
  EXPECT_EQ(ReadString(stream, 4, &result), "0123");
  EXPECT_EQ(result, kOk);
  EXPECT_EQ(ReadString(stream, 10, &result), "456789");
  EXPECT_EQ(result, kOk);
  EXPECT_EQ(ReadString(stream, 10, &result), "");
  EXPECT_EQ(result, kErrEndOfData);
  EXPECT_EQ(stream.GetPosition(), 10);
  EXPECT_EQ(ReadString(stream, 0, &result), "");
  EXPECT_EQ(result, kOk);

  char two[2];
  std::size_t done = 0;
  EXPECT_EQ(stream.ReadAt(two, 2, kSeekEnd, -3, &done), kOk);
  EXPECT_EQ(std::string(two, 2), "78");
  EXPECT_EQ(stream.GetPosition(), 10);
}

TEST_F(StreamFilesTest, AccessAndRecordRulesGiveTheirCodes) {
  temp_.Write("f", "abc");
  DiskFileStream none;
  EXPECT_EQ(Open(none, "f", OPEN_EXISTING, 0), kErrInvalidAccessMode);
  EXPECT_FALSE(none.IsOpen());

  DiskFileStream reader;
  ASSERT_EQ(Open(reader, "f", OPEN_EXISTING, kAccessRead), kOk);
  EXPECT_EQ(WriteString(reader, "x"), kErrInvalidAccessMode);
  EXPECT_EQ(reader.SetSize(1), kErrInvalidAccessMode);
  EXPECT_EQ(reader.SetAccess(kReadWrite), kErrUnsupportedOperation);
  reader.Close();
  EXPECT_EQ(temp_.Read("f"), "abc");  // a read-only close leaves the length alone

  DiskFileStream empty;
  ResultCode result = 0;
  EXPECT_EQ(ReadString(empty, 1, &result), "");
  EXPECT_EQ(result, kErrNotInitialized);
  EXPECT_EQ(WriteString(empty, "x"), kErrNotInitialized);
  EXPECT_EQ(empty.Seek(kSeekBegin, 0), kErrNotInitialized);
  EXPECT_EQ(empty.Flush(), kErrNotInitialized);
  EXPECT_EQ(empty.Compact(), kErrNotInitialized);
  EXPECT_EQ(empty.GetSize(), 0);
  EXPECT_EQ(empty.GetAccess(), 0u);
  EXPECT_EQ(empty.Close(), kOk);
  EXPECT_EQ(empty.Clone(&result), nullptr);
  EXPECT_EQ(result, kErrNotInitialized);
}

TEST_F(StreamFilesTest, OpenFailuresBecomeSystemCodesAndLeaveTheStreamClosed) {
  temp_.Write("exists", "");
  DiskFileStream stream;
  EXPECT_EQ(Open(stream, "missing", OPEN_EXISTING), SystemErrorCode(ERROR_FILE_NOT_FOUND));
  EXPECT_FALSE(stream.IsOpen());
  EXPECT_EQ(Open(stream, "exists", CREATE_NEW), SystemErrorCode(ERROR_FILE_EXISTS));
  EXPECT_FALSE(stream.IsOpen());
  EXPECT_EQ(static_cast<std::uint32_t>(SystemErrorCode(ERROR_FILE_EXISTS)), 0x83FF0050u);
  platform::SetLastError(0);
  EXPECT_EQ(static_cast<std::uint32_t>(LastErrorCode()), 0xC202000Fu);
}

TEST_F(StreamFilesTest, SeekChecksModeAndBounds) {
  temp_.Write("f", std::string(100, 'x'));
  DiskFileStream stream;
  ASSERT_EQ(Open(stream, "f", OPEN_EXISTING), kOk);
  ASSERT_EQ(stream.Seek(kSeekBegin, 40), kOk);
  struct Case {
    int mode;
    std::int64_t offset;
    ResultCode result;
    std::int64_t position;
  } cases[] = {
      {kSeekBegin, 0, kOk, 0},
      {kSeekBegin, 100, kOk, 100},
      {kSeekBegin, 101, kErrInvalidSeekPos, 40},
      {kSeekCurrent, -40, kOk, 0},
      {kSeekCurrent, -41, kErrInvalidSeekPos, 40},
      {kSeekEnd, -1, kOk, 99},
      {kSeekEnd, 1, kErrInvalidSeekPos, 40},
      {kSeekCurrent, INT64_MAX, kErrInvalidSeekPos, 40},  // would overflow the position
      {kSeekEnd, INT64_MIN, kErrInvalidSeekPos, 40},
      {3, 0, kErrInvalidSeekMode, 40},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << "mode " << c.mode << " offset " << c.offset);
    ASSERT_EQ(stream.Seek(kSeekBegin, 40), kOk);
    EXPECT_EQ(stream.Seek(c.mode, c.offset), c.result);
    EXPECT_EQ(stream.GetPosition(), c.position);
  }
}

TEST_F(StreamFilesTest, ClosedFileHasExactlyTheLogicalSize) {
  DiskFileStream stream;
  ASSERT_EQ(Open(stream, "grown", CREATE_ALWAYS, kReadWrite, FILE_SHARE_READ | FILE_SHARE_WRITE),
            kOk);
  const std::string data = Pattern(1000, 1);
  ASSERT_EQ(WriteString(stream, data), kOk);
  ASSERT_EQ(stream.SetSize(1 << 20), kOk);
  EXPECT_EQ(fs::file_size(temp_.path() / "grown"), 1u << 20);
  ASSERT_EQ(stream.SetSize(1500), kOk);
  ASSERT_EQ(stream.Seek(kSeekEnd, 0), kOk);
  ASSERT_EQ(WriteString(stream, "tail"), kOk);
  EXPECT_EQ(stream.GetSize(), 1504);
  {
    // Someone stretches the file behind the stream's back.
    UniqueFile other = RawOpen("grown", GENERIC_READ | GENERIC_WRITE, kShareAll);
    ASSERT_TRUE(other);
    LARGE_INTEGER far{};
    far.QuadPart = 100000;
    ASSERT_TRUE(platform::SetFilePointerEx(other.get(), far, nullptr, FILE_BEGIN));
    ASSERT_TRUE(platform::SetEndOfFile(other.get()));
  }
  EXPECT_EQ(stream.Close(), kOk);
  EXPECT_EQ(stream.GetPosition(), 0);
  const std::string contents = temp_.Read("grown");
  ASSERT_EQ(contents.size(), 1504u);
  EXPECT_EQ(contents.substr(0, 1000), data);
  EXPECT_EQ(contents.substr(1000, 500), std::string(500, '\0'));
  EXPECT_EQ(contents.substr(1500), "tail");
}

TEST_F(StreamFilesTest, ClonesShareTheRecordButNotThePosition) {
  DiskFileStream stream;
  ASSERT_EQ(Open(stream, "c", CREATE_ALWAYS), kOk);
  ASSERT_EQ(WriteString(stream, "hello world"), kOk);
  ResultCode error = -1;
  StreamPtr clone = stream.Clone(&error);
  ASSERT_NE(clone, nullptr);
  EXPECT_EQ(error, kOk);
  EXPECT_TRUE(clone->IsSameFile(stream));
  EXPECT_EQ(clone->GetStreamKind(), kStreamKindDiskFile);
  ASSERT_EQ(clone->Seek(kSeekBegin, 6), kOk);
  ResultCode result = -1;
  EXPECT_EQ(ReadString(*clone, 5, &result), "world");
  EXPECT_EQ(stream.GetPosition(), 11);
  ASSERT_EQ(WriteString(stream, "!"), kOk);
  EXPECT_EQ(clone->GetSize(), 12);  // the size lives in the shared record

  ASSERT_EQ(clone->ReleaseRecord(), kOk);
  ASSERT_EQ(stream.ReleaseRecord(), kOk);
  // The last release closed the file: an exclusive open now succeeds.
  EXPECT_TRUE(RawOpen("c", GENERIC_READ | GENERIC_WRITE, 0));
  // A second open of the same file is another record, though the identity is the same.
  DiskFileStream other;
  ASSERT_EQ(Open(stream, "c", OPEN_EXISTING, kAccessRead, kShareAll), kOk);
  ASSERT_EQ(Open(other, "c", OPEN_EXISTING, kAccessRead, kShareAll), kOk);
  EXPECT_FALSE(other.IsSameFile(stream));
  FileIdentity a, b;
  ASSERT_EQ(stream.GetFileIdentity(&a), kOk);
  ASSERT_EQ(other.GetFileIdentity(&b), kOk);
  EXPECT_EQ(a.VolumeSerial, b.VolumeSerial);
  EXPECT_EQ(a.FileId, b.FileId);
}

TEST_F(StreamFilesTest, ChangeAccessReopensAndFallsBackOnFailure) {
  temp_.Write("a", "content");
  DiskFileStream stream;
  ASSERT_EQ(Open(stream, "a", OPEN_EXISTING, kAccessRead, FILE_SHARE_READ), kOk);
  ASSERT_EQ(stream.MakeWritable(), kOk);
  EXPECT_EQ(stream.GetAccess(), kReadWrite);
  ASSERT_EQ(stream.Seek(kSeekEnd, 0), kOk);
  ASSERT_EQ(WriteString(stream, "+"), kOk);
  ASSERT_EQ(stream.MakeReadOnly(), kOk);
  EXPECT_EQ(stream.GetPosition(), 8);
  EXPECT_EQ(WriteString(stream, "x"), kErrInvalidAccessMode);
  EXPECT_EQ(temp_.Read("a"), "content+");

  // A reader that does not share writing keeps the stream from becoming writable again.
  UniqueFile blocker = RawOpen("a", GENERIC_READ, FILE_SHARE_READ);
  ASSERT_TRUE(blocker);
  EXPECT_EQ(stream.MakeWritable(), SystemErrorCode(ERROR_SHARING_VIOLATION));
  EXPECT_TRUE(stream.IsOpen());
  EXPECT_EQ(stream.GetAccess(), kAccessRead);
  ASSERT_EQ(stream.Seek(kSeekBegin, 0), kOk);
  ResultCode result = -1;
  EXPECT_EQ(ReadString(stream, 7, &result), "content");
}

TEST_F(StreamFilesTest, CopyFromMovesDataBetweenKinds) {
  const std::string data = Pattern(10000, 7);
  MemoryStream memory;
  ASSERT_EQ(memory.Open(0, 0), kOk);
  ASSERT_EQ(WriteString(memory, data), kOk);
  DiskFileStream disk;
  ASSERT_EQ(Open(disk, "copy", CREATE_ALWAYS), kOk);
  std::int64_t done = 0;
  ASSERT_EQ(disk.CopyFrom(memory, kSeekBegin, 100, 20000, &done), kOk);
  EXPECT_EQ(done, 9900);
  EXPECT_EQ(disk.GetSize(), 9900);

  MemoryStream back;
  ASSERT_EQ(back.Open(16, 0), kOk);
  ASSERT_EQ(WriteString(back, "<"), kOk);
  ASSERT_EQ(back.CopyFrom(disk, kSeekBegin, 0, 20000, &done), kOk);
  EXPECT_EQ(done, 9900);
  EXPECT_EQ(back.GetSize(), 9901);
  EXPECT_EQ(back.GetPosition(), 9901);
  EXPECT_EQ(std::memcmp(static_cast<char*>(back.GetData()) + 1, data.data() + 100, 9900), 0);
  EXPECT_EQ(back.CopyFrom(disk, kSeekBegin, 9901, 1, &done), kErrInvalidSeekPos);
  EXPECT_EQ(back.CopyFrom(disk, kSeekEnd, 0, 10, &done), kErrEndOfData);
  EXPECT_EQ(back.GetSize(), 9901);
}

TEST_F(StreamFilesTest, CompareOrdersByTheFirstDifferentByte) {
  std::string base = Pattern(9000, 3);
  MemoryStream left;
  ASSERT_EQ(left.Open(0, 0), kOk);
  ASSERT_EQ(WriteString(left, base), kOk);
  struct Case {
    const char* what;
    std::size_t at;  // where the right side differs; npos for nowhere
    char to;
    std::int64_t count;
    ResultCode expected;
  } cases[] = {
      {"equal", std::string::npos, 0, 9000, 1},
      {"less in the second piece", 5000, '~', 9000, 0},
      {"more", 10, '\x01', 9000, 2},
      {"difference beyond the count", 8000, '~', 8000, 1},
      {"short", std::string::npos, 0, 9001, kErrInternal},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::string changed = base;
    if (c.at != std::string::npos) changed[c.at] = c.to;
    temp_.Write("right", changed);
    DiskFileStream right;
    ASSERT_EQ(Open(right, "right", OPEN_EXISTING, kAccessRead), kOk);
    EXPECT_EQ(left.Compare(c.count, 0, right, 0), c.expected);
  }
  DiskFileStream shifted;
  temp_.Write("shifted", "xx" + base);
  ASSERT_EQ(Open(shifted, "shifted", OPEN_EXISTING, kAccessRead), kOk);
  EXPECT_EQ(left.Compare(9000, 0, shifted, 2), 1);
  EXPECT_EQ(shifted.Compare(100, 0, left, 0), 2);
}

// --- Rename -------------------------------------------------------------------------------------

TEST_F(StreamFilesTest, RenameMovesTheFileUnderTheOpenStream) {
  DiskFileStream stream;
  ASSERT_EQ(Open(stream, "old", CREATE_ALWAYS), kOk);
  ASSERT_EQ(WriteString(stream, "first"), kOk);
  ASSERT_EQ(stream.Rename(PathOf("new").view()), kOk);
  EXPECT_FALSE(temp_.Exists("old"));
  EXPECT_EQ(stream.GetRecord()->Path, PathOf("new"));
  EXPECT_EQ(stream.GetRecord()->Share, FILE_SHARE_READ);
  EXPECT_EQ(stream.GetPosition(), 5);
  ASSERT_EQ(WriteString(stream, "+second"), kOk);
  stream.Close();
  EXPECT_EQ(temp_.Read("new"), "first+second");
}

TEST_F(StreamFilesTest, RenameOntoTheSamePathInAnotherCaseDoesNothing) {
  DiskFileStream stream;
  ASSERT_EQ(Open(stream, "name", CREATE_ALWAYS), kOk);
  ASSERT_EQ(WriteString(stream, "x"), kOk);
  ASSERT_EQ(stream.Rename(PathOf("NAME").view()), kOk);
  EXPECT_TRUE(temp_.Exists("name"));
  EXPECT_FALSE(temp_.Exists("NAME"));
  EXPECT_EQ(stream.GetRecord()->Path, PathOf("name"));
  EXPECT_EQ(WriteString(stream, "y"), kOk);
}

TEST_F(StreamFilesTest, RenameRetriesWhileASharingViolationHolds) {
  DiskFileStream stream;
  ASSERT_EQ(Open(stream, "held", CREATE_ALWAYS, kReadWrite, FILE_SHARE_READ), kOk);
  ASSERT_EQ(WriteString(stream, "data"), kOk);
  UniqueFile blocker = RawOpen("held", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE);
  ASSERT_TRUE(blocker);
  std::thread release([&blocker] {
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    blocker.reset();
  });
  const auto start = Clock::now();
  const ResultCode result = stream.Rename(PathOf("moved").view());
  const auto waited = Clock::now() - start;
  release.join();
  EXPECT_EQ(result, kOk);
  EXPECT_GE(waited, std::chrono::milliseconds(500));
  EXPECT_LT(waited, std::chrono::milliseconds(2500));
  EXPECT_FALSE(temp_.Exists("held"));
  EXPECT_EQ(temp_.Read("moved"), "data");
}

TEST_F(StreamFilesTest, RenameGivesUpAfterSixTriesAndReopensTheOldPath) {
  DiskFileStream stream;
  ASSERT_EQ(Open(stream, "stuck", CREATE_ALWAYS), kOk);
  ASSERT_EQ(WriteString(stream, "data"), kOk);
  UniqueFile blocker = RawOpen("stuck", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE);
  ASSERT_TRUE(blocker);
  const auto start = Clock::now();
  EXPECT_EQ(stream.Rename(PathOf("moved").view()), SystemErrorCode(ERROR_SHARING_VIOLATION));
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(2500));
  EXPECT_TRUE(stream.IsOpen());
  EXPECT_EQ(stream.GetRecord()->Path, PathOf("stuck"));
  EXPECT_FALSE(temp_.Exists("moved"));

  // Other failures are not retried.
  blocker.reset();
  const auto again = Clock::now();
  EXPECT_EQ(stream.Rename(PathOf("no/such/folder").view()), SystemErrorCode(ERROR_PATH_NOT_FOUND));
  EXPECT_LT(Clock::now() - again, std::chrono::milliseconds(400));
  ASSERT_EQ(stream.Seek(kSeekBegin, 0), kOk);
  ResultCode result = -1;
  EXPECT_EQ(ReadString(stream, 4, &result), "data");
}

// --- Network failures on read ------------------------------------------------------------------

// What the injected read does: fail a number of times with an error, possibly running an action
// at the first failure, or let the transfer pend.
struct Fault {
  int failuresLeft = 0;
  DWORD error = ERROR_UNEXP_NET_ERR;
  std::function<void()> atFailure;
  bool pend = false;
  int reopens = 0;
};
Fault gFault;

BOOL FaultyRead(HANDLE file, void* buffer, DWORD count, DWORD* done, OVERLAPPED* overlapped) {
  if (gFault.failuresLeft > 0) {
    --gFault.failuresLeft;
    if (gFault.atFailure) std::exchange(gFault.atFailure, nullptr)();
    *done = 0;
    platform::SetLastError(gFault.error);
    return FALSE;
  }
  if (gFault.pend) {
    DWORD got = 0;
    if (!platform::ReadFile(file, buffer, count, &got, overlapped)) return FALSE;
    overlapped->InternalHigh = got;
    *done = 0;
    platform::SetLastError(ERROR_IO_PENDING);
    return FALSE;
  }
  return platform::ReadFile(file, buffer, count, done, overlapped);
}

ResultCode CountingReopen(const DiskFileRecord& record, HANDLE* handle) {
  ++gFault.reopens;
  *handle = platform::CreateFileW(
      record.Path.c_str(), GENERIC_READ | ((record.Access & kAccessWrite) ? GENERIC_WRITE : 0),
      record.Share, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL);
  return *handle != INVALID_HANDLE_VALUE ? kOk : LastErrorCode();
}

class NetworkFailureTest : public StreamFilesTest {
 protected:
  void SetUp() override {
    gFault = Fault{};
    (void)SetReadFileFunctionForTesting(&FaultyRead);
    (void)SetReopenFunction(&CountingReopen);
    data_ = Pattern(3000, 11);
    temp_.Write("net", data_);
    ASSERT_EQ(Open(stream_, "net", OPEN_EXISTING, kAccessRead, kShareAll), kOk);
  }
  void TearDown() override {
    (void)SetReadFileFunctionForTesting(nullptr);
    (void)SetReopenFunction(nullptr);
    stream_.ReleaseRecord();
  }
  // The reopen rule ignores failures within 500 ms of the last open.
  static void LetTheReopenIntervalPass() {
    std::this_thread::sleep_for(std::chrono::milliseconds(550));
  }
  std::string ReadAll(ResultCode* result) { return ReadString(stream_, 4000, result); }

  DiskFileStream stream_;
  std::string data_;
};

TEST_F(NetworkFailureTest, EachNetworkErrorReopensAndTheReadGoesOn) {
  for (DWORD error : {ERROR_BAD_NETPATH, ERROR_UNEXP_NET_ERR}) {
    SCOPED_TRACE(error);
    LetTheReopenIntervalPass();
    gFault.failuresLeft = 1;
    gFault.error = error;
    gFault.reopens = 0;
    ASSERT_EQ(stream_.Seek(kSeekBegin, 1000), kOk);
    ResultCode result = -1;
    EXPECT_EQ(ReadAll(&result), data_.substr(1000));
    EXPECT_EQ(result, kOk);
    EXPECT_EQ(gFault.reopens, 1);
  }
}

TEST_F(NetworkFailureTest, SecondFailureInOnePieceGivesUnexpectedRead) {
  LetTheReopenIntervalPass();
  gFault.failuresLeft = 2;
  ResultCode result = -1;
  EXPECT_EQ(ReadAll(&result), "");
  EXPECT_EQ(static_cast<std::uint32_t>(result), 0xC2021001u);
  EXPECT_EQ(gFault.reopens, 1);
  EXPECT_EQ(stream_.GetPosition(), 0);
}

TEST_F(NetworkFailureTest, FailureSoonAfterAReopenRetriesWithoutReopening) {
  gFault.failuresLeft = 3;
  ResultCode result = -1;
  EXPECT_EQ(ReadAll(&result), data_);
  EXPECT_EQ(result, kOk);
  EXPECT_EQ(gFault.reopens, 0);
}

TEST_F(NetworkFailureTest, OtherErrorsEndTheReadWithoutReopening) {
  LetTheReopenIntervalPass();
  gFault.failuresLeft = 1;
  gFault.error = ERROR_NETNAME_DELETED;  // 64: outside the family that reopens
  ResultCode result = -1;
  EXPECT_EQ(ReadAll(&result), "");
  EXPECT_EQ(result, SystemErrorCode(ERROR_NETNAME_DELETED));
  EXPECT_EQ(gFault.reopens, 0);
}

TEST_F(NetworkFailureTest, FailureWithoutAnErrorNumberIsAnInitialisationFailure) {
  gFault.failuresLeft = 1;
  gFault.error = 0;
  ResultCode result = -1;
  EXPECT_EQ(ReadAll(&result), "");
  EXPECT_EQ(static_cast<std::uint32_t>(result), 0xC202000Fu);
}

TEST_F(StreamFilesTest, ImpossibleTransfersAreRefusedBeforeTouchingMemory) {
  DiskFileStream disk;
  ASSERT_EQ(Open(disk, "bad", CREATE_ALWAYS), kOk);
  MemoryStream memory;
  ASSERT_EQ(memory.Open(0, 0), kOk);
  char byte = 'x';
  for (Stream* stream : {static_cast<Stream*>(&disk), static_cast<Stream*>(&memory)}) {
    SCOPED_TRACE(stream->GetStreamKind());
    std::size_t done = 7;
    ASSERT_EQ(stream->Write(&byte, 1, &done), kOk);
    EXPECT_EQ(stream->Write(nullptr, 10, &done), kErrInvalidArgument);
    EXPECT_EQ(done, 0u);
    EXPECT_EQ(stream->Write(&byte, SIZE_MAX, &done), kErrInvalidArgument);
    EXPECT_EQ(stream->Write(&byte, static_cast<std::size_t>(INT64_MAX), &done),
              kErrInvalidArgument);
    ASSERT_EQ(stream->Seek(kSeekBegin, 0), kOk);
    EXPECT_EQ(stream->Read(nullptr, 1, &done), kErrInvalidArgument);
    EXPECT_EQ(stream->GetSize(), 1);
    EXPECT_EQ(stream->GetPosition(), 0);
  }
  EXPECT_EQ(memory.SetSize(INT64_MAX), kErrOutOfMemory);
  EXPECT_EQ(memory.GetSize(), 1);
}

TEST_F(NetworkFailureTest, PendingTransfersAreWaitedFor) {
  gFault.pend = true;
  ResultCode result = -1;
  EXPECT_EQ(ReadAll(&result), data_);
  EXPECT_EQ(result, kOk);
}

TEST_F(NetworkFailureTest, ReplacedFileGivesFileChangedRatherThanMixedData) {
  (void)SetReopenFunction(nullptr);  // the built-in opener checks size and time
  LetTheReopenIntervalPass();
  gFault.failuresLeft = 1;
  gFault.atFailure = [this] {
    temp_.Write("replacement", Pattern(2000, 12));
    ASSERT_TRUE(platform::MoveFileExW(PathOf("replacement").c_str(), PathOf("net").c_str(),
                                      MOVEFILE_REPLACE_EXISTING));
  };
  ResultCode result = -1;
  EXPECT_EQ(ReadAll(&result), "");
  EXPECT_EQ(static_cast<std::uint32_t>(result), 0x8202001Eu);
  EXPECT_FALSE(stream_.IsOpen());
}

TEST_F(NetworkFailureTest, BuiltInReopenAcceptsTheUnchangedFile) {
  (void)SetReopenFunction(nullptr);
  LetTheReopenIntervalPass();
  gFault.failuresLeft = 1;
  ResultCode result = -1;
  EXPECT_EQ(ReadAll(&result), data_);
  EXPECT_EQ(result, kOk);
  EXPECT_TRUE(stream_.IsOpen());
}

// --- Memory streams ----------------------------------------------------------------------------

TEST(MemoryStream, OpenAndGrowthFollowTheGrowthRule) {
  struct Case {
    std::int64_t initial, growth;
    std::int64_t openCapacity;
    std::vector<std::pair<std::int64_t, std::int64_t>> sizeToCapacity;
  } cases[] = {
      {0, 0, 4096, {{100, 4096}, {5000, 8192}, {9000, 12288}, {12289, 18432}}},
      {0, -4, 4096, {{4097, 8192}, {8193, 10240}, {10241, 12800}}},
      {0, -9, 4096, {{4097, 8192}, {8193, 10240}}},  // below -4 counts as -4
      {10000, -2, 10000, {{10001, 15000}, {100000, 102400}}},
      {0, 1000, 1000, {{1001, 2000}, {2500, 3000}}},
      {1500, 1000, 2000, {{2001, 3000}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << "initial " << c.initial << " growth " << c.growth);
    MemoryStream stream;
    ASSERT_EQ(stream.Open(c.initial, c.growth), kOk);
    EXPECT_EQ(stream.GetCapacity(), c.openCapacity);
    EXPECT_EQ(stream.GetSize(), 0);
    EXPECT_EQ(stream.GetAccess(), kReadWrite);
    for (const auto& [size, capacity] : c.sizeToCapacity) {
      ASSERT_EQ(stream.SetSize(size), kOk);
      EXPECT_EQ(stream.GetCapacity(), capacity) << "size " << size;
    }
  }
  MemoryStream stream;
  EXPECT_EQ(stream.Open(-1, 0), kErrInvalidArgument);
  ASSERT_EQ(stream.Open(0, 0), kOk);
  EXPECT_EQ(stream.GetRecord()->Growth, -2);
  EXPECT_EQ(stream.SetSize(-1), kErrInvalidArgument);
}

TEST(MemoryStream, SizeChangesZeroNewBytesAndCutThePosition) {
  MemoryStream stream;
  ASSERT_EQ(stream.Open(0, 0), kOk);
  ASSERT_EQ(stream.Write("abcdef", 6, nullptr), kOk);
  ASSERT_EQ(stream.SetSize(3), kOk);
  EXPECT_EQ(stream.GetPosition(), 3);
  ASSERT_EQ(stream.SetSize(8), kOk);
  EXPECT_EQ(std::string(static_cast<char*>(stream.GetData()), 8), std::string("abc\0\0\0\0\0", 8));
  char buffer[16];
  std::size_t done = 9;
  ASSERT_EQ(stream.Seek(kSeekEnd, 0), kOk);
  EXPECT_EQ(stream.Read(buffer, 4, &done), kErrEndOfData);
  EXPECT_EQ(done, 0u);
  ASSERT_EQ(stream.Seek(kSeekBegin, 6), kOk);
  EXPECT_EQ(stream.Read(buffer, 16, &done), kOk);
  EXPECT_EQ(done, 2u);

  ASSERT_EQ(stream.Compact(), kOk);
  EXPECT_EQ(stream.GetCapacity(), 8);
  ASSERT_EQ(stream.SetSize(1), kOk);
  ASSERT_EQ(stream.Compact(), kOk);
  EXPECT_EQ(stream.GetCapacity(), 4);
  EXPECT_EQ(stream.Close(), kOk);
  EXPECT_EQ(stream.GetSize(), 0);
  EXPECT_EQ(stream.GetData(), nullptr);
  EXPECT_TRUE(stream.IsOpen());  // the record stays after Close
  ASSERT_EQ(stream.Write("again", 5, &done), kOk);
  EXPECT_EQ(stream.GetCapacity(), 8192);
}

TEST(MemoryStream, AccessBitsGovernReadAndWrite) {
  MemoryStream stream;
  ASSERT_EQ(stream.Open(0, 0), kOk);
  ASSERT_EQ(stream.SetAccess(kAccessRead | 0xF0), kOk);
  EXPECT_EQ(stream.GetAccess(), kAccessRead);
  std::size_t done = 0;
  EXPECT_EQ(stream.Write("x", 1, &done), kErrInvalidAccessMode);
  ASSERT_EQ(stream.SetAccess(kAccessWrite), kOk);
  ASSERT_EQ(stream.Write("x", 1, &done), kOk);
  char c;
  ASSERT_EQ(stream.Seek(kSeekBegin, 0), kOk);
  EXPECT_EQ(stream.Read(&c, 1, &done), kErrInvalidAccessMode);
  FileIdentity identity{7, 7};
  EXPECT_EQ(stream.GetFileIdentity(&identity), kOk);
  EXPECT_EQ(identity.FileId, 0u);
}

TEST(MemoryStream, SharedStreamWorksThroughTheRecordItAttachesTo) {
  SharedMemoryStream shared;
  EXPECT_EQ(shared.GetStreamKind(), kStreamKindSharedMemory);
  std::size_t done = 0;
  EXPECT_EQ(shared.Write("x", 1, &done), kErrNotInitialized);
  EXPECT_EQ(shared.Seek(kSeekBegin, 0), kErrNotInitialized);
  EXPECT_EQ(shared.SetSize(1), kErrNotInitialized);
  EXPECT_EQ(shared.SetAccess(1), kErrNotInitialized);
  EXPECT_EQ(shared.GetSize(), 0);
  EXPECT_FALSE(shared.IsOpen());

  MemoryStream owner;
  ASSERT_EQ(owner.Open(0, 0), kOk);
  ASSERT_EQ(owner.Write("shared", 6, &done), kOk);
  shared.Attach(owner.GetRecord());
  EXPECT_TRUE(shared.IsSameFile(owner));
  EXPECT_TRUE(owner.IsSameFile(shared));
  ResultCode error = -1;
  StreamPtr clone = shared.Clone(&error);
  ASSERT_NE(clone, nullptr);
  EXPECT_EQ(clone->GetStreamKind(), kStreamKindSharedMemory);
  ASSERT_EQ(owner.ReleaseRecord(), kOk);  // the record lives on in the shared streams
  char buffer[6];
  ASSERT_EQ(shared.Read(buffer, 6, &done), kOk);
  EXPECT_EQ(std::string(buffer, 6), "shared");
  EXPECT_EQ(clone->GetPosition(), 0);
  ASSERT_EQ(clone->Seek(kSeekEnd, 0), kOk);
  ASSERT_EQ(clone->Write("!", 1, &done), kOk);
  EXPECT_EQ(shared.GetSize(), 7);
}

TEST(MemoryStream, CopyFromAClonesOwnBufferMayOverlap) {
  MemoryStream a;
  ASSERT_EQ(a.Open(0, 0), kOk);
  std::size_t done = 0;
  ASSERT_EQ(a.Write("abcdefghijklmnop", 16, &done), kOk);
  ResultCode error = -1;
  StreamPtr b = a.Clone(&error);
  ASSERT_NE(b, nullptr);
  ASSERT_EQ(a.Seek(kSeekBegin, 4), kOk);
  std::int64_t copied = 0;
  ASSERT_EQ(a.CopyFrom(*b, kSeekBegin, 0, 12, &copied), kOk);
  EXPECT_EQ(copied, 12);
  EXPECT_EQ(std::string(static_cast<const char*>(a.GetData()), 16), "abcdabcdefghijkl");
  // Seeking the source would move the destination's own position.
  EXPECT_EQ(a.CopyFrom(a, kSeekBegin, 0, 1, &copied), kErrInvalidArgument);
}

TEST(MemoryStream, CopyFromTakesOnlyWhatTheSourceHolds) {
  MemoryStream source, target;
  ASSERT_EQ(source.Open(0, 0), kOk);
  ASSERT_EQ(target.Open(0, 0), kOk);
  std::size_t done = 0;
  ASSERT_EQ(source.Write("abc", 3, &done), kOk);
  std::int64_t copied = 0;
  ASSERT_EQ(target.CopyFrom(source, kSeekBegin, 0, INT64_MAX, &copied), kOk);
  EXPECT_EQ(copied, 3);
  EXPECT_EQ(target.GetSize(), 3);
  EXPECT_EQ(target.CopyFrom(source, kSeekEnd, 0, 5, &copied), kErrEndOfData);
  EXPECT_EQ(target.GetSize(), 3);
}

TEST(MemoryStream, WriteBeyondASizeAClonesCloseDroppedReadsZeros) {
  MemoryStream a;
  ASSERT_EQ(a.Open(0, 0), kOk);
  std::size_t done = 0;
  ASSERT_EQ(a.Write(std::string(100, 'x').data(), 100, &done), kOk);
  ResultCode error = -1;
  StreamPtr b = a.Clone(&error);
  ASSERT_NE(b, nullptr);
  ASSERT_EQ(b->SetSize(0), kOk);  // the shared record shrinks under a's position
  ASSERT_EQ(a.Write("y", 1, &done), kOk);
  ASSERT_EQ(a.GetSize(), 101);
  const std::string data(static_cast<const char*>(a.GetData()), 101);
  EXPECT_EQ(data, std::string(100, '\0') + "y");
}

TEST_F(StreamFilesTest, FileIdentityWithoutAResultIsAnInvalidArgument) {
  DiskFileStream stream;
  ASSERT_EQ(Open(stream, "id", CREATE_ALWAYS), kOk);
  EXPECT_EQ(stream.GetFileIdentity(nullptr), kErrInvalidArgument);
}

// --- Temporary names ---------------------------------------------------------------------------

class TempNameTest : public StreamFilesTest {
 protected:
  static bool OurFolder(WideString& result, TempFolderFunction) noexcept {
    result = folder_;
    return true;
  }
  static inline WideString folder_;
};

TEST_F(TempNameTest, NamesStartWithThreeCharactersOfThePrefix) {
  folder_ = Utf8ToWide(temp_.path().string() + "/");
  const TempFolderHook old = SetTempFolderHook(&OurFolder);
  struct Case {
    std::u16string_view prefix;
    std::u16string_view folder;
    std::u16string_view start;
  } cases[] = {
      {u"abcdef", u"", u"abc"},
      {u"a", u"", u"arw"},
      {u"", u"", u"mrw"},
      {u"xyz", u"explicit", u"xyz"},
  };
  fs::create_directory(temp_.path() / "explicit");
  for (const Case& c : cases) {
    SCOPED_TRACE(WideToUtf8(c.prefix));
    WideString folder;
    if (!c.folder.empty()) folder = PathOf(WideToUtf8(c.folder));
    WideString name;
    ASSERT_EQ(MakeTempName(name, c.prefix, folder.view()), kOk);
    const fs::path path = WideToUtf8(name.view());
    EXPECT_EQ(path.parent_path(), c.folder.empty() ? temp_.path() : temp_.path() / "explicit");
    EXPECT_EQ(Utf8ToWide(path.filename().string()).view().substr(0, 3), c.start);
    EXPECT_EQ(path.extension(), ".tmp");
    EXPECT_TRUE(fs::is_regular_file(path));
  }
  WideString name = u"stale";
  EXPECT_EQ(MakeTempName(name, u"x", PathOf("missing").view()), SystemErrorCode(ERROR_DIRECTORY));
  EXPECT_TRUE(name.IsEmpty());
  (void)SetTempFolderHook(old);
}

}  // namespace
}  // namespace mrwl
