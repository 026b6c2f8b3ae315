// A finding in the JSON that a part of a campaign writes and the merge reads.
#pragma once

#include "sweep/run.h"

#include <nlohmann/json.hpp>

namespace fixture {

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Finding, id, processor, outcome, detail)

} // namespace fixture
