// The memory of the process that the system keeps resident.
#pragma once

// Lets go of the pages of the program and its libraries that only the start needed: what is used
// again comes back from the files.
void ReleaseStartPages();
