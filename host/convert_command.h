// `mrwl convert` and `mrwl open`: the add-in's commands over mail files, run as a user runs them in
// Outlook. The files become the main window's selection (convert) or one item window (open), the
// add-in module is loaded and connected, and its ribbon button is clicked; the save question is
// answered from the command line or on the terminal.
//
// Runs on the main thread of the host. The add-in's messages reach standard error; the host's own
// reports too, each starting with "mrwl: ".
#pragma once

namespace CLI {
class App;
}

namespace mrwl {

// Declares `convert` and `open` on `app`. The command that runs stores its exit status in
// `*status`: 0 when the converter was started for every file given, 1 otherwise (a file that
// cannot be read or is no mail, a cancelled save question, a message of the add-in), 2 for
// arguments that do not fit together. `status` must outlive the parse of `app`.
void AddConvertCommands(CLI::App& app, int* status);

}  // namespace mrwl
