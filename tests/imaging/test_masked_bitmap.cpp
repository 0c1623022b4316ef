// clsBitmap: the image, mask and inverted-image DCs, built once, and the client's bitmap that stays the client's.
#include "imaging/imaging_support.h"

namespace vx::test {
namespace {

using dc_property = HRESULT (STDMETHODCALLTYPE _clsBitmap::*)(LONG_PTR*);

HDC dc_of(const com_ptr<_clsBitmap>& masked, dc_property property) {
    LONG_PTR value = -1;
    EXPECT_EQ(S_OK, (masked.get()->*property)(&value));
    return reinterpret_cast<HDC>(value);
}

// Width and height as "W x H".
std::string size_of(_clsBitmap* masked) {
    LONG width = -1, height = -1;
    masked->get_Width(&width), masked->get_Height(&height);
    return std::to_string(width) + " x " + std::to_string(height);
}

COLORREF image_colour(int x, int y) { return RGB(x * 7 + 10, y * 13 + 5, (x ^ y) * 9); }

// A client's bitmap in the screen's format, painted with image_colour; not selected anywhere.
HBITMAP client_bitmap(int width = 32, int height = 16) {
    const HDC screen = GetDC(nullptr), dc = CreateCompatibleDC(nullptr);
    const HBITMAP bitmap = CreateCompatibleBitmap(screen, width, height);
    const HGDIOBJ old = SelectObject(dc, bitmap);
    for (int i = 0; i < width * height; ++i) SetPixel(dc, i % width, i / width, image_colour(i % width, i / width));
    SelectObject(dc, old), DeleteDC(dc), ReleaseDC(nullptr, screen);
    return bitmap;
}

bool set_bitmap(_clsBitmap* masked, HBITMAP bitmap) {
    LONG_PTR handle = reinterpret_cast<LONG_PTR>(bitmap);
    VARIANT_BOOL done = VARIANT_TRUE;
    EXPECT_EQ(S_OK, masked->SetBitmap(&handle, &done));
    EXPECT_EQ(reinterpret_cast<LONG_PTR>(bitmap), handle) << "NewBitmap is never written";
    return done == VARIANT_TRUE;
}

// The mask starts as a copy of the image; the client then draws into it (black left half, white right), and
// the inverted image is the image ANDed with that. A second bitmap replaces the image and the size while the
// DCs built stay; a refused handle leaves the object as it was, for only a bitmap that can be selected is taken.
TEST(MaskedBitmap, BuiltOnceFromTheImageAndUnchangedByARefusal) {
    HBITMAP bitmap = client_bitmap(), second = client_bitmap(8, 4), elsewhere = client_bitmap(4, 2);
    HDC image = nullptr, mask = nullptr, inverted = nullptr, second_image = nullptr;
    {
        // Asked first, the inverted image builds the mask too: with the mask unchanged it is the image.
        com_ptr<_clsBitmap> first = create<_clsBitmap>(CLSID_clsBitmap, IID__clsBitmap);
        ASSERT_TRUE(set_bitmap(first.get(), second));
        const HDC inverted_first = dc_of(first, &_clsBitmap::get_InvertImageDC);
        EXPECT_TRUE(inverted_first && GetPixel(inverted_first, 5, 3) == image_colour(5, 3));
    }
    {
        com_ptr<_clsBitmap> masked = create<_clsBitmap>(CLSID_clsBitmap, IID__clsBitmap);
        ASSERT_TRUE(set_bitmap(masked.get(), bitmap));
        EXPECT_EQ("32 x 16", size_of(masked.get()));
        image = dc_of(masked, &_clsBitmap::get_ImageDC);
        ASSERT_TRUE(image && GetCurrentObject(image, OBJ_BITMAP) == bitmap) << "the client's bitmap is in the image DC";
        mask = dc_of(masked, &_clsBitmap::get_MaskDC);
        ASSERT_TRUE(mask && mask != image && GetCurrentObject(mask, OBJ_BITMAP) != bitmap) << "its own DC and bitmap";
        SetPixel(image, 3, 3, RGB(255, 255, 255));  // after the mask: it does not reach it
        for (int i = 0; i < 32 * 16; ++i)
            ASSERT_EQ(image_colour(i % 32, i / 32), GetPixel(mask, i % 32, i / 32)) << "mask pixel " << i;
        EXPECT_EQ(mask, dc_of(masked, &_clsBitmap::get_MaskDC)) << "a second read gives the same DC";
        RECT left = {0, 0, 16, 16}, right = {16, 0, 32, 16};
        FillRect(mask, &left, static_cast<HBRUSH>(GetStockObject(BLACK_BRUSH)));
        FillRect(mask, &right, static_cast<HBRUSH>(GetStockObject(WHITE_BRUSH)));
        inverted = dc_of(masked, &_clsBitmap::get_InvertImageDC);
        for (int i = 0; i < 32 * 16; ++i)
            ASSERT_EQ(i % 32 < 16 ? 0 : image_colour(i % 32, i / 32), GetPixel(inverted, i % 32, i / 32)) << i;
        EXPECT_TRUE(inverted == dc_of(masked, &_clsBitmap::get_InvertImageDC) &&
                    mask == dc_of(masked, &_clsBitmap::get_MaskDC)) << "built once";
        ASSERT_TRUE(set_bitmap(masked.get(), second));
        second_image = dc_of(masked, &_clsBitmap::get_ImageDC);
        EXPECT_TRUE(second_image != image && size_of(masked.get()) == "8 x 4");
        const HDC client_dc = CreateCompatibleDC(nullptr);
        const HGDIOBJ client_old = SelectObject(client_dc, elsewhere);
        const std::pair<HGDIOBJ, const char*> refused[] = {
            {GetStockObject(DEFAULT_GUI_FONT), "a font"}, {elsewhere, "a bitmap selected into the client's DC"},
            {bitmap, "a bitmap still selected in the earlier image DC"}, {nullptr, "no handle"}};
        for (const auto& [handle, what] : refused) {
            EXPECT_FALSE(set_bitmap(masked.get(), static_cast<HBITMAP>(handle))) << what;
            EXPECT_EQ("8 x 4", size_of(masked.get())) << what << ": the size stays";
            EXPECT_TRUE(second_image == dc_of(masked, &_clsBitmap::get_ImageDC) &&
                        mask == dc_of(masked, &_clsBitmap::get_MaskDC) &&
                        inverted == dc_of(masked, &_clsBitmap::get_InvertImageDC) &&
                        second == GetCurrentObject(second_image, OBJ_BITMAP)) << what << ": the DCs stay";
        }
        SelectObject(client_dc, client_old), DeleteDC(client_dc);
        EXPECT_TRUE(set_bitmap(masked.get(), elsewhere)) << "taken once the client's DC has let it go";
    }
    EXPECT_EQ(0u, GetObjectType(image) + GetObjectType(mask) + GetObjectType(inverted) + GetObjectType(second_image))
        << "the instance's end releases every DC";
    for (HBITMAP b : {bitmap, second, elsewhere}) {
        const HDC dc = CreateCompatibleDC(nullptr);
        EXPECT_NE(nullptr, SelectObject(dc, b)) << "the client's bitmaps survive, selected nowhere";
        DeleteDC(dc), DeleteObject(b);
    }
}

}  // namespace
}  // namespace vx::test
