#pragma once

#include <cstdint>

// What an event of a watched folder asks for.
enum class EventAction {
  None,
  EnterFolder,  // a folder was created or moved in
  LeaveFolder,  // a folder was deleted or moved out
  AddFile,      // a file was written and closed, or moved in
  LinkFile,     // a file got a name here: a new empty one, or a complete one by a hard link
  LeaveFile,    // a file was deleted or moved out
  Recover,      // events were lost
  LookAtRoots,  // a watched file system went away
};

// @param mask bits of an inotify event
EventAction actionOf(uint32_t mask);
