#include "conversion/vml_markers.h"

#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "testing/temp_folder.h"

namespace mrwl {
namespace {

// `ascii` in `width` bytes a character, behind the byte order mark `bom`.
std::string Encode(std::string_view bom, std::string_view ascii, int width = 1,
                   bool bigEndian = false) {
  std::string out(bom);
  for (char c : ascii) {
    std::string unit(width, '\0');
    unit[bigEndian ? width - 1 : 0] = c;
    out += unit;
  }
  return out;
}

class VmlMarkerFile : public ::testing::Test {
 protected:
  void Write(std::string_view bytes) { folder_.Write("page.html", bytes); }
  HRESULT Strip(std::size_t hint = 0) { return StripVmlMarkers(path_.c_str(), hint); }
  std::string Read() const { return folder_.Read("page.html"); }

  testing::TempFolder folder_;
  std::u16string path_ = folder_.WidePathOf("page.html");
};

TEST_F(VmlMarkerFile, BlanksMarkersInTheFilesOwnEncoding) {
  const std::string kFFFE = "\xFF\xFE", kFEFF = "\xFE\xFF";
  const std::string kUtf32Le("\xFF\xFE\0\0", 4), kUtf32Be("\0\0\xFE\xFF", 4);
  const std::string blank12(12, ' '), blank10(10, ' ');
  std::string large, largeBlanked;  // blanked whole, whatever the size hint says
  for (int i = 0; i < 20000; ++i) {
    large += "<![if !vml]><td>cell</td><![endif]>\r\n";
    largeBlanked += blank12 + "<td>cell</td>" + blank10 + "\r\n";
  }
  struct Case {
    const char* name;
    std::string input;
    std::string expected;
    std::size_t hint = 0;
  } cases[] = {
      {"no markers", "<p>plain</p>\n", "<p>plain</p>\n"},
      {"first two around text", "<![if !vml]>hello<![endif]>", blank12 + "hello" + blank10},
      {"namespace attribute", "<html xmlns:v=\"urn:schemas-microsoft-com:vml\">",
       "<html " + std::string(39, ' ') + ">"},
      {"every occurrence", "<![endif]>a<![endif]>", blank10 + "a" + blank10},
      {"doubled first character hides", "<<![if !vml]>x<<![endif]>", "<<![if !vml]>x<<![endif]>"},
      {"broken partial match restarts", "<![en <![endif]>", "<![en " + blank10},
      {"utf-8 mark", "\xEF\xBB\xBF<![endif]>", "\xEF\xBB\xBF" + blank10},
      {"utf-16le", Encode(kFFFE, "a<![if !vml]>", 2), Encode(kFFFE, "a" + blank12, 2)},
      {"8-bit marker in utf-16le stays", kFFFE + "<![endif]>", kFFFE + "<![endif]>"},
      {"utf-16le doubled", Encode(kFFFE, "<<![endif]>", 2), Encode(kFFFE, "<<![endif]>", 2)},
      {"utf-16be", Encode(kFEFF, "<![endif]>b", 2, true), Encode(kFEFF, blank10 + "b", 2, true)},
      {"utf-32le", Encode(kUtf32Le, "<![endif]>", 4), Encode(kUtf32Le, blank10, 4)},
      {"utf-32be", Encode(kUtf32Be, "<![endif]>", 4, true), Encode(kUtf32Be, blank10, 4, true)},
      {"large file, small hint", large, largeBlanked, 16},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Write(c.input);
    EXPECT_EQ(S_OK, Strip(c.hint));
    EXPECT_EQ(c.expected, Read());
  }
}

TEST_F(VmlMarkerFile, FailuresGiveTheirCodes) {
  EXPECT_EQ(E_INVALIDARG, StripVmlMarkers(nullptr, 0));
  EXPECT_EQ(E_INVALIDARG, StripVmlMarkers(u"", 0));
  EXPECT_EQ(E_FAIL, Strip()) << "missing file";
  Write("");
  EXPECT_EQ(E_FAIL, Strip()) << "empty file";
  EXPECT_TRUE(folder_.Exists("page.html"));
}

TEST_F(VmlMarkerFile, ReadOnlyFileGivesTheOpenErrorAndStaysAsItWas) {
  Write("<![endif]>");
  std::filesystem::permissions(folder_.path() / "page.html", std::filesystem::perms::owner_read);
  if (std::ofstream(folder_.path() / "page.html", std::ios::app)) {
    GTEST_SKIP() << "this user may write read-only files";
  }
  EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED), Strip());
  EXPECT_EQ("<![endif]>", Read());
}

}  // namespace
}  // namespace mrwl
