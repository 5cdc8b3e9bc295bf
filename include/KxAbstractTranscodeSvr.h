#pragma once
/// @file
/// The abstract transcode server that the host daemon derives from, and the record that its
/// control socket carries.

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "SocketMgr.h"

class AnswerRecord;

/// Request and answer record of the control socket: twenty blocks of 4,096 bytes.
/// Integers are 32-bit, native byte order, at the start of a block; texts are
/// NUL-terminated; unused bytes are zero.
///
/// | block | in a request | in an answer |
/// |---|---|---|
/// | 0 | command code | the same code |
/// | 1 | first argument: integer or path | result: 0 success |
/// | 2 | second argument: text | first value |
/// | 3 | - | second value |
/// | 4-19 | larger arguments | larger answers |
struct KxSockData_s {
  static constexpr size_t kBlockSize = 4096;
  static constexpr size_t kBlockCount = 20;
  static constexpr size_t kTextBlock = 4;  ///< first block of a larger text
  static constexpr size_t kTextSize = (kBlockCount - kTextBlock) * kBlockSize;

  char block[kBlockCount][kBlockSize];
};
static_assert(sizeof(KxSockData_s) == 81920, "the record is part of the protocol");

/// States of the server.
enum KxSvrStatus_e : int32_t {
  SVR_NONE = 0,     ///< not yet set
  SVR_RUNNING = 1,  ///< set by a start and by a resume
  SVR_STOPPED = 2,  ///< set by a stop
  SVR_PAUSED = 3,   ///< set by a pause; the host ends a timed one
};

/// Base of the transcode server: its state, its socket and its request handlers.
/// The order of the virtual operations is part of the binary interface.
///
/// A handler takes the client's descriptor and the request record, does its work and writes
/// exactly one answer record of 81,920 bytes, which it builds on the stack. Unless said
/// otherwise it returns 0, or 1 when the answer could not be written. Handlers run on whatever
/// thread the host calls them from; those that touch units or resources take the resource
/// manager's lock themselves, so it must not be held. The members are not locked: a host that
/// serves several clients at once overrides the accessors, which the handlers call through the
/// table.
class KxAbsTranscodeSvr {
 public:
  /// Everything is zero and empty; the host fills the members.
  KxAbsTranscodeSvr();
  KxAbsTranscodeSvr(const KxAbsTranscodeSvr&) = delete;
  KxAbsTranscodeSvr& operator=(const KxAbsTranscodeSvr&) = delete;

  /// Detaches from terminal and session into the background and goes on in a grandchild with
  /// file mode mask 0 and working folder "/". Call it before any thread is started.
  /// @return 0 in the daemon, 1 on failure; the other processes exit with 0
  virtual int createDaemon();
  /// Closes the listening socket.
  virtual ~KxAbsTranscodeSvr();
  /// Makes the server's socket file. @return as SocketMgr::init()
  virtual int sockInit(std::string path);
  /// @return as SocketMgr::Listen()
  virtual int sockListen(int backlog);
  /// @return the descriptor of the next client, which the caller closes, or -1.
  virtual int sockAccept();
  /// Reads one whole record. @return as SocketMgr::ReadStruct()
  virtual int sockReadStruct(void* buf, unsigned int len, int fd);
  /// Closes the listening socket. @return as SocketMgr::Close()
  virtual int sockClose();
  /// Closes one client's descriptor. @return as SocketMgr::Close()
  virtual int sockClose(int fd);
  /// For the host: opens what the server needs. @return 0 on success
  virtual int svrInit() = 0;
  /// For the host: serves until the end. @return 0 on success
  virtual int svrRun() = 0;
  /// @return path of the folder configuration file.
  virtual std::string getxCodeSvrXmlPath() const;
  /// @return path of the media library's folder file.
  virtual std::string getMediaDB2XmlPath() const;
  /// @return working directory of the server.
  virtual std::string getWorkingPath() const;
  /// @return path of the job database.
  virtual std::string getDBPath() const;
  /// @return state of the server, one of KxSvrStatus_e.
  virtual int getSvrStatus() const;
  /// @param status one of KxSvrStatus_e; only stored, acting on it is the host's
  virtual void setSvrStatus(int status);
  /// @return length of the pause in seconds, -1 until resumed, 0 for none.
  virtual int getPauseSec() const;
  /// @param seconds length of the pause, -1 until resumed
  virtual void setPauseSec(int seconds);
  /// @return non-zero when the server runs detached.
  virtual int getIsDaemon() const;
  /// @return the hardware transcoding switch.
  virtual int isEnableExtraTranscode() const;
  /// Stores the hardware transcoding switch in the configuration file and here.
  /// @return 0 on success, 1 when it was refused or not written; nothing is changed then
  virtual int setExtraTranscode(int value);
  /// @return true when there are both the CPU and a hardware resource. Takes the resource
  ///         manager's lock.
  virtual bool isSupportExtraTransocde();
  /// @return @p value for 1 on a system without hardware resources, 0 for everything else.
  virtual int checkExtraTranscode(int value);
  /// @return 1 when the volume of the job database has less than 10 GiB free or cannot be
  ///         asked, else 0.
  virtual int isDiskFull();
  /// For the host: serves one request. @return the handler's value
  virtual int svrDispatch(int fd, KxSockData_s& req) = 0;
  /// Starts every unit. Result: the value of KxResMgr2::startAllUnit().
  /// @return the result, or 1 when the answer could not be written
  virtual int svrStart(int fd, KxSockData_s& req);
  /// Stops every unit. Result: the value of KxResMgr2::stopAllUnit().
  /// @return the result, or 1 when the answer could not be written
  virtual int svrStop(int fd, KxSockData_s& req);
  /// Pauses every unit for the seconds in block 1, until resumed when negative; 0 resumes.
  /// Result: the value of the unit call.
  virtual int svrPause(int fd, KxSockData_s& req);
  /// Answers with state (block 1), pause seconds (2) and disk-full flag (3).
  virtual int getSvrStatus(int fd, KxSockData_s& req);
  /// Answers with the CPU limit in per cent (block 2). @return always 0
  virtual int getCGroupCPULimit(int fd, KxSockData_s& req);
  /// Sets the CPU limit to block 1; block 2 of the answer repeats it. @return always 0
  virtual int setCGroupCPULimit(int fd, KxSockData_s& req);
  /// Answers with the memory limit in kilobytes (block 2). @return always 0
  virtual int getCGroupMemLimit(int fd, KxSockData_s& req);
  /// Sets the memory limit to block 1; block 2 of the answer repeats it. @return always 0
  virtual int setCGroupMemLimit(int fd, KxSockData_s& req);
  /// Writes the resources into the log and no answer, also without the lock. @return always 0
  virtual int dumpRes(int fd, KxSockData_s& req);
  /// Writes the units into the log and no answer, also without the lock. @return always 0
  virtual int dumpUnit(int fd, KxSockData_s& req);
  /// For the host: writes the queue into the log.
  virtual int dumpJob(int fd, KxSockData_s& req) = 0;
  /// Answers with the watched folders as bare text instead of a record; no folders, no byte.
  virtual int getSvrConf(int fd, KxSockData_s& req);
  /// Watches the folder in block 1 with the target in block 2. Result of this and the next two:
  /// that of the KxTransFileMonitor operation of the same name.
  virtual int addFolder(int fd, KxSockData_s& req);
  /// Stops watching the folder in block 1.
  virtual int delFolder(int fd, KxSockData_s& req);
  /// Gives the watched folder in block 1 the target in block 2.
  virtual int updateFolder(int fd, KxSockData_s& req);
  /// Scans every watched folder; starts the scanner when it is stopped. Result: 0.
  virtual int buildAll(int fd, KxSockData_s& req);
  /// Stops the scanner, waiting for it, and drops the scans that wait. The answer carries
  /// command 19, whatever the request carried, and result 0.
  virtual int stopBuildAll(int fd, KxSockData_s& req);
  /// For the host: queues a job.
  virtual int addJob(int fd, KxSockData_s& req) = 0;
  /// For the host: lists jobs.
  virtual int queryJob(int fd, KxSockData_s& req) = 0;
  /// Lists the resources. This and the next two answer with a JSON array of objects in valid
  /// UTF-8, NUL-terminated, from block 4 on: block 1 of the request is the first row wanted,
  /// block 2 of the answer the number of rows there are, block 3 that of the rows in it. Rows
  /// that do not fit are left out whole. Fields: id, resType, vendorName, devName, modeSupport,
  /// devNumber, registrations (their number).
  virtual int getResource(int fd, KxSockData_s& req);
  /// Lists the registrations on all resources. Fields: pid, user, ip, tag, src.
  virtual int getTranscodeProcessInfo(int fd, KxSockData_s& req);
  /// Lists the units. Fields: id and src of the job, state (KxUnitState_e), progress (percent
  /// of the current profile), pid of the child, resId.
  virtual int getStatus(int fd, KxSockData_s& req);
  /// Answers with the hardware transcoding switch (block 2) and whether the system supports it
  /// (block 3).
  virtual int getExtraTranscodeInfo(int fd, KxSockData_s& req);
  /// Sets the hardware transcoding switch to block 1. Result: that of setExtraTranscode().
  virtual int setExtraTranscodeInfo(int fd, KxSockData_s& req);

 private:
  int resumeUnitsLocked();
  int pauseUnitsLocked(int seconds);
  int sendAnswer(AnswerRecord& answer, int fd, const char* func);
  int sendRows(const std::vector<std::string>& rows, int fd, const KxSockData_s& req,
               const char* func);
  int sendBytes(void* bytes, size_t count, int fd, const char* func);

 protected:
  pthread_mutex_t m_mutex;         ///< for the host; nothing here locks it
  int32_t m_reserved;              ///< always 0 here
  int32_t m_svrStatus;             ///< KxSvrStatus_e
  int32_t m_pauseSec;              ///< seconds, -1 until resumed
  int32_t m_isDaemon;              ///< non-zero when detached
  int32_t m_enableExtraTranscode;  ///< hardware transcoding switch

 private:
  SocketMgr m_socket;

 protected:
  std::string m_hostPath;         ///< for the host's own use
  std::string m_mediaDB2XmlPath;  ///< the media library's folder file
  std::string m_workingPath;
  std::string m_dbPath;           ///< job database; also the volume that isDiskFull() measures
  std::string m_xCodeSvrXmlPath;  ///< folder configuration file
};
