// A thread in a single-threaded apartment of its own, with a message loop,
// as a client program's user-interface thread has: objects made there live
// there, and the marshaller delivers calls to them through that loop.
#pragma once

#include <windows.h>
#include <objbase.h>

#include <functional>
#include <thread>

namespace vx::test {

class apartment_thread {
public:
    apartment_thread() {
        ready_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        thread_ = std::thread([this] { loop(); });
        WaitForSingleObject(ready_, INFINITE);
    }
    apartment_thread(const apartment_thread&) = delete;
    apartment_thread& operator=(const apartment_thread&) = delete;
    ~apartment_thread() {
        PostThreadMessageW(id_, WM_QUIT, 0, 0);
        thread_.join();
        CloseHandle(ready_);
    }

    DWORD id() const { return id_; }
    bool initialised() const { return initialised_ == S_OK; }

    // Runs work on the apartment's thread and waits for it. The caller keeps
    // serving its own apartment meanwhile, since the work may call into it.
    void run(std::function<void()> work) {
        item next{std::move(work), CreateEventW(nullptr, TRUE, FALSE, nullptr)};
        PostThreadMessageW(id_, work_message, 0, reinterpret_cast<LPARAM>(&next));
        DWORD signalled = 0;
        CoWaitForMultipleHandles(0, INFINITE, 1, &next.done, &signalled);
        CloseHandle(next.done);
    }

private:
    static constexpr UINT work_message = WM_APP + 17;
    struct item {
        std::function<void()> work;
        HANDLE done;
    };

    void loop() {
        initialised_ = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        MSG message;
        PeekMessageW(&message, nullptr, 0, 0, PM_NOREMOVE);  // makes the queue before anyone posts
        id_ = GetCurrentThreadId();
        SetEvent(ready_);
        while (GetMessageW(&message, nullptr, 0, 0) > 0) {
            if (!message.hwnd && message.message == work_message) {
                auto* next = reinterpret_cast<item*>(message.lParam);
                next->work();
                SetEvent(next->done);
                continue;
            }
            TranslateMessage(&message);
            DispatchMessageW(&message);
        }
        if (initialised_ == S_OK) CoUninitialize();
    }

    HANDLE ready_ = nullptr;
    DWORD id_ = 0;
    HRESULT initialised_ = E_FAIL;
    std::thread thread_;
};

}  // namespace vx::test
