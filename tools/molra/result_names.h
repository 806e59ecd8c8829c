// Words for the store's result codes and the system's error numbers, for
// the one line that a failed command leaves on standard error.
#pragma once

#include <string>

#include "molra/types.h"

namespace molra_tools {

// "FS_ERR_CATALOG (the catalogue cannot be opened, or lists no baskets)".
std::string DescribeResult(LONG result);

// The system's text for an errno value, with the number.
std::string DescribeErrno(int error);

}  // namespace molra_tools
