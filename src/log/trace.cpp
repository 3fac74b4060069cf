#include "log/trace.h"

namespace vtflt {

// Alone in its file: a program that links the library's archive and defines this function itself gets its own.
void Trace(const wchar_t*, ...) noexcept {}

} // namespace vtflt
