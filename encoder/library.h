// The metadata library, loaded at run time the way an encoder's plug-in loader would.
#ifndef MDENCODER_LIBRARY_H
#define MDENCODER_LIBRARY_H

#include <string>

#include "metadata_lib.h"

namespace mdencoder {

// Every function that the encoder calls, with its declared type.
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

// Loads the library from `path`, or with an empty path from the program's own folder, the folders the program was
// linked to look in, and the system's. Its undefined host services are resolved from this program. It stays loaded
// to the end of the process. Throws std::runtime_error with what the loader said.
Library LoadLibrary(const std::string& path);

}  // namespace mdencoder

#endif
