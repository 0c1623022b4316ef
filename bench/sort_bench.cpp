// clsQuickSort: events per second into a C++ sink, and what the sorter adds
// over a loop that raises the very same events on the same sink.
// Prints figures; asserts nothing.

// Every loop here calls the sink through its vtable, as the sorter must:
// the compiler is not to guess the sink's class and inline its Invoke.
#pragma GCC optimize("no-devirtualize-speculatively")

#include "frame/class_table.h"
#include "frame/handles.h"
#include "vxTypes32_types.h"

#include <cpuid.h>
#include <ocidl.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <random>
#include <utility>
#include <vector>

namespace {

using clock_type = std::chrono::steady_clock;

double seconds_since(clock_type::time_point start) {
    return std::chrono::duration<double>(clock_type::now() - start).count();
}

namespace sort_event = ::dispid::__clsQuickSort;

// One event as the sink heard it.
struct traced_event {
    DISPID id;
    LONG first, second;
};

// The cheapest sink that still does the work: compares and swaps ints. With
// a trace, it also writes down each event it hears.
class int_sink final : public IDispatch {
public:
    std::vector<int> items;  // index 1 is items[0]
    std::vector<traced_event>* trace = nullptr;

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
        const LONG first = p->rgvarg[p->cArgs - 1].lVal, second = p->rgvarg[p->cArgs - 2].lVal;
        if (trace) trace->push_back({id, first, second});
        if (id == sort_event::isLess) {
            const int a = items[first - 1], b = items[second - 1];
            *p->rgvarg[0].piVal = static_cast<SHORT>((a > b) - (a < b));
        } else {
            std::swap(items[first - 1], items[second - 1]);
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

constexpr int minimum_rounds = 9;
constexpr double minimum_seconds = 0.5;

volatile long answers_seen;  // keeps the read-back of each answer

// The sort's own events, replayed in order straight into the sink with
// argument lists made once. Each isLess resets the answer and reads it
// back, as any caller that uses the answer must.
__attribute__((noipa)) double bare_events_seconds(
    IDispatch* target, const std::vector<traced_event>& events) {
    SHORT answer = 0;
    VARIANT is_less[3] = {}, swap[2] = {};
    DISPPARAMS is_less_params = {is_less, nullptr, 3, 0}, swap_params = {swap, nullptr, 2, 0};
    EXCEPINFO exception = {};
    UINT argument_error = 0;
    long answers = 0;
    const auto start = clock_type::now();
    for (const traced_event& event : events) {
        if (event.id == sort_event::SwapItems) {
            swap[1].vt = swap[0].vt = VT_I4;
            swap[1].lVal = event.first;
            swap[0].lVal = event.second;
            target->Invoke(sort_event::SwapItems, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &swap_params, nullptr,
                           &exception, &argument_error);
        } else {
            answer = 0;
            is_less[0].vt = VT_BYREF | VT_I2;
            is_less[0].piVal = &answer;
            is_less[2].vt = is_less[1].vt = VT_I4;
            is_less[2].lVal = event.first;
            is_less[1].lVal = event.second;
            target->Invoke(sort_event::isLess, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &is_less_params,
                           nullptr, &exception, &argument_error);
            answers += answer;
        }
    }
    const double elapsed = seconds_since(start);
    answers_seen = answers;
    return elapsed;
}

// The published scheme written straight against the sink, with nothing of
// the object around it: no connection point, no error handling. The sort
// against this shows what its machinery costs; this against the replay
// shows what the scheme itself costs, each next event waiting on the last
// answer.
class plain_scheme {
public:
    explicit plain_scheme(IDispatch* target) : target_(target) {}

    void sort(LONG lo, LONG hi) {
        std::vector<std::pair<LONG, LONG>> upper_parts;
        for (;;) {
            LONG pivot;
            while (lo < hi && partition(lo, hi, pivot)) {
                if (hi - pivot >= 2) upper_parts.push_back({pivot + 1, hi});
                hi = pivot - 1;
            }
            if (upper_parts.empty()) return;
            lo = upper_parts.back().first;
            hi = upper_parts.back().second;
            upper_parts.pop_back();
        }
    }

private:
    SHORT compare(LONG first, LONG second) {
        answer_ = 0;
        is_less_[0].vt = VT_BYREF | VT_I2;
        is_less_[0].piVal = &answer_;
        is_less_[2].vt = is_less_[1].vt = VT_I4;
        is_less_[2].lVal = first;
        is_less_[1].lVal = second;
        target_->Invoke(1, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &is_less_params_, nullptr, &exception_,
                        &argument_error_);
        return answer_;
    }
    void swap(LONG first, LONG second) {
        swap_[1].vt = swap_[0].vt = VT_I4;
        swap_[1].lVal = first;
        swap_[0].lVal = second;
        target_->Invoke(2, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &swap_params_, nullptr, &exception_,
                        &argument_error_);
    }
    bool partition(LONG lo, LONG hi, LONG& pivot) {
        if (hi - lo == 1) {
            if (compare(lo, hi) > 0) swap(lo, hi);
            return false;
        }
        LONG left = lo, right = hi, at = lo;
        while (left < right) {
            SHORT answer = compare(at, right);
            while (answer <= 0 && right > left) answer = compare(at, --right);
            if (right != at) {
                swap(left, right);
                if (left == at) at = right;
            }
            answer = compare(left, at);
            while (answer < 0 && left < right) answer = compare(++left, at);
            if (left == at) continue;
            swap(left, right);
            if (at == right) at = left;
        }
        pivot = at;
        return true;
    }

    IDispatch* target_;
    SHORT answer_ = 0;
    VARIANT is_less_[3] = {}, swap_[2] = {};
    DISPPARAMS is_less_params_ = {is_less_, nullptr, 3, 0}, swap_params_ = {swap_, nullptr, 2, 0};
    EXCEPINFO exception_ = {};
    UINT argument_error_ = 0;
};

__attribute__((noipa)) double plain_scheme_seconds(IDispatch* target,
                                                                                                int n) {
    const auto start = clock_type::now();
    plain_scheme(target).sort(1, n);
    return seconds_since(start);
}

void print_machine() {
    unsigned brand[12] = {};
    if (__get_cpuid_max(0x80000000, nullptr) >= 0x80000004)
        for (unsigned leaf = 0; leaf < 3; ++leaf)
            __get_cpuid(0x80000002 + leaf, &brand[leaf * 4], &brand[leaf * 4 + 1], &brand[leaf * 4 + 2],
                        &brand[leaf * 4 + 3]);
    char name[49] = {};
    std::memcpy(name, brand, sizeof brand);
    SYSTEM_INFO system;
    GetNativeSystemInfo(&system);
    std::printf("  machine: %s, %lu processors\n", name[0] ? name : "unknown processor", system.dwNumberOfProcessors);
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
    print_machine();
    std::printf("  clsQuickSort into a C++ sink (best of at least 9 alternating rounds)\n");
    std::printf("  %-10s %7s %10s %10s %10s %9s %10s %9s\n", "input", "items", "events", "sort/s", "bare/s",
                "overhead", "plain/s", "vs plain");
    for (const run& r : runs) {
        std::vector<traced_event> events;
        {
            int_sink tracer;
            tracer.items = input(r.kind, r.n);
            tracer.trace = &events;
            DWORD cookie = 0;
            point->Advise(&tracer, &cookie);
            sorter->Sort(r.n, 1);
            point->Unadvise(cookie);
        }
        // Alternating rounds, the best of each kept, until both have had
        // enough time that a quiet moment came for each.
        double best_sort = 1e300, best_bare = 1e300, best_plain = 1e300, spent = 0;
        for (int round = 0; round < minimum_rounds || spent < minimum_seconds; ++round) {
            int_sink sink;
            sink.items = input(r.kind, r.n);
            DWORD cookie = 0;
            point->Advise(&sink, &cookie);
            const auto start = clock_type::now();
            sorter->Sort(r.n, 1);
            const double sorting = seconds_since(start);
            point->Unadvise(cookie);
            if (!std::is_sorted(sink.items.begin(), sink.items.end())) std::printf("  not sorted!\n");

            int_sink bare;
            bare.items = input(r.kind, r.n);
            const double replaying = bare_events_seconds(&bare, events);
            if (bare.items != sink.items) std::printf("  the replay went astray!\n");

            int_sink plain;
            plain.items = input(r.kind, r.n);
            const double plain_sorting = plain_scheme_seconds(&plain, r.n);
            if (plain.items != sink.items) std::printf("  the plain scheme went astray!\n");

            best_sort = std::min(best_sort, sorting);
            best_bare = std::min(best_bare, replaying);
            best_plain = std::min(best_plain, plain_sorting);
            spent += sorting + replaying + plain_sorting;
        }
        const double count = static_cast<double>(events.size());
        std::printf("  %-10s %7d %10.0f %9.1fM %9.1fM %8.1f%% %9.1fM %8.1f%%\n", r.kind, r.n, count,
                    count / best_sort / 1e6, count / best_bare / 1e6, (best_sort / best_bare - 1) * 100,
                    count / best_plain / 1e6, (best_sort / best_plain - 1) * 100);
    }
    sorter.reset();
    point.reset();
    container.reset();
    CoUninitialize();
    return 0;
}
