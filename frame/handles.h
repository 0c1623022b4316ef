// Owners for the platform's resources: each releases what it holds exactly
// once, when it goes out of scope, unless the holder hands it on.
#pragma once

#include <windows.h>
#include <oleauto.h>

#include <new>
#include <string_view>
#include <utility>

namespace vx {

// An interface pointer that holds one reference.
template <class Interface>
class com_ptr {
public:
    com_ptr() = default;
    com_ptr(std::nullptr_t) {}
    // Takes over a reference the caller already owns.
    static com_ptr attach(Interface* raw) {
        com_ptr p;
        p.pointer_ = raw;
        return p;
    }
    // Adds a reference of its own.
    static com_ptr copy(Interface* raw) {
        if (raw) raw->AddRef();
        return attach(raw);
    }
    com_ptr(const com_ptr& other) : pointer_(other.pointer_) {
        if (pointer_) pointer_->AddRef();
    }
    com_ptr(com_ptr&& other) noexcept : pointer_(std::exchange(other.pointer_, nullptr)) {}
    com_ptr& operator=(com_ptr other) noexcept {
        std::swap(pointer_, other.pointer_);
        return *this;
    }
    ~com_ptr() { reset(); }

    void reset() {
        if (Interface* old = std::exchange(pointer_, nullptr)) old->Release();
    }
    Interface* get() const { return pointer_; }
    Interface* operator->() const { return pointer_; }
    explicit operator bool() const { return pointer_ != nullptr; }
    // Gives up the reference to the caller (an out parameter).
    Interface* detach() { return std::exchange(pointer_, nullptr); }
    // For functions that return a new reference through an out parameter.
    Interface** put() {
        reset();
        return &pointer_;
    }
    void** put_void() { return reinterpret_cast<void**>(put()); }

    template <class Other>
    com_ptr<Other> query(REFIID iid) const {
        com_ptr<Other> result;
        if (pointer_) pointer_->QueryInterface(iid, result.put_void());
        return result;
    }

private:
    Interface* pointer_ = nullptr;
};

// A BSTR that this code owns.
class unique_bstr {
public:
    unique_bstr() = default;
    explicit unique_bstr(BSTR owned) : value_(owned) {}
    unique_bstr(const unique_bstr&) = delete;
    unique_bstr& operator=(const unique_bstr&) = delete;
    unique_bstr(unique_bstr&& other) noexcept : value_(std::exchange(other.value_, nullptr)) {}
    unique_bstr& operator=(unique_bstr&& other) noexcept {
        if (this != &other) {
            reset();
            value_ = std::exchange(other.value_, nullptr);
        }
        return *this;
    }
    ~unique_bstr() { reset(); }

    void reset(BSTR owned = nullptr) {
        if (value_) SysFreeString(value_);
        value_ = owned;
    }
    BSTR get() const { return value_; }
    BSTR release() { return std::exchange(value_, nullptr); }
    BSTR* put() {
        reset();
        return &value_;
    }
    UINT length() const { return SysStringLen(value_); }

private:
    BSTR value_ = nullptr;
};

// A new BSTR holding text; out of memory is thrown as std::bad_alloc.
inline unique_bstr bstr_from(std::wstring_view text) {
    BSTR value = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
    if (!value) throw std::bad_alloc();
    return unique_bstr(value);
}

// A VARIANT that this code owns; cleared on destruction.
class unique_variant {
public:
    unique_variant() { V_VT(&value_) = VT_EMPTY; }
    unique_variant(const unique_variant&) = delete;
    unique_variant& operator=(const unique_variant&) = delete;
    // Values below VT_BSTR hold nothing to free; skipping the call keeps
    // late binding cheap.
    ~unique_variant() {
        if (V_VT(&value_) >= VT_BSTR) VariantClear(&value_);
    }

    VARIANT* get() { return &value_; }
    const VARIANT* get() const { return &value_; }
    VARIANT* operator->() { return &value_; }
    const VARIANT* operator->() const { return &value_; }
    VARIANT* put() {
        VariantClear(&value_);
        return &value_;
    }
    // Moves the value into an out parameter the caller has initialised.
    void detach_to(VARIANT* destination) {
        *destination = value_;
        VariantInit(&value_);
    }

private:
    VARIANT value_;
};

// A platform handle that this code owns, closed by Close on scope exit.
template <class Handle, auto Close>
class unique_handle {
public:
    unique_handle() = default;
    explicit unique_handle(Handle owned) : handle_(owned) {}
    unique_handle(const unique_handle&) = delete;
    unique_handle& operator=(const unique_handle&) = delete;
    unique_handle(unique_handle&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
    unique_handle& operator=(unique_handle&& other) noexcept {
        if (this != &other) {
            reset();
            handle_ = std::exchange(other.handle_, nullptr);
        }
        return *this;
    }
    ~unique_handle() { reset(); }

    void reset() {
        if (Handle old = std::exchange(handle_, nullptr)) Close(old);
    }
    Handle get() const { return handle_; }
    // Gives the handle up, for a close whose result the caller checks.
    Handle release() { return std::exchange(handle_, nullptr); }
    Handle* put() {
        reset();
        return &handle_;
    }
    explicit operator bool() const { return handle_ != nullptr; }

private:
    Handle handle_ = nullptr;
};

// A registry key that this code opened.
using unique_hkey = unique_handle<HKEY, &RegCloseKey>;

}  // namespace vx
