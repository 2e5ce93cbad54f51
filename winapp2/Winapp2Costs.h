#pragma once
// The one table that gives a winapp2 entry its cost class, since the file
// has no key for it: from the entry's name and from what its rules target
// (file masks, the folders and keys they name). An entry whose name or
// rules reach several classes takes the highest. Internal to the engine.
#include <vector>

#include "scandefs/ItemTraits.h"
#include "winapp2/Winapp2Text.h"

namespace broom {
namespace winapp2 {

// targets: the masks, folder names, key names and value names of the
// entry's rules, as written (variables left out).
ECost CostOf(Text entryName, const std::vector<Text>& targets);

}  // namespace winapp2
}  // namespace broom
