#include "sort/connection_point.h"

#include "frame/module.h"

#include <algorithm>
#include <new>

namespace vx {

namespace {

// Keeps an item of an enumeration alive while the enumerator holds it.
void add_reference(IConnectionPoint* point) { point->AddRef(); }
void add_reference(CONNECTDATA& data) { data.pUnk->AddRef(); }
void drop_reference(IConnectionPoint* point) { point->Release(); }
void drop_reference(CONNECTDATA& data) { data.pUnk->Release(); }

// A snapshot enumerator: the items as they were when it was made, each
// holding a reference, handed out with a reference of the caller's own.
template <class Enumeration, class Item, const IID& enumeration_iid>
class snapshot_enumerator final : public Enumeration {
public:
    explicit snapshot_enumerator(std::vector<Item> items) : items_(std::move(items)) {
        for (Item& item : items_) add_reference(item);
        module::object_created();
    }
    snapshot_enumerator(const snapshot_enumerator&) = delete;
    snapshot_enumerator& operator=(const snapshot_enumerator&) = delete;
    ~snapshot_enumerator() {
        for (Item& item : items_) drop_reference(item);
        module::object_destroyed();
    }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
        if (!object) return E_POINTER;
        *object = nullptr;
        if (!IsEqualIID(iid, IID_IUnknown) && !IsEqualIID(iid, enumeration_iid)) return E_NOINTERFACE;
        *object = static_cast<Enumeration*>(this);
        AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(InterlockedIncrement(&references_)); }
    ULONG STDMETHODCALLTYPE Release() override {
        const LONG left = InterlockedDecrement(&references_);
        if (left == 0) delete this;
        return static_cast<ULONG>(left);
    }

    HRESULT STDMETHODCALLTYPE Next(ULONG wanted, Item* out, ULONG* fetched) override {
        if (!out || (wanted != 1 && !fetched)) return E_POINTER;
        ULONG given = 0;
        while (given < wanted && position_ < items_.size()) {
            out[given] = items_[position_++];
            add_reference(out[given]);
            ++given;
        }
        if (fetched) *fetched = given;
        return given == wanted ? S_OK : S_FALSE;
    }
    HRESULT STDMETHODCALLTYPE Skip(ULONG count) override {
        const size_t left = items_.size() - position_;
        position_ += std::min<size_t>(count, left);
        return count <= left ? S_OK : S_FALSE;
    }
    HRESULT STDMETHODCALLTYPE Reset() override {
        position_ = 0;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Clone(Enumeration** copy) override {
        if (!copy) return E_POINTER;
        *copy = nullptr;
        auto* twin = new (std::nothrow) snapshot_enumerator(items_);
        if (!twin) return E_OUTOFMEMORY;
        twin->position_ = position_;
        twin->AddRef();
        *copy = twin;
        return S_OK;
    }

private:
    std::vector<Item> items_;
    size_t position_ = 0;
    volatile LONG references_ = 0;
};

using connection_point_enumerator =
    snapshot_enumerator<IEnumConnectionPoints, IConnectionPoint*, IID_IEnumConnectionPoints>;
using connection_enumerator = snapshot_enumerator<IEnumConnections, CONNECTDATA, IID_IEnumConnections>;

template <class Enumerator, class Item>
Enumerator* new_enumerator(std::vector<Item> items) {
    auto* enumerator = new (std::nothrow) Enumerator(std::move(items));
    if (enumerator) enumerator->AddRef();
    return enumerator;
}

}  // namespace

IEnumConnectionPoints* enumerate_connection_points(IConnectionPoint* const* points, size_t count) {
    try {
        return new_enumerator<connection_point_enumerator>(std::vector<IConnectionPoint*>(points, points + count));
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

connection_point::connection_point(IConnectionPointContainer& container, const IID& events)
    : container_(container), events_(events) {}

connection_point::~connection_point() {
    for (connection& c : connections_)
        if (c.sink) c.sink->Release();
    for (IDispatch* sink : retired_) sink->Release();
}

HRESULT connection_point::QueryInterface(REFIID iid, void** object) {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (!IsEqualIID(iid, IID_IUnknown) && !IsEqualIID(iid, IID_IConnectionPoint)) return E_NOINTERFACE;
    *object = static_cast<IConnectionPoint*>(this);
    AddRef();
    return S_OK;
}

HRESULT connection_point::GetConnectionInterface(IID* iid) {
    if (!iid) return E_POINTER;
    *iid = events_;
    return S_OK;
}

HRESULT connection_point::GetConnectionPointContainer(IConnectionPointContainer** container) {
    if (!container) return E_POINTER;
    container_.AddRef();
    *container = &container_;
    return S_OK;
}

HRESULT connection_point::Advise(IUnknown* sink, DWORD* cookie) {
    if (!cookie) return E_POINTER;
    *cookie = 0;
    if (!sink) return E_POINTER;
    // The events travel through IDispatch::Invoke either way; a sink that
    // implements only IDispatch is what script clients give.
    com_ptr<IDispatch> dispatch;
    if (FAILED(sink->QueryInterface(events_, dispatch.put_void())) || !dispatch) {
        if (FAILED(sink->QueryInterface(IID_IDispatch, dispatch.put_void())) || !dispatch)
            return CONNECT_E_CANNOTCONNECT;
    }
    try {
        connections_.push_back({last_cookie_ + 1, dispatch.get()});
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
    dispatch.detach();
    *cookie = ++last_cookie_;
    note_connections_changed();
    return S_OK;
}

HRESULT connection_point::Unadvise(DWORD cookie) {
    if (cookie == 0) return CONNECT_E_NOCONNECTION;
    auto found = std::find_if(connections_.begin(), connections_.end(),
                              [&](const connection& c) { return c.cookie == cookie; });
    if (found == connections_.end()) return CONNECT_E_NOCONNECTION;
    if (deliveries_ == 0) {
        IDispatch* sink = found->sink;
        connections_.erase(found);
        note_connections_changed();
        sink->Release();
        return S_OK;
    }
    try {
        retired_.push_back(found->sink);
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
    found->cookie = 0;
    found->sink = nullptr;
    note_connections_changed();
    return S_OK;
}

HRESULT connection_point::EnumConnections(IEnumConnections** connections) {
    if (!connections) return E_POINTER;
    *connections = nullptr;
    try {
        std::vector<CONNECTDATA> items;
        for (const connection& c : connections_)
            if (c.sink) items.push_back({c.sink, c.cookie});
        *connections = new_enumerator<connection_enumerator>(std::move(items));
    } catch (const std::bad_alloc&) {
    }
    return *connections ? S_OK : E_OUTOFMEMORY;
}

void connection_point::forget_retired() {
    connections_.erase(std::remove_if(connections_.begin(), connections_.end(),
                                      [](const connection& c) { return c.sink == nullptr; }),
                       connections_.end());
    // Released last: a sink's final release may call back into this object.
    std::vector<IDispatch*> released;
    released.swap(retired_);
    for (IDispatch* sink : released) sink->Release();
}

void connection_point::note_connections_changed() {
    sole_sink_ = nullptr;
    for (const connection& c : connections_) {
        if (!c.sink) continue;
        if (sole_sink_) {
            sole_sink_ = nullptr;
            return;
        }
        sole_sink_ = c.sink;
    }
}

HRESULT connection_point::raise_on_each(DISPID id, DISPPARAMS& arguments, EXCEPINFO& exception) {
    // A sink connected by a handler hears the events after this one.
    const size_t count = connections_.size();
    for (size_t i = 0; i < count; ++i) {
        IDispatch* const sink = connections_[i].sink;  // read afresh: a handler may disconnect one
        if (!sink) continue;
        const HRESULT hr = outcome(deliver(sink, id, arguments, exception));
        if (hr != S_OK) return hr;
    }
    return S_OK;
}

}  // namespace vx
