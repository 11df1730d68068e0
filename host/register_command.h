// `mrwl register [--user]` and `mrwl unregister [--user]`: the add-in module's registration, as an
// installer runs it: the module is loaded from its file and its DllInstall export is called, with
// the command line "user" for the per-user form.
//
// Runs on the main thread of the host; reports go to standard error.
#pragma once

namespace CLI {
class App;
}

namespace mrwl {

// Declares `register` and `unregister` on `app`. The command that runs stores its exit status in
// `*status`: 0 when the module's export succeeded, 1 otherwise (reported with the export's result
// and its text). `status` must outlive the parse of `app`.
void AddRegisterCommands(CLI::App& app, int* status);

}  // namespace mrwl
