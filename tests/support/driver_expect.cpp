#include "support/driver_expect.h"

#include <algorithm>
#include <cstring>

namespace vttest {

void ExpectRequests(const std::vector<SentRequest>& expected)
{
    const std::vector<VTFLTSIM_REQUEST> sent = vtfltsim::Requests();
    EXPECT_EQ(sent.size(), expected.size());
    for (std::size_t i = 0; i < std::min(sent.size(), expected.size()); ++i) {
        const VTFLTSIM_REQUEST& request = sent[i];
        const std::size_t shown = std::min<std::size_t>(request.inputLength, sizeof(request.input));
        EXPECT_EQ(request.code, expected[i].code) << "request " << i;
        EXPECT_EQ(Narrow(request.endpoint), Narrow(expected[i].endpoint)) << "request " << i;
        EXPECT_EQ(request.inputLength, expected[i].input.size()) << "request " << i;
        EXPECT_EQ(Bytes(request.input, request.input + shown), expected[i].input) << "request " << i;
        EXPECT_EQ(request.outputLength, expected[i].outputLength) << "request " << i;
    }
}

void ExpectCalls(const std::vector<std::wstring>& functions)
{
    std::vector<std::string> called;
    for (const std::wstring& line : LibraryCalls())
        called.push_back(Narrow(line.substr(0, line.find(L' '))));
    std::vector<std::string> expected;
    for (const std::wstring& function : functions)
        expected.push_back(Narrow(function));
    EXPECT_EQ(called, expected);
}

std::vector<std::wstring> CallsOf(const std::wstring& function)
{
    std::vector<std::wstring> lines;
    for (const std::wstring& line : LibraryCalls()) {
        if (line.substr(0, line.find(L' ')) == function)
            lines.push_back(line);
    }
    return lines;
}

namespace {

void SetFault(DWORD what, const wchar_t* function, ULONGLONG value, DWORD error, const wchar_t* match, DWORD nth)
{
    VTFLTSIM_CALL_FAULT fault = {};
    fault.size = sizeof(fault);
    fault.what = what;
    fault.function = function;
    fault.match = match;
    fault.nth = nth;
    fault.count = 1;
    fault.error = error;
    fault.value = value;
    vtfltsim::Check("VTFltSimSetCallFault", VTFltSimSetCallFault(&fault));
}

} // namespace

void ForceCall(const wchar_t* function, ULONGLONG value, DWORD error, const wchar_t* match, DWORD nth)
{
    SetFault(VTFLTSIM_CALL_RETURNS, function, value, error, match, nth);
}

void FailCallAfterwards(const wchar_t* function, DWORD error, const wchar_t* match, DWORD nth)
{
    SetFault(VTFLTSIM_CALL_FAILS_AFTER, function, 0, error, match, nth);
}

std::vector<std::wstring> UtilityCommands(const vtfltsim::SimMachine& machine)
{
    std::vector<std::wstring> commands;
    WCHAR text[1024];
    for (DWORD i = 0; VTFltSimGetUtilityCommand(machine.handle(), i, text, 1024) == 0; ++i)
        commands.emplace_back(text);
    return commands;
}

Bytes NumberBytes(DWORD number)
{
    Bytes bytes(sizeof(number));
    std::memcpy(bytes.data(), &number, sizeof(number));
    return bytes;
}

std::wstring ShownHandle(HANDLE handle)
{
    auto value = static_cast<DWORD>(reinterpret_cast<std::uintptr_t>(handle));
    std::wstring digits;
    do {
        digits.insert(digits.begin(), L"0123456789abcdef"[value % 16]);
        value /= 16;
    } while (value != 0);
    return L"0X" + digits;
}

} // namespace vttest
