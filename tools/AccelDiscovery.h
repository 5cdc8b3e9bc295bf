#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kxtools {

/// One graphics card that can transcode, or could if its driver were ready.
struct AccelCard {
  std::string id;  ///< from its place on the bus, so it stays the same
  std::string vendor;
  std::string device;
  bool external = false;  ///< driven through the NVIDIA tools; others through a render node
  int mode = 1;
  std::string devNumber;  ///< number for the NVIDIA tools, else the render node
  bool ready = false;
};

/// Where the cards are looked for.
struct AccelSources {
  std::string sysfs = "/sys";
  std::string devices = "/dev";
  /// Output of the NVIDIA tool's card list (lines "index, bus id, name"); nothing without it.
  std::function<std::optional<std::string>()> nvidiaList;
};

/// The cards of this machine, in the order of their place on the bus. Display-only adapters
/// of servers and virtual machines are left out.
std::vector<AccelCard> discoverCards(const AccelSources& sources);

/// "id:vendor:device:external|internal:mode".
std::string listLine(const AccelCard& card);
/// "real_status=N,transcode=N,devno=X"; 2 and 1 when the card is usable.
std::string statusLine(const AccelCard& card);

}  // namespace kxtools
