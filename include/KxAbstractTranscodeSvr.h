#pragma once
/// @file
/// The abstract transcode server that the host daemon derives from.

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "SocketMgr.h"

/// Request and answer record of the control socket: twenty blocks of 4,096 bytes.
/// Integers are 32-bit, native byte order, at the start of a block; texts are
/// NUL-terminated; unused bytes are zero.
struct KxSockData_s {
  static constexpr size_t kBlockSize = 4096;
  static constexpr size_t kBlockCount = 20;
  static constexpr size_t kTextBlock = 4;  ///< first block of a larger text
  static constexpr size_t kTextSize = (kBlockCount - kTextBlock) * kBlockSize;

  char block[kBlockCount][kBlockSize];
};
static_assert(sizeof(KxSockData_s) == 81920, "the record is part of the protocol");

/// States of the server.
enum KxSvrStatus_e : int32_t { SVR_NONE = 0, SVR_RUNNING = 1, SVR_STOPPED = 2, SVR_PAUSED = 3 };

/// Base of the transcode server: its state, its socket and its request handlers.
/// The order of the virtual operations is part of the binary interface.
class KxAbsTranscodeSvr {
 public:
  KxAbsTranscodeSvr();
  KxAbsTranscodeSvr(const KxAbsTranscodeSvr&) = delete;
  KxAbsTranscodeSvr& operator=(const KxAbsTranscodeSvr&) = delete;

  virtual int createDaemon();
  virtual ~KxAbsTranscodeSvr();
  virtual int sockInit(std::string path);
  virtual int sockListen(int backlog);
  virtual int sockAccept();
  virtual int sockReadStruct(void* buf, unsigned int len, int fd);
  virtual int sockClose();
  virtual int sockClose(int fd);
  virtual int svrInit() = 0;
  virtual int svrRun() = 0;
  virtual std::string getxCodeSvrXmlPath() const;
  virtual std::string getMediaDB2XmlPath() const;
  virtual std::string getWorkingPath() const;
  virtual std::string getDBPath() const;
  virtual int getSvrStatus() const;
  virtual void setSvrStatus(int status);
  virtual int getPauseSec() const;
  virtual void setPauseSec(int seconds);
  virtual int getIsDaemon() const;
  virtual int isEnableExtraTranscode() const;
  virtual int setExtraTranscode(int value);
  virtual bool isSupportExtraTransocde();
  virtual int checkExtraTranscode(int value);
  virtual int isDiskFull();
  virtual int svrDispatch(int fd, KxSockData_s& req) = 0;
  virtual int svrStart(int fd, KxSockData_s& req);
  virtual int svrStop(int fd, KxSockData_s& req);
  virtual int svrPause(int fd, KxSockData_s& req);
  virtual int getSvrStatus(int fd, KxSockData_s& req);
  virtual int getCGroupCPULimit(int fd, KxSockData_s& req);
  virtual int setCGroupCPULimit(int fd, KxSockData_s& req);
  virtual int getCGroupMemLimit(int fd, KxSockData_s& req);
  virtual int setCGroupMemLimit(int fd, KxSockData_s& req);
  virtual int dumpRes(int fd, KxSockData_s& req);
  virtual int dumpUnit(int fd, KxSockData_s& req);
  virtual int dumpJob(int fd, KxSockData_s& req) = 0;
  virtual int getSvrConf(int fd, KxSockData_s& req);
  virtual int addFolder(int fd, KxSockData_s& req);
  virtual int delFolder(int fd, KxSockData_s& req);
  virtual int updateFolder(int fd, KxSockData_s& req);
  virtual int buildAll(int fd, KxSockData_s& req);
  virtual int stopBuildAll(int fd, KxSockData_s& req);
  virtual int addJob(int fd, KxSockData_s& req) = 0;
  virtual int queryJob(int fd, KxSockData_s& req) = 0;
  virtual int getResource(int fd, KxSockData_s& req);
  virtual int getTranscodeProcessInfo(int fd, KxSockData_s& req);
  virtual int getStatus(int fd, KxSockData_s& req);
  virtual int getExtraTranscodeInfo(int fd, KxSockData_s& req);
  virtual int setExtraTranscodeInfo(int fd, KxSockData_s& req);

 private:
  pthread_mutex_t m_mutex;
  int32_t m_reserved;

 protected:
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
