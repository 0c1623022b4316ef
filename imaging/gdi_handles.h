// Owners for the GDI resources of the imaging classes: a memory DC, a
// bitmap or other GDI object, a window's DC, and an object selected into a
// DC for as long as one scope needs it.
#pragma once

#include "frame/handles.h"

#include <windows.h>

#include <utility>

namespace vx {

// A memory DC made by CreateCompatibleDC.
using unique_hdc = unique_handle<HDC, &DeleteDC>;

// A bitmap, pen, brush...
template <class Handle>
using unique_gdi_object = unique_handle<Handle, &DeleteObject>;
using unique_hbitmap = unique_gdi_object<HBITMAP>;

// A window's DC from GetDC; ReleaseDC on scope exit.
class window_dc {
public:
    explicit window_dc(HWND window) : window_(window), dc_(GetDC(window)) {}
    window_dc(const window_dc&) = delete;
    window_dc& operator=(const window_dc&) = delete;
    ~window_dc() { release(); }

    void release() {
        if (HDC old = std::exchange(dc_, nullptr)) ReleaseDC(window_, old);
    }
    HDC get() const { return dc_; }
    explicit operator bool() const { return dc_ != nullptr; }

private:
    HWND window_;
    HDC dc_;
};

// Selects an object into a DC and selects back what was there on scope
// exit. A refused selection leaves nothing to restore.
class scoped_selection {
public:
    scoped_selection(HDC dc, HGDIOBJ object) : dc_(dc), previous_(SelectObject(dc, object)) {}
    scoped_selection(const scoped_selection&) = delete;
    scoped_selection& operator=(const scoped_selection&) = delete;
    ~scoped_selection() {
        if (previous_) SelectObject(dc_, previous_);
    }
    bool selected() const { return previous_ != nullptr; }

private:
    HDC dc_;
    HGDIOBJ previous_;
};

}  // namespace vx
