#include "foundation/result_codes.h"

#include <cstring>
#include <iterator>
#include <mutex>
#include <string_view>

#include "foundation/format.h"
#include "foundation/memory.h"
#include "foundation/wide_string.h"
#include "platform/kernel.h"

namespace mrwl {
namespace {

// Consulted for every domain after the domain's own rows. The last row stands out of order on
// purpose: it is the system's ERROR_CANCELLED, added after the rest and found by a linear search.
constexpr ErrorMessage kCommonMessages[] = {
    {0x0, "Ok"},
    {0x1, "Invalid argument"},
    {0x2, "Invalid file format"},
    {0x3, "Unsupported file format"},
    {0x4, "Invalid page number"},
    {0x5, "File corrupted"},
    {0x6, "Unsupported compression type"},
    {0x7, "Incompatible file format"},
    {0x8, "invalid format index"},
    {0x9, "Unsupported operation"},
    {0xA, "Invalid access mode"},
    {0xB, "Invalid seek mode"},
    {0xC, "Invalid seek pos"},
    {0xD, "Critical failure"},
    {0xE, "Failure"},
    {0xF, "Component failed to initialize"},
    {0x10, "Component is not initialized"},
    {0x11, "Internal error"},
    {0x12, "Unclassified error"},
    {0x13, "Unsupported color space"},
    {0x14, "Invalid format identifier"},
    {0x16, "Invalid file size"},
    {0x17, "Compression error"},
    {0x18, "Need more input data"},
    {0x19, "Need more output space"},
    {0x1A, "Reached End-Of-Data marker"},
    {0x1B, "End Of Data reached"},
    {0x1C, "Object is locked"},
    {0x1D, "Operation history locked"},
    {0x2BC, "Invalid structure"},
    {0x3E8, "Insufficient memory"},
    {0x3E9, "Invalid pointer"},
    {0x3EA, "Too large data was requested"},
    {0x3EB, "Buffer is too small"},
    {0x4B0, "Not implemented"},
    {0x4B2, "Unsupported value"},
    {0x4B3, "Operation is not permitted"},
    {0x5DC, "Incompatible internal format"},
    {0x4C7, "The operation was canceled by the user"},
};

constexpr ErrorMessage kIoMessages[] = {
    {0x1001, "Unexpected error reading from file"},
    {0x1002, "Unexpected error writing to file"},
};

constexpr ErrorMessage kFrameBufferMessages[] = {
    {0x1001, "Too many rectangles requested"},
    {0x1002, "Rectangle intersects with another one"},
    {0x1003, "Error accessing temporary file"},
};

// One row per HTTP status: code 0x1000 plus the status. Built by the preprocessor so the table is
// constant data, present before any static initialiser runs and alive to the end of the process.
#define MRWL_HTTP_ROW(status, phrase) \
  { 0x1000 + (status), "HTTP status codes (" #status "). " phrase }

// The rows keep their historical order, which a linear search makes visible only where two rows
// share a code. The phrases of 303, 304 and 305 sit one row lower than in the HTTP standard; the
// table has always read so, and texts already shown to users depend on it.
constexpr ErrorMessage kAfsLibMessages[] = {
    {0x1001, "Invalid name"},
    {0x1002, "No permissions"},
    {0x1003, "Invalid share mode"},
    {0x1004, "Couldn't register the specified file system because it is registered already"},
    {0x1064, "Invalid ZIP-format value"},
    {0x1065, "Couldn't decompress file from ZIP"},
    {0x1066, "Couldn't compress file into ZIP"},
    {0x1068, "Invalid CRC-sum"},
    {0x1067, "Wrong password"},
    {0x106A, "Unsupported compression method"},
    {0x12, "Finds no matching files"},
    {0x1B, "End of file data"},
    {0x1073, "Sequential access for file is allowed only"},
    {0x1072, "Strange file size"},
    {0x1074, "Error of new file creation"},
    {0x1075, "Invalid or unsupported protocol scheme"},
    MRWL_HTTP_ROW(300, "Redirection"),
    MRWL_HTTP_ROW(301, "Moved Permanently"),
    MRWL_HTTP_ROW(302, "Moved Temporarily"),
    MRWL_HTTP_ROW(303, "Found"),
    MRWL_HTTP_ROW(304, "See Other"),
    MRWL_HTTP_ROW(305, "Not Modified"),
    MRWL_HTTP_ROW(307, "Temporary Redirect"),
    MRWL_HTTP_ROW(400, "Bad Request"),
    MRWL_HTTP_ROW(401, "Unauthorized"),
    MRWL_HTTP_ROW(402, "Payment Required"),
    MRWL_HTTP_ROW(403, "Forbidden"),
    MRWL_HTTP_ROW(404, "Not Found"),
    MRWL_HTTP_ROW(405, "Method Not Allowed"),
    MRWL_HTTP_ROW(406, "Not Acceptable"),
    MRWL_HTTP_ROW(407, "Proxy Authentication Required"),
    MRWL_HTTP_ROW(408, "Request Timeout"),
    MRWL_HTTP_ROW(409, "Conflict"),
    MRWL_HTTP_ROW(410, "Gone"),
    MRWL_HTTP_ROW(411, "Length Required"),
    MRWL_HTTP_ROW(412, "Precondition Failed"),
    MRWL_HTTP_ROW(413, "Request Entity Too Large"),
    MRWL_HTTP_ROW(414, "Request-URI Too Large"),
    MRWL_HTTP_ROW(415, "Unsupported Media Type"),
    MRWL_HTTP_ROW(449, "Retry With"),
    MRWL_HTTP_ROW(500, "Internal Server Error"),
    MRWL_HTTP_ROW(501, "Not Implemented"),
    MRWL_HTTP_ROW(502, "Bad Gateway"),
    MRWL_HTTP_ROW(503, "Service Unavailable"),
    MRWL_HTTP_ROW(504, "Gateway Timeout"),
    MRWL_HTTP_ROW(505, "HTTP Version Not Supported"),
    {0x13E9, "File cache for specified file already exists"},
    {0x13E8, "File cache still in use by some opened files and cannot deleted"},
};

#undef MRWL_HTTP_ROW

constexpr const char* kSeverityWords[] = {"Success", "Warning", "Error", "Failure"};

// Modules whose message tables know codes the system does not, and the name each gives a code.
struct MessageModule {
  const char* file;
  const char* domainName;
};
constexpr MessageModule kMessageModules[] = {
    {"wininet.dll", "WinINet"},
    {"quartz.dll", "DirectShow"},
};

constexpr DWORD kScratchSize = 128;

// The process-wide table of domains, sorted by Id.
struct ErrorRegistry {
  ErrorRegistry() = default;
  ErrorRegistry(const ErrorRegistry&) = delete;
  ErrorRegistry& operator=(const ErrorRegistry&) = delete;
  ~ErrorRegistry() {
    std::lock_guard<std::mutex> hold(lock);
    MemFree(domains);
    domains = nullptr;
    count = 0;
    capacity = 0;
  }

  std::mutex lock;
  ErrorDomain* domains = nullptr;
  std::size_t count = 0;
  std::size_t capacity = 0;
  DWORD languageId = 0;
  bool builtinsPending = true;
};

// Static initialisers of other units register their domains, possibly before this unit's own
// statics are made; a function-local object exists from the first call on.
ErrorRegistry& Registry() noexcept {
  static ErrorRegistry registry;
  return registry;
}

// Index of the first domain whose Id is not below `id`. REQUIRES: the lock is held.
std::size_t LowerBound(const ErrorRegistry& registry, std::uint32_t id) noexcept {
  std::size_t low = 0;
  std::size_t high = registry.count;
  while (low < high) {
    const std::size_t middle = low + (high - low) / 2;
    if (registry.domains[middle].Id < id) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return low;
}

// REQUIRES: the lock is held.
const ErrorDomain* FindDomain(const ErrorRegistry& registry, std::uint32_t id) noexcept {
  const std::size_t at = LowerBound(registry, id);
  return at < registry.count && registry.domains[at].Id == id ? &registry.domains[at] : nullptr;
}

// Inserts `domain` at its sorted place unless its number is taken. REQUIRES: the lock is held.
void InsertDomain(ErrorRegistry& registry, const ErrorDomain& domain) noexcept {
  const std::size_t at = LowerBound(registry, domain.Id);
  if (at < registry.count && registry.domains[at].Id == domain.Id) return;
  if (registry.count == registry.capacity) {
    const std::size_t need = registry.count + 1;
    std::size_t grown = registry.capacity >= 16 ? registry.capacity + registry.capacity / 2
                                                : (need + 3) & ~std::size_t{3};
    if (grown < need) grown = need;
    void* block = MemTryRealloc(registry.domains, grown * sizeof(ErrorDomain));
    if (block == nullptr) return;
    registry.domains = static_cast<ErrorDomain*>(block);
    registry.capacity = grown;
  }
  std::memmove(registry.domains + at + 1, registry.domains + at,
               (registry.count - at) * sizeof(ErrorDomain));
  registry.domains[at] = domain;
  ++registry.count;
}

void AddBuiltins(ErrorRegistry& registry) noexcept {
  const ErrorDomain builtins[] = {
      {kDomainIo, kIoMessages, std::size(kIoMessages), "IO subsystem"},
      {kDomainCommon, nullptr, 0, "Common"},
      {kDomainFrameBuffer, kFrameBufferMessages, std::size(kFrameBufferMessages), "Frame buffer"},
      {kDomainMemory, nullptr, 0, "Memory subsystem"},
      {kDomainSystem, nullptr, 0, "Operating system"},
  };
  for (const ErrorDomain& domain : builtins) InsertDomain(registry, domain);
}

const char* FindRow(const ErrorMessage* rows, std::uint64_t count, std::uint32_t number) noexcept {
  if (rows == nullptr) return nullptr;
  for (std::uint64_t i = 0; i < count; ++i) {
    if (rows[i].Code == number) return rows[i].Text;
  }
  return nullptr;
}

// One text of a code: a table's single-byte text, or the system's wide text.
struct FoundText {
  const char* table = nullptr;
  WideString system;

  [[nodiscard]] bool IsEmpty() const noexcept {
    return (table == nullptr || *table == 0) && system.IsEmpty();
  }
};

// FormatMessageW with the retry in language 0 for a language the system has no texts in.
DWORD AskFormatMessage(DWORD flags, HMODULE module, DWORD id, DWORD languageId, char16_t* buffer,
                       DWORD size) noexcept {
  DWORD length = platform::FormatMessageW(flags, module, id, languageId, buffer, size);
  if (length == 0) {
    const DWORD error = platform::GetLastError();
    if (error == ERROR_RESOURCE_LANG_NOT_FOUND || (error >= 15100 && error <= 15199)) {
      length = platform::FormatMessageW(flags, module, id, 0, buffer, size);
    }
  }
  return length;
}

// Who knew a code that the tables do not.
enum class Source { kNobody, kSystem, kModule0, kModule1 };

// Asks the system, then the message modules that the process has loaded, for the text of `id`.
// With `text` the text is kept; without, a scratch buffer only tells whether anybody knows it.
Source AskSystemAndModules(DWORD id, DWORD languageId, WideString* text) noexcept {
  auto ask = [&](DWORD flags, HMODULE module) -> bool {
    if (text == nullptr) {
      char16_t scratch[kScratchSize];
      return AskFormatMessage(flags, module, id, languageId, scratch, kScratchSize) != 0;
    }
    char16_t* block = nullptr;
    const DWORD length = AskFormatMessage(flags | FORMAT_MESSAGE_ALLOCATE_BUFFER, module, id,
                                          languageId, reinterpret_cast<char16_t*>(&block), 0);
    if (length == 0 || block == nullptr) return false;
    const bool kept = text->Assign(std::u16string_view(block, length));
    platform::LocalFree(block);
    return kept;
  };
  if (ask(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr)) {
    return Source::kSystem;
  }
  for (std::size_t i = 0; i < std::size(kMessageModules); ++i) {
    HMODULE module = platform::GetModuleHandleA(kMessageModules[i].file);
    if (module == nullptr) continue;
    if (ask(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_IGNORE_INSERTS, module)) {
      return i == 0 ? Source::kModule0 : Source::kModule1;
    }
  }
  return Source::kNobody;
}

// The system numbers its own errors without a domain; everything else it knows by the whole code.
DWORD SystemIdOf(std::uint32_t code) noexcept {
  return DomainOf(static_cast<ResultCode>(code)) == kDomainSystem ? (code & 0xFFFFu) : code;
}

DWORD LanguageId() noexcept {
  ErrorRegistry& registry = Registry();
  std::lock_guard<std::mutex> hold(registry.lock);
  return registry.languageId;
}

void LookupMessage(ResultCode code, FoundText& found) noexcept {
  const auto bits = static_cast<std::uint32_t>(code);
  const std::uint32_t domain = DomainOf(code);
  if ((bits & kOwnCodeMark) != 0) {
    ErrorRegistry& registry = Registry();
    std::lock_guard<std::mutex> hold(registry.lock);
    if (const ErrorDomain* entry = FindDomain(registry, domain)) {
      found.table = FindRow(entry->Messages, entry->MessageCount, NumberOf(code));
    }
    if (found.table == nullptr) {
      found.table = FindRow(kCommonMessages, std::size(kCommonMessages), NumberOf(code));
    }
    // The system's own numbers prefer the system's wording over a common row of the same number.
    if (found.table != nullptr && domain != kDomainSystem) return;
  }
  if (AskSystemAndModules(SystemIdOf(bits), LanguageId(), &found.system) != Source::kNobody) {
    found.table = nullptr;
  }
}

void LookupDomainName(ResultCode code, FoundText& found) noexcept {
  {
    ErrorRegistry& registry = Registry();
    std::lock_guard<std::mutex> hold(registry.lock);
    if (const ErrorDomain* entry = FindDomain(registry, DomainOf(code))) {
      found.table = entry->Name != nullptr ? entry->Name : "";
      return;
    }
  }
  switch (
      AskSystemAndModules(SystemIdOf(static_cast<std::uint32_t>(code)), LanguageId(), nullptr)) {
    case Source::kModule0:
      found.table = kMessageModules[0].domainName;
      break;
    case Source::kModule1:
      found.table = kMessageModules[1].domainName;
      break;
    case Source::kSystem:
    case Source::kNobody:
      found.table = "System";
      break;
  }
}

bool Lookup(ResultCode code, int kind, FoundText& found) noexcept {
  switch (kind) {
    case kErrorTextSeverity:
      found.table = kSeverityWords[static_cast<std::uint32_t>(code) >> 30];
      return true;
    case kErrorTextDomain:
      LookupDomainName(code, found);
      return true;
    case kErrorTextMessage:
      LookupMessage(code, found);
      return true;
    default:
      return false;
  }
}

// The found text as UTF-16, table text read as UTF-8. Empty when memory runs out.
WideString WideOf(const FoundText& found) noexcept {
  if (found.table == nullptr) return found.system;
  try {
    return Utf8ToWide(found.table);
  } catch (...) {
    return WideString();
  }
}

std::size_t CopyCut(std::u16string_view text, char16_t* buffer, std::size_t size) noexcept {
  if (buffer != nullptr && size != 0) {
    const std::size_t n = text.size() < size ? text.size() : size - 1;
    std::memcpy(buffer, text.data(), n * sizeof(char16_t));
    buffer[n] = 0;
  }
  return text.size();
}

std::size_t CopyCut(std::string_view text, char* buffer, std::size_t size) noexcept {
  if (buffer != nullptr && size != 0) {
    std::size_t n = text.size() < size ? text.size() : size - 1;
    // A cut falls before a character, never into its UTF-8 sequence.
    while (n > 0 && n < text.size() && (static_cast<unsigned char>(text[n]) & 0xC0) == 0x80) --n;
    std::memcpy(buffer, text.data(), n);
    buffer[n] = 0;
  }
  return text.size();
}

WideString UnknownText(ResultCode code) noexcept {
  return FormatText(Failed(code) ? u"Unknown error: 0x%08X." : u"Unknown code: 0x%08X.",
                    static_cast<std::uint32_t>(code));
}

// The AFSLib domain registers from this unit, which every user of result codes links, so the
// domain, and with it the built-in domains, are present before main in every program.
[[maybe_unused]] const ResultCode kAfsLibRegistration =
    RegisterErrorDomain(kDomainAfsLib, kAfsLibMessages, std::size(kAfsLibMessages), "AFSLib");

}  // namespace

ResultCode RegisterErrorDomain(std::uint32_t id, const ErrorMessage* messages,
                               std::uint64_t messageCount, const char* name) noexcept {
  ErrorRegistry& registry = Registry();
  std::lock_guard<std::mutex> hold(registry.lock);
  if (registry.builtinsPending) {
    registry.builtinsPending = false;
    AddBuiltins(registry);
  }
  InsertDomain(registry, ErrorDomain{id, messages, messageCount, name});
  return kOk;
}

void UnregisterErrorDomain(std::uint32_t id) noexcept {
  ErrorRegistry& registry = Registry();
  std::lock_guard<std::mutex> hold(registry.lock);
  const std::size_t at = LowerBound(registry, id);
  if (at >= registry.count || registry.domains[at].Id != id) return;
  std::memmove(registry.domains + at, registry.domains + at + 1,
               (registry.count - at - 1) * sizeof(ErrorDomain));
  --registry.count;
}

std::size_t GetErrorText(ResultCode code, int kind, char* buffer, std::size_t size) noexcept {
  if (buffer != nullptr && size != 0) buffer[0] = 0;
  FoundText found;
  if (!Lookup(code, kind, found)) return 0;
  if (found.table != nullptr) return CopyCut(std::string_view(found.table), buffer, size);
  try {
    return CopyCut(WideToUtf8(found.system.view()), buffer, size);
  } catch (...) {
    return 0;
  }
}

std::size_t GetErrorText(ResultCode code, int kind, char16_t* buffer, std::size_t size) noexcept {
  if (buffer != nullptr && size != 0) buffer[0] = 0;
  FoundText found;
  if (!Lookup(code, kind, found)) return 0;
  return CopyCut(WideOf(found).view(), buffer, size);
}

std::size_t GetErrorString(ResultCode code, WideString& result) noexcept {
  result.Clear();
  const std::size_t length =
      GetErrorText(code, kErrorTextMessage, static_cast<char16_t*>(nullptr), 0);
  if (length == 0 || !result.Resize(length)) return 0;
  const std::size_t written = GetErrorText(code, kErrorTextMessage, result.data(), length + 1);
  // The text may have changed between the two calls; keep what was written.
  result.SetLength(written < length ? written : length);
  return result.Length();
}

bool FormatErrorMessage(ResultCode code, WideString& result, bool messageOnly) noexcept {
  result.Clear();
  if (code == kOk) {
    (void)result.Assign(u"Success");
    return true;
  }
  FoundText name;
  LookupDomainName(code, name);
  const WideString domainName = WideOf(name);
  if (domainName.IsEmpty()) {
    (void)result.Assign(UnknownText(code).view());
    return true;
  }
  if (!messageOnly) {
    FoundText severity;
    (void)Lookup(code, kErrorTextSeverity, severity);
    const WideString word = WideOf(severity);
    if (!word.IsEmpty()) {
      (void)result.Append(word.view());
    } else if (Failed(code)) {
      (void)result.Append(u"Error");
    }
    if (!result.IsEmpty()) (void)result.Append(u' ');
    (void)result.Append(u"[");
    (void)result.Append(domainName.view());
    (void)result.Append(u"]: ");
  }
  FoundText message;
  LookupMessage(code, message);
  const WideString text = WideOf(message);
  if (text.IsEmpty()) {
    (void)result.Append(UnknownText(code).view());
    return true;
  }
  (void)result.Append(text.view());
  std::size_t length = result.Length();
  // Empty only when memory ran out above; there is then no text to finish.
  if (length == 0) return true;
  while (length > 1 && result[length - 1] <= 32) --length;
  result.SetLength(length);
  if (result[length - 1] != u'.') (void)result.Append(u'.');
  return true;
}

namespace internal {
void SetErrorLanguage(std::uint32_t languageId) noexcept {
  ErrorRegistry& registry = Registry();
  std::lock_guard<std::mutex> hold(registry.lock);
  registry.languageId = languageId;
}
}  // namespace internal

}  // namespace mrwl
