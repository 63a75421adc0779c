// File associations (the placement rules are told in filesassociationarchive.h).
#include "filesassociationarchive.h"

#include "KREnvironment.h"
#include "Log.dec.h"

namespace {
char const* const kSource = "filesassociationarchive";
}  // namespace

RWCString FilesAssociationArchive::mGlobalDefualtDestinationDirectory;

FilesAssociationArchive::FilesAssociationArchive() : CAssociativeArray(11) {}

FilesAssociationArchive::FilesAssociationArchive(FilesAssociationArchive const& other)
    : CAssociativeArray(other),
      mDefualtDestinationDirectory(other.mDefualtDestinationDirectory),
      mIterator(other.mIterator) {}

FilesAssociationArchive& FilesAssociationArchive::operator=(FilesAssociationArchive const& other) {
  CAssociativeArray::operator=(other);
  mDefualtDestinationDirectory = other.mDefualtDestinationDirectory;
  mIterator = other.mIterator;
  return *this;
}

// The iterator is left to whichever holder goes last rather than never freed.
FilesAssociationArchive::~FilesAssociationArchive() = default;

void FilesAssociationArchive::AddFileAssociation(char const* source, char const* destination) {
  // A couple needs a key: a null source is reported and adds nothing.
  if (source == nullptr) {
    CORVANTH_ASSERT(source != nullptr, kSource);
    return;
  }
  RWCString const value = destination != nullptr && *destination != '\0' ? BuildDefDestPath(destination, true)
                                                                          : BuildDefDestPath(source, false);
  AddCouple(source, value.c_str(), static_cast<int>(value.size()));
}

char const* FilesAssociationArchive::GetFileAssociate(char const* source) { return GetValueOfParameter(source); }

RWHashDictionaryIterator& FilesAssociationArchive::GetIterator() {
  if (mIterator == nullptr) mIterator = std::make_shared<RWHashDictionaryIterator>(*this);
  else mIterator->reset();
  return *mIterator;
}

void FilesAssociationArchive::SetDefualtDestinationDirectory(char const* directory) {
  mDefualtDestinationDirectory = directory != nullptr ? directory : "";
}

char const* FilesAssociationArchive::GetDefualtDestinationDirectory() { return mDefualtDestinationDirectory.c_str(); }

void FilesAssociationArchive::SetDefualtGlobalDestinationDirectory(char const* directory) {
  mGlobalDefualtDestinationDirectory = directory != nullptr ? directory : "";
}

RWCString FilesAssociationArchive::BuildDefDestPath(char const* path, bool keepIfDirectoryGiven) {
  MXEnvContainerClass container;
  char* directory = nullptr;
  char* name = nullptr;
  char* extension = nullptr;
  container.MXPSplitPath(path, &directory, &name, &extension);
  if (keepIfDirectoryGiven && *directory != '\0') return RWCString(path);
  RWCString const& base = !mDefualtDestinationDirectory.empty() ? mDefualtDestinationDirectory
                                                                : mGlobalDefualtDestinationDirectory;
  if (base.empty()) return RWCString();
  // Written on every placement, though nothing is wrong: it marks this path.
  CORVANTH_LOG(nLog::nBasic::sErrorTag_, kSource, "mirn--bug");
  RWCString joined(base);
  joined.append("\\").append(name).append(".").append(extension);
  return joined;
}
