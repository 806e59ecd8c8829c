// Failed writes: each write of each operation fails in turn. The operation
// answers a failure (or the result it always gives), the failure reaches
// the status log, and a fresh object finds every chunk stored before.
#include <array>
#include <functional>
#include <memory>
#include <set>
#include <tuple>

#include "platform/fault_injection.h"
#include "recording/recording_fixture.h"

namespace molra_test {
namespace {

namespace platform = molra::platform;

class WriteFailuresTest : public DamageTest {
 protected:
  void SetUp() override {
    DamageTest::SetUp();
    ASSERT_NO_FATAL_FAILURE(Make(4));
  }
  // One chunk a second from 10:00:00 on; every fifth starts a new basket.
  LONG SaveNext() {
    const WORD n = m_saved++;
    const SYSTEMTIME t = At(10 + n / 3600, n / 60 % 60, n % 60);
    if (m_saved % 5 == 0) NextBasket();
    const LONG result = SaveWith(recorder, m_saved % 16, t);
    // A basket the ring takes over again loses what it held, and so does
    // one that a failed rollover took out of the ring.
    const std::string basket = recorder.Basket(recorder.GetFSInfo()->dwCurrent)->szPath;
    std::set<std::string> listed;
    for (DWORD b = 0; b < recorder.GetFSInfo()->dwBaskets; ++b)
      listed.insert(recorder.Basket(b)->szPath);
    for (auto& [stored, where] : m_stored) {
      if ((where == basket && basket != m_lastBasket) || listed.count(where) == 0) stored.wYear = 0;
    }
    m_lastBasket = basket;
    if (result == FS_OK) m_stored.emplace_back(t, basket);
    return result;
  }
  // Every chunk saved with FS_OK and not overwritten since (year 0), by a
  // fresh reader, except those before `from` (taken away on purpose).
  void ExpectStored(size_t from = 0) {
    CMOLRA fresh;
    ASSERT_EQ(fresh.OpenFS(1), FS_OK);
    for (size_t i = from; i < m_stored.size(); ++i) {
      const SYSTEMTIME t = m_stored[i].first;
      if (t.wYear == 0) continue;
      _tagCHUNKHDR h{};
      h.stTime = t;
      h.chChannel = -1;
      const LONG result = fresh.ReadDataEx2(&h, payload.data());
      const SYSTEMTIME got = h.stTime;
      EXPECT_EQ(std::make_tuple(result, got.wHour, got.wMinute, got.wSecond),
                std::make_tuple(FS_OK, t.wHour, t.wMinute, t.wSecond));
    }
  }
  // Runs `operation` with write 1, 2, ... failing until it runs through
  // without reaching the failing write; `check` judges each run.
  void FailEachWrite(const std::function<LONG()>& operation,
                     const std::function<void(LONG)>& check) {
    for (DWORD n = 1;; ++n) {
      SCOPED_TRACE(testing::Message() << "write " << n << " fails");
      const size_t logged = Log().size();
      m_faults->FailWriteAt(n);
      const LONG result = operation();
      const bool reached = m_faults->Writes() >= n;
      m_faults->Reset();
      EXPECT_TRUE(!reached || Log().size() > logged) << "a failed write leaves a line";
      check(result);
      if (!reached || HasFatalFailure()) return;
    }
  }
  // A fresh object on the catalogue, as the host's housekeeping uses.
  static std::unique_ptr<CMOLRA> Loaded() {
    auto store = std::make_unique<CMOLRA>();
    store->CallLoadFSinfo();
    return store;
  }

  platform::ScopedFaultInjection m_faults;
  std::vector<std::pair<SYSTEMTIME, std::string>> m_stored;  // and the basket it went to
  std::string m_lastBasket = "D:\\MOLRA\\FS000000";
  WORD m_saved = 0;
};

TEST_F(WriteFailuresTest, ASaveThatLosesAWriteSaysSoOrIsFoundAfterTheNext) {
  for (int save = 0; save < 12; ++save) {
    FailEachWrite([&] { return SaveNext(); },
                  [&](LONG result) {
                    EXPECT_TRUE(result == FS_OK || result == FS_ERR_MODE) << result;
                    // The recorder goes on: the next save stores, and then
                    // every chunk saved with FS_OK is found.
                    ASSERT_EQ(SaveNext(), FS_OK);
                    ExpectStored();
                  });
  }
}

// Housekeeping with each write failing in turn: every run gives one of the
// call's answers and leaves the chunks of the baskets it spares found; once
// a run gets through, the ring has its new shape.
TEST_F(WriteFailuresTest, HousekeepingThatLosesAWriteKeepsTheOtherBaskets) {
  for (int i = 0; i < 12; ++i) ASSERT_EQ(SaveNext(), FS_OK);  // baskets 0, 1, 2
  recorder.CloseFS();
  const auto marker = Loaded();
  _tagFSBSKINFO info{};
  _tagBSKLOC more{4, 1};
  const struct {
    std::function<LONG()> call;
    std::set<LONG> answers;
    bool open;                  // with the recorder open
    size_t spared;              // the first chunk of the baskets spared
    std::array<DWORD, 2> ring;  // baskets and the oldest once a run got through
  } calls[] = {
      {[&] { return marker->SaveTimeWrite(At(10, 0, 0), 3); }, {1}, false, 0, {4, 0}},
      // The oldest basket goes whole; until a run gets through, the next
      // call (a fresh object) finds it oldest still.
      {[&] { return Loaded()->GetOldestBasketInfoAndBasketControl(0, &info); }, {1}, false, 4,
       {4, 1}},
      // More baskets: a failure undoes the new ones, the old ones stay.
      {[&] { return Loaded()->CreateFS(&more, 1); }, {FS_OK, FS_ERR_CREATE, FS_ERR_CATALOG}, false,
       4, {5, 1}},
      // Blanking the tables of the baskets before the current one, and
      // taking the first out: the current basket's chunks stay found.
      {[&] { return recorder.DelTBLSaveDataInfo("20101130", "1"); }, {FS_OK}, true, 9, {5, 1}},
      {[] { return CMOLRA().DeleteBakset(0); }, {FS_OK}, false, 9, {4, 1}},
  };
  for (const auto& c : calls) {
    ASSERT_TRUE(!c.open || recorder.OpenFS(0) == FS_OK);
    FailEachWrite(c.call, [&](LONG result) {
      EXPECT_EQ(c.answers.count(result), 1u) << result;
      ExpectStored(c.spared);
    });
    recorder.CloseFS();
    const auto loaded = Loaded();
    EXPECT_EQ((std::array<DWORD, 2>{loaded->GetFSInfo()->dwBaskets, loaded->GetFSInfo()->dwOldest}),
              c.ring);
  }
}

// A save's flushes under the interval set (0: never, unless the host asks),
// a second later or not, and starting a new basket or not.
TEST_F(WriteFailuresTest, TheFlushPolicyFlushesInOrderOnLeavingABasketAndAfterItsInterval) {
  const struct { DWORD interval; bool later, newBasket; const char* flushes; } saves[] = {
      {0, false, false, ""}, {1, false, false, "CDT CIN CTA CFT"}, {1, false, false, ""},
      {1, true, false, "CDT CIN CTA CFT"},
      // The basket left first, then the save in the new one is within the second.
      {1, false, true, "CDT CIN CTA CFT"}, {0, false, true, ""}};
  for (const auto& s : saves) {
    platform::SetFlushInterval(s.interval);
    m_clock.wSecond += s.later ? 1 : 0;
    platform::SetClock(&m_clock);
    if (s.newBasket) m_saved = 4;  // the next save starts a new basket
    m_faults->Reset();
    EXPECT_EQ(SaveNext(), FS_OK);
    EXPECT_EQ(m_faults->Flushes(), s.flushes);
  }
}

}  // namespace
}  // namespace molra_test
