// The module's registration: the registrar's scripts with the module's replacements.

#include "addin/registration.h"

#include <atomic>
#include <iterator>
#include <string_view>

#include "addin/addin_guids.h"
#include "addin/registrar.h"
#include "addin/ribbon.h"
#include "foundation/format.h"
#include "foundation/log.h"
#include "foundation/wide_string.h"
#include "platform/kernel.h"

namespace mrwl {
namespace {

std::atomic<bool> gPerUser{false};

// HRESULT_FROM_WIN32(ERROR_RESOURCE_NAME_NOT_FOUND).
constexpr HRESULT kScriptMissing = static_cast<HRESULT>(0x80070716u);

// The type library's keys, as the system's type library registration writes them: the library
// with its file and help folder, and the dual interface that the ribbon calls through it.
constexpr std::u16string_view kTypeLibraryScript =
    uR"rgs(
HKCR
{
	NoRemove TypeLib
	{
		'%LIBID%'
		{
			ForceRemove '%LIBVERSION%' = s 'OutlookAddinLib'
			{
				'0'
				{
					'%LIBPLATFORM%' = s '%MODULE%'
				}
				FLAGS = s '0'
				HELPDIR = s '%MODULEFOLDER%'
			}
		}
	}
	NoRemove Interface
	{
		ForceRemove '%IIDRIBBONCALLBACK%' = s 'IRibbonCallback'
		{
			ProxyStubClsid32 = s '{00020424-0000-0000-C000-000000000046}'
			TypeLib = s '%LIBID%'
			{
				val Version = s '%LIBVERSION%'
			}
		}
	}
}
)rgs";

// The registry form of a GUID: braces and upper-case hex digits.
WideString GuidText(const GUID& guid) {
  static constexpr char16_t kDigits[] = u"0123456789ABCDEF";
  char16_t text[38];
  std::size_t at = 0;
  auto put = [&](unsigned long long value, int digits) {
    for (int shift = (digits - 1) * 4; shift >= 0; shift -= 4) {
      text[at++] = kDigits[(value >> shift) & 0xF];
    }
  };
  text[at++] = u'{';
  put(guid.Data1, 8);
  text[at++] = u'-';
  put(guid.Data2, 4);
  text[at++] = u'-';
  put(guid.Data3, 4);
  text[at++] = u'-';
  put(guid.Data4[0], 2);
  put(guid.Data4[1], 2);
  text[at++] = u'-';
  for (int i = 2; i < 8; ++i) put(guid.Data4[i], 2);
  text[at++] = u'}';
  return WideString(std::u16string_view(text, at));
}

// The full path of this module's file; empty when the system cannot tell.
WideString ModulePath() {
  WideString path;
  for (DWORD size = MAX_PATH; size <= 32768; size *= 2) {
    if (!path.Resize(size)) return WideString();
    const DWORD length = platform::GetModuleFileNameForAddress(
        reinterpret_cast<const void*>(&ModulePath), path.data(), size);
    if (length == 0) return WideString();
    if (length < size) {
      path.SetLength(length);
      return path;
    }
  }
  return WideString();
}

// Sets the registrar's replacements. False when memory runs out.
bool AddReplacements(Registrar& registrar, const WideString& modulePath) {
  std::size_t cut = modulePath.Length();
  while (cut > 0 && modulePath[cut - 1] != u'/' && modulePath[cut - 1] != u'\\') --cut;
  // The help folder is written without its final separator, as the system writes it.
  const std::u16string_view folder = modulePath.view().substr(0, cut > 0 ? cut - 1 : 0);
  const char16_t version[] = {static_cast<char16_t>(u'0' + kOutlookAddinLibMajor), u'.',
                              static_cast<char16_t>(u'0' + kOutlookAddinLibMinor)};
  return registrar.AddReplacement(u"MODULE", modulePath.view()) &&
         registrar.AddReplacement(u"MODULEFOLDER", folder) &&
         registrar.AddReplacement(u"APPID", GuidText(APPID_OutlookAddin).view()) &&
         registrar.AddReplacement(u"LIBID", GuidText(LIBID_OutlookAddinLib).view()) &&
         registrar.AddReplacement(u"LIBVERSION", std::u16string_view(version, 3)) &&
         registrar.AddReplacement(u"LIBPLATFORM", sizeof(void*) == 8 ? u"win64" : u"win32") &&
         registrar.AddReplacement(u"IIDRIBBONCALLBACK", GuidText(IID_IRibbonCallback).view());
}

// The text of REGISTRY resource `id` (UTF-8, mostly ASCII), into `script`.
HRESULT LoadScript(int id, WideString& script) {
  const ModuleResource* resource = FindModuleResource(u"REGISTRY", id);
  if (resource == nullptr) return kScriptMissing;
  std::string_view bytes(reinterpret_cast<const char*>(resource->data), resource->size);
  if (bytes.starts_with("\xEF\xBB\xBF")) bytes.remove_prefix(3);
  script = Utf8ToWide(bytes);
  return !bytes.empty() && script.IsEmpty() ? E_OUTOFMEMORY : S_OK;
}

void TraceFailure(const char16_t* what, int id, HRESULT result, const Registrar& registrar) {
  const WideString script =
      id == 0 ? WideString(u"the type library's keys") : FormatText(u"REGISTRY %d", id);
  DebugPrint(u"%s of %s failed with 0x%08X: %s\n", what, script.c_str(),
             static_cast<unsigned>(result), registrar.LastError().c_str());
}

// The scripts in the order of registration; the type library's has no number.
constexpr int kTypeLibraryScriptId = 0;
constexpr int kScripts[] = {kModuleRegistryScript, kAddinRegistryScript, kTypeLibraryScriptId};

HRESULT ScriptText(int id, WideString& script) {
  if (id != kTypeLibraryScriptId) return LoadScript(id, script);
  return script.Assign(kTypeLibraryScript) ? S_OK : E_OUTOFMEMORY;
}

HRESULT PrepareRegistrar(Registrar& registrar, bool perUser) {
  const WideString modulePath = ModulePath();
  if (modulePath.IsEmpty()) return HRESULT_FROM_WIN32(platform::GetLastError());
  registrar.SetPerUser(perUser);
  return AddReplacements(registrar, modulePath) ? S_OK : E_OUTOFMEMORY;
}

}  // namespace

void SetPerUserRegistration() noexcept { gPerUser.store(true); }

bool PerUserRegistration() noexcept { return gPerUser.load(); }

HRESULT RegisterModule(bool perUser) noexcept {
  // One registrar for all scripts: a failure in a later one takes back the earlier ones too.
  Registrar registrar;
  HRESULT result = PrepareRegistrar(registrar, perUser);
  if (FAILED(result)) return result;
  for (const int id : kScripts) {
    WideString script;
    result = ScriptText(id, script);
    if (SUCCEEDED(result)) result = registrar.Register(script.view());
    if (FAILED(result)) {
      TraceFailure(u"Registration", id, result, registrar);
      // A failing script took back everything already; a missing one has the others to undo.
      registrar.TakeBack();
      return result;
    }
  }
  return S_OK;
}

HRESULT UnregisterModule(bool perUser) noexcept {
  Registrar registrar;
  HRESULT first = PrepareRegistrar(registrar, perUser);
  if (FAILED(first)) return first;
  // The reverse of the registration's order, so that shared parents are looked at last.
  for (auto it = std::rbegin(kScripts); it != std::rend(kScripts); ++it) {
    WideString script;
    HRESULT result = ScriptText(*it, script);
    if (SUCCEEDED(result)) result = registrar.Unregister(script.view());
    if (FAILED(result)) {
      TraceFailure(u"Unregistration", *it, result, registrar);
      if (SUCCEEDED(first)) first = result;
    }
  }
  return first;
}

}  // namespace mrwl
