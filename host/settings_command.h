// `mrwl settings`: the add-in's options dialog, and its per-user settings record from the command
// line: show it, change fields of it (through the dialog's pages, so their rules apply), put the
// defaults back, and show the converter's option string it gives.
//
// Every subcommand first makes sure the hive can be read, so a damaged hive is reported and never
// written over. Runs on the main thread of the host and writes to the standard streams.
#pragma once

namespace CLI {
class App;
}

namespace mrwl {

// Declares `settings` with its subcommands show, set, reset and command-line on `app`. The
// subcommand that runs stores its exit status in `*status`: 0 on success, 1 on a failure that it
// has reported on standard error. `status` must outlive the parse of `app`.
void AddSettingsCommand(CLI::App& app, int* status);

}  // namespace mrwl
