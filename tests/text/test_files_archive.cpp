// File associations: destination placement, defaults, copies and the shared iterator.
#include <gtest/gtest.h>

#include <string>

#include "LogCapture.h"
#include "filesassociationarchive.h"

namespace {

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
      {"D:\\out", "", nullptr, "D:\\out\\b.txt", 1}, {"D:\\out", "", "", "D:\\out\\b.txt", 1},
      {"D:\\out", "", "c.dat", "D:\\out\\c.dat", 1}, {"D:\\out", "", "E:\\x\\c.dat", "E:\\x\\c.dat", 0},
      {"D:\\out", "", "name", "D:\\out\\name.", 1}, {"", "", "c.dat", "", 0}, {"", "", nullptr, "", 0},
      {"", "", "E:\\x\\c.dat", "E:\\x\\c.dat", 0}, {"", "G:\\g", nullptr, "G:\\g\\b.txt", 1},
      {"D:\\out", "G:\\g", nullptr, "D:\\out\\b.txt", 1}, {"D:\\out", "", "/posix/kept.txt", "/posix/kept.txt", 0},
      {"D:\\out\\", "", nullptr, "D:\\out\\\\b.txt", 1},  // the base is not looked at
  };
  for (tCase const& c : cases) {
    FilesAssociationArchive::SetDefualtGlobalDestinationDirectory(c.globalDefault);
    FilesAssociationArchive archive;
    archive.SetDefualtDestinationDirectory(c.archiveDefault);
    capture.fClear();
    archive.AddFileAssociation(source, c.destination);
    EXPECT_STREQ(archive.GetFileAssociate(source), c.stored) << c.archiveDefault << " | " << c.globalDefault;
    auto const records = capture.fRecords();
    EXPECT_EQ(records.size(), c.markers) << c.stored;
    for (nLog::cRecord const& r : records) EXPECT_EQ(r.source + ' ' + r.text, "filesassociationarchive mirn--bug");
  }

  // A later global default changes later calls only; a couple is replaced.
  FilesAssociationArchive::SetDefualtGlobalDestinationDirectory("G:\\g");
  FilesAssociationArchive archive;
  archive.AddFileAssociation("x.y.z", nullptr);
  FilesAssociationArchive::SetDefualtGlobalDestinationDirectory("H:");
  archive.AddFileAssociation("/src/data", nullptr);
  EXPECT_STREQ(archive.GetFileAssociate("x.y.z"), "G:\\g\\x.y.z");
  EXPECT_STREQ(archive.GetFileAssociate("/src/data"), "H:\\data.");
  archive.AddFileAssociation("x.y.z", "E:\\new");
  EXPECT_STREQ(archive.GetFileAssociate("x.y.z"), "E:\\new");
  capture.fClear();
  archive.AddFileAssociation(nullptr, "d");  // reported, nothing added
  EXPECT_EQ(archive.entries(), 2u);
  EXPECT_EQ(capture.fRecords().size(), 1u);
  FilesAssociationArchive::SetDefualtGlobalDestinationDirectory("");
}

TEST(FilesAssociationArchive, CopiesShareCouplesDefaultAndIterator) {
  FilesAssociationArchive original;
  original.SetDefualtDestinationDirectory("D:\\out");
  original.AddFileAssociation("a", "A:\\a");
  original.AddFileAssociation("b", "B:\\b");
  FilesAssociationArchive early(original);  // before any iterator: makes its own later
  auto walk = [](RWHashDictionaryIterator& iterator) {
    std::size_t walked = 0;
    while (iterator() != nullptr && walked < 10) ++walked;
    return walked;
  };
  RWHashDictionaryIterator& iterator = original.GetIterator();
  EXPECT_EQ(walk(iterator), 2u);
  EXPECT_EQ(walk(original.GetIterator()), 2u);  // reset for a new walk

  FilesAssociationArchive copy(original);
  EXPECT_STREQ(copy.GetFileAssociate("b"), "B:\\b");
  EXPECT_STREQ(copy.GetDefualtDestinationDirectory(), "D:\\out");
  copy.AddFileAssociation("c", "C:\\c");
  EXPECT_EQ(&copy.GetIterator(), &iterator);
  EXPECT_EQ(walk(copy.GetIterator()), 2u);  // it walks the original's couples
  EXPECT_NE(&early.GetIterator(), &iterator);
  early = copy;
  EXPECT_EQ(&early.GetIterator(), &iterator);
}

}  // namespace
