// Outlook's application, windows and ribbon as the host plays them.

#include "host/host_outlook.h"

#include <algorithm>

namespace mrwl::host {
namespace {

HRESULT PutText(const std::u16string& text, BSTR* out) {
  if (out == nullptr) return E_POINTER;
  *out = SysAllocStringLen(OleText(text.c_str()), static_cast<UINT>(text.size()));
  return *out == nullptr ? E_OUTOFMEMORY : S_OK;
}

template <typename T, typename U>
HRESULT PutObject(const ComPtr<U>& object, T** out) {
  if (out == nullptr) return E_POINTER;
  *out = ComPtr<U>(object).Detach();
  return S_OK;
}

// Windows live to the end of the process, as Outlook's do: the add-in's hub keeps windows that
// were open when it connected without a reference of its own. The list is reachable until exit.
void KeepForProcessLifetime(IUnknown* window) {
  static auto* kept = new std::vector<ComPtr<IUnknown>>();
  kept->emplace_back(window);
}

}  // namespace

// --- Windows -------------------------------------------------------------------------------------

template <typename Collection, typename Window>
HRESULT HostWindows<Collection, Window>::Open(const ComPtr<Window>& window) {
  windows_.push_back(window);
  KeepForProcessLifetime(window.get());
  return this->Events().Raise(opened_, {DispatchArgument(window.get())});
}

template <typename Collection, typename Window>
HRESULT HostWindows<Collection, Window>::Close(const ComPtr<Window>& window,
                                               ConnectionPoint& windowEvents) {
  const HRESULT result = windowEvents.Raise(outlook::DISPID_Close);
  windows_.erase(
      std::remove_if(windows_.begin(), windows_.end(),
                     [&window](const ComPtr<Window>& open) { return open.get() == window.get(); }),
      windows_.end());
  return result;
}

template class HostWindows<outlook::_Explorers, outlook::_Explorer>;
template class HostWindows<outlook::_Inspectors, outlook::_Inspector>;

HRESULT HostFolder::get_Name(BSTR* name) { return PutText(name_, name); }

HRESULT HostSelection::get_Count(LONG* count) {
  if (count == nullptr) return E_POINTER;
  *count = static_cast<LONG>(items_.size());
  return S_OK;
}

HRESULT HostSelection::Item(VARIANT index, IDispatch** item) {
  if (item == nullptr) return E_POINTER;
  *item = nullptr;
  if (index.vt != VT_I4) return DISP_E_TYPEMISMATCH;
  if (index.lVal < 1 || static_cast<std::size_t>(index.lVal) > items_.size()) {
    return DISP_E_BADINDEX;
  }
  return PutObject(items_[static_cast<std::size_t>(index.lVal) - 1], item);
}

HRESULT HostExplorer::get_CurrentFolder(outlook::MAPIFolder** folder) {
  return PutObject(folder_, folder);
}

HRESULT HostExplorer::get_Selection(outlook::Selection** selection) {
  return PutObject(selection_, selection);
}

HRESULT HostInspector::get_CurrentItem(IDispatch** item) { return PutObject(item_, item); }

// --- Session -------------------------------------------------------------------------------------

HRESULT HostRecipient::get_Address(BSTR* address) { return PutText(address_, address); }

HRESULT HostRecipient::get_AddressEntry(outlook::AddressEntry** entry) {
  // An address typed into the environment has no entry in any address book.
  if (entry == nullptr) return E_POINTER;
  *entry = nullptr;
  return S_OK;
}

HRESULT HostNamespace::get_CurrentUser(outlook::Recipient** user) {
  if (user == nullptr) return E_POINTER;
  *user = nullptr;
  if (userAddress_.empty()) return S_OK;
  *user = MakeComObject<HostRecipient>(userAddress_).Detach();
  return S_OK;
}

// --- Application ---------------------------------------------------------------------------------

HostApplication::HostApplication(std::u16string userAddress)
    : explorers_(
          MakeComObject<HostExplorers>(outlook::IID_ExplorersEvents, outlook::DISPID_NewExplorer)),
      inspectors_(MakeComObject<HostInspectors>(outlook::IID_InspectorsEvents,
                                                outlook::DISPID_NewInspector)),
      session_(MakeComObject<HostNamespace>(std::move(userAddress))) {}

HRESULT HostApplication::get_Version(BSTR* version) { return PutText(kVersion, version); }

HRESULT HostApplication::get_Explorers(outlook::_Explorers** explorers) {
  return PutObject(explorers_, explorers);
}

HRESULT HostApplication::get_Inspectors(outlook::_Inspectors** inspectors) {
  return PutObject(inspectors_, inspectors);
}

HRESULT HostApplication::get_Session(outlook::_NameSpace** session) {
  return PutObject(session_, session);
}

HRESULT HostApplication::ActiveWindow(IDispatch** window) {
  if (window == nullptr) return E_POINTER;
  *window = nullptr;
  if (inspectorActive_ && !openInspectors_.empty()) {
    *window =
        ComPtr<IDispatch>(static_cast<outlook::_Inspector*>(openInspectors_.back().get())).Detach();
  } else if (!openExplorers_.empty()) {
    *window =
        ComPtr<IDispatch>(static_cast<outlook::_Explorer*>(openExplorers_.back().get())).Detach();
  }
  return S_OK;
}

HRESULT HostApplication::ActiveExplorer(outlook::_Explorer** explorer) {
  if (explorer == nullptr) return E_POINTER;
  *explorer = nullptr;
  if (!openExplorers_.empty()) {
    *explorer = ComPtr<outlook::_Explorer>(openExplorers_.back().get()).Detach();
  }
  return S_OK;
}

HRESULT HostApplication::ActiveInspector(outlook::_Inspector** inspector) {
  if (inspector == nullptr) return E_POINTER;
  *inspector = nullptr;
  if (!openInspectors_.empty()) {
    *inspector = ComPtr<outlook::_Inspector>(openInspectors_.back().get()).Detach();
  }
  return S_OK;
}

ComPtr<HostExplorer> HostApplication::OpenExplorer(std::u16string folderName,
                                                   std::vector<ComPtr<IDispatch>> items) {
  auto explorer = MakeComObject<HostExplorer>(MakeComObject<HostFolder>(std::move(folderName)),
                                              MakeComObject<HostSelection>(std::move(items)));
  openExplorers_.push_back(explorer);
  inspectorActive_ = false;
  (void)explorers_->Open(explorer);  // a sink's failure is the add-in's affair, not Outlook's
  return explorer;
}

ComPtr<HostInspector> HostApplication::OpenInspector(ComPtr<IDispatch> item) {
  auto inspector = MakeComObject<HostInspector>(std::move(item));
  openInspectors_.push_back(inspector);
  inspectorActive_ = true;
  (void)inspectors_->Open(inspector);
  return inspector;
}

void HostApplication::CloseWindows() {
  // The window closing is the active one while its Close event runs, as in Outlook.
  while (!openInspectors_.empty()) {
    ComPtr<HostInspector> inspector = openInspectors_.back();
    (void)inspectors_->Close(inspector, inspector->Events());
    openInspectors_.pop_back();
  }
  inspectorActive_ = false;
  while (!openExplorers_.empty()) {
    ComPtr<HostExplorer> explorer = openExplorers_.back();
    (void)explorers_->Close(explorer, explorer->Events());
    openExplorers_.pop_back();
  }
}

// --- Ribbon --------------------------------------------------------------------------------------

HRESULT HostRibbon::InvalidateControl(BSTR controlId) {
  if (controlId == nullptr) return E_INVALIDARG;
  ++invalidations_;
  return S_OK;
}

HRESULT HostRibbonControl::get_Id(BSTR* id) { return PutText(id_, id); }

}  // namespace mrwl::host
