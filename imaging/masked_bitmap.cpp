#include "imaging/masked_bitmap.h"

#include "imaging/gdi_handles.h"

namespace vx {

namespace {

constexpr COLORREF black = 0x000000;
constexpr COLORREF white = 0xFFFFFF;

}  // namespace

void masked_bitmap::owned_dc::release() {
    if (dc) DeleteDC(dc);
    if (bitmap) DeleteObject(bitmap);
    dc = nullptr;
    bitmap = nullptr;
}

masked_bitmap::~masked_bitmap() { release_all(); }

bool masked_bitmap::copy_to_new_dc(HDC source, LONG width, LONG height, owned_dc& destination) {
    unique_hdc dc(CreateCompatibleDC(nullptr));
    if (!dc) return false;
    // For a memory DC the new bitmap takes the format of the one selected
    // there: a copy of the image has the client's pixel format.
    unique_hbitmap bitmap(CreateCompatibleBitmap(source, width, height));
    if (!bitmap) return false;
    if (!SelectObject(dc.get(), bitmap.get())) return false;
    if (!BitBlt(dc.get(), 0, 0, width, height, source, 0, 0, SRCCOPY)) return false;
    destination.dc = dc.release();
    destination.bitmap = bitmap.release();
    return true;
}

void masked_bitmap::create_mask_dc() { copy_to_new_dc(image_dc_, width_, height_, mask_dc_); }

void masked_bitmap::create_invert_image_dc() {
    if (!copy_to_new_dc(image_dc_, width_, height_, invert_image_dc_)) return;
    // The colours only matter when a monochrome source meets a colour
    // destination; both DCs here share the image's format.
    if (SetBkColor(invert_image_dc_.dc, black) == CLR_INVALID) return;
    if (SetTextColor(invert_image_dc_.dc, white) == CLR_INVALID) return;
    BitBlt(invert_image_dc_.dc, 0, 0, width_, height_, mask_dc_.dc, 0, 0, SRCAND);
}

void masked_bitmap::release_all() {
    if (image_dc_) DeleteDC(image_dc_);
    image_dc_ = nullptr;
    for (HDC earlier : earlier_image_dcs_) DeleteDC(earlier);
    earlier_image_dcs_.clear();
    invert_image_dc_.release();
    mask_dc_.release();
}

// Only a bitmap is taken, and a refusal changes nothing: the size is read
// and the DC made aside, and they replace the current ones only once the
// bitmap is selected.
HRESULT masked_bitmap::SetBitmap(LONG_PTR* NewBitmap, VARIANT_BOOL* result) {
    if (!NewBitmap || !result) return E_POINTER;
    return com_boundary(L"clsBitmap.SetBitmap", [&] {
        *result = VARIANT_FALSE;
        const HGDIOBJ bitmap = reinterpret_cast<HGDIOBJ>(*NewBitmap);
        BITMAP record = {};
        if (GetObjectType(bitmap) != OBJ_BITMAP || !GetObjectA(bitmap, sizeof record, &record)) return;
        unique_hdc image(CreateCompatibleDC(nullptr));
        if (!image || !SelectObject(image.get(), bitmap)) return;
        if (image_dc_) earlier_image_dcs_.push_back(image_dc_);
        image_dc_ = image.release();
        width_ = record.bmWidth;
        height_ = record.bmHeight;
        *result = VARIANT_TRUE;
    });
}

HRESULT masked_bitmap::get_ImageDC(LONG_PTR* result) {
    if (!result) return E_POINTER;
    *result = reinterpret_cast<LONG_PTR>(image_dc_);
    return S_OK;
}

HRESULT masked_bitmap::get_MaskDC(LONG_PTR* result) {
    if (!result) return E_POINTER;
    return com_boundary(L"clsBitmap.MaskDC", [&] {
        if (!mask_dc_.dc) create_mask_dc();
        *result = reinterpret_cast<LONG_PTR>(mask_dc_.dc);
    });
}

HRESULT masked_bitmap::get_InvertImageDC(LONG_PTR* result) {
    if (!result) return E_POINTER;
    return com_boundary(L"clsBitmap.InvertImageDC", [&] {
        if (!mask_dc_.dc) create_mask_dc();
        if (mask_dc_.dc && !invert_image_dc_.dc) create_invert_image_dc();
        *result = reinterpret_cast<LONG_PTR>(invert_image_dc_.dc);
    });
}

HRESULT masked_bitmap::get_Width(LONG* result) {
    if (!result) return E_POINTER;
    *result = width_;
    return S_OK;
}

HRESULT masked_bitmap::get_Height(LONG* result) {
    if (!result) return E_POINTER;
    *result = height_;
    return S_OK;
}

HRESULT create_masked_bitmap(const class_entry& entry, REFIID iid, void** object) {
    return create_instance<masked_bitmap>(entry, iid, object);
}

}  // namespace vx
