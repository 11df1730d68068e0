// mrwl: the Linux host. `mrwl selfcheck` (also what a bare `mrwl` runs) exercises the services that
// every later step of a conversion stands on, end to end on this machine; `mrwl reg` reads and
// edits the registry hive, `mrwl settings` the add-in's settings in it; `mrwl convert` and
// `mrwl open` play Outlook over mail files and click the add-in's ribbon.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>

#include "foundation/codecs.h"
#include "foundation/memory.h"
#include "foundation/paths.h"
#include "foundation/result_codes.h"
#include "foundation/stream.h"
#include "foundation/wide_string.h"
#include "host/convert_command.h"
#include "host/reg_command.h"
#include "host/register_command.h"
#include "host/settings_command.h"
#include "platform/files.h"

namespace mrwl {
namespace {

int failures = 0;

void Report(bool ok, std::string_view what, std::string_view detail = {}) {
  std::printf("%s  %.*s", ok ? "ok  " : "FAIL", static_cast<int>(what.size()), what.data());
  if (!detail.empty()) std::printf(": %.*s", static_cast<int>(detail.size()), detail.data());
  std::printf("\n");
  if (!ok) ++failures;
}

std::string Sentence(ResultCode code) {
  WideString text;
  (void)FormatErrorMessage(code, text);
  return WideToUtf8(text);
}

// Seals a text under a key, writes the sealed form to a temporary file through the stream layer,
// reads it back and unseals it: the path a protected setting takes from memory to disk and back.
void CheckSealedFileRoundTrip() {
  WideString folder;
  if (!GetTempFolder(folder)) {
    Report(false, "temporary folder", "none found");
    return;
  }
  Report(true, "temporary folder", WideToUtf8(folder));

  const std::u16string_view secret = u"Owner password \u00E4\u00F6\u00FC \u20AC \U0001F512";
  const char key[] = "marrowline self-check key";
  auto context = std::make_unique<SealContext>();
  ResultCode rc = SetSealKey(context.get(), key, sizeof key - 1);
  WideString sealed;
  if (Succeeded(rc)) rc = SealTextToString(context.get(), secret, sealed);
  Report(Succeeded(rc) && sealed.Length() > secret.size(), "seal a text", Sentence(rc));
  if (Failed(rc)) return;

  WideString path;
  rc = MakeTempName(path, u"mrw", folder);
  Report(Succeeded(rc), "temporary file name", Succeeded(rc) ? WideToUtf8(path) : Sentence(rc));
  if (Failed(rc)) return;

  const std::size_t bytes = sealed.Length() * sizeof(char16_t);
  {
    MemoryStream buffer;
    std::size_t done = 0;
    rc = buffer.Open(0, 0);
    if (Succeeded(rc)) rc = buffer.Write(sealed.c_str(), bytes, &done);
    DiskFileStream file;
    if (Succeeded(rc))
      rc = file.Open(path, CREATE_ALWAYS, 3, FILE_SHARE_READ, FILE_ATTRIBUTE_NORMAL);
    if (Succeeded(rc)) rc = file.Write(buffer.GetData(), bytes, &done);
    if (Succeeded(rc)) rc = file.Close();
    Report(Succeeded(rc) && done == bytes, "write the sealed text to disk", Sentence(rc));
  }

  WideString readBack;
  {
    DiskFileStream file;
    std::size_t done = 0;
    rc = file.Open(path, OPEN_EXISTING, 1, FILE_SHARE_READ, FILE_ATTRIBUTE_NORMAL);
    if (Succeeded(rc) && !readBack.Resize(bytes / sizeof(char16_t))) rc = kErrOutOfMemory;
    if (Succeeded(rc)) rc = file.Read(readBack.data(), bytes, &done);
    Report(Succeeded(rc) && done == bytes && file.GetSize() == static_cast<std::int64_t>(bytes),
           "read it back", Sentence(rc));
  }
  (void)platform::DeleteFileW(path.c_str());

  WideString plain;
  rc = UnsealTextToString(context.get(), readBack, plain);
  Report(Succeeded(rc) && plain == secret, "unseal and compare", Sentence(rc));

  auto wrongKey = std::make_unique<SealContext>();
  (void)SetSealKey(wrongKey.get(), "another key", 11);
  rc = UnsealTextToString(wrongKey.get(), readBack, plain);
  Report(Failed(rc), "a wrong key is refused", Sentence(rc));
}

void CheckMessages() {
  struct {
    ResultCode code;
    const char* expected;
  } const rows[] = {
      {0, "Success"},
      {static_cast<ResultCode>(0x82020009u), "Error [IO subsystem]: Unsupported operation."},
      {static_cast<ResultCode>(0x82181001u), "Error [AFSLib]: Invalid name."},
      {SystemErrorCode(2), "Error [Operating system]: The system cannot find the file specified."},
  };
  for (const auto& row : rows) {
    const std::string text = Sentence(row.code);
    Report(text == row.expected, "message text", text);
  }
}

void CheckAllocator() {
  void* small = MemAlloc(13);
  void* large = MemAlloc(0x100001);
  const bool aligned = (reinterpret_cast<std::uintptr_t>(small) % 16 == 0) &&
                       (reinterpret_cast<std::uintptr_t>(large) % 16 == 0);
  Report(small != nullptr && large != nullptr && aligned && MemAlloc(0) == nullptr,
         "allocator gives aligned blocks and null for 0");
  MemFree(small);
  MemFree(large);
}

int SelfCheck() {
  std::printf("Marrowline foundation self-check\n");
  CheckAllocator();
  CheckMessages();
  CheckSealedFileRoundTrip();
  std::printf("%d failed\n", failures);
  return failures == 0 ? 0 : 1;
}

}  // namespace
}  // namespace mrwl

int main(int argc, char** argv) {
  if (argc < 2) return mrwl::SelfCheck();
  std::vector<std::string> args =
      mrwl::TranslateRegSwitches(std::vector<std::string>(argv + 1, argv + argc));

  CLI::App app{"Marrowline's Linux host", "mrwl"};
  app.require_subcommand(1);
  int status = 0;
  // Extra words were always ignored here; the set-up script passes its own arguments on.
  app.add_subcommand("selfcheck", "Check the foundation's services on this machine")
      ->allow_extras()
      ->callback([&status] { status = mrwl::SelfCheck(); });
  mrwl::AddRegCommand(app, &status);
  mrwl::AddSettingsCommand(app, &status);
  mrwl::AddConvertCommands(app, &status);
  mrwl::AddRegisterCommands(app, &status);

  // CLI11 takes the arguments last first.
  std::reverse(args.begin(), args.end());
  try {
    app.parse(args);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;
  }
  return status;
}
