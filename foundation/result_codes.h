// Result codes of the foundation and the registry of error domains that turns them into words.
//
// A result code is 32 bits laid out like an HRESULT: severity in bits 31..30 ("Success",
// "Warning", "Error", "Failure"), the own-code mark in bit 25 (the text lies in a table registered
// here rather than with the operating system), the domain in bits 24..16 and the number in bits
// 15..0. Zero is success; a negative code is an error. A system error e is 0x83FF0000 plus e.
//
// Libraries register a domain with a static table of messages from a static initialiser. Any
// thread may register, unregister and look up; one lock guards the table, and the system's own
// message lookup runs outside it.
#pragma once

#include <cstddef>
#include <cstdint>

namespace mrwl {

class WideString;

using ResultCode = std::int32_t;

// Success is "not negative"; S_FALSE-like positive codes are success too.
[[nodiscard]] constexpr bool Succeeded(ResultCode code) noexcept { return code >= 0; }
[[nodiscard]] constexpr bool Failed(ResultCode code) noexcept { return code < 0; }

inline constexpr ResultCode kOk = 0;

// Domain numbers of this system.
inline constexpr std::uint32_t kDomainCommon = 0;
inline constexpr std::uint32_t kDomainMemory = 1;
inline constexpr std::uint32_t kDomainIo = 2;
inline constexpr std::uint32_t kDomainCodecs = 5;
inline constexpr std::uint32_t kDomainFrameBuffer = 13;
inline constexpr std::uint32_t kDomainAfsLib = 24;
inline constexpr std::uint32_t kDomainSystem = 511;

inline constexpr std::uint32_t kOwnCodeMark = 0x02000000u;

// An own code: the severity (2 error, 3 failure), the own-code mark, domain and number.
[[nodiscard]] constexpr ResultCode MakeResultCode(std::uint32_t severity, std::uint32_t domain,
                                                  std::uint32_t number) noexcept {
  return static_cast<ResultCode>((severity << 30) | kOwnCodeMark | ((domain & 0x1FFu) << 16) |
                                 (number & 0xFFFFu));
}

// A system error number as a result code: domain 511 with the own-code mark.
[[nodiscard]] constexpr ResultCode SystemErrorCode(std::uint32_t error) noexcept {
  return static_cast<ResultCode>(0x83FF0000u + (error & 0xFFFFu));
}

[[nodiscard]] constexpr std::uint32_t DomainOf(ResultCode code) noexcept {
  return (static_cast<std::uint32_t>(code) >> 16) & 0x1FFu;
}
[[nodiscard]] constexpr std::uint32_t NumberOf(ResultCode code) noexcept {
  return static_cast<std::uint32_t>(code) & 0xFFFFu;
}

#pragma pack(push, 1)
// One row of a domain's message table.
struct ErrorMessage {
  std::uint32_t Code;  // compared with the low 16 bits of a result code
  const char* Text;
};
#pragma pack(pop)

struct ErrorDomain {
  std::uint32_t Id;
  const ErrorMessage* Messages;  // may be null
  std::uint64_t MessageCount;
  const char* Name;
};

// What GetErrorText gives.
enum ErrorTextKind : int {
  kErrorTextSeverity = 0,
  kErrorTextDomain = 1,
  kErrorTextMessage = 2,
};

// Adds a domain. The rows and strings are not copied and must outlive the registry. The first
// registration of a number wins; a later one changes nothing. The first registration of all also
// adds the built-in domains. Returns 0 in all cases.
ResultCode RegisterErrorDomain(std::uint32_t id, const ErrorMessage* messages,
                               std::uint64_t messageCount, const char* name) noexcept;

// Removes a domain.
void UnregisterErrorDomain(std::uint32_t id) noexcept;

// One of the three texts of a code into `buffer` of `size` characters, terminated, cut to fit.
// With a null buffer and size 0, nothing is written. Returns the length of the whole text in
// characters without the terminator; 0 when there is none, for an unknown `kind` and when memory
// runs out. The single-byte form gives the system's texts in UTF-8 and never cuts inside a
// character; the wide form reads the tables' single-byte text as UTF-8.
std::size_t GetErrorText(ResultCode code, int kind, char* buffer, std::size_t size) noexcept;
std::size_t GetErrorText(ResultCode code, int kind, char16_t* buffer, std::size_t size) noexcept;

// The message text of a code into `result`. Returns its length.
std::size_t GetErrorString(ResultCode code, WideString& result) noexcept;

// The whole sentence for a code, for example "Error [IO subsystem]: Unsupported operation.", or
// the message alone with `messageOnly`. Returns true.
bool FormatErrorMessage(ResultCode code, WideString& result, bool messageOnly = false) noexcept;

namespace internal {
// The language in which the registry asks the system for its texts. The product never changes it
// from 0; tests set a language the system lacks to drive the retry in language 0.
void SetErrorLanguage(std::uint32_t languageId) noexcept;
}  // namespace internal

}  // namespace mrwl
