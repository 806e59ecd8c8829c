// H.264 byte streams (start codes before each NAL unit): cut into access
// units, one picture each, as a recorder stores them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace molra_tools {
namespace annexb {

enum NalType : int {
  kSlice = 1,
  kPartitionA = 2,
  kIdrSlice = 5,
  kSei = 6,
  kSps = 7,
  kPps = 8,
  kAud = 9,
};

// One access unit: its bytes as the stream holds them, from the zeros of
// its first start code up to the next unit's.
struct AccessUnit {
  std::vector<std::uint8_t> bytes;
  bool key = false;          // holds an IDR picture
  std::uint64_t offset = 0;  // of its first byte in the stream
};

// Calls `visit(type, nal, size)` for each NAL unit of a stretch of a byte
// stream, `nal` at its header byte, without the zeros around it.
void ForEachNal(const std::uint8_t* data, std::size_t size,
                const std::function<void(int, const std::uint8_t*, std::size_t)>& visit);

// Cuts a stream that arrives in pieces. A unit is complete once the next
// one begins, or the stream ends. A unit starts with the first of an AUD,
// SEI, SPS, PPS (or the other types that may only lead a picture) behind
// a slice, or with a slice whose first_mb_in_slice is 0. Parameter sets are
// kept per id: an IDR unit that carries none gets the last ones seen, so
// that each key frame can start a clip on its own.
class Splitter {
 public:
  // A unit longer than `maxUnit` bytes stops the split.
  explicit Splitter(std::size_t maxUnit);

  // Takes the next bytes; false once a fault has stopped the split.
  bool Push(const std::uint8_t* data, std::size_t size);
  // The end of the stream: the last unit becomes complete. False on a
  // fault, such as a stream that ends inside a start code or without the
  // picture its leading units announce.
  bool Finish();
  // The next complete unit, in stream order.
  bool Pop(AccessUnit* unit);

  // What stopped the split ("" none), the offset in the stream where the
  // fault lies, and whether it lies before the first NAL unit was read
  // whole (the stream is no H.264 byte stream at all).
  const std::string& Fault() const { return m_fault; }
  std::uint64_t FaultOffset() const { return m_faultOffset; }
  bool FaultAtHead() const { return m_faultAtHead; }

 private:
  // `format`: a fault of the byte stream's form, rather than of its size
  // or of where it ends.
  bool Stop(std::uint64_t offset, const std::string& what, bool format);
  // A fault inside the NAL unit being read; the unit before it is whole
  // when that NAL unit would have opened the next.
  bool BreakOff(std::uint64_t offset, const std::string& what, bool format);
  // What is wrong with a NAL unit header, or "".
  static std::string HeaderFault(std::uint8_t header);
  // Whether a NAL unit (header and at least some payload) opens a unit;
  // `readable`: a slice's first_mb_in_slice could be read.
  bool Opens(const std::uint8_t* nal, std::size_t size, bool* readable) const;
  // Scans the buffer from m_scan; false on a fault.
  bool Scan();
  // A NAL unit read whole: buffer [segment, nalEnd), header at nalBegin.
  bool TakeNal(std::size_t segment, std::size_t nalBegin, std::size_t nalEnd);
  void CloseUnit();

  std::size_t m_maxUnit;
  std::vector<std::uint8_t> m_buffer;  // from the start of the NAL unit being read
  std::uint64_t m_bufferOffset = 0;    // stream offset of m_buffer[0]
  std::size_t m_scan = 0;
  std::size_t m_nalBegin = 0;  // header byte of the NAL unit being read
  std::size_t m_zeroRun = 0;   // where the current run of zeros began
  std::size_t m_zeros = 0;
  bool m_inNal = false;
  bool m_readOne = false;  // a NAL unit has been read whole

  AccessUnit m_unit;
  bool m_unitHasPicture = false;
  bool m_unitHasParameterSets = false;
  std::size_t m_afterAud = 0;  // where parameter sets go in the unit
  std::vector<AccessUnit> m_ready;
  std::size_t m_readyFront = 0;
  std::map<unsigned, std::vector<std::uint8_t>> m_sps, m_pps;

  std::string m_fault;
  std::uint64_t m_faultOffset = 0;
  bool m_faultAtHead = false;
};

}  // namespace annexb
}  // namespace molra_tools
