#pragma once
#include <atomic>
#include <mutex>
#include <thread>

#include "rigutil/export.h"

namespace rigutil {

// A thread object that runs one worker function at a time. It may be started again after it
// has stopped.
//
// States reported by getState():
//   0 Stopped  - never started, or stopped and joined
//   1 Starting - start() is creating the worker
//   2 Running  - the worker runs and accepts work
//   3 Stopping - stop() has asked the worker to finish and is waiting for it
class RIGUTIL_API WorkThread {
public:
    enum State : int { Stopped = 0, Starting = 1, Running = 2, Stopping = 3 };

    WorkThread();
    // The owner must stop the thread first; a thread still running here is stopped and joined.
    virtual ~WorkThread();
    WorkThread(const WorkThread&) = delete;
    WorkThread& operator=(const WorkThread&) = delete;

    // Starts the worker. True when it runs afterwards (also when it was already running); false
    // when the worker could not be created or the thread is being stopped.
    virtual bool start();
    // Asks the worker to finish and joins it. True when the thread is stopped afterwards (also
    // when it was never started); false when called from the worker itself, which cannot join
    // itself.
    virtual bool stop();

    int getState() const { return state_.load(std::memory_order_acquire); }

protected:
    // The worker's body; it returns once stopRequested() has been seen.
    virtual void run() = 0;
    // Called by stop() with the control lock held, so the worker can be woken up.
    virtual void requestStop() = 0;
    // Called by start() before the worker is created, to reset per-run state.
    virtual void prepareStart() {}

private:
    std::mutex control_;  // serialises start() and stop()
    std::thread worker_;
    std::atomic<int> state_{Stopped};
};

}  // namespace rigutil
