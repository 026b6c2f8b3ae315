// A timeline for people and for programs.
#pragma once

#include "machine/timeline.h"

#include <nlohmann/json.hpp>
#include <string>

namespace fixture {

// A line a cause that took any time: milliseconds in each start (where there are few), in all, its share, and what of
// it was dictated; then the whole boot, with its ratio.
std::string TimelineTable(const Timeline &timeline);

// `ms`, `dictated_ms`, `ratio` and `rest` (a share) of the boot; `starts`, each with its causes' `ms` and
// `dictated_ms`.
nlohmann::ordered_json TimelineJson(const Timeline &timeline);

} // namespace fixture
