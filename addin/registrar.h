// The registrar: runs the registry scripts ("REGISTRY" resources) that a COM module carries, to
// register and to unregister it.
//
// A script is a tree of keys under root blocks (HKCR, HKCU, HKLM, or their HKEY_ names), written
// as COM modules write it:
//
//   HKCR
//   {
//       NoRemove CLSID
//       {
//           ForceRemove {GUID} = s 'A class'
//           {
//               InprocServer32 = s '%MODULE%'
//               {
//                   val ThreadingModel = s 'Apartment'
//               }
//           }
//       }
//   }
//
// Tokens are separated by white space; a name in single quotes may hold anything, a quote being
// doubled. "= TYPE DATA" gives a key's default value, "val NAME = TYPE DATA" a named one; the
// types are s (text), d (a DWORD, decimal or 0x hex) and b (bytes in hex digits). A key may be
// marked ForceRemove (its tree is deleted before it is written, and deleted whole on
// unregistration), NoRemove (it stays on unregistration) or Delete (it is deleted on
// registration). %NAME% is replaced by the value given for NAME, anywhere in a token, and %%
// stands for one percent sign; a replacement never becomes syntax.
//
// Unregistration deletes the values that the script names and every key of the script that ends
// up empty, so that keys that others also use keep what others put there.
//
// A Registrar is for one thread; it reaches the registry through platform/registry.h.
#pragma once

#include <string_view>
#include <vector>

#include "foundation/memory.h"
#include "foundation/wide_string.h"
#include "platform/com.h"
#include "platform/registry.h"

namespace mrwl {

// A script that cannot be read: a syntax error, an unknown %NAME%, a bad number or byte string.
// HRESULT_FROM_WIN32(ERROR_INVALID_DATA), "The data is invalid."
inline constexpr HRESULT kRegistrarScriptError = static_cast<HRESULT>(0x8007000Du);

// The text of `script` with each root block of HKCR (or HKEY_CLASSES_ROOT) put under
// HKCU\Software\Classes, which is how a per-user registration writes the classes: the root's
// name becomes "HKCU\r\n{\tSoftware\r\n\t{\r\n\t\tClasses", and "\r\n\t}\r\n}\r\n" follows the
// block's closing brace. Other roots stay as they are. Returns false when memory runs out; a
// script that cannot be read comes back with only the roots found before the fault rewritten.
[[nodiscard]] bool RewriteForPerUser(std::u16string_view script, WideString& result) noexcept;

class Registrar {
 public:
  // A text that %name% stands for.
  struct Replacement {
    WideString name;
    WideString value;
  };

  Registrar() = default;
  Registrar(const Registrar&) = delete;
  Registrar& operator=(const Registrar&) = delete;

  // Replaces %name% by `value` in every script run afterwards; a later call for the same name
  // (compared without regard to case) wins. False when memory runs out.
  [[nodiscard]] bool AddReplacement(std::u16string_view name, std::u16string_view value) noexcept;

  // Per-user mode: each script is rewritten by RewriteForPerUser before it runs.
  void SetPerUser(bool perUser) noexcept { perUser_ = perUser; }

  // Writes the keys and values of `script`. Nothing is written when the script cannot be read.
  // A failure while writing takes back everything that this registrar has written so far, in
  // this script and in the scripts it registered before: the keys it created and the values it
  // added to keys that were there (what ForceRemove or Delete removed stays removed).
  // Returns S_OK, kRegistrarScriptError, HRESULT_FROM_WIN32 of the registry's error, or
  // E_OUTOFMEMORY; LastError() then says what failed, on which line of the script.
  [[nodiscard]] HRESULT Register(std::u16string_view script) noexcept;

  // Removes what `script` registers: ForceRemove keys with their trees, the values the script
  // names, and keys left empty that are not NoRemove. Keys and values that are not there are no
  // failure. A failing step does not stop the others; the first failure is returned.
  [[nodiscard]] HRESULT Unregister(std::u16string_view script) noexcept;

  // Takes back everything that Register has written through this registrar so far, as a failing
  // Register does by itself: for a caller whose own later step failed.
  void TakeBack() noexcept;

  // "line N: ..." for the last failure of Register or Unregister; empty after a success.
  [[nodiscard]] const WideString& LastError() const noexcept { return lastError_; }

 private:
  // Something Register wrote that was not there before: a key (with everything below it), or a
  // value of a key that was there.
  struct Written {
    HKEY root;
    WideString path;
    bool isValue;
    WideString valueName;  // empty: the default value
  };
  friend class ScriptRunner;

  HRESULT Run(std::u16string_view script, bool doRegister);

  std::vector<Replacement, MemAllocator<Replacement>> replacements_;
  std::vector<Written, MemAllocator<Written>> written_;
  bool perUser_ = false;
  WideString lastError_;
};

}  // namespace mrwl
