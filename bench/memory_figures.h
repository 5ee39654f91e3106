// SPDX-License-Identifier: MIT
// Figures that take a fresh process each: what live blocks keep resident, what starting and stopping costs.

#ifndef EKO_BENCH_MEMORY_FIGURES_H
#define EKO_BENCH_MEMORY_FIGURES_H

namespace bench {

// resident ALLOCATOR SIZE  prints the resident bytes that each of a million live blocks of SIZE bytes adds. Without
// arguments lists the allocators.
int resident(int argc, char** argv);

// Starts the library and stops it, and prints the microseconds and the resident bytes of each.
int startup();

} // namespace bench

#endif // EKO_BENCH_MEMORY_FIGURES_H
