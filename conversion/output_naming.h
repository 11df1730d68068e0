// How the output of a conversion is named: the proposed file name made from a subject, the save
// dialog that takes the user's answer, and the user and folder that name a portfolio.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "foundation/wide_string.h"
#include "platform/outlook.h"

namespace mrwl {

// The options of the save dialog: FOS_OVERWRITEPROMPT (2), FOS_FORCEFILESYSTEM (0x40) and
// FOS_NOTESTFILECREATE (0x10000). The overwrite question thus comes from the dialog.
inline constexpr std::uint32_t kSaveDialogOptions = 65602;

// Fills `result` with `text` of `length` units, less every unit that is one of | \ ? * < " : >
// + [ ] / - . (hyphen, full stop and plus too, though file names may hold them: that is how the
// names are meant to look). Blanks stay, also at the ends. Only the first 256 units of `text` are
// looked at, so the result has at most 256 units. On exhaustion `result` holds what fitted.
void SanitizeFileName(const char16_t* text, std::size_t length, WideString& result);

// Asks for the PDF to write with the save dialog, proposing `defaultName` and forcing the
// extension "pdf". True, with `path` the chosen file, when the user chose one; false, with `path`
// left as it was or emptied, when the dialog failed, was cancelled or gave no path. Shows nothing
// else: a cancelled run stops without a word.
[[nodiscard]] bool AskOutputFile(WideString& path, std::u16string_view defaultName);

// Fills `folder` with the name of the active explorer's current folder and `user` with the
// current user's address: the primary SMTP address of an Exchange user, otherwise the
// recipient's Address, otherwise "Email". A missing object leaves its string as it was; failed
// calls are not looked at. The folder name is not sanitised.
void GetUserAndFolder(outlook::_Application* application, WideString& user, WideString& folder);

}  // namespace mrwl
