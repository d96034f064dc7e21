#pragma once
#include <condition_variable>
#include <deque>
#include <mutex>

#include "rigutil/export.h"
#include "rigutil/work_thread.h"

namespace rigutil {

class EventThread;

// Information an event carries; the event owns it and deletes it.
class RIGUTIL_API IEventInfo {
public:
    virtual ~IEventInfo();
};

// A unit of work for an EventThread. The thread owns every event posted to it and deletes it
// after running or discarding it.
class RIGUTIL_API IEvent {
public:
    explicit IEvent(IEventInfo* info);
    virtual ~IEvent();
    IEvent(const IEvent&) = delete;
    IEvent& operator=(const IEvent&) = delete;

    // Whether the event wants to run when it reaches the head of the queue.
    virtual bool isExecutable() const { return true; }
    // Called by the thread for every event it takes from the queue: runs execute() when
    // runIt is true and the event is executable.
    virtual void serviceEvent(bool runIt);
    // Posts this event to a thread, without match or merge; the thread takes ownership.
    virtual bool postEvent(EventThread& thread);
    // The work itself; the result is informational.
    virtual bool execute() = 0;

    IEventInfo* getEventInfo() const { return info_; }
    // Replaces the information, deleting the old one.
    void setEventInfo(IEventInfo* info);

private:
    IEventInfo* info_;
};

// Decides whether a queued event stands for the one being posted.
class RIGUTIL_API IMatchEventFcn {
public:
    virtual ~IMatchEventFcn();
    virtual bool matches(const IEvent& queued, const IEvent& posted) const = 0;
};

// Folds what a posted event carries into the queued event it matched.
class RIGUTIL_API IMergeEventInfoFcn {
public:
    virtual ~IMergeEventInfoFcn();
    virtual void merge(IEvent& queued, IEvent& posted) const = 0;
};

// What stop() does with events still queued.
enum StopProcessingMode : int {
    // The event being run finishes; queued events are deleted without running.
    StopDiscardPending = 0,
    // Every event queued before stop() was called runs before the worker ends.
    StopDrainPending = 1,
};

// A worker thread that runs posted events one at a time, in the order they were posted.
//
// postEvent may be called from any thread. Events posted while the thread is not running are
// deleted at once without running, so a stopped thread never accumulates work. An exception that
// leaves an event's execute() is swallowed (an RGException* is deleted) and the worker goes on.
// A stopped thread can be started again.
class RIGUTIL_API EventThread : public WorkThread {
public:
    explicit EventThread(StopProcessingMode mode);
    ~EventThread() override;

    bool stop() override;

    // Queues event; takes ownership whatever the result. With a match function, the first queued
    // event that matches takes the place of the posted one: the merge function (when given)
    // folds the posted event into it, and the posted event is deleted. Returns false when the
    // event was null or discarded because the thread is not running.
    bool postEvent(IEvent* event, const IMatchEventFcn* match, const IMergeEventInfoFcn* merge);

    // Number of events waiting to run.
    std::size_t getQueuedCount() const;

protected:
    void run() override;
    void requestStop() override;
    void prepareStart() override;

private:
    void discardQueue();

    const StopProcessingMode mode_;
    mutable std::mutex queueLock_;
    std::condition_variable wake_;
    std::deque<IEvent*> queue_;
    bool accepting_ = false;
    bool stopRequested_ = false;
};

}  // namespace rigutil
