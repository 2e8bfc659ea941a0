// Processes of a shared run played by threads of one test: each thread's
// ProcessGroup adds integer arrays over all of them, as a distributed run's
// processes do over the network, so that the device module's share of a run
// can be tested without launching processes.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "RunContext.h"

namespace tessaline::test {

class ThreadProcessGroup {
   public:
    explicit ThreadProcessGroup(int size) : size_(size), pending_(size_t(size)) {}

    // The group as process `rank` sees it.
    ProcessGroup member(int rank) {
        ProcessGroup g;
        g.rank = rank;
        g.size = size_;
        g.sumIntegers = [this, rank](uint64_t* values, size_t count) { return sum(rank, values, count); };
        return g;
    }

    // Runs body(rank) on one thread per member and waits for all of them.
    void run(const std::function<void(int rank)>& body) {
        std::vector<std::thread> threads;
        for (int r = 0; r < size_; ++r) threads.emplace_back(body, r);
        for (std::thread& t : threads) t.join();
    }

   private:
    // Every member deposits its values; the last to arrive adds them up and
    // wakes the others, who all copy the totals back.
    bool sum(int rank, uint64_t* values, size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        const long long round = round_;
        pending_[size_t(rank)].assign(values, values + count);
        if (++arrived_ == size_) {
            totals_.assign(count, 0);
            for (const std::vector<uint64_t>& p : pending_)
                for (size_t k = 0; k < count && k < p.size(); ++k) totals_[k] += p[k];
            arrived_ = 0;
            ++round_;
            wake_.notify_all();
        } else {
            wake_.wait(lock, [&] { return round_ != round; });
        }
        for (size_t k = 0; k < count; ++k) values[k] = totals_[k];
        return true;
    }

    int size_;
    std::vector<std::vector<uint64_t>> pending_;
    std::vector<uint64_t> totals_;
    int arrived_ = 0;
    long long round_ = 0;
    std::mutex mutex_;
    std::condition_variable wake_;
};

}  // namespace tessaline::test
