#include "host/settings_command.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

#include <CLI/CLI.hpp>

#include "foundation/wide_string.h"
#include "host/addin_session.h"
#include "host/host_outlook.h"
#include "host/reg_command.h"
#include "platform/com_object.h"
#include "platform/dialog.h"
#include "platform/registry.h"
#include "settings/addin_settings.h"
#include "settings/dialog_templates.h"
#include "settings/headless_dialog.h"
#include "settings/options_dialog.h"

namespace mrwl {
namespace {

constexpr const char* kCompleted = "The operation completed successfully.";

// Geometry goes to the registry as a REG_DWORD of thousandths of a point.
constexpr double kLargestGeometry = 4294967.295;

using FieldRef = std::variant<bool*, std::uint32_t*, double*, WideString*>;
using FieldValue = std::variant<bool, std::uint32_t, double, WideString>;

constexpr std::string_view kCompressionLabels[] = {"Low", "Medium", "High"};
constexpr std::string_view kUnitLabels[] = {"points", "inches", "mm"};
constexpr std::string_view kSecTypeLabels[] = {"40-bit RC4", "128-bit RC4", "128-bit AES",
                                               "256-bit AES (Acrobat 9)",
                                               "256-bit AES (Acrobat X)"};

// One field of the record as the command line sees it. Numbers outside [minimum, maximum] are
// refused: those with a range are combo indexes, and no other index can come from the dialog.
struct Field {
  std::string_view name;
  FieldRef (*locate)(AddinSettings&);
  bool stored = true;
  bool secret = false;
  std::uint32_t minimum = 0;
  std::uint32_t maximum = 0xFFFFFFFFu;
  std::span<const std::string_view> labels = {};
};

constexpr std::uint32_t kPdf13 = 0x10003;
constexpr std::uint32_t kPdf17 = 0x10007;

// AddinSettings in declaration order, then its security and run-application records.
const Field kFields[] = {
    {"RunPDFApp", [](AddinSettings& s) -> FieldRef { return &s.RunPDFApp; }},
    {"GenerateLinks", [](AddinSettings& s) -> FieldRef { return &s.GenerateLinks; }},
    {"PDFSpecification", [](AddinSettings& s) -> FieldRef { return &s.PDFSpecification; }, true,
     false, kPdf13, kPdf17},
    {"CompressionLevel", [](AddinSettings& s) -> FieldRef { return &s.CompressionLevel; }, true,
     false, 0, 2, kCompressionLabels},
    {"LandscapeOrienatation",
     [](AddinSettings& s) -> FieldRef { return &s.LandscapeOrienatation; }},
    {"UseWebPageCopy", [](AddinSettings& s) -> FieldRef { return &s.UseWebPageCopy; }},
    {"ConvertAttachments", [](AddinSettings& s) -> FieldRef { return &s.ConvertAttachments; }},
    {"HiOption", [](AddinSettings& s) -> FieldRef { return &s.HiOption; }, false},
    {"UseWebPageBackgroundColor",
     [](AddinSettings& s) -> FieldRef { return &s.UseWebPageBackgroundColor; }},
    {"PaperSize", [](AddinSettings& s) -> FieldRef { return &s.PaperSize; }, true, false, 0,
     static_cast<std::uint32_t>(PaperSizeTable.size() - 1)},
    {"WebPageTargetWidth", [](AddinSettings& s) -> FieldRef { return &s.WebPageTargetWidth; }, true,
     false, 0, 5000},
    {"WebPageTargetHeight", [](AddinSettings& s) -> FieldRef { return &s.WebPageTargetHeight; },
     false},
    {"Units", [](AddinSettings& s) -> FieldRef { return &s.Units; }, true, false, 0, 2,
     kUnitLabels},
    {"LoadDelay", [](AddinSettings& s) -> FieldRef { return &s.LoadDelay; }},
    {"PageWidth", [](AddinSettings& s) -> FieldRef { return &s.PageWidth; }},
    {"PageHeight", [](AddinSettings& s) -> FieldRef { return &s.PageHeight; }},
    {"MarginTop", [](AddinSettings& s) -> FieldRef { return &s.MarginTop; }},
    {"MarginBottom", [](AddinSettings& s) -> FieldRef { return &s.MarginBottom; }},
    {"MarginLeft", [](AddinSettings& s) -> FieldRef { return &s.MarginLeft; }},
    {"MarginRight", [](AddinSettings& s) -> FieldRef { return &s.MarginRight; }},
    {"HandoffMappingName", [](AddinSettings& s) -> FieldRef { return &s.HandoffMappingName; },
     false},
    {"HandoffFilePath", [](AddinSettings& s) -> FieldRef { return &s.HandoffFilePath; }, false},
    {"CeOption", [](AddinSettings& s) -> FieldRef { return &s.CeOption; }, false},
    {"SettingsKeyPath", [](AddinSettings& s) -> FieldRef { return &s.SettingsKeyPath; }, false},
    {"secEnabled", [](AddinSettings& s) -> FieldRef { return &s.Security->secEnabled; }},
    {"secHasUserPassword",
     [](AddinSettings& s) -> FieldRef { return &s.Security->secHasUserPassword; }},
    {"secHasOwnerPassword",
     [](AddinSettings& s) -> FieldRef { return &s.Security->secHasOwnerPassword; }},
    {"secUserPassword", [](AddinSettings& s) -> FieldRef { return &s.Security->secUserPassword; },
     true, true},
    {"secOwnerPassword", [](AddinSettings& s) -> FieldRef { return &s.Security->secOwnerPassword; },
     true, true},
    {"secType", [](AddinSettings& s) -> FieldRef { return &s.Security->secType; }, true, false, 0,
     4, kSecTypeLabels},
    {"sec40AllowPrinting",
     [](AddinSettings& s) -> FieldRef { return &s.Security->sec40AllowPrinting; }},
    {"sec40AllowChanging",
     [](AddinSettings& s) -> FieldRef { return &s.Security->sec40AllowChanging; }},
    {"sec40AllowCopying",
     [](AddinSettings& s) -> FieldRef { return &s.Security->sec40AllowCopying; }},
    {"sec40AllowComments",
     [](AddinSettings& s) -> FieldRef { return &s.Security->sec40AllowComments; }},
    {"sec128ContentAccess",
     [](AddinSettings& s) -> FieldRef { return &s.Security->sec128ContentAccess; }},
    {"sec128AllowCopying",
     [](AddinSettings& s) -> FieldRef { return &s.Security->sec128AllowCopying; }},
    {"sec128Changes", [](AddinSettings& s) -> FieldRef { return &s.Security->sec128Changes; }, true,
     false, 0, 4},
    {"sec128Printing", [](AddinSettings& s) -> FieldRef { return &s.Security->sec128Printing; },
     true, false, 0, 2},
    {"sec128EncryptMeta",
     [](AddinSettings& s) -> FieldRef { return &s.Security->sec128EncryptMeta; }},
    {"RunCustPDFApp", [](AddinSettings& s) -> FieldRef { return &s.RunApp->RunCustPDFApp; }},
    {"RunPDFPath", [](AddinSettings& s) -> FieldRef { return &s.RunApp->RunPDFPath; }},
    {"RunPDFParams", [](AddinSettings& s) -> FieldRef { return &s.RunApp->RunPDFParams; }},
};

const Field* FindField(std::string_view name) {
  for (const Field& field : kFields) {
    if (EqualsAsciiNoCase(field.name, name)) return &field;
  }
  return nullptr;
}

void PrintLine(std::FILE* stream, std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), stream);
  std::fputc('\n', stream);
}

// Three decimals at most, and none that are only noise: 595.3, not 595.299999.
std::string DoubleText(double value) {
  char text[64];
  std::snprintf(text, sizeof text, "%.3f", value);
  std::string out(text);
  if (out.find('.') != std::string::npos) {
    while (out.back() == '0') out.pop_back();
    if (out.back() == '.') out.pop_back();
  }
  return out == "-0" ? "0" : out;
}

std::string ValueText(const Field& field, AddinSettings& settings) {
  struct Show {
    const Field& field;
    std::string operator()(bool* value) const { return *value ? "true" : "false"; }
    std::string operator()(std::uint32_t* value) const {
      std::string text = std::to_string(*value);
      if (field.name == "PDFSpecification" && *value >= 0x10000 && *value <= kPdf17) {
        text += " (PDF 1." + std::to_string(*value - 0x10000) + ")";
      } else if (*value >= field.minimum && *value - field.minimum < field.labels.size()) {
        text += " (" + std::string(field.labels[*value - field.minimum]) + ")";
      }
      return text;
    }
    std::string operator()(double* value) const { return DoubleText(*value); }
    std::string operator()(WideString* value) const {
      // A string read from the registry keeps the terminator it was stored with; it is no part
      // of what a person set.
      std::u16string_view text = value->view();
      text = text.substr(0, text.find(u'\0'));
      if (field.secret) return text.empty() ? "\"\"" : "\"********\"";
      return "\"" + WideToUtf8(text) + "\"";
    }
  };
  return std::visit(Show{field}, field.locate(settings));
}

// The value `text` for `field`, or the reason it is refused.
// `shape` only tells the field's type.
std::optional<FieldValue> ParseValue(const Field& field, std::string_view text,
                                     AddinSettings& shape, std::string& why) {
  struct Parse {
    const Field& field;
    std::string_view text;
    std::string& why;
    std::optional<FieldValue> operator()(bool*) const {
      for (std::string_view yes : {"true", "1", "yes"}) {
        if (EqualsAsciiNoCase(text, yes)) return FieldValue(true);
      }
      for (std::string_view no : {"false", "0", "no"}) {
        if (EqualsAsciiNoCase(text, no)) return FieldValue(false);
      }
      why = "expected true, false, yes, no, 1 or 0";
      return std::nullopt;
    }
    std::optional<FieldValue> operator()(std::uint32_t*) const {
      if (field.name == "PDFSpecification" && text.size() == 3 && text[0] == '1' &&
          text[1] == '.' && text[2] >= '3' && text[2] <= '7') {
        return FieldValue(static_cast<std::uint32_t>(0x10000 + (text[2] - '0')));
      }
      const std::optional<std::uint64_t> value = ParseUnsigned(text, ~std::uint64_t{0});
      if (!value || *value < field.minimum || *value > field.maximum) {
        if (field.name == "PDFSpecification") {
          why = "expected 1.3 to 1.7, or 65539 (0x10003) to 65543 (0x10007)";
        } else {
          why = "expected a whole number from " + std::to_string(field.minimum) + " to " +
                std::to_string(field.maximum) + " (decimal or 0x hexadecimal)";
        }
        return std::nullopt;
      }
      return FieldValue(static_cast<std::uint32_t>(*value));
    }
    std::optional<FieldValue> operator()(double*) const {
      double value = 0;
      const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
      if (text.empty() || error != std::errc() || end != text.data() + text.size() ||
          !std::isfinite(value) || value < 0 || value > kLargestGeometry) {
        why = "expected a number of points from 0 to " + DoubleText(kLargestGeometry);
        return std::nullopt;
      }
      return FieldValue(value);
    }
    std::optional<FieldValue> operator()(WideString*) const { return FieldValue(Utf8ToWide(text)); }
  };
  return std::visit(Parse{field, text, why}, field.locate(shape));
}

void Apply(const Field& field, AddinSettings& settings, const FieldValue& value) {
  std::visit(
      [&value](auto* target) { *target = std::get<std::remove_cvref_t<decltype(*target)>>(value); },
      field.locate(settings));
}

// Fails, having said why, when the hive cannot be read: the settings would otherwise come out as
// defaults, and a save could go over a hive that needs a person's attention.
bool ProbeHive() {
  UniqueRegKey key;
  const LSTATUS rc =
      platform::RegOpenKeyExW(HKEY_CURRENT_USER, u"Software", 0, KEY_READ, key.put());
  const std::u16string problem = platform::RegHiveProblem();
  if ((rc == ERROR_SUCCESS || rc == ERROR_FILE_NOT_FOUND) && problem.empty()) return true;
  if (rc != ERROR_SUCCESS && rc != ERROR_FILE_NOT_FOUND) {
    ReportRegistryError(rc);
  } else {
    PrintLine(stderr, "ERROR: " + WideToUtf8(problem));
  }
  return false;
}

// SaveSettings reports nothing, so the key is created first: a hive that cannot take it is
// reported before anything is written.
bool CreateSettingsKey(const AddinSettings& settings) {
  UniqueRegKey key;
  const LSTATUS rc = platform::RegCreateKeyExW(HKEY_CURRENT_USER, settings.SettingsKeyPath.c_str(),
                                               0, nullptr, REG_OPTION_NON_VOLATILE,
                                               KEY_READ | KEY_WRITE, nullptr, key.put(), nullptr);
  if (rc != ERROR_SUCCESS) {
    ReportRegistryError(rc);
    return false;
  }
  return true;
}

// Any fault the hive met while the record was written.
bool ReportSaveProblem() {
  const std::u16string problem = platform::RegHiveProblem();
  if (problem.empty()) return true;
  PrintLine(stderr, "ERROR: The settings could not be saved completely.");
  PrintLine(stderr, WideToUtf8(problem));
  return false;
}

bool Save(AddinSettings& settings) {
  if (!CreateSettingsKey(settings)) return false;
  settings.SaveSettings();
  return ReportSaveProblem();
}

// Where a field lives in the options dialog: the template of the dialog that holds its control,
// the control, and for a pair of radio buttons the one that stands for false.
struct DialogPlace {
  std::string_view field;
  int dialog;
  int control;
  int falseControl = 0;
};

const DialogPlace kDialogPlaces[] = {
    {"PaperSize", kPdfPageDialog, kIdPaperSize},
    {"PageWidth", kPdfPageDialog, kIdPageWidth},
    {"PageHeight", kPdfPageDialog, kIdPageHeight},
    {"MarginTop", kPdfPageDialog, kIdMarginTop},
    {"MarginBottom", kPdfPageDialog, kIdMarginBottom},
    {"MarginLeft", kPdfPageDialog, kIdMarginLeft},
    {"MarginRight", kPdfPageDialog, kIdMarginRight},
    {"Units", kPdfPageDialog, kIdUnits},
    {"LandscapeOrienatation", kPdfPageDialog, kIdLandscape, kIdPortrait},
    {"secEnabled", kSecurityPageDialog, kIdUseSecurity},
    {"secHasUserPassword", kSecurityPageDialog, kIdHasUserPassword},
    {"secHasOwnerPassword", kSecurityPageDialog, kIdHasOwnerPassword},
    {"secUserPassword", kSecurityPageDialog, kIdUserPassword},
    {"secOwnerPassword", kSecurityPageDialog, kIdOwnerPassword},
    {"secType", kSecurityPageDialog, kIdEncryptionLevel},
    {"sec40AllowPrinting", kPermissions40Dialog, kIdAllowPrinting40},
    {"sec40AllowChanging", kPermissions40Dialog, kIdAllowChanging40},
    {"sec40AllowCopying", kPermissions40Dialog, kIdAllowCopying40},
    {"sec40AllowComments", kPermissions40Dialog, kIdAllowComments40},
    {"sec128ContentAccess", kPermissions128Dialog, kIdContentAccess},
    {"sec128AllowCopying", kPermissions128Dialog, kIdAllowCopying128},
    {"sec128Changes", kPermissions128Dialog, kIdChangesAllowed},
    {"sec128Printing", kPermissions128Dialog, kIdPrinting},
    {"sec128EncryptMeta", kPermissions128Dialog, kIdEncryptMetadata},
    {"ConvertAttachments", kAdvancedPageDialog, kIdConvertAttachments},
    {"RunPDFApp", kAdvancedSubPageDialog, kIdRunApplication},
    {"RunCustPDFApp", kAdvancedSubPageDialog, kIdCustomApplication, kIdDefaultApplication},
    {"RunPDFPath", kAdvancedSubPageDialog, kIdApplicationPath},
    {"RunPDFParams", kAdvancedSubPageDialog, kIdApplicationParameters},
    {"WebPageTargetWidth", kAdvancedSubPageDialog, kIdTargetWidth},
    {"PDFSpecification", kAdvancedSubPageDialog, kIdPdfVersion},
    {"CompressionLevel", kAdvancedSubPageDialog, kIdCompression},
};

const DialogPlace* FindDialogPlace(const Field& field) {
  for (const DialogPlace& place : kDialogPlaces) {
    if (place.field == field.name) return &place;
  }
  return nullptr;
}

// A change made as a person makes it in the dialog: the tab that holds the control comes to the
// front and the control is clicked where it takes a click, so that the page's rules run. Where the
// page has disabled the control, or shows another permission panel, its state is set all the
// same, as the page keeps and saves the values of such controls.
class DialogEditor {
 public:
  explicit DialogEditor(HeadlessDialog& frame) : frame_(frame) {}

  HeadlessDialog& Page(int dialog) { return *frame_.FindChild(dialog); }

  void Check(int dialog, int id, bool checked) {
    HeadlessDialog& page = Front(dialog);
    if (page.IsChecked(id) == checked) return;
    if (Usable(page, id)) {
      page.Click(id);
    } else {
      page.SetChecked(id, checked);
    }
  }

  void Radio(int dialog, int on, int off) {
    HeadlessDialog& page = Front(dialog);
    if (Usable(page, on)) {
      page.Click(on);
    } else {
      page.SetChecked(on, true);
      page.SetChecked(off, false);
    }
  }

  void Choose(int dialog, int id, int row) {
    HeadlessDialog& page = Front(dialog);
    if (Usable(page, id)) {
      page.Choose(id, row);
    } else {
      page.Select(id, row);
    }
  }

  void Type(int dialog, int id, std::u16string_view text) {
    HeadlessDialog& page = Front(dialog);
    if (Usable(page, id)) {
      page.Type(id, text);
    } else {
      page.SetText(id, text);
    }
  }

 private:
  // Brings the tab that shows `dialog` to the front; tabs are ordered as the frame inserts them.
  HeadlessDialog& Front(int dialog) {
    int tab = 2;
    if (dialog == kPdfPageDialog) {
      tab = 0;
    } else if (dialog == kSecurityPageDialog || dialog == kPermissions40Dialog ||
               dialog == kPermissions128Dialog) {
      tab = 1;
    }
    if (frame_.SelectedTab(kIdTabs) != tab) frame_.ChooseTab(kIdTabs, tab);
    return Page(dialog);
  }

  static bool Usable(const HeadlessDialog& page, int id) {
    return page.IsWindowVisible() && page.IsEnabled(id);
  }

  HeadlessDialog& frame_;
};

// The row of `value` in the list that carries it.
int RowOf(const Field& field, std::uint32_t value) {
  if (field.name == "PDFSpecification") {
    for (std::size_t row = 0; row < PdfVersionTable.size(); ++row) {
      if (PdfVersionTable[row].code == value) return static_cast<int>(row);
    }
    return -1;
  }
  return static_cast<int>(value);
}

// Makes `changes` in the options dialog over `settings` and leaves it with OK, so that the pages'
// rules and the security page's validation apply as they do on a screen. Fields that no page
// shows go into the record directly. False, with nothing saved, when the dialog refuses OK or a
// change cannot be made in it; the dialog's own message has then been shown.
template <typename Change>
bool SaveThroughDialog(AddinSettings& settings, const std::vector<Change>& changes) {
  OptionsDialog dialog;
  dialog.SetRecord(&settings);
  HeadlessDialog frame(*FindDialogTemplate(kOptionsFrameDialog), dialog);
  frame.SetMessageEcho(true);
  frame.Open();
  DialogEditor editor(frame);

  // The paper first, as a person picks it before typing a size; lengths are typed in points and
  // the unit asked for (or the one shown) is chosen last, which carries them across exactly.
  HeadlessDialog& pdfPage = editor.Page(kPdfPageDialog);
  int unitRow = std::max(0, pdfPage.Selection(kIdUnits));
  const auto ordered = [&changes](bool paper) {
    std::vector<const Change*> out;
    for (const Change& change : changes) {
      if ((change.field->name == "PaperSize") == paper) out.push_back(&change);
    }
    return out;
  };
  std::vector<const Change*> sequence = ordered(true);
  for (const Change* change : ordered(false)) sequence.push_back(change);
  editor.Choose(kPdfPageDialog, kIdUnits, 0);

  for (const Change* change : sequence) {
    const Field& field = *change->field;
    const DialogPlace* place = FindDialogPlace(field);
    if (place == nullptr) {
      Apply(field, settings, change->value);
      continue;
    }
    if (field.name == "Units") {
      unitRow = static_cast<int>(std::get<std::uint32_t>(change->value));
      continue;
    }
    const auto* flag = std::get_if<bool>(&change->value);
    const auto* number = std::get_if<std::uint32_t>(&change->value);
    const auto* length = std::get_if<double>(&change->value);
    const auto* text = std::get_if<WideString>(&change->value);
    if (flag != nullptr && place->falseControl != 0) {
      editor.Radio(place->dialog, *flag ? place->control : place->falseControl,
                   *flag ? place->falseControl : place->control);
    } else if (flag != nullptr) {
      editor.Check(place->dialog, place->control, *flag);
    } else if (number != nullptr && place->control == kIdTargetWidth) {
      editor.Type(place->dialog, place->control, Utf8ToWide(std::to_string(*number)));
    } else if (number != nullptr) {
      editor.Choose(place->dialog, place->control, RowOf(field, *number));
    } else if (length != nullptr) {
      if (!pdfPage.IsEnabled(place->control)) {
        PrintLine(stderr, "ERROR: " + std::string(field.name) +
                              " follows the paper size; give PaperSize=0 (Custom) to set it.");
        return false;
      }
      editor.Type(place->dialog, place->control, Utf8ToWide(DoubleText(*length)));
    } else if (text != nullptr) {
      editor.Type(place->dialog, place->control, text->view());
    }
  }
  editor.Choose(kPdfPageDialog, kIdUnits, unitRow);

  if (!CreateSettingsKey(settings)) return false;
  frame.Click(kIdOk);
  if (!frame.Ended()) {
    PrintLine(stderr, "ERROR: The settings were not saved.");
    return false;
  }
  return ReportSaveProblem();
}

// `mrwl settings` alone: the add-in's "Settings" command, as Outlook runs it from the ribbon.
int RunDialog() {
  if (!platform::CanShowDialogs()) {
    PrintLine(stderr,
              "There is no display to show the options dialog on. Use `mrwl settings show` to see "
              "the settings and `mrwl settings set NAME=VALUE ...` to change them.");
    return 1;
  }
  if (!ProbeHive()) return 1;
  auto application = MakeComObject<host::HostApplication>(std::u16string());
  host::AddinSession session;
  std::string error;
  (void)application->OpenExplorer(u"Inbox", {});
  const bool clicked =
      session.Load(host::AddinModulePath(), &error) && session.Connect(application.get(), &error) &&
      session.LoadRibbon(host::kExplorerRibbonId, &error) && session.Click(u"Settings", &error);
  if (!clicked) PrintLine(stderr, "ERROR: " + error);
  application->CloseWindows();
  session.Disconnect();
  return clicked ? 0 : 1;
}

int RunShow() {
  if (!ProbeHive()) return 1;
  AddinSettings settings;
  settings.LoadSettings();
  const std::u16string hive = platform::RegHiveLocation();
  std::string out =
      "Hive:  " + (hive.empty() ? std::string("(the system registry)") : WideToUtf8(hive)) +
      "\nKey:   HKEY_CURRENT_USER\\" + WideToUtf8(settings.SettingsKeyPath.view()) + "\n\n";
  std::size_t width = 0;
  for (const Field& field : kFields) width = std::max(width, field.name.size());
  width += 2;
  const auto row = [&out, width](std::string_view name, const std::string& value) {
    out += name;
    out.append(width - name.size(), ' ');
    out += value + "\n";
  };
  row("Setting", "Value");
  for (const Field& field : kFields) {
    row(field.name, ValueText(field, settings) + (field.stored ? "" : "  (not stored)"));
  }
  std::fwrite(out.data(), 1, out.size(), stdout);
  return 0;
}

int RunSet(const std::vector<std::string>& assignments) {
  struct Change {
    const Field* field;
    FieldValue value;
  };
  // Every assignment is checked before anything is loaded or saved: one bad one saves nothing.
  std::vector<Change> changes;
  bool refused = false;
  AddinSettings scratch;
  for (const std::string& assignment : assignments) {
    const std::size_t equals = assignment.find('=');
    if (equals == std::string::npos) {
      PrintLine(stderr, "ERROR: Expected NAME=VALUE, got '" + assignment + "'.");
      refused = true;
      continue;
    }
    const std::string name = assignment.substr(0, equals);
    const std::string text = assignment.substr(equals + 1);
    const Field* field = FindField(name);
    if (field == nullptr) {
      PrintLine(stderr, "ERROR: Unknown setting '" + name + "'.");
      refused = true;
      continue;
    }
    if (!field->stored) {
      PrintLine(stderr,
                "ERROR: " + std::string(field->name) + " is never stored, so it cannot be set.");
      refused = true;
      continue;
    }
    std::string why;
    std::optional<FieldValue> value = ParseValue(*field, text, scratch, why);
    if (!value) {
      PrintLine(stderr, "ERROR: Invalid value '" + text + "' for " + std::string(field->name) +
                            ": " + why + ".");
      refused = true;
      continue;
    }
    changes.push_back({field, std::move(*value)});
  }
  if (refused) return 1;

  if (!ProbeHive()) return 1;
  AddinSettings settings;
  settings.LoadSettings();
  if (!SaveThroughDialog(settings, changes)) return 1;
  PrintLine(stdout, kCompleted);
  return 0;
}

int RunReset() {
  if (!ProbeHive()) return 1;
  AddinSettings settings;
  settings.ResetSettings();
  if (!Save(settings)) return 1;
  PrintLine(stdout, kCompleted);
  return 0;
}

int RunCommandLine() {
  if (!ProbeHive()) return 1;
  AddinSettings settings;
  settings.LoadSettings();
  WideString line;
  settings.BuildConverterCommandLine(u"", u"", line);
  PrintLine(stdout, WideToUtf8(line.view()));
  return 0;
}

}  // namespace

void AddSettingsCommand(CLI::App& app, int* status) {
  CLI::App* settings =
      app.add_subcommand("settings", "Open the options dialog, or show and change the settings");
  settings->ignore_case()->require_subcommand(0, 1);
  // Alone, it opens the options dialog as the ribbon's "Settings" does.
  settings->callback([settings, status] {
    if (settings->get_subcommands().empty()) *status = RunDialog();
  });

  settings->add_subcommand("show", "Print every field of the settings and where they live")
      ->callback([status] { *status = RunShow(); });

  auto assignments = std::make_shared<std::vector<std::string>>();
  CLI::App* set = settings->add_subcommand("set", "Change fields: NAME=VALUE ...");
  set->add_option("ASSIGNMENT", *assignments,
                  "NAME=VALUE; NAME as `settings show` prints it (any case)")
      ->required();
  set->callback([assignments, status] { *status = RunSet(*assignments); });

  settings->add_subcommand("reset", "Write the defaults")->callback([status] {
    *status = RunReset();
  });
  settings
      ->add_subcommand("command-line", "Print the converter's option string that the settings give")
      ->callback([status] { *status = RunCommandLine(); });
}

}  // namespace mrwl
