// The temporary store of a conversion: names for the files that a run leaves in the temporary
// folder, so that two runs, or two items of one run, don't write over each other.
#pragma once

#include <string_view>

#include "foundation/wide_string.h"

namespace mrwl {

// The prefix and extension of the page that Outlook writes for one item.
inline constexpr std::u16string_view kExportedPagePrefix = u"mrwm_";
inline constexpr std::u16string_view kExportedPageExtension = u"html";

// Names a file in the temporary folder that doesn't exist yet: the folder, `prefix`, a number in
// lower-case hexadecimal and "." `extension`. The number starts from the clock (milliseconds plus
// (minute * 100 + second) * 1000, UTC) and counts up past taken names, for 10001 tries. Nothing
// reserves the name and the file is not created; two processes could still meet, which is
// accepted. On success returns true with the full path in `result`. Returns false, with `result`
// empty, when every name was taken or the temporary folder can't be told.
bool MakeUniqueTempName(std::u16string_view prefix, std::u16string_view extension,
                        WideString& result) noexcept;

}  // namespace mrwl
