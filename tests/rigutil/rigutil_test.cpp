#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "rigutil/rigutil.h"

using namespace rigutil;

namespace {

// Records what happens to events: which ran, in what order, and how many were deleted.
struct Journal {
    std::mutex lock;
    std::vector<int> ran;
    std::atomic<int> deleted{0};
    void record(int id) {
        std::lock_guard<std::mutex> guard(lock);
        ran.push_back(id);
    }
    std::vector<int> snapshot() {
        std::lock_guard<std::mutex> guard(lock);
        return ran;
    }
};

class RecordingEvent : public IEvent {
public:
    RecordingEvent(Journal& journal, int id, std::shared_future<void> gate = {})
        : IEvent(nullptr), journal_(journal), id_(id), gate_(std::move(gate)) {}
    ~RecordingEvent() override { ++journal_.deleted; }
    bool execute() override {
        if (gate_.valid()) gate_.wait();
        journal_.record(id_);
        return true;
    }
    int id() const { return id_; }
    int weight = 1;

private:
    Journal& journal_;
    int id_;
    std::shared_future<void> gate_;
};

// Waits until the thread's queue is empty and the last event has been recorded.
void drain(EventThread& thread, Journal& journal, std::size_t expected) {
    for (int i = 0; i < 2000 && (thread.getQueuedCount() != 0 || journal.snapshot().size() < expected); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

}  // namespace

TEST(RGException, KeepsIdentifierAndMessageAndIsCaughtAsPointer) {
    try {
        throw new RGException("benchkit:Test:kind", "what went wrong");
    } catch (RGException* error) {
        EXPECT_STREQ(error->getIdentifier(), "benchkit:Test:kind");
        EXPECT_STREQ(error->getMessage(), "what went wrong");
        delete error;
    }
}

TEST(RGCriticalSection, IsRecursiveForItsOwnerAndExclusiveForOthers) {
    RGCriticalSection section;
    section.enter();
    {
        RGAutoCriticalSection again(section);
        EXPECT_TRUE(section.tryEnter());
        section.leave();
    }
    bool otherGotIt = true;
    std::thread([&] { otherGotIt = section.tryEnter(); }).join();
    EXPECT_FALSE(otherGotIt);
    section.leave();
    std::thread([&] {
        otherGotIt = section.tryEnter();
        if (otherGotIt) section.leave();
    }).join();
    EXPECT_TRUE(otherGotIt);
}

TEST(EventThread, StatesFollowStartAndStopAndAThreadRestarts) {
    EventThread thread(StopDiscardPending);
    EXPECT_EQ(thread.getState(), WorkThread::Stopped);
    EXPECT_TRUE(thread.stop());  // stopping a thread that never ran succeeds
    for (int round = 0; round < 3; ++round) {
        ASSERT_TRUE(thread.start());
        EXPECT_EQ(thread.getState(), 2);
        EXPECT_TRUE(thread.start());  // already running
        ASSERT_TRUE(thread.stop());
        EXPECT_EQ(thread.getState(), WorkThread::Stopped);
    }
}

TEST(EventThread, RunsEventsOneAtATimeInPostingOrderFromManyThreads) {
    Journal journal;
    EventThread thread(StopDiscardPending);
    ASSERT_TRUE(thread.start());
    std::vector<std::thread> posters;
    for (int p = 0; p < 4; ++p)
        posters.emplace_back([&, p] {
            for (int i = 0; i < 100; ++i) thread.postEvent(new RecordingEvent(journal, p * 1000 + i), nullptr, nullptr);
        });
    for (auto& t : posters) t.join();
    drain(thread, journal, 400);
    ASSERT_TRUE(thread.stop());
    const auto ran = journal.snapshot();
    ASSERT_EQ(ran.size(), 400u);
    std::vector<int> lastOf(4, -1);
    for (int id : ran) {  // each poster's events keep their order
        EXPECT_GT(id % 1000, lastOf[id / 1000]);
        lastOf[id / 1000] = id % 1000;
    }
    EXPECT_EQ(journal.deleted.load(), 400);
}

TEST(EventThread, StopModesDecideTheFateOfQueuedEvents) {
    for (StopProcessingMode mode : {StopDiscardPending, StopDrainPending}) {
        Journal journal;
        std::promise<void> open;
        EventThread thread(mode);
        ASSERT_TRUE(thread.start());
        thread.postEvent(new RecordingEvent(journal, 0, open.get_future().share()), nullptr, nullptr);
        for (int i = 1; i <= 5; ++i) thread.postEvent(new RecordingEvent(journal, i), nullptr, nullptr);
        // Let the gated event start, then stop while the others wait behind it.
        while (thread.getQueuedCount() != 5) std::this_thread::yield();
        std::thread opener([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            open.set_value();
        });
        ASSERT_TRUE(thread.stop());
        opener.join();
        const auto ran = journal.snapshot();
        if (mode == StopDiscardPending) {
            EXPECT_EQ(ran, std::vector<int>{0});  // the running event finishes, the rest are dropped
        } else {
            EXPECT_EQ(ran, (std::vector<int>{0, 1, 2, 3, 4, 5}));
        }
        EXPECT_EQ(journal.deleted.load(), 6);
    }
}

TEST(EventThread, DeletesEventsPostedWhileStoppedAndNullIsRefused) {
    Journal journal;
    EventThread thread(StopDiscardPending);
    EXPECT_FALSE(thread.postEvent(new RecordingEvent(journal, 1), nullptr, nullptr));
    EXPECT_FALSE(thread.postEvent(nullptr, nullptr, nullptr));
    EXPECT_EQ(journal.deleted.load(), 1);
    EXPECT_TRUE(journal.snapshot().empty());
}

namespace {
struct SameId : IMatchEventFcn {
    bool matches(const IEvent& queued, const IEvent& posted) const override {
        return static_cast<const RecordingEvent&>(queued).id() == static_cast<const RecordingEvent&>(posted).id();
    }
};
struct AddWeight : IMergeEventInfoFcn {
    void merge(IEvent& queued, IEvent& posted) const override {
        static_cast<RecordingEvent&>(queued).weight += static_cast<RecordingEvent&>(posted).weight;
    }
};
}  // namespace

TEST(EventThread, AMatchingQueuedEventAbsorbsThePostedOne) {
    Journal journal;
    std::promise<void> open;
    EventThread thread(StopDrainPending);
    ASSERT_TRUE(thread.start());
    thread.postEvent(new RecordingEvent(journal, 0, open.get_future().share()), nullptr, nullptr);
    while (thread.getQueuedCount() != 0) std::this_thread::yield();  // the gate holds the worker
    SameId match;
    AddWeight merge;
    auto* first = new RecordingEvent(journal, 7);
    thread.postEvent(first, &match, &merge);
    thread.postEvent(new RecordingEvent(journal, 7), &match, &merge);
    thread.postEvent(new RecordingEvent(journal, 8), &match, nullptr);
    EXPECT_EQ(thread.getQueuedCount(), 2u);
    EXPECT_EQ(first->weight, 2);
    open.set_value();
    ASSERT_TRUE(thread.stop());
    EXPECT_EQ(journal.snapshot(), (std::vector<int>{0, 7, 8}));
    EXPECT_EQ(journal.deleted.load(), 4);
}

namespace {
class ThrowingEvent : public IEvent {
public:
    explicit ThrowingEvent(bool asPointer) : IEvent(nullptr), asPointer_(asPointer) {}
    bool execute() override {
        if (asPointer_) throw new RGException("test:Event:failure", "failed");
        throw std::runtime_error("failed");
    }

private:
    bool asPointer_;
};

class StopFromInside : public IEvent {
public:
    StopFromInside(EventThread& thread, std::promise<bool>& result)
        : IEvent(nullptr), thread_(thread), result_(result) {}
    bool execute() override {
        result_.set_value(thread_.stop());
        return true;
    }

private:
    EventThread& thread_;
    std::promise<bool>& result_;
};
}  // namespace

TEST(EventThread, SurvivesFailingEventsAndRefusesToStopFromItsOwnWorker) {
    Journal journal;
    EventThread thread(StopDrainPending);
    ASSERT_TRUE(thread.start());
    thread.postEvent(new ThrowingEvent(true), nullptr, nullptr);
    thread.postEvent(new ThrowingEvent(false), nullptr, nullptr);
    std::promise<bool> stopped;
    thread.postEvent(new StopFromInside(thread, stopped), nullptr, nullptr);
    thread.postEvent(new RecordingEvent(journal, 1), nullptr, nullptr);
    EXPECT_FALSE(stopped.get_future().get());
    drain(thread, journal, 1);
    EXPECT_EQ(thread.getState(), 2);
    ASSERT_TRUE(thread.stop());
    EXPECT_EQ(journal.snapshot(), std::vector<int>{1});
}

namespace {
struct CountedInfo : IEventInfo {
    explicit CountedInfo(std::atomic<int>& n) : deleted(n) {}
    ~CountedInfo() override { ++deleted; }
    std::atomic<int>& deleted;
};
}  // namespace

TEST(IEvent, OwnsItsInfoAndRunsOnlyWhenAskedTo) {
    std::atomic<int> infos{0};
    Journal journal;
    {
        RecordingEvent event(journal, 3);
        event.setEventInfo(new CountedInfo(infos));
        event.setEventInfo(new CountedInfo(infos));
        EXPECT_EQ(infos.load(), 1);
        event.serviceEvent(false);
        EXPECT_TRUE(journal.snapshot().empty());
        event.serviceEvent(true);
        EXPECT_EQ(journal.snapshot(), std::vector<int>{3});
    }
    EXPECT_EQ(infos.load(), 2);
}
