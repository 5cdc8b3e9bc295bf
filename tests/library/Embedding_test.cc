// The installed library as a project of somebody else uses it.

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/Sanitizers.h"
#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;

namespace {

const std::string kSource = KX_SOURCE_DIR;

// The output with the errors; the exit status comes last.
std::string outcomeOf(std::vector<std::string> command) {
  std::vector<std::string> argv = {"/bin/sh", "-c", "exec 2>&1; \"$@\"; echo \"exit $?\"", "sh"};
  argv.insert(argv.end(), command.begin(), command.end());
  return kxtest::run(argv).value_or("");
}

}  // namespace

TEST(Embedding, TheExampleIsBuiltFromWhatIsInstalledAndConvertsAVideo) {
  if (kxtest::kThreadSanitizer || kxtest::kAddressSanitizer)
    GTEST_SKIP() << "a sanitized library needs a sanitized program";
  const kxtest::TempDir dir;
  const std::string installed = dir / "installed";
  const std::string build = dir / "build";
  ASSERT_TRUE(kxtest::run({"cmake", "--install", KX_BUILD_DIR, "--prefix", installed}));
  // What is moved after it was installed still works.
  const std::string moved = dir / "moved";
  fs::rename(installed, moved);
  const std::string configured =
      outcomeOf({"cmake", "-G", "Ninja", "-S", kSource + "/examples/convert", "-B", build, "-D",
                 "CMAKE_PREFIX_PATH=" + moved});
  ASSERT_TRUE(configured.ends_with("exit 0\n")) << configured;
  const std::string built = outcomeOf({"cmake", "--build", build});
  ASSERT_TRUE(built.ends_with("exit 0\n")) << built;

  const std::string root = dir / "root";
  ASSERT_TRUE(kxtest::run({kSource + "/scripts/stage-root", root, KX_BUILD_DIR}));
  const kxtest::TempDir media;
  kxtest::makeClip(media / "clip.mp4", 320, 240, 2);
  const std::string program = build + "/convert";
  const std::string done = outcomeOf({program, dir / "jobs.db", media / "clip.mp4", root});
  EXPECT_TRUE(done.ends_with("\ndone\nexit 0\n")) << done;
  EXPECT_TRUE(fs::exists(media / "@Transcode/clip.mp4.mobile240p.mp4"));

  kxtest::writeFile(media / "text.mp4", "no video");
  const std::string failed = outcomeOf({program, dir / "jobs.db", media / "text.mp4", root});
  EXPECT_NE(failed.find("failed: "), std::string::npos) << failed;
  EXPECT_TRUE(failed.ends_with("exit 1\n")) << failed;
}
