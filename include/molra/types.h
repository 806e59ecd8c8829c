// The platform types that the store's interface is written in.
//
// The store was born on a platform whose `long` is 32 bits wide. Every
// number that crosses a buffer or a file is therefore spelled with the
// fixed-width names below, so that sizes and unsigned wrap-around stay
// exactly as the on-disk formats expect on any compiler.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>

#include "molra/export.h"

#ifdef _WIN32
// On Windows the names are the system's own, so that a host may include
// <windows.h> before or after this header. Included first from here, it
// leaves out the min and max macros, which would break std::min and
// std::max in whoever includes the store's headers; a host that wants them
// includes <windows.h> itself first.
#ifndef NOMINMAX
#define NOMINMAX
#include <windows.h>
#undef NOMINMAX
#else
#include <windows.h>
#endif
// A function-like macro that would rename CTime::GetCurrentTime.
#undef GetCurrentTime
#else
typedef std::uint8_t BYTE;
typedef std::uint16_t WORD;
typedef std::uint32_t DWORD;
typedef std::int32_t LONG;
typedef std::uint16_t WCHAR;  // UTF-16 code unit, as in the zone record
#endif

static_assert(sizeof(BYTE) == 1 && sizeof(WORD) == 2, "fixed widths");
static_assert(sizeof(DWORD) == 4 && sizeof(LONG) == 4, "fixed widths");
static_assert(sizeof(WCHAR) == 2, "fixed widths");

#ifndef _WIN32
// A stamp: eight unsigned 16-bit fields, 16 bytes.
typedef struct _SYSTEMTIME {
  WORD wYear;
  WORD wMonth;
  WORD wDayOfWeek;
  WORD wDay;
  WORD wHour;
  WORD wMinute;
  WORD wSecond;
  WORD wMilliseconds;
} SYSTEMTIME;

// The zone record in its recurring form: bias in minutes west of UTC, and
// the rule dates of the two changes (month, week 1 to 5 in wDay, hour).
typedef struct _TIME_ZONE_INFORMATION {
  LONG Bias;
  WCHAR StandardName[32];
  SYSTEMTIME StandardDate;
  LONG StandardBias;
  WCHAR DaylightName[32];
  SYSTEMTIME DaylightDate;
  LONG DaylightBias;
} TIME_ZONE_INFORMATION;
#endif

static_assert(sizeof(SYSTEMTIME) == 16, "SYSTEMTIME is 16 bytes");
static_assert(sizeof(TIME_ZONE_INFORMATION) == 172, "zone record is 172 bytes");
static_assert(offsetof(TIME_ZONE_INFORMATION, StandardDate) == 68, "zone layout");
static_assert(offsetof(TIME_ZONE_INFORMATION, DaylightBias) == 168, "zone layout");

// Minimal text string, as the interface needs it.
class CString {
 public:
  CString() = default;
  CString(const char* text) : m_str(text ? text : "") {}  // NOLINT: implicit like the original
  CString(const std::string& text) : m_str(text) {}        // NOLINT

  int GetLength() const { return static_cast<int>(m_str.size()); }
  bool IsEmpty() const { return m_str.empty(); }
  void Empty() { m_str.clear(); }
  operator const char*() const { return m_str.c_str(); }  // NOLINT
  const std::string& Str() const { return m_str; }

  CString& operator=(const char* text) {
    m_str = text ? text : "";
    return *this;
  }
  CString& operator+=(const char* text) {
    m_str += text ? text : "";
    return *this;
  }
  bool operator==(const char* text) const { return m_str == (text ? text : ""); }
  bool operator!=(const char* text) const { return !(*this == text); }

 private:
  std::string m_str;
};

// A length of time in whole seconds.
class CTimeSpan {
 public:
  CTimeSpan() = default;
  explicit CTimeSpan(std::int64_t seconds) : m_span(seconds) {}
  CTimeSpan(LONG days, int hours, int minutes, int seconds)
      : m_span(((std::int64_t{days} * 24 + hours) * 60 + minutes) * 60 + seconds) {}
  std::int64_t GetTotalSeconds() const { return m_span; }

 private:
  std::int64_t m_span = 0;
};

// A whole count of seconds since the Unix epoch. Local readings and local
// fields are in the store's zone (molra::platform::SetTimeZone, else the
// machine's), with its daylight rule applied to every year.
class MOLRA_API CTime {
 public:
  CTime() = default;
  explicit CTime(std::int64_t seconds) : m_time(seconds) {}
  // Local fields; out-of-range fields run on (hour 24 is the next day).
  // nDST 0 reads them as standard time, 1 as daylight time, -1 lets the
  // zone's rule decide.
  CTime(int year, int month, int day, int hour, int minute, int second, int nDST = -1);
  // The fields of a SYSTEMTIME read the same way (milliseconds dropped).
  explicit CTime(const SYSTEMTIME& st, int nDST = -1)
      : CTime(st.wYear, st.wMonth, st.wDay, st.wHour, st.wMinute, st.wSecond, nDST) {}

  // Now, by the store's clock (molra::platform::SetClock, else the machine's).
  static CTime GetCurrentTime();

  std::int64_t GetTime() const { return m_time; }
  // The local reading: tm_year from 1900, tm_mon from 0, tm_wday 0 Sunday.
  struct tm* GetLocalTm(struct tm* out) const;
  int GetYear() const;
  int GetMonth() const;
  int GetDay() const;
  int GetHour() const;
  int GetDayOfWeek() const;  // 1 Sunday to 7 Saturday
  // The local reading written by a strftime format ("%Y-%m-%d %H:%M:%S").
  CString Format(const char* format) const;

  CTime operator+(CTimeSpan span) const { return CTime(m_time + span.GetTotalSeconds()); }
  CTime operator-(CTimeSpan span) const { return CTime(m_time - span.GetTotalSeconds()); }
  CTimeSpan operator-(CTime other) const { return CTimeSpan(m_time - other.m_time); }
  bool operator==(const CTime& other) const { return m_time == other.m_time; }
  bool operator!=(const CTime& other) const { return m_time != other.m_time; }
  bool operator<(const CTime& other) const { return m_time < other.m_time; }
  bool operator<=(const CTime& other) const { return m_time <= other.m_time; }
  bool operator>(const CTime& other) const { return m_time > other.m_time; }
  bool operator>=(const CTime& other) const { return m_time >= other.m_time; }

 private:
  std::int64_t m_time = 0;
};

// A window of the host. The store only ever sets its text (a progress
// figure); the default keeps the text so that a host can read it back.
// Exported whole: a host derives from it and hands it to the store.
class MOLRA_API CWnd {
 public:
  virtual ~CWnd() = default;
  virtual void SetWindowText(const char* text) { m_strText = text ? text : ""; }
  CString GetWindowText() const { return m_strText; }

 private:
  std::string m_strText;
};
