#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "KxResource2.h"

// What one look at the accelerator tool found.
struct CardLook {
  std::uint64_t number = 0;                       // later looks have higher numbers
  std::optional<std::vector<KxResource2>> cards;  // nothing when the look failed
};

// Shares one look at the accelerator tool among all who ask at the same time. Nothing is kept
// once it has been handed out: the next question looks again. Callable from any thread; one
// whose StopSignal is set gets a failed look at once, and the tool is ended when nobody else
// waits for it.
class CardDiscovery {
 public:
  std::shared_ptr<const CardLook> look();

 private:
  class Flight;

  std::shared_ptr<Flight> join();
  void leave(const std::shared_ptr<Flight>& flight);

  std::mutex m_mutex;
  std::shared_ptr<Flight> m_flight;  // the look in progress
  std::uint64_t m_lastNumber = 0;
};
