// A chain of one backup on a machine whose driver may forget writes.
#pragma once

#include "tools/vtbackup_test.h"

#include "vtfltsim/VTFltSimForget.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace vtbackup_test {

using nlohmann::json;

constexpr DWORD EXIT_LOST_TRACKING = 12;
constexpr DWORD EXIT_NOT_MARKED = 13;
constexpr const wchar_t* SERVICE_KEY = L"SYSTEM\\CurrentControlSet\\Services\\VTFlt";

class VtBackupAudit : public VtBackupTest {
protected:
    void SetUp() override
    {
        ASSERT_EQ(EXIT_OK, Init().exitCode);
        ASSERT_EQ(EXIT_OK, Backup().exitCode);
    }

    Result Audit(std::uint64_t count, const std::wstring& calls = {}, const wchar_t* application = L"App",
                 const std::vector<std::wstring>& more = {}) const
    {
        std::vector<std::wstring> arguments = Arguments(L"backup", application, &volume);
        arguments.insert(arguments.end(), {L"--audit", std::to_wstring(count)});
        arguments.insert(arguments.end(), more.begin(), more.end());
        return Run(arguments, calls);
    }

    // The same up to a call, and there something else.
    Result AuditWith(const std::wstring& call, const std::function<void(Process&)>& meanwhile) const
    {
        std::vector<std::wstring> arguments = Arguments(L"backup", L"App", &volume);
        arguments.insert(arguments.end(), {L"--audit", L"1000"});
        return RunWith(arguments, call, meanwhile);
    }

    // Writes a block of the snapshot itself, which its tracking sees.
    void Scribble(std::uint64_t block) const
    {
        const std::vector<std::uint8_t> bytes(BLOCK, 0x55);
        vtfltsim::Check("scribble", VTFltSimWriteSnapshot(machine.handle(), OnlySnapshot(), block * BLOCK, bytes.data(),
                                                          static_cast<DWORD>(bytes.size())));
    }
    // From the nth request on, the snapshot's own map cannot be had.
    void FailSnapshotMap(DWORD nth)
    {
        vtfltsim::Check("fail",
                        VTFltSimFailRequest(machine.handle(), GET_BITMAP, SnapshotPath().c_str(), nth, 0, ERROR_CRC));
    }

    void Forget(DWORD writes)
    {
        vtfltsim::Check("forget", VTFltSimForgetWrites(machine.handle(), volume.guid.c_str(), writes));
    }
    // A write that the driver does not see.
    void WriteUnseen(std::uint64_t block, std::uint8_t value)
    {
        Forget(1);
        Write(block, value);
    }

    static json AuditOf(const Result& result) { return json::parse(result.out).at("audit"); }

    // The checksum that an index file has for a block.
    std::string Stored(std::uint64_t sequence, std::uint64_t block) const
    {
        const std::vector<std::uint8_t> index = ReadFileBytes(BackupFile(sequence, L"index.bin"));
        for (std::size_t place = 24; place + 64 <= index.size(); place += 32) {
            std::uint64_t number = 0;
            for (int i = 7; i >= 0; --i)
                number = number * 256 + index[place + static_cast<std::size_t>(i)];
            if (number != block)
                continue;
            std::string text;
            for (std::size_t i = place + 16; i < place + 32; ++i) {
                text += "0123456789abcdef"[index[i] / 16];
                text += "0123456789abcdef"[index[i] % 16];
            }
            return text;
        }
        return "no record";
    }

    bool IsOnVerifyList(const std::wstring& application) const { return IsOnVerifyList(application, volume); }
    bool IsOnVerifyList(const std::wstring& application, const vtfltsim::Volume& which) const
    {
        const std::vector<std::uint8_t> value =
            machine.ReadValue(SERVICE_KEY, L"DeviceListForReSync" + application + L".Last");
        const std::wstring list(reinterpret_cast<const wchar_t*>(value.data()), value.size() / sizeof(wchar_t));
        return list.find(which.guid) != std::wstring::npos;
    }
    void ClearVerifyList(const std::wstring& application)
    {
        HKEY key = nullptr;
        vtfltsim::Check("key", VTFltSimOpenKey(machine.handle(), SERVICE_KEY, KEY_WRITE, &key));
        RegDeleteValueW(key, (L"DeviceListForReSync" + application + L".Last").c_str());
        RegCloseKey(key);
    }

    std::wstring LossFile(int sequence) const
    {
        const std::wstring first = BackupFile(1, L"");
        return first.substr(0, first.size() - 9) + L"lost-tracking-0000000" + std::to_wstring(sequence) + L".json";
    }

    // The next backup reads everything, says why, and holds what the volume holds; the one after it is incremental.
    void ExpectHealed(const char* reason, const wchar_t* application = L"App") const
    {
        const Result next = Backup(application);
        EXPECT_EQ(EXIT_OK, next.exitCode) << next.err;
        EXPECT_EQ("verify", next.kind) << next.out;
        EXPECT_TRUE(next.Has(reason)) << next.out;
        EXPECT_TRUE(Contents() == Restored(0, application));
        EXPECT_FALSE(IsOnVerifyList(application));
        EXPECT_EQ("incremental", Backup(application).kind);
    }
};

} // namespace vtbackup_test
