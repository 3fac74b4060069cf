// The live viewer of the log, played by a test: the objects that it makes, and what the library puts into them.
//
// The names stand here a second time, in full: a name that changes in the library breaks every viewer there is.
#pragma once

#include "log/bounded_text.h"
#include "log/breakpoint_block.h"
#include "log/ring_block.h"
#include "log/shared_objects.h"
#include "vtfltsim/VTFltSim.hpp"
#include "win/owners.h"

#include <gtest/gtest.h>
#include <string>
#include <string_view>

namespace vttest {

// Far beyond what anything takes on a machine that is busy with other things.
inline constexpr DWORD HANG_MILLISECONDS = 60 * 1000;
inline constexpr wchar_t VIEWER_EVENT[] = L"Global\\EVENT_9CF42DA4-ACD1-4F3F-8D6F-31023974A079";
inline constexpr wchar_t RING_EVENT[] = L"Global\\CB6AF056-4138-4342-BE43-B4B37843FE36_EVENT_";
inline constexpr wchar_t RING_MUTEX[] = L"Global\\CB6AF056-4138-4342-BE43-B4B37843FE36_MUTEXT_";
inline constexpr wchar_t RING_MAPPING[] = L"Global\\CB6AF056-4138-4342-BE43-B4B37843FE36_SM_";
inline constexpr wchar_t RING_LOCAL_MAPPING[] = L"Local\\CB6AF056-4138-4342-BE43-B4B37843FE36_SM_";
inline constexpr wchar_t BREAKPOINT_EVENT[] = L"Global\\3B66FDF6-4FBE-45F5-8A86-8915C3184D5B_EVENT";
inline constexpr wchar_t BREAKPOINT_MUTEX[] = L"Global\\3B66FDF6-4FBE-45F5-8A86-8915C3184D5B_MU_BREAKPOINTS";
inline constexpr wchar_t BREAKPOINT_MAPPING[] = L"Global\\3B66FDF6-4FBE-45F5-8A86-8915C3184D5B_SM_BREAKPOINTS";
inline constexpr wchar_t BREAKPOINT_LOCAL_MAPPING[] = L"Local\\3B66FDF6-4FBE-45F5-8A86-8915C3184D5B_SM_BREAKPOINTS";
inline constexpr wchar_t HIT_EVENT[] = L"Global\\BPHIT_EVENT_";

// An event that resets itself; fails the case when it cannot be made.
inline vtflt::UniqueHandle MakeAutoEvent(const std::wstring& name)
{
    vtflt::UniqueHandle event(CreateEventW(nullptr, FALSE, FALSE, name.c_str()));
    EXPECT_TRUE(event.valid());
    return event;
}

inline bool IsSignalled(const vtflt::UniqueHandle& event)
{
    return WaitForSingleObject(event.get(), 0) == WAIT_OBJECT_0;
}

inline vtflt::UniqueHandle MakeMapping(const std::wstring& name, DWORD bytes, SECURITY_ATTRIBUTES* attributes = nullptr,
                                       DWORD kind = PAGE_READWRITE)
{
    vtflt::UniqueHandle mapping(CreateFileMappingW(INVALID_HANDLE_VALUE, attributes, kind, 0, bytes, name.c_str()));
    EXPECT_TRUE(mapping.valid());
    return mapping;
}

// A mapping that nobody may open: its access list is there, and empty.
inline vtflt::UniqueHandle MakeBarredMapping(const std::wstring& name)
{
    ACL nobody = {};
    SECURITY_DESCRIPTOR descriptor = {};
    EXPECT_TRUE(InitializeAcl(&nobody, sizeof(nobody), ACL_REVISION));
    EXPECT_TRUE(InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION));
    EXPECT_TRUE(SetSecurityDescriptorDacl(&descriptor, TRUE, &nobody, FALSE));
    SECURITY_ATTRIBUTES attributes = {sizeof(attributes), &descriptor, FALSE};
    return MakeMapping(name, 4096, &attributes);
}

inline bool MappingExists(const std::wstring& name)
{
    return vtflt::UniqueHandle(OpenFileMappingW(FILE_MAP_READ, FALSE, name.c_str())).valid();
}
inline bool MutexExists(const std::wstring& name)
{
    return vtflt::UniqueHandle(OpenMutexW(SYNCHRONIZE, FALSE, name.c_str())).valid();
}

// A shared block that somebody made, mapped as it stands; block is null when there is none.
template <class Block>
class BlockView {
public:
    explicit BlockView(const std::wstring& name)
        : m_mapping(OpenFileMappingW(FILE_MAP_READ | FILE_MAP_WRITE, FALSE, name.c_str())),
          m_view(MapViewOfFile(m_mapping.get(), FILE_MAP_READ | FILE_MAP_WRITE, 0, 0, sizeof(Block))),
          block(static_cast<Block*>(m_view.get()))
    {
    }

private:
    vtflt::UniqueHandle m_mapping;
    vtflt::UniqueView m_view;

public:
    Block* const block;
};

// The viewer's presence and its event for one executable's ring.
class LiveViewer {
public:
    // The name in upper case.
    explicit LiveViewer(const std::wstring& executable)
        : m_presence(CreateEventW(nullptr, TRUE, FALSE, VIEWER_EVENT)), m_ring(MakeAutoEvent(RING_EVENT + executable))
    {
        EXPECT_TRUE(m_presence.valid());
    }
    void Leave() { m_presence.reset(); }
    void ComeBack() { m_presence.reset(CreateEventW(nullptr, TRUE, FALSE, VIEWER_EVENT)); }
    void CloseRingEvent() { m_ring.reset(); }
    bool WasWoken() const { return IsSignalled(m_ring); }
    HANDLE RingEvent() const { return m_ring.get(); }

private:
    vtflt::UniqueHandle m_presence;
    vtflt::UniqueHandle m_ring;
};

// The viewer's breakpoints. No case holds the mutex while a record is logged, unless it says so.
class ViewerBreakpoints {
public:
    explicit ViewerBreakpoints(const wchar_t* mappingName = BREAKPOINT_MAPPING)
        : m_event(MakeAutoEvent(BREAKPOINT_EVENT)), m_mutex(CreateMutexW(nullptr, FALSE, BREAKPOINT_MUTEX)),
          m_mapping(MakeMapping(mappingName, sizeof(vtflt::LogBreakpointBlock))),
          m_view(MapViewOfFile(m_mapping.get(), FILE_MAP_READ | FILE_MAP_WRITE, 0, 0, 0)),
          block(static_cast<vtflt::LogBreakpointBlock*>(m_view.get()))
    {
        EXPECT_TRUE(m_mutex.valid());
        EXPECT_NE(nullptr, block);
    }

    vtflt::LogBreakpoint& Set(std::size_t index, std::wstring_view executable, std::wstring_view pattern)
    {
        const vtflt::MutexHold hold(m_mutex.get());
        vtflt::LogBreakpoint& entry = block->breakpoints[index];
        entry = {};
        entry.identifier.bytes[0] = 0xB0;
        entry.identifier.bytes[15] = static_cast<std::uint8_t>(index + 1);
        entry.enabled = 1;
        vtflt::CopyText(entry.executableName, executable);
        vtflt::CopyText(entry.pattern, pattern);
        block->count = 1;
        return entry;
    }
    // Waits for a hit of whoever signals done in the end (an event, or a process); false when there was none.
    bool AwaitHit(HANDLE done) const
    {
        const HANDLE either[] = {m_event.get(), done};
        return WaitForMultipleObjects(2, either, FALSE, HANG_MILLISECONDS) == WAIT_OBJECT_0;
    }
    vtflt::LogBreakpointHit Hit(std::size_t index = 0) const
    {
        const vtflt::MutexHold hold(m_mutex.get());
        return block->hits[index];
    }
    bool WasHit() const { return IsSignalled(m_event); }
    HANDLE Event() const { return m_event.get(); }
    HANDLE Mutex() const { return m_mutex.get(); }

    // The event that a stopped thread waits for; not valid when there is none.
    static vtflt::UniqueHandle HitEvent(const vtflt::LogUuid& hit)
    {
        wchar_t text[vtflt::LOG_UUID_TEXT_CAPACITY];
        vtflt::BuildUuidText(text, hit);
        return vtflt::UniqueHandle(
            OpenEventW(EVENT_MODIFY_STATE | SYNCHRONIZE, FALSE, (std::wstring(HIT_EVENT) + text).c_str()));
    }
    static void LetGo(const vtflt::LogUuid& hit)
    {
        const vtflt::UniqueHandle event = HitEvent(hit);
        EXPECT_TRUE(event.valid());
        SetEvent(event.get());
    }

private:
    vtflt::UniqueHandle m_event;
    vtflt::UniqueHandle m_mutex;
    vtflt::UniqueHandle m_mapping;
    vtflt::UniqueView m_view;

public:
    vtflt::LogBreakpointBlock* const block;
};

// The simulator on this program's own imports: its calls are counted and recorded, and fail on demand. No volume and no
// registry is simulated.
class WatchedCalls {
public:
    WatchedCalls() { m_machine.AttachProgram(); }
    ~WatchedCalls()
    {
        VTFltSimClearCallFaults();
        m_machine.Detach();
    }
    WatchedCalls(const WatchedCalls&) = delete;
    WatchedCalls& operator=(const WatchedCalls&) = delete;

    void Fail(const wchar_t* function, const wchar_t* match, DWORD error)
    {
        vtfltsim::Check("VTFltSimFailCall", VTFltSimFailCall(function, match, 1, 0, error));
    }
    // The waits whose text (the mutex's name, a bar, the milliseconds) contains match, from the nth on.
    void ForceWait(const wchar_t* match, DWORD result, DWORD nth = 1, DWORD count = 0)
    {
        VTFLTSIM_CALL_FAULT fault = {};
        fault.size = sizeof(fault);
        fault.what = VTFLTSIM_CALL_RETURNS;
        fault.function = L"WaitForSingleObject";
        fault.match = match;
        fault.nth = nth;
        fault.count = count;
        fault.value = result;
        vtfltsim::Check("VTFltSimSetCallFault", VTFltSimSetCallFault(&fault));
    }
    void EndFaults() { VTFltSimClearCallFaults(); }
    DWORD Struck() const { return VTFltSimGetCallFaultHits(); }
    void Record() { VTFltSimRecord(1); }
    // The calls recorded so far whose text contains this.
    DWORD Recorded(std::wstring_view text) const
    {
        DWORD count = 0;
        wchar_t line[512];
        for (DWORD i = 0; VTFltSimGetTrace(i, line, 512) == ERROR_SUCCESS; ++i)
            count += std::wstring_view(line).find(text) != std::wstring_view::npos ? 1u : 0u;
        return count;
    }
    // All of them, a line each.
    std::wstring Trace() const
    {
        std::wstring all;
        wchar_t line[512];
        for (DWORD i = 0; VTFltSimGetTrace(i, line, 512) == ERROR_SUCCESS; ++i)
            all.append(line).append(L"\n");
        return all;
    }

private:
    vtfltsim::SimMachine m_machine;
};

} // namespace vttest
