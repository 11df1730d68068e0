// FinishPdf and the writing that FinishPdf and BuildPortfolio share.
#include "converter/pdf_finish.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

// qpdf's own smart pointers only, not its deprecated PointerHolder.
#define POINTERHOLDER_TRANSITION 4
#include <qpdf/Buffer.hh>
#include <qpdf/Pl_Flate.hh>
#include <qpdf/QPDF.hh>
#include <qpdf/QPDFEFStreamObjectHelper.hh>
#include <qpdf/QPDFEmbeddedFileDocumentHelper.hh>
#include <qpdf/QPDFFileSpecObjectHelper.hh>
#include <qpdf/QPDFObjectHandle.hh>
#include <qpdf/QPDFPageDocumentHelper.hh>
#include <qpdf/QPDFPageObjectHelper.hh>
#include <qpdf/QPDFWriter.hh>
#include <qpdf/QUtil.hh>

#include "platform/files.h"
#include "platform/kernel.h"
#include "platform/utf.h"
#include "platform/win_types.h"

namespace mrwl::converter {
namespace {

constexpr std::uint32_t kLowCompression = 0;
constexpr std::uint32_t kHighCompression = 2;

// What each encryption level needs of the file: the lowest minor version of PDF 1.x and the
// extension level that marks the 256-bit forms.
struct EncryptionNeeds {
  int minor;
  int extensionLevel;
  const char* label;
};

constexpr EncryptionNeeds kEncryptionNeeds[] = {
    {3, 0, "40-bit RC4"},  {4, 0, "128-bit RC4"}, {6, 0, "128-bit AES"},
    {7, 3, "256-bit AES"}, {7, 8, "256-bit AES"},
};

// The system's words for `code`, without the line end Windows puts after them.
std::string SystemErrorText(DWORD code) {
  char16_t buffer[512] = {};
  const DWORD length =
      platform::FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                               code, 0, buffer, static_cast<DWORD>(std::size(buffer)));
  std::u16string text(buffer, length);
  while (!text.empty() && (text.back() == u'\r' || text.back() == u'\n' || text.back() == u'.')) {
    text.pop_back();
  }
  if (text.empty()) return "system error " + std::to_string(code);
  return platform::Utf16ToUtf8(text);
}

std::string ReadWholeFile(const std::string& path, bool& ok) {
  ok = false;
  std::FILE* file = platform::OpenStdioFile(platform::Utf8ToUtf16(path).c_str(), "rb");
  if (file == nullptr) return SystemErrorText(platform::GetLastError());
  std::string bytes;
  char chunk[65536];
  for (;;) {
    const std::size_t got = std::fread(chunk, 1, sizeof chunk, file);
    bytes.append(chunk, got);
    if (got < sizeof chunk) break;
  }
  const bool failed = std::ferror(file) != 0;
  std::fclose(file);
  if (failed) return "the file could not be read to its end";
  ok = true;
  return bytes;
}

// A MIME type for the few kinds of attachment a viewer can do something useful with; others go
// without one, which the format allows.
std::string MimeTypeOf(std::u16string_view name) {
  const std::size_t dot = name.rfind(u'.');
  if (dot == std::u16string_view::npos) return {};
  std::string extension = platform::Utf16ToUtf8(name.substr(dot + 1));
  for (char& c : extension) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  static constexpr struct {
    const char* extension;
    const char* type;
  } kTypes[] = {
      {"pdf", "application/pdf"}, {"txt", "text/plain"},      {"htm", "text/html"},
      {"html", "text/html"},      {"csv", "text/csv"},        {"xml", "application/xml"},
      {"png", "image/png"},       {"jpg", "image/jpeg"},      {"jpeg", "image/jpeg"},
      {"gif", "image/gif"},       {"zip", "application/zip"}, {"eml", "message/rfc822"},
  };
  for (const auto& entry : kTypes) {
    if (extension == entry.extension) return entry.type;
  }
  return {};
}

// Chromium turns every anchor into a /Link annotation; without \h they all go, and an /Annots
// left empty goes with them.
void RemoveLinks(QPDF& pdf) {
  for (QPDFPageObjectHelper& page : QPDFPageDocumentHelper(pdf).getAllPages()) {
    QPDFObjectHandle pageObject = page.getObjectHandle();
    QPDFObjectHandle annotations = pageObject.getKey("/Annots");
    if (!annotations.isArray()) continue;
    std::vector<QPDFObjectHandle> kept;
    for (QPDFObjectHandle& annotation : annotations.getArrayAsVector()) {
      if (annotation.isDictionary() && annotation.getKey("/Subtype").isNameAndEquals("/Link")) {
        continue;
      }
      kept.push_back(annotation);
    }
    if (kept.empty()) {
      pageObject.removeKey("/Annots");
    } else {
      pageObject.replaceKey("/Annots", QPDFObjectHandle::newArray(kept));
    }
  }
}

// An owner password nobody knows. Without one the permissions would be void: the empty owner
// password would open the file with every right.
std::string RandomOwnerPassword() {
  std::random_device random;
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string password;
  for (int i = 0; i < 32; ++i) password += kDigits[random() % 16];
  return password;
}

// Passwords of the RC4 and 128-bit AES levels are PDFDocEncoding bytes, those of the 256-bit
// levels UTF-8. A character PDFDocEncoding lacks would make a password nobody can type again, so
// it refuses the job instead.
bool EncodePassword(const std::u16string& password, bool utf8, std::string& encoded) {
  const std::string text = platform::Utf16ToUtf8(password);
  if (utf8) {
    encoded = text;
    return true;
  }
  return QUtil::utf8_to_pdf_doc(text, encoded, '?');
}

bool ApplySecurity(QPDFWriter& writer, const SecurityOptions& security, std::string& error) {
  const bool utf8 = security.type >= 3;
  std::string user;
  std::string owner;
  if (security.hasUserPassword && !EncodePassword(security.userPassword, utf8, user)) {
    error = "The open password holds characters that this encryption level cannot use";
    return false;
  }
  if (security.hasOwnerPassword) {
    if (!EncodePassword(security.ownerPassword, utf8, owner)) {
      error = "The permissions password holds characters that this encryption level cannot use";
      return false;
    }
  } else {
    owner = RandomOwnerPassword();
  }

  if (security.type == 0) {
    writer.setR2EncryptionParametersInsecure(user.c_str(), owner.c_str(), security.allowPrinting40,
                                             security.allowChanging40, security.allowCopying40,
                                             security.allowComments40);
    return true;
  }

  // The five rows of "Changes Allowed", each granting what the row before it grants and more.
  const std::uint32_t changes = security.changes > 4 ? 4 : security.changes;
  const bool assemble = changes >= 1;
  const bool formFilling = changes >= 2;
  const bool annotateAndForm = changes >= 3;
  const bool modifyOther = changes >= 4;
  qpdf_r3_print_e print = qpdf_r3p_none;
  if (security.printing == 1) print = qpdf_r3p_low;
  if (security.printing >= 2) print = qpdf_r3p_full;

  switch (security.type) {
    case 1:
      writer.setR3EncryptionParametersInsecure(user.c_str(), owner.c_str(), security.contentAccess,
                                               security.allowCopying, assemble, annotateAndForm,
                                               formFilling, modifyOther, print);
      return true;
    case 2:
      writer.setR4EncryptionParametersInsecure(
          user.c_str(), owner.c_str(), security.contentAccess, security.allowCopying, assemble,
          annotateAndForm, formFilling, modifyOther, print, security.encryptMetadata, true);
      return true;
    case 3:
      writer.setR5EncryptionParameters(user.c_str(), owner.c_str(), security.contentAccess,
                                       security.allowCopying, assemble, annotateAndForm,
                                       formFilling, modifyOther, print, security.encryptMetadata);
      return true;
    case 4:
      writer.setR6EncryptionParameters(user.c_str(), owner.c_str(), security.contentAccess,
                                       security.allowCopying, assemble, annotateAndForm,
                                       formFilling, modifyOther, print, security.encryptMetadata);
      return true;
    default:
      error = "The document security names an unknown encryption level (" +
              std::to_string(security.type) + ")";
      return false;
  }
}

std::u16string FolderOf(const std::u16string& path) {
  const std::size_t slash = path.find_last_of(u"/\\");
  return slash == std::u16string::npos ? std::u16string() : path.substr(0, slash + 1);
}

std::u16string HexOf(std::uint64_t value) {
  static constexpr char16_t kDigits[] = u"0123456789abcdef";
  std::u16string text;
  for (int shift = 60; shift >= 0; shift -= 4) text += kDigits[(value >> shift) & 0xF];
  return text;
}

}  // namespace

std::string OleDateToPdfDate(double oleDate) {
  if (!std::isfinite(oleDate) || oleDate > 2958465.0 || oleDate < -657434.0) oleDate = 0.0;
  // Before the epoch the whole part counts back while the fraction still counts forward.
  const double whole = std::trunc(oleDate);
  std::int64_t days = static_cast<std::int64_t>(whole);
  std::int64_t seconds = std::llround(std::fabs(oleDate - whole) * 86400.0);
  if (seconds >= 86400) {
    seconds -= 86400;
    ++days;
  }
  // Days since 1899-12-30 to a civil date (H. Hinnant's days_from_civil, inverted).
  const std::int64_t z = days - 25569 + 719468;  // 1899-12-30 is 25569 days before 1970-01-01
  const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const std::int64_t dayOfEra = z - era * 146097;
  const std::int64_t yearOfEra =
      (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const std::int64_t monthIndex = (5 * dayOfYear + 2) / 153;
  const std::int64_t day = dayOfYear - (153 * monthIndex + 2) / 5 + 1;
  const std::int64_t month = monthIndex < 10 ? monthIndex + 3 : monthIndex - 9;
  const std::int64_t year = yearOfEra + era * 400 + (month <= 2 ? 1 : 0);
  char text[32];
  std::snprintf(text, sizeof text, "D:%04d%02d%02d%02d%02d%02d", static_cast<int>(year),
                static_cast<int>(month), static_cast<int>(day), static_cast<int>(seconds / 3600),
                static_cast<int>(seconds / 60 % 60), static_cast<int>(seconds % 60));
  return text;
}

namespace internal {

bool EmbedFiles(QPDF& pdf, const std::vector<EmbeddedFile>& files,
                std::vector<QPDFObjectHandle>* fileEntries, std::string& error) {
  QPDFEmbeddedFileDocumentHelper embedded(pdf);
  for (const EmbeddedFile& file : files) {
    bool ok = false;
    std::string bytes = ReadWholeFile(file.path, ok);
    const std::string name = platform::Utf16ToUtf8(file.name);
    if (!ok) {
      error = "The attachment \"" + name + "\" (" + file.path + ") could not be read: " + bytes;
      return false;
    }
    QPDFEFStreamObjectHelper stream = QPDFEFStreamObjectHelper::createEFStream(pdf, bytes);
    const std::string mimeType = MimeTypeOf(file.name);
    if (!mimeType.empty()) stream.setSubtype(mimeType);
    QPDFFileSpecObjectHelper fileEntry =
        QPDFFileSpecObjectHelper::createFileSpec(pdf, name, stream);
    // The name-tree key only has to be unique; the name the reader sees stays in /UF and /F.
    std::string key = name;
    for (int n = 2; embedded.getEmbeddedFile(key) != nullptr; ++n) {
      key = name + " (" + std::to_string(n) + ")";
    }
    embedded.replaceEmbeddedFile(key, fileEntry);
    if (fileEntries != nullptr) fileEntries->push_back(fileEntry.getObjectHandle());
  }
  return true;
}

bool WritePdf(QPDF& pdf, const FinishOptions& options, const std::string& outputPath,
              std::vector<std::string>& notes, std::string& error) {
  const int requested = options.pdfVersion >= 0x10003 && options.pdfVersion <= 0x10007
                            ? static_cast<int>(options.pdfVersion - 0x10000)
                            : 7;
  int minor = requested;
  int extensionLevel = 0;

  QPDFWriter writer(pdf);
  writer.setOutputMemory();
  if (options.security != nullptr) {
    if (!ApplySecurity(writer, *options.security, error)) return false;
    // qpdf drops the encryption without a word when the forced version is too low for it.
    const EncryptionNeeds& needs = kEncryptionNeeds[options.security->type];
    if (needs.minor > minor) {
      minor = needs.minor;
      notes.push_back("PDF version raised to 1." + std::to_string(minor) + " for " + needs.label +
                      " encryption");
    }
    if (minor == needs.minor) extensionLevel = needs.extensionLevel;
  }
  writer.forcePDFVersion("1." + std::to_string(minor), extensionLevel);

  // Low spends no effort: streams stay as the renderer wrote them, compressed or not. Medium
  // compresses what is not, keeping existing Flate data; High also recompresses that at the
  // strongest level and packs objects into object streams, which need PDF 1.5.
  const std::uint32_t compression =
      options.compression > kHighCompression ? kHighCompression : options.compression;
  if (compression == kLowCompression) {
    writer.setCompressStreams(false);
    writer.setDecodeLevel(qpdf_dl_none);
  } else {
    writer.setCompressStreams(true);
    writer.setDecodeLevel(qpdf_dl_generalized);
  }
  const bool high = compression == kHighCompression;
  writer.setRecompressFlate(high);
  // The level is process-wide in qpdf; each write sets it for itself.
  Pl_Flate::setCompressionLevel(high ? 9 : -1);
  writer.setObjectStreamMode(high && minor >= 5 ? qpdf_o_generate : qpdf_o_disable);

  writer.write();
  std::shared_ptr<Buffer> buffer = writer.getBufferSharedPointer();
  const std::string_view bytes(reinterpret_cast<const char*>(buffer->getBuffer()),
                               buffer->getSize());
  return WriteFileWhole(bytes, outputPath, error);
}

bool WriteFileWhole(std::string_view bytes, const std::string& outputPath, std::string& error) {
  const std::u16string target = platform::Utf8ToUtf16(outputPath);
  const std::u16string folder = FolderOf(target);
  const std::u16string baseName = target.substr(folder.size());
  if (baseName.empty()) {
    error = "The output path \"" + outputPath + "\" names no file";
    return false;
  }

  // Created exclusively under a fresh name, so nothing else's file is ever opened or replaced.
  std::random_device random;
  std::u16string temp;
  HANDLE file = INVALID_HANDLE_VALUE;
  for (int attempt = 0; attempt < 100 && file == INVALID_HANDLE_VALUE; ++attempt) {
    const std::uint64_t number = (static_cast<std::uint64_t>(random()) << 32) ^ random();
    temp = folder + u"." + baseName + u"." + HexOf(number) + u".tmp";
    file = platform::CreateFileW(temp.c_str(), GENERIC_WRITE, 0, CREATE_NEW, FILE_ATTRIBUTE_NORMAL);
    if (file == INVALID_HANDLE_VALUE) {
      const DWORD code = platform::GetLastError();
      if (code != ERROR_FILE_EXISTS && code != ERROR_ALREADY_EXISTS) {
        error = "The PDF cannot be written in the folder of \"" + outputPath +
                "\": " + SystemErrorText(code);
        return false;
      }
    }
  }
  if (file == INVALID_HANDLE_VALUE) {
    error = "No temporary file could be made beside \"" + outputPath + "\"";
    return false;
  }

  DWORD failure = 0;
  std::size_t offset = 0;
  while (failure == 0 && offset < bytes.size()) {
    const std::size_t left = bytes.size() - offset;
    const DWORD count = left > 0x40000000u ? 0x40000000u : static_cast<DWORD>(left);
    DWORD done = 0;
    if (!platform::WriteFile(file, bytes.data() + offset, count, &done, nullptr) || done == 0) {
      failure = platform::GetLastError();
      if (failure == 0) failure = ERROR_WRITE_FAULT;
    }
    offset += done;
  }
  if (failure == 0 && !platform::FlushFileBuffers(file)) failure = platform::GetLastError();
  if (!platform::CloseHandle(file) && failure == 0) failure = platform::GetLastError();
  if (failure == 0 &&
      !platform::MoveFileExW(temp.c_str(), target.c_str(), MOVEFILE_REPLACE_EXISTING)) {
    failure = platform::GetLastError();
    if (failure == 0) failure = ERROR_ACCESS_DENIED;
  }
  if (failure != 0) {
    (void)platform::DeleteFileW(temp.c_str());  // the failure reported is the one that matters
    error = "The PDF \"" + outputPath + "\" could not be written: " + SystemErrorText(failure);
    return false;
  }
  return true;
}

}  // namespace internal

bool FinishPdf(std::string_view pdf, const FinishOptions& options,
               const std::vector<EmbeddedFile>& attachments, const std::string& outputPath,
               std::vector<std::string>& notes, std::string& error) {
  try {
    QPDF document;
    document.setSuppressWarnings(true);
    document.processMemoryFile("the rendered page", pdf.data(), pdf.size());
    if (!options.keepLinks) RemoveLinks(document);
    if (!internal::EmbedFiles(document, attachments, nullptr, error)) return false;
    return internal::WritePdf(document, options, outputPath, notes, error);
  } catch (const std::exception& exception) {
    error = std::string("The PDF could not be finished: ") + exception.what();
  } catch (...) {
    error = "The PDF could not be finished";
  }
  return false;
}

}  // namespace mrwl::converter
