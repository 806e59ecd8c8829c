// docs/format.md states the size of every record ("`_tagFSHDR` | 32 bytes"
// in a table, "`_tagFSHDR`: 32 bytes" in a heading); each statement must be
// the size the code gives the record, and no record may go unstated.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "index/index_format.h"
#include "molra/records.h"

namespace {

std::string Read(const char* path) {
  std::ifstream file(std::string(MOLRA_SOURCE_DIR "/") + path);
  EXPECT_TRUE(file) << path << " not found";
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

TEST(FormatDoc, StatesEveryRecordAtItsSize) {
  const std::map<std::string, size_t> records = {
      {"SYSTEMTIME", sizeof(SYSTEMTIME)},
      {"TIME_ZONE_INFORMATION", sizeof(TIME_ZONE_INFORMATION)},
      {"_tagFSHDR", sizeof(_tagFSHDR)},         {"_tagFSBSKINFO", sizeof(_tagFSBSKINFO)},
      {"_tagDATAHDR", sizeof(_tagDATAHDR)},     {"_tagCHUNKHDR", sizeof(_tagCHUNKHDR)},
      {"_tagFSBSKTBL", sizeof(_tagFSBSKTBL)},   {"_tagBSKLOC", sizeof(_tagBSKLOC)},
      {"_tagSTIROW", sizeof(_tagSTIROW)},       {"_tagIDXHDR", sizeof(_tagIDXHDR)},
      {"_tagIDXNODE", sizeof(_tagIDXNODE)},     {"_tagIDXREF", sizeof(_tagIDXREF)}};
  // A record the headers gain must join the table above, and so the document.
  const std::regex declared(R"(struct (_tag\w+) \{)");
  for (const char* header : {"include/molra/records.h", "src/index/index_format.h"}) {
    const std::string code = Read(header);
    for (std::sregex_iterator m(code.begin(), code.end(), declared), end; m != end; ++m) {
      EXPECT_TRUE(records.count((*m)[1])) << (*m)[1] << " of " << header << " is not in the table";
    }
  }

  const std::string doc = Read("docs/format.md");
  const std::regex stated(R"(`(\w+)`(?:: | \| )([\d,]+) bytes)");
  std::set<std::string> seen;
  for (std::sregex_iterator m(doc.begin(), doc.end(), stated), end; m != end; ++m) {
    const auto record = records.find((*m)[1]);
    if (record == records.end()) {
      ADD_FAILURE() << "size stated for " << (*m)[1] << ", which the code has no record of";
      continue;
    }
    const std::string digits = std::regex_replace((*m)[2].str(), std::regex(","), "");
    EXPECT_EQ(std::stoul(digits), record->second) << record->first;
    seen.insert(record->first);
  }
  for (const auto& [name, size] : records) {
    EXPECT_TRUE(seen.count(name)) << name << " (" << size << " bytes) is not documented";
  }
}

}  // namespace
