// The names of a process's log configuration, as a program that edits it knows them.
//
// They stand here a second time, in full: a name that changes in the library breaks every such program.
#pragma once

#include "support/text.h"
#include "win/windows.h"

#include <string>

namespace vttest {

inline constexpr wchar_t CONFIG_MUTEX[] = L"Global\\LOGCFG_MUTEX_NAME_C8AAE32A-9619-4685-B766-F003823BEEE3_%d";
inline constexpr wchar_t CONFIG_MAPPING[] = L"Global\\LOGCFG_SM_NAME_C8AAE32A-9619-4685-B766-F003823BEEE3_%d";
inline constexpr wchar_t CONFIG_LOCAL_MAPPING[] = L"Local\\LOGCFG_SM_NAME_C8AAE32A-9619-4685-B766-F003823BEEE3_%d";

// The name of an object of a process's configuration block, from its format.
inline std::wstring ConfigName(std::wstring format, DWORD processId = GetCurrentProcessId())
{
    return format.replace(format.find(L"%d"), 2, WideNumber(processId));
}

} // namespace vttest
