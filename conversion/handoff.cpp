// The hand-off record that carries a conversion to the converter process, and its shared-memory
// carrier. The record is a contract with a program built apart from this one: its layout stays
// as it is, byte for byte, whatever else changes.
#include <bit>
#include <cstring>
#include <limits>
#include <new>
#include <string>

#include "conversion/conversion_store.h"
#include "platform/files.h"

namespace mrwl {
namespace {

// Writes the record's fields through one stream, remembering the first failure, so that the
// layout below reads as the table it follows and every write is still checked.
class RecordWriter {
 public:
  explicit RecordWriter(Stream& stream) noexcept : stream_(stream) {}

  [[nodiscard]] bool ok() const noexcept { return ok_; }

  void Bytes(const void* bytes, std::size_t count) noexcept {
    if (!ok_ || count == 0) return;
    std::size_t done = 0;
    ok_ = Succeeded(stream_.Write(bytes, count, &done)) && done == count;
  }
  void Flag(bool value) noexcept { U8(value ? 1 : 0); }
  void U8(std::uint8_t value) noexcept { Bytes(&value, 1); }
  void U32(std::uint32_t value) noexcept {
    const unsigned char bytes[4] = {
        static_cast<unsigned char>(value), static_cast<unsigned char>(value >> 8),
        static_cast<unsigned char>(value >> 16), static_cast<unsigned char>(value >> 24)};
    Bytes(bytes, sizeof bytes);
  }
  void U64(std::uint64_t value) noexcept {
    U32(static_cast<std::uint32_t>(value));
    U32(static_cast<std::uint32_t>(value >> 32));
  }
  // The time goes out as the double stands in memory on the converter's side: IEEE, little-endian.
  void F64(double value) noexcept { U64(std::bit_cast<std::uint64_t>(value)); }

  // A u32 count; one that doesn't fit fails the record.
  void Count(std::size_t count) noexcept {
    if (count > std::numeric_limits<std::uint32_t>::max()) ok_ = false;
    U32(static_cast<std::uint32_t>(count));
  }

  // A count of 16-bit units, then the units as UTF-16LE.
  void Text(std::u16string_view text) noexcept {
    Count(text.size());
    if constexpr (std::endian::native == std::endian::little) {
      Bytes(text.data(), text.size() * sizeof(char16_t));
    } else {
      for (char16_t unit : text) {
        const unsigned char bytes[2] = {static_cast<unsigned char>(unit),
                                        static_cast<unsigned char>(unit >> 8)};
        Bytes(bytes, sizeof bytes);
      }
    }
  }

  // A password as the settings store it (base64 of its UTF-16LE bytes), with a count of bytes.
  void CodedText(std::u16string_view text) noexcept {
    if (!ok_) return;
    std::string coded;
    try {
      EncodePassword(text, coded);
    } catch (const std::bad_alloc&) {
      ok_ = false;
      return;
    }
    Count(coded.size());
    Bytes(coded.data(), coded.size());
  }

 private:
  Stream& stream_;
  bool ok_ = true;
};

void WriteSecurity(RecordWriter& out, const SecuritySettings* security) noexcept {
  // Protection that is switched off travels as nothing at all, passwords included.
  const bool present = security != nullptr && security->secEnabled;
  out.Flag(present);
  if (!present) return;
  out.Flag(security->secHasUserPassword);
  out.Flag(security->secHasOwnerPassword);
  out.CodedText(security->secUserPassword);
  out.CodedText(security->secOwnerPassword);
  out.U32(security->secType);
  out.Flag(security->sec40AllowPrinting);
  out.Flag(security->sec40AllowChanging);
  out.Flag(security->sec40AllowCopying);
  out.Flag(security->sec40AllowComments);
  out.Flag(security->sec128ContentAccess);
  out.Flag(security->sec128AllowCopying);
  out.U32(security->sec128Changes);
  out.U32(security->sec128Printing);
  out.Flag(security->sec128EncryptMeta);
}

void WriteJob(RecordWriter& out, const ConversionJob& job) noexcept {
  out.Text(job.PagePath);
  out.Text(job.Reserved1);
  out.Text(job.Reserved2);
  out.Text(job.OutputPath);
  out.Count(job.Attachments.size());
  for (const WideString& path : job.Attachments) out.Text(path);
  out.Flag(job.DeletePage);
  out.Flag(job.DeleteAttachments);
  const MailRecord* record = job.Record.get();
  out.Flag(record != nullptr);
  if (record == nullptr) return;
  out.Text(record->FileName);
  out.Text(record->Reserved1);
  out.Text(record->From);
  out.Text(record->To);
  out.Text(record->Cc);
  out.Text(record->Bcc);
  out.Text(record->Subject);
  out.Text(record->Reserved2);
  out.Text(record->Importance);
  out.Text(record->Sensitivity);
  // The converter reads the time behind the texts, not where the record holds it.
  out.F64(record->ReceivedTime);
}

}  // namespace

bool ConversionStore::SerializeStore(Stream& stream) const noexcept {
  const std::int64_t start = stream.GetPosition();
  RecordWriter out(stream);
  out.U32(0);  // TotalSize, known only at the end
  out.U8(kHandoffVersion);
  WriteSecurity(out, Security.get());

  out.Flag(static_cast<bool>(RunApp));
  if (RunApp) {
    out.Flag(RunApp->RunCustPDFApp);
    out.Text(RunApp->RunPDFPath);
    out.Text(RunApp->RunPDFParams);
  }
  out.Flag(ReservedFlag1);
  out.Flag(ReservedFlag2);
  if (ReservedFlag1 || ReservedFlag2) out.Text(ReservedText);
  out.Flag(ReservedFlag3);
  out.U64(ReservedNumber);

  out.Flag(Portfolio);
  if (Portfolio) {
    out.Text(PortfolioOutputPath);
    out.Text(PortfolioUser);
    out.Text(PortfolioFolder);
  }
  out.Count(Jobs.size());
  for (const auto& job : Jobs) WriteJob(out, *job);
  if (!out.ok()) return false;

  const std::int64_t total = stream.GetSize() - start;
  if (total < 0 || total > std::int64_t{std::numeric_limits<std::uint32_t>::max()}) return false;
  const std::int64_t end = stream.GetPosition();
  if (Failed(stream.Seek(kSeekBegin, start))) return false;
  RecordWriter patch(stream);
  patch.U32(static_cast<std::uint32_t>(total));
  return patch.ok() && Succeeded(stream.Seek(kSeekBegin, end));
}

bool HandoffMapping::Publish(const void* bytes, std::size_t size) noexcept {
  Unpublish();
  // Only a whole record may be published: the converter trusts the size it finds in front.
  if (bytes == nullptr || size < 4) return false;
  const auto* data = static_cast<const unsigned char*>(bytes);
  const std::uint32_t totalSize = std::uint32_t{data[0]} | std::uint32_t{data[1]} << 8 |
                                  std::uint32_t{data[2]} << 16 | std::uint32_t{data[3]} << 24;
  if (totalSize != size) return false;

  SECURITY_ATTRIBUTES attributes{sizeof(SECURITY_ATTRIBUTES), nullptr, FALSE};
  const WideString name(kHandoffMappingName);
  Handle = platform::CreateFileMappingW(INVALID_HANDLE_VALUE, &attributes, PAGE_READWRITE, 0,
                                        static_cast<DWORD>(size), name.c_str());
  if (Handle == nullptr) return false;
  View = platform::MapViewOfFile(Handle, FILE_MAP_WRITE, 0, 0, size);
  if (View == nullptr) {
    (void)platform::CloseHandle(Handle);
    Handle = nullptr;
    return false;
  }
  std::memcpy(View, bytes, size);
  return true;
}

void HandoffMapping::Unpublish() noexcept {
  if (View != nullptr) (void)platform::UnmapViewOfFile(View);
  if (Handle != nullptr) (void)platform::CloseHandle(Handle);
  View = nullptr;
  Handle = nullptr;
}

bool ConversionStore::CreateHandoffMapping() noexcept {
  if (!Mapping) {
    Mapping.reset(new (std::nothrow) HandoffMapping);
    if (!Mapping) return false;
  }
  MemoryStream stream;
  if (Failed(stream.Open(0, 0)) || !SerializeStore(stream)) return false;
  return Mapping->Publish(stream.GetData(), static_cast<std::size_t>(stream.GetSize()));
}

void ConversionStore::GetHandoffMappingName(WideString& result) const noexcept {
  result.Clear();
  if (Mapping) (void)result.Assign(kHandoffMappingName);
}

}  // namespace mrwl
