// Tests of the add-in object: its views, the connection with Outlook, the ribbon XML and the
// ribbon callbacks, against the in-process Outlook of testing/.
#include "addin/addin.h"

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "addin/ribbon.h"
#include "testing/temp_folder.h"
#include "testing/test_outlook.h"

namespace mrwl {
namespace {

using testing::OutlookFaults;
using testing::TestRibbonControl;
using testing::TestRibbonUI;

// One element of a ribbon XML text: its name and its attributes' text.
struct Element {
  std::u16string name;
  std::u16string text;  // everything between '<' and '>'
};

std::vector<Element> Elements(std::u16string_view xml) {
  std::vector<Element> elements;
  for (std::size_t at = xml.find(u'<'); at != std::u16string_view::npos;
       at = xml.find(u'<', at + 1)) {
    const std::size_t end = xml.find(u'>', at);
    if (end == std::u16string_view::npos) break;
    const std::u16string_view text = xml.substr(at + 1, end - at - 1);
    if (text.empty() || text[0] == u'/') continue;
    const std::size_t nameEnd = text.find_first_of(u" />");
    elements.push_back({std::u16string(text.substr(0, nameEnd)), std::u16string(text)});
  }
  return elements;
}

std::u16string Attribute(const Element& element, std::u16string_view name) {
  const std::u16string key = u" " + std::u16string(name) + u"=\"";
  const std::size_t at = element.text.find(key);
  if (at == std::u16string::npos) return u"<none>";
  const std::size_t start = at + key.size();
  return element.text.substr(start, element.text.find(u'"', start) - start);
}

std::vector<std::u16string> IdsOf(const std::vector<Element>& elements, std::u16string_view kind) {
  std::vector<std::u16string> ids;
  for (const Element& element : elements) {
    if (element.name == kind) ids.push_back(Attribute(element, u"id"));
  }
  return ids;
}

VARIANT Dispatch(IUnknown* object) { return MakeObjectVariant(object, VT_DISPATCH); }
VARIANT Unknown(IUnknown* object) { return MakeObjectVariant(object, VT_UNKNOWN); }
VARIANT I4(LONG value) { return MakeI4Variant(value); }

class AddinTest : public ::testing::Test {
 protected:
  void SetUp() override { OutlookFaults::Get().Reset(); }

  HRESULT Connect() {
    return addin_->OnConnection(world_.application.get(), office::ext_cm_Startup, nullptr, nullptr);
  }
  HRESULT LoadRibbon() { return addin_->OnRibbonLoaded(ribbon_.get()); }
  HRESULT Disconnect() { return addin_->OnDisconnection(office::ext_dm_HostShutdown, nullptr); }

  // Clicks the button `id`; the text the user was shown goes to `shown`.
  HRESULT Click(std::u16string id, std::string* shown = nullptr) {
    auto control = MakeComObject<TestRibbonControl>(std::move(id));
    ::testing::internal::CaptureStderr();
    const HRESULT hr = addin_->RibbonHandler(control.get());
    const std::string text = ::testing::internal::GetCapturedStderr();
    if (shown != nullptr) *shown = text;
    return hr;
  }

  // The ribbon XML for `ribbonId`; nullopt for a null string.
  std::optional<std::u16string> CustomUI(std::u16string_view ribbonId) {
    UniqueBstr id = MakeBstr(ribbonId);
    BSTR xml = nullptr;
    EXPECT_EQ(S_OK, addin_->GetCustomUI(id.get(), &xml));
    UniqueBstr owned(xml);
    if (!owned) return std::nullopt;
    return std::u16string(BstrView(owned.get()));
  }

  ComPtr<IDispatch> AsDispatch() {
    ComPtr<IDispatch> dispatch;
    EXPECT_EQ(S_OK, addin_->QueryInterface(IID_IDispatch, dispatch.put_void()));
    return dispatch;
  }

  // Calls `dispid` through IDispatch with `args` in their natural order.
  HRESULT Invoke(DISPID dispid, std::vector<VARIANT> args, VARIANT* result = nullptr,
                 EXCEPINFO* exception = nullptr, UINT* argError = nullptr,
                 WORD flags = DISPATCH_METHOD) {
    std::reverse(args.begin(), args.end());
    DISPPARAMS params{args.data(), nullptr, static_cast<UINT>(args.size()), 0};
    const HRESULT hr =
        AsDispatch()->Invoke(dispid, IID_NULL, 0, flags, &params, result, exception, argError);
    for (VARIANT& arg : args) VariantClear(&arg);
    return hr;
  }

  // Declared first, so that Outlook's objects go before the add-in whose sinks they hold.
  ComPtr<Addin> addin_ = MakeComObject<Addin>();
  testing::TempFolder folder_;
  testing::ScopedEnv registry_{"MRWL_REGISTRY", folder_.PathOf("registry.db")};
  testing::ExplorerWorld world_ = testing::MakeExplorerWorld({});
  ComPtr<TestRibbonUI> ribbon_ = MakeComObject<TestRibbonUI>();
};

// --- Views -------------------------------------------------------------------------------------

TEST_F(AddinTest, QueryInterfaceAnswersEachIidWithItsView) {
  Addin* object = addin_.get();
  struct Case {
    const char* name;
    IID iid;
    void* view;
  };
  const Case cases[] = {
      {"IUnknown", IID_IUnknown, static_cast<IOutlookAddin*>(object)},
      {"primary", IID_IOutlookAddin, static_cast<IOutlookAddin*>(object)},
      {"IDispatch", IID_IDispatch, static_cast<IRibbonCallback*>(object)},
      {"IDTExtensibility2", office::IID_IDTExtensibility2,
       static_cast<office::IDTExtensibility2*>(object)},
      {"IRibbonExtensibility", office::IID_IRibbonExtensibility,
       static_cast<office::IRibbonExtensibility*>(object)},
      {"IRibbonCallback", IID_IRibbonCallback, nullptr},
      {"IRibbonUI", office::IID_IRibbonUI, nullptr},
      {"IConnectionPointContainer", IID_IConnectionPointContainer, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    void* found = reinterpret_cast<void*>(0x1);
    const HRESULT hr = addin_->QueryInterface(c.iid, &found);
    EXPECT_EQ(c.view != nullptr ? S_OK : E_NOINTERFACE, hr);
    EXPECT_EQ(c.view, found);
    if (found != nullptr) static_cast<IUnknown*>(found)->Release();
  }
  EXPECT_EQ(E_POINTER, addin_->QueryInterface(IID_IUnknown, nullptr));
}

TEST_F(AddinTest, ReferencesAreSharedByAllViews) {
  ComPtr<office::IDTExtensibility2> extensibility;
  ASSERT_EQ(S_OK, addin_.As(office::IID_IDTExtensibility2, &extensibility));
  EXPECT_EQ(3u, extensibility->AddRef());
  EXPECT_EQ(2u, addin_->Release());
}

TEST_F(AddinTest, EachViewResolvesNamesByItsOwnDescription) {
  ComPtr<office::IDTExtensibility2> extensibility;
  ComPtr<office::IRibbonExtensibility> ribbonExtensibility;
  ComPtr<IOutlookAddin> primary;
  ASSERT_EQ(S_OK, addin_.As(office::IID_IDTExtensibility2, &extensibility));
  ASSERT_EQ(S_OK, addin_.As(office::IID_IRibbonExtensibility, &ribbonExtensibility));
  ASSERT_EQ(S_OK, addin_.As(IID_IOutlookAddin, &primary));
  const ComPtr<IDispatch> callback = AsDispatch();
  struct Case {
    const char* name;
    IDispatch* view;
    std::u16string member;
    HRESULT result;
    DISPID dispid;
  };
  const Case cases[] = {
      {"callback", callback.get(), u"GetImage", S_OK, 12},
      {"callback", callback.get(), u"getenabled", S_OK, 22},
      {"callback", callback.get(), u"OnRibbonLoaded", S_OK, 32},
      {"callback", callback.get(), u"RIBBONHANDLER", S_OK, 42},
      {"callback", callback.get(), u"OnConnection", DISP_E_UNKNOWNNAME, DISPID_UNKNOWN},
      {"extensibility", extensibility.get(), u"OnConnection", S_OK, 1},
      {"extensibility", extensibility.get(), u"OnDisconnection", S_OK, 2},
      {"extensibility", extensibility.get(), u"OnAddInsUpdate", S_OK, 3},
      {"extensibility", extensibility.get(), u"OnStartupComplete", S_OK, 4},
      {"extensibility", extensibility.get(), u"onbeginshutdown", S_OK, 5},
      {"extensibility", extensibility.get(), u"GetImage", DISP_E_UNKNOWNNAME, DISPID_UNKNOWN},
      {"ribbon extensibility", ribbonExtensibility.get(), u"GetCustomUI", S_OK, 1},
      {"primary", primary.get(), u"OnConvert", DISP_E_UNKNOWNNAME, DISPID_UNKNOWN},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name + std::string(" ") + std::string(c.member.begin(), c.member.end()));
    std::u16string name = c.member;
    LPOLESTR names[] = {name.data()};
    DISPID id = 777;
    EXPECT_EQ(c.result, c.view->GetIDsOfNames(IID_NULL, names, 1, 0, &id));
    EXPECT_EQ(c.dispid, id);
  }
}

TEST_F(AddinTest, GetIDsOfNamesGivesParameterPositions) {
  std::u16string member = u"OnConnection";
  std::u16string first = u"application";
  std::u16string fourth = u"custom";
  std::u16string unknown = u"nothing";
  LPOLESTR names[] = {member.data(), fourth.data(), first.data(), unknown.data()};
  DISPID ids[4] = {};
  ComPtr<office::IDTExtensibility2> extensibility;
  ASSERT_EQ(S_OK, addin_.As(office::IID_IDTExtensibility2, &extensibility));
  EXPECT_EQ(DISP_E_UNKNOWNNAME, extensibility->GetIDsOfNames(IID_NULL, names, 4, 0, ids));
  EXPECT_EQ(1, ids[0]);
  EXPECT_EQ(3, ids[1]);
  EXPECT_EQ(0, ids[2]);
  EXPECT_EQ(DISPID_UNKNOWN, ids[3]);
}

// --- Connection ------------------------------------------------------------------------------

TEST_F(AddinTest, OnConnectionKeepsTheMajorVersion) {
  struct Case {
    std::u16string version;
    std::uint32_t major;
  };
  const Case cases[] = {{u"16.0.0.17928", 16}, {u"15", 15}, {u"9.1", 9},
                        {u"Outlook", 0},       {u"", 0},    {u"99999999999.0", 0xFFFFFFFFu}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.version.begin(), c.version.end()));
    auto addin = MakeComObject<Addin>();
    world_.application->version = c.version;
    EXPECT_EQ(S_OK, addin->OnConnection(world_.application.get(), office::ext_cm_Startup, nullptr,
                                        nullptr));
    EXPECT_EQ(c.major, addin->GetOutlookMajorVersion());
  }
}

TEST_F(AddinTest, OnConnectionRejectsWhatIsNoApplication) {
  EXPECT_EQ(E_INVALIDARG, addin_->OnConnection(nullptr, office::ext_cm_Startup, nullptr, nullptr));
  auto control = MakeComObject<TestRibbonControl>(u"x");
  EXPECT_EQ(E_NOINTERFACE,
            addin_->OnConnection(control.get(), office::ext_cm_Startup, nullptr, nullptr));
}

TEST_F(AddinTest, AnUnreadableVersionStillConnects) {
  OutlookFaults::Get().Fail("Application.Version", E_ACCESSDENIED);
  EXPECT_EQ(S_OK, Connect());
  EXPECT_EQ(0u, addin_->GetOutlookMajorVersion());
  // The events wait for the ribbon.
  EXPECT_EQ(0u, world_.application->explorers->Point().SinkCount());
}

// --- Ribbon XML --------------------------------------------------------------------------------

TEST_F(AddinTest, GetCustomUIPicksTheRibbonByTheExactRibbonId) {
  struct Case {
    std::u16string ribbonId;
    std::vector<std::u16string> buttons;
  };
  const std::vector<std::u16string> three = {u"MRWL_CreatePDF", u"MRWL_Portfolio",
                                             u"MRWL_Settings"};
  const std::vector<std::u16string> two = {u"MRWL_CreatePDF", u"MRWL_Settings"};
  const Case cases[] = {
      {u"Microsoft.Outlook.Explorer", three},   {u"microsoft.outlook.explorer", two},
      {u"Microsoft.Outlook.Explorer ", two},    {u"Microsoft.Outlook.Mail.Read", two},
      {u"Microsoft.Outlook.Mail.Compose", two}, {u"", two},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.ribbonId.begin(), c.ribbonId.end()));
    const std::optional<std::u16string> xml = CustomUI(c.ribbonId);
    ASSERT_TRUE(xml.has_value());
    const std::vector<Element> elements = Elements(*xml);
    EXPECT_EQ(c.buttons, IdsOf(elements, u"button"));
    EXPECT_EQ(std::vector<std::u16string>{u"MRWL_OL_separator1"}, IdsOf(elements, u"separator"));
    EXPECT_EQ(std::vector<std::u16string>{u"Marrowline"}, IdsOf(elements, u"tab"));
    EXPECT_EQ(std::vector<std::u16string>{u"Marrowline_Group"}, IdsOf(elements, u"group"));
  }
  // A null id is no explorer's either.
  UniqueBstr none;
  BSTR xml = nullptr;
  ASSERT_EQ(S_OK, addin_->GetCustomUI(none.get(), &xml));
  UniqueBstr owned(xml);
  EXPECT_EQ(2u, IdsOf(Elements(BstrView(owned.get())), u"button").size());
}

TEST_F(AddinTest, RibbonXmlCarriesTheCallbacksAndLabels) {
  const std::optional<std::u16string> xml = CustomUI(u"Microsoft.Outlook.Explorer");
  ASSERT_TRUE(xml.has_value());
  const std::vector<Element> elements = Elements(*xml);
  ASSERT_FALSE(elements.empty());
  EXPECT_EQ(u"customUI", elements[0].name);
  EXPECT_EQ(u"http://schemas.microsoft.com/office/2006/01/customui",
            Attribute(elements[0], u"xmlns"));
  EXPECT_EQ(u"OnRibbonLoaded", Attribute(elements[0], u"onLoad"));
  std::vector<std::u16string> names;
  for (const Element& element : elements) names.push_back(element.name);
  EXPECT_EQ((std::vector<std::u16string>{u"customUI", u"ribbon", u"tabs", u"tab", u"group",
                                         u"button", u"button", u"separator", u"button"}),
            names);

  const std::pair<std::u16string, std::u16string> labels[] = {
      {u"MRWL_CreatePDF", u"Convert to PDF"},
      {u"MRWL_Portfolio", u"Convert to PDF portfolio"},
      {u"MRWL_Settings", u"Settings"},
  };
  for (const auto& [id, label] : labels) {
    SCOPED_TRACE(std::string(id.begin(), id.end()));
    const auto button = std::find_if(elements.begin(), elements.end(),
                                     [&](const Element& e) { return Attribute(e, u"id") == id; });
    ASSERT_NE(elements.end(), button);
    EXPECT_EQ(label, Attribute(*button, u"label"));
    EXPECT_EQ(u"GetImage", Attribute(*button, u"getImage"));
    EXPECT_EQ(u"GetEnabled", Attribute(*button, u"getEnabled"));
    EXPECT_EQ(u"large", Attribute(*button, u"size"));
    EXPECT_EQ(u"RibbonHandler", Attribute(*button, u"onAction"));
  }
  EXPECT_EQ(u"Marrowline", Attribute(elements[3], u"label"));
  EXPECT_EQ(u"Marrowline", Attribute(elements[4], u"label"));
}

TEST_F(AddinTest, GetCustomUIWithoutResultPointerFails) {
  UniqueBstr id = MakeBstr(u"Microsoft.Outlook.Explorer");
  EXPECT_EQ(E_POINTER, addin_->GetCustomUI(id.get(), nullptr));
}

TEST(RibbonResources, OnlyTheTwoRibbonsAreXmlResources) {
  EXPECT_FALSE(LoadRibbonXml(999));
  EXPECT_EQ(nullptr, FindModuleResource(u"xml", kExplorerRibbonXml));  // the type is exact
  ASSERT_NE(nullptr, FindModuleResource(u"XML", kItemRibbonXml));
  const UniqueBstr xml = LoadRibbonXml(kItemRibbonXml);
  EXPECT_EQ(FindModuleResource(u"XML", kItemRibbonXml)->size, SysStringLen(xml.get()));
}

TEST(RibbonResources, ImageRowsAreFoundByTheExactControlId) {
  struct Case {
    std::u16string id;
    int normal;
    int dense;
  };
  const Case cases[] = {{u"MRWL_CreatePDF", 280, 221},
                        {u"MRWL_Settings", 281, 224},
                        {u"MRWL_Portfolio", 282, 222},
                        {u"mrwl_createpdf", 0, 0},
                        {u"MRWL_OL_separator1", 0, 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.id.begin(), c.id.end()));
    auto control = MakeComObject<TestRibbonControl>(c.id);
    const RibbonImageRow* row = FindRibbonImageRow(control.get());
    if (c.normal == 0) {
      EXPECT_EQ(nullptr, row);
      continue;
    }
    ASSERT_NE(nullptr, row);
    EXPECT_EQ(c.id, row->controlId);
    EXPECT_EQ(c.normal, row->normalPng);
    EXPECT_EQ(c.dense, row->densePng);
  }
  EXPECT_EQ(nullptr, FindRibbonImageRow(nullptr));
  auto notAControl = MakeComObject<TestRibbonUI>();
  EXPECT_EQ(nullptr, FindRibbonImageRow(notAControl.get()));
}

TEST_F(AddinTest, GetImageOfAControlWithoutPictureLeavesTheImageUnwritten) {
  auto control = MakeComObject<TestRibbonControl>(u"MRWL_Other");
  auto* sentinel = reinterpret_cast<IPictureDisp*>(0x10);
  IPictureDisp* image = sentinel;
  EXPECT_EQ(S_OK, addin_->GetImage(control.get(), &image));
  EXPECT_EQ(sentinel, image);
  EXPECT_EQ(S_OK, addin_->GetImage(nullptr, &image));
  EXPECT_EQ(sentinel, image);
}

// --- Callbacks ---------------------------------------------------------------------------------

TEST_F(AddinTest, GetEnabledIsAlwaysOne) {
  auto control = MakeComObject<TestRibbonControl>(u"MRWL_Portfolio");
  LONG enabled = 0;
  EXPECT_EQ(S_OK, addin_->GetEnabled(control.get(), &enabled));
  EXPECT_EQ(1, enabled);
  enabled = 0;
  EXPECT_EQ(S_OK, addin_->GetEnabled(nullptr, &enabled));
  EXPECT_EQ(1, enabled);
  EXPECT_EQ(S_OK, addin_->GetEnabled(control.get(), nullptr));
  EXPECT_TRUE(OutlookFaults::Get().Calls().empty());
}

TEST_F(AddinTest, OnRibbonLoadedWithoutRibbonFailsAndLeavesItUnloaded) {
  EXPECT_EQ(E_FAIL, addin_->OnRibbonLoaded(nullptr));
  EXPECT_FALSE(addin_->IsRibbonLoaded());
  // An object that is no ribbon: S_OK, still unloaded.
  auto control = MakeComObject<TestRibbonControl>(u"x");
  EXPECT_EQ(S_OK, addin_->OnRibbonLoaded(control.get()));
  EXPECT_FALSE(addin_->IsRibbonLoaded());
}

TEST_F(AddinTest, OnRibbonLoadedBeforeTheConnectionAnswersBadArguments) {
  EXPECT_EQ(160, LoadRibbon());
  EXPECT_TRUE(addin_->IsRibbonLoaded());
  EXPECT_EQ(0u, world_.application->explorers->Point().SinkCount());
}

TEST_F(AddinTest, OnRibbonLoadedConnectsTheWindowEvents) {
  ASSERT_EQ(S_OK, Connect());
  EXPECT_EQ(S_OK, LoadRibbon());
  EXPECT_TRUE(addin_->IsRibbonLoaded());
  EXPECT_EQ(1u, addin_->GetHub().GetExplorerWatchers().size());
  EXPECT_EQ(1u, world_.application->explorers->Point().SinkCount());
  EXPECT_EQ(1u, world_.application->inspectors->Point().SinkCount());
  EXPECT_EQ(S_OK, Disconnect());
}

TEST_F(AddinTest, ASecondOnRibbonLoadedThrowsAndThroughInvokeFails) {
  ASSERT_EQ(S_OK, Connect());
  ASSERT_EQ(S_OK, LoadRibbon());
  EXPECT_THROW((void)LoadRibbon(), ComError);

  EXCEPINFO exception{};
  EXPECT_EQ(DISP_E_EXCEPTION,
            Invoke(DISPID_OnRibbonLoaded, {Unknown(ribbon_->Identity())}, nullptr, &exception));
  EXPECT_EQ(E_FAIL, exception.scode);
  EXPECT_TRUE(addin_->IsRibbonLoaded());
  EXPECT_EQ(S_OK, Disconnect());
}

TEST_F(AddinTest, OnDisconnectionWithoutRibbonSucceeds) {
  EXPECT_EQ(S_OK, Disconnect());
  ASSERT_EQ(S_OK, Connect());
  EXPECT_EQ(S_OK, Disconnect());
}

TEST_F(AddinTest, OnDisconnectionEmptiesTheWatcherListsAndTheWatchersStay) {
  ASSERT_EQ(S_OK, Connect());
  ASSERT_EQ(S_OK, LoadRibbon());
  auto inspector = MakeComObject<testing::TestInspector>();
  inspector->currentItem = testing::AsItem(testing::MakeMail(u"Minutes"));
  ASSERT_EQ(S_OK, world_.application->inspectors->Open(inspector));
  ASSERT_EQ(1u, addin_->GetHub().GetInspectorWatchers().size());
  const ExplorerWatcher* explorerWatcher = addin_->GetHub().GetExplorerWatchers()[0];
  const InspectorWatcher* inspectorWatcher = addin_->GetHub().GetInspectorWatchers()[0];

  EXPECT_EQ(S_OK, Disconnect());

  EXPECT_TRUE(addin_->GetHub().GetExplorerWatchers().empty());
  EXPECT_TRUE(addin_->GetHub().GetInspectorWatchers().empty());
  EXPECT_EQ(0u, world_.application->explorers->Point().SinkCount());
  EXPECT_EQ(0u, world_.application->inspectors->Point().SinkCount());
  const auto& retained = RetainedWatchers();
  EXPECT_NE(retained.end(), std::find(retained.begin(), retained.end(), explorerWatcher));
  EXPECT_NE(retained.end(), std::find(retained.begin(), retained.end(), inspectorWatcher));
  EXPECT_EQ(static_cast<outlook::_Inspector*>(inspector.get()), inspectorWatcher->Window().get());
  EXPECT_EQ(1u, inspector->Point().SinkCount());
}

// --- Commands ----------------------------------------------------------------------------------

TEST_F(AddinTest, RibbonHandlerWithoutControlFails) {
  EXPECT_EQ(E_INVALIDARG, addin_->RibbonHandler(nullptr));
}

TEST_F(AddinTest, AnUnknownControlDoesNothing) {
  ASSERT_EQ(S_OK, Connect());
  for (const std::u16string id : {u"MRWL_Other", u"mrwl_createpdf", u"MRWL_OL_separator1", u""}) {
    SCOPED_TRACE(std::string(id.begin(), id.end()));
    OutlookFaults::Get().Reset();
    std::string shown;
    EXPECT_EQ(S_OK, Click(id, &shown));
    EXPECT_EQ(std::vector<std::string>{"RibbonControl.Id"}, OutlookFaults::Get().Calls());
    EXPECT_EQ("", shown);
  }
}

TEST_F(AddinTest, EachButtonRunsItsCommand) {
  ASSERT_EQ(S_OK, Connect());
  const std::string noMail =
      "Marrowline Outlook Addin: No mail item selected for conversion. Please, select or open a "
      "mail item.\n";
  struct Case {
    std::u16string id;
    bool converts;
    bool portfolio;
  };
  const Case cases[] = {{u"MRWL_CreatePDF", true, false},
                        {u"MRWL_Portfolio", true, true},
                        {u"MRWL_Settings", false, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.id.begin(), c.id.end()));
    OutlookFaults::Get().Reset();
    std::string shown;
    EXPECT_EQ(S_OK, Click(c.id, &shown));
    const OutlookFaults& log = OutlookFaults::Get();
    // The selection is empty: a conversion says so; the portfolio asks for user and folder first.
    EXPECT_EQ(c.converts ? 1 : 0, log.CountOf("Application.ActiveWindow"));
    EXPECT_EQ(c.converts ? noMail : "", shown);
    EXPECT_EQ(c.portfolio ? 1 : 0, log.CountOf("Application.Session"));
  }
}

TEST_F(AddinTest, ConvertWithNoActiveWindowShowsNothing) {
  world_.application->activeWindow = nullptr;
  ASSERT_EQ(S_OK, Connect());
  std::string shown;
  EXPECT_EQ(S_OK, Click(u"MRWL_CreatePDF", &shown));
  EXPECT_EQ(1, OutlookFaults::Get().CountOf("Application.ActiveWindow"));
  EXPECT_EQ(-1, OutlookFaults::Get().IndexOf("Explorer.Selection"));
  EXPECT_EQ("", shown);
}

TEST_F(AddinTest, AComErrorInACommandEndsItSilently) {
  ASSERT_EQ(S_OK, Connect());
  OutlookFaults::Get().Throw("Application.ActiveWindow", E_ACCESSDENIED);
  std::string shown;
  EXPECT_EQ(S_OK, Click(u"MRWL_CreatePDF", &shown));
  EXPECT_EQ("", shown);
}

TEST_F(AddinTest, AnUnreadableControlIdLeavesRibbonHandlerAsComError) {
  OutlookFaults::Get().Fail("RibbonControl.Id", E_ACCESSDENIED);
  auto control = MakeComObject<TestRibbonControl>(u"MRWL_CreatePDF");
  try {
    (void)addin_->RibbonHandler(control.get());
    FAIL() << "no exception";
  } catch (const ComError& error) {
    EXPECT_EQ(E_ACCESSDENIED, error.Error());
  }
  // Through IDispatch the failure arrives as a failed call.
  EXCEPINFO exception{};
  EXPECT_EQ(DISP_E_EXCEPTION,
            Invoke(DISPID_RibbonHandler, {Dispatch(control.get())}, nullptr, &exception));
  EXPECT_EQ(E_ACCESSDENIED, exception.scode);
  EXPECT_EQ(-1, OutlookFaults::Get().IndexOf("Application.ActiveWindow"));
}

// --- Invoke ------------------------------------------------------------------------------------

TEST_F(AddinTest, InvokeRunsTheRibbonHandlerWithADispatchControl) {
  world_.application->activeWindow = nullptr;
  ASSERT_EQ(S_OK, Connect());
  auto control = MakeComObject<TestRibbonControl>(u"MRWL_CreatePDF");
  VARIANT result;
  VariantInit(&result);
  EXPECT_EQ(S_OK, Invoke(DISPID_RibbonHandler, {Dispatch(control.get())}, &result));
  EXPECT_EQ(VT_EMPTY, result.vt);
  EXPECT_EQ(1, OutlookFaults::Get().CountOf("RibbonControl.Id"));
  EXPECT_EQ(1, OutlookFaults::Get().CountOf("Application.ActiveWindow"));
  // A control passed as IUnknown is coerced to IDispatch.
  EXPECT_EQ(S_OK, Invoke(DISPID_RibbonHandler, {Unknown(control->Identity())}));
  EXPECT_EQ(2, OutlookFaults::Get().CountOf("RibbonControl.Id"));
}

TEST_F(AddinTest, InvokeGivesTheRetvalResults) {
  auto control = MakeComObject<TestRibbonControl>(u"MRWL_Settings");
  VARIANT result;
  VariantInit(&result);
  EXPECT_EQ(S_OK, Invoke(DISPID_GetEnabled, {Dispatch(control.get())}, &result));
  EXPECT_EQ(VT_I4, result.vt);
  EXPECT_EQ(1, result.lVal);

  VariantInit(&result);
  EXPECT_EQ(S_OK, Invoke(DISPID_GetImage, {Unknown(control->Identity())}, &result));
  EXPECT_EQ(VT_DISPATCH, result.vt);
  EXPECT_EQ(nullptr, result.pdispVal);
}

TEST_F(AddinTest, InvokeRoutesOtherDispidsToTheExtensibilityDescription) {
  ASSERT_EQ(S_OK, Invoke(office::DISPID_OnConnection,
                         {Dispatch(world_.application.get()), I4(office::ext_cm_Startup),
                          Dispatch(nullptr), VARIANT{}}));
  EXPECT_EQ(16u, addin_->GetOutlookMajorVersion());
  EXPECT_EQ(S_OK, Invoke(office::DISPID_OnBeginShutdown, {VARIANT{}}));
  EXPECT_EQ(S_OK,
            Invoke(office::DISPID_OnDisconnection, {I4(office::ext_dm_UserClosed), VARIANT{}}));

  EXCEPINFO exception{};
  EXPECT_EQ(DISP_E_EXCEPTION,
            Invoke(office::DISPID_OnConnection,
                   {Dispatch(nullptr), I4(office::ext_cm_Startup), Dispatch(nullptr), VARIANT{}},
                   nullptr, &exception));
  EXPECT_EQ(E_INVALIDARG, exception.scode);
}

TEST_F(AddinTest, InvokeRefusesWhatTheDescriptionsDoNotHave) {
  auto control = MakeComObject<TestRibbonControl>(u"x");
  EXPECT_EQ(DISP_E_MEMBERNOTFOUND, Invoke(99, {}));
  // GetCustomUI has dispid 1 in its own description, but Invoke sends 1 to OnConnection.
  EXPECT_EQ(DISP_E_BADPARAMCOUNT, Invoke(office::DISPID_GetCustomUI, {VARIANT{}}));
  EXPECT_EQ(DISP_E_BADPARAMCOUNT, Invoke(DISPID_GetEnabled, {}));
  EXPECT_EQ(DISP_E_MEMBERNOTFOUND, Invoke(DISPID_GetEnabled, {Dispatch(control.get())}, nullptr,
                                          nullptr, nullptr, DISPATCH_PROPERTYGET));
  UINT argError = 99;
  EXPECT_EQ(DISP_E_TYPEMISMATCH,
            Invoke(DISPID_RibbonHandler, {I4(5)}, nullptr, nullptr, &argError));
  EXPECT_EQ(0u, argError);
}

TEST_F(AddinTest, OnRibbonLoadedWithNullThroughInvokeReportsItsFailure) {
  EXCEPINFO exception{};
  EXPECT_EQ(DISP_E_EXCEPTION,
            Invoke(DISPID_OnRibbonLoaded, {Unknown(nullptr)}, nullptr, &exception));
  EXPECT_EQ(E_FAIL, exception.scode);
  EXPECT_FALSE(addin_->IsRibbonLoaded());
}

}  // namespace
}  // namespace mrwl
