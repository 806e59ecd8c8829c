// The cutting of H.264 byte streams into access units, fed whole and byte
// by byte.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "annexb.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using molra_tools::annexb::AccessUnit;
using molra_tools::annexb::Splitter;

// NAL units, header byte first; the byte behind a slice's header starts
// with first_mb_in_slice (1 bit "1": 0; "010": 1).
const Bytes kSps = {0x67, 0x42, 0x00, 0x1E, 0x95, 0xA0};
const Bytes kPps = {0x68, 0xCE, 0x38, 0x80};
const Bytes kAud = {0x09, 0xF0};
const Bytes kSei = {0x06, 0x05, 0x01, 0x80};
const Bytes kIdr = {0x65, 0x88, 0x84, 0x21};
const Bytes kIdrSecondSlice = {0x65, 0x48, 0x84, 0x21};
const Bytes kP = {0x41, 0x9A, 0x21};
const Bytes kPSecondSlice = {0x41, 0x48, 0x21};
const Bytes kPEscaped = {0x41, 0x9A, 0x00, 0x00, 0x03, 0x01, 0x21};

Bytes Stream(const std::vector<Bytes>& nals, bool longCodes = false) {
  Bytes out;
  for (const Bytes& nal : nals) {
    if (longCodes || &nal == &nals.front()) out.push_back(0);
    out.insert(out.end(), {0, 0, 1});
    out.insert(out.end(), nal.begin(), nal.end());
  }
  return out;
}

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

struct Split {
  std::string units;  // NAL types, "|" between units, "*" behind a key unit
  Bytes joined;       // the units' bytes end to end
  std::string fault;
  bool atHead = false;
};

Split SplitStream(const Bytes& stream, size_t piece, size_t maxUnit = 1000) {
  Splitter splitter(maxUnit);
  Split out;
  AccessUnit unit;
  const auto take = [&] {
    while (splitter.Pop(&unit)) {
      if (!out.units.empty()) out.units += "|";
      std::string types;
      molra_tools::annexb::ForEachNal(unit.bytes.data(), unit.bytes.size(),
                                      [&](int type, const std::uint8_t*, size_t) {
                                        types += (types.empty() ? "" : " ") + std::to_string(type);
                                      });
      out.units += types + (unit.key ? "*" : "");
      out.joined.insert(out.joined.end(), unit.bytes.begin(), unit.bytes.end());
    }
  };
  bool going = true;
  for (size_t at = 0; going && at < stream.size(); at += piece) {
    going = splitter.Push(stream.data() + at, std::min(piece, stream.size() - at));
    take();
  }
  if (going) splitter.Finish();
  take();
  out.fault = splitter.Fault();
  out.atHead = splitter.FaultAtHead();
  return out;
}

struct Case {
  const char* name;
  Bytes stream;
  const char* units;
  bool faults;
  bool atHead;
};

TEST(AnnexB, SplitsIntoAccessUnitsAndRefusesWhatIsNoByteStream) {
  const Bytes text = {'h', 'e', 'l', 'l', 'o', '\n'};
  const Case cases[] = {
      {"three- and four-byte start codes", Stream({kSps, kPps, kIdr}, true) + Stream({kP, kP}),
       "7 8 5*|1|1", false, false},
      {"AUD, SEI and parameter sets lead the next picture",
       Stream({kIdr, kAud, kSei, kP, kSps, kPps, kSei, kIdr}), "5*|9 6 1|7 8 6 5*", false, false},
      {"first_mb_in_slice 0 opens a picture",
       Stream({kIdr, kIdrSecondSlice, kP, kPSecondSlice, kP}), "5 5*|1 1|1", false, false},
      {"emulation prevention bytes stay", Stream({kIdr, kPEscaped, kPEscaped}), "5*|1|1", false,
       false},
      {"zeros behind the last unit", Stream({kIdr, kP}) + Bytes{0, 0, 0}, "5*|1", false, false},
      {"text", text, "", true, true},
      {"nothing", {}, "", true, true},
      {"zeros only", {0, 0, 0, 0}, "", true, true},
      {"forbidden bit", Stream({{0xE5, 0x88}}), "", true, true},
      {"unspecified type", Stream({{0x1E, 0x88}}), "", true, true},
      {"SEI marked as a reference", Stream({{0x26, 0x05}}), "", true, true},
      {"00 00 02 inside a slice", Stream({kIdr, {0x41, 0x9A, 0, 0, 2}}), "5*", true, false},
      {"cut behind a start code", Stream({kIdr, kP}) + Bytes{0, 0, 1}, "5*", true, false},
      {"cut before the picture", Stream({kIdr, kP, kSps, kPps}), "5*|1", true, false},
      {"a picture too long", Stream({kIdr, Bytes{0x41, 0x9A} + Bytes(2000, 0x21)}), "5*", true,
       false},
      {"a slice too long for its picture", Stream({kIdr, Bytes{0x65, 0x48} + Bytes(2000, 0x21)}),
       "", true, false},
  };
  for (const Case& c : cases) {
    for (const size_t piece : {size_t{1}, size_t{1} << 20}) {
      SCOPED_TRACE(std::string(c.name) + ", pieces of " + std::to_string(piece));
      const Split split = SplitStream(c.stream, piece);
      EXPECT_EQ(split.units, c.units);
      EXPECT_EQ(!split.fault.empty(), c.faults) << split.fault;
      EXPECT_EQ(split.atHead, c.atHead);
      if (!c.faults) {
        EXPECT_EQ(split.joined, c.stream);
      }
    }
  }
}

TEST(AnnexB, KeyFramesWithoutParameterSetsGetTheLastOnes) {
  const Bytes sps1 = {0x67, 0x42, 0x00, 0x1E, 0x4D, 0xA0};  // id 1 beside id 0
  const Split split =
      SplitStream(Stream({kSps, sps1, kPps, kIdr, kP, kIdr, kP, kAud, kIdr}), size_t{1} << 20);
  EXPECT_EQ(split.units, "7 7 8 5*|1|7 7 8 5*|1|9 7 7 8 5*");
  EXPECT_EQ(split.fault, "");
}

}  // namespace
