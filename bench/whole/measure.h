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

// What two pieces of work cost that are run in turns, so that whatever else the machine does meets both.
struct SideBySide {
    std::vector<double> library;
    std::vector<double> bare;
};

inline SideBySide InTurns(int pairs, const std::function<void()>& library, const std::function<void()>& bare)
{
    SideBySide times;
    for (int pair = 0; pair < pairs; ++pair) {
        // Neither is always first.
        if (pair % 2 == 0) {
            times.library.push_back(TimeOf(library));
            times.bare.push_back(TimeOf(bare));
        } else {
            times.bare.push_back(TimeOf(bare));
            times.library.push_back(TimeOf(library));
        }
    }
    return times;
}

inline Json ToJson(const SideBySide& times, double target)
{
    const double library = Median(times.library);
    const double bare = Median(times.bare);
    const double best = *std::min_element(times.library.begin(), times.library.end()) /
                        *std::min_element(times.bare.begin(), times.bare.end());
    return {
        {"library_ms", Rounded(library)},     {"bare_ms", Rounded(bare)}, {"ratio", Rounded(library / bare)},
        {"ratio_of_best", Rounded(best)},     {"target", target},         {"library_runs_ms", Rounded(times.library)},
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

// Each measurement adds its part to the results and prints a line for whoever waits.
void MeasureFetch(Json& results, bool quick);
void MeasureRegistration(Json& results, bool quick);
void MeasureLists(Json& results, bool quick);
void MeasureHandles(Json& results, bool quick);
void MeasureLoad(Json& results);

} // namespace bench
