// The add-in's own interfaces: the primary dual interface of Addin and IRibbonCallback, the
// target of the ribbon XML's callbacks. Both are implemented by Addin only.
#pragma once

#include "addin/addin_guids.h"
#include "platform/com.h"
#include "platform/com_object.h"

namespace mrwl {

// The commands of the add-in. Reached through the virtual table only, by RibbonHandler; each
// runs on Outlook's main thread and answers an HRESULT that its caller drops.
struct IOutlookAddin : IDispatch {
  // Loads the settings, shows the options dialog over them and writes them only on OK.
  virtual HRESULT STDMETHODCALLTYPE OnSettings() = 0;
  // Converts the selection or the open item, one PDF per item.
  virtual HRESULT STDMETHODCALLTYPE OnConvert() = 0;
  // Converts the selection into one PDF portfolio.
  virtual HRESULT STDMETHODCALLTYPE OnConvertPortfolio() = 0;

 protected:
  ~IOutlookAddin() = default;
};

// The callbacks that the ribbon XML names, in the order and with the dispids of the type library.
struct IRibbonCallback : IDispatch {
  // Dispid 12: the picture of a button, or S_OK with `image` unwritten when it has none.
  virtual HRESULT STDMETHODCALLTYPE GetImage(IUnknown* control, IPictureDisp** image) = 0;
  // Dispid 22: writes 1 to `enabled`: every command is always enabled.
  virtual HRESULT STDMETHODCALLTYPE GetEnabled(IUnknown* control, LONG* enabled) = 0;
  // Dispid 32: keeps the ribbon and connects to Outlook's window events.
  virtual HRESULT STDMETHODCALLTYPE OnRibbonLoaded(IUnknown* ribbonUI) = 0;
  // Dispid 42: runs the command of the clicked button.
  virtual HRESULT STDMETHODCALLTYPE RibbonHandler(IDispatch* ribbonControl) = 0;

 protected:
  ~IRibbonCallback() = default;
};

}  // namespace mrwl

MRWL_INTERFACE_ID(mrwl::IOutlookAddin, mrwl::IID_IOutlookAddin);
MRWL_INTERFACE_ID(mrwl::IRibbonCallback, mrwl::IID_IRibbonCallback);
