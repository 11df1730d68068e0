// The add-in module run as Office runs it: load, connect, ribbon, clicks, shutdown.

#include "host/addin_session.h"

#include <cstdio>
#include <iterator>
#include <memory>
#include <optional>

#include <libxml/parser.h>
#include <libxml/tree.h>

#include "addin/addin_guids.h"
#include "platform/kernel.h"
#include "platform/utf.h"

namespace mrwl::host {
namespace {

using GetClassObjectFunction = HRESULT (*)(REFCLSID, REFIID, void**);

constexpr char kModuleFileName[] = "libmrwl-addin.so";

std::string Narrow(std::u16string_view text) { return platform::Utf16ToUtf8(text); }

// One button of a ribbon document: its id and the callbacks it names.
struct RibbonButton {
  std::string id;
  std::string onAction;
  std::string getEnabled;
  std::string getImage;
};

struct XmlDocFree {
  void operator()(xmlDoc* document) const noexcept { xmlFreeDoc(document); }
};
using XmlDocument = std::unique_ptr<xmlDoc, XmlDocFree>;

std::string Attribute(xmlNode* node, const char* name) {
  xmlChar* value = xmlGetProp(node, reinterpret_cast<const xmlChar*>(name));
  if (value == nullptr) return {};
  std::string text(reinterpret_cast<const char*>(value));
  xmlFree(value);
  return text;
}

XmlDocument ParseRibbon(const std::u16string& xml) {
  const std::string bytes = Narrow(xml);
  return XmlDocument(xmlReadMemory(bytes.data(), static_cast<int>(bytes.size()), "ribbon.xml",
                                   "UTF-8",
                                   XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
}

std::optional<RibbonButton> FindButton(xmlNode* node, const std::string& label) {
  for (; node != nullptr; node = node->next) {
    if (node->type != XML_ELEMENT_NODE) continue;
    if (xmlStrcmp(node->name, reinterpret_cast<const xmlChar*>("button")) == 0 &&
        Attribute(node, "label") == label) {
      return RibbonButton{Attribute(node, "id"), Attribute(node, "onAction"),
                          Attribute(node, "getEnabled"), Attribute(node, "getImage")};
    }
    if (auto found = FindButton(node->children, label)) return found;
  }
  return std::nullopt;
}

}  // namespace

std::string HexResult(HRESULT result) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(result));
  return text;
}

std::string ErrorText(DWORD error) {
  char16_t buffer[512];
  const DWORD length = platform::FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, error, 0,
                                                buffer, static_cast<DWORD>(std::size(buffer)));
  std::string sentence = Narrow(std::u16string_view(buffer, length));
  while (!sentence.empty() && (sentence.back() == '\n' || sentence.back() == '\r')) {
    sentence.pop_back();
  }
  return sentence;
}

HMODULE LoadAddinModule(const std::u16string& modulePath, std::string* error) {
  const HMODULE module = platform::LoadLibraryW(modulePath.c_str());
  if (module != nullptr) return module;
  std::string why = ErrorText(platform::GetLastError());
  const std::u16string loader = platform::GetModuleLoadProblem();
  if (!loader.empty()) why += " (" + Narrow(loader) + ")";
  *error = "Cannot load the add-in module " + Narrow(modulePath) + ": " + why;
  return nullptr;
}

std::u16string AddinModulePath() {
  char16_t buffer[4096];
  const DWORD length = platform::GetEnvironmentVariableW(u"MRWL_ADDIN", buffer,
                                                         static_cast<DWORD>(std::size(buffer)));
  if (length > 0 && length < std::size(buffer)) return std::u16string(buffer, length);
  // The folder of the program: the file that holds this code.
  const DWORD self =
      platform::GetModuleFileNameForAddress(reinterpret_cast<const void*>(&AddinModulePath), buffer,
                                            static_cast<DWORD>(std::size(buffer)));
  std::u16string path(buffer, self < std::size(buffer) ? self : 0);
  path.erase(path.find_last_of(u'/') == std::u16string::npos ? 0 : path.find_last_of(u'/') + 1);
  return path + platform::Utf8ToUtf16(kModuleFileName);
}

AddinSession::~AddinSession() { Disconnect(); }

bool AddinSession::Load(const std::u16string& modulePath, std::string* error) {
  module_ = LoadAddinModule(modulePath, error);
  if (module_ == nullptr) return false;
  const auto getClassObject = reinterpret_cast<GetClassObjectFunction>(
      platform::GetProcAddress(module_, "DllGetClassObject"));
  if (getClassObject == nullptr) {
    *error =
        "The file " + Narrow(modulePath) + " is no add-in module: it has no DllGetClassObject.";
    return false;
  }
  ComPtr<IClassFactory> factory;
  HRESULT result = getClassObject(CLSID_Addin, IID_IClassFactory, factory.put_void());
  if (SUCCEEDED(result) && factory) {
    result = factory->CreateInstance(nullptr, office::IID_IDTExtensibility2, addin_.put_void());
  }
  if (FAILED(result) || !addin_) {
    *error = "The add-in module " + Narrow(modulePath) + " did not make its add-in object (" +
             HexResult(result) + ").";
    return false;
  }
  return true;
}

bool AddinSession::Connect(HostApplication* application, std::string* error) {
  const HRESULT result = addin_->OnConnection(static_cast<IDispatch*>(application),
                                              office::ext_cm_Startup, nullptr, nullptr);
  if (FAILED(result)) {
    *error = "The add-in refused the connection with Outlook (" + HexResult(result) + ").";
    return false;
  }
  connected_ = true;
  (void)addin_->OnStartupComplete(nullptr);  // the add-in does nothing here; nor does Office care
  return true;
}

bool AddinSession::LoadRibbon(const std::u16string& ribbonId, std::string* error) {
  ComPtr<office::IRibbonExtensibility> extensibility;
  if (FAILED(addin_->QueryInterface(office::IID_IRibbonExtensibility, extensibility.put_void())) ||
      !extensibility) {
    *error = "The add-in offers no ribbon.";
    return false;
  }
  UniqueBstr id = MakeBstr(ribbonId);
  UniqueBstr xml;
  const HRESULT result = extensibility->GetCustomUI(id.get(), xml.put());
  ribbonXml_ = std::u16string(BstrView(xml.get()));
  if (FAILED(result) || ribbonXml_.empty()) {
    *error = "The add-in gave no ribbon for " + Narrow(ribbonId) + " (" + HexResult(result) + ").";
    return false;
  }
  const XmlDocument document = ParseRibbon(ribbonXml_);
  if (document == nullptr) {
    *error = "The add-in's ribbon for " + Narrow(ribbonId) + " is not well-formed XML.";
    return false;
  }
  // Office hands the ribbon to the document's onLoad callback once it shows the ribbon.
  const std::string onLoad = Attribute(xmlDocGetRootElement(document.get()), "onLoad");
  if (!onLoad.empty()) {
    if (!ribbon_) ribbon_ = MakeComObject<HostRibbon>();
    const HRESULT loaded = InvokeCallback(platform::Utf8ToUtf16(onLoad), ribbon_.get(), nullptr);
    // The add-in may fail here (its window watchers), and the ribbon works on without them.
    (void)loaded;
  }
  return true;
}

bool AddinSession::Click(const std::u16string& label, std::string* error) {
  const XmlDocument document = ParseRibbon(ribbonXml_);
  std::optional<RibbonButton> button;
  if (document != nullptr) button = FindButton(xmlDocGetRootElement(document.get()), Narrow(label));
  if (!button || button->id.empty() || button->onAction.empty()) {
    *error = "The add-in's ribbon has no button \"" + Narrow(label) + "\".";
    return false;
  }
  const auto control = MakeComObject<HostRibbonControl>(platform::Utf8ToUtf16(button->id));
  // Office draws the button before it can be clicked; a button without a picture still works.
  if (!button->getImage.empty()) {
    VARIANT picture;
    VariantInit(&picture);
    (void)InvokeCallback(platform::Utf8ToUtf16(button->getImage), control.get(), &picture);
    VariantClear(&picture);
  }
  if (!button->getEnabled.empty()) {
    VARIANT enabled;
    VariantInit(&enabled);
    const HRESULT asked =
        InvokeCallback(platform::Utf8ToUtf16(button->getEnabled), control.get(), &enabled);
    const bool off = SUCCEEDED(asked) && ((enabled.vt == VT_BOOL && enabled.boolVal == 0) ||
                                          (enabled.vt == VT_I4 && enabled.lVal == 0));
    VariantClear(&enabled);
    if (off) {
      *error = "The button \"" + Narrow(label) + "\" is disabled.";
      return false;
    }
  }
  const HRESULT result =
      InvokeCallback(platform::Utf8ToUtf16(button->onAction), control.get(), nullptr);
  if (FAILED(result)) {
    *error = "The button \"" + Narrow(label) + "\" failed (" + HexResult(result) + ").";
    return false;
  }
  return true;
}

void AddinSession::Disconnect() {
  if (addin_ && connected_) {
    (void)addin_->OnBeginShutdown(nullptr);
    (void)addin_->OnDisconnection(office::ext_dm_HostShutdown, nullptr);
    connected_ = false;
  }
  addin_ = nullptr;
  ribbon_ = nullptr;
  // The module stays loaded to the end of the process. The add-in's window watchers outlive
  // their lists on purpose and live in the module's memory; unloading it would orphan them, and
  // Outlook, too, lets its add-ins go only when it ends.
  module_ = nullptr;
}

HRESULT AddinSession::InvokeCallback(const std::u16string& name, IDispatch* argument,
                                     VARIANT* result) {
  // Office finds callbacks by name through the object's IDispatch.
  ComPtr<IDispatch> callbacks;
  HRESULT hr = addin_->QueryInterface(IID_IDispatch, callbacks.put_void());
  if (FAILED(hr) || !callbacks) return FAILED(hr) ? hr : E_NOINTERFACE;
  UniqueBstr member = MakeBstr(name);
  LPOLESTR names[] = {member.get()};
  DISPID dispid = 0;
  hr = callbacks->GetIDsOfNames(IID_NULL, names, 1, 0, &dispid);
  if (FAILED(hr)) return hr;
  VARIANT arg;
  VariantInit(&arg);
  arg.vt = VT_DISPATCH;
  arg.pdispVal = argument;
  DISPPARAMS params{&arg, nullptr, 1, 0};
  EXCEPINFO exception{};
  UINT argError = 0;
  hr = callbacks->Invoke(dispid, IID_NULL, 0, DISPATCH_METHOD, &params, result, &exception,
                         &argError);
  SysFreeString(exception.bstrSource);
  SysFreeString(exception.bstrDescription);
  SysFreeString(exception.bstrHelpFile);
  if (hr == DISP_E_EXCEPTION && FAILED(exception.scode)) return exception.scode;
  return hr;
}

}  // namespace mrwl::host
