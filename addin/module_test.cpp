// The built module as Office meets it: loaded from its file, its exports found by name, its class
// factory making the add-in object, and its lock count telling when it may go.

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "addin/addin_guids.h"
#include "addin/ribbon.h"
#include "platform/com.h"
#include "platform/com_ptr.h"
#include "platform/kernel.h"
#include "platform/office.h"
#include "platform/utf.h"

namespace mrwl {
namespace {

using GetClassObjectFunction = HRESULT (*)(REFCLSID, REFIID, void**);
using CanUnloadNowFunction = HRESULT (*)();

TEST(AddinModule, ClassFactoryMakesTheAddinAndLocksCountTheObjects) {
  const char* dir = std::getenv("MRWL_TEST_BINARY_DIR");
  ASSERT_NE(dir, nullptr);
  const std::u16string path = platform::Utf8ToUtf16(std::string(dir) + "/bin/libmrwl-addin.so");
  // Loaded for the rest of the process, as Office keeps its add-ins.
  const HMODULE module = platform::LoadLibraryW(path.c_str());
  ASSERT_NE(module, nullptr) << platform::Utf16ToUtf8(platform::GetModuleLoadProblem());
  for (const char* name : {"DllGetClassObject", "DllCanUnloadNow", "DllInstall",
                           "DllRegisterServer", "DllUnregisterServer"}) {
    EXPECT_NE(platform::GetProcAddress(module, name), nullptr) << name;
  }
  // Only the exports leave the module: its own copies of the code stay inside.
  EXPECT_EQ(platform::GetProcAddress(module, "_ZN4mrwl14ModuleLockCountEv"), nullptr);

  const auto getClassObject = reinterpret_cast<GetClassObjectFunction>(
      platform::GetProcAddress(module, "DllGetClassObject"));
  const auto canUnloadNow =
      reinterpret_cast<CanUnloadNowFunction>(platform::GetProcAddress(module, "DllCanUnloadNow"));
  ASSERT_NE(getClassObject, nullptr);
  ASSERT_NE(canUnloadNow, nullptr);

  ComPtr<IClassFactory> factory;
  EXPECT_EQ(getClassObject(IID_IOutlookAddin, IID_IClassFactory, factory.put_void()),
            CLASS_E_CLASSNOTAVAILABLE);
  EXPECT_FALSE(factory);
  ASSERT_EQ(getClassObject(CLSID_Addin, IID_IClassFactory, factory.put_void()), S_OK);
  EXPECT_EQ(canUnloadNow(), S_OK) << "a class factory alone holds no lock";

  ComPtr<IUnknown> outer;
  ASSERT_EQ(getClassObject(CLSID_Addin, IID_IUnknown, outer.put_void()), S_OK);
  ComPtr<IUnknown> aggregated;
  EXPECT_EQ(factory->CreateInstance(outer.get(), IID_IUnknown, aggregated.put_void()),
            CLASS_E_NOAGGREGATION);
  ComPtr<IUnknown> nothing;
  EXPECT_EQ(factory->CreateInstance(nullptr, IID_IClassFactory, nothing.put_void()), E_NOINTERFACE);
  EXPECT_EQ(canUnloadNow(), S_OK) << "an object refused is gone again";

  ComPtr<office::IDTExtensibility2> addin;
  ASSERT_EQ(factory->CreateInstance(nullptr, office::IID_IDTExtensibility2, addin.put_void()),
            S_OK);
  EXPECT_EQ(canUnloadNow(), S_FALSE);
  addin = nullptr;
  EXPECT_EQ(canUnloadNow(), S_OK);

  EXPECT_EQ(factory->LockServer(TRUE), S_OK);
  EXPECT_EQ(canUnloadNow(), S_FALSE);
  EXPECT_EQ(factory->LockServer(FALSE), S_OK);
  EXPECT_EQ(canUnloadNow(), S_OK);
}

TEST(ModuleResources, EveryResourceOfTheModuleIsThereOnce) {
  const struct {
    const char16_t* type;
    int id;
  } expected[] = {{u"XML", 214},      {u"XML", 107},      {u"PNG", 280},   {u"PNG", 281},
                  {u"PNG", 282},      {u"PNG", 221},      {u"PNG", 224},   {u"PNG", 222},
                  {u"REGISTRY", 101}, {u"REGISTRY", 106}, {u"STRING", 100}};
  for (const auto& resource : expected) {
    SCOPED_TRACE(resource.id);
    const ModuleResource* found = FindModuleResource(resource.type, resource.id);
    ASSERT_NE(found, nullptr);
    EXPECT_GT(found->size, 0u);
  }
  EXPECT_EQ(ModuleResources().size(), std::size(expected));
  const ModuleResource* name = FindModuleResource(u"STRING", 100);
  ASSERT_NE(name, nullptr);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(name->data), name->size), "OutlookAddin");
  EXPECT_EQ(FindModuleResource(u"xml", 214), nullptr) << "types are compared exactly";
}

}  // namespace
}  // namespace mrwl
