#include "conversion/conversion_driver.h"

#include "conversion/output_naming.h"
#include "conversion/temp_store.h"
#include "foundation/log.h"
#include "foundation/paths.h"
#include "platform/files.h"
#include "platform/shell.h"
#include "platform/ui.h"

namespace mrwl {
void ShowAddinMessage(std::u16string_view text) noexcept {
  const WideString terminated(text);
  const WideString caption(kAddinMessageCaption);
  (void)platform::MessageBoxW(nullptr, terminated.c_str(), caption.c_str(), MB_OK);
}

HRESULT HandleComError(const ComError& error) noexcept {
  // The error information is read as a handler that showed it would, and dropped: a COM error
  // ends a command without a word.
  (void)error.ErrorSource();
  (void)error.Description();
  return error.Error();
}

void SaveAttachments(ItemWrapper& wrapper, std::u16string_view folder, ConversionJob& job) {
  ComPtr<outlook::Attachments> attachments;
  if (FAILED(wrapper.GetAttachments(attachments.put())) || !attachments) return;
  LONG count = 0;
  if (FAILED(attachments->get_Count(&count)) || count <= 0) return;
  // Set before anything is written, so that whatever does get written is cleaned up.
  job.DeleteAttachments = true;
  WideString path;
  for (LONG i = 1; i <= count; ++i) {
    ComPtr<outlook::Attachment> attachment;
    if (FAILED(attachments->Item(MakeI4Variant(i), attachment.put())) || !attachment) continue;
    UniqueBstr fileName;
    if (FAILED(attachment->get_FileName(fileName.put()))) continue;
    if (IsInlineAttachment(attachment.get())) continue;
    if (!path.Assign(folder) || !path.Append(BstrView(fileName.get()))) continue;
    const UniqueBstr target = MakeBstr(path);
    if (FAILED(attachment->SaveAsFile(target.get()))) continue;  // left out, without a word
    if (path.IsEmpty()) continue;
    (void)platform::RestrictToOwner(path.c_str(), FALSE);
    job.Attachments.push_back(path);
  }
}

HRESULT ConversionDriver::RunConversion(bool portfolio) {
  int kind = kOtherWindow;
  if (FAILED(GetActiveWindowKind(kind))) return 1;
  switch (kind) {
    case kExplorerWindow:
      return ConvertSelection(portfolio);
    case kInspectorWindow:
      return ConvertOpenItem(portfolio);
    default:
      return S_OK;  // a note, a reminder or another of Outlook's windows: nothing to convert
  }
}

HRESULT ConversionDriver::GetActiveWindowKind(int& kind) {
  if (!application_) return E_POINTER;
  ComPtr<IDispatch> window;
  if (FAILED(application_->ActiveWindow(window.put()))) return S_OK;
  if (!window) {
    // No window has the focus: nothing to convert, as for any other window.
    kind = kOtherWindow;
    return S_OK;
  }
  ComPtr<outlook::_Explorer> explorer;
  HRESULT result = window->QueryInterface(outlook::IID__Explorer, explorer.put_void());
  if (FAILED(result) && result != E_NOINTERFACE) return S_OK;
  ComPtr<outlook::_Inspector> inspector;
  result = window->QueryInterface(outlook::IID__Inspector, inspector.put_void());
  if (FAILED(result) && result != E_NOINTERFACE) return S_OK;
  if (explorer) {
    kind = kExplorerWindow;
  } else if (inspector) {
    kind = kInspectorWindow;
  } else {
    kind = kOtherWindow;
  }
  return S_OK;
}

HRESULT ConversionDriver::ConvertOpenItem(bool portfolio) {
  try {
    ComPtr<outlook::_Inspector> inspector;
    HRESULT result = application_->ActiveInspector(inspector.put());
    ComPtr<IDispatch> item;
    if (SUCCEEDED(result) && inspector) result = inspector->get_CurrentItem(item.put());
    if (FAILED(result) || !item) return S_OK;
    const UniqueItemWrapper wrapper = MakeWrapper(item.get());
    if (!wrapper) return S_OK;  // a contact, an appointment, ...: not for conversion
    (void)ConvertOneItem(*wrapper, portfolio);  // the step showed its message, if any
  } catch (const ComError& error) {
    (void)HandleComError(error);
  } catch (...) {
    // Nothing may leave a command; the run simply ends.
  }
  return S_OK;
}

HRESULT ConversionDriver::ConvertSelection(bool portfolio) {
  ComPtr<outlook::_Explorer> explorer;
  HRESULT result = application_->ActiveExplorer(explorer.put());
  if (FAILED(result)) return result;
  ComPtr<outlook::Selection> selection;
  if (explorer) {
    result = explorer->get_Selection(selection.put());
    if (FAILED(result)) return result;
  }
  if (!selection) {
    ShowAddinMessage(kNoMailSelectedMessage);
    return 1;
  }
  WideString user;
  WideString folder;
  if (portfolio) GetUserAndFolder(application_.get(), user, folder);

  try {
    LONG count = 0;
    result = ThrowIfFailed(selection->get_Count(&count), selection.get());
    if (count == 0) {
      ShowAddinMessage(kNoMailSelectedMessage);
      return 1;
    }

    ConverterRequest request;
    if (portfolio) {
      // The folder's name is proposed as it stands, unsanitised.
      if (!PrepareConversion(folder, request)) return S_OK;
      (void)BeginPortfolio(user, folder, request);
    }
    for (LONG i = 1; i <= count; ++i) {
      ComPtr<IDispatch> item;
      result = selection->Item(MakeI4Variant(i), item.put());
      if (FAILED(result) || !item) continue;
      const UniqueItemWrapper wrapper = MakeWrapper(item.get());
      if (!wrapper) continue;  // items of other kinds are skipped silently
      if (portfolio) {
        if (!ExportItem(*wrapper, request)) return E_FAIL;
      } else if (!ConvertOneItem(*wrapper, false)) {
        // A cancelled dialog or a failed item stops the rest of the selection; what was handed
        // on already stays handed on.
        return E_FAIL;
      }
    }
    if (portfolio && !LaunchConverter(request)) return E_FAIL;
    return result;
  } catch (const ComError& error) {
    return HandleComError(error);
  } catch (...) {
    return result;
  }
}

bool ConversionDriver::ConvertOneItem(ItemWrapper& wrapper, bool portfolio) {
  UniqueBstr subject;
  (void)wrapper.GetSubject(subject.put());  // a failure leaves the subject empty
  const std::u16string_view subjectText = BstrView(subject.get());
  WideString name;
  SanitizeFileName(subjectText.data(), subjectText.size(), name);

  ConverterRequest request;
  if (!PrepareConversion(name, request)) return false;
  if (portfolio) {
    // The portfolio command while an inspector is active: a portfolio of the one item, named
    // after its subject.
    WideString user;
    WideString folder;
    GetUserAndFolder(application_.get(), user, folder);
    (void)BeginPortfolio(user, folder, request);
  }
  if (!ExportItem(wrapper, request)) return false;
  return LaunchConverter(request);
}

bool ConversionDriver::PrepareConversion(std::u16string_view defaultName,
                                         ConverterRequest& request) {
  const HWND owner = platform::GetActiveWindow();
  // The output name is asked for first, so a missing converter is reported only after it.
  if (!AskOutputFile(request.OutputPath, defaultName)) return false;

  // ModuleFolder ends in its separator, so the name joins with nothing between.
  request.ConverterPath = ModuleFolder();
  (void)request.ConverterPath.Append(kConverterFileName);
  if (!PathExists(request.ConverterPath.c_str())) {
    const WideString text(kConverterMissingMessage);
    (void)platform::MessageBoxW(owner, text.c_str(), u"", MB_ICONSTOP);
    return false;
  }

  // Each conversion starts from an empty store and from the settings as the registry has them
  // now, so that a change in the options dialog counts at once.
  store_.Clear();
  settings_.LoadSettings();
  settings_.HandoffMappingName.Clear();
  return true;
}

bool ConversionDriver::BeginPortfolio(std::u16string_view user, std::u16string_view folder,
                                      const ConverterRequest& request) {
  store_.Portfolio = true;
  store_.PortfolioUser = user;
  store_.PortfolioFolder = folder;
  store_.PortfolioOutputPath = request.OutputPath;
  return true;
}

bool ConversionDriver::ExportItem(ItemWrapper& wrapper, const ConverterRequest& request) {
  // The job comes first, so that it is in the store also when the export fails.
  ConversionJob* job = store_.NewJob();
  if (job == nullptr) return false;
  if (store_.Portfolio) FillMailRecord(*job, wrapper);

  WideString folder;
  WideString path;
  if (!GetTempFolder(folder) ||
      !MakeUniqueTempName(kExportedPagePrefix, kExportedPageExtension, path)) {
    ShowAddinMessage(kNoTempFolderMessage);
    return false;
  }
  const UniqueBstr pathText = MakeBstr(path);
  if (FAILED(wrapper.SaveAs(pathText.get(), MakeI4Variant(outlook::olHTML)))) {
    ShowAddinMessage(kSaveItemFailedMessage);
    return false;
  }
  RestrictExportedPage(path);
  if (settings_.ConvertAttachments) SaveAttachments(wrapper, folder, *job);
  job->DeletePage = true;
  job->PagePath = path;
  job->OutputPath = request.OutputPath;
  return true;
}

bool ConversionDriver::LaunchConverter(const ConverterRequest& request) {
  store_.Security = settings_.Security;
  store_.RunApp = settings_.RunApp;
  // Two mails of one subject would make two entries of one name in the portfolio.
  if (store_.Portfolio) MakeAttachmentNamesUnique(store_.Jobs);

  if constexpr (kHandoffCarrier == HandoffCarrier::kFile) {
    WideString path;
    if (!WriteHandoffFile(store_, path)) return false;
    settings_.HandoffFilePath = std::move(path);
  } else {
    if (!store_.CreateHandoffMapping()) return false;
    store_.GetHandoffMappingName(settings_.HandoffMappingName);
    if (settings_.HandoffMappingName.IsEmpty()) return false;
  }

  WideString parameters;
  settings_.BuildConverterCommandLine(u"", u"", parameters);
  const HINSTANCE started =
      platform::ShellExecuteW(request.OwnerWindow, nullptr, request.ConverterPath.c_str(),
                              parameters.c_str(), nullptr, SW_SHOW);
  if (reinterpret_cast<std::uintptr_t>(started) <= 32) {
    // Nobody will read the files now; they go without a word, and the run goes on.
    DebugPrint(u"The converter %s did not start (%u).", request.ConverterPath.c_str(),
               static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(started)));
    settings_.ClearHandoffFile();
    DeleteJobFiles(store_.Jobs);
  }
  return true;
}

}  // namespace mrwl
