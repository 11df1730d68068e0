// The ribbon XML, the picture table and the embedded resources.
#include "addin/ribbon.h"

#include "foundation/log.h"
#include "platform/office.h"

namespace mrwl {

namespace {

// Dots per inch of a screen that is not dense.
constexpr double kNormalDpi = 96.0;
// Scales above this take the dense pictures: 120 dots per inch (1.25) is still normal.
constexpr double kDenseScale = 1.25;

}  // namespace

const ModuleResource* FindModuleResource(std::u16string_view type, int id) noexcept {
  for (const ModuleResource& resource : ModuleResources()) {
    if (resource.id == id && type == resource.type) return &resource;
  }
  return nullptr;
}

UniqueBstr LoadRibbonXml(int id) noexcept {
  const ModuleResource* resource = FindModuleResource(u"XML", id);
  if (resource == nullptr) return UniqueBstr();
  UniqueBstr text(SysAllocStringLen(nullptr, static_cast<UINT>(resource->size)));
  if (!text) return UniqueBstr();
  // The text is ASCII, so widening each byte is the system's 8-bit conversion whatever the code
  // page; the resource has no terminator of its own and its size gives the end.
  for (std::size_t i = 0; i < resource->size; ++i) {
    text.get()[i] = static_cast<OLECHAR>(resource->data[i]);
  }
  return text;
}

const RibbonImageRow* FindRibbonImageRow(IUnknown* control) noexcept {
  if (control == nullptr) return nullptr;
  ComPtr<office::IRibbonControl> ribbonControl;
  if (FAILED(control->QueryInterface(office::IID_IRibbonControl, ribbonControl.put_void())) ||
      !ribbonControl) {
    return nullptr;
  }
  UniqueBstr id;
  if (FAILED(ribbonControl->get_Id(id.put()))) return nullptr;
  for (const RibbonImageRow& row : RibbonImageTable) {
    if (BstrView(id.get()) == row.controlId) return &row;
  }
  return nullptr;
}

double GetScreenScale() noexcept {
  // Hook for the ribbon pictures: the screen's LOGPIXELSY is to be read once into this cache.
  // Until that reader exists the screen counts as 96 dots per inch, which picks the normal
  // pictures.
  static std::uint32_t cachedDpi = 0;
  if (cachedDpi == 0) cachedDpi = static_cast<std::uint32_t>(kNormalDpi);
  if (cachedDpi < 97) return 1.0;
  return cachedDpi / kNormalDpi;
}

HRESULT LoadPngPicture(int id, IPictureDisp** picture, IPictureDisp** maskPicture) noexcept {
  // Hook for the ribbon pictures: decoding PNG resource `id` into a picture object comes with
  // the picture support. Until then no picture is written and the overall result stays 0, as
  // when the bitmap cannot be made, so the button shows without an image.
  (void)picture;
  (void)maskPicture;
  DebugPrint(u"LoadPngPicture: no picture support for resource %d", id);
  return S_OK;
}

HRESULT GetRibbonImage(IUnknown* control, IPictureDisp** image) noexcept {
  const RibbonImageRow* row = FindRibbonImageRow(control);
  const bool dense = GetScreenScale() > kDenseScale;
  if (row == nullptr) return S_OK;
  return LoadPngPicture(dense ? row->densePng : row->normalPng, image, nullptr);
}

}  // namespace mrwl
