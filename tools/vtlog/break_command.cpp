// vtlog break: the loop that shows stopped threads and lets them go.
#include "breakpoint_table.h"
#include "commands.h"
#include "common/text.h"
#include "console.h"
#include "entry_text.h"
#include "line_reader.h"
#include "live_text.h"
#include "ring_viewer.h"
#include "stop_signal.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>

namespace vtlog {
namespace {

using namespace vtflt;

// The breakpoints' event may wake another viewer instead, so hits are looked for at least this often.
constexpr DWORD LOOK_AGAIN_MILLISECONDS = 100;
// A thread makes the event that lets it go right behind its hit; one that has not in this time has gone.
constexpr std::uint64_t APPEAR_MILLISECONDS = 10'000;
// The same at the end, when the program should not linger: without a viewer no thread waits longer than five seconds.
constexpr std::uint64_t LAST_APPEAR_MILLISECONDS = 1'000;

// A thread at a breakpoint.
struct Stopped {
    LogBreakpointHit hit = {};
    UniqueHandle process;     // empty where this account may not open it
    UniqueHandle letGo;       // its event; empty until it has made it
    std::uint64_t since = 0;  // of GetTickCount64
    std::uint64_t number = 0; // as shown; 0: not yet
};

class Breaker {
public:
    explicit Breaker(const BreakOptions& options)
        : m_options(options), m_program(ExecutableNameOption(options.program)),
          m_stop(options.stopEvent, options.seconds), m_ring(m_program)
    {
        m_caretaker.Visit(m_table);
        for (const std::string& text : options.texts)
            Set(text);
        m_presence.emplace();
    }
    ~Breaker() { CleanUp(); }
    Breaker(const Breaker&) = delete;
    Breaker& operator=(const Breaker&) = delete;

    Exit Run()
    {
        if (!m_options.hold)
            m_lines.emplace();
        Diagnose(m_options.hold ? "breakpoint set; Ctrl-C ends it"
                                : "breakpoint set; Enter lets the first stopped thread go, q and Enter ends it");
        std::optional<Exit> ending;
        while (!(ending = m_stop.Ending()) && !m_over) {
            Wait();
            TakeHits();
            for (Stopped& stopped : m_stopped)
                Advance(stopped);
            LetGo();
            Forget();
            m_caretaker.Visit(m_table);
            if (!Flush())
                m_over = true;
        }
        CleanUp();
        if (!Flush())
            return Exit::Ok;
        return ending.value_or(Exit::Ok);
    }

private:
    void Set(const std::string& text)
    {
        BreakpointRequest request;
        request.executableName = m_program;
        request.text = toolkit::ToWide(text);
        request.processId = m_options.processId;
        request.threadId = m_options.threadId;
        if (request.text.size() >= LOG_RECORD_TEXT_CAPACITY)
            throw Failure(Exit::Usage,
                          fmt::format("--text: no message is longer than {} characters", LOG_RECORD_TEXT_CAPACITY - 1));
        m_table.Add(request);
    }

    void Wait() const
    {
        std::vector<HANDLE> handles = m_stop.Handles();
        handles.push_back(m_table.Event());
        if (m_lines)
            handles.push_back(m_lines->Event());
        WaitForMultipleObjects(static_cast<DWORD>(handles.size()), handles.data(), FALSE,
                               m_stop.Spell(LOOK_AGAIN_MILLISECONDS));
    }

    void TakeHits()
    {
        for (const LogBreakpointHit& hit : m_table.Hits()) {
            const bool known = std::any_of(m_stopped.begin(), m_stopped.end(),
                                           [&](const Stopped& one) { return one.hit.hit == hit.hit; });
            if (known)
                continue;
            Stopped stopped;
            stopped.hit = hit;
            stopped.process.reset(OpenProcess(SYNCHRONIZE, FALSE, hit.processId));
            stopped.since = GetTickCount64();
            m_stopped.push_back(std::move(stopped));
        }
    }

    static bool HasEnded(const Stopped& stopped) noexcept
    {
        return stopped.process && WaitForSingleObject(stopped.process.get(), 0) == WAIT_OBJECT_0;
    }

    // Shows a thread that has come to stand, and drops one that is no more.
    void Advance(Stopped& stopped)
    {
        if (HasEnded(stopped)) {
            Drop(stopped, "gone");
            return;
        }
        if (stopped.letGo)
            return;
        stopped.letGo = OpenHitEvent(stopped.hit.hit);
        if (!stopped.letGo) {
            if (GetTickCount64() - stopped.since >= APPEAR_MILLISECONDS)
                Drop(stopped, "gone");
            return;
        }
        stopped.number = ++m_hits;
        stopped.since = GetTickCount64();
        ShowHit(stopped);
    }

    // Those whose time is over, or the first ones, one for every Enter.
    void LetGo()
    {
        for (Stopped& stopped : m_stopped) {
            if (m_options.hold && stopped.number != 0 && !IsDropped(stopped) &&
                GetTickCount64() - stopped.since >= static_cast<std::uint64_t>(*m_options.hold * 1000))
                Release(stopped, "hold");
        }
        if (!m_lines)
            return;
        for (const std::string& line : m_lines->Take()) {
            if (line == "q") {
                m_over = true;
                return;
            }
            const auto first = std::find_if(m_stopped.begin(), m_stopped.end(),
                                            [](const Stopped& one) { return one.number != 0 && !IsDropped(one); });
            if (first != m_stopped.end())
                Release(*first, "enter");
        }
        if (m_lines->Ended())
            m_over = true;
    }

    void Release(Stopped& stopped, const char* how)
    {
        SetEvent(stopped.letGo.get());
        Drop(stopped, how);
        if (m_options.count && ++m_released >= *m_options.count)
            m_over = true;
    }

    // The place is emptied behind the signal: were this program killed in between, another one would still know of the
    // thread.
    void Drop(Stopped& stopped, const char* how)
    {
        m_table.FreeHit(stopped.hit.hit);
        if (stopped.number != 0)
            ShowEnd(stopped, how);
        stopped.hit = {};
    }
    static bool IsDropped(const Stopped& stopped) noexcept { return stopped.hit.breakpoint.IsNone(); }
    void Forget() { std::erase_if(m_stopped, IsDropped); }

    void ShowHit(const Stopped& stopped)
    {
        const auto record = m_ring.NewestOf(stopped.hit.processId, stopped.hit.threadId);
        if (m_options.json) {
            nlohmann::ordered_json object;
            object["kind"] = "hit";
            object["hit"] = stopped.number;
            object["pid"] = stopped.hit.processId;
            object["tid"] = stopped.hit.threadId;
            if (record)
                object["record"] = LiveObject(CLogMessage(*record));
            else
                object["record"] = nullptr;
            Put(JsonText(object));
            return;
        }
        Put(Coloured(fmt::format("hit {}: process {} thread {} stands", stopped.number, stopped.hit.processId,
                                 stopped.hit.threadId),
                     Colour::Warning) +
            "\n");
        if (record)
            Put("    " + LiveText(CLogMessage(*record)) + "\n");
    }

    void ShowEnd(const Stopped& stopped, const char* how)
    {
        const bool gone = std::string_view(how) == "gone";
        if (m_options.json) {
            nlohmann::ordered_json object;
            object["kind"] = gone ? "gone" : "released";
            object["hit"] = stopped.number;
            if (!gone)
                object["how"] = how;
            Put(JsonText(object));
            return;
        }
        Put(fmt::format("hit {}: {}\n", stopped.number, gone ? "its process has ended" : "let go"));
    }

    void Put(const std::string& text)
    {
        if (!Print(text))
            m_over = true;
    }

    // No thread must go on standing: the breakpoints first, so that no new hit comes, then everyone who stands, also
    // those that were not seen before. After this, doing it again does nothing.
    void CleanUp() noexcept
    {
        if (m_cleaned)
            return;
        m_cleaned = true;
        try {
            if (!m_table.RemoveAll())
                Diagnose("the breakpoints could not be taken back: a process holds them and does not give them back");
            const std::uint64_t end = GetTickCount64() + LAST_APPEAR_MILLISECONDS;
            TakeHits();
            while (!m_stopped.empty()) {
                const bool late = GetTickCount64() >= end;
                for (Stopped& stopped : m_stopped)
                    LetGoAtLast(stopped, late);
                Forget();
                if (!m_stopped.empty())
                    Sleep(10);
            }
        } catch (const std::exception& error) {
            Diagnose(error.what());
        }
        m_presence.reset();
    }

    void LetGoAtLast(Stopped& stopped, bool late)
    {
        if (!stopped.letGo)
            stopped.letGo = OpenHitEvent(stopped.hit.hit);
        if (stopped.letGo) {
            SetEvent(stopped.letGo.get());
            Drop(stopped, "end");
        } else if (late || HasEnded(stopped)) {
            Drop(stopped, "gone");
        }
    }

    const BreakOptions& m_options;
    std::wstring m_program;
    StopSignal m_stop;
    BreakpointTable m_table;
    BreakpointCaretaker m_caretaker;
    RingViewer m_ring; // without it no process looks at the breakpoints
    std::optional<ViewerPresence> m_presence;
    std::optional<LineReader> m_lines; // without --hold
    std::vector<Stopped> m_stopped;    // in the order in which they were seen
    std::uint64_t m_hits = 0;
    std::uint64_t m_released = 0;
    bool m_over = false; // to end now
    bool m_cleaned = false;
};

} // namespace

Exit RunBreak(const BreakOptions& options)
{
    return Breaker(options).Run();
}

} // namespace vtlog
