#include "machine_state.h"

#include "checksum.h"
#include "failure.h"
#include "file.h"
#include "text.h"

#include <algorithm>

namespace vtbackup {
namespace {

using nlohmann::json;

constexpr std::uint64_t RECORD_LIMIT = 64 * 1024;
constexpr std::size_t MOST_SNAPSHOTS = 64; // as many as a volume can have

json ToJson(const BackupMark& mark)
{
    return {{"sequence", mark.sequence}, {"manifestChecksum", mark.manifestChecksum}};
}

BackupMark MarkFrom(const json& object)
{
    const json& sequence = object.at("sequence");
    // json would quietly turn -1 or 1.5 into an unsigned number.
    if (!sequence.is_number_unsigned())
        throw Failure(Exit::Damaged, "a sequence is no number");
    return {sequence.get<std::uint64_t>(), object.at("manifestChecksum").get<std::string>()};
}

} // namespace

std::wstring MachineState::ApplicationFolder(const std::string& application) const
{
    return Join(m_folder, ToWide(ToHex(ChecksumOf(application.data(), application.size()))));
}

std::wstring MachineState::File(const std::string& application, const VolumeName& volume, const wchar_t* ending) const
{
    return Join(ApplicationFolder(application), volume.guid + ending);
}

std::optional<LastSuccess> MachineState::Read(const std::string& application, const VolumeName& volume) const
{
    try {
        const std::optional<std::string> text =
            ReadSmallFile(File(application, volume, L".success.json"), RECORD_LIMIT);
        const json object = json::parse(text.value_or(""), nullptr, false);
        if (!object.is_object() || object.value("application", "") != application)
            return std::nullopt;
        LastSuccess success{object.at("repository").get<std::string>(), MarkFrom(object.at("backup")), {}};
        if (object.contains("before"))
            success.before = MarkFrom(object.at("before"));
        return success;
    } catch (const json::exception&) {
        return std::nullopt;
    } catch (const Failure&) {
        return std::nullopt;
    }
}

void MachineState::Write(const std::string& application, const VolumeName& volume, const LastSuccess& success) const
{
    MakeFolders(ApplicationFolder(application));
    json object = {{"application", application},
                   {"volume", ToUtf8(volume.guid)},
                   {"repository", success.repository},
                   {"backup", ToJson(success.backup)}};
    if (success.before)
        object["before"] = ToJson(*success.before);
    WriteSmallFileDurably(File(application, volume, L".success.json"), object.dump(2) + "\n");
}

void MachineState::Forget(const std::string& application) const
{
    const std::wstring folder = ApplicationFolder(application);
    for (const FolderEntry& entry : ListFolder(folder)) {
        if (!entry.folder && entry.name.ends_with(L".success.json"))
            RemoveFileIfThere(Join(folder, entry.name));
    }
}

bool MachineState::AskedForMonitoring(const std::string& application) const
{
    return FileExists(Join(ApplicationFolder(application), L"monitoring"));
}

void MachineState::NoteMonitoring(const std::string& application, bool asked) const
{
    const std::wstring path = Join(ApplicationFolder(application), L"monitoring");
    if (!asked) {
        RemoveFileIfThere(path);
        return;
    }
    MakeFolders(ApplicationFolder(application));
    WriteSmallFileDurably(path, application);
}

void MachineState::NoteSnapshot(const std::string& application, const VolumeName& volume, const std::wstring& id) const
{
    std::vector<std::wstring> ids = LeftSnapshots(application, volume);
    std::erase(ids, id); // a name that is given out again
    ids.push_back(id);
    if (ids.size() > MOST_SNAPSHOTS)
        ids.erase(ids.begin());
    MakeFolders(ApplicationFolder(application));
    WriteLeftSnapshots(application, volume, ids);
}

std::vector<std::wstring> MachineState::LeftSnapshots(const std::string& application, const VolumeName& volume) const
{
    const std::wstring text = ToWide(ReadSmallFile(File(application, volume, L".snapshot"), RECORD_LIMIT).value_or(""));
    std::vector<std::wstring> ids; // one to a line
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find(L'\n', begin), text.size());
        if (end > begin)
            ids.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return ids;
}

void MachineState::ForgetSnapshot(const std::string& application, const VolumeName& volume,
                                  const std::wstring& id) const
{
    std::vector<std::wstring> ids = LeftSnapshots(application, volume);
    if (std::erase(ids, id) == 0)
        return;
    if (ids.empty())
        RemoveFileIfThere(File(application, volume, L".snapshot"));
    else
        WriteLeftSnapshots(application, volume, ids);
}

void MachineState::WriteLeftSnapshots(const std::string& application, const VolumeName& volume,
                                      const std::vector<std::wstring>& ids) const
{
    std::string text;
    for (const std::wstring& id : ids)
        text += ToUtf8(id) + "\n";
    WriteSmallFileDurably(File(application, volume, L".snapshot"), text);
}

} // namespace vtbackup
