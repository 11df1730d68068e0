// Events of an object, the COM way: a connection point per outgoing interface, to which sinks are
// advised by cookie, and a container that finds the point by the interface's IID. The host's
// Outlook raises its window events through these, as do the test doubles, which inject faults
// through the Enter hooks.
//
// One thread: the objects that raise events and their sinks live on the caller's thread.
#pragma once

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/com.h"
#include "platform/com_object.h"
#include "platform/com_ptr.h"

namespace mrwl {

class ConnectionPoint : public ComObject<IConnectionPoint> {
 public:
  explicit ConnectionPoint(const IID& events) : iid_(events) {}

  HRESULT STDMETHODCALLTYPE GetConnectionInterface(IID* iid) override {
    if (iid == nullptr) return E_POINTER;
    *iid = iid_;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE
  GetConnectionPointContainer(IConnectionPointContainer** container) override {
    if (container != nullptr) *container = nullptr;
    return E_NOTIMPL;
  }
  // Takes the sink's view of the event interface (an IDispatch); CONNECT_E_CANNOTCONNECT when it
  // has none.
  HRESULT STDMETHODCALLTYPE Advise(IUnknown* sink, DWORD* cookie) override {
    if (const HRESULT entered = Enter("Advise"); FAILED(entered)) return entered;
    if (sink == nullptr || cookie == nullptr) return E_POINTER;
    ComPtr<IDispatch> events;
    if (FAILED(sink->QueryInterface(iid_, events.put_void())) || !events) {
      return CONNECT_E_CANNOTCONNECT;
    }
    *cookie = nextCookie_++;
    sinks_.emplace_back(*cookie, std::move(events));
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Unadvise(DWORD cookie) override {
    if (const HRESULT entered = Enter("Unadvise"); FAILED(entered)) return entered;
    const auto found = std::find_if(sinks_.begin(), sinks_.end(),
                                    [cookie](const auto& sink) { return sink.first == cookie; });
    if (found == sinks_.end()) return CONNECT_E_NOCONNECTION;
    sinks_.erase(found);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE EnumConnections(IEnumConnections** connections) override {
    if (connections != nullptr) *connections = nullptr;
    return E_NOTIMPL;
  }

  // Delivers event `dispid` to every sink in the order of advising, with `arguments` in their
  // natural order (passed reversed, as DISPPARAMS has them); the arguments are cleared after.
  // Returns the first failure of a sink, else S_OK.
  HRESULT Raise(DISPID dispid, std::vector<VARIANT> arguments = {}) {
    std::reverse(arguments.begin(), arguments.end());
    DISPPARAMS params{arguments.data(), nullptr, static_cast<UINT>(arguments.size()), 0};
    HRESULT result = S_OK;
    // A sink may unadvise itself while it handles the event: deliver to a copy of the list.
    const auto sinks = sinks_;
    for (const auto& [cookie, sink] : sinks) {
      const HRESULT delivered =
          sink->Invoke(dispid, IID_NULL, 0, DISPATCH_METHOD, &params, nullptr, nullptr, nullptr);
      if (FAILED(delivered) && SUCCEEDED(result)) result = delivered;
    }
    for (VARIANT& argument : arguments) VariantClear(&argument);
    return result;
  }
  [[nodiscard]] std::size_t SinkCount() const noexcept { return sinks_.size(); }
  [[nodiscard]] const IID& EventsIid() const noexcept { return iid_; }

 protected:
  // Called first by Advise and Unadvise with the member's name; a failure answers the call.
  virtual HRESULT Enter(std::string_view member) {
    (void)member;
    return S_OK;
  }

 private:
  IID iid_;
  DWORD nextCookie_ = 1;
  std::vector<std::pair<DWORD, ComPtr<IDispatch>>> sinks_;
};

// An object of interface `Interface` that raises the events of one connection point of kind
// `Point` (a ConnectionPoint).
template <typename Interface, typename Point = ConnectionPoint>
class EventSource : public ComObject<Interface, IConnectionPointContainer> {
 public:
  HRESULT STDMETHODCALLTYPE EnumConnectionPoints(IEnumConnectionPoints** points) override {
    if (points != nullptr) *points = nullptr;
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE FindConnectionPoint(REFIID iid, IConnectionPoint** point) override {
    if (const HRESULT entered = EnterFind(); FAILED(entered)) return entered;
    if (point == nullptr) return E_POINTER;
    *point = nullptr;
    if (!IsEqualIID(iid, point_->EventsIid())) return CONNECT_E_NOCONNECTION;
    *point = ComPtr<Point>(point_).Detach();
    return S_OK;
  }
  [[nodiscard]] Point& Events() const noexcept { return *point_; }

 protected:
  explicit EventSource(ComPtr<Point> point) : point_(std::move(point)) {}

  // Called first by FindConnectionPoint; a failure answers the call.
  virtual HRESULT EnterFind() { return S_OK; }

 private:
  ComPtr<Point> point_;
};

// The VARIANT of an object argument of an event, holding its own reference.
[[nodiscard]] inline VARIANT DispatchArgument(IDispatch* object) noexcept {
  VARIANT value;
  VariantInit(&value);
  value.vt = VT_DISPATCH;
  value.pdispVal = object;
  if (object != nullptr) object->AddRef();
  return value;
}

}  // namespace mrwl
