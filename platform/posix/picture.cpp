// Pictures on POSIX: bitmaps in memory, PNG decoding with libpng, picture objects over bitmaps,
// and the screen's density from the environment or the desktop.
#include "platform/picture.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <unordered_set>
#include <vector>

#include <png.h>

#include "platform/com_object.h"
#include "platform/kernel.h"
#include "platform/posix/posix_util.h"

namespace mrwl::platform {

namespace posix {

// The one device context of this backend: the screen's.
struct DeviceContext {};

struct Bitmap {
  LONG width = 0;
  LONG height = 0;
  WORD bitCount = 0;
  LONG stride = 0;
  std::unique_ptr<BYTE[]> bits;
};

}  // namespace posix

namespace {

posix::DeviceContext screen;

// A bitmap one side of which is longer than this is refused: no picture of this system comes
// near it, and a damaged header must not ask for gigabytes.
constexpr LONG kMaxSide = 16384;

// The density when nothing else says: that of Windows at 100 percent.
constexpr int kDefaultDpi = 96;
// How long a desktop tool may take to answer. The answer is read once per process by its users,
// while the ribbon comes up, so a hung tool must not hold that up for long.
constexpr int kDesktopQueryTimeoutMs = 1500;

// The live bitmaps, so that a handle that was freed, or never was one, is told apart rather than
// followed.
std::mutex bitmapsLock;
std::unordered_set<const posix::Bitmap*>& LiveBitmaps() {
  static auto* live = new std::unordered_set<const posix::Bitmap*>();
  return *live;
}

bool IsLiveBitmap(const void* object) {
  const std::lock_guard<std::mutex> guard(bitmapsLock);
  return LiveBitmaps().count(static_cast<const posix::Bitmap*>(object)) != 0;
}

// A new zero-filled top-down bitmap, registered as live; null when memory runs out or the size is
// not one this backend makes.
HBITMAP NewBitmap(LONG width, LONG height, WORD bitCount) noexcept {
  if (width <= 0 || height <= 0 || width > kMaxSide || height > kMaxSide) return nullptr;
  if (bitCount != 24 && bitCount != 32) return nullptr;
  auto* bitmap = new (std::nothrow) posix::Bitmap;
  if (bitmap == nullptr) return nullptr;
  bitmap->width = width;
  bitmap->height = height;
  bitmap->bitCount = bitCount;
  // Rows of a DIB are padded to whole 32-bit words.
  bitmap->stride = ((width * bitCount + 31) / 32) * 4;
  const std::size_t bytes = static_cast<std::size_t>(bitmap->stride) * height;
  bitmap->bits.reset(new (std::nothrow) BYTE[bytes]());
  if (!bitmap->bits) {
    delete bitmap;
    return nullptr;
  }
  try {
    const std::lock_guard<std::mutex> guard(bitmapsLock);
    LiveBitmaps().insert(bitmap);
  } catch (...) {
    delete bitmap;
    return nullptr;
  }
  return bitmap;
}

// A positive number of dots per inch in `text` ("144", "96.0"), rounded; 0 for anything else.
int ParseDpi(const std::string& text) {
  const char* start = text.c_str();
  while (*start == ' ' || *start == '\t') ++start;
  char* end = nullptr;
  errno = 0;
  const double value = std::strtod(start, &end);
  if (end == start || errno != 0) return 0;
  while (*end == ' ' || *end == '\t' || *end == '\n' || *end == '\r') ++end;
  if (*end != 0 || !(value >= 1.0) || value > 10000.0) return 0;
  return static_cast<int>(std::lround(value));
}

std::string GetEnv(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? std::string(value) : std::string();
}

// Xft.dpi from the X server's resources, which desktops set to the font density they chose.
int XResourcesDpi() {
  std::string output;
  if (!posix::RunAndCapture({"xrdb", "-query"}, &output, kDesktopQueryTimeoutMs)) return 0;
  constexpr std::string_view kKey = "Xft.dpi:";
  std::size_t start = 0;
  while (start < output.size()) {
    std::size_t end = output.find('\n', start);
    if (end == std::string::npos) end = output.size();
    const std::string_view line(output.data() + start, end - start);
    if (line.substr(0, kKey.size()) == kKey) {
      return ParseDpi(std::string(line.substr(kKey.size())));
    }
    start = end + 1;
  }
  return 0;
}

// GNOME's text scaling factor ("1.25"), as the density it gives a 96 dpi screen.
int GnomeTextScalingDpi() {
  std::string output;
  if (!posix::RunAndCapture(
          {"gsettings", "get", "org.gnome.desktop.interface", "text-scaling-factor"}, &output,
          kDesktopQueryTimeoutMs)) {
    return 0;
  }
  char* end = nullptr;
  const double factor = std::strtod(output.c_str(), &end);
  if (end == output.c_str() || !(factor > 0.0) || factor > 100.0) return 0;
  return static_cast<int>(std::lround(kDefaultDpi * factor));
}

int ScreenDpi() noexcept {
  try {
    const std::string configured = GetEnv("MRWL_DPI");
    if (const int dpi = ParseDpi(configured); dpi > 0) return dpi;
    // Without a desktop session there is no desktop setting to ask for.
    if (!GetEnv("DISPLAY").empty()) {
      if (const int dpi = XResourcesDpi(); dpi > 0) return dpi;
    }
    if (!GetEnv("DISPLAY").empty() || !GetEnv("WAYLAND_DISPLAY").empty()) {
      if (const int dpi = GnomeTextScalingDpi(); dpi > 0) return dpi;
    }
  } catch (...) {
    // No memory for a child's answer: the default serves.
  }
  return kDefaultDpi;
}

// The interface by which a picture object of this backend is recognised; never leaves it.
struct IBitmapPicture : IUnknown {
  virtual HBITMAP STDMETHODCALLTYPE Bitmap() = 0;

 protected:
  ~IBitmapPicture() = default;
};
inline constexpr IID IID_IBitmapPicture = {
    0x6E0C4F2A, 0x93B1, 0x4D57, {0xA8, 0x1E, 0x2B, 0x7D, 0x40, 0xC6, 0x15, 0x93}};

}  // namespace

}  // namespace mrwl::platform

MRWL_INTERFACE_ID(IPictureDisp, IID_IPictureDisp);
MRWL_INTERFACE_ID(mrwl::platform::IBitmapPicture, mrwl::platform::IID_IBitmapPicture);

namespace mrwl::platform {

namespace {

class BitmapPicture final : public ComObject<IPictureDisp, IBitmapPicture> {
 public:
  BitmapPicture(HBITMAP bitmap, bool own) noexcept : bitmap_(bitmap), own_(own) {}

  HBITMAP STDMETHODCALLTYPE Bitmap() override { return bitmap_; }

 private:
  ~BitmapPicture() override {
    if (own_) (void)DeleteObject(bitmap_);
  }

  HBITMAP bitmap_;
  bool own_;
};

// The decoder's complaint, for the trace only: the caller sees ERROR_INVALID_DATA.
void TraceDecodeFailure(const char* message) noexcept {
  try {
    OutputDebugStringW(posix::FromUtf8(std::string("PNG decoding failed: ") + message).c_str());
  } catch (...) {
  }
}

}  // namespace

HDC GetDC(HWND window) noexcept {
  if (window != nullptr) {
    SetLastError(ERROR_INVALID_WINDOW_HANDLE);
    return nullptr;
  }
  return &screen;
}

int ReleaseDC(HWND, HDC dc) noexcept { return dc == &screen ? 1 : 0; }

int GetDeviceCaps(HDC dc, int index) noexcept {
  if (dc != &screen) return 0;
  switch (index) {
    case LOGPIXELSX:
    case LOGPIXELSY:
      return ScreenDpi();
    case BITSPIXEL:
      return 32;
    case PLANES:
      return 1;
    default:
      return 0;
  }
}

HBITMAP CreateDIBSection(HDC dc, const BITMAPINFO* info, UINT usage, void** bits, HANDLE section,
                         DWORD offset) noexcept {
  if (bits != nullptr) *bits = nullptr;
  if (dc != nullptr || section != nullptr || offset != 0 || info == nullptr ||
      usage != DIB_RGB_COLORS || info->bmiHeader.biSize < sizeof(BITMAPINFOHEADER) ||
      info->bmiHeader.biPlanes != 1 || info->bmiHeader.biCompression != BI_RGB ||
      info->bmiHeader.biHeight == 0 || info->bmiHeader.biHeight < -kMaxSide) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  const LONG height = std::abs(info->bmiHeader.biHeight);
  const WORD bitCount = info->bmiHeader.biBitCount;
  const LONG width = info->bmiHeader.biWidth;
  if ((bitCount != 24 && bitCount != 32) || width <= 0 || width > kMaxSide || height > kMaxSide) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  HBITMAP bitmap = NewBitmap(width, height, bitCount);
  if (bitmap == nullptr) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  if (bits != nullptr) *bits = bitmap->bits.get();
  return bitmap;
}

int GetObjectW(HGDIOBJ object, int size, void* buffer) noexcept {
  if (object == nullptr || !IsLiveBitmap(object)) return 0;
  if (buffer == nullptr) return static_cast<int>(sizeof(BITMAP));
  if (size < static_cast<int>(sizeof(BITMAP))) return 0;
  const auto* bitmap = static_cast<const posix::Bitmap*>(object);
  BITMAP description{};
  description.bmType = 0;
  description.bmWidth = bitmap->width;
  description.bmHeight = bitmap->height;
  description.bmWidthBytes = bitmap->stride;
  description.bmPlanes = 1;
  description.bmBitsPixel = bitmap->bitCount;
  description.bmBits = bitmap->bits.get();
  std::memcpy(buffer, &description, sizeof description);
  return static_cast<int>(sizeof description);
}

BOOL DeleteObject(HGDIOBJ object) noexcept {
  if (object == nullptr) return FALSE;
  auto* bitmap = static_cast<posix::Bitmap*>(object);
  {
    const std::lock_guard<std::mutex> guard(bitmapsLock);
    if (LiveBitmaps().erase(bitmap) == 0) return FALSE;
  }
  delete bitmap;
  return TRUE;
}

HRESULT CreateBitmapFromPng(const void* data, SIZE_T size, HBITMAP* bitmap) noexcept {
  if (bitmap == nullptr) return E_POINTER;
  *bitmap = nullptr;
  if (data == nullptr) return E_INVALIDARG;

  // The simplified reader keeps libpng's error jumps inside libpng: a damaged file comes back as
  // a zero result with the reason in `image.message`, never as a jump through this frame.
  png_image image;
  std::memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  if (png_image_begin_read_from_memory(&image, data, size) == 0) {
    TraceDecodeFailure(image.message);
    png_image_free(&image);
    return HRESULT_FROM_WIN32(ERROR_INVALID_DATA);
  }
  if (image.width == 0 || image.height == 0 || image.width > static_cast<png_uint_32>(kMaxSide) ||
      image.height > static_cast<png_uint_32>(kMaxSide)) {
    TraceDecodeFailure("the picture is larger than this system takes");
    png_image_free(&image);
    return HRESULT_FROM_WIN32(ERROR_INVALID_DATA);
  }
  image.format = PNG_FORMAT_BGRA;
  UniqueBitmap decoded(
      NewBitmap(static_cast<LONG>(image.width), static_cast<LONG>(image.height), 32));
  if (!decoded) {
    png_image_free(&image);
    return E_OUTOFMEMORY;
  }
  // 32-bit rows need no padding, so the bitmap's rows are exactly what libpng writes.
  if (png_image_finish_read(&image, nullptr, decoded.get()->bits.get(), decoded.get()->stride,
                            nullptr) == 0) {
    TraceDecodeFailure(image.message);
    png_image_free(&image);
    return HRESULT_FROM_WIN32(ERROR_INVALID_DATA);
  }
  png_image_free(&image);
  *bitmap = decoded.release();
  return S_OK;
}

HRESULT OleCreatePictureIndirect(PICTDESC* desc, REFIID iid, BOOL own, void** object) noexcept {
  if (object == nullptr) return E_POINTER;
  *object = nullptr;
  if (desc == nullptr || desc->cbSizeofstruct != sizeof(PICTDESC)) return E_INVALIDARG;
  if (desc->picType != PICTYPE_BITMAP) return E_NOTIMPL;
  if (!IsLiveBitmap(desc->bmp.hbitmap)) return E_INVALIDARG;
  // Only the views a client of a picture asks for; the backend's own interface stays inside.
  if (!IsEqualIID(iid, IID_IUnknown) && !IsEqualIID(iid, IID_IDispatch) &&
      !IsEqualIID(iid, IID_IPictureDisp)) {
    return E_NOINTERFACE;
  }
  auto* picture = new (std::nothrow) BitmapPicture(desc->bmp.hbitmap, own != FALSE);
  if (picture == nullptr) return E_OUTOFMEMORY;
  const HRESULT result = picture->QueryInterface(iid, object);
  picture->Release();
  return result;
}

HRESULT GetPictureBitmap(IPictureDisp* picture, HBITMAP* bitmap) noexcept {
  if (bitmap == nullptr) return E_POINTER;
  *bitmap = nullptr;
  if (picture == nullptr) return E_INVALIDARG;
  ComPtr<IBitmapPicture> own;
  if (FAILED(picture->QueryInterface(IID_IBitmapPicture, own.put_void())) || !own) {
    return E_INVALIDARG;
  }
  *bitmap = own->Bitmap();
  return S_OK;
}

}  // namespace mrwl::platform
