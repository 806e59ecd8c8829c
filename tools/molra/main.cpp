// molra: lays out, inspects, checks and ages a recording store from the
// command line, and takes H.264 video in and out of it. Every value is
// checked before the first library call, since even loading the catalogue
// makes the store's home directory.

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "arguments.h"
#include "commands.h"
#include "molra/platform.h"
#include "result_names.h"
#include "retention_days.h"
#include "utc_time.h"

namespace {

// A check of CLI11 from one of the parsers of arguments.h.
template <typename Value>
CLI::Validator Checked(std::string (*parse)(const std::string&, Value*)) {
  return CLI::Validator(
      [parse](std::string& text) {
        Value ignored;
        return parse(text, &ignored);
      },
      "");
}

// A directory for the drives: one that is there, or that the library can
// make when it first needs it.
CLI::Validator DrivesCheck() {
  return CLI::Validator(
      [](std::string& directory) -> std::string {
        if (directory.empty()) return "the directory is empty";
        std::error_code error;
        const auto status = std::filesystem::status(directory, error);
        if (status.type() == std::filesystem::file_type::not_found) return "";
        if (error) return directory + ": " + error.message();
        return std::filesystem::is_directory(status)
                   ? ""
                   : directory + ": " + molra_tools::DescribeErrno(ENOTDIR);
      },
      "");
}

CLI::Validator RetentionDaysCheck() {
  return CLI::Validator([](std::string& text) { return molra_tools::RetentionDaysProblem(text); },
                        "");
}

// Help asked for: the usage on standard output, 0. Anything else: one line
// naming the problem (`problem` when given, else the parser's words), then
// the usage, on standard error, 2.
int EndOfParse(const CLI::App& app, const CLI::ParseError& error, const std::string& problem) {
  if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
    std::fputs(app.help().c_str(), stdout);
    return molra_tools::kExitOk;
  }
  std::fprintf(stderr, "molra: %s\n%s", problem.empty() ? error.what() : problem.c_str(),
               app.help().c_str());
  return molra_tools::kExitRefused;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Lays out, inspects, checks and ages a recording store; records and exports H.264.",
               "molra"};
  app.require_subcommand(1);
  app.fallthrough();
  app.footer(
      "Times are UTC. Exit codes: 0 done; 1 the store is damaged, the check found faults, "
      "nothing was found, or a record or export stopped part way (what it did stays); 2 the "
      "command line, the store or the input was refused, and nothing was stored or written.");

  std::string drives;
  app.add_option("--drives", drives,
                 "drive letter X lies in DIR/x (default: molra-drives/x below the current "
                 "directory)")
      ->type_name("DIR")
      ->check(DrivesCheck());

  bool json = false;

  CLI::App* create =
      app.add_subcommand("create", "lay out a store of N baskets on drive D, and so on");
  std::vector<std::string> layout;
  bool extend = false;
  create->add_option("DRIVE:COUNT", layout, "COUNT baskets on drive DRIVE, e.g. D:100 E:50")
      ->required()
      ->type_name("")
      ->check(Checked(&molra_tools::ParseDriveCount));
  create->add_flag("--extend", extend, "add the baskets to the store that exists");

  CLI::App* info = app.add_subcommand("info", "the catalogue: its head and one row per basket");
  info->add_flag("--json", json, "print JSON");

  CLI::App* verify = app.add_subcommand("verify", "check every file of the store, reading only");
  verify->add_flag("--json", json, "print JSON");

  CLI::App* timeline =
      app.add_subcommand("timeline", "the hours of a UTC day that hold recordings, per channel");
  std::string dayText;
  int channel = -1, hour = -1;
  timeline->add_option("DAY", dayText, "the day, YYYY-MM-DD")
      ->required()
      ->type_name("")
      ->check(Checked(&molra_tools::ParseDay));
  CLI::Option* channelOption =
      timeline->add_option("--channel", channel, "with --hour: the minutes of channel C, 0 to 15")
          ->type_name("C")
          ->check(CLI::Range(0, 15).description(""));
  CLI::Option* hourOption =
      timeline->add_option("--hour", hour, "with --channel: the hour H, 0 to 23")
          ->type_name("H")
          ->check(CLI::Range(0, 23).description(""));
  channelOption->needs(hourOption);
  hourOption->needs(channelOption);
  timeline->add_flag("--json", json, "print JSON");

  CLI::App* retain = app.add_subcommand(
      "retain", "erase or cut the oldest baskets down to a retention time in days");
  std::string daysText;
  retain->add_option("DAYS", daysText, "the retention time, a whole number of days, 1 or more")
      ->required()
      ->type_name("")
      ->check(RetentionDaysCheck());

  CLI::App* record = app.add_subcommand(
      "record", "store an H.264 byte stream in a channel, one chunk per frame (access unit)");
  int recordChannel = 0;
  std::string fpsText = "25", startText, input;
  record->add_option("--channel", recordChannel, "the channel C, 0 to 15")
      ->required()
      ->type_name("C")
      ->check(CLI::Range(0, 15).description(""));
  record->add_option("--fps", fpsText, "frames a second F, the step of the stamps (default 25)")
      ->type_name("F")
      ->check(Checked(&molra_tools::ParseFrameRate));
  record->add_option("--start", startText,
                     "the first frame's stamp, YYYY-MM-DD HH:MM:SS[.mmm] (default now)")
      ->type_name("TIME")
      ->check(Checked(&molra_tools::ParseUtcTime));
  record->add_option("FILE", input, "an H.264 Annex B stream; - reads standard input")
      ->required()
      ->type_name("");
  record->footer(
      "Frame n is stamped TIME + n/F seconds, to the millisecond; IDR frames are key frames. "
      "A stream that is not H.264 Annex B, or a TIME not after the store's newest stamp, is "
      "refused before anything is stored (2). A stream that breaks off, or holds a frame longer "
      "than a chunk takes (811008 bytes), keeps the frames before the break (1).");

#ifdef MOLRA_WITH_LIBAV
  CLI::App* exporter = app.add_subcommand(
      "export", "write a channel's frames of a time range to a video file, as stored");
#else
  CLI::App* exporter =
      app.add_subcommand("export", "not in this build: molra was built without libavformat");
#endif
  int exportChannel = 0;
  std::string fromText, toText, output;
  exporter->add_option("--channel", exportChannel, "the channel C, 0 to 15")
      ->required()
      ->type_name("C")
      ->check(CLI::Range(0, 15).description(""));
  exporter->add_option("--from", fromText, "the range's start, YYYY-MM-DD HH:MM:SS[.mmm]")
      ->required()
      ->type_name("TIME")
      ->check(Checked(&molra_tools::ParseUtcTime));
  exporter->add_option("--to", toText, "the range's end, left out")
      ->required()
      ->type_name("TIME")
      ->check(Checked(&molra_tools::ParseUtcTime));
  exporter->add_option("OUT", output, "the file: .mp4, .mov, .mkv or .ts")
      ->required()
      ->type_name("")
      ->check(Checked(&molra_tools::ParseVideoFile));
#ifdef MOLRA_WITH_LIBAV
  exporter->footer(
      "The chunks stamped in [--from, --to), from the key frame at or before --from, copied "
      "without re-encoding; decode times are the stamps. Nothing recorded then: 1.");
#else
  exporter->footer("This molra was built without libavformat, libavcodec and libavutil.");
#endif

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    // With no command recognised the parser only says that one is
    // missing; the first word it could not place is the culprit.
    std::string problem;
    const std::vector<std::string> unplaced = app.remaining();
    if (app.get_subcommands().empty() && !unplaced.empty()) {
      problem = unplaced.front().rfind('-', 0) == 0 ? "unknown option " + unplaced.front()
                                                    : "unknown command " + unplaced.front();
    }
    return EndOfParse(app, error, problem);
  }

  // From here on the store may be touched.
  if (!drives.empty()) {
    for (char letter = 'a'; letter <= 'z'; ++letter) {
      molra::platform::SetDriveRoot(letter, drives + "/" + letter);
    }
  }
  // Local time is UTC: the library's local stamps are then the UTC ones.
  TIME_ZONE_INFORMATION utc{};
  const char* name = "UTC";
  for (int i = 0; name[i] != 0; ++i) utc.StandardName[i] = static_cast<WCHAR>(name[i]);
  molra::platform::SetTimeZone(&utc);

  if (create->parsed()) {
    std::vector<molra_tools::DriveCount> counts(layout.size());
    for (size_t i = 0; i < layout.size(); ++i) molra_tools::ParseDriveCount(layout[i], &counts[i]);
    return molra_tools::RunCreate(counts, extend);
  }
  if (info->parsed()) return molra_tools::RunInfo(json);
  if (verify->parsed()) return molra_tools::RunVerify(json);
  if (timeline->parsed()) {
    molra_tools::Day day;
    molra_tools::ParseDay(dayText, &day);
    return molra_tools::RunTimeline(day, channel, hour, json);
  }
  if (retain->parsed()) return molra_tools::RunRetain(molra_tools::RetentionDays(daysText));
  if (record->parsed()) {
    double fps = 25;
    long long start = molra_tools::NowMilliseconds();
    molra_tools::ParseFrameRate(fpsText, &fps);
    if (!startText.empty()) molra_tools::ParseUtcTime(startText, &start);
    return molra_tools::RunRecord(recordChannel, fps, start, input);
  }
  if (exporter->parsed()) {
#ifdef MOLRA_WITH_LIBAV
    long long from = 0, to = 0;
    molra_tools::ParseUtcTime(fromText, &from);
    molra_tools::ParseUtcTime(toText, &to);
    if (from >= to) {
      std::fprintf(stderr, "molra: --from must lie before --to\n%s", app.help().c_str());
      return molra_tools::kExitRefused;
    }
    return molra_tools::RunExport(exportChannel, from, to, output);
#else
    return molra_tools::Refuse("this molra was built without libavformat: no export");
#endif
  }
  return molra_tools::kExitRefused;
}
