// SPDX-License-Identifier: Apache-2.0
// How messages are printed: the format, and what of a message the user wants to see.
#ifndef MDENCODER_PRESENTATION_H
#define MDENCODER_PRESENTATION_H

#include <cstddef>
#include <functional>
#include <string>

#include "columns.h"
#include "printer.h"

namespace mdencoder {

struct Presentation {
  std::string header;      // without the last line end; "" for none
  Printer::Render render;  // empty if nothing is printed; one thread at a time
};

// `nameWidth` is the length of the longest name of a source. `width` is asked on the printer's thread.
Presentation MakePresentation(const PresentationSettings& settings, size_t nameWidth, std::function<size_t()> width);

}  // namespace mdencoder

#endif  // MDENCODER_PRESENTATION_H
