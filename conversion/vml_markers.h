// Blanking of the conditional VML markers that Outlook leaves in the HTML it writes.
//
// The routine is kept for pages that need it; the export of a mail does not call it, and nothing
// else in the conversion does either. That is deliberate: the converter reads the page exactly as
// Outlook wrote it. Any thread may call the routine, but not two at once on the same file.
#pragma once

#include <cstddef>

#include "platform/com.h"

namespace mrwl {

// Overwrites, in the file at `path`, every occurrence of "<![if !vml]>", then of "<![endif]>",
// then of xmlns:v="urn:schemas-microsoft-com:vml" with as many spaces, so that the file keeps its
// length and every offset in it. The patterns are looked for in the file's own encoding, told by
// its byte order mark (UTF-8, UTF-16 LE or BE, UTF-32 LE or BE; no mark means one byte per
// character), and the spaces are written in that encoding too. The whole file is held in memory.
//
// A mismatching byte resets the search without being tried as the start of a new match, so a
// doubled first character ("<<![endif]>") hides the marker behind it. This is intended: pages
// blanked before must come out byte for byte the same.
//
// The file is read and written back in text mode; on Windows that folds line ends on the way in
// and expands them on the way out.
//
// `bufferSizeHint` is accepted for callers that pass one and has no effect.
//
// Returns S_OK once the file has been written back (also when no marker was found).
// On failure:
//   E_INVALIDARG (0x80070057) for a null or empty path;
//   E_FAIL (0x80004005) when the file cannot be opened for reading, its length cannot be found,
//     no buffer can be had, the read stops short without reaching the end (an empty file does
//     so: nothing read counts as short), or fewer bytes than were read could be written back;
//   HRESULT_FROM_WIN32 of the last error when the file cannot be opened anew for writing; the
//     file then keeps its old content.
// After a failure at the writing stage the file may be truncated.
[[nodiscard]] HRESULT StripVmlMarkers(const char16_t* path, std::size_t bufferSizeHint) noexcept;

}  // namespace mrwl
