// A plan in the two forms in which it is handed out. Pure functions; any thread.

#pragma once

#include <string>

#include "RequestPlan.h"

namespace VarnScripts {

/// The plan as people read it, one line per thing.
[[nodiscard]] std::string planText(const RequestPlan& plan);

/// The plan as one JSON object and a line break.
[[nodiscard]] std::string planJson(const RequestPlan& plan);

}  // namespace VarnScripts
