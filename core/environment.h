// What is asked for by environment variables that begin with LUMO_.
#pragma once

// The number, in decimal, that the variable has, from `least` to `most`; `unset` when it is not
// set. A value that cannot be used is told at level 0 and counts as unset.
long NumberFromEnvironment(const char* name, long least, long most, long unset);
