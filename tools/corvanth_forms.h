// Parameters and printouts shared by the corvanth tool's message verbs:
// key=value arguments with the escapes \\, \0, \n, \r, \t and \xNN, {k=v,...}
// for a nested array, and printed keys and values escaped with their byte
// counts, so that two printouts are equal exactly when the bytes are.
#pragma once

#include <map>
#include <string>
#include <string_view>

class CAssociativeArray;
class cCorvanthMessage;

namespace nCorvanthTool {

// Bad usage; the text says what was wrong.
struct cUsageError {
  std::string mText;
};

// Printable ASCII as it is, a backslash doubled, every other byte as \xNN.
std::string gEscape(std::string_view bytes);
// The escapes above turned back into bytes; cUsageError for a bad escape.
std::string gUnescape(std::string_view text);
std::string gStringForm(CAssociativeArray const& array);
// Adds one key=value argument; a value {k=v,...} becomes a nested array's string form.
void gAddParameter(CAssociativeArray& array, std::string_view argument);
// Couples by key, so that a printout does not depend on the table's order.
std::map<std::string, std::string> gCouples(CAssociativeArray const& array);
void gPrintParameters(CAssociativeArray const& array);
void gPrintEnvelope(char const* what, cCorvanthMessage const& message);

}  // namespace nCorvanthTool
