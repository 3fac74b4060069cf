#include "common/application_id.h"

#include "common/text.h"

#include <fmt/format.h>

#include <algorithm>

namespace toolkit {
namespace {

// What stands before an ID and behind it in the paths of its bitmap files. The library cuts a path that is longer than
// the system's limit at its end.
constexpr std::wstring_view BASE_STEM =
    L"\\\\?\\Volume{00000000-0000-0000-0000-000000000000}\\VelVolTrc\\VelVolTrc_base_";
constexpr std::wstring_view CHILD_STEM =
    L"\\\\?\\Volume{00000000-0000-0000-0000-000000000000}\\VelVolTrc\\VelVolTrc_child_";
constexpr std::wstring_view FILE_ENDING = L".dat";
constexpr std::size_t LONGEST_PATH = 259;
constexpr std::size_t LONGEST_ID = LONGEST_PATH - CHILD_STEM.size() - FILE_ENDING.size();

std::wstring BitmapFile(std::wstring_view stem, std::wstring_view id)
{
    std::wstring path(stem);
    path.append(id).append(FILE_ENDING);
    path.resize(std::min(path.size(), LONGEST_PATH));
    return path;
}

// A path that just fits is that of every longer ID whose path is cut to it.
bool ShareAFile(std::wstring_view a, std::wstring_view b)
{
    return EqualIgnoringCase(BitmapFile(BASE_STEM, a), BitmapFile(BASE_STEM, b)) ||
           EqualIgnoringCase(BitmapFile(CHILD_STEM, a), BitmapFile(CHILD_STEM, b));
}

std::string UnsuitableAlone(std::wstring_view id)
{
    if (id.empty())
        return "it is empty";
    if (id.front() == L' ' || id.back() == L' ')
        return "it begins or ends with a blank, which nobody sees";
    if (id.size() > LONGEST_ID)
        return fmt::format("it is longer than {} characters, so the path of its bitmap files would be cut", LONGEST_ID);
    if (id.find(L'*') != std::wstring_view::npos)
        return "it contains \"*\", which separates entries while lists are merged";
    for (const wchar_t c : id) {
        if (c < 0x20 || std::wstring_view(L"<>:\"/\\|?").find(c) != std::wstring_view::npos)
            return "it contains a character that cannot stand in a file name, and its bitmap files carry it";
    }
    if (ToWide(ToUtf8(id)) != id)
        return "it is no valid text: half of a character pair stands alone in it";
    if (EndsWithIgnoringCase(id, L".Last"))
        return "it ends in \".Last\", so its pending list would be another application's verify list";
    return {};
}

} // namespace

std::string UnsuitableBecause(std::wstring_view id, const std::vector<std::wstring>& registered)
{
    if (std::string reason = UnsuitableAlone(id); !reason.empty())
        return reason;
    for (const std::wstring& other : registered) {
        if (other == id || other.empty())
            continue;
        if (EqualIgnoringCase(other, id))
            return fmt::format("it differs from the registered \"{}\" only in case, so both would use the same files",
                               Shown(other));
        if (ShareAFile(other, id))
            return fmt::format("the path of a file of the registered \"{}\" is cut to its own, so both would use it",
                               Shown(other));
        if (EqualIgnoringCase(other, std::wstring(id) + L".Last"))
            return fmt::format("its verify list would be the pending list of the registered \"{}\"", Shown(other));
        if (std::wstring_view(other).ends_with(id))
            return fmt::format("it is the tail of the registered \"{}\", so it would be found in that one's place",
                               Shown(other));
        if (id.ends_with(other))
            return fmt::format("it ends in the registered \"{}\", so it would be found in that one's place",
                               Shown(other));
    }
    return {};
}

} // namespace toolkit
