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
/// with them. No operation throws; failures are logged at level 5 with errno.
///
/// A server object reads and writes on the descriptor it is given (an accepted client); a
/// client object ignores that argument and uses its own connection.
class SocketMgr {
 public:
  SocketMgr();
  /// Closes the own descriptor when it is above 0. The socket file stays on disk.
  ~SocketMgr();
  SocketMgr(const SocketMgr&) = delete;
  SocketMgr& operator=(const SocketMgr&) = delete;

  /// Makes the socket; a server also binds it, replacing what stands at @p path, and opens it
  /// to every user (mode 0777). Call once.
  /// @param path socket file; cut to 107 bytes
  /// @param isServer true for the listening side
  /// @return 0 on success, 1 on failure
  int init(std::string path, bool isServer);
  /// @param backlog at least 1
  /// @return 0 on success, 1 for a backlog below 1, -1 when the call failed
  int Listen(int backlog);
  /// Connects a client. The time-out bounds the connecting and every later read and write;
  /// {0, 0} is no limit.
  /// @param sec seconds, not negative
  /// @param usec microseconds, not negative
  /// @return 0 on success, 1 on failure
  int Connect(long sec, long usec);
  /// Waits for a client. @return its descriptor, which the caller closes, or -1.
  int Accept();
  /// Zeroes @p buf and reads once into it.
  /// @param buf room for @p len bytes
  /// @param fd client descriptor; a server given a negative one returns 1 and reads nothing
  /// @return bytes read, possibly fewer than @p len; 0 at the end of the stream; negative on
  ///         error, also when the time-out passed
  int Read(void* buf, unsigned int len, int fd);
  /// Zeroes @p buf and reads until it is full.
  /// @param buf room for @p len bytes; keeps what arrived when the peer leaves early
  /// @param fd client descriptor
  /// @return @p len, 0 when the peer closed before that, negative on error, for a @p len of 0
  ///         and for a server given a negative descriptor
  int ReadStruct(void* buf, unsigned int len, int fd);
  /// Writes once. A peer that has left is an error, never a signal.
  /// @param buf @p len bytes; not changed
  /// @param fd client descriptor; a server given a negative one returns 1 and writes nothing
  /// @return bytes written, possibly fewer than @p len; negative on error
  int Write(void* buf, unsigned int len, int fd);
  /// Closes a client descriptor. @return 0, or -1 when the call failed
  int Close(int fd);
  /// Closes the own descriptor and remembers its number, which the destructor closes again:
  /// open nothing in between. @return 0, or -1 when the call failed
  int Close();

 private:
  int bindToFile();
  int chooseFd(int fd) const;

  sockaddr_un m_address;
  int m_sockfd;
  bool m_isServer;
  std::string m_sockFilePath;
};
