// How long the calls of modules take, by kind: for runs of their own, not for those that are compared with others.
#pragma once

#include "measure.h"

#include "cost/import_table.h"

#include <memory>

namespace bench {

// While it lives every call of these modules through their imports, as far as it is listed in call_times.cpp, is timed; the
// simulator's redirection, which is part of a call, is counted with it. Only one at a time, up to two modules, one thread.
class CallTimes {
public:
    explicit CallTimes(const std::vector<HMODULE>& modules);
    CallTimes(const CallTimes&) = delete;
    CallTimes& operator=(const CallTimes&) = delete;
    ~CallTimes();

    // The times of this work, made so many times, in ms of one: the kinds of calls, "between_calls" what is left, "all".
    Json Of(int times, const std::function<void()>& work);

private:
    std::vector<std::unique_ptr<vttest::ImportOverride>> m_overrides;
};

} // namespace bench
