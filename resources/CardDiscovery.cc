#include "resources/CardDiscovery.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <exception>
#include <system_error>
#include <thread>
#include <utility>

#include "Misc.h"
#include "frame/Log.h"
#include "frame/StopSignal.h"
#include "frame/UniqueFd.h"
#include "resources/AcceleratorTool.h"

static constexpr const char* kLogSource = "KxResMgr2";

namespace {

std::optional<std::vector<KxResource2>> askTool() {
  try {
    return AcceleratorTool(miscSystemPath("/sbin/accelctl")).discover();
  } catch (const std::exception& error) {
    KX_LOG("%s\n", error.what());  // those who share the look must not wait for ever
    return std::nullopt;
  }
}

}  // namespace

// One look, on a thread of its own: who asked first may have to leave before the others.
class CardDiscovery::Flight {
 public:
  explicit Flight(std::uint64_t number)
      : m_landed(eventfd(0, EFD_CLOEXEC)), m_abandoned(eventfd(0, EFD_CLOEXEC)) {
    m_look.number = number;
  }

  // Looks on the calling thread when there can be no other.
  static void begin(const std::shared_ptr<Flight>& flight) {
    try {
      if (flight->m_landed && flight->m_abandoned) {
        std::thread([flight] { flight->run(); }).detach();
        return;
      }
    } catch (const std::system_error& error) {
      KX_LOG("can not create a thread: %s\n", error.what());
    }
    flight->run();
  }

  // Waits for the end of the look, or until the calling thread's work has to end.
  void wait() const {
    std::array<pollfd, 2> events = {{{m_landed.get(), POLLIN, 0}, {StopSignal::fd(), POLLIN, 0}}};
    while (!m_hasLanded && poll(events.data(), events.size(), -1) < 0 && errno == EINTR) {
    }
  }
  bool hasLanded() const { return m_hasLanded; }
  // Ends the look: nobody waits for it any more.
  void abandon() const { eventfd_write(m_abandoned.get(), 1); }
  // Only to be read once it has landed.
  const CardLook& look() const { return m_look; }

  int waiting = 0;  // guarded by the mutex of the discovery

 private:
  void run() {
    const StopSignal stop(m_abandoned.get());
    m_look.cards = askTool();
    m_hasLanded = true;
    eventfd_write(m_landed.get(), 1);
  }

  CardLook m_look;
  std::atomic<bool> m_hasLanded{false};
  UniqueFd m_landed;  // wakes those who wait
  UniqueFd m_abandoned;
};

std::shared_ptr<const CardLook> CardDiscovery::look() {
  const std::shared_ptr<Flight> flight = join();
  flight->wait();
  const bool hasLanded = flight->hasLanded();
  leave(flight);
  if (!hasLanded) return std::make_shared<CardLook>();
  return {flight, &flight->look()};
}

std::shared_ptr<CardDiscovery::Flight> CardDiscovery::join() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (!m_flight || m_flight->hasLanded()) {
    m_flight = std::make_shared<Flight>(++m_lastNumber);
    Flight::begin(m_flight);
  }
  ++m_flight->waiting;
  return m_flight;
}

void CardDiscovery::leave(const std::shared_ptr<Flight>& flight) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (--flight->waiting > 0) return;
  flight->abandon();
  if (m_flight == flight) m_flight.reset();
}
