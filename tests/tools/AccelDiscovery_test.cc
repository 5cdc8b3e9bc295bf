#include "tools/AccelDiscovery.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/tools/ToolsTest.h"

namespace fs = std::filesystem;
using kxtest::runTool;
using kxtest::TempDir;
using kxtest::writeFile;
using kxtools::discoverCards;

namespace {

// A machine as its kernel shows it.
class Machine {
 public:
  void addCard(int number, const std::string& address, const std::string& driver,
               const std::string& renderNode) {
    const std::string device = m_dir / ("sys/devices/" + address);
    fs::create_directories(device + "/drm");
    fs::create_directories(m_dir / ("sys/drivers/" + driver));
    fs::create_directory_symlink(m_dir / ("sys/drivers/" + driver), device + "/driver");
    writeFile(device + "/device", "0x3e92\n");
    const std::string card = m_dir / ("sys/class/drm/card" + std::to_string(number));
    fs::create_directories(card);
    fs::create_directory_symlink(device, card + "/device");
    fs::create_directories(card + "-HDMI-A-1");
    if (renderNode.empty()) return;
    fs::create_directories(device + "/drm/" + renderNode);
    fs::create_directories(m_dir / "dev/dri");
    writeFile(m_dir / ("dev/dri/" + renderNode), "");
  }
  kxtools::AccelSources sources() const {
    kxtools::AccelSources result;
    result.sysfs = m_dir / "sys";
    result.devices = m_dir / "dev";
    return result;
  }
  std::string node(const std::string& name) const { return m_dir / ("dev/dri/" + name); }

 private:
  TempDir m_dir;
};

}  // namespace

TEST(AccelDiscovery, FindsNothingOnAMachineWithoutCards) {
  const Machine machine;
  EXPECT_TRUE(discoverCards(machine.sources()).empty());
}

TEST(AccelDiscovery, ListsCardsWithARenderNodeAsInternal) {
  Machine machine;
  machine.addCard(0, "0000:00:02.0", "i915", "renderD128");
  const auto cards = discoverCards(machine.sources());
  ASSERT_EQ(cards.size(), 1U);
  EXPECT_EQ(listLine(cards[0]), "pci-0000-00-02.0:Intel:graphics 0x3e92:internal:1");
  EXPECT_EQ(statusLine(cards[0]), "real_status=2,transcode=1,devno=" + machine.node("renderD128"));
}

TEST(AccelDiscovery, ACardWithoutARenderNodeIsNotUsable) {
  Machine machine;
  machine.addCard(0, "0000:03:00.0", "amdgpu", "");
  const auto cards = discoverCards(machine.sources());
  ASSERT_EQ(cards.size(), 1U);
  EXPECT_EQ(statusLine(cards[0]), "real_status=1,transcode=0,devno=");
}

TEST(AccelDiscovery, LeavesOutDisplayAdaptersThatCannotEncode) {
  Machine machine;
  machine.addCard(0, "0000:05:00.0", "ast", "");
  machine.addCard(1, "0000:06:00.0", "virtio_gpu", "renderD128");
  EXPECT_TRUE(discoverCards(machine.sources()).empty());
}

TEST(AccelDiscovery, ListsNvidiaCardsAsExternal) {
  Machine machine;
  machine.addCard(0, "0000:00:02.0", "i915", "renderD128");
  kxtools::AccelSources sources = machine.sources();
  sources.nvidiaList = [] {
    return "0, 00000000:01:00.0, Some Card: 3000, Ti\n1, 00000000:0A:00.0, Other\n";
  };
  const auto cards = discoverCards(sources);
  ASSERT_EQ(cards.size(), 3U);
  EXPECT_EQ(listLine(cards[1]), "pci-0000-01-00.0:NVIDIA:Some Card  3000  Ti:external:1");
  EXPECT_EQ(statusLine(cards[1]), "real_status=2,transcode=1,devno=0");
  EXPECT_EQ(cards[2].id, "pci-0000-0a-00.0");
}

TEST(AccelDiscovery, IgnoresWhatTheNvidiaToolSaysWithoutADriver) {
  kxtools::AccelSources sources = Machine().sources();
  sources.nvidiaList = [] { return "NVIDIA-SMI has failed, because: no driver\n"; };
  EXPECT_TRUE(discoverCards(sources).empty());
  sources.nvidiaList = [] { return std::nullopt; };
  EXPECT_TRUE(discoverCards(sources).empty());
}

namespace {

class AccelCtl : public testing::Test {
 protected:
  ExecResult accelctl(const std::string& words) const {
    const std::string tool = std::string(KX_BUILD_DIR) + "/tools/accelctl";
    return runTool(
        {"/bin/sh", "-c", "PATH=" + m_dir.path().string() + ":$PATH exec " + tool + " " + words});
  }
  void nvidiaTool(const std::string& body) const {
    writeFile(m_dir / "nvidia-smi", "#!/bin/sh\n" + body);
    fs::permissions(m_dir / "nvidia-smi", fs::perms(0755));
  }
  TempDir m_dir;
};

}  // namespace

TEST_F(AccelCtl, SucceedsWithoutAnyCard) {
  nvidiaTool("exit 9\n");
  if (fs::exists("/sys/class/drm/card0")) GTEST_SKIP() << "this machine has a card";
  EXPECT_EQ(accelctl("-l").exitStatus, 0);
  EXPECT_EQ(accelctl("-l").out, "");
  EXPECT_EQ(accelctl("-q").exitStatus, 0);
  EXPECT_EQ(accelctl("-q").out, "count=0\n");
}

TEST_F(AccelCtl, AnswersAboutAnInstalledCard) {
  if (fs::exists("/sys/class/drm/card0")) GTEST_SKIP() << "this machine has a card";
  nvidiaTool("[ \"$1\" = --query-gpu=index,pci.bus_id,name ] || exit 1\n"
             "echo '0, 00000000:01:00.0, Some Card'\n");
  EXPECT_EQ(accelctl("-l").out, "pci-0000-01-00.0:NVIDIA:Some Card:external:1\n");
  EXPECT_EQ(accelctl("-q").out, "count=1\npci-0000-01-00.0\n");
  EXPECT_EQ(accelctl("-T pci-0000-01-00.0").out, "devno=0\n");
  EXPECT_EQ(accelctl("-s pci-0000-01-00.0").out, "real_status=2,transcode=1,devno=0\n");
}

TEST_F(AccelCtl, RefusesUnknownCardsAndWords) {
  nvidiaTool("exit 9\n");
  EXPECT_EQ(accelctl("-s nothing 2>&1").exitStatus, 1);
  EXPECT_EQ(accelctl("-T nothing 2>&1").exitStatus, 1);
  for (const char* words : {"", "-x", "-s", "-l extra"})
    EXPECT_EQ(accelctl(std::string(words) + " 2>&1").exitStatus, 2) << words;
}
