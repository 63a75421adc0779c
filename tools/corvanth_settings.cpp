// corvanth settings: where kestrun.ini was found and what each key resolves to.
#include <cstdio>
#include <string_view>

#include "KREnvironment.h"
#include "corvanth_text.h"

namespace nCorvanthTool {

namespace {

// The settings the library itself reads.
char const* const kLibraryKeys[] = {"CorvanthAnsiConversion_patch", "CORVANTH_SERVICE_VERSION_NAME"};

}  // namespace

std::string gSettingsUsage() {
  return "  settings [<key>...]\n"
         "               print where kestrun.ini was found ($KESTRUN_HOME/config/, then the\n"
         "               installed data directory) and each key's value with its source:\n"
         "               environment or file; without keys, the keys the library reads\n";
}

int gSettings(int argc, char** argv) {
  for (int i = 2; i < argc; ++i) {
    if (argv[i][0] == '-' || argv[i][0] == '\0') {
      std::fprintf(stderr, "corvanth settings: '%s' is no key\n\n%s", argv[i], gSettingsUsage().c_str());
      return 2;
    }
  }
  MXEnvContainerClass environment;
  // The file alone too, to show what the environment hides.
  int table = 0;
  nEnvSettings::gFileInitTable(environment, nEnvSettings::kSettingsFile, table);
  char const* const path = nEnvSettings::gTablePath(table);
  if (*path != '\0') std::printf("settings file: %s\n", path);
  else std::printf("settings file: none found\n");
  auto show = [&](char const* key) {
    MXEnvContainerClass::tSource source;
    char const* const value = environment.fLookup(key, source);
    switch (source) {
      case MXEnvContainerClass::tSource::eNone:
        std::printf("%s: not set\n", key);
        break;
      case MXEnvContainerClass::tSource::eFile:
        std::printf("%s = %s (file)\n", key, value);
        break;
      case MXEnvContainerClass::tSource::eEnvironment:
        if (char const* inFile = nEnvSettings::gFindProperty(table, key); inFile != nullptr)
          std::printf("%s = %s (environment; the file has %s)\n", key, value, inFile);
        else
          std::printf("%s = %s (environment)\n", key, value);
        break;
    }
  };
  if (argc <= 2) {
    for (char const* key : kLibraryKeys) show(key);
  } else {
    for (int i = 2; i < argc; ++i) show(argv[i]);
  }
  return std::fflush(stdout) == 0 ? 0 : 1;
}

}  // namespace nCorvanthTool
