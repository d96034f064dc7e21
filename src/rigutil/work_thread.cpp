#include "rigutil/work_thread.h"

#include <exception>

namespace rigutil {

namespace {
// The thread object whose worker is the calling thread, so that stop() can refuse to join itself.
thread_local const WorkThread* currentWorker = nullptr;
}  // namespace

WorkThread::WorkThread() = default;

WorkThread::~WorkThread() {
    // A derived class stops its worker in its own destructor; a worker still joinable here would
    // outlive the object it runs on.
    if (worker_.joinable()) std::terminate();
}

bool WorkThread::start() {
    std::lock_guard<std::mutex> guard(control_);
    const int state = state_.load(std::memory_order_acquire);
    if (state == Running) return true;
    if (state != Stopped) return false;
    state_.store(Starting, std::memory_order_release);
    prepareStart();
    try {
        worker_ = std::thread([this] {
            currentWorker = this;
            run();
            currentWorker = nullptr;
        });
    } catch (const std::exception&) {
        requestStop();
        state_.store(Stopped, std::memory_order_release);
        return false;
    }
    state_.store(Running, std::memory_order_release);
    return true;
}

bool WorkThread::stop() {
    if (currentWorker == this) return false;
    std::lock_guard<std::mutex> guard(control_);
    if (state_.load(std::memory_order_acquire) == Stopped) return true;
    state_.store(Stopping, std::memory_order_release);
    requestStop();
    worker_.join();
    state_.store(Stopped, std::memory_order_release);
    return true;
}

}  // namespace rigutil
