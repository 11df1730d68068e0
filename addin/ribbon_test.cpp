// Tests of the ribbon's pictures: the six PNG resources, the choice between them by the screen's
// density, and the pictures and masks made from them.
#include "addin/ribbon.h"

#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/picture.h"
#include "testing/temp_folder.h"
#include "testing/test_outlook.h"

namespace mrwl {
namespace {

using Bytes = std::vector<unsigned char>;

// One row of four pixels, as red, green, blue, alpha: alpha 0, 127, 128 and 255.
constexpr unsigned char kFourPixels[] = {
    0x89, 0x50, 0x4E, 0x47, 0x0D, 0x0A, 0x1A, 0x0A, 0x00, 0x00, 0x00, 0x0D, 0x49, 0x48,
    0x44, 0x52, 0x00, 0x00, 0x00, 0x04, 0x00, 0x00, 0x00, 0x01, 0x08, 0x06, 0x00, 0x00,
    0x00, 0xF9, 0x3C, 0x0F, 0xCD, 0x00, 0x00, 0x00, 0x19, 0x49, 0x44, 0x41, 0x54, 0x78,
    0xDA, 0x63, 0xE0, 0x12, 0x91, 0x63, 0xD0, 0x30, 0xB2, 0xA9, 0x77, 0x0B, 0x88, 0x6A,
    0x38, 0x71, 0xE9, 0xCE, 0x7F, 0x00, 0x1F, 0x9F, 0x06, 0x37, 0x95, 0x20, 0x22, 0xB3,
    0x00, 0x00, 0x00, 0x00, 0x49, 0x45, 0x4E, 0x44, 0xAE, 0x42, 0x60, 0x82};

// A bitmap's width and depth and its pixels, row by row without padding.
struct Pixels {
  LONG width = 0;
  WORD bitsPerPixel = 0;
  Bytes bytes;
};

Pixels Read(HBITMAP bitmap) {
  Pixels result;
  BITMAP info{};
  if (platform::GetObjectW(bitmap, sizeof info, &info) == 0) return result;
  result = {info.bmWidth, info.bmBitsPixel, {}};
  for (LONG y = 0; y < info.bmHeight; ++y) {
    const auto* row = static_cast<const unsigned char*>(info.bmBits) + y * info.bmWidthBytes;
    result.bytes.insert(result.bytes.end(), row, row + info.bmWidth * info.bmBitsPixel / 8);
  }
  return result;
}

// The pixels of a picture; it is released.
Pixels ReadPicture(IPictureDisp* picture) {
  ComPtr<IPictureDisp> held;
  held.Attach(picture);
  HBITMAP bitmap = nullptr;
  EXPECT_EQ(S_OK, platform::GetPictureBitmap(picture, &bitmap));
  return Read(bitmap);
}

// The pixels of PNG resource `id`, decoded directly.
Pixels DecodeResource(int id) {
  const ModuleResource* resource = FindModuleResource(u"PNG", id);
  if (resource == nullptr) return {};
  UniqueBitmap bitmap;
  EXPECT_EQ(S_OK, platform::CreateBitmapFromPng(resource->data, resource->size, bitmap.put()));
  return Read(bitmap.get());
}

TEST(RibbonPictures, EachButtonHasAnAntialiasedRgbaPngOfItsSize) {
  const struct {
    int id;
    LONG side;
  } cases[] = {{280, 32}, {281, 32}, {282, 32}, {221, 48}, {224, 48}, {222, 48}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.id);
    const ModuleResource* resource = FindModuleResource(u"PNG", c.id);
    ASSERT_NE(nullptr, resource);
    ASSERT_GT(resource->size, 26u);
    // Width and height big-endian, then depth 8 and colour type 6, RGBA.
    const auto side = static_cast<unsigned char>(c.side);
    EXPECT_EQ(Bytes(resource->data + 16, resource->data + 26),
              (Bytes{0, 0, 0, side, 0, 0, 0, side, 8, 6}));

    const Pixels pixels = DecodeResource(c.id);
    ASSERT_EQ(static_cast<std::size_t>(c.side * c.side * 4), pixels.bytes.size());
    std::set<std::uint32_t> colours;
    int clear = 0, opaque = 0, edge = 0;
    for (std::size_t i = 0; i < pixels.bytes.size(); i += 4) {
      const unsigned char alpha = pixels.bytes[i + 3];
      (alpha == 0 ? clear : alpha == 255 ? opaque : edge)++;
      if (alpha == 255) {
        colours.insert(pixels.bytes[i] | pixels.bytes[i + 1] << 8 | pixels.bytes[i + 2] << 16);
      }
    }
    EXPECT_GE(colours.size(), 3u);
    EXPECT_GT(clear, c.side * 2);
    EXPECT_GT(opaque, c.side * c.side / 4);
    EXPECT_GT(edge, c.side / 2);
  }
}

// The ribbon in a scope whose screen has the density the test sets; the cached density is
// forgotten on the way in and out, so that no other test sees it.
class RibbonImageTest : public ::testing::Test {
 protected:
  RibbonImageTest() {
    testing::OutlookFaults::Get().Reset();
    ResetScreenScaleForTesting();
  }
  ~RibbonImageTest() override { ResetScreenScaleForTesting(); }

  void SetDpi(int dpi) {
    ASSERT_TRUE(dpi_.Set(std::to_string(dpi)));
    ResetScreenScaleForTesting();
  }
  HRESULT GetImage(std::u16string id, IPictureDisp** image) {
    return GetRibbonImage(MakeComObject<testing::TestRibbonControl>(std::move(id)).get(), image);
  }

  testing::ScopedEnv dpi_{"MRWL_DPI"};
};

TEST_F(RibbonImageTest, TheScreenDensityPicksTheRowsColumnAbove125Percent) {
  const struct {
    int dpi;
    double scale;
    const char16_t* control;
    int png;
    LONG side;
  } cases[] = {
      {72, 1.0, u"MRWL_CreatePDF", 280, 32},   {96, 1.0, u"MRWL_CreatePDF", 280, 32},
      {120, 1.25, u"MRWL_CreatePDF", 280, 32}, {144, 1.5, u"MRWL_CreatePDF", 221, 48},
      {144, 1.5, u"MRWL_Settings", 224, 48},   {144, 1.5, u"MRWL_Portfolio", 222, 48},
      {96, 1.0, u"MRWL_Portfolio", 282, 32},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.dpi) + " dpi, resource " + std::to_string(c.png));
    SetDpi(c.dpi);
    EXPECT_DOUBLE_EQ(c.scale, GetScreenScale());
    IPictureDisp* image = nullptr;
    ASSERT_EQ(S_OK, GetImage(c.control, &image));
    ASSERT_NE(nullptr, image);
    const Pixels shown = ReadPicture(image);
    EXPECT_EQ(c.side, shown.width);
    EXPECT_EQ(32, shown.bitsPerPixel);
    EXPECT_EQ(DecodeResource(c.png).bytes, shown.bytes);
  }
  // The density is read once, until the cache is reset.
  ASSERT_TRUE(dpi_.Set("144"));
  EXPECT_DOUBLE_EQ(1.0, GetScreenScale());
  ResetScreenScaleForTesting();
  EXPECT_DOUBLE_EQ(1.5, GetScreenScale());
}

TEST_F(RibbonImageTest, ControlsWithoutARowAndMissingResourcesGiveNoPicture) {
  auto* sentinel = reinterpret_cast<IPictureDisp*>(0x10);
  IPictureDisp* image = sentinel;
  EXPECT_EQ(S_OK, GetImage(u"MRWL_Unknown", &image));
  EXPECT_EQ(S_OK, GetImage(u"mrwl_createpdf", &image));
  EXPECT_EQ(S_OK, GetRibbonImage(nullptr, &image));
  EXPECT_EQ(sentinel, image);
  // An XML resource is no picture, though its number exists.
  EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_RESOURCE_NAME_NOT_FOUND),
            LoadPngPicture(kExplorerRibbonXml, &image, nullptr));
  EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_RESOURCE_NAME_NOT_FOUND),
            LoadPngPicture(999, &image, nullptr));
  EXPECT_EQ(sentinel, image);
}

TEST(PngPictures, TheMaskIsBlackFromAlpha128AndTheColoursLoseTheirAlphaAndBadDataGivesNone) {
  IPictureDisp* picture = nullptr;
  IPictureDisp* mask = nullptr;
  ASSERT_EQ(S_OK, MakePngPicture(kFourPixels, &picture, &mask));
  ASSERT_TRUE(picture != nullptr && mask != nullptr);
  const Pixels colours = ReadPicture(picture);
  const Pixels masked = ReadPicture(mask);
  EXPECT_EQ(24, colours.bitsPerPixel);
  EXPECT_EQ(24, masked.bitsPerPixel);
  EXPECT_EQ((Bytes{30, 20, 10, 60, 50, 40, 90, 80, 70, 220, 210, 200}), colours.bytes);
  EXPECT_EQ((Bytes{255, 255, 255, 255, 255, 255, 0, 0, 0, 0, 0, 0}), masked.bytes);

  // Without a mask the alpha stays in a 32-bit picture.
  ASSERT_EQ(S_OK, MakePngPicture(kFourPixels, &picture, nullptr));
  EXPECT_EQ((Bytes{30, 20, 10, 0, 60, 50, 40, 127, 90, 80, 70, 128, 220, 210, 200, 255}),
            ReadPicture(picture).bytes);

  // A resource decodes the same way, padding and all.
  ASSERT_EQ(S_OK, LoadPngPicture(281, &picture, &mask));
  EXPECT_EQ(32, ReadPicture(picture).width);
  EXPECT_EQ(32 * 32 * 3u, ReadPicture(mask).bytes.size());

  // Data that cannot be decoded gives success and no picture.
  Bytes damaged(std::begin(kFourPixels), std::end(kFourPixels));
  damaged[45] ^= 0xFF;  // inside the compressed data, so that its chunk checksum fails
  auto* sentinel = reinterpret_cast<IPictureDisp*>(0x10);
  picture = mask = sentinel;
  EXPECT_EQ(S_OK, MakePngPicture(damaged, &picture, &mask));
  EXPECT_EQ(S_OK, MakePngPicture(std::span<const unsigned char>(), &picture, nullptr));
  EXPECT_EQ(sentinel, picture);
  EXPECT_EQ(sentinel, mask);
}

}  // namespace
}  // namespace mrwl
