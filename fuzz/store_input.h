// The input of every fuzz target: a tiny store and a script of calls.
//
// An input is a run of records, each led by a tag byte: its low five bits
// name a slot (a file of the store), its top three an operation.
//
//   op 0  patch   u32 offset, u8 n, n bytes: written into the slot's file
//   op 1  size    u32 length: the file is at least this long (zeros)
//   op 2  script  u8 n, n bytes: appended to the script
//
// Numbers are little-endian; other operations are skipped. A file is only
// what its records make of it, so a 64 MiB data file with a few chunks
// costs a few hundred bytes. Basket k's files lie where catalogue record
// k names them (its szPath, as a load reads it), so a damaged path still
// finds its files; the day files lie at the dates the target asks for.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "memory_env.h"
#include "molra/molra.h"

namespace molra_fuzz {

enum : unsigned {
  kCatalogueSlot = 0,
  kBaskets = 4,           // baskets whose files an input holds
  kDayFileSlot = 13,      // the day asked, the day before, the day after
  kZoneFileSlot = 16,     // "c:\fsdir\tz.inf"
  kSlots = 17,
};
enum BasketFile : unsigned { kData, kIndex, kTable };
constexpr unsigned BasketSlot(unsigned basket, BasketFile file) { return 1 + 3 * basket + file; }

struct Input {
  struct Patch {
    DWORD offset;
    std::string bytes;
  };
  struct File {
    bool present = false;
    DWORD size = 0;
    std::vector<Patch> patches;
  };
  File files[kSlots];
  std::string script;
};

Input Parse(const std::uint8_t* data, size_t size);
// The records of an input: the script first, then each file's length and
// its non-zero runs.
std::string Serialise(const Input& input);

// Script bytes in order; once they run out every answer is the fallback.
class Script {
 public:
  explicit Script(const std::string& bytes) : m_bytes(bytes) {}
  bool Empty() const { return m_at >= m_bytes.size(); }
  std::uint8_t Byte(std::uint8_t fallback = 0) {
    return Empty() ? fallback : static_cast<std::uint8_t>(m_bytes[m_at++]);
  }
  std::uint16_t Word(std::uint16_t fallback = 0) {
    if (m_at + 2 > m_bytes.size()) return fallback;
    const std::uint16_t low = Byte();
    return static_cast<std::uint16_t>(low | Byte() << 8);
  }

 private:
  const std::string& m_bytes;
  size_t m_at = 0;
};

// The one machine of all inputs, installed as the store's environment.
MemoryEnv& Machine();

// Starts an input: a clean machine, then the first script bytes set the
// zone (two bytes) and the clock (a signed count of days from 2010-11-18
// 09:30:15.250 UTC). Everything later reads the script on.
Input Begin(const std::uint8_t* data, size_t size);
void SetUpMachine(Script& script);
// Writes the input's files into the machine; `day` names the day files.
void LayOut(const Input& input, const SYSTEMTIME& day);

// The day the targets ask around.
constexpr SYSTEMTIME kAskedDay{2010, 11, 4, 18, 0, 0, 0, 0};

// One input begun: its script, with the machine set up from its first
// bytes; a `day` lays the store out for that day at once.
class Case {
 public:
  Case(const std::uint8_t* data, size_t size) : input(Begin(data, size)), script(input.script) {
    SetUpMachine(script);
  }
  Case(const std::uint8_t* data, size_t size, const SYSTEMTIME& day) : Case(data, size) {
    LayOut(input, day);
  }
  Case(const Case&) = delete;
  Case& operator=(const Case&) = delete;

  const Input input;
  Script script;
};

// Where the file of a slot lies once the catalogue is laid out.
std::string SlotPath(unsigned slot, const SYSTEMTIME& day);

// What the laid-out files hold, to aim calls at recorded times: basket
// k's path as a load reads it, and the stamp in the key of index node j
// of basket k (zero when there is none).
std::string BasketPath(unsigned basket);
SYSTEMTIME NodeStamp(unsigned basket, DWORD node);
// Catalogue record k's stFirst (last: stLast), UTC.
SYSTEMTIME RecordStamp(unsigned basket, bool last);

SYSTEMTIME AddSeconds(const SYSTEMTIME& stamp, std::int64_t seconds);

}  // namespace molra_fuzz
