// vtdemo: the whole of VTFltMgr at work on a simulated machine. Exits with 0 when every restored backup was
// equal to its snapshot and everything that the plan expects has shown.
#include "demo.h"

#include <cstdio>
#include <exception>

namespace {

// Removes a folder of plain files and folders.
void RemoveTree(const std::wstring& path)
{
    WIN32_FIND_DATAW found = {};
    const HANDLE search = FindFirstFileW((path + L"\\*").c_str(), &found);
    if (search != INVALID_HANDLE_VALUE) {
        do {
            const std::wstring name = found.cFileName;
            if (name == L"." || name == L"..")
                continue;
            const std::wstring full = path + L"\\" + name;
            SetFileAttributesW(full.c_str(), FILE_ATTRIBUTE_NORMAL);
            if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
                RemoveTree(full);
            else
                DeleteFileW(full.c_str());
        } while (FindNextFileW(search, &found));
        FindClose(search);
    }
    RemoveDirectoryW(path.c_str());
}

std::wstring FreshFolder()
{
    wchar_t temporary[MAX_PATH] = {};
    GetTempPathW(MAX_PATH, temporary);
    const std::wstring root = std::wstring(temporary) + L"vtdemo-" + std::to_wstring(GetCurrentProcessId());
    RemoveTree(root);
    CreateDirectoryW(root.c_str(), nullptr);
    return root;
}

} // namespace

int wmain()
{
    const ULONGLONG started = GetTickCount64();
    const std::wstring root = FreshFolder();
    bool good = false;
    try {
        vtdemo::Demo demo(root);
        good = demo.Run();
        const vtdemo::Totals totals = demo.Sum();
        std::printf("%d backups: %d full, %d verify, %d incremental; %d runs killed; %d times busy; %llu writes "
                    "meanwhile\n",
                    totals.backups, totals.full, totals.verify, totals.incremental, totals.kills, totals.busy,
                    static_cast<unsigned long long>(totals.writes));
        std::printf("%.1f GiB of restored volumes compared with their snapshots, every byte\n",
                    static_cast<double>(totals.compared) / (1 << 30));
    } catch (const std::exception& error) {
        std::printf("FAILED: %s\n", error.what());
        good = false;
    }
    RemoveTree(root);
    std::printf("%s in %.1f seconds\n", good ? "All equal" : "NOT GOOD",
                static_cast<double>(GetTickCount64() - started) / 1000.0);
    return good ? 0 : 1;
}
