#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "Misc.h"
#include "frame/ChildProcess.h"
#include "tests/support/PhoneClip.h"
#include "tests/tools/ToolsTest.h"

namespace fs = std::filesystem;
using kxtest::makeClip;
using kxtest::runTool;
using kxtest::StagedRoot;
using kxtest::TempDir;
using kxtest::waitUntil;
using kxtest::writeFile;

namespace {

class FfmpegFrontEnd : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(m_root.staged()); }

  std::string frontEnd() const { return m_root.program("ffmpeg"); }
  bool encode(std::vector<std::string> words) const {
    std::vector<std::string> argv = {frontEnd(), "-v", "error", "-y"};
    argv.insert(argv.end(), words.begin(), words.end());
    return kxhost::succeeded(runTool(argv));
  }
  static std::string probe(const std::string& file, const std::string& entry) {
    return kxtest::run(
               {"ffprobe", "-v", "error", "-show_entries", entry, "-of", "default=nw=1:nk=1", file})
        .value_or("<failed>");
  }

  StagedRoot m_root;
  TempDir m_dir;
};

// A clip that plays longer than any test runs, so that its encoder is there to be looked at.
std::vector<std::string> endlessEncode(const std::string& program, const std::string& out) {
  return {program,    "-y", "-f", "lavfi", "-i", "testsrc=duration=100000", "-c:v", "libx264",
          "-threads", "1",  "-f", "null",  out};
}

std::string programOf(pid_t pid) {
  std::error_code failed;
  return fs::read_symlink("/proc/" + std::to_string(pid) + "/exe", failed).filename().string();
}

bool runs(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(status)), {});
  return !text.empty() && text.find(") Z ") == std::string::npos;
}

}  // namespace

TEST_F(FfmpegFrontEnd, EncodesWithOptionsThatTheInstalledEncoderRefuses) {
  makeClip(m_dir / "in.mp4");
  EXPECT_TRUE(encode({"-i", m_dir / "in.mp4", "-t", "1", "-fix_duration", "1", "-strict", "-2",
                      "-preset", "superfast", "-f", "mkv", "-c:v", "h264", "-ar", "128000", "-c:a",
                      "aac", m_dir / "out.mkv"}));
  EXPECT_EQ(probe(m_dir / "out.mkv", "format=format_name"), "matroska,webm\n");
  // The same words are refused without the front-end.
  EXPECT_FALSE(kxtest::run({"ffmpeg", "-v", "quiet", "-y", "-i", m_dir / "in.mp4", "-fix_duration",
                            "1", m_dir / "x.mkv"}));
  EXPECT_FALSE(kxtest::run({"ffmpeg", "-v", "quiet", "-y", "-i", m_dir / "in.mp4", "-ar", "128000",
                            "-c:a", "aac", m_dir / "x.mp4"}));
  EXPECT_FALSE(kxtest::run(
      {"ffmpeg", "-v", "quiet", "-y", "-i", m_dir / "in.mp4", "-f", "mkv", m_dir / "x.mkv"}));
}

TEST_F(FfmpegFrontEnd, JoinsAListWhoseNamesStandInDoubleQuotes) {
  fs::create_directory(m_dir / "it's a folder");
  makeClip(m_dir / "it's a folder/one.mp4");
  makeClip(m_dir / "two.mp4");
  writeFile(m_dir / "list.txt",
            "file \"" + (m_dir / "it's a folder/one.mp4") + "\"\nfile \"two.mp4\"\n");
  EXPECT_TRUE(encode({"-f", "concat", "-i", m_dir / "list.txt", "-c", "copy", m_dir / "out.mp4"}));
  EXPECT_NEAR(std::stod(probe(m_dir / "out.mp4", "format=duration")), 2.0, 0.2);
  EXPECT_EQ(kxtest::readFile(m_dir / "list.txt").find('\''), (m_dir / "it's").size() + 4);
}

TEST_F(FfmpegFrontEnd, ReadsTheFilesOfADvdAsOne) {
  makeClip(m_dir / "a.mpg", 320, 240, 1, {"-c:v", "mpeg2video", "-c:a", "mp2", "-f", "vob"});
  fs::copy_file(m_dir / "a.mpg", m_dir / "b.mpg");
  EXPECT_TRUE(encode({"-i", "concat:" + (m_dir / "a.mpg") + "|" + (m_dir / "b.mpg"), "-c", "copy",
                      "-f", "mpegts", m_dir / "out.ts"}));
  EXPECT_GT(fs::file_size(m_dir / "out.ts"), fs::file_size(m_dir / "a.mpg"));
}

TEST_F(FfmpegFrontEnd, UnpacksSoundWhosePacketsHoldSeveralFrames) {
  ASSERT_TRUE(kxtest::makePhoneClip(m_dir / "in.mkv", 4));
  const auto secondsOfSound = [this](const std::vector<std::string>& option) {
    std::vector<std::string> words = {"-i", m_dir / "in.mkv", "-map", "0:a:0"};
    words.insert(words.end(), option.begin(), option.end());
    words.push_back(m_dir / "out.wav");
    EXPECT_TRUE(encode(words));
    return std::stod(probe(m_dir / "out.wav", "format=duration"));
  };
  EXPECT_NEAR(secondsOfSound({"-unpack_sound", "0"}), 4, 0.1);
  EXPECT_LT(secondsOfSound({}), 1) << "the installed encoder does it by itself now";
}

TEST_F(FfmpegFrontEnd, UnpackingEndsWithTheEncoder) {
  ASSERT_TRUE(kxtest::makePhoneClip(m_dir / "in.mkv", 60));
  const ChildProcess encoder =
      ChildProcess::spawn({frontEnd(), "-v", "error", "-y", "-re", "-i", m_dir / "in.mkv", "-map",
                           "0:a:0", "-unpack_sound", "0", m_dir / "out.wav"},
                          {});
  const auto reads = [this] { return kxtest::run({"pgrep", "-f", m_dir / "in.mkv"}).value_or(""); };
  ASSERT_TRUE(waitUntil([&] { return std::ranges::count(reads(), '\n') == 2; }));
  ASSERT_EQ(kill(encoder.pid(), SIGKILL), 0) << "only the encoder itself";
  const std::string last = std::to_string(encoder.pid()) + "\n";  // not reaped yet
  EXPECT_TRUE(waitUntil([&] { return reads().empty() || reads() == last; })) << reads();
}

TEST_F(FfmpegFrontEnd, APlaylistCannotReadOtherFiles) {
  makeClip(m_dir / "secret.ts", 320, 240, 1, {"-f", "mpegts"});
  const std::string secret = m_dir / "secret.ts";
  writeFile(m_dir / "list.mp4",
            "#EXTM3U\n#EXT-X-TARGETDURATION:2\n#EXTINF:1,\n" + secret + "\n#EXT-X-ENDLIST\n");
  writeFile(m_dir / "concat.mp4", "ffconcat version 1.0\nfile secret.ts\n");
  for (const char* name : {"list.mp4", "concat.mp4"}) {
    EXPECT_FALSE(encode({"-i", m_dir / name, "-c", "copy", "-f", "mpegts", m_dir / "out.ts"}))
        << name;
    // The file is one that the encoder would follow by itself.
    EXPECT_TRUE(kxtest::run({"ffmpeg", "-nostdin", "-v", "quiet", "-y", "-i", m_dir / name, "-c",
                             "copy", "-f", "mpegts", m_dir / "plain.ts"}))
        << name;
  }
}

TEST_F(FfmpegFrontEnd, AnInputIsALocalFileAndNothingElse) {
  makeClip(m_dir / "clip.ts", 160, 120, 1, {"-f", "mpegts"});
  const std::string clip = m_dir / "clip.ts";
  const std::string bytes = kxtest::run({"base64", "-w0", clip}).value_or("");
  EXPECT_TRUE(encode({"-i", "file:" + clip, "-c", "copy", "-f", "mpegts", m_dir / "out.ts"}));
  for (const std::string& input :
       {std::string("http://127.0.0.1:9/x.mp4"), std::string("tcp://127.0.0.1:9"),
        "data:video/mp2t;base64," + bytes, "subfile,,start,0,end,0,,:" + clip, "cache:" + clip,
        "async:" + clip, "concat:http://127.0.0.1:9/x|" + clip, "concat:data:;base64," + bytes}) {
    writeFile(m_dir / "input", input);
    const ExecResult result =
        runTool({"/bin/sh", "-c",
                 frontEnd() + " -v error -y -i \"$(cat '" + (m_dir / "input") +
                     "')\" -c copy -f mpegts /dev/null 2>&1"});
    EXPECT_NE(result.exitStatus, 0) << input.substr(0, 60);
    EXPECT_NE(result.out.find("not on whitelist"), std::string::npos) << input.substr(0, 60) << "\n"
                                                                      << result.out;
  }
}

TEST_F(FfmpegFrontEnd, BecomesTheEncoderUnderTheSameProcessNumber) {
  const ChildProcess::Options options{m_dir / "log", false, {}, ""};
  ChildProcess child = ChildProcess::spawn(endlessEncode(frontEnd(), "-"), options);
  ASSERT_TRUE(child.valid());
  EXPECT_TRUE(waitUntil(
      [&] { return kxtest::readFile(m_dir / "log").find("frame=") != std::string::npos; }));
  EXPECT_NE(kxtest::run({"cat", "/proc/" + std::to_string(child.pid()) + "/cmdline"})
                .value_or("")
                .find("/usr/bin/ffmpeg"),
            std::string::npos);
  EXPECT_TRUE(child.signal(SIGTERM));
  EXPECT_TRUE(child.waitFor(std::chrono::seconds(20)).has_value());
}

TEST_F(FfmpegFrontEnd, DiesWithTheProcessThatStartedIt) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const std::vector<std::string> command = endlessEncode(frontEnd(), "-");
  const pid_t parent = fork();
  if (parent == 0) {
    const pid_t encoder = miscLaunchCmdNoWait(command, m_dir / "log");
    if (write(ends[1], &encoder, sizeof encoder) < 0) _exit(1);
    for (;;) pause();
  }
  pid_t encoder = 0;
  ASSERT_EQ(read(ends[0], &encoder, sizeof encoder), static_cast<ssize_t>(sizeof encoder));
  close(ends[0]);
  close(ends[1]);
  ASSERT_GT(encoder, 0);
  EXPECT_TRUE(waitUntil([&] {
    return programOf(encoder) == "ffmpeg" &&
           kxtest::readFile(m_dir / "log").find("frame=") != std::string::npos;
  }));
  kill(parent, SIGKILL);
  waitpid(parent, nullptr, 0);
  EXPECT_TRUE(waitUntil([&] { return !runs(encoder); }));
}

TEST_F(FfmpegFrontEnd, NeverReadsStandardInput) {
  makeClip(m_dir / "in.mp4");
  const std::string command = "(printf qqqq; sleep 1) | " + frontEnd() + " -y -v error -i " +
                              (m_dir / "in.mp4") + " " + (m_dir / "out.mp4");
  EXPECT_TRUE(kxhost::succeeded(runTool({"/bin/sh", "-c", command})));
  EXPECT_NEAR(std::stod(probe(m_dir / "out.mp4", "format=duration")), 1.0, 0.1);
}

TEST_F(FfmpegFrontEnd, WritesNoReportWhateverTheEnvironmentSays) {
  const std::string report = m_dir / "report.log";
  const ExecResult result = runTool(
      {"/bin/sh", "-c", "FFREPORT=file=" + report + " exec " + frontEnd() + " -v quiet -version"});
  EXPECT_TRUE(kxhost::succeeded(result));
  EXPECT_FALSE(fs::exists(report));
}

TEST_F(FfmpegFrontEnd, RunsTheEncoderThatTheEnvironmentNames) {
  writeFile(m_dir / "other", "#!/bin/sh\necho \"other: $*\"\n");
  fs::permissions(m_dir / "other", fs::perms(0755));
  const ExecResult result =
      runTool({"/bin/sh", "-c", "KX_FFMPEG=" + (m_dir / "other") + " exec " + frontEnd() + " -y"});
  EXPECT_EQ(result.out, "other: -nostdin -y\n");
  const ExecResult missing =
      runTool({"/bin/sh", "-c", "KX_FFMPEG=/no/such/encoder exec " + frontEnd() + " -y 2>&1"});
  EXPECT_EQ(missing.exitStatus, 127);
}

TEST_F(FfmpegFrontEnd, ReadsEveryRealVideoThatTheEncoderReads) {
  const auto media = kxtest::mediaDir();
  if (!media) GTEST_SKIP() << "no real media";
  int read = 0;
  for (const auto& entry : fs::directory_iterator(*media + "/video")) {
    const std::vector<std::string> words = {"-v",   "quiet", "-i",        entry.path().string(),
                                            "-map", "0:v:0", "-frames:v", "1",
                                            "-f",   "null",  "-"};
    std::vector<std::string> plain = {"ffmpeg", "-nostdin"};
    plain.insert(plain.end(), words.begin(), words.end());
    if (!kxtest::run(plain)) continue;
    EXPECT_TRUE(encode(words)) << entry.path();
    ++read;
  }
  EXPECT_GT(read, 0);
}
