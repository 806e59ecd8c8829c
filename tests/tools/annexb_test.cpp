// The cutting of H.264 byte streams into access units, fed whole and byte
// by byte.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "annexb.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

// NAL units, header byte first; the byte behind a slice's header starts
// with first_mb_in_slice (1 bit "1": 0; "010": 1).
const Bytes kSps = {0x67, 0x42, 0x00, 0x1E, 0x95, 0xA0}, kPps = {0x68, 0xCE, 0x38, 0x80},
            kAud = {0x09, 0xF0}, kSei = {0x06, 0x05, 0x01, 0x80}, kIdr = {0x65, 0x88, 0x84, 0x21},
            kIdrSecondSlice = {0x65, 0x48, 0x84, 0x21}, kP = {0x41, 0x9A, 0x21},
            kPSecondSlice = {0x41, 0x48, 0x21}, kPEscaped = {0x41, 0x9A, 0, 0, 3, 1, 0x21};

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// Three-byte start codes, but for the first unit's (or all, with longCodes).
Bytes Stream(const std::vector<Bytes>& nals, bool longCodes = false) {
  Bytes out;
  for (const Bytes& nal : nals) {
    out = out + (longCodes || &nal == &nals.front() ? Bytes{0, 0, 0, 1} : Bytes{0, 0, 1}) + nal;
  }
  return out;
}

struct Split {
  std::string units;  // NAL types, "|" between units, "*" behind a key unit
  Bytes joined;       // the units' bytes end to end
  int fault;          // 0 none, 1 one, 2 one before the first NAL unit was whole
};

Split SplitStream(const Bytes& stream, size_t piece) {
  molra_tools::annexb::Splitter splitter(1000);
  Split out{};
  molra_tools::annexb::AccessUnit unit;
  const auto take = [&] {
    for (std::string sep = out.units.empty() ? "" : "|"; splitter.Pop(&unit); sep = "|") {
      out.units += sep;
      molra_tools::annexb::ForEachNal(
          unit.bytes.data(), unit.bytes.size(), [&, space = ""](int type, auto, size_t) mutable {
            out.units += space + std::to_string(type);
            space = " ";
          });
      out.units += unit.key ? "*" : "";
      out.joined = out.joined + unit.bytes;
    }
  };
  bool going = true;
  for (size_t at = 0; going && at < stream.size(); at += piece, take()) {
    going = splitter.Push(stream.data() + at, std::min(piece, stream.size() - at));
  }
  if (going) splitter.Finish();
  take();
  out.fault = splitter.Fault().empty() ? 0 : splitter.FaultAtHead() ? 2 : 1;
  return out;
}

TEST(AnnexB, SplitsIntoAccessUnitsAndRefusesWhatIsNoByteStream) {
  const struct { const char* name; Bytes stream; const char* units; int fault; } cases[] = {
      {"three- and four-byte start codes", Stream({kSps, kPps, kIdr}, true) + Stream({kP, kP}),
       "7 8 5*|1|1", 0},
      {"AUD, SEI and parameter sets lead the next picture",
       Stream({kIdr, kAud, kSei, kP, kSps, kPps, kSei, kIdr}), "5*|9 6 1|7 8 6 5*", 0},
      {"first_mb_in_slice 0 opens a picture",
       Stream({kIdr, kIdrSecondSlice, kP, kPSecondSlice, kP}), "5 5*|1 1|1", 0},
      {"emulation prevention bytes stay", Stream({kIdr, kPEscaped, kPEscaped}), "5*|1|1", 0},
      {"zeros behind the last unit", Stream({kIdr, kP}) + Bytes{0, 0, 0}, "5*|1", 0},
      {"text", {'h', 'e', 'l', 'l', 'o', '\n'}, "", 2},
      {"nothing", {}, "", 2},
      {"zeros only", {0, 0, 0, 0}, "", 2},
      {"forbidden bit", Stream({{0xE5, 0x88}}), "", 2},
      {"unspecified type", Stream({{0x1E, 0x88}}), "", 2},
      {"SEI marked as a reference", Stream({{0x26, 0x05}}), "", 2},
      {"00 00 02 inside a slice", Stream({kIdr, {0x41, 0x9A, 0, 0, 2}}), "5*", 1},
      {"cut behind a start code", Stream({kIdr, kP}) + Bytes{0, 0, 1}, "5*", 1},
      {"cut before the picture", Stream({kIdr, kP, kSps, kPps}), "5*|1", 1},
      {"a picture too long", Stream({kIdr, Bytes{0x41, 0x9A} + Bytes(2000, 0x21)}), "5*", 1},
      {"a slice too long for its picture", Stream({kIdr, Bytes{0x65, 0x48} + Bytes(2000, 0x21)}),
       "", 1},
  };
  for (const auto& c : cases) {
    for (const size_t piece : {size_t{1}, size_t{1} << 20}) {
      SCOPED_TRACE(std::string(c.name) + ", pieces of " + std::to_string(piece));
      const Split split = SplitStream(c.stream, piece);
      EXPECT_EQ(split.units, c.units);
      EXPECT_EQ(split.fault, c.fault);
      if (c.fault == 0) { EXPECT_EQ(split.joined, c.stream); }
    }
  }
}

TEST(AnnexB, KeyFramesWithoutParameterSetsGetTheLastOnes) {
  const Bytes sps1 = {0x67, 0x42, 0x00, 0x1E, 0x4D, 0xA0};  // id 1 beside id 0
  const Split split = SplitStream(Stream({kSps, sps1, kPps, kIdr, kP, kIdr, kP, kAud, kIdr}), 64);
  EXPECT_EQ(split.units, "7 7 8 5*|1|7 7 8 5*|1|9 7 7 8 5*");
  EXPECT_EQ(split.fault, 0);
}

}  // namespace
