#include "resources/MediaFile.h"

#include <sys/stat.h>

#include "frame/StopSignal.h"

namespace runner {

MediaFile openMediaFile(const std::string& path) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return nullptr;
  AVDictionary* options = nullptr;
  av_dict_set(&options, "protocol_whitelist", "file", 0);
  AVFormatContext* context = avformat_alloc_context();
  if (context == nullptr) return nullptr;
  // One packet of a damaged file may be the whole file away.
  context->interrupt_callback.callback = [](void*) { return StopSignal::isSet() ? 1 : 0; };
  const int result = avformat_open_input(&context, ("file:" + path).c_str(), nullptr, &options);
  av_dict_free(&options);
  return MediaFile(result == 0 ? context : nullptr);
}

}  // namespace runner
