#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "KxRegister.h"
#include "KxTranscodeUnit2.h"
#include "tests/support/TestSupport.h"

namespace kxtest {

KxDBTask job(long long id, const std::string& src = "/share/clip.mp4");
KxRegister unitRegistration(const std::string& resId, KxRes2_e type, const KxDBTask& task);
KxRegister processRegistration(const std::string& resId, KxRes2_e type, int pid);

// A fake /sbin/accelctl under a private root. Answers are files that a test may change while
// the tool is in use; every call is noted.
class FakeAccelerator {
 public:
  explicit FakeAccelerator(const PrivateRoot& root);

  // Answers with the given cards; each id is listed, queried and usable.
  void setCards(const std::vector<std::string>& ids) const;
  // What one call prints, such as answer("-l", "...") or answer("-s gpu0", "...").
  void answer(const std::string& call, const std::string& text) const;
  // Makes one call fail.
  void fail(const std::string& call) const;
  // Makes one call wait until release() of the same call.
  void hold(const std::string& call) const;
  void release(const std::string& call) const;
  // How often a call was made so far.
  size_t calls(const std::string& call) const;
  // Whether a call has begun and not ended yet.
  size_t running(const std::string& call) const;
  std::string path() const { return m_root.file("/sbin/accelctl"); }

 private:
  std::string part(const std::string& call, const std::string& suffix) const;

  const PrivateRoot& m_root;
};

// Runner threads for tests of units: each takes its run, works until it has to end, and then
// leaves, or waits to be let go when it is told to linger.
class StubRunners {
 public:
  StubRunners();
  ~StubRunners();
  StubRunners(const StubRunners&) = delete;
  StubRunners& operator=(const StubRunners&) = delete;

  // Runs wait here at their end, like a runner that still cleans up.
  void setLingering(bool isLingering);
  // How many runs have begun, how many are at work now, and how many have left.
  int begun() const { return m_begun; }
  int working() const { return m_working; }
  int left() const { return m_left; }
  // The most runs that were ever at work at the same time.
  int mostAtWork() const { return m_mostAtWork; }
  // How many runs were told to end the job, and how many to leave it.
  int toldToStop() const { return m_toldToStop; }
  int toldToLeave() const { return m_toldToLeave; }

 private:
  static void* routine(void* arg);
  void run(KxTranscodeUnit2& unit);

  std::mutex m_mutex;
  std::condition_variable m_mayLeave;
  bool m_isLingering = false;
  std::atomic<int> m_begun{0}, m_working{0}, m_mostAtWork{0}, m_left{0};
  std::atomic<int> m_toldToStop{0}, m_toldToLeave{0};
};

}  // namespace kxtest
