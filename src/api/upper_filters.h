// The driver's place in the upper filter lists of device classes.
#pragma once

namespace vtflt {

// The multi-string value of a class key that lists the class's upper filters.
inline constexpr wchar_t UPPER_FILTERS_VALUE[] = L"UpperFilters";

// Whether the driver stands among the upper filters of the volume class, and not before the snapshot provider. A class
// key that cannot be opened counts as good. What is wrong is logged.
bool IsUpperFilterOrderGood();

} // namespace vtflt
