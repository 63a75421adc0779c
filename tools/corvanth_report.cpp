// corvanth report: the support report of this host, or its DB as a string
// form that can travel in a message and be written out elsewhere.
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <string_view>

#include "AssociativeArray.h"
#include "SupportInformationGenerator.h"
#include "corvanth_host.h"

namespace nCorvanthTool {

std::string gReportUsage() {
  return "  report [--out <file>] [--from <file>]\n"
         "               gather this host's support information (its working files pass through\n"
         "               the current directory) and write the report to the file or standard\n"
         "               output; --from writes the report of a DB read as a string form from a file\n"
         "  report --db  print this host's support information as a string form\n";
}

int gReport(int argc, char** argv) {
  char const* outPath = nullptr;
  char const* fromPath = nullptr;
  bool dbOnly = false;
  for (int i = 2; i < argc; ++i) {
    std::string_view const option = argv[i];
    if (option == "--db") {
      dbOnly = true;
    } else if ((option == "--out" || option == "--from") && i + 1 < argc) {
      (option == "--out" ? outPath : fromPath) = argv[++i];
    } else {
      std::fprintf(stderr, "corvanth report: unexpected '%s'\n\n%s", argv[i], gReportUsage().c_str());
      return 2;
    }
  }
  if (dbOnly && (outPath != nullptr || fromPath != nullptr)) {
    std::fprintf(stderr, "corvanth report: --db stands alone\n\n%s", gReportUsage().c_str());
    return 2;
  }

  CSupportInformationGenerator generator;
  CAssociativeArray db;
  if (fromPath != nullptr) {
    std::ifstream in(fromPath, std::ios::binary);
    if (!in) {
      std::fprintf(stderr, "corvanth report: cannot read '%s'\n", fromPath);
      return 1;
    }
    std::string const form((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    try {
      db.FromStringZ1(form);
    } catch (std::exception const& error) {
      std::fprintf(stderr, "corvanth report: '%s' holds no string form: %s\n", fromPath, error.what());
      return 1;
    }
  } else {
    generator.CreateInformationDB(db);
  }

  if (dbOnly) {
    char const* text = nullptr;
    int length = 0;
    db.ToString(text, length, false, false);
    return std::fwrite(text, 1, static_cast<std::size_t>(length), stdout) == static_cast<std::size_t>(length) ? 0 : 1;
  }

  std::ofstream out;
  if (outPath != nullptr) {
    out.open(outPath, std::ios::out | std::ios::trunc);
    if (!out.is_open()) {
      std::fprintf(stderr, "corvanth report: cannot write '%s'\n", outPath);
      return 1;
    }
  } else {
    // The report's writer takes a file stream; this one writes through standard output's buffer.
    out.std::ios::rdbuf(std::cout.rdbuf());
  }
  bool const written = generator.GenerateReportFile(out, db);
  out.flush();
  if (!written) {
    std::fprintf(stderr, "corvanth report: the DB lacks a key the report needs\n");
    return 1;
  }
  return out.good() ? 0 : 1;
}

}  // namespace nCorvanthTool
