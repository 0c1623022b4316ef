// clsQuickSort: the exact events of a sort, the order it leaves, the
// overflow of its index arithmetic, runtime, and what the sinks see.
#include "frame/runtime.h"
#include "sort/sort_sinks.h"

#include <algorithm>
#include <climits>
#include <optional>
#include <random>

namespace vx::test {
namespace {

using event_list = std::vector<std::string>;

// The scheme as the contract states it, with plain recursion: the oracle
// for the event sequence of larger ranges.
class reference_sort {
public:
    explicit reference_sort(item_store store) : store_(std::move(store)) {}
    event_list events;
    item_store store_;

    void sort_range(LONG lo, LONG hi) {
        if (lo >= hi) return;
        LONG p;
        if (!partition(lo, hi, p)) return;
        sort_range(lo, p - 1);
        sort_range(p + 1, hi);
    }

private:
    int is_less(LONG a, LONG b) {
        events.push_back("isLess(" + std::to_string(a) + "," + std::to_string(b) + ")");
        const int x = store_.at(a), y = store_.at(b);
        return x < y ? -1 : x > y ? 1 : 0;
    }
    void swap_items(LONG a, LONG b) {
        events.push_back("SwapItems(" + std::to_string(a) + "," + std::to_string(b) + ")");
        std::swap(store_.at(a), store_.at(b));
    }
    bool partition(LONG lo, LONG hi, LONG& result) {
        if (hi <= lo) return false;
        if (hi - lo == 1) {
            if (is_less(lo, hi) > 0) swap_items(lo, hi);
            return false;
        }
        LONG l = lo, r = hi, p = lo;
    step4:
        if (l >= r) {
            result = p;
            return true;
        }
        {
            int answer = is_less(p, r);
            while (answer <= 0 && r > l) answer = is_less(p, --r);
            if (r != p) {
                swap_items(l, r);
                if (l == p) p = r;
            }
            answer = is_less(l, p);
            while (answer < 0 && l < r) answer = is_less(++l, p);
            if (l == p) goto step4;
            swap_items(l, r);
            if (p == r) p = l;
            goto step4;
        }
    }
};

struct sort_outcome {
    HRESULT hr;
    event_list events;
    std::vector<int> order;
};

// Sorts through the vtable, or through IDispatch without firstNdx.
sort_outcome run_sort(item_store store, LONG last, std::optional<LONG> first,
                      answer_style style = answer_style::three_way) {
    connected_sorter s = new_sorter();
    sort_outcome outcome{};
    recording_sink sink(&store, style);
    sink.log = &outcome.events;
    const DWORD cookie = s.advise(&sink);
    if (first) {
        outcome.hr = s.sorter->Sort(last, *first);
    } else {
        VARIANT argument;
        argument.vt = VT_I4;
        argument.lVal = last;
        DISPPARAMS params = {&argument, nullptr, 1, 0};
        outcome.hr = s.sorter->Invoke(0x60030002, IID_NULL, 0, DISPATCH_METHOD, &params, nullptr, nullptr, nullptr);
    }
    s.point->Unadvise(cookie);
    outcome.order = store.values;
    return outcome;
}

TEST(QuickSortEvents, ShortRangesAndWorkedExamplesGiveExactlyTheContractedEvents) {
    struct case_ {
        const char* name;
        std::vector<int> items;  // at indices 1, 2, ...
        LONG last;
        std::optional<LONG> first;  // none: left to its default through IDispatch
        event_list events;
        std::vector<int> order;
    };
    const case_ cases[] = {
        {"3, 1, 2", {3, 1, 2}, 3, std::nullopt,
         {"isLess(1,3)", "SwapItems(1,3)", "isLess(1,3)", "isLess(2,3)", "isLess(3,3)", "isLess(1,2)",
          "SwapItems(1,2)"},
         {1, 2, 3}},
        {"2, 2, 1", {2, 2, 1}, 3, 1,
         {"isLess(1,3)", "SwapItems(1,3)", "isLess(1,3)", "isLess(2,3)", "SwapItems(2,3)", "isLess(2,3)",
          "isLess(2,2)", "isLess(2,2)"},
         {1, 2, 2}},
        {"Sort(1)", {5}, 1, std::nullopt, {}, {5}},
        {"Sort(0)", {5}, 0, std::nullopt, {}, {5}},
        {"lastNdx below firstNdx", {9, 8, 7}, 1, 3, {}, {9, 8, 7}},
        {"two items out of order", {2, 1}, 2, std::nullopt, {"isLess(1,2)", "SwapItems(1,2)"}, {1, 2}},
        {"two items in order", {1, 2}, 2, 1, {"isLess(1,2)"}, {1, 2}},
        {"two equal items", {4, 4}, 2, 1, {"isLess(1,2)"}, {4, 4}},
    };
    for (const case_& c : cases) {
        const sort_outcome got = run_sort({1, c.items}, c.last, c.first);
        EXPECT_EQ(S_OK, got.hr) << c.name;
        EXPECT_EQ(c.events, got.events) << c.name;
        EXPECT_EQ(c.order, got.order) << c.name;
    }
}

TEST(QuickSortEvents, LargerRangesFollowTheRecursiveSchemeAndEndSorted) {
    std::mt19937 random(20240611);
    auto permutation = [&](int n) {
        std::vector<int> v(n);
        for (int i = 0; i < n; ++i) v[i] = i;
        std::shuffle(v.begin(), v.end(), random);
        return v;
    };
    auto with_duplicates = [&](int n) {
        std::vector<int> v(n);
        for (int& x : v) x = static_cast<int>(random() % 7);
        return v;
    };
    auto ascending = [](int n) {
        std::vector<int> v(n);
        for (int i = 0; i < n; ++i) v[i] = i;
        return v;
    };
    auto descending = [](int n) {
        std::vector<int> v(n);
        for (int i = 0; i < n; ++i) v[i] = n - i;
        return v;
    };
    struct case_ {
        const char* name;
        LONG first;
        std::vector<int> items;
    };
    const case_ cases[] = {
        {"random permutation of 300", 1, permutation(300)},
        {"random keys with duplicates", 1, with_duplicates(200)},
        {"presorted 150", 1, ascending(150)},
        {"reverse-sorted 150", 1, descending(150)},
        {"all equal 60", 1, std::vector<int>(60, 3)},
        {"indices -5 to 5", -5, permutation(11)},
        {"indices from 0", 0, permutation(40)},
    };
    for (const case_& c : cases) {
        const LONG last = c.first + static_cast<LONG>(c.items.size()) - 1;
        reference_sort reference({c.first, c.items});
        reference.sort_range(c.first, last);
        std::vector<int> sorted = c.items;
        std::sort(sorted.begin(), sorted.end());

        const sort_outcome got = run_sort({c.first, c.items}, last, c.first);
        EXPECT_EQ(S_OK, got.hr) << c.name;
        EXPECT_EQ(sorted, got.order) << c.name;
        EXPECT_EQ(reference.events.size(), got.events.size()) << c.name;
        EXPECT_TRUE(reference.events == got.events) << c.name << ": the event sequences differ";
    }
}

// Presorted or all-equal n >= 2 items: each partition of k >= 3 items asks
// k + 1 times and leaves the pivot first; the last two items ask once.
long long presorted_comparisons(long long n) { return n * (n + 1) / 2 + n - 4; }

TEST(QuickSortEvents, PresortedAndEqualRangesCostTheQuadraticCountWithoutSwaps) {
    struct case_ {
        const char* name;
        int n;
        bool all_equal;
    };
    const case_ cases[] = {{"3 presorted", 3, false}, {"10 presorted", 10, false}, {"1000 presorted", 1000, false},
                           {"3 equal", 3, true},      {"500 equal", 500, true}};
    for (const case_& c : cases) {
        item_store store{1, std::vector<int>(c.n)};
        for (int i = 0; i < c.n; ++i) store.values[i] = c.all_equal ? 7 : i;
        long comparisons = 0, swaps = 0;
        recording_sink sink(&store);
        sink.before = [&](DISPID id, LONG, LONG, SHORT*, EXCEPINFO*) {
            ++(id == 1 ? comparisons : swaps);
            return S_OK;
        };
        connected_sorter s = new_sorter();
        const DWORD cookie = s.advise(&sink);
        EXPECT_EQ(S_OK, s.sorter->Sort(c.n, 1)) << c.name;
        s.point->Unadvise(cookie);
        EXPECT_EQ(presorted_comparisons(c.n), comparisons) << c.name;
        EXPECT_EQ(0, swaps) << c.name;
    }
}

TEST(QuickSortEvents, AnswersThatNeverSayAfterLeaveTheStoreAsItWas) {
    const std::vector<int> unsorted = {5, 3, 9, 1, 7, 2, 8};
    for (answer_style style : {answer_style::less_or_zero, answer_style::left_unset}) {
        const char* name = style == answer_style::less_or_zero ? "answers -1 or 0" : "never answers";
        const sort_outcome got = run_sort({1, unsorted}, 7, 1, style);
        EXPECT_EQ(S_OK, got.hr) << name;
        EXPECT_EQ(unsorted, got.order) << name;
        EXPECT_EQ(0, std::count_if(got.events.begin(), got.events.end(),
                                   [](const std::string& e) { return e.rfind("SwapItems", 0) == 0; }))
            << name;
    }
}

TEST(QuickSortEvents, EveryConnectedSinkGetsEveryEventAndTheLastAnswerCounts) {
    connected_sorter s = new_sorter();
    event_list log;
    recording_sink first(nullptr), second(nullptr);
    first.log = second.log = &log;
    first.name = "A:";
    second.name = "B:";
    SHORT* handed_to_first = nullptr;
    // The first sink says "after"; the second sees that, unchanged, through
    // the same variable and overrules it with "before".
    first.before = [&](DISPID id, LONG, LONG, SHORT* answer, EXCEPINFO*) {
        if (id == 1) {
            EXPECT_EQ(0, *answer) << "the answer is reset before each event";
            handed_to_first = answer;
            *answer = 1;
        }
        return S_OK;
    };
    second.before = [&](DISPID id, LONG, LONG, SHORT* answer, EXCEPINFO*) {
        if (id == 1) {
            EXPECT_EQ(handed_to_first, answer) << "both sinks get the sorter's one variable";
            EXPECT_EQ(1, *answer) << "nothing resets the answer between sinks";
            *answer = -1;
        }
        return S_OK;
    };
    const DWORD a = s.advise(&first), b = s.advise(&second);
    EXPECT_EQ(S_OK, s.sorter->Sort(4, 1));
    ASSERT_FALSE(log.empty());
    ASSERT_EQ(0u, log.size() % 2);
    for (size_t i = 0; i < log.size(); i += 2) {
        EXPECT_EQ("A:", log[i].substr(0, 2)) << "event " << i / 2;
        EXPECT_EQ("B:" + log[i].substr(2), log[i + 1]) << "event " << i / 2;
        EXPECT_EQ(std::string::npos, log[i].find("SwapItems")) << "the last sink's answer decides";
    }
    s.point->Unadvise(a);
    s.point->Unadvise(b);
}

TEST(QuickSortEvents, WithNoSinkTheSortEndsNormally) {
    connected_sorter s = new_sorter();
    EXPECT_EQ(S_OK, s.sorter->put_runtime(-7));
    EXPECT_EQ(S_OK, s.sorter->Sort(100, 1));
    LONG runtime = -7;
    EXPECT_EQ(S_OK, s.sorter->get_runtime(&runtime));
    EXPECT_GE(runtime, 0) << "runtime is written by a completed sort";
}

TEST(QuickSortErrors, IndexArithmeticOverflowsWithError6) {
    struct case_ {
        const char* name;
        LONG last, first;
        item_store store;
        event_list events;  // raised before the error
    };
    const case_ cases[] = {
        {"full Long range", LONG_MAX, LONG_MIN, {1, {}}, {}},
        {"width one past the largest Long", LONG_MAX - 1, -2, {1, {}}, {}},
        {"width one past, from 0", LONG_MAX, -1, {1, {}}, {}},
        {"pivot at the smallest Long: p - 1", LONG_MIN + 2, LONG_MIN, {LONG_MIN, {1, 2, 3}},
         {"isLess(-2147483648,-2147483646)", "isLess(-2147483648,-2147483647)", "isLess(-2147483648,-2147483648)",
          "isLess(-2147483648,-2147483648)"}},
        {"pivot at the largest Long: p + 1 after the lower part", LONG_MAX, LONG_MAX - 2, {LONG_MAX - 2, {3, 1, 2}},
         {"isLess(2147483645,2147483647)", "SwapItems(2147483645,2147483647)", "isLess(2147483645,2147483647)",
          "isLess(2147483646,2147483647)", "isLess(2147483647,2147483647)", "isLess(2147483645,2147483646)",
          "SwapItems(2147483645,2147483646)"}},
    };
    for (const case_& c : cases) {
        item_store store = c.store;
        connected_sorter s = new_sorter();
        event_list log;
        recording_sink sink(&store);
        sink.log = &log;
        const DWORD cookie = s.advise(&sink);
        s.sorter->put_runtime(77);
        EXPECT_EQ(automation_error_number(6), s.sorter->Sort(c.last, c.first)) << c.name;
        const error_info error = take_error_info();
        EXPECT_EQ(L"clsQuickSort.Sort", error.source) << c.name;
        EXPECT_EQ(L"Overflow", error.description) << c.name;
        EXPECT_EQ(c.events, log) << c.name;
        LONG runtime = 0;
        s.sorter->get_runtime(&runtime);
        EXPECT_EQ(77, runtime) << c.name << ": a failed sort keeps the old runtime";
        s.point->Unadvise(cookie);
    }
}

TEST(QuickSortErrors, AFailingHandlerEndsTheSortWithItsError) {
    struct case_ {
        const char* name;
        HRESULT returned;
        WORD code;
        SCODE scode;
        const wchar_t* source;
        const wchar_t* description;
        HRESULT expected;
        std::wstring expected_source, expected_description;
    };
    const case_ cases[] = {
        {"raised error number", DISP_E_EXCEPTION, 1001, 0, L"Client", L"store is read-only",
         automation_error_number(1001), L"Client", L"store is read-only"},
        {"raised HRESULT", DISP_E_EXCEPTION, 0, E_ACCESSDENIED, L"Client", L"no", E_ACCESSDENIED, L"Client", L"no"},
        {"raised without source", DISP_E_EXCEPTION, 11, 0, nullptr, nullptr, automation_error_number(11),
         L"clsQuickSort.Sort", L"Division by zero"},
        {"plain failure", E_FAIL, 0, 0, nullptr, nullptr, E_FAIL, L"clsQuickSort.Sort", L"Automation error"},
    };
    for (const case_& c : cases) {
        item_store store{1, {3, 1, 2}};
        connected_sorter s = new_sorter();
        event_list log;
        recording_sink sink(&store);
        sink.log = &log;
        sink.before = [&](DISPID id, LONG, LONG, SHORT*, EXCEPINFO* exception) -> HRESULT {
            if (id != 2) return S_OK;  // the first swap fails
            if (c.returned == DISP_E_EXCEPTION) {
                exception->wCode = c.code;
                exception->scode = c.scode;
                exception->bstrSource = c.source ? SysAllocString(c.source) : nullptr;
                exception->bstrDescription = c.description ? SysAllocString(c.description) : nullptr;
            }
            return c.returned;
        };
        const DWORD cookie = s.advise(&sink);
        s.sorter->put_runtime(77);
        EXPECT_EQ(hex(c.expected), hex(s.sorter->Sort(3, 1))) << c.name;
        const error_info error = take_error_info();
        EXPECT_EQ(c.expected_source, error.source) << c.name;
        EXPECT_EQ(c.expected_description, error.description) << c.name;
        EXPECT_EQ((event_list{"isLess(1,3)", "SwapItems(1,3)"}), log) << c.name << ": nothing after the failure";
        LONG runtime = 0;
        s.sorter->get_runtime(&runtime);
        EXPECT_EQ(77, runtime) << c.name;
        s.point->Unadvise(cookie);
    }
}

TEST(QuickSortErrors, ASinkThatDoesNotKnowAnEventIsPassedOver) {
    for (HRESULT unknown : {DISP_E_MEMBERNOTFOUND, DISP_E_UNKNOWNNAME}) {
        item_store store{1, {3, 1, 2}};
        connected_sorter s = new_sorter();
        recording_sink ignorant(nullptr), worker(&store);
        ignorant.before = [&](DISPID, LONG, LONG, SHORT*, EXCEPINFO*) { return unknown; };
        const DWORD first = s.advise(&ignorant), second = s.advise(&worker);
        EXPECT_EQ(S_OK, s.sorter->Sort(3, 1)) << hex(unknown);
        EXPECT_EQ((std::vector<int>{1, 2, 3}), store.values) << hex(unknown);
        EXPECT_EQ(7, ignorant.events) << hex(unknown) << ": the events of the worked example";
        EXPECT_EQ(7, worker.events) << hex(unknown) << ": the next sink still gets each event";
        s.point->Unadvise(first);
        s.point->Unadvise(second);
    }
}

// The clock as a list of readings, one per call.
const float* clock_readings = nullptr;
int clock_calls = 0;
float next_reading() { return clock_readings[clock_calls++]; }

TEST(QuickSortRuntime, WholeSecondStartHalvesToEvenAndTheMidnightWrap) {
    struct case_ {
        const char* name;
        float start, end;
        LONG runtime;
    };
    const case_ cases[] = {
        {"100.4 to 100.8", 100.4f, 100.8f, 1},
        {"86399.8 to 0.3 the next day", 86399.8f, 0.3f, 0},
        {"86399.4 to 5 the next day", 86399.4f, 5.0f, 6},
        {"start 2.5 rounds to 2, 1.5 to 2", 2.5f, 3.5f, 2},
        {"start 3.5 rounds to 4, 0.5 to 0", 3.5f, 4.5f, 0},
        {"no time at all", 10.0f, 10.0f, 0},
        {"an hour", 3600.0f, 7200.25f, 3600},
    };
    for (const case_& c : cases) {
        const float readings[] = {c.start, c.end};
        clock_readings = readings;
        clock_calls = 0;
        const scoped_time_of_day_source clock(&next_reading);
        com_ptr<_clsQuickSort> sorter = create_local<_clsQuickSort>(CLSID_clsQuickSort, IID__clsQuickSort);
        LONG runtime = -1;
        sorter->get_runtime(&runtime);
        EXPECT_EQ(0, runtime) << c.name << ": a new sorter";
        EXPECT_EQ(S_OK, sorter->Sort(3, 1)) << c.name;
        EXPECT_EQ(2, clock_calls) << c.name << ": the clock is read at the start and the end";
        sorter->get_runtime(&runtime);
        EXPECT_EQ(c.runtime, runtime) << c.name;
    }
}

// A sink that only sorts: for the deep run, where the recording sink would
// be slow.
class counting_sink final : public IDispatch {
public:
    explicit counting_sink(const std::vector<int>& items) : items_(items) {}
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
            const int a = items_[p->rgvarg[2].lVal - 1], b = items_[p->rgvarg[1].lVal - 1];
            *p->rgvarg[0].piVal = a < b ? -1 : a > b ? 1 : 0;
        } else {
            ++swaps;
            std::swap(items_[p->rgvarg[1].lVal - 1], items_[p->rgvarg[0].lVal - 1]);
        }
        return S_OK;
    }

private:
    std::vector<int> items_;
};

struct deep_run {
    int n;
    HRESULT hr = E_UNEXPECTED;
    long long comparisons = 0, swaps = 0;
};

DWORD WINAPI sort_on_small_stack(void* parameter) {
    auto* run = static_cast<deep_run*>(parameter);
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    {
        std::vector<int> items(run->n);
        for (int i = 0; i < run->n; ++i) items[i] = i;
        counting_sink sink(items);
        com_ptr<IClassFactory> factory;
        dll().get_class_object(CLSID_clsQuickSort, IID_IClassFactory, factory.put_void());
        com_ptr<_clsQuickSort> sorter;
        factory->CreateInstance(nullptr, IID__clsQuickSort, sorter.put_void());
        com_ptr<IConnectionPointContainer> container =
            sorter.query<IConnectionPointContainer>(IID_IConnectionPointContainer);
        com_ptr<IConnectionPoint> point;
        container->FindConnectionPoint(DIID___clsQuickSort, point.put());
        DWORD cookie = 0;
        point->Advise(&sink, &cookie);
        run->hr = sorter->Sort(run->n, 1);
        point->Unadvise(cookie);
        run->comparisons = sink.comparisons;
        run->swaps = sink.swaps;
    }
    CoUninitialize();
    return 0;
}

TEST(QuickSortDepth, APresortedRangeOf20000SortsOnA64KiBStack) {
    dll();  // loaded here, not on the small stack
    deep_run run{20000};
    const HANDLE thread =
        CreateThread(nullptr, 64 * 1024, sort_on_small_stack, &run, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
    ASSERT_NE(nullptr, thread);
    WaitForSingleObject(thread, INFINITE);
    DWORD code = 1;
    GetExitCodeThread(thread, &code);
    CloseHandle(thread);
    EXPECT_EQ(0u, code) << "the thread did not end normally";
    EXPECT_EQ(S_OK, run.hr);
    EXPECT_EQ(presorted_comparisons(run.n), run.comparisons);
    EXPECT_EQ(0, run.swaps);
}

}  // namespace
}  // namespace vx::test
