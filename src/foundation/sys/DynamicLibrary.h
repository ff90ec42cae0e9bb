// Dynamic libraries: open by name, resolve exports, and the folder of the running program.
#pragma once

#include <string>

namespace vaporix::sys {

/// Opens a shared library (a bare name goes through the loader's search). @return a handle or
/// null, with `error` (when given) set to the loader's reason.
void* openLibrary(const std::string& path, std::string* error = nullptr);
/// The address of an exported symbol, or null.
void* findSymbol(void* library, const char* name);
/// Drops the handle; null is ignored.
void closeLibrary(void* library);
/// Folder of the running executable, without a trailing '/'; empty when it can't be told.
std::string executableFolder();

}  // namespace vaporix::sys
