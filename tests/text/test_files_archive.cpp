// File associations: destination placement, defaults, copies and the shared iterator.
#include <gtest/gtest.h>

#include <string>

#include "AssociativeArrayExceptions.h"
#include "LogCapture.h"
#include "filesassociationarchive.h"

namespace {

// Clears the process-wide default whatever a test leaves behind.
struct cGlobalDefault {
  explicit cGlobalDefault(char const* directory) {
    FilesAssociationArchive::SetDefualtGlobalDestinationDirectory(directory);
  }
  ~cGlobalDefault() { FilesAssociationArchive::SetDefualtGlobalDestinationDirectory(""); }
};

std::size_t gMarkers(corvanth::test::cLogCapture const& capture) {
  std::size_t count = 0;
  for (nLog::cRecord const& record : capture.fRecords())
    count += record.text == "mirn--bug" && record.tag == "Error" && record.source == "filesassociationarchive";
  return count;
}

TEST(FilesAssociationArchive, DestinationTableDefaultsAndMarker) {
  corvanth::test::cLogCapture capture("Error");
  char const* const source = "C:\\a\\b.txt";
  struct tCase {
    char const* archiveDefault;
    char const* globalDefault;
    char const* destination;
    char const* stored;
    std::size_t markers;
  };
  tCase const cases[] = {
      {"D:\\out", "", nullptr, "D:\\out\\b.txt", 1},
      {"D:\\out", "", "", "D:\\out\\b.txt", 1},
      {"D:\\out", "", "c.dat", "D:\\out\\c.dat", 1},
      {"D:\\out", "", "E:\\x\\c.dat", "E:\\x\\c.dat", 0},
      {"D:\\out", "", "name", "D:\\out\\name.", 1},
      {"", "", "c.dat", "", 0},
      {"", "", "E:\\x\\c.dat", "E:\\x\\c.dat", 0},
      {"", "", nullptr, "", 0},
      {"", "G:\\g", nullptr, "G:\\g\\b.txt", 1},
      {"D:\\out", "G:\\g", nullptr, "D:\\out\\b.txt", 1},
      {"D:\\out\\", "", "/posix/kept.txt", "/posix/kept.txt", 0},
      {"D:\\out\\", "", nullptr, "D:\\out\\\\b.txt", 1},  // the base is not looked at
  };
  for (tCase const& c : cases) {
    cGlobalDefault const global(c.globalDefault);
    FilesAssociationArchive archive;
    archive.SetDefualtDestinationDirectory(c.archiveDefault);
    capture.fClear();
    archive.AddFileAssociation(source, c.destination);
    EXPECT_STREQ(archive.GetFileAssociate(source), c.stored) << c.archiveDefault << " | " << c.globalDefault;
    EXPECT_EQ(gMarkers(capture), c.markers) << c.stored;
  }

  // A later global default changes later calls only; a couple is replaced.
  cGlobalDefault const global("G:\\g");
  FilesAssociationArchive archive;
  archive.AddFileAssociation("x.y.z", nullptr);
  FilesAssociationArchive::SetDefualtGlobalDestinationDirectory("H:");
  archive.AddFileAssociation("/src/data", nullptr);
  EXPECT_STREQ(archive.GetFileAssociate("x.y.z"), "G:\\g\\x.y.z");
  EXPECT_STREQ(archive.GetFileAssociate("/src/data"), "H:\\data.");
  archive.AddFileAssociation("x.y.z", "E:\\new");
  EXPECT_STREQ(archive.GetFileAssociate("x.y.z"), "E:\\new");
  EXPECT_EQ(archive.entries(), 2u);
  EXPECT_THROW(archive.GetFileAssociate("absent"), CAssoKeyDoesNotExistException);

  archive.SetDefualtDestinationDirectory("D:\\out");
  EXPECT_STREQ(archive.GetDefualtDestinationDirectory(), "D:\\out");
  archive.SetDefualtDestinationDirectory("");
  EXPECT_STREQ(archive.GetDefualtDestinationDirectory(), "");

  capture.fClear();
  archive.AddFileAssociation(nullptr, "d");  // reported, nothing added
  EXPECT_EQ(archive.entries(), 2u);
  EXPECT_EQ(capture.fRecords().size(), 1u);
}

TEST(FilesAssociationArchive, CopiesShareCouplesDefaultAndIterator) {
  FilesAssociationArchive original;
  original.SetDefualtDestinationDirectory("D:\\out");
  original.AddFileAssociation("a", "A:\\a");
  original.AddFileAssociation("b", "B:\\b");

  FilesAssociationArchive early(original);  // before any iterator: gets its own later
  RWHashDictionaryIterator& iterator = original.GetIterator();
  std::size_t walked = 0;
  while (iterator() != nullptr && walked < 10) ++walked;
  EXPECT_EQ(walked, 2u);
  EXPECT_EQ(&original.GetIterator(), &iterator);  // the same object, reset for a new walk
  EXPECT_NE(iterator(), nullptr);

  FilesAssociationArchive copy(original);
  EXPECT_STREQ(copy.GetFileAssociate("b"), "B:\\b");
  EXPECT_STREQ(copy.GetDefualtDestinationDirectory(), "D:\\out");
  copy.AddFileAssociation("c", "C:\\c");  // the copy walks the original's couples
  RWHashDictionaryIterator& shared = copy.GetIterator();
  EXPECT_EQ(&shared, &iterator);
  walked = 0;
  while (shared() != nullptr && walked < 10) ++walked;
  EXPECT_EQ(walked, 2u);

  EXPECT_NE(&early.GetIterator(), &iterator);
  FilesAssociationArchive assigned;
  assigned = original;
  EXPECT_EQ(&assigned.GetIterator(), &iterator);
  EXPECT_STREQ(assigned.GetFileAssociate("a"), "A:\\a");
}

}  // namespace
