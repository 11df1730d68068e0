// The conversion driver: what runs between a click on "Convert to PDF" or "Convert to PDF
// portfolio" and the start of the converter process.
//
// The add-in object makes a ConversionDriver over its own Outlook application, settings and
// store for each command and calls RunConversion. The driver works out which window is active,
// picks the item or items, asks for the output file, has each item exported and starts the
// converter. It never waits for the converter: a run ends when the converter has been started.
//
// Inside the chain a step answers true or false; false stops the run, and the message, if any,
// was shown where the failure arose. Main thread only; the save dialog is modal on it.
#pragma once

#include <string_view>

#include "conversion/conversion_store.h"
#include "conversion/item_wrapper.h"
#include "foundation/wide_string.h"
#include "platform/com.h"
#include "platform/com_object.h"
#include "platform/com_ptr.h"
#include "platform/outlook.h"
#include "platform/win_types.h"
#include "settings/addin_settings.h"

namespace mrwl {

// The converter program, which stands beside the module.
#if defined(_WIN32)
inline constexpr std::u16string_view kConverterFileName = u"HtmlToPdfApp.x86.exe";
#else
inline constexpr std::u16string_view kConverterFileName = u"HtmlToPdfApp";
#endif

// The caption of every message of the add-in.
inline constexpr std::u16string_view kAddinMessageCaption = u"Marrowline Outlook Addin";

inline constexpr std::u16string_view kNoMailSelectedMessage =
    u"No mail item selected for conversion. Please, select or open a mail item.";
inline constexpr std::u16string_view kConverterMissingMessage =
    u"HtmlToPdf application could not be found - please reinstall.";
inline constexpr std::u16string_view kNoTempFolderMessage = u"Unable to get temporary folder.";
inline constexpr std::u16string_view kSaveItemFailedMessage =
    u"Unable to save email file into user's temporary folder.";

// What GetActiveWindowKind tells.
inline constexpr int kInspectorWindow = 0;
inline constexpr int kExplorerWindow = 1;
inline constexpr int kOtherWindow = 2;  // neither, or the test couldn't say

// One conversion's request, built on the stack by the caller and filled by PrepareConversion.
struct ConverterRequest {
  HWND OwnerWindow = nullptr;  // the owner for starting the converter; nothing assigns it
  WideString ConverterPath;    // ModuleFolder and kConverterFileName
  WideString OutputPath;       // the PDF the user chose
};

// Shows `text` in a message box with no owner, the caption "Marrowline Outlook Addin" and no
// icon.
void ShowAddinMessage(std::u16string_view text) noexcept;

// Ends a command that raised a COM error, without a word: takes the error's source and
// description, drops both unread, and returns the error's HRESULT.
HRESULT HandleComError(const ComError& error) noexcept;

// Copies the real attachments of `wrapper` into `folder` (ending in its separator) under their
// own file names and lists the paths in `job`. Inline pictures of the body are passed over; an
// attachment that can't be read or saved is left out without a word. DeleteAttachments becomes
// true as soon as the item has any attachment, before anything is written. The name is taken as
// it stands: two attachments of one name share one file, the later replacing the earlier, and the
// path then stands in the lists twice.
void SaveAttachments(ItemWrapper& wrapper, std::u16string_view folder, ConversionJob& job);

// The two carriers of the hand-off record. The file is the one in use; the converter is told
// which by its option, so the mapping carrier stays ready but unchosen.
enum class HandoffCarrier { kFile, kMapping };
inline constexpr HandoffCarrier kHandoffCarrier = HandoffCarrier::kFile;

class ConversionDriver {
 public:
  // The driver works on the add-in's own fields, which must outlive it.
  ConversionDriver(ComPtr<outlook::_Application>& application, AddinSettings& settings,
                   ConversionStore& store) noexcept
      : application_(application), settings_(settings), store_(store) {}
  ConversionDriver(const ConversionDriver&) = delete;
  ConversionDriver& operator=(const ConversionDriver&) = delete;
  virtual ~ConversionDriver() = default;

  // Converts what the active window shows: the selection of an explorer, the item of an
  // inspector. Returns 1 when the window can't be told, 0 for any other window (no message), and
  // otherwise what ConvertSelection or ConvertOpenItem return. The caller drops the result.
  HRESULT RunConversion(bool portfolio);

  // Sets `kind` to kExplorerWindow, kInspectorWindow or kOtherWindow for the active window; an
  // object that is both counts as an explorer, and no active window as kOtherWindow. Returns
  // E_POINTER without an application. A failing ActiveWindow, or a query failing with anything
  // but E_NOINTERFACE, returns S_OK with `kind` as it came.
  HRESULT GetActiveWindowKind(int& kind);

  // Converts the active explorer's selection: each mail or meeting item to a PDF of its own, with
  // its own save dialog and converter, or with `portfolio` all of them into one file, with one
  // dialog and one converter. Items of other kinds are skipped without a word. Returns:
  // a failing ActiveExplorer or Selection's code; 1 with the message kNoMailSelectedMessage for
  // no selection or an empty one; E_FAIL when an item's conversion failed (the items behind it
  // stay unconverted) or, in a portfolio, an export or the start; 0 for a cancelled portfolio;
  // otherwise the code of the last fetch of an item. A COM error raised from the count on gives
  // its HRESULT; any other exception the last code held.
  HRESULT ConvertSelection(bool portfolio);

  // Converts the active inspector's item, if it is a mail or meeting item. Always returns 0; a
  // COM error or any other exception ends the command without a word.
  HRESULT ConvertOpenItem(bool portfolio);

  // Converts one item: the save dialog proposing the sanitised subject, then the export and the
  // start of the converter. With `portfolio` the item makes a portfolio of its own. False when
  // the user cancelled or a step failed; the message, if any, was shown.
  bool ConvertOneItem(ItemWrapper& wrapper, bool portfolio);

  // Asks for the output file, proposing `defaultName`, then checks that the converter stands
  // beside the module, then clears the store and reads the settings afresh from the registry.
  // False without a message when the user cancelled; false after kConverterMissingMessage (no
  // caption, stop icon) when the converter is missing. `request` receives the output and
  // converter paths.
  bool PrepareConversion(std::u16string_view defaultName, ConverterRequest& request);

  // Puts the store into portfolio mode, with `user`, `folder` and the request's output path.
  // From then on each export makes a MailRecord. Returns true.
  bool BeginPortfolio(std::u16string_view user, std::u16string_view folder,
                      const ConverterRequest& request);

  // Has Outlook write `wrapper`'s item as an HTML page into the temporary folder and appends its
  // job to the store, with a MailRecord in portfolio mode and the attachments when the settings
  // ask for them. True when the page stands in the temporary folder and the store has its job.
  // False with no message when no job could be made; after kNoTempFolderMessage when no name
  // could be found; after kSaveItemFailedMessage when Outlook couldn't write the page, whose job
  // then stays in the store with DeletePage false.
  virtual bool ExportItem(ItemWrapper& wrapper, const ConverterRequest& request);

  // Hands the store to the converter and starts it, without waiting: takes the security and
  // run-application settings into the store, makes the portfolio's file names distinct, writes
  // the hand-off and starts request.ConverterPath with the option string. False, with nothing
  // started, when the hand-off couldn't be written. A converter that fails to start takes the
  // hand-off file, the pages and the attachment copies with it, without a message; the result is
  // then still true, so that a run of several items goes on.
  virtual bool LaunchConverter(const ConverterRequest& request);

 protected:
  ComPtr<outlook::_Application>& application_;
  AddinSettings& settings_;
  ConversionStore& store_;
};

}  // namespace mrwl
