// verify: every file of the store checked against its format, read only.

#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "console.h"
#include "commands.h"
#include "verify/store_verifier.h"

namespace molra_tools {

namespace {

// A bar on a terminal, drawn only once the check has run for a while, so
// that a small store gives no flicker.
class ProgressBar {
 public:
  ProgressBar() : m_enabled(molra_tools::StderrIsTerminal()), m_start(Clock::now()) {}
  ~ProgressBar() {
    if (m_drawn) std::fprintf(stderr, "\r%*s\r", 60, "");
  }
  void Show(DWORD done, DWORD total) {
    if (!m_enabled || total == 0 || Clock::now() - m_start < std::chrono::milliseconds(500)) return;
    constexpr DWORD kWidth = 30;
    const DWORD filled = static_cast<DWORD>(static_cast<unsigned long long>(done) * kWidth / total);
    std::fprintf(stderr, "\r[%s%s] %u of %u baskets", std::string(filled, '#').c_str(),
                 std::string(kWidth - filled, ' ').c_str(), static_cast<unsigned>(done),
                 static_cast<unsigned>(total));
    std::fflush(stderr);
    m_drawn = true;
  }

 private:
  using Clock = std::chrono::steady_clock;
  bool m_enabled;
  Clock::time_point m_start;
  bool m_drawn = false;
};

// A finding may quote bytes of a damaged file as they stand.
std::string Plain(const std::string& text) { return Printable(text.c_str(), text.size()); }

}  // namespace

int RunVerify(bool json) {
  std::vector<molra::Finding> findings;
  bool opened = false;
  {
    ProgressBar bar;
    opened =
        molra::VerifyStore(&findings, [&bar](DWORD done, DWORD total) { bar.Show(done, total); });
  }
  if (!opened) {
    return Refuse(std::string("no store to verify: the catalogue ") + kCataloguePath +
                  " does not exist");
  }
  const std::string summary = findings.empty() ? "sound"
                              : findings.size() == 1
                                  ? "1 finding"
                                  : std::to_string(findings.size()) + " findings";
  if (json) {
    nlohmann::ordered_json out{
        {"findings", nlohmann::ordered_json::array()},
        {"summary",
         {{"sound", findings.empty()}, {"findings", findings.size()}, {"text", summary}}}};
    for (const molra::Finding& f : findings) {
      out["findings"].push_back(
          {{"file", Plain(f.file)}, {"offset", f.offset}, {"what", Plain(f.what)}});
    }
    std::printf("%s\n", out.dump(2).c_str());
  } else {
    for (const molra::Finding& f : findings) {
      std::printf("%s at %u: %s\n", Plain(f.file).c_str(), static_cast<unsigned>(f.offset),
                  Plain(f.what).c_str());
    }
    std::printf("%s\n", summary.c_str());
  }
  return findings.empty() ? kExitOk : kExitFound;
}

}  // namespace molra_tools
