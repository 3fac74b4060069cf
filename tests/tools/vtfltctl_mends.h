// Running the commands that doctor prints, as a script would, and what they must never do.
#pragma once

#include "tools/vtfltctl_test.h"

#include <map>
#include <set>
#include <string>
#include <vector>

namespace vtfltctl_test {

inline constexpr wchar_t DRIVER_LIST[] = L"DeviceListForReSync";
inline constexpr wchar_t VERIFY[] = L"DeviceListForReSyncNightly.Last";
inline constexpr wchar_t PENDING[] = L"DeviceListForReSyncNightly";
inline constexpr wchar_t GONE[] = L"{11111111-2222-3333-4444-555555555555}";

class VtFltCtlMendTest : public VtFltCtlTest {
protected:
    // A command line as it is printed, without what names the simulated machine. The case fails when that is missing from
    // one of its commands.
    [[nodiscard]] std::string WithoutMachine(std::string line) const;
    // Doctor's commands, in the order in which it prints them.
    [[nodiscard]] std::vector<std::string> PrintedMends() const;
    // Runs a printed line as a shell does: each command when the one before has succeeded. The case fails when one of them
    // takes off a mark of an application that is registered, or ends with a code that says it went wrong in the middle.
    // True when all of them succeeded.
    bool RunPrinted(const std::string& line) const;
    // Runs the commands of a finding, all of which must succeed.
    void Mend(const nlohmann::json& finding) const;
    // Runs everything that doctor prints, in order, and then all of it again, as an old script would.
    void RunEveryMendTwice() const;

    // A text with its letters in the other case.
    [[nodiscard]] static std::wstring OtherCase(std::wstring text);
    void StoreIds(const std::vector<std::wstring>& ids) { StoreList(L"RegisteredAppIDs", ids, IDS_KEY); }
    // Stores the characters of a list as they are, its NULs included.
    void StoreText(const std::wstring& value, const std::wstring& text, const wchar_t* key = LISTS_KEY,
                   DWORD type = REG_MULTI_SZ);

private:
    // Every volume that an application's lists mark: as the library compares, and as the bytes name it in any writing.
    using Marks = std::map<std::wstring, std::set<std::wstring>>;
    [[nodiscard]] Marks AllMarks() const;
};

} // namespace vtfltctl_test
