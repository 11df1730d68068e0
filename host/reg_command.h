// `mrwl reg`: reading and editing the registry from the command line, with the syntax and the
// output of the Windows reg tool (query, add, delete; switches written /v, /ve, /t, /d, /f, ...),
// and the error reporting that the host's other registry commands share.
//
// Everything here runs on the main thread of the host and writes to the standard streams.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/registry.h"

namespace CLI {
class App;
}

namespace mrwl {

// Rewrites the Windows-style switches of a `reg` command line (`args` without the program name,
// starting with "reg") into the options that AddRegCommand declares. Only tokens in switch
// position change: the token after /v, /t, /d or /se is that switch's value whatever it looks
// like ("/d /f" writes the data "/f"). Any other command line comes back as it was.
[[nodiscard]] std::vector<std::string> TranslateRegSwitches(std::vector<std::string> args);

// Declares `reg` with its subcommands query, add and delete on `app`. The subcommand that runs
// stores its exit status in `*status`: 0 on success, 1 on any failure, which it has reported on
// standard error. `status` must outlive the parse of `app`.
void AddRegCommand(CLI::App& app, int* status);

// Whether two texts are equal when ASCII letters are compared without regard to case, as the
// host compares switch, root and setting names.
[[nodiscard]] bool EqualsAsciiNoCase(std::string_view a, std::string_view b);

// A whole number written in decimal or with 0x in hexadecimal, up to `maximum`; nothing for
// anything else, an empty text included.
[[nodiscard]] std::optional<std::uint64_t> ParseUnsigned(std::string_view text,
                                                         std::uint64_t maximum);

// Writes "ERROR: " and the system's text of the registry error `error` to standard error, and on
// the next line what is wrong with the hive file when the registry found a fault in it.
void ReportRegistryError(LSTATUS error);

}  // namespace mrwl
