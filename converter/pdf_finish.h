// The finishing steps on a rendered PDF with qpdf: links, PDF version, compression, security,
// embedded attachments; and the portfolio, a PDF collection of several mails.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "converter/handoff_record.h"

class QPDF;
class QPDFObjectHandle;

namespace mrwl::converter {

struct FinishOptions {
  bool keepLinks = true;               // \h: keep link annotations, otherwise remove them
  std::uint32_t pdfVersion = 0x10004;  // \is: 0x10003 to 0x10007; other values as 0x10007
  // \ic: 0 Low keeps the streams as they come, 1 Medium compresses the uncompressed ones, 2 High
  // also recompresses at the strongest level and packs objects into object streams (from 1.5).
  std::uint32_t compression = 1;
  // Null: no encryption. A level the version cannot carry raises the version, with a note.
  // Without a flagged owner password the file gets a random one, so the permissions still hold.
  const SecurityOptions* security = nullptr;
};

// A file to embed: its path on disk (UTF-8) and the name it carries in the PDF.
struct EmbeddedFile {
  std::string path;
  std::u16string name;
};

// Applies `options` to `pdf` (the renderer's bytes), embeds `attachments` as file attachments
// under their own names and writes the result to `outputPath` (UTF-8) through a temporary file in
// the same folder, renamed into place only when complete. Notes for the user (a raised PDF
// version, say) are appended to `notes`. False with `error` in plain words; the output path is
// then untouched.
bool FinishPdf(std::string_view pdf, const FinishOptions& options,
               const std::vector<EmbeddedFile>& attachments, const std::string& outputPath,
               std::vector<std::string>& notes, std::string& error);

// One mail of a portfolio: its finished-for-embedding PDF bytes, its metadata and attachments.
struct PortfolioEntry {
  std::string pdf;
  MailRecord record;
  std::vector<EmbeddedFile> attachments;
};

// The HTML of the portfolio's cover page: the folder, the user and a table of the mails (sender,
// subject, received time). Text is escaped; the page is UTF-8.
std::string PortfolioCoverHtml(std::u16string_view folder, std::u16string_view user,
                               const std::vector<PortfolioEntry>& entries);

// Builds the portfolio at `outputPath`: `coverPdf` as its pages, each entry's PDF embedded under
// its record's file name with its attachments beside it, and a collection schema (From, To, Cc,
// Bcc, Subject, Received, Importance, Sensitivity) sorted by Received. Written as FinishPdf
// writes. False with `error` in plain words.
bool BuildPortfolio(std::string_view coverPdf, const std::vector<PortfolioEntry>& entries,
                    const FinishOptions& options, const std::string& outputPath,
                    std::vector<std::string>& notes, std::string& error);

// The PDF date "D:YYYYMMDDHHmmSS" of an OLE date (days since 1899-12-30, local time, the time of
// day as the fraction, whose sign is ignored for dates before the epoch), rounded to the second.
// The result names no time zone, as the mail's local time has none attached.
std::string OleDateToPdfDate(double oleDate);

// The pieces FinishPdf and BuildPortfolio share; not for other callers.
namespace internal {

// Embeds each file of `files` into `pdf` under a name-tree key of its own (its name, or its name
// with " (2)", " (3)", ... when the key is taken), the file name itself unchanged. Returns the
// file entries in `fileEntries` (when not null) in the order of `files`, or false with `error`
// naming the file that could not be read. May throw qpdf's exceptions.
bool EmbedFiles(QPDF& pdf, const std::vector<EmbeddedFile>& files,
                std::vector<QPDFObjectHandle>* fileEntries, std::string& error);

// Writes `pdf` with the version, compression and security of `options` and puts the bytes at
// `outputPath` as WriteFileWhole does. Notes as FinishPdf. May throw qpdf's exceptions.
bool WritePdf(QPDF& pdf, const FinishOptions& options, const std::string& outputPath,
              std::vector<std::string>& notes, std::string& error);

// Writes `bytes` to a new file of a unique name in the folder of `outputPath` (UTF-8), created
// exclusively, and renames it over `outputPath` once it is complete and flushed. On failure the
// temporary file is deleted, `outputPath` is left as it was, and `error` says what failed.
bool WriteFileWhole(std::string_view bytes, const std::string& outputPath, std::string& error);

}  // namespace internal

}  // namespace mrwl::converter
