#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "KxTranscoder.h"
#include "frame/ChildProcess.h"
#include "tests/support/TestSupport.h"

namespace kxtest {

// A private root with a media data directory and an ffmpeg, and a folder for media.
class EngineTest : public testing::Test {
 protected:
  EngineTest() {
    root.write("/etc/config/medialibrary.conf", "[OPTIONS]\nMlsDataDir=" + volume() + "\n");
    std::filesystem::create_directories(volume());
    root.script("/usr/local/medialibrary/bin/ffmpeg", "exec ffmpeg -nostdin \"$@\"\n");
  }

  // Media data directory, without trailing "/".
  std::string volume() const { return root.path() + "/volume"; }
  // A media file's path.
  std::string media(const std::string& name) const { return m_media / name; }

  static KxResource2 resource(KxRes2_e type) {
    KxResource2 result;
    result.isEmpty = false;
    result.resType = type;
    return result;
  }

  // What a job for a source usually asks for.
  TranscodeParam job(const std::string& source) const {
    TranscodeParam param;
    param.m_inFile = source;
    param.m_outFile = media("result.mp4");
    param.m_formatId = KX_FORMAT_MP4;
    param.m_aCodecId = KX_CODEC_AAC;
    param.m_aid = -1;
    return param;
  }

  // Waits for a child; its exit status, or -1.
  static int finish(int pid) {
    if (pid <= 0) return -1;
    const int status = ChildProcess::adopt(pid).wait();
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  PrivateRoot root;

 private:
  TempDir m_media;
};

}  // namespace kxtest
