// Failed writes: each write of each operation fails in turn. The operation
// answers a failure (or the result it always gives), the failure reaches
// the status log, and a fresh object finds every chunk stored before.
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

TEST_F(WriteFailuresTest, AgeingAndMarkingThatLoseAWriteKeepTheOtherBaskets) {
  for (int i = 0; i < 12; ++i) ASSERT_EQ(SaveNext(), FS_OK);  // baskets 0, 1, 2
  recorder.CloseFS();
  const size_t firstOfBasket1 = 4, firstOfBasket2 = 9;
  // The oldest basket goes whole; until a run gets through, the next
  // housekeeping call (a fresh object) finds it oldest still.
  _tagFSBSKINFO info{};
  FailEachWrite([&] { return Loaded()->GetOldestBasketInfoAndBasketControl(0, &info); },
                [&](LONG result) {
                  EXPECT_EQ(result, 1);
                  ExpectStored(firstOfBasket1);
                });
  EXPECT_EQ(Loaded()->GetFSInfo()->dwOldest, 1u);
  const auto marker = Loaded();
  FailEachWrite([&] { return marker->SaveTimeWrite(At(10, 0, 0), 3); },
                [&](LONG result) { EXPECT_EQ(result, 1); });
  // More baskets: a failure undoes the new ones, the old ones stay.
  FailEachWrite(
      [&] {
        _tagBSKLOC more{4, 1};
        return Loaded()->CreateFS(&more, 1);
      },
      [&](LONG result) {
        EXPECT_TRUE(result == FS_OK || result == FS_ERR_CREATE || result == FS_ERR_CATALOG)
            << result;
        ExpectStored(firstOfBasket1);
        EXPECT_TRUE(result != FS_OK || Loaded()->GetFSInfo()->dwBaskets == 5u);
      });
  // Blanking the tables of the baskets before the current one, and taking
  // the first out: the current basket's chunks stay found.
  ASSERT_EQ(recorder.OpenFS(0), FS_OK);
  FailEachWrite([&] { return recorder.DelTBLSaveDataInfo("20101130", "1"); },
                [&](LONG result) {
                  EXPECT_EQ(result, FS_OK);
                  ExpectStored(firstOfBasket2);
                });
  recorder.CloseFS();
  // Until a run gets through, the list stays whole; then one basket less.
  FailEachWrite([&] { return CMOLRA().DeleteBakset(0); },
                [&](LONG result) {
                  EXPECT_EQ(result, FS_OK);
                  ExpectStored(firstOfBasket2);
                });
  EXPECT_EQ(Loaded()->GetFSInfo()->dwBaskets, 4u);
}

TEST_F(WriteFailuresTest, TheFlushPolicyFlushesInOrderOnLeavingABasketAndAfterItsInterval) {
  const auto saveAndFlushes = [&](bool nextBasket = false) {
    m_faults->Reset();
    if (nextBasket) m_saved = 4;  // the next save starts a new basket
    EXPECT_EQ(SaveNext(), FS_OK);
    return m_faults->Flushes();
  };
  EXPECT_EQ(saveAndFlushes(), "");  // never, unless the host asks
  platform::SetFlushInterval(1);
  EXPECT_EQ(saveAndFlushes(), "CDT CIN CTA CFT");
  EXPECT_EQ(saveAndFlushes(), "");
  m_clock.wSecond += 1;
  platform::SetClock(&m_clock);
  EXPECT_EQ(saveAndFlushes(), "CDT CIN CTA CFT");
  // The basket left first, then the save in the new one is within the second.
  EXPECT_EQ(saveAndFlushes(true), "CDT CIN CTA CFT");
  platform::SetFlushInterval(0);
  EXPECT_EQ(saveAndFlushes(true), "");
}

}  // namespace
}  // namespace molra_test
