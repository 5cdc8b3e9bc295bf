#pragma once

// How work learns in the middle of a long call that it has to end. Who starts the work sets
// the signal for its thread; what takes long below (probing a file, mounting an image) asks
// for it or waits for it along with what it waits for.
//
// Each thread has a signal of its own; a thread that nobody set one for is never stopped.
class StopSignal {
 public:
  // For the calling thread while this object lives.
  // @param fd readable as soon as the work has to end; -1: never. Borrowed.
  explicit StopSignal(int fd);
  ~StopSignal();
  StopSignal(const StopSignal&) = delete;
  StopSignal& operator=(const StopSignal&) = delete;

  // The calling thread's descriptor, -1 when there is none; poll() ignores that.
  static int fd();
  static bool isSet();

 private:
  int m_outer;
};
