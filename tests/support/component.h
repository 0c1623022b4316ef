// The DLL under test, loaded the way the platform loads it: by file, through
// its exports, without the registry.
#pragma once

#include "frame/class_table.h"
#include "frame/handles.h"

#include <gtest/gtest.h>

#include <string>

namespace vx::test {

struct component {
    HMODULE module = nullptr;
    HRESULT(STDAPICALLTYPE* get_class_object)(REFCLSID, REFIID, void**) = nullptr;
    HRESULT(STDAPICALLTYPE* can_unload_now)() = nullptr;
    HRESULT(STDAPICALLTYPE* register_server)() = nullptr;
    HRESULT(STDAPICALLTYPE* unregister_server)() = nullptr;
    HRESULT(STDAPICALLTYPE* install)(BOOL, LPCWSTR) = nullptr;
};

// Loaded once per test program; the DLL sits beside the program.
const component& dll();
std::wstring dll_path();

// A new instance through the class object, as CoCreateInstance would make it.
template <class Interface>
com_ptr<Interface> create(REFCLSID clsid, REFIID iid) {
    com_ptr<IClassFactory> factory;
    com_ptr<Interface> object;
    EXPECT_EQ(S_OK, dll().get_class_object(clsid, IID_IClassFactory, factory.put_void()));
    EXPECT_EQ(S_OK, factory ? factory->CreateInstance(nullptr, iid, object.put_void()) : E_NOINTERFACE);
    return object;
}

// A new instance made by the test program's own copy of the frame, not the
// DLL's: for tests that replace a runtime service (the clock, the message
// box) through its seam, which only reaches this copy.
template <class Interface>
com_ptr<Interface> create_local(REFCLSID clsid, REFIID iid) {
    com_ptr<Interface> object;
    const class_entry* entry = find_class(clsid);
    EXPECT_EQ(S_OK, entry ? entry->create(*entry, iid, object.put_void()) : E_NOINTERFACE) << "from the class table";
    return object;
}

// A string from an automation call's text, for messages and comparisons.
std::wstring text_of(BSTR value);

// What a failed call left as the thread's error info.
struct error_info { std::wstring source, description; };
error_info take_error_info();

// Narrow text of an HRESULT, and of wide text, for assertion messages.
std::string hex(HRESULT hr);
inline std::string narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }

// The HRESULT of a raised automation error of this number.
constexpr HRESULT automation_error_number(long number) { return static_cast<HRESULT>(0x800A0000 + number); }

}  // namespace vx::test
