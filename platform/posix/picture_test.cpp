// Tests of the picture support: PNG decoding of each colour type and of damaged files, bitmaps,
// picture objects and their ownership, and the screen's density from the environment and from
// the desktop's tools, run as real children.
#include "platform/picture.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/com_ptr.h"
#include "platform/kernel.h"
#include "testing/temp_folder.h"

namespace mrwl::platform {
namespace {

using U8 = unsigned char;
using Bytes = std::vector<U8>;

std::uint32_t Crc32(const unsigned char* data, std::size_t size, std::uint32_t crc = 0) {
  crc = ~crc;
  for (std::size_t i = 0; i < size; ++i) {
    crc ^= data[i];
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  return ~crc;
}

void PutU32(Bytes* out, std::uint32_t value) {
  out->insert(out->end(), {U8(value >> 24), U8(value >> 16), U8(value >> 8), U8(value)});
}

void PutChunk(Bytes* out, const char* type, const Bytes& data) {
  PutU32(out, static_cast<std::uint32_t>(data.size()));
  const std::size_t start = out->size();
  out->insert(out->end(), type, type + 4);
  out->insert(out->end(), data.begin(), data.end());
  PutU32(out, Crc32(out->data() + start, out->size() - start));
}

// A PNG file of 8-bit samples with `zlib` as its compressed data; `extra` chunks (PLTE, tRNS) go
// before the data.
Bytes PngFile(std::uint32_t width, std::uint32_t height, unsigned char colorType, const Bytes& zlib,
              const std::vector<std::pair<const char*, Bytes>>& extra = {}) {
  Bytes file = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  Bytes header;
  PutU32(&header, width);
  PutU32(&header, height);
  header.insert(header.end(), {8, colorType, 0, 0, 0});
  PutChunk(&file, "IHDR", header);
  for (const auto& [type, data] : extra) PutChunk(&file, type, data);
  PutChunk(&file, "IDAT", zlib);
  PutChunk(&file, "IEND", {});
  return file;
}

// As PngFile, with the scanlines `rows` (filter bytes included) in one stored deflate block.
Bytes EncodePng(std::uint32_t width, std::uint32_t height, unsigned char colorType,
                const Bytes& rows, const std::vector<std::pair<const char*, Bytes>>& extra = {}) {
  const auto size = static_cast<std::uint16_t>(rows.size());
  Bytes zlib = {0x78, 0x01, 0x01, U8(size), U8(size >> 8), U8(~size), U8(~size >> 8)};
  zlib.insert(zlib.end(), rows.begin(), rows.end());
  std::uint32_t a = 1, b = 0;
  for (U8 c : rows) a = (a + c) % 65521, b = (b + a) % 65521;
  PutU32(&zlib, (b << 16) | a);
  return PngFile(width, height, colorType, zlib, extra);
}

// The bitmap's description and its pixels, row by row without padding.
struct Decoded {
  BITMAP info{};
  Bytes pixels;
};

Decoded Describe(HBITMAP bitmap) {
  Decoded result;
  EXPECT_EQ(static_cast<int>(sizeof(BITMAP)), GetObjectW(bitmap, sizeof(BITMAP), &result.info));
  const int rowBytes = result.info.bmWidth * result.info.bmBitsPixel / 8;
  for (LONG y = 0; y < result.info.bmHeight; ++y) {
    const auto* row =
        static_cast<const unsigned char*>(result.info.bmBits) + y * result.info.bmWidthBytes;
    result.pixels.insert(result.pixels.end(), row, row + rowBytes);
  }
  return result;
}

TEST(PngDecoding, EveryColourTypeBecomesTopDownStraightBgra) {
  const struct {
    const char* name;
    Bytes png;
    Bytes bgra;
  } cases[] = {
      {"rgba, two rows",
       EncodePng(2, 2, 6, {0, 1, 2, 3, 4, 5, 6, 7, 8, 0, 9, 10, 11, 0, 12, 13, 14, 255}),
       {3, 2, 1, 4, 7, 6, 5, 8, 11, 10, 9, 0, 14, 13, 12, 255}},
      {"rgb is opaque", EncodePng(1, 1, 2, {0, 10, 20, 30}), {30, 20, 10, 255}},
      {"grey", EncodePng(2, 1, 0, {0, 0, 200}), {0, 0, 0, 255, 200, 200, 200, 255}},
      {"grey with alpha", EncodePng(1, 1, 4, {0, 90, 40}), {90, 90, 90, 40}},
      {"palette with transparency",
       EncodePng(2, 1, 3, {0, 1, 0}, {{"PLTE", {1, 2, 3, 40, 50, 60}}, {"tRNS", {255, 0}}}),
       {60, 50, 40, 0, 3, 2, 1, 255}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    HBITMAP bitmap = nullptr;
    ASSERT_EQ(S_OK, CreateBitmapFromPng(c.png.data(), c.png.size(), &bitmap));
    const Decoded decoded = Describe(bitmap);
    EXPECT_EQ(32, decoded.info.bmBitsPixel);
    EXPECT_EQ(decoded.info.bmWidth * 4, decoded.info.bmWidthBytes);
    EXPECT_EQ(c.bgra, decoded.pixels);
    EXPECT_EQ(TRUE, DeleteObject(bitmap));
  }
}

TEST(PngDecoding, DamagedOrForeignDataFailsWithInvalidDataAndNoBitmap) {
  Bytes rows(18, 0x40);
  rows[0] = rows[9] = 0;
  const Bytes good = EncodePng(2, 2, 6, rows);
  Bytes badCrc = good;
  badCrc[29] ^= 0xFF;  // the header chunk's checksum
  Bytes badFilter = rows;
  badFilter[9] = 9;  // no such filter
  const struct {
    const char* name;
    Bytes data;
  } cases[] = {
      {"empty", {}},
      {"signature only", Bytes(good.begin(), good.begin() + 8)},
      {"cut in the data", Bytes(good.begin(), good.begin() + 50)},
      {"header checksum", badCrc},
      {"compressed stream", PngFile(2, 2, 6, {0x78, 0x01, 0x07, 0xFF, 0x13, 0x00})},
      {"row filter", EncodePng(2, 2, 6, badFilter)},
      {"text", Bytes{'<', 'x', 'm', 'l', '/', '>'}},
      {"a side too long", EncodePng(100000, 100000, 6, Bytes(5, 0))},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const unsigned char none = 0;
    HBITMAP bitmap = reinterpret_cast<HBITMAP>(0x10);
    EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_INVALID_DATA),
              CreateBitmapFromPng(c.data.empty() ? &none : c.data.data(), c.data.size(), &bitmap));
    EXPECT_EQ(nullptr, bitmap);
  }
  HBITMAP bitmap = nullptr;
  EXPECT_EQ(E_INVALIDARG, CreateBitmapFromPng(nullptr, 10, &bitmap));
  EXPECT_EQ(E_POINTER, CreateBitmapFromPng(good.data(), good.size(), nullptr));
}

BITMAPINFO Info(LONG width, LONG height, WORD bitCount) {
  BITMAPINFO info{};
  info.bmiHeader = {sizeof(BITMAPINFOHEADER), width, height, 1, bitCount, BI_RGB, 0, 0, 0, 0, 0};
  return info;
}

TEST(Bitmaps, DibSectionsArePaddedZeroedAndFreedOnce) {
  const BITMAPINFO info = Info(3, -2, 24);
  void* bits = nullptr;
  HBITMAP bitmap = CreateDIBSection(nullptr, &info, DIB_RGB_COLORS, &bits, nullptr, 0);
  ASSERT_NE(nullptr, bitmap);
  const Decoded decoded = Describe(bitmap);
  EXPECT_EQ(3, decoded.info.bmWidth);
  EXPECT_EQ(2, decoded.info.bmHeight);
  EXPECT_EQ(12, decoded.info.bmWidthBytes);  // 9 bytes padded to a whole word
  EXPECT_EQ(bits, decoded.info.bmBits);
  EXPECT_EQ(Bytes(18, 0), decoded.pixels);
  BITMAP small{};
  EXPECT_EQ(0, GetObjectW(bitmap, sizeof small - 1, &small));
  EXPECT_EQ(TRUE, DeleteObject(bitmap));
  EXPECT_EQ(FALSE, DeleteObject(bitmap));
  EXPECT_EQ(0, GetObjectW(bitmap, sizeof small, &small));

  for (const BITMAPINFO& bad :
       {Info(3, 2, 16), Info(0, 2, 32), Info(3, 0, 32), Info(40000, 1, 32)}) {
    SCOPED_TRACE(bad.bmiHeader.biBitCount);
    SetLastError(0);
    EXPECT_EQ(nullptr, CreateDIBSection(nullptr, &bad, DIB_RGB_COLORS, &bits, nullptr, 0));
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_PARAMETER), GetLastError());
    EXPECT_EQ(nullptr, bits);
  }
}

HRESULT MakePicture(HBITMAP bitmap, BOOL own, REFIID iid, IUnknown** picture,
                    UINT type = PICTYPE_BITMAP, UINT size = sizeof(PICTDESC)) {
  PICTDESC desc{size, type, {{bitmap, nullptr}}};
  return OleCreatePictureIndirect(&desc, iid, own, reinterpret_cast<void**>(picture));
}

TEST(Pictures, AnOwningPictureFreesItsBitmapAndARefusedOneLeavesItWithTheCaller) {
  const BITMAPINFO info = Info(2, 2, 32);
  for (const BOOL own : {TRUE, FALSE}) {
    SCOPED_TRACE(own);
    HBITMAP bitmap = CreateDIBSection(nullptr, &info, DIB_RGB_COLORS, nullptr, nullptr, 0);
    ComPtr<IUnknown> object;
    ASSERT_EQ(S_OK, MakePicture(bitmap, own, IID_IDispatch, object.put()));
    ComPtr<IPictureDisp> picture;
    ASSERT_EQ(S_OK, object->QueryInterface(IID_IPictureDisp, picture.put_void()));
    object = nullptr;
    HBITMAP shown = nullptr;
    EXPECT_EQ(S_OK, GetPictureBitmap(picture.get(), &shown));
    EXPECT_EQ(bitmap, shown);
    picture = nullptr;
    EXPECT_EQ(own ? FALSE : TRUE, DeleteObject(bitmap));
  }

  HBITMAP bitmap = CreateDIBSection(nullptr, &info, DIB_RGB_COLORS, nullptr, nullptr, 0);
  IUnknown* object = reinterpret_cast<IUnknown*>(&bitmap);
  EXPECT_EQ(E_NOINTERFACE, MakePicture(bitmap, TRUE, IID_IClassFactory, &object));
  EXPECT_EQ(nullptr, object);
  EXPECT_EQ(E_NOTIMPL, MakePicture(bitmap, TRUE, IID_IUnknown, &object, 3));
  EXPECT_EQ(E_INVALIDARG, MakePicture(nullptr, TRUE, IID_IUnknown, &object));
  EXPECT_EQ(E_INVALIDARG,
            MakePicture(bitmap, TRUE, IID_IUnknown, &object, PICTYPE_BITMAP, sizeof(PICTDESC) - 1));
  EXPECT_EQ(TRUE, DeleteObject(bitmap));
  HBITMAP shown = bitmap;
  EXPECT_EQ(E_INVALIDARG, GetPictureBitmap(nullptr, &shown));
  EXPECT_EQ(nullptr, shown);
}

// The density in a scope where the desktop's tools are the scripts given (none: no desktop).
class ScreenDensityTest : public ::testing::Test {
 protected:
  ScreenDensityTest() {
    for (testing::ScopedEnv* unset : {&dpi_, &display_, &wayland_}) (void)unset->Unset();
  }
  void Tool(const std::string& name, const std::string& body) {
    folder_.Write(name, "#!/bin/sh\n" + body + "\n", true);
  }
  int Density() {
    HDC screen = GetDC(nullptr);
    const int dpi = GetDeviceCaps(screen, LOGPIXELSY);
    EXPECT_EQ(1, ReleaseDC(nullptr, screen));
    return dpi;
  }

  testing::TempFolder folder_;
  testing::ScopedEnv dpi_{"MRWL_DPI"}, display_{"DISPLAY"}, wayland_{"WAYLAND_DISPLAY"},
      path_{"PATH", folder_.path().string() + ":/usr/bin:/bin"};
};

TEST_F(ScreenDensityTest, ANumberInMrwlDpiWinsAndAnythingElseFallsBack) {
  Tool("xrdb", "printf 'Xft.dpi:\\t168\\n'");
  EXPECT_EQ(96, Density());  // no desktop: its tools are not asked
  const struct {
    const char* value;
    int dpi;
  } cases[] = {{"144", 144}, {" 120 ", 120}, {"96.4", 96}, {"72", 72},
               {"abc", 96},  {"0", 96},      {"-5", 96},   {"", 96}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.value);
    dpi_.Set(c.value);
    EXPECT_EQ(c.dpi, Density());
  }
  dpi_.Set("144");
  EXPECT_EQ(144, GetDeviceCaps(GetDC(nullptr), LOGPIXELSX));
  EXPECT_EQ(0, GetDeviceCaps(GetDC(nullptr), 8));  // an index this backend does not answer
  SetLastError(0);
  EXPECT_EQ(nullptr, GetDC(reinterpret_cast<HWND>(0x40)));
  EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_WINDOW_HANDLE), GetLastError());
  EXPECT_EQ(0, GetDeviceCaps(nullptr, LOGPIXELSY));
}

TEST_F(ScreenDensityTest, TheDesktopIsAskedInTurnAndAHungToolIsCutShort) {
  display_.Set(":57");
  Tool("xrdb", "printf 'Xcursor.size:\\t24\\nXft.dpi:\\t168\\n'");
  Tool("gsettings", "echo 1.5");
  EXPECT_EQ(168, Density());

  Tool("xrdb", "exit 1");
  EXPECT_EQ(144, Density());  // GNOME's scaling of a 96 dpi screen

  Tool("xrdb", "exec sleep 10");
  Tool("gsettings", "exit 1");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(96, Density());
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

}  // namespace
}  // namespace mrwl::platform
