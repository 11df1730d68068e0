#include <cstdint>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "converter/handoff_record.h"
#include "foundation/wide_string.h"
#include "platform/shell.h"
#include "platform/win_types.h"
#include "settings/addin_settings.h"
#include "testing/temp_folder.h"

namespace mrwl::converter {
namespace {

using Arguments = std::vector<std::u16string>;

// Every option on one line, so that a whole parse is compared at once.
std::string Describe(const ConverterOptions& o) {
  std::ostringstream out;
  out << "in=" << WideToUtf8(o.inputName) << " out=" << WideToUtf8(o.outputName) << " l"
      << o.landscape << " b" << o.backgrounds << " h" << o.links << " r" << o.runAfterwards << " hi"
      << o.hiOption << " iw" << o.pageWidthPx << " ih" << o.pageHeightPx << " ld" << o.loadDelayMs
      << " is" << std::hex << o.pdfVersion << std::dec << " ic" << o.compression << " paper "
      << o.paperWidth << "x" << o.paperHeight << " margins " << o.marginTop << "," << o.marginBottom
      << "," << o.marginLeft << "," << o.marginRight << " bp=" << WideToUtf8(o.handoffPath)
      << " sm=" << WideToUtf8(o.mappingName) << " ce=" << WideToUtf8(o.ceOption);
  return out.str();
}

ConverterOptions Parse(const Arguments& arguments) {
  ConverterOptions options;
  std::u16string error;
  EXPECT_TRUE(ParseConverterArguments(arguments, options, error)) << WideToUtf8(error);
  return options;
}

std::string Refusal(const Arguments& arguments) {
  ConverterOptions options;
  std::u16string error;
  EXPECT_FALSE(ParseConverterArguments(arguments, options, error));
  return WideToUtf8(error);
}

// The add-in's own option string goes to a stand-in converter the way the add-in starts the real
// one, so the quoting of the shell start is part of what is checked.
TEST(ConverterArguments, SettingsOfTheAddinArriveThroughARealStart) {
  const struct {
    const char* name;
    std::function<void(AddinSettings&)> change;
    const char* expected;
  } cases[] = {
      {"defaults", [](AddinSettings&) {},
       "in= out= l0 b1 h1 r1 hi0 iw1280 ih800 ld500 is10004 ic1 paper 5953x8419 margins 0,0,0,0"
       " bp=/tmp/mrwstg_1a2b.bin sm= ce="},
      {"everything changed, blanks in the path",
       [](AddinSettings& s) {
         s.LandscapeOrienatation = s.HiOption = true;
         s.UseWebPageBackgroundColor = s.GenerateLinks = s.RunPDFApp = false;
         s.WebPageTargetWidth = 4294967295u;
         s.LoadDelay = 0;
         s.PDFSpecification = 0x10007;
         s.CompressionLevel = 2;
         s.PageWidth = 612.0;
         s.PageHeight = 792.05;  // tenths are rounded, not cut
         s.MarginTop = 12.5;
         s.MarginBottom = 7.25;
         s.MarginLeft = 36.0;
         s.MarginRight = 0.09;
         s.HandoffFilePath = std::u16string_view(u"/tmp/Ann Lee/Mail \u00e9t\u00e9/mrwstg_9.bin");
         s.CeOption = std::u16string_view(u"some value");
       },
       "in= out= l1 b0 h0 r0 hi1 iw4294967295 ih800 ld0 is10007 ic2 paper 6120x7920 margins"
       " 125,72,360,0 bp=/tmp/Ann Lee/Mail \xc3\xa9t\xc3\xa9/mrwstg_9.bin sm= ce=some value"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    mrwl::testing::TempFolder folder;
    AddinSettings settings(u"Software\\Test\\Unused");
    settings.HandoffFilePath = std::u16string_view(u"/tmp/mrwstg_1a2b.bin");
    c.change(settings);
    WideString line;
    settings.BuildConverterCommandLine(u"", u"", line);
    const std::string record = folder.PathOf("arguments.txt");
    const WideString program =
        Utf8ToWide(folder.Write("HtmlToPdfApp", mrwl::testing::RecorderScript(record), true));
    EXPECT_GT(reinterpret_cast<std::uintptr_t>(platform::ShellExecuteW(
                  nullptr, nullptr, program.c_str(), line.c_str(), nullptr, SW_SHOW)),
              32u);
    Arguments arguments;
    for (const std::string& argument : mrwl::testing::WaitForLines(record)) {
      arguments.emplace_back(Utf8ToWide(argument).view());
    }
    EXPECT_EQ(c.expected, Describe(Parse(arguments)));
  }
}

TEST(ConverterArguments, ValuesRunUpToTheNextKnownOption) {
  const struct {
    Arguments arguments;
    const char* expected;
  } cases[] = {
      {{u"in.html", u"out.pdf", u"\\bp", u"/tmp/a", u"b", u"\\x.bin", u"\\r", u"\\ce", u"1", u"2"},
       "in=in.html out=out.pdf l0 b0 h0 r1 hi0 iw1280 ih800 ld500 is10004 ic1 paper 5953x8419"
       " margins 0,0,0,0 bp=/tmp/a b \\x.bin sm= ce=1 2"},
      // A line that starts with an option has no names.
      {{u"\\sm", u"MRW:IEP:HTMLData", u"\\l"},
       "in= out= l1 b0 h0 r0 hi0 iw1280 ih800 ld500 is10004 ic1 paper 5953x8419 margins 0,0,0,0"
       " bp= sm=MRW:IEP:HTMLData ce="},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.expected);
    EXPECT_EQ(c.expected, Describe(Parse(c.arguments)));
  }
}

TEST(ConverterArguments, NumbersTakeTheWholeUnsignedRangeOnly) {
  const std::pair<const char16_t*, std::uint32_t> good[] = {
      {u"0", 0}, {u"0042", 42}, {u"4294967295", 4294967295u}};
  for (const auto& [text, value] : good) {
    EXPECT_EQ(value, Parse({u"", u"", u"\\ld", text, u"\\bp", u"/tmp/h.bin"}).loadDelayMs);
  }
  for (const char16_t* text :
       {u"4294967296", u"99999999999999999999", u"-1", u"+5", u"12x", u"1 2", u"0x10", u""}) {
    SCOPED_TRACE(WideToUtf8(text));
    EXPECT_EQ("the option \\ld needs an unsigned number below 4294967296, not \"" +
                  WideToUtf8(text) + "\"",
              Refusal({u"", u"", u"\\ld", text, u"\\bp", u"/tmp/h.bin"}));
  }
}

TEST(ConverterArguments, UnusableLinesAreRefusedWithTheirReason) {
  const char* kNoRecord =
      "the command line names no hand-off record: neither \\bp nor \\sm is given";
  const struct {
    Arguments arguments;
    const char* message;
  } cases[] = {
      {{u"", u"", u"\\b"}, kNoRecord},
      {{}, kNoRecord},
      {{u"", u"", u"\\bp"}, "the option \\bp lacks its value"},
      {{u"", u"", u"\\bp", u"\\h"}, "the option \\bp lacks its value"},
      {{u"", u"", u"\\sm", u""}, "the option \\sm lacks its value"},
      {{u"", u"", u"\\iw"}, "the option \\iw lacks its number"},
      {{u"", u"", u"\\pw", u"\\bp", u"/tmp/h.bin"}, "the option \\pw lacks its number"},
      {{u"", u"", u"\\zz", u"\\bp", u"/tmp/h.bin"},
       "the command line has an unknown option \"\\zz\""},
      {{u"", u"", u"\\L", u"\\bp", u"/tmp/h.bin"},
       "the command line has an unknown option \"\\L\""},
      {{u"", u"", u"extra", u"\\bp", u"/tmp/h.bin"},
       "the command line has an argument that belongs to no option: \"extra\""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message);
    EXPECT_EQ(c.message, Refusal(c.arguments));
  }
}

}  // namespace
}  // namespace mrwl::converter
