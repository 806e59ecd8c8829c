// The recording store of a multi-channel digital video recorder.
//
// A host makes a CMOLRA, lays out a store with CreateFS, opens it for
// recording or playback and calls it. Everything on disk is in UTC; the
// host speaks local time at most read and query operations.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "molra/export.h"
#include "molra/platform.h"
#include "molra/records.h"
#include "molra/types.h"

namespace molra {
namespace detail {  // the store's own classes, out of a host's sight
class CFsFile;
class CFsIndex;
class CZoneClock;
}  // namespace detail
}  // namespace molra
struct _tagIDXREF;

class MOLRA_API CMOLRA {
 public:
  CMOLRA();
  // The compiler's copy: a copy shares the original's open files,
  // catalogue records and zone clock, and whichever object lets go of
  // them last releases them, once. Nothing points back into an object.
  CMOLRA(const CMOLRA& other) = default;
  CMOLRA& operator=(const CMOLRA& other) = default;

  // Host hooks. OnCreatingFS is asked before each new basket is made
  // (ordinal from 1 within one CreateFS) and refuses with 0.
  virtual int OnCreatingFS(char* path, DWORD ordinal);
  virtual void OnReadingData(_tagCHUNKHDR* header);
  virtual ~CMOLRA();

  // Opening and closing. OpenFS closes first, loads the catalogue and
  // opens the current basket: mode 0 records, 1 plays back; any other mode
  // answers FS_ERR_PARAM and changes nothing. CloseFS saves
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
  // hour or minute is out of range, a payload longer than 811,008 bytes,
  // which no reader accepts, or no payload) with nothing touched. Every
  // failed disk write leaves a line in the status log; a damaged current
  // basket is set right, or left for the next, when the recorder opens.
  LONG SaveData(_tagCHUNKHDR* chunk, const void* payload, DWORD* remaining, int unused);

  // Playback, for an object opened with OpenFS(1). A seek finds the first
  // chunk recorded at a minute (second 0: any second of it) or at a second,
  // never a nearest one when none was recorded then; asked for one channel
  // (chChannel 0 to 15, -1 any), it walks on from there to that channel's
  // next chunk, which may lie later. It reloads nothing (the ring is as
  // last loaded) but reads the basket's index afresh. The chunk's 30-byte
  // header replaces the caller's, its payload goes to `payload` (room for
  // 811,008 bytes), and the reader then stands on it. ReadData speaks
  // local time (bDaylight: daylight time may apply), the Ex forms UTC.
  // FS_OK, FS_ERR_FILE (not open, not recorded, a damaged chunk - logged to
  // "c:\FSDIR\defected.dat" - or cancelled by SetExit), FS_ERR_MODE,
  // FS_ERR_INDEX (a basket's index cannot be opened, or SetExit).
  LONG ReadData(_tagCHUNKHDR* header, unsigned char* payload, unsigned char bDaylight);
  LONG ReadDataEx(_tagCHUNKHDR* header, unsigned char* payload);
  LONG ReadDataEx2(_tagCHUNKHDR* header, unsigned char* payload);
  // Kept for hosts that call them: they read nothing. FS_ERR_FILE, or
  // FS_ERR_MODE when the open store is not playing back.
  LONG ReadFirstData(_tagCHUNKHDR* header, unsigned char* payload, unsigned char bDaylight);
  LONG ReadLastData(_tagCHUNKHDR* header, unsigned char* payload, unsigned char bDaylight);
  // Steps from where the reader stands to the chunk behind (Next) or
  // ahead (Prev), of any channel (chChannel -1) or of one, across the
  // baskets of the ring as this object last loaded it. FS_END_OF_DATA at
  // the end of the current basket, FS_BEGIN_OF_DATA at the start of the
  // oldest; FS_ERR_INDEX for SetExit or a channel outside -1 to 15;
  // FS_ERR_FILE before any seek has placed the reader, or for a damaged
  // chunk; FS_ERR_PARAM when the payload cannot be read.
  LONG ReadNextData(_tagCHUNKHDR* header, unsigned char* payload, unsigned char bDaylight);
  LONG ReadPrevData(_tagCHUNKHDR* header, unsigned char* payload, unsigned char bDaylight);
  LONG ReadNextDataEx(_tagCHUNKHDR* header, unsigned char* payload);
  LONG ReadPrevDataEx(_tagCHUNKHDR* header, unsigned char* payload);
  // Key-frame skips (chChannel must be -1): the first key frame at least
  // `distance` seconds on from (Next) or back from (Prev) the last chunk
  // handed out; key frames of several channels in one second come once
  // per channel. At most 4,800 index moves per call, then FS_ERR_FILE
  // (call again to go on).
  LONG ReadNextData2(_tagCHUNKHDR* header, unsigned char* payload, int distance,
                     unsigned char bDaylight);
  LONG ReadPrevData2(_tagCHUNKHDR* header, unsigned char* payload, int distance,
                     unsigned char bDaylight);
  LONG ReadNextDataEx2(_tagCHUNKHDR* header, unsigned char* payload, int distance);
  LONG ReadPrevDataEx2(_tagCHUNKHDR* header, unsigned char* payload, int distance);
  // The decision on one key frame of a skip: 1 deliver, 0 go on. `key` is
  // an index key (its first 14 characters are read), `base` the last
  // chunk's stamp as whole seconds (0: none yet).
  int SkipNextFrame(char* key, int channel, int distance, DWORD base);
  int SkipPrevFrame(char* key, int channel, int distance, DWORD base);
  // Appends the two lines about a refused chunk to the defect log.
  void FsNoExistData(_tagCHUNKHDR* header);

  // Timeline, for a playback object: the local days of a month that hold
  // recordings (days[d - 1] = 1), the 16 x 24 hour cells of a UTC day
  // (progress, when given, shows the share of the ring done), and the 60
  // minute cells of one channel in a local hour. Each reloads the catalogue
  // and reads only the baskets' day tables; the reader's place stays.
  // FS_OK, FS_ERR_FILE (not open), FS_ERR_MODE (not playing back); the
  // minute query also FS_ERR_PARAM for a channel or hour out of range, and
  // all three for a null output or a negative count. The day query writes
  // at most `count` entries.
  LONG GetSaveDateInfo(LONG year, LONG month, int* days, LONG count);
  LONG GetSaveTimeInfo(LONG year, LONG month, LONG day, LONG unused, DWORD* cells, CWnd* progress);
  LONG GetSaveMinuteInfo(LONG year, LONG month, LONG day, LONG hour, LONG unused, LONG channel,
                         DWORD* cells, int bDaylight);
  // Fold a UTC day record's hour cells into a local day (16 x 24 cells the
  // caller keeps): Minus in a zone ahead of UTC, Plus in one behind, side
  // -1 for the earlier UTC day and 1 for the later. Cells already set stay.
  void GetSaveHourMinus(int side, _tagFSBSKTBL* record, DWORD* out, CTime time);
  void GetSaveHourPlus(int side, _tagFSBSKTBL* record, DWORD* out, CTime time);
  // 1 when an hour of the record lies in the local year and month asked;
  // found gets the last such hour in local time.
  int IsEqualDay(_tagFSBSKTBL* record, SYSTEMTIME asked, SYSTEMTIME& found);

  // Reclaiming. Ages the oldest basket by a retention time in days: erased
  // whole when its last local day is the cut-off day or earlier, cut at
  // the front when it only starts then (1), left alone (0). info receives
  // the oldest basket afterwards, in local time. Failures are logged and
  // answer 1; a basket open elsewhere cannot be erased whole. A retention
  // that reaches back before year 1 keeps everything (0).
  int GetOldestBasketInfoAndBasketControl(unsigned int days, _tagFSBSKINFO* info);
  // Takes basket n (-1: all) out of the catalogue file and deletes its
  // files. FS_OK, FS_ERR_CATALOG (no catalogue), FS_ERR_PARAM (n names no
  // basket; nothing changes). The object's own catalogue is not reloaded.
  // The oldest position is left as it was, also past the shorter list; a
  // load reads such a position as the basket behind the current one.
  LONG DeleteBakset(LONG number);
  // Blanks the day tables and time ranges of the baskets that start more
  // than `limit` days before `date` ("yyyymmdd"); recording mode only.
  LONG DelTBLSaveDataInfo(CString date, CString limit);

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

  // Time. Days from b to a, by their dates alone (0 when either date does
  // not exist or is not given); the day of the month of the first Sunday, given the
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

  // Quick-search day files: one small file per UTC day under
  // "C:\FSDIR\QS" that marks, channel by channel, the hours the host has
  // recorded. The host marks hours itself (a stamp in UTC); the first mark
  // of a month lays out the rest of the month. Marks: 1, or 0 when the
  // day file cannot be opened or the channel or hour names no row or byte.
  int InitSaveTime();
  int SaveTimeWrite(SYSTEMTIME st, char chChannel);
  int SaveTimeWriteEx(SYSTEMTIME st, char chChannel);
  // Resets the rows in memory (nChannel -1: all) to their number and "0"
  // hours; 0 for a channel outside -1 to 15, with nothing touched.
  int SaveTimeSet(int bSet, int nChannel);
  // Deletes day files last written before the month of basket 0's start.
  void DeleteOldQSFiles();
  // The marks of a local day, 16 rows of 25 bytes into pRows: shifted from
  // the two UTC days it spans in a whole-hour zone (a marked hour reads 1),
  // straight from the file of the date otherwise. Always 1.
  int SaveTimeRead(char* unused, SYSTEMTIME stDay, char* pRows);
  // One day file as it stands into pRows (400 bytes) and m_SaveTime, or
  // into m_SaveTime alone; 0 when it cannot be opened. A missing file is
  // made empty.
  int SaveTimeReadEx(char* unused, SYSTEMTIME st, char* pRows);
  int SaveTimeLoad(SYSTEMTIME st);
  int SaveTimeDelete(SYSTEMTIME st);  // always 1

  // The rows of a quick-search day file in memory.
  _tagSTIROW m_SaveTime[16];

 protected:
  // The store's own workings, for the classes a host derives at most.
  using BasketList = std::vector<_tagFSBSKINFO>;

  LONG LoadFSInfo(LONG unused);
  // Brings ring positions that lie past the list in memory back into it.
  void PlaceRingInList();
  // -1: the head and every record. FS_ERR_CATALOG when the file cannot be
  // opened or a write fails (logged); a recorder then writes every record
  // again at its next save.
  LONG SaveFSInfo(LONG basket);
  // SaveFSInfo, optionally with basket n's record written before the head.
  LONG SaveCatalogue(LONG basket, bool recordFirst);
  LONG IsExistData(LONG, LONG, LONG, LONG, LONG);
  // The grains at which CompareSystemTime orders two stamps; any other
  // level counts to the millisecond.
  enum Grain : LONG {
    kByMillisecond = 0,
    kBySecond = 1,
    kByMinute = 2,
    kByHour = 3,
    kByDay = 4,
    kByMonth = 5,
    kByYear = 6,
  };
  // Orders two stamps as their texts at a grain. -1, 0, 1.
  LONG CompareSystemTime(const SYSTEMTIME* a, const SYSTEMTIME* b, LONG level);
  // Moves the open store to the files of basket n.
  LONG OpenBsk(LONG basket);

  // The common start of a timeline query; and whether basket n's span
  // holds a time at a grain of CompareSystemTime.
  LONG TimelineStart();
  bool HoldsAt(DWORD basket, const SYSTEMTIME& time, LONG level);

  // Marks the chunk's hour and minute in basket n's day record.
  LONG SaveFSTblInfo(LONG basket, const _tagCHUNKHDR* chunk);
  // Takes the current basket, whose files cannot be opened, out of the
  // catalogue; the only basket left is kept.
  void EraseErrorBasket();
  // Moves recording on to the next basket of the ring and resets it.
  LONG RollOver();
  // Forces what the recorder wrote to the disk: data, index, day tables,
  // catalogue, in that order. FlushIfDue does it when the host's interval
  // has passed since the last time.
  void FlushRecording();
  void FlushIfDue();
  // The two roads of ageing basket b against a cut-off date "yyyymmdd".
  int EraseOldest(DWORD basket, _tagFSBSKINFO* info);
  int CutOldest(DWORD basket, const std::string& cutOff, _tagFSBSKINFO* info);

  // Playback. The basket of the ring that holds a minute (a shared
  // minute: the older basket) or a second (the current basket first); -1.
  LONG FindFirstBskDate(LONG year, LONG month, LONG day, LONG hour, LONG minute);
  LONG FindFirstBskDateSec(LONG year, LONG month, LONG day, LONG hour, LONG minute,
                           LONG second);
  // How a chunk is read out: after a seek, a step or a skip.
  enum class ReadKind { kSeek, kStep, kSkip };
  LONG Seek(_tagCHUNKHDR* header, unsigned char* payload, bool toSecond);
  LONG Step(_tagCHUNKHDR* header, unsigned char* payload, bool forward);
  LONG Skip(_tagCHUNKHDR* header, unsigned char* payload, int distance, bool forward);
  int SkipFrame(const char* key, int channel, int distance, DWORD base, bool forward);
  // One move of a step: the neighbouring node, in the open basket or at
  // the entry of the next one (`entered`). FS_OK, or the end of the ring.
  LONG MoveOne(bool forward, char* key, _tagIDXREF* ref, bool* entered);
  // Whether a lookup since OpenFS has placed the reader on a node (the
  // cursor outlives baskets), or the open basket has none to stand on.
  bool Placed() const;
  // Reads the chunk a reference names into the caller's buffers.
  LONG ReadOut(const _tagIDXREF& ref, _tagCHUNKHDR* header, unsigned char* payload,
               ReadKind kind, bool refuseEmpty);

  // Whether a basket's three files and the catalogue are at hand.
  bool StoreOpen() const { return m_pData && m_pIndex && m_pTable && m_ppBasket; }

  // The catalogue record of basket n; nullptr when n names none.
  _tagFSBSKINFO* Basket(DWORD n);

  DWORD m_bFull;
  DWORD m_bIFrame[16];
  DWORD m_dwFill;
  // Raised from another thread to cancel a descent; a copy takes its value.
  struct ExitFlag : std::atomic<LONG> {
    explicit ExitFlag(LONG value = 0) : std::atomic<LONG>(value) {}
    ExitFlag(const ExitFlag& other) : std::atomic<LONG>(other.load()) {}
    ExitFlag& operator=(const ExitFlag& other) {
      store(other.load());
      return *this;
    }
  };
  ExitFlag m_lExit;

  std::shared_ptr<molra::detail::CFsIndex> m_pIndex;
  std::shared_ptr<molra::detail::CFsFile> m_pData;
  std::shared_ptr<molra::detail::CFsFile> m_pTable;
  std::shared_ptr<molra::detail::CFsFile> m_pCatalog;  // held open while recording
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
  std::shared_ptr<const molra::detail::CZoneClock> m_pClock;  // never changed once made
  SYSTEMTIME m_stLastRead;
  // Key frames met per channel in the second of m_stLastRead.
  signed char m_ChanHits[32];
  // A catalogue write failed since the last one of every record.
  bool m_bCatalogueStale = false;
  std::int64_t m_lastFlushMs = 0;  // UTC milliseconds of the recorder's last flush
};
