#pragma once

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

// Moves items through three steps that run at the same time: a thread of its own produces them,
// several workers change them, and the calling thread consumes them in the order in which they
// were produced. The items are a ring that is made once, so memory doesn't grow.
//
// It ends when the producer has nothing more, or as soon as the consumer wants no more. What a
// step throws ends it too and is thrown again by `Run`.
template <typename Item> class COrderedPipeline {
public:
    using Produce_t = std::function<bool(Item&)>;              // false: nothing more, the item isn't used
    using Work_t = std::function<void(Item&, size_t worker)>;  // `worker` counts the workers from 0
    using Consume_t = std::function<bool(Item&)>;              // false: no more, please

    COrderedPipeline(size_t itemCount, size_t workerCount)
        : m_Slots(std::max<size_t>(itemCount, 1)), m_WorkerCount(std::max<size_t>(workerCount, 1)) {}

    void Run(const Produce_t& produce, const Work_t& work, const Consume_t& consume) {
        std::vector<std::thread> threads;
        Guarded([&] {
            threads.reserve(m_WorkerCount + 1);
            threads.emplace_back([&] { Guarded([&] { ProduceAll(produce); }); });
            for (size_t worker = 0; worker < m_WorkerCount; ++worker)
                threads.emplace_back([&, worker] { Guarded([&] { WorkOnAll(work, worker); }); });
            ConsumeAll(consume);
        });
        Stop();
        for (std::thread& thread : threads)
            thread.join();
        if (m_Thrown != nullptr)
            std::rethrow_exception(m_Thrown);
    }

private:
    struct Slot_t {
        Item item;
        bool isWorked = false;
    };
    static constexpr size_t NoEndYet = ~size_t{0};

    void ProduceAll(const Produce_t& produce) {
        for (size_t index = 0; WaitForRoom(index); ++index) {
            if (!produce(SlotAt(index).item)) {
                EndAt(index);
                return;
            }
            Change(m_HasWork, [&] { m_Produced = index + 1; });
        }
    }

    void WorkOnAll(const Work_t& work, size_t worker) {
        for (size_t index = 0; TakeNext(index);) {
            work(SlotAt(index).item, worker);
            Change(m_HasItem, [&] { SlotAt(index).isWorked = true; });
        }
    }

    void ConsumeAll(const Consume_t& consume) {
        for (size_t index = 0; WaitForItem(index); ++index) {
            if (!consume(SlotAt(index).item))
                return;
            Change(m_HasRoom, [&] {
                SlotAt(index).isWorked = false;
                m_Consumed = index + 1;
            });
        }
    }

    bool WaitForRoom(size_t index) {
        std::unique_lock lock(m_Mutex);
        m_HasRoom.wait(lock, [&] { return m_IsStopped || index < m_Consumed + m_Slots.size(); });
        return !m_IsStopped;
    }

    // An item is a worker's only when it is there: whichever of them is woken has something to do.
    bool TakeNext(size_t& index) {
        std::unique_lock lock(m_Mutex);
        m_HasWork.wait(lock, [&] { return m_IsStopped || m_Taken < m_Produced || m_Taken >= m_End; });
        if (m_IsStopped || m_Taken >= m_End)
            return false;
        index = m_Taken++;
        return true;
    }

    // False when there will be no item of that index.
    bool WaitForItem(size_t index) {
        std::unique_lock lock(m_Mutex);
        m_HasItem.wait(lock, [&] { return m_IsStopped || index >= m_End || SlotAt(index).isWorked; });
        return !m_IsStopped && index < m_End;
    }

    // Wakes one of those who wait for the change, and none of the others.
    template <typename Make> void Change(std::condition_variable& changed, Make make) {
        {
            const std::lock_guard lock(m_Mutex);
            make();
        }
        changed.notify_one();
    }

    void EndAt(size_t index) {
        const std::lock_guard lock(m_Mutex);
        m_End = index;
        WakeAll();
    }

    void Stop() {
        const std::lock_guard lock(m_Mutex);
        m_IsStopped = true;
        WakeAll();
    }

    void WakeAll() {
        for (std::condition_variable* const each : {&m_HasRoom, &m_HasWork, &m_HasItem})
            each->notify_all();
    }

    template <typename Step> void Guarded(Step step) {
        try {
            step();
        } catch (...) {
            const std::lock_guard lock(m_Mutex);
            if (m_Thrown == nullptr)
                m_Thrown = std::current_exception();
            m_IsStopped = true;
            WakeAll();
        }
    }

    Slot_t& SlotAt(size_t index) { return m_Slots[index % m_Slots.size()]; }

    std::vector<Slot_t> m_Slots;
    const size_t m_WorkerCount;
    std::mutex m_Mutex;
    std::condition_variable m_HasRoom;  // for the producer
    std::condition_variable m_HasWork;  // for the workers
    std::condition_variable m_HasItem;  // for the consumer
    size_t m_Produced = 0;
    size_t m_Taken = 0;
    size_t m_Consumed = 0;
    size_t m_End = NoEndYet;
    bool m_IsStopped = false;
    std::exception_ptr m_Thrown;
};
