// The system calls that one log message demands, and nothing else: on objects and a file of their own.
#pragma once

#include "log/breakpoint_block.h"
#include "log/object_names.h"
#include "log/ring_block.h"
#include "log/shared_objects.h"
#include "win/owners.h"

#include <string>

namespace bench {

// What a live viewer makes: its presence, the ring's event, and a breakpoint block without breakpoints.
class Viewer {
public:
    explicit Viewer(const std::wstring& ringName);

private:
    vtflt::UniqueHandle m_present;
    vtflt::UniqueHandle m_ringEvent;
    vtflt::UniqueHandle m_breakpointEvent;
    vtflt::UniqueHandle m_breakpointMutex;
    vtflt::UniqueHandle m_breakpointMapping;
};

class BareLog {
public:
    // The file begins with the mark of a wide file. Processes that give the same path share it.
    explicit BareLog(const std::wstring& path);

    // A message that nobody wants: the level is asked for, and whether there is a viewer.
    void Reject();
    // A message for the file; without a viewer.
    void Accept();
    // Also for the viewer.
    void AcceptWithViewer();
    // Before AcceptWithViewer: what stays open from record to record.
    void ConnectToViewer(const std::wstring& ringName);

private:
    void UseConfiguration();
    void WriteRecord();

    vtflt::UniqueHandle m_configuration;
    vtflt::UniqueHandle m_fileMutex;
    vtflt::UniqueHandle m_file;
    vtflt::UniqueHandle m_ringMutex;
    vtflt::UniqueHandle m_ringMapping;
    vtflt::UniqueHandle m_ringEvent;
    vtflt::UniqueHandle m_breakpointMutex;
    vtflt::UniqueHandle m_breakpointMapping;
    vtflt::LogRecordBlock m_record = {};
};

} // namespace bench
