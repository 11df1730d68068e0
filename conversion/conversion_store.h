// The jobs of the conversion under way, and with them the portfolio data, as the hand-off to the
// converter carries them.
//
// ConversionStore lives in the add-in object and is cleared at the start of each conversion; a
// ConversionJob is the record of one exported item. After a good start of the converter the
// store keeps its entries until the next conversion starts: the files they name belong to the
// converter from then on. Main thread only.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "conversion/item_wrapper.h"
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

// The shared-memory carrier of the hand-off: the mapped address and the file-mapping handle. The
// carrier in use is the hand-off file, so a holder is made only where the mapping carrier ran.
struct HandoffMapping {
  HandoffMapping() = default;
  HandoffMapping(const HandoffMapping&) = delete;
  HandoffMapping& operator=(const HandoffMapping&) = delete;
  // Closes the handle; the view belongs to the code that mapped it and is gone by then.
  ~HandoffMapping();

  void* View = nullptr;
  HANDLE Handle = nullptr;
};

struct ConversionStore {
  ConversionStore() = default;
  ConversionStore(const ConversionStore&) = delete;
  ConversionStore& operator=(const ConversionStore&) = delete;

  // Drops the mapping, releases Security and RunApp, sets every field to false, 0 or empty and
  // deletes all jobs with their records.
  void Clear() noexcept;

  // Appends a new, empty job and returns it, owned by the store; null when memory runs out.
  [[nodiscard]] ConversionJob* NewJob() noexcept;

  std::vector<std::unique_ptr<ConversionJob>> Jobs;  // in order of export
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
