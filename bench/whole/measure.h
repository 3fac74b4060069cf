// What the measurements share: time, memory, counted calls, and where the results go.
#pragma once

#include "vtfltsim/VTFltSim.hpp"

#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

namespace bench {

using Json = nlohmann::ordered_json;

inline double Milliseconds()
{
    LARGE_INTEGER now = {};
    LARGE_INTEGER frequency = {};
    QueryPerformanceCounter(&now);
    QueryPerformanceFrequency(&frequency);
    return 1000.0 * static_cast<double>(now.QuadPart) / static_cast<double>(frequency.QuadPart);
}

inline double TimeOf(const std::function<void()>& work)
{
    const double begin = Milliseconds();
    work();
    return Milliseconds() - begin;
}

inline double Median(std::vector<double> values)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 != 0 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

// Figures are given with four digits: more would be noise.
inline double Rounded(double value)
{
    char text[32] = {};
    std::snprintf(text, sizeof(text), "%.4g", value);
    return std::strtod(text, nullptr);
}

inline Json Rounded(const std::vector<double>& values)
{
    Json list = Json::array();
    for (const double value : values)
        list.push_back(Rounded(value));
    return list;
}

inline void Require(bool held, const char* what)
{
    if (!held)
        throw std::runtime_error(std::string(what) + ", last error " + std::to_string(GetLastError()));
}

inline void RequireZero(DWORD result, const char* what)
{
    if (result != 0)
        throw std::runtime_error(std::string(what) + " answered " + std::to_string(result));
}

inline std::string Narrow(const std::wstring& text)
{
    std::string narrow;
    for (const wchar_t c : text)
        narrow.push_back(c < 128 ? static_cast<char>(c) : '?');
    return narrow;
}

// Two pieces of work in a row; neither is always first.
template <class One, class Other>
void InTurn(std::size_t turn, const One& one, const Other& other)
{
    if (turn % 2 == 0) {
        one();
        other();
    } else {
        other();
        one();
    }
}

// What two pieces of work cost that are run in turns, so that whatever else the machine does meets both.
struct SideBySide {
    std::vector<double> library;
    std::vector<double> bare;

    // One pair more. Each of the two gives its time in ms.
    template <class Library, class Bare>
    void Add(const Library& timeOfLibrary, const Bare& timeOfBare)
    {
        InTurn(
            library.size(), [&] { library.push_back(timeOfLibrary()); }, [&] { bare.push_back(timeOfBare()); });
    }
};

inline SideBySide InTurns(int pairs, const std::function<void()>& library, const std::function<void()>& bare)
{
    SideBySide times;
    for (int pair = 0; pair < pairs; ++pair)
        times.Add([&] { return TimeOf(library); }, [&] { return TimeOf(bare); });
    return times;
}

inline double Least(const std::vector<double>& values)
{
    return values.empty() ? 0 : *std::min_element(values.begin(), values.end());
}

// The ratio that counts is the median of the pairs' ratios: the two of a pair ran one right behind the other. As many ratios
// lie below the lower quartile as above the upper one.
inline Json ToJson(const SideBySide& times, double target)
{
    std::vector<double> ratios;
    for (std::size_t i = 0; i < times.library.size(); ++i)
        ratios.push_back(times.library[i] / times.bare[i]);
    Require(!ratios.empty(), "at least one pair");
    std::sort(ratios.begin(), ratios.end());
    const std::size_t aside = (ratios.size() - 1) / 4;
    const double library = Median(times.library);
    const double bare = Median(times.bare);
    return {{"library_ms", Rounded(library)},
            {"bare_ms", Rounded(bare)},
            {"ratio", Rounded(Median(ratios))},
            {"ratio_lower_quartile", Rounded(ratios[aside])},
            {"ratio_upper_quartile", Rounded(ratios[ratios.size() - 1 - aside])},
            {"ratio_of_medians", Rounded(library / bare)},
            {"ratio_of_best", Rounded(Least(times.library) / Least(times.bare))},
            {"target", target},
            {"library_runs_ms", Rounded(times.library)},
            {"bare_runs_ms", Rounded(times.bare)}};
}

// The calls that attached modules made in this work, in order, as the simulator records them.
inline std::vector<std::wstring> CallsOf(const std::function<void()>& work)
{
    vtfltsim::Check("VTFltSimRecord", VTFltSimRecord(1));
    work();
    vtfltsim::Check("VTFltSimRecord", VTFltSimRecord(0));
    return vtfltsim::Trace();
}

inline Json CountByFunction(const std::vector<std::wstring>& calls)
{
    std::map<std::string, int> counts;
    for (const std::wstring& call : calls)
        ++counts[Narrow(call.substr(0, call.find(L' ')))];
    return counts;
}

// What the calls moved by this function: the number behind the last bar.
inline std::uint64_t BytesMoved(const std::vector<std::wstring>& calls, const std::wstring& function)
{
    std::uint64_t total = 0;
    for (const std::wstring& call : calls) {
        if (call.starts_with(function + L" "))
            total += std::stoull(Narrow(call.substr(call.rfind(L'|') + 1)));
    }
    return total;
}

// The counts of one operation: calls, and the bytes that they read from files and wrote, the log's among them.
inline Json CostOf(const std::vector<std::wstring>& calls)
{
    return {{"calls", calls.size()},
            {"bytes_read", BytesMoved(calls, L"ReadFile")},
            {"bytes_written", BytesMoved(calls, L"WriteFile")},
            {"by_function", CountByFunction(calls)}};
}

// What attached modules allocated since the counts were reset. To be asked before the program itself allocates.
// VirtualAlloc is not among what the simulator counts: what a module gets by it is seen as memory only.
inline DWORD HeapAllocations()
{
    DWORD count = 0;
    for (const wchar_t* const function : {L"malloc", L"calloc", L"realloc", L"HeapAlloc", L"LocalAlloc"})
        count += VTFltSimGetCallCount(function);
    return count;
}

// Each measurement adds its part to the results and prints a line for whoever waits.
void MeasureFetch(Json& results, bool quick);
void MeasureRegistration(Json& results, bool quick);
void MeasureLists(Json& results, bool quick);
void MeasureHandles(Json& results, bool quick);

} // namespace bench
