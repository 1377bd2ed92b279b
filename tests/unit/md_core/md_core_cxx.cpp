// The parsing core as a C++ program would compile it: the file is in the common subset of both languages.
#include "md_core.c"  // NOLINT(bugprone-suspicious-include): compiled again on purpose
