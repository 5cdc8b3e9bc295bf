// accelctl: tells which graphics cards can transcode.

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "frame/UniqueFd.h"
#include "tools/AccelDiscovery.h"

namespace {

constexpr std::chrono::seconds kToolLimit{15};
constexpr size_t kMaxOutput = 1 << 20;

// Reads a pipe to its end. @return false when that takes too long or is too much
bool readAll(int fd, std::string& out) {
  const auto deadline = std::chrono::steady_clock::now() + kToolLimit;
  std::array<char, 4096> buffer;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd state = {fd, POLLIN, 0};
    if (left.count() <= 0 || poll(&state, 1, static_cast<int>(left.count())) <= 0) return false;
    const ssize_t count = read(fd, buffer.data(), buffer.size());
    if (count == 0) return true;
    if (count < 0 || out.size() > kMaxOutput) return false;
    out.append(buffer.data(), static_cast<size_t>(count));
  }
}

// A stuck driver can make the tool hang; it is ended then and its cards count as absent.
std::optional<std::string> askNvidiaTool() {
  std::array<const char*, 4> argv = {"nvidia-smi", "--query-gpu=index,pci.bus_id,name",
                                     "--format=csv,noheader", nullptr};
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return std::nullopt;
  const UniqueFd readEnd(ends[0]);
  UniqueFd writeEnd(ends[1]);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  const int failed = posix_spawnp(&pid, argv[0], &actions, nullptr,
                                  const_cast<char* const*>(argv.data()), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (failed != 0) return std::nullopt;
  writeEnd.reset();
  std::string out;
  const bool complete = readAll(readEnd.get(), out);
  if (!complete) kill(pid, SIGKILL);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (!complete || status != 0) return std::nullopt;
  return out;
}

using Cards = std::vector<kxtools::AccelCard>;

int printList(const Cards& cards) {
  for (const auto& card : cards) printf("%s\n", kxtools::listLine(card).c_str());
  return 0;
}

int printUsable(const Cards& cards) {
  printf("count=%zu\n", cards.size());
  for (const auto& card : cards) printf("%s\n", card.id.c_str());
  return 0;
}

int printOne(const Cards& cards, const std::string& id, bool status) {
  const auto card =
      std::find_if(cards.begin(), cards.end(), [&](const auto& row) { return row.id == id; });
  if (card == cards.end()) {
    fprintf(stderr, "no card has the id %s\n", id.c_str());
    return 1;
  }
  const std::string line = status ? kxtools::statusLine(*card) : "devno=" + card->devNumber;
  printf("%s\n", line.c_str());
  return 0;
}

int usage() {
  fputs("usage: accelctl -l      list the cards: id:vendor:device:external|internal:mode\n"
        "       accelctl -q      number of the cards and their ids\n"
        "       accelctl -T ID   device number of a card\n"
        "       accelctl -s ID   state of a card: real_status=2,transcode=1 when usable\n",
        stderr);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> words(argv + 1, argv + argc);
  const bool forAll = words.size() == 1 && (words[0] == "-l" || words[0] == "-q");
  const bool forOne = words.size() == 2 && (words[0] == "-T" || words[0] == "-s");
  if (!forAll && !forOne) return usage();
  kxtools::AccelSources sources;
  sources.nvidiaList = askNvidiaTool;
  const Cards cards = kxtools::discoverCards(sources);
  if (forOne) return printOne(cards, words[1], words[0] == "-s");
  return words[0] == "-l" ? printList(cards) : printUsable(cards);
}
