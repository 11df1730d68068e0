// Tests of the hub of Outlook's window events, against the in-process Outlook of testing/.
#include "addin/event_hub.h"

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "testing/test_outlook.h"

namespace mrwl {
namespace {

using testing::OutlookFaults;
using testing::TestApplication;
using testing::TestExplorer;
using testing::TestInspector;
using testing::TestRibbonUI;

VARIANT Dispatch(IUnknown* object) { return MakeObjectVariant(object, VT_DISPATCH); }

class OutlookEventHubTest : public ::testing::Test {
 protected:
  void SetUp() override { OutlookFaults::Get().Reset(); }

  // A window already open before Init.
  ComPtr<TestExplorer> AddExplorer() {
    auto window = MakeComObject<TestExplorer>();
    application_->explorers->items.push_back(window);
    return window;
  }
  ComPtr<TestInspector> AddInspector(ComPtr<IDispatch> item) {
    auto window = MakeComObject<TestInspector>();
    window->currentItem = std::move(item);
    application_->inspectors->items.push_back(window);
    return window;
  }

  // A window that opens after Init: Outlook raises NewExplorer / NewInspector with it.
  ComPtr<TestExplorer> OpenExplorer() {
    auto window = MakeComObject<TestExplorer>();
    EXPECT_EQ(S_OK, application_->explorers->Open(window));
    return window;
  }
  ComPtr<TestInspector> OpenInspector(ComPtr<IDispatch> item, HRESULT expected = S_OK) {
    auto window = MakeComObject<TestInspector>();
    window->currentItem = std::move(item);
    EXPECT_EQ(expected, application_->inspectors->Open(window));
    return window;
  }

  HRESULT Init() { return hub_.Init(application_, ribbon_); }
  HRESULT Close(const ComPtr<TestExplorer>& window) {
    return window->Point().Raise(outlook::DISPID_Close);
  }
  HRESULT Close(const ComPtr<TestInspector>& window) {
    return window->Point().Raise(outlook::DISPID_Close);
  }

  ExplorerWatcher* WatcherOf(const ComPtr<TestExplorer>& window) const {
    for (ExplorerWatcher* watcher : hub_.GetExplorerWatchers()) {
      if (watcher->Window().get() == static_cast<outlook::_Explorer*>(window.get())) {
        return watcher;
      }
    }
    return nullptr;
  }
  InspectorWatcher* WatcherOf(const ComPtr<TestInspector>& window) const {
    for (InspectorWatcher* watcher : hub_.GetInspectorWatchers()) {
      if (watcher->Window().get() == static_cast<outlook::_Inspector*>(window.get())) {
        return watcher;
      }
    }
    return nullptr;
  }
  static bool Retained(const ItemWatcher* watcher) {
    const auto& all = RetainedWatchers();
    return std::find(all.begin(), all.end(), watcher) != all.end();
  }

  // Declared first, so that Outlook's objects go before the hub whose sinks they hold.
  OutlookEventHub hub_;
  ComPtr<TestApplication> application_ = MakeComObject<TestApplication>();
  ComPtr<TestRibbonUI> ribbon_ = MakeComObject<TestRibbonUI>();
};

TEST_F(OutlookEventHubTest, InitWithoutApplicationOrRibbonAnswersBadArgumentsAndDoesNothing) {
  EXPECT_EQ(160, hub_.Init(nullptr, ribbon_));
  EXPECT_EQ(160, hub_.Init(application_, nullptr));
  EXPECT_TRUE(OutlookFaults::Get().Calls().empty());
  EXPECT_EQ(0u, application_->explorers->Point().SinkCount());
}

TEST_F(OutlookEventHubTest, InitWatchesEveryOpenWindowAndAdvisesBothCollections) {
  auto first = AddExplorer();
  auto second = AddExplorer();
  auto mailWindow = AddInspector(testing::AsItem(testing::MakeMail(u"Report")));
  auto calendarWindow =
      AddInspector(testing::AsItem(MakeComObject<testing::TestOtherItem>("appointment")));

  ASSERT_EQ(S_OK, Init());

  ASSERT_EQ(2u, hub_.GetExplorerWatchers().size());
  EXPECT_EQ(static_cast<outlook::_Explorer*>(first.get()),
            hub_.GetExplorerWatchers()[0]->Window().get());
  EXPECT_EQ(static_cast<outlook::_Explorer*>(second.get()),
            hub_.GetExplorerWatchers()[1]->Window().get());
  EXPECT_EQ(static_cast<outlook::_Explorer*>(second.get()), hub_.GetLastExplorer().get());
  ASSERT_EQ(2u, hub_.GetInspectorWatchers().size());
  EXPECT_EQ(1u, WatcherOf(mailWindow)->Active());
  EXPECT_EQ(0u, WatcherOf(calendarWindow)->Active());

  // Three sinks on each explorer, one on each inspector, one on each collection.
  EXPECT_EQ(3u, first->Point().SinkCount());
  EXPECT_EQ(3u, second->Point().SinkCount());
  EXPECT_EQ(1u, mailWindow->Point().SinkCount());
  EXPECT_EQ(1u, calendarWindow->Point().SinkCount());
  EXPECT_EQ(1u, application_->explorers->Point().SinkCount());
  EXPECT_EQ(1u, application_->inspectors->Point().SinkCount());
  // Each inspector watcher invalidated the two commands when it worked out Active.
  EXPECT_EQ((std::vector<std::u16string>{u"MRWL_CreatePDF", u"MRWL_Settings", u"MRWL_CreatePDF",
                                         u"MRWL_Settings"}),
            ribbon_->invalidated);
}

TEST_F(OutlookEventHubTest, InitStopsAtAFailingCollectionGetter) {
  OutlookFaults::Get().Fail("Application.Explorers", E_ACCESSDENIED);
  EXPECT_EQ(E_ACCESSDENIED, Init());
  EXPECT_EQ(0u, application_->explorers->Point().SinkCount());
  EXPECT_EQ(-1, OutlookFaults::Get().IndexOf("Application.Inspectors"));
}

TEST_F(OutlookEventHubTest, InitWithoutExplorersCollectionFailsAtItsAdvise) {
  application_->explorers = nullptr;
  EXPECT_EQ(E_INVALIDARG, Init());
  EXPECT_EQ(-1, OutlookFaults::Get().IndexOf("Application.Inspectors"));
}

TEST_F(OutlookEventHubTest, AFailingItemEndsTheLoopButTheCollectionIsStillAdvised) {
  AddExplorer();
  AddExplorer();
  OutlookFaults::Get().Fail("Explorers.Item", DISP_E_BADINDEX, /*after=*/1);
  EXPECT_EQ(S_OK, Init());
  EXPECT_EQ(1u, hub_.GetExplorerWatchers().size());
  EXPECT_EQ(1u, application_->explorers->Point().SinkCount());
}

TEST_F(OutlookEventHubTest, AnExceptionInTheLoopEndsItButTheCollectionIsStillAdvised) {
  AddInspector(testing::AsItem(testing::MakeMail(u"a")));
  OutlookFaults::Get().Throw("Inspectors.Count", E_UNEXPECTED);
  EXPECT_EQ(S_OK, Init());
  EXPECT_TRUE(hub_.GetInspectorWatchers().empty());
  EXPECT_EQ(1u, application_->inspectors->Point().SinkCount());
}

TEST_F(OutlookEventHubTest, AFailingCollectionAdviseIsTheResultOfInit) {
  OutlookFaults::Get().Fail("Inspectors.ConnectionPoint.Advise", CONNECT_E_ADVISELIMIT);
  EXPECT_EQ(CONNECT_E_ADVISELIMIT, Init());
  EXPECT_EQ(1u, application_->explorers->Point().SinkCount());
}

TEST_F(OutlookEventHubTest, ASecondInitThrowsFromTheAdviseOfTheAdvisedSink) {
  ASSERT_EQ(S_OK, Init());
  try {
    (void)Init();
    FAIL() << "no exception";
  } catch (const ComError& error) {
    EXPECT_EQ(E_FAIL, error.Error());
  }
  EXPECT_EQ(1u, application_->explorers->Point().SinkCount());
}

TEST_F(OutlookEventHubTest, NewWindowsGetOneWatcherEach) {
  ASSERT_EQ(S_OK, Init());
  auto explorer = OpenExplorer();
  auto inspector = OpenInspector(testing::AsItem(testing::MakeMail(u"a")));
  ASSERT_EQ(1u, hub_.GetExplorerWatchers().size());
  ASSERT_EQ(1u, hub_.GetInspectorWatchers().size());
  EXPECT_EQ(3u, explorer->Point().SinkCount());

  // The same window again: it is watched already.
  EXPECT_EQ(S_OK,
            application_->explorers->Point().Raise(
                outlook::DISPID_NewExplorer, {Dispatch(explorer->Identity())}));
  EXPECT_EQ(S_OK,
            application_->inspectors->Point().Raise(
                outlook::DISPID_NewInspector, {Dispatch(inspector->Identity())}));
  EXPECT_EQ(1u, hub_.GetExplorerWatchers().size());
  EXPECT_EQ(1u, hub_.GetInspectorWatchers().size());
  EXPECT_EQ(3u, explorer->Point().SinkCount());
}

TEST_F(OutlookEventHubTest, ActiveTellsWhetherTheInspectorShowsAMail) {
  ASSERT_EQ(S_OK, Init());
  struct Case {
    const char* name;
    ComPtr<IDispatch> item;
    bool failCurrentItem;
    std::uint32_t active;
  };
  const Case cases[] = {
      {"mail", testing::AsItem(testing::MakeMail(u"Minutes")), false, 1},
      {"calendar item", testing::AsItem(MakeComObject<testing::TestOtherItem>("appointment")),
       false, 0},
      {"meeting request", testing::AsItem(MakeComObject<testing::TestMeetingItem>()), false, 0},
      {"no item", nullptr, false, 0},
      {"failing CurrentItem", testing::AsItem(testing::MakeMail(u"x")), true, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    OutlookFaults::Get().Reset();
    if (c.failCurrentItem) OutlookFaults::Get().Fail("Inspector.CurrentItem", E_FAIL);
    ribbon_->invalidated.clear();
    auto window = OpenInspector(c.item);
    ASSERT_NE(nullptr, WatcherOf(window));
    EXPECT_EQ(c.active, WatcherOf(window)->Active());
    // Whatever the item, the commands are invalidated and stay enabled.
    EXPECT_EQ((std::vector<std::u16string>{u"MRWL_CreatePDF", u"MRWL_Settings"}),
              ribbon_->invalidated);
  }
}

TEST_F(OutlookEventHubTest, InvalidateCommandsLeavesThePortfolioOut) {
  ASSERT_EQ(S_OK, Init());
  hub_.InvalidateCommands();
  EXPECT_EQ((std::vector<std::u16string>{u"MRWL_CreatePDF", u"MRWL_Settings"}),
            ribbon_->invalidated);
}

TEST_F(OutlookEventHubTest, InvalidateCommandsRaisesTheRibbonsFailure) {
  EXPECT_THROW(hub_.InvalidateCommands(), ComError);  // no ribbon yet
  ASSERT_EQ(S_OK, Init());
  OutlookFaults::Get().Fail("RibbonUI.InvalidateControl", E_ACCESSDENIED);
  try {
    hub_.InvalidateCommands();
    FAIL() << "no exception";
  } catch (const ComError& error) {
    EXPECT_EQ(E_ACCESSDENIED, error.Error());
    EXPECT_NE(nullptr, error.Source());
  }
  EXPECT_EQ(1, OutlookFaults::Get().CountOf("RibbonUI.InvalidateControl"));
}

TEST_F(OutlookEventHubTest, AnInspectorWhoseInvalidationFailsIsNotWatched) {
  ASSERT_EQ(S_OK, Init());
  OutlookFaults::Get().Fail("RibbonUI.InvalidateControl", E_ACCESSDENIED);
  auto window = OpenInspector(testing::AsItem(testing::MakeMail(u"a")), DISP_E_EXCEPTION);
  EXPECT_TRUE(hub_.GetInspectorWatchers().empty());
  EXPECT_EQ(0u, window->Point().SinkCount());
}

TEST_F(OutlookEventHubTest, AnExplorerWhoseAttachFailsIsDestroyedAndUnadvised) {
  ASSERT_EQ(S_OK, Init());
  // The first sink is advised, the second is refused: the watcher goes and takes the first
  // sink's connection with it.
  OutlookFaults::Get().Fail("Explorer.ConnectionPoint.Advise", CONNECT_E_ADVISELIMIT,
                            /*after=*/1);
  auto window = OpenExplorer();
  EXPECT_TRUE(hub_.GetExplorerWatchers().empty());
  EXPECT_EQ(0u, window->Point().SinkCount());
  // Detach unadvised all three sinks; only the first held a connection.
  EXPECT_EQ(3, OutlookFaults::Get().CountOf("Explorer.ConnectionPoint.Unadvise"));
}

TEST_F(OutlookEventHubTest, ANewWindowThatIsNotOfItsKindIsIgnored) {
  ASSERT_EQ(S_OK, Init());
  auto inspector = MakeComObject<TestInspector>();
  EXPECT_EQ(S_OK,
            application_->explorers->Point().Raise(
                outlook::DISPID_NewExplorer, {Dispatch(inspector->Identity())}));
  EXPECT_EQ(S_OK, application_->explorers->Point().Raise(outlook::DISPID_NewExplorer,
                                                         {Dispatch(nullptr)}));
  EXPECT_TRUE(hub_.GetExplorerWatchers().empty());
}

TEST_F(OutlookEventHubTest, ClosingAWindowRemovesTheWatcherOfTheActiveOne) {
  ASSERT_EQ(S_OK, Init());
  auto closing = OpenExplorer();
  auto active = OpenExplorer();
  application_->Activate(active);
  ExplorerWatcher* activeWatcher = WatcherOf(active);

  EXPECT_EQ(S_OK, Close(closing));

  ASSERT_EQ(1u, hub_.GetExplorerWatchers().size());
  EXPECT_NE(nullptr, WatcherOf(closing));
  EXPECT_EQ(nullptr, WatcherOf(active));
  // The removed explorer watcher is neither destroyed nor unadvised.
  EXPECT_TRUE(Retained(activeWatcher));
  EXPECT_EQ(static_cast<outlook::_Explorer*>(active.get()), activeWatcher->Window().get());
  EXPECT_EQ(3u, active->Point().SinkCount());
}

TEST_F(OutlookEventHubTest, ClosingAnInspectorDetachesTheActiveInspectorsWatcher) {
  ASSERT_EQ(S_OK, Init());
  auto closing = OpenInspector(testing::AsItem(testing::MakeMail(u"a")));
  auto active = OpenInspector(testing::AsItem(testing::MakeMail(u"b")));
  application_->Activate(active);
  InspectorWatcher* activeWatcher = WatcherOf(active);

  EXPECT_EQ(S_OK, Close(closing));

  ASSERT_EQ(1u, hub_.GetInspectorWatchers().size());
  EXPECT_NE(nullptr, WatcherOf(closing));
  EXPECT_TRUE(Retained(activeWatcher));
  EXPECT_EQ(nullptr, activeWatcher->Window().get());
  EXPECT_EQ(0u, active->Point().SinkCount());
  EXPECT_EQ(1u, closing->Point().SinkCount());
}

TEST_F(OutlookEventHubTest, ClosingWhileNoWatchedWindowIsActiveChangesNothing) {
  ASSERT_EQ(S_OK, Init());
  auto explorer = OpenExplorer();
  auto inspector = OpenInspector(testing::AsItem(testing::MakeMail(u"a")));
  application_->Activate(MakeComObject<TestExplorer>());  // a window nobody watches

  EXPECT_EQ(S_OK, Close(explorer));
  EXPECT_EQ(S_OK, Close(inspector));  // no active inspector at all

  EXPECT_EQ(1u, hub_.GetExplorerWatchers().size());
  EXPECT_EQ(1u, hub_.GetInspectorWatchers().size());
}

TEST_F(OutlookEventHubTest, AFailingActiveWindowFailsTheCloseEvent) {
  ASSERT_EQ(S_OK, Init());
  auto explorer = OpenExplorer();
  application_->Activate(explorer);
  OutlookFaults::Get().Fail("Application.ActiveExplorer", E_ACCESSDENIED);
  EXPECT_EQ(DISP_E_EXCEPTION, Close(explorer));
  EXPECT_EQ(1u, hub_.GetExplorerWatchers().size());
}

TEST_F(OutlookEventHubTest, ShutdownEmptiesTheListsButTheWatchersLiveOn) {
  auto explorer = AddExplorer();
  ASSERT_EQ(S_OK, Init());
  auto inspector = OpenInspector(testing::AsItem(testing::MakeMail(u"a")));
  ExplorerWatcher* explorerWatcher = WatcherOf(explorer);
  InspectorWatcher* inspectorWatcher = WatcherOf(inspector);

  hub_.Shutdown();

  EXPECT_TRUE(hub_.GetExplorerWatchers().empty());
  EXPECT_TRUE(hub_.GetInspectorWatchers().empty());
  EXPECT_EQ(0u, application_->explorers->Point().SinkCount());
  EXPECT_EQ(0u, application_->inspectors->Point().SinkCount());
  // Popped, not detached and not destroyed.
  EXPECT_TRUE(Retained(explorerWatcher));
  EXPECT_TRUE(Retained(inspectorWatcher));
  EXPECT_EQ(static_cast<outlook::_Inspector*>(inspector.get()), inspectorWatcher->Window().get());
  EXPECT_EQ(1u, inspectorWatcher->Active());
  EXPECT_EQ(3u, explorer->Point().SinkCount());
  EXPECT_EQ(1u, inspector->Point().SinkCount());

  // The hub no longer hears of new windows.
  OpenExplorer();
  EXPECT_TRUE(hub_.GetExplorerWatchers().empty());
}

TEST_F(OutlookEventHubTest, EventsOutsideTheMapAreAnsweredUnseen) {
  ASSERT_EQ(S_OK, Init());
  auto explorer = OpenExplorer();
  EXPECT_EQ(S_OK, explorer->Point().Raise(outlook::DISPID_SelectionChange));
  EXPECT_EQ(S_OK, explorer->Point().Raise(outlook::DISPID_FolderSwitch));
  EXPECT_EQ(S_OK, explorer->Point().Raise(0xF003));
  EXPECT_EQ(S_OK, application_->explorers->Point().Raise(0x1234));
  EXPECT_EQ(1u, hub_.GetExplorerWatchers().size());
}

TEST_F(OutlookEventHubTest, ANewWindowEventWithoutItsArgumentFails) {
  ASSERT_EQ(S_OK, Init());
  EXPECT_EQ(DISP_E_BADPARAMCOUNT,
            application_->explorers->Point().Raise(outlook::DISPID_NewExplorer));
  VARIANT text;
  VariantInit(&text);
  text.vt = VT_BSTR;
  text.bstrVal = MakeBstr(u"window").release();
  EXPECT_EQ(DISP_E_TYPEMISMATCH,
            application_->explorers->Point().Raise(outlook::DISPID_NewExplorer, {text}));
  EXPECT_TRUE(hub_.GetExplorerWatchers().empty());
}

// --- The sink machinery ------------------------------------------------------------------------

// An owner with one sink and a map whose rows test the argument rules.
class Recorder;
inline constexpr IID kRecorderEvents = {
    0x11111111, 0x2222, 0x3333, {0x44, 0x44, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55}};
using RecorderSink = EventSink<Recorder, 5, kRecorderEvents>;

class Recorder final : public RecorderSink {
 public:
  Recorder() = default;
  ~Recorder() = default;

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
    const HRESULT hr = static_cast<IDispatch*>(this)->Invoke(dispid, IID_NULL, 0, DISPATCH_METHOD,
                                                             &params, nullptr, exception, nullptr);
    for (VARIANT& arg : args) VariantClear(&arg);
    return hr;
  }
  LONG number = 0;
  std::u16string text;
};

VARIANT I4(LONG value) { return MakeI4Variant(value); }

TEST(EventSink, ArgumentsArriveInDeclaredOrderAndAreCoerced) {
  Recorder recorder;
  VARIANT text = I4(0);
  text.vt = VT_BSTR;
  text.bstrVal = MakeBstr(u"hello").release();
  VARIANT numberAsText;
  VariantInit(&numberAsText);
  numberAsText.vt = VT_BSTR;
  numberAsText.bstrVal = MakeBstr(u"42").release();
  EXPECT_EQ(S_OK, recorder.Call(1, {numberAsText, text}));
  EXPECT_EQ(42, recorder.number);
  EXPECT_EQ(u"hello", recorder.text);
}

TEST(EventSink, MapRulesDecideTheAnswer) {
  Recorder recorder;
  EXPECT_EQ(E_FAIL,
            recorder.Call(2, {I4(1), I4(2), I4(3), I4(4), I4(5), I4(6), I4(7), I4(8), I4(9)}));
  EXPECT_EQ(0, recorder.number);
  EXPECT_EQ(S_OK, recorder.Call(3, {}));  // a row of another sink id
  EXPECT_EQ(0, recorder.number);
  EXPECT_EQ(S_OK, recorder.Call(99, {}));
  EXPECT_EQ(DISP_E_BADPARAMCOUNT, recorder.Call(1, {I4(1)}));
  EXCEPINFO exception{};
  EXPECT_EQ(DISP_E_EXCEPTION, recorder.Call(4, {}, &exception));
  EXPECT_EQ(E_ABORT, exception.scode);
}

TEST(EventSink, CookieIsFreeUntilAdvisedAndAgainAfterUnadvise) {
  Recorder recorder;
  auto source = MakeComObject<TestExplorer>();  // its connection point is for other events
  EXPECT_EQ(kFreeSinkCookie, recorder.Cookie());
  EXPECT_EQ(E_INVALIDARG, recorder.Advise(nullptr));
  EXPECT_EQ(CONNECT_E_NOCONNECTION, recorder.Advise(source->Identity()));
  EXPECT_EQ(kFreeSinkCookie, recorder.Cookie());

  auto explorer = MakeComObject<TestExplorer>();
  ExplorerWatcher* watcher = new ExplorerWatcher(nullptr);
  ASSERT_EQ(S_OK, watcher->Attach(explorer.get()));
  EXPECT_NE(kFreeSinkCookie, static_cast<ExplorerCloseSink*>(watcher)->Cookie());
  EXPECT_THROW((void)static_cast<ExplorerCloseSink*>(watcher)->Advise(explorer->Identity()),
               ComError);
  delete watcher;  // detaches
  EXPECT_EQ(0u, explorer->Point().SinkCount());
}

TEST(EventSink, AttachOfANullWindowAnswersBadArguments) {
  ExplorerWatcher explorerWatcher(nullptr);
  InspectorWatcher inspectorWatcher(nullptr);
  EXPECT_EQ(160, explorerWatcher.Attach(nullptr));
  EXPECT_EQ(160, inspectorWatcher.Attach(nullptr));
  auto explorer = MakeComObject<TestExplorer>();
  EXPECT_EQ(E_NOINTERFACE, inspectorWatcher.Attach(explorer.get()));
}

}  // namespace
}  // namespace mrwl
