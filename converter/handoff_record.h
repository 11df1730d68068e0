// What the add-in hands to the converter: the options of its command line and the hand-off
// record with the jobs, the security, the application to run afterwards and, for a portfolio,
// each mail's metadata.
//
// The record comes from another process and is read strictly: a count that runs past the bytes
// that remain, a TotalSize that is not the length, a text that is not valid UTF-16, an unknown
// version or bytes left over all refuse the whole record, and the refusal names the problem.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace mrwl::converter {

// The options of the command line. Numbers are as the add-in wrote them: geometry in tenths of a
// point, PdfVersion as 0x10000 plus the minor version.
struct ConverterOptions {
  std::u16string inputName;  // the two leading names; the add-in leaves both empty
  std::u16string outputName;
  bool landscape = false;              // \l
  bool backgrounds = false;            // \b
  bool links = false;                  // \h
  bool runAfterwards = false;          // \r
  bool hiOption = false;               // \hi
  std::uint32_t pageWidthPx = 1280;    // \iw
  std::uint32_t pageHeightPx = 800;    // \ih
  std::uint32_t loadDelayMs = 500;     // \ld
  std::uint32_t pdfVersion = 0x10004;  // \is
  std::uint32_t compression = 1;       // \ic: 0 Low, 1 Medium, 2 High
  std::uint32_t paperWidth = 5953;     // \pw, tenths of a point
  std::uint32_t paperHeight = 8419;    // \ph
  std::uint32_t marginTop = 0;         // \mt
  std::uint32_t marginBottom = 0;      // \mb
  std::uint32_t marginLeft = 0;        // \ml
  std::uint32_t marginRight = 0;       // \mr
  std::u16string handoffPath;          // \bp
  std::u16string mappingName;          // \sm
  std::u16string ceOption;             // \ce
};

// Parses the converter's arguments (argv without the program name, as UTF-16). False with
// `error` set for an unknown option, a missing or non-numeric value, or neither \bp nor \sm.
bool ParseConverterArguments(const std::vector<std::u16string>& arguments,
                             ConverterOptions& options, std::u16string& error);

struct SecurityOptions {
  bool hasUserPassword = false;
  bool hasOwnerPassword = false;
  std::u16string userPassword;  // decoded from the coded text
  std::u16string ownerPassword;
  std::uint32_t type = 0;  // 0 RC4 40, 1 RC4 128, 2 AES 128, 3 AES 256 (Acrobat 9), 4 AES 256 (X)
  bool allowPrinting40 = false;
  bool allowChanging40 = false;
  bool allowCopying40 = false;
  bool allowComments40 = false;
  bool contentAccess = false;
  bool allowCopying = false;
  std::uint32_t changes = 0;   // 0 to 4
  std::uint32_t printing = 0;  // 0 to 2
  bool encryptMetadata = true;
};

struct RunAppOptions {
  bool custom = false;  // false: the desktop's default application for PDF files
  std::u16string path;
  std::u16string parameters;  // "%f" stands for the PDF
};

struct MailRecord {
  std::u16string fileName;  // the name of the mail's PDF inside a portfolio
  std::u16string from, to, cc, bcc, subject;
  std::u16string importance, sensitivity;
  double receivedTime = 0.0;  // OLE date, local time
};

struct ConversionJob {
  std::u16string pagePath;
  std::u16string outputPath;
  std::vector<std::u16string> attachments;
  bool deletePage = false;
  bool deleteAttachments = false;
  std::optional<MailRecord> record;
};

struct HandoffRecord {
  std::optional<SecurityOptions> security;  // present only when protection is on
  std::optional<RunAppOptions> runApp;
  bool portfolio = false;
  std::u16string portfolioOutputPath;
  std::u16string portfolioUser;
  std::u16string portfolioFolder;
  std::vector<ConversionJob> jobs;
};

inline constexpr std::uint8_t kHandoffVersion = 12;

// Reads a whole record from `bytes`. False with `error` naming the problem (and the byte offset
// where it lies) when any check fails; `record` is then unspecified.
bool ParseHandoffRecord(std::string_view bytes, HandoffRecord& record, std::u16string& error);

// Reads the record from the file the add-in wrote (\bp) or from the named shared-memory object
// (\sm). False with `error` naming the carrier and the problem.
bool ReadHandoffFile(std::u16string_view path, HandoffRecord& record, std::u16string& error);
bool ReadHandoffMapping(std::u16string_view name, HandoffRecord& record, std::u16string& error);

}  // namespace mrwl::converter
