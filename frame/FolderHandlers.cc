// The handlers of watched folders. This build watches no folders: every change is refused, and
// the list of folders is empty.

#include "KxAbstractTranscodeSvr.h"
#include "KxCommand.h"
#include "frame/AnswerRecord.h"
#include "frame/Log.h"

static constexpr const char* kLogSource = "KxAbstractTranscodeSvr";

int KxAbsTranscodeSvr::refuseFolderRequest(AnswerRecord& answer, int fd, const char* func) {
  KX_LOG_AS(func, "folder watching is not available\n");
  return sendAnswer(answer.result(1), fd, func);
}

int KxAbsTranscodeSvr::getSvrConf(int, KxSockData_s&) {
  return 0;
}

int KxAbsTranscodeSvr::addFolder(int fd, KxSockData_s& req) {
  AnswerRecord answer(req);
  return refuseFolderRequest(answer, fd, __func__);
}

int KxAbsTranscodeSvr::delFolder(int fd, KxSockData_s& req) {
  AnswerRecord answer(req);
  return refuseFolderRequest(answer, fd, __func__);
}

int KxAbsTranscodeSvr::updateFolder(int fd, KxSockData_s& req) {
  AnswerRecord answer(req);
  return refuseFolderRequest(answer, fd, __func__);
}

int KxAbsTranscodeSvr::buildAll(int fd, KxSockData_s& req) {
  AnswerRecord answer(req);
  return refuseFolderRequest(answer, fd, __func__);
}

// Clients know this answer by its code, whatever code they asked with.
int KxAbsTranscodeSvr::stopBuildAll(int fd, KxSockData_s& req) {
  AnswerRecord answer(req);
  return refuseFolderRequest(answer.set(0, KX_CMD_STOP_BUILD_ALL), fd, __func__);
}
