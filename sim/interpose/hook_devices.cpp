// CreateFileW and what is done with the handles it gives: simulated devices, and files on simulated volumes.
#include "interpose/attach.h"
#include "interpose/calls.h"
#include "interpose/handles.h"
#include "interpose/hook_functions.h"
#include "interpose/paths.h"
#include "model/driver.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <mutex>

namespace vtfltsim {

namespace {

std::shared_ptr<DeviceObject> FindDevice(HANDLE handle)
{
    return handles::Find<DeviceObject>(OpenKind::File, handle);
}

std::wstring FileText(HANDLE handle)
{
    return handles::TextOf(OpenKind::File, handle);
}

// Ends a call on a device: last error and result from the code.
BOOL Finish(DWORD code)
{
    if (code == 0)
        return TRUE;
    SetLastError(code);
    return FALSE;
}

// Simulated requests are complete at once; a caller who passed an OVERLAPPED finds that there, too.
void CompleteOverlapped(OVERLAPPED* overlapped, bool done, DWORD bytes)
{
    if (overlapped == nullptr)
        return;
    overlapped->Internal = done ? 0 : 0xC0000001;
    overlapped->InternalHigh = bytes;
    if (overlapped->hEvent != nullptr)
        SetEvent(reinterpret_cast<HANDLE>(reinterpret_cast<ULONG_PTR>(overlapped->hEvent) & ~ULONG_PTR{1}));
}

// Access to contents, in the two forms that a caller may ask for it.
DWORD GenericAccess(DWORD access)
{
    if ((access & (FILE_READ_DATA | GENERIC_ALL | MAXIMUM_ALLOWED)) != 0)
        access |= GENERIC_READ;
    if ((access & (FILE_WRITE_DATA | GENERIC_ALL | MAXIMUM_ALLOWED)) != 0)
        access |= GENERIC_WRITE;
    return access;
}

HANDLE OpenDevice(const std::shared_ptr<Machine>& machine, const Target& target, const wchar_t* path, DWORD access,
                  DWORD disposition)
{
    std::uint64_t length = 0;
    DWORD code = 0;
    if (disposition != OPEN_EXISTING)
        code = ERROR_INVALID_PARAMETER;
    else if (target.kind == Target::Kind::Control)
        machine->Change([&](model::MachineRecord& record) {
            code = record.driver == model::DriverState::Absent ? ERROR_FILE_NOT_FOUND : 0;
        });
    else if (machine->Length(target.endpoint, length) != 0)
        code = ERROR_FILE_NOT_FOUND;
    if (code != 0) {
        SetLastError(code);
        return INVALID_HANDLE_VALUE;
    }
    auto device = std::make_shared<DeviceObject>();
    device->machine = machine;
    device->endpoint = target.endpoint;
    device->access = GenericAccess(access);
    const HANDLE handle = handles::OpenSimulated(OpenKind::File, path, std::move(device));
    if (handle == nullptr)
        return INVALID_HANDLE_VALUE;
    SetLastError(0);
    return handle;
}

HANDLE OpenAnything(const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security, DWORD disposition,
                    DWORD flags, HANDLE model)
{
    const auto machine = AttachedMachine();
    Target target;
    if (machine != nullptr && path != nullptr)
        target = ResolvePath(*machine, path);
    switch (target.kind) {
    case Target::Kind::Control:
    case Target::Kind::Volume:
    case Target::Kind::Snapshot:
        return OpenDevice(machine, target, path, access, disposition);
    case Target::Kind::Missing:
        SetLastError(target.error);
        return INVALID_HANDLE_VALUE;
    default:
        break;
    }
    if (target.kind == Target::Kind::File && target.isRoot && (flags & FILE_FLAG_BACKUP_SEMANTICS) == 0) {
        SetLastError(ERROR_PATH_NOT_FOUND); // the root folder, where the volume without its backslash was meant
        return INVALID_HANDLE_VALUE;
    }
    const wchar_t* real = target.kind == Target::Kind::File ? target.realPath.c_str() : path;
    const HANDLE handle = CreateFileW(real, access, share, security, disposition, flags, model);
    if (handle != INVALID_HANDLE_VALUE)
        handles::NoteOpened(OpenKind::File, handle, path);
    return handle;
}

HANDLE WINAPI SimCreateFileW(LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security, DWORD disposition,
                             DWORD flags, HANDLE model)
{
    const calls::Arguments arguments([&] {
        return L"access " + Hexadecimal(access) + L"|share " + Decimal(share) + L"|disposition " +
               Decimal(disposition) + L"|flags " + Hexadecimal(flags) + L"|security " + Decimal(security != nullptr);
    });
    return Call<HANDLE>(
        Hook::CreateFileW, INVALID_HANDLE_VALUE, [&] { return std::wstring(path != nullptr ? path : L""); },
        [&](const Verdict&) { return OpenAnything(path, access, share, security, disposition, flags, model); });
}

struct Transfer {
    std::uint64_t offset = 0;
    DWORD length = 0;
    DWORD code = 0;
};

// Where a read or write of a device begins and how far it reaches inside the device.
Transfer PlanTransfer(DeviceObject& device, DWORD needed, DWORD length, const OVERLAPPED* overlapped)
{
    Transfer plan;
    std::uint64_t end = 0;
    plan.code = (device.access & needed) == 0 ? ERROR_ACCESS_DENIED : device.machine->Length(device.endpoint, end);
    if (overlapped != nullptr)
        plan.offset = (static_cast<std::uint64_t>(overlapped->OffsetHigh) << 32) | overlapped->Offset;
    else {
        const std::lock_guard guard(device.lock);
        plan.offset = device.position;
    }
    plan.length = static_cast<DWORD>(std::min<std::uint64_t>(length, end > plan.offset ? end - plan.offset : 0));
    return plan;
}

void MovePosition(DeviceObject& device, std::uint64_t position)
{
    const std::lock_guard guard(device.lock);
    device.position = position;
}

BOOL ReadDevice(DeviceObject& device, void* data, DWORD length, DWORD* moved, OVERLAPPED* overlapped)
{
    if (moved != nullptr)
        *moved = 0;
    Transfer plan = PlanTransfer(device, GENERIC_READ, length, overlapped);
    if (plan.code == 0 && plan.length == 0 && length != 0 && overlapped != nullptr)
        plan.code = ERROR_HANDLE_EOF;
    if (plan.code == 0 && plan.length != 0)
        plan.code = device.machine->Read(device.endpoint, plan.offset, data, plan.length);
    if (plan.code == 0) {
        MovePosition(device, plan.offset + plan.length);
        if (moved != nullptr)
            *moved = plan.length;
    }
    CompleteOverlapped(overlapped, plan.code == 0, plan.code == 0 ? plan.length : 0);
    return Finish(plan.code);
}

BOOL WriteDevice(DeviceObject& device, const void* data, DWORD length, DWORD* moved, OVERLAPPED* overlapped)
{
    if (moved != nullptr)
        *moved = 0;
    Transfer plan = PlanTransfer(device, GENERIC_WRITE, length, overlapped);
    if (plan.code == 0 && plan.length != length)
        plan.code = ERROR_SECTOR_NOT_FOUND;
    if (plan.code == 0)
        plan.code = device.machine->Write(device.endpoint, plan.offset, data, length);
    if (plan.code == 0) {
        MovePosition(device, plan.offset + length);
        if (moved != nullptr)
            *moved = length;
    }
    CompleteOverlapped(overlapped, plan.code == 0, plan.code == 0 ? length : 0);
    return Finish(plan.code);
}

DWORD Shortened(const Verdict& verdict, DWORD length)
{
    return verdict.what == Verdict::What::Short ? static_cast<DWORD>(std::min<ULONGLONG>(length, verdict.value))
                                                : length;
}

BOOL WINAPI SimReadFile(HANDLE file, LPVOID data, DWORD length, LPDWORD moved, LPOVERLAPPED overlapped)
{
    return Call<BOOL>(
        Hook::ReadFile, FALSE, [&] { return FileText(file) + L"|" + Decimal(length); },
        [&](const Verdict& verdict) {
            const DWORD wanted = Shortened(verdict, length);
            if (const auto device = FindDevice(file))
                return ReadDevice(*device, data, wanted, moved, overlapped);
            return ReadFile(file, data, wanted, moved, overlapped);
        });
}

BOOL WINAPI SimWriteFile(HANDLE file, LPCVOID data, DWORD length, LPDWORD moved, LPOVERLAPPED overlapped)
{
    return Call<BOOL>(
        Hook::WriteFile, FALSE, [&] { return FileText(file) + L"|" + Decimal(length); },
        [&](const Verdict& verdict) {
            const DWORD wanted = Shortened(verdict, length);
            if (const auto device = FindDevice(file))
                return WriteDevice(*device, data, wanted, moved, overlapped);
            return WriteFile(file, data, wanted, moved, overlapped);
        });
}

BOOL SeekDevice(DeviceObject& device, LONGLONG distance, DWORD method, LONGLONG* position)
{
    std::uint64_t end = 0;
    const DWORD code = device.machine->Length(device.endpoint, end);
    if (code != 0)
        return Finish(code);
    const std::lock_guard guard(device.lock);
    LONGLONG base = 0;
    if (method == FILE_CURRENT)
        base = static_cast<LONGLONG>(device.position);
    else if (method == FILE_END)
        base = static_cast<LONGLONG>(end);
    else if (method != FILE_BEGIN)
        return Finish(ERROR_INVALID_PARAMETER);
    if (distance > std::numeric_limits<LONGLONG>::max() - base)
        return Finish(ERROR_INVALID_PARAMETER);
    if (base + distance < 0)
        return Finish(ERROR_NEGATIVE_SEEK);
    device.position = static_cast<std::uint64_t>(base + distance);
    *position = base + distance;
    return TRUE;
}

DWORD SeekDevice32(DeviceObject& device, LONG distance, LONG* high, DWORD method)
{
    LARGE_INTEGER move = {};
    if (high != nullptr) {
        move.LowPart = static_cast<DWORD>(distance);
        move.HighPart = *high;
    } else {
        move.QuadPart = distance;
    }
    LARGE_INTEGER position = {};
    if (!SeekDevice(device, move.QuadPart, method, &position.QuadPart))
        return INVALID_SET_FILE_POINTER;
    if (high == nullptr && position.HighPart != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_SET_FILE_POINTER;
    }
    if (high != nullptr)
        *high = position.HighPart;
    SetLastError(0);
    return position.LowPart;
}

DWORD WINAPI SimSetFilePointer(HANDLE file, LONG distance, PLONG high, DWORD method)
{
    const calls::Arguments arguments([&] {
        const std::wstring digits =
            Decimal(static_cast<unsigned long long>(distance < 0 ? -LONGLONG{distance} : distance));
        return std::wstring(L"distance ") + (distance < 0 ? L"-" : L"") + digits + L"|method " + Decimal(method);
    });
    return Call<DWORD>(
        Hook::SetFilePointer, INVALID_SET_FILE_POINTER, [&] { return FileText(file); },
        [&](const Verdict&) {
            if (const auto device = FindDevice(file))
                return SeekDevice32(*device, distance, high, method);
            return SetFilePointer(file, distance, high, method);
        });
}

BOOL WINAPI SimSetFilePointerEx(HANDLE file, LARGE_INTEGER distance, PLARGE_INTEGER position, DWORD method)
{
    return Call<BOOL>(
        Hook::SetFilePointerEx, FALSE, [&] { return FileText(file); },
        [&](const Verdict&) -> BOOL {
            const auto device = FindDevice(file);
            if (device == nullptr)
                return SetFilePointerEx(file, distance, position, method);
            LONGLONG reached = 0;
            if (!SeekDevice(*device, distance.QuadPart, method, &reached))
                return FALSE;
            if (position != nullptr)
                position->QuadPart = reached;
            return TRUE;
        });
}

BOOL WINAPI SimGetFileSizeEx(HANDLE file, PLARGE_INTEGER size)
{
    return Call<BOOL>(
        Hook::GetFileSizeEx, FALSE, [&] { return FileText(file); },
        [&](const Verdict&) {
            const auto device = FindDevice(file);
            if (device == nullptr)
                return GetFileSizeEx(file, size);
            std::uint64_t length = 0;
            const DWORD code = device->machine->Length(device->endpoint, length);
            if (code == 0)
                size->QuadPart = static_cast<LONGLONG>(length);
            return Finish(code);
        });
}

DWORD WINAPI SimGetFileSize(HANDLE file, LPDWORD high)
{
    return Call<DWORD>(
        Hook::GetFileSize, INVALID_FILE_SIZE, [&] { return FileText(file); },
        [&](const Verdict&) -> DWORD {
            const auto device = FindDevice(file);
            if (device == nullptr)
                return GetFileSize(file, high);
            std::uint64_t length = 0;
            const DWORD code = device->machine->Length(device->endpoint, length);
            SetLastError(code);
            if (code != 0)
                return INVALID_FILE_SIZE;
            if (high != nullptr)
                *high = static_cast<DWORD>(length >> 32);
            return static_cast<DWORD>(length);
        });
}

BOOL WINAPI SimSetEndOfFile(HANDLE file)
{
    return Call<BOOL>(
        Hook::SetEndOfFile, FALSE, [&] { return FileText(file); },
        [&](const Verdict&) {
            return FindDevice(file) != nullptr ? Finish(ERROR_INVALID_FUNCTION) : SetEndOfFile(file);
        });
}

BOOL WINAPI SimFlushFileBuffers(HANDLE file)
{
    return Call<BOOL>(
        Hook::FlushFileBuffers, FALSE, [&] { return FileText(file); },
        [&](const Verdict&) {
            const auto device = FindDevice(file);
            if (device == nullptr)
                return FlushFileBuffers(file);
            return Finish(device->endpoint.kind == Endpoint::Kind::Volume
                              ? device->machine->FlushVolume(device->endpoint.serial)
                              : 0);
        });
}

BOOL AskDevice(DeviceObject& device, const model::Request& request, DWORD* returned, OVERLAPPED* overlapped)
{
    const DWORD lastError = GetLastError();
    model::Reply reply;
    // As the code itself says: reading access is needed for the length, any for the driver's codes.
    if (request.code == model::DISK_GET_LENGTH_INFO && (device.access & GENERIC_READ) == 0)
        reply.status = ERROR_ACCESS_DENIED;
    else
        reply = device.machine->Ask(device.endpoint, request);
    if (returned != nullptr)
        *returned = reply.bytes;
    const bool done = reply.status == 0 && !reply.failed;
    CompleteOverlapped(overlapped, done, reply.bytes);
    if (calls::g_recording.load()) {
        VTFLTSIM_REQUEST record = {};
        record.size = sizeof(record);
        record.code = request.code;
        CopyCut(record.endpoint, VTFLTSIM_DEVICE_CHARS, device.machine->Describe(device.endpoint));
        record.inputLength = request.inputLength;
        record.outputLength = request.outputLength;
        record.bytesReturned = reply.bytes;
        record.status = reply.status;
        if (request.input != nullptr)
            std::memcpy(record.input, request.input, std::min<std::size_t>(request.inputLength, sizeof(record.input)));
        if (request.output != nullptr)
            std::memcpy(record.output, request.output,
                        std::min<std::size_t>(request.outputLength, sizeof(record.output)));
        calls::RecordRequest(record);
    }
    if (!done)
        SetLastError(reply.status != 0 ? reply.status : lastError);
    return done;
}

BOOL WINAPI SimDeviceIoControl(HANDLE device, DWORD code, LPVOID input, DWORD inputLength, LPVOID output,
                               DWORD outputLength, LPDWORD returned, LPOVERLAPPED overlapped)
{
    return Call<BOOL>(
        Hook::DeviceIoControl, FALSE,
        [&] {
            return FileText(device) + L"|" + Hexadecimal(code) + L"|in " + Decimal(inputLength) + L"|out " +
                   Decimal(outputLength);
        },
        [&](const Verdict&) {
            const auto object = FindDevice(device);
            if (object == nullptr)
                return DeviceIoControl(device, code, input, inputLength, output, outputLength, returned, overlapped);
            // The system writes the length somewhere: without a place for it, it ends the program.
            if (returned == nullptr && overlapped == nullptr)
                return Finish(ERROR_INVALID_PARAMETER);
            model::Request request;
            request.code = code;
            request.input = static_cast<const std::uint8_t*>(input);
            request.inputLength = inputLength;
            request.output = static_cast<std::uint8_t*>(output);
            request.outputLength = outputLength;
            return AskDevice(*object, request, returned, overlapped);
        });
}

BOOL WINAPI SimCloseHandle(HANDLE handle)
{
    return Call<BOOL>(
        Hook::CloseHandle, FALSE, [&] { return FileText(handle); },
        [&](const Verdict&) {
            // File stands for the whole space of kernel handles here.
            return handles::Closing<BOOL>(OpenKind::File, handle, TRUE, [&] { return CloseHandle(handle); });
        });
}

} // namespace

VTFLTSIM_DEFINE(CreateFileW, SimCreateFileW)
VTFLTSIM_DEFINE(ReadFile, SimReadFile)
VTFLTSIM_DEFINE(WriteFile, SimWriteFile)
VTFLTSIM_DEFINE(SetFilePointer, SimSetFilePointer)
VTFLTSIM_DEFINE(SetFilePointerEx, SimSetFilePointerEx)
VTFLTSIM_DEFINE(GetFileSizeEx, SimGetFileSizeEx)
VTFLTSIM_DEFINE(GetFileSize, SimGetFileSize)
VTFLTSIM_DEFINE(SetEndOfFile, SimSetEndOfFile)
VTFLTSIM_DEFINE(FlushFileBuffers, SimFlushFileBuffers)
VTFLTSIM_DEFINE(DeviceIoControl, SimDeviceIoControl)
VTFLTSIM_DEFINE(CloseHandle, SimCloseHandle)

} // namespace vtfltsim
