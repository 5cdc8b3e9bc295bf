#include "daemon/AccessRule.h"

#include <grp.h>
#include <sys/socket.h>

#include <algorithm>
#include <charconv>

namespace xcoded {

std::optional<Peer> peerOf(int fd) {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return std::nullopt;
  Peer peer{credentials.pid, credentials.uid, {credentials.gid}};
  std::vector<gid_t> groups(1024);
  socklen_t bytes = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
  if (getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &bytes) == 0) {
    peer.groups.insert(peer.groups.end(), groups.begin(),
                       groups.begin() + static_cast<ptrdiff_t>(bytes / sizeof(gid_t)));
  }
  return peer;
}

bool AccessRule::mayChange(const Peer& peer) const {
  if (peer.uid == 0 || peer.uid == m_ownUser) return true;
  return m_group &&
         std::find(peer.groups.begin(), peer.groups.end(), *m_group) != peer.groups.end();
}

std::optional<gid_t> groupNumber(const std::string& nameOrNumber) {
  if (nameOrNumber.empty()) return std::nullopt;
  gid_t number = 0;
  const char* end = nameOrNumber.data() + nameOrNumber.size();
  const auto parsed = std::from_chars(nameOrNumber.data(), end, number);
  if (parsed.ec == std::errc() && parsed.ptr == end) return number;
  group entry{};
  group* found = nullptr;
  std::vector<char> buffer(16384);
  if (getgrnam_r(nameOrNumber.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 ||
      found == nullptr)
    return std::nullopt;
  return found->gr_gid;
}

}  // namespace xcoded
