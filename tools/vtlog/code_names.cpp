#include "code_names.h"

#include "bitmap/result_codes.h"
#include "common/text.h"

#include "win/windows.h"

#include <algorithm>
#include <array>

namespace vtlog {
namespace {

struct Name {
    std::uint32_t code;
    const char* name;
    const char* text; // null: the system has one
};

#define LIBRARY_CODE(code, text)                                                                                       \
    Name                                                                                                               \
    {                                                                                                                  \
        vtflt::code, #code, text                                                                                       \
    }
#define SYSTEM_CODE(code)                                                                                              \
    Name                                                                                                               \
    {                                                                                                                  \
        static_cast<std::uint32_t>(code), #code, nullptr                                                               \
    }

constexpr auto NAMES = std::to_array<Name>({
    LIBRARY_CODE(BM_ERR_VERIFY_REQUIRED, "the next backup must verify"),
    LIBRARY_CODE(BM_ERR_INVALID_CONTROL_CODE, "the control code is not handled"),
    LIBRARY_CODE(BM_ERR_NO_OUTPUT_BUFFER, "no output buffer was given"),
    LIBRARY_CODE(BM_ERR_INVALID_VOLUME_HANDLE, "the volume handle is not valid"),
    LIBRARY_CODE(BM_ERR_MUTEX_ACCESS, "a named mutex could not be taken"),
    LIBRARY_CODE(BM_ERR_NO_APPLICATION, "no application is registered"),
    LIBRARY_CODE(BM_ERR_APP_LIST_FAILED, "the list of registered applications could not be read"),
    LIBRARY_CODE(BM_ERR_APP_NOT_REGISTERED, "the application is not registered"),
    LIBRARY_CODE(BM_ERR_FAILED, "a general failure"),
    SYSTEM_CODE(ERROR_INVALID_FUNCTION),
    SYSTEM_CODE(ERROR_FILE_NOT_FOUND),
    SYSTEM_CODE(ERROR_PATH_NOT_FOUND),
    SYSTEM_CODE(ERROR_TOO_MANY_OPEN_FILES),
    SYSTEM_CODE(ERROR_ACCESS_DENIED),
    SYSTEM_CODE(ERROR_INVALID_HANDLE),
    SYSTEM_CODE(ERROR_NOT_ENOUGH_MEMORY),
    SYSTEM_CODE(ERROR_INVALID_DATA),
    SYSTEM_CODE(ERROR_OUTOFMEMORY),
    SYSTEM_CODE(ERROR_INVALID_DRIVE),
    SYSTEM_CODE(ERROR_NO_MORE_FILES),
    SYSTEM_CODE(ERROR_WRITE_PROTECT),
    SYSTEM_CODE(ERROR_BAD_UNIT),
    SYSTEM_CODE(ERROR_NOT_READY),
    SYSTEM_CODE(ERROR_BAD_COMMAND),
    SYSTEM_CODE(ERROR_CRC),
    SYSTEM_CODE(ERROR_BAD_LENGTH),
    SYSTEM_CODE(ERROR_SEEK),
    SYSTEM_CODE(ERROR_SECTOR_NOT_FOUND),
    SYSTEM_CODE(ERROR_WRITE_FAULT),
    SYSTEM_CODE(ERROR_READ_FAULT),
    SYSTEM_CODE(ERROR_GEN_FAILURE),
    SYSTEM_CODE(ERROR_SHARING_VIOLATION),
    SYSTEM_CODE(ERROR_LOCK_VIOLATION),
    SYSTEM_CODE(ERROR_HANDLE_EOF),
    SYSTEM_CODE(ERROR_HANDLE_DISK_FULL),
    SYSTEM_CODE(ERROR_NOT_SUPPORTED),
    SYSTEM_CODE(ERROR_BAD_NETPATH),
    SYSTEM_CODE(ERROR_DEV_NOT_EXIST),
    SYSTEM_CODE(ERROR_FILE_EXISTS),
    SYSTEM_CODE(ERROR_CANNOT_MAKE),
    SYSTEM_CODE(ERROR_INVALID_PARAMETER),
    SYSTEM_CODE(ERROR_BROKEN_PIPE),
    SYSTEM_CODE(ERROR_OPEN_FAILED),
    SYSTEM_CODE(ERROR_DISK_FULL),
    SYSTEM_CODE(ERROR_CALL_NOT_IMPLEMENTED),
    SYSTEM_CODE(ERROR_SEM_TIMEOUT),
    SYSTEM_CODE(ERROR_INSUFFICIENT_BUFFER),
    SYSTEM_CODE(ERROR_INVALID_NAME),
    SYSTEM_CODE(ERROR_MOD_NOT_FOUND),
    SYSTEM_CODE(ERROR_PROC_NOT_FOUND),
    SYSTEM_CODE(ERROR_NEGATIVE_SEEK),
    SYSTEM_CODE(ERROR_DIR_NOT_EMPTY),
    SYSTEM_CODE(ERROR_NOT_LOCKED),
    SYSTEM_CODE(ERROR_BAD_ARGUMENTS),
    SYSTEM_CODE(ERROR_BAD_PATHNAME),
    SYSTEM_CODE(ERROR_BUSY),
    SYSTEM_CODE(ERROR_ALREADY_EXISTS),
    SYSTEM_CODE(ERROR_FILENAME_EXCED_RANGE),
    SYSTEM_CODE(ERROR_MORE_DATA),
    SYSTEM_CODE(WAIT_TIMEOUT),
    SYSTEM_CODE(ERROR_NO_MORE_ITEMS),
    SYSTEM_CODE(ERROR_DIRECTORY),
    SYSTEM_CODE(ERROR_NOT_OWNER),
    SYSTEM_CODE(ERROR_PARTIAL_COPY),
    SYSTEM_CODE(ERROR_INVALID_ADDRESS),
    SYSTEM_CODE(ERROR_OPERATION_ABORTED),
    SYSTEM_CODE(ERROR_IO_INCOMPLETE),
    SYSTEM_CODE(ERROR_IO_PENDING),
    SYSTEM_CODE(ERROR_NOACCESS),
    SYSTEM_CODE(ERROR_INVALID_FLAGS),
    SYSTEM_CODE(ERROR_UNRECOGNIZED_VOLUME),
    SYSTEM_CODE(ERROR_FILE_INVALID),
    SYSTEM_CODE(ERROR_BADDB),
    SYSTEM_CODE(ERROR_BADKEY),
    SYSTEM_CODE(ERROR_CANTOPEN),
    SYSTEM_CODE(ERROR_CANTREAD),
    SYSTEM_CODE(ERROR_CANTWRITE),
    SYSTEM_CODE(ERROR_REGISTRY_RECOVERED),
    SYSTEM_CODE(ERROR_REGISTRY_CORRUPT),
    SYSTEM_CODE(ERROR_REGISTRY_IO_FAILED),
    SYSTEM_CODE(ERROR_KEY_DELETED),
    SYSTEM_CODE(ERROR_CHILD_MUST_BE_VOLATILE),
    SYSTEM_CODE(ERROR_SERVICE_REQUEST_TIMEOUT),
    SYSTEM_CODE(ERROR_SERVICE_ALREADY_RUNNING),
    SYSTEM_CODE(ERROR_SERVICE_DISABLED),
    SYSTEM_CODE(ERROR_SERVICE_DOES_NOT_EXIST),
    SYSTEM_CODE(ERROR_SERVICE_NOT_ACTIVE),
    SYSTEM_CODE(ERROR_DATABASE_DOES_NOT_EXIST),
    SYSTEM_CODE(ERROR_SERVICE_MARKED_FOR_DELETE),
    SYSTEM_CODE(ERROR_IO_DEVICE),
    SYSTEM_CODE(ERROR_NO_SYSTEM_RESOURCES),
    SYSTEM_CODE(ERROR_NONPAGED_SYSTEM_RESOURCES),
    SYSTEM_CODE(ERROR_COMMITMENT_LIMIT),
    SYSTEM_CODE(ERROR_TIMEOUT),
    SYSTEM_CODE(ERROR_DEVICE_NOT_CONNECTED),
    SYSTEM_CODE(ERROR_NOT_FOUND),
    SYSTEM_CODE(ERROR_DEVICE_REMOVED),
    SYSTEM_CODE(ERROR_CANCELLED),
    SYSTEM_CODE(ERROR_FILE_CORRUPT),
    SYSTEM_CODE(ERROR_DISK_CORRUPT),
    SYSTEM_CODE(ERROR_INTERNAL_ERROR),
    SYSTEM_CODE(ERROR_DISK_OPERATION_FAILED),
    SYSTEM_CODE(ERROR_SHUTDOWN_IN_PROGRESS),
    SYSTEM_CODE(ERROR_PRIVILEGE_NOT_HELD),
    SYSTEM_CODE(ERROR_SUCCESS_REBOOT_REQUIRED),
});

#undef LIBRARY_CODE
#undef SYSTEM_CODE

const Name* Find(std::uint32_t code) noexcept
{
    const auto* found =
        std::find_if(NAMES.begin(), NAMES.end(), [code](const Name& name) { return name.code == code; });
    return found == NAMES.end() ? nullptr : found;
}

} // namespace

std::string CodeName(std::uint32_t code)
{
    const Name* name = Find(code);
    return name == nullptr ? std::string() : name->name;
}

std::string CodeText(std::uint32_t code)
{
    const Name* name = Find(code);
    return name != nullptr && name->text != nullptr ? name->text : toolkit::SystemMessage(code);
}

std::optional<std::uint32_t> CodeOfName(std::string_view name)
{
    const std::wstring wide = toolkit::ToWide(name);
    for (const Name& known : NAMES) {
        if (toolkit::EqualIgnoringCase(toolkit::ToWide(known.name), wide))
            return known.code;
    }
    return std::nullopt;
}

} // namespace vtlog
