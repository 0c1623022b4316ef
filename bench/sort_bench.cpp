// clsQuickSort: events per second into a C++ sink, and what the sorter adds
// over a loop that raises the same number of bare events on the same sink.
// Prints figures; asserts nothing.
#include "frame/class_table.h"
#include "frame/handles.h"
#include "vxTypes32_types.h"

#include <ocidl.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>
#include <vector>

namespace {

using clock_type = std::chrono::steady_clock;

// The cheapest sink that still does the work: compares and swaps ints.
class int_sink final : public IDispatch {
public:
    std::vector<int> items;  // index 1 is items[0]
    long long comparisons = 0, swaps = 0;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
        *object = IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IDispatch) ? this : nullptr;
        return *object ? S_OK : E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID, LCID, WORD, DISPPARAMS* p, VARIANT*, EXCEPINFO*,
                                     UINT*) override {
        if (id == 1) {
            ++comparisons;
            const int a = items[p->rgvarg[2].lVal - 1], b = items[p->rgvarg[1].lVal - 1];
            *p->rgvarg[0].piVal = static_cast<SHORT>((a > b) - (a < b));
        } else {
            ++swaps;
            std::swap(items[p->rgvarg[1].lVal - 1], items[p->rgvarg[0].lVal - 1]);
        }
        return S_OK;
    }
};

std::vector<int> input(const char* kind, int n) {
    std::vector<int> v(n);
    std::mt19937 random(12345);
    for (int i = 0; i < n; ++i) v[i] = i;
    if (kind[0] == 'r') std::shuffle(v.begin(), v.end(), random);
    if (kind[0] == 'a') std::fill(v.begin(), v.end(), 7);
    return v;
}

// The same numbers of isLess and SwapItems events as the sort raised,
// straight into the sink, with argument lists made once as the sorter does.
double bare_events_seconds(int_sink& sink, long long comparisons, long long swaps, int n) {
    SHORT answer = 0;
    VARIANT is_less[3] = {}, swap[2] = {};
    is_less[0].vt = VT_BYREF | VT_I2;
    is_less[0].piVal = &answer;
    DISPPARAMS is_less_params = {is_less, nullptr, 3, 0}, swap_params = {swap, nullptr, 2, 0};
    EXCEPINFO exception = {};
    UINT argument_error = 0;
    // Called through the interface, as the sorter calls it, not inlined.
    IDispatch* volatile opaque = &sink;
    IDispatch* const target = opaque;
    const auto start = clock_type::now();
    LONG a = 1, b = n;
    for (long long i = 0; i < comparisons; ++i) {
        answer = 0;
        is_less[2].vt = is_less[1].vt = VT_I4;
        is_less[2].lVal = a;
        is_less[1].lVal = b;
        target->Invoke(1, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &is_less_params, nullptr, &exception,
                       &argument_error);
        if (++a > n) a = 1;
    }
    for (long long i = 0; i < swaps; ++i) {
        swap[1].vt = swap[0].vt = VT_I4;
        swap[1].lVal = a;
        swap[0].lVal = b;
        target->Invoke(2, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &swap_params, nullptr, &exception,
                       &argument_error);
        if (++a > n) a = 1;
    }
    return std::chrono::duration<double>(clock_type::now() - start).count();
}

}  // namespace

int main() {
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    const vx::class_entry* entry = vx::find_class(CLSID_clsQuickSort);
    vx::com_ptr<_clsQuickSort> sorter;
    entry->create(*entry, IID__clsQuickSort, sorter.put_void());
    vx::com_ptr<IConnectionPointContainer> container =
        sorter.query<IConnectionPointContainer>(IID_IConnectionPointContainer);
    vx::com_ptr<IConnectionPoint> point;
    container->FindConnectionPoint(DIID___clsQuickSort, point.put());

    struct run {
        const char* kind;
        int n;
    };
    const run runs[] = {{"random", 1000},    {"random", 10000},   {"random", 100000}, {"presorted", 1000},
                        {"presorted", 4000}, {"all-equal", 1000}, {"all-equal", 4000}};
    std::printf("  clsQuickSort into a C++ sink (best of 5)\n");
    std::printf("  %-10s %7s %12s %14s %12s %9s\n", "input", "items", "events", "events/s", "bare/s", "overhead");
    for (const run& r : runs) {
        double best_sort = 1e300, best_bare = 1e300;
        long long events = 0;
        for (int round = 0; round < 5; ++round) {
            int_sink sink;
            sink.items = input(r.kind, r.n);
            DWORD cookie = 0;
            point->Advise(&sink, &cookie);
            const auto start = clock_type::now();
            sorter->Sort(r.n, 1);
            const double sorting = std::chrono::duration<double>(clock_type::now() - start).count();
            point->Unadvise(cookie);
            if (!std::is_sorted(sink.items.begin(), sink.items.end())) std::printf("  not sorted!\n");
            const long long comparisons = sink.comparisons, swaps = sink.swaps;
            events = comparisons + swaps;
            int_sink bare;
            bare.items = input(r.kind, r.n);
            best_bare = std::min(best_bare, bare_events_seconds(bare, comparisons, swaps, r.n));
            best_sort = std::min(best_sort, sorting);
        }
        std::printf("  %-10s %7d %12lld %12.1fM %10.1fM %8.1f%%\n", r.kind, r.n, events, events / best_sort / 1e6,
                    events / best_bare / 1e6, (best_sort / best_bare - 1) * 100);
    }
    sorter.reset();
    point.reset();
    container.reset();
    CoUninitialize();
    return 0;
}
