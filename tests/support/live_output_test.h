// The fixture of the cases with a live output in this process, and a thread that logs and may be stopped.
#pragma once

#include "log/live_output.h"
#include "log/own_module.h"
#include "support/live_viewer.h"

#include <memory>
#include <thread>

namespace vttest {

// Writes one record on a thread of its own. One that a breakpoint still holds long after the test is through goes on when
// the viewer leaves, and is a failure.
class LoggingThread {
public:
    LoggingThread(vtflt::NSDBG::CSMOutput& output, const std::wstring& text, LiveViewer& viewer)
        : m_viewer(viewer), m_done(CreateEventW(nullptr, TRUE, FALSE, nullptr)), m_thread([this, &output, text] {
              m_id = GetCurrentThreadId();
              output.WriteLogW(2, 0, text.c_str());
              SetEvent(m_done.get());
          })
    {
    }
    ~LoggingThread() { Join(); }
    LoggingThread(const LoggingThread&) = delete;
    LoggingThread& operator=(const LoggingThread&) = delete;

    HANDLE Done() const { return m_done.get(); }
    bool IsDone() const { return WaitForSingleObject(m_done.get(), 0) == WAIT_OBJECT_0; }
    DWORD Join()
    {
        if (!m_thread.joinable())
            return m_id;
        if (WaitForSingleObject(m_done.get(), HANG_MILLISECONDS) != WAIT_OBJECT_0) {
            ADD_FAILURE() << "the thread that logs is held";
            m_viewer.Leave();
        }
        m_thread.join();
        return m_id;
    }

private:
    LiveViewer& m_viewer;
    DWORD m_id = 0;
    vtflt::UniqueHandle m_done;
    std::thread m_thread;
};

class LiveOutputTest : public ::testing::Test {
protected:
    static std::wstring Executable() { return std::wstring(vtflt::ExecutableModule().Name()); }
    static std::wstring Upper()
    {
        std::wstring name = Executable();
        CharUpperBuffW(name.data(), static_cast<DWORD>(name.size()));
        return name;
    }
    static std::wstring RingName() { return RING_MAPPING + Upper(); }

    // The texts of the ring's records from number 0 on; none when there is no ring.
    static std::vector<std::wstring> RingTexts()
    {
        std::vector<std::wstring> texts;
        const BlockView<vtflt::LogRingBlock> ring(RingName());
        for (std::int64_t i = 0; ring.block != nullptr && i <= ring.block->writeSequence; ++i)
            texts.push_back(std::wstring(vtflt::FieldText(ring.block->slots[vtflt::RingSlot(i)].text)));
        return texts;
    }
    static void ExpectRing(const std::vector<std::wstring>& texts) { EXPECT_EQ(texts, RingTexts()); }
};

} // namespace vttest
