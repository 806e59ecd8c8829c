// The store a recorder builder would write instead of molra: payloads
// appended to segment files of 64 MiB shared by all channels, and an SQLite
// table (WAL journal, synchronous=NORMAL, indexes on the stamp and on
// channel and stamp) that maps each frame's stamp and channel to its
// segment, offset, length and key-frame flag. One commit per frame, as molra
// reports each frame saved on its own. Rows are ordered by (stamp, id).
#pragma once

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "molra_bench.h"

namespace bench {

class SqlPeer {
 public:
  struct Row {
    std::int64_t id = 0, ms = 0, offset = 0;
    int channel = 0, segment = 0, length = 0;
  };

  explicit SqlPeer(std::string dir) : m_dir(std::move(dir)) { Open(); }
  ~SqlPeer() { Close(); }

  void Open() {
    Check(sqlite3_open((m_dir + "/frames.db").c_str(), &m_db), "opening the peer");
    Check(sqlite3_exec(m_db,
                       "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;"
                       "CREATE TABLE IF NOT EXISTS frames(id INTEGER PRIMARY KEY, stamp INTEGER, "
                       "channel INTEGER, seg INTEGER, off INTEGER, len INTEGER, key INTEGER);"
                       "CREATE INDEX IF NOT EXISTS frames_stamp ON frames(stamp);"
                       "CREATE INDEX IF NOT EXISTS frames_channel_stamp ON frames(channel, stamp);",
                       nullptr, nullptr, nullptr),
          "making the peer's table");
    const std::string row = "SELECT id, stamp, channel, seg, off, len FROM frames ";
    const std::string after = "WHERE stamp >= ?1 AND (stamp > ?1 OR id > ?2) ";
    for (const std::string& sql :
         {std::string(
              "INSERT INTO frames(stamp, channel, seg, off, len, key) VALUES (?1, ?2, ?3, ?4, "
              "?5, ?6)"),
          row + after + "ORDER BY stamp, id LIMIT 1",
          row +
              "WHERE stamp <= ?1 AND (stamp < ?1 OR id < ?2) ORDER BY stamp DESC, id DESC LIMIT 1",
          row + after + "AND key = 1 ORDER BY stamp, id LIMIT 1",
          std::string("SELECT 1 FROM frames WHERE stamp >= ?1 AND stamp < ?2 LIMIT 1"),
          std::string(
              "SELECT 1 FROM frames WHERE channel = ?3 AND stamp >= ?1 AND stamp < ?2 LIMIT 1")}) {
      m_sql.push_back(nullptr);
      Check(sqlite3_prepare_v2(m_db, sql.c_str(), -1, &m_sql.back(), nullptr), sql.c_str());
    }
  }

  // Also closes the segment files.
  void Close() {
    for (sqlite3_stmt* s : m_sql) sqlite3_finalize(s);
    m_sql.clear();
    sqlite3_close(m_db);
    m_db = nullptr;
    for (int& fd : m_fds) {
      if (fd >= 0) ::close(fd);
      fd = -1;
    }
  }

  void Save(const Frame& frame, const unsigned char* payload) {
    if (m_writeAt + frame.length > kSegmentBytes) {  // a new segment
      if (m_writeFd >= 0) ::close(m_writeFd);
      m_writeFd =
          ::open(Segment(m_segments++).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
      m_writeAt = 0;
    }
    if (::pwrite(m_writeFd, payload, frame.length, m_writeAt) !=
        static_cast<ssize_t>(frame.length)) {
      Fail("writing a peer segment");
    }
    const std::int64_t values[6] = {frame.ms,  frame.channel, m_segments - 1,
                                    m_writeAt, frame.length,  frame.key ? 1 : 0};
    for (int i = 0; i < 6; ++i) sqlite3_bind_int64(m_sql[kInsert], i + 1, values[i]);
    Check(sqlite3_step(m_sql[kInsert]), "inserting a frame");
    sqlite3_reset(m_sql[kInsert]);
    m_writeAt += frame.length;
  }

  // The first frame at or after `ms`; the frame after or before `at`; the
  // first key frame after `at`, or at or after `ms` when `at` is null.
  bool From(std::int64_t ms, Row* row) { return Query(kNext, ms, -1, row); }
  bool Next(const Row& at, Row* row) { return Query(kNext, at.ms, at.id, row); }
  bool Prev(const Row& at, Row* row) { return Query(kPrev, at.ms, at.id, row); }
  bool NextKey(std::int64_t ms, const Row* at, Row* row) {
    return Query(kNextKey, at ? at->ms : ms, at ? at->id : -1, row);
  }
  // Whether a frame (of `channel`; -1: any) lies in [from, to).
  bool Any(int channel, std::int64_t from, std::int64_t to) {
    sqlite3_stmt* s = m_sql[channel < 0 ? kAny : kAnyChannel];
    if (channel >= 0) sqlite3_bind_int(s, 3, channel);
    return Query(channel < 0 ? kAny : kAnyChannel, from, to, nullptr);
  }

  int Read(const Row& row, unsigned char* out) {
    if (row.segment >= static_cast<int>(m_fds.size())) m_fds.resize(row.segment + 1, -1);
    int& fd = m_fds[row.segment];
    if (fd < 0) fd = ::open(Segment(row.segment).c_str(), O_RDONLY | O_CLOEXEC);
    if (::pread(fd, out, row.length, row.offset) != row.length) Fail("reading a peer segment");
    return row.length;
  }

 private:
  enum { kInsert, kNext, kPrev, kNextKey, kAny, kAnyChannel };

  static int Check(int rc, const char* what) {
    if (rc != SQLITE_OK && rc != SQLITE_DONE && rc != SQLITE_ROW) Fail(what, rc);
    return rc;
  }
  std::string Segment(int n) const {
    char name[32];
    std::snprintf(name, sizeof name, "/seg%06d.bin", n);
    return m_dir + name;
  }
  // Binds ?1 and ?2 and steps once; a row found goes to `row`, if any.
  bool Query(int which, std::int64_t one, std::int64_t two, Row* row) {
    sqlite3_stmt* s = m_sql[which];
    sqlite3_bind_int64(s, 1, one);
    sqlite3_bind_int64(s, 2, two);
    const bool found = Check(sqlite3_step(s), "a peer query") == SQLITE_ROW;
    if (found && row) {
      *row = {sqlite3_column_int64(s, 0), sqlite3_column_int64(s, 1), sqlite3_column_int64(s, 4),
              sqlite3_column_int(s, 2),   sqlite3_column_int(s, 3),   sqlite3_column_int(s, 5)};
    }
    sqlite3_reset(s);
    return found;
  }

  std::string m_dir;
  sqlite3* m_db = nullptr;
  std::vector<sqlite3_stmt*> m_sql;
  int m_writeFd = -1;
  int m_segments = 0;
  std::int64_t m_writeAt = kSegmentBytes;
  std::vector<int> m_fds;  // for reading, by segment
};

}  // namespace bench
