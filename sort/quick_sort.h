// clsQuickSort: a quicksort over a range of indices into a store that only
// the client holds. Every comparison and every exchange is an event that the
// client answers; the sorter keeps nothing but indices.
#pragma once

#include "frame/automation_object.h"
#include "sort/connection_point.h"
#include "vxTypes32_types.h"

#include <vector>

namespace vx {

class quick_sort final : public automation_object<_clsQuickSort>, public IConnectionPointContainer {
public:
    explicit quick_sort(const class_entry& entry);

    // IUnknown, one for every interface of the instance
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
        return automation_object::QueryInterface(iid, object);
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return automation_object::AddRef(); }
    ULONG STDMETHODCALLTYPE Release() override { return automation_object::Release(); }

    // _clsQuickSort
    HRESULT STDMETHODCALLTYPE get_runtime(LONG* result) override;
    HRESULT STDMETHODCALLTYPE put_runtime(LONG value) override;
    HRESULT STDMETHODCALLTYPE Sort(LONG lastNdx, LONG firstNdx) override;

    // IConnectionPointContainer
    HRESULT STDMETHODCALLTYPE EnumConnectionPoints(IEnumConnectionPoints** points) override;
    HRESULT STDMETHODCALLTYPE FindConnectionPoint(REFIID iid, IConnectionPoint** point) override;

    // A range whose upper part waits until its lower part is sorted.
    struct pending_range {
        LONG pivot;  // the upper part starts after it
        LONG hi;
    };

protected:
    void* extra_interface(REFIID iid) override;

private:
    LONG runtime_ = 0;
    connection_point events_;
    // The ranges still to sort, kept between sorts so that a deep sort
    // allocates only while it goes deeper than any before it.
    std::vector<pending_range> pending_;
};

}  // namespace vx
