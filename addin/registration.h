// The module's registration: what DllRegisterServer and DllUnregisterServer write and remove.
//
// Registration runs the module's registrar scripts, "REGISTRY" 101 (the module's AppID) and 106
// (the add-in class and its key under Office's add-ins), with %MODULE% the module file's full path
// and %APPID% the module's AppID, and writes the keys of the type library OutlookAddinLib and of
// its interface IRibbonCallback. Per-user registration puts the classes and the type library
// under HKCU\Software\Classes; the add-in's key under HKLM stays where it is.
//
// For the thread that calls the module's registration exports; the per-user switch may be read
// from any thread.
#pragma once

#include "platform/com.h"

namespace mrwl {

inline constexpr int kModuleRegistryScript = 101;
inline constexpr int kAddinRegistryScript = 106;

// Switches registration to per-user mode for the rest of the process (DllInstall "user").
void SetPerUserRegistration() noexcept;
// Whether SetPerUserRegistration was called in this process.
[[nodiscard]] bool PerUserRegistration() noexcept;

// Writes the module's registration, machine-wide or, with `perUser`, for the current user.
// S_OK on success. On failure everything written by this call is taken back again, and the result
// is the registrar's (kRegistrarScriptError for a script that cannot be read, HRESULT_FROM_WIN32
// of a registry error), HRESULT_FROM_WIN32(ERROR_RESOURCE_NAME_NOT_FOUND) when a script is
// missing from the module, or E_OUTOFMEMORY; what failed goes to the trace.
[[nodiscard]] HRESULT RegisterModule(bool perUser) noexcept;

// Removes what RegisterModule writes in the same mode, keeping keys that others use as well.
// Keys that are not there are no failure. Results as for RegisterModule; the removal goes on past
// a failing step and the first failure is returned.
[[nodiscard]] HRESULT UnregisterModule(bool perUser) noexcept;

}  // namespace mrwl
