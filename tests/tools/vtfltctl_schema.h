// The schemas of vtfltctl's JSON, and as much of a validator as they need.
#pragma once

#include <nlohmann/json.hpp>

#include <string>

namespace vtfltctl_test {

// What is wrong with a value by a schema, one line each with its place; empty when nothing is. A keyword that the
// validator does not know is wrong, too: it would be checked by nobody.
std::string Violations(const nlohmann::json& value, const nlohmann::json& schema);

// The schema of a file of the folder, by its name without the ending; null when there is none.
nlohmann::json LoadSchema(const std::string& name);

} // namespace vtfltctl_test
