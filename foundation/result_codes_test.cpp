#include "foundation/result_codes.h"

#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/wide_string.h"

namespace mrwl {
namespace {

std::u16string Sentence(std::uint32_t code, bool messageOnly = false) {
  WideString text;
  EXPECT_TRUE(FormatErrorMessage(static_cast<ResultCode>(code), text, messageOnly));
  return std::u16string(text.view());
}

std::u16string Text(std::uint32_t code, int kind) {
  char16_t buffer[512];
  const std::size_t length = GetErrorText(static_cast<ResultCode>(code), kind, buffer, 512);
  EXPECT_EQ(std::u16string(buffer).size(), length);
  return buffer;
}

std::uint32_t Code(std::uint32_t domain, std::uint32_t number) {
  return static_cast<std::uint32_t>(MakeResultCode(2, domain, number));
}

// Domain numbers that nothing in the product uses; each test removes what it adds.
constexpr std::uint32_t kTestDomain = 300;

class ErrorRegistryTest : public ::testing::Test {
 protected:
  void TearDown() override {
    for (std::uint32_t id : added_) UnregisterErrorDomain(id);
  }
  void Register(std::uint32_t id, const ErrorMessage* rows, std::uint64_t count, const char* name) {
    added_.push_back(id);
    EXPECT_EQ(kOk, RegisterErrorDomain(id, rows, count, name));
  }

 private:
  std::vector<std::uint32_t> added_;
};

TEST(ErrorMessages, SentencesJoinSeverityDomainAndMessage) {
  struct Case {
    std::uint32_t code;
    bool messageOnly;
    const char16_t* sentence;
  };
  const Case cases[] = {
      {0x82020009, false, u"Error [IO subsystem]: Unsupported operation."},
      {0x82181001, false, u"Error [AFSLib]: Invalid name."},
      {0x820D1003, false, u"Error [Frame buffer]: Error accessing temporary file."},
      {0xC20103E8, false, u"Failure [Memory subsystem]: Insufficient memory."},
      // The row after the sorted part of the common table is still found.
      {0x420004C7, false, u"Warning [Common]: The operation was canceled by the user."},
      // A domain's own row comes before the common row of the same number.
      {0x82180012, false, u"Error [AFSLib]: Finds no matching files."},
      // System numbers prefer the system's wording; its CR LF goes and one point stays.
      {0x83FF0002, false, u"Error [Operating system]: The system cannot find the file specified."},
      // ...and fall back to the common row when the system has no text.
      {0x83FF02BC, false, u"Error [Operating system]: Invalid structure."},
      // An own code in a domain nobody registered still reads the common table.
      {0x82070001, false, u"Error [System]: Invalid argument."},
      {0x80070005, false, u"Error [System]: Access is denied."},
      {0x80004005, false, u"Error [Common]: Unspecified error."},
      {0x8007ABCD, false, u"Error [System]: Unknown error: 0x8007ABCD."},
      {0x0007ABCD, false, u"Success [System]: Unknown code: 0x0007ABCD."},
      {0, false, u"Success"},
      {0x82020009, true, u"Unsupported operation."},
      {0x83FF0005, true, u"Access is denied."},
      {0x8007ABCD, true, u"Unknown error: 0x8007ABCD."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << std::hex << c.code << " " << c.messageOnly);
    EXPECT_EQ(c.sentence, Sentence(c.code, c.messageOnly));
  }
}

TEST(ErrorMessages, HttpStatusesHaveTheirRows) {
  // 303 to 305 are one row off the HTTP standard on purpose; nobody may "correct" them.
  const std::pair<int, const char*> rows[] = {
      {300, "Redirection"},        {303, "Found"},      {305, "Not Modified"},
      {307, "Temporary Redirect"}, {449, "Retry With"}, {505, "HTTP Version Not Supported"}};
  for (const auto& [status, phrase] : rows) {
    SCOPED_TRACE(status);
    char buffer[128];
    GetErrorText(static_cast<ResultCode>(Code(kDomainAfsLib, 0x1000 + status)), kErrorTextMessage,
                 buffer, sizeof buffer);
    EXPECT_EQ("HTTP status codes (" + std::to_string(status) + "). " + phrase, buffer);
  }
  // Statuses that the table leaves out are not invented.
  EXPECT_EQ(u"Error [AFSLib]: Unknown error: 0x82181132.", Sentence(0x82181132));
}

TEST(ErrorMessages, KindsAndBufferSizes) {
  const std::pair<std::uint32_t, const char16_t*> severities[] = {{0x00020009, u"Success"},
                                                                  {0x42020009, u"Warning"},
                                                                  {0x82020009, u"Error"},
                                                                  {0xC2020009, u"Failure"}};
  for (const auto& [code, word] : severities) EXPECT_EQ(word, Text(code, kErrorTextSeverity));
  EXPECT_EQ(u"IO subsystem", Text(0x82020009, kErrorTextDomain));
  EXPECT_EQ(u"Access is denied.\r\n", Text(0x83FF0005, kErrorTextMessage));
  EXPECT_EQ(u"", Text(0x82020009, 3));

  const auto code = static_cast<ResultCode>(0x82181001);  // "Invalid name"
  EXPECT_EQ(12u, GetErrorText(code, kErrorTextMessage, static_cast<char16_t*>(nullptr), 0));
  EXPECT_EQ(12u, GetErrorText(code, kErrorTextMessage, static_cast<char*>(nullptr), 0));
  char16_t wide[5] = {u'x', u'x', u'x', u'x', u'x'};
  EXPECT_EQ(12u, GetErrorText(code, kErrorTextMessage, wide, 5));
  EXPECT_EQ(std::u16string(u"Inva"), wide);
  char narrow[13];
  EXPECT_EQ(12u, GetErrorText(code, kErrorTextMessage, narrow, 13));
  EXPECT_STREQ("Invalid name", narrow);
  EXPECT_EQ(12u, GetErrorText(code, kErrorTextMessage, narrow, 1));
  EXPECT_STREQ("", narrow);
  // System text reaches the single-byte form too, cut the same way.
  char system[7];
  EXPECT_EQ(19u, GetErrorText(static_cast<ResultCode>(0x83FF0005), kErrorTextMessage, system, 7));
  EXPECT_STREQ("Access", system);

  WideString text(u"stale");
  EXPECT_EQ(21u, GetErrorString(static_cast<ResultCode>(0x82020009), text));
  EXPECT_EQ(u"Unsupported operation", text.view());
  EXPECT_EQ(0u, GetErrorString(static_cast<ResultCode>(0x8007ABCD), text));
  EXPECT_TRUE(text.IsEmpty());
}

TEST(ErrorMessages, SecondRegistrationOfADomainChangesNothing) {
  static constexpr ErrorMessage kOther[] = {{0x1001, "Other name"}, {0x1234, "Extra row"}};
  EXPECT_EQ(kOk, RegisterErrorDomain(kDomainAfsLib, kOther, 2, "Impostor"));
  EXPECT_EQ(u"Error [AFSLib]: Invalid name.", Sentence(0x82181001));
  EXPECT_EQ(u"Error [AFSLib]: Unknown error: 0x82181234.", Sentence(0x82181234));
  // Removing a number that nobody registered leaves the rest alone.
  UnregisterErrorDomain(kTestDomain);
  EXPECT_EQ(u"AFSLib", Text(0x82180000, kErrorTextDomain));
}

TEST_F(ErrorRegistryTest, TableTextLosesTrailingWhitespaceAndGetsOnePoint) {
  static constexpr ErrorMessage kRows[] = {
      {1, "Already a sentence.  \r\n"}, {2, "Line one\r\n"}, {3, " \t"}, {4, ""}};
  Register(kTestDomain, kRows, 4, "Test domain");
  Register(kTestDomain + 1, nullptr, 0, "Rowless");
  EXPECT_EQ(u"Error [Test domain]: Already a sentence.", Sentence(0x832C0001));
  EXPECT_EQ(u"Line one.", Sentence(0x832C0002, true));
  // Only whitespace: the first character stays.
  EXPECT_EQ(u" .", Sentence(0x832C0003, true));
  // An empty row counts as no message, and the system does not know the code either.
  EXPECT_EQ(u"Error [Test domain]: Unknown error: 0x832C0004.", Sentence(0x832C0004));
  // A domain without rows still reads the common table.
  EXPECT_EQ(u"Failure [Rowless]: Buffer is too small.", Sentence(0xC32D03EB));
}

TEST_F(ErrorRegistryTest, DomainsStaySortedWhileTheArrayGrows) {
  // Enough domains to pass several growth steps, registered out of order.
  static constexpr ErrorMessage kRow[] = {{0x4242, "Row of a test domain"}};
  std::vector<std::uint32_t> ids;
  for (std::uint32_t i = 0; i < 60; ++i) ids.push_back(320 + (i * 37) % 60);
  for (std::uint32_t id : ids) Register(id, kRow, 1, "Grown");
  for (std::uint32_t id : ids) {
    SCOPED_TRACE(id);
    EXPECT_EQ(u"Error [Grown]: Row of a test domain.", Sentence(Code(id, 0x4242)));
  }
  // The built-ins are still in place around them.
  EXPECT_EQ(u"Error [IO subsystem]: Unsupported operation.", Sentence(0x82020009));
  EXPECT_EQ(u"Operating system", Text(0x83FF0000, kErrorTextDomain));

  UnregisterErrorDomain(340);
  EXPECT_EQ(u"System", Text(Code(340, 0), kErrorTextDomain));
  EXPECT_EQ(u"Grown", Text(Code(339, 0), kErrorTextDomain));
  EXPECT_EQ(u"Grown", Text(Code(341, 0), kErrorTextDomain));
}

TEST(ErrorMessages, LanguageTheSystemLacksIsRetriedInLanguageZero) {
  internal::SetErrorLanguage(0x0407);
  const std::u16string sentence = Sentence(0x80070005);
  internal::SetErrorLanguage(0);
  EXPECT_EQ(u"Error [System]: Access is denied.", sentence);
}

TEST_F(ErrorRegistryTest, ThreadsRegisterAndLookUpTogether) {
  static constexpr ErrorMessage kRow[] = {{7, "Threaded row"}};
  std::vector<std::thread> threads;
  std::vector<int> failures(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, &failures] {
      for (std::uint32_t i = 0; i < 50; ++i) {
        const std::uint32_t id = 400 + (static_cast<std::uint32_t>(t) * 50 + i) % 100;
        (void)RegisterErrorDomain(id, kRow, 1, "Threaded");
        WideString text;
        (void)FormatErrorMessage(MakeResultCode(2, id, 7), text);
        if (text.view() != u"Error [Threaded]: Threaded row.")
          ++failures[static_cast<std::size_t>(t)];
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (std::uint32_t id = 400; id < 500; ++id) UnregisterErrorDomain(id);
  EXPECT_EQ(std::vector<int>(4, 0), failures);
}

}  // namespace
}  // namespace mrwl
