#include "proof/proof_log.h"

#include <cstdint>
#include <cstdio>
#include <string_view>

namespace vtproof {

namespace {

class Output final : public vtflt::IDBGLogOutput {
public:
    explicit Output(ProofLog& log) : m_log(log) {}
    void WriteLogA(int level, DWORD code, const char*) override { m_log.Add(level, code, L"narrow"); }
    void WriteLogW(int level, DWORD code, const wchar_t* text) override { m_log.Add(level, code, text); }
    DWORD GetLogLevel() override { return 4; }

private:
    ProofLog& m_log;
};

// Behind this text stands the address of a name, another one in every process: no part of what happened.
constexpr std::wstring_view WITH_AN_ADDRESS = L"Error: failed to query volume upper filter list. rc: ";

bool IsPrefix(std::wstring_view prefix, const wchar_t* text) noexcept
{
    std::size_t same = 0;
    while (same < prefix.size() && text[same] == prefix[same]) // ends at the text's end: no prefix has a zero in it
        ++same;
    return same == prefix.size();
}

} // namespace

ProofLog::ProofLog() : m_previous(vtflt::ExchangeLog(new vtflt::CDBGLog(new Output(*this), nullptr))) {}

ProofLog::~ProofLog()
{
    delete vtflt::ExchangeLog(m_previous);
}

void ProofLog::Add(int level, DWORD code, const wchar_t* text) noexcept
{
    constexpr std::size_t LONGEST = 1023;
    const auto mix = [this](std::uint64_t value) { m_sum = (m_sum ^ value) * 0x100000001b3ull; };
    mix(static_cast<std::uint64_t>(level));
    mix(code);
    const std::size_t known = IsPrefix(WITH_AN_ADDRESS, text) ? WITH_AN_ADDRESS.size() : SIZE_MAX;
    std::size_t length = 0;
    char line[256];
    std::size_t shown = 0;
    for (; text[length] != L'\0'; ++length) {
        if (length < known)
            mix(text[length]);
        if (text[length] == L'\n')
            ++m_broken;
        if (shown + 1 < sizeof(line))
            line[shown++] = static_cast<char>(text[length]);
    }
    line[shown] = '\0';
    if (length == 0 || length > LONGEST)
        ++m_broken;
    if (m_shows)
        std::fprintf(stderr, "        log %d %u %s\n", level, static_cast<unsigned>(code), line);
}

} // namespace vtproof
