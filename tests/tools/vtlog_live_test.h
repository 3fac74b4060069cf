// What the tests of vtlog's live commands share: a program that logs through the library's DLL, and the shared objects
// as another program sees them.
#pragma once

#include "log/breakpoint_block.h"
#include "log/config_block.h"
#include "log/object_names.h"
#include "log/ring_block.h"
#include "tools/vtlog_test.h"

#include <functional>
#include <memory>

namespace vtlog_test {

// tests/children/log_writer.cpp.
class Writer : public Process {
public:
    Writer() : Process({}, {}, L"log_writer.exe") { EXPECT_TRUE(AwaitOutput("ready")); }

    // Waits until the command is done; a command is to be given once only.
    void Do(const std::string& command)
    {
        Type(command + "\n");
        EXPECT_TRUE(AwaitOutput("done " + command));
    }
    // In a thread of its own.
    void Start(const std::string& text) { Type("thread " + text + "\n"); }
    bool AwaitSaid(const std::string& text) { return AwaitOutput("said " + text); }
};

inline constexpr wchar_t WRITER[] = L"log_writer.exe";

inline std::wstring WriterRing(const wchar_t* prefix)
{
    return std::wstring(prefix) + L"LOG_WRITER.EXE";
}

// Named memory and its mutex, made or opened; both held open by the object.
template <class Block>
class Shared {
public:
    Shared(const std::wstring& mapping, const std::wstring& mutex)
        : m_mutex(CreateMutexW(nullptr, FALSE, mutex.c_str())),
          m_mapping(
              CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(Block), mapping.c_str())),
          m_view(MapViewOfFile(m_mapping.get(), FILE_MAP_ALL_ACCESS, 0, 0, sizeof(Block)))
    {
        if (!m_view.valid())
            throw std::runtime_error("a block of the test could not be mapped");
    }
    // With the mutex held.
    void Edit(const std::function<void(Block&)>& edit) const
    {
        Lock();
        edit(*static_cast<Block*>(m_view.get()));
        Unlock();
    }
    std::unique_ptr<Block> Copy() const
    {
        auto copy = std::make_unique<Block>();
        Edit([&](const Block& block) { *copy = block; });
        return copy;
    }
    void Lock() const { WaitForSingleObject(m_mutex.get(), INFINITE); }
    void Unlock() const { ReleaseMutex(m_mutex.get()); }

private:
    vtflt::UniqueHandle m_mutex;
    vtflt::UniqueHandle m_mapping;
    vtflt::UniqueView m_view;
};

struct SharedRing : Shared<vtflt::LogRingBlock> {
    SharedRing() : Shared(WriterRing(vtflt::LOG_RING_GLOBAL_MAPPING_PREFIX), WriterRing(vtflt::LOG_RING_MUTEX_PREFIX))
    {
    }
};

struct SharedBreakpoints : Shared<vtflt::LogBreakpointBlock> {
    SharedBreakpoints() : Shared(vtflt::LOG_BREAKPOINT_GLOBAL_MAPPING_NAME, vtflt::LOG_BREAKPOINT_MUTEX_NAME) {}
};

inline std::wstring ConfigName(std::wstring format, DWORD processId)
{
    return format.replace(format.find(L"%d"), 2, std::to_wstring(processId));
}

struct SharedConfig : Shared<vtflt::LogCfgBlock> {
    explicit SharedConfig(DWORD processId)
        : Shared(ConfigName(vtflt::LOG_CFG_GLOBAL_MAPPING_NAME, processId),
                 ConfigName(vtflt::LOG_CFG_MUTEX_NAME, processId))
    {
    }
};

inline bool EventExists(const std::wstring& name)
{
    return vtflt::UniqueHandle(OpenEventW(SYNCHRONIZE, FALSE, name.c_str())).valid();
}
inline bool MappingExists(const std::wstring& name)
{
    return vtflt::UniqueHandle(OpenFileMappingW(FILE_MAP_READ, FALSE, name.c_str())).valid();
}

class VtLogLiveTest : public VtLogTest {
protected:
    // With every case, all that a viewer makes must be gone.
    ~VtLogLiveTest() override
    {
        EXPECT_FALSE(EventExists(vtflt::LOG_VIEWER_EVENT_NAME));
        EXPECT_FALSE(EventExists(WriterRing(vtflt::LOG_RING_EVENT_PREFIX)));
        EXPECT_FALSE(EventExists(vtflt::LOG_BREAKPOINT_EVENT_NAME));
        EXPECT_FALSE(MappingExists(WriterRing(vtflt::LOG_RING_GLOBAL_MAPPING_PREFIX)));
        EXPECT_FALSE(MappingExists(vtflt::LOG_BREAKPOINT_GLOBAL_MAPPING_NAME));
    }
};

} // namespace vtlog_test
