#include "model/state.h"

#include <cstring>

namespace vtfltsim::model {

namespace {

constexpr std::uint32_t SPENT = 2; // inUse of a fault that struck for the last time

bool Matches(const FaultRecord& fault, std::uint32_t code, std::uint32_t endpoint)
{
    return fault.inUse == 1 && fault.code == code && (fault.endpoint == ENDPOINT_ANY || fault.endpoint == endpoint);
}

// True when the fault hits this request.
bool Count(FaultRecord& fault)
{
    if (fault.skip != 0) {
        --fault.skip;
        return false;
    }
    if (fault.remaining != 0 && --fault.remaining == 0)
        fault.inUse = SPENT;
    return true;
}

} // namespace

void InitialiseMachine(MachineRecord& machine)
{
    std::memset(static_cast<void*>(&machine), 0, sizeof(machine));
    machine.version = MACHINE_VERSION;
    machine.driver = DriverState::Working;
    machine.nextSerial = 1;
    machine.nextSnapshot = 1;
}

bool AddFault(MachineRecord& machine, const FaultRecord& fault)
{
    for (auto& slot : machine.faults) {
        if (slot.inUse == 1)
            continue;
        slot = fault;
        slot.inUse = 1;
        return true;
    }
    return false;
}

void ClearFaults(MachineRecord& machine)
{
    for (auto& slot : machine.faults)
        slot.inUse = 0;
    machine.enumerationStep = 0;
}

const FaultRecord* StrikeFault(MachineRecord& machine, std::uint32_t code, std::uint32_t endpoint)
{
    const FaultRecord* struck = nullptr;
    for (auto& fault : machine.faults) {
        if (Matches(fault, code, endpoint) && Count(fault) && struck == nullptr)
            struck = &fault;
    }
    return struck;
}

} // namespace vtfltsim::model
