// Tests of the registrar over a real hive of the test's own: the script syntax, replacements,
// errors with their lines, per-user rewriting, unregistration that spares what others keep, and
// the taking back of a registration that fails half-way.
#include "addin/registrar.h"

#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "platform/registry.h"
#include "platform/utf.h"
#include "testing/temp_folder.h"

namespace mrwl {
namespace {

std::string Narrow(std::u16string_view text) { return platform::Utf16ToUtf8(text); }

// Every key below `key` as one line: its path, then each value as " name=data" (@ for the
// default value, #n for a DWORD, hex: for bytes).
std::string Dump(HKEY key, const std::string& path) {
  std::string out = path;
  char16_t name[256];
  BYTE data[1024];
  for (DWORD i = 0, length = 256, type = 0, size = sizeof data;
       platform::RegEnumValueW(key, i, name, &length, nullptr, &type, data, &size) == ERROR_SUCCESS;
       ++i, length = 256, size = sizeof data) {
    out += " " + (length == 0 ? std::string("@") : Narrow({name, length})) + "=";
    if (type == REG_SZ) {
      out += Narrow({reinterpret_cast<const char16_t*>(data), size / 2 - 1});
    } else if (type == REG_DWORD) {
      out += "#" + std::to_string(*reinterpret_cast<const DWORD*>(data));
    } else {
      constexpr char kHex[] = "0123456789ABCDEF";
      out += "hex:";
      for (DWORD b = 0; b < size; ++b) out += {kHex[data[b] >> 4], kHex[data[b] & 15]};
    }
  }
  out += "\n";
  for (DWORD i = 0, length = 256; platform::RegEnumKeyExW(key, i, name, &length, nullptr, nullptr,
                                                          nullptr, nullptr) == ERROR_SUCCESS;
       ++i, length = 256) {
    const std::u16string subName(name, length);
    UniqueRegKey subkey;
    if (platform::RegOpenKeyExW(key, subName.c_str(), 0, KEY_READ, subkey.put()) == ERROR_SUCCESS) {
      out += Dump(subkey.get(), path + "\\" + Narrow(subName));
    }
  }
  return out;
}

class RegistrarTest : public ::testing::Test {
 protected:
  HRESULT Register(std::u16string_view script) { return registrar_.Register(script); }
  HRESULT Unregister(std::u16string_view script) { return registrar_.Unregister(script); }
  std::string Error() const { return Narrow(registrar_.LastError().view()); }

  // The keys below HKCR, HKCU and HKLM, without the roots themselves.
  std::string Hive() {
    std::string out;
    for (const auto& [root, name] :
         {std::pair{HKEY_CLASSES_ROOT, "HKCR"}, std::pair{HKEY_CURRENT_USER, "HKCU"},
          std::pair{HKEY_LOCAL_MACHINE, "HKLM"}}) {
      const std::string dump = Dump(root, name);
      out += dump.substr(dump.find('\n') + 1);
    }
    return out;
  }

  // Writes keys as another installer would, through a registrar of its own.
  static void Others(std::u16string_view script) { ASSERT_EQ(S_OK, Registrar().Register(script)); }

  testing::TempFolder folder_;
  testing::ScopedEnv hive_{"MRWL_REGISTRY", folder_.PathOf("hive.db")};
  Registrar registrar_;
};

TEST_F(RegistrarTest, ScriptsWriteTheirKeysAndValues) {
  ASSERT_TRUE(registrar_.AddReplacement(u"MODULE", u"C:\\It's 100% here\\m.dll"));
  ASSERT_TRUE(registrar_.AddReplacement(u"Id", u"{1}"));
  const struct {
    const char16_t* script;
    const char* hive;
    const char* afterUnregister = "";
  } cases[] = {
      {u"HKCR { A = s 'Class' { val X = d 3\r\n val Y = d 0x1F val Z = b '00fF10' } }",
       "HKCR\\A @=Class X=#3 Y=#31 Z=hex:00FF10\n"},
      // Quoted names hold white space, braces and doubled quotes; keywords ignore case.
      {u"HKEY_LOCAL_MACHINE\n{\n\tnoremove 'Two words'\n\t{\n\t\t'{x}' = s 'it''s'\n\t\t"
       u"VAL 'v v' = S ''\n\t}\n}\n",
       "HKLM\\Two words v v=\nHKLM\\Two words\\{x} @=it's\n", "HKLM\\Two words\n"},
      // A replacement is text wherever it lands, and %% is one percent sign.
      {u"HKCU { %ID% = s '%MODULE%' { val '%%Id%%' = s 100%% } }",
       "HKCU\\{1} @=C:\\It's 100% here\\m.dll %Id%=100%\n"},
      {u"HKCR { K { val N = d 4294967295 } } HKCU { } HKLM { L }",
       "HKCR\\K N=#4294967295\nHKLM\\L\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(Narrow(c.script));
    ASSERT_EQ(S_OK, Register(c.script)) << Error();
    EXPECT_EQ(Error(), "");
    EXPECT_EQ(Hive(), c.hive);
    EXPECT_EQ(S_OK, Unregister(c.script)) << Error();
    EXPECT_EQ(Hive(), c.afterUnregister);
    ASSERT_EQ(ERROR_SUCCESS, platform::RegDeleteTreeW(HKEY_LOCAL_MACHINE, nullptr));
  }
}

TEST_F(RegistrarTest, FaultsAreReportedWithTheirLineAndWriteNothing) {
  ASSERT_TRUE(registrar_.AddReplacement(u"MODULE", u"m"));
  const struct {
    const char16_t* script;
    const char* error;
  } cases[] = {
      {u"HKCR\n{\n}\nHKXX\n{\n}", "line 4: 'HKXX' is no root key (HKCR, HKCU or HKLM)"},
      {u"HKCR\nA", "line 2: '{' is expected after HKCR"},
      {u"HKCR\n{\n\tA\n\t{\n", "line 5: the script ends inside the block opened on line 4"},
      {u"HKCR { }\n}", "line 2: '}' closes no block"},
      {u"HKCR {\n A = x 'y' }", "line 2: 'x' is no value type (s, d or b)"},
      {u"HKCR {\n A = s }", "line 2: the value of A has no data"},
      {u"HKCR { A {\n val N = d 12a } }", "line 2: '12a' is no DWORD"},
      {u"HKCR { A {\n val N = d 0x100000000 } }", "line 2: '0x100000000' is no DWORD"},
      {u"HKCR { A {\n val N = b 'ABC' } }",
       "line 2: 'ABC' is no byte string (pairs of hex digits)"},
      {u"HKCR { A {\n val N s 'x' } }", "line 2: '=' is expected after the value name N"},
      {u"HKCR {\n val N = s 'x' }", "line 2: a root key has no values"},
      {u"HKCR {\n\n '%MODULES%' }", "line 3: nothing to replace %MODULES% with"},
      {u"HKCR { A = s\n '50%' }", "line 2: '%' without its closing '%' in '50%'"},
      {u"HKCR { A = s 'open\n}", "line 1: a quoted name has no closing quote"},
      {u"HKCR { 'A'B }", "line 1: a closing quote must be followed by white space"},
      {u"HKCR { A\\B }", "line 1: the key name 'A\\B' holds a backslash"},
      {u"HKCR { '' }", "line 1: a key name is empty"},
      {u"HKCR { = }", "line 1: a key name is expected, not '='"},
      {u"HKCR { NoRemove }", "line 1: a key name is expected after NoRemove"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(Narrow(c.script));
    // The keys before the fault are not written either: the script is read whole first.
    EXPECT_EQ(kRegistrarScriptError, Register(std::u16string(u"HKLM { Before } ") + c.script));
    EXPECT_EQ(Error(), c.error);
    EXPECT_EQ(Hive(), "");
  }
}

TEST_F(RegistrarTest, PerUserRewriteMovesOnlyTheClassesRoot) {
  WideString rewritten;
  ASSERT_TRUE(RewriteForPerUser(u"HKCR\n{\n\tA\n}\nHKLM\n{\n\tB\n}\nhkey_classes_root { 'HKCR' }",
                                rewritten));
  EXPECT_EQ(
      Narrow(rewritten.view()),
      "HKCU\r\n{\tSoftware\r\n\t{\r\n\t\tClasses\n{\n\tA\n}\r\n\t}\r\n}\r\n\nHKLM\n{\n\tB\n}\n"
      "HKCU\r\n{\tSoftware\r\n\t{\r\n\t\tClasses { 'HKCR' }\r\n\t}\r\n}\r\n");

  registrar_.SetPerUser(true);
  ASSERT_EQ(S_OK, Register(u"HKCR { A = s 'a' }\nHKLM { B }")) << Error();
  EXPECT_EQ(Hive(),
            "HKCU\\Software\nHKCU\\Software\\Classes\nHKCU\\Software\\Classes\\A @=a\n"
            "HKLM\\B\n");
  // A failure names the line of the script as written, not of its rewritten form.
  const std::u16string tooLong(300, u'x');
  EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_INVALID_PARAMETER),
            Register(u"HKCR\n{\n\tC\n\t{\n\t\t" + tooLong + u"\n\t}\n}\n"));
  EXPECT_EQ(Error(),
            "line 5: cannot create HKCU\\Software\\Classes\\C\\" + Narrow(tooLong) + " (error 87)");
}

TEST_F(RegistrarTest, UnregisteringSparesWhatOthersKeepAndForceRemoveTakesTheTree) {
  constexpr char16_t kScript[] =
      u"HKCR {\n"
      u" NoRemove CLSID { ForceRemove {C} = s 'Class' { Programmable } }\n"
      u" Shared = s 'ours' { val Mine = s 'x' Sub }\n"
      u" Gone { val V = d 1 }\n"
      u" Delete Old\n"
      u"}\n";
  Others(u"HKCR { Old { Deep } CLSID { {C} { Stale } } }");
  ASSERT_EQ(S_OK, Register(kScript)) << Error();
  // ForceRemove cleared the class's key before writing it; Delete took Old away.
  EXPECT_EQ(Hive(),
            "HKCR\\CLSID\nHKCR\\CLSID\\{C} @=Class\nHKCR\\CLSID\\{C}\\Programmable\n"
            "HKCR\\Gone V=#1\nHKCR\\Shared @=ours Mine=x\nHKCR\\Shared\\Sub\n");

  Others(u"HKCR { Shared { val Theirs = s 'theirs' } CLSID { {C} { Added } } }");
  ASSERT_EQ(S_OK, Unregister(kScript)) << Error();
  EXPECT_EQ(Hive(), "HKCR\\CLSID\nHKCR\\Shared Theirs=theirs\n");
  // Unregistering what is not there is no failure.
  EXPECT_EQ(S_OK, Unregister(kScript)) << Error();
}

TEST_F(RegistrarTest, AFailingRegistrationTakesBackEverythingItWrote) {
  Others(u"HKLM { Software { val Kept = s '1' } }");
  ASSERT_EQ(S_OK, Register(u"HKCR { First { val A = s 'a' } }")) << Error();
  const std::u16string tooLong(256, u'k');
  const std::u16string script =
      u"HKLM\n{\n\tSoftware\n\t{\n\t\tval Added = s 'x'\n\t\tNew\n"
      u"\t\tNoRemove Vendor { Product }\n\t}\n}\nHKCU\n{\n\t" +
      tooLong + u"\n}\n";
  EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_INVALID_PARAMETER), Register(script));
  EXPECT_EQ(Error(), "line 12: cannot create HKCU\\" + Narrow(tooLong) + " (error 87)");
  // The keys it made are gone, NoRemove ones too, and so is the earlier script's key; the value
  // that was there stays.
  EXPECT_EQ(Hive(), "HKLM\\Software Kept=1\n");

  // What a failure left to the caller is taken back on request.
  ASSERT_EQ(S_OK, Register(u"HKCU { Later }"));
  registrar_.TakeBack();
  EXPECT_EQ(Hive(), "HKLM\\Software Kept=1\n");
}

}  // namespace
}  // namespace mrwl
