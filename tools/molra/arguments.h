// The values on molra's command line, each checked before any store is
// touched: a problem comes back as the words for the error line.
#pragma once

#include <string>

#include "molra/types.h"

namespace molra_tools {

// "D:N": N baskets on drive D.
struct DriveCount {
  char letter = 0;  // 'A' to 'Z'
  LONG count = 0;   // 1 or more
};

// A UTC day, "YYYY-MM-DD".
struct Day {
  int year = 0;
  int month = 0;
  int day = 0;
};

// Each answers "" and fills `out`, or the problem.
std::string ParseDriveCount(const std::string& text, DriveCount* out);
std::string ParseDay(const std::string& text, Day* out);

}  // namespace molra_tools
