// One outgoing events interface of an object: the sinks that clients
// connect through IConnectionPoint, their cookies, and the delivery of an
// event to each of them in turn.
#pragma once

#include "frame/handles.h"

#include <ocidl.h>
#include <olectl.h>

#include <vector>

namespace vx {

class connection_point final : public IConnectionPoint {
public:
    // The container owns this object, and it shares the container's
    // reference count: a client holding the connection point keeps the
    // whole object alive.
    connection_point(IConnectionPointContainer& container, const IID& events);
    connection_point(const connection_point&) = delete;
    connection_point& operator=(const connection_point&) = delete;
    ~connection_point();

    // IUnknown
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override;
    ULONG STDMETHODCALLTYPE AddRef() override { return container_.AddRef(); }
    ULONG STDMETHODCALLTYPE Release() override { return container_.Release(); }

    // IConnectionPoint
    HRESULT STDMETHODCALLTYPE GetConnectionInterface(IID* iid) override;
    HRESULT STDMETHODCALLTYPE GetConnectionPointContainer(IConnectionPointContainer** container) override;
    HRESULT STDMETHODCALLTYPE Advise(IUnknown* sink, DWORD* cookie) override;
    HRESULT STDMETHODCALLTYPE Unadvise(DWORD cookie) override;
    HRESULT STDMETHODCALLTYPE EnumConnections(IEnumConnections** connections) override;

    const IID& events() const { return events_; }

    // Held while events are raised. A sink that disconnects meanwhile, from
    // inside an event or not, is skipped from then on but released only
    // when the outermost delivery ends: its Invoke may still be running.
    class delivery {
    public:
        explicit delivery(connection_point& point) : point_(point) { ++point_.deliveries_; }
        delivery(const delivery&) = delete;
        delivery& operator=(const delivery&) = delete;
        ~delivery() {
            if (--point_.deliveries_ == 0 && !point_.retired_.empty()) point_.forget_retired();
        }

    private:
        connection_point& point_;
    };

    // Raises one event on every sink connected when it starts, in the order
    // they connected, all with the same arguments. Call only under a
    // delivery. A sink that does not know the event is passed over; any
    // other failure stops the event there and is returned, with the
    // exception filled in for DISP_E_EXCEPTION.
    HRESULT raise(DISPID id, DISPPARAMS& arguments, EXCEPINFO& exception) {
        const size_t count = connections_.size();
        if (count == 1) {  // the usual case, kept short: the sorter's loops are tight
            IDispatch* const sink = connections_[0].sink;
            return sink ? deliver(sink, id, arguments, exception) : S_OK;
        }
        for (size_t i = 0; i < count; ++i) {
            IDispatch* const sink = connections_[i].sink;  // read afresh: a handler may connect another sink
            if (!sink) continue;
            const HRESULT hr = deliver(sink, id, arguments, exception);
            if (hr != S_OK) return hr;
        }
        return S_OK;
    }

private:
    struct connection {
        DWORD cookie;     // 0 once disconnected during a delivery
        IDispatch* sink;  // one reference; null once disconnected during a delivery
    };

    void forget_retired();

    // Events return nothing, so no result is asked for.
    static HRESULT deliver(IDispatch* sink, DISPID id, DISPPARAMS& arguments, EXCEPINFO& exception) {
        UINT argument_error = 0;
        const HRESULT hr =
            sink->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &arguments, nullptr, &exception,
                         &argument_error);
        return SUCCEEDED(hr) || hr == DISP_E_MEMBERNOTFOUND || hr == DISP_E_UNKNOWNNAME ? S_OK : hr;
    }

    IConnectionPointContainer& container_;
    const IID events_;
    std::vector<connection> connections_;
    DWORD last_cookie_ = 0;
    unsigned deliveries_ = 0;
    std::vector<IDispatch*> retired_;  // disconnected during a delivery, not yet released
};

// An IEnumConnectionPoints over the given points, each held by one
// reference; null when out of memory.
IEnumConnectionPoints* enumerate_connection_points(IConnectionPoint* const* points, size_t count);

}  // namespace vx
