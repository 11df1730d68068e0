// Outlook's window events: OutlookEventHub listens for new explorers (main windows) and
// inspectors (item windows) and keeps a watcher for each, which in turn listens for its window's
// events.
//
// The event sinks are IDispatch objects embedded in their owners; each has a sink id, the IID of
// its event interface and a cookie, 0xFEFEFEFE while it is not advised. An event reaches the
// owner's event map, a table of (sink id, dispid, argument types, handler). Nothing is counted:
// the sinks live as long as their owners, and the connection points' references on them do
// nothing.
//
// Threading: everything runs on Outlook's main thread, events included; there are no locks.
//
// Some behaviour is kept on purpose and must not be "fixed" (nothing reads the watcher lists for
// a command, so none of it matters to the user): Init releases each window once more than it
// took; a Close event removes the watcher of the window active at that moment, not the closing
// window's; a watcher taken out of its list is never destroyed, and an explorer watcher stays
// advised; a second Init finds the hub's sinks advised and throws.
#pragma once

#include <cstdint>
#include <span>
#include <utility>
#include <vector>

#include "addin/dispatch_table.h"
#include "platform/com.h"
#include "platform/com_object.h"
#include "platform/com_ptr.h"
#include "platform/office.h"
#include "platform/outlook.h"

namespace mrwl {

class OutlookEventHub;
class ExplorerWatcher;
class InspectorWatcher;

// The cookie of a sink that is not advised.
inline constexpr DWORD kFreeSinkCookie = 0xFEFEFEFE;
// An event handler takes at most this many arguments; a map entry with more fails the event with
// 0x80004005.
inline constexpr UINT kMaxEventArgs = 8;
// ERROR_BAD_ARGUMENTS, answered as a plain system code, not an HRESULT: callers take it for
// success.
inline constexpr HRESULT kBadArgumentsCode = 160;

// The sink ids.
inline constexpr UINT kExplorersSinkId = 1;
inline constexpr UINT kSelectionChangeSinkId = 2;
inline constexpr UINT kExplorerCloseSinkId = 3;
inline constexpr UINT kInspectorsSinkId = 4;
inline constexpr UINT kFolderSwitchSinkId = 7;
inline constexpr UINT kInspectorCloseSinkId = 8;

// One row of an owner's event map. `handler` receives the arguments coerced to `argTypes`, in
// their declared order.
template <typename Owner>
struct EventMapEntry {
  UINT sinkId;
  const IID* eventIid;
  DISPID dispid;
  std::span<const VARTYPE> argTypes;
  void (*handler)(Owner& owner, VARIANT* args);
};

// Delivers event `dispid` of sink `sinkId` to `owner` by its map: S_OK for an event not in the
// map; E_FAIL for an entry with more than kMaxEventArgs arguments; DISP_E_BADPARAMCOUNT when
// fewer arguments came; a coercion's failure code; DISP_E_EXCEPTION, with the error in
// exception->scode, when the handler throws (0x80004005 for an exception that carries none).
template <typename Owner>
HRESULT DispatchEvent(Owner& owner, std::span<const EventMapEntry<Owner>> map, UINT sinkId,
                      DISPID dispid, DISPPARAMS* params, EXCEPINFO* exception) noexcept;

// The IDispatch of one event interface, embedded in `Owner` (which derives from it). The sink
// answers IUnknown, IDispatch and the event IID with itself.
template <typename Owner, UINT kSinkId, const IID& kEventIid>
class EventSink : public IDispatch {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
    if (object == nullptr) return E_POINTER;
    if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IDispatch) ||
        IsEqualIID(iid, kEventIid)) {
      *object = static_cast<IDispatch*>(this);
      return S_OK;
    }
    *object = nullptr;
    return E_NOINTERFACE;
  }
  // The owner's lifetime is its own business; references on a sink count nothing.
  ULONG STDMETHODCALLTYPE AddRef() override { return 1; }
  ULONG STDMETHODCALLTYPE Release() override { return 1; }
  HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override {
    return NoTypeInfoCount(count);
  }
  HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo** info) override {
    return NoTypeInfo(info);
  }
  HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE Invoke(DISPID dispid, REFIID, LCID, WORD, DISPPARAMS* params, VARIANT*,
                                   EXCEPINFO* exception, UINT*) override {
    return DispatchEvent(static_cast<Owner&>(*this), Owner::EventMap(), kSinkId, dispid, params,
                         exception);
  }

  // Connects the sink to the event source `source`. Throws ComError(0x80004005) when the sink is
  // advised already; E_INVALIDARG for a null source; otherwise the result of finding the
  // connection point and advising it. The cookie is kept only on success.
  HRESULT Advise(IUnknown* source);
  // Disconnects the sink from `source` by its cookie and frees the cookie whatever the result.
  // E_INVALIDARG for a null source; otherwise the result of the connection point.
  HRESULT Unadvise(IUnknown* source) noexcept;

  [[nodiscard]] DWORD Cookie() const noexcept { return cookie_; }

 protected:
  EventSink() noexcept = default;
  EventSink(const EventSink&) = delete;
  EventSink& operator=(const EventSink&) = delete;
  ~EventSink() = default;

 private:
  DWORD cookie_ = kFreeSinkCookie;
};

// What a window's watcher shares. Active is written and never consulted: the commands are
// enabled whatever it says.
class ItemWatcher {
 public:
  explicit ItemWatcher(OutlookEventHub* hub) noexcept : hub_(hub) {}
  ItemWatcher(const ItemWatcher&) = delete;
  ItemWatcher& operator=(const ItemWatcher&) = delete;

  // Invalidates the hub's commands, then stores `value`, in this order. Throws ComError when
  // the ribbon refuses the invalidation.
  virtual void SetActive(std::uint32_t value);
  virtual ~ItemWatcher() = default;
  // Takes `window` as the watched window and connects to its events. 160 for a null window;
  // the failure of the query or of the first advise that fails; S_OK. May throw ComError.
  virtual HRESULT Attach(IDispatch* window) = 0;
  // Disconnects the sinks in the order of creation, if there is a window, and drops the window.
  virtual void Detach() noexcept = 0;

  [[nodiscard]] std::uint32_t Active() const noexcept { return active_; }

 protected:
  [[nodiscard]] OutlookEventHub& Hub() const noexcept { return *hub_; }

 private:
  OutlookEventHub* hub_;  // not counted: the hub outlives its watchers' events
  std::uint32_t active_ = 0;
};

using ExplorerSelectionSink =
    EventSink<ExplorerWatcher, kSelectionChangeSinkId, outlook::IID_ExplorerEvents_10>;
using ExplorerCloseSink =
    EventSink<ExplorerWatcher, kExplorerCloseSinkId, outlook::IID_ExplorerEvents_10>;
using ExplorerFolderSink =
    EventSink<ExplorerWatcher, kFolderSwitchSinkId, outlook::IID_ExplorerEvents_10>;

// The watcher of one explorer.
class ExplorerWatcher final : public ExplorerSelectionSink,
                              public ExplorerCloseSink,
                              public ExplorerFolderSink,
                              public ItemWatcher {
 public:
  explicit ExplorerWatcher(OutlookEventHub* hub) noexcept : ItemWatcher(hub) {}
  // Detaches first.
  ~ExplorerWatcher() override;

  // Queries `window` for _Explorer, then advises the sinks of ids 2, 3 and 7 in this order; the
  // first failure is returned and the later sinks are not tried.
  HRESULT Attach(IDispatch* window) override;
  void Detach() noexcept override;

  [[nodiscard]] const ComPtr<outlook::_Explorer>& Window() const noexcept { return window_; }

  static std::span<const EventMapEntry<ExplorerWatcher>> EventMap() noexcept;

 private:
  // SelectionChange and FolderSwitch are left empty on purpose: the enabled state of the
  // commands does not follow the selection or the folder.
  void OnSelectionChange() noexcept {}
  void OnFolderSwitch() noexcept {}
  void OnClose();

  ComPtr<outlook::_Explorer> window_;
};

using InspectorCloseSink =
    EventSink<InspectorWatcher, kInspectorCloseSinkId, outlook::IID_InspectorEvents_10>;

// The watcher of one inspector.
class InspectorWatcher final : public InspectorCloseSink, public ItemWatcher {
 public:
  explicit InspectorWatcher(OutlookEventHub* hub) noexcept : ItemWatcher(hub) {}
  // Detaches first.
  ~InspectorWatcher() override;

  // Queries `window` for _Inspector, works out Active (1 for a mail, and when the current item
  // cannot be read; else 0), calls SetActive with it and advises the sink of id 8.
  HRESULT Attach(IDispatch* window) override;
  void Detach() noexcept override;

  [[nodiscard]] const ComPtr<outlook::_Inspector>& Window() const noexcept { return window_; }

  static std::span<const EventMapEntry<InspectorWatcher>> EventMap() noexcept;

 private:
  void OnClose();

  ComPtr<outlook::_Inspector> window_;
};

using ExplorersSink = EventSink<OutlookEventHub, kExplorersSinkId, outlook::IID_ExplorersEvents>;
using InspectorsSink = EventSink<OutlookEventHub, kInspectorsSinkId, outlook::IID_InspectorsEvents>;

// Outlook's window events and the watchers of the open windows. Embedded in Addin.
class OutlookEventHub final : public ExplorersSink, public InspectorsSink {
 public:
  OutlookEventHub() noexcept = default;
  // Drops the references it holds. Watchers still listed are not destroyed: like those taken out
  // of the lists, they live to the end of the process.
  ~OutlookEventHub();

  // Stores `application` and `ribbon`, makes a watcher for each open explorer and inspector and
  // advises the hub's sinks to the two collections. 160 (a success to the callers) when either
  // argument is null; the failure of a collection getter or of an advise; S_OK. Out of memory
  // for a watcher gives 0x80004003. An exception inside a watcher loop ends that loop only; the
  // advise of an advised sink throws ComError(0x80004005).
  HRESULT Init(const ComPtr<outlook::_Application>& application,
               const ComPtr<office::IRibbonUI>& ribbon);

  // Takes every watcher out of the lists, from the end, without detaching or destroying it, and
  // unadvises the hub's sinks; failures are dropped.
  void Shutdown() noexcept;

  // Invalidates MRWL_CreatePDF, then MRWL_Settings on the ribbon (MRWL_Portfolio is left out on
  // purpose). Throws ComError with the ribbon as source when a call fails, or E_POINTER when
  // there is no ribbon.
  void InvalidateCommands();

  // The Close handlers of the watchers: take the watcher of the active explorer (inspector) out
  // of its list, if it has one; an inspector's watcher is detached first. Throws ComError when
  // the active window cannot be read.
  void RemoveActiveExplorerWatcher();
  void RemoveActiveInspectorWatcher();

  [[nodiscard]] const std::vector<ExplorerWatcher*>& GetExplorerWatchers() const noexcept {
    return ExplorerWatchers;
  }
  [[nodiscard]] const std::vector<InspectorWatcher*>& GetInspectorWatchers() const noexcept {
    return InspectorWatchers;
  }
  [[nodiscard]] const ComPtr<outlook::_Explorer>& GetLastExplorer() const noexcept {
    return LastExplorer;
  }

  static std::span<const EventMapEntry<OutlookEventHub>> EventMap() noexcept;

 private:
  void OnNewExplorer(IDispatch* window);
  void OnNewInspector(IDispatch* window);

  ComPtr<outlook::_Explorer> LastExplorer;  // read by nothing
  ComPtr<outlook::_Application> Application;
  ComPtr<outlook::_Explorers> Explorers;
  ComPtr<outlook::_Inspectors> Inspectors;
  ComPtr<office::IRibbonUI> RibbonUI;
  std::vector<ExplorerWatcher*> ExplorerWatchers;    // in order of creation; not owning
  std::vector<InspectorWatcher*> InspectorWatchers;  // likewise
};

// Every watcher that ever joined a list, in order. Nothing destroys a watcher once listed, and
// this keeps them reachable for the life of the process; nothing else reads it.
[[nodiscard]] const std::vector<ItemWatcher*>& RetainedWatchers() noexcept;

// --- Template definitions ---------------------------------------------------------------------

template <typename Owner, UINT kSinkId, const IID& kEventIid>
HRESULT EventSink<Owner, kSinkId, kEventIid>::Advise(IUnknown* source) {
  // Advising twice would leave the first connection behind with nobody to unadvise it.
  if (cookie_ != kFreeSinkCookie) throw ComError(E_FAIL);
  if (source == nullptr) return E_INVALIDARG;
  ComPtr<IConnectionPointContainer> container;
  HRESULT hr = source->QueryInterface(IID_IConnectionPointContainer, container.put_void());
  if (FAILED(hr)) return hr;
  ComPtr<IConnectionPoint> point;
  hr = container->FindConnectionPoint(kEventIid, point.put());
  if (FAILED(hr)) return hr;
  DWORD cookie = 0;
  hr = point->Advise(static_cast<IDispatch*>(this), &cookie);
  if (SUCCEEDED(hr)) cookie_ = cookie;
  return hr;
}

template <typename Owner, UINT kSinkId, const IID& kEventIid>
HRESULT EventSink<Owner, kSinkId, kEventIid>::Unadvise(IUnknown* source) noexcept {
  const DWORD cookie = std::exchange(cookie_, kFreeSinkCookie);
  if (source == nullptr) return E_INVALIDARG;
  ComPtr<IConnectionPointContainer> container;
  HRESULT hr = source->QueryInterface(IID_IConnectionPointContainer, container.put_void());
  if (FAILED(hr)) return hr;
  ComPtr<IConnectionPoint> point;
  hr = container->FindConnectionPoint(kEventIid, point.put());
  if (FAILED(hr)) return hr;
  return point->Unadvise(cookie);
}

template <typename Owner>
HRESULT DispatchEvent(Owner& owner, std::span<const EventMapEntry<Owner>> map, UINT sinkId,
                      DISPID dispid, DISPPARAMS* params, EXCEPINFO* exception) noexcept {
  const EventMapEntry<Owner>* entry = nullptr;
  for (const EventMapEntry<Owner>& row : map) {
    if (row.sinkId == sinkId && row.dispid == dispid) {
      entry = &row;
      break;
    }
  }
  if (entry == nullptr) return S_OK;
  const std::size_t count = entry->argTypes.size();
  if (count > kMaxEventArgs) return E_FAIL;
  const UINT given = params != nullptr ? params->cArgs : 0;
  if (given < count || (count > 0 && params->rgvarg == nullptr)) return DISP_E_BADPARAMCOUNT;
  UniqueVariant args[kMaxEventArgs];
  VARIANT raw[kMaxEventArgs];
  for (std::size_t i = 0; i < count; ++i) {
    const HRESULT hr =
        CoerceArgument(params->rgvarg[given - 1 - i], entry->argTypes[i], args[i].get());
    if (FAILED(hr)) return hr;
    raw[i] = *args[i].get();
  }
  // An event handler is a COM boundary: Outlook must not see a C++ exception.
  try {
    entry->handler(owner, raw);
  } catch (const ComError& error) {
    return ReportDispatchException(exception, error.Error());
  } catch (...) {
    return ReportDispatchException(exception, E_FAIL);
  }
  return S_OK;
}

}  // namespace mrwl
