// The handlers of watched folders.

#include "KxAbstractTranscodeSvr.h"
#include "KxCommand.h"
#include "KxTransFileMonitor.h"
#include "frame/AnswerRecord.h"
#include "frame/Log.h"

static constexpr const char* kLogSource = "KxAbstractTranscodeSvr";

namespace {

// The NUL-terminated text of one block; a block without a NUL is all text.
std::string blockText(const KxSockData_s& request, size_t block) {
  const char* text = request.block[block];
  return {text, strnlen(text, KxSockData_s::kBlockSize)};
}

}  // namespace

int KxAbsTranscodeSvr::getSvrConf(int fd, KxSockData_s&) {
  KxTransFileMonitor* monitor = KxTransFileMonitor::getInstance();
  std::string text;
  const int count = monitor->getFolderSize();
  for (int index = 0; index < count; ++index) {
    KxTransFileSetting setting;
    if (monitor->getFolder(static_cast<unsigned int>(index), setting) == 0) {
      text += setting.outputTransFileSetting();
    } else {
      KX_LOG("index=%d, getFolder error\n", index);
    }
  }
  return sendBytes(text.data(), text.size(), fd, __func__);
}

int KxAbsTranscodeSvr::addFolder(int fd, KxSockData_s& req) {
  AnswerRecord answer(req);
  answer.result(KxTransFileMonitor::getInstance()->addFolder(blockText(req, 1), blockText(req, 2)));
  return sendAnswer(answer, fd, __func__);
}

int KxAbsTranscodeSvr::delFolder(int fd, KxSockData_s& req) {
  AnswerRecord answer(req);
  answer.result(KxTransFileMonitor::getInstance()->delFolder(blockText(req, 1)));
  return sendAnswer(answer, fd, __func__);
}

int KxAbsTranscodeSvr::updateFolder(int fd, KxSockData_s& req) {
  AnswerRecord answer(req);
  answer.result(
      KxTransFileMonitor::getInstance()->updateFolder(blockText(req, 1), blockText(req, 2)));
  return sendAnswer(answer, fd, __func__);
}

int KxAbsTranscodeSvr::buildAll(int fd, KxSockData_s& req) {
  AnswerRecord answer(req);
  KxTransFileMonitor* monitor = KxTransFileMonitor::getInstance();
  monitor->startScanner();
  monitor->buildAllFolder();
  return sendAnswer(answer.result(0), fd, __func__);
}

// Clients know this answer by its code, whatever code they asked with.
int KxAbsTranscodeSvr::stopBuildAll(int fd, KxSockData_s& req) {
  AnswerRecord answer(req);
  KxTransFileMonitor* monitor = KxTransFileMonitor::getInstance();
  monitor->stopScanner();
  monitor->stopBuildAll();
  return sendAnswer(answer.set(0, KX_CMD_STOP_BUILD_ALL).result(0), fd, __func__);
}
