// Every class used from a multi-threaded apartment (as a .NET or PowerShell console uses it) while it lives in
// the single-threaded apartment that made it: calls go through the marshaller built from the registered type
// library, clsQuickSort's events come back across, and an error's number and description reach the caller.
#include "frame/class_table.h"
#include "sort/sort_sinks.h"

#include <atomic>
#include <thread>
#include <vector>

namespace vx::test {
namespace {

// The class's first property read without arguments, through its vtable slot (the platform's ITypeInfo::Invoke
// of the interface's vtable form): the proxy's own method for it carries the call. S_FALSE for a class with none.
HRESULT first_property(ITypeLib* library, const class_entry& c, IUnknown* proxy) {
    com_ptr<ITypeInfo> dispatch, info;
    HREFTYPE vtable_form = 0;
    TYPEATTR* attr = nullptr;
    library->GetTypeInfoOfGuid(*c.interface_id, dispatch.put());
    dispatch->GetRefTypeOfImplType(-1, &vtable_form);
    dispatch->GetRefTypeInfo(vtable_form, info.put());
    info->GetTypeAttr(&attr);
    HRESULT hr = S_FALSE;
    for (UINT f = 0; f < attr->cFuncs && hr == S_FALSE; ++f) {
        FUNCDESC* d = nullptr;
        info->GetFuncDesc(f, &d);
        if (d->invkind == INVOKE_PROPERTYGET && d->cParams == 1) {
            DISPPARAMS none = {};
            unique_variant value;
            hr = info->Invoke(proxy, d->memid, DISPATCH_PROPERTYGET, &none, value.get(), nullptr, nullptr);
        }
        info->ReleaseFuncDesc(d);
    }
    info->ReleaseTypeAttr(attr);
    return hr;
}

// What the caller in the multi-threaded apartment does with the proxies.
void use_from_another_apartment(ITypeLib* library, const std::vector<IStream*>& streams) {
    std::vector<com_ptr<IDispatch>> proxies(streams.size());
    for (const class_entry& c : class_table()) {
        const size_t i = &c - class_table_begin();
        ASSERT_EQ(S_OK, CoGetInterfaceAndReleaseStream(streams[i], *c.interface_id, proxies[i].put_void()))
            << narrow(c.name);
        EXPECT_TRUE(SUCCEEDED(first_property(library, c, proxies[i].get()))) << narrow(c.name);
        if (!c.source_interface) continue;
        // Events into a sink of this apartment, through a short sort; the sink checks each event's shape.
        connected_sorter s(proxies[i].query<_clsQuickSort>(IID__clsQuickSort));
        recording_sink sink(nullptr);
        const DWORD cookie = s.advise(&sink);
        EXPECT_EQ(S_OK, s.sorter->Sort(3, 1));
        EXPECT_GT(sink.events, 0) << narrow(c.name) << ": no event came across";
        s.point->Unadvise(cookie);
    }
    // An error raised late-bound: its number and description come back in EXCEPINFO. Through the vtable the
    // number comes back alone: Wine's marshaller carries no error info across (platform).
    const com_ptr<IDispatch>& complex = proxies[find_class(CLSID_CComplexNumber) - class_table_begin()];
    VARIANT zeros[2] = {};
    V_VT(&zeros[0]) = V_VT(&zeros[1]) = VT_R8;  // 0/0
    DISPPARAMS params = {zeros, nullptr, 2, 0};
    EXCEPINFO exception = {};
    unique_variant result;
    EXPECT_EQ(hex(DISP_E_EXCEPTION), hex(complex->Invoke(dispid::_CComplexNumber::Divide2, IID_NULL, 0, DISPATCH_METHOD,
                                                         &params, result.get(), &exception, nullptr)));
    EXPECT_TRUE(exception.scode == automation_error_number(6) && text_of(exception.bstrDescription) == L"Overflow")
        << hex(exception.scode) << " " << narrow(text_of(exception.bstrDescription));
    SysFreeString(exception.bstrSource), SysFreeString(exception.bstrDescription);
    double zero = 0;
    com_ptr<_CComplexNumber> quotient;
    EXPECT_EQ(hex(automation_error_number(6)),
              hex(complex.query<_CComplexNumber>(IID__CComplexNumber)->Divide2(&zero, &zero, quotient.put())));
}

TEST(Apartments, EveryClassFromAMultiThreadedApartmentThroughTheTypeLibraryMarshaller) {
    // Registered afresh, as installed: the DLL, and the VB runtime's library of cDIBSection's eRop (its stand-in).
    ASSERT_EQ(S_OK, dll().unregister_server());
    ASSERT_EQ(S_OK, dll().register_server());
    com_ptr<ITypeLib> standin, library;
    ASSERT_EQ(S_OK, LoadTypeLibEx(VX_STANDIN_TYPELIB, REGKIND_REGISTER, standin.put()));
    ASSERT_EQ(S_OK, LoadTypeLibEx(dll_path().c_str(), REGKIND_NONE, library.put()));
    std::vector<IStream*> streams;
    for (const class_entry& c : class_table()) {
        com_ptr<IUnknown> object;
        EXPECT_EQ(S_OK, CoCreateInstance(*c.clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, object.put_void()));
        EXPECT_EQ(S_OK, CoMarshalInterThreadInterfaceInStream(*c.interface_id, object.get(), &streams.emplace_back()))
            << narrow(c.name);
    }
    std::atomic<bool> done{false};
    std::thread caller([&] {
        CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        use_from_another_apartment(library.get(), streams);
        CoUninitialize();
        done = true;
    });
    // This apartment serves the calls while the caller waits on them.
    for (MSG message; !done; MsgWaitForMultipleObjects(0, nullptr, FALSE, 50, QS_ALLINPUT))
        while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) DispatchMessageW(&message);
    caller.join();
}

}  // namespace
}  // namespace vx::test
