#include "support/box_dismisser.h"

namespace vx::test {

namespace {

std::wstring class_of(HWND window) {
    wchar_t name[16] = {};
    GetClassNameW(window, name, 16);
    return name;
}

// A visible dialog window of this process: the class of message boxes.
BOOL CALLBACK find_box(HWND window, LPARAM found) {
    DWORD process = 0;
    GetWindowThreadProcessId(window, &process);
    if (process != GetCurrentProcessId() || !IsWindowVisible(window) || class_of(window) != L"#32770") return TRUE;
    return *reinterpret_cast<HWND*>(found) = window, FALSE;
}

BOOL CALLBACK collect_static_text(HWND child, LPARAM text) {
    wchar_t part[512] = {};
    if (_wcsicmp(class_of(child).c_str(), L"Static") == 0 && GetWindowTextW(child, part, 512))
        *reinterpret_cast<std::wstring*>(text) += part;
    return TRUE;
}

}  // namespace

void box_dismisser::watch() {
    for (; !stop_; Sleep(5)) {
        HWND box = nullptr;
        EnumWindows(find_box, reinterpret_cast<LPARAM>(&box));
        if (!box) continue;
        seen_box seen;
        EnumChildWindows(box, collect_static_text, reinterpret_cast<LPARAM>(&seen.text));
        { std::lock_guard<std::mutex> lock(mutex_); seen_.push_back(seen); }
        PostMessageW(box, WM_COMMAND, IDOK, 0);
        // Wait for it to go, so that it is not counted twice.
        for (int i = 0; i < 500 && IsWindow(box) && IsWindowVisible(box); ++i) Sleep(5);
    }
}

}  // namespace vx::test
