// The jobs of the conversion under way, and with them the portfolio data, as the hand-off to the
// converter carries them.
//
// ConversionStore lives in the add-in object and is cleared at the start of each conversion; a
// ConversionJob is the record of one exported item. After a good start of the converter the
// store keeps its entries until the next conversion starts: the files they name belong to the
// converter from then on. Main thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "conversion/item_wrapper.h"
#include "foundation/stream.h"
#include "foundation/wide_string.h"
#include "platform/win_types.h"
#include "settings/addin_settings.h"

namespace mrwl {

// One exported item, in the field order of the hand-off.
struct ConversionJob {
  WideString PagePath;  // the page that Outlook wrote
  WideString Reserved1;
  WideString Reserved2;
  WideString OutputPath;                // the PDF to produce
  std::vector<WideString> Attachments;  // paths of the saved attachments
  bool DeleteAttachments = false;       // the attachment files are temporary
  bool DeletePage = false;              // PagePath is a temporary file: SaveAs succeeded
  SharedRecord<MailRecord> Record;      // portfolio mode only
};

// The version byte that opens every hand-off record; the converter refuses other versions.
inline constexpr std::uint8_t kHandoffVersion = 12;
// The name of the shared-memory carrier. It is the same for every run, with no process or user in
// it: the converter knows no other.
inline constexpr std::u16string_view kHandoffMappingName = u"MRW:IEP:HTMLData";

// The shared-memory carrier of the hand-off: the mapped address and the file-mapping handle. The
// carrier in use is the hand-off file, so a holder is made only where the mapping carrier ran.
// The block stays published, for the converter to read, until the holder goes.
struct HandoffMapping {
  HandoffMapping() = default;
  HandoffMapping(const HandoffMapping&) = delete;
  HandoffMapping& operator=(const HandoffMapping&) = delete;
  ~HandoffMapping() { Unpublish(); }

  // Publishes `size` bytes of a whole hand-off record under kHandoffMappingName, first dropping
  // what was published before. False, with nothing published, unless `size` is at least 4 and
  // equal to the record's own TotalSize (its first u32), or when the system refuses the mapping.
  bool Publish(const void* bytes, std::size_t size) noexcept;
  // Unmaps the view and closes the handle, clearing both.
  void Unpublish() noexcept;

  void* View = nullptr;
  HANDLE Handle = nullptr;
};

// The jobs of a store, in order of export.
using JobList = std::vector<std::unique_ptr<ConversionJob>>;

struct ConversionStore {
  ConversionStore() = default;
  ConversionStore(const ConversionStore&) = delete;
  ConversionStore& operator=(const ConversionStore&) = delete;

  // Drops the mapping, releases Security and RunApp, sets every field to false, 0 or empty and
  // deletes all jobs with their records.
  void Clear() noexcept;

  // Appends a new, empty job and returns it, owned by the store; null when memory runs out.
  [[nodiscard]] ConversionJob* NewJob() noexcept;

  // Writes the hand-off record of the store into `stream` at its position, which should be 0:
  // little-endian, unaligned, version kHandoffVersion, the passwords coded as stored, TotalSize
  // patched in last. False at the first write that fails or comes up short, or when the record
  // would pass 4 GiB; the stream then holds part of a record.
  [[nodiscard]] bool SerializeStore(Stream& stream) const noexcept;

  // The shared-memory carrier: serialises the store and publishes it through Mapping, made when
  // the store has none. False when memory, the record or the mapping fails.
  [[nodiscard]] bool CreateHandoffMapping() noexcept;
  // Empties `result`, then gives it kHandoffMappingName if a mapping is held.
  void GetHandoffMappingName(WideString& result) const noexcept;

  JobList Jobs;  // in order of export
  SharedRecord<SecuritySettings> Security;
  SharedRecord<RunAppSettings> RunApp;
  bool ReservedFlag1 = false;
  bool ReservedFlag2 = false;
  WideString ReservedText;
  bool ReservedFlag3 = false;
  std::uint64_t ReservedNumber = 0;
  bool Portfolio = false;
  WideString PortfolioOutputPath;
  WideString PortfolioUser;
  WideString PortfolioFolder;
  std::unique_ptr<HandoffMapping> Mapping;
};

}  // namespace mrwl
