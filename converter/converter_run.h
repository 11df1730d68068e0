// One run of the converter: what main does between reading its arguments and its exit status.
//
// A run reads the command line and the hand-off record, starts the browser once, renders and
// finishes every job (or builds one portfolio of them), opens what was written when asked, and
// deletes the temporary files the record marks, whether the jobs succeeded or not. A record that
// cannot be used deletes nothing: its files may still be wanted by whoever looks into the fault.
// Single-threaded; one run per process.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "converter/browser.h"
#include "converter/handoff_record.h"

namespace mrwl::converter {

// Exit statuses: every PDF written; some job failed (the others still finished); the input could
// not be used (bad arguments, a damaged record, no browser).
inline constexpr int kExitSuccess = 0;
inline constexpr int kExitJobFailed = 1;
inline constexpr int kExitBadInput = 2;

// Runs the converter over `arguments` (argv without the program name, UTF-8).
//
// Returns kExitBadInput, with one message on standard error naming the problem and the file, and
// without deleting anything, when the arguments or the record cannot be used. A browser that
// cannot be started is not bad input: the record was sound, so every job counts as failed
// (kExitJobFailed) and the temporary files go as after any failed run. Otherwise kExitSuccess when
// every PDF was written, kExitJobFailed when any job failed. Progress goes to standard error only
// when it is a terminal; failures go there always.
int RunConverter(const std::vector<std::string>& arguments);

// The folder below which the browser may load files for each job, in the order of `jobs` (UTF-8,
// without a final separator). Normally every page lies in the temporary folder and all jobs get
// their common parent folder, so one browser serves the run. Where that common parent would reach
// above both `tempFolder` and every page's own folder (pages scattered over the disk), each job
// gets its own page's folder instead, and the run starts a browser per folder.
// REQUIRES: `tempFolder` is an absolute path, with or without a final separator.
std::vector<std::string> ChooseAllowedFolders(const std::vector<ConversionJob>& jobs,
                                              std::u16string_view tempFolder);

// The browser's request for `pagePath` (UTF-8) from the command-line options: tenths of a point
// become points, and under landscape the paper's width and height change places.
PrintRequest MakePrintRequest(const ConverterOptions& options, std::string pagePath);

// The parameters for a custom PDF application: every "%f" in `parameters` becomes `pdfPath` in
// double quotes, or bare where the "%f" already stands between double quotes.
std::u16string ExpandRunParameters(std::u16string_view parameters, std::u16string_view pdfPath);

// What the progress line calls a job: the mail's subject, else the output file's name without its
// extension, else the page's file name.
std::u16string JobLabel(const ConversionJob& job);

}  // namespace mrwl::converter
