// The settings subsystem: the per-user conversion settings, the converter's option string and,
// later, the page models of the options dialog and the save dialog.
//
// AddinSettings is the one record of per-user settings. It lives as plain values in one key below
// HKEY_CURRENT_USER, read with LoadSettings when a conversion starts or the options dialog opens,
// and written with SaveSettings when that dialog is left with OK. Its two sub-records,
// SecuritySettings and RunAppSettings, are shared with the hand-off of a conversion through an
// intrusive, atomically counted reference.
//
// Threading: a record is used on one thread (Outlook's main thread); only the reference counts of
// the sub-records may be touched from others.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "foundation/wide_string.h"

namespace mrwl {

// The key of the add-in's settings below HKEY_CURRENT_USER.
inline constexpr std::u16string_view kAddinSettingsKeyPath =
    u"Software\\Brindlemoor\\Marrowline 6\\Outlook Addin";

// A reference to a record with an intrusive count: AddRef and Release of the record itself.
template <typename T>
class SharedRecord {
 public:
  SharedRecord() noexcept = default;
  // Takes over one reference that the caller holds.
  static SharedRecord Adopt(T* record) noexcept {
    SharedRecord r;
    r.record_ = record;
    return r;
  }
  SharedRecord(const SharedRecord& other) noexcept : record_(other.record_) {
    if (record_ != nullptr) record_->AddRef();
  }
  SharedRecord(SharedRecord&& other) noexcept : record_(std::exchange(other.record_, nullptr)) {}
  SharedRecord& operator=(SharedRecord other) noexcept {
    std::swap(record_, other.record_);
    return *this;
  }
  ~SharedRecord() {
    if (record_ != nullptr) record_->Release();
  }
  [[nodiscard]] T* get() const noexcept { return record_; }
  T* operator->() const noexcept { return record_; }
  T& operator*() const noexcept { return *record_; }
  explicit operator bool() const noexcept { return record_ != nullptr; }

 private:
  T* record_ = nullptr;
};

// Base of the counted sub-records: created with one reference, destroyed by the last Release.
template <typename T>
class CountedRecord {
 public:
  CountedRecord(const CountedRecord&) = delete;
  CountedRecord& operator=(const CountedRecord&) = delete;

  // Makes a record with its defaults, holding one reference.
  [[nodiscard]] static SharedRecord<T> Create() { return SharedRecord<T>::Adopt(new T()); }

  std::uint32_t AddRef() const noexcept {
    return refs_.fetch_add(1, std::memory_order_relaxed) + 1;
  }
  std::uint32_t Release() const noexcept {
    const std::uint32_t left = refs_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left == 0) delete static_cast<const T*>(this);
    return left;
  }

 protected:
  CountedRecord() noexcept = default;
  ~CountedRecord() = default;

 private:
  mutable std::atomic<std::uint32_t> refs_{1};
};

// PDF protection: whether it is on, the passwords and the permissions by encryption level.
struct SecuritySettings : CountedRecord<SecuritySettings> {
  bool secEnabled = false;
  bool secHasUserPassword = false;
  bool secHasOwnerPassword = false;
  WideString secUserPassword;
  WideString secOwnerPassword;
  // 0 40-bit RC4, 1 128-bit RC4, 2 128-bit AES, 3 256-bit AES (Acrobat 9), 4 256-bit AES
  // (Acrobat X).
  std::uint32_t secType = 0;
  bool sec40AllowPrinting = false;
  bool sec40AllowChanging = false;
  bool sec40AllowCopying = false;
  bool sec40AllowComments = false;
  bool sec128ContentAccess = false;
  bool sec128AllowCopying = false;
  std::uint32_t sec128Changes = 0;   // 0 to 4
  std::uint32_t sec128Printing = 0;  // 0 to 2
  bool sec128EncryptMeta = true;

 private:
  friend class CountedRecord<SecuritySettings>;
  SecuritySettings() = default;
  ~SecuritySettings() = default;
};

// Which application opens the finished PDF.
struct RunAppSettings : CountedRecord<RunAppSettings> {
  bool RunCustPDFApp = false;  // false: the default application for PDF files
  WideString RunPDFPath;
  WideString RunPDFParams{u"%f"};  // "%f" stands for the file

 private:
  friend class CountedRecord<RunAppSettings>;
  RunAppSettings() = default;
  ~RunAppSettings() = default;
};

// The per-user conversion settings. Field names are those of the registry values where one is
// stored; geometry is in points.
class AddinSettings {
 public:
  // Builds the record for the key `keyPath` below HKEY_CURRENT_USER, with every default.
  explicit AddinSettings(std::u16string_view keyPath = kAddinSettingsKeyPath);
  AddinSettings(const AddinSettings&) = delete;
  AddinSettings& operator=(const AddinSettings&) = delete;
  ~AddinSettings() = default;

  // Puts every default back, in place: the sub-records stay the same objects, the passwords,
  // RunPDFPath and the three option strings are emptied; SettingsKeyPath stays.
  void ResetSettings();

  // Reads the key over the record. A key that cannot be opened leaves the record as it is; a
  // value that is missing or of the wrong type leaves its field as it is. Values of the earlier
  // tenths-of-a-point geometry are taken over and deleted from the key. Never creates the key.
  // Throws the generic failure code (0x80004005, as an HRESULT value) only if a sub-record is
  // missing, which the constructor rules out.
  void LoadSettings();

  // Writes the record to the key, creating it if need be. A key that cannot be created writes
  // nothing; failures of single values are not reported.
  void SaveSettings();

  // Fills `result` with the converter's option string for `inputName` and `outputName`.
  void BuildConverterCommandLine(std::u16string_view inputName, std::u16string_view outputName,
                                 WideString& result) const;

  // Deletes the hand-off file, if one is named, and forgets its name.
  void ClearHandoffFile();

  bool RunPDFApp = true;
  bool GenerateLinks = true;
  std::uint32_t PDFSpecification = 0x00010004;  // 0x10000 plus the PDF minor version
  std::uint32_t CompressionLevel = 1;           // 0 "Low", 1 "Medium", 2 "High"
  // The spelling is that of the registry value and stays so.
  bool LandscapeOrienatation = false;
  bool UseWebPageCopy = true;
  bool ConvertAttachments = true;
  bool HiOption = false;
  bool UseWebPageBackgroundColor = true;
  std::uint32_t PaperSize = 11;  // index into the paper size table; 11 is "A4"
  std::uint32_t WebPageTargetWidth = 1280;
  std::uint32_t WebPageTargetHeight = 800;
  std::uint32_t Units = 0;  // 0 "points", 1 "inches", 2 "mm"
  std::uint32_t LoadDelay = 500;
  double PageWidth = 595.3;
  double PageHeight = 841.9;
  double MarginTop = 0.0;
  double MarginBottom = 0.0;
  double MarginLeft = 0.0;
  double MarginRight = 0.0;
  SharedRecord<SecuritySettings> Security;
  SharedRecord<RunAppSettings> RunApp;
  WideString HandoffMappingName;
  WideString HandoffFilePath;
  WideString CeOption;
  WideString SettingsKeyPath;
};

// The password text as stored: base64 of the UTF-16LE code units, CR LF after every 76
// characters, no terminator. `out` receives single-byte characters.
void EncodePassword(std::u16string_view password, std::string& out);
// The password from its stored bytes. Returns false, leaving `out` empty, when the decoded byte
// count is odd.
bool DecodePassword(std::string_view stored, WideString& out);

}  // namespace mrwl
