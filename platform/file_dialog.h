// File dialogs: the shell's dialog objects (IFileDialog and its family, shell items) and the
// classic GetSaveFileNameW / GetOpenFileNameW, under their Windows names and meanings.
//
// On Windows the interfaces are the system's own. Elsewhere this header declares a binary-
// compatible subset at global scope: the same interfaces with their methods in the order of the
// Windows vtables, the same IIDs, class ids, flags and structure layouts. This system has no
// shell dialog objects of its own: CLSID_FileOpenDialog and CLSID_FileSaveDialog exist only
// where a part of the system registers a class object for them (a desktop file chooser), so
// CoCreateInstance fails with REGDB_E_CLASSNOTREG otherwise.
//
// The classic functions of the Linux backend are the host's console dialog. It answers, in this
// order of preference:
//   1. with the next answer the host queued in advance (QueueFileDialogAnswer,
//      QueueFileDialogCancel), taken without any question, also when the file exists;
//      then, for a save question, with the host's standing answer (SetFileDialogFolderAnswer);
//   2. on a terminal (standard input and standard error both terminals), by asking on standard
//      error and reading lines from standard input;
//   3. otherwise with a cancel: FALSE, and CommDlgExtendedError() 0.
// A relative path in an answer or typed on the terminal is relative to lpstrInitialDir when that
// is given and to the current folder otherwise. The console adds lpstrDefExt to a name without
// an extension, as the Windows dialog does. Any thread may call these functions; questions on
// the terminal are asked one at a time.
#pragma once

#include <cstdint>
#include <string_view>

#include "platform/com.h"
#include "platform/com_object.h"
#include "platform/win_types.h"

#if defined(_WIN32)

#include <cderr.h>
#include <commdlg.h>
#include <shobjidl.h>

#else  // !_WIN32

struct IBindCtx;
struct IShellItemFilter;
struct IPropertyStore;
struct IPropertyDescriptionList;
struct IFileOperationProgressSink;
struct IEnumShellItems;
struct PROPERTYKEY;
using REFPROPERTYKEY = const PROPERTYKEY&;

// ---------------------------------------------------------------------------------------------
// Values

using SFGAOF = ULONG;
using SICHINTF = DWORD;
using FILEOPENDIALOGOPTIONS = DWORD;

enum SIGDN : int {
  SIGDN_NORMALDISPLAY = 0x0,
  SIGDN_PARENTRELATIVEPARSING = static_cast<int>(0x80018001u),
  SIGDN_DESKTOPABSOLUTEPARSING = static_cast<int>(0x80028000u),
  SIGDN_PARENTRELATIVEEDITING = static_cast<int>(0x80031001u),
  SIGDN_DESKTOPABSOLUTEEDITING = static_cast<int>(0x8004C000u),
  SIGDN_FILESYSPATH = static_cast<int>(0x80058000u),
  SIGDN_URL = static_cast<int>(0x80068000u),
  SIGDN_PARENTRELATIVEFORADDRESSBAR = static_cast<int>(0x8007C001u),
  SIGDN_PARENTRELATIVE = static_cast<int>(0x80080001u),
  SIGDN_PARENTRELATIVEFORUI = static_cast<int>(0x80094001u),
};

enum SIATTRIBFLAGS {
  SIATTRIBFLAGS_AND = 0x1,
  SIATTRIBFLAGS_OR = 0x2,
  SIATTRIBFLAGS_APPCOMPAT = 0x3,
  SIATTRIBFLAGS_MASK = 0x3,
  SIATTRIBFLAGS_ALLITEMS = 0x4000,
};

enum GETPROPERTYSTOREFLAGS { GPS_DEFAULT = 0 };

enum FDAP { FDAP_BOTTOM = 0, FDAP_TOP = 1 };

enum FDE_SHAREVIOLATION_RESPONSE {
  FDESVR_DEFAULT = 0,
  FDESVR_ACCEPT = 1,
  FDESVR_REFUSE = 2,
};

enum FDE_OVERWRITE_RESPONSE {
  FDEOR_DEFAULT = 0,
  FDEOR_ACCEPT = 1,
  FDEOR_REFUSE = 2,
};

enum CDCONTROLSTATEF {
  CDCS_INACTIVE = 0x0,
  CDCS_ENABLED = 0x1,
  CDCS_VISIBLE = 0x2,
  CDCS_ENABLEDVISIBLE = 0x3,
};

// Shell item attributes answered by this backend.
#ifndef SFGAO_FOLDER
#define SFGAO_FOLDER 0x20000000u
#endif
#ifndef SFGAO_FILESYSTEM
#define SFGAO_FILESYSTEM 0x40000000u
#endif

// Options of IFileDialog::SetOptions.
#define FOS_OVERWRITEPROMPT 0x00000002u
#define FOS_STRICTFILETYPES 0x00000004u
#define FOS_NOCHANGEDIR 0x00000008u
#define FOS_PICKFOLDERS 0x00000020u
#define FOS_FORCEFILESYSTEM 0x00000040u
#define FOS_ALLNONSTORAGEITEMS 0x00000080u
#define FOS_NOVALIDATE 0x00000100u
#define FOS_ALLOWMULTISELECT 0x00000200u
#define FOS_PATHMUSTEXIST 0x00000800u
#define FOS_FILEMUSTEXIST 0x00001000u
#define FOS_CREATEPROMPT 0x00002000u
#define FOS_SHAREAWARE 0x00004000u
#define FOS_NOREADONLYRETURN 0x00008000u
#define FOS_NOTESTFILECREATE 0x00010000u
#define FOS_HIDEMRUPLACES 0x00020000u
#define FOS_HIDEPINNEDPLACES 0x00040000u
#define FOS_NODEREFERENCELINKS 0x00100000u
#define FOS_OKBUTTONNEEDSINTERACTION 0x00200000u
#define FOS_DONTADDTORECENT 0x02000000u
#define FOS_FORCESHOWHIDDEN 0x10000000u
#define FOS_DEFAULTNOMINIMODE 0x20000000u
#define FOS_FORCEPREVIEWPANEON 0x40000000u
#define FOS_SUPPORTSTREAMABLEITEMS 0x80000000u

struct COMDLG_FILTERSPEC {
  const OLECHAR* pszName;
  const OLECHAR* pszSpec;
};

inline constexpr CLSID CLSID_FileOpenDialog = {
    0xDC1C5A9C, 0xE88A, 0x4DDE, {0xA5, 0xA1, 0x60, 0xF8, 0x2A, 0x20, 0xAE, 0xF7}};
inline constexpr CLSID CLSID_FileSaveDialog = {
    0xC0B4E2F3, 0xBA21, 0x4773, {0x8D, 0xBA, 0x33, 0x5E, 0xC9, 0x46, 0xEB, 0x8B}};

inline constexpr IID IID_IModalWindow = {
    0xB4DB1657, 0x70D7, 0x485E, {0x8E, 0x3E, 0x6F, 0xCB, 0x5A, 0x5C, 0x18, 0x02}};
inline constexpr IID IID_IShellItem = {
    0x43826D1E, 0xE718, 0x42EE, {0xBC, 0x55, 0xA1, 0xE2, 0x61, 0xC3, 0x7B, 0xFE}};
inline constexpr IID IID_IShellItemArray = {
    0xB63EA76D, 0x1F85, 0x456F, {0xA1, 0x9C, 0x48, 0x15, 0x9E, 0xFA, 0x85, 0x8B}};
inline constexpr IID IID_IFileDialog = {
    0x42F85136, 0xDB7E, 0x439C, {0x85, 0xF1, 0xE4, 0x07, 0x5D, 0x13, 0x5F, 0xC8}};
inline constexpr IID IID_IFileOpenDialog = {
    0xD57C7288, 0xD4AD, 0x4768, {0xBE, 0x02, 0x9D, 0x96, 0x95, 0x32, 0xD9, 0x60}};
inline constexpr IID IID_IFileSaveDialog = {
    0x84BCCD23, 0x5FDE, 0x4CDB, {0xAE, 0xA4, 0xAF, 0x64, 0xB8, 0x3D, 0x78, 0xAB}};
inline constexpr IID IID_IFileDialog2 = {
    0x61744FC7, 0x85B5, 0x4791, {0xA9, 0xB0, 0x27, 0x22, 0x76, 0x30, 0x9B, 0x13}};
inline constexpr IID IID_IFileDialogCustomize = {
    0xE6FDD21A, 0x163F, 0x4975, {0x9C, 0x8C, 0xA6, 0x9F, 0x1B, 0xA3, 0x70, 0x34}};
inline constexpr IID IID_IFileDialogEvents = {
    0x973510DB, 0x7D7F, 0x452B, {0x89, 0x75, 0x74, 0xA8, 0x58, 0x28, 0xD3, 0x54}};

// ---------------------------------------------------------------------------------------------
// Interfaces, each with its methods in the order of the Windows vtable.

// A file or folder of the shell. Strings handed out come from CoTaskMemAlloc; the caller frees
// them with CoTaskMemFree.
struct IShellItem : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE BindToHandler(IBindCtx* bindContext, REFGUID handler,
                                                  REFIID iid, void** object) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetParent(IShellItem** parent) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetDisplayName(SIGDN form, OLECHAR** name) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetAttributes(SFGAOF mask, SFGAOF* attributes) = 0;
  virtual HRESULT STDMETHODCALLTYPE Compare(IShellItem* other, SICHINTF hint, int* order) = 0;

 protected:
  ~IShellItem() = default;
};

struct IShellItemArray : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE BindToHandler(IBindCtx* bindContext, REFGUID handler,
                                                  REFIID iid, void** object) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetPropertyStore(GETPROPERTYSTOREFLAGS flags, REFIID iid,
                                                     void** store) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetPropertyDescriptionList(REFPROPERTYKEY keyType, REFIID iid,
                                                               void** list) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetAttributes(SIATTRIBFLAGS flags, SFGAOF mask,
                                                  SFGAOF* attributes) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetCount(DWORD* count) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetItemAt(DWORD index, IShellItem** item) = 0;
  virtual HRESULT STDMETHODCALLTYPE EnumItems(IEnumShellItems** items) = 0;

 protected:
  ~IShellItemArray() = default;
};

struct IModalWindow : IUnknown {
  // S_OK when the user accepted; HRESULT_FROM_WIN32(ERROR_CANCELLED) when they cancelled.
  virtual HRESULT STDMETHODCALLTYPE Show(HWND owner) = 0;

 protected:
  ~IModalWindow() = default;
};

struct IFileDialogEvents;

struct IFileDialog : IModalWindow {
  virtual HRESULT STDMETHODCALLTYPE SetFileTypes(UINT count,
                                                 const COMDLG_FILTERSPEC* filterSpec) = 0;
  // One-based.
  virtual HRESULT STDMETHODCALLTYPE SetFileTypeIndex(UINT index) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetFileTypeIndex(UINT* index) = 0;
  virtual HRESULT STDMETHODCALLTYPE Advise(IFileDialogEvents* events, DWORD* cookie) = 0;
  virtual HRESULT STDMETHODCALLTYPE Unadvise(DWORD cookie) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetOptions(FILEOPENDIALOGOPTIONS options) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetOptions(FILEOPENDIALOGOPTIONS* options) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetDefaultFolder(IShellItem* folder) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetFolder(IShellItem* folder) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetFolder(IShellItem** folder) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetCurrentSelection(IShellItem** item) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetFileName(const OLECHAR* name) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetFileName(OLECHAR** name) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetTitle(const OLECHAR* title) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetOkButtonLabel(const OLECHAR* text) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetFileNameLabel(const OLECHAR* label) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetResult(IShellItem** item) = 0;
  virtual HRESULT STDMETHODCALLTYPE AddPlace(IShellItem* item, FDAP where) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetDefaultExtension(const OLECHAR* extension) = 0;
  virtual HRESULT STDMETHODCALLTYPE Close(HRESULT result) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetClientGuid(REFGUID guid) = 0;
  virtual HRESULT STDMETHODCALLTYPE ClearClientData() = 0;
  virtual HRESULT STDMETHODCALLTYPE SetFilter(IShellItemFilter* filter) = 0;

 protected:
  ~IFileDialog() = default;
};

struct IFileOpenDialog : IFileDialog {
  virtual HRESULT STDMETHODCALLTYPE GetResults(IShellItemArray** items) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetSelectedItems(IShellItemArray** items) = 0;

 protected:
  ~IFileOpenDialog() = default;
};

struct IFileSaveDialog : IFileDialog {
  virtual HRESULT STDMETHODCALLTYPE SetSaveAsItem(IShellItem* item) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetProperties(IPropertyStore* store) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetCollectedProperties(IPropertyDescriptionList* list,
                                                           BOOL appendDefault) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetProperties(IPropertyStore** store) = 0;
  virtual HRESULT STDMETHODCALLTYPE ApplyProperties(IShellItem* item, IPropertyStore* store,
                                                    HWND window,
                                                    IFileOperationProgressSink* sink) = 0;

 protected:
  ~IFileSaveDialog() = default;
};

struct IFileDialog2 : IFileDialog {
  virtual HRESULT STDMETHODCALLTYPE SetCancelButtonLabel(const OLECHAR* label) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetNavigationObject(IShellItem* item) = 0;

 protected:
  ~IFileDialog2() = default;
};

struct IFileDialogCustomize : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE EnableOpenDropDown(DWORD id) = 0;
  virtual HRESULT STDMETHODCALLTYPE AddMenu(DWORD id, const OLECHAR* label) = 0;
  virtual HRESULT STDMETHODCALLTYPE AddPushButton(DWORD id, const OLECHAR* label) = 0;
  virtual HRESULT STDMETHODCALLTYPE AddComboBox(DWORD id) = 0;
  virtual HRESULT STDMETHODCALLTYPE AddRadioButtonList(DWORD id) = 0;
  virtual HRESULT STDMETHODCALLTYPE AddCheckButton(DWORD id, const OLECHAR* label,
                                                   BOOL checked) = 0;
  virtual HRESULT STDMETHODCALLTYPE AddEditBox(DWORD id, const OLECHAR* text) = 0;
  virtual HRESULT STDMETHODCALLTYPE AddSeparator(DWORD id) = 0;
  virtual HRESULT STDMETHODCALLTYPE AddText(DWORD id, const OLECHAR* text) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetControlLabel(DWORD id, const OLECHAR* label) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetControlState(DWORD id, CDCONTROLSTATEF* state) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetControlState(DWORD id, CDCONTROLSTATEF state) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetEditBoxText(DWORD id, OLECHAR** text) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetEditBoxText(DWORD id, const OLECHAR* text) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetCheckButtonState(DWORD id, BOOL* checked) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetCheckButtonState(DWORD id, BOOL checked) = 0;
  virtual HRESULT STDMETHODCALLTYPE AddControlItem(DWORD id, DWORD item, const OLECHAR* label) = 0;
  virtual HRESULT STDMETHODCALLTYPE RemoveControlItem(DWORD id, DWORD item) = 0;
  virtual HRESULT STDMETHODCALLTYPE RemoveAllControlItems(DWORD id) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetControlItemState(DWORD id, DWORD item,
                                                        CDCONTROLSTATEF* state) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetControlItemState(DWORD id, DWORD item,
                                                        CDCONTROLSTATEF state) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetSelectedControlItem(DWORD id, DWORD* item) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetSelectedControlItem(DWORD id, DWORD item) = 0;
  virtual HRESULT STDMETHODCALLTYPE StartVisualGroup(DWORD id, const OLECHAR* label) = 0;
  virtual HRESULT STDMETHODCALLTYPE EndVisualGroup() = 0;
  virtual HRESULT STDMETHODCALLTYPE MakeProminent(DWORD id) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetControlItemText(DWORD id, DWORD item,
                                                       const OLECHAR* label) = 0;

 protected:
  ~IFileDialogCustomize() = default;
};

// Notifications of a file dialog to its client. E_NOTIMPL from OnShareViolation and OnOverwrite
// leaves the answer to the dialog.
struct IFileDialogEvents : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE OnFileOk(IFileDialog* dialog) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnFolderChanging(IFileDialog* dialog, IShellItem* folder) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnFolderChange(IFileDialog* dialog) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnSelectionChange(IFileDialog* dialog) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnShareViolation(IFileDialog* dialog, IShellItem* item,
                                                     FDE_SHAREVIOLATION_RESPONSE* response) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnTypeChange(IFileDialog* dialog) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnOverwrite(IFileDialog* dialog, IShellItem* item,
                                                FDE_OVERWRITE_RESPONSE* response) = 0;

 protected:
  ~IFileDialogEvents() = default;
};

// ---------------------------------------------------------------------------------------------
// Flags and errors of the classic dialog

#define OFN_READONLY 0x00000001u
#define OFN_OVERWRITEPROMPT 0x00000002u
#define OFN_HIDEREADONLY 0x00000004u
#define OFN_NOCHANGEDIR 0x00000008u
#define OFN_SHOWHELP 0x00000010u
#define OFN_ENABLEHOOK 0x00000020u
#define OFN_ENABLETEMPLATE 0x00000040u
#define OFN_ENABLETEMPLATEHANDLE 0x00000080u
#define OFN_NOVALIDATE 0x00000100u
#define OFN_ALLOWMULTISELECT 0x00000200u
#define OFN_EXTENSIONDIFFERENT 0x00000400u
#define OFN_PATHMUSTEXIST 0x00000800u
#define OFN_FILEMUSTEXIST 0x00001000u
#define OFN_CREATEPROMPT 0x00002000u
#define OFN_SHAREAWARE 0x00004000u
#define OFN_NOREADONLYRETURN 0x00008000u
#define OFN_NOTESTFILECREATE 0x00010000u
#define OFN_NONETWORKBUTTON 0x00020000u
#define OFN_NOLONGNAMES 0x00040000u
#define OFN_EXPLORER 0x00080000u
#define OFN_NODEREFERENCELINKS 0x00100000u
#define OFN_LONGNAMES 0x00200000u
#define OFN_ENABLEINCLUDENOTIFY 0x00400000u
#define OFN_ENABLESIZING 0x00800000u
#define OFN_DONTADDTORECENT 0x02000000u
#define OFN_FORCESHOWHIDDEN 0x10000000u

#define CDERR_STRUCTSIZE 0x0001u
#define CDERR_INITIALIZATION 0x0002u
#define CDERR_MEMALLOCFAILURE 0x0009u
#define FNERR_SUBCLASSFAILURE 0x3001u
#define FNERR_INVALIDFILENAME 0x3002u
#define FNERR_BUFFERTOOSMALL 0x3003u

#endif  // !_WIN32

MRWL_INTERFACE_ID(IShellItem, IID_IShellItem);
MRWL_INTERFACE_ID(IShellItemArray, IID_IShellItemArray);
MRWL_INTERFACE_ID(IModalWindow, IID_IModalWindow);
MRWL_INTERFACE_ID(IFileDialog, IID_IFileDialog);
MRWL_INTERFACE_ID(IFileOpenDialog, IID_IFileOpenDialog);
MRWL_INTERFACE_ID(IFileSaveDialog, IID_IFileSaveDialog);
MRWL_INTERFACE_ID(IFileDialog2, IID_IFileDialog2);
MRWL_INTERFACE_ID(IFileDialogCustomize, IID_IFileDialogCustomize);
MRWL_INTERFACE_ID(IFileDialogEvents, IID_IFileDialogEvents);

namespace mrwl::platform {

// The hook of the classic dialog: window, message, and the message's two parameters.
#if defined(_WIN32)
using DialogWParam = WPARAM;
using DialogLParam = LPARAM;
using DialogResult = UINT_PTR;
#define MRWL_DIALOG_CALLBACK CALLBACK
#else
using DialogWParam = std::uintptr_t;
using DialogLParam = std::intptr_t;
using DialogResult = std::uintptr_t;
#define MRWL_DIALOG_CALLBACK
#endif
using OfnHookProc = DialogResult(MRWL_DIALOG_CALLBACK*)(HWND window, UINT message,
                                                        DialogWParam wParam, DialogLParam lParam);

// OPENFILENAMEW with the logic's text type; the layout is the system's.
struct OpenFileNameW {
  DWORD lStructSize;
  HWND hwndOwner;
  HINSTANCE hInstance;
  const char16_t* lpstrFilter;
  char16_t* lpstrCustomFilter;
  DWORD nMaxCustFilter;
  DWORD nFilterIndex;
  char16_t* lpstrFile;
  DWORD nMaxFile;
  char16_t* lpstrFileTitle;
  DWORD nMaxFileTitle;
  const char16_t* lpstrInitialDir;
  const char16_t* lpstrTitle;
  DWORD Flags;
  WORD nFileOffset;
  WORD nFileExtension;
  const char16_t* lpstrDefExt;
  DialogLParam lCustData;
  OfnHookProc lpfnHook;
  const char16_t* lpTemplateName;
  void* pvReserved;
  DWORD dwReserved;
  DWORD FlagsEx;
};
static_assert(sizeof(void*) != 8 || sizeof(OpenFileNameW) == 152);
#if defined(_WIN32)
static_assert(sizeof(OpenFileNameW) == sizeof(OPENFILENAMEW));
static_assert(offsetof(OpenFileNameW, lpstrFile) == offsetof(OPENFILENAMEW, lpstrFile));
static_assert(offsetof(OpenFileNameW, FlagsEx) == offsetof(OPENFILENAMEW, FlagsEx));
#endif

// Asks for a file to save. lpstrFile holds the proposed name on entry (a name or a full path) and
// receives the full path chosen, nFileOffset and nFileExtension pointing at its name and
// extension (nFileExtension at the terminator when there is none), and lpstrFileTitle, when
// given, the name alone. TRUE when a file was chosen. FALSE when the user cancelled, with
// CommDlgExtendedError() 0, or on an error with its code there: FNERR_BUFFERTOOSMALL when the
// path does not fit in nMaxFile characters (the first unit of lpstrFile then holds the size
// needed), CDERR_STRUCTSIZE for a wrong lStructSize, CDERR_INITIALIZATION without a buffer.
// With OFN_OVERWRITEPROMPT the user confirms before an existing file is taken.
BOOL GetSaveFileNameW(OpenFileNameW* question) noexcept;

// Asks for files to open; as GetSaveFileNameW. With OFN_ALLOWMULTISELECT and OFN_EXPLORER
// several files come back as the folder, a NUL, each name relative to that folder followed by a
// NUL, and one more NUL; a single file comes back as its full path followed by two NULs. With
// OFN_FILEMUSTEXIST only existing files are accepted on the terminal.
BOOL GetOpenFileNameW(OpenFileNameW* question) noexcept;

// The error of the calling thread's last classic dialog call; 0 after success or a cancel.
[[nodiscard]] DWORD CommDlgExtendedError() noexcept;

// A shell item for a file system path, answering `iid` (IID_IShellItem). On Linux the path must
// name an existing file or folder; a relative path is taken from the current folder. S_OK;
// E_INVALIDARG for a null or empty path; HRESULT_FROM_WIN32 of the system error when the path
// cannot be found (ERROR_FILE_NOT_FOUND, ERROR_PATH_NOT_FOUND, ...); E_NOINTERFACE for another
// iid. On Windows the backend resolves the shell's function once at first use.
HRESULT SHCreateItemFromParsingName(const char16_t* path, IBindCtx* bindContext, REFIID iid,
                                    void** item) noexcept;

// Answers the host gives the console dialog in advance (Linux; Windows asks the user).
// The answers form one process-wide queue, taken in order by the questions that follow, one
// answer per question, whatever kind the question is.
//
// Queues a path. An empty path accepts the name the question proposes (lpstrFile as given). For
// a multi-select open question `paths` may hold several paths separated by NUL characters; a
// question without OFN_ALLOWMULTISELECT takes the first. FALSE only when memory runs out.
BOOL QueueFileDialogAnswer(std::u16string_view paths) noexcept;
// Queues a cancel: the question it meets returns FALSE with CommDlgExtendedError() 0.
BOOL QueueFileDialogCancel() noexcept;
// Drops the answers not yet taken.
void ClearFileDialogAnswers() noexcept;
// Sets the standing answer for the save questions that no queued answer meets: each is answered
// with the name it proposes (its last component, with the default extension added) in `folder`,
// or with `nameForEmpty` when it proposes none. A name this standing answer gave before is not
// given again: the next free of "NAME (2).EXT", "NAME (3).EXT", ... is, so that mails of one
// subject do not overwrite each other. A name that exists already is taken when
// `replaceExisting`; otherwise the question goes to the terminal when there is one, and without
// one it is refused (FALSE, CommDlgExtendedError() 0) with the line "PATH already exists." on
// standard error. Open questions are not answered by it, nor are questions that propose no name
// when `nameForEmpty` is empty. An empty `folder` withdraws the standing answer. FALSE only when
// memory runs out.
BOOL SetFileDialogFolderAnswer(std::u16string_view folder, BOOL replaceExisting,
                               std::u16string_view nameForEmpty = {}) noexcept;
// The number of answers not yet taken.
[[nodiscard]] DWORD PendingFileDialogAnswers() noexcept;

}  // namespace mrwl::platform
