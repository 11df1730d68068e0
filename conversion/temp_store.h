// The temporary store of a conversion: the files a run leaves in the temporary folder (one page
// per item with its companion folder of pictures, the saved attachments, the hand-off file), the
// names that keep two runs or two items of one run from writing over each other, and the
// clean-up for a converter that never started.
//
// After a good start the converter owns these files and deletes what the hand-off marks as
// temporary; the add-in deletes only when the start fails. Deletion failures are not reported:
// a file that stays behind in the temporary folder harms no one. Main thread only; the store
// itself holds no state.
#pragma once

#include <string_view>

#include "conversion/conversion_store.h"
#include "foundation/wide_string.h"
#include "platform/win_types.h"

namespace mrwl {

// The prefix and extension of the page that Outlook writes for one item.
inline constexpr std::u16string_view kExportedPagePrefix = u"mrwm_";
inline constexpr std::u16string_view kExportedPageExtension = u"html";
// The prefix and extension of the hand-off file.
inline constexpr std::u16string_view kHandoffFilePrefix = u"mrwstg_";
inline constexpr std::u16string_view kHandoffFileExtension = u"bin";

// Names a file in the temporary folder that doesn't exist yet: the folder, `prefix`, a number in
// lower-case hexadecimal and "." `extension`. The number starts from the clock (milliseconds plus
// (minute * 100 + second) * 1000, UTC) and counts up past taken names, for 10001 tries. Nothing
// reserves the name and the file is not created; two processes could still meet, which is
// accepted. On success returns true with the full path in `result`. Returns false, with `result`
// empty, when every name was taken or the temporary folder can't be told.
bool MakeUniqueTempName(std::u16string_view prefix, std::u16string_view extension,
                        WideString& result) noexcept;

// Serialises `store` and writes it, in one write, to a new file "mrwstg_<hex>.bin" in the
// temporary folder, readable by its owner alone since it holds the passwords. True with the path
// in `result`; false on any failure, leaving a half-written file where the write broke off.
bool WriteHandoffFile(const ConversionStore& store, WideString& result) noexcept;

// Clears the read-only attribute of `path`, then deletes it. Returns 0, or the system error of
// the step that failed.
DWORD DeleteFileForced(const char16_t* path) noexcept;

// Deletes the files of the folder `path` (no final separator) and then the folder, with
// `recursive` its subfolders too. Entries whose names start with "." are passed over, and their
// presence then keeps the folder. Without `recursive` a subfolder keeps the folder as well, but
// counts as no failure. A folder that can't be listed counts as nothing to do. Symbolic links are
// removed, never followed. Returns 0, or the first system error, which ends the walk; what was
// deleted by then stays deleted.
DWORD DeleteTree(const char16_t* path, bool recursive) noexcept;

// Deletes an exported page and its companion folder: the path with its first ".html" taken out
// and "_files" appended, or, when that doesn't exist, ".files". At most one of the two goes.
void DeleteExportedPage(std::u16string_view path) noexcept;

// Makes an exported page and its companion folder private to the user, whatever rights the
// program that wrote them gave them.
void RestrictExportedPage(std::u16string_view path) noexcept;

// Deletes, for each job in order, its attachment copies when DeleteAttachments is set and its
// page with the companion folder when DeletePage is set.
void DeleteJobFiles(const JobList& jobs) noexcept;

// Gives the records of a portfolio distinct file names, comparing without regard to case: of
// several equal names the first stays and each later one gets "(1)", "(2)", ... in front of its
// last point. A changed name can meet an original further down and then changes again. Jobs
// without a record are passed over. A name that can't grow for lack of memory stays as it is.
void MakeAttachmentNamesUnique(JobList& jobs) noexcept;

}  // namespace mrwl
