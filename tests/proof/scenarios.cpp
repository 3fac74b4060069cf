#include "proof/sweep.h"

namespace vtproof {

namespace {

struct Piece {
    const char* name;
    const char* text;
};

constexpr char MACHINE[] = "machine 100:1024 60:512; ";
// Bitmaps of three sectors, and changes whose bits lie in each of them.
constexpr char LONG_MACHINE[] = "machine 8192:512 60:512; ";
constexpr char FAR_APART[] = "write 0 0 6 2; write 0 0 4100 9; write 0 0 8000; ";

// Two volumes, up to two applications, changes that are owed.
const Piece STATES[] = {
    {"a new machine", ""},
    {"a registered application", "register 0; write 0 0 3"},
    {"changes owed to one", "register 0; write 0 0 3; backup 0 0; backup 0 1; write 0 0 40 9; write 0 1 7"},
    {"changes owed to two", "register 0; register 1; write 0 0 3 5; backup 0 0; backup 1 0; write 0 0 70 3"},
    {"changes in a child", "register 0; register 1; backup 0 0; backup 1 0; write 0 0 70 3; backup 1 0; write 0 0 9"},
    {"changes in a base",
     "register 0; register 1; backup 0 0; backup 1 0; write 0 0 70 3; begin 0 0; fetch 0; abandon 0; write 0 0 9"},
    {"tracking lost", "register 0; register 1; write 0 0 3 5; backup 0 0; backup 1 0; lose-tracking 0 0; write 0 0 8"},
    {"its child deleted", "register 0; register 1; backup 0 0; backup 1 0; write 0 0 5; damage 0 0 0 0"},
    {"its base deleted", "register 0; register 1; backup 0 0; backup 1 0; write 0 0 5; damage 0 0 1 0"},
    {"the other's child deleted", "register 0; register 1; backup 0 0; backup 1 0; write 0 0 5; damage 1 0 0 0"},
    {"its base without trailer", "register 0; register 1; backup 0 0; backup 1 0; write 0 0 5; damage 0 0 1 4"},
    {"its child without trailer", "register 0; register 1; backup 0 0; backup 1 0; write 0 0 5; damage 0 0 0 4"},
    {"the other's child with changes and without trailer",
     "register 0; register 1; backup 0 0; backup 1 0; write 0 0 5; backup 0 0; write 0 0 9; damage 1 0 0 4"},
    {"changes in a base without trailer",
     "register 0; register 1; backup 0 0; backup 1 0; write 0 0 70 3; begin 0 0; fetch 0; abandon 0; write 0 0 9; "
     "damage 0 0 1 4"},
    {"another length", "register 0; register 1; backup 0 0; backup 1 0; write 0 0 5; resize 0 0 300; write 0 0 250"},
    {"another block size",
     "register 0; register 1; backup 0 0; backup 1 0; write 0 0 5; block-size 0 0 2048; write 0 0 9"},
    {"everything to verify", "register 0; register 1; backup 0 0; backup 1 0; write 0 0 5; mark-all 0"},
    {"registered again", "register 0; register 1; backup 0 0; backup 1 0; unregister 0; write 0 0 5; register 0"},
    {"a driver that is away", "register 0; register 1; backup 0 0; backup 1 0; stop-driver; write 0 0 5"},
    {"the volume's tracking ended", "register 0; register 1; backup 0 0; backup 1 0; write 0 0 5; stop-volume 0 0"},
};

const Piece OPERATIONS[] = {
    {"registering", "register 2"},
    {"unregistering", "unregister 0"},
    {"a backup", "backup 0 0"},
    {"a backup with changes in its snapshot", "backup 0 0 12 4"},
    {"the other's backup", "backup 1 0"},
    {"registering without having asked", "register-again 0"},
    {"the questions", "ask 0 0"},
    {"marking every volume", "mark-all 0"},
    {"taking a mark off", "unmark 0"},
    {"monitoring on", "monitor 0 0 1"},
    {"ending a volume's tracking", "stop-volume 0 0"},
};

const Piece OTHERS[] = {
    {"monitoring off", "register 0; monitor 0 0 1; monitor 0 0 0"},
    {"monitoring on beside another one", "register 0; register 1; monitor 1 0 1; monitor 0 0 1"},
    {"monitoring off beside another one", "register 0; register 1; monitor 1 0 1; monitor 0 0 1; monitor 0 0 0"},
    {"taking its own mark off, with another volume's beside it",
     "register 0; backup 0 0; backup 0 1; lose-tracking 0 0; lose-tracking 0 1; begin 0 0; abandon 0; unmark 0 0 1"},
    {"taking off what is no mark, with a mark beside it",
     "register 0; backup 0 0; write 0 0 5; lose-tracking 0 0; begin 0 0; abandon 0; unmark 0 0"},
    {"deleting all bitmaps", "register 0; register 1; backup 0 0; write 0 0 5; stop-volumes 0"},
    {"beginning", "register 0; register 1; backup 0 0; write 0 0 5; begin 0 0"},
    {"fetching", "register 0; register 1; backup 0 0; write 0 0 5; begin 0 0; write 0 0 9; fetch 0"},
    {"fetching what was lost", "register 0; register 1; backup 0 0; begin 0 0; lose-tracking 0 0; fetch 0"},
    {"fetching with its child deleted meanwhile",
     "register 0; register 1; backup 0 0; write 0 0 5; backup 1 0; begin 0 0; damage 0 0 0 0; fetch 0"},
    {"fetching with its base deleted meanwhile",
     "register 0; register 1; backup 0 0; write 0 0 5; begin 0 0; fetch 0; abandon 0; begin 0 0; damage 0 0 1 0; fetch 0"},
    {"finishing", "register 0; register 1; backup 0 0; write 0 0 5; begin 0 0; fetch 0; write 0 0 9; finish 0"},
    {"finishing with changes in the snapshot",
     "register 0; register 1; backup 0 0; write 0 0 5; begin 0 0; fetch 0; write 0 0 9; finish 0 0 30 5"},
    {"finishing a verify", "register 0; backup 0 0; mark-all 0; write 0 0 5; begin 0 0; fetch 0; finish 0"},
    {"abandoning", "register 0; backup 0 0; write 0 0 5; begin 0 0; fetch 0; abandon 0"},
    {"the other's backup", "register 0; register 1; backup 0 0; backup 1 0; write 0 0 5; backup 1 0"},
    {"registering again, with a backup and marks",
     "register 0; register 1; backup 0 0; backup 1 0; unregister 0; write 0 0 5; backup 1 0; register 0"},
    {"the backup of the last of three",
     "register 0; register 1; register 2; backup 0 0; backup 1 0; backup 2 0; write 0 0 5; backup 1 0; write 0 0 9; "
     "backup 2 0"},
    {"the other's backup of another volume",
     "register 0; register 1; backup 0 1; backup 1 1; write 0 1 5; begin 0 0; write 0 0 5; fetch 0; backup 1 1"},
};

// On the machine with long bitmaps; in each the last operation writes one.
const Piece LONG_OTHERS[] = {
    {"fetching",
     "register 0; register 1; backup 0 0; begin 0 0; write 0 0 6; write 0 0 4100 9; write 0 0 8000; fetch 0"},
    {"finishing with changes in the snapshot",
     "register 0; register 1; backup 0 0; write 0 0 5; begin 0 0; fetch 0; write 0 0 4100 9; finish 0 0 4000 63"},
    {"the other's backup",
     "register 0; register 1; backup 0 0; backup 1 0; write 0 0 6; write 0 0 4100 9; write 0 0 8000; backup 1 0"},
};

// Bitmaps so long that the library keeps the memory of one for the next file that it reads: of another application, of
// another length.
constexpr char HUGE_MACHINE[] = "machine 530000:512; ";
const Piece HUGE_OTHERS[] = {
    {"a backup, with changes in a base that the other one has backed up",
     "register 0; register 1; backup 0 0; backup 1 0; write 0 0 70 3; begin 0 0; fetch 0; abandon 0; backup 1 0; "
     "write 0 0 9; backup 0 0"},
    {"a backup of what became longer",
     "register 0; register 1; backup 0 0; backup 1 0; write 0 0 5; resize 0 0 600000; write 0 0 590000; backup 0 0"},
    {"a backup of what became shorter",
     "register 0; register 1; backup 0 0; backup 1 0; write 0 0 5; resize 0 0 500000; write 0 0 490000; backup 0 0"},
};

} // namespace

std::vector<Scenario> AllScenarios()
{
    std::vector<Scenario> scenarios;
    const auto add = [&](std::string name, const std::string& text, const char* machine = MACHINE) {
        const auto history = ParseHistory(machine + text);
        if (history)
            scenarios.push_back({std::move(name), *history});
        else
            scenarios.push_back({"UNREADABLE " + name, {}});
    };
    for (const Piece& state : STATES) {
        for (const Piece& operation : OPERATIONS)
            add(std::string(operation.name) + ", with " + state.name, std::string(state.text) + "; " + operation.text);
    }
    for (const Piece& other : OTHERS)
        add(other.name, other.text);
    for (const Piece& state : STATES)
        add(std::string("a long backup, with ") + state.name, std::string(state.text) + "; " + FAR_APART + "backup 0 0",
            LONG_MACHINE);
    for (const Piece& other : LONG_OTHERS)
        add(std::string("long: ") + other.name, other.text, LONG_MACHINE);
    for (const Piece& other : HUGE_OTHERS)
        add(std::string("huge: ") + other.name, other.text, HUGE_MACHINE);
    return scenarios;
}

} // namespace vtproof
