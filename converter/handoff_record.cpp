// The hand-off record, read strictly. It comes from another process and every count in it is
// checked against the bytes that remain before anything is allocated for it, so that a damaged or
// hostile record is refused with a message instead of making the converter allocate gigabytes.
#include "converter/handoff_record.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <iterator>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "foundation/wide_string.h"
#include "platform/files.h"
#include "platform/kernel.h"
#include "platform/unique_any.h"
#include "platform/win_types.h"
#include "settings/addin_settings.h"

namespace mrwl::converter {
namespace {

// The least a job takes: four Texts with a count each, AttachmentCount and three flags.
constexpr std::uint64_t kMinimumJobBytes = 4 * 4 + 4 + 3;
constexpr std::uint64_t kMinimumTextBytes = 4;

std::u16string Decimal(std::uint64_t value) {
  std::u16string digits;
  do {
    digits.insert(digits.begin(), static_cast<char16_t>(u'0' + value % 10));
    value /= 10;
  } while (value != 0);
  return digits;
}

bool IsHighSurrogate(char16_t unit) noexcept { return unit >= 0xD800 && unit <= 0xDBFF; }
bool IsLowSurrogate(char16_t unit) noexcept { return unit >= 0xDC00 && unit <= 0xDFFF; }

// The index of the first unit that is half of a surrogate pair without its other half, or npos.
std::size_t FindUnpairedSurrogate(std::u16string_view text) noexcept {
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (IsHighSurrogate(text[i])) {
      if (i + 1 < text.size() && IsLowSurrogate(text[i + 1])) {
        ++i;
        continue;
      }
      return i;
    }
    if (IsLowSurrogate(text[i])) return i;
  }
  return std::u16string_view::npos;
}

// Reads the fields of the record in order, each named for the message should it fail. The first
// failure wins: every later read answers false without looking.
class RecordReader {
 public:
  RecordReader(std::string_view bytes, std::u16string& error) noexcept
      : bytes_(bytes), error_(error) {}

  [[nodiscard]] std::size_t Position() const noexcept { return position_; }
  [[nodiscard]] std::size_t Remaining() const noexcept { return bytes_.size() - position_; }

  bool Fail(std::u16string message, std::size_t offset) {
    if (failed_) return false;
    failed_ = true;
    error_ = std::move(message) + u" (offset " + Decimal(offset) + u")";
    return false;
  }

  bool Raw(std::u16string_view what, std::size_t count, const char*& at) {
    if (failed_) return false;
    if (Remaining() < count) {
      return Fail(std::u16string(what) + u" runs past the end of the record", position_);
    }
    at = bytes_.data() + position_;
    position_ += count;
    return true;
  }

  bool U8(std::u16string_view what, std::uint8_t& value) {
    const char* at = nullptr;
    if (!Raw(what, 1, at)) return false;
    value = static_cast<std::uint8_t>(*at);
    return true;
  }

  bool U32(std::u16string_view what, std::uint32_t& value) {
    const char* at = nullptr;
    if (!Raw(what, 4, at)) return false;
    value = 0;
    for (int i = 3; i >= 0; --i) value = value << 8 | static_cast<unsigned char>(at[i]);
    return true;
  }

  bool U64(std::u16string_view what, std::uint64_t& value) {
    const char* at = nullptr;
    if (!Raw(what, 8, at)) return false;
    value = 0;
    for (int i = 7; i >= 0; --i) value = value << 8 | static_cast<unsigned char>(at[i]);
    return true;
  }

  bool F64(std::u16string_view what, double& value) {
    std::uint64_t bits = 0;
    if (!U64(what, bits)) return false;
    value = std::bit_cast<double>(bits);
    return true;
  }

  bool Flag(std::u16string_view what, bool& value) {
    const std::size_t at = position_;
    std::uint8_t byte = 0;
    if (!U8(what, byte)) return false;
    if (byte > 1) {
      return Fail(std::u16string(what) + u" must be 0 or 1 but is " + Decimal(byte), at);
    }
    value = byte == 1;
    return true;
  }

  // A u32 count of items that take at least `itemBytes` each, refused when the bytes that remain
  // could not hold them: the count is checked before anything is sized by it.
  bool Count(std::u16string_view what, std::uint64_t itemBytes, std::uint32_t& count) {
    const std::size_t at = position_;
    if (!U32(what, count)) return false;
    if (count * itemBytes > Remaining()) {
      return Fail(std::u16string(what) + u" of " + Decimal(count) + u" is more than the " +
                      Decimal(Remaining()) + u" bytes that remain could hold",
                  at);
    }
    return true;
  }

  // A u32 count of UTF-16LE units and the units, which must form valid UTF-16.
  bool Text(std::u16string_view what, std::u16string& text) {
    std::uint32_t units = 0;
    if (!U32(what, units)) return false;
    const std::size_t start = position_;
    if (std::uint64_t{units} * 2 > Remaining()) {
      return Fail(u"the text of " + std::u16string(what) + u" runs past the end of the record",
                  start);
    }
    text.resize(units);
    const char* at = bytes_.data() + position_;
    for (std::uint32_t i = 0; i < units; ++i) {
      text[i] = static_cast<char16_t>(static_cast<unsigned char>(at[2 * i]) |
                                      static_cast<unsigned char>(at[2 * i + 1]) << 8);
    }
    position_ += std::size_t{units} * 2;
    if (const std::size_t bad = FindUnpairedSurrogate(text); bad != std::u16string::npos) {
      return Fail(std::u16string(what) + u" holds an unpaired surrogate", start + 2 * bad);
    }
    return true;
  }

  // A u32 count of bytes of base64 text (line breaks allowed) that decodes to UTF-16LE units.
  bool CodedText(std::u16string_view what, std::u16string& text) {
    std::uint32_t count = 0;
    if (!U32(what, count)) return false;
    const std::size_t start = position_;
    if (count > Remaining()) {
      return Fail(
          u"the coded text of " + std::u16string(what) + u" runs past the end of the record",
          start);
    }
    const std::string_view coded = bytes_.substr(position_, count);
    position_ += count;
    WideString decoded;
    if (!DecodePassword(coded, decoded)) {
      return Fail(std::u16string(what) + u" does not decode to whole UTF-16 units", start);
    }
    text.assign(decoded.view());
    if (FindUnpairedSurrogate(text) != std::u16string::npos) {
      return Fail(std::u16string(what) + u" holds an unpaired surrogate", start);
    }
    return true;
  }

 private:
  std::string_view bytes_;
  std::size_t position_ = 0;
  std::u16string& error_;
  bool failed_ = false;
};

bool ReadSecurity(RecordReader& in, SecurityOptions& security) {
  return in.Flag(u"secHasUserPassword", security.hasUserPassword) &&
         in.Flag(u"secHasOwnerPassword", security.hasOwnerPassword) &&
         in.CodedText(u"secUserPassword", security.userPassword) &&
         in.CodedText(u"secOwnerPassword", security.ownerPassword) &&
         in.U32(u"secType", security.type) &&
         in.Flag(u"sec40AllowPrinting", security.allowPrinting40) &&
         in.Flag(u"sec40AllowChanging", security.allowChanging40) &&
         in.Flag(u"sec40AllowCopying", security.allowCopying40) &&
         in.Flag(u"sec40AllowComments", security.allowComments40) &&
         in.Flag(u"sec128ContentAccess", security.contentAccess) &&
         in.Flag(u"sec128AllowCopying", security.allowCopying) &&
         in.U32(u"sec128Changes", security.changes) &&
         in.U32(u"sec128Printing", security.printing) &&
         in.Flag(u"sec128EncryptMeta", security.encryptMetadata);
}

// The settings store keeps the terminator that the registry holds as part of these two strings;
// a path or a parameter line never ends in a NUL on purpose.
void DropTrailingNuls(std::u16string& text) {
  while (!text.empty() && text.back() == u'\0') text.pop_back();
}

bool ReadRunApp(RecordReader& in, RunAppOptions& runApp) {
  if (!in.Flag(u"RunCustPDFApp", runApp.custom) || !in.Text(u"RunPDFPath", runApp.path) ||
      !in.Text(u"RunPDFParams", runApp.parameters)) {
    return false;
  }
  DropTrailingNuls(runApp.path);
  DropTrailingNuls(runApp.parameters);
  return true;
}

bool ReadMailRecord(RecordReader& in, const std::u16string& job, MailRecord& record) {
  std::u16string reserved;
  return in.Text(job + u"FileName", record.fileName) &&
         in.Text(job + u"MailRecord.Reserved1", reserved) && in.Text(job + u"From", record.from) &&
         in.Text(job + u"To", record.to) && in.Text(job + u"Cc", record.cc) &&
         in.Text(job + u"Bcc", record.bcc) && in.Text(job + u"Subject", record.subject) &&
         in.Text(job + u"MailRecord.Reserved2", reserved) &&
         in.Text(job + u"Importance", record.importance) &&
         in.Text(job + u"Sensitivity", record.sensitivity) &&
         in.F64(job + u"ReceivedTime", record.receivedTime);
}

bool ReadJob(RecordReader& in, std::uint32_t number, ConversionJob& job) {
  const std::u16string prefix = u"job " + Decimal(number) + u"'s ";
  std::u16string reserved;
  std::uint32_t attachments = 0;
  if (!in.Text(prefix + u"PagePath", job.pagePath) || !in.Text(prefix + u"Reserved1", reserved) ||
      !in.Text(prefix + u"Reserved2", reserved) ||
      !in.Text(prefix + u"OutputPath", job.outputPath) ||
      !in.Count(prefix + u"AttachmentCount", kMinimumTextBytes, attachments)) {
    return false;
  }
  job.attachments.resize(attachments);
  for (std::uint32_t i = 0; i < attachments; ++i) {
    if (!in.Text(u"attachment " + Decimal(i + 1) + u" of job " + Decimal(number),
                 job.attachments[i])) {
      return false;
    }
  }
  bool recordPresent = false;
  if (!in.Flag(prefix + u"DeletePage", job.deletePage) ||
      !in.Flag(prefix + u"DeleteAttachments", job.deleteAttachments) ||
      !in.Flag(prefix + u"RecordPresent", recordPresent)) {
    return false;
  }
  if (!recordPresent) return true;
  job.record.emplace();
  return ReadMailRecord(in, prefix, *job.record);
}

bool ParseRecord(std::string_view bytes, HandoffRecord& record, std::u16string& error) {
  record = HandoffRecord{};
  RecordReader in(bytes, error);
  std::uint32_t totalSize = 0;
  if (bytes.size() < 4) {
    return in.Fail(
        u"the record has " + Decimal(bytes.size()) + u" bytes, too few to hold its TotalSize", 0);
  }
  (void)in.U32(u"TotalSize", totalSize);
  if (totalSize != bytes.size()) {
    return in.Fail(u"TotalSize says " + Decimal(totalSize) + u" bytes, but the record has " +
                       Decimal(bytes.size()),
                   0);
  }
  std::uint8_t version = 0;
  if (!in.U8(u"Version", version)) return false;
  if (version != kHandoffVersion) {
    return in.Fail(u"the record has version " + Decimal(version) +
                       u", but this converter reads only version " + Decimal(kHandoffVersion),
                   4);
  }

  bool present = false;
  if (!in.Flag(u"SecurityPresent", present)) return false;
  if (present && !ReadSecurity(in, record.security.emplace())) return false;
  if (!in.Flag(u"RunAppPresent", present)) return false;
  if (present && !ReadRunApp(in, record.runApp.emplace())) return false;

  // Nothing writes the reserved fields but zeros; they are read by the layout all the same, so
  // that a record that uses them still lines up.
  bool reserved1 = false;
  bool reserved2 = false;
  bool reserved3 = false;
  std::u16string reservedText;
  std::uint64_t reservedNumber = 0;
  if (!in.Flag(u"ReservedFlag1", reserved1) || !in.Flag(u"ReservedFlag2", reserved2)) return false;
  if ((reserved1 || reserved2) && !in.Text(u"ReservedText", reservedText)) return false;
  if (!in.Flag(u"ReservedFlag3", reserved3) || !in.U64(u"ReservedNumber", reservedNumber)) {
    return false;
  }

  if (!in.Flag(u"Portfolio", record.portfolio)) return false;
  if (record.portfolio && (!in.Text(u"PortfolioOutputPath", record.portfolioOutputPath) ||
                           !in.Text(u"PortfolioUser", record.portfolioUser) ||
                           !in.Text(u"PortfolioFolder", record.portfolioFolder))) {
    return false;
  }

  std::uint32_t jobCount = 0;
  if (!in.Count(u"JobCount", kMinimumJobBytes, jobCount)) return false;
  record.jobs.resize(jobCount);
  for (std::uint32_t i = 0; i < jobCount; ++i) {
    if (!ReadJob(in, i + 1, record.jobs[i])) return false;
  }
  if (in.Remaining() != 0) {
    const std::size_t left = in.Remaining();
    return in.Fail(Decimal(left) + (left == 1 ? u" byte is" : u" bytes are") +
                       u" left over after the last job",
                   in.Position());
  }
  return true;
}

// The system's words for `code`, without the line end that Windows puts behind them.
std::u16string SystemErrorText(DWORD code) {
  char16_t buffer[512] = {};
  DWORD length =
      platform::FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                               code, 0, buffer, static_cast<DWORD>(std::size(buffer)));
  while (length > 0 && (buffer[length - 1] == u'\r' || buffer[length - 1] == u'\n' ||
                        buffer[length - 1] == u'.')) {
    --length;
  }
  if (length == 0) return u"system error " + Decimal(code);
  return std::u16string(buffer, length) + u" (system error " + Decimal(code) + u")";
}

// Why a view could not be made. The system answers "access denied" for a view longer than the
// block, which would mislead: that case is said by the caller's own words alone.
std::u16string ViewProblem() {
  const DWORD code = platform::GetLastError();
  if (code == ERROR_ACCESS_DENIED) return {};
  return u": " + SystemErrorText(code);
}

struct HandleCloser {
  void operator()(HANDLE handle) const noexcept {
    if (handle != nullptr && handle != INVALID_HANDLE_VALUE) (void)platform::CloseHandle(handle);
  }
};

bool ReadFileBytes(const std::u16string& path, std::string& bytes, std::u16string& problem) {
  HANDLE file = platform::CreateFileW(path.c_str(), GENERIC_READ,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                      OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL);
  if (file == INVALID_HANDLE_VALUE) {
    const DWORD code = platform::GetLastError();
    problem = code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND
                  ? u"does not exist"
                  : u"cannot be opened: " + SystemErrorText(code);
    return false;
  }
  const std::unique_ptr<void, HandleCloser> owner(file);
  LARGE_INTEGER size{};
  if (!platform::GetFileSizeEx(file, &size)) {
    problem = u"cannot be measured: " + SystemErrorText(platform::GetLastError());
    return false;
  }
  // A record names its length in 32 bits; anything longer is not one, and is not read in.
  if (size.QuadPart < 0 || size.QuadPart > std::int64_t{UINT32_MAX}) {
    problem = u"is " + Decimal(static_cast<std::uint64_t>(size.QuadPart)) +
              u" bytes long, more than any hand-off record";
    return false;
  }
  bytes.resize(static_cast<std::size_t>(size.QuadPart));
  std::size_t done = 0;
  while (done < bytes.size()) {
    DWORD got = 0;
    const DWORD want = static_cast<DWORD>(std::min<std::size_t>(bytes.size() - done, 1u << 30));
    if (!platform::ReadFile(file, bytes.data() + done, want, &got, nullptr)) {
      problem = u"cannot be read: " + SystemErrorText(platform::GetLastError());
      return false;
    }
    if (got == 0) break;
    done += got;
  }
  if (done != bytes.size()) {
    problem = u"became shorter while it was read";
    return false;
  }
  return true;
}

}  // namespace

bool ParseHandoffRecord(std::string_view bytes, HandoffRecord& record, std::u16string& error) {
  try {
    error.clear();
    return ParseRecord(bytes, record, error);
  } catch (const std::bad_alloc&) {
    error = u"out of memory while reading the hand-off record";
    return false;
  }
}

bool ReadHandoffFile(std::u16string_view path, HandoffRecord& record, std::u16string& error) {
  try {
    error.clear();
    const std::u16string name(path);
    const std::u16string subject = u"the hand-off file \"" + name + u"\" ";
    std::string bytes;
    std::u16string problem;
    if (!ReadFileBytes(name, bytes, problem)) {
      error = subject + problem;
      return false;
    }
    if (!ParseRecord(bytes, record, problem)) {
      error = subject + u"is damaged: " + problem;
      return false;
    }
    return true;
  } catch (const std::bad_alloc&) {
    error = u"out of memory while reading the hand-off file \"" + std::u16string(path) + u"\"";
    return false;
  }
}

bool ReadHandoffMapping(std::u16string_view name, HandoffRecord& record, std::u16string& error) {
  try {
    error.clear();
    const std::u16string owned(name);
    const std::u16string subject = u"the shared hand-off record \"" + owned + u"\" ";
    HANDLE mapping = platform::OpenFileMappingW(FILE_MAP_READ, FALSE, owned.c_str());
    if (mapping == nullptr) {
      const DWORD code = platform::GetLastError();
      error =
          subject + (code == ERROR_FILE_NOT_FOUND ? u"does not exist"
                                                  : u"cannot be opened: " + SystemErrorText(code));
      return false;
    }
    const std::unique_ptr<void, HandleCloser> owner(mapping);

    // The length stands in the record's first four bytes; the view is then made exactly that
    // long, which the system refuses when the block is shorter than the record claims.
    std::uint32_t totalSize = 0;
    {
      const void* head = platform::MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, 4);
      if (head == nullptr) {
        error = subject + u"is too short to hold a record" + ViewProblem();
        return false;
      }
      const auto* at = static_cast<const unsigned char*>(head);
      totalSize = std::uint32_t{at[0]} | std::uint32_t{at[1]} << 8 | std::uint32_t{at[2]} << 16 |
                  std::uint32_t{at[3]} << 24;
      (void)platform::UnmapViewOfFile(head);
    }
    if (totalSize < 4) {
      error = subject + u"is damaged: TotalSize says " + Decimal(totalSize) +
              u" bytes, too few for a record (offset 0)";
      return false;
    }
    const void* view = platform::MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, totalSize);
    if (view == nullptr) {
      error = subject + u"is shorter than its TotalSize of " + Decimal(totalSize) + u" bytes" +
              ViewProblem();
      return false;
    }
    std::u16string problem;
    const bool parsed =
        ParseRecord(std::string_view(static_cast<const char*>(view), totalSize), record, problem);
    (void)platform::UnmapViewOfFile(view);
    if (!parsed) {
      error = subject + u"is damaged: " + problem;
      return false;
    }
    return true;
  } catch (const std::bad_alloc&) {
    error = u"out of memory while reading the shared hand-off record";
    return false;
  }
}

}  // namespace mrwl::converter
