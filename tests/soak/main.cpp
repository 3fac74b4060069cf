// vtsoak [--minutes M] [--kills N] [--seed S]: exits with 0 when every restored backup was equal to its snapshot, no
// process hung, none failed without a reason, and as many were killed as were asked for. When something is wrong the machine
// and the repository stay.
#include "soak.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>

namespace {

bool Parse(int argc, wchar_t** argv, vtsoak::Options& options)
{
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::wstring name = argv[i];
        wchar_t* rest = nullptr;
        if (name == L"--minutes")
            options.minutes = std::wcstod(argv[i + 1], &rest);
        else if (name == L"--kills")
            options.kills = std::wcstoul(argv[i + 1], &rest, 10);
        else if (name == L"--seed")
            options.seed = static_cast<unsigned>(std::wcstoul(argv[i + 1], &rest, 10));
        else
            return false;
        if (rest == argv[i + 1] || *rest != L'\0')
            return false;
    }
    return argc % 2 == 1 && options.minutes > 0;
}

std::wstring FreshFolder()
{
    wchar_t temporary[MAX_PATH] = {};
    GetTempPathW(MAX_PATH, temporary);
    const std::wstring root = std::wstring(temporary) + L"vtsoak-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                              std::to_wstring(GetTickCount64());
    CreateDirectoryW(root.c_str(), nullptr);
    return root;
}

void Print(const vtsoak::Totals& totals, double seconds)
{
    const auto number = [](const std::atomic<std::uint64_t>& value) {
        return static_cast<unsigned long long>(value.load());
    };
    std::printf("%llu runs killed, %llu were faster; %llu backups, %llu of them incremental; %llu registered anew; "
                "%llu times busy; tracking lost %llu times; %llu writes meanwhile\n",
                number(totals.kills), number(totals.survived), number(totals.backups), number(totals.incremental),
                number(totals.registrations), number(totals.busy), number(totals.losses), number(totals.writes));
    std::printf("%llu restores, %llu bytes compared: %llu differences, %llu hangs, %llu failures in %.0f seconds\n",
                number(totals.restores), number(totals.bytes), number(totals.differences), number(totals.hangs),
                number(totals.failures), seconds);
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    vtsoak::Options options;
    if (!Parse(argc, argv, options)) {
        std::fputs("vtsoak [--minutes M] [--kills N] [--seed S]\n", stderr);
        return 2;
    }
    const ULONGLONG started = GetTickCount64();
    const std::wstring root = FreshFolder();
    bool good = false;
    std::printf("seed %u\n", options.seed);
    try {
        vtsoak::Soak soak(root, options);
        good = soak.Run();
        Print(soak.Sum(), static_cast<double>(GetTickCount64() - started) / 1000);
        if (!good) {
            std::printf("NOT GOOD\n");
            std::fflush(stdout);
            std::_Exit(1); // the machine stays as it is
        }
    } catch (const std::exception& error) {
        std::printf("WRONG: %s\n", error.what());
        return 1;
    }
    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
    std::printf("All equal\n");
    return 0;
}
