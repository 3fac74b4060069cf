// Ctrl-C and its relatives: noted by the console's thread, acted on by the program at its next safe place.
#pragma once

namespace vtbackup {

void WatchForInterrupt() noexcept;
[[nodiscard]] bool Interrupted() noexcept;
// Throws Failure(Exit::Interrupted) when the user asked to stop.
void StopIfInterrupted();

} // namespace vtbackup
