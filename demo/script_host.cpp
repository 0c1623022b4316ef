// vxscript.exe: a small VBScript host of the project's own, for clients
// that sink events. Wine's script hosts cannot (their
// WScript.ConnectObject does nothing), so this one runs a script file
// through the VBScript engine and offers a WScript object with Echo, Quit,
// CreateObject and a working ConnectObject/DisconnectObject.
//
//   vxscript.exe <script file>
//
// The exit code is what the script passed to WScript.Quit, 0 when it ends
// without one, and 1 after a script error (reported on stderr).
#include "frame/handles.h"

#include <activscp.h>
#include <ocidl.h>
#include <olectl.h>
#include <windows.h>

#include <cstdio>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

using vx::com_ptr;
using vx::unique_bstr;

namespace {

// The import library lacks these IIDs; IActiveScriptParse is the 64-bit
// interface in 64-bit code.
#if defined(_WIN64)
constexpr IID active_script_parse_iid = {0xC7EF7658, 0xE1EE, 0x480E, {0x97, 0xEA, 0xD5, 0x2C, 0xB4, 0xD7, 0x6D, 0x17}};
#else
constexpr IID active_script_parse_iid = {0xBB1A2AE2, 0xA4F9, 0x11CF, {0x8F, 0x20, 0x00, 0x80, 0x5F, 0x2C, 0xD0, 0x64}};
#endif

std::string utf8(const std::wstring& text) {
    if (text.empty()) return {};
    const int size = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr,
                                         nullptr);
    std::string out(size, '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), size, nullptr, nullptr);
    return out;
}

bool read_file(const std::wstring& path, std::string& bytes) {
    const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    char buffer[65536];
    DWORD got = 0;
    bool ok = true;
    while ((ok = ReadFile(file, buffer, sizeof buffer, &got, nullptr)) && got > 0) bytes.append(buffer, got);
    CloseHandle(file);
    return ok;
}

std::wstring text_of(BSTR value) { return value ? std::wstring(value, SysStringLen(value)) : std::wstring(); }

// Reference counting for objects that the host owns by value and outlives.
#define VX_FIXED_LIFETIME                                                   \
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }                \
    ULONG STDMETHODCALLTYPE Release() override { return 1; }

// Reference counting for objects handed to clients.
#define VX_COUNTED_LIFETIME                                                 \
    ULONG STDMETHODCALLTYPE AddRef() override { return ++references_; }   \
    ULONG STDMETHODCALLTYPE Release() override {                           \
        const ULONG left = --references_;                                  \
        if (left == 0) delete this;                                        \
        return left;                                                       \
    }                                                                      \
    ULONG references_ = 1;

// Where an error raised inside an event handler goes: the engine reports
// it to the site and answers the call with SCRIPT_E_REPORTED, so the site
// hands it back to the sink, which returns it to the event's source as
// DISP_E_EXCEPTION.
struct handler_errors {
    EXCEPINFO* capture = nullptr;  // set while an event handler runs
    bool captured = false;
};

constexpr HRESULT script_error_reported = static_cast<HRESULT>(0x80020101);

// Forwards the events of one connection to the script's Subs named
// prefix + event name. Wine's VBScript writes back only arguments passed as
// VT_BYREF|VT_VARIANT, so every other by-reference argument travels in a
// variant of its own and is copied back after the Sub returns.
class forwarding_sink final : public IDispatch {
public:
    forwarding_sink(IDispatch* script, const IID& events, std::map<DISPID, std::wstring> names,
                    handler_errors& errors)
        : script_(com_ptr<IDispatch>::copy(script)), events_(events), names_(std::move(names)), errors_(errors) {}

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
        if (!object) return E_POINTER;
        *object = nullptr;
        if (!IsEqualIID(iid, IID_IUnknown) && !IsEqualIID(iid, IID_IDispatch) && !IsEqualIID(iid, events_))
            return E_NOINTERFACE;
        *object = static_cast<IDispatch*>(this);
        AddRef();
        return S_OK;
    }
    VX_COUNTED_LIFETIME

    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override {
        if (count) *count = 0;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }

    HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID, LCID locale, WORD, DISPPARAMS* params, VARIANT*,
                                     EXCEPINFO* exception, UINT* argument_error) override {
        const DISPID target = script_member(id);
        if (target == DISPID_UNKNOWN) return S_OK;  // the script does not handle this event
        const UINT count = params ? params->cArgs : 0;
        // On the stack, so that an event raised from inside a handler is safe.
        VARIANT holders[max_arguments], forwarded[max_arguments];
        if (count > max_arguments) return DISP_E_BADPARAMCOUNT;
        for (UINT i = 0; i < count; ++i) {
            VARIANT& in = params->rgvarg[i];
            if ((in.vt & VT_BYREF) && in.vt != (VT_BYREF | VT_VARIANT)) {
                VariantInit(&holders[i]);
                VariantCopyInd(&holders[i], &in);
                forwarded[i].vt = VT_BYREF | VT_VARIANT;
                forwarded[i].pvarVal = &holders[i];
            } else {
                forwarded[i] = in;
            }
        }
        DISPPARAMS call = {count ? forwarded : nullptr, nullptr, count, 0};
        EXCEPINFO raised = {};
        const handler_errors outer = errors_;
        errors_ = {&raised, false};
        HRESULT hr = script_->Invoke(target, IID_NULL, locale, DISPATCH_METHOD, &call, nullptr, &raised, argument_error);
        const bool captured = errors_.captured;
        errors_ = outer;
        if (hr == script_error_reported && captured) hr = DISP_E_EXCEPTION;
        if (hr == DISP_E_EXCEPTION && exception) {
            *exception = raised;
        } else {
            SysFreeString(raised.bstrSource);
            SysFreeString(raised.bstrDescription);
            SysFreeString(raised.bstrHelpFile);
        }
        for (UINT i = 0; i < count; ++i) {
            VARIANT& in = params->rgvarg[i];
            if ((in.vt & VT_BYREF) && in.vt != (VT_BYREF | VT_VARIANT)) {
                VARIANT converted;
                VariantInit(&converted);
                if (SUCCEEDED(hr) &&
                    SUCCEEDED(VariantChangeType(&converted, &holders[i], 0, in.vt & ~VT_BYREF))) {
                    copy_back(in, converted);
                }
                VariantClear(&converted);
                VariantClear(&holders[i]);
            }
        }
        return hr;
    }

private:
    static constexpr UINT max_arguments = 16;

    DISPID script_member(DISPID event) {
        auto known = resolved_.find(event);
        if (known != resolved_.end()) return known->second;
        DISPID target = DISPID_UNKNOWN;
        auto name = names_.find(event);
        if (name != names_.end()) {
            std::wstring copy = name->second;
            LPOLESTR names[] = {copy.data()};
            if (FAILED(script_->GetIDsOfNames(IID_NULL, names, 1, 0, &target))) target = DISPID_UNKNOWN;
        }
        resolved_[event] = target;
        return target;
    }

    // Writes a converted value through a by-reference argument of its type.
    static void copy_back(VARIANT& reference, VARIANT& value) {
        switch (reference.vt & ~VT_BYREF) {
        case VT_I2: *reference.piVal = value.iVal; break;
        case VT_I4: *reference.plVal = value.lVal; break;
        case VT_R4: *reference.pfltVal = value.fltVal; break;
        case VT_R8: *reference.pdblVal = value.dblVal; break;
        case VT_BOOL: *reference.pboolVal = value.boolVal; break;
        case VT_BSTR:
            SysFreeString(*reference.pbstrVal);
            *reference.pbstrVal = value.bstrVal;
            value.vt = VT_EMPTY;
            break;
        default: break;
        }
    }

    com_ptr<IDispatch> script_;
    IID events_;
    std::map<DISPID, std::wstring> names_;  // event DISPID -> prefixed Sub name
    std::map<DISPID, DISPID> resolved_;     // event DISPID -> the script's DISPID
    handler_errors& errors_;
};

// The default source interface of an object: its IID and its event names.
bool default_source(IUnknown* object, IID& events, std::map<DISPID, std::wstring>& names, const std::wstring& prefix) {
    com_ptr<IProvideClassInfo2> info2;
    com_ptr<IProvideClassInfo> info;
    object->QueryInterface(IID_IProvideClassInfo, info.put_void());
    if (!info) return false;
    com_ptr<ITypeInfo> coclass;
    if (FAILED(info->GetClassInfo(coclass.put())) || !coclass) return false;
    TYPEATTR* attributes = nullptr;
    if (FAILED(coclass->GetTypeAttr(&attributes))) return false;
    const WORD implemented = attributes->cImplTypes;
    coclass->ReleaseTypeAttr(attributes);
    for (UINT i = 0; i < implemented; ++i) {
        INT flags = 0;
        coclass->GetImplTypeFlags(i, &flags);
        if ((flags & (IMPLTYPEFLAG_FDEFAULT | IMPLTYPEFLAG_FSOURCE)) != (IMPLTYPEFLAG_FDEFAULT | IMPLTYPEFLAG_FSOURCE))
            continue;
        HREFTYPE reference = 0;
        com_ptr<ITypeInfo> source;
        if (FAILED(coclass->GetRefTypeOfImplType(i, &reference)) ||
            FAILED(coclass->GetRefTypeInfo(reference, source.put())))
            return false;
        if (FAILED(source->GetTypeAttr(&attributes))) return false;
        events = attributes->guid;
        const WORD functions = attributes->cFuncs;
        source->ReleaseTypeAttr(attributes);
        for (UINT f = 0; f < functions; ++f) {
            FUNCDESC* function = nullptr;
            if (FAILED(source->GetFuncDesc(f, &function))) continue;
            unique_bstr name;
            UINT got = 0;
            BSTR raw = nullptr;
            if (SUCCEEDED(source->GetNames(function->memid, &raw, 1, &got)) && got == 1) {
                name.reset(raw);
                names[function->memid] = prefix + text_of(name.get());
            }
            source->ReleaseFuncDesc(function);
        }
        return true;
    }
    return false;
}

struct connection {
    com_ptr<IUnknown> object;
    com_ptr<IConnectionPoint> point;
    DWORD cookie = 0;
};

class host;

// The WScript object that scripts see.
class wscript_object final : public IDispatch {
public:
    explicit wscript_object(host& owner) : host_(owner) {}

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
        if (!object) return E_POINTER;
        *object = nullptr;
        if (!IsEqualIID(iid, IID_IUnknown) && !IsEqualIID(iid, IID_IDispatch)) return E_NOINTERFACE;
        *object = static_cast<IDispatch*>(this);
        return S_OK;
    }
    VX_FIXED_LIFETIME

    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override {
        if (count) *count = 0;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID, DISPID* ids) override {
        HRESULT hr = S_OK;
        for (UINT i = 0; i < count; ++i) {
            ids[i] = DISPID_UNKNOWN;
            if (i > 0) {
                hr = DISP_E_UNKNOWNNAME;
                continue;
            }
            for (size_t m = 0; m < std::size(members); ++m)
                if (_wcsicmp(names[i], members[m]) == 0) ids[i] = static_cast<DISPID>(m + 1);
            if (ids[i] == DISPID_UNKNOWN) hr = DISP_E_UNKNOWNNAME;
        }
        return hr;
    }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID, LCID, WORD, DISPPARAMS* params, VARIANT* result,
                                     EXCEPINFO*, UINT*) override;

private:
    static constexpr const wchar_t* members[] = {L"Echo", L"Quit", L"CreateObject", L"ConnectObject",
                                                 L"DisconnectObject"};
    host& host_;
};

class host final : public IActiveScriptSite {
public:
    host() : wscript_(*this) {}

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
        if (!object) return E_POINTER;
        *object = nullptr;
        if (!IsEqualIID(iid, IID_IUnknown) && !IsEqualIID(iid, IID_IActiveScriptSite)) return E_NOINTERFACE;
        *object = static_cast<IActiveScriptSite*>(this);
        return S_OK;
    }
    VX_FIXED_LIFETIME

    HRESULT STDMETHODCALLTYPE GetLCID(LCID* locale) override {
        *locale = GetUserDefaultLCID();
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetItemInfo(LPCOLESTR name, DWORD mask, IUnknown** item, ITypeInfo** info) override {
        if (info) *info = nullptr;
        if (item) *item = nullptr;
        if (_wcsicmp(name, L"WScript") != 0) return TYPE_E_ELEMENTNOTFOUND;
        if ((mask & SCRIPTINFO_IUNKNOWN) && item) *item = &wscript_;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetDocVersionString(BSTR* version) override {
        *version = nullptr;
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE OnScriptTerminate(const VARIANT*, const EXCEPINFO*) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE OnStateChange(SCRIPTSTATE) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE OnScriptError(IActiveScriptError* error) override {
        EXCEPINFO exception = {};
        error->GetExceptionInfo(&exception);
        if (exception.pfnDeferredFillIn) exception.pfnDeferredFillIn(&exception);
        if (handler_errors_.capture && !handler_errors_.captured) {
            *handler_errors_.capture = exception;
            handler_errors_.captured = true;
            return S_OK;
        }
        DWORD context = 0;
        ULONG line = 0;
        LONG column = 0;
        error->GetSourcePosition(&context, &line, &column);
        const long code = exception.wCode ? exception.wCode : static_cast<long>(exception.scode);
        std::fprintf(stderr, "%s(%lu, %ld) %s: %s (0x%lX)\n", utf8(path_).c_str(), line + 1, column + 1,
                     utf8(text_of(exception.bstrSource)).c_str(), utf8(text_of(exception.bstrDescription)).c_str(),
                     static_cast<unsigned long>(code));
        SysFreeString(exception.bstrSource);
        SysFreeString(exception.bstrDescription);
        SysFreeString(exception.bstrHelpFile);
        failed_ = true;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE OnEnterScript() override { return S_OK; }
    HRESULT STDMETHODCALLTYPE OnLeaveScript() override { return S_OK; }

    int run(const std::wstring& path) {
        path_ = path;
        std::string bytes;
        if (!read_file(path, bytes)) {
            std::fprintf(stderr, "cannot read %s\n", utf8(path).c_str());
            return 1;
        }
        std::wstring code(bytes.size(), L'\0');
        code.resize(MultiByteToWideChar(CP_ACP, 0, bytes.data(), static_cast<int>(bytes.size()), code.data(),
                                        static_cast<int>(code.size())));

        CLSID vbscript;
        com_ptr<IActiveScriptParse> parser;
        if (FAILED(CLSIDFromProgID(L"VBScript", &vbscript)) ||
            FAILED(CoCreateInstance(vbscript, nullptr, CLSCTX_INPROC_SERVER, IID_IActiveScript, engine_.put_void())) ||
            !(parser = engine_.query<IActiveScriptParse>(active_script_parse_iid)) ||
            FAILED(engine_->SetScriptSite(this)) || FAILED(parser->InitNew()) ||
            FAILED(engine_->AddNamedItem(L"WScript", SCRIPTITEM_ISVISIBLE))) {
            std::fprintf(stderr, "the VBScript engine is not available\n");
            return 1;
        }
        EXCEPINFO exception = {};
        HRESULT hr = parser->ParseScriptText(code.c_str(), nullptr, nullptr, nullptr, 0, 0, SCRIPTTEXT_ISVISIBLE,
                                             nullptr, &exception);
        if (SUCCEEDED(hr)) hr = engine_->SetScriptState(SCRIPTSTATE_CONNECTED);
        finish();
        return failed_ || FAILED(hr) ? 1 : 0;
    }

    // WScript.Quit: ends the script at once with the exit code.
    // The engine is still running the script here, so it is left as it is.
    [[noreturn]] void quit(int code) {
        std::fflush(stdout);
        std::fflush(stderr);
        ExitProcess(static_cast<UINT>(code));
    }

    IDispatch* script_dispatch() {
        if (!script_) engine_->GetScriptDispatch(nullptr, script_.put());
        return script_.get();
    }

    HRESULT connect(IUnknown* object, const std::wstring& prefix) {
        IID events = IID_NULL;
        std::map<DISPID, std::wstring> names;
        if (!default_source(object, events, names, prefix)) return CONNECT_E_NOCONNECTION;
        com_ptr<IConnectionPointContainer> container;
        object->QueryInterface(IID_IConnectionPointContainer, container.put_void());
        if (!container) return CONNECT_E_NOCONNECTION;
        connection made;
        HRESULT hr = container->FindConnectionPoint(events, made.point.put());
        if (FAILED(hr)) return hr;
        auto* sink = new forwarding_sink(script_dispatch(), events, std::move(names), handler_errors_);
        hr = made.point->Advise(sink, &made.cookie);
        sink->Release();
        if (FAILED(hr)) return hr;
        object->QueryInterface(IID_IUnknown, made.object.put_void());
        connections_.push_back(std::move(made));
        return S_OK;
    }

    void disconnect(IUnknown* object) {
        com_ptr<IUnknown> identity;
        object->QueryInterface(IID_IUnknown, identity.put_void());
        for (auto c = connections_.begin(); c != connections_.end();) {
            if (c->object.get() == identity.get()) {
                c->point->Unadvise(c->cookie);
                c = connections_.erase(c);
            } else {
                ++c;
            }
        }
    }

private:
    void finish() {
        for (connection& c : connections_) c.point->Unadvise(c.cookie);
        connections_.clear();
        script_.reset();
        if (engine_) {
            engine_->Close();
            engine_.reset();
        }
    }

    wscript_object wscript_;
    std::wstring path_;
    com_ptr<IActiveScript> engine_;
    com_ptr<IDispatch> script_;
    std::vector<connection> connections_;
    handler_errors handler_errors_;
    bool failed_ = false;
};

HRESULT wscript_object::Invoke(DISPID id, REFIID, LCID, WORD, DISPPARAMS* params, VARIANT* result, EXCEPINFO*,
                               UINT*) {
    const UINT count = params ? params->cArgs : 0;
    // Arguments arrive last to first.
    auto argument = [&](UINT k) -> VARIANT* { return k < count ? &params->rgvarg[count - 1 - k] : nullptr; };
    auto object_argument = [&](UINT k) -> IUnknown* {
        VARIANT* v = argument(k);
        if (!v) return nullptr;
        if (v->vt == (VT_BYREF | VT_VARIANT)) v = v->pvarVal;
        if (v->vt == VT_DISPATCH || v->vt == VT_UNKNOWN) return v->punkVal;
        if (v->vt == (VT_BYREF | VT_DISPATCH) || v->vt == (VT_BYREF | VT_UNKNOWN)) return *v->ppunkVal;
        return nullptr;
    };
    auto text_argument = [&](UINT k, std::wstring& text) {
        VARIANT* v = argument(k);
        VARIANT converted;
        VariantInit(&converted);
        if (!v || FAILED(VariantChangeType(&converted, v, VARIANT_ALPHABOOL, VT_BSTR))) return false;
        text = text_of(converted.bstrVal);
        VariantClear(&converted);
        return true;
    };
    switch (id) {
    case 1: {  // Echo: the arguments separated by spaces
        std::wstring line;
        for (UINT k = 0; k < count; ++k) {
            std::wstring part;
            text_argument(k, part);
            if (k) line += L' ';
            line += part;
        }
        std::fputs((utf8(line) + "\n").c_str(), stdout);
        return S_OK;
    }
    case 2: {  // Quit
        VARIANT converted;
        VariantInit(&converted);
        long code = 0;
        if (count && SUCCEEDED(VariantChangeType(&converted, argument(0), 0, VT_I4))) code = converted.lVal;
        host_.quit(static_cast<int>(code));
    }
    case 3: {  // CreateObject(progid[, prefix])
        std::wstring progid, prefix;
        if (!text_argument(0, progid)) return DISP_E_TYPEMISMATCH;
        CLSID clsid;
        HRESULT hr = CLSIDFromProgID(progid.c_str(), &clsid);
        com_ptr<IDispatch> object;
        if (SUCCEEDED(hr))
            hr = CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch, object.put_void());
        if (FAILED(hr)) return hr;
        if (count > 1 && text_argument(1, prefix) && !prefix.empty()) {
            hr = host_.connect(object.get(), prefix);
            if (FAILED(hr)) return hr;
        }
        if (result) {
            VariantInit(result);
            result->vt = VT_DISPATCH;
            result->pdispVal = object.detach();
        }
        return S_OK;
    }
    case 4: {  // ConnectObject(object, prefix)
        std::wstring prefix;
        IUnknown* object = object_argument(0);
        if (!object || !text_argument(1, prefix)) return DISP_E_TYPEMISMATCH;
        return host_.connect(object, prefix);
    }
    case 5: {  // DisconnectObject(object)
        IUnknown* object = object_argument(0);
        if (!object) return DISP_E_TYPEMISMATCH;
        host_.disconnect(object);
        return S_OK;
    }
    default: return DISP_E_MEMBERNOTFOUND;
    }
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: vxscript <script file>\n");
        return 2;
    }
    if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return 1;
    int code = 0;
    {
        host site;
        code = site.run(argv[1]);
    }
    std::fflush(stdout);
    CoUninitialize();
    return code;
}
