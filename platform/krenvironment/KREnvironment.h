// Settings and paths: our Linux build of the product's settings and paths
// library (KREnvironment).
//
// Settings files ("kestrun.ini") are INI text read with libinih. A file is
// looked for as $KESTRUN_HOME/config/<name>, then in the installed data
// directory; a file found in neither place is an empty table. Sections only
// group keys for the reader's eye: a key is found in any section, and its
// first occurrence in file order wins. Whole-line comments start with '#' or
// ';', an inline comment with " ;". Lines that cannot be read are skipped
// whole, so a hostile file still gives a defined table: a line without '=' or
// ':' (an unterminated "[section" included), a line holding a NUL byte, and a
// line longer than 197 bytes (libinih's line limit; a cut value would be a
// wrong value). A line that starts with blanks continues the value above it in
// libinih, and is ignored here since the first occurrence wins. Keys are
// case-sensitive, as environment variables are.
//
// Threads and lifetime: gFileInitTable and gGetPropertyStream may be called
// from any thread. A loaded table never changes and lives until the process
// ends, so a handle and every text read through it stay valid for good; a
// file read again with the same bytes gives the handle it gave before, so a
// process holds one table per version of a file it has seen. A container
// belongs to one thread at a time; every text it hands out is its own and
// stays valid as long as the container lives (reset included).
#pragma once

#include <memory>

#include "CorvanthExport.h"

namespace nEnvSettings {
// The product's settings file.
inline constexpr char kSettingsFile[] = "kestrun.ini";
}  // namespace nEnvSettings

class CORVANTH_EXPORT MXEnvContainerClass {
 public:
  MXEnvContainerClass();
  ~MXEnvContainerClass();
  MXEnvContainerClass(MXEnvContainerClass const&) = delete;
  MXEnvContainerClass& operator=(MXEnvContainerClass const&) = delete;

  // The value of `key`: the process environment first, then kestrun.ini;
  // null when neither has it. A variable set to the empty text counts as set.
  char const* MXEGetEnv(char const* key);
  // `templ` with every #(MX_BIN) replaced by the product's binary directory
  // ($MX_BIN, else $KESTRUN_HOME/bin, else the directory of the running
  // program) and every backslash turned into '/'. Null for null.
  char const* MXERuntimeResolve(char const* templ);
  // Prepares the container for the next resolution: the next MXEGetEnv reads
  // kestrun.ini afresh. Texts handed out before stay valid.
  void reset();
  // Splits `path` into directory (with any drive, and with its trailing
  // separator, so that directory + name + "." + extension gives the path
  // back), name without extension, and extension without its dot; each is
  // empty when missing. '\' and '/' both separate, "C:" at the start is a
  // drive, "\\server\share\" is a directory. The extension is what follows
  // the last dot of the last component, unless that dot starts the name
  // (".profile" is a name). A null path gives three empty texts.
  void MXPSplitPath(char const* path, char** directory, char** name, char** extension);

  // Where a looked-up value came from.
  enum class tSource { eNone, eEnvironment, eFile };
  // MXEGetEnv, telling also where the value was found.
  char const* fLookup(char const* key, tSource& source);

 private:
  struct cState;
  std::unique_ptr<cState> mState;
};

namespace nEnvSettings {
// Loads the named settings file from the product's settings place and gives
// the table's handle, which is never 0. A missing file, or a name with a
// directory part, gives an empty table.
CORVANTH_EXPORT void gFileInitTable(MXEnvContainerClass& container, char const* fileName, int& handle);
// The property's text; the empty text when the table lacks the key or the
// handle is no table's. Never null.
CORVANTH_EXPORT char const* gGetPropertyStream(int handle, char const* key);
// The property's text, or null when the table lacks it.
CORVANTH_EXPORT char const* gFindProperty(int handle, char const* key);
// The file the table was read from; the empty text when none was found.
CORVANTH_EXPORT char const* gTablePath(int handle);
}  // namespace nEnvSettings
