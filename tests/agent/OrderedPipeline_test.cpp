#include "agent/detail/OrderedPipeline.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

struct Item_t {
    int number = -1;
    int square = -1;
};

using Pipeline_t = COrderedPipeline<Item_t>;

// Produces 0 to count - 1, squares them and gathers the numbers whose square is right.
std::vector<int> Gather(size_t items, size_t workers, int count) {
    std::vector<int> gathered;
    int next = 0;
    Pipeline_t(items, workers)
        .Run(
            [&](Item_t& item) {
                item = {next, -1};
                return next++ < count;
            },
            [](Item_t& item, size_t /*worker*/) { item.square = item.number * item.number; },
            [&](Item_t& item) {
                if (item.square == item.number * item.number)
                    gathered.push_back(item.number);
                return true;
            });
    return gathered;
}

std::vector<int> UpTo(int count) {
    std::vector<int> numbers;
    for (int number = 0; number < count; ++number)
        numbers.push_back(number);
    return numbers;
}

TEST(OrderedPipeline, ConsumesInTheOrderOfProduction) {
    const struct {
        const char* name;
        size_t items;
        size_t workers;
        int count;
    } rows[] = {
        {"nothing at all", 4, 2, 0},
        {"one item", 4, 2, 1},
        {"as many as places", 4, 2, 4},
        {"one more than places", 4, 2, 5},
        {"one place", 1, 1, 500},
        {"one place for many workers", 1, 8, 500},
        {"fewer places than workers", 2, 8, 500},
        {"no place and no worker count as one", 0, 0, 50},
        {"many rounds", 3, 2, 10000},
        {"many rounds with many workers", 8, 8, 10000},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(UpTo(row.count), Gather(row.items, row.workers, row.count));
    }
}

TEST(OrderedPipeline, KeepsTheOrderWhereItemsTakeLongerThanLaterOnes) {
    std::vector<int> gathered;
    int next = 0;
    Pipeline_t(8, 4).Run(
        [&](Item_t& item) {
            item.number = next;
            return next++ < 200;
        },
        [](Item_t& item, size_t /*worker*/) {
            if (item.number % 7 == 0)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
        },
        [&](Item_t& item) {
            gathered.push_back(item.number);
            return true;
        });
    EXPECT_EQ(UpTo(200), gathered);
}

TEST(OrderedPipeline, UsesNoMoreItemsThanItWasGiven) {
    std::set<const Item_t*> places;
    int next = 0;
    Pipeline_t(3, 2).Run([&](Item_t& /*item*/) { return next++ < 100; }, [](Item_t&, size_t) {},
                         [&](Item_t& item) {
                             places.insert(&item);
                             return true;
                         });
    EXPECT_EQ(3U, places.size());
}

TEST(OrderedPipeline, NumbersItsWorkersFromZeroAndRunsEachAlone) {
    constexpr size_t workers = 4;
    std::atomic<int> inside[workers] = {};
    std::atomic<bool> isWrong{false};
    int next = 0;
    Pipeline_t(8, workers)
        .Run([&](Item_t& /*item*/) { return next++ < 1000; },
             [&](Item_t&, size_t worker) {
                 if (worker >= workers || inside[worker]++ != 0)
                     isWrong = true;
                 else
                     --inside[worker];
             },
             [](Item_t&) { return true; });
    EXPECT_FALSE(isWrong);
}

TEST(OrderedPipeline, ConsumesOnTheCallingThread) {
    const std::thread::id caller = std::this_thread::get_id();
    bool isCaller = true;
    int next = 0;
    Pipeline_t(2, 2).Run([&](Item_t&) { return next++ < 20; }, [](Item_t&, size_t) {},
                         [&](Item_t&) {
                             isCaller = isCaller && std::this_thread::get_id() == caller;
                             return true;
                         });
    EXPECT_TRUE(isCaller);
}

TEST(OrderedPipeline, EndsAsSoonAsTheConsumerWantsNoMore) {
    for (const int last : {0, 1, 5, 99}) {
        SCOPED_TRACE(last);
        std::vector<int> gathered;
        int next = 0;
        Pipeline_t(4, 2).Run(
            [&](Item_t& item) {
                item.number = next++;
                return true;  // without end
            },
            [](Item_t&, size_t) {},
            [&](Item_t& item) {
                gathered.push_back(item.number);
                return item.number != last;
            });
        EXPECT_EQ(UpTo(last + 1), gathered);
        EXPECT_LE(next, last + 1 + 4 + 1);  // no further ahead than there are places
    }
}

enum class Step_t { Produce, Work, Consume };

// Runs a pipeline whose step `step` throws at item `at`; gives what `Run` threw.
std::string ThrownBy(Step_t step, int at, size_t items, size_t workers) {
    const auto throwAt = [&](Step_t current, int number) {
        if (current == step && number == at)
            throw std::runtime_error("item " + std::to_string(number));
    };
    int next = 0;
    try {
        Pipeline_t(items, workers)
            .Run(
                [&](Item_t& item) {
                    item.number = next;
                    throwAt(Step_t::Produce, next);
                    return next++ < 1000;
                },
                [&](Item_t& item, size_t) { throwAt(Step_t::Work, item.number); },
                [&](Item_t& item) {
                    throwAt(Step_t::Consume, item.number);
                    return true;
                });
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "nothing";
}

TEST(OrderedPipeline, ThrowsAgainWhatAStepThrew) {
    for (const Step_t step : {Step_t::Produce, Step_t::Work, Step_t::Consume}) {
        for (const int at : {0, 1, 3, 500, 999}) {
            for (const size_t items : {1U, 2U, 8U}) {
                SCOPED_TRACE(testing::Message() << "step " << int(step) << ", item " << at << ", places " << items);
                EXPECT_EQ("item " + std::to_string(at), ThrownBy(step, at, items, 2));
            }
        }
    }
}

TEST(OrderedPipeline, ThrowsOneOfWhatAllWorkersThrew) {
    int next = 0;
    Pipeline_t pipeline(8, 8);
    EXPECT_THROW(pipeline.Run([&](Item_t&) { return next++ < 100; }, [](Item_t&, size_t) { throw std::bad_alloc(); },
                              [](Item_t&) { return true; }),
                 std::bad_alloc);
}

}  // namespace
