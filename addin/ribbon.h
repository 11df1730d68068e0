// The ribbon's resources: the two ribbon XML texts, the table of button pictures, and the module
// resource table they are read from.
//
// The resources are embedded in the module at build time (addin/resources/), each under a type
// ("XML", later "PNG") and a number. Everything here runs on Outlook's main thread, though only
// the screen density cache would mind another.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "platform/com.h"
#include "platform/com_ptr.h"

namespace mrwl {

// One embedded resource: its type, its number and its bytes.
struct ModuleResource {
  const char16_t* type;
  int id;
  const unsigned char* data;
  std::size_t size;
};

// Every resource embedded in the module; generated from addin/resources/ at build time.
[[nodiscard]] std::span<const ModuleResource> ModuleResources() noexcept;

// The resource of `type` (compared exactly) and `id`, or null when there is none.
[[nodiscard]] const ModuleResource* FindModuleResource(std::u16string_view type, int id) noexcept;

// The ribbon XML numbers: the main window's ribbon, with three buttons, and that of every other
// window, without the portfolio.
inline constexpr int kExplorerRibbonXml = 214;
inline constexpr int kItemRibbonXml = 107;

// The ribbon id whose ribbon is kExplorerRibbonXml; compared exactly, case included.
inline constexpr std::u16string_view kExplorerRibbonId = u"Microsoft.Outlook.Explorer";

// The ribbon controls.
inline constexpr std::u16string_view kCreatePdfControl = u"MRWL_CreatePDF";
inline constexpr std::u16string_view kPortfolioControl = u"MRWL_Portfolio";
inline constexpr std::u16string_view kSettingsControl = u"MRWL_Settings";

// The text of XML resource `id`, widened byte by byte for its full size (it is ASCII), as a
// string the caller owns; null when the resource is missing or memory runs out.
[[nodiscard]] UniqueBstr LoadRibbonXml(int id) noexcept;

// A row of RibbonImageTable: a control and the PNG resources of its picture for normal screens
// (32 by 32) and dense ones (48 by 48). `number` is read by nothing.
struct RibbonImageRow {
  std::u16string_view controlId;
  int normalPng;
  int densePng;
  std::uint32_t number;
};

inline constexpr RibbonImageRow RibbonImageTable[3] = {
    {kCreatePdfControl, 280, 221, 1},
    {kSettingsControl, 281, 224, 2},
    {kPortfolioControl, 282, 222, 3},
};

// The row of the control `control` (an IRibbonControl), compared by id, exact and case-sensitive,
// from the first row on. Null for a null control, one that is not a ribbon control, one whose id
// cannot be read, and an id not in the table.
[[nodiscard]] const RibbonImageRow* FindRibbonImageRow(IUnknown* control) noexcept;

// The ratio of the screen's dots per inch (LOGPIXELSY of the screen) to 96; 1.0 for 96 and
// below. The density is read once and cached.
[[nodiscard]] double GetScreenScale() noexcept;

// For tests only: forgets the cached density, so that the next GetScreenScale reads it afresh.
void ResetScreenScaleForTesting() noexcept;

// Makes the picture of PNG resource `id` into `picture` (and, when `maskPicture` is given, its
// mask), as MakePngPicture does. A resource that is not there gives
// HRESULT_FROM_WIN32(ERROR_RESOURCE_NAME_NOT_FOUND), an empty one
// HRESULT_FROM_WIN32(ERROR_RESOURCE_DATA_NOT_FOUND), with nothing written.
HRESULT LoadPngPicture(int id, IPictureDisp** picture, IPictureDisp** maskPicture) noexcept;

// Decodes the PNG file `png` into picture objects that own their bitmaps. Without `maskPicture`
// *picture gets one 32-bit picture with the alpha kept, and the result is that of making it.
// With `maskPicture` *picture gets the colours as a 24-bit picture and *maskPicture a 24-bit mask,
// black where alpha is 128 or more and white elsewhere; the result is that of making the mask.
// Data that cannot be decoded gives S_OK with nothing written.
HRESULT MakePngPicture(std::span<const unsigned char> png, IPictureDisp** picture,
                       IPictureDisp** maskPicture) noexcept;

// IRibbonCallback.GetImage: the picture of the control's row for the screen's density, or S_OK
// with `image` unwritten for a control that has no row.
HRESULT GetRibbonImage(IUnknown* control, IPictureDisp** image) noexcept;

}  // namespace mrwl
