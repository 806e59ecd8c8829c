// docs/format.md states the size of every record ("`_tagFSHDR` | 32 bytes"
// in a table, "`_tagFSHDR`: 32 bytes" in a heading); each statement must be
// the size the code gives the record, and no record may go unstated.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <string>

#include "index/index_format.h"
#include "molra/records.h"

namespace {

std::string Read(const std::string& path) {
  std::ifstream file(MOLRA_SOURCE_DIR "/" + path);
  EXPECT_TRUE(file) << path << " not found";
  return std::string(std::istreambuf_iterator<char>(file), {});
}

#define SIZE_OF(record) {#record, sizeof(record)}

TEST(FormatDoc, StatesEveryRecordAtItsSize) {
  const std::map<std::string, size_t> records = {
      SIZE_OF(SYSTEMTIME),    SIZE_OF(TIME_ZONE_INFORMATION), SIZE_OF(_tagFSHDR),
      SIZE_OF(_tagFSBSKINFO), SIZE_OF(_tagDATAHDR), SIZE_OF(_tagCHUNKHDR), SIZE_OF(_tagFSBSKTBL),
      SIZE_OF(_tagBSKLOC),    SIZE_OF(_tagSTIROW),  SIZE_OF(_tagIDXHDR),   SIZE_OF(_tagIDXNODE),
      SIZE_OF(_tagIDXREF)};
  // A record the headers gain must join the table above, and so the document.
  const std::regex declared(R"(struct (_tag\w+) \{)"), stated(R"(`(\w+)`(?:: | \| )([\d,]+) bytes)");
  for (const char* header : {"include/molra/records.h", "src/index/index_format.h"}) {
    const std::string code = Read(header);
    for (std::sregex_iterator m(code.begin(), code.end(), declared), end; m != end; ++m)
      EXPECT_TRUE(records.count((*m)[1])) << (*m)[1] << " of " << header << " is not in the table";
  }
  // A size stated for a name the code has no record of is stated against 0.
  const std::string doc = Read("docs/format.md");
  std::set<std::string> seen;
  for (std::sregex_iterator m(doc.begin(), doc.end(), stated), end; m != end; ++m) {
    const std::string name = (*m)[1], digits = std::regex_replace((*m)[2].str(), std::regex(","), "");
    EXPECT_EQ(std::stoul(digits), records.count(name) ? records.at(name) : 0) << name;
    seen.insert(name);
  }
  for (const auto& [name, size] : records)
    EXPECT_TRUE(seen.count(name)) << name << " (" << size << " bytes) is not documented";
}

}  // namespace
