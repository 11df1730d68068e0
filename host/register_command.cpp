// `mrwl register` and `mrwl unregister`: the module's DllInstall, called as an installer calls it.

#include "host/register_command.h"

#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include "host/addin_session.h"
#include "platform/com.h"
#include "platform/kernel.h"
#include "platform/utf.h"

namespace mrwl {
namespace {

using InstallFunction = HRESULT (*)(BOOL, const OLECHAR*);

// The command line that makes DllInstall register for the current user only.
constexpr char16_t kPerUserCommandLine[] = u"user";

std::string Narrow(std::u16string_view text) { return platform::Utf16ToUtf8(text); }

void Report(const std::string& text) { std::fprintf(stderr, "mrwl: %s\n", text.c_str()); }

// Loads the module and calls its DllInstall with `commandLine` (may be null); 0 when the export
// succeeded, 1 otherwise, with the failure reported. The module stays loaded to the end of the
// process, as with an installer.
int RunInstall(bool install, const char16_t* commandLine) {
  const std::u16string modulePath = host::AddinModulePath();
  std::string error;
  const HMODULE module = host::LoadAddinModule(modulePath, &error);
  if (module == nullptr) {
    Report(error);
    return 1;
  }
  const auto dllInstall =
      reinterpret_cast<InstallFunction>(platform::GetProcAddress(module, "DllInstall"));
  if (dllInstall == nullptr) {
    Report("The file " + Narrow(modulePath) + " is no add-in module: it has no DllInstall.");
    return 1;
  }
  const HRESULT result = dllInstall(install ? TRUE : FALSE, commandLine);
  if (FAILED(result)) {
    const std::string text = host::ErrorText(static_cast<DWORD>(result));
    Report(std::string(install ? "Registration" : "Unregistration") + " of " + Narrow(modulePath) +
           " failed: " + host::HexResult(result) + (text.empty() ? std::string() : " " + text));
    return 1;
  }
  return 0;
}

}  // namespace

void AddRegisterCommands(CLI::App& app, int* status) {
  struct Options {
    bool perUser = false;
    std::optional<std::string> commandLine;
  };
  for (const bool install : {true, false}) {
    auto options = std::make_shared<Options>();
    CLI::App* command =
        install
            ? app.add_subcommand("register", "Register the add-in module, as its installer does")
            : app.add_subcommand("unregister", "Remove the add-in module's registration");
    CLI::Option* user = command->add_flag(
        "--user", options->perUser,
        install ? "Register for the current user only" : "Remove the current user's registration");
    // What an installer may hand to DllInstall besides "user"; --user is a short form of it.
    command
        ->add_option("--command-line", options->commandLine,
                     "The text handed to the module's DllInstall")
        ->excludes(user);
    command->callback([status, options, install] {
      std::u16string commandLine;
      const char16_t* text = nullptr;
      if (options->perUser) {
        text = kPerUserCommandLine;
      } else if (options->commandLine) {
        commandLine = platform::Utf8ToUtf16(*options->commandLine);
        text = commandLine.c_str();
      }
      *status = RunInstall(install, text);
    });
  }
}

}  // namespace mrwl
