#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "Misc.h"
#include "frame/ChildProcess.h"
#include "tests/support/Discs.h"
#include "tests/tools/ToolsTest.h"
#include "tools/AgentArguments.h"

namespace fs = std::filesystem;
using kxtest::BluRayFolder;
using kxtest::colourAt;
using kxtest::DvdFolder;
using kxtest::makeClip;
using kxtest::readFile;
using kxtest::runTool;
using kxtest::StagedRoot;
using kxtest::TempDir;
using kxtest::waitUntil;
using kxtest::writeFile;
using kxtools::EncoderKind;
using kxtools::Words;

namespace {

std::string joined(const Words& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
  return text;
}

bool contains(const Words& words, const std::string& part) {
  return (" " + joined(words) + " ").find(" " + part + " ") != std::string::npos;
}

std::optional<kxtools::AgentRequest> parse(const Words& more, std::string& fault) {
  Words words = {"-m", "mp4", "-i", "/v/in.mkv", "-o", "/v/out.mp4"};
  words.insert(words.end(), more.begin(), more.end());
  return kxtools::parseAgentWords(words, fault);
}

Words wordsFor(const Words& more, const kxtools::HardwareEncoder& encoder) {
  std::string fault;
  const auto request = parse(more, fault);
  EXPECT_TRUE(request) << fault;
  return request ? kxtools::encoderWords(*request, encoder) : Words();
}

const kxtools::HardwareEncoder kStandIn{EncoderKind::Software, "libx264", ""};

class TranscodeAgent : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_root.staged());
    setenv("KX_AGENT_ENCODER", "libx264", 1);
  }
  void TearDown() override { unsetenv("KX_AGENT_ENCODER"); }

  std::string agent() const { return m_root.program("transcode_agent"); }
  // Runs the agent with its standard error in a log, as the service does.
  int encode(const Words& words) const {
    std::vector<std::string> argv = {agent()};
    argv.insert(argv.end(), words.begin(), words.end());
    return miscAnalysisRet(ChildProcess::adopt(miscLaunchCmdNoWait(argv, m_dir / "log")).wait());
  }
  static std::string probe(const std::string& file, const std::string& stream,
                           const std::string& entry) {
    return kxtest::run({"ffprobe", "-v", "error", "-select_streams", stream, "-show_entries", entry,
                        "-of", "csv=p=0", file})
        .value_or("<failed>");
  }

  StagedRoot m_root;
  TempDir m_dir;
};

}  // namespace

TEST(AgentWords, TurnEveryOptionIntoThoseOfTheEncoder) {
  const Words words = wordsFor({"-seek",    "7",
                                "-vf",      "25/1",
                                "-s",       "width=640,height=360",
                                "-vb",      "900",
                                "-ve",      "h264_high_tune_1",
                                "-profile", "high",
                                "-vid",     "1",
                                "-ca",      "aac",
                                "-ac",      "2",
                                "-ab",      "128000",
                                "-aid",     "2",
                                "-t",       "/v/a.srt",
                                "-tseek",   "3",
                                "-tsize",   "30",
                                "-color",   "#ff0000",
                                "-mode",    "3",
                                "-fs",      "/w/fs"},
                               kStandIn);
  const std::string filters =
      "-vf scale=640:360,setpts=PTS+(4)/TB,subtitles=filename=/v/a.srt:force_style=Fontsize=30"
      "\\,PrimaryColour=&H0000ff&,setpts=PTS-(4)/TB,format=yuv420p";
  for (const char* part : {"-ss 7 -noautorotate -i /v/in.mkv", "-r 25/1", "-b:v 900k",
                           "-profile:v high", "-map 0:V:1", "-map 0:a:2?", "-c:a aac", "-ac 2",
                           "-b:a 128000", "-c:v libx264", "-f mp4 -movflags +faststart /v/out.mp4"})
    EXPECT_TRUE(contains(words, part)) << part << " in " << joined(words);
  EXPECT_TRUE(contains(words, filters)) << joined(words);
}

TEST(AgentWords, DrawATrackOfTheInputAsSubtitle) {
  EXPECT_NE(joined(wordsFor({"-tid", "1"}, kStandIn)).find("subtitles=filename=/v/in.mkv:si=1"),
            std::string::npos);
}

TEST(AgentWords, GiveEachKindOfHardwareWhatItNeeds) {
  const Words sized = {"-s", "width=640,height=360", "-profile", "baseline"};
  const Words nvenc =
      wordsFor({"-ve", "h264_high_tune_1"}, {EncoderKind::Nvenc, "h264_nvenc", "1"});
  EXPECT_TRUE(contains(nvenc, "-c:v h264_nvenc -tune hq -gpu 1")) << joined(nvenc);
  const Words vaapi = wordsFor(sized, {EncoderKind::Vaapi, "h264_vaapi", "/dev/dri/renderD128"});
  EXPECT_TRUE(contains(vaapi, "-vaapi_device /dev/dri/renderD128"));
  EXPECT_TRUE(contains(vaapi, "-vf scale=640:360,format=nv12,hwupload"));
  EXPECT_TRUE(contains(vaapi, "-profile:v constrained_baseline"));
  const Words v4l2 = wordsFor(sized, {EncoderKind::V4l2, "h264_v4l2m2m", ""});
  EXPECT_TRUE(contains(v4l2, "-vf scale=640:360,format=yuv420p"));
  EXPECT_FALSE(contains(v4l2, "-profile:v"));
  const Words rockchip = wordsFor(sized, {EncoderKind::Rockchip, "h264_rkmpp", ""});
  EXPECT_TRUE(contains(rockchip, "-vf scale=640:360,format=nv12"));
  EXPECT_TRUE(contains(rockchip, "-profile:v baseline"));
}

TEST(AgentWords, WritePipedOutputBesideTheResult) {
  const Words words = wordsFor({"-o", "/v/second.mp4"}, kStandIn);
  EXPECT_TRUE(contains(words, "-movflags +frag_keyframe+empty_moov /v/out.mp4"));
  EXPECT_TRUE(contains(words, "-movflags +faststart /v/second.mp4"));
}

TEST(AgentWords, RefuseWhatIsNotUnderstood) {
  std::string fault;
  for (const Words& wrong : std::vector<Words>{{"-m", "wmv"},
                                               {"-seek", "x"},
                                               {"-vf", "25"},
                                               {"-vr", "4"},
                                               {"-s", "640x360"},
                                               {"-s", "width=640,height=360,x"},
                                               {"-ca", "-y"},
                                               {"-t", "concat:/etc/passwd"},
                                               {"-i", "http://host/a"},
                                               {"-ve", "other"},
                                               {"-type", "amd"},
                                               {"-o", "/a", "-o", "/b"},
                                               {"-vb"}}) {
    fault.clear();
    EXPECT_FALSE(parse(wrong, fault)) << joined(wrong);
    EXPECT_NE(fault.find("wrong value of " + wrong[0]), std::string::npos) << fault;
  }
  EXPECT_FALSE(parse({"-unknown", "1"}, fault));
  EXPECT_EQ(fault, "unknown option -unknown");
  EXPECT_FALSE(kxtools::parseAgentWords({"-m", "mp4"}, fault));
}

TEST(AgentEncoders, AreChosenByTheDevicesThatAreThere) {
  const TempDir devices;
  const kxtools::EncoderSources sources{devices.path().string(), ""};
  kxtools::AgentRequest request;
  std::string fault;
  EXPECT_FALSE(kxtools::chooseEncoder(request, sources, fault));
  EXPECT_EQ(fault, "there is no device that encodes video");
  writeFile(devices / "video0", "a camera is no encoder");
  EXPECT_FALSE(kxtools::chooseEncoder(request, sources, fault));

  fs::create_directories(devices / "dri");
  writeFile(devices / "dri/renderD129", "");
  writeFile(devices / "dri/renderD128", "");
  const auto vaapi = kxtools::chooseEncoder(request, sources, fault);
  ASSERT_TRUE(vaapi);
  EXPECT_EQ(vaapi->name, "h264_vaapi");
  EXPECT_EQ(vaapi->device, devices / "dri/renderD128");
  writeFile(devices / "mpp_service", "");
  EXPECT_EQ(kxtools::chooseEncoder(request, sources, fault)->name, "h264_rkmpp");

  request.nvidia = true;
  request.deviceNumber = "2";
  EXPECT_FALSE(kxtools::chooseEncoder(request, sources, fault));
  EXPECT_EQ(fault, "there is no NVIDIA card with a running driver");
  writeFile(devices / "nvidiactl", "");
  const auto nvenc = kxtools::chooseEncoder(request, sources, fault);
  ASSERT_TRUE(nvenc);
  EXPECT_EQ(nvenc->name, "h264_nvenc");
  EXPECT_EQ(nvenc->device, "2");
}

TEST_F(TranscodeAgent, EncodesWithTheStandInAndItsProgressCanBeRead) {
  makeClip(m_dir / "in.mp4", 640, 360, 2);
  ASSERT_EQ(encode({"-m",       "mp4",
                    "-vf",      "10/1",
                    "-s",       "width=320,height=180",
                    "-vb",      "300",
                    "-profile", "main",
                    "-ca",      "aac",
                    "-ac",      "1",
                    "-ab",      "64000",
                    "-i",       m_dir / "in.mp4",
                    "-o",       m_dir / "out.mp4",
                    "-type",    "nvidia",
                    "-devno",   "0"}),
            0)
      << readFile(m_dir / "log");
  EXPECT_EQ(probe(m_dir / "out.mp4", "v", "stream=codec_name,profile,width,height,r_frame_rate"),
            "h264,Main,320,180,10/1\n");
  EXPECT_EQ(probe(m_dir / "out.mp4", "a", "stream=codec_name,channels"), "aac,1\n");
  const ExecResult percent = runTool({m_root.program("xlogparse.sh"), m_dir / "log"});
  EXPECT_GE(percent.exitStatus, 90);
}

TEST_F(TranscodeAgent, TurnsThePictureWithoutDistortingIt) {
  makeClip(m_dir / "in.mp4", 640, 360, 0.5);
  // Asked in the shape of the stored picture, and in that of the turned one.
  for (const char* size : {"width=320,height=180", "width=180,height=320"}) {
    ASSERT_EQ(encode({"-m", "mp4", "-vr", "1", "-s", size, "-ca", "aac", "-i", m_dir / "in.mp4",
                      "-o", m_dir / "out.mp4"}),
              0)
        << readFile(m_dir / "log");
    EXPECT_EQ(probe(m_dir / "out.mp4", "v", "stream=width,height"), "180,320\n");
  }
}

TEST_F(TranscodeAgent, PutsTheMainTitleInPlaceOfADvd) {
  const DvdFolder dvd(m_dir / "it's a Film, 100%");
  dvd.addTitleSet(1, {"blue"}, 0.4);
  dvd.addTitleSet(2, {"red", "green"}, 1);
  for (const std::string& input : {dvd.top(), dvd.top() + "/", dvd.file("VIDEO_TS.IFO")}) {
    ASSERT_EQ(encode({"-m", "mp4", "-ca", "aac", "-i", input, "-o", m_dir / "out.mp4"}), 0)
        << readFile(m_dir / "log");
    EXPECT_EQ(colourAt(m_dir / "out.mp4", 0.3), "red");
    EXPECT_EQ(colourAt(m_dir / "out.mp4", 1.5), "green");
  }
}

TEST_F(TranscodeAgent, PutsTheMainStreamInPlaceOfABluRayDisc) {
  const BluRayFolder disc(m_dir / "a|b");
  disc.addStream("00001", 0.4, "blue");
  disc.addStream("00003", 1, "red");
  ASSERT_EQ(encode({"-m", "mp4", "-ca", "aac", "-i", disc.top(), "-o", m_dir / "out.mp4"}), 0)
      << readFile(m_dir / "log");
  EXPECT_EQ(colourAt(m_dir / "out.mp4", 0.5), "red");
}

TEST_F(TranscodeAgent, RefusesADvdWhosePartsCannotBeNamed) {
  const DvdFolder dvd(m_dir / "a|b");
  dvd.addTitleSet(1, {"red"}, 0.4);
  EXPECT_EQ(encode({"-m", "mp4", "-i", dvd.top(), "-o", m_dir / "out.mp4"}), 1);
  EXPECT_EQ(readFile(m_dir / "log"),
            "transcode_agent: the path of a DVD must not hold a \"|\": " + dvd.top() + "\n");
}

TEST_F(TranscodeAgent, FailsCleanlyWithoutHardwareAndOnOtherFolders) {
  makeClip(m_dir / "in.mp4", 320, 240, 0.2);
  unsetenv("KX_AGENT_ENCODER");
  if (!fs::exists("/dev/nvidiactl")) {
    EXPECT_EQ(
        encode({"-m", "mp4", "-i", m_dir / "in.mp4", "-o", m_dir / "out.mp4", "-type", "nvidia"}),
        1);
    EXPECT_EQ(readFile(m_dir / "log"),
              "transcode_agent: there is no NVIDIA card with a running driver\n");
    EXPECT_FALSE(fs::exists(m_dir / "out.mp4"));
  }
  setenv("KX_AGENT_ENCODER", "libx264", 1);
  EXPECT_EQ(encode({"-m", "mp4", "-i", m_dir.path().string(), "-o", m_dir / "out.mp4"}), 1);
  EXPECT_EQ(readFile(m_dir / "log"),
            "transcode_agent: " + m_dir.path().string() + " is a folder without a disc\n");
}

TEST_F(TranscodeAgent, BecomesTheEncoderSoThatASignalEndsIt) {
  makeClip(m_dir / "in.mp4", 1280, 720, 20, {"-preset", "ultrafast"});
  ChildProcess child = ChildProcess::adopt(
      miscLaunchCmdNoWait({agent(), "-m", "mp4", "-s", "width=1920,height=1080", "-ca", "aac", "-i",
                           m_dir / "in.mp4", "-o", m_dir / "out.mp4"},
                          m_dir / "log"));
  const std::string program = "/proc/" + std::to_string(child.pid()) + "/exe";
  std::error_code failed;
  ASSERT_TRUE(waitUntil([&] { return fs::read_symlink(program, failed).filename() == "ffmpeg"; }));
  ASSERT_TRUE(waitUntil([&] { return fs::exists(m_dir / "out.mp4"); }));
  EXPECT_TRUE(child.signal(SIGTERM));
  EXPECT_TRUE(child.waitFor(std::chrono::seconds(5)));
}
