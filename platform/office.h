// The Office interfaces of an add-in: the connection contract, the ribbon provider, the loaded
// ribbon and a ribbon control. Only the members the add-in calls or implements are here, under
// the names and IIDs of Office's type libraries. Each derives from IDispatch, as in Office, since
// Office reaches the add-in's ribbon callbacks by name through IDispatch.
#pragma once

#include "platform/com.h"
#include "platform/com_object.h"

namespace mrwl::office {

inline constexpr IID IID_IDTExtensibility2 = {
    0xB65AD801, 0xABAF, 0x11D0, {0xBB, 0x8B, 0x00, 0xA0, 0xC9, 0x0F, 0x27, 0x44}};
inline constexpr IID IID_IRibbonExtensibility = {
    0x000C0396, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr IID IID_IRibbonUI = {
    0x000C03A7, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr IID IID_IRibbonControl = {
    0x000C0395, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};

// The type libraries that describe IDTExtensibility2 and IRibbonExtensibility.
inline constexpr GUID LIBID_AddInDesignerObjects = {
    0xAC0714F2, 0x3D04, 0x11D1, {0xAE, 0x7D, 0x00, 0xA0, 0xC9, 0x0F, 0x26, 0xF4}};
inline constexpr GUID LIBID_Office = {
    0x2DF8D04C, 0x5BFA, 0x101B, {0xBD, 0xE5, 0x00, 0xAA, 0x00, 0x44, 0xDE, 0x52}};

// Why the host connects or disconnects the add-in; the add-in reads neither.
enum ext_ConnectMode : LONG {
  ext_cm_AfterStartup = 0,
  ext_cm_Startup = 1,
  ext_cm_External = 2,
  ext_cm_CommandLine = 3,
};
enum ext_DisconnectMode : LONG {
  ext_dm_HostShutdown = 0,
  ext_dm_UserClosed = 1,
};

// Dispids of IDTExtensibility2 in its type library.
inline constexpr DISPID DISPID_OnConnection = 1;
inline constexpr DISPID DISPID_OnDisconnection = 2;
inline constexpr DISPID DISPID_OnAddInsUpdate = 3;
inline constexpr DISPID DISPID_OnStartupComplete = 4;
inline constexpr DISPID DISPID_OnBeginShutdown = 5;
// And of IRibbonExtensibility.
inline constexpr DISPID DISPID_GetCustomUI = 1;

struct IDTExtensibility2 : IDispatch {
  virtual HRESULT STDMETHODCALLTYPE OnConnection(IDispatch* application,
                                                 ext_ConnectMode connectMode,
                                                 IDispatch* addInInst, SAFEARRAY** custom) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnDisconnection(ext_DisconnectMode removeMode,
                                                    SAFEARRAY** custom) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnAddInsUpdate(SAFEARRAY** custom) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnStartupComplete(SAFEARRAY** custom) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnBeginShutdown(SAFEARRAY** custom) = 0;

 protected:
  ~IDTExtensibility2() = default;
};

struct IRibbonExtensibility : IDispatch {
  // The ribbon XML for the window type `ribbonId` ("Microsoft.Outlook.Explorer", ...).
  virtual HRESULT STDMETHODCALLTYPE GetCustomUI(BSTR ribbonId, BSTR* ribbonXml) = 0;

 protected:
  ~IRibbonExtensibility() = default;
};

struct IRibbonUI : IDispatch {
  // Makes the ribbon ask the callbacks of control `controlId` again.
  virtual HRESULT STDMETHODCALLTYPE InvalidateControl(BSTR controlId) = 0;

 protected:
  ~IRibbonUI() = default;
};

struct IRibbonControl : IDispatch {
  virtual HRESULT STDMETHODCALLTYPE get_Id(BSTR* id) = 0;

 protected:
  ~IRibbonControl() = default;
};

}  // namespace mrwl::office

MRWL_INTERFACE_ID(mrwl::office::IDTExtensibility2, mrwl::office::IID_IDTExtensibility2);
MRWL_INTERFACE_ID(mrwl::office::IRibbonExtensibility, mrwl::office::IID_IRibbonExtensibility);
MRWL_INTERFACE_ID(mrwl::office::IRibbonUI, mrwl::office::IID_IRibbonUI);
MRWL_INTERFACE_ID(mrwl::office::IRibbonControl, mrwl::office::IID_IRibbonControl);
