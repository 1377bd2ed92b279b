// printable_text.h - the one rule for text that came from outside: what the runtime's log, mdencoder's table and its
// JSON show of it.
#ifndef PRINTABLE_TEXT_H
#define PRINTABLE_TEXT_H

#include <string>
#include <string_view>

// Printable UTF-8 stands for itself. All else is escaped, so that nobody forges a line, steers a terminal or hides or
// turns round what a reader sees, and so that the result is always valid UTF-8:
//
//   \n \r \t   these three controls
//   \\         the backslash, so that an escape is never mistaken for text
//   \xHH       each byte of other control characters (C0, DEL, C1), of line and paragraph separators, of characters
//              without a shape of their own (bidirectional controls, zero-width characters, tags), of noncharacters,
//              and each byte that is no UTF-8: over-long, surrogate, above U+10FFFF, cut
//
// A pure function, for any thread.
std::string PrintableText(std::string_view bytes);

#endif
