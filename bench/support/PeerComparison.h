#pragma once

#include <benchmark/benchmark.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

// What a piece of work took, in seconds.
struct Taken_t {
    bool isDone;
    double wall;
    double processor;
};

inline double ProcessorSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// `work` returns whether it did all of it.
template <typename Work> Taken_t TimeOf(Work& work) {
    const double processor = ProcessorSeconds();
    const auto start = std::chrono::steady_clock::now();
    const bool isDone = work();
    const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;
    return {isDone, wall.count(), ProcessorSeconds() - processor};
}

inline double MedianOf(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

// One pass of each, one right behind the other, so that what else goes on on the machine meets both.
class CPeerComparison {
public:
    // False when one of them didn't do its work.
    template <typename Ours, typename Peer> bool Pass(Ours& ours, Peer& peer) {
        const Taken_t first = m_IsOursFirst ? TimeOf(ours) : TimeOf(peer);
        const Taken_t second = m_IsOursFirst ? TimeOf(peer) : TimeOf(ours);
        Keep(m_IsOursFirst ? first : second, m_IsOursFirst ? second : first);
        m_IsOursFirst = !m_IsOursFirst;
        return first.isDone && second.isDone;
    }

    double OursWall() const { return m_Ours.wall; }

    // Above 1 where ours is faster: by the clock, and by the processor's time alone, which doesn't
    // count the turns of other programs.
    void Report(benchmark::State& state, uint64_t bytes) const {
        state.SetBytesProcessed(static_cast<int64_t>(bytes) * state.iterations());
        state.counters["peer_bytes_per_second"] =
            benchmark::Counter(static_cast<double>(bytes) / MedianOf(m_PeerWalls), benchmark::Counter::kDefaults,
                               benchmark::Counter::kIs1024);
        state.counters["ratio"] = MedianOf(m_WallRatios);
        state.counters["cpu_ratio"] = MedianOf(m_ProcessorRatios);
    }

private:
    void Keep(const Taken_t& ours, const Taken_t& peer) {
        m_Ours = ours;
        m_PeerWalls.push_back(peer.wall);
        m_WallRatios.push_back(peer.wall / ours.wall);
        m_ProcessorRatios.push_back(peer.processor / ours.processor);
    }

    Taken_t m_Ours{};
    bool m_IsOursFirst = false;
    std::vector<double> m_PeerWalls;
    std::vector<double> m_WallRatios;
    std::vector<double> m_ProcessorRatios;
};

// Measures `ours` against `peer`, which moves the same `bytes` with plain system calls. The ratios
// are medians over the iterations.
template <typename Ours, typename Peer>
void CompareWithPeer(benchmark::State& state, uint64_t bytes, Ours ours, Peer peer) {
    CPeerComparison comparison;
    bool isDone = ours() && peer();  // brings the files into the page cache too
    for (auto _ : state) {
        isDone = isDone && comparison.Pass(ours, peer);
        state.SetIterationTime(isDone ? comparison.OursWall() : 1);
    }
    if (isDone)
        comparison.Report(state, bytes);
    else
        state.SkipWithError("The work wasn't done");
}
