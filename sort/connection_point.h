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

    // Raises one event on every connected sink in the order they connected,
    // all with the same arguments. Call only under a delivery. A sink that
    // does not know the event is passed over; any other failure stops the
    // event there and is returned, with the exception filled in for
    // DISP_E_EXCEPTION.
    HRESULT raise(DISPID id, DISPPARAMS& arguments, EXCEPINFO& exception) {
        // Read afresh for every event: a handler may connect or disconnect.
        if (IDispatch* const sink = sole_sink_) return outcome(deliver(sink, id, arguments, exception));
        return raise_on_each(id, arguments, exception);
    }

private:
    struct connection {
        DWORD cookie;     // 0 once disconnected during a delivery
        IDispatch* sink;  // one reference; null once disconnected during a delivery
    };

    void forget_retired();
    void note_connections_changed();
    HRESULT raise_on_each(DISPID id, DISPPARAMS& arguments, EXCEPINFO& exception);

    // Events return nothing, so no result is asked for.
    static HRESULT deliver(IDispatch* sink, DISPID id, DISPPARAMS& arguments, EXCEPINFO& exception) {
        UINT argument_error = 0;
        return sink->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &arguments, nullptr, &exception,
                            &argument_error);
    }
    static HRESULT outcome(HRESULT hr) {
        if (SUCCEEDED(hr)) return S_OK;
        return hr == DISP_E_MEMBERNOTFOUND || hr == DISP_E_UNKNOWNNAME ? S_OK : hr;
    }

    IConnectionPointContainer& container_;
    const IID events_;
    std::vector<connection> connections_;
    DWORD last_cookie_ = 0;
    unsigned deliveries_ = 0;
    std::vector<IDispatch*> retired_;  // disconnected during a delivery, not yet released
    // The one connected sink when there is exactly one, else null: the
    // usual case, which an event reaches with one load.
    IDispatch* sole_sink_ = nullptr;
};

// An IEnumConnectionPoints over the given points, each held by one
// reference; null when out of memory.
IEnumConnectionPoints* enumerate_connection_points(IConnectionPoint* const* points, size_t count);

}  // namespace vx
