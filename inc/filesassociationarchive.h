// FilesAssociationArchive: a CAssociativeArray from source file paths to
// destination file paths. A destination given with a directory is stored as
// given; a bare name, or no destination at all (then the source's name and
// extension), is placed in the archive's default directory, else in the
// process-wide default, joined with a backslash, the form of the paths the
// product exchanges. With neither default the value is the empty text.
// Each such placement writes an error statement "mirn--bug" (source
// "filesassociationarchive"): a marker of that path, not a fault.
//
// Threads: an archive belongs to one thread at a time. The process-wide
// default has no guard: set it before archives are in use.
// Ownership: the couples are the array's (see AssociativeArray.h). The
// iterator of GetIterator is bound to the archive that created it and is
// shared by copies made after it exists; it lives as long as the last of
// them. REQUIRES: GetIterator on a copy only while that archive lives.
#pragma once

#include <memory>

#include "AssociativeArray.h"
#include "CorvanthExport.h"
#include "rwcstring.h"
#include "rwhashdict.h"

class CORVANTH_EXPORT FilesAssociationArchive : public CAssociativeArray {
 public:
  FilesAssociationArchive();
  // Shallow copy of the couples, with the default directory and the iterator.
  FilesAssociationArchive(FilesAssociationArchive const& other);
  FilesAssociationArchive& operator=(FilesAssociationArchive const& other);
  ~FilesAssociationArchive() override;

  // `destination` may be null or empty. An existing couple for `source` is replaced.
  void AddFileAssociation(char const* source, char const* destination);
  // Raises CAssoKeyDoesNotExistException when `source` has no couple.
  char const* GetFileAssociate(char const* source);
  // Made at the first call; every later call resets it for a new walk.
  RWHashDictionaryIterator& GetIterator();
  // Null or empty clears it.
  void SetDefualtDestinationDirectory(char const* directory);
  // The empty text when not set.
  char const* GetDefualtDestinationDirectory();
  // Later AddFileAssociation calls of every archive use it; stored values stay.
  static void SetDefualtGlobalDestinationDirectory(char const* directory);

 protected:
  RWCString BuildDefDestPath(char const* path, bool keepIfDirectoryGiven);

 private:
  RWCString mDefualtDestinationDirectory;
  std::shared_ptr<RWHashDictionaryIterator> mIterator;
  static RWCString mGlobalDefualtDestinationDirectory;
};
