// whole_bench [--quick] FILE [PART...]: measures whole operations and writes the results into FILE as JSON. Parts: fetch,
// registration, lists, handles; without one, all.
#include "measure.h"

#include <fstream>
#include <set>

namespace {

int Run(const std::vector<std::string>& arguments)
{
    bool quick = false;
    std::string file;
    std::set<std::string> parts;
    for (const std::string& argument : arguments) {
        if (argument == "--quick")
            quick = true;
        else if (file.empty())
            file = argument;
        else
            parts.insert(argument);
    }
    if (file.empty())
        throw std::runtime_error("no file for the results");
    const auto wanted = [&](const char* part) { return parts.empty() || parts.contains(part); };

    bench::Json results;
    if (wanted("fetch"))
        bench::MeasureFetch(results, quick);
    if (wanted("registration"))
        bench::MeasureRegistration(results, quick);
    if (wanted("lists"))
        bench::MeasureLists(results, quick);
    if (wanted("handles"))
        bench::MeasureHandles(results, quick);

    std::ofstream out(file);
    out << results.dump(2) << '\n';
    bench::Require(out.good(), "writing the results");
    return 0;
}

} // namespace

int wmain(int count, wchar_t** values)
{
    try {
        std::vector<std::string> arguments;
        for (int i = 1; i < count; ++i)
            arguments.push_back(bench::Narrow(values[i]));
        return Run(arguments);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "whole_bench: %s\n", error.what());
        return 1;
    }
}
