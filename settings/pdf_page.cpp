#include "settings/pdf_page.h"

#include <cmath>
#include <cstdint>

#include "settings/dialog_templates.h"

namespace mrwl {

// "Ledger" keeps its height of 492 points: the table has always held it so, and stored settings
// that name that row expect exactly these numbers.
const std::array<PaperSize, 18> PaperSizeTable = {{
    {u"Custom", 0, 0},
    {u"Letter", 612, 792},
    {u"Tabloid", 792, 1224},
    {u"Ledger", 1224, 492},
    {u"Legal", 612, 1008},
    {u"Statement", 396, 612},
    {u"Executive", 540, 720},
    {u"A0", 2384, 3371},
    {u"A1", 1685, 2384},
    {u"A2", 1190, 1684},
    {u"A3", 842, 1190},
    {u"A4", 595, 842},
    {u"A5", 420, 595},
    {u"B4", 729, 1032},
    {u"B5", 516, 729},
    {u"Folio", 612, 936},
    {u"Quarto", 610, 780},
    {u"10x14", 720, 1008},
}};

// Values are thousandths of a point; a millimetre here is 2.833 points.
const std::array<UnitRatio, 3> UnitRatioTable = {{
    {u"points", 1, 1000, 1},
    {u"inches", 1, 72000, 3},
    {u"mm", 1000, 2833000, 1},
}};

namespace {

constexpr std::int32_t kPageMinimum = 5;
constexpr std::int32_t kPageMaximum = 10000000;
constexpr std::int32_t kMarginMinimum = 0;
constexpr std::int32_t kMarginMaximum = 1000000;

// Every spin edit starts out at this, until the unit and the record replace it.
constexpr std::int32_t kInitialValue = 10;
constexpr std::int32_t kInitialNumerator = 1;
constexpr std::int32_t kInitialDenominator = 10;
constexpr std::int32_t kInitialDecimals = 1;

// Points to thousandths of a point, truncated; what lies beyond 32 bits saturates, so a
// damaged registry value cannot make the conversion undefined.
std::int32_t ToThousandths(double points) {
  const double thousandths = points * 1000.0;
  if (std::isnan(thousandths)) return 0;
  if (thousandths >= 2147483647.0) return INT32_MAX;
  if (thousandths <= -2147483648.0) return INT32_MIN;
  return static_cast<std::int32_t>(thousandths);
}

double ToPoints(std::int32_t thousandths) { return thousandths == 0 ? 0.0 : thousandths / 1000.0; }

}  // namespace

void PdfPage::OnInit(platform::DialogWindow& window) {
  window_ = &window;
  EnableThemeTexture(window);

  struct SpinSetup {
    SpinEdit& spin;
    int editId;
    int upDownId;
    std::int32_t minimum;
    std::int32_t maximum;
  };
  const SpinSetup setups[] = {
      {width_, kIdPageWidth, kIdPageWidthSpin, kPageMinimum, kPageMaximum},
      {height_, kIdPageHeight, kIdPageHeightSpin, kPageMinimum, kPageMaximum},
      {top_, kIdMarginTop, kIdMarginTopSpin, kMarginMinimum, kMarginMaximum},
      {bottom_, kIdMarginBottom, kIdMarginBottomSpin, kMarginMinimum, kMarginMaximum},
      {left_, kIdMarginLeft, kIdMarginLeftSpin, kMarginMinimum, kMarginMaximum},
      {right_, kIdMarginRight, kIdMarginRightSpin, kMarginMinimum, kMarginMaximum},
  };
  for (const SpinSetup& setup : setups) {
    setup.spin.Attach(window, setup.editId, setup.upDownId);
    setup.spin.Setup(setup.minimum, setup.maximum, kInitialValue, kInitialNumerator,
                     kInitialDenominator, kInitialDecimals);
  }

  window.ClearRows(kIdUnits);
  for (const UnitRatio& unit : UnitRatioTable) window.AddRow(kIdUnits, unit.name);
  window.Select(kIdUnits, 0);
  ApplyUnits();

  window.ClearRows(kIdPaperSize);
  for (const PaperSize& paper : PaperSizeTable) window.AddRow(kIdPaperSize, paper.name);
}

void PdfPage::OnCommand(platform::DialogWindow& window, int id, int code) {
  (void)window;
  if (code != CBN_SELCHANGE) return;
  if (id == kIdUnits) {
    ApplyUnits();
  } else if (id == kIdPaperSize) {
    ApplyPaperSize();
  }
}

bool PdfPage::OnUpDown(platform::DialogWindow& window, int upDownId, int delta) {
  (void)window;
  for (SpinEdit* spin : {&width_, &height_, &top_, &bottom_, &left_, &right_}) {
    if (spin->UpDownId() == upDownId) return spin->OnDeltaPos(delta);
  }
  return false;
}

void PdfPage::Load(AddinSettings& record) {
  record_ = &record;
  if (window_ == nullptr) return;
  width_.SetValue(ToThousandths(record.PageWidth));
  height_.SetValue(ToThousandths(record.PageHeight));
  top_.SetValue(ToThousandths(record.MarginTop));
  bottom_.SetValue(ToThousandths(record.MarginBottom));
  left_.SetValue(ToThousandths(record.MarginLeft));
  right_.SetValue(ToThousandths(record.MarginRight));

  window_->SetChecked(kIdLandscape, record.LandscapeOrienatation);
  window_->SetChecked(kIdPortrait, !record.LandscapeOrienatation);

  // A stored index past the table selects no row (the window ignores it), which leaves the size
  // edits disabled; Save then stores that selection of none.
  window_->Select(kIdPaperSize,
                  record.PaperSize <= INT32_MAX ? static_cast<int>(record.PaperSize) : -1);
  ApplyPaperSize();

  window_->Select(kIdUnits,
                  record.Units < UnitRatioTable.size() ? static_cast<int>(record.Units) : 0);
  ApplyUnits();
}

void PdfPage::Save() {
  if (window_ == nullptr || record_ == nullptr) return;
  for (SpinEdit* spin : {&width_, &height_, &top_, &bottom_, &left_, &right_}) {
    spin->Sync(false);
  }
  record_->PageWidth = ToPoints(width_.value);
  record_->PageHeight = ToPoints(height_.value);
  record_->MarginTop = ToPoints(top_.value);
  record_->MarginBottom = ToPoints(bottom_.value);
  record_->MarginLeft = ToPoints(left_.value);
  record_->MarginRight = ToPoints(right_.value);
  record_->LandscapeOrienatation = window_->IsChecked(kIdLandscape);
  // No selection is -1, stored as 0xFFFFFFFF.
  record_->PaperSize = static_cast<std::uint32_t>(window_->Selection(kIdPaperSize));
  const int units = window_->Selection(kIdUnits);
  record_->Units = units < 0 ? 0u : static_cast<std::uint32_t>(units);
}

void PdfPage::ApplyUnits() {
  int units = window_->Selection(kIdUnits);
  if (units < 0 || units >= static_cast<int>(UnitRatioTable.size())) units = 0;
  const UnitRatio& ratio = UnitRatioTable[static_cast<std::size_t>(units)];
  for (SpinEdit* spin : {&width_, &height_, &top_, &bottom_, &left_, &right_}) {
    spin->SetRatio(ratio.numerator, ratio.denominator, ratio.decimals);
  }
}

void PdfPage::ApplyPaperSize() {
  const int paper = window_->Selection(kIdPaperSize);
  if (paper > 0 && paper < static_cast<int>(PaperSizeTable.size())) {
    const PaperSize& size = PaperSizeTable[static_cast<std::size_t>(paper)];
    width_.SetValue(size.width * 1000);
    height_.SetValue(size.height * 1000);
  }
  // The up-downs 1004 and 1007 stay enabled on purpose: with a named size a click still moves the
  // number in the disabled edit, and Save takes it.
  window_->Enable(kIdPageWidth, paper == 0);
  window_->Enable(kIdPageHeight, paper == 0);
  window_->Invalidate();
}

}  // namespace mrwl
