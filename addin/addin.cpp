// The add-in object: its views, the connection with Outlook and the ribbon callbacks.
#include "addin/addin.h"

#include <limits>
#include <string_view>

#include "addin/ribbon.h"
#include "conversion/conversion_driver.h"
#include "platform/ui.h"
#include "settings/options_dialog.h"

namespace mrwl {

namespace {

// The decimal number that `text` starts with; 0 when it starts with no digit. Saturates rather
// than wraps for a number too large.
std::uint32_t LeadingNumber(std::u16string_view text) noexcept {
  std::uint32_t number = 0;
  for (const char16_t c : text) {
    if (c < u'0' || c > u'9') break;
    const std::uint32_t digit = static_cast<std::uint32_t>(c - u'0');
    if (number > (std::numeric_limits<std::uint32_t>::max() - digit) / 10) {
      return std::numeric_limits<std::uint32_t>::max();
    }
    number = number * 10 + digit;
  }
  return number;
}

bool IsRibbonCallbackDispid(DISPID dispid) noexcept {
  return dispid == DISPID_GetImage || dispid == DISPID_GetEnabled ||
         dispid == DISPID_OnRibbonLoaded || dispid == DISPID_RibbonHandler;
}

std::atomic<LONG> gModuleLocks{0};

}  // namespace

void LockModule() noexcept { gModuleLocks.fetch_add(1, std::memory_order_relaxed); }
void UnlockModule() noexcept { gModuleLocks.fetch_sub(1, std::memory_order_acq_rel); }
LONG ModuleLockCount() noexcept { return gModuleLocks.load(std::memory_order_acquire); }

Addin::Addin() : Settings(kAddinSettingsKeyPath) { LockModule(); }

Addin::~Addin() { UnlockModule(); }

// --- IUnknown and IDispatch --------------------------------------------------------------------

HRESULT Addin::QueryInterface(REFIID iid, void** object) {
  if (object == nullptr) return E_POINTER;
  void* view = nullptr;
  if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IOutlookAddin)) {
    view = static_cast<IOutlookAddin*>(this);
  } else if (IsEqualIID(iid, IID_IDispatch)) {
    // Office looks its callbacks up by name through IDispatch, so IDispatch is the callback view.
    view = static_cast<IRibbonCallback*>(this);
  } else if (IsEqualIID(iid, office::IID_IDTExtensibility2)) {
    view = static_cast<office::IDTExtensibility2*>(this);
  } else if (IsEqualIID(iid, office::IID_IRibbonExtensibility)) {
    view = static_cast<office::IRibbonExtensibility*>(this);
  }
  *object = view;
  if (view == nullptr) return E_NOINTERFACE;
  AddRef();
  return S_OK;
}

ULONG Addin::AddRef() { return refs_.fetch_add(1, std::memory_order_relaxed) + 1; }

ULONG Addin::Release() {
  const ULONG left = refs_.fetch_sub(1, std::memory_order_acq_rel) - 1;
  if (left == 0) delete this;
  return left;
}

HRESULT Addin::Invoke(DISPID dispid, REFIID, LCID, WORD flags, DISPPARAMS* params, VARIANT* result,
                      EXCEPINFO* exception, UINT* argError) noexcept {
  // Some members raise by design: RibbonHandler when the control's id cannot be read, and a
  // second OnRibbonLoaded when the hub's sinks are advised already. Office calls them through
  // here, and a C++ exception must not reach it across the interface; such a call answers as a
  // member that failed, with its HRESULT in the exception information.
  try {
    if (IsRibbonCallbackDispid(dispid)) {
      const HRESULT hr = kRibbonCallbackDescription.Invoke(
          static_cast<IRibbonCallback*>(this), dispid, flags, params, result, exception, argError);
      if (hr != DISP_E_MEMBERNOTFOUND) return hr;
    }
    return kExtensibilityDescription.Invoke(static_cast<office::IDTExtensibility2*>(this), dispid,
                                            flags, params, result, exception, argError);
  } catch (const ComError& error) {
    return ReportDispatchException(exception, error.Error());
  } catch (...) {
    return ReportDispatchException(exception, E_FAIL);
  }
}

// --- IOutlookAddin -----------------------------------------------------------------------------

HRESULT Addin::OnSettings() {
  Settings.LoadSettings();
  // The dialog writes the record itself on OK; its answer changes nothing here.
  (void)ShowOptionsDialog(Settings, platform::GetActiveWindow());
  return S_OK;
}

HRESULT Addin::OnConvert() {
  ConversionDriver driver(Application, Settings, Store);
  return driver.RunConversion(false);
}

HRESULT Addin::OnConvertPortfolio() {
  ConversionDriver driver(Application, Settings, Store);
  return driver.RunConversion(true);
}

// --- IDTExtensibility2 -------------------------------------------------------------------------

HRESULT Addin::OnConnection(IDispatch* application, office::ext_ConnectMode, IDispatch*,
                            SAFEARRAY**) {
  if (application == nullptr) return E_INVALIDARG;
  const HRESULT hr = application->QueryInterface(outlook::IID__Application, Application.put_void());
  if (FAILED(hr)) return hr;
  UniqueBstr version;
  if (Application && SUCCEEDED(Application->get_Version(version.put()))) {
    OutlookMajorVersion = LeadingNumber(BstrView(version.get()));
  }
  // The event connections wait for the ribbon: OnRibbonLoaded makes them.
  return S_OK;
}

HRESULT Addin::OnDisconnection(office::ext_DisconnectMode, SAFEARRAY**) {
  Hub.Shutdown();
  return S_OK;
}

HRESULT Addin::OnAddInsUpdate(SAFEARRAY**) { return S_OK; }

HRESULT Addin::OnStartupComplete(SAFEARRAY**) { return S_OK; }

HRESULT Addin::OnBeginShutdown(SAFEARRAY**) { return S_OK; }

// --- IRibbonExtensibility ----------------------------------------------------------------------

HRESULT Addin::GetCustomUI(BSTR ribbonId, BSTR* ribbonXml) {
  if (ribbonXml == nullptr) return E_POINTER;
  const int id = BstrView(ribbonId) == kExplorerRibbonId ? kExplorerRibbonXml : kItemRibbonXml;
  // A missing resource gives the ribbon nothing, and still S_OK.
  *ribbonXml = LoadRibbonXml(id).release();
  return S_OK;
}

// --- IRibbonCallback ---------------------------------------------------------------------------

HRESULT Addin::GetImage(IUnknown* control, IPictureDisp** image) {
  return GetRibbonImage(control, image);
}

HRESULT Addin::GetEnabled(IUnknown*, LONG* enabled) {
  // Every command is always enabled, whatever the window, the selection or the watchers say.
  if (enabled != nullptr) *enabled = 1;
  return S_OK;
}

HRESULT Addin::OnRibbonLoaded(IUnknown* ribbonUI) {
  RibbonLoaded = false;
  if (ribbonUI == nullptr) return E_FAIL;
  ComPtr<office::IRibbonUI> ribbon;
  // Only the pointer tells: the query's result code is not looked at.
  (void)ribbonUI->QueryInterface(office::IID_IRibbonUI, ribbon.put_void());
  if (!ribbon) return S_OK;
  RibbonUI = ribbon;
  RibbonLoaded = true;
  return Hub.Init(Application, RibbonUI);
}

HRESULT Addin::RibbonHandler(IDispatch* ribbonControl) {
  if (ribbonControl == nullptr) return E_INVALIDARG;
  // Reading the id stands outside the guard below: its failure leaves as a ComError.
  ComPtr<office::IRibbonControl> control;
  ThrowIfFailed(ribbonControl->QueryInterface(office::IID_IRibbonControl, control.put_void()),
                ribbonControl);
  if (!control) throw ComError(E_NOINTERFACE, ribbonControl);
  UniqueBstr id;
  ThrowIfFailed(control->get_Id(id.put()), control.get());
  const std::u16string_view controlId = BstrView(id.get());

  // A command's failure has been shown where it arose, or, for a COM error, is ended without a
  // word; the ribbon hears S_OK either way.
  try {
    if (controlId == kSettingsControl) {
      (void)OnSettings();
    } else if (controlId == kCreatePdfControl) {
      (void)OnConvert();
    } else if (controlId == kPortfolioControl) {
      (void)OnConvertPortfolio();
    }
  } catch (const ComError& error) {
    (void)HandleComError(error);
  } catch (...) {
  }
  return S_OK;
}

}  // namespace mrwl
