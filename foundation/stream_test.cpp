#include "foundation/stream.h"

#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <utility>
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
using std::chrono::milliseconds;
using Got = std::pair<ResultCode, std::string>;

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr std::uint32_t kReadWrite = kAccessRead | kAccessWrite;

std::string Pattern(std::size_t size, unsigned seed) {
  std::string text(size, '\0');
  std::mt19937 random(seed);
  for (char& c : text) c = static_cast<char>('a' + random() % 26);
  return text;
}

// The count starts as garbage so that a Read which leaves it unset shows.
Got ReadSome(Stream& stream, std::size_t count) {
  std::string text(count, '\0');
  std::size_t done = 99;
  const ResultCode result = stream.Read(text.data(), count, &done);
  text.resize(done);
  return {result, text};
}

ResultCode Put(Stream& stream, std::string_view text) {
  std::size_t done = 0;
  const ResultCode result = stream.Write(text.data(), text.size(), &done);
  if (Succeeded(result)) {
    EXPECT_EQ(done, text.size());
  }
  return result;
}

ResultCode OpenWith(MemoryStream& stream, std::string_view text) {
  const ResultCode result = stream.Open(0, 0);
  return Failed(result) ? result : Put(stream, text);
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

  testing::TempFolder temp_;
};

// --- Disk streams --------------------------------------------------------------------------------

TEST_F(StreamFilesTest, ReadAndSeekStayWithinTheFile) {
  temp_.Write("f", "0123456789");
  DiskFileStream stream;
  ASSERT_EQ(Open(stream, "f", OPEN_EXISTING, kAccessRead), kOk);
  EXPECT_EQ(stream.GetSize(), 10);
  EXPECT_EQ(ReadSome(stream, 4), Got(kOk, "0123"));
  EXPECT_EQ(ReadSome(stream, 10), Got(kOk, "456789"));
  EXPECT_EQ(ReadSome(stream, 10), Got(kErrEndOfData, ""));
  EXPECT_EQ(stream.GetPosition(), 10);
  EXPECT_EQ(ReadSome(stream, 0), Got(kOk, ""));

  char two[2];
  std::size_t done = 0;
  EXPECT_EQ(stream.ReadAt(two, 2, kSeekEnd, -3, &done), kOk);
  EXPECT_EQ(std::string(two, 2), "78");
  EXPECT_EQ(stream.GetPosition(), 10);

  struct Case {
    int mode;
    std::int64_t offset, position;
    ResultCode result;
  } cases[] = {
      {kSeekBegin, 0, 0, kOk},
      {kSeekBegin, 10, 10, kOk},
      {kSeekBegin, 11, 4, kErrInvalidSeekPos},
      {kSeekCurrent, -4, 0, kOk},
      {kSeekCurrent, -5, 4, kErrInvalidSeekPos},
      {kSeekEnd, -1, 9, kOk},
      {kSeekEnd, 1, 4, kErrInvalidSeekPos},
      {kSeekCurrent, INT64_MAX, 4, kErrInvalidSeekPos},  // would overflow the position
      {kSeekEnd, INT64_MIN, 4, kErrInvalidSeekPos},
      {3, 0, 4, kErrInvalidSeekMode},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << "mode " << c.mode << " offset " << c.offset);
    ASSERT_EQ(stream.Seek(kSeekBegin, 4), kOk);
    EXPECT_EQ(stream.Seek(c.mode, c.offset), c.result);
    EXPECT_EQ(stream.GetPosition(), c.position);
  }
}

TEST_F(StreamFilesTest, MisuseAndFailedOpensGiveTheirCodes) {
  temp_.Write("f", "abc");
  DiskFileStream stream;  // never opened
  ResultCode result = 0;
  EXPECT_EQ(ReadSome(stream, 1), Got(kErrNotInitialized, ""));
  EXPECT_EQ(Put(stream, "x"), kErrNotInitialized);
  EXPECT_EQ(stream.Seek(kSeekBegin, 0), kErrNotInitialized);
  EXPECT_EQ(stream.Flush(), kErrNotInitialized);
  EXPECT_EQ(stream.Compact(), kErrNotInitialized);
  EXPECT_EQ(stream.GetSize(), 0);
  EXPECT_EQ(stream.GetAccess(), 0u);
  EXPECT_EQ(stream.Close(), kOk);
  EXPECT_EQ(stream.Clone(&result), nullptr);
  EXPECT_EQ(result, kErrNotInitialized);

  EXPECT_EQ(Open(stream, "f", OPEN_EXISTING, 0), kErrInvalidAccessMode);
  EXPECT_FALSE(stream.IsOpen());
  EXPECT_EQ(Open(stream, "missing", OPEN_EXISTING), SystemErrorCode(ERROR_FILE_NOT_FOUND));
  EXPECT_FALSE(stream.IsOpen());
  EXPECT_EQ(Open(stream, "f", CREATE_NEW), SystemErrorCode(ERROR_FILE_EXISTS));
  EXPECT_FALSE(stream.IsOpen());
  ASSERT_EQ(Open(stream, "f", OPEN_EXISTING, kAccessRead), kOk);
  EXPECT_EQ(Put(stream, "x"), kErrInvalidAccessMode);
  EXPECT_EQ(stream.SetSize(1), kErrInvalidAccessMode);
  EXPECT_EQ(stream.SetAccess(kReadWrite), kErrUnsupportedOperation);
  EXPECT_EQ(stream.GetFileIdentity(nullptr), kErrInvalidArgument);
  stream.Close();
  EXPECT_EQ(temp_.Read("f"), "abc");  // a read-only close leaves the length alone
}

TEST_F(StreamFilesTest, ClosedFileHasExactlyTheLogicalSize) {
  DiskFileStream stream;
  ASSERT_EQ(Open(stream, "grown", CREATE_ALWAYS, kReadWrite, FILE_SHARE_READ | FILE_SHARE_WRITE),
            kOk);
  const std::string data = Pattern(1000, 1);
  ASSERT_EQ(Put(stream, data), kOk);
  ASSERT_EQ(stream.SetSize(1 << 20), kOk);
  EXPECT_EQ(fs::file_size(temp_.path() / "grown"), 1u << 20);
  ASSERT_EQ(stream.SetSize(1500), kOk);
  ASSERT_EQ(stream.Seek(kSeekEnd, 0), kOk);
  ASSERT_EQ(Put(stream, "tail"), kOk);
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
  EXPECT_EQ(temp_.Read("grown"), data + std::string(500, '\0') + "tail");
}

TEST_F(StreamFilesTest, ClonesShareTheRecordButNotThePosition) {
  DiskFileStream stream;
  ASSERT_EQ(Open(stream, "c", CREATE_ALWAYS), kOk);
  ASSERT_EQ(Put(stream, "hello world"), kOk);
  ResultCode error = -1;
  StreamPtr clone = stream.Clone(&error);
  ASSERT_NE(clone, nullptr);
  EXPECT_EQ(error, kOk);
  EXPECT_TRUE(clone->IsSameFile(stream));
  EXPECT_EQ(clone->GetStreamKind(), kStreamKindDiskFile);
  ASSERT_EQ(clone->Seek(kSeekBegin, 6), kOk);
  EXPECT_EQ(ReadSome(*clone, 5), Got(kOk, "world"));
  EXPECT_EQ(stream.GetPosition(), 11);
  ASSERT_EQ(Put(stream, "!"), kOk);
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
  ASSERT_EQ(Put(stream, "+"), kOk);
  ASSERT_EQ(stream.MakeReadOnly(), kOk);
  EXPECT_EQ(stream.GetPosition(), 8);
  EXPECT_EQ(Put(stream, "x"), kErrInvalidAccessMode);
  EXPECT_EQ(temp_.Read("a"), "content+");

  // A reader that does not share writing keeps the stream from becoming writable again.
  UniqueFile blocker = RawOpen("a", GENERIC_READ, FILE_SHARE_READ);
  ASSERT_TRUE(blocker);
  EXPECT_EQ(stream.MakeWritable(), SystemErrorCode(ERROR_SHARING_VIOLATION));
  EXPECT_TRUE(stream.IsOpen());
  EXPECT_EQ(stream.GetAccess(), kAccessRead);
  ASSERT_EQ(stream.Seek(kSeekBegin, 0), kOk);
  EXPECT_EQ(ReadSome(stream, 7), Got(kOk, "content"));
}

TEST_F(StreamFilesTest, CopyFromMovesDataBetweenKinds) {
  const std::string data = Pattern(10000, 7);
  MemoryStream memory;
  ASSERT_EQ(OpenWith(memory, data), kOk);
  DiskFileStream disk;
  ASSERT_EQ(Open(disk, "copy", CREATE_ALWAYS), kOk);
  std::int64_t done = 0;
  ASSERT_EQ(disk.CopyFrom(memory, kSeekBegin, 100, 20000, &done), kOk);
  EXPECT_EQ(done, 9900);
  EXPECT_EQ(disk.GetSize(), 9900);

  // A count of "everything" must grow the buffer only by what the source holds.
  MemoryStream back;
  ASSERT_EQ(back.Open(16, 0), kOk);
  ASSERT_EQ(Put(back, "<"), kOk);
  ASSERT_EQ(back.CopyFrom(disk, kSeekBegin, 0, INT64_MAX, &done), kOk);
  EXPECT_EQ(done, 9900);
  EXPECT_EQ(back.GetSize(), 9901);
  EXPECT_EQ(back.GetPosition(), 9901);
  EXPECT_EQ(std::memcmp(static_cast<char*>(back.GetData()) + 1, data.data() + 100, 9900), 0);
  EXPECT_EQ(back.CopyFrom(disk, kSeekBegin, 9901, 1, &done), kErrInvalidSeekPos);
  EXPECT_EQ(back.CopyFrom(disk, kSeekEnd, 0, 10, &done), kErrEndOfData);
  EXPECT_EQ(back.GetSize(), 9901);
}

TEST_F(StreamFilesTest, CompareOrdersByTheFirstDifferentByte) {
  const std::string base = Pattern(9000, 3);
  MemoryStream left;
  ASSERT_EQ(OpenWith(left, base), kOk);
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

// --- Rename --------------------------------------------------------------------------------------

TEST_F(StreamFilesTest, RenameMovesTheFileUnderTheOpenStream) {
  DiskFileStream stream;
  ASSERT_EQ(Open(stream, "old", CREATE_ALWAYS), kOk);
  ASSERT_EQ(Put(stream, "first"), kOk);
  ASSERT_EQ(stream.Rename(PathOf("new").view()), kOk);
  EXPECT_FALSE(temp_.Exists("old"));
  EXPECT_EQ(stream.GetRecord()->Path, PathOf("new"));
  EXPECT_EQ(stream.GetRecord()->Share, FILE_SHARE_READ);
  EXPECT_EQ(stream.GetPosition(), 5);
  // The same path in another case names the same file: nothing moves.
  ASSERT_EQ(stream.Rename(PathOf("NEW").view()), kOk);
  EXPECT_FALSE(temp_.Exists("NEW"));
  EXPECT_EQ(stream.GetRecord()->Path, PathOf("new"));
  ASSERT_EQ(Put(stream, "+second"), kOk);
  stream.Close();
  EXPECT_EQ(temp_.Read("new"), "first+second");
}

TEST_F(StreamFilesTest, RenameRetriesASharingViolationForAboutThreeSeconds) {
  DiskFileStream stream;
  ASSERT_EQ(Open(stream, "held", CREATE_ALWAYS), kOk);
  ASSERT_EQ(Put(stream, "data"), kOk);
  UniqueFile blocker = RawOpen("held", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE);
  ASSERT_TRUE(blocker);
  auto start = Clock::now();
  EXPECT_EQ(stream.Rename(PathOf("moved").view()), SystemErrorCode(ERROR_SHARING_VIOLATION));
  EXPECT_GE(Clock::now() - start, milliseconds(2500));
  EXPECT_TRUE(stream.IsOpen());  // reopened at the old path
  EXPECT_EQ(stream.GetRecord()->Path, PathOf("held"));
  EXPECT_FALSE(temp_.Exists("moved"));

  std::thread release([&blocker] {
    std::this_thread::sleep_for(milliseconds(600));
    blocker.reset();
  });
  start = Clock::now();
  const ResultCode result = stream.Rename(PathOf("moved").view());
  const auto waited = Clock::now() - start;
  release.join();
  EXPECT_EQ(result, kOk);
  EXPECT_GE(waited, milliseconds(500));
  EXPECT_LT(waited, milliseconds(2500));
  EXPECT_FALSE(temp_.Exists("held"));

  // Other failures are not retried.
  start = Clock::now();
  EXPECT_EQ(stream.Rename(PathOf("no/such/folder").view()), SystemErrorCode(ERROR_PATH_NOT_FOUND));
  EXPECT_LT(Clock::now() - start, milliseconds(400));
  ASSERT_EQ(stream.Seek(kSeekBegin, 0), kOk);
  EXPECT_EQ(ReadSome(stream, 4), Got(kOk, "data"));
  stream.Close();
  EXPECT_EQ(temp_.Read("moved"), "data");
}

// --- Network failures on read --------------------------------------------------------------------

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

TEST_F(StreamFilesTest, NetworkReadFailuresReopenOnlyForTheirFamilyAndNotTooOften) {
  (void)SetReadFileFunctionForTesting(&FaultyRead);
  const ScopeGuard restore([] {
    (void)SetReadFileFunctionForTesting(nullptr);
    (void)SetReopenFunction(nullptr);
  });
  const std::string data = Pattern(3000, 11);
  struct Case {
    const char* what;
    int failures;
    DWORD error;
    bool builtInReopen;  // the built-in opener checks size and time; else count reopens
    bool afterInterval;  // failures within 500 ms of the last open do not reopen
    std::int64_t from;
    std::uint32_t result;
    int reopens;
    bool pend = false;
    bool replace = false;
  } cases[] = {
      {"bad net path reopens", 1, ERROR_BAD_NETPATH, false, true, 1000, kOk, 1},
      {"unexpected net error reopens", 1, ERROR_UNEXP_NET_ERR, false, true, 1000, kOk, 1},
      {"second failure in one piece", 2, ERROR_UNEXP_NET_ERR, false, true, 0, 0xC2021001u, 1},
      {"soon after the open retries", 3, ERROR_UNEXP_NET_ERR, false, false, 0, kOk, 0},
      {"outside the network family", 1, ERROR_NETNAME_DELETED, false, true, 0,
       static_cast<std::uint32_t>(SystemErrorCode(ERROR_NETNAME_DELETED)), 0},
      {"no error number", 1, 0, false, false, 0, 0xC202000Fu, 0},
      {"pending transfer is waited for", 0, 0, false, false, 0, kOk, 0, true},
      {"built-in reopen of the same file", 1, ERROR_UNEXP_NET_ERR, true, true, 0, kOk, 0},
      {"built-in reopen of a replaced file", 1, ERROR_UNEXP_NET_ERR, true, true, 0, 0x8202001Eu, 0,
       false, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    temp_.Write("net", data);
    DiskFileStream stream;
    ASSERT_EQ(Open(stream, "net", OPEN_EXISTING, kAccessRead, kShareAll), kOk);
    (void)SetReopenFunction(c.builtInReopen ? nullptr : &CountingReopen);
    if (c.afterInterval) std::this_thread::sleep_for(milliseconds(550));
    gFault = Fault{c.failures, c.error, nullptr, c.pend};
    if (c.replace) {
      // Mixed data from two files would be worse than failing.
      gFault.atFailure = [this] {
        temp_.Write("replacement", Pattern(2000, 12));
        ASSERT_TRUE(platform::MoveFileExW(PathOf("replacement").c_str(), PathOf("net").c_str(),
                                          MOVEFILE_REPLACE_EXISTING));
      };
    }
    ASSERT_EQ(stream.Seek(kSeekBegin, c.from), kOk);
    const Got got = ReadSome(stream, 4000);
    EXPECT_EQ(static_cast<std::uint32_t>(got.first), c.result);
    EXPECT_EQ(got.second, c.result == kOk ? data.substr(c.from) : "");
    EXPECT_EQ(gFault.reopens, c.reopens);
    if (c.builtInReopen) {
      EXPECT_EQ(stream.IsOpen(), !c.replace);
    } else {
      EXPECT_EQ(stream.GetPosition(), c.from + static_cast<std::int64_t>(got.second.size()));
    }
    stream.ReleaseRecord();
  }
}

// --- Memory streams ------------------------------------------------------------------------------

TEST(MemoryStream, OpenGrowthAndAccessFollowTheirRules) {
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

  ASSERT_EQ(stream.SetAccess(kAccessRead | 0xF0), kOk);
  EXPECT_EQ(stream.GetAccess(), kAccessRead);
  EXPECT_EQ(Put(stream, "x"), kErrInvalidAccessMode);
  ASSERT_EQ(stream.SetAccess(kAccessWrite), kOk);
  ASSERT_EQ(Put(stream, "x"), kOk);
  ASSERT_EQ(stream.Seek(kSeekBegin, 0), kOk);
  EXPECT_EQ(ReadSome(stream, 1), Got(kErrInvalidAccessMode, ""));
  FileIdentity identity{7, 7};
  EXPECT_EQ(stream.GetFileIdentity(&identity), kOk);
  EXPECT_EQ(identity.FileId, 0u);
}

TEST(MemoryStream, SizeChangesZeroNewBytesAndCutThePosition) {
  MemoryStream stream;
  ASSERT_EQ(OpenWith(stream, "abcdef"), kOk);
  ASSERT_EQ(stream.SetSize(3), kOk);
  EXPECT_EQ(stream.GetPosition(), 3);
  ASSERT_EQ(stream.SetSize(8), kOk);
  EXPECT_EQ(std::string(static_cast<char*>(stream.GetData()), 8), std::string("abc\0\0\0\0\0", 8));
  ASSERT_EQ(stream.Seek(kSeekEnd, 0), kOk);
  EXPECT_EQ(ReadSome(stream, 4), Got(kErrEndOfData, ""));
  ASSERT_EQ(stream.Seek(kSeekBegin, 6), kOk);
  EXPECT_EQ(ReadSome(stream, 16), Got(kOk, std::string(2, '\0')));

  ASSERT_EQ(stream.Compact(), kOk);
  EXPECT_EQ(stream.GetCapacity(), 8);
  ASSERT_EQ(stream.SetSize(1), kOk);
  ASSERT_EQ(stream.Compact(), kOk);
  EXPECT_EQ(stream.GetCapacity(), 4);
  EXPECT_EQ(stream.Close(), kOk);
  EXPECT_EQ(stream.GetSize(), 0);
  EXPECT_EQ(stream.GetData(), nullptr);
  EXPECT_TRUE(stream.IsOpen());  // the record stays after Close
  ASSERT_EQ(Put(stream, "again"), kOk);
  EXPECT_EQ(stream.GetCapacity(), 8192);
}

TEST(MemoryStream, SharedStreamWorksThroughTheRecordItAttachesTo) {
  SharedMemoryStream shared;
  EXPECT_EQ(shared.GetStreamKind(), kStreamKindSharedMemory);
  EXPECT_EQ(Put(shared, "x"), kErrNotInitialized);
  EXPECT_EQ(shared.Seek(kSeekBegin, 0), kErrNotInitialized);
  EXPECT_EQ(shared.SetSize(1), kErrNotInitialized);
  EXPECT_EQ(shared.SetAccess(1), kErrNotInitialized);
  EXPECT_EQ(shared.GetSize(), 0);
  EXPECT_FALSE(shared.IsOpen());

  MemoryStream owner;
  ASSERT_EQ(OpenWith(owner, "shared"), kOk);
  shared.Attach(owner.GetRecord());
  EXPECT_TRUE(shared.IsSameFile(owner));
  EXPECT_TRUE(owner.IsSameFile(shared));
  ResultCode error = -1;
  StreamPtr clone = shared.Clone(&error);
  ASSERT_NE(clone, nullptr);
  EXPECT_EQ(clone->GetStreamKind(), kStreamKindSharedMemory);
  ASSERT_EQ(owner.ReleaseRecord(), kOk);  // the record lives on in the shared streams
  EXPECT_EQ(ReadSome(shared, 6), Got(kOk, "shared"));
  EXPECT_EQ(clone->GetPosition(), 0);
  ASSERT_EQ(clone->Seek(kSeekEnd, 0), kOk);
  ASSERT_EQ(Put(*clone, "!"), kOk);
  EXPECT_EQ(shared.GetSize(), 7);
}

TEST(MemoryStream, ClonesWorkOnOneBuffer) {
  MemoryStream a;
  ASSERT_EQ(OpenWith(a, "abcdefghijklmnop"), kOk);
  ResultCode error = -1;
  StreamPtr b = a.Clone(&error);
  ASSERT_NE(b, nullptr);
  // Copying from a clone reads the buffer it writes to: the ranges overlap.
  ASSERT_EQ(a.Seek(kSeekBegin, 4), kOk);
  std::int64_t copied = 0;
  ASSERT_EQ(a.CopyFrom(*b, kSeekBegin, 0, 12, &copied), kOk);
  EXPECT_EQ(copied, 12);
  EXPECT_EQ(std::string(static_cast<const char*>(a.GetData()), 16), "abcdabcdefghijkl");
  // Seeking the source would move the destination's own position.
  EXPECT_EQ(a.CopyFrom(a, kSeekBegin, 0, 1, &copied), kErrInvalidArgument);

  // The clone shrinks the record under a's position; the gap a leaves must read as zeros.
  ASSERT_EQ(b->SetSize(0), kOk);
  ASSERT_EQ(Put(a, "y"), kOk);
  ASSERT_EQ(a.GetSize(), 17);
  EXPECT_EQ(std::string(static_cast<const char*>(a.GetData()), 17), std::string(16, '\0') + "y");
}

// --- Temporary names -----------------------------------------------------------------------------

WideString gTempFolder;

bool OurFolder(WideString& result, TempFolderFunction) noexcept {
  result = gTempFolder;
  return true;
}

TEST_F(StreamFilesTest, TempNamesStartWithThreeCharactersOfThePrefix) {
  gTempFolder = Utf8ToWide(temp_.path().string() + "/");
  const TempFolderHook old = SetTempFolderHook(&OurFolder);
  const ScopeGuard restore([old] { (void)SetTempFolderHook(old); });
  fs::create_directory(temp_.path() / "explicit");
  struct Case {
    std::u16string_view prefix;
    const char* folder;
    std::u16string_view start;
  } cases[] = {
      {u"abcdef", "", u"abc"},
      {u"a", "", u"arw"},
      {u"", "", u"mrw"},
      {u"xyz", "explicit", u"xyz"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(WideToUtf8(c.prefix));
    const WideString folder = *c.folder ? PathOf(c.folder) : WideString();
    WideString name;
    ASSERT_EQ(MakeTempName(name, c.prefix, folder.view()), kOk);
    const fs::path path = WideToUtf8(name.view());
    EXPECT_EQ(path.parent_path(), *c.folder ? temp_.path() / c.folder : temp_.path());
    EXPECT_EQ(Utf8ToWide(path.filename().string()).view().substr(0, 3), c.start);
    EXPECT_EQ(path.extension(), ".tmp");
    EXPECT_TRUE(fs::is_regular_file(path));
  }
  WideString name = u"stale";
  EXPECT_EQ(MakeTempName(name, u"x", PathOf("missing").view()), SystemErrorCode(ERROR_DIRECTORY));
  EXPECT_TRUE(name.IsEmpty());
}

}  // namespace
}  // namespace mrwl
