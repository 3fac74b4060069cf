// A machine's facts and findings as JSON.
#pragma once

#include "findings.h"
#include "output.h"

namespace vtfltctl {

Json DriverJson(const DriverFacts& driver);
Json SwitchJson(const SwitchFacts& facts);
// {"entries": [...]}, or {"entries": [], "error": "..."} for a list that cannot be read.
Json ListJson(const ListFacts& list);
Json VolumeJson(const MachineFacts& machine, const VolumeFacts& volume);
// mend: the written one, empty for none.
Json FindingJson(const Finding& finding, const std::string& mend);

// "sound", "missing", "unreadable", or what is wrong with it: "must-verify", "blocks-all".
std::string FileStateName(const BitmapFileFacts& file);
// Whether the application's next backup of the volume must verify, as far as lists and files say.
bool MustVerify(const MachineFacts& machine, const ApplicationFacts& application, const VolumeFacts& volume,
                const HoldingFacts& holding);

} // namespace vtfltctl
