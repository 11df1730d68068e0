// The converter's command line as the add-in writes it: two quoted names, then options marked with
// a backslash. The add-in writes the values of \bp, \sm and \ce without quotes, so a path with
// blanks arrives split into several arguments and is put together again here.
#include <cstdint>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "converter/handoff_record.h"

namespace mrwl::converter {
namespace {

enum class OptionKind { kFlag, kNumber, kText };

struct KnownOption {
  std::u16string_view name;
  OptionKind kind;
  bool ConverterOptions::*flag = nullptr;
  std::uint32_t ConverterOptions::*number = nullptr;
  std::u16string ConverterOptions::*text = nullptr;
};

const KnownOption kOptions[] = {
    {u"\\l", OptionKind::kFlag, &ConverterOptions::landscape},
    {u"\\b", OptionKind::kFlag, &ConverterOptions::backgrounds},
    {u"\\h", OptionKind::kFlag, &ConverterOptions::links},
    {u"\\r", OptionKind::kFlag, &ConverterOptions::runAfterwards},
    {u"\\hi", OptionKind::kFlag, &ConverterOptions::hiOption},
    {u"\\iw", OptionKind::kNumber, nullptr, &ConverterOptions::pageWidthPx},
    {u"\\ih", OptionKind::kNumber, nullptr, &ConverterOptions::pageHeightPx},
    {u"\\ld", OptionKind::kNumber, nullptr, &ConverterOptions::loadDelayMs},
    {u"\\is", OptionKind::kNumber, nullptr, &ConverterOptions::pdfVersion},
    {u"\\ic", OptionKind::kNumber, nullptr, &ConverterOptions::compression},
    {u"\\pw", OptionKind::kNumber, nullptr, &ConverterOptions::paperWidth},
    {u"\\ph", OptionKind::kNumber, nullptr, &ConverterOptions::paperHeight},
    {u"\\mt", OptionKind::kNumber, nullptr, &ConverterOptions::marginTop},
    {u"\\mb", OptionKind::kNumber, nullptr, &ConverterOptions::marginBottom},
    {u"\\ml", OptionKind::kNumber, nullptr, &ConverterOptions::marginLeft},
    {u"\\mr", OptionKind::kNumber, nullptr, &ConverterOptions::marginRight},
    {u"\\bp", OptionKind::kText, nullptr, nullptr, &ConverterOptions::handoffPath},
    {u"\\sm", OptionKind::kText, nullptr, nullptr, &ConverterOptions::mappingName},
    {u"\\ce", OptionKind::kText, nullptr, nullptr, &ConverterOptions::ceOption},
};

const KnownOption* FindOption(std::u16string_view argument) noexcept {
  for (const KnownOption& option : kOptions) {
    if (option.name == argument) return &option;
  }
  return nullptr;
}

// An argument that starts with the backslash mark but is no option of ours. A value is never
// taken for one: a path may well start with a backslash on Windows.
bool LooksLikeOption(std::u16string_view argument) noexcept {
  return argument.size() >= 2 && argument.front() == u'\\' && argument[1] != u'\\' &&
         argument.find(u'\\', 1) == std::u16string_view::npos &&
         argument.find_first_of(u"./: ") == std::u16string_view::npos;
}

// Unsigned decimal, 32 bits: digits only, no sign, no blank, no overflow.
bool ParseNumber(std::u16string_view text, std::uint32_t& value) noexcept {
  if (text.empty()) return false;
  std::uint64_t result = 0;
  for (char16_t c : text) {
    if (c < u'0' || c > u'9') return false;
    result = result * 10 + static_cast<std::uint64_t>(c - u'0');
    if (result > UINT32_MAX) return false;
  }
  value = static_cast<std::uint32_t>(result);
  return true;
}

}  // namespace

bool ParseConverterArguments(const std::vector<std::u16string>& arguments,
                             ConverterOptions& options, std::u16string& error) {
  try {
    error.clear();
    std::size_t i = 0;
    // The two leading names stand by position. The add-in always writes them (as ""), but a
    // command line that starts with an option simply has none.
    for (int name = 0; name < 2 && i < arguments.size() && FindOption(arguments[i]) == nullptr;
         ++name, ++i) {
      (name == 0 ? options.inputName : options.outputName) = arguments[i];
    }

    while (i < arguments.size()) {
      const std::u16string& argument = arguments[i++];
      const KnownOption* option = FindOption(argument);
      if (option == nullptr) {
        error = LooksLikeOption(argument)
                    ? u"the command line has an unknown option \"" + argument + u"\""
                    : u"the command line has an argument that belongs to no option: \"" + argument +
                          u"\"";
        return false;
      }
      const std::u16string name(option->name);
      switch (option->kind) {
        case OptionKind::kFlag:
          options.*(option->flag) = true;
          break;
        case OptionKind::kNumber: {
          if (i == arguments.size() || FindOption(arguments[i]) != nullptr) {
            error = u"the option " + name + u" lacks its number";
            return false;
          }
          const std::u16string& text = arguments[i++];
          if (!ParseNumber(text, options.*(option->number))) {
            error = u"the option " + name + u" needs an unsigned number below 4294967296, not \"" +
                    text + u"\"";
            return false;
          }
          break;
        }
        case OptionKind::kText: {
          // Unquoted on the add-in's side: every argument up to the next option is a piece of
          // the value, and the blanks between them were single blanks. Runs of blanks inside a
          // path cannot be told apart from one and come back as one.
          std::u16string value;
          bool first = true;
          while (i < arguments.size() && FindOption(arguments[i]) == nullptr) {
            if (!first) value += u' ';
            value += arguments[i++];
            first = false;
          }
          if (value.empty()) {
            error = u"the option " + name + u" lacks its value";
            return false;
          }
          options.*(option->text) = std::move(value);
          break;
        }
      }
    }

    if (options.handoffPath.empty() && options.mappingName.empty()) {
      error = u"the command line names no hand-off record: neither \\bp nor \\sm is given";
      return false;
    }
    return true;
  } catch (const std::bad_alloc&) {
    error = u"out of memory while reading the command line";
    return false;
  }
}

}  // namespace mrwl::converter
