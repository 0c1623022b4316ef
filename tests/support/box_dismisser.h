// Dismisses the message boxes that this process shows, from a thread of
// its own, and keeps what they said: a test that makes a member show its
// box is never left waiting for a user.
#pragma once

#include <windows.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace vx::test {

class box_dismisser {
public:
    box_dismisser() : thread_([this] { watch(); }) {}
    ~box_dismisser() { stop_ = true, thread_.join(); }

    struct seen_box { std::wstring text; };  // the text of its static controls
    // The boxes dismissed so far.
    std::vector<seen_box> seen() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return seen_;
    }

private:
    void watch();

    std::atomic<bool> stop_{false};
    mutable std::mutex mutex_;
    std::vector<seen_box> seen_;
    std::thread thread_;
};

}  // namespace vx::test
