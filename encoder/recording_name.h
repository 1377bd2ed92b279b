// SPDX-License-Identifier: Apache-2.0
// Names of recordings: where a source is recorded, and patterns in the name of a file.
//
// %Y %m %d %H %M %S are the time at which the file begins, in UTC, %n is a number that counts up until no file has that
// name, and %% is a percent sign. Folders have no patterns.
#ifndef MDENCODER_RECORDING_NAME_H
#define MDENCODER_RECORDING_NAME_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "config.h"

namespace mdencoder {

// Returns the path, with its patterns, of a source's recording, or "" if it is not recorded.
std::string RecordingPath(const SourceSettings& source, const EncoderSettings& encoder);

// Returns the path of a source's track, or "" if it has none.
std::string TrackPath(const SourceSettings& source, const EncoderSettings& encoder);

// Returns what is wrong with the patterns of a path, as "only ...", or nullptr. A recording that is rotated needs a
// number, or a file would take the place of an earlier one.
const char* PatternFault(std::string_view path, bool rotated);
// Returns whether the name has a time or a number in it: files of such names are made, but never replaced.
bool IsPattern(std::string_view path);
bool HasNumber(std::string_view path);
std::string ExpandPattern(std::string_view path, uint64_t timeUs, unsigned number);

// Reads "4096", "512k", "64M", "2G" (units of 1024) from 1024 on.
std::optional<uint64_t> ParseSize(std::string_view text);
extern const char kSizeAllowed[];

}  // namespace mdencoder

#endif
