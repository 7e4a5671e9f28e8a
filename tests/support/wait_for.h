#pragma once
// Waiting for what another thread or process brings about.

#include <chrono>
#include <functional>
#include <thread>

// Calls `condition` until it holds; false when it still does not after `limit`.
inline bool wait_for(const std::function<bool()>& condition,
                     std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(50));
  }
  return true;
}
