#pragma once
/// @file
/// One Unix-domain stream socket: the server's listening socket or a client's connection.

#include <sys/socket.h>
#include <sys/un.h>

#include <string>

/// Carries the fixed-size records of the control protocol.
///
/// Not locked. A server object is read-only after init(), so several threads may read and
/// write on different client descriptors at once; Close() and the destructor must not race
/// with them. No operation throws; failures are logged with errno.
class SocketMgr {
 public:
  SocketMgr();
  ~SocketMgr();
  SocketMgr(const SocketMgr&) = delete;
  SocketMgr& operator=(const SocketMgr&) = delete;

  int init(std::string path, bool isServer);
  int Listen(int backlog);
  int Connect(long sec, long usec);
  int Accept();
  int Read(void* buf, unsigned int len, int fd);
  int ReadStruct(void* buf, unsigned int len, int fd);
  int Write(void* buf, unsigned int len, int fd);
  int Close(int fd);
  int Close();

 private:
  sockaddr_un m_address;
  int m_sockfd;
  bool m_isServer;
  std::string m_sockFilePath;
};
