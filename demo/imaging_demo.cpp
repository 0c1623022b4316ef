// cDIBSection at work for a person to look at: draws a picture into a
// section through its DC, resamples it up and down through the component,
// and writes the pictures as BMP files into the folder it is given. The
// writing is this program's: the component itself writes no files.
#include <windows.h>
#include <ole2.h>

#include <cmath>
#include <cstdio>
#include <string>

namespace {

// Late-bound calls, as any automation client would make them.
HRESULT call(IDispatch* object, const wchar_t* name, WORD flags, VARIANT* result, std::initializer_list<long> args) {
    DISPID id = 0;
    LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
    HRESULT hr = object->GetIDsOfNames(IID_NULL, names, 1, 0, &id);
    if (FAILED(hr)) return hr;
    VARIANT values[8];
    int n = static_cast<int>(args.size()), k = n;
    for (long value : args) {
        --k;
        VariantInit(&values[k]);
        V_VT(&values[k]) = VT_I4;
        V_I4(&values[k]) = value;
    }
    DISPPARAMS params = {values, nullptr, static_cast<UINT>(n), 0};
    return object->Invoke(id, IID_NULL, 0, flags, &params, result, nullptr, nullptr);
}

long get_long(IDispatch* object, const wchar_t* name) {
    VARIANT v;
    VariantInit(&v);
    call(object, name, DISPATCH_PROPERTYGET, &v, {});
    VariantChangeType(&v, &v, 0, VT_I4);
    return V_I4(&v);
}

// A BMP file is the section's header and its pixel memory as they stand.
bool write_bmp(IDispatch* section, const std::wstring& path) {
    const long width = get_long(section, L"Width"), height = get_long(section, L"Height");
    const long stride = get_long(section, L"BytesPerScanLine");
    const auto* bits = reinterpret_cast<const unsigned char*>(static_cast<LONG_PTR>(get_long(section, L"DIBSectionBitsPtr")));
    if (!bits) return false;
    GdiFlush();
    BITMAPINFOHEADER info = {sizeof info, width, height, 1, 24, BI_RGB, static_cast<DWORD>(stride * height), 2835, 2835,
                             0, 0};
    BITMAPFILEHEADER file = {0x4D42, static_cast<DWORD>(sizeof file + sizeof info + info.biSizeImage), 0, 0,
                             sizeof file + sizeof info};
    FILE* out = _wfopen(path.c_str(), L"wb");
    if (!out) return false;
    std::fwrite(&file, sizeof file, 1, out);
    std::fwrite(&info, sizeof info, 1, out);
    std::fwrite(bits, 1, info.biSizeImage, out);
    return std::fclose(out) == 0;
}

// A survey-like picture: a colour ramp with contour rings and a grid.
void draw(IDispatch* section, long width, long height) {
    HDC dc = reinterpret_cast<HDC>(static_cast<LONG_PTR>(get_long(section, L"hdc")));
    for (long y = 0; y < height; ++y)
        for (long x = 0; x < width; ++x) {
            const double r = std::hypot(x - width * 0.4, y - height * 0.55);
            const int ring = static_cast<int>(r / 12) % 2 ? 40 : 0;
            SetPixelV(dc, x, y, RGB(x * 255 / width, 80 + ring, y * 255 / height));
        }
    HPEN pen = CreatePen(PS_SOLID, 1, RGB(255, 255, 255));
    HGDIOBJ old = SelectObject(dc, pen);
    for (long x = 0; x < width; x += 40) MoveToEx(dc, x, 0, nullptr), LineTo(dc, x, height);
    for (long y = 0; y < height; y += 40) MoveToEx(dc, 0, y, nullptr), LineTo(dc, width, y);
    SelectObject(dc, old);
    DeleteObject(pen);
}

IDispatch* as_object(VARIANT& v) { return V_VT(&v) == VT_DISPATCH ? V_DISPATCH(&v) : nullptr; }

}  // namespace

int wmain(int argc, wchar_t** argv) {
    const std::wstring folder = argc > 1 ? argv[1] : L".";
    CoInitialize(nullptr);
    CLSID clsid;
    IDispatch* picture = nullptr;
    if (FAILED(CLSIDFromProgID(L"vxTypes32.cDIBSection", &clsid)) ||
        FAILED(CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch, reinterpret_cast<void**>(&picture)))) {
        std::fprintf(stderr, "vxTypes32.cDIBSection cannot be created: is the DLL registered?\n");
        return 1;
    }
    VARIANT made;
    VariantInit(&made);
    call(picture, L"Create", DISPATCH_METHOD, &made, {320, 200});
    draw(picture, 320, 200);
    VARIANT larger, smaller;
    VariantInit(&larger);
    VariantInit(&smaller);
    call(picture, L"Resample", DISPATCH_METHOD, &larger, {500, 800});  // height first
    call(picture, L"Resample", DISPATCH_METHOD, &smaller, {50, 80});
    int failures = 0;
    struct output {
        IDispatch* section;
        const wchar_t* name;
    };
    for (const output& o : {output{picture, L"picture_320x200.bmp"}, output{as_object(larger), L"resampled_800x500.bmp"},
                            output{as_object(smaller), L"resampled_80x50.bmp"}}) {
        const std::wstring path = folder + L"\\" + o.name;
        if (o.section && write_bmp(o.section, path)) {
            std::printf("  wrote %ls (%ld x %ld)\n", path.c_str(), get_long(o.section, L"Width"),
                        get_long(o.section, L"Height"));
        } else {
            std::printf("  could not write %ls\n", path.c_str());
            ++failures;
        }
    }
    VariantClear(&larger);
    VariantClear(&smaller);
    picture->Release();
    CoUninitialize();
    return failures;
}
