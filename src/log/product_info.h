// The two lines of a log file's summary block that say what runs where.
#pragma once

#include "log/record_text.h"

namespace vtflt {

void GetProductLine(wchar_t (&text)[LOG_LINE_CAPACITY]) noexcept;
void GetSystemLine(wchar_t (&text)[LOG_LINE_CAPACITY]) noexcept;

} // namespace vtflt
