// SPDX-License-Identifier: Apache-2.0
// The metadata library, loaded at run time the way an encoder's plug-in loader would.
#ifndef MDENCODER_LIBRARY_H
#define MDENCODER_LIBRARY_H

#include <string>

#include "metadata_lib.h"

namespace mdencoder {

// The functions that the encoder calls, with their declared types.
struct Library {
  decltype(&METADATALIB_Init) init = nullptr;
  decltype(&METADATALIB_Shutdown) shutdown = nullptr;
  decltype(&MetaData_OpenSource) openSource = nullptr;
  decltype(&MetaData_CloseSource) closeSource = nullptr;
  decltype(&MetaData_ReleaseBuffer) releaseBuffer = nullptr;
  decltype(&MetaData_GetSourceStats) getSourceStats = nullptr;
  decltype(&MetaData_ResetSourceStats) resetSourceStats = nullptr;
  decltype(&MetaData_SetSourceStats) setSourceStats = nullptr;
};

// Loads the library from `path`. If that is empty, it searches the program's own folder, its run path, and the system's
// folders. This program provides the host services that the library needs. The library stays loaded to the end of the
// process. Throws std::runtime_error with the loader's message.
Library LoadLibrary(const std::string& path);

}  // namespace mdencoder

#endif
