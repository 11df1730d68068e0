// Tests of the add-in object: its views, the connection with Outlook, the ribbon XML and the
// ribbon callbacks, against the in-process Outlook of testing/.
#include "addin/addin.h"

#include <algorithm>
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

std::string Narrow(std::u16string_view text) { return std::string(text.begin(), text.end()); }

// The value of `attribute` ("<none>" where it is missing) of each `kind` element of `xml`, in
// document order.
std::vector<std::u16string> Attributes(std::u16string_view xml, std::u16string_view kind,
                                       std::u16string_view attribute) {
  std::vector<std::u16string> values;
  const std::u16string open = u"<" + std::u16string(kind) + u" ";
  const std::u16string key = u" " + std::u16string(attribute) + u"=\"";
  for (std::size_t at = xml.find(open); at != std::u16string_view::npos;
       at = xml.find(open, at + 1)) {
    const std::u16string_view element = xml.substr(at, xml.find(u'>', at) - at);
    const std::size_t start = element.find(key);
    if (start == std::u16string_view::npos) {
      values.push_back(u"<none>");
    } else {
      const std::u16string_view rest = element.substr(start + key.size());
      values.emplace_back(rest.substr(0, rest.find(u'"')));
    }
  }
  return values;
}

VARIANT Dispatch(IUnknown* object) { return MakeObjectVariant(object, VT_DISPATCH); }
VARIANT Unknown(IUnknown* object) { return MakeObjectVariant(object, VT_UNKNOWN); }

class AddinTest : public ::testing::Test {
 protected:
  void SetUp() override { OutlookFaults::Get().Reset(); }

  HRESULT Connect() {
    return addin_->OnConnection(world_.application.get(), office::ext_cm_Startup, nullptr, nullptr);
  }
  HRESULT LoadRibbon() { return addin_->OnRibbonLoaded(ribbon_.get()); }
  HRESULT Disconnect() { return addin_->OnDisconnection(office::ext_dm_HostShutdown, nullptr); }

  // Clicks the button `id`; what the user was shown goes to `shown`.
  HRESULT Click(std::u16string id, std::string* shown) {
    auto control = MakeComObject<TestRibbonControl>(std::move(id));
    ::testing::internal::CaptureStderr();
    const HRESULT hr = addin_->RibbonHandler(control.get());
    *shown = ::testing::internal::GetCapturedStderr();
    return hr;
  }

  // The ribbon XML for `ribbonId`, a null BSTR for nullptr.
  std::u16string CustomUI(const char16_t* ribbonId) {
    UniqueBstr id = ribbonId != nullptr ? MakeBstr(ribbonId) : UniqueBstr();
    UniqueBstr xml;
    EXPECT_EQ(S_OK, addin_->GetCustomUI(id.get(), xml.put()));
    return std::u16string(BstrView(xml.get()));
  }

  // Calls `dispid` through IDispatch with `args` in their natural order.
  HRESULT Invoke(DISPID dispid, std::vector<VARIANT> args, VARIANT* result = nullptr,
                 EXCEPINFO* exception = nullptr, UINT* argError = nullptr,
                 WORD flags = DISPATCH_METHOD) {
    std::reverse(args.begin(), args.end());
    DISPPARAMS params{args.data(), nullptr, static_cast<UINT>(args.size()), 0};
    const HRESULT hr =
        addin_->Invoke(dispid, IID_NULL, 0, flags, &params, result, exception, argError);
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
      // Office finds its callbacks by name through IDispatch.
      {"IDispatch", IID_IDispatch, static_cast<IRibbonCallback*>(object)},
      {"IDTExtensibility2", office::IID_IDTExtensibility2,
       static_cast<office::IDTExtensibility2*>(object)},
      {"IRibbonExtensibility", office::IID_IRibbonExtensibility,
       static_cast<office::IRibbonExtensibility*>(object)},
      {"IRibbonCallback", IID_IRibbonCallback, nullptr},
      {"IRibbonUI", office::IID_IRibbonUI, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    void* found = reinterpret_cast<void*>(0x1);
    EXPECT_EQ(c.view != nullptr ? S_OK : E_NOINTERFACE, addin_->QueryInterface(c.iid, &found));
    EXPECT_EQ(c.view, found);
    if (found != nullptr) static_cast<IUnknown*>(found)->Release();
  }
  EXPECT_EQ(E_POINTER, addin_->QueryInterface(IID_IUnknown, nullptr));
  // One count for all views.
  ComPtr<office::IDTExtensibility2> extensibility;
  ASSERT_EQ(S_OK, addin_.As(office::IID_IDTExtensibility2, &extensibility));
  EXPECT_EQ(3u, extensibility->AddRef());
  EXPECT_EQ(2u, addin_->Release());
}

TEST_F(AddinTest, EachViewResolvesNamesByItsOwnDescription) {
  ComPtr<office::IDTExtensibility2> extensibility;
  ComPtr<office::IRibbonExtensibility> ribbonExtensibility;
  ComPtr<IOutlookAddin> primary;
  ComPtr<IDispatch> callback;
  ASSERT_EQ(S_OK, addin_.As(office::IID_IDTExtensibility2, &extensibility));
  ASSERT_EQ(S_OK, addin_.As(office::IID_IRibbonExtensibility, &ribbonExtensibility));
  ASSERT_EQ(S_OK, addin_.As(IID_IOutlookAddin, &primary));
  ASSERT_EQ(S_OK, addin_.As(IID_IDispatch, &callback));
  struct Case {
    IDispatch* view;
    std::u16string member;
    DISPID dispid;  // DISPID_UNKNOWN: DISP_E_UNKNOWNNAME
  };
  const Case cases[] = {
      {callback.get(), u"GetImage", 12},
      {callback.get(), u"getenabled", 22},
      {callback.get(), u"OnRibbonLoaded", 32},
      {callback.get(), u"RIBBONHANDLER", 42},
      {callback.get(), u"OnConnection", DISPID_UNKNOWN},
      {extensibility.get(), u"OnConnection", 1},
      {extensibility.get(), u"OnDisconnection", 2},
      {extensibility.get(), u"onbeginshutdown", 5},
      {extensibility.get(), u"GetImage", DISPID_UNKNOWN},
      {ribbonExtensibility.get(), u"GetCustomUI", 1},
      {primary.get(), u"OnConvert", DISPID_UNKNOWN},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(Narrow(c.member));
    std::u16string name = c.member;
    LPOLESTR names[] = {name.data()};
    DISPID id = 777;
    EXPECT_EQ(c.dispid == DISPID_UNKNOWN ? DISP_E_UNKNOWNNAME : S_OK,
              c.view->GetIDsOfNames(IID_NULL, names, 1, 0, &id));
    EXPECT_EQ(c.dispid, id);
  }
  // Further names are the member's parameters, by position.
  std::u16string texts[] = {u"OnConnection", u"custom", u"application", u"nothing"};
  LPOLESTR names[] = {texts[0].data(), texts[1].data(), texts[2].data(), texts[3].data()};
  DISPID ids[4] = {};
  EXPECT_EQ(DISP_E_UNKNOWNNAME, extensibility->GetIDsOfNames(IID_NULL, names, 4, 0, ids));
  EXPECT_EQ((std::vector<DISPID>{1, 3, 0, DISPID_UNKNOWN}), std::vector<DISPID>(ids, ids + 4));
}

// --- Connection ------------------------------------------------------------------------------

TEST_F(AddinTest, OnConnectionKeepsTheMajorVersion) {
  struct Case {
    std::u16string version;
    std::uint32_t major;
    bool unreadable = false;
  };
  const Case cases[] = {
      {u"16.0.0.17928", 16},
      {u"9.1", 9},
      {u"Outlook", 0},
      {u"", 0},
      {u"99999999999.0", 0xFFFFFFFFu},  // saturates rather than wraps
      {u"16.0", 0, true},               // an unreadable version still connects
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(Narrow(c.version));
    OutlookFaults::Get().Reset();
    if (c.unreadable) OutlookFaults::Get().Fail("Application.Version", E_ACCESSDENIED);
    auto addin = MakeComObject<Addin>();
    world_.application->version = c.version;
    EXPECT_EQ(S_OK, addin->OnConnection(world_.application.get(), office::ext_cm_Startup, nullptr,
                                        nullptr));
    EXPECT_EQ(c.major, addin->GetOutlookMajorVersion());
  }
  // The events wait for the ribbon.
  EXPECT_EQ(0u, world_.application->explorers->Point().SinkCount());

  EXPECT_EQ(E_INVALIDARG, addin_->OnConnection(nullptr, office::ext_cm_Startup, nullptr, nullptr));
  auto control = MakeComObject<TestRibbonControl>(u"x");
  EXPECT_EQ(E_NOINTERFACE,
            addin_->OnConnection(control.get(), office::ext_cm_Startup, nullptr, nullptr));
}

// --- Ribbon XML --------------------------------------------------------------------------------

TEST_F(AddinTest, GetCustomUIPicksTheRibbonByTheExactRibbonId) {
  const std::vector<std::u16string> three = {u"MRWL_CreatePDF", u"MRWL_Portfolio",
                                             u"MRWL_Settings"};
  const std::vector<std::u16string> two = {u"MRWL_CreatePDF", u"MRWL_Settings"};
  const std::pair<const char16_t*, std::vector<std::u16string>> cases[] = {
      {u"Microsoft.Outlook.Explorer", three},
      {u"microsoft.outlook.explorer", two},
      {u"Microsoft.Outlook.Explorer ", two},
      {u"Microsoft.Outlook.Mail.Read", two},
      {u"", two},
      {nullptr, two},
  };
  for (const auto& [ribbonId, buttons] : cases) {
    SCOPED_TRACE(ribbonId != nullptr ? Narrow(ribbonId) : "null");
    const std::u16string xml = CustomUI(ribbonId);
    EXPECT_EQ(buttons, Attributes(xml, u"button", u"id"));
    EXPECT_EQ(std::vector<std::u16string>{u"Marrowline"}, Attributes(xml, u"tab", u"id"));
    EXPECT_EQ(std::vector<std::u16string>{u"Marrowline_Group"}, Attributes(xml, u"group", u"id"));
  }
  UniqueBstr id = MakeBstr(u"Microsoft.Outlook.Explorer");
  EXPECT_EQ(E_POINTER, addin_->GetCustomUI(id.get(), nullptr));
}

TEST_F(AddinTest, RibbonXmlNamesTheCallbacksAndLabels) {
  using Values = std::vector<std::u16string>;
  const std::u16string xml = CustomUI(u"Microsoft.Outlook.Explorer");
  struct Case {
    const char16_t* kind;
    const char16_t* attribute;
    Values values;
  };
  const Case cases[] = {
      {u"customUI", u"xmlns", {u"http://schemas.microsoft.com/office/2006/01/customui"}},
      {u"customUI", u"onLoad", {u"OnRibbonLoaded"}},
      {u"tab", u"label", {u"Marrowline"}},
      {u"button", u"label", {u"Convert to PDF", u"Convert to PDF portfolio", u"Settings"}},
      {u"button", u"getImage", Values(3, u"GetImage")},
      {u"button", u"getEnabled", Values(3, u"GetEnabled")},
      {u"button", u"onAction", Values(3, u"RibbonHandler")},
      {u"button", u"size", Values(3, u"large")},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(Narrow(c.attribute));
    EXPECT_EQ(c.values, Attributes(xml, c.kind, c.attribute));
  }
}

TEST(RibbonResources, OnlyTheTwoRibbonsAreXmlResourcesAndImagesGoByTheExactId) {
  EXPECT_FALSE(LoadRibbonXml(999));
  EXPECT_EQ(nullptr, FindModuleResource(u"xml", kExplorerRibbonXml));  // the type is exact
  ASSERT_NE(nullptr, FindModuleResource(u"XML", kItemRibbonXml));
  EXPECT_EQ(FindModuleResource(u"XML", kItemRibbonXml)->size,
            SysStringLen(LoadRibbonXml(kItemRibbonXml).get()));

  for (const std::u16string id : {u"MRWL_CreatePDF", u"MRWL_Settings", u"MRWL_Portfolio"}) {
    SCOPED_TRACE(Narrow(id));
    const RibbonImageRow* row = FindRibbonImageRow(MakeComObject<TestRibbonControl>(id).get());
    ASSERT_NE(nullptr, row);
    EXPECT_EQ(id, row->controlId);
  }
  EXPECT_EQ(nullptr, FindRibbonImageRow(MakeComObject<TestRibbonControl>(u"mrwl_createpdf").get()));
  EXPECT_EQ(nullptr, FindRibbonImageRow(nullptr));
  EXPECT_EQ(nullptr, FindRibbonImageRow(MakeComObject<TestRibbonUI>().get()));
}

// --- Callbacks ---------------------------------------------------------------------------------

TEST_F(AddinTest, GetEnabledIsAlwaysOneAndGetImageLeavesAPicturelessControlAlone) {
  auto control = MakeComObject<TestRibbonControl>(u"MRWL_Other");
  LONG enabled = 0;
  EXPECT_EQ(S_OK, addin_->GetEnabled(control.get(), &enabled));
  EXPECT_EQ(1, enabled);
  enabled = 0;
  EXPECT_EQ(S_OK, addin_->GetEnabled(nullptr, &enabled));
  EXPECT_EQ(1, enabled);
  EXPECT_EQ(S_OK, addin_->GetEnabled(control.get(), nullptr));
  // Whatever the window or selection: Outlook is not even asked for the control's id.
  EXPECT_TRUE(OutlookFaults::Get().Calls().empty());

  auto* sentinel = reinterpret_cast<IPictureDisp*>(0x10);
  IPictureDisp* image = sentinel;
  EXPECT_EQ(S_OK, addin_->GetImage(control.get(), &image));
  EXPECT_EQ(S_OK, addin_->GetImage(nullptr, &image));
  EXPECT_EQ(sentinel, image);
}

TEST_F(AddinTest, OnRibbonLoadedWithoutARibbonLeavesItUnloaded) {
  EXPECT_EQ(E_FAIL, addin_->OnRibbonLoaded(nullptr));
  EXPECT_FALSE(addin_->IsRibbonLoaded());
  // An object that is no ribbon: S_OK, still unloaded.
  auto control = MakeComObject<TestRibbonControl>(u"x");
  EXPECT_EQ(S_OK, addin_->OnRibbonLoaded(control.get()));
  EXPECT_FALSE(addin_->IsRibbonLoaded());
  // Before the connection the hub has no application: bad arguments, yet loaded.
  EXPECT_EQ(160, LoadRibbon());
  EXPECT_TRUE(addin_->IsRibbonLoaded());
  EXPECT_EQ(0u, world_.application->explorers->Point().SinkCount());
}

TEST_F(AddinTest, OnRibbonLoadedConnectsTheWindowEventsOnce) {
  EXPECT_EQ(S_OK, Disconnect());  // nothing to shut down yet
  ASSERT_EQ(S_OK, Connect());
  EXPECT_EQ(S_OK, LoadRibbon());
  EXPECT_TRUE(addin_->IsRibbonLoaded());
  EXPECT_EQ(1u, addin_->GetHub().GetExplorerWatchers().size());
  EXPECT_EQ(1u, world_.application->explorers->Point().SinkCount());
  EXPECT_EQ(1u, world_.application->inspectors->Point().SinkCount());

  // The sinks are advised already: a second load throws, and through Invoke fails.
  EXPECT_THROW((void)LoadRibbon(), ComError);
  EXCEPINFO exception{};
  EXPECT_EQ(DISP_E_EXCEPTION,
            Invoke(DISPID_OnRibbonLoaded, {Unknown(ribbon_->Identity())}, nullptr, &exception));
  EXPECT_EQ(E_FAIL, exception.scode);
  EXPECT_TRUE(addin_->IsRibbonLoaded());

  EXPECT_EQ(S_OK, Disconnect());
  EXPECT_TRUE(addin_->GetHub().GetExplorerWatchers().empty());
  EXPECT_EQ(0u, world_.application->explorers->Point().SinkCount());
  EXPECT_EQ(0u, world_.application->inspectors->Point().SinkCount());
}

// --- Commands ----------------------------------------------------------------------------------

TEST_F(AddinTest, EachButtonRunsItsCommandAndAnyOtherIdNothing) {
  EXPECT_EQ(E_INVALIDARG, addin_->RibbonHandler(nullptr));
  ASSERT_EQ(S_OK, Connect());
  const std::string noMail =
      "Marrowline Outlook Addin: No mail item selected for conversion. Please, select or open a "
      "mail item.\n";
  struct Case {
    std::u16string id;
    bool converts;
    bool portfolio;
  };
  const Case cases[] = {
      {u"MRWL_CreatePDF", true, false}, {u"MRWL_Portfolio", true, true},
      {u"MRWL_Settings", false, false}, {u"mrwl_createpdf", false, false},
      {u"MRWL_Other", false, false},    {u"", false, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(Narrow(c.id));
    OutlookFaults::Get().Reset();
    std::string shown;
    EXPECT_EQ(S_OK, Click(c.id, &shown));
    // The selection is empty: a conversion says so; the portfolio asks for user and folder first.
    EXPECT_EQ(c.converts ? noMail : "", shown);
    EXPECT_EQ(c.converts ? 1 : 0, OutlookFaults::Get().CountOf("Application.ActiveWindow"));
    EXPECT_EQ(c.portfolio ? 1 : 0, OutlookFaults::Get().CountOf("Application.Session"));
    if (!c.converts) {
      EXPECT_EQ(std::vector<std::string>{"RibbonControl.Id"}, OutlookFaults::Get().Calls());
    }
  }
  // A COM error inside a command ends it without a word.
  OutlookFaults::Get().Throw("Application.ActiveWindow", E_ACCESSDENIED);
  std::string shown;
  EXPECT_EQ(S_OK, Click(u"MRWL_CreatePDF", &shown));
  EXPECT_EQ("", shown);
}

TEST_F(AddinTest, AnUnreadableControlIdLeavesRibbonHandlerAsComError) {
  OutlookFaults::Get().Fail("RibbonControl.Id", E_ACCESSDENIED);
  auto control = MakeComObject<TestRibbonControl>(u"MRWL_CreatePDF");
  EXPECT_THROW((void)addin_->RibbonHandler(control.get()), ComError);
  // Through IDispatch the failure arrives as a failed call with the ComError's code.
  EXCEPINFO exception{};
  EXPECT_EQ(DISP_E_EXCEPTION,
            Invoke(DISPID_RibbonHandler, {Dispatch(control.get())}, nullptr, &exception));
  EXPECT_EQ(E_ACCESSDENIED, exception.scode);
  EXPECT_EQ(-1, OutlookFaults::Get().IndexOf("Application.ActiveWindow"));
}

// --- Invoke ------------------------------------------------------------------------------------

TEST_F(AddinTest, InvokeRoutesTheCallbacksAndGivesTheirResults) {
  world_.application->activeWindow = nullptr;
  ASSERT_EQ(S_OK, Connect());
  auto control = MakeComObject<TestRibbonControl>(u"MRWL_CreatePDF");
  UniqueVariant result;
  EXPECT_EQ(S_OK, Invoke(DISPID_RibbonHandler, {Dispatch(control.get())}, result.put()));
  EXPECT_EQ(VT_EMPTY, result->vt);
  EXPECT_EQ(1, OutlookFaults::Get().CountOf("Application.ActiveWindow"));
  // A control passed as IUnknown is coerced to IDispatch.
  EXPECT_EQ(S_OK, Invoke(DISPID_RibbonHandler, {Unknown(control->Identity())}));
  EXPECT_EQ(2, OutlookFaults::Get().CountOf("RibbonControl.Id"));

  EXPECT_EQ(S_OK, Invoke(DISPID_GetEnabled, {Dispatch(control.get())}, result.put()));
  EXPECT_EQ(VT_I4, result->vt);
  EXPECT_EQ(1, result->lVal);
  EXPECT_EQ(S_OK, Invoke(DISPID_GetImage, {Unknown(control->Identity())}, result.put()));
  EXPECT_EQ(VT_DISPATCH, result->vt);
  EXPECT_EQ(nullptr, result->pdispVal);
}

TEST_F(AddinTest, InvokeSendsOtherDispidsToTheExtensibilityDescription) {
  constexpr DISPID kOnConnection = office::DISPID_OnConnection;
  const auto connect = [](IUnknown* application) {
    return std::vector<VARIANT>{Dispatch(application), MakeI4Variant(office::ext_cm_Startup),
                                Dispatch(nullptr), VARIANT{}};
  };
  struct Case {
    const char* name;
    DISPID dispid;
    HRESULT result;
    SCODE scode;  // of DISP_E_EXCEPTION
    std::vector<VARIANT> args;
  };
  Case cases[] = {
      {"unknown dispid", 99, DISP_E_MEMBERNOTFOUND, 0, {}},
      // GetCustomUI has dispid 1 in its own description, but Invoke sends 1 to OnConnection.
      {"GetCustomUI", office::DISPID_GetCustomUI, DISP_E_BADPARAMCOUNT, 0, {VARIANT{}}},
      {"GetEnabled()", DISPID_GetEnabled, DISP_E_BADPARAMCOUNT, 0, {}},
      {"RibbonHandler(5)", DISPID_RibbonHandler, DISP_E_TYPEMISMATCH, 0, {MakeI4Variant(5)}},
      {"OnRibbonLoaded(null)", DISPID_OnRibbonLoaded, DISP_E_EXCEPTION, E_FAIL, {Unknown(nullptr)}},
      {"OnConnection(null)", kOnConnection, DISP_E_EXCEPTION, E_INVALIDARG, connect(nullptr)},
      {"OnConnection", kOnConnection, S_OK, 0, connect(world_.application.get())},
      {"OnBeginShutdown", office::DISPID_OnBeginShutdown, S_OK, 0, {VARIANT{}}},
      {"OnDisconnection", office::DISPID_OnDisconnection, S_OK, 0, {MakeI4Variant(2), VARIANT{}}},
  };
  for (Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXCEPINFO exception{};
    UINT argError = 99;
    EXPECT_EQ(c.result, Invoke(c.dispid, std::move(c.args), nullptr, &exception, &argError));
    EXPECT_EQ(c.scode, exception.scode);
    if (c.result == DISP_E_TYPEMISMATCH) {
      EXPECT_EQ(0u, argError);
    }
  }
  EXPECT_EQ(16u, addin_->GetOutlookMajorVersion());
  EXPECT_FALSE(addin_->IsRibbonLoaded());
  auto control = MakeComObject<TestRibbonControl>(u"x");
  EXPECT_EQ(DISP_E_MEMBERNOTFOUND, Invoke(DISPID_GetEnabled, {Dispatch(control.get())}, nullptr,
                                          nullptr, nullptr, DISPATCH_PROPERTYGET));
}

}  // namespace
}  // namespace mrwl
