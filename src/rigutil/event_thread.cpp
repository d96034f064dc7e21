#include "rigutil/event_thread.h"

#include <exception>

#include "rigutil/rg_exception.h"

namespace rigutil {

IEventInfo::~IEventInfo() = default;
IMatchEventFcn::~IMatchEventFcn() = default;
IMergeEventInfoFcn::~IMergeEventInfoFcn() = default;

IEvent::IEvent(IEventInfo* info) : info_(info) {}

IEvent::~IEvent() { delete info_; }

void IEvent::serviceEvent(bool runIt) {
    if (runIt && isExecutable()) execute();
}

bool IEvent::postEvent(EventThread& thread) { return thread.postEvent(this, nullptr, nullptr); }

void IEvent::setEventInfo(IEventInfo* info) {
    if (info == info_) return;
    delete info_;
    info_ = info;
}

EventThread::EventThread(StopProcessingMode mode) : mode_(mode) {}

EventThread::~EventThread() {
    // Destroying the thread from one of its own events cannot join the worker.
    if (!stop()) std::terminate();
}

bool EventThread::stop() {
    if (!WorkThread::stop()) return false;
    discardQueue();
    return true;
}

bool EventThread::postEvent(IEvent* event, const IMatchEventFcn* match, const IMergeEventInfoFcn* merge) {
    if (event == nullptr) return false;
    std::unique_lock<std::mutex> lock(queueLock_);
    if (!accepting_) {
        lock.unlock();
        delete event;
        return false;
    }
    if (match != nullptr) {
        for (IEvent* queued : queue_) {
            if (queued != event && match->matches(*queued, *event)) {
                if (merge != nullptr) merge->merge(*queued, *event);
                lock.unlock();
                delete event;
                return true;
            }
        }
    }
    queue_.push_back(event);
    lock.unlock();
    wake_.notify_one();
    return true;
}

std::size_t EventThread::getQueuedCount() const {
    std::lock_guard<std::mutex> lock(queueLock_);
    return queue_.size();
}

void EventThread::prepareStart() {
    std::lock_guard<std::mutex> lock(queueLock_);
    stopRequested_ = false;
    accepting_ = true;
}

void EventThread::requestStop() {
    {
        std::lock_guard<std::mutex> lock(queueLock_);
        stopRequested_ = true;
        accepting_ = false;
    }
    wake_.notify_all();
}

void EventThread::run() {
    for (;;) {
        std::unique_lock<std::mutex> lock(queueLock_);
        wake_.wait(lock, [this] { return stopRequested_ || !queue_.empty(); });
        if (stopRequested_ && (mode_ == StopDiscardPending || queue_.empty())) return;
        IEvent* event = queue_.front();
        queue_.pop_front();
        lock.unlock();
        try {
            event->serviceEvent(true);
        } catch (RGException* error) {
            delete error;
        } catch (...) {
            // An event's failure must not end the worker; the event is dropped like any other.
        }
        delete event;
    }
}

void EventThread::discardQueue() {
    std::deque<IEvent*> pending;
    {
        std::lock_guard<std::mutex> lock(queueLock_);
        pending.swap(queue_);
    }
    for (IEvent* event : pending) delete event;
}

}  // namespace rigutil
