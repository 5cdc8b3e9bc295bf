#pragma once

#include <string>

namespace xcoded {

// Cleans up behind a daemon that died: removes the temporary files and work folders of
// processes that are gone and puts the jobs that they ran back into the queue. Needs the job
// store; call it before any unit is started. Checkpoints of waiting jobs stay.
void recoverFromCrash();

// True when the name of a temporary file or work folder starts as those of a process that is
// gone do: "<pid>_<thread>_<seconds>_<6 hexadecimal digits>". A process that has the number
// today but started after the name was made is another one.
bool isLeftover(const std::string& name);

}  // namespace xcoded
