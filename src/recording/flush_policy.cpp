// The host's flush policy for a recorder: the order of the writes guards
// against a crash of the process, a flush against the loss of the page
// cache at a power cut.
#include "disk/fs_file.h"
#include "index/fs_index.h"
#include "molra/molra.h"
#include "platform/clock.h"
#include "platform/settings.h"

namespace {

std::int64_t NowMs() {
  SYSTEMTIME now;
  molra::platform::GetSystemTime(&now);
  return molra::platform::StampToUnixMillis(now);
}

}  // namespace

void CMOLRA::FlushRecording() {
  // Each failure leaves its line in the status log; the next flush tries again.
  if (m_pData) m_pData->Flush();
  if (m_pIndex) m_pIndex->Flush();
  if (m_pTable) m_pTable->Flush();
  if (m_pCatalog) m_pCatalog->Flush();
  m_lastFlushMs = NowMs();
}

void CMOLRA::FlushIfDue() {
  const DWORD interval = molra::platform::FlushInterval();
  if (interval == 0) return;
  const std::int64_t since = NowMs() - m_lastFlushMs;
  // A clock set back counts as due: the flush never waits on a wrong clock.
  if (since >= std::int64_t{interval} * 1000 || since < 0) FlushRecording();
}
