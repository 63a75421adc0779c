// Where the product's data files are found, shared by the error text reader
// and the settings reader so that both follow one rule: the product home
// ($KESTRUN_HOME/<folder>/) first, then the data directory installed beside
// this library. Internal to the library; safe from any thread.
#pragma once

#include <string>
#include <vector>

namespace nKRProductFiles {

// A name without any directory part: not empty, not "." or "..", no '/'.
bool gPlainFileName(char const* name);

// The installed data directory (found from the library's own location), or
// empty when the loader cannot tell where the library lies.
std::string const& gInstalledDataDirectory();

// The places to try for `fileName`, in order: "$KESTRUN_HOME/<homeFolder>/<fileName>"
// when KESTRUN_HOME is set and not empty, then the installed data directory.
// Empty when the name is not plain.
std::vector<std::string> gCandidatePaths(char const* homeFolder, char const* fileName);

// Reads a regular file of at most 4 MiB whole; false otherwise.
bool gReadFile(std::string const& path, std::string& bytes);

}  // namespace nKRProductFiles
