// The hardware transcode agent: turns the service's request into a run of the encoder's
// front-end beside it on a graphics card or an on-chip engine. It becomes the encoder, so that
// the process number, every signal, the progress report and the end are the encoder's.
//
// KX_AGENT_ENCODER names a software encoder that stands in for the hardware.

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "engines/DiscTitle.h"
#include "frame/Log.h"
#include "tools/AgentArguments.h"

namespace {

int fail(const std::string& reason) {
  fprintf(stderr, "transcode_agent: %s\n", reason.c_str());
  return 1;
}

std::string frontEnd() {
  char own[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", own, sizeof own);
  const std::string path(own, length > 0 ? static_cast<size_t>(length) : 0);
  return path.substr(0, path.rfind('/') + 1) + "ffmpeg";
}

bool isFolder(const std::string& path) {
  struct stat info = {};
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// Puts the main title in place of a disc.
bool openDisc(kxtools::AgentRequest& request, std::string& fault) {
  const std::string path = request.input;
  engines::DiscTitle title;
  if (!title.find(path)) {
    fault = path + " is a folder without a disc";
    return !isFolder(path);
  }
  request.input = title.encoderInput();
  request.readingOptions = title.readingOptions();
  fault = "the path of a DVD must not hold a \"|\": " + path;
  return !request.input.empty();
}

}  // namespace

// The standard error is the progress report, and the service knows what there is on a disc.
extern "C" void myDebugUtilWrapperPrint(int, int, const char*, int, const char*, const char*, ...) {
}

int main(int argc, char** argv) {
  std::string fault;
  auto request = kxtools::parseAgentWords(kxtools::Words(argv + 1, argv + argc), fault);
  if (!request) return fail(fault);
  if (!request->startFile.empty() && !(std::ifstream(request->startFile) >> request->start))
    return fail("cannot read the start from " + request->startFile);
  if (!openDisc(*request, fault)) return fail(fault);

  kxtools::EncoderSources sources;
  const char* standIn = getenv("KX_AGENT_ENCODER");
  if (standIn != nullptr) sources.standIn = standIn;
  const auto encoder = kxtools::chooseEncoder(*request, sources, fault);
  if (!encoder) return fail(fault);

  const std::string program = frontEnd();
  const kxtools::Words words = kxtools::encoderWords(*request, *encoder);
  std::vector<char*> pointers = {const_cast<char*>(program.c_str())};
  for (const std::string& word : words) pointers.push_back(const_cast<char*>(word.c_str()));
  pointers.push_back(nullptr);
  execv(program.c_str(), pointers.data());
  return fail(program + ": " + strerror(errno));
}
