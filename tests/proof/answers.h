// What the exports may answer, as the header says it.
#pragma once

#include "proof/exported.h"

#include <cstdint>

namespace vtproof {

// Whether the header names this result of the export, or says that it is an error of Windows, and it is one that can come here.
bool IsDocumented(Exported exported, std::uint32_t result);

} // namespace vtproof
