// The module's entry: the five exports through which Outlook (and the Linux host) find the add-in,
// the class factory of Addin, and what the module does when it is loaded.
//
// The module keeps its own copies of the foundation and the add-in's code; only the exports leave
// it. Its lock count is that of addin.h: living Addin objects and LockServer calls.

#include "addin/addin.h"
#include "addin/addin_guids.h"
#include "addin/registration.h"
#include "foundation/paths.h"
#include "foundation/wide_string.h"
#include "platform/com.h"
#include "platform/com_object.h"
#include "platform/kernel.h"

#if defined(_WIN32)
#define MRWL_MODULE_EXPORT extern "C" __declspec(dllexport)
#define MRWL_MODULE_CALL STDAPICALLTYPE
#else
#define MRWL_MODULE_EXPORT extern "C" __attribute__((visibility("default")))
#define MRWL_MODULE_CALL
#endif

namespace mrwl {
namespace {

// ModuleFolder is the module file's folder with its final separator; it is known before any
// export can be called, as the converter is looked for beside the module.
struct ModuleStart {
  ModuleStart() noexcept {
    WideString path;
    for (DWORD size = MAX_PATH; size <= 32768; size *= 2) {
      if (!path.Resize(size)) return;
      const DWORD length = platform::GetModuleFileNameForAddress(this, path.data(), size);
      if (length == 0) return;
      if (length < size) {
        path.SetLength(length);
        break;
      }
    }
    std::size_t cut = path.Length();
    while (cut > 0 && path.c_str()[cut - 1] != u'/' && path.c_str()[cut - 1] != u'\\') --cut;
    SetModuleFolder(std::u16string_view(path.c_str(), cut));
  }
};
const ModuleStart gModuleStart;

class AddinClassFactory final : public ComObject<IClassFactory> {
 public:
  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID iid, void** object) override {
    if (object == nullptr) return E_POINTER;
    *object = nullptr;
    // The object map row is aggregatable, but Office never aggregates the add-in, and Addin
    // keeps one identity of its own.
    if (outer != nullptr) return CLASS_E_NOAGGREGATION;
    try {
      Addin* addin = MakeComObject<Addin>().Detach();
      const HRESULT result = addin->QueryInterface(iid, object);
      addin->Release();
      return result;
    } catch (...) {
      return E_OUTOFMEMORY;
    }
  }
  HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) override {
    if (lock) {
      LockModule();
    } else {
      UnlockModule();
    }
    return S_OK;
  }
};

bool EqualsUserIgnoringCase(const OLECHAR* text) noexcept {
  static constexpr char16_t kUser[] = u"user";
  for (int i = 0; i < 4; ++i) {
    char16_t c = static_cast<char16_t>(text[i]);
    if (c >= u'A' && c <= u'Z') c = static_cast<char16_t>(c - u'A' + u'a');
    if (c != kUser[i]) return false;
  }
  return text[4] == 0;
}

}  // namespace
}  // namespace mrwl

MRWL_MODULE_EXPORT HRESULT MRWL_MODULE_CALL DllGetClassObject(REFCLSID clsid, REFIID iid,
                                                              void** object) {
  if (object == nullptr) return E_POINTER;
  *object = nullptr;
  if (!IsEqualGUID(clsid, mrwl::CLSID_Addin)) return CLASS_E_CLASSNOTAVAILABLE;
  try {
    auto factory = mrwl::MakeComObject<mrwl::AddinClassFactory>();
    return factory->QueryInterface(iid, object);
  } catch (...) {
    return E_OUTOFMEMORY;
  }
}

MRWL_MODULE_EXPORT HRESULT MRWL_MODULE_CALL DllCanUnloadNow() {
  return mrwl::ModuleLockCount() == 0 ? S_OK : S_FALSE;
}

MRWL_MODULE_EXPORT HRESULT MRWL_MODULE_CALL DllRegisterServer() {
  return mrwl::RegisterModule(mrwl::PerUserRegistration());
}

MRWL_MODULE_EXPORT HRESULT MRWL_MODULE_CALL DllUnregisterServer() {
  return mrwl::UnregisterModule(mrwl::PerUserRegistration());
}

MRWL_MODULE_EXPORT HRESULT MRWL_MODULE_CALL DllInstall(BOOL install, const OLECHAR* commandLine) {
  // The per-user switch holds for the rest of the process, as installers expect.
  if (commandLine != nullptr && mrwl::EqualsUserIgnoringCase(commandLine)) {
    mrwl::SetPerUserRegistration();
  }
  if (!install) return DllUnregisterServer();
  const HRESULT result = DllRegisterServer();
  // A failed registration takes back whatever part of it was written.
  if (FAILED(result)) (void)DllUnregisterServer();
  return result;
}
