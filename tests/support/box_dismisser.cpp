#include "support/box_dismisser.h"

namespace vx::test {

namespace {

struct search {
    DWORD process;
    HWND found;
};

// A dialog window of this process: the class of message boxes.
BOOL CALLBACK find_box(HWND window, LPARAM context) {
    auto* s = reinterpret_cast<search*>(context);
    DWORD process = 0;
    GetWindowThreadProcessId(window, &process);
    wchar_t class_name[16] = {};
    GetClassNameW(window, class_name, 16);
    if (process == s->process && IsWindowVisible(window) && std::wstring(class_name) == L"#32770") {
        s->found = window;
        return FALSE;
    }
    return TRUE;
}

std::wstring text_of_window(HWND window) {
    wchar_t text[512] = {};
    GetWindowTextW(window, text, 512);
    return text;
}

BOOL CALLBACK collect_static_text(HWND child, LPARAM context) {
    wchar_t class_name[16] = {};
    GetClassNameW(child, class_name, 16);
    if (_wcsicmp(class_name, L"Static") == 0) {
        const std::wstring text = text_of_window(child);
        if (!text.empty()) *reinterpret_cast<std::wstring*>(context) += text;
    }
    return TRUE;
}

}  // namespace

box_dismisser::box_dismisser() : thread_([this] { watch(); }) {}

box_dismisser::~box_dismisser() {
    stop_ = true;
    thread_.join();
}

std::vector<box_dismisser::seen_box> box_dismisser::seen() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return seen_;
}

void box_dismisser::watch() {
    while (!stop_) {
        search s{GetCurrentProcessId(), nullptr};
        EnumWindows(find_box, reinterpret_cast<LPARAM>(&s));
        if (s.found) {
            seen_box box{text_of_window(s.found), L""};
            EnumChildWindows(s.found, collect_static_text, reinterpret_cast<LPARAM>(&box.text));
            {
                std::lock_guard<std::mutex> lock(mutex_);
                seen_.push_back(box);
            }
            PostMessageW(s.found, WM_COMMAND, IDOK, 0);
            // Wait for it to go, so that it is not counted twice.
            for (int i = 0; i < 500 && IsWindow(s.found) && IsWindowVisible(s.found); ++i) Sleep(5);
        }
        Sleep(5);
    }
}

}  // namespace vx::test
