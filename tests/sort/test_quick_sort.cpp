// clsQuickSort: the exact events of a sort, the order it leaves, the
// overflow of its index arithmetic, failing handlers, runtime.
#include "frame/runtime.h"
#include "sort/sort_sinks.h"

#include <climits>
#include <optional>

namespace vx::test {
namespace {

struct sort_outcome {
    HRESULT hr; event_list events; std::vector<int> order; error_info error;
    LONG runtime;  // 77 before the sort
};
using event_hook = std::function<HRESULT(DISPID, LONG, LONG, SHORT*, EXCEPINFO*)>;

// Sorts through the vtable, or through IDispatch without firstNdx, with one
// sink that keeps the store and stops a sort that runs past 100 events.
sort_outcome run_sort(const item_store& items, LONG last, std::optional<LONG> first, event_hook before = nullptr) {
    item_store store = items;
    connected_sorter s = new_sorter();
    sort_outcome outcome{};
    recording_sink sink(&store);
    sink.log = &outcome.events;
    sink.before = [&](DISPID id, LONG a, LONG b, SHORT* answer, EXCEPINFO* exception) {
        return outcome.events.size() > 100 ? E_ABORT : before ? before(id, a, b, answer, exception) : S_OK;
    };
    const DWORD cookie = s.advise(&sink);
    s.sorter->put_runtime(77);
    VARIANT argument = {};
    V_VT(&argument) = VT_I4, V_I4(&argument) = last;
    DISPPARAMS params = {&argument, nullptr, 1, 0};
    outcome.hr = first ? s.sorter->Sort(last, *first)
                       : s.sorter->Invoke(dispid::_clsQuickSort::Sort, IID_NULL, 0, DISPATCH_METHOD, &params, nullptr,
                                          nullptr, nullptr);
    if (FAILED(outcome.hr)) outcome.error = take_error_info();
    s.sorter->get_runtime(&outcome.runtime);
    s.point->Unadvise(cookie);
    outcome.order = store.values;
    return outcome;
}

TEST(QuickSortEvents, ShortRangesAndWorkedExamplesGiveExactlyTheContractedEvents) {
    // Items at indices 1, 2, ...; no firstNdx: left to its default through IDispatch.
    const struct {
        const char* name; std::vector<int> items; LONG last; std::optional<LONG> first;
        event_list events; std::vector<int> order;
    } cases[] = {
        {"3, 1, 2", {3, 1, 2}, 3, std::nullopt, worked_example, {1, 2, 3}},
        {"2, 2, 1", {2, 2, 1}, 3, 1, {"isLess(1,3)", "SwapItems(1,3)", "isLess(1,3)", "isLess(2,3)", "SwapItems(2,3)",
                                      "isLess(2,3)", "isLess(2,2)", "isLess(2,2)"}, {1, 2, 2}},
        {"Sort(0)", {5}, 0, std::nullopt, {}, {5}},
        {"lastNdx below firstNdx", {9, 8, 7}, 1, 3, {}, {9, 8, 7}},
        {"two equal items", {4, 4}, 2, 1, {"isLess(1,2)"}, {4, 4}},
    };
    for (const auto& c : cases) {
        const sort_outcome got = run_sort({1, c.items}, c.last, c.first);
        EXPECT_EQ(c.events, got.events) << c.name;
        EXPECT_TRUE(got.hr == S_OK && got.order == c.order) << c.name;
    }
}

TEST(QuickSortErrors, IndexArithmeticOverflowsWithError6) {
    const struct { const char* name; LONG last, first; std::vector<int> items; event_list events; } cases[] = {
        {"width one past the largest Long", LONG_MAX - 1, -2, {}, {}},  // items from firstNdx; events before it
        {"pivot at the largest Long: p + 1 after the lower part", LONG_MAX, LONG_MAX - 2, {3, 1, 2},
         {"isLess(2147483645,2147483647)", "SwapItems(2147483645,2147483647)", "isLess(2147483645,2147483647)",
          "isLess(2147483646,2147483647)", "isLess(2147483647,2147483647)", "isLess(2147483645,2147483646)",
          "SwapItems(2147483645,2147483646)"}},
    };
    for (const auto& c : cases) {
        const sort_outcome got = run_sort({c.first, c.items}, c.last, c.first);
        EXPECT_EQ(hex(automation_error_number(6)), hex(got.hr)) << c.name;
        EXPECT_TRUE(got.error.source == L"clsQuickSort.Sort" && got.error.description == L"Overflow") << c.name;
        EXPECT_EQ(c.events, got.events) << c.name;
        EXPECT_EQ(77, got.runtime) << c.name << ": a failed sort keeps the old runtime";
    }
}

TEST(QuickSortErrors, AFailingHandlerEndsTheSortWithItsError) {
    const struct {
        const char* name; HRESULT returned; WORD code; SCODE scode; const wchar_t *source, *description;
        HRESULT expected; std::wstring expected_source, expected_description;
    } cases[] = {
        {"raised error number", DISP_E_EXCEPTION, 1001, 0, L"Client", L"store is read-only",
         automation_error_number(1001), L"Client", L"store is read-only"},
        {"raised HRESULT", DISP_E_EXCEPTION, 0, E_ACCESSDENIED, L"Client", L"no", E_ACCESSDENIED, L"Client", L"no"},
        {"raised without source", DISP_E_EXCEPTION, 11, 0, nullptr, nullptr, automation_error_number(11),
         L"clsQuickSort.Sort", L"Division by zero"},
        {"plain failure", E_FAIL, 0, 0, nullptr, nullptr, E_FAIL, L"clsQuickSort.Sort", L"Automation error"},
        {"raised nothing", DISP_E_EXCEPTION, 0, 0, nullptr, nullptr, DISP_E_EXCEPTION, L"clsQuickSort.Sort",
         L"Automation error"},
    };
    for (const auto& c : cases) {
        auto fail_first_swap = [&](DISPID id, LONG, LONG, SHORT*, EXCEPINFO* exception) -> HRESULT {
            if (id != sort_event::SwapItems) return S_OK;
            if (c.returned == DISP_E_EXCEPTION)
                *exception = {c.code, 0, c.source ? SysAllocString(c.source) : nullptr,
                              c.description ? SysAllocString(c.description) : nullptr, nullptr, 0, nullptr, nullptr, c.scode};
            return c.returned;
        };
        const sort_outcome got = run_sort({1, {3, 1, 2}}, 3, 1, fail_first_swap);
        EXPECT_EQ(hex(c.expected), hex(got.hr)) << c.name;
        EXPECT_TRUE(got.error.source == c.expected_source && got.error.description == c.expected_description)
            << c.name << ": " << narrow(got.error.source) << ", " << narrow(got.error.description);
        EXPECT_EQ((event_list{"isLess(1,3)", "SwapItems(1,3)"}), got.events) << c.name << ": nothing after the failure";
        EXPECT_EQ(77, got.runtime) << c.name;
    }
}

// The clock as a list of readings, one per call.
const float* clock_readings = nullptr;
int clock_calls = 0;
float next_reading() { return clock_readings[clock_calls++]; }

TEST(QuickSortRuntime, WholeSecondStartHalvesToEvenAndTheMidnightWrap) {
    const struct { const char* name; float readings[2]; LONG runtime; } cases[] = {  // at the start and the end
        {"100.4 to 100.8", {100.4f, 100.8f}, 1}, {"86399.8 to 0.3 the next day", {86399.8f, 0.3f}, 0},
        {"86399.4 to 5 the next day", {86399.4f, 5.0f}, 6}, {"start 2.5 rounds to 2, 1.5 to 2", {2.5f, 3.5f}, 2},
        {"start 3.5 rounds to 4, 0.5 to 0", {3.5f, 4.5f}, 0}, {"no time at all", {10.0f, 10.0f}, 0},
    };
    for (const auto& c : cases) {
        clock_readings = c.readings, clock_calls = 0;
        const scoped_time_of_day_source clock(&next_reading);
        com_ptr<_clsQuickSort> sorter = create_local<_clsQuickSort>(CLSID_clsQuickSort, IID__clsQuickSort);
        LONG fresh = -1, runtime = -1;
        sorter->get_runtime(&fresh);
        EXPECT_EQ(S_OK, sorter->Sort(3, 1)) << c.name;
        sorter->get_runtime(&runtime);
        EXPECT_TRUE(fresh == 0 && clock_calls == 2) << c.name << ": a new sorter reads 0; the clock is read twice";
        EXPECT_EQ(c.runtime, runtime) << c.name;
    }
}

}  // namespace
}  // namespace vx::test
