// SPDX-License-Identifier: Apache-2.0
// Compiles the parsing core as C++: the file is in the common subset of both languages.
#include "md_core.c"  // NOLINT(bugprone-suspicious-include): compiled again on purpose
