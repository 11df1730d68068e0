// Tests of the hub of Outlook's window events, against the in-process Outlook of testing/.
#include "addin/event_hub.h"

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "testing/test_outlook.h"

namespace mrwl {
namespace {

using testing::AsItem;
using testing::MakeMail;
using testing::OutlookFaults;
using testing::TestExplorer;
using testing::TestInspector;

using Ids = std::vector<std::u16string>;
const Ids kCommands = {u"MRWL_CreatePDF", u"MRWL_Settings"};  // the portfolio is left out

VARIANT Dispatch(IUnknown* object) { return MakeObjectVariant(object, VT_DISPATCH); }
VARIANT Text(std::u16string_view text) {
  VARIANT variant{};
  variant.vt = VT_BSTR;
  variant.bstrVal = MakeBstr(text).release();
  return variant;
}

// The watcher of `window` in `list`, nullptr for none.
template <typename Watcher, typename Window>
Watcher* Find(const std::vector<Watcher*>& list, const ComPtr<Window>& window) {
  const auto at = std::find_if(list.begin(), list.end(), [&](Watcher* watcher) {
    return watcher->Window().get() == window.get();
  });
  return at != list.end() ? *at : nullptr;
}

bool Retained(const ItemWatcher* watcher) {
  return std::find(RetainedWatchers().begin(), RetainedWatchers().end(), watcher) !=
         RetainedWatchers().end();
}

template <typename Object>
std::size_t Sinks(const ComPtr<Object>& object) {
  return object->Point().SinkCount();
}

template <typename Window>
HRESULT Close(const ComPtr<Window>& window) {
  return window->Point().Raise(outlook::DISPID_Close);
}

class OutlookEventHubTest : public ::testing::Test {
 protected:
  void SetUp() override { OutlookFaults::Get().Reset(); }

  HRESULT Init() { return hub_.Init(application_, ribbon_); }

  // A window open before Init (`raise` false), or one that opens after it: Outlook raises
  // NewExplorer / NewInspector with it.
  ComPtr<TestExplorer> OpenExplorer(bool raise = true) {
    auto window = MakeComObject<TestExplorer>();
    if (raise) {
      EXPECT_EQ(S_OK, application_->explorers->Open(window));
    } else {
      application_->explorers->items.push_back(window);
    }
    return window;
  }
  ComPtr<TestInspector> OpenInspector(ComPtr<IDispatch> item, bool raise = true,
                                      HRESULT expected = S_OK) {
    auto window = MakeComObject<TestInspector>();
    window->currentItem = std::move(item);
    if (raise) {
      EXPECT_EQ(expected, application_->inspectors->Open(window));
    } else {
      application_->inspectors->items.push_back(window);
    }
    return window;
  }

  ExplorerWatcher* WatcherOf(const ComPtr<TestExplorer>& window) const {
    return Find(hub_.GetExplorerWatchers(), window);
  }
  InspectorWatcher* WatcherOf(const ComPtr<TestInspector>& window) const {
    return Find(hub_.GetInspectorWatchers(), window);
  }

  // Declared first, so that Outlook's objects go before the hub whose sinks they hold.
  OutlookEventHub hub_;
  ComPtr<testing::TestApplication> application_ = MakeComObject<testing::TestApplication>();
  ComPtr<testing::TestRibbonUI> ribbon_ = MakeComObject<testing::TestRibbonUI>();
};

TEST_F(OutlookEventHubTest, InitWatchesEveryOpenWindowAndAdvisesBothCollections) {
  // Without application or ribbon: bad arguments, and Outlook is not even asked.
  EXPECT_EQ(160, hub_.Init(nullptr, ribbon_));
  EXPECT_EQ(160, hub_.Init(application_, nullptr));
  EXPECT_TRUE(OutlookFaults::Get().Calls().empty());

  auto first = OpenExplorer(false);
  auto second = OpenExplorer(false);
  auto mailWindow = OpenInspector(AsItem(MakeMail(u"Report")), false);
  auto calendarWindow =
      OpenInspector(AsItem(MakeComObject<testing::TestOtherItem>("appointment")), false);

  ASSERT_EQ(S_OK, Init());

  ASSERT_EQ(2u, hub_.GetExplorerWatchers().size());
  EXPECT_EQ(WatcherOf(first), hub_.GetExplorerWatchers()[0]);
  EXPECT_EQ(WatcherOf(second), hub_.GetExplorerWatchers()[1]);
  EXPECT_EQ(hub_.GetLastExplorer().get(), second.get());
  ASSERT_EQ(2u, hub_.GetInspectorWatchers().size());
  EXPECT_EQ(1u, WatcherOf(mailWindow)->Active());
  EXPECT_EQ(0u, WatcherOf(calendarWindow)->Active());
  // Three sinks on each explorer, one on each inspector, one on each collection.
  EXPECT_EQ((std::vector<std::size_t>{3, 3, 1, 1, 1, 1}),
            (std::vector<std::size_t>{Sinks(first), Sinks(second), Sinks(mailWindow),
                                      Sinks(calendarWindow), Sinks(application_->explorers),
                                      Sinks(application_->inspectors)}));
  // Each inspector watcher invalidated the commands when it worked out Active.
  EXPECT_EQ((Ids{u"MRWL_CreatePDF", u"MRWL_Settings", u"MRWL_CreatePDF", u"MRWL_Settings"}),
            ribbon_->invalidated);

  // The hub's sinks are advised already: a second Init throws from their advise.
  try {
    (void)Init();
    ADD_FAILURE() << "no exception";
  } catch (const ComError& error) {
    EXPECT_EQ(E_FAIL, error.Error());
  }
  EXPECT_EQ(1u, Sinks(application_->explorers));
}

TEST_F(OutlookEventHubTest, InitStopsAtAFailingCollectionButNotAtAFailingWindow) {
  enum How { kFails, kFailsInLoop, kThrowsInLoop };
  struct Case {
    const char* member;  // nullptr: no explorers collection at all
    HRESULT code;        // the fault's, and Init's unless in a loop
    How how;
    std::size_t explorerWatchers;
    std::size_t inspectorWatchers;
    bool reachesInspectors;
  };
  const Case cases[] = {
      {"Application.Explorers", E_ACCESSDENIED, kFails, 0, 0, false},
      {nullptr, E_INVALIDARG, kFails, 0, 0, false},  // from the advise of a null collection
      // A failing window ends its loop, not the others; the collection is still advised.
      {"Explorers.Item", DISP_E_BADINDEX, kFailsInLoop, 0, 1, true},
      {"Inspectors.Count", E_UNEXPECTED, kThrowsInLoop, 2, 0, true},
      {"Inspectors.ConnectionPoint.Advise", CONNECT_E_ADVISELIMIT, kFails, 2, 1, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.member != nullptr ? c.member : "no explorers");
    OutlookEventHub hub;
    application_ = MakeComObject<testing::TestApplication>();
    OpenExplorer(false);
    OpenExplorer(false);
    OpenInspector(AsItem(MakeMail(u"a")), false);
    OutlookFaults::Get().Reset();
    if (c.member == nullptr) {
      application_->explorers = nullptr;
    } else if (c.how == kThrowsInLoop) {
      OutlookFaults::Get().Throw(c.member, c.code);
    } else {
      OutlookFaults::Get().Fail(c.member, c.code, 0, /*times=*/1);
    }

    EXPECT_EQ(c.how == kFails ? c.code : S_OK, hub.Init(application_, ribbon_));

    EXPECT_EQ(c.explorerWatchers, hub.GetExplorerWatchers().size());
    EXPECT_EQ(c.inspectorWatchers, hub.GetInspectorWatchers().size());
    EXPECT_EQ(c.reachesInspectors, OutlookFaults::Get().IndexOf("Application.Inspectors") != -1);
    if (application_->explorers) {
      EXPECT_EQ(c.reachesInspectors ? 1u : 0u, Sinks(application_->explorers));
    }
    EXPECT_EQ(c.how != kFails ? 1u : 0u, Sinks(application_->inspectors));
    hub.Shutdown();
  }
}

TEST_F(OutlookEventHubTest, ANewWindowGetsOneWatcherAndOtherArgumentsNone) {
  ASSERT_EQ(S_OK, Init());
  auto explorer = OpenExplorer();
  auto inspector = OpenInspector(AsItem(MakeMail(u"a")));
  struct Case {
    const char* name;
    std::vector<VARIANT> args;
    HRESULT result;
  };
  Case cases[] = {
      {"a watched window again", {Dispatch(explorer->Identity())}, S_OK},
      {"a window of the other kind", {Dispatch(inspector->Identity())}, S_OK},
      {"null", {Dispatch(nullptr)}, S_OK},
      {"no argument", {}, DISP_E_BADPARAMCOUNT},
      {"a text", {Text(u"window")}, DISP_E_TYPEMISMATCH},
  };
  for (Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.result,
              application_->explorers->Point().Raise(outlook::DISPID_NewExplorer, c.args));
  }
  EXPECT_EQ(S_OK, application_->inspectors->Point().Raise(outlook::DISPID_NewInspector,
                                                          {Dispatch(inspector->Identity())}));
  // Events outside the maps are answered unseen.
  EXPECT_EQ(S_OK, explorer->Point().Raise(outlook::DISPID_SelectionChange));
  EXPECT_EQ(S_OK, application_->explorers->Point().Raise(0x1234));

  EXPECT_EQ(1u, hub_.GetExplorerWatchers().size());
  EXPECT_EQ(1u, hub_.GetInspectorWatchers().size());
  EXPECT_EQ(3u, Sinks(explorer));
  EXPECT_EQ(1u, Sinks(inspector));
}

TEST_F(OutlookEventHubTest, ActiveTellsWhetherTheInspectorShowsAMail) {
  ASSERT_EQ(S_OK, Init());
  const std::tuple<const char*, ComPtr<IDispatch>, bool, std::uint32_t> cases[] = {
      {"mail", AsItem(MakeMail(u"Minutes")), false, 1},
      {"calendar item", AsItem(MakeComObject<testing::TestOtherItem>("appointment")), false, 0},
      {"meeting request", AsItem(MakeComObject<testing::TestMeetingItem>()), false, 0},
      {"no item", nullptr, false, 0},
      {"failing CurrentItem", AsItem(MakeMail(u"x")), true, 1},
  };
  for (const auto& [name, item, failCurrentItem, active] : cases) {
    SCOPED_TRACE(name);
    OutlookFaults::Get().Reset();
    if (failCurrentItem) OutlookFaults::Get().Fail("Inspector.CurrentItem", E_FAIL);
    ribbon_->invalidated.clear();
    auto window = OpenInspector(item);
    ASSERT_NE(nullptr, WatcherOf(window));
    EXPECT_EQ(active, WatcherOf(window)->Active());
    // Whatever the item, the commands are invalidated and stay enabled.
    EXPECT_EQ(kCommands, ribbon_->invalidated);
  }
}

TEST_F(OutlookEventHubTest, AWindowWhoseWatchingFailsIsLeftUnwatchedAndUnadvised) {
  EXPECT_THROW(hub_.InvalidateCommands(), ComError);  // no ribbon yet
  ASSERT_EQ(S_OK, Init());
  OutlookFaults::Get().Fail("RibbonUI.InvalidateControl", E_ACCESSDENIED);
  try {
    hub_.InvalidateCommands();
    ADD_FAILURE() << "no exception";
  } catch (const ComError& error) {
    EXPECT_EQ(E_ACCESSDENIED, error.Error());
    EXPECT_NE(nullptr, error.Source());
  }
  EXPECT_EQ(1, OutlookFaults::Get().CountOf("RibbonUI.InvalidateControl"));

  // A refused invalidation leaves the new inspector unwatched.
  auto inspector = OpenInspector(AsItem(MakeMail(u"a")), true, DISP_E_EXCEPTION);
  EXPECT_TRUE(hub_.GetInspectorWatchers().empty());
  EXPECT_EQ(0u, Sinks(inspector));

  // The first sink is advised, the second refused, the third would be: the watcher goes and takes
  // the first sink's connection with it.
  OutlookFaults::Get().Fail("Explorer.ConnectionPoint.Advise", CONNECT_E_ADVISELIMIT, 1, 1);
  auto window = OpenExplorer();
  EXPECT_TRUE(hub_.GetExplorerWatchers().empty());
  EXPECT_EQ(0u, Sinks(window));
  EXPECT_EQ(3, OutlookFaults::Get().CountOf("Explorer.ConnectionPoint.Unadvise"));
}

// The watcher that goes is that of the window active at the event, not that of the one closing.
TEST_F(OutlookEventHubTest, ClosingAWindowRemovesTheActiveWindowsWatcher) {
  ASSERT_EQ(S_OK, Init());
  auto closingExplorer = OpenExplorer();
  auto activeExplorer = OpenExplorer();
  auto closingInspector = OpenInspector(AsItem(MakeMail(u"a")));
  auto activeInspector = OpenInspector(AsItem(MakeMail(u"b")));
  application_->Activate(activeExplorer);
  application_->Activate(activeInspector);
  ExplorerWatcher* explorerWatcher = WatcherOf(activeExplorer);
  InspectorWatcher* inspectorWatcher = WatcherOf(activeInspector);

  EXPECT_EQ(S_OK, Close(closingExplorer));
  EXPECT_EQ(S_OK, Close(closingInspector));

  ASSERT_EQ(1u, hub_.GetExplorerWatchers().size());
  ASSERT_EQ(1u, hub_.GetInspectorWatchers().size());
  EXPECT_NE(nullptr, WatcherOf(closingExplorer));
  EXPECT_NE(nullptr, WatcherOf(closingInspector));
  EXPECT_TRUE(Retained(explorerWatcher));
  EXPECT_TRUE(Retained(inspectorWatcher));
  // The explorer's watcher is only popped, still advised; the inspector's is detached.
  EXPECT_EQ(3u, Sinks(activeExplorer));
  EXPECT_EQ(nullptr, inspectorWatcher->Window().get());
  EXPECT_EQ(0u, Sinks(activeInspector));
  EXPECT_EQ(1u, Sinks(closingInspector));
}

TEST_F(OutlookEventHubTest, ClosingWithoutAWatchedActiveWindowChangesNothing) {
  ASSERT_EQ(S_OK, Init());
  auto explorer = OpenExplorer();
  auto inspector = OpenInspector(AsItem(MakeMail(u"a")));
  application_->Activate(MakeComObject<TestExplorer>());  // a window nobody watches
  EXPECT_EQ(S_OK, Close(explorer));
  EXPECT_EQ(S_OK, Close(inspector));  // no active inspector at all
  // An active window that cannot be read fails the event.
  application_->Activate(explorer);
  OutlookFaults::Get().Fail("Application.ActiveExplorer", E_ACCESSDENIED);
  EXPECT_EQ(DISP_E_EXCEPTION, Close(explorer));
  EXPECT_EQ(1u, hub_.GetExplorerWatchers().size());
  EXPECT_EQ(1u, hub_.GetInspectorWatchers().size());
}

TEST_F(OutlookEventHubTest, ShutdownEmptiesTheListsButTheWatchersLiveOn) {
  auto explorer = OpenExplorer(false);
  ASSERT_EQ(S_OK, Init());
  auto inspector = OpenInspector(AsItem(MakeMail(u"a")));
  ExplorerWatcher* explorerWatcher = WatcherOf(explorer);
  InspectorWatcher* inspectorWatcher = WatcherOf(inspector);

  hub_.Shutdown();

  EXPECT_TRUE(hub_.GetExplorerWatchers().empty());
  EXPECT_TRUE(hub_.GetInspectorWatchers().empty());
  EXPECT_EQ(0u, Sinks(application_->explorers));
  EXPECT_EQ(0u, Sinks(application_->inspectors));
  // Popped, neither detached nor destroyed.
  EXPECT_TRUE(Retained(explorerWatcher));
  EXPECT_TRUE(Retained(inspectorWatcher));
  EXPECT_EQ(3u, Sinks(explorer));
  EXPECT_EQ(1u, Sinks(inspector));
  // The hub no longer hears of new windows.
  OpenExplorer();
  EXPECT_TRUE(hub_.GetExplorerWatchers().empty());
}

// An owner with one sink and a map whose rows test the argument rules.
inline constexpr IID kRecorderEvents = {
    0x11111111, 0x2222, 0x3333, {0x44, 0x44, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55}};

class Recorder final : public EventSink<Recorder, 5, kRecorderEvents> {
 public:
  static std::span<const EventMapEntry<Recorder>> EventMap() noexcept {
    static constexpr VARTYPE kTwo[] = {VT_I4, VT_BSTR};
    static constexpr VARTYPE kNine[] = {VT_I4, VT_I4, VT_I4, VT_I4, VT_I4,
                                        VT_I4, VT_I4, VT_I4, VT_I4};
    static const EventMapEntry<Recorder> map[] = {
        {5, &kRecorderEvents, 1, kTwo,
         [](Recorder& r, VARIANT* args) {
           r.number = args[0].lVal;
           r.text = std::u16string(BstrView(args[1].bstrVal));
         }},
        {5, &kRecorderEvents, 2, kNine, [](Recorder& r, VARIANT*) { r.number = -9; }},
        {6, &kRecorderEvents, 3, {}, [](Recorder& r, VARIANT*) { r.number = -6; }},
        {5, &kRecorderEvents, 4, {}, [](Recorder&, VARIANT*) { throw ComError(E_ABORT); }},
    };
    return map;
  }
  HRESULT Call(DISPID dispid, std::vector<VARIANT> args, EXCEPINFO* exception = nullptr) {
    std::reverse(args.begin(), args.end());
    DISPPARAMS params{args.data(), nullptr, static_cast<UINT>(args.size()), 0};
    const HRESULT hr =
        Invoke(dispid, IID_NULL, 0, DISPATCH_METHOD, &params, nullptr, exception, nullptr);
    for (VARIANT& arg : args) VariantClear(&arg);
    return hr;
  }
  LONG number = 0;
  std::u16string text;
};

TEST(EventSink, TheMapDecidesTheAnswerAndTheCookieTellsTheConnection) {
  Recorder recorder;
  EXPECT_EQ(E_FAIL,
            recorder.Call(2, std::vector<VARIANT>(9, MakeI4Variant(1))));  // > kMaxEventArgs
  EXPECT_EQ(S_OK, recorder.Call(3, {}));  // a row of another sink id
  EXPECT_EQ(S_OK, recorder.Call(99, {}));
  EXPECT_EQ(DISP_E_BADPARAMCOUNT, recorder.Call(1, {MakeI4Variant(1)}));
  EXPECT_EQ(0, recorder.number);
  EXCEPINFO exception{};
  EXPECT_EQ(DISP_E_EXCEPTION, recorder.Call(4, {}, &exception));
  EXPECT_EQ(E_ABORT, exception.scode);

  EXPECT_EQ(S_OK, recorder.Call(1, {Text(u"42"), Text(u"hello")}));
  EXPECT_EQ(42, recorder.number);
  EXPECT_EQ(u"hello", recorder.text);

  // The cookie is free until advised, and again after the watcher's destructor unadvises.
  auto explorer = MakeComObject<TestExplorer>();  // its connection point is for other events
  EXPECT_EQ(E_INVALIDARG, recorder.Advise(nullptr));
  EXPECT_EQ(CONNECT_E_NOCONNECTION, recorder.Advise(explorer->Identity()));
  EXPECT_EQ(kFreeSinkCookie, recorder.Cookie());

  {
    ExplorerWatcher watcher(nullptr);
    EXPECT_EQ(160, watcher.Attach(nullptr));
    ASSERT_EQ(S_OK, watcher.Attach(explorer.get()));
    auto& closeSink = static_cast<ExplorerCloseSink&>(watcher);
    EXPECT_NE(kFreeSinkCookie, closeSink.Cookie());
    EXPECT_THROW((void)closeSink.Advise(explorer->Identity()), ComError);
  }  // its destructor detaches
  EXPECT_EQ(0u, Sinks(explorer));

  InspectorWatcher inspectorWatcher(nullptr);
  EXPECT_EQ(160, inspectorWatcher.Attach(nullptr));
  EXPECT_EQ(E_NOINTERFACE, inspectorWatcher.Attach(explorer.get()));
}

}  // namespace
}  // namespace mrwl
