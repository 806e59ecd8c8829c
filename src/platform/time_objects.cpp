// The platform's time object, in the store's zone.
#include <ctime>

#include "molra/types.h"
#include "platform/clock.h"
#include "platform/local_time.h"

namespace {

TIME_ZONE_INFORMATION Zone() {
  TIME_ZONE_INFORMATION zone;
  molra::platform::GetTimeZoneInformation(&zone);
  return zone;
}

std::tm Local(std::int64_t seconds) {
  std::tm local;
  molra::platform::UnixToLocalTm(Zone(), seconds, &local);
  return local;
}

}  // namespace

CTime::CTime(int year, int month, int day, int hour, int minute, int second, int nDST)
    : m_time(molra::platform::LocalFieldsToUnix(Zone(), year, month, day, hour, minute, second,
                                                nDST)) {}

CTime CTime::GetCurrentTime() {
  SYSTEMTIME now;
  molra::platform::GetSystemTime(&now);
  return CTime(molra::platform::StampToUnixMillis(now) / 1000);
}

struct tm* CTime::GetLocalTm(struct tm* out) const {
  if (out) *out = Local(m_time);
  return out;
}

int CTime::GetYear() const { return Local(m_time).tm_year + 1900; }
int CTime::GetMonth() const { return Local(m_time).tm_mon + 1; }
int CTime::GetDay() const { return Local(m_time).tm_mday; }
int CTime::GetHour() const { return Local(m_time).tm_hour; }
int CTime::GetDayOfWeek() const { return Local(m_time).tm_wday + 1; }

CString CTime::Format(const char* format) const {
  if (format == nullptr) return CString();
  const std::tm local = Local(m_time);
  char text[256];
  const size_t length = std::strftime(text, sizeof text, format, &local);
  return CString(std::string(text, length));
}
