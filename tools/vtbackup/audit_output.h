// What a backup says of its audit.
#pragma once

#include "lost_tracking.h"
#include "manifest.h"

#include <nlohmann/json.hpp>

#include <string>

namespace vtbackup {

// For a stored backup with an audit.
std::string AuditText(const Manifest& manifest);
nlohmann::json AuditJson(const Manifest& manifest);

// Prints the evidence of a loss, and what became of it. Returns the command's exit code.
Exit PrintLoss(const LostTracking& loss, bool asJson);

// One line for a list of backups.
std::string LossLine(const nlohmann::json& evidence);

} // namespace vtbackup
