// clsBitmap: three memory DCs made from a client's bitmap for masked
// drawing: the image (the client's bitmap itself), a mask (a copy of it) and
// an inverted image (the image ANDed with the mask). The last two are built
// the first time they are asked for and then kept.
#pragma once

#include "frame/automation_object.h"
#include "vxTypes32_types.h"

#include <vector>

namespace vx {

class masked_bitmap final : public automation_object<_clsBitmap> {
public:
    using automation_object::automation_object;
    ~masked_bitmap() override;  // the termination step: the release routine

    HRESULT STDMETHODCALLTYPE get_ImageDC(LONG_PTR* result) override;
    HRESULT STDMETHODCALLTYPE get_InvertImageDC(LONG_PTR* result) override;
    HRESULT STDMETHODCALLTYPE get_MaskDC(LONG_PTR* result) override;
    HRESULT STDMETHODCALLTYPE get_Width(LONG* result) override;
    HRESULT STDMETHODCALLTYPE get_Height(LONG* result) override;
    HRESULT STDMETHODCALLTYPE SetBitmap(LONG_PTR* NewBitmap, VARIANT_BOOL* result) override;

private:
    // A memory DC with a bitmap of its own; the bitmap is deleted right
    // after the DC, so it lives exactly as long as the DC.
    struct owned_dc {
        HDC dc = nullptr;
        HBITMAP bitmap = nullptr;
        void release();
    };

    bool copy_to_new_dc(HDC source, LONG width, LONG height, owned_dc& destination);
    void create_mask_dc();
    void create_invert_image_dc();
    void release_all();

    HDC image_dc_ = nullptr;
    owned_dc invert_image_dc_;
    owned_dc mask_dc_;
    LONG width_ = 0;
    LONG height_ = 0;
    // Image DCs of earlier SetBitmap calls: their bitmaps stay selected in
    // them (never selected out), and they go with the instance.
    std::vector<HDC> earlier_image_dcs_;
};

}  // namespace vx
