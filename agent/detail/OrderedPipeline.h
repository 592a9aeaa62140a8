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
    enum class State_t { Free, Produced, Worked };
    struct Slot_t {
        Item item;
        State_t state = State_t::Free;
    };
    static constexpr size_t NoEndYet = ~size_t{0};

    void ProduceAll(const Produce_t& produce) {
        for (size_t index = 0; WaitFor(index, State_t::Free); ++index) {
            if (!produce(SlotAt(index).item)) {
                EndAt(index);
                return;
            }
            Change(index, State_t::Produced);
        }
    }

    void WorkOnAll(const Work_t& work, size_t worker) {
        for (size_t index = TakeNext(); WaitFor(index, State_t::Produced); index = TakeNext()) {
            work(SlotAt(index).item, worker);
            Change(index, State_t::Worked);
        }
    }

    void ConsumeAll(const Consume_t& consume) {
        for (size_t index = 0; WaitFor(index, State_t::Worked); ++index) {
            if (!consume(SlotAt(index).item))
                return;
            Change(index, State_t::Free);
        }
    }

    // False when the item of that index will never come into that state.
    bool WaitFor(size_t index, State_t state) {
        std::unique_lock lock(m_Mutex);
        m_Changed.wait(lock, [&] { return m_IsStopped || index >= m_End || IsTurn(index, state); });
        return !m_IsStopped && index < m_End;
    }

    // A slot's state alone could be that of the item one round before.
    bool IsTurn(size_t index, State_t state) const {
        if (state == State_t::Free)
            return index < m_Consumed + m_Slots.size();
        return index < m_Consumed + m_Slots.size() && index < m_Produced && SlotAt(index).state == state;
    }

    void Change(size_t index, State_t state) {
        const std::lock_guard lock(m_Mutex);
        SlotAt(index).state = state;
        if (state == State_t::Produced)
            m_Produced = index + 1;
        if (state == State_t::Free)
            m_Consumed = index + 1;
        m_Changed.notify_all();
    }

    size_t TakeNext() {
        const std::lock_guard lock(m_Mutex);
        return m_NextToWork++;
    }

    void EndAt(size_t index) {
        const std::lock_guard lock(m_Mutex);
        m_End = index;
        m_Changed.notify_all();
    }

    void Stop() {
        const std::lock_guard lock(m_Mutex);
        m_IsStopped = true;
        m_Changed.notify_all();
    }

    template <typename Step> void Guarded(Step step) {
        try {
            step();
        } catch (...) {
            const std::lock_guard lock(m_Mutex);
            if (m_Thrown == nullptr)
                m_Thrown = std::current_exception();
            m_IsStopped = true;
            m_Changed.notify_all();
        }
    }

    Slot_t& SlotAt(size_t index) { return m_Slots[index % m_Slots.size()]; }
    const Slot_t& SlotAt(size_t index) const { return m_Slots[index % m_Slots.size()]; }

    std::vector<Slot_t> m_Slots;
    const size_t m_WorkerCount;
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    size_t m_Produced = 0;
    size_t m_Consumed = 0;
    size_t m_NextToWork = 0;
    size_t m_End = NoEndYet;
    bool m_IsStopped = false;
    std::exception_ptr m_Thrown;
};
