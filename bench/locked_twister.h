// SPDX-License-Identifier: MIT
// What a user would pick who wants random numbers in several threads.

#ifndef EKO_BENCH_LOCKED_TWISTER_H
#define EKO_BENCH_LOCKED_TWISTER_H

#include <stdint.h>

#include <mutex>
#include <random>

namespace bench {

class LockedTwister {
public:
    static constexpr const char* NAME = "std";
    uint32_t draw()
    {
        const std::lock_guard lock(mutex_);
        return static_cast<uint32_t>(twister_());
    }

private:
    std::mutex mutex_;
    std::mt19937 twister_;
};

} // namespace bench

#endif // EKO_BENCH_LOCKED_TWISTER_H
