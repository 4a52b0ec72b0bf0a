// The shared background pool: a few worker threads, created once on first use, that run work
// submitted from anywhere in no particular order. For waits and slow jobs that must not hold up a
// caller or a serial queue.
#pragma once

#include <cstddef>
#include <functional>

namespace vl::background {

// Runs fn on one of the pool's threads. Items run concurrently with each other. An exception that
// escapes fn is written to standard error and dropped. At process exit, work not yet started is
// dropped and work that is running is waited for.
void run(std::function<void()> fn);

// Number of worker threads of the pool.
size_t threadCount();

}  // namespace vl::background
