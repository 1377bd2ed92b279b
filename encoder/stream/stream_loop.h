// SPDX-License-Identifier: Apache-2.0
// Streams that come back: a source that receives the stream which carries it would put every message into it again, and
// again, until the machine is full of it.
#ifndef MDENCODER_STREAM_LOOP_H
#define MDENCODER_STREAM_LOOP_H

#include <vector>

#include "config.h"
#include "values.h"

namespace mdencoder {

// Throws ConfigError for the first output whose datagrams reach a source of its stream. `own` are the addresses of this
// machine. Names are not resolved.
void CheckStreamLoops(const Config& config, const std::vector<Address>& own);

}  // namespace mdencoder

#endif  // MDENCODER_STREAM_LOOP_H
