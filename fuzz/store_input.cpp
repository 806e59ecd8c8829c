#include "store_input.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "dayfiles/day_file_paths.h"
#include "index/index_format.h"
#include "platform/clock.h"
#include "store/store_files.h"

namespace molra_fuzz {
namespace {

enum : unsigned { kPatch = 0, kSize = 1, kScript = 2 };
constexpr size_t kPatchMax = 255;
// A gap of fewer zeros than this stays inside a patch: a record costs more.
constexpr size_t kGapMin = 8;

DWORD Le32(const std::uint8_t* p) {
  return DWORD{p[0]} | DWORD{p[1]} << 8 | DWORD{p[2]} << 16 | DWORD{p[3]} << 24;
}

void PutLe32(std::string* out, DWORD value) {
  for (int i = 0; i < 4; ++i) out->push_back(static_cast<char>(value >> (8 * i)));
}

constexpr SYSTEMTIME kBaseClock{2010, 11, 4, 18, 9, 30, 15, 250};

// A zone from two script bytes: 0 is UTC; otherwise a bias of whole
// quarter hours up to 14 hours either way, and a daylight rule, either a
// usual one picked by the second byte or (bit 6) raw from the bytes after.
TIME_ZONE_INFORMATION Zone(Script& script) {
  TIME_ZONE_INFORMATION zone{};
  const std::uint8_t bias = script.Byte();
  const std::uint8_t rule = script.Byte();
  if (bias == 0) return zone;
  zone.Bias = (bias % 113 - 56) * 15;
  if (rule == 0) return zone;
  zone.DaylightBias = (rule & 0x80) != 0 ? -30 : -60;
  if ((rule & 0x40) != 0) {
    for (SYSTEMTIME* date : {&zone.DaylightDate, &zone.StandardDate}) {
      date->wMonth = script.Byte();
      date->wDay = script.Byte();
      date->wHour = script.Byte();
      date->wMinute = script.Byte();
    }
    zone.DaylightBias = static_cast<std::int8_t>(script.Byte());
    return zone;
  }
  zone.DaylightDate.wMonth = static_cast<WORD>(1 + rule % 12);
  zone.DaylightDate.wDay = static_cast<WORD>(1 + rule / 12 % 5);
  zone.DaylightDate.wHour = 2;
  zone.StandardDate.wMonth = static_cast<WORD>(1 + (rule * 7 + 6) % 12);
  zone.StandardDate.wDay = 5;
  zone.StandardDate.wHour = 3;
  return zone;
}

}  // namespace

std::string SlotPath(unsigned slot, const SYSTEMTIME& day) {
  if (slot == kCatalogueSlot) return molra::kCatalogPath;
  if (slot == kZoneFileSlot) return "c:\\fsdir\\tz.inf";
  if (slot >= kDayFileSlot) {
    const int shift[] = {0, -1, 1};
    return static_cast<const char*>(
        molra::DayFilePath(AddSeconds(day, shift[slot - kDayFileSlot] * 86400LL)));
  }
  const unsigned basket = (slot - 1) / 3;
  const char* const ext[] = {molra::kDataExt, molra::kIndexExt, molra::kTableExt};
  return BasketPath(basket) + ext[(slot - 1) % 3];
}

namespace {

// How long an input may make the file of a slot. Walks of the ring and
// of a basket's day records are linear in their length, and the fuzzer
// would spend its time in rings of a million baskets: 64 do, and the
// index and tables get room for more than a basket ever holds.
DWORD Room(unsigned slot) {
  if (slot == kCatalogueSlot) return sizeof(_tagFSHDR) + 64 * sizeof(_tagFSBSKINFO);
  if (slot >= kDayFileSlot) return 64 * 1024;
  return (slot - 1) % 3 == kData ? molra::kDataFileSize : 4 * molra::kIndexFileSize / 3;
}

void Write(const Input::File& file, unsigned slot, const std::string& path) {
  MemoryEnv& env = Machine();
  const DWORD room = Room(slot);
  env.Extend(path, std::min(file.size, room));
  for (const Input::Patch& patch : file.patches) {
    const DWORD count = static_cast<DWORD>(patch.bytes.size());
    if (patch.offset <= room && count <= room - patch.offset) {
      env.Put(path, patch.offset, patch.bytes.data(), count);
    }
  }
}

}  // namespace

Input Parse(const std::uint8_t* data, size_t size) {
  Input input;
  size_t at = 0;
  while (at < size) {
    const unsigned slot = data[at] & 0x1F;
    const unsigned op = data[at] >> 5;
    ++at;
    Input::File* file = slot < kSlots ? &input.files[slot] : nullptr;
    if (op == kPatch && at + 5 <= size) {
      const DWORD offset = Le32(data + at);
      const size_t n = std::min<size_t>(data[at + 4], size - at - 5);
      const char* bytes = reinterpret_cast<const char*>(data + at + 5);
      if (file) {
        file->present = true;
        file->patches.push_back(Input::Patch{offset, std::string(bytes, n)});
      }
      at += 5 + n;
    } else if (op == kSize && at + 4 <= size) {
      if (file) {
        file->present = true;
        file->size = std::max(file->size, Le32(data + at));
      }
      at += 4;
    } else if (op == kScript && at + 1 <= size) {
      const size_t n = std::min<size_t>(data[at], size - at - 1);
      input.script.append(reinterpret_cast<const char*>(data + at + 1), n);
      at += 1 + n;
    } else if (op <= kScript) {
      break;  // a record cut short ends the input
    }
  }
  return input;
}

std::string Serialise(const Input& input) {
  std::string out;
  for (size_t at = 0; at < input.script.size(); at += kPatchMax) {
    const std::string piece = input.script.substr(at, kPatchMax);
    out.push_back(static_cast<char>(kScript << 5));
    out.push_back(static_cast<char>(piece.size()));
    out += piece;
  }
  for (unsigned slot = 0; slot < kSlots; ++slot) {
    const Input::File& file = input.files[slot];
    if (!file.present) continue;
    out.push_back(static_cast<char>(kSize << 5 | slot));
    PutLe32(&out, file.size);
    for (const Input::Patch& patch : file.patches) {
      // Runs of non-zero bytes, joined over short gaps, at most 255 long.
      const std::string& bytes = patch.bytes;
      size_t begin = 0;
      while (begin < bytes.size()) {
        while (begin < bytes.size() && bytes[begin] == 0) ++begin;
        if (begin == bytes.size()) break;
        size_t end = begin;
        size_t zeros = 0;
        while (end + zeros < bytes.size() && end - begin + zeros < kPatchMax && zeros < kGapMin) {
          if (bytes[end + zeros] == 0) {
            ++zeros;
          } else {
            end += zeros + 1;
            zeros = 0;
          }
        }
        out.push_back(static_cast<char>(kPatch << 5 | slot));
        PutLe32(&out, patch.offset + static_cast<DWORD>(begin));
        out.push_back(static_cast<char>(end - begin));
        out.append(bytes, begin, end - begin);
        begin = end;
      }
    }
  }
  return out;
}

MemoryEnv& Machine() {
  static MemoryEnv* env = [] {
    auto* made = new MemoryEnv;  // lives as long as the process
    molra::platform::SetCurrentEnv(made);
    molra::platform::SetMessageBoxHook([](const char*) {});
    return made;
  }();
  return *env;
}

Input Begin(const std::uint8_t* data, size_t size) {
  Machine().Clear();
  molra::platform::SetMessageHook(nullptr);
  molra::platform::SetStrictChunks(false);
  return Parse(data, size);
}

void SetUpMachine(Script& script) {
  const TIME_ZONE_INFORMATION zone = Zone(script);
  molra::platform::SetTimeZone(&zone);
  const SYSTEMTIME clock = AddSeconds(kBaseClock, static_cast<std::int16_t>(script.Word()) * 86400LL);
  molra::platform::SetClock(&clock);
}

void LayOut(const Input& input, const SYSTEMTIME& day) {
  // The catalogue first: it names where the baskets lie.
  for (unsigned slot = 0; slot < kSlots; ++slot) {
    if (input.files[slot].present) Write(input.files[slot], slot, SlotPath(slot, day));
  }
}

std::string BasketPath(unsigned basket) {
  char path[sizeof(_tagFSBSKINFO::szPath)] = {};
  const DWORD at = sizeof(_tagFSHDR) + basket * sizeof(_tagFSBSKINFO);
  if (Machine().SizeOf(molra::kCatalogPath) < at + sizeof(_tagFSBSKINFO)) {
    std::snprintf(path, sizeof path, "D:\\MOLRA\\FS%06u", basket);
    return path;
  }
  Machine().Get(molra::kCatalogPath, at, path, sizeof path - 1);
  return path;
}

SYSTEMTIME NodeStamp(unsigned basket, DWORD node) {
  char key[molra::kKeyLength + 1] = {};
  const DWORD at = molra::NodeAt(node) + offsetof(_tagIDXNODE, cKey);
  Machine().Get(BasketPath(basket) + molra::kIndexExt, at, key, molra::kKeyLength);
  const auto field = [&](int start, int width) {
    char digits[8] = {};
    std::memcpy(digits, key + start, static_cast<size_t>(width));
    return static_cast<WORD>(std::strtoul(digits, nullptr, 10));
  };
  return SYSTEMTIME{field(0, 4), field(4, 2), 0, field(6, 2), field(8, 2),
                    field(10, 2), field(12, 2), field(14, 4)};
}

SYSTEMTIME RecordStamp(unsigned basket, bool last) {
  SYSTEMTIME stamp{};
  const DWORD at = sizeof(_tagFSHDR) + basket * sizeof(_tagFSBSKINFO) +
                   (last ? offsetof(_tagFSBSKINFO, stLast) : offsetof(_tagFSBSKINFO, stFirst));
  Machine().Get(molra::kCatalogPath, at, &stamp, sizeof stamp);
  return stamp;
}

SYSTEMTIME AddSeconds(const SYSTEMTIME& stamp, std::int64_t seconds) {
  return molra::platform::UnixMillisToStamp(molra::platform::StampToUnixMillis(stamp) +
                                            seconds * 1000);
}

}  // namespace molra_fuzz
