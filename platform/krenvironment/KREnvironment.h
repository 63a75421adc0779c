// Our Linux build of the product's settings and paths library (KREnvironment).
#pragma once

#include "CorvanthExport.h"

class CORVANTH_EXPORT MXEnvContainerClass {
 public:
  MXEnvContainerClass();
  ~MXEnvContainerClass();
  MXEnvContainerClass(MXEnvContainerClass const&) = delete;
  MXEnvContainerClass& operator=(MXEnvContainerClass const&) = delete;

  // The value of `key`: the process environment first, then kestrun.ini;
  // null when neither has it.
  char const* MXEGetEnv(char const* key);
  // `templ` with #(MX_BIN) resolved and backslashes turned into slashes.
  char const* MXERuntimeResolve(char const* templ);
  // Prepares the container for the next resolution.
  void reset();
  // Splits `path` into directory (with any drive), name without extension and
  // extension without its dot; each is empty when missing.
  void MXPSplitPath(char const* path, char** directory, char** name, char** extension);
};

namespace nEnvSettings {
// Loads the named settings file from the product's settings place.
CORVANTH_EXPORT void gFileInitTable(MXEnvContainerClass& container, char const* fileName, int& handle);
// The property's text.
CORVANTH_EXPORT char const* gGetPropertyStream(int handle, char const* key);
}  // namespace nEnvSettings
