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
using Ids = std::vector<std::u16string>;

std::string Narrow(std::u16string_view text) { return std::string(text.begin(), text.end()); }

// The value of `attribute` of each `kind` element of `xml` that has one, in document order.
Ids Attributes(std::u16string_view xml, const std::u16string& kind,
               const std::u16string& attribute) {
  Ids values;
  const std::u16string open = u"<" + kind + u" ", key = u" " + attribute + u"=\"";
  for (auto at = xml.find(open); at != xml.npos; at = xml.find(open, at + 1)) {
    const std::u16string_view element = xml.substr(at, xml.find(u'>', at) - at);
    if (const auto start = element.find(key); start != element.npos) {
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
  ComPtr<testing::TestRibbonUI> ribbon_ = MakeComObject<testing::TestRibbonUI>();
};

TEST_F(AddinTest, QueryInterfaceAnswersEachIidWithItsViewAndOneCount) {
  Addin* object = addin_.get();
  const std::tuple<const char*, IID, void*> cases[] = {
      {"IUnknown", IID_IUnknown, static_cast<IOutlookAddin*>(object)},
      {"primary", IID_IOutlookAddin, static_cast<IOutlookAddin*>(object)},
      // Office finds its callbacks by name through IDispatch.
      {"IDispatch", IID_IDispatch, static_cast<IRibbonCallback*>(object)},
      {"IDTExtensibility2", office::IID_IDTExtensibility2,
       static_cast<office::IDTExtensibility2*>(object)},
      {"IRibbonExtensibility", office::IID_IRibbonExtensibility,
       static_cast<office::IRibbonExtensibility*>(object)},
      {"IRibbonCallback", IID_IRibbonCallback, nullptr},
  };
  for (const auto& [name, iid, view] : cases) {
    SCOPED_TRACE(name);
    void* found = reinterpret_cast<void*>(0x1);
    EXPECT_EQ(view != nullptr ? S_OK : E_NOINTERFACE, addin_->QueryInterface(iid, &found));
    EXPECT_EQ(view, found);
    if (found != nullptr) static_cast<IUnknown*>(found)->Release();
  }
  EXPECT_EQ(E_POINTER, addin_->QueryInterface(IID_IUnknown, nullptr));
  ComPtr<office::IDTExtensibility2> extensibility;
  ASSERT_EQ(S_OK, addin_.As(office::IID_IDTExtensibility2, &extensibility));
  EXPECT_EQ(3u, extensibility->AddRef());
  EXPECT_EQ(2u, addin_->Release());
}

TEST_F(AddinTest, EachViewResolvesNamesByItsOwnDescription) {
  const std::tuple<IID, std::u16string, DISPID> cases[] = {
      {IID_IDispatch, u"GetImage", 12},
      {IID_IDispatch, u"getenabled", 22},
      {IID_IDispatch, u"OnRibbonLoaded", 32},
      {IID_IDispatch, u"RIBBONHANDLER", 42},
      {IID_IDispatch, u"OnConnection", DISPID_UNKNOWN},
      {office::IID_IDTExtensibility2, u"onbeginshutdown", 5},
      {office::IID_IDTExtensibility2, u"GetImage", DISPID_UNKNOWN},
      {office::IID_IRibbonExtensibility, u"GetCustomUI", 1},
      {IID_IOutlookAddin, u"OnConvert", DISPID_UNKNOWN},
  };
  ComPtr<IDispatch> view;
  for (auto [iid, name, dispid] : cases) {
    SCOPED_TRACE(Narrow(name));
    ASSERT_EQ(S_OK, addin_.As(iid, &view));
    LPOLESTR names[] = {name.data()};
    DISPID id = 777;
    EXPECT_EQ(dispid == DISPID_UNKNOWN ? DISP_E_UNKNOWNNAME : S_OK,
              view->GetIDsOfNames(IID_NULL, names, 1, 0, &id));
    EXPECT_EQ(dispid, id);
  }
  // Further names are the member's parameters, by position.
  ASSERT_EQ(S_OK, addin_.As(office::IID_IDTExtensibility2, &view));
  std::u16string texts[] = {u"OnConnection", u"custom", u"application", u"nothing"};
  LPOLESTR names[] = {texts[0].data(), texts[1].data(), texts[2].data(), texts[3].data()};
  DISPID ids[4] = {};
  EXPECT_EQ(DISP_E_UNKNOWNNAME, view->GetIDsOfNames(IID_NULL, names, 4, 0, ids));
  EXPECT_EQ((std::vector<DISPID>{1, 3, 0, DISPID_UNKNOWN}), std::vector<DISPID>(ids, ids + 4));
}

TEST_F(AddinTest, OnConnectionKeepsTheMajorVersionAndWaitsForTheRibbon) {
  const std::tuple<std::u16string, std::uint32_t, bool> cases[] = {
      {u"16.0.0.17928", 16, false},
      {u"Outlook", 0, false},
      {u"99999999999.0", 0xFFFFFFFFu, false},  // saturates rather than wraps
      {u"16.0", 0, true},                      // an unreadable version still connects
  };
  for (const auto& [version, major, unreadable] : cases) {
    SCOPED_TRACE(Narrow(version));
    OutlookFaults::Get().Reset();
    if (unreadable) OutlookFaults::Get().Fail("Application.Version", E_ACCESSDENIED);
    auto addin = MakeComObject<Addin>();
    world_.application->version = version;
    EXPECT_EQ(S_OK, addin->OnConnection(world_.application.get(), office::ext_cm_Startup, nullptr,
                                        nullptr));
    EXPECT_EQ(major, addin->GetOutlookMajorVersion());
  }
  EXPECT_EQ(0u, world_.application->explorers->Point().SinkCount());

  EXPECT_EQ(E_INVALIDARG, addin_->OnConnection(nullptr, office::ext_cm_Startup, nullptr, nullptr));
  auto control = MakeComObject<TestRibbonControl>(u"x");
  EXPECT_EQ(E_NOINTERFACE,
            addin_->OnConnection(control.get(), office::ext_cm_Startup, nullptr, nullptr));
}

TEST_F(AddinTest, GetCustomUIPicksTheRibbonByTheExactRibbonIdAndNamesTheCallbacks) {
  for (const char16_t* other :
       {u"microsoft.outlook.explorer", u"Microsoft.Outlook.Explorer ",
        u"Microsoft.Outlook.Mail.Read", static_cast<const char16_t*>(nullptr)}) {
    SCOPED_TRACE(other != nullptr ? Narrow(other) : "null");
    EXPECT_EQ((Ids{u"MRWL_CreatePDF", u"MRWL_Settings"}),
              Attributes(CustomUI(other), u"button", u"id"));
  }
  const std::tuple<std::u16string, std::u16string, Ids> cases[] = {
      {u"customUI", u"xmlns", {u"http://schemas.microsoft.com/office/2006/01/customui"}},
      {u"customUI", u"onLoad", {u"OnRibbonLoaded"}},
      {u"tab", u"label", {u"Marrowline"}},
      {u"button", u"id", {u"MRWL_CreatePDF", u"MRWL_Portfolio", u"MRWL_Settings"}},
      {u"button", u"label", {u"Convert to PDF", u"Convert to PDF portfolio", u"Settings"}},
      {u"button", u"getImage", Ids(3, u"GetImage")},
      {u"button", u"getEnabled", Ids(3, u"GetEnabled")},
      {u"button", u"onAction", Ids(3, u"RibbonHandler")},
  };
  const std::u16string xml = CustomUI(u"Microsoft.Outlook.Explorer");
  for (const auto& [kind, attribute, values] : cases) {
    SCOPED_TRACE(Narrow(kind + u"." + attribute));
    EXPECT_EQ(values, Attributes(xml, kind, attribute));
  }
  EXPECT_EQ(E_POINTER, addin_->GetCustomUI(MakeBstr(u"x").get(), nullptr));
}

TEST(RibbonResources, OnlyTheTwoRibbonsAreXmlResourcesAndImagesGoByTheExactId) {
  OutlookFaults::Get().Reset();  // the controls' ids are read through the faults
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
  EXPECT_EQ(nullptr, FindRibbonImageRow(MakeComObject<testing::TestRibbonUI>().get()));
}

TEST_F(AddinTest, GetEnabledIsAlwaysOneAndGetImageLeavesAPicturelessControlAlone) {
  auto control = MakeComObject<TestRibbonControl>(u"MRWL_Other");
  LONG enabled[2] = {};
  EXPECT_EQ(S_OK, addin_->GetEnabled(control.get(), &enabled[0]));
  EXPECT_EQ(S_OK, addin_->GetEnabled(nullptr, &enabled[1]));
  EXPECT_EQ(S_OK, addin_->GetEnabled(control.get(), nullptr));
  EXPECT_TRUE(enabled[0] == 1 && enabled[1] == 1);
  // Whatever the window or selection: Outlook is not even asked for the control's id.
  EXPECT_TRUE(OutlookFaults::Get().Calls().empty());

  auto* sentinel = reinterpret_cast<IPictureDisp*>(0x10);
  IPictureDisp* image = sentinel;
  EXPECT_EQ(S_OK, addin_->GetImage(control.get(), &image));
  EXPECT_EQ(S_OK, addin_->GetImage(nullptr, &image));
  EXPECT_EQ(sentinel, image);
}

TEST_F(AddinTest, OnRibbonLoadedConnectsTheWindowEventsOnceAndOnlyForARibbon) {
  EXPECT_EQ(E_FAIL, addin_->OnRibbonLoaded(nullptr));
  EXPECT_EQ(S_OK, addin_->OnRibbonLoaded(MakeComObject<TestRibbonControl>(u"x").get()));
  EXPECT_FALSE(addin_->IsRibbonLoaded());
  // Before the connection the hub has no application: bad arguments, yet loaded.
  EXPECT_EQ(160, addin_->OnRibbonLoaded(ribbon_.get()));
  EXPECT_TRUE(addin_->IsRibbonLoaded());
  EXPECT_EQ(0u, world_.application->explorers->Point().SinkCount());

  ASSERT_EQ(S_OK, Connect());
  EXPECT_EQ(S_OK, addin_->OnRibbonLoaded(ribbon_.get()));
  EXPECT_EQ(1u, world_.application->explorers->Point().SinkCount());
  EXPECT_EQ(1u, world_.application->inspectors->Point().SinkCount());
  // The sinks are advised already: a second load throws, and through Invoke fails.
  EXPECT_THROW((void)addin_->OnRibbonLoaded(ribbon_.get()), ComError);
  EXCEPINFO exception{};
  EXPECT_EQ(DISP_E_EXCEPTION,
            Invoke(DISPID_OnRibbonLoaded, {Unknown(ribbon_->Identity())}, nullptr, &exception));
  EXPECT_EQ(E_FAIL, exception.scode);
  EXPECT_TRUE(addin_->IsRibbonLoaded());

  EXPECT_EQ(S_OK, addin_->OnDisconnection(office::ext_dm_HostShutdown, nullptr));
  EXPECT_EQ(0u, world_.application->explorers->Point().SinkCount());
  EXPECT_EQ(0u, world_.application->inspectors->Point().SinkCount());
}

TEST_F(AddinTest, EachButtonRunsItsCommandAndAnyOtherIdNothing) {
  EXPECT_EQ(E_INVALIDARG, addin_->RibbonHandler(nullptr));
  ASSERT_EQ(S_OK, Connect());
  const std::string noMail =
      "Marrowline Outlook Addin: No mail item selected for conversion. Please, select or open a "
      "mail item.\n";
  const std::tuple<std::u16string, bool, bool> cases[] = {
      {u"MRWL_CreatePDF", true, false},
      {u"MRWL_Portfolio", true, true},
      {u"MRWL_Settings", false, false},
      {u"mrwl_createpdf", false, false},
      {u"", false, false},
  };
  for (const auto& [id, converts, portfolio] : cases) {
    SCOPED_TRACE(Narrow(id));
    OutlookFaults::Get().Reset();
    std::string shown;
    EXPECT_EQ(S_OK, Click(id, &shown));
    // The selection is empty: a conversion says so; the portfolio asks for user and folder first.
    EXPECT_EQ(converts ? noMail : "", shown);
    EXPECT_EQ(converts ? 1 : 0, OutlookFaults::Get().CountOf("Application.ActiveWindow"));
    EXPECT_EQ(portfolio ? 1 : 0, OutlookFaults::Get().CountOf("Application.Session"));
    if (!converts) {
      EXPECT_EQ(std::vector<std::string>{"RibbonControl.Id"}, OutlookFaults::Get().Calls());
    }
  }
  // A COM error inside a command ends it without a word.
  OutlookFaults::Get().Throw("Application.ActiveWindow", E_ACCESSDENIED);
  std::string shown;
  EXPECT_EQ(S_OK, Click(u"MRWL_CreatePDF", &shown));
  EXPECT_EQ("", shown);
}

TEST_F(AddinTest, InvokeRoutesEachDispidToItsDescriptionAndExceptionsToFailures) {
  world_.application->activeWindow = nullptr;
  auto control = MakeComObject<TestRibbonControl>(u"MRWL_CreatePDF");
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
    VARTYPE type = VT_EMPTY;  // of the result
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
      {"RibbonHandler", DISPID_RibbonHandler, S_OK, 0, {Dispatch(control.get())}},
      // A control passed as IUnknown is coerced to IDispatch.
      {"RibbonHandler(IUnknown)", DISPID_RibbonHandler, S_OK, 0, {Unknown(control->Identity())}},
      {"GetEnabled", DISPID_GetEnabled, S_OK, 0, {Dispatch(control.get())}, VT_I4},
      {"GetImage", DISPID_GetImage, S_OK, 0, {Unknown(control->Identity())}, VT_DISPATCH},
  };
  for (Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXCEPINFO exception{};
    UINT argError = 99;
    UniqueVariant result;
    EXPECT_EQ(c.result, Invoke(c.dispid, std::move(c.args), result.put(), &exception, &argError));
    EXPECT_EQ(c.scode, exception.scode);
    EXPECT_EQ(c.type, result->vt);
    if (c.type == VT_I4) {
      EXPECT_EQ(1, result->lVal);
    }
    EXPECT_EQ(c.result == DISP_E_TYPEMISMATCH ? 0u : 99u, argError);
  }
  EXPECT_EQ(16u, addin_->GetOutlookMajorVersion());
  EXPECT_FALSE(addin_->IsRibbonLoaded());
  EXPECT_EQ(2, OutlookFaults::Get().CountOf("Application.ActiveWindow"));
  EXPECT_EQ(DISP_E_MEMBERNOTFOUND, Invoke(DISPID_GetEnabled, {Dispatch(control.get())}, nullptr,
                                          nullptr, nullptr, DISPATCH_PROPERTYGET));

  // An unreadable control id leaves RibbonHandler as a ComError, and Invoke as a failed call
  // with its code, before any command runs.
  OutlookFaults::Get().Reset();
  OutlookFaults::Get().Fail("RibbonControl.Id", E_ACCESSDENIED);
  EXPECT_THROW((void)addin_->RibbonHandler(control.get()), ComError);
  EXCEPINFO exception{};
  EXPECT_EQ(DISP_E_EXCEPTION,
            Invoke(DISPID_RibbonHandler, {Dispatch(control.get())}, nullptr, &exception));
  EXPECT_EQ(E_ACCESSDENIED, exception.scode);
  EXPECT_EQ(-1, OutlookFaults::Get().IndexOf("Application.ActiveWindow"));
}

}  // namespace
}  // namespace mrwl
