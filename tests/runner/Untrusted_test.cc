#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>

#include "frame/UniqueFd.h"
#include "tests/runner/RunnerWorld.h"

namespace fs = std::filesystem;
using namespace kxtest;

// Files that would lead a reader to other files or to the network.

namespace {

// Listens on this machine and notices every connection.
class Listener {
 public:
  Listener() : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    m_address.sin_family = AF_INET;
    m_address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof m_address;
    auto* address = reinterpret_cast<sockaddr*>(&m_address);
    if (bind(m_fd.get(), address, size) != 0 || listen(m_fd.get(), 8) != 0 ||
        getsockname(m_fd.get(), address, &size) != 0)
      ADD_FAILURE() << "cannot listen";
  }
  std::string place() const { return "127.0.0.1:" + std::to_string(ntohs(m_address.sin_port)); }
  bool wasReached() const {
    pollfd waiting{m_fd.get(), POLLIN, 0};
    return poll(&waiting, 1, 0) > 0;
  }

 private:
  UniqueFd m_fd;
  sockaddr_in m_address{};
};

struct Disguise {
  const char* kind;
  std::string text;
  bool isHarmless = false;  // lines in brackets are the lyrics of a song to the renderer
};

std::string hls(const std::string& target) {
  return "#EXTM3U\n#EXT-X-TARGETDURATION:10\n#EXTINF:10,\n" + target + "\n#EXT-X-ENDLIST\n";
}

std::string dash(const std::string& target) {
  return "<?xml version=\"1.0\"?>\n<MPD xmlns=\"urn:mpeg:dash:schema:mpd:2011\" "
         "profiles=\"urn:mpeg:dash:profile:isoff-on-demand:2011\" type=\"static\" "
         "mediaPresentationDuration=\"PT1S\"><Period><AdaptationSet mimeType=\"video/mp4\">"
         "<Representation id=\"1\" bandwidth=\"1\"><BaseURL>" +
         target + "</BaseURL></Representation></AdaptationSet></Period></MPD>\n";
}

std::string concat(const std::string& target) {
  return "ffconcat version 1.0\nfile '" + target + "'\n";
}

std::vector<Disguise> disguises(const std::string& file, const std::string& place) {
  std::vector<Disguise> all;
  const std::string packed = run({"base64", "-w0", file}).value_or("");
  const std::string twice = file + "|" + file;
  for (const std::string& target :
       {file, "http://" + place + "/x.ts", "tcp://" + place, "data:video/mp2t;base64," + packed,
        "concat:" + twice, "subfile,,start,0,end,0,,:" + file}) {
    all.push_back({"playlist", hls(target)});
    all.push_back({"manifest", dash(target)});
    all.push_back({"file list", concat(target)});
  }
  all.push_back({"session", "v=0\no=- 0 0 IN IP4 127.0.0.1\ns=x\nc=IN IP4 127.0.0.1\nt=0 0\n"
                            "m=video 5004 RTP/AVP 96\na=rtpmap:96 H264/90000\n"});
  all.push_back({"link", "[InternetShortcut]\nURL=http://" + place + "/x.mp4\n", true});
  all.push_back({"stream list", "http://" + place + "/x.mp4\n"});
  all.push_back({"script", "import(\"" + file + "\")\n"});
  return all;
}

class Untrusted : public testing::Test {
 protected:
  Untrusted() {
    makeClip(secret, 160, 120, 1, {"-f", "mpegts"});
    // The real front-end, as the service would call it.
    const std::string front = world.root().file("/usr/local/medialibrary/bin/ffmpeg");
    fs::copy_file(std::string(KX_BUILD_DIR) + "/tools/ffmpeg", front,
                  fs::copy_options::overwrite_existing);
  }
  void expectNothing(const KxDBTaskParam& row) {
    EXPECT_EQ(row.status, JOB_ERROR);
    EXPECT_NE(world.reason(row.id), "");
    EXPECT_FALSE(listener.wasReached());
    EXPECT_TRUE(!fs::exists(world.media("@Transcode")) || fs::is_empty(world.media("@Transcode")));
    EXPECT_FALSE(fs::exists(world.media("Video2audio/film.mp3")));
    EXPECT_TRUE(world.leftovers().empty());
  }

  RunnerWorld world;
  RecordingLog log;
  Listener listener;
  const std::string secret = world.media("secret.ts");
};

}  // namespace

TEST_F(Untrusted, AVideoThatNamesOtherSourcesReachesNone) {
  for (const Disguise& disguise : disguises(secret, listener.place())) {
    for (const char* name : {"film.mp4", "film.m3u8", "film.mpd", "film.sdp", "film.ts"}) {
      SCOPED_TRACE(disguise.kind + std::string(" as ") + name + ":\n" +
                   disguise.text.substr(0, 400));
      writeFile(world.media(name), disguise.text);
      expectNothing(world.run(world.media(name), PROFILE_240P | PROFILE_AUDIO));
      fs::remove(world.media(name));
    }
  }
}

TEST_F(Untrusted, ASubtitleThatNamesOtherSourcesReachesNone) {
  makeClip(world.media("film.mp4"), 160, 120);
  for (const Disguise& disguise : disguises(secret, listener.place())) {
    for (const char* name : {"film.srt", "film.ass", "film.m3u8", "film.sdp"}) {
      SCOPED_TRACE(disguise.kind + std::string(" as ") + name + ":\n" +
                   disguise.text.substr(0, 400));
      writeFile(world.media(name), disguise.text);
      const KxDBTaskParam row =
          world.run(world.media("film.mp4"), PROFILE_240P,
                    [&](KxDBTaskParam& job) { job.subtitle = world.media(name); });
      if (!disguise.isHarmless) expectNothing(row);
      EXPECT_FALSE(listener.wasReached());
      fs::remove_all(world.media("@Transcode"));
    }
  }
}

TEST_F(Untrusted, TheEncoderAloneReachesNoneEither) {
  const std::string result = world.media("result.mp4");
  for (const Disguise& disguise : disguises(secret, listener.place())) {
    SCOPED_TRACE(disguise.kind + std::string(":\n") + disguise.text.substr(0, 400));
    writeFile(world.media("film.mp4"), disguise.text);
    EXPECT_FALSE(run({world.root().file("/usr/local/medialibrary/bin/ffmpeg"), "-v", "error", "-y",
                      "-i", world.media("film.mp4"), "-f", "mp4", result}));
    EXPECT_FALSE(listener.wasReached());
    EXPECT_FALSE(fs::exists(result) && fs::file_size(result) > 0);
  }
}
