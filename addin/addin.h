// The add-in host: the one object Outlook creates for the add-in, Outlook's window events and
// the ribbon.
//
// Addin is at once an Office add-in (IDTExtensibility2), a ribbon provider
// (IRibbonExtensibility) and the target of the ribbon's callbacks (IRibbonCallback); its primary
// interface carries the three commands. Each view describes itself (dispatch_table.h); the
// object's identity, count and Invoke are shared. A ribbon click becomes a call of the
// conversion driver over the object's application, settings and store. OutlookEventHub
// (event_hub.h) keeps a watcher for each open window; the ribbon's XML and pictures come from
// ribbon.h.
//
// Threading: apartment-threaded. Every entry, events included, runs on Outlook's main thread;
// only the reference count is atomic.
#pragma once

#include <atomic>
#include <cstdint>

#include "addin/addin_guids.h"
#include "addin/addin_interfaces.h"
#include "addin/dispatch_table.h"
#include "addin/event_hub.h"
#include "conversion/conversion_store.h"
#include "platform/com.h"
#include "platform/com_object.h"
#include "platform/com_ptr.h"
#include "platform/office.h"
#include "platform/outlook.h"
#include "settings/addin_settings.h"

namespace mrwl {

// One view of Addin: the interface `Interface` answering GetTypeInfo and GetIDsOfNames by its
// own description. QueryInterface, AddRef, Release and Invoke are the object's.
template <typename Interface, const DispatchTable& kDescription>
class DispatchView : public Interface {
 public:
  // This system has no type information objects: the descriptions stand in for them.
  HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override {
    return NoTypeInfoCount(count);
  }
  HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo** info) override {
    return NoTypeInfo(info);
  }
  HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID,
                                          DISPID* ids) override {
    return kDescription.GetIDsOfNames(names, count, ids);
  }

 protected:
  DispatchView() noexcept = default;
  ~DispatchView() = default;
};

using OutlookAddinView = DispatchView<IOutlookAddin, kOutlookAddinDescription>;
using ExtensibilityView = DispatchView<office::IDTExtensibility2, kExtensibilityDescription>;
using RibbonExtensibilityView =
    DispatchView<office::IRibbonExtensibility, kRibbonExtensibilityDescription>;
using RibbonCallbackView = DispatchView<IRibbonCallback, kRibbonCallbackDescription>;

// The add-in object, one per process. Made with one reference (MakeComObject) and destroyed by
// its last Release.
class Addin final : public OutlookAddinView,
                    public ExtensibilityView,
                    public RibbonExtensibilityView,
                    public RibbonCallbackView {
 public:
  // Builds the fields in order; Settings for kAddinSettingsKeyPath.
  Addin();
  Addin(const Addin&) = delete;
  Addin& operator=(const Addin&) = delete;

  // IUnknown. QueryInterface answers, in this order: the primary interface with the primary
  // view; IDispatch with the IRibbonCallback view, since Office finds its callbacks by name
  // through IDispatch; IDTExtensibility2; IRibbonExtensibility. IUnknown gives the primary view;
  // IRibbonCallback's own IID is not answered.
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;

  // IDispatch, shared by the four views: dispids 12, 22, 32 and 42 go to the IRibbonCallback
  // description; any other, and DISP_E_MEMBERNOTFOUND from there, to that of IDTExtensibility2.
  // No exception leaves: one that a member lets out answers DISP_E_EXCEPTION with its HRESULT
  // (0x80004005 for one that carries none) in exception->scode.
  HRESULT STDMETHODCALLTYPE Invoke(DISPID dispid, REFIID iid, LCID lcid, WORD flags,
                                   DISPPARAMS* params, VARIANT* result, EXCEPINFO* exception,
                                   UINT* argError) noexcept override;

  // IOutlookAddin.
  // Loads Settings, shows the options dialog over them with the active window as owner and
  // returns S_OK whatever the dialog answered.
  HRESULT STDMETHODCALLTYPE OnSettings() override;
  // RunConversion(false) of the conversion driver.
  HRESULT STDMETHODCALLTYPE OnConvert() override;
  // RunConversion(true) of the conversion driver.
  HRESULT STDMETHODCALLTYPE OnConvertPortfolio() override;

  // IDTExtensibility2.
  // Keeps `application` as _Application and the major version its Version starts with. S_OK;
  // E_INVALIDARG for a null application; the query's failure when it is no _Application. A
  // Version that cannot be read leaves the major version 0. The event connections are made at
  // OnRibbonLoaded, not here.
  HRESULT STDMETHODCALLTYPE OnConnection(IDispatch* application,
                                         office::ext_ConnectMode connectMode, IDispatch* addInInst,
                                         SAFEARRAY** custom) override;
  // Shuts the hub down; S_OK.
  HRESULT STDMETHODCALLTYPE OnDisconnection(office::ext_DisconnectMode removeMode,
                                            SAFEARRAY** custom) override;
  // These three do nothing; S_OK.
  HRESULT STDMETHODCALLTYPE OnAddInsUpdate(SAFEARRAY** custom) override;
  HRESULT STDMETHODCALLTYPE OnStartupComplete(SAFEARRAY** custom) override;
  HRESULT STDMETHODCALLTYPE OnBeginShutdown(SAFEARRAY** custom) override;

  // IRibbonExtensibility. The main window's ribbon XML for "Microsoft.Outlook.Explorer"
  // (compared exactly, case included), the item windows' for any other id, into *ribbonXml,
  // owned by the caller. S_OK, also with a null string when the resource is missing; E_POINTER
  // for a null ribbonXml.
  HRESULT STDMETHODCALLTYPE GetCustomUI(BSTR ribbonId, BSTR* ribbonXml) override;

  // IRibbonCallback.
  // The picture of the control's button (ribbon.h); S_OK with `image` unwritten for a control
  // without one.
  HRESULT STDMETHODCALLTYPE GetImage(IUnknown* control, IPictureDisp** image) override;
  // Writes 1 to a non-null `enabled` whatever the control, window or selection; S_OK.
  HRESULT STDMETHODCALLTYPE GetEnabled(IUnknown* control, LONG* enabled) override;
  // Keeps the ribbon and connects the hub to Outlook's window events: 0x80004005 for a null
  // ribbon, S_OK for an object that is no IRibbonUI, else the result of the hub's Init. Throws
  // ComError(0x80004005) when called again, as the hub's sinks are advised already.
  HRESULT STDMETHODCALLTYPE OnRibbonLoaded(IUnknown* ribbonUI) override;
  // Runs the command of the control's id (MRWL_Settings, MRWL_CreatePDF, MRWL_Portfolio;
  // compared exactly) and returns S_OK; any other id does nothing. E_INVALIDARG for a null
  // control. An exception of the command is handled here, but one from reading the control's id
  // (ComError) leaves the call.
  HRESULT STDMETHODCALLTYPE RibbonHandler(IDispatch* ribbonControl) override;

  // For tests and diagnostics.
  [[nodiscard]] const OutlookEventHub& GetHub() const noexcept { return Hub; }
  [[nodiscard]] bool IsRibbonLoaded() const noexcept { return RibbonLoaded; }
  [[nodiscard]] std::uint32_t GetOutlookMajorVersion() const noexcept {
    return OutlookMajorVersion;
  }

 private:
  // Destroys Store, Settings, Hub, RibbonUI and Application, in this order.
  ~Addin();

  ComPtr<outlook::_Application> Application;
  ComPtr<office::IRibbonUI> RibbonUI;
  OutlookEventHub Hub;
  AddinSettings Settings;
  ConversionStore Store;
  bool RibbonLoaded = false;              // read by nothing
  std::uint32_t OutlookMajorVersion = 0;  // read by nothing
  std::atomic<ULONG> refs_{1};
};

// The module's lock count: one for each living Addin and each LockServer(TRUE) of its class
// factory. The module may be unloaded when it is 0. Any thread.
void LockModule() noexcept;
void UnlockModule() noexcept;
[[nodiscard]] LONG ModuleLockCount() noexcept;

}  // namespace mrwl
