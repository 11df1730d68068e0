// Outlook's window events, the watchers of the open windows and the hub that keeps them.
#include "addin/event_hub.h"

#include <algorithm>
#include <memory>
#include <new>
#include <type_traits>

#include "addin/ribbon.h"

namespace mrwl {

namespace {

constexpr VARTYPE kWindowArg[] = {VT_DISPATCH};

std::vector<ItemWatcher*>& RetainedList() noexcept {
  // Never freed: the watchers it holds outlive every static destructor.
  static auto* list = new std::vector<ItemWatcher*>();
  return *list;
}

// Watchers of the windows of `windows` (an _Explorers or _Inspectors), one per window, appended to
// `list`. Each item is released once more than it was taken, and the explorer last met is kept
// in `last`. E_POINTER when a watcher cannot be allocated; S_OK otherwise, also where the loop
// ends early.
template <typename Watcher, typename Window, typename Collection>
HRESULT WatchOpenWindows(OutlookEventHub* hub, Collection& windows, std::vector<Watcher*>& list,
                         ComPtr<outlook::_Explorer>* last) {
  try {
    LONG count = 0;
    if (FAILED(windows.get_Count(&count))) return S_OK;
    for (LONG i = 1; i <= count; ++i) {
      std::unique_ptr<Watcher> watcher(new (std::nothrow) Watcher(hub));
      if (!watcher) return E_POINTER;
      ComPtr<Window> item;
      if (FAILED(windows.Item(MakeI4Variant(i), item.put())) || !item) break;
      if constexpr (std::is_same_v<Window, outlook::_Explorer>) *last = item;
      if (FAILED(watcher->Attach(item.get()))) {
        watcher.reset();
      } else {
        list.push_back(watcher.get());
        RetainedList().push_back(watcher.release());
      }
      // Kept on purpose: the window gets one release more than this loop took. The watchers
      // that hold the windows are never destroyed, so the balance is never called in.
      item->Release();
    }
  } catch (...) {
    // An exception ends the loop only; the sink is advised afterwards all the same.
  }
  return S_OK;
}

// The position of the watcher of `window` in `list`, from the first on; list.end() for none.
template <typename Watcher, typename Window>
auto FindWatcher(std::vector<Watcher*>& list, Window* window) {
  return std::find_if(list.begin(), list.end(), [window](const Watcher* watcher) {
    return watcher->Window().get() == window;
  });
}

}  // namespace

const std::vector<ItemWatcher*>& RetainedWatchers() noexcept { return RetainedList(); }

// --- ItemWatcher -------------------------------------------------------------------------------

void ItemWatcher::SetActive(std::uint32_t value) {
  hub_->InvalidateCommands();
  active_ = value;
}

// --- ExplorerWatcher ---------------------------------------------------------------------------

ExplorerWatcher::~ExplorerWatcher() { Detach(); }

HRESULT ExplorerWatcher::Attach(IDispatch* window) {
  if (window == nullptr) return kBadArgumentsCode;
  HRESULT hr = window->QueryInterface(outlook::IID__Explorer, window_.put_void());
  if (FAILED(hr)) return hr;
  hr = ExplorerSelectionSink::Advise(window_.get());
  if (FAILED(hr)) return hr;
  hr = ExplorerCloseSink::Advise(window_.get());
  if (FAILED(hr)) return hr;
  return ExplorerFolderSink::Advise(window_.get());
}

void ExplorerWatcher::Detach() noexcept {
  if (window_) {
    (void)ExplorerSelectionSink::Unadvise(window_.get());
    (void)ExplorerCloseSink::Unadvise(window_.get());
    (void)ExplorerFolderSink::Unadvise(window_.get());
  }
  window_.reset();
}

void ExplorerWatcher::OnClose() { Hub().RemoveActiveExplorerWatcher(); }

std::span<const EventMapEntry<ExplorerWatcher>> ExplorerWatcher::EventMap() noexcept {
  static const EventMapEntry<ExplorerWatcher> map[] = {
      {kSelectionChangeSinkId,
       &outlook::IID_ExplorerEvents_10,
       outlook::DISPID_SelectionChange,
       {},
       [](ExplorerWatcher& watcher, VARIANT*) { watcher.OnSelectionChange(); }},
      {kExplorerCloseSinkId,
       &outlook::IID_ExplorerEvents_10,
       outlook::DISPID_Close,
       {},
       [](ExplorerWatcher& watcher, VARIANT*) { watcher.OnClose(); }},
      {kFolderSwitchSinkId,
       &outlook::IID_ExplorerEvents_10,
       outlook::DISPID_FolderSwitch,
       {},
       [](ExplorerWatcher& watcher, VARIANT*) { watcher.OnFolderSwitch(); }},
  };
  return map;
}

// --- InspectorWatcher --------------------------------------------------------------------------

InspectorWatcher::~InspectorWatcher() { Detach(); }

HRESULT InspectorWatcher::Attach(IDispatch* window) {
  if (window == nullptr) return kBadArgumentsCode;
  const HRESULT hr = window->QueryInterface(outlook::IID__Inspector, window_.put_void());
  if (FAILED(hr)) return hr;
  // An item that cannot be read counts as a mail.
  std::uint32_t active = 1;
  ComPtr<IDispatch> item;
  if (SUCCEEDED(window_->get_CurrentItem(item.put()))) {
    ComPtr<outlook::_MailItem> mail;
    const bool isMail =
        item && SUCCEEDED(item->QueryInterface(outlook::IID__MailItem, mail.put_void())) && mail;
    active = isMail ? 1 : 0;
  }
  SetActive(active);
  return InspectorCloseSink::Advise(window_.get());
}

void InspectorWatcher::Detach() noexcept {
  if (window_) (void)InspectorCloseSink::Unadvise(window_.get());
  window_.reset();
}

void InspectorWatcher::OnClose() { Hub().RemoveActiveInspectorWatcher(); }

std::span<const EventMapEntry<InspectorWatcher>> InspectorWatcher::EventMap() noexcept {
  static const EventMapEntry<InspectorWatcher> map[] = {
      {kInspectorCloseSinkId,
       &outlook::IID_InspectorEvents_10,
       outlook::DISPID_Close,
       {},
       [](InspectorWatcher& watcher, VARIANT*) { watcher.OnClose(); }},
  };
  return map;
}

// --- OutlookEventHub ---------------------------------------------------------------------------

OutlookEventHub::~OutlookEventHub() = default;

HRESULT OutlookEventHub::Init(const ComPtr<outlook::_Application>& application,
                              const ComPtr<office::IRibbonUI>& ribbon) {
  if (!application || !ribbon) return kBadArgumentsCode;
  Application = application;
  RibbonUI = ribbon;

  HRESULT hr = Application->get_Explorers(Explorers.put());
  if (FAILED(hr)) return hr;
  // Without the collection the advise below answers E_INVALIDARG.
  if (Explorers) {
    hr = WatchOpenWindows<ExplorerWatcher, outlook::_Explorer>(this, *Explorers, ExplorerWatchers,
                                                               &LastExplorer);
    if (FAILED(hr)) return hr;
  }
  hr = ExplorersSink::Advise(Explorers.get());
  if (FAILED(hr)) return hr;

  hr = Application->get_Inspectors(Inspectors.put());
  if (FAILED(hr)) return hr;
  if (Inspectors) {
    hr = WatchOpenWindows<InspectorWatcher, outlook::_Inspector>(this, *Inspectors,
                                                                 InspectorWatchers, nullptr);
    if (FAILED(hr)) return hr;
  }
  return InspectorsSink::Advise(Inspectors.get());
}

void OutlookEventHub::Shutdown() noexcept {
  // Popping neither detaches nor destroys: the watchers stay as they are, and the explorers'
  // stay advised. Nothing consults them again.
  while (!ExplorerWatchers.empty()) ExplorerWatchers.pop_back();
  (void)ExplorersSink::Unadvise(Explorers.get());
  while (!InspectorWatchers.empty()) InspectorWatchers.pop_back();
  (void)InspectorsSink::Unadvise(Inspectors.get());
}

void OutlookEventHub::InvalidateCommands() {
  if (!RibbonUI) throw ComError(E_POINTER);
  // MRWL_Portfolio is not invalidated, and that stays so.
  for (const std::u16string_view control : {kCreatePdfControl, kSettingsControl}) {
    UniqueBstr id = MakeBstr(control);
    ThrowIfFailed(RibbonUI->InvalidateControl(id.get()), RibbonUI.get());
  }
}

void OutlookEventHub::RemoveActiveExplorerWatcher() {
  // The active explorer, not the one that closes: the watcher that goes is that of the window
  // active at the moment of the event. Intended; the lists are read by no command.
  if (!Application) return;
  ComPtr<outlook::_Explorer> active;
  ThrowIfFailed(Application->ActiveExplorer(active.put()), Application.get());
  if (!active) return;
  const auto found = FindWatcher(ExplorerWatchers, active.get());
  if (found == ExplorerWatchers.end()) return;
  ExplorerWatchers.erase(found);
}

void OutlookEventHub::RemoveActiveInspectorWatcher() {
  if (!Application) return;
  ComPtr<outlook::_Inspector> active;
  ThrowIfFailed(Application->ActiveInspector(active.put()), Application.get());
  if (!active) return;
  const auto found = FindWatcher(InspectorWatchers, active.get());
  if (found == InspectorWatchers.end()) return;
  (*found)->Detach();
  InspectorWatchers.erase(found);
}

void OutlookEventHub::OnNewExplorer(IDispatch* window) {
  if (window == nullptr) return;
  ComPtr<outlook::_Explorer> explorer;
  if (FAILED(window->QueryInterface(outlook::IID__Explorer, explorer.put_void())) || !explorer) {
    return;
  }
  if (FindWatcher(ExplorerWatchers, explorer.get()) != ExplorerWatchers.end()) return;
  // A watcher that cannot be allocated is skipped without a word.
  std::unique_ptr<ExplorerWatcher> watcher(new (std::nothrow) ExplorerWatcher(this));
  if (!watcher || FAILED(watcher->Attach(window))) return;
  ExplorerWatchers.push_back(watcher.get());
  RetainedList().push_back(watcher.release());
}

void OutlookEventHub::OnNewInspector(IDispatch* window) {
  if (window == nullptr) return;
  ComPtr<outlook::_Inspector> inspector;
  if (FAILED(window->QueryInterface(outlook::IID__Inspector, inspector.put_void())) || !inspector) {
    return;
  }
  if (FindWatcher(InspectorWatchers, inspector.get()) != InspectorWatchers.end()) return;
  std::unique_ptr<InspectorWatcher> watcher(new (std::nothrow) InspectorWatcher(this));
  if (!watcher || FAILED(watcher->Attach(window))) return;
  InspectorWatchers.push_back(watcher.get());
  RetainedList().push_back(watcher.release());
}

std::span<const EventMapEntry<OutlookEventHub>> OutlookEventHub::EventMap() noexcept {
  static const EventMapEntry<OutlookEventHub> map[] = {
      {kExplorersSinkId, &outlook::IID_ExplorersEvents, outlook::DISPID_NewExplorer, kWindowArg,
       [](OutlookEventHub& hub, VARIANT* args) { hub.OnNewExplorer(args[0].pdispVal); }},
      {kInspectorsSinkId, &outlook::IID_InspectorsEvents, outlook::DISPID_NewInspector, kWindowArg,
       [](OutlookEventHub& hub, VARIANT* args) { hub.OnNewInspector(args[0].pdispVal); }},
  };
  return map;
}

}  // namespace mrwl
