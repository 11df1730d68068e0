// Class objects of this process and task memory.
//
// There is no class registry outside the process: a class exists while some part of the process
// has registered a class object for it. Registrations stand in one table under one lock; the
// newest registration of a class answers first. Class objects are called outside the lock, so a
// factory may itself create or register classes.
#include <cstdlib>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/com.h"
#include "platform/com_ptr.h"

namespace {

struct Registration {
  DWORD cookie;
  CLSID clsid;
  DWORD context;
  mrwl::ComPtr<IUnknown> classObject;
};

struct ClassTable {
  std::mutex lock;
  std::vector<Registration> entries;
  DWORD nextCookie = 1;
};

ClassTable& Table() noexcept {
  // Never destroyed: class objects may be revoked by static destructors of other units.
  static ClassTable* table = new ClassTable();
  return *table;
}

// The newest class object of `clsid` for `context`, with a reference of the caller's own.
mrwl::ComPtr<IUnknown> FindClassObject(REFCLSID clsid, DWORD context) noexcept {
  ClassTable& table = Table();
  const std::lock_guard<std::mutex> guard(table.lock);
  for (auto it = table.entries.rbegin(); it != table.entries.rend(); ++it) {
    if (IsEqualCLSID(it->clsid, clsid) && (it->context & context) != 0) return it->classObject;
  }
  return nullptr;
}

}  // namespace

HRESULT CoCreateInstance(REFCLSID clsid, IUnknown* outer, DWORD context, REFIID iid,
                         void** object) noexcept {
  if (object == nullptr) return E_POINTER;
  *object = nullptr;
  if (outer != nullptr) return CLASS_E_NOAGGREGATION;
  const mrwl::ComPtr<IUnknown> classObject = FindClassObject(clsid, context);
  if (!classObject) return REGDB_E_CLASSNOTREG;
  mrwl::ComPtr<IClassFactory> factory;
  const HRESULT found = classObject.As(IID_IClassFactory, &factory);
  if (FAILED(found)) return found;
  const HRESULT created = factory->CreateInstance(nullptr, iid, object);
  if (FAILED(created)) *object = nullptr;
  return created;
}

HRESULT CoRegisterClassObject(REFCLSID clsid, IUnknown* factory, DWORD context, DWORD,
                              DWORD* cookie) noexcept {
  if (cookie == nullptr) return E_POINTER;
  *cookie = 0;
  if (factory == nullptr) return E_INVALIDARG;
  ClassTable& table = Table();
  try {
    const std::lock_guard<std::mutex> guard(table.lock);
    const DWORD next = table.nextCookie;
    table.entries.push_back(Registration{next, clsid, context, mrwl::ComPtr<IUnknown>(factory)});
    table.nextCookie = next + 1 == 0 ? 1 : next + 1;
    *cookie = next;
  } catch (...) {
    return E_OUTOFMEMORY;
  }
  return S_OK;
}

HRESULT CoRevokeClassObject(DWORD cookie) noexcept {
  mrwl::ComPtr<IUnknown> revoked;
  {
    ClassTable& table = Table();
    const std::lock_guard<std::mutex> guard(table.lock);
    for (auto it = table.entries.begin(); it != table.entries.end(); ++it) {
      if (it->cookie == cookie) {
        revoked = std::move(it->classObject);
        table.entries.erase(it);
        break;
      }
    }
  }
  // Released here, outside the lock: the last reference may run arbitrary code.
  return revoked ? S_OK : CO_E_OBJNOTREG;
}

void* CoTaskMemAlloc(SIZE_T size) noexcept { return std::malloc(size == 0 ? 1 : size); }

void CoTaskMemFree(void* block) noexcept { std::free(block); }
