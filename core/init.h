// Options, version texts, signals and the 2-second alarm.
#pragma once

// The value of the option `key` (upper case, without '-' or '/'): a text inside the argument
// vector, empty when the option stands last; null when the option is absent.
char* GetArgument(int line, char** argv, const char* key);

// Prints the banner and fills the option fields of g_DbcI; 0, or -1 after help or version.
int DbcInitGlobalInternal(const char* file, int line, char** argv);

// 0 full version, 1 legal notice, 2 numbers, 3 edition, 4 edition and numbers, above: empty.
// Static buffer, overwritten by the next call.
const char* GetVersionString(int selector);

int InitialiseSignalHandlers(const char* file, int line);  // 0
int InitialiseTimer(const char* file, int line);           // 0; the first tick comes in 2 seconds
void UninitTimer(const char* file, int line);              // the alarm goes on until the exit
