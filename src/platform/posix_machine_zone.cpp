#include "platform/posix_machine_zone.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "platform/posix_zone_rule.h"

namespace molra {
namespace platform {
namespace {

constexpr size_t kZoneFileLimit = 1 << 20;

bool ReadSmallFile(const std::string& path, std::string* bytes) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  bytes->clear();
  char block[16384];
  for (;;) {
    const ssize_t n = ::read(fd, block, sizeof block);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0 || bytes->size() + static_cast<size_t>(n) > kZoneFileLimit) break;
    bytes->append(block, static_cast<size_t>(n));
  }
  ::close(fd);
  return true;
}

void SetName(WCHAR* out, const std::string& name) {
  size_t i = 0;
  for (; i < 31 && i < name.size(); ++i) out[i] = static_cast<unsigned char>(name[i]);
  out[i] = 0;
}

void FixedZone(LONG bias, const std::string& name, TIME_ZONE_INFORMATION* zone) {
  std::memset(zone, 0, sizeof *zone);
  zone->Bias = bias;
  SetName(zone->StandardName, name);
}

// A zone file: its closing rule, or its last standard time.
bool ZoneFromFile(const std::string& path, int year, TIME_ZONE_INFORMATION* zone,
                  std::string* note) {
  std::string bytes;
  std::string footer;
  std::string name;
  LONG bias = 0;
  if (!ReadSmallFile(path, &bytes) || !ReadZoneFileFooter(bytes, &footer, &bias, &name)) {
    return false;
  }
  if (!footer.empty() && ParsePosixZoneRule(footer, year, zone, note)) return true;
  FixedZone(bias, name, zone);
  *note = "time zone file " + path + " states no current rule; its last standard time is used";
  return true;
}

void Resolve(const char* tz, int year, TIME_ZONE_INFORMATION* zone, std::string* note) {
  note->clear();
  if (tz == nullptr) {
    // No TZ: the machine's local zone file, UTC when there is none.
    if (!ZoneFromFile("/etc/localtime", year, zone, note)) FixedZone(0, "UTC", zone);
    return;
  }
  std::string name = tz[0] == ':' ? tz + 1 : tz;
  if (name.empty()) {
    FixedZone(0, "UTC", zone);
    return;
  }
  std::string path = name;
  if (name[0] != '/') {
    const char* dir = std::getenv("TZDIR");
    path = std::string(dir && *dir ? dir : "/usr/share/zoneinfo") + "/" + name;
  }
  // A database name never climbs out of the database.
  const bool climbs = name[0] != '/' && name.find("..") != std::string::npos;
  if (!climbs && ZoneFromFile(path, year, zone, note)) return;
  if (ParsePosixZoneRule(name, year, zone, note)) return;
  FixedZone(0, "UTC", zone);
  *note = "time zone \"" + name + "\" is not known; UTC is used";
}

}  // namespace

void ReadMachineZone(int year, TIME_ZONE_INFORMATION* zone, std::string* note) {
  // The zone is read again only when TZ or the year changes.
  static std::mutex mutex;
  static bool cached = false;
  static std::string cachedKey;
  static int cachedYear = 0;
  static TIME_ZONE_INFORMATION cachedZone{};
  static std::string cachedNote;
  const char* tz = std::getenv("TZ");
  const std::string key = tz ? std::string("=") + tz : std::string();
  std::lock_guard<std::mutex> lock(mutex);
  if (!cached || key != cachedKey || year != cachedYear) {
    Resolve(tz, year, &cachedZone, &cachedNote);
    cached = true;
    cachedKey = key;
    cachedYear = year;
  }
  *zone = cachedZone;
  *note = cachedNote;
}

}  // namespace platform
}  // namespace molra
