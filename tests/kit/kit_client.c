/* An early-bound client in plain C, compiled against the developer kit's
 * header and GUID definitions alone: it creates every class through its
 * vtable, calls a member of each, and checks the header's record sizes
 * against the registered type library. Prints "PASS: kit_client" when all
 * hold, a FAILED line for each that does not. */
#include <stdio.h>
#include <string.h>

#include "vxTypes32.h"

static int failures;

static void check(int ok, const char *what, HRESULT hr) {
    if (!ok) {
        printf("FAILED: %s (hr 0x%08lx)\n", what, (unsigned long)hr);
        ++failures;
    }
}

static void *create(REFCLSID clsid, REFIID iid, const char *name) {
    void *object = NULL;
    HRESULT hr = CoCreateInstance(clsid, NULL, CLSCTX_INPROC_SERVER, iid, &object);
    check(SUCCEEDED(hr) && object, name, hr);
    return SUCCEEDED(hr) ? object : NULL;
}

static void use_classes(void) {
    _Class_vxTypes32 *anchor = create(&CLSID_Class_vxTypes32, &IID__Class_vxTypes32, "Class_vxTypes32");
    _CComplexNumber *z = create(&CLSID_CComplexNumber, &IID__CComplexNumber, "CComplexNumber");
    _cDIBSection *dib = create(&CLSID_cDIBSection, &IID__cDIBSection, "cDIBSection");
    _clsQuickSort *sorter = create(&CLSID_clsQuickSort, &IID__clsQuickSort, "clsQuickSort");
    _clsEasyRegistry *reg = create(&CLSID_clsEasyRegistry, &IID__clsEasyRegistry, "clsEasyRegistry");
    _UserInfo *user = create(&CLSID_UserInfo, &IID__UserInfo, "UserInfo");
    _clsBitmap *bitmap = create(&CLSID_clsBitmap, &IID__clsBitmap, "clsBitmap");
    if (!anchor || !z || !dib || !sorter || !reg || !user || !bitmap) return;

    UINT count = 0;
    HRESULT hr = anchor->lpVtbl->GetTypeInfoCount(anchor, &count);
    check(hr == S_OK && count == 1, "Class_vxTypes32.GetTypeInfoCount", hr);

    double re = 3, im = 4, magnitude = 0;
    _CComplexNumber *same = NULL;
    hr = z->lpVtbl->Init(z, &re, &im, &same);
    check(hr == S_OK && same, "CComplexNumber.Init", hr);
    hr = z->lpVtbl->Magnitude(z, &magnitude);
    check(hr == S_OK && magnitude == 25, "CComplexNumber.Magnitude", hr);

    /* 5 pixels of 3 bytes, padded to 16 bytes a line. */
    VARIANT_BOOL made = VARIANT_FALSE;
    LONG stride = 0;
    hr = dib->lpVtbl->Create(dib, 5, 2, &made);
    check(hr == S_OK && made == VARIANT_TRUE, "cDIBSection.Create", hr);
    hr = dib->lpVtbl->get_BytesPerScanLine(dib, &stride);
    check(hr == S_OK && stride == 16, "cDIBSection.BytesPerScanLine", hr);

    LONG runtime = -1;
    hr = sorter->lpVtbl->put_runtime(sorter, 7);
    check(hr == S_OK, "clsQuickSort.runtime (put)", hr);
    hr = sorter->lpVtbl->get_runtime(sorter, &runtime);
    check(hr == S_OK && runtime == 7, "clsQuickSort.runtime", hr);

    BSTR path = SysAllocString(L"\\HKEY_CURRENT_USER\\Software"), key = NULL;
    LONG status = -1;
    hr = reg->lpVtbl->CD(reg, path, &status);
    check(hr == S_OK && status == 0, "clsEasyRegistry.CD", hr);
    hr = reg->lpVtbl->get_CurrentKey(reg, &key);  /* upper-cased */
    check(hr == S_OK && key && wcsstr(key, L"SOFTWARE"), "clsEasyRegistry.CurrentKey", hr);

    VARIANT computer;
    VariantInit(&computer);
    hr = user->lpVtbl->get_ComputerName(user, &computer);
    check(hr == S_OK && V_VT(&computer) == VT_BSTR && SysStringLen(V_BSTR(&computer)) > 0,
          "UserInfo.ComputerName", hr);

    LONG width = -1;
    hr = bitmap->lpVtbl->get_Width(bitmap, &width);
    check(hr == S_OK && width == 0, "clsBitmap.Width", hr);

    VariantClear(&computer);
    SysFreeString(path);
    SysFreeString(key);
    same->lpVtbl->Release(same);
    bitmap->lpVtbl->Release(bitmap);
    user->lpVtbl->Release(user);
    reg->lpVtbl->Release(reg);
    sorter->lpVtbl->Release(sorter);
    dib->lpVtbl->Release(dib);
    z->lpVtbl->Release(z);
    anchor->lpVtbl->Release(anchor);
}

/* The header's layout of each record, which its packing sets, is the
 * library's of this platform. */
static void check_record_sizes(void) {
    static const struct { const wchar_t *name; size_t size; } records[] = {
        {L"IPDataRecord", sizeof(IPDataRecord)},
        {L"Veltrax_point_transform", sizeof(Veltrax_point_transform)},
        {L"datum_transform", sizeof(datum_transform)},
        {L"Coordinate_System", sizeof(Coordinate_System)},
        {L"OPENFILENAME", sizeof(vxTypes32_OPENFILENAME)},
        {L"CHOOSECOLOR", sizeof(vxTypes32_CHOOSECOLOR)},
        {L"BrowseInfo", sizeof(BrowseInfo)},
        {L"Veltrax_posting_file", sizeof(Veltrax_posting_file)},
        {L"Veltrax_posting_field", sizeof(Veltrax_posting_field)},
        {L"Veltrax_posting_source", sizeof(Veltrax_posting_source)},
        {L"Veltrax_facet_file", sizeof(Veltrax_facet_file)},
    };
    ITypeLib *library = NULL;
    HRESULT hr = LoadRegTypeLib(&LIBID_vxTypes32, 1, 2, 0, &library);
    check(hr == S_OK, "the registered type library", hr);
    if (!library) return;
    for (size_t i = 0; i < sizeof records / sizeof records[0]; ++i) {
        ITypeInfo *info = NULL;
        TYPEATTR *attributes = NULL;
        MEMBERID id = 0;
        USHORT found = 1;
        wchar_t name[64];
        char what[80];
        wcscpy(name, records[i].name);
        hr = library->lpVtbl->FindName(library, name, 0, &info, &id, &found);
        if (hr == S_OK && found == 1) hr = info->lpVtbl->GetTypeAttr(info, &attributes);
        snprintf(what, sizeof what, "the size of %ls (%u in the header)", records[i].name, (unsigned)records[i].size);
        check(hr == S_OK && attributes && attributes->cbSizeInstance == records[i].size, what, hr);
        if (attributes) info->lpVtbl->ReleaseTypeAttr(info, attributes);
        if (info) info->lpVtbl->Release(info);
    }
    library->lpVtbl->Release(library);
}

int main(void) {
    HRESULT hr = CoInitializeEx(NULL, COINIT_APARTMENTTHREADED);
    check(SUCCEEDED(hr), "CoInitializeEx", hr);
    use_classes();
    check_record_sizes();
    CoUninitialize();
    if (failures == 0) printf("PASS: kit_client\n");
    return failures;
}
