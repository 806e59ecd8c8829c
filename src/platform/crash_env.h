// Test-only power cuts: an Env that passes everything on to another one
// and remembers, per file, each write since that file's last flush. At
// CutPower every later change to the disk fails; Settle then leaves on the
// real files what a power cut could have left: the flushed state, and of
// each pending write all of it, none of it, or some of its 512-byte
// sectors (torn), chosen by a seeded generator. Each sector is chosen on
// its own, as the state after some of the writes over it in their order:
// a sector never shows a later write without an earlier one beneath it.
//
// Making, cutting (SetEnd), reserving and removing a file count as done at
// once and end the file's pending writes, as if the file system committed
// its own bookkeeping before the data. Old bytes are read back through the
// writing handle, which the backends open for reading as well.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "platform/power_cut_env.h"

namespace molra {
namespace platform {

class CrashEnv : public PowerCutEnv {
 public:
  explicit CrashEnv(Env* target = Env::Default()) : PowerCutEnv(target) {}

  // Write n (counted by Write and WriteAt, the first after this call is
  // 1) and everything after it fail; 0 cuts nothing.
  void CutPowerAtWrite(DWORD n);
  void CutPower();  // now
  bool PowerCut() const;
  DWORD Writes() const;
  // The files flushed while the power was on since the last call, in
  // order, by their paths in upper case.
  std::vector<std::string> TakeFlushes();

  // What Settle did, for a campaign's report.
  struct Outcome {
    DWORD kept = 0, dropped = 0, torn = 0;
  };
  // Rewrites the real files to one state a power cut could leave, and
  // forgets every pending write; the power is on again. Call it once no
  // store object holds a file open.
  Outcome Settle(std::uint64_t seed);

  // Called by the files this env opens.
  bool WriteFails();
  void Pending(const std::string& key, DWORD position, const void* data, DWORD count,
               std::string old, DWORD oldSize);
  void Durable(const std::string& key);  // a flush, cut or reservation of the file
  void CountFlush(const std::string& key);

  std::unique_ptr<File> OpenFile(const char* path, Access access, unsigned share,
                                 Disposition disposition) override;
  bool RemoveFile(const char* path) override;

 private:
  struct Write {
    DWORD position;
    std::string data;  // as written
    std::string old;   // what it covered of the file as it was then
    DWORD oldSize;     // the file's length before it
  };
  struct Track {
    std::string path;  // as the store named it, to open it again
    std::vector<Write> writes;
  };

  bool ChangesFail() const override;

  mutable std::mutex m_mutex;  // guards everything below
  DWORD m_writes = 0;
  DWORD m_cutAt = 0;
  bool m_cut = false;
  std::map<std::string, Track> m_pending;  // by the path in upper case
  std::vector<std::string> m_flushes;
};

}  // namespace platform
}  // namespace molra
