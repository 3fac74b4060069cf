// The names of the objects that the log shares with other programs: one place, for the library and for viewers.
#pragma once

namespace vtflt {

// The configuration block of the process whose id, in decimal digits, stands behind the name.
inline constexpr wchar_t LOG_CFG_MUTEX_NAME[] = L"Global\\LOGCFG_MUTEX_NAME_C8AAE32A-9619-4685-B766-F003823BEEE3_%d";
inline constexpr wchar_t LOG_CFG_GLOBAL_MAPPING_NAME[] =
    L"Global\\LOGCFG_SM_NAME_C8AAE32A-9619-4685-B766-F003823BEEE3_%d";
inline constexpr wchar_t LOG_CFG_LOCAL_MAPPING_NAME[] =
    L"Local\\LOGCFG_SM_NAME_C8AAE32A-9619-4685-B766-F003823BEEE3_%d";

// The live viewer is there exactly while this event can be opened.
inline constexpr wchar_t LOG_VIEWER_EVENT_NAME[] = L"Global\\EVENT_9CF42DA4-ACD1-4F3F-8D6F-31023974A079";

// A ring's objects: the writing executable's file name in upper case stands behind each.
inline constexpr wchar_t LOG_RING_EVENT_PREFIX[] = L"Global\\CB6AF056-4138-4342-BE43-B4B37843FE36_EVENT_";
inline constexpr wchar_t LOG_RING_MUTEX_PREFIX[] = L"Global\\CB6AF056-4138-4342-BE43-B4B37843FE36_MUTEXT_";
inline constexpr wchar_t LOG_RING_GLOBAL_MAPPING_PREFIX[] = L"Global\\CB6AF056-4138-4342-BE43-B4B37843FE36_SM_";
inline constexpr wchar_t LOG_RING_LOCAL_MAPPING_PREFIX[] = L"Local\\CB6AF056-4138-4342-BE43-B4B37843FE36_SM_";

// The breakpoints' objects, made by the viewer.
inline constexpr wchar_t LOG_BREAKPOINT_EVENT_NAME[] = L"Global\\3B66FDF6-4FBE-45F5-8A86-8915C3184D5B_EVENT";
inline constexpr wchar_t LOG_BREAKPOINT_MUTEX_NAME[] = L"Global\\3B66FDF6-4FBE-45F5-8A86-8915C3184D5B_MU_BREAKPOINTS";
inline constexpr wchar_t LOG_BREAKPOINT_GLOBAL_MAPPING_NAME[] =
    L"Global\\3B66FDF6-4FBE-45F5-8A86-8915C3184D5B_SM_BREAKPOINTS";
inline constexpr wchar_t LOG_BREAKPOINT_LOCAL_MAPPING_NAME[] =
    L"Local\\3B66FDF6-4FBE-45F5-8A86-8915C3184D5B_SM_BREAKPOINTS";

// The event that lets a stopped thread go: the hit's UUID, in upper case and without braces, stands behind it.
inline constexpr wchar_t LOG_HIT_EVENT_PREFIX[] = L"Global\\BPHIT_EVENT_";

} // namespace vtflt
