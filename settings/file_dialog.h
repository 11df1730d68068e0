// The file dialog: one question for a file to save or files to open, asked through the shell's
// dialog objects where the system has them and through the classic dialog functions otherwise.
//
// A FileDialog is made for one request and answers one question; its results live in the object.
// On Linux the shell's dialog class exists only where a part of the system registers one (a
// desktop file chooser); the classic functions are the host's console, which takes an answer the
// host gave in advance, asks on a terminal, or cancels.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "foundation/wide_string.h"
#include "platform/win_types.h"

namespace mrwl {

// Asked, for an open dialog with the extra button, whether the button is enabled: the zero-based
// file type row, the paths selected at the moment, and the request's ExtraButtonData.
using ExtraButtonCallbackFn = bool (*)(std::uint32_t typeIndex,
                                       const std::vector<WideString>& selection, void* data);

// What to ask. Text fields may be null, which is the same as empty.
struct FileDialogRequest {
  std::uint32_t Open = 0;  // 0 a save dialog, otherwise an open dialog
  // Leading "*" and "." are skipped when it is taken over.
  const char16_t* DefaultExtension = nullptr;
  std::uint32_t AppendExtension = 0;  // save dialogs: force the default extension on the result
  const char16_t* FileName = nullptr;
  const char16_t* InitialFolder = nullptr;
  // Pairs of display text and pattern, all separated by "|".
  const char16_t* Filter = nullptr;
  std::uint32_t Options = 0;      // FOS_ bits; the classic dialog maps them to its own flags
  std::uint32_t FilterIndex = 0;  // zero-based selected row of Filter
  const char16_t* Title = nullptr;
  const char16_t* OkLabel = nullptr;
  const char16_t* FileNameLabel = nullptr;
  const char16_t* CancelLabel = nullptr;
  const char16_t* ButtonLabel = nullptr;  // the extra push button; empty gives "Settings"
  const char16_t* CheckLabel = nullptr;   // the extra check box
  std::uint32_t CheckState = 0;
  ExtraButtonCallbackFn ExtraButtonCallback = nullptr;
  std::uint32_t ExtraButtonEnabled = 0;  // non-zero adds the extra push button
  void* ExtraButtonData = nullptr;
  HANDLE Icon = nullptr;
};

// The results of Show.
inline constexpr int kFileDialogOk = 1;
inline constexpr int kFileDialogCancelled = 2;
inline constexpr int kFileDialogFailed = -1;

class FileDialog {
 public:
  FileDialog(const FileDialog&) = delete;
  FileDialog& operator=(const FileDialog&) = delete;
  virtual ~FileDialog() = default;

  // Takes the request over; the request's texts are copied or handed on before it returns. False
  // when the dialog cannot be built this way: for the shell's dialog, when the dialog object
  // cannot be created or refuses a title, label, name, option, extension, filter table or type
  // row. An initial folder that cannot be reached and refused extra controls are ignored.
  virtual bool Setup(const FileDialogRequest& request) = 0;
  // Asks the question, modal over `owner`: kFileDialogOk, kFileDialogCancelled or
  // kFileDialogFailed. The classic dialog answers kFileDialogOk with no paths when the names did
  // not fit its buffer and no hook gathered them (the console dialog calls no hook).
  virtual int Show(HWND owner) = 0;

  // The chosen paths, after Show answered kFileDialogOk; empty otherwise.
  [[nodiscard]] const std::vector<WideString>& Results() const noexcept { return results_; }
  // The zero-based filter row chosen, or the request's row until a dialog reported one.
  [[nodiscard]] std::uint32_t FilterIndex() const noexcept { return filterIndex_; }

 protected:
  FileDialog() = default;

  std::vector<WideString> results_;
  std::uint32_t filterIndex_ = 0;
};

// Releases what `result` held, then builds the shell's dialog and sets it up with `request`,
// falling back to the classic dialog when that fails, or building the classic one at once with
// `forceClassic`. False, with `result` empty, only when the last variant tried fails too.
bool CreateFileDialog(std::unique_ptr<FileDialog>& result, const FileDialogRequest& request,
                      bool forceClassic);

// Building blocks of the classic variant, exposed for its tests only.
namespace file_dialog_internal {

// The filter text as the classic dialog takes it: `filter` made to end in two "|" (adding only
// what is missing), then every "|" turned into a NUL. The result holds its NULs.
[[nodiscard]] WideString ClassicFilterText(std::u16string_view filter);

// The OFN_ flags of the classic dialog for `request`: the base flags, OFN_ALLOWMULTISELECT for
// an open dialog with FOS_ALLOWMULTISELECT, and the FOS_ bits that have an OFN_ twin of the same
// value. OFN_ENABLETEMPLATEHANDLE is added later, with the template.
[[nodiscard]] std::uint32_t ClassicDialogFlags(const FileDialogRequest& request);

}  // namespace file_dialog_internal

}  // namespace mrwl
