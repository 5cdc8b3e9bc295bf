#include "resources/CardDiscovery.h"

#include <exception>
#include <utility>

#include "Misc.h"
#include "frame/Log.h"
#include "resources/AcceleratorTool.h"

static constexpr const char* kLogSource = "KxResMgr2";

struct CardDiscovery::Flight : CardLook {
  bool hasLanded = false;
};

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

std::shared_ptr<const CardLook> CardDiscovery::look() {
  std::unique_lock<std::mutex> lock(m_mutex);
  if (const auto shared = m_flight) {
    m_landed.wait(lock, [&] { return shared->hasLanded; });
    return shared;
  }
  const auto own = std::make_shared<Flight>();
  own->number = ++m_lastNumber;
  m_flight = own;
  lock.unlock();
  auto cards = askTool();
  lock.lock();
  own->cards = std::move(cards);
  own->hasLanded = true;
  m_flight.reset();
  m_landed.notify_all();
  return own;
}
