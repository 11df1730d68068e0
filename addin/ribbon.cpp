// The ribbon XML, the picture table and the embedded resources.
#include "addin/ribbon.h"

#include <utility>

#include "foundation/log.h"
#include "platform/office.h"
#include "platform/picture.h"

namespace mrwl {

namespace {

// Dots per inch of a screen that is not dense.
constexpr double kNormalDpi = 96.0;
// Scales above this take the dense pictures: 120 dots per inch (1.25) is still normal.
constexpr double kDenseScale = 1.25;

// Alpha from which a pixel counts as opaque in the mask.
constexpr BYTE kOpaqueAlpha = 128;

// The screen's dots per inch, 0 until first read.
std::uint32_t screenDpi = 0;

// Makes `bitmap` into a picture that owns it, in *picture. The picture's result; the bitmap is
// freed here when no picture takes it.
HRESULT MakePicture(UniqueBitmap bitmap, IPictureDisp** picture) noexcept {
  if (picture == nullptr) return E_POINTER;
  PICTDESC description{};
  description.cbSizeofstruct = sizeof description;
  description.picType = PICTYPE_BITMAP;
  description.bmp.hbitmap = bitmap.get();
  description.bmp.hpal = nullptr;
  const HRESULT result = platform::OleCreatePictureIndirect(&description, IID_IDispatch, TRUE,
                                                            reinterpret_cast<void**>(picture));
  if (SUCCEEDED(result)) (void)bitmap.release();
  return result;
}

// A new top-down 24-bit bitmap of `width` by `height`, its pixels in *bits; null on failure.
HBITMAP NewBitmap24(LONG width, LONG height, void** bits) noexcept {
  BITMAPINFO info{};
  info.bmiHeader.biSize = sizeof info.bmiHeader;
  info.bmiHeader.biWidth = width;
  info.bmiHeader.biHeight = -height;
  info.bmiHeader.biPlanes = 1;
  info.bmiHeader.biBitCount = 24;
  info.bmiHeader.biCompression = BI_RGB;
  return platform::CreateDIBSection(nullptr, &info, DIB_RGB_COLORS, bits, nullptr, 0);
}

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
  if (screenDpi == 0) {
    HDC screen = platform::GetDC(nullptr);
    screenDpi = static_cast<std::uint32_t>(platform::GetDeviceCaps(screen, LOGPIXELSY));
    (void)platform::ReleaseDC(nullptr, screen);
  }
  if (screenDpi < 97) return 1.0;
  return screenDpi / kNormalDpi;
}

void ResetScreenScaleForTesting() noexcept { screenDpi = 0; }

HRESULT LoadPngPicture(int id, IPictureDisp** picture, IPictureDisp** maskPicture) noexcept {
  // The decoder lives in the platform and needs no start-up, so there is no library to start
  // here and none to shut down on the way out.
  const ModuleResource* resource = FindModuleResource(u"PNG", id);
  if (resource == nullptr) return HRESULT_FROM_WIN32(ERROR_RESOURCE_NAME_NOT_FOUND);
  if (resource->data == nullptr || resource->size == 0) {
    return HRESULT_FROM_WIN32(ERROR_RESOURCE_DATA_NOT_FOUND);
  }
  return MakePngPicture(std::span<const unsigned char>(resource->data, resource->size), picture,
                        maskPicture);
}

HRESULT MakePngPicture(std::span<const unsigned char> png, IPictureDisp** picture,
                       IPictureDisp** maskPicture) noexcept {
  HRESULT result = S_OK;
  UniqueBitmap bitmap;
  // A picture that cannot be decoded is no failure of the call: the button goes without an image.
  if (FAILED(platform::CreateBitmapFromPng(png.data(), png.size(), bitmap.put()))) {
    DebugPrint(u"LoadPngPicture: the picture cannot be decoded");
    return result;
  }
  if (maskPicture == nullptr) return MakePicture(std::move(bitmap), picture);

  BITMAP source{};
  if (platform::GetObjectW(bitmap.get(), sizeof source, &source) == 0) return result;
  void* colourBits = nullptr;
  void* maskBits = nullptr;
  UniqueBitmap colour(NewBitmap24(source.bmWidth, source.bmHeight, &colourBits));
  UniqueBitmap mask(NewBitmap24(source.bmWidth, source.bmHeight, &maskBits));
  if (!colour || !mask) return result;
  const LONG targetStride = ((source.bmWidth * 24 + 31) / 32) * 4;
  for (LONG y = 0; y < source.bmHeight; ++y) {
    const auto* in = static_cast<const BYTE*>(source.bmBits) + y * source.bmWidthBytes;
    BYTE* colourRow = static_cast<BYTE*>(colourBits) + y * targetStride;
    BYTE* maskRow = static_cast<BYTE*>(maskBits) + y * targetStride;
    for (LONG x = 0; x < source.bmWidth; ++x, in += 4, colourRow += 3, maskRow += 3) {
      colourRow[0] = in[0];
      colourRow[1] = in[1];
      colourRow[2] = in[2];
      const BYTE maskValue = in[3] >= kOpaqueAlpha ? 0 : 255;
      maskRow[0] = maskValue;
      maskRow[1] = maskValue;
      maskRow[2] = maskValue;
    }
  }
  // The colour picture's result is dropped on purpose: the mask's is the one the caller gets.
  (void)MakePicture(std::move(colour), picture);
  result = MakePicture(std::move(mask), maskPicture);
  return result;
}

HRESULT GetRibbonImage(IUnknown* control, IPictureDisp** image) noexcept {
  const RibbonImageRow* row = FindRibbonImageRow(control);
  const bool dense = GetScreenScale() > kDenseScale;
  if (row == nullptr) return S_OK;
  return LoadPngPicture(dense ? row->densePng : row->normalPng, image, nullptr);
}

}  // namespace mrwl
