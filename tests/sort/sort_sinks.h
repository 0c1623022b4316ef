// Sinks for clsQuickSort's events, built the way a compiled VB client builds its WithEvents sink: an
// IDispatch that also answers for the events interface and takes the events by DISPID. They keep an item
// store of their own, addressed by the sorter's indices, and, as VB handlers do, leave the answer alone
// for two equal items.
#pragma once

#include "support/component.h"
#include "vxTypes32_types.h"

#include <olectl.h>

#include <functional>
#include <string>
#include <vector>

namespace vx::test {
namespace sort_event = ::dispid::__clsQuickSort;

// Events as the sinks write them down: "isLess(1,3)", "SwapItems(1,3)".
using event_list = std::vector<std::string>;
// The worked example: the events of sorting 3, 1, 2 at indices 1 to 3.
inline const event_list worked_example = {"isLess(1,3)", "SwapItems(1,3)", "isLess(1,3)", "isLess(2,3)",
                                          "isLess(3,3)", "isLess(1,2)",    "SwapItems(1,2)"};

// Items at indices base, base + 1, ...
struct item_store {
    LONG base = 1;
    std::vector<int> values;
    int& at(LONG index) {
        static int nowhere;
        const long long offset = static_cast<long long>(index) - base;
        if (offset >= 0 && offset < static_cast<long long>(values.size())) return values[static_cast<size_t>(offset)];
        return ADD_FAILURE() << "an event named index " << index << ", outside the range", nowhere;
    }
};

// Fails on any call it does not expect, and when it is let go with a reference still held.
class recording_sink final : public IDispatch {
public:
    explicit recording_sink(item_store* store) : store_(store) {}
    ~recording_sink() { EXPECT_EQ(0, references_) << "the sorter kept a reference to a sink"; }
    event_list* log = nullptr;  // where events are written, if anywhere
    // Runs before the sink's own handling; a failure is returned as is.
    std::function<HRESULT(DISPID, LONG, LONG, SHORT*, EXCEPINFO*)> before;
    long events = 0;
    bool script_like = false;  // answers only for IDispatch, as script hosts' sinks do

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
        const bool known = iid == IID_IUnknown || iid == IID_IDispatch || (iid == DIID___clsQuickSort && !script_like);
        return (*object = known ? static_cast<IDispatch*>(this) : nullptr) ? AddRef(), S_OK : E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(++references_); }
    ULONG STDMETHODCALLTYPE Release() override { return static_cast<ULONG>(--references_); }
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT*) override { return unexpected("GetTypeInfoCount"); }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return unexpected("GetTypeInfo"); }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return unexpected("names"); }
    // isLess is (ndx1, ndx2, ByRef Integer), SwapItems is (ndx1, ndx2); the arguments come last to first.
    HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID iid, LCID, WORD flags, DISPPARAMS* params, VARIANT*,
                                     EXCEPINFO* exception, UINT*) override {
        ++events;
        const bool is_less = id == sort_event::isLess;
        const UINT count = is_less ? 3 : 2;
        if ((!is_less && id != sort_event::SwapItems) || params->cArgs != count || params->cNamedArgs ||
            flags != DISPATCH_METHOD || iid != IID_NULL)
            return unexpected("an event of that shape");
        const VARIANT &first = params->rgvarg[count - 1], &second = params->rgvarg[count - 2];
        EXPECT_TRUE(first.vt == VT_I4 && second.vt == VT_I4 && (!is_less || params->rgvarg[0].vt == (VT_BYREF | VT_I2)));
        SHORT* answer = is_less ? params->rgvarg[0].piVal : nullptr;
        if (log) log->push_back((is_less ? "isLess(" : "SwapItems(") + std::to_string(first.lVal) + "," +
                                std::to_string(second.lVal) + ")");
        const HRESULT hr = before ? before(id, first.lVal, second.lVal, answer, exception) : S_OK;
        if (hr != S_OK || !store_) return hr;
        int &a = store_->at(first.lVal), &b = store_->at(second.lVal);
        if (!is_less) std::swap(a, b);
        else if (a != b) *answer = a < b ? -1 : 1;
        return S_OK;
    }
private:
    HRESULT unexpected(const char* what) { return ADD_FAILURE() << "the sink was not expecting " << what, E_UNEXPECTED; }
    item_store* store_;
    long references_ = 0;
};

// A sorter and its one connection point.
struct connected_sorter {
    com_ptr<_clsQuickSort> sorter;
    com_ptr<IConnectionPoint> point;
    explicit connected_sorter(com_ptr<_clsQuickSort> made) : sorter(std::move(made)) {
        auto container = sorter.query<IConnectionPointContainer>(IID_IConnectionPointContainer);
        EXPECT_EQ(S_OK, container ? container->FindConnectionPoint(DIID___clsQuickSort, point.put()) : E_NOINTERFACE);
    }
    DWORD advise(IUnknown* sink) {
        DWORD cookie = 0;
        EXPECT_EQ(S_OK, point->Advise(sink, &cookie));
        return cookie;
    }
};
inline connected_sorter new_sorter() { return connected_sorter(create<_clsQuickSort>(CLSID_clsQuickSort, IID__clsQuickSort)); }

}  // namespace vx::test
