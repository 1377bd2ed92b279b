// SPDX-License-Identifier: Apache-2.0
// printable_text.h - how the runtime's log, mdencoder's table and its JSON show text that came from outside.
#ifndef PRINTABLE_TEXT_H
#define PRINTABLE_TEXT_H

#include <string>
#include <string_view>

// Copies printable UTF-8 and escapes everything else, so that no sender can forge a line, control a terminal, or hide
// or reverse what a reader sees, and so that the result is always valid UTF-8:
//
//   \n \r \t   these three controls
//   \\         the backslash, so that text never looks like an escape
//   \xHH       each byte of other control characters (C0, DEL, C1), of line and paragraph separators, of characters
//              that are invisible (bidirectional controls, zero-width characters, tags), of noncharacters,
//              and each byte that is not UTF-8: over-long, surrogate, above U+10FFFF, truncated
//
// Any thread may call it.
std::string PrintableText(std::string_view bytes);

#endif
