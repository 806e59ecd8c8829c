// Opening a basket over whatever a lost, torn or cut write has left in
// its index and data head.
#pragma once

#include "molra/records.h"

namespace molra {
namespace detail {
class CFsFile;
class CFsIndex;
}  // namespace detail

// For the basket a recorder is about to write into: checks the index
// against its header and the data head against the chunks the index
// names, and sets right in place what damage has broken, with one line in
// the status log. `basket` is its catalogue record, `head` the data head
// as read; an intact basket is only read.
void RecoverBasket(const _tagFSBSKINFO& basket, detail::CFsIndex* index, detail::CFsFile* data,
                   _tagDATAHDR* head);

// For a reader: a header that the index rebuilt from its nodes is checked
// against the data file too, in memory. Nothing is written.
void ReadRebuiltIndex(detail::CFsIndex* index, detail::CFsFile* data);

}  // namespace molra
