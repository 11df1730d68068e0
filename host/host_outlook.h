// Outlook's application, windows, selection, session and ribbon, as the host plays them for the
// add-in: one main window (explorer) over the folder of the mails given, whose selection is those
// mails, item windows (inspectors) opened on a mail, the current user from the environment, and
// the ribbon the add-in's callbacks are asked through.
//
// Windows raise Outlook's events through real connection points, so the add-in's event hub
// watches them as it watches Outlook's. Like Outlook, the host keeps every window it opened alive
// to the end of the process: the add-in holds windows it found open without a reference of its
// own. One thread.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "platform/com.h"
#include "platform/com_object.h"
#include "platform/com_ptr.h"
#include "platform/connection_point.h"
#include "platform/office.h"
#include "platform/outlook.h"

namespace mrwl::host {

// An object of interface `Interface` that raises the events of one connection point.
template <typename Interface>
class HostEventSource : public EventSource<Interface> {
 protected:
  explicit HostEventSource(const IID& events)
      : EventSource<Interface>(MakeComObject<ConnectionPoint>(events)) {}
};

class HostFolder final : public ComObject<outlook::MAPIFolder> {
 public:
  explicit HostFolder(std::u16string name) : name_(std::move(name)) {}
  HRESULT STDMETHODCALLTYPE get_Name(BSTR* name) override;

 private:
  std::u16string name_;
};

class HostSelection final : public ComObject<outlook::Selection> {
 public:
  explicit HostSelection(std::vector<ComPtr<IDispatch>> items) : items_(std::move(items)) {}
  HRESULT STDMETHODCALLTYPE get_Count(LONG* count) override;
  HRESULT STDMETHODCALLTYPE Item(VARIANT index, IDispatch** item) override;

 private:
  std::vector<ComPtr<IDispatch>> items_;
};

class HostExplorer final : public HostEventSource<outlook::_Explorer> {
 public:
  HostExplorer(ComPtr<outlook::MAPIFolder> folder, ComPtr<outlook::Selection> selection)
      : HostEventSource(outlook::IID_ExplorerEvents_10),
        folder_(std::move(folder)),
        selection_(std::move(selection)) {}
  HRESULT STDMETHODCALLTYPE get_CurrentFolder(outlook::MAPIFolder** folder) override;
  HRESULT STDMETHODCALLTYPE get_Selection(outlook::Selection** selection) override;

 private:
  ComPtr<outlook::MAPIFolder> folder_;
  ComPtr<outlook::Selection> selection_;
};

class HostInspector final : public HostEventSource<outlook::_Inspector> {
 public:
  explicit HostInspector(ComPtr<IDispatch> item)
      : HostEventSource(outlook::IID_InspectorEvents_10), item_(std::move(item)) {}
  HRESULT STDMETHODCALLTYPE get_CurrentItem(IDispatch** item) override;

 private:
  ComPtr<IDispatch> item_;
};

// The windows of one kind, raising `opened` (NewExplorer, NewInspector) when one opens.
template <typename Collection, typename Window>
class HostWindows final : public HostEventSource<Collection> {
 public:
  explicit HostWindows(const IID& events, DISPID opened)
      : HostEventSource<Collection>(events), opened_(opened) {}

  HRESULT STDMETHODCALLTYPE get_Count(LONG* count) override {
    if (count == nullptr) return E_POINTER;
    *count = static_cast<LONG>(windows_.size());
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Item(VARIANT index, Window** window) override {
    if (window == nullptr) return E_POINTER;
    *window = nullptr;
    if (index.vt != VT_I4) return DISP_E_TYPEMISMATCH;
    if (index.lVal < 1 || static_cast<std::size_t>(index.lVal) > windows_.size()) {
      return DISP_E_BADINDEX;
    }
    *window = ComPtr<Window>(windows_[static_cast<std::size_t>(index.lVal) - 1]).Detach();
    return S_OK;
  }

  // Adds a window and tells the sinks, as Outlook does when a window opens.
  HRESULT Open(const ComPtr<Window>& window);
  // Takes a window out of the collection after raising its Close event, as Outlook does when a
  // window closes. The object itself stays alive.
  HRESULT Close(const ComPtr<Window>& window, ConnectionPoint& windowEvents);

 private:
  DISPID opened_;
  std::vector<ComPtr<Window>> windows_;
};

using HostExplorers = HostWindows<outlook::_Explorers, outlook::_Explorer>;
using HostInspectors = HostWindows<outlook::_Inspectors, outlook::_Inspector>;

// The current user, known by address only: no Exchange directory stands behind it.
class HostRecipient final : public ComObject<outlook::Recipient> {
 public:
  explicit HostRecipient(std::u16string address) : address_(std::move(address)) {}
  HRESULT STDMETHODCALLTYPE get_Address(BSTR* address) override;
  HRESULT STDMETHODCALLTYPE get_AddressEntry(outlook::AddressEntry** entry) override;

 private:
  std::u16string address_;
};

class HostNamespace final : public ComObject<outlook::_NameSpace> {
 public:
  // `userAddress` empty: no one is signed in, and CurrentUser is null.
  explicit HostNamespace(std::u16string userAddress) : userAddress_(std::move(userAddress)) {}
  HRESULT STDMETHODCALLTYPE get_CurrentUser(outlook::Recipient** user) override;

 private:
  std::u16string userAddress_;
};

class HostApplication final : public ComObject<outlook::_Application> {
 public:
  // The version Outlook reports; the add-in reads its major number.
  static constexpr char16_t kVersion[] = u"16.0.0.0";

  explicit HostApplication(std::u16string userAddress);

  HRESULT STDMETHODCALLTYPE get_Version(BSTR* version) override;
  HRESULT STDMETHODCALLTYPE get_Explorers(outlook::_Explorers** explorers) override;
  HRESULT STDMETHODCALLTYPE get_Inspectors(outlook::_Inspectors** inspectors) override;
  HRESULT STDMETHODCALLTYPE get_Session(outlook::_NameSpace** session) override;
  HRESULT STDMETHODCALLTYPE ActiveWindow(IDispatch** window) override;
  HRESULT STDMETHODCALLTYPE ActiveExplorer(outlook::_Explorer** explorer) override;
  HRESULT STDMETHODCALLTYPE ActiveInspector(outlook::_Inspector** inspector) override;

  // Opens a main window over `folderName` with `items` selected and makes it the active window.
  ComPtr<HostExplorer> OpenExplorer(std::u16string folderName,
                                    std::vector<ComPtr<IDispatch>> items);
  // Opens an item window on `item` and makes it the active window.
  ComPtr<HostInspector> OpenInspector(ComPtr<IDispatch> item);
  // Closes every open window, item windows first, raising their Close events.
  void CloseWindows();

 private:
  ComPtr<HostExplorers> explorers_;
  ComPtr<HostInspectors> inspectors_;
  ComPtr<HostNamespace> session_;
  std::vector<ComPtr<HostExplorer>> openExplorers_;
  std::vector<ComPtr<HostInspector>> openInspectors_;
  bool inspectorActive_ = false;
};

// The ribbon of the host's windows: it counts what the add-in asks it to refresh.
class HostRibbon final : public ComObject<office::IRibbonUI> {
 public:
  HRESULT STDMETHODCALLTYPE InvalidateControl(BSTR controlId) override;
  [[nodiscard]] int Invalidations() const noexcept { return invalidations_; }

 private:
  int invalidations_ = 0;
};

// One button of the ribbon, as the add-in's RibbonHandler receives it.
class HostRibbonControl final : public ComObject<office::IRibbonControl> {
 public:
  explicit HostRibbonControl(std::u16string id) : id_(std::move(id)) {}
  HRESULT STDMETHODCALLTYPE get_Id(BSTR* id) override;

 private:
  std::u16string id_;
};

}  // namespace mrwl::host
