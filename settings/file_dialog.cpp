// The file dialog's two variants: the shell's dialog objects and the classic dialog functions.
#include "settings/file_dialog.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/paths.h"
#include "foundation/wide_string.h"
#include "platform/com.h"
#include "platform/com_object.h"
#include "platform/com_ptr.h"
#include "platform/file_dialog.h"
#include "platform/files.h"
#include "platform/ui.h"

namespace mrwl {
namespace {

// Control ids of the extra push button and of the second extra control.
constexpr DWORD kExtraButtonId = 1001;
constexpr DWORD kExtraSecondId = 1002;
// In-process, in-process handler, local and remote server.
constexpr DWORD kDialogContext = 23;
// HRESULT_FROM_WIN32(ERROR_CANCELLED): the user closed the dialog without a choice.
constexpr HRESULT kDialogCancelled = static_cast<HRESULT>(0x800704C7u);

constexpr std::uint32_t kClassicBaseFlags = 0xA80024;  // explorer, sizing, hook, no read-only box
constexpr std::uint32_t kClassicFlagsWithExtension = 0xA80424;
// FOS_ bits whose OFN_ twins have the same value.
constexpr std::uint32_t kCarriedOptions = 0x2 | 0x8 | 0x100 | 0x800 | 0x1000 | 0x2000 | 0x4000 |
                                          0x8000 | 0x10000 | 0x100000 | 0x2000000 | 0x10000000;
// The classic name buffer: 32767 characters and the terminator.
constexpr DWORD kFileBufferLength = 32768;

bool HasText(const char16_t* text) noexcept { return text != nullptr && *text != 0; }

std::u16string_view ViewOf(const char16_t* text) noexcept {
  return std::u16string_view(text != nullptr ? text : u"");
}

// The default extension as both variants keep it: without leading "*" and ".".
std::u16string_view BareExtension(const char16_t* extension) noexcept {
  std::u16string_view text = ViewOf(extension);
  while (!text.empty() && (text.front() == u'*' || text.front() == u'.')) text.remove_prefix(1);
  return text;
}

// Forces the default extension on a chosen path: a name that ends in it, in any case, stays as
// typed; any other name, one with a different extension included, gets it behind.
bool AppendDefaultExtension(WideString& path, std::u16string_view extension) noexcept {
  std::size_t length = 0;
  const char16_t* found = GetPathExtension(path.c_str(), path.Length(), &length);
  if (found != nullptr && EqualsNoCase({found, length}, extension)) return true;
  return path.Append(u'.') && path.Append(extension);
}

// The filter's pairs of display text and pattern; a pair with an empty side is skipped.
std::vector<std::pair<WideString, WideString>> SplitFilter(std::u16string_view filter) {
  std::vector<std::u16string_view> parts;
  std::size_t at = 0;
  for (;;) {
    const std::size_t bar = filter.find(u'|', at);
    parts.push_back(filter.substr(at, bar == filter.npos ? filter.npos : bar - at));
    if (bar == filter.npos) break;
    at = bar + 1;
  }
  std::vector<std::pair<WideString, WideString>> pairs;
  for (std::size_t i = 0; i + 1 < parts.size(); i += 2) {
    if (parts[i].empty() || parts[i + 1].empty()) continue;
    pairs.emplace_back(WideString(parts[i]), WideString(parts[i + 1]));
  }
  return pairs;
}

// The path of a shell item, or false.
bool PathOfItem(IShellItem* item, WideString* path) noexcept {
  OLECHAR* name = nullptr;
  if (item == nullptr || FAILED(item->GetDisplayName(SIGDN_FILESYSPATH, &name))) return false;
  const bool kept = path->Assign(ViewOf(U16Text(name)));
  ::CoTaskMemFree(name);
  return kept;
}

// The paths of the items of `items`; false when one cannot be read.
bool PathsOfItems(IShellItemArray* items, std::vector<WideString>* paths) {
  DWORD count = 0;
  if (items == nullptr || FAILED(items->GetCount(&count))) return false;
  for (DWORD i = 0; i < count; ++i) {
    ComPtr<IShellItem> item;
    WideString path;
    if (FAILED(items->GetItemAt(i, item.put())) || !PathOfItem(item.get(), &path)) return false;
    paths->push_back(std::move(path));
  }
  return true;
}

// ---------------------------------------------------------------------------------------------
// Shell variant

class ShellFileDialog;

// Told of the dialog's selection and type changes while it is shown; the owner detaches it
// before the owner goes.
class DialogEvents final : public ComObject<IFileDialogEvents> {
 public:
  explicit DialogEvents(ShellFileDialog* owner) noexcept : owner_(owner) {}
  void Detach() noexcept { owner_ = nullptr; }

  HRESULT STDMETHODCALLTYPE OnFileOk(IFileDialog*) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE OnFolderChanging(IFileDialog*, IShellItem*) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE OnFolderChange(IFileDialog*) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE OnSelectionChange(IFileDialog* dialog) override;
  HRESULT STDMETHODCALLTYPE OnShareViolation(IFileDialog*, IShellItem*,
                                             FDE_SHAREVIOLATION_RESPONSE*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE OnTypeChange(IFileDialog* dialog) override;
  HRESULT STDMETHODCALLTYPE OnOverwrite(IFileDialog*, IShellItem*,
                                        FDE_OVERWRITE_RESPONSE*) override {
    return E_NOTIMPL;
  }

 private:
  ShellFileDialog* owner_;
};

class ShellFileDialog final : public FileDialog {
 public:
  bool Setup(const FileDialogRequest& request) override {
    try {
      if (SetupDialog(request)) return true;
    } catch (...) {
      // no memory for the filter table: as a dialog that cannot be built
    }
    dialog_ = nullptr;
    return false;
  }

  int Show(HWND owner) override {
    results_.clear();
    if (!dialog_) return kFileDialogFailed;
    ComPtr<DialogEvents> events;
    try {
      events = MakeComObject<DialogEvents>(this);
    } catch (...) {
      return kFileDialogFailed;
    }
    DWORD cookie = 0;
    const bool advised = SUCCEEDED(dialog_->Advise(events.get(), &cookie));
    const HRESULT shown = dialog_->Show(owner);
    if (advised) (void)dialog_->Unadvise(cookie);
    events->Detach();
    if (owner != nullptr) (void)platform::SetForegroundWindow(owner);
    if (shown == kDialogCancelled) return kFileDialogCancelled;
    if (FAILED(shown)) return kFileDialogFailed;
    UINT typeIndex = 0;
    if (SUCCEEDED(dialog_->GetFileTypeIndex(&typeIndex)) && typeIndex > 0) {
      filterIndex_ = typeIndex - 1;
    }
    try {
      if (ReadResults()) return kFileDialogOk;
    } catch (...) {
      // no memory for the list
    }
    results_.clear();
    return kFileDialogFailed;
  }

  // Asks the request's callback whether the extra button of an open dialog is enabled.
  void UpdateExtraButton(IFileDialog* dialog) noexcept {
    if (!open_ || !extraButton_ || callback_ == nullptr || dialog == nullptr) return;
    selectionPending_ = true;
    try {
      UINT typeIndex = 0;
      if (FAILED(dialog->GetFileTypeIndex(&typeIndex))) typeIndex = 0;
      std::vector<WideString> selection;
      ComPtr<IFileOpenDialog> openDialog;
      ComPtr<IShellItemArray> items;
      if (SUCCEEDED(dialog->QueryInterface(IID_IFileOpenDialog, openDialog.put_void())) &&
          SUCCEEDED(openDialog->GetSelectedItems(items.put()))) {
        (void)PathsOfItems(items.get(), &selection);  // an unreadable item ends the list
      }
      const bool enabled = callback_(typeIndex > 0 ? typeIndex - 1 : 0, selection, callbackData_);
      ComPtr<IFileDialogCustomize> customize;
      if (SUCCEEDED(dialog->QueryInterface(IID_IFileDialogCustomize, customize.put_void()))) {
        (void)customize->SetControlState(kExtraButtonId,
                                         enabled ? CDCS_ENABLEDVISIBLE : CDCS_VISIBLE);
      }
    } catch (...) {
      // no memory for the selection: the button keeps its state
    }
    selectionPending_ = false;
  }

 private:
  bool SetupDialog(const FileDialogRequest& request) {
    results_.clear();
    dialog_ = nullptr;
    open_ = request.Open != 0;
    if (FAILED(::CoCreateInstance(open_ ? CLSID_FileOpenDialog : CLSID_FileSaveDialog, nullptr,
                                  kDialogContext, IID_IFileDialog, dialog_.put_void())) ||
        !dialog_) {
      return false;
    }

    appendExtension_ = !open_ && request.AppendExtension != 0;
    if (HasText(request.Title) && FAILED(dialog_->SetTitle(OleText(request.Title)))) {
      return false;
    }
    if (HasText(request.OkLabel) && FAILED(dialog_->SetOkButtonLabel(OleText(request.OkLabel)))) {
      return false;
    }
    if (HasText(request.FileNameLabel) &&
        FAILED(dialog_->SetFileNameLabel(OleText(request.FileNameLabel)))) {
      return false;
    }
    if (HasText(request.CancelLabel)) {
      // Dialogs without IFileDialog2 keep their own label.
      ComPtr<IFileDialog2> dialog2;
      if (SUCCEEDED(dialog_.As(IID_IFileDialog2, &dialog2)) &&
          FAILED(dialog2->SetCancelButtonLabel(OleText(request.CancelLabel)))) {
        return false;
      }
    }

    const std::vector<std::pair<WideString, WideString>> pairs =
        SplitFilter(ViewOf(request.Filter));
    std::vector<COMDLG_FILTERSPEC> specs;
    for (const auto& [name, pattern] : pairs) {
      specs.push_back(COMDLG_FILTERSPEC{OleText(name.c_str()), OleText(pattern.c_str())});
    }
    const bool indexInRange = request.FilterIndex < pairs.size();
    filterIndex_ = indexInRange ? request.FilterIndex : 0;
    if (!defaultExtension_.Assign(BareExtension(request.DefaultExtension))) return false;

    if (HasText(request.FileName) && FAILED(dialog_->SetFileName(OleText(request.FileName)))) {
      return false;
    }
    if (FAILED(dialog_->SetOptions(request.Options))) return false;
    if (!defaultExtension_.IsEmpty() &&
        FAILED(dialog_->SetDefaultExtension(OleText(defaultExtension_.c_str())))) {
      return false;
    }
    // The dialog copies the table; an empty one is not handed over.
    if (!specs.empty() &&
        FAILED(dialog_->SetFileTypes(static_cast<UINT>(specs.size()), specs.data()))) {
      return false;
    }
    if (HasText(request.InitialFolder)) {
      // A folder that cannot be reached leaves the dialog where the system puts it.
      ComPtr<IShellItem> folder;
      if (SUCCEEDED(platform::SHCreateItemFromParsingName(request.InitialFolder, nullptr,
                                                          IID_IShellItem, folder.put_void()))) {
        (void)dialog_->SetFolder(folder.get());
      }
    }
    if (indexInRange && FAILED(dialog_->SetFileTypeIndex(request.FilterIndex + 1))) return false;

    extraButton_ = request.ExtraButtonEnabled != 0;
    callback_ = request.ExtraButtonCallback;
    callbackData_ = request.ExtraButtonData;
    AddCustomControls(request);
    return true;
  }

  // The extra controls are decoration: a dialog that refuses one is still asked. (A save dialog
  // with both extra controls asks for id 1002 twice; the second is refused, on purpose kept.)
  void AddCustomControls(const FileDialogRequest& request) noexcept {
    if (!extraButton_ && !HasText(request.CheckLabel)) return;
    ComPtr<IFileDialogCustomize> customize;
    if (FAILED(dialog_.As(IID_IFileDialogCustomize, &customize))) return;
    if (extraButton_) {
      const char16_t* label = HasText(request.ButtonLabel) ? request.ButtonLabel : u"Settings";
      (void)customize->AddPushButton(kExtraButtonId, OleText(label));
      if (open_) {
        (void)customize->MakeProminent(kExtraButtonId);
      } else {
        (void)customize->AddText(kExtraSecondId, OleText(u""));
      }
    }
    if (HasText(request.CheckLabel)) {
      (void)customize->AddCheckButton(kExtraSecondId, OleText(request.CheckLabel),
                                      request.CheckState != 0 ? TRUE : FALSE);
    }
  }

  bool ReadResults() {
    if (open_) {
      ComPtr<IFileOpenDialog> openDialog;
      ComPtr<IShellItemArray> items;
      if (FAILED(dialog_.As(IID_IFileOpenDialog, &openDialog)) ||
          FAILED(openDialog->GetResults(items.put()))) {
        return false;
      }
      return PathsOfItems(items.get(), &results_);
    }
    ComPtr<IShellItem> item;
    WideString path;
    if (FAILED(dialog_->GetResult(item.put())) || !PathOfItem(item.get(), &path)) return false;
    if (appendExtension_ && !selectionPending_ && !defaultExtension_.IsEmpty() &&
        !AppendDefaultExtension(path, defaultExtension_.view())) {
      return false;
    }
    results_.push_back(std::move(path));
    return true;
  }

  ComPtr<IFileDialog> dialog_;
  bool open_ = false;
  bool appendExtension_ = false;
  bool extraButton_ = false;
  // Set while the extra button's state is worked out from the selection.
  bool selectionPending_ = false;
  WideString defaultExtension_;
  ExtraButtonCallbackFn callback_ = nullptr;
  void* callbackData_ = nullptr;
};

HRESULT DialogEvents::OnSelectionChange(IFileDialog* dialog) {
  if (owner_ != nullptr) owner_->UpdateExtraButton(dialog);
  return S_OK;
}

HRESULT DialogEvents::OnTypeChange(IFileDialog* dialog) {
  if (owner_ != nullptr) owner_->UpdateExtraButton(dialog);
  return S_OK;
}

// ---------------------------------------------------------------------------------------------
// Classic variant

// The classic name box refuses these characters, so a proposed name must not bring them.
WideString CleanFileName(std::u16string_view name) {
  constexpr std::u16string_view kRefused = u"\\/:*?\"<>|";
  WideString clean;
  for (const char16_t unit : name) {
    if (kRefused.find(unit) == kRefused.npos) clean.Append(unit);
  }
  return clean;
}

void AppendWord(std::vector<WORD>& block, std::uint32_t value) {
  block.push_back(static_cast<WORD>(value));
}
void AppendDword(std::vector<WORD>& block, std::uint32_t value) {
  block.push_back(static_cast<WORD>(value & 0xFFFF));
  block.push_back(static_cast<WORD>(value >> 16));
}
void AppendText(std::vector<WORD>& block, std::u16string_view text) {
  for (const char16_t unit : text) block.push_back(static_cast<WORD>(unit));
  block.push_back(0);
}

// A child dialog template in memory, laid out as DLGTEMPLATE and DLGITEMTEMPLATE: one panel
// under the classic dialog holding the extra push button.
std::vector<WORD> ExtraButtonTemplate(std::u16string_view label) {
  std::vector<WORD> block;
  AppendDword(block, 0x4400044C);  // child, clip siblings, control, set font, fixed sys, 3-D
  AppendDword(block, 0);           // extended style
  AppendWord(block, 1);            // one control
  AppendWord(block, 0);            // x, y, width, height in dialog units
  AppendWord(block, 0);
  AppendWord(block, 210);
  AppendWord(block, 19);
  AppendWord(block, 0);  // no menu
  AppendText(block, u"FileDlg");
  AppendWord(block, 0);  // no title
  AppendWord(block, 8);  // point size of the font
  AppendText(block, u"MS Shell Dlg");
  if (block.size() % 2 != 0) AppendWord(block, 0);  // items start on a 4-byte boundary
  AppendDword(block, 0x50010000);                   // child, visible, tab stop, push button
  AppendDword(block, 0);
  AppendWord(block, 133);
  AppendWord(block, 2);
  AppendWord(block, 70);
  AppendWord(block, 14);
  AppendWord(block, kExtraButtonId);
  AppendWord(block, 0xFFFF);  // the predefined button class
  AppendWord(block, 0x0080);
  AppendText(block, label);
  AppendWord(block, 0);  // no creation data
  return block;
}

class ClassicFileDialog final : public FileDialog {
 public:
  bool Setup(const FileDialogRequest& request) override {
    try {
      return SetupQuestion(request);
    } catch (...) {
      return false;  // no memory for the buffers
    }
  }

  int Show(HWND owner) override {
    results_.clear();
    if (file_.empty()) return kFileDialogFailed;
    if (ofn_.hwndOwner == nullptr) ofn_.hwndOwner = owner;
    const BOOL chosen =
        open_ ? platform::GetOpenFileNameW(&ofn_) : platform::GetSaveFileNameW(&ofn_);
    try {
      if (!chosen) {
        if (platform::CommDlgExtendedError() != FNERR_BUFFERTOOSMALL) return kFileDialogCancelled;
        results_ = gathered_;
        return kFileDialogOk;
      }
      if (ReadResults()) return kFileDialogOk;
    } catch (...) {
      // no memory for the list
    }
    results_.clear();
    return kFileDialogFailed;
  }

 private:
  // Passes every message on to the dialog. The selection it would gather for a buffer that is
  // too small stays empty where the system calls no hook (the console dialog).
  static platform::DialogResult MRWL_DIALOG_CALLBACK PassThroughHook(HWND, UINT,
                                                                     platform::DialogWParam,
                                                                     platform::DialogLParam) {
    return 0;
  }

  bool SetupQuestion(const FileDialogRequest& request) {
    results_.clear();
    gathered_.clear();
    open_ = request.Open != 0;
    appendExtension_ = !open_ && request.AppendExtension != 0;
    if (!defaultExtension_.Assign(BareExtension(request.DefaultExtension))) return false;
    filter_ = file_dialog_internal::ClassicFilterText(ViewOf(request.Filter));
    if (!initialFolder_.Assign(ViewOf(request.InitialFolder)) ||
        !title_.Assign(ViewOf(request.Title))) {
      return false;
    }

    // One unit more than the dialog is told of, so that the list always ends in two NULs.
    file_.assign(kFileBufferLength + 1, u'\0');
    const WideString name = CleanFileName(ViewOf(request.FileName));
    name.view().substr(0, kFileBufferLength - 1).copy(file_.data(), kFileBufferLength - 1);

    ofn_ = platform::OpenFileNameW{};
    ofn_.lStructSize = sizeof ofn_;
    ofn_.lpfnHook = &PassThroughHook;
    ofn_.lCustData = reinterpret_cast<platform::DialogLParam>(this);
    ofn_.Flags = file_dialog_internal::ClassicDialogFlags(request);
    ofn_.lpstrFilter = filter_.c_str();
    ofn_.nFilterIndex = request.FilterIndex + 1;
    filterIndex_ = request.FilterIndex;
    ofn_.lpstrFile = file_.data();
    ofn_.nMaxFile = kFileBufferLength;
    ofn_.lpstrDefExt = defaultExtension_.IsEmpty() ? nullptr : defaultExtension_.c_str();
    ofn_.lpstrInitialDir = initialFolder_.IsEmpty() ? nullptr : initialFolder_.c_str();
    ofn_.lpstrTitle = title_.IsEmpty() ? nullptr : title_.c_str();
    if (request.ExtraButtonEnabled != 0) {
      template_ = ExtraButtonTemplate(HasText(request.ButtonLabel) ? ViewOf(request.ButtonLabel)
                                                                   : u"Settings");
      ofn_.Flags |= OFN_ENABLETEMPLATEHANDLE;
      ofn_.hInstance = reinterpret_cast<HINSTANCE>(template_.data());
    }
    return true;
  }

  bool ReadResults() {
    if (ofn_.nFilterIndex > 0) filterIndex_ = ofn_.nFilterIndex - 1;
    const std::u16string_view first(file_.data());
    if ((ofn_.Flags & OFN_ALLOWMULTISELECT) != 0 && file_[first.size() + 1] != 0) {
      // A folder, then the names in it, each ended by a NUL, and one more NUL.
      std::size_t at = first.size() + 1;
      while (at < kFileBufferLength && file_[at] != 0) {
        const std::u16string_view name(file_.data() + at);
        WideString path(first);
        if (path.IsEmpty() || path[path.Length() - 1] != platform::PathSeparator()) {
          if (!path.Append(platform::PathSeparator())) return false;
        }
        if (!path.Append(name)) return false;
        results_.push_back(std::move(path));
        at += name.size() + 1;
      }
      return true;
    }
    WideString path;
    if (!path.Assign(first)) return false;
    if (appendExtension_ && !defaultExtension_.IsEmpty() &&
        !AppendDefaultExtension(path, defaultExtension_.view())) {
      return false;
    }
    results_.push_back(std::move(path));
    return true;
  }

  platform::OpenFileNameW ofn_{};
  bool open_ = false;
  bool appendExtension_ = false;
  WideString defaultExtension_;
  WideString filter_;
  WideString initialFolder_;
  WideString title_;
  std::vector<char16_t> file_;
  std::vector<WORD> template_;
  std::vector<WideString> gathered_;
};

}  // namespace

namespace file_dialog_internal {

WideString ClassicFilterText(std::u16string_view filter) {
  WideString text(filter);
  std::size_t trailing = 0;
  while (trailing < 2 && trailing < filter.size() && filter[filter.size() - 1 - trailing] == u'|') {
    ++trailing;
  }
  for (; trailing < 2; ++trailing) text.Append(u'|');
  for (std::size_t i = 0; i < text.Length(); ++i) {
    if (text[i] == u'|') text[i] = u'\0';
  }
  return text;
}

std::uint32_t ClassicDialogFlags(const FileDialogRequest& request) {
  std::uint32_t flags = BareExtension(request.DefaultExtension).empty()
                            ? kClassicBaseFlags
                            : kClassicFlagsWithExtension;
  if (request.Open != 0 && (request.Options & FOS_ALLOWMULTISELECT) != 0) {
    flags |= OFN_ALLOWMULTISELECT;
  }
  return flags | (request.Options & kCarriedOptions);
}

}  // namespace file_dialog_internal

bool CreateFileDialog(std::unique_ptr<FileDialog>& result, const FileDialogRequest& request,
                      bool forceClassic) {
  result.reset();
  try {
    if (!forceClassic) {
      auto shell = std::make_unique<ShellFileDialog>();
      if (shell->Setup(request)) {
        result = std::move(shell);
        return true;
      }
    }
    auto classic = std::make_unique<ClassicFileDialog>();
    if (!classic->Setup(request)) return false;
    result = std::move(classic);
    return true;
  } catch (...) {
    return false;  // no memory for the dialog object
  }
}

}  // namespace mrwl
