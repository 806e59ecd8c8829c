// The recording store of a multi-channel digital video recorder.
//
// A host makes a CMOLRA, lays out a store with CreateFS, opens it for
// recording or playback and calls it. Everything on disk is in UTC; the
// host speaks local time at most read and query operations.
#pragma once

#include <atomic>
#include <memory>
#include <vector>

#include "molra/platform.h"
#include "molra/records.h"
#include "molra/types.h"

class CFsFile;
class CFsIndex;
class CZoneClock;

class CMOLRA {
 public:
  CMOLRA();
  // A copy shares the original's open files and catalogue records:
  // whichever object lets go of them last releases them, once. It has a
  // clock of its own with the original's zone and window.
  CMOLRA(const CMOLRA& other);
  CMOLRA& operator=(const CMOLRA& other);

  // Host hooks. OnCreatingFS is asked before each new basket is made
  // (ordinal from 1 within one CreateFS) and refuses with 0.
  virtual int OnCreatingFS(char* path, DWORD ordinal);
  virtual void OnReadingData(_tagCHUNKHDR* header);
  virtual ~CMOLRA();

  // Opening and closing. OpenFS closes first, loads the catalogue and
  // opens the current basket: mode 0 records, 1 plays back. CloseFS saves
  // nothing: the files are up to date after every call. SetExit raises
  // (non-zero) or lowers the flag that stops a long read, from any thread.
  LONG OpenFS(LONG mode);
  void CloseFS();
  LONG SetExit(int exit);

  // Recording. Appends a chunk (its 30-byte header and dwLength bytes of
  // payload) to the open basket, enters it in the index, marks the
  // basket's day tables and rewrites the catalogue; a basket that is full
  // hands over to the next one of the ring. `remaining` receives the bytes
  // left behind the new end of the data file. FS_OK, FS_ERR_MODE (not
  // recording, or a write or the index refused the chunk), FS_ERR_FILE
  // (not open), FS_ERR_INDEX (no basket of the ring could be opened), or
  // FS_ERR_PARAM (a channel outside 0 to 15, a stamp whose month, day,
  // hour or minute is out of range, or no payload) with nothing touched.
  LONG SaveData(_tagCHUNKHDR* chunk, void* payload, DWORD* remaining, int unused);

  // Catalogue.
  // Appends the baskets of each drive entry behind the catalogue in
  // memory and writes the catalogue. FS_OK, FS_ERR_CATALOG (baskets made,
  // catalogue not written), FS_ERR_CREATE (a basket file cannot be made,
  // or a drive lies outside A to Z), FS_ERR_CANCEL (OnCreatingFS refused),
  // FS_ERR_MEMORY, or FS_ERR_PARAM (a negative count, or no array) before
  // anything is made. On every failure but FS_ERR_CATALOG the new baskets'
  // data files are deleted and the catalogue stays as it was.
  LONG CreateFS(_tagBSKLOC* locations, DWORD count);
  void CallLoadFSinfo();
  _tagFSHDR* GetFSInfo();  // the head in memory itself, not a copy
  int IsFullBasket();
  int GetIFrame(int channel);
  void SetIFrame(int channel);
  LONG GetBaksetFirst(LONG basket, _tagCHUNKHDR* header, unsigned char** data);
  LONG GetBaksetLast(LONG basket, _tagCHUNKHDR* header, unsigned char** data);

 protected:
  using BasketList = std::vector<_tagFSBSKINFO>;

  LONG LoadFSInfo(LONG unused);
  LONG SaveFSInfo(LONG basket);  // -1: the head and every record
  LONG IsExistData(LONG, LONG, LONG, LONG, LONG);
  // Orders two stamps as their texts at a grain order: 1 second, 2 minute,
  // 3 hour, 4 day, 5 month, 6 year, any other the millisecond. -1, 0, 1.
  LONG CompareSystemTime(const SYSTEMTIME* a, const SYSTEMTIME* b, LONG level);
  // Moves the open store to the files of basket n.
  LONG OpenBsk(LONG basket);

  // Marks the chunk's hour and minute in basket n's day record.
  LONG SaveFSTblInfo(LONG basket, const _tagCHUNKHDR* chunk);
  // Takes the current basket, whose files cannot be opened, out of the
  // catalogue; the only basket left is kept.
  void EraseErrorBasket();
  // Moves recording on to the next basket of the ring and resets it.
  LONG RollOver();

  void CopyClock(const CMOLRA& other);

  // The catalogue record of basket n; nullptr when n names none.
  _tagFSBSKINFO* Basket(DWORD n);

  DWORD m_bFull;
  DWORD m_bIFrame[16];
  DWORD m_dwFill;
  std::atomic<LONG> m_lExit;

 public:
  // Time. Days from b to a, by their dates alone (0 when either date does
  // not exist); the day of the month of the first Sunday, given the
  // weekday of the first of the month (1 Sunday to 7 Saturday), else 0.
  int IntervalSystemTime(const SYSTEMTIME* a, const SYSTEMTIME* b, LONG level);
  WORD GetDayOfFirstSunday(int weekDay);
  // The last day of the month in which t lies locally.
  WORD GetMaxDay(CTime t);

  // The zone, read at construction: the host's (SetTimeZone) or the
  // machine's. InitTimeZoneInfo reads it again and works out this year's
  // daylight change and change back.
  void InitTimeZoneInfo();
  // 1 when t lies in this year's daylight time (bUtc: against the bounds
  // shifted by the bias). In a southern zone daylight time runs from the
  // change to the year's end and from the year's start to the change back.
  int CheckDST(CTime t, int bUtc);
  // 1 for the local hour that the clock shows twice when daylight time ends.
  int IsOverlappingTime(LONG year, LONG month, LONG day, LONG hour);
  int IsOverlappingTime(CTime t);
  // 1 when the UTC stamp lies in the clock's daylight window.
  int GetIsDST(SYSTEMTIME st);
  TIME_ZONE_INFORMATION GetTimeZoneInfo();
  // Reads the bias stored in "c:\fsdir\tz.inf" into pTzi->Bias; 0 when the
  // file cannot be opened.
  int GetTimeZoneInfoFromFile(TIME_ZONE_INFORMATION* pTzi);

  // Conversions in place; always 0. A zero flag reads every stamp as
  // standard time; a chunk header always goes back to local with the
  // daylight window. A stamp of year 0 stays as it is.
  LONG ChangeLocalToSystemTime(_tagCHUNKHDR* header, int bDaylight);
  LONG ChangeLocalToSystemTime(SYSTEMTIME& stamp, int bDaylight);
  LONG ChangeSystemToLocalTime(_tagCHUNKHDR* header, int bDaylight);
  LONG ChangeSystemToLocalTime(SYSTEMTIME& stamp, int bDaylight);

  // A copy of basket n's catalogue record with stFirst and stLast in
  // local time (stCreated stays UTC); FS_ERR_PARAM when n names none.
  LONG GetBaksetInfo(LONG basket, _tagFSBSKINFO* info);

  // The rows of a quick-search day file in memory.
  _tagSTIROW m_SaveTime[16];

 protected:
  std::shared_ptr<CFsIndex> m_pIndex;
  std::shared_ptr<CFsFile> m_pData;
  std::shared_ptr<CFsFile> m_pTable;
  std::shared_ptr<CFsFile> m_pCatalog;  // held open while recording
  _tagFSHDR m_FsHdr;
  std::shared_ptr<BasketList> m_ppBasket;  // null: no catalogue in memory
  _tagDATAHDR m_DataHdr;
  LONG m_nMode;
  LONG m_nOpenBasket;
  SYSTEMTIME m_LastSaved[16];
  // The zone and this year's daylight change, in the store's zone.
  DWORD m_bDST;
  DWORD m_bOddBias;
  TIME_ZONE_INFORMATION m_Tzi;
  CTime m_tDstBegin;
  CTime m_tDstEnd;
  CTime m_tDstBeginUtc;
  CTime m_tDstEndUtc;
  std::unique_ptr<CZoneClock> m_pClock;
  SYSTEMTIME m_stLastRead;
  BYTE m_ChanHits[32];
};
