// The add-in module as Office runs it: loaded from its file, its Addin object made through the
// class factory, connected to the host's Outlook, its ribbon asked for and loaded, buttons clicked
// by their labels, and everything taken down again in Office's order.
//
// One session per run of the host; one thread.
#pragma once

#include <string>

#include "host/host_outlook.h"
#include "platform/com.h"
#include "platform/com_ptr.h"
#include "platform/office.h"
#include "platform/win_types.h"

namespace mrwl::host {

// The ribbon ids Outlook asks for: its main window's, and a mail item window's.
inline constexpr char16_t kExplorerRibbonId[] = u"Microsoft.Outlook.Explorer";
inline constexpr char16_t kMailReadRibbonId[] = u"Microsoft.Outlook.Mail.Read";

// The module the host loads: the file MRWL_ADDIN names, else libmrwl-addin.so beside the program.
[[nodiscard]] std::u16string AddinModulePath();

// Loads the module file at `modulePath` for the rest of the process. Null on failure, with a
// sentence in `error` that names the module and what the loader said.
[[nodiscard]] HMODULE LoadAddinModule(const std::u16string& modulePath, std::string* error);

// A result as a report shows it: "0x8007000D".
[[nodiscard]] std::string HexResult(HRESULT result);
// What the system says about an error number or HRESULT, without its line end; empty when it has
// no text for it.
[[nodiscard]] std::string ErrorText(DWORD error);

class AddinSession {
 public:
  AddinSession() = default;
  AddinSession(const AddinSession&) = delete;
  AddinSession& operator=(const AddinSession&) = delete;
  // Disconnects when connected.
  ~AddinSession();

  // Loads the module at `modulePath` and makes its Addin object. On failure returns false with a
  // sentence in `error` that names the module and the cause.
  [[nodiscard]] bool Load(const std::u16string& modulePath, std::string* error);

  // OnConnection with `application`, then OnStartupComplete. False with a sentence on failure.
  [[nodiscard]] bool Connect(HostApplication* application, std::string* error);

  // Asks for the ribbon of `ribbonId` (GetCustomUI) and loads it: its onLoad callback gets the
  // host's ribbon. The XML is kept for the clicks that follow. False with a sentence when the
  // add-in gives no ribbon or its XML cannot be read.
  [[nodiscard]] bool LoadRibbon(const std::u16string& ribbonId, std::string* error);

  // Clicks the button labelled `label` on the ribbon loaded last: asks its getEnabled callback,
  // then calls its onAction callback through IDispatch with a control of its id. False with a
  // sentence when there is no such button, it is disabled, or the callback fails.
  [[nodiscard]] bool Click(const std::u16string& label, std::string* error);

  // OnBeginShutdown and OnDisconnection, in Office's order, and the object is released. The
  // module stays loaded to the end of the process.
  void Disconnect();

  [[nodiscard]] const std::u16string& RibbonXml() const noexcept { return ribbonXml_; }

 private:
  // Calls the callback `name` of the add-in's IDispatch with `argument`; its result into `result`
  // when given.
  HRESULT InvokeCallback(const std::u16string& name, IDispatch* argument, VARIANT* result);

  HMODULE module_ = nullptr;
  ComPtr<office::IDTExtensibility2> addin_;
  ComPtr<HostRibbon> ribbon_;
  std::u16string ribbonXml_;
  bool connected_ = false;
};

}  // namespace mrwl::host
