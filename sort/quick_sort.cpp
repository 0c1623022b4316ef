#include "sort/quick_sort.h"

#include "frame/runtime.h"

#include <climits>
#include <utility>

namespace vx {

namespace {

constexpr wchar_t sort_source[] = L"clsQuickSort.Sort";
constexpr long seconds_per_day = 86400;

[[noreturn]] void raise_overflow() { raise_error(error_overflow, sort_source); }

// A handler's failure ends the sort with that handler's error.
[[noreturn]] __attribute__((noinline, cold)) void raise_event_failure(HRESULT failure, EXCEPINFO& exception) {
    if (failure == DISP_E_EXCEPTION) raise_exception_info(exception, sort_source);
    raise_hresult(failure, sort_source);
}

// The two events of one sort, their argument lists made once and the
// answer variable that every isLess hands out by reference.
class sort_events {
public:
    explicit sort_events(connection_point& point) : point_(point) {
        // Arguments go last to first.
        is_less_arguments_[0].vt = VT_BYREF | VT_I2;
        is_less_arguments_[0].piVal = &answer_;
        is_less_parameters_ = {is_less_arguments_, nullptr, 3, 0};
        swap_parameters_ = {swap_arguments_, nullptr, 2, 0};
    }
    sort_events(const sort_events&) = delete;
    sort_events& operator=(const sort_events&) = delete;

    // The client's three-way comparison of the items at first and second.
    short compare(LONG first, LONG second) {
        // A handler need not set the answer; left alone it means "equal".
        answer_ = 0;
        // Set afresh every time, in case a handler wrote over an argument.
        is_less_arguments_[0].vt = VT_BYREF | VT_I2;
        is_less_arguments_[0].piVal = &answer_;
        set_long(is_less_arguments_[1], second);
        set_long(is_less_arguments_[2], first);
        const HRESULT hr = point_.raise(dispid::__clsQuickSort::isLess, is_less_parameters_, exception_);
        if (FAILED(hr)) raise_event_failure(hr, exception_);
        return answer_;
    }

    void swap(LONG first, LONG second) {
        set_long(swap_arguments_[0], second);
        set_long(swap_arguments_[1], first);
        const HRESULT hr = point_.raise(dispid::__clsQuickSort::SwapItems, swap_parameters_, exception_);
        if (FAILED(hr)) raise_event_failure(hr, exception_);
    }

private:
    static void set_long(VARIANT& argument, LONG value) {
        argument.vt = VT_I4;
        argument.lVal = value;
    }

    connection_point& point_;
    short answer_ = 0;
    VARIANT is_less_arguments_[3] = {};
    VARIANT swap_arguments_[2] = {};
    DISPPARAMS is_less_parameters_ = {};
    DISPPARAMS swap_parameters_ = {};
    EXCEPINFO exception_ = {};
};

// Places the first item of lo..hi (hi > lo) and gives its final index as
// pivot; false when nothing is left to sort in the range. Two items are
// settled here with one comparison.
bool partition_range(sort_events& events, LONG lo, LONG hi, LONG& pivot) {
    if (static_cast<long long>(hi) - lo > LONG_MAX) raise_overflow();
    if (hi - lo == 1) {
        if (events.compare(lo, hi) > 0) events.swap(lo, hi);
        return false;
    }
    LONG left = lo, right = hi, at = lo;  // the pivot is always at left here
    while (left < right) {
        short answer = events.compare(at, right);
        while (answer <= 0 && right > left) answer = events.compare(at, --right);
        if (right != at) {
            events.swap(left, right);
            if (left == at) at = right;
        }
        answer = events.compare(left, at);
        while (answer < 0 && left < right) answer = events.compare(++left, at);
        if (left == at) continue;
        events.swap(left, right);
        if (at == right) at = left;
    }
    pivot = at;
    return true;
}

// The lower part of each range first, then the upper part, as plain
// recursion would go; the upper parts wait on a stack instead of the
// thread's own, so depth costs heap, not stack. p + 1 is worked out when
// an upper part's turn comes, so its overflow arrives where recursion
// would raise it.
void sort_range(sort_events& events, std::vector<quick_sort::pending_range>& pending, LONG lo, LONG hi) {
    pending.clear();
    for (;;) {
        LONG pivot;
        while (lo < hi && partition_range(events, lo, hi, pivot)) {
            if (pivot == LONG_MIN) raise_overflow();
            // An upper part of fewer than two items raises no events, unless
            // working out its start overflows.
            if (static_cast<long long>(hi) - pivot >= 2 || pivot == LONG_MAX) pending.push_back({pivot, hi});
            hi = pivot - 1;
        }
        if (pending.empty()) return;
        const quick_sort::pending_range upper = pending.back();
        pending.pop_back();
        if (upper.pivot == LONG_MAX) raise_overflow();
        lo = upper.pivot + 1;
        hi = upper.hi;
    }
}

// Lends the object's stack of pending ranges to one sort. A sort started
// from inside an event finds it lent out and starts a stack of its own.
class borrowed_stack {
public:
    explicit borrowed_stack(std::vector<quick_sort::pending_range>& home) : home_(home) { stack_.swap(home_); }
    borrowed_stack(const borrowed_stack&) = delete;
    borrowed_stack& operator=(const borrowed_stack&) = delete;
    ~borrowed_stack() {
        if (stack_.capacity() > home_.capacity()) stack_.swap(home_);
    }
    std::vector<quick_sort::pending_range>& get() { return stack_; }

private:
    std::vector<quick_sort::pending_range>& home_;
    std::vector<quick_sort::pending_range> stack_;
};

}  // namespace

quick_sort::quick_sort(const class_entry& entry) : automation_object(entry), events_(*this, DIID___clsQuickSort) {}

HRESULT quick_sort::get_runtime(LONG* result) {
    if (!result) return E_POINTER;
    *result = runtime_;
    return S_OK;
}

HRESULT quick_sort::put_runtime(LONG value) {
    runtime_ = value;
    return S_OK;
}

HRESULT quick_sort::Sort(LONG lastNdx, LONG firstNdx) {
    return com_boundary(sort_source, [&] {
        // A handler may release the client's last reference mid-sort.
        const com_ptr<IUnknown> alive = com_ptr<IUnknown>::copy(identity());
        const connection_point::delivery delivering(events_);
        borrowed_stack pending(pending_);
        sort_events events(events_);

        const long start = to_long(time_of_day(), sort_source);
        sort_range(events, pending.get(), firstNdx, lastNdx);
        long elapsed = to_long(static_cast<double>(time_of_day()) - start, sort_source);
        while (elapsed < 0) elapsed += seconds_per_day;  // the sort ran past midnight
        runtime_ = elapsed;
    });
}

HRESULT quick_sort::EnumConnectionPoints(IEnumConnectionPoints** points) {
    if (!points) return E_POINTER;
    IConnectionPoint* const only = &events_;
    *points = enumerate_connection_points(&only, 1);
    return *points ? S_OK : E_OUTOFMEMORY;
}

HRESULT quick_sort::FindConnectionPoint(REFIID iid, IConnectionPoint** point) {
    if (!point) return E_POINTER;
    *point = nullptr;
    if (!IsEqualIID(iid, events_.events())) return CONNECT_E_NOCONNECTION;
    events_.AddRef();
    *point = &events_;
    return S_OK;
}

void* quick_sort::extra_interface(REFIID iid) {
    if (IsEqualIID(iid, IID_IConnectionPointContainer)) return static_cast<IConnectionPointContainer*>(this);
    return nullptr;
}

HRESULT create_quick_sort(const class_entry& entry, REFIID iid, void** object) {
    return create_instance<quick_sort>(entry, iid, object);
}

}  // namespace vx
