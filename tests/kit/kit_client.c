/* An early-bound client in plain C, built against the developer kit's header and GUID file alone: creates every
 * class, calls a member of each through its vtable, and checks each record's size in the header against the
 * registered library. Prints "PASS: kit_client", or a FAILED line each. */
#include <stdio.h>
#include <string.h>
#include "vxTypes32.h"
static int failures;
#define CHECK(ok, what) \
    if (!(ok)) printf("FAILED: %s (hr 0x%08lx)\n", what, (unsigned long)hr), ++failures
#define CREATE(name) \
    _##name *name = NULL; \
    hr = CoCreateInstance(&CLSID_##name, NULL, CLSCTX_INPROC_SERVER, &IID__##name, (void **)&name); \
    CHECK(hr == S_OK, #name)

static void use_classes(void) {
    HRESULT hr;
    CREATE(Class_vxTypes32); CREATE(CComplexNumber); CREATE(cDIBSection); CREATE(clsQuickSort);
    CREATE(clsEasyRegistry); CREATE(UserInfo); CREATE(clsBitmap);
    if (failures) return;
    UINT count = 0;
    hr = Class_vxTypes32->lpVtbl->GetTypeInfoCount(Class_vxTypes32, &count);
    CHECK(hr == S_OK && count == 1, "Class_vxTypes32.GetTypeInfoCount");
    double re = 3, im = 4, magnitude = 0;
    _CComplexNumber *same = NULL;
    hr = CComplexNumber->lpVtbl->Init(CComplexNumber, &re, &im, &same);
    if (hr == S_OK) hr = CComplexNumber->lpVtbl->Magnitude(CComplexNumber, &magnitude);
    CHECK(hr == S_OK && same == CComplexNumber && magnitude == 25, "CComplexNumber.Init, Magnitude");
    /* 5 pixels of 3 bytes, padded to 16 bytes a line. */
    VARIANT_BOOL made = VARIANT_FALSE;
    LONG stride = 0, runtime = 0, status = -1, width = -1;
    hr = cDIBSection->lpVtbl->Create(cDIBSection, 5, 2, &made);
    if (hr == S_OK) hr = cDIBSection->lpVtbl->get_BytesPerScanLine(cDIBSection, &stride);
    CHECK(hr == S_OK && made == VARIANT_TRUE && stride == 16, "cDIBSection.Create, BytesPerScanLine");
    hr = clsQuickSort->lpVtbl->put_runtime(clsQuickSort, 7);
    if (hr == S_OK) hr = clsQuickSort->lpVtbl->get_runtime(clsQuickSort, &runtime);
    CHECK(hr == S_OK && runtime == 7, "clsQuickSort.runtime");
    BSTR path = SysAllocString(L"\\HKEY_CURRENT_USER\\Software"), key = NULL;
    hr = clsEasyRegistry->lpVtbl->CD(clsEasyRegistry, path, &status);
    if (hr == S_OK) hr = clsEasyRegistry->lpVtbl->get_CurrentKey(clsEasyRegistry, &key);  /* upper-cased */
    CHECK(hr == S_OK && status == 0 && key && wcsstr(key, L"SOFTWARE"), "clsEasyRegistry.CD, CurrentKey");
    VARIANT computer = {0};
    hr = UserInfo->lpVtbl->get_ComputerName(UserInfo, &computer);
    CHECK(hr == S_OK && V_VT(&computer) == VT_BSTR && SysStringLen(V_BSTR(&computer)), "UserInfo.ComputerName");
    hr = clsBitmap->lpVtbl->get_Width(clsBitmap, &width);
    CHECK(hr == S_OK && width == 0, "clsBitmap.Width");
    VariantClear(&computer), SysFreeString(path), SysFreeString(key);
    void *made_objects[] = {same, Class_vxTypes32, CComplexNumber, cDIBSection, clsQuickSort, clsEasyRegistry,
                            UserInfo, clsBitmap};
    for (size_t i = 0; i < 8; ++i) ((IUnknown *)made_objects[i])->lpVtbl->Release(made_objects[i]);
}

/* Each record as the header lays it out (its packing), against the library. */
static void check_record_sizes(void) {
#define RECORD(name) {L## #name, sizeof(name)}
    static const struct { const wchar_t *name; size_t size; } records[] = {
        RECORD(IPDataRecord), RECORD(Veltrax_point_transform), RECORD(datum_transform), RECORD(Coordinate_System),
        {L"OPENFILENAME", sizeof(vxTypes32_OPENFILENAME)}, {L"CHOOSECOLOR", sizeof(vxTypes32_CHOOSECOLOR)},
        RECORD(BrowseInfo), RECORD(Veltrax_posting_file), RECORD(Veltrax_posting_field),
        RECORD(Veltrax_posting_source), RECORD(Veltrax_facet_file)};
    ITypeLib *library = NULL;
    HRESULT hr = LoadRegTypeLib(&LIBID_vxTypes32, 1, 2, 0, &library);
    CHECK(hr == S_OK, "the registered type library");
    for (size_t i = 0; library && i < sizeof records / sizeof records[0]; ++i) {
        ITypeInfo *info = NULL; TYPEATTR *attributes = NULL; MEMBERID id = 0; USHORT found = 1;
        wchar_t name[64]; char what[96];
        hr = library->lpVtbl->FindName(library, wcscpy(name, records[i].name), 0, &info, &id, &found);
        if (hr == S_OK && found == 1) hr = info->lpVtbl->GetTypeAttr(info, &attributes);
        snprintf(what, sizeof what, "the size of %ls (%u in the header)", records[i].name, (unsigned)records[i].size);
        CHECK(hr == S_OK && attributes && attributes->cbSizeInstance == records[i].size, what);
        if (attributes) info->lpVtbl->ReleaseTypeAttr(info, attributes);
        if (info) info->lpVtbl->Release(info);
    }
    if (library) library->lpVtbl->Release(library);
}

int main(void) {
    HRESULT hr = CoInitializeEx(NULL, COINIT_APARTMENTTHREADED);
    CHECK(SUCCEEDED(hr), "CoInitializeEx");
    use_classes();
    check_record_sizes();
    CoUninitialize();
    if (failures == 0) printf("PASS: kit_client\n");
    return failures;
}
