// The zone of the store: reading it, this year's daylight change, and the
// questions a host asks about it.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "disk/store_paths.h"
#include "disk/status_log.h"
#include "molra/molra.h"
#include "platform/local_time.h"
#include "platform/text_stream.h"
#include "time/zone_clock.h"

using molra::detail::CZoneClock;
using molra::detail::FsStatusLog;

namespace {

std::tm LocalTm(const CTime& t) {
  std::tm local;
  t.GetLocalTm(&local);
  return local;
}

bool SameRuleDates(const TIME_ZONE_INFORMATION& zone) {
  return std::memcmp(&zone.StandardDate, &zone.DaylightDate, sizeof(SYSTEMTIME)) == 0;
}

SYSTEMTIME WindowStamp(const CTime& t) {
  const std::tm local = LocalTm(t);
  SYSTEMTIME stamp{};
  stamp.wYear = static_cast<WORD>(local.tm_year + 1900);
  stamp.wMonth = static_cast<WORD>(local.tm_mon + 1);
  stamp.wDay = static_cast<WORD>(local.tm_mday);
  stamp.wHour = static_cast<WORD>(local.tm_hour);
  return stamp;
}

}  // namespace

void CMOLRA::InitTimeZoneInfo() {
  const int year = LocalTm(CTime::GetCurrentTime()).tm_year + 1900;
  std::memset(&m_Tzi, 0, sizeof m_Tzi);
  std::string note;
  molra::platform::GetTimeZoneInformation(&m_Tzi, &note);
  if (!note.empty()) FsStatusLog(note.c_str());
  if (std::labs(static_cast<long>(m_Tzi.Bias)) % 60 != 0) m_bOddBias = 1;

  if (SameRuleDates(m_Tzi)) {
    m_bDST = 0;
    m_Tzi.DaylightBias = 0;
    m_tDstBegin = CTime();
    m_tDstEnd = CTime();
  } else {
    m_bDST = 1;
    // The day of each change: the week's Sunday, the last one for week 5.
    const auto changeDay = [this, year](const SYSTEMTIME& rule) {
      const CTime first(year, rule.wMonth, 1, 0, 0, 0, -1);
      const int last = GetMaxDay(first);
      const int sunday = GetDayOfFirstSunday(LocalTm(first).tm_wday + 1);
      int day = sunday + 7 * rule.wDay - 7;
      if (day > last) day -= 7 * (((day - last - 1) / 7) + 1);
      return day;
    };
    const int beginDay = changeDay(m_Tzi.DaylightDate);
    const int endDay = changeDay(m_Tzi.StandardDate);
    // The change is named in standard time; the change back is read as the
    // runtime reads it, in standard time at its rule hour, so that its
    // local reading is the hour the daylight clock stops at.
    m_tDstBegin = CTime(year, m_Tzi.DaylightDate.wMonth, beginDay, m_Tzi.DaylightDate.wHour, 0, 0, 0);
    m_tDstBeginUtc = m_tDstBegin + CTimeSpan(std::int64_t{m_Tzi.Bias} * 60);
    m_tDstEnd = CTime(year, m_Tzi.StandardDate.wMonth, endDay, m_Tzi.StandardDate.wHour, 0, 0, -1);
    m_tDstEndUtc = m_tDstEnd + CTimeSpan(std::int64_t{m_Tzi.Bias} * 60);
  }

  std::shared_ptr<CZoneClock> clock(new (std::nothrow) CZoneClock);
  SYSTEMTIME begin{};
  SYSTEMTIME end{};
  if (m_bDST == 1) {
    begin = WindowStamp(m_tDstBegin);
    end = WindowStamp(m_tDstEnd);
  }
  // Without a clock every conversion refuses and leaves its stamp alone.
  if (clock) clock->SetWindow(&m_Tzi, begin, end);
  m_pClock = std::move(clock);
}

int CMOLRA::CheckDST(CTime t, int bUtc) {
  if (SameRuleDates(m_Tzi)) return 0;
  const CTime lower = bUtc ? m_tDstBeginUtc : m_tDstBegin;
  const CTime upper = bUtc ? m_tDstEndUtc : m_tDstEnd;
  if (lower <= upper) return lower <= t && t < upper ? 1 : 0;
  // A southern year: daylight time at both of its ends.
  const int year = LocalTm(m_tDstEnd).tm_year + 1900;
  const CTimeSpan shift(bUtc ? std::int64_t{m_Tzi.Bias} * 60 : 0);
  const CTime yearStart = CTime(year, 1, 1, 0, 0, 0, -1) + shift;
  const CTime yearEnd = CTime(year + 1, 1, 1, 0, 0, 0, -1) + shift;
  return (yearStart <= t && t < upper) || (lower <= t && t < yearEnd) ? 1 : 0;
}

int CMOLRA::IsOverlappingTime(LONG year, LONG month, LONG day, LONG hour) {
  if (m_Tzi.DaylightBias == 0) return 0;
  const std::tm end = LocalTm(m_tDstEnd);
  if (end.tm_mon == LocalTm(m_tDstBegin).tm_mon) return 0;
  return year == end.tm_year + 1900 && month == end.tm_mon + 1 && day == end.tm_mday &&
                 hour == end.tm_hour - 1
             ? 1
             : 0;
}

int CMOLRA::IsOverlappingTime(CTime t) {
  const std::tm local = LocalTm(t);
  return IsOverlappingTime(local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour);
}

int CMOLRA::GetIsDST(SYSTEMTIME st) { return m_pClock ? m_pClock->IsDaylight(st) : 0; }

TIME_ZONE_INFORMATION CMOLRA::GetTimeZoneInfo() { return m_Tzi; }

int CMOLRA::GetTimeZoneInfoFromFile(TIME_ZONE_INFORMATION* pTzi) {
  if (pTzi == nullptr) return 0;
  size_t got = 0;
  // Only the bias is stored there; the rest of the record stays.
  return molra::platform::ReadTextStream(molra::kZoneBiasPath, &pTzi->Bias, sizeof pTzi->Bias, &got)
             ? 1
             : 0;
}
