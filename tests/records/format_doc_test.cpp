// docs/format.md states the size of every record ("`_tagFSHDR` | 32 bytes"
// in a table, "`_tagFSHDR`: 32 bytes" in a heading); each statement must be
// the size the code gives the record, and no record may go unstated.
#include <gtest/gtest.h>

#include <cctype>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "index/index_format.h"
#include "molra/records.h"

namespace {

bool NameChar(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; }

// Every `struct NAME {` of a header.
std::vector<std::string> Declared(const std::string& code) {
  std::vector<std::string> names;
  for (size_t at = code.find("struct _tag"); at != std::string::npos;
       at = code.find("struct _tag", at + 1)) {
    size_t end = at + 7;
    while (end < code.size() && NameChar(code[end])) ++end;
    if (code.compare(end, 2, " {") == 0) names.push_back(code.substr(at + 7, end - at - 7));
  }
  return names;
}

// Every "`NAME`: 1,234 bytes" or "`NAME` | 1,234 bytes" of the document.
std::vector<std::pair<std::string, size_t>> Stated(const std::string& doc) {
  std::vector<std::pair<std::string, size_t>> sizes;
  for (size_t at = doc.find('`'); at != std::string::npos; at = doc.find('`', at + 1)) {
    size_t end = at + 1;
    while (end < doc.size() && NameChar(doc[end])) ++end;
    if (end == at + 1 || end >= doc.size() || doc[end] != '`') continue;
    size_t digits = end + 1;
    if (doc.compare(digits, 2, ": ") == 0 || doc.compare(digits, 3, " | ") == 0) {
      digits += doc[digits] == ':' ? 2 : 3;
    } else {
      continue;
    }
    size_t value = 0;
    size_t i = digits;
    for (; i < doc.size() && (std::isdigit(static_cast<unsigned char>(doc[i])) || doc[i] == ','); ++i) {
      if (doc[i] != ',') value = value * 10 + static_cast<size_t>(doc[i] - '0');
    }
    if (i > digits && doc.compare(i, 6, " bytes") == 0) {
      sizes.emplace_back(doc.substr(at + 1, end - at - 1), value);
    }
  }
  return sizes;
}

TEST(FormatDoc, StatesEveryRecordAtItsSize) {
  const std::map<std::string, size_t> records = {
      {"SYSTEMTIME", sizeof(SYSTEMTIME)},
      {"TIME_ZONE_INFORMATION", sizeof(TIME_ZONE_INFORMATION)},
      {"_tagFSHDR", sizeof(_tagFSHDR)},
      {"_tagFSBSKINFO", sizeof(_tagFSBSKINFO)},
      {"_tagDATAHDR", sizeof(_tagDATAHDR)},
      {"_tagCHUNKHDR", sizeof(_tagCHUNKHDR)},
      {"_tagFSBSKTBL", sizeof(_tagFSBSKTBL)},
      {"_tagBSKLOC", sizeof(_tagBSKLOC)},
      {"_tagSTIROW", sizeof(_tagSTIROW)},
      {"_tagIDXHDR", sizeof(_tagIDXHDR)},
      {"_tagIDXNODE", sizeof(_tagIDXNODE)},
      {"_tagIDXREF", sizeof(_tagIDXREF)},
  };
  const auto read = [](const char* path) {
    std::ifstream file(std::string(MOLRA_SOURCE_DIR "/") + path);
    EXPECT_TRUE(file) << path << " not found";
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
  };
  // A record the headers gain must join the table above, and so the document.
  for (const char* header : {"include/molra/records.h", "src/index/index_format.h"}) {
    for (const std::string& name : Declared(read(header))) {
      EXPECT_TRUE(records.count(name)) << name << " of " << header << " is not in the table";
    }
  }

  std::set<std::string> seen;
  for (const auto& [name, size] : Stated(read("docs/format.md"))) {
    const auto record = records.find(name);
    if (record == records.end()) {
      ADD_FAILURE() << "size stated for " << name << ", which the code has no record of";
      continue;
    }
    EXPECT_EQ(size, record->second) << name;
    seen.insert(name);
  }
  for (const auto& [name, size] : records) {
    EXPECT_TRUE(seen.count(name)) << name << " (" << size << " bytes) is not documented";
  }
}

}  // namespace
