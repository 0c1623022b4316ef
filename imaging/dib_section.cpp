#include "imaging/dib_section.h"

#include "frame/runtime.h"
#include "imaging/gdi_handles.h"

#include <cstdint>
#include <cstdlib>

namespace vx {

namespace {

constexpr DWORD source_copy = SRCCOPY;

// Handles and addresses travel as pointer-sized integers.
template <class Handle>
Handle handle_from(LONG_PTR value) {
    return reinterpret_cast<Handle>(value);
}
template <class Pointer>
LONG_PTR integer_from(Pointer value) {
    return reinterpret_cast<LONG_PTR>(value);
}

// The error a member of another instance raised, raised again as it came:
// its number, and the source and description it left as error info.
[[noreturn]] void raise_failed_call(HRESULT failure, const wchar_t* source) {
    com_ptr<IErrorInfo> info;
    if (GetErrorInfo(0, info.put()) == S_OK && info) {
        unique_bstr inner_source, description;
        info->GetSource(inner_source.put());
        info->GetDescription(description.put());
        const wchar_t* s = inner_source.get() ? inner_source.get() : source;
        raise_error(error_number_from_hresult(failure), s,
                    std::wstring(description.get() ? description.get() : L"", description.length()));
    }
    raise_hresult(failure, source);
}

// The handle behind a picture: its default property, read late-bound.
LONG picture_handle(IPictureDisp* picture, const wchar_t* source) {
    unique_variant value;
    read_default_property(picture, value, source);
    return variant_to_long(*value.get(), source);
}

// The bytes of a scan line of 24-bit pixels, padded to a multiple of four;
// false when the width is too large for that to be a Long.
bool padded_scan_line(LONG width, LONG& bytes) {
    LONG tripled = 0, padded = 0;
    if (__builtin_mul_overflow(width, LONG{3}, &tripled) || __builtin_add_overflow(tripled, LONG{3}, &padded))
        return false;
    bytes = static_cast<LONG>(static_cast<ULONG>(padded) & 0xFFFFFFFCu);
    return true;
}

}  // namespace

dib_section::~dib_section() { clear_up(); }

LONG dib_section::bytes_per_scan_line(const wchar_t* source) const {
    LONG bytes = 0;
    if (!padded_scan_line(header_.bmiHeader.biWidth, bytes)) raise_error(error_overflow, source);
    return bytes;
}

bool dib_section::create_dib(HDC dc, LONG width, LONG height, HBITMAP& section, const wchar_t* source) {
    BITMAPINFOHEADER& h = header_.bmiHeader;
    h.biSize = sizeof(BITMAPINFOHEADER);
    h.biWidth = width;
    h.biHeight = height;
    h.biPlanes = 1;
    h.biBitCount = 24;
    h.biCompression = BI_RGB;
    const LONG stride = bytes_per_scan_line(source);
    LONG size_image = 0;
    if (__builtin_mul_overflow(height, stride, &size_image)) raise_error(error_overflow, source);
    h.biSizeImage = static_cast<DWORD>(size_image);

    void* bits = nullptr;
    section = CreateDIBSection(dc, &header_, DIB_RGB_COLORS, &bits, nullptr, 0);
    bits_ = section ? bits : nullptr;
    // A top-down section (negative height) has as many scan lines.
    bits_capacity_ = section ? static_cast<std::size_t>(stride) * static_cast<std::size_t>(std::labs(height)) : 0;
    return section != nullptr;
}

bool dib_section::create(LONG width, LONG height, const wchar_t* source) {
    clear_up();
    memory_dc_ = CreateCompatibleDC(nullptr);
    if (!memory_dc_) return false;
    // An overflow leaves the new DC in the instance, without a section.
    if (create_dib(memory_dc_, width, height, section_, source)) {
        saved_bitmap_ = SelectObject(memory_dc_, section_);
        return true;
    }
    DeleteDC(memory_dc_);
    memory_dc_ = nullptr;
    return false;
}

void dib_section::clear_up() {
    if (memory_dc_) {
        if (section_) {
            SelectObject(memory_dc_, saved_bitmap_);
            DeleteObject(section_);
        }
        DeleteDC(memory_dc_);
    }
    memory_dc_ = nullptr;
    section_ = nullptr;
    saved_bitmap_ = nullptr;
    bits_ = nullptr;
    bits_capacity_ = 0;
}

pixel_view dib_section::view() const {
    pixel_view v;
    LONG stride = 0;
    if (!padded_scan_line(header_.bmiHeader.biWidth, stride)) return v;
    v.bits = static_cast<unsigned char*>(bits_);
    v.width = header_.bmiHeader.biWidth;
    v.height = header_.bmiHeader.biHeight;
    v.stride = stride;
    v.capacity = bits_capacity_;
    return v;
}

void dib_section::load_picture_blt(HDC dc, LONG left, LONG top, LONG width, LONG height, DWORD rop) {
    if (width < 0) width = header_.bmiHeader.biWidth;
    if (height < 0) height = header_.bmiHeader.biHeight;
    BitBlt(memory_dc_, 0, 0, width, height, dc, left, top, rop);
}

void dib_section::paint_picture(HDC dc, LONG left, LONG top, LONG width, LONG height, LONG source_left,
                                LONG source_top, DWORD rop) {
    if (width < 0) width = header_.bmiHeader.biWidth;
    if (height < 0) height = header_.bmiHeader.biHeight;
    BitBlt(dc, left, top, width, height, memory_dc_, source_left, source_top, rop);
}

HRESULT dib_section::CreateDIB(LONG_PTR lhDC, LONG lwidth, LONG lHeight, LONG_PTR* hDib, VARIANT_BOOL* result) {
    if (!hDib || !result) return E_POINTER;
    return com_boundary(L"cDIBSection.CreateDIB", [&] {
        HBITMAP section = nullptr;
        const bool made = create_dib(handle_from<HDC>(lhDC), lwidth, lHeight, section, L"cDIBSection.CreateDIB");
        *hDib = integer_from(section);
        *result = made ? VARIANT_TRUE : VARIANT_FALSE;
    });
}

HRESULT dib_section::Create(LONG lwidth, LONG lHeight, VARIANT_BOOL* result) {
    if (!result) return E_POINTER;
    return com_boundary(L"cDIBSection.Create", [&] {
        *result = create(lwidth, lHeight, L"cDIBSection.Create") ? VARIANT_TRUE : VARIANT_FALSE;
    });
}

HRESULT dib_section::ClearUp() {
    clear_up();
    return S_OK;
}

HRESULT dib_section::get_BytesPerScanLine(LONG* result) {
    if (!result) return E_POINTER;
    return com_boundary(L"cDIBSection.BytesPerScanLine",
                        [&] { *result = bytes_per_scan_line(L"cDIBSection.BytesPerScanLine"); });
}

HRESULT dib_section::get_Width(LONG* result) {
    if (!result) return E_POINTER;
    *result = header_.bmiHeader.biWidth;
    return S_OK;
}

HRESULT dib_section::get_Height(LONG* result) {
    if (!result) return E_POINTER;
    *result = header_.bmiHeader.biHeight;
    return S_OK;
}

HRESULT dib_section::get_hdc(LONG_PTR* result) {
    if (!result) return E_POINTER;
    *result = integer_from(memory_dc_);
    return S_OK;
}

HRESULT dib_section::get_hDib(LONG_PTR* result) {
    if (!result) return E_POINTER;
    *result = integer_from(section_);
    return S_OK;
}

HRESULT dib_section::get_DIBSectionBitsPtr(LONG_PTR* result) {
    if (!result) return E_POINTER;
    *result = integer_from(bits_);
    return S_OK;
}

HRESULT dib_section::LoadPictureBlt(LONG_PTR lhDC, LONG lSrcLeft, LONG lSrcTop, LONG lSrcWidth, LONG lSrcHeight,
                                    RasterOpConstants eRop) {
    load_picture_blt(handle_from<HDC>(lhDC), lSrcLeft, lSrcTop, lSrcWidth, lSrcHeight, static_cast<DWORD>(eRop));
    return S_OK;
}

HRESULT dib_section::PaintPicture(LONG_PTR lhDC, LONG lDestLeft, LONG lDestTop, LONG lDestWidth, LONG lDestHeight,
                                  LONG lSrcLeft, LONG lSrcTop, RasterOpConstants eRop) {
    paint_picture(handle_from<HDC>(lhDC), lDestLeft, lDestTop, lDestWidth, lDestHeight, lSrcLeft, lSrcTop,
                  static_cast<DWORD>(eRop));
    return S_OK;
}

HRESULT dib_section::RandomiseBits(VARIANT_BOOL bGray) {
    return com_boundary(L"cDIBSection.RandomiseBits", [&] {
        reseed_random(time_of_day());
        // A released instance may still report its old size: nothing to write.
        const pixel_view v = view();
        if (!v.covers_its_size()) return;
        const auto level = [] { return to_byte(static_cast<double>(random_number()) * 255.0); };
        if (!bGray) {
            for (long p = 0; p < v.width; ++p) {
                for (long y = 0; y < v.height; ++y) {
                    unsigned char* pixel = v.bits + y * v.stride + 3 * p;
                    pixel[0] = 0;
                    pixel[1] = level();
                    pixel[2] = level();
                }
            }
        } else {
            for (long y = 0; y < v.height; ++y) {
                unsigned char* pixel = v.bits + y * v.stride;
                for (long p = 0; p < v.width; ++p, pixel += 3) pixel[0] = pixel[1] = pixel[2] = level();
            }
        }
    });
}

void dib_section::resample_bilinear_into(_cDIBSection* destination) {
    LONG width = 0, height = 0, stride = 0;
    LONG_PTR bits = 0;
    destination->get_Width(&width);
    destination->get_Height(&height);
    destination->get_BytesPerScanLine(&stride);
    destination->get_DIBSectionBitsPtr(&bits);
    pixel_view target;
    target.bits = handle_from<unsigned char*>(bits);
    target.width = width;
    target.height = height;
    target.stride = stride;
    target.capacity = static_cast<std::size_t>(stride) * static_cast<std::size_t>(height > 0 ? height : 0);
    resample_bilinear(view(), target, L"cDIBSection.Resample");
}

HRESULT dib_section::Resample(LONG lNewHeight, LONG lNewWidth, _cDIBSection** result) {
    if (!result) return E_POINTER;
    *result = nullptr;
    return com_boundary(L"cDIBSection.Resample", [&] {
        const class_entry* entry = find_class(CLSID_cDIBSection);
        com_ptr<_cDIBSection> fresh;
        HRESULT hr = entry->create(*entry, IID__cDIBSection, fresh.put_void());
        if (FAILED(hr)) raise_hresult(hr, L"cDIBSection.Resample");
        VARIANT_BOOL made = VARIANT_FALSE;
        hr = fresh->Create(lNewWidth, lNewHeight, &made);
        if (FAILED(hr)) raise_failed_call(hr, L"cDIBSection.Resample");
        if (!made) return;
        if (lNewWidth == header_.bmiHeader.biWidth && lNewHeight == header_.bmiHeader.biHeight)
            fresh->LoadPictureBlt(integer_from(memory_dc_), 0, 0, -1, -1, static_cast<RasterOpConstants>(source_copy));
        else
            resample_bilinear_into(fresh.get());
        *result = fresh.detach();
    });
}

HRESULT dib_section::CreateFromPicture(IPictureDisp** picThis, VARIANT* result) {
    if (!result) return E_POINTER;
    const wchar_t* const source = L"cDIBSection.CreateFromPicture";
    return com_boundary(source, [&] {
        IPictureDisp* const picture = picThis ? *picThis : nullptr;
        // Read before anything changes: an unset picture raises 91 here.
        const LONG handle = picture_handle(picture, source);
        BITMAP record = {};
        GetObjectA(handle_from<HGDIOBJ>(handle), sizeof record, &record);
        if (create(record.bmWidth, record.bmHeight, source)) {
            window_dc screen(GetDesktopWindow());
            if (screen) {
                unique_hdc dc(CreateCompatibleDC(screen.get()));
                screen.release();
                if (dc) {
                    scoped_selection picture_selected(dc.get(), handle_from<HGDIOBJ>(picture_handle(picture, source)));
                    load_picture_blt(dc.get(), 0, 0, -1, -1, source_copy);
                }
            }
        }
        VariantInit(result);
    });
}

HRESULT dib_section::CopyToClipboard(VARIANT_BOOL bAsDIB, VARIANT_BOOL* result) {
    if (!result) return E_POINTER;
    return com_boundary(L"cDIBSection.CopyToClipboard", [&] {
        const auto copy = [&]() -> bool {
            window_dc screen(GetDesktopWindow());
            if (!screen) return false;
            unique_hdc dc(CreateCompatibleDC(screen.get()));
            if (!dc) return false;
            if (bAsDIB) {
                message_box(L"I don't know how to put a DIB on the clipboard! Copy as bitmap instead!!!");
                return false;
            }
            const LONG width = header_.bmiHeader.biWidth, height = header_.bmiHeader.biHeight;
            // Windows makes no bitmap of a negative size; Wine makes one of
            // the magnitude, and at the smallest Long one that crashes it.
            if (width < 0 || height < 0) return false;
            // A zero size gets the platform's shared stock 1 x 1 monochrome
            // bitmap, which the clipboard would delete when next emptied (and
            // Wine's new memory DCs with it): an equal bitmap of our own goes
            // in its place.
            unique_hbitmap bitmap(width == 0 || height == 0 ? CreateBitmap(1, 1, 1, 1, nullptr)
                                                            : CreateCompatibleBitmap(screen.get(), width, height));
            if (!bitmap) return false;
            {
                scoped_selection bitmap_selected(dc.get(), bitmap.get());
                paint_picture(dc.get(), 0, 0, -1, -1, 0, 0, source_copy);
            }
            if (!OpenClipboard(nullptr)) return false;
            EmptyClipboard();
            bool copied = false;
            // From here on the clipboard owns the bitmap.
            if (SetClipboardData(CF_BITMAP, bitmap.get())) {
                bitmap.release();
                copied = true;
            }
            CloseClipboard();
            return copied;
        };
        *result = copy() ? VARIANT_TRUE : VARIANT_FALSE;
    });
}

HRESULT create_dib_section(const class_entry& entry, REFIID iid, void** object) {
    return create_instance<dib_section>(entry, iid, object);
}

}  // namespace vx
