#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace xcoded {

// Who is at the other end of a connection, as the kernel recorded it when it connected.
struct Peer {
  pid_t pid = -1;
  uid_t uid = static_cast<uid_t>(-1);
  std::vector<gid_t> groups;  // the primary group first
};

// The peer of a connected Unix-domain socket; nothing when the kernel does not tell.
std::optional<Peer> peerOf(int fd);

// Who may change something: root, the service's own user and one group.
class AccessRule {
 public:
  AccessRule(uid_t ownUser, std::optional<gid_t> group) : m_ownUser(ownUser), m_group(group) {}
  bool mayChange(const Peer& peer) const;

 private:
  uid_t m_ownUser;
  std::optional<gid_t> m_group;
};

// Number of a group given by name or number; nothing when it is empty or unknown.
std::optional<gid_t> groupNumber(const std::string& nameOrNumber);

}  // namespace xcoded
