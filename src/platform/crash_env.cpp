#include "platform/crash_env.h"

#include <algorithm>
#include <cctype>

namespace molra {
namespace platform {
namespace {

constexpr DWORD kSector = 512;

std::string KeyOf(const char* path) {
  std::string key(path);
  for (char& c : key)
    c = c == '/' ? '\\' : static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return key;
}

class CrashFile final : public File {
 public:
  CrashFile(std::unique_ptr<File> target, CrashEnv* env, std::string key)
      : m_target(std::move(target)), m_env(env), m_key(std::move(key)) {}

  bool Read(void* buffer, DWORD count, DWORD* done) override {
    return m_target->Read(buffer, count, done);
  }
  bool ReadAt(DWORD position, void* buffer, DWORD count, DWORD* done) override {
    return m_target->ReadAt(position, buffer, count, done);
  }
  bool Write(const void* buffer, DWORD count, DWORD* done) override {
    if (Refused(done)) return false;
    const DWORD here = m_target->Seek(0, kFileCurrent);
    if (here == kInvalidSetFilePointer) return m_target->Write(buffer, count, done);
    std::string old;
    const DWORD size = Before(here, count, &old);
    m_target->Seek(static_cast<LONG>(here), kFileBegin);
    const bool ok = m_target->Write(buffer, count, done);
    Note(here, buffer, *done, &old, size);
    return ok;
  }
  bool WriteAt(DWORD position, const void* buffer, DWORD count, DWORD* done) override {
    if (Refused(done)) return false;
    std::string old;
    const DWORD size = Before(position, count, &old);
    const bool ok = m_target->WriteAt(position, buffer, count, done);
    Note(position, buffer, *done, &old, size);
    return ok;
  }
  DWORD Seek(LONG distance, DWORD origin) override { return m_target->Seek(distance, origin); }
  bool SetEnd() override {
    if (m_env->PowerCut()) return Fault();
    if (!m_target->SetEnd()) return false;
    m_env->Durable(m_key);
    return true;
  }
  bool Reserve(DWORD size) override {
    if (m_env->PowerCut()) return Fault();
    if (!m_target->Reserve(size)) return false;
    m_env->Durable(m_key);
    return true;
  }
  DWORD Size() override { return m_target->Size(); }
  bool Flush() override {
    // Without power nothing more reaches the disk.
    if (m_env->PowerCut()) return Fault();
    if (!m_target->Flush()) return false;
    m_env->Durable(m_key);
    m_env->CountFlush(m_key);
    return true;
  }
  bool Advise(Advice advice, DWORD position, DWORD length) override {
    return m_target->Advise(advice, position, length);
  }
  bool IsFileAt(const char* path) override { return m_target->IsFileAt(path); }
  bool Close() override { return m_target->Close(); }

 private:
  static bool Fault() {
    SetLastError(kErrorWriteFault);
    return false;
  }
  bool Refused(DWORD* done) {
    if (!m_env->WriteFails()) return false;
    *done = 0;
    return Fault();
  }
  // The file's length, and into `old` the bytes a write of `count` at
  // `position` is about to cover.
  DWORD Before(DWORD position, DWORD count, std::string* old) {
    const DWORD size = m_target->Size();
    if (size == kInvalidFileSize || position >= size) return size;
    old->resize(std::min(count, size - position));
    DWORD got = 0;
    if (!m_target->ReadAt(position, &(*old)[0], static_cast<DWORD>(old->size()), &got)) got = 0;
    old->resize(got);
    return size;
  }
  void Note(DWORD position, const void* buffer, DWORD done, std::string* old, DWORD size) {
    if (done == 0 || size == kInvalidFileSize) return;
    if (old->size() > done) old->resize(done);
    m_env->Pending(m_key, position, buffer, done, std::move(*old), size);
  }

  std::unique_ptr<File> m_target;
  CrashEnv* m_env;
  const std::string m_key;
};

}  // namespace

void CrashEnv::CutPowerAtWrite(DWORD n) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_writes = 0;
  m_cutAt = n;
  m_cut = false;
}

void CrashEnv::CutPower() {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_cut = true;
}

bool CrashEnv::PowerCut() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_cut;
}

bool CrashEnv::ChangesFail() const { return PowerCut(); }

DWORD CrashEnv::Writes() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_writes;
}

std::vector<std::string> CrashEnv::TakeFlushes() {
  std::lock_guard<std::mutex> lock(m_mutex);
  std::vector<std::string> flushes;
  flushes.swap(m_flushes);
  return flushes;
}

bool CrashEnv::WriteFails() {
  std::lock_guard<std::mutex> lock(m_mutex);
  ++m_writes;
  if (m_cutAt != 0 && m_writes >= m_cutAt) m_cut = true;
  return m_cut;
}

void CrashEnv::Pending(const std::string& key, DWORD position, const void* data, DWORD count,
                       std::string old, DWORD oldSize) {
  std::lock_guard<std::mutex> lock(m_mutex);
  Track& track = m_pending[key];
  if (track.path.empty()) track.path = key;
  track.writes.push_back(
      Write{position, std::string(static_cast<const char*>(data), count), std::move(old), oldSize});
}

void CrashEnv::Durable(const std::string& key) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_pending.erase(key);
}

void CrashEnv::CountFlush(const std::string& key) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_flushes.push_back(key);
}

CrashEnv::Outcome CrashEnv::Settle(std::uint64_t seed) {
  std::lock_guard<std::mutex> lock(m_mutex);
  std::mt19937_64 random(seed);
  Outcome outcome;
  for (auto& entry : m_pending) {
    Track& track = entry.second;
    std::unique_ptr<File> file = m_target->OpenFile(track.path.c_str(), Access::kReadWrite,
                                                    kShareReadWrite, Disposition::kOpenExisting);
    if (!file) continue;
    DWORD done = 0;
    // Back to the flushed state: each write undone, the last first.
    for (auto w = track.writes.rbegin(); w != track.writes.rend(); ++w) {
      if (!w->old.empty()) {
        file->WriteAt(w->position, w->old.data(), static_cast<DWORD>(w->old.size()), &done);
      }
      if (file->Size() > w->oldSize &&
          file->Seek(static_cast<LONG>(w->oldSize), kFileBegin) != kInvalidSetFilePointer) {
        file->SetEnd();
      }
    }
    // Then each sector as one moment between the flush and the cut left
    // it: the writes that cover it up to some point, in their order. The
    // cache writes whole pages and the drive whole sectors, so no sector
    // holds a later write without the earlier ones over it.
    std::map<DWORD, std::vector<std::size_t>> sectors;  // the writes over each
    for (std::size_t i = 0; i < track.writes.size(); ++i) {
      const Write& w = track.writes[i];
      const DWORD end = w.position + static_cast<DWORD>(w.data.size());
      for (DWORD s = w.position / kSector; s <= (end - 1) / kSector; ++s) sectors[s].push_back(i);
    }
    std::vector<DWORD> kept(track.writes.size(), 0), parts(track.writes.size(), 0);
    for (const auto& sector : sectors) {
      const std::vector<std::size_t>& over = sector.second;
      const std::size_t upTo = static_cast<std::size_t>(random() % (over.size() + 1));
      const DWORD first = sector.first * kSector;
      for (std::size_t n = 0; n < over.size(); ++n) {
        const Write& w = track.writes[over[n]];
        ++parts[over[n]];
        if (n >= upTo) continue;
        ++kept[over[n]];
        const DWORD from = std::max(first, w.position);
        const DWORD to = std::min(first + kSector, w.position + static_cast<DWORD>(w.data.size()));
        file->WriteAt(from, w.data.data() + (from - w.position), to - from, &done);
      }
    }
    for (std::size_t i = 0; i < track.writes.size(); ++i) {
      if (kept[i] == parts[i]) {
        ++outcome.kept;
      } else if (kept[i] == 0) {
        ++outcome.dropped;
      } else {
        ++outcome.torn;
      }
    }
    file->Close();
  }
  m_pending.clear();
  m_writes = 0;
  m_cutAt = 0;
  m_cut = false;
  return outcome;
}

std::unique_ptr<File> CrashEnv::OpenFile(const char* path, Access access, unsigned share,
                                         Disposition disposition) {
  if (!MayOpen(path, disposition)) return nullptr;
  std::unique_ptr<File> file = m_target->OpenFile(path, access, share, disposition);
  if (!file) return nullptr;
  const std::string key = KeyOf(path);
  if (disposition == Disposition::kCreateAlways) Durable(key);  // cut to nothing
  return std::unique_ptr<File>(new CrashFile(std::move(file), this, key));
}

bool CrashEnv::RemoveFile(const char* path) {
  if (!PowerCutEnv::RemoveFile(path)) return false;
  Durable(KeyOf(path));
  return true;
}

}  // namespace platform
}  // namespace molra
