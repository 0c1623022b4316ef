// cDIBSection: one 24-bit DIB section, selected into a memory DC of its
// own, with the blits, the resampling and the clipboard copy that work on it.
#pragma once

#include "frame/automation_object.h"
#include "imaging/resample.h"
#include "vxTypes32_types.h"

namespace vx {

class dib_section final : public automation_object<_cDIBSection> {
public:
    using automation_object::automation_object;
    ~dib_section() override;  // the termination step: ClearUp

    HRESULT STDMETHODCALLTYPE CopyToClipboard(VARIANT_BOOL bAsDIB, VARIANT_BOOL* result) override;
    HRESULT STDMETHODCALLTYPE CreateDIB(LONG_PTR lhDC, LONG lwidth, LONG lHeight, LONG_PTR* hDib,
                                        VARIANT_BOOL* result) override;
    HRESULT STDMETHODCALLTYPE CreateFromPicture(IPictureDisp** picThis, VARIANT* result) override;
    HRESULT STDMETHODCALLTYPE Create(LONG lwidth, LONG lHeight, VARIANT_BOOL* result) override;
    HRESULT STDMETHODCALLTYPE get_BytesPerScanLine(LONG* result) override;
    HRESULT STDMETHODCALLTYPE get_Width(LONG* result) override;
    HRESULT STDMETHODCALLTYPE get_Height(LONG* result) override;
    HRESULT STDMETHODCALLTYPE LoadPictureBlt(LONG_PTR lhDC, LONG lSrcLeft, LONG lSrcTop, LONG lSrcWidth, LONG lSrcHeight,
                                             RasterOpConstants eRop) override;
    HRESULT STDMETHODCALLTYPE PaintPicture(LONG_PTR lhDC, LONG lDestLeft, LONG lDestTop, LONG lDestWidth,
                                           LONG lDestHeight, LONG lSrcLeft, LONG lSrcTop,
                                           RasterOpConstants eRop) override;
    HRESULT STDMETHODCALLTYPE get_hdc(LONG_PTR* result) override;
    HRESULT STDMETHODCALLTYPE get_hDib(LONG_PTR* result) override;
    HRESULT STDMETHODCALLTYPE get_DIBSectionBitsPtr(LONG_PTR* result) override;
    HRESULT STDMETHODCALLTYPE RandomiseBits(VARIANT_BOOL bGray) override;
    HRESULT STDMETHODCALLTYPE ClearUp() override;
    HRESULT STDMETHODCALLTYPE Resample(LONG lNewHeight, LONG lNewWidth, _cDIBSection** result) override;

private:
    bool create_dib(HDC dc, LONG width, LONG height, HBITMAP& section, const wchar_t* source);
    bool create(LONG width, LONG height, const wchar_t* source);
    void clear_up();
    LONG bytes_per_scan_line(const wchar_t* source) const;
    void load_picture_blt(HDC dc, LONG left, LONG top, LONG width, LONG height, DWORD rop);
    void paint_picture(HDC dc, LONG left, LONG top, LONG width, LONG height, LONG source_left, LONG source_top,
                       DWORD rop);
    // The byte view over the pixel memory: empty when there is none, or
    // when the header no longer describes the memory (a failed CreateDIB).
    pixel_view view() const;
    void resample_bilinear_into(_cDIBSection* destination);

    HBITMAP section_ = nullptr;
    HGDIOBJ saved_bitmap_ = nullptr;
    HDC memory_dc_ = nullptr;
    void* bits_ = nullptr;
    BITMAPINFO header_ = {};
    // Bytes behind bits_, as the header stood when the platform made them.
    std::size_t bits_capacity_ = 0;
};

}  // namespace vx
