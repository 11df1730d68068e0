// Pictures: the screen's density, device-independent bitmaps, PNG decoding, and picture objects
// for automation clients, under their GDI and OLE names and meanings.
//
// On Windows the types and constants are the system's own and the functions forward to GDI,
// GDI+ and OLE. The POSIX backend keeps bitmaps in memory: a bitmap is a top-down array of
// 24-bit BGR or 32-bit BGRA pixels whose rows are padded to a multiple of 4 bytes, the screen is
// one device context whose density comes from the environment variable MRWL_DPI, else from the
// desktop's font setting, else 96 dots per inch, and a picture object is a COM object that owns
// or borrows one bitmap. All functions may be called from any thread.
#pragma once

#include "platform/com.h"
#include "platform/unique_any.h"
#include "platform/win_types.h"

#if !defined(_WIN32)

namespace mrwl::platform::posix {
struct DeviceContext;
struct Bitmap;
}  // namespace mrwl::platform::posix

using HDC = mrwl::platform::posix::DeviceContext*;
using HGDIOBJ = void*;
using HBITMAP = mrwl::platform::posix::Bitmap*;
using HPALETTE = void*;
using LPVOID = void*;

// GetDeviceCaps indexes that this backend answers.
#define BITSPIXEL 12
#define PLANES 14
#define LOGPIXELSX 88
#define LOGPIXELSY 90

// The compression and colour use of an uncompressed DIB.
#define BI_RGB 0L
#define DIB_RGB_COLORS 0u

// Picture types of PICTDESC.
#define PICTYPE_UNINITIALIZED (-1)
#define PICTYPE_NONE 0
#define PICTYPE_BITMAP 1

#define ERROR_INVALID_WINDOW_HANDLE 1400L

// What GetObjectW tells of a bitmap. bmBits points at the first (top) row of a DIB section.
struct BITMAP {
  LONG bmType;
  LONG bmWidth;
  LONG bmHeight;
  LONG bmWidthBytes;
  WORD bmPlanes;
  WORD bmBitsPixel;
  LPVOID bmBits;
};

struct BITMAPINFOHEADER {
  DWORD biSize;
  LONG biWidth;
  // Negative for rows stored top-down.
  LONG biHeight;
  WORD biPlanes;
  WORD biBitCount;
  DWORD biCompression;
  DWORD biSizeImage;
  LONG biXPelsPerMeter;
  LONG biYPelsPerMeter;
  DWORD biClrUsed;
  DWORD biClrImportant;
};

struct RGBQUAD {
  BYTE rgbBlue;
  BYTE rgbGreen;
  BYTE rgbRed;
  BYTE rgbReserved;
};

struct BITMAPINFO {
  BITMAPINFOHEADER bmiHeader;
  RGBQUAD bmiColors[1];
};

// The description of a picture for OleCreatePictureIndirect; only bitmaps exist here.
struct PICTDESC {
  UINT cbSizeofstruct;
  UINT picType;
  union {
    struct {
      HBITMAP hbitmap;
      HPALETTE hpal;
    } bmp;
  };
};

#endif  // !_WIN32

namespace mrwl::platform {

// The device context of `window`, or of the whole screen for null. Released with ReleaseDC. On
// POSIX only the screen has one: any other window gives null with ERROR_INVALID_WINDOW_HANDLE.
[[nodiscard]] HDC GetDC(HWND window) noexcept;
// Gives back a device context of GetDC. 1 when it was released, 0 when it was none.
int ReleaseDC(HWND window, HDC dc) noexcept;

// A property of the device: LOGPIXELSX and LOGPIXELSY are its dots per inch (the two are equal
// on POSIX), BITSPIXEL 32 and PLANES 1. 0 for another index or no device context. On POSIX the
// density is read afresh on every call: MRWL_DPI when it holds a positive number, else the X
// resources' Xft.dpi ("xrdb -query", when DISPLAY is set) or 96 times GNOME's text scaling
// factor (gsettings, on a desktop), each asked with a short time limit, else 96.
[[nodiscard]] int GetDeviceCaps(HDC dc, int index) noexcept;

// A new device-independent bitmap of info->bmiHeader's width, height (negative for top-down rows)
// and bit count, with *bits receiving its pixels. On POSIX only uncompressed (BI_RGB) 24- and
// 32-bit bitmaps with DIB_RGB_COLORS exist, always stored top-down, zero-filled, and `dc` and
// `section` must be null. Null on failure, with the last error ERROR_INVALID_PARAMETER or
// ERROR_NOT_ENOUGH_MEMORY. The caller owns the bitmap and frees it with DeleteObject.
[[nodiscard]] HBITMAP CreateDIBSection(HDC dc, const BITMAPINFO* info, UINT usage, void** bits,
                                       HANDLE section, DWORD offset) noexcept;

// Copies the description of a GDI object into `buffer` of `size` bytes: a BITMAP for a bitmap.
// Returns the bytes written; 0 for an object that is not there or a buffer that is too small.
int GetObjectW(HGDIOBJ object, int size, void* buffer) noexcept;

// Frees a GDI object. FALSE for one that is not there (or was freed before).
BOOL DeleteObject(HGDIOBJ object) noexcept;

// Decodes the PNG file in `data` (`size` bytes) into a new 32-bit DIB with rows top-down and
// pixels as blue, green, red and alpha bytes, the alpha not multiplied into the colours; any PNG
// colour type and depth is converted to that. S_OK with *bitmap owned by the caller (DeleteObject).
// On failure *bitmap is null: E_POINTER for a null `bitmap`, E_INVALIDARG for null data,
// HRESULT_FROM_WIN32(ERROR_INVALID_DATA) for bytes that are not a whole, sound PNG (a bad
// signature, chunk checksum or compressed stream, or a truncated file), E_OUTOFMEMORY.
[[nodiscard]] HRESULT CreateBitmapFromPng(const void* data, SIZE_T size, HBITMAP* bitmap) noexcept;

// Makes a picture object of the picture `desc` describes and returns its `iid` view (IUnknown,
// IDispatch or IPictureDisp) in *object. With `own` the picture frees the bitmap when it is
// destroyed; without, the bitmap must outlive it. On failure *object is null and the bitmap is
// still the caller's: E_POINTER, E_INVALIDARG for a missing or wrongly sized description or a
// bitmap that is not there, E_NOINTERFACE; on POSIX E_NOTIMPL for anything but PICTYPE_BITMAP.
HRESULT OleCreatePictureIndirect(PICTDESC* desc, REFIID iid, BOOL own, void** object) noexcept;

// The bitmap a picture object shows (IPicture::get_Handle on Windows). The picture keeps it: the
// caller reads it with GetObjectW while holding the picture, and never deletes it. E_POINTER for
// a null `bitmap`; E_INVALIDARG, with null, for a picture that is not a bitmap picture of
// OleCreatePictureIndirect.
HRESULT GetPictureBitmap(IPictureDisp* picture, HBITMAP* bitmap) noexcept;

}  // namespace mrwl::platform

namespace mrwl {

struct BitmapTraits {
  using Type = HBITMAP;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type bitmap) noexcept { (void)platform::DeleteObject(bitmap); }
};
// A bitmap owned by one scope.
using UniqueBitmap = UniqueAny<BitmapTraits>;

}  // namespace mrwl
