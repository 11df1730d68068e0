// Test support for the hand-off record: literal goldens, and a reader written apart from the
// writer so that a test can decode what the writer produced without trusting it.
#pragma once

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "settings/addin_settings.h"

namespace mrwl::testing {

// Builds the bytes of a golden from its layout: whitespace-separated tokens, each a run of hex
// digits (bytes in the order they stand), "{size}" for the u32 length of the whole golden, a
// quoted "text" for its ASCII bytes, or "{name}" for a Text (u32 unit count, UTF-16LE units) of
// texts[name]. The layout keeps every number and flag literal; only the texts that change from
// run to run (paths in a temporary folder) stand as names.
inline std::string Golden(std::string_view layout,
                          const std::map<std::string, std::u16string>& texts = {}) {
  std::string out;
  std::vector<std::size_t> sizeAt;
  const auto put = [&out](std::uint32_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) out.push_back(static_cast<char>(value >> (8 * i)));
  };
  std::istringstream in{std::string(layout)};
  for (std::string token; in >> token;) {
    const auto text = texts.find(token.substr(1, token.size() - 2));
    if (token == "{size}") {
      sizeAt.push_back(out.size());
      put(0, 4);
    } else if (token.front() == '{' && text == texts.end()) {
      ADD_FAILURE() << "golden text " << token << " not given";
    } else if (token.front() == '{') {
      put(static_cast<std::uint32_t>(text->second.size()), 4);
      for (char16_t unit : text->second) put(unit, 2);
    } else if (token.front() == '"') {
      out += token.substr(1, token.size() - 2);
    } else {
      if (token.size() % 2 != 0) ADD_FAILURE() << "odd hex token " << token;
      for (std::size_t i = 0; i + 1 < token.size(); i += 2) {
        put(static_cast<std::uint32_t>(std::stoul(token.substr(i, 2), nullptr, 16)), 1);
      }
    }
  }
  for (std::size_t at : sizeAt) {
    for (int i = 0; i < 4; ++i) out[at + i] = static_cast<char>(out.size() >> (8 * i));
  }
  return out;
}

// The goldens of the record. Texts stand as names; everything else is literal.

// A plain run of one mail, protection off, no attachments.
inline constexpr const char* kPlainGolden = R"(
  {size} 0c
  00
  01 00 00000000 02000000 2500 6600
  00 00 00 0000000000000000
  00
  01000000
  {page} 00000000 00000000 {output} 00000000 01 00 00
)";

// Protection on: an empty user password whose flag is set, and a coded owner password.
inline constexpr const char* kSecurityGolden = R"(
  {size} 0c
  01 01 01
  00000000
  10000000 "TwB3AG4AZQByADEA"
  03000000
  01 00 01 00 01 00
  02000000 01000000
  01
  01 01 {runPath} {runParams}
  00 00 00 0000000000000000
  00
  01000000
  {page} 00000000 00000000 {output}
  02000000 {attachment1} {attachment2}
  01 01 00
)";

// A portfolio of two mails with one subject; the time stands behind the record's texts.
inline constexpr const char* kPortfolioGolden = R"(
  {size} 0c
  00
  01 00 00000000 02000000 2500 6600
  00 00 00 0000000000000000
  01 {output} {user} {folder}
  02000000
  {page1} 00000000 00000000 {output} 00000000 01 00
  01 {name1} 00000000 {from} {to} {cc} {bcc} {subject} 00000000 {importance} {sensitivity}
  000000001076e640
  {page2} 00000000 00000000 {output} 00000000 01 00
  01 {name2} 00000000 {from} {to} {cc} {bcc} {subject} 00000000 {importance} {sensitivity}
  000000001076e640
)";

// A portfolio that found no mail to export: the converter still gets its output and no jobs.
inline constexpr const char* kEmptyPortfolioGolden = R"(
  {size} 0c
  00
  01 00 00000000 02000000 2500 6600
  00 00 00 0000000000000000
  01 {output} {user} {folder}
  00000000
)";

// The protection and run-application settings that kSecurityGolden was made from: an empty user
// password whose flag is set, a coded owner password, and a program of the user's choosing.
inline void SetGoldenSecurity(SecuritySettings& security, RunAppSettings& runApp) {
  security.secEnabled = true;
  security.secHasUserPassword = true;
  security.secHasOwnerPassword = true;
  security.secOwnerPassword = std::u16string_view(u"Owner1");
  security.secType = 3;
  security.sec40AllowPrinting = true;
  security.sec40AllowCopying = true;
  security.sec128ContentAccess = true;
  security.sec128Changes = 2;
  security.sec128Printing = 1;
  runApp.RunCustPDFApp = true;
  runApp.RunPDFPath = std::u16string_view(u"/usr/bin/viewer");
  runApp.RunPDFParams = std::u16string_view(u"--page 1 %f");
}

// The record as a reader on the converter's side sees it.
struct DecodedMail {
  std::u16string fileName, reserved1, from, to, cc, bcc, subject, reserved2, importance,
      sensitivity;
  double receivedTime = 0;
};
struct DecodedJob {
  std::u16string page, reserved1, reserved2, output;
  std::vector<std::u16string> attachments;
  bool deletePage = false, deleteAttachments = false;
  std::optional<DecodedMail> mail;
};
struct DecodedSecurity {
  bool hasUserPassword = false, hasOwnerPassword = false;
  std::string userPassword, ownerPassword;  // as coded
  std::uint32_t type = 0;
  bool allowPrinting40 = false, allowChanging40 = false, allowCopying40 = false,
       allowComments40 = false, contentAccess128 = false, allowCopying128 = false;
  std::uint32_t changes128 = 0, printing128 = 0;
  bool encryptMeta128 = false;
};
struct DecodedRunApp {
  bool custom = false;
  std::u16string path, params;
};
struct DecodedHandoff {
  std::uint32_t totalSize = 0;
  std::uint8_t version = 0;
  std::optional<DecodedSecurity> security;
  std::optional<DecodedRunApp> runApp;
  bool reserved1 = false, reserved2 = false, reserved3 = false;
  std::u16string reservedText;
  std::uint64_t reservedNumber = 0;
  bool portfolio = false;
  std::u16string portfolioOutput, portfolioUser, portfolioFolder;
  std::vector<DecodedJob> jobs;
};

// Decodes a whole record. Nothing when it is cut short, has bytes behind its end, or a flag
// that is neither 0 nor 1.
class HandoffReader {
 public:
  static std::optional<DecodedHandoff> Decode(std::string_view bytes) {
    HandoffReader r(bytes);
    DecodedHandoff d;
    d.totalSize = r.U32();
    d.version = static_cast<std::uint8_t>(r.Number(1));
    if (r.Flag()) {
      DecodedSecurity& s = d.security.emplace();
      s.hasUserPassword = r.Flag();
      s.hasOwnerPassword = r.Flag();
      s.userPassword = r.Coded();
      s.ownerPassword = r.Coded();
      s.type = r.U32();
      for (bool* flag : {&s.allowPrinting40, &s.allowChanging40, &s.allowCopying40,
                         &s.allowComments40, &s.contentAccess128, &s.allowCopying128}) {
        *flag = r.Flag();
      }
      s.changes128 = r.U32();
      s.printing128 = r.U32();
      s.encryptMeta128 = r.Flag();
    }
    if (r.Flag()) d.runApp = DecodedRunApp{r.Flag(), r.Text(), r.Text()};
    d.reserved1 = r.Flag();
    d.reserved2 = r.Flag();
    if (d.reserved1 || d.reserved2) d.reservedText = r.Text();
    d.reserved3 = r.Flag();
    d.reservedNumber = r.Number(8);
    d.portfolio = r.Flag();
    if (d.portfolio) r.Texts({&d.portfolioOutput, &d.portfolioUser, &d.portfolioFolder});
    const std::uint32_t jobs = r.U32();
    for (std::uint32_t i = 0; i < jobs && r.ok_; ++i) {
      DecodedJob& job = d.jobs.emplace_back();
      r.Texts({&job.page, &job.reserved1, &job.reserved2, &job.output});
      const std::uint32_t attachments = r.U32();
      for (std::uint32_t a = 0; a < attachments && r.ok_; ++a) job.attachments.push_back(r.Text());
      job.deletePage = r.Flag();
      job.deleteAttachments = r.Flag();
      if (r.Flag()) {
        DecodedMail& m = job.mail.emplace();
        r.Texts({&m.fileName, &m.reserved1, &m.from, &m.to, &m.cc, &m.bcc, &m.subject, &m.reserved2,
                 &m.importance, &m.sensitivity});
        const std::uint64_t bits = r.Number(8);
        std::memcpy(&m.receivedTime, &bits, sizeof bits);
      }
    }
    if (!r.ok_ || r.at_ != bytes.size()) return std::nullopt;
    return d;
  }

 private:
  explicit HandoffReader(std::string_view bytes) : bytes_(bytes) {}

  std::string_view Take(std::size_t count) {
    if (!ok_ || bytes_.size() - at_ < count) {
      ok_ = false;
      return {};
    }
    const std::string_view part = bytes_.substr(at_, count);
    at_ += count;
    return part;
  }
  // A little-endian number of `size` bytes.
  std::uint64_t Number(std::size_t size) {
    const std::string_view b = Take(size);
    std::uint64_t value = 0;
    for (std::size_t i = b.size(); i-- > 0;) value = value << 8 | static_cast<unsigned char>(b[i]);
    return value;
  }
  std::uint32_t U32() { return static_cast<std::uint32_t>(Number(4)); }
  bool Flag() {
    const std::uint64_t value = Number(1);
    if (value > 1) ok_ = false;
    return value == 1;
  }
  std::u16string Text() {
    std::u16string text;
    for (std::uint32_t i = U32(); i > 0 && ok_; --i)
      text.push_back(static_cast<char16_t>(Number(2)));
    return text;
  }
  void Texts(std::initializer_list<std::u16string*> fields) {
    for (std::u16string* field : fields) *field = Text();
  }
  std::string Coded() { return std::string(Take(U32())); }

  std::string_view bytes_;
  std::size_t at_ = 0;
  bool ok_ = true;
};

}  // namespace mrwl::testing
