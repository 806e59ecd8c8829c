#include "annexb.h"

#include <cstdio>

namespace molra_tools {
namespace annexb {

namespace {

// Exp-Golomb reading from the start of a NAL unit's payload, past its
// emulation prevention bytes.
class Bits {
 public:
  Bits(const std::uint8_t* data, std::size_t size) : m_data(data), m_size(size) {}

  bool Skip(int count) {
    unsigned ignored;
    for (int i = 0; i < count; ++i) {
      if (!Bit(&ignored)) return false;
    }
    return true;
  }
  bool Ue(unsigned* value) {
    int leading = 0;
    unsigned bit = 0;
    while (Bit(&bit) && bit == 0) {
      if (++leading > 31) return false;
    }
    if (bit != 1) return false;
    unsigned rest = 0;
    for (int i = 0; i < leading; ++i) {
      if (!Bit(&bit)) return false;
      rest = rest << 1 | bit;
    }
    *value = static_cast<unsigned>((std::uint64_t{1} << leading) - 1 + rest);
    return true;
  }

 private:
  bool Bit(unsigned* bit) {
    if (m_bit == 0) {
      if (m_zeros >= 2 && m_byte < m_size && m_data[m_byte] == 3) {
        ++m_byte;
        m_zeros = 0;
      }
      if (m_byte >= m_size) return false;
      m_zeros = m_data[m_byte] == 0 ? m_zeros + 1 : 0;
    }
    *bit = m_data[m_byte] >> (7 - m_bit) & 1;
    if (++m_bit == 8) {
      m_bit = 0;
      ++m_byte;
    }
    return true;
  }

  const std::uint8_t* m_data;
  std::size_t m_size;
  std::size_t m_byte = 0;
  int m_bit = 0;
  int m_zeros = 0;
};

bool IsPicture(int type) { return type == kSlice || type == kPartitionA || type == kIdrSlice; }

// Types that open a new unit when they follow a picture (and may not
// follow one within its unit).
bool LeadsUnit(int type) {
  return type == kSei || type == kSps || type == kPps || type == kAud || (type >= 14 && type <= 18);
}

std::string Hex(unsigned byte) {
  char text[8];
  std::snprintf(text, sizeof text, "0x%02X", byte & 0xFF);
  return text;
}

constexpr std::uint8_t kStartCode[] = {0, 0, 0, 1};

}  // namespace

void ForEachNal(const std::uint8_t* data, std::size_t size,
                const std::function<void(int, const std::uint8_t*, std::size_t)>& visit) {
  // The first byte of each "00 00 01" from `from` on; size when none.
  const auto startCode = [&](std::size_t from) {
    for (std::size_t i = from; i + 2 < size; ++i) {
      if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) return i;
    }
    return size;
  };
  std::size_t code = startCode(0);
  while (code < size) {
    const std::size_t begin = code + 3;
    code = startCode(begin);
    std::size_t end = code;
    while (end > begin && data[end - 1] == 0) --end;
    if (end > begin) visit(data[begin] & 0x1F, data + begin, end - begin);
  }
}

Splitter::Splitter(std::size_t maxUnit) : m_maxUnit(maxUnit) {}

bool Splitter::Stop(std::uint64_t offset, const std::string& what, bool format) {
  m_fault = what;
  m_faultOffset = offset;
  m_faultAtHead = format && !m_readOne;
  return false;
}

std::string Splitter::HeaderFault(std::uint8_t header) {
  const int type = header & 0x1F;
  const int ref = header >> 5 & 3;
  if ((header & 0x80) != 0) return "a NAL unit header with its forbidden bit set";
  if (type == 0 || type >= 24) {
    return "NAL unit type " + std::to_string(type) + ", which H.264 leaves unspecified";
  }
  const bool mustRef = type == kIdrSlice || type == kSps || type == kPps;
  const bool mustNotRef = type == kSei || (type >= kAud && type <= 12);
  if ((mustRef && ref == 0) || (mustNotRef && ref != 0)) {
    return "NAL unit type " + std::to_string(type) + " with nal_ref_idc " + std::to_string(ref) +
           ", which H.264 forbids";
  }
  return "";
}

bool Splitter::Opens(const std::uint8_t* nal, std::size_t size, bool* readable) const {
  const int type = nal[0] & 0x1F;
  *readable = true;
  if (!IsPicture(type)) return m_unitHasPicture && LeadsUnit(type);
  unsigned firstMb = 0;
  *readable = Bits(nal + 1, size - 1).Ue(&firstMb);
  return *readable && m_unitHasPicture && firstMb == 0;
}

bool Splitter::BreakOff(std::uint64_t offset, const std::string& what, bool format) {
  // The unit before the broken NAL unit is whole if that one opened the next.
  bool readable = false;
  if (m_nalBegin < m_buffer.size() && HeaderFault(m_buffer[m_nalBegin]).empty() &&
      Opens(m_buffer.data() + m_nalBegin, m_buffer.size() - m_nalBegin, &readable)) {
    CloseUnit();
  }
  return Stop(offset, what, format);
}

bool Splitter::Push(const std::uint8_t* data, std::size_t size) {
  if (!m_fault.empty()) return false;
  m_buffer.insert(m_buffer.end(), data, data + size);
  return Scan();
}

bool Splitter::Scan() {
  // The bytes before `segment` belong to NAL units read whole.
  std::size_t segment = 0;
  for (std::size_t i = m_scan; i < m_buffer.size(); ++i) {
    const std::uint8_t b = m_buffer[i];
    if (!m_inNal) {
      // Only zeros may come before the first start code.
      if (b == 0) {
        if (++m_zeros > m_maxUnit)
          return Stop(m_bufferOffset + i, "no start code, only zeros", true);
        continue;
      }
      if (b != 1 || m_zeros < 2) {
        return Stop(m_bufferOffset + i, "no start code (00 00 01) at its head, but byte " + Hex(b),
                    true);
      }
      m_inNal = true;
      m_nalBegin = i + 1;
      m_zeros = 0;
      continue;
    }
    if (i - segment > m_maxUnit) {
      return BreakOff(m_bufferOffset + segment,
                      "a NAL unit longer than " + std::to_string(m_maxUnit) + " bytes", false);
    }
    if (b == 0) {
      if (m_zeros++ == 0) m_zeroRun = i;
      continue;
    }
    if (b == 1 && m_zeros >= 2) {
      if (!TakeNal(segment, m_nalBegin, m_zeroRun)) return false;
      segment = m_zeroRun;
      m_nalBegin = i + 1;
      m_zeros = 0;
      continue;
    }
    // Emulation prevention keeps these out of every NAL unit.
    if (m_zeros >= 3 || (m_zeros == 2 && b == 2)) {
      return BreakOff(m_bufferOffset + m_zeroRun,
                      "zero bytes followed by " + Hex(b) + ", which no NAL unit may hold", true);
    }
    m_zeros = 0;
  }
  m_buffer.erase(m_buffer.begin(), m_buffer.begin() + static_cast<std::ptrdiff_t>(segment));
  m_bufferOffset += segment;
  m_scan = m_buffer.size();
  m_nalBegin -= segment;
  m_zeroRun -= m_zeroRun >= segment ? segment : m_zeroRun;
  return true;
}

bool Splitter::TakeNal(std::size_t segment, std::size_t nalBegin, std::size_t nalEnd) {
  const std::uint64_t at = m_bufferOffset + nalBegin;
  if (nalEnd <= nalBegin) return Stop(at, "a start code with no NAL unit behind it", true);
  const std::string fault = HeaderFault(m_buffer[nalBegin]);
  if (!fault.empty()) return Stop(at, fault, true);
  const int type = m_buffer[nalBegin] & 0x1F;
  bool readable = false;
  const bool opens = Opens(m_buffer.data() + nalBegin, nalEnd - nalBegin, &readable);
  if (!readable) return Stop(at, "a slice too short to hold its header", true);
  if (opens) CloseUnit();

  if (m_unit.bytes.empty()) {
    m_unit.offset = m_bufferOffset + segment;
    m_afterAud = type == kAud ? nalEnd - segment : 0;
  }
  if (m_unit.bytes.size() + (nalEnd - segment) > m_maxUnit) {
    return Stop(m_unit.offset, "an access unit longer than " + std::to_string(m_maxUnit) + " bytes",
                false);
  }
  m_unit.bytes.insert(m_unit.bytes.end(), m_buffer.begin() + static_cast<std::ptrdiff_t>(segment),
                      m_buffer.begin() + static_cast<std::ptrdiff_t>(nalEnd));
  if (IsPicture(type)) m_unitHasPicture = true;
  if (type == kIdrSlice) m_unit.key = true;
  if (type == kSps || type == kPps) {
    m_unitHasParameterSets = true;
    Bits bits(m_buffer.data() + nalBegin + 1, nalEnd - nalBegin - 1);
    unsigned id = 0;
    // An SPS holds its id behind profile, constraint flags and level.
    if ((type == kPps || bits.Skip(24)) && bits.Ue(&id)) {
      (type == kSps ? m_sps : m_pps)[id].assign(
          m_buffer.begin() + static_cast<std::ptrdiff_t>(nalBegin),
          m_buffer.begin() + static_cast<std::ptrdiff_t>(nalEnd));
    }
  }
  m_readOne = true;
  return true;
}

void Splitter::CloseUnit() {
  if (m_unit.key && !m_unitHasParameterSets) {
    std::vector<std::uint8_t> sets;
    for (const auto* map : {&m_sps, &m_pps}) {
      for (const auto& entry : *map) {
        sets.insert(sets.end(), std::begin(kStartCode), std::end(kStartCode));
        sets.insert(sets.end(), entry.second.begin(), entry.second.end());
      }
    }
    // Left as it came where the sets would make it too long to store.
    if (m_unit.bytes.size() + sets.size() <= m_maxUnit) {
      m_unit.bytes.insert(m_unit.bytes.begin() + static_cast<std::ptrdiff_t>(m_afterAud),
                          sets.begin(), sets.end());
    }
  }
  m_ready.push_back(std::move(m_unit));
  m_unit = AccessUnit();
  m_unitHasPicture = false;
  m_unitHasParameterSets = false;
}

bool Splitter::Finish() {
  if (!m_fault.empty()) return false;
  if (!m_inNal) {
    return Stop(m_bufferOffset + m_buffer.size(),
                m_buffer.empty() ? "the stream is empty" : "the stream holds no start code", true);
  }
  // Zeros at the very end follow the last NAL unit; they are not part of it.
  const std::size_t end = m_zeros > 0 ? m_zeroRun : m_buffer.size();
  if (end <= m_nalBegin) {
    return Stop(m_bufferOffset + m_nalBegin, "the stream ends right behind a start code", false);
  }
  if (!TakeNal(0, m_nalBegin, end)) return false;
  // The unit keeps the zeros behind it, as every unit does.
  m_unit.bytes.insert(m_unit.bytes.end(), m_buffer.begin() + static_cast<std::ptrdiff_t>(end),
                      m_buffer.end());
  m_inNal = false;
  m_buffer.clear();
  if (!m_unitHasPicture) {
    return Stop(m_unit.offset,
                "the stream ends with " + std::to_string(m_unit.bytes.size()) +
                    " bytes of a unit whose picture never came",
                false);
  }
  CloseUnit();
  return true;
}

bool Splitter::Pop(AccessUnit* unit) {
  if (m_readyFront == m_ready.size()) return false;
  *unit = std::move(m_ready[m_readyFront++]);
  if (m_readyFront == m_ready.size()) {
    m_ready.clear();
    m_readyFront = 0;
  }
  return true;
}

}  // namespace annexb
}  // namespace molra_tools
