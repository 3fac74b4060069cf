// Security descriptors and what they grant. There is one user; every entry of a list that allows or denies speaks of
// that user, but for entries of groups it is not in.
#include "double/api.h"
#include "double/file_system.h"

#include <aclapi.h>
#include <sddl.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace vtdouble {

namespace {

struct AceHead {
    ACE_HEADER header;
    ACCESS_MASK mask;
    SID sid;
};

bool SpeaksOfUser(const SID& sid)
{
    const BYTE authority = sid.IdentifierAuthority.Value[5];
    if (authority == 1) // everyone
        return true;
    // Authenticated users; the administrators and users of the machine.
    if (authority != 5)
        return false;
    return sid.SubAuthority[0] == 11 || sid.SubAuthority[0] == 32;
}

template <class F>
void ForEachAce(const ACL& list, F visit)
{
    const auto* at = reinterpret_cast<const BYTE*>(&list) + sizeof(ACL);
    for (WORD i = 0; i < list.AceCount; ++i) {
        const auto* ace = reinterpret_cast<const AceHead*>(at);
        visit(*ace);
        at += ace->header.AceSize;
    }
}

// Rights of a whole class of objects, for masks that name generic ones.
DWORD Specific(DWORD mask)
{
    if ((mask & (GENERIC_ALL | GENERIC_READ | GENERIC_WRITE)) == 0)
        return mask;
    DWORD specific = mask & ~(GENERIC_ALL | GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE);
    if ((mask & GENERIC_ALL) != 0)
        return 0x1FFFFF;
    if ((mask & GENERIC_READ) != 0)
        specific |= FILE_GENERIC_READ | KEY_READ;
    if ((mask & GENERIC_WRITE) != 0)
        specific |= FILE_GENERIC_WRITE | KEY_WRITE;
    return specific;
}

Security SecurityOfList(const ACL* list)
{
    Security security;
    if (list == nullptr)
        return security;
    security.restricted = true;
    DWORD denied = 0;
    ForEachAce(*list, [&](const AceHead& ace) {
        if (!SpeaksOfUser(ace.sid))
            return;
        if (ace.header.AceType == ACCESS_DENIED_ACE_TYPE)
            denied |= Specific(ace.mask) & ~security.granted;
        else if (ace.header.AceType == ACCESS_ALLOWED_ACE_TYPE)
            security.granted |= Specific(ace.mask) & ~denied;
    });
    return security;
}

// Memory that the caller frees with LocalFree.
template <class T>
T* Allocate(std::size_t size = sizeof(T))
{
    return static_cast<T*>(__wrap_calloc(1, size));
}

struct KnownSid {
    const wchar_t* name;
    BYTE authority;
    DWORD parts[2];
    BYTE count;
};
constexpr KnownSid KNOWN_SIDS[] = {{L"WD", 1, {0, 0}, 1},
                                   {L"AU", 5, {11, 0}, 1},
                                   {L"SY", 5, {18, 0}, 1},
                                   {L"BA", 5, {32, 544}, 2},
                                   {L"BU", 5, {32, 545}, 2}};

// What a folder or file has that nobody gave a list of its own: entries that come from the drive's root.
constexpr wchar_t INHERITED_LIST[] = L"(A;OICIID;0x1f01ff;;;BA)(A;OICIID;0x1f01ff;;;SY)(A;OICIID;0x1200a9;;;BU)";

bool ParseUnsigned(TextView text, DWORD& value)
{
    const bool hexadecimal = text.starts_with(L"0x") || text.starts_with(L"0X");
    std::uint64_t number = 0;
    if (hexadecimal)
        text.remove_prefix(2);
    if (text.empty() || text.size() > 10)
        return false;
    for (const wchar_t character : text) {
        const wchar_t upper = Upper(character);
        unsigned digit = 99;
        if (upper >= L'0' && upper <= L'9')
            digit = static_cast<unsigned>(upper - L'0');
        else if (hexadecimal && upper >= L'A' && upper <= L'F')
            digit = static_cast<unsigned>(upper - L'A') + 10;
        if (digit == 99)
            return false;
        number = number * (hexadecimal ? 16 : 10) + digit;
    }
    value = static_cast<DWORD>(number);
    return number <= 0xFFFFFFFFu;
}

std::vector<TextView> SplitAt(TextView text, wchar_t separator)
{
    std::vector<TextView> parts;
    for (;;) {
        const std::size_t end = text.find(separator);
        parts.push_back(text.substr(0, end));
        if (end == TextView::npos)
            return parts;
        text.remove_prefix(end + 1);
    }
}

SID* ParseSid(TextView text)
{
    for (const KnownSid& known : KNOWN_SIDS) {
        if (text != known.name)
            continue;
        auto* sid = Allocate<SID>(GetSidLengthRequired(8));
        sid->Revision = SID_REVISION;
        sid->SubAuthorityCount = known.count;
        sid->IdentifierAuthority.Value[5] = known.authority;
        for (BYTE i = 0; i < known.count; ++i)
            sid->SubAuthority[i] = known.parts[i];
        return sid;
    }
    const auto parts = SplitAt(text, L'-');
    DWORD number = 0;
    if (parts.size() < 4 || parts.size() > 11 || parts[0] != L"S" || !ParseUnsigned(parts[1], number) || number != 1 ||
        !ParseUnsigned(parts[2], number) || number > 255)
        return nullptr;
    auto* sid = Allocate<SID>(GetSidLengthRequired(8));
    sid->Revision = SID_REVISION;
    sid->IdentifierAuthority.Value[5] = static_cast<BYTE>(number);
    for (std::size_t i = 3; i < parts.size(); ++i) {
        if (!ParseUnsigned(parts[i], sid->SubAuthority[sid->SubAuthorityCount++])) {
            __wrap_free(sid);
            return nullptr;
        }
    }
    return sid;
}

struct NewAce {
    BYTE type;
    BYTE flags;
    DWORD mask;
    std::vector<BYTE> sid;
};

std::vector<BYTE> SidBytes(const void* sid)
{
    const auto* bytes = static_cast<const BYTE*>(sid);
    return {bytes, bytes + GetLengthSid(const_cast<void*>(sid))};
}

ACL* MakeList(const std::vector<NewAce>& aces)
{
    std::size_t size = sizeof(ACL);
    for (const NewAce& ace : aces)
        size += sizeof(ACE_HEADER) + sizeof(ACCESS_MASK) + ace.sid.size();
    auto* list = Allocate<ACL>(size);
    list->AclRevision = ACL_REVISION;
    list->AclSize = static_cast<WORD>(size);
    list->AceCount = static_cast<WORD>(aces.size());
    auto* at = reinterpret_cast<BYTE*>(list) + sizeof(ACL);
    for (const NewAce& ace : aces) {
        const ACE_HEADER header = {ace.type, ace.flags,
                                   static_cast<WORD>(sizeof(ACE_HEADER) + sizeof(ACCESS_MASK) + ace.sid.size())};
        std::memcpy(at, &header, sizeof(header));
        std::memcpy(at + sizeof(header), &ace.mask, sizeof(ace.mask));
        std::memcpy(at + sizeof(header) + sizeof(ace.mask), ace.sid.data(), ace.sid.size());
        at += header.AceSize;
    }
    return list;
}

bool ParseMask(TextView text, DWORD& mask)
{
    if (text == L"GA")
        mask = GENERIC_ALL;
    else if (text == L"GR")
        mask = GENERIC_READ;
    else if (text == L"GW")
        mask = GENERIC_WRITE;
    else
        return ParseUnsigned(text, mask);
    return true;
}

// Two letters for each.
bool ParseFlags(TextView text, BYTE& flags)
{
    struct Flag {
        const wchar_t* name;
        BYTE value;
    };
    static constexpr Flag FLAGS[] = {{L"OI", OBJECT_INHERIT_ACE},
                                     {L"CI", CONTAINER_INHERIT_ACE},
                                     {L"NP", NO_PROPAGATE_INHERIT_ACE},
                                     {L"IO", INHERIT_ONLY_ACE},
                                     {L"ID", INHERITED_ACE}};
    for (; !text.empty(); text.remove_prefix(2)) {
        const auto known = std::find_if(std::begin(FLAGS), std::end(FLAGS),
                                        [&](const Flag& flag) { return text.substr(0, 2) == flag.name; });
        if (known == std::end(FLAGS))
            return false;
        flags = static_cast<BYTE>(flags | known->value);
    }
    return true;
}

// (A;OICI;0x00100000;;;WD)...; false when it cannot be read.
bool ParseList(TextView text, std::vector<NewAce>& aces)
{
    while (!text.empty()) {
        const std::size_t end = text.find(L')');
        if (text.front() != L'(' || end == TextView::npos)
            return false;
        const auto fields = SplitAt(text.substr(1, end - 1), L';');
        text.remove_prefix(end + 1);
        NewAce ace = {};
        if (fields.size() != 6 || (fields[0] != L"A" && fields[0] != L"D") || !ParseFlags(fields[1], ace.flags) ||
            !ParseMask(fields[2], ace.mask))
            return false;
        ace.type = fields[0] == L"A" ? ACCESS_ALLOWED_ACE_TYPE : ACCESS_DENIED_ACE_TYPE;
        SID* const sid = ParseSid(fields[5]);
        if (sid == nullptr)
            return false;
        ace.sid = SidBytes(sid);
        __wrap_free(sid);
        aces.push_back(std::move(ace));
    }
    return true;
}

std::vector<BYTE> BytesOf(const ACL& list)
{
    const auto* bytes = reinterpret_cast<const BYTE*>(&list);
    return {bytes, bytes + list.AclSize};
}

// A descriptor with this list, or a null one, in one piece of memory, as its user frees it.
SECURITY_DESCRIPTOR* MakeDescriptor(const std::vector<BYTE>& list)
{
    auto* const made = Allocate<SECURITY_DESCRIPTOR>(sizeof(SECURITY_DESCRIPTOR) + list.size());
    made->Revision = SECURITY_DESCRIPTOR_REVISION;
    made->Control = SE_DACL_PRESENT;
    if (!list.empty()) {
        std::memcpy(made + 1, list.data(), list.size());
        made->Dacl = reinterpret_cast<ACL*>(made + 1);
    }
    return made;
}

// The list that an object has: the one it was given, none where it was given none, or else this one.
std::vector<BYTE> ListOf(const Security& security, TextView otherwise)
{
    if (security.nullList || !security.list.empty())
        return security.list;
    std::vector<NewAce> aces;
    ParseList(otherwise, aces);
    ACL* const made = MakeList(aces);
    std::vector<BYTE> bytes = BytesOf(*made);
    __wrap_free(made);
    return bytes;
}

// What GetSecurityInfo and its like hand out; owners and groups there are none.
void HandOut(const std::vector<BYTE>& bytes, PSID* owner, PSID* group, PACL* list, PACL* audit,
             PSECURITY_DESCRIPTOR* descriptor)
{
    for (PSID* none : {owner, group}) {
        if (none != nullptr)
            *none = nullptr;
    }
    if (audit != nullptr)
        *audit = nullptr;
    SECURITY_DESCRIPTOR* const made = MakeDescriptor(bytes);
    if (list != nullptr)
        *list = made->Dacl;
    *descriptor = made;
}

} // namespace

Security SecurityOf(const SECURITY_ATTRIBUTES* attributes)
{
    if (attributes == nullptr || attributes->lpSecurityDescriptor == nullptr)
        return {};
    const auto& descriptor = *static_cast<const SECURITY_DESCRIPTOR*>(attributes->lpSecurityDescriptor);
    if ((descriptor.Control & SE_DACL_PRESENT) == 0)
        return {};
    Security security = SecurityOfList(descriptor.Dacl);
    security.nullList = descriptor.Dacl == nullptr;
    if (!security.nullList)
        security.list = BytesOf(*descriptor.Dacl);
    return security;
}

} // namespace vtdouble

using namespace vtdouble;

DOUBLE_API HLOCAL WINAPI LocalAlloc(UINT flags, SIZE_T size)
{
    const SIZE_T bytes = size != 0 ? size : 1;
    return (flags & LMEM_ZEROINIT) != 0 ? __wrap_calloc(1, bytes) : __wrap_malloc(bytes);
}

DOUBLE_API HLOCAL WINAPI LocalFree(HLOCAL memory)
{
    __wrap_free(memory);
    return nullptr;
}

DOUBLE_API DWORD WINAPI GetSidLengthRequired(UCHAR count)
{
    return static_cast<DWORD>(sizeof(SID) - sizeof(DWORD) + count * sizeof(DWORD));
}

DOUBLE_API DWORD WINAPI GetLengthSid(PSID sid)
{
    return GetSidLengthRequired(static_cast<const SID*>(sid)->SubAuthorityCount);
}

DOUBLE_API BOOL WINAPI EqualSid(PSID left, PSID right)
{
    const DWORD length = GetLengthSid(left);
    return length == GetLengthSid(right) && std::memcmp(left, right, length) == 0;
}

DOUBLE_API BOOL WINAPI InitializeAcl(PACL list, DWORD size, DWORD revision)
{
    const Entry entry;
    if (size < sizeof(ACL) || revision < MIN_ACL_REVISION || revision > MAX_ACL_REVISION)
        return Failed(size < sizeof(ACL) ? ERROR_INSUFFICIENT_BUFFER : ERROR_INVALID_PARAMETER, FALSE);
    *list = {};
    list->AclRevision = static_cast<BYTE>(revision);
    list->AclSize = static_cast<WORD>(size);
    return TRUE;
}

DOUBLE_API BOOL WINAPI GetAce(PACL list, DWORD index, LPVOID* ace)
{
    const Entry entry;
    DWORD at = 0;
    *ace = nullptr;
    ForEachAce(*list, [&](const AceHead& head) {
        if (at++ == index)
            *ace = const_cast<AceHead*>(&head);
    });
    return *ace != nullptr ? TRUE : Failed(ERROR_INVALID_PARAMETER, FALSE);
}

DOUBLE_API BOOL WINAPI InitializeSecurityDescriptor(PSECURITY_DESCRIPTOR descriptor, DWORD revision)
{
    const Entry entry;
    if (revision != SECURITY_DESCRIPTOR_REVISION)
        return Failed(ERROR_UNKNOWN_REVISION, FALSE);
    auto& target = *static_cast<SECURITY_DESCRIPTOR*>(descriptor);
    target = {};
    target.Revision = SECURITY_DESCRIPTOR_REVISION;
    return TRUE;
}

DOUBLE_API BOOL WINAPI SetSecurityDescriptorDacl(PSECURITY_DESCRIPTOR descriptor, BOOL present, PACL list, BOOL)
{
    const Entry entry;
    auto& target = *static_cast<SECURITY_DESCRIPTOR*>(descriptor);
    if (target.Revision != SECURITY_DESCRIPTOR_REVISION)
        return Failed(ERROR_UNKNOWN_REVISION, FALSE);
    target.Control = static_cast<SECURITY_DESCRIPTOR_CONTROL>(present ? target.Control | SE_DACL_PRESENT
                                                                      : target.Control & ~SE_DACL_PRESENT);
    target.Dacl = present ? list : nullptr;
    return TRUE;
}

DOUBLE_API BOOL WINAPI ConvertStringSidToSidW(LPCWSTR text, PSID* sid)
{
    const Entry entry;
    if (text == nullptr || sid == nullptr)
        return Failed(ERROR_INVALID_PARAMETER, FALSE);
    *sid = ParseSid(text);
    return *sid != nullptr ? TRUE : Failed(ERROR_INVALID_SID, FALSE);
}

DOUBLE_API BOOL WINAPI ConvertStringSecurityDescriptorToSecurityDescriptorW(LPCWSTR text, DWORD,
                                                                            PSECURITY_DESCRIPTOR* result, PULONG size)
{
    const Entry entry;
    TextView rest = text;
    std::vector<NewAce> aces;
    if (!rest.starts_with(L"D:"))
        return Failed(ERROR_INVALID_PARAMETER, FALSE);
    rest.remove_prefix(2);
    if (rest.starts_with(L"P"))
        rest.remove_prefix(1);
    if (!ParseList(rest, aces))
        return Failed(ERROR_INVALID_ACL, FALSE);
    ACL* const list = MakeList(aces);
    const std::vector<BYTE> bytes = BytesOf(*list);
    __wrap_free(list);
    *result = MakeDescriptor(bytes);
    if (size != nullptr)
        *size = static_cast<ULONG>(sizeof(SECURITY_DESCRIPTOR) + bytes.size());
    return TRUE;
}

DOUBLE_API BOOL WINAPI GetSecurityDescriptorDacl(PSECURITY_DESCRIPTOR descriptor, LPBOOL present, PACL* list,
                                                 LPBOOL defaulted)
{
    const Entry entry;
    const auto& source = *static_cast<const SECURITY_DESCRIPTOR*>(descriptor);
    *present = (source.Control & SE_DACL_PRESENT) != 0;
    *defaulted = FALSE;
    if (*present)
        *list = source.Dacl;
    return TRUE;
}

// Of objects by their handles. Who said nothing at their making gets the administrators' list.
DOUBLE_API DWORD WINAPI GetSecurityInfo(HANDLE handle, SE_OBJECT_TYPE, SECURITY_INFORMATION, PSID* owner, PSID* group,
                                        PACL* list, PACL* audit, PSECURITY_DESCRIPTOR* descriptor)
{
    const Entry entry;
    const HandleEntry* const found = CurrentProcess().Find(handle);
    if (found == nullptr)
        return ERROR_INVALID_HANDLE;
    if ((found->access & READ_CONTROL) == 0)
        return ERROR_ACCESS_DENIED;
    HandOut(ListOf(found->object->security, L"(A;;GA;;;BA)"), owner, group, list, audit, descriptor);
    return 0;
}

// --- Of files and folders, by their path. The list that was set is what can be got; it is not passed on to what lies
// below.

DOUBLE_API DWORD WINAPI GetNamedSecurityInfoW(LPWSTR path, SE_OBJECT_TYPE type, SECURITY_INFORMATION, PSID* owner,
                                              PSID* group, PACL* list, PACL* audit, PSECURITY_DESCRIPTOR* descriptor)
{
    const Entry entry;
    if (type != SE_FILE_OBJECT)
        return ERROR_INVALID_PARAMETER;
    const Place place = Resolve(path);
    if (place.error != 0)
        return place.error;
    if (place.node == nullptr)
        return ERROR_FILE_NOT_FOUND;
    HandOut(ListOf(place.node->security, INHERITED_LIST), owner, group, list, audit, descriptor);
    return 0;
}

DOUBLE_API DWORD WINAPI SetEntriesInAclW(ULONG count, PEXPLICIT_ACCESSW entries, PACL old, PACL* result)
{
    const Entry entry;
    std::vector<NewAce> aces;
    for (ULONG i = 0; i < count; ++i) {
        if (entries[i].Trustee.TrusteeForm != TRUSTEE_IS_SID)
            return ERROR_NOT_SUPPORTED;
        const bool denies = entries[i].grfAccessMode == DENY_ACCESS;
        aces.push_back({static_cast<BYTE>(denies ? ACCESS_DENIED_ACE_TYPE : ACCESS_ALLOWED_ACE_TYPE),
                        static_cast<BYTE>(entries[i].grfInheritance), entries[i].grfAccessPermissions,
                        SidBytes(entries[i].Trustee.ptstrName)});
    }
    if (old != nullptr) {
        ForEachAce(*old, [&](const AceHead& ace) {
            aces.push_back({ace.header.AceType, ace.header.AceFlags, ace.mask, SidBytes(&ace.sid)});
        });
    }
    *result = MakeList(aces);
    return 0;
}

DOUBLE_API DWORD WINAPI SetNamedSecurityInfoW(LPWSTR path, SE_OBJECT_TYPE type, SECURITY_INFORMATION information, PSID,
                                              PSID, PACL list, PACL)
{
    const Entry entry;
    if (type != SE_FILE_OBJECT)
        return ERROR_INVALID_PARAMETER;
    const Place place = Resolve(path);
    if (place.error != 0)
        return place.error;
    if (place.node == nullptr)
        return ERROR_FILE_NOT_FOUND;
    if ((information & DACL_SECURITY_INFORMATION) == 0)
        return 0;
    place.node->security = SecurityOfList(list);
    place.node->security.nullList = list == nullptr;
    if (list != nullptr)
        place.node->security.list = BytesOf(*list);
    return 0;
}
