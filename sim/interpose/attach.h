// The machine that this process is attached to, and the modules whose imports are redirected.
#pragma once

#include "interpose/machine.h"

#include <memory>

namespace vtfltsim {

// The attached machine; null when there is none.
std::shared_ptr<Machine> AttachedMachine();

DWORD AttachModule(const std::shared_ptr<Machine>& machine, HMODULE module);
DWORD DetachModule(HMODULE module);
void DetachAll();

} // namespace vtfltsim
