// JSON objects against the schema that the project publishes (docs/report.schema.json).
#pragma once

#include <string>
#include <vector>

namespace fixture {

// What is wrong with any of them, a line each; empty where all of them fit.
std::string SchemaErrors(const std::vector<std::string> &objects);

} // namespace fixture
