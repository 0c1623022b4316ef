// Owners for the GDI resources of the imaging classes: a memory DC, a
// bitmap or other GDI object, a window's DC, and an object selected into a
// DC for as long as one scope needs it.
#pragma once

#include <windows.h>

#include <utility>

namespace vx {

// A memory DC made by CreateCompatibleDC; DeleteDC on scope exit.
class unique_hdc {
public:
    unique_hdc() = default;
    explicit unique_hdc(HDC owned) : dc_(owned) {}
    unique_hdc(const unique_hdc&) = delete;
    unique_hdc& operator=(const unique_hdc&) = delete;
    unique_hdc(unique_hdc&& other) noexcept : dc_(std::exchange(other.dc_, nullptr)) {}
    unique_hdc& operator=(unique_hdc&& other) noexcept {
        if (this != &other) {
            reset();
            dc_ = std::exchange(other.dc_, nullptr);
        }
        return *this;
    }
    ~unique_hdc() { reset(); }

    void reset() {
        if (HDC old = std::exchange(dc_, nullptr)) DeleteDC(old);
    }
    HDC get() const { return dc_; }
    HDC release() { return std::exchange(dc_, nullptr); }
    explicit operator bool() const { return dc_ != nullptr; }

private:
    HDC dc_ = nullptr;
};

// A bitmap, pen, brush...; DeleteObject on scope exit.
template <class Handle>
class unique_gdi_object {
public:
    unique_gdi_object() = default;
    explicit unique_gdi_object(Handle owned) : object_(owned) {}
    unique_gdi_object(const unique_gdi_object&) = delete;
    unique_gdi_object& operator=(const unique_gdi_object&) = delete;
    unique_gdi_object(unique_gdi_object&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    unique_gdi_object& operator=(unique_gdi_object&& other) noexcept {
        if (this != &other) {
            reset();
            object_ = std::exchange(other.object_, nullptr);
        }
        return *this;
    }
    ~unique_gdi_object() { reset(); }

    void reset() {
        if (Handle old = std::exchange(object_, nullptr)) DeleteObject(old);
    }
    Handle get() const { return object_; }
    Handle release() { return std::exchange(object_, nullptr); }
    explicit operator bool() const { return object_ != nullptr; }

private:
    Handle object_ = nullptr;
};
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
