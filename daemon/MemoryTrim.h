#pragma once

namespace xcoded {

// Gives back memory that an idle service does not need: free heap, and the pages of libraries
// that are as they stand in their files. The latter are touched by the hundreds while the
// libraries are loaded and come back from the page cache when they are used again.
void giveBackMemory();

}  // namespace xcoded
