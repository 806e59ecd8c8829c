#include "result_names.h"

#include <cstring>

#include "molra/records.h"

namespace molra_tools {

std::string DescribeResult(LONG result) {
  switch (result) {
    case FS_OK:
      return "FS_OK (success)";
    case FS_ERR_CATALOG:
      return "FS_ERR_CATALOG (the catalogue cannot be opened, or lists no baskets)";
    case FS_ERR_PARAM:
      return "FS_ERR_PARAM (an argument names nothing the store holds)";
    case FS_ERR_CREATE:
      return "FS_ERR_CREATE (a basket file cannot be made at its size: is the drive full?)";
    case FS_ERR_CANCEL:
      return "FS_ERR_CANCEL (the making of a basket was refused)";
    case FS_ERR_MEMORY:
      return "FS_ERR_MEMORY (out of memory)";
    case FS_ERR_FILE:
      return "FS_ERR_FILE (a basket's data or table file cannot be opened or read)";
    case FS_ERR_INDEX:
      return "FS_ERR_INDEX (a basket's index cannot be opened)";
    case FS_ERR_MODE:
      return "FS_ERR_MODE (not allowed in this open mode)";
    case FS_END_OF_DATA:
      return "FS_END_OF_DATA (no later chunk)";
    case FS_BEGIN_OF_DATA:
      return "FS_BEGIN_OF_DATA (no earlier chunk)";
    default:
      return "result " + std::to_string(result) + " (not a result code of the store)";
  }
}

std::string DescribeErrno(int error) {
  return std::string(std::strerror(error)) + " (errno " + std::to_string(error) + ")";
}

}  // namespace molra_tools
