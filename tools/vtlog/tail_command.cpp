// vtlog tail: the loop of the live viewer.
#include "breakpoint_table.h"
#include "commands.h"
#include "common/text.h"
#include "console.h"
#include "entry_filter.h"
#include "entry_text.h"
#include "live_text.h"
#include "logging_processes.h"
#include "ring_viewer.h"
#include "stop_signal.h"

#include "log/text_compare.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>

namespace vtlog {
namespace {

// A signal wakes the viewer at once; this is how long it may take to see a new process, or a signal that was lost.
constexpr DWORD DISCOVERY_MILLISECONDS = 250;

class Tail {
public:
    explicit Tail(const TailOptions& options) : m_options(options), m_stop(options.stopEvent, options.seconds)
    {
        if (!options.level.empty()) {
            m_level = ParseLevel(options.level);
            if (!m_level)
                throw Failure(Exit::Usage, fmt::format("--level: \"{}\" is no level; write error, warning, "
                                                       "information, detail, or a number",
                                                       options.level));
        }
        m_texts.ignoreCase = options.ignoreCase;
        for (const std::string& text : options.texts)
            m_texts.texts.push_back(toolkit::ToWide(text));
    }

    Exit Run()
    {
        for (const std::string& program : m_options.programs)
            Watch(ExecutableNameOption(program), true);
        Discover();
        m_presence.emplace();
        Announce();
        std::optional<Exit> ending;
        while (!(ending = m_stop.Ending()) && !m_full) {
            ReadRings(Wait());
            Discover();
            m_caretaker.Visit();
        }
        // Nobody writes any more after this, but for those that just look: what they wrote is read.
        m_presence.reset();
        if (!m_full)
            ReadRings(std::nullopt);
        return ending.value_or(Exit::Ok);
    }

private:
    struct Ring {
        explicit Ring(const std::wstring& name) : viewer(name) {}
        RingViewer viewer;
        bool held = false; // its mutex was not given the last time
    };

    void Announce() const
    {
        if (!m_options.programs.empty()) {
            Diagnose("watching; Ctrl-C ends it");
            return;
        }
        Diagnose(m_rings.empty() ? "no process logs at the moment; waiting for one, Ctrl-C ends it"
                                 : "watching every process that logs; Ctrl-C ends it");
    }

    bool Knows(const std::wstring& name) const
    {
        return std::any_of(m_rings.begin(), m_rings.end(), [&](const std::unique_ptr<Ring>& ring) {
            return vtflt::EqualIgnoringCase(ring->viewer.Name(), name);
        });
    }

    void Watch(const std::wstring& name, bool asked)
    {
        if (Knows(name))
            return;
        if (m_rings.size() + m_stop.Handles().size() == MAXIMUM_WAIT_OBJECTS)
            throw Failure(Exit::Busy, "too many programs log at once; name those to watch with --exe");
        auto ring = std::make_unique<Ring>(name);
        if (!ring->viewer.BecomeReader()) {
            const std::string taken = fmt::format(
                "another vtlog tail reads the live log of {}, and each record reaches one reader only", SafeText(name));
            if (asked)
                throw Failure(Exit::Busy, taken + "; end it first");
            Remark(name, taken);
            return;
        }
        m_rings.push_back(std::move(ring));
        if (!asked)
            Diagnose("watching " + SafeText(name));
    }

    // Without names: every program of which a process logs.
    void Discover()
    {
        if (!m_options.programs.empty() || GetTickCount64() < m_nextDiscovery)
            return;
        m_nextDiscovery = GetTickCount64() + DISCOVERY_MILLISECONDS;
        for (const LoggingProcess& process : LoggingProcesses()) {
            try {
                Watch(process.name, false);
            } catch (const Failure& failure) {
                Remark(process.name, failure.what());
            }
        }
    }

    // Said once for each program, not at every look.
    void Remark(const std::wstring& name, const std::string& message)
    {
        if (std::find(m_remarked.begin(), m_remarked.end(), name) != m_remarked.end())
            return;
        m_remarked.push_back(name);
        Diagnose(message);
    }

    // The ring whose record ended the wait; none after the time for a look at all of them, and at the end.
    std::optional<std::size_t> Wait() const
    {
        std::vector<HANDLE> handles = m_stop.Handles();
        const std::size_t stops = handles.size();
        for (const auto& ring : m_rings)
            handles.push_back(ring->viewer.Event());
        const std::size_t result = WaitForMultipleObjects(static_cast<DWORD>(handles.size()), handles.data(), FALSE,
                                                          m_stop.Spell(DISCOVERY_MILLISECONDS));
        if (result < WAIT_OBJECT_0 + stops || result >= WAIT_OBJECT_0 + handles.size())
            return std::nullopt;
        return result - WAIT_OBJECT_0 - stops;
    }

    // All of them without a ring that was signalled, else that one and the others that are.
    void ReadRings(std::optional<std::size_t> signalled)
    {
        for (std::size_t i = 0; i < m_rings.size() && !m_full; ++i) {
            Ring& ring = *m_rings[i];
            if (!signalled || i == *signalled || WaitForSingleObject(ring.viewer.Event(), 0) == WAIT_OBJECT_0)
                Show(ring);
        }
        // Whoever reads has seen enough.
        if (!Flush())
            m_full = true;
    }

    void Show(Ring& ring)
    {
        const RingViewer::Batch batch = ring.viewer.Read();
        if (!batch.done && !ring.held)
            Diagnose(fmt::format("the live log of {} is held by a process that does not give it back; trying again",
                                 SafeText(ring.viewer.Name())));
        ring.held = !batch.done;
        if (batch.missed != 0)
            Put(MissedLine(ring.viewer.Name(), batch.missed));
        for (const vtflt::LogMessagePtr& message : batch.messages) {
            if (m_full)
                return;
            if (Passes(*message))
                PutRecord(*message);
        }
    }

    std::string MissedLine(const std::wstring& program, std::uint64_t records) const
    {
        if (!m_options.json)
            return Coloured("-- " + MissedText(program, records), Colour::Warning) + "\n";
        nlohmann::ordered_json object;
        object["kind"] = "missed";
        object["program"] = toolkit::ToUtf8(program);
        object["records"] = records;
        return JsonText(object);
    }

    bool Passes(const vtflt::CLogMessage& message) const
    {
        if (m_level && message.GetLevel() > *m_level)
            return false;
        const auto& processes = m_options.processes;
        if (!processes.empty() &&
            std::find(processes.begin(), processes.end(), message.GetProcessId()) == processes.end())
            return false;
        return m_texts.HoldsTexts(message.GetText());
    }

    void PutRecord(const vtflt::CLogMessage& message)
    {
        if (m_options.json) {
            nlohmann::ordered_json object;
            object["kind"] = "record";
            object.update(LiveObject(message));
            Put(JsonText(object));
        } else {
            Put(LiveText(message) + "\n");
        }
        if (m_options.count && ++m_shown >= *m_options.count)
            m_full = true;
    }

    void Put(const std::string& line)
    {
        if (!Print(line))
            m_full = true;
    }

    const TailOptions& m_options;
    StopSignal m_stop;
    std::optional<int> m_level;
    EntryFilter m_texts;
    std::vector<std::unique_ptr<Ring>> m_rings;
    std::optional<ViewerPresence> m_presence; // goes before the rings
    BreakpointCaretaker m_caretaker;
    std::vector<std::wstring> m_remarked;
    std::uint64_t m_nextDiscovery = 0; // of GetTickCount64
    std::uint64_t m_shown = 0;
    bool m_full = false; // no more output is wanted
};

} // namespace

Exit RunTail(const TailOptions& options)
{
    return Tail(options).Run();
}

} // namespace vtlog
