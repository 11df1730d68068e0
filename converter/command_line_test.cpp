#include <cstdint>
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

// Starts a stand-in converter with the add-in's own option string, the way the add-in starts the
// real one, and reads back the arguments that arrived.
class ConverterArgumentsTest : public ::testing::Test {
 protected:
  Arguments StartWith(const AddinSettings& settings) {
    WideString line;
    settings.BuildConverterCommandLine(u"", u"", line);
    const std::string record = folder_.PathOf("arguments.txt");
    const std::string program =
        folder_.Write("HtmlToPdfApp", mrwl::testing::RecorderScript(record), true);
    const WideString file = Utf8ToWide(program);
    const auto result = reinterpret_cast<std::uintptr_t>(
        platform::ShellExecuteW(nullptr, nullptr, file.c_str(), line.c_str(), nullptr, SW_SHOW));
    EXPECT_GT(result, 32u);
    Arguments arguments;
    for (const std::string& argument : mrwl::testing::WaitForLines(record)) {
      arguments.emplace_back(Utf8ToWide(argument).view());
    }
    return arguments;
  }

  static ConverterOptions Parse(const Arguments& arguments) {
    ConverterOptions options;
    std::u16string error;
    EXPECT_TRUE(ParseConverterArguments(arguments, options, error)) << WideToUtf8(error);
    return options;
  }

  static std::string Refusal(const Arguments& arguments) {
    ConverterOptions options;
    std::u16string error;
    EXPECT_FALSE(ParseConverterArguments(arguments, options, error));
    return WideToUtf8(error);
  }

  mrwl::testing::TempFolder folder_;
};

TEST_F(ConverterArgumentsTest, DefaultSettingsArriveAsTheirValues) {
  AddinSettings settings(u"Software\\Test\\Unused");
  settings.HandoffFilePath = std::u16string_view(u"/tmp/mrwstg_1a2b.bin");
  const ConverterOptions options = Parse(StartWith(settings));

  EXPECT_EQ(u"", options.inputName);
  EXPECT_EQ(u"", options.outputName);
  EXPECT_FALSE(options.landscape);
  EXPECT_TRUE(options.backgrounds);
  EXPECT_TRUE(options.links);
  EXPECT_TRUE(options.runAfterwards);
  EXPECT_FALSE(options.hiOption);
  EXPECT_EQ(1280u, options.pageWidthPx);
  EXPECT_EQ(800u, options.pageHeightPx);
  EXPECT_EQ(500u, options.loadDelayMs);
  EXPECT_EQ(0x10004u, options.pdfVersion);
  EXPECT_EQ(1u, options.compression);
  EXPECT_EQ(5953u, options.paperWidth);
  EXPECT_EQ(8419u, options.paperHeight);
  EXPECT_EQ(0u, options.marginTop);
  EXPECT_EQ(0u, options.marginRight);
  EXPECT_EQ(u"/tmp/mrwstg_1a2b.bin", options.handoffPath);
  EXPECT_EQ(u"", options.mappingName);
  EXPECT_EQ(u"", options.ceOption);
}

TEST_F(ConverterArgumentsTest, EverySettingAndAPathWithBlanksArriveIntact) {
  AddinSettings settings(u"Software\\Test\\Unused");
  settings.LandscapeOrienatation = true;
  settings.UseWebPageBackgroundColor = false;
  settings.GenerateLinks = false;
  settings.RunPDFApp = false;
  settings.HiOption = true;
  settings.WebPageTargetWidth = 4294967295u;
  settings.LoadDelay = 0;
  settings.PDFSpecification = 0x10007;
  settings.CompressionLevel = 2;
  settings.PageWidth = 612.0;
  settings.PageHeight = 792.05;
  settings.MarginTop = 12.5;
  settings.MarginBottom = 7.25;
  settings.MarginLeft = 36.0;
  settings.MarginRight = 0.09;
  settings.HandoffFilePath = std::u16string_view(u"/tmp/Ann Lee/Mail \u00e9t\u00e9/mrwstg_9.bin");
  settings.CeOption = std::u16string_view(u"some value");
  const ConverterOptions options = Parse(StartWith(settings));

  EXPECT_TRUE(options.landscape);
  EXPECT_FALSE(options.backgrounds);
  EXPECT_FALSE(options.links);
  EXPECT_FALSE(options.runAfterwards);
  EXPECT_TRUE(options.hiOption);
  EXPECT_EQ(4294967295u, options.pageWidthPx);
  EXPECT_EQ(0u, options.loadDelayMs);
  EXPECT_EQ(0x10007u, options.pdfVersion);
  EXPECT_EQ(2u, options.compression);
  EXPECT_EQ(6120u, options.paperWidth);
  EXPECT_EQ(7920u, options.paperHeight);
  EXPECT_EQ(125u, options.marginTop);
  EXPECT_EQ(72u, options.marginBottom);
  EXPECT_EQ(360u, options.marginLeft);
  EXPECT_EQ(0u, options.marginRight);
  EXPECT_EQ(u"/tmp/Ann Lee/Mail \u00e9t\u00e9/mrwstg_9.bin", options.handoffPath);
  EXPECT_EQ(u"some value", options.ceOption);
}

TEST_F(ConverterArgumentsTest, ValuesRunUpToTheNextKnownOption) {
  const ConverterOptions options = Parse(
      {u"in.html", u"out.pdf", u"\\bp", u"/tmp/a", u"b", u"\\x.bin", u"\\r", u"\\ce", u"1", u"2"});
  EXPECT_EQ(u"in.html", options.inputName);
  EXPECT_EQ(u"out.pdf", options.outputName);
  EXPECT_EQ(u"/tmp/a b \\x.bin", options.handoffPath);
  EXPECT_TRUE(options.runAfterwards);
  EXPECT_EQ(u"1 2", options.ceOption);
}

TEST_F(ConverterArgumentsTest, ALineThatStartsWithAnOptionHasNoNames) {
  const ConverterOptions options = Parse({u"\\sm", u"MRW:IEP:HTMLData", u"\\l"});
  EXPECT_EQ(u"", options.inputName);
  EXPECT_EQ(u"MRW:IEP:HTMLData", options.mappingName);
  EXPECT_TRUE(options.landscape);
}

TEST_F(ConverterArgumentsTest, NumbersTakeTheWholeUnsignedRangeOnly) {
  const struct {
    const char16_t* text;
    bool good;
    std::uint32_t value;
  } cases[] = {
      {u"0", true, 0},
      {u"0042", true, 42},
      {u"4294967295", true, 4294967295u},
      {u"4294967296", false, 0},
      {u"99999999999999999999", false, 0},
      {u"-1", false, 0},
      {u"+5", false, 0},
      {u"12x", false, 0},
      {u"1 2", false, 0},
      {u"0x10", false, 0},
      {u"", false, 0},
  };
  for (const auto& c : cases) {
    const std::u16string text = c.text;
    SCOPED_TRACE(WideToUtf8(text));
    const Arguments arguments = {u"", u"", u"\\ld", text, u"\\bp", u"/tmp/h.bin"};
    if (c.good) {
      EXPECT_EQ(c.value, Parse(arguments).loadDelayMs);
    } else {
      EXPECT_EQ("the option \\ld needs an unsigned number below 4294967296, not \"" +
                    WideToUtf8(text) + "\"",
                Refusal(arguments));
    }
  }
}

TEST_F(ConverterArgumentsTest, UnusableLinesAreRefusedWithTheirReason) {
  const struct {
    Arguments arguments;
    const char* message;
  } cases[] = {
      {{u"", u"", u"\\b"},
       "the command line names no hand-off record: neither \\bp nor \\sm is given"},
      {{}, "the command line names no hand-off record: neither \\bp nor \\sm is given"},
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
